// bench/embree_side.h: the same mesh and the same rays through Embree 3, where it is installed. Elsewhere
// kEmbreePresent is false and nothing here is called.

#pragma once

#include <vector>

#include "geometry/object.h"
#include "rays.h"

namespace zp {

#ifdef ZP_HAS_EMBREE
inline constexpr bool kEmbreePresent = true;
#else
inline constexpr bool kEmbreePresent = false;
#endif

// Copies of the Part's vertices and triangles for Embree; tetragons become two triangles each, strands
// round Hermite curves with the same tangents, particles spheres: one kind a Part. Opens the
// device, whose builds then use `threads` threads; one device at a time, as all share their worker threads.
void OpenEmbree(const Part& part, int threads);
void CloseEmbree();
// A scene of medium quality over the mesh, committed; replaces the one before, which is freed before the
// clock starts. Returns the seconds of the construction; negative if Embree reports an error.
double BuildEmbree();
// Nearest hits through the built scene, as TraceOurs.
HitSums TraceEmbree(const RaySet& rays, int threads, std::vector<float>* distances = nullptr);
// Shadow rays, as OccludeOurs.
HitSums OccludeEmbree(const RaySet& rays, int threads, std::vector<float>* blocked = nullptr);

}  // namespace zp
