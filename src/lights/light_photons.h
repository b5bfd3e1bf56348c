// lights/light_photons.h: the start of every photon ray, private to this folder.

#pragma once

#include "lights/lights.h"

namespace zp {

// Makes `ray` a fresh photon ray, except its thread, which the caller has set: no event, nothing hit, no
// parent. Its first Halton dimension is the one behind those that its start has used up.
inline void StartPhotonRay(RayRecord& ray, std::uint32_t sample, std::int32_t dimension, float ior) {
  const std::uint8_t thread = ray.thread;
  ray = {};
  ray.thread = thread;
  ray.sampleNumber = sample;
  ray.dimension = dimension;
  ray.points = PhotonPoints(sample);
  ray.ior = ior;
  ray.event = ray.previousEvent = 0;
  ray.photonIndirect = true;
}

void AimSky();  // the sky's share of AimPhotons

}  // namespace zp
