// fuzz/fuzz.h: what the fuzz targets share. A target hands any bytes to one reader and then requires that
// what the reader left is well formed; sanitizers watch the rest. With the presets `fuzz` (sanitizers) and
// `fuzz-fast` (none) libFuzzer drives a target, elsewhere fuzz/driver.cpp does. What made a target stop
// belongs into its corpus.
//   cmake --preset fuzz && cmake --build --preset fuzz
//   mkdir found && build/fuzz/zp_fuzz_obj -runs=10000000 -entropic=0 -timeout=5 found fuzz/corpus/obj
//   build/release/zp_fuzz_obj found runs=10000000
// libFuzzer's entropic schedule takes more time than a reader does, once the corpus has grown.

#pragma once

#include <cstddef>
#include <cstdint>

#include "geometry/geometry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zp {

// No rows, no files, one thread, and tables as a program starts with them. Called before each input.
void ClearTables();

// Aborts, naming the line, unless `condition` holds.
void Require(bool condition, int line);

// Every strand has its segments, each between two positions, in the order of the strands.
void RequireStrands(const Part& part);
// Prepares the Part as for a tree; then no index may leave its array, and no array of a value a vertex may
// have another length.
void RequirePrepared(Part& part);

}  // namespace zp
