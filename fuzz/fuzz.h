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

#include "core/validate.h"
#include "geometry/geometry.h"
#include "geometry/validate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zp {

// No rows, no files, one thread, and tables as a program starts with them. Called before each input.
void ClearTables();

// Aborts, naming the line, unless `condition` holds.
void Require(bool condition, int line);

// Prepares the Part as for a tree, and aborts unless it is sound then.
inline void RequirePrepared(Part& part) {
  PreparePart(part, Object());
  RequireSound(ValidatePart(part));
}

}  // namespace zp
