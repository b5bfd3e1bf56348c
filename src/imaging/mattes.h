// imaging/mattes.h: which objects, or shaders, the samples of each pixel have met, by Cryptomatte's layout.
// Friedman and Jones, "Fully Automatic ID Mattes with Support for Motion Blur and Transparency", 2015, and
// version 1.2.0 of the layout that Psyop has made of it.
//
// An id is the hash of a name; each sample meets one, or nothing. So a pixel has counts, which any number of
// passes and parts adds up to, in any order, and coverage is a count by the samples.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zp {

// MurmurHash3_32 (Appleby, public domain) of bytes that come one after the other.
class NameHash {
 public:
  void Add(std::string_view bytes);
  // Of what was added, as an id: its bits are those of a float that is neither denormal, infinite nor no
  // number, as the exponent is changed where it would be. Never 0.
  std::uint32_t Id() const;

 private:
  std::uint32_t hash_ = 0, tail_ = 0, size_ = 0;
};
inline std::uint32_t IdOf(std::string_view name) {
  NameHash hash;
  hash.Add(name);
  return hash.Id();
}

struct MatteEntry {
  std::uint32_t id = 0;  // 0: nothing
  std::uint32_t count = 0;
  friend bool operator==(const MatteEntry&, const MatteEntry&) = default;
};

// The counts of all pixels. Different threads may write different rows.
class MatteLists {
 public:
  // Ids of a pixel that a render keeps, of which files hold the six of most samples: more give way to those
  // that have been met more often.
  static constexpr std::size_t kMostIds = 32;

  void Resize(std::int32_t width, std::int32_t height);  // empties them, too
  void Clear() { Resize(width_, Height()); }
  std::int32_t Width() const { return width_; }
  std::int32_t Height() const { return static_cast<std::int32_t>(rows_.size()); }
  std::size_t Bytes() const;

  // Before each pass, so that none of its samples needs memory.
  void MakeRoom();
  // One more sample of a pixel has met the id. Finds room: see MakeRoom.
  void Count(std::int32_t x, std::int32_t y, std::uint32_t id);

  // Adds the counts of a whole row: how many ids each of its pixels has, and these. No id is lost. False,
  // with nothing changed, if they are not those of a row.
  bool AddRow(std::int32_t y, const std::vector<std::uint16_t>& numbers,
              const std::vector<MatteEntry>& entries);
  // The same of this row.
  void TakeRow(std::int32_t y, std::vector<std::uint16_t>& numbers, std::vector<MatteEntry>& entries) const;
  // Of a pixel, those of most samples first.
  std::vector<MatteEntry> Ranked(std::int32_t x, std::int32_t y) const;

 private:
  static constexpr std::uint32_t kLast = 0xffffffff;
  struct Link {
    MatteEntry entry;
    std::uint32_t next = kLast;  // among the row's own, behind its pixels
  };
  using Row = std::vector<Link>;  // a link for each pixel, then the other links of all of them

  void Add(Row& row, std::int32_t x, MatteEntry entry, std::size_t most);

  std::int32_t width_ = 0;
  std::vector<Row> rows_;
};

// A pixel's six ranks are three layers of two ids and two coverages each.
inline constexpr int kMatteRanks = 6;

// A name that hits may have, and its id.
struct MatteName {
  std::string name;
  std::uint32_t id = 0;
};

}  // namespace zp
