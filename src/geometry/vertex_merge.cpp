#include "geometry/vertex_merge.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <new>
#include <utility>

#include "core/large_array.h"
#include "core/threads.h"
#include "geometry/equal_positions.h"

namespace zp {
namespace {

struct ZeroSigns {
  std::uint64_t signs = 0;

  void Add(float x) {
    signs = signs << 1U | static_cast<std::uint64_t>(std::bit_cast<std::uint32_t>(x) == 1U << 31U);
  }
  void Add(Vec2 v) {
    Add(v.x);
    Add(v.y);
  }
  void Add(Vec3 v) {
    Add(v.x);
    Add(v.y);
    Add(v.z);
  }
  // Gives back the last one that was added and is left.
  void Restore(float& x) {
    if (x == 0.0f) x = (signs & 1U) != 0 ? -0.0f : 0.0f;
    signs >>= 1U;
  }
  void Restore(Vec2& v) {
    Restore(v.y);
    Restore(v.x);
  }
  void Restore(Vec3& v) {
    Restore(v.z);
    Restore(v.y);
    Restore(v.x);
  }
};

constexpr unsigned kSigns = VertexMerger::kSigns;

std::uint64_t FirstOf(std::uint64_t order, Vec3 position, const CornerData& data) {
  ZeroSigns zeros;
  zeros.Add(position);
  zeros.Add(data.uv);
  zeros.Add(data.motion);
  zeros.Add(data.endNormal);
  return order << kSigns | zeros.signs;
}

void RestoreZeros(std::uint64_t first, Vec3& position, CornerData& data) {
  ZeroSigns zeros = {first};
  zeros.Restore(data.endNormal);
  zeros.Restore(data.motion);
  zeros.Restore(data.uv);
  zeros.Restore(position);
}

bool IsSame(Vec2 a, Vec2 b) { return HasSameKey(a.x, b.x) && HasSameKey(a.y, b.y); }
bool IsSame(Vec3 a, Vec3 b) { return HasSameKey(a.x, b.x) && HasSameKey(a.y, b.y) && HasSameKey(a.z, b.z); }

// A set of corners that tells how many of it lie before one of them.
struct RankedSet {
  std::vector<std::uint64_t> words;
  std::vector<std::uint32_t> before;  // each word

  explicit RankedSet(std::size_t corners) : words(corners / 64 + 1), before(words.size()) {}
  void Add(std::uint64_t corner) {
    std::atomic_ref<std::uint64_t>(words[corner / 64])
        .fetch_or(1ULL << corner % 64, std::memory_order_relaxed);
  }
  std::uint32_t Count() {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < words.size(); ++i) {
      before[i] = sum;
      sum += static_cast<std::uint32_t>(std::popcount(words[i]));
    }
    return sum;
  }
  std::uint32_t Rank(std::uint64_t corner) const {
    const std::uint64_t below = words[corner / 64] & ((1ULL << corner % 64) - 1);
    return before[corner / 64] + static_cast<std::uint32_t>(std::popcount(below));
  }
};

// By all threads.
template <class T>
void Fill(RawVector<T>& array, std::size_t count, T value) {
  array.resize(count);
#pragma omp parallel for schedule(static) if (IsWorthThreads(count, 2))
  for (std::size_t i = 0; i < count; ++i) array[i] = value;
}

template <class T>
void GrowLarge(std::vector<T>& array, std::size_t count) {
  ReserveLarge(array, count);
  array.resize(count);
}

}  // namespace

VertexMerger::VertexMerger(std::span<const Vec3> positions, bool bare, bool moving, std::size_t known,
                           std::size_t corners)
    : positions_(positions), bare_(bare), moving_(moving), known_(known), corners_(corners) {
  equal_ = FirstEqual(positions_, true);
  if (bare_) {
    Fill(firsts_, positions_.size(), kNever);
    return;
  }
  Fill(lists_, positions_.size(), kNoEntry);
  constexpr std::size_t kMostEntries = std::size_t{1} << 17U;
  const std::size_t blockEntries = std::bit_ceil(std::clamp<std::size_t>(corners + known, 1, kMostEntries));
  blockMask_ = static_cast<std::uint32_t>(blockEntries - 1);
  blockBits_ = static_cast<std::uint32_t>(std::countr_zero(blockEntries));
  blocks_.resize((corners + known) / blockEntries + static_cast<std::size_t>(omp_get_max_threads()) + 1);
}

