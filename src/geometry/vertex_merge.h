// geometry/vertex_merge.h: equal corners of faces become one vertex. Any thread may add any corner; the
// vertices are numbered as if the corners had come one after the other.

#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "core/release.h"
#include "core/vec.h"
#include "geometry/object.h"

namespace zp {

// What a corner brings along but for its position.
struct CornerData {
  Vec2 uv = {};
  PackedVector normal = {};
  Vec3 motion = {}, endNormal = {};  // of a model with an end
};

// Entries are shared: one for each vertex, in a list for each position of which equals share the first's.
// What finds its position's list full stands in one of many lists for all positions, by a hash of its data:
// the hub of a fan may have a million texture coordinates.
class VertexMerger {
 public:
  // `bare`: no corner has other data than zeros. `known` vertices stand in the Part already; the positions
  // are theirs and then those of the file, and `corners` is the most that will be added.
  VertexMerger(std::span<const Vec3> positions, bool bare, bool moving, std::size_t known,
               std::size_t corners);

  // The entries that a thread may use up.
  struct alignas(64) Share {  // a cache line each
    std::uint32_t next = 0, end = 0;
  };
  // Adds a corner at that position; `order` tells which of equal ones came first, and is the number of a
  // known vertex. Returns the vertex's entry.
  std::uint32_t Add(std::uint32_t position, const CornerData& data, std::uint64_t order, Share& share) {
    if (!bare_) return AddEntry(position, data, order, share);
    const std::uint32_t place = equal_[position];  // most corners find one before them there
    const std::uint64_t now = std::atomic_ref<std::uint64_t>(firsts_[place]).load(std::memory_order_relaxed);
    if (now >> kSigns > order) TakeBare(firsts_[place], position, order);
    return place;
  }

  // When all are added: numbers the vertices by their first corners, the known ones as they are, and appends
  // the new ones to the Part's positions, first uvs, normals and tangents, and to the two arrays if they
  // move.
  void AppendVertices(Part& part, std::vector<Vec3>& motions, std::vector<Vec3>& endNormals);
  // After that: the vertex's number.
  std::uint32_t Number(std::uint32_t entry) const {
    return static_cast<std::uint32_t>(bare_ ? firsts_[entry] : EntryAt(entry).first);
  }

  static constexpr unsigned kSigns = 11;  // bits below an order, see TakeFirst

 private:
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};
  static constexpr std::uint32_t kNoEntry = 0xFFFFFFFF, kOwnPlace = 0xFFFFFFFF;
  static constexpr std::uint8_t kFullList = 32;

  struct Entry {
    std::uint64_t first = kNever;  // see TakeFirst; at last the vertex's number
    std::uint32_t next = kNoEntry;
    PackedVector normal;
    std::uint8_t length = 0;  // of a position's list from here on
    Vec2 uv;
  };
  static_assert(sizeof(Entry) == 24);
  struct EntryMotion {
    Vec3 motion, endNormal;
  };
  struct Block {
    RawVector<Entry> entries;
    std::unique_ptr<EntryMotion[]> motions;
    std::unique_ptr<std::uint32_t[]> places;  // where some stand in the lists for all positions
  };

  Entry& EntryAt(std::uint32_t index) { return blocks_[index >> blockBits_].entries[index & blockMask_]; }
  const Entry& EntryAt(std::uint32_t index) const {
    return blocks_[index >> blockBits_].entries[index & blockMask_];
  }
  EntryMotion& MotionAt(std::uint32_t index) const {
    return blocks_[index >> blockBits_].motions[index & blockMask_];
  }
  std::uint32_t AddEntry(std::uint32_t position, const CornerData& data, std::uint64_t order, Share& share);
  void TakeBare(std::uint64_t& value, std::uint32_t position, std::uint64_t order);
  static void TakeFirst(std::uint64_t& value, std::uint64_t first);
  bool Holds(std::uint32_t index, const CornerData& data) const;
  std::uint32_t PlaceAt(std::uint32_t index) const {
    return blocks_[index >> blockBits_].places[index & blockMask_];
  }
  std::uint32_t FindFrom(std::uint32_t index, std::uint32_t end, std::uint32_t place,
                         const CornerData& data) const;
  std::uint32_t NewEntry(std::uint32_t place, const CornerData& data, Share& share);
  template <class First>
  std::uint32_t FindOrAdd(std::uint32_t& list, std::uint32_t place, const CornerData& data, First first,
                          Share& share);
  std::uint32_t& CommonList(std::uint32_t place, const CornerData& data);
  CornerData DataOf(std::uint32_t index) const;
  template <class Visit>
  void ForEachEntry(Visit visit);  // visit(position, entry, first) by all threads

  std::span<const Vec3> positions_;
  bool bare_, moving_;
  std::size_t known_, corners_;
  RawVector<std::uint32_t> equal_;        // of each position: the first one that is equal
  RawVector<std::uint64_t> firsts_;       // bare: of each position, in place of entries
  RawVector<std::uint32_t> lists_;        // of each position: its first entry
  RawVector<std::uint32_t> commonLists_;  // for all positions, a power of two; none while no list is full
  std::once_flag makesCommonLists_;
  std::uint32_t blockBits_ = 0, blockMask_ = 0;  // entries of a block
  std::uint32_t usedBlocks_ = 0;
  std::vector<Block> blocks_;
};

}  // namespace zp
