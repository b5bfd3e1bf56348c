// integrator/estimator.h: the steps of one radiance estimate, private to this folder.
// All of them run on any thread, allocate nothing and do not fail.

#pragma once

#include "core/ray.h"
#include "imaging/imaging.h"
#include "shading/shading.h"

namespace zp {

// The camera that is rendered; null in an empty table.
Camera* ActiveCamera();

// Fills `point` from the hit of `ray`: position, frame, uv, layer, Fresnel weights. World space.
// False, with the point unfinished, for a hit that has no layer to show.
bool SetUpShadingPoint(const RayRecord& ray, ShadingPoint& point);

// An orthonormal frame around the unit vector point.normal. `tangent` of any length is bent into it; one that
// is parallel to the normal, or zero, is replaced.
void SetFrame(ShadingPoint& point, Vec3 tangent);

// The ray that leaves `point`, where `parent` has hit, by `event`. `throughput` is the child's own.
// The caller counts the bounce's kind, and sets sampleNumber and sampleWeight at a first hit.
RayRecord MakeChildRay(const RayRecord& parent, const ShadingPoint& point, Event event, Vec3 direction,
                       Vec3 throughput);

// What a lobe receives from the scene, without the lobe's colour. Black for a lobe of black throughput.
Vec3 GatherLambertian(const RayRecord& ray, const ShadingPoint& point);
Vec3 GatherTransmissive(const RayRecord& ray, const ShadingPoint& point);

// What a ray sees that hits nothing. Writes the sky's AOVs from camera rays.
Vec3 MissRadiance(const RayRecord& ray);
// What the hit surface sends back along the ray by itself. Writes the geometry light's AOVs.
Vec3 EmittedRadiance(const RayRecord& ray, const ShadingPoint& point);

// Adds to one pixel of an AOV; does nothing for a picture that was not allocated as floats.
void AddToAov(Aov& aov, std::size_t pixel, Vec3 value);

}  // namespace zp
