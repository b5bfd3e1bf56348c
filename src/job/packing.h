// job/packing.h: zstd streams of plain values, with a checksum; private to this folder.

#pragma once

#include <zstd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <vector>

#include "imaging/output_file.h"

namespace zp {

// Compresses what it is given into a file.
class Packer {
 public:
  explicit Packer(OutputFile& file)
      : file_(file), context_(ZSTD_createCCtx(), ZSTD_freeCCtx), buffer_(ZSTD_CStreamOutSize()) {
    constexpr int kLevel = 1;  // floats with noise shrink little at any
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_compressionLevel, kLevel);
    ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
  }
  void Add(const void* bytes, std::size_t size) { Push({bytes, size, 0}, ZSTD_e_continue); }
  void Finish() { Push({nullptr, 0, 0}, ZSTD_e_end); }

 private:
  void Push(ZSTD_inBuffer in, ZSTD_EndDirective directive) {
    std::size_t left = 1;
    while (in.pos < in.size || (directive == ZSTD_e_end && left != 0)) {
      ZSTD_outBuffer out = {buffer_.data(), buffer_.size(), 0};
      left = ZSTD_compressStream2(context_.get(), &out, &in, directive);
      if (ZSTD_isError(left)) throw std::bad_alloc();  // nothing else is wrong with bytes in memory
      file_.Write(buffer_.data(), out.pos);
    }
  }

  OutputFile& file_;
  std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context_;
  std::vector<char> buffer_;
};

// The reverse, from a stream. False once anything is missing or wrong.
class Unpacker {
 public:
  explicit Unpacker(std::FILE* file)
      : file_(file), context_(ZSTD_createDCtx(), ZSTD_freeDCtx), buffer_(ZSTD_DStreamInSize()) {}

  bool Take(void* bytes, std::size_t size) {
    ZSTD_outBuffer out = {bytes, size, 0};
    while (out.pos < out.size)
      if (!Step(out)) return false;
    return true;
  }
  // In steps, so that a size that lies takes no memory.
  template <class T>
  bool Take(std::vector<T>& values, std::size_t count) {
    constexpr std::size_t kStep = std::size_t{1} << 22;
    values.clear();
    while (values.size() < count) {
      const std::size_t begin = values.size(), step = std::min(kStep, count - begin);
      values.resize(begin + step);
      if (!Take(values.data() + begin, step * sizeof(T))) return false;
    }
    return true;
  }
  // Nothing is left, and the checksum is right.
  bool EndsHere() {
    char more = 0;
    ZSTD_outBuffer out = {&more, 1, 0};
    while (!ended_ && out.pos == 0)
      if (!Step(out)) return false;
    return out.pos == 0 && in_.pos == in_.size && std::fgetc(file_) == EOF;
  }

 private:
  bool Step(ZSTD_outBuffer& out) {
    if (ended_) return false;
    if (in_.pos == in_.size) in_ = {buffer_.data(), std::fread(buffer_.data(), 1, buffer_.size(), file_), 0};
    const std::size_t before = out.pos, taken = in_.pos;
    const std::size_t left = ZSTD_decompressStream(context_.get(), &out, &in_);
    ended_ = left == 0;
    return !ZSTD_isError(left) && (ended_ || out.pos > before || in_.pos > taken);
  }

  std::FILE* file_;
  std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context_;
  std::vector<char> buffer_;
  ZSTD_inBuffer in_ = {};
  bool ended_ = false;
};

}  // namespace zp