bool VertexMerger::Holds(std::uint32_t index, const CornerData& data) const {
  const Entry& entry = EntryAt(index);
  if (!(entry.normal == data.normal && IsSame(entry.uv, data.uv))) return false;
  if (!moving_) return true;
  const EntryMotion& motion = MotionAt(index);
  return IsSame(motion.motion, data.motion) && IsSame(motion.endNormal, data.endNormal);
}

// In the list from `index` on, as far as `end`. `place`: of a list for all positions.
std::uint32_t VertexMerger::FindFrom(std::uint32_t index, std::uint32_t end, std::uint32_t place,
                                     const CornerData& data) const {
  const auto isIt = [&] { return Holds(index, data) && (place == kOwnPlace || PlaceAt(index) == place); };
  while (index != end && !isIt()) index = EntryAt(index).next;
  return index;
}

std::uint32_t VertexMerger::NewEntry(std::uint32_t place, const CornerData& data, Share& share) {
  if (share.next == share.end) {
    const std::uint32_t block =
        std::atomic_ref<std::uint32_t>(usedBlocks_).fetch_add(1, std::memory_order_relaxed);
    const std::uint32_t count = blockMask_ + 1;
    blocks_[block].entries.resize(count);
    if (moving_) blocks_[block].motions = std::make_unique<EntryMotion[]>(count);
    share.next = block * count;
    share.end = share.next + count;
  }
  Entry& entry = EntryAt(share.next);
  entry.normal = data.normal;
  entry.uv = data.uv;
  if (moving_) MotionAt(share.next) = {data.motion, data.endNormal};
  if (place != kOwnPlace) {
    auto& places = blocks_[share.next >> blockBits_].places;
    if (!places) places = std::make_unique<std::uint32_t[]>(blockMask_ + 1);
    places[share.next & blockMask_] = place;
  }
  return share.next;
}

// The entry of that data in a list; kNoEntry if it is not there and its position's list is full, which none
// enters or leaves any more. `first` of a new one.
template <class First>
std::uint32_t VertexMerger::FindOrAdd(std::uint32_t& list, std::uint32_t place, const CornerData& data,
                                      First first, Share& share) {
  const std::atomic_ref<std::uint32_t> front(list);
  std::uint32_t head = front.load(std::memory_order_acquire), searched = kNoEntry;
  for (;;) {
    const std::uint32_t found = FindFrom(head, searched, place, data);
    if (found != searched) return found;
    const unsigned length = head == kNoEntry ? 0 : EntryAt(head).length;
    if (place == kOwnPlace && length == kFullList) return kNoEntry;
    const std::uint32_t added = NewEntry(place, data, share);
    Entry& entry = EntryAt(added);
    entry.first = first();
    entry.length = static_cast<std::uint8_t>(std::min<unsigned>(length + 1, kFullList));
    entry.next = searched = head;
    if (front.compare_exchange_weak(head, added, std::memory_order_acq_rel, std::memory_order_acquire)) {
      ++share.next;
      return added;
    }  // another thread was faster, maybe with the same
  }
}

// Where a corner stands whose position's list is full.
std::uint32_t& VertexMerger::CommonList(std::uint32_t place, const CornerData& data) {
  std::call_once(makesCommonLists_, [&] {
    constexpr std::size_t kCornersEach = 4;
    Fill(commonLists_, std::bit_ceil((corners_ + known_) / kCornersEach + 1), kNoEntry);
  });
  std::uint64_t hash = place;
  const auto mix = [&](std::uint32_t word) { hash = (std::rotl(hash, 29) ^ word) * 0x9E3779B97F4A7C15ULL; };
  mix(Bytes(data.normal));
  for (const float x : {data.uv.x, data.uv.y, data.motion.x, data.motion.y, data.motion.z, data.endNormal.x,
                        data.endNormal.y, data.endNormal.z})
    mix(FloatKey(x));
  return commonLists_[(hash >> 32U) & (commonLists_.size() - 1)];
}

