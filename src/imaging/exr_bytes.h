// imaging/exr_bytes.h: bytes in memory as OpenEXR's library reads and writes them.

#pragma once

#include <ImfIO.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

#include "core/stop.h"

namespace zp {

// The bytes must live as long. Ends with an exception where they end early, or all work is stopped.
class BytesIn : public Imf::IStream {
 public:
  explicit BytesIn(std::span<const std::uint8_t> bytes) : IStream("picture"), bytes_(bytes) {}
  bool read(char out[], int count) override {
    if (Stopping() || count < 0 || static_cast<std::uint64_t>(count) > bytes_.size() - at_)
      throw std::runtime_error("the file ends early");
    std::memcpy(out, bytes_.data() + at_, static_cast<std::size_t>(count));
    at_ += static_cast<std::size_t>(count);
    return at_ < bytes_.size();
  }
  std::uint64_t tellg() override { return at_; }
  void seekg(std::uint64_t at) override {
    if (at > bytes_.size()) throw std::runtime_error("the file ends early");
    at_ = at;
  }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

class BytesOut : public Imf::OStream {
 public:
  BytesOut() : OStream("picture") {}
  void write(const char in[], int count) override {
    const auto size = static_cast<std::size_t>(count);
    bytes.resize(std::max(bytes.size(), at_ + size));
    std::memcpy(bytes.data() + at_, in, size);
    at_ += size;
  }
  std::uint64_t tellp() override { return at_; }
  void seekp(std::uint64_t at) override { at_ = at; }

  std::string bytes;

 private:
  std::size_t at_ = 0;
};

}  // namespace zp
