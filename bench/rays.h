// bench/rays.h: the rays that both sides trace, made once and stored, and our side of tracing them.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "core/box.h"
#include "core/vec.h"

namespace zp {

inline constexpr int kImageSize = 1024;       // pixels of a row and rows of the picture
inline constexpr int kRayChunk = kImageSize;  // rays that a thread takes at a time

struct StoredRay {
  Vec3 origin;              // scene units
  Vec3 direction;           // unit length
  float limit = kFarthest;  // what lies beyond does not count; shadow rays alone heed it
};
using RaySet = std::vector<StoredRay>;

// What a traced set gave. Sums of distances are compared between sides, so they are exact enough in double.
struct HitSums {
  std::uint64_t hits = 0;
  double distance = 0;  // scene units, over the hits
};

// Runs trace(i, sums) for every i below count, in chunks that `threads` threads take in turn.
template <class F>
HitSums ForRays(std::size_t count, int threads, F trace) {
  std::uint64_t hits = 0;
  double distance = 0;
  const auto chunks = static_cast<std::int64_t>((count + kRayChunk - 1) / kRayChunk);
#pragma omp parallel num_threads(threads) reduction(+ : hits, distance)
  {
    HitSums own;
#pragma omp for schedule(dynamic, 1)
    for (std::int64_t chunk = 0; chunk < chunks; ++chunk) {
      const std::size_t first = static_cast<std::size_t>(chunk) * kRayChunk;
      const std::size_t last = first + kRayChunk < count ? first + kRayChunk : count;
      for (std::size_t i = first; i < last; ++i) trace(i, own);
    }
    hits += own.hits;
    distance += own.distance;
  }
  return {hits, distance};
}

// make(origin, normal, i) for the first hit of each ray number i on the entered mesh; origins as of
// bounce rays, the normal of unit length on the side that was hit.
RaySet RaysFromHits(const RaySet& rays, const Box& bounds, int threads,
                    const std::function<StoredRay(Vec3, Vec3, std::size_t)>& make);

// A pinhole picture of 1024 x 1024 pixels, row after row, from above one corner of the bounds.
RaySet CameraRays(const Box& bounds);
// One ray from each first hit of `rays` on the entered mesh, cosine-distributed about the normal of the
// face on the side that was hit. Origins stand off the surface by 1e-5 of the diagonal of the bounds.
RaySet BounceRays(const RaySet& rays, const Box& bounds, int threads);

// One shadow ray from each first hit of `rays` on the entered mesh to a point light above the bounds' centre.
// Origins as of bounce rays.
RaySet ShadowRays(const RaySet& rays, const Box& bounds, int threads);

// Shadow rays through the entered mesh's tree; `hits` counts the blocked ones. With `blocked` of the set's
// size, it is filled: 1 for a blocked ray, -1 for another.
HitSums OccludeOurs(const RaySet& rays, int threads, std::vector<float>* blocked = nullptr);

// Nearest hits through the entered mesh's tree. With `distances` of the set's size, they are filled: -1 for
// a miss.
HitSums TraceOurs(const RaySet& rays, int threads, std::vector<float>* distances = nullptr);

}  // namespace zp
