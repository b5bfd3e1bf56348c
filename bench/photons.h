// bench/photons.h: caustic photons without a scene, to measure their store.

#pragma once

#include <cstddef>
#include <vector>

#include "lights/photon_store.h"

namespace zp {

// `count` landings on the floor of a unit square and on a wall of it: half evenly spread, half thick along
// arcs, as rings and glasses throw them.
std::vector<PhotonRecord> MakePhotons(std::size_t count);

// Seconds to build the store of a copy of `photons`, for gathers of `radius`; the copy is not counted.
double TimeStore(const std::vector<PhotonRecord>& photons, float radius);

// Seconds of the gathers within `radius` around every `stride`th photon of the built store, on `threads`
// threads. The stored order runs along the leaves, so that neighbouring queries are near each other, like
// pixels.
double TimeGathers(float radius, std::size_t stride, int threads);

}  // namespace zp
