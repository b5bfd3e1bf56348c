// lights/light_photons.h: the start of every photon ray, private to this folder.

#pragma once

#include "lights/lights.h"
#include "lights/photon_numbers.h"

namespace zp {

// Makes `ray` a fresh photon ray, except its thread, which the caller has set: no event, nothing hit, no
// parent. Its first Halton dimension is the one behind those that its start has used up.
inline void StartPhotonRay(RayRecord& ray, const PhotonNumbers& numbers, std::int32_t dimension, float ior) {
  const std::uint8_t thread = ray.thread;
  ray = {};
  ray.thread = thread;
  ray.sampleNumber = numbers.sample;
  ray.dimension = dimension;
  ray.points = numbers.Onwards();
  ray.ior = ior;
  ray.event = ray.previousEvent = 0;
  ray.photonIndirect = true;
}

void AimSky();  // the sky's share of AimPhotons

}  // namespace zp
