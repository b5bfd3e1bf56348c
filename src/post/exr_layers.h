// post/exr_layers.h: OpenEXR files of layers; private to this folder.

#pragma once

#include <ImfThreading.h>
#include <omp.h>

#include <cstdint>
#include <span>

#include "imaging/output_file.h"
#include "post/layers.h"

namespace zp {

// OpenEXR's own threads, as long as a file is open.
struct ExrThreads {
  ExrThreads() { Imf::setGlobalThreadCount(omp_get_max_threads()); }
  ~ExrThreads() { Imf::setGlobalThreadCount(0); }
};

// Both throw std::exception of what is wrong; the file keeps failures of the disk for itself.
// How many numbers were held.
std::size_t EncodeLayers(const LayeredPicture& picture, OutputFile& file, bool evenStopped);
LayeredPicture DecodeLayers(std::span<const std::uint8_t> bytes);

}  // namespace zp