// The order of a vertex's first corner stands above the signs of the zeros that it brought: all else that
// equal corners bring is the same to the bit.
void VertexMerger::TakeFirst(std::uint64_t& value, std::uint64_t first) {
  const std::atomic_ref<std::uint64_t> shared(value);
  std::uint64_t now = shared.load(std::memory_order_relaxed);
  while (first < now && !shared.compare_exchange_weak(now, first, std::memory_order_relaxed)) {
  }
}

void VertexMerger::TakeBare(std::uint64_t& value, std::uint32_t position, std::uint64_t order) {
  TakeFirst(value, FirstOf(order, positions_[position], {}));
}

std::uint32_t VertexMerger::AddEntry(std::uint32_t position, const CornerData& data, std::uint64_t order,
                                     Share& share) {
  const std::uint32_t place = equal_[position];
  const auto first = [&] { return FirstOf(order, positions_[position], data); };
  // Most corners find theirs at once; FindOrAdd, which no caller inlines, looks again.
  std::uint32_t found = std::atomic_ref<std::uint32_t>(lists_[place]).load(std::memory_order_acquire);
  while (found != kNoEntry && !Holds(found, data)) found = EntryAt(found).next;
  if (found == kNoEntry) found = FindOrAdd(lists_[place], kOwnPlace, data, first, share);
  if (found == kNoEntry) found = FindOrAdd(CommonList(place, data), place, data, first, share);
  std::uint64_t& known = EntryAt(found).first;  // mostly of a corner before
  if (std::atomic_ref<std::uint64_t>(known).load(std::memory_order_relaxed) >> kSigns > order)
    TakeFirst(known, first());
  return found;
}

CornerData VertexMerger::DataOf(std::uint32_t index) const {
  if (bare_) return {};
  const Entry& entry = EntryAt(index);
  CornerData data = {entry.uv, entry.normal};
  if (moving_) {
    data.motion = MotionAt(index).motion;
    data.endNormal = MotionAt(index).endNormal;
  }
  return data;
}

// For all that were added.
template <class Visit>
void VertexMerger::ForEachEntry(Visit visit) {
#pragma omp parallel for schedule(static) if (IsWorthThreads(positions_.size(), 10))
  for (std::size_t p = 0; p < positions_.size(); ++p) {
    if (bare_) {
      if (firsts_[p] != kNever) visit(p, static_cast<std::uint32_t>(p), firsts_[p]);
      continue;
    }
    for (std::uint32_t e = lists_[p]; e != kNoEntry; e = EntryAt(e).next) visit(p, e, EntryAt(e).first);
  }
#pragma omp parallel for schedule(static) if (IsWorthThreads(commonLists_.size(), 10))
  for (const std::uint32_t list : commonLists_)
    for (std::uint32_t e = list; e != kNoEntry; e = EntryAt(e).next) visit(PlaceAt(e), e, EntryAt(e).first);
}

void VertexMerger::AppendVertices(Part& part, std::vector<Vec3>& motions, std::vector<Vec3>& endNormals) {
  const auto orderOf = [](std::uint64_t first) { return static_cast<std::size_t>(first >> kSigns); };
  RankedSet firsts(corners_);
  ForEachEntry([&](std::size_t, std::uint32_t, std::uint64_t first) {
    if (orderOf(first) >= known_) firsts.Add(orderOf(first) - known_);
  });
  const std::size_t count = known_ + firsts.Count();
  GrowLarge(part.positions, count);
  GrowLarge(part.uvSets[0].values, count);
  GrowLarge(part.normals, count);
  GrowLarge(part.tangents, count);
  if (moving_) motions.resize(count);
  if (moving_) endNormals.resize(count);
  ForEachEntry([&](std::size_t p, std::uint32_t entry, std::uint64_t& first) {
    const std::size_t order = orderOf(first);
    const std::size_t number = order < known_ ? order : known_ + firsts.Rank(order - known_);
    if (order >= known_) {
      Vec3 position = positions_[p];
      CornerData data = DataOf(entry);
      RestoreZeros(first, position, data);
      part.positions[number] = position;
      part.uvSets[0].values[number] = data.uv;
      part.normals[number] = data.normal;
      if (moving_) motions[number] = data.motion;
      if (moving_) endNormals[number] = data.endNormal;
    }
    first = number;
  });
}

}  // namespace zp
