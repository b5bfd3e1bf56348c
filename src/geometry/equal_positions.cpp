#include "geometry/equal_positions.h"

#include <omp.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <vector>

#include "core/threads.h"

namespace zp {

namespace {

constexpr std::uint32_t kUnused = 0xFFFFFFFF;

struct HashedPosition {
  std::uint32_t hash, index;
};

std::uint32_t PositionHash(Vec3 p) {
  std::uint64_t h = FloatKey(p.x) * 0x9E3779B97F4A7C15ULL;
  h = (std::rotl(h, 29) ^ FloatKey(p.y)) * 0xD6E8FEB86659FD93ULL;
  h = (std::rotl(h, 29) ^ FloatKey(p.z)) * 0xD6E8FEB86659FD93ULL;
  return static_cast<std::uint32_t>(h >> 32U);
}

bool IsEqual(Vec3 a, Vec3 b, bool byBits) {
  return a == b || (byBits && HasSameKey(a.x, b.x) && HasSameKey(a.y, b.y) && HasSameKey(a.z, b.z));
}

// The positions that may have equals, dealt into shares by their hashes, each share in the order of the
// indices. Every thread deals a range of its own.
struct Shares {
  int bits;
  RawVector<HashedPosition> order;
  std::vector<std::size_t> begins;  // of each share; one more at the end

  std::size_t ShareOf(std::uint32_t hash) const { return std::size_t{hash >> (32 - bits)}; }
};

Shares Deal(std::span<const Vec3> positions, bool byBits) {
  constexpr std::size_t kShare = 2048;  // small enough for a table that stays in the cache
  const std::size_t count = positions.size();
  Shares shares = {std::clamp(static_cast<int>(std::bit_width(count / kShare)), 1, 12), {}, {}};
  const std::size_t shareCount = std::size_t{1} << shares.bits;
  const int ranges = IsWorthThreads(count, 10) ? omp_get_max_threads() : 1;
  std::vector<std::size_t> places(shareCount * static_cast<std::size_t>(ranges));  // of each share, by range
  shares.order.resize(count);
  shares.begins.assign(shareCount + 1, 0);
  const auto forRange = [&](int range, auto visit) {
    const auto at = [&](int i) {
      return count * static_cast<std::size_t>(i) / static_cast<std::size_t>(ranges);
    };
    std::size_t* const own = places.data() + shareCount * static_cast<std::size_t>(range);
    for (std::size_t v = at(range); v < at(range + 1); ++v) {
      if (!IsEqual(positions[v], positions[v], byBits)) continue;
      const std::uint32_t hash = PositionHash(positions[v]);
      visit(own[shares.ShareOf(hash)], hash, static_cast<std::uint32_t>(v));
    }
  };
#pragma omp parallel for schedule(static, 1) if (ranges > 1)
  for (int range = 0; range < ranges; ++range)
    forRange(range, [](std::size_t& place, std::uint32_t, std::uint32_t) { ++place; });
  std::size_t sum = 0;
  for (std::size_t share = 0; share < shareCount; ++share) {
    shares.begins[share] = sum;
    for (std::size_t place = share; place < places.size(); place += shareCount) {
      const std::size_t held = places[place];
      places[place] = sum;
      sum += held;
    }
  }
  shares.begins[shareCount] = sum;
#pragma omp parallel for schedule(static, 1) if (ranges > 1)
  for (int range = 0; range < ranges; ++range)
    forRange(range, [&](std::size_t& place, std::uint32_t hash, std::uint32_t v) {
      shares.order[place++] = {hash, v};
    });
  return shares;
}

}  // namespace

RawVector<std::uint32_t> FirstEqual(std::span<const Vec3> positions, bool byBits) {
  const Shares shares = Deal(positions, byBits);
  const std::size_t shareCount = shares.begins.size() - 1;
  RawVector<std::uint32_t> first(positions.size());
#pragma omp parallel if (IsWorthThreads(positions.size(), 20))
  {
#pragma omp for schedule(static)
    for (std::size_t v = 0; v < first.size(); ++v) first[v] = static_cast<std::uint32_t>(v);
    std::vector<HashedPosition> table;
#pragma omp for schedule(dynamic)
    for (std::size_t share = 0; share < shareCount; ++share) {
      const std::size_t begin = shares.begins[share], end = shares.begins[share + 1];
      const std::size_t mask = std::bit_ceil(2 * (end - begin) + 1) - 1;
      table.assign(mask + 1, {0, kUnused});
      for (std::size_t i = begin; i < end; ++i) {
        const HashedPosition own = shares.order[i];
        std::size_t slot = own.hash & mask;
        const auto isOther = [&](HashedPosition held) {
          return held.hash != own.hash || !IsEqual(positions[held.index], positions[own.index], byBits);
        };
        while (table[slot].index != kUnused && isOther(table[slot])) slot = (slot + 1) & mask;
        if (table[slot].index == kUnused)
          table[slot] = own;
        else
          first[own.index] = table[slot].index;
      }
    }
  }
  return first;
}

}  // namespace zp
