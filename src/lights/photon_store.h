// lights/photon_store.h: the caustic photons, and the tree that finds those near a point.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/box.h"
#include "core/release.h"
#include "core/vec.h"

namespace zp {

// A unit vector in 16 bits: the major axis + 1 (two bits, never 0), the octant (three bits), and the ratios
// of the two other components to the major one (five bits each). Within about 3 degrees.
std::uint16_t PackDirection(Vec3 v);
Vec3 UnpackDirection(std::uint16_t packed);  // unit length

// Where a photon of a path light, mirrors or glass, diffuse surface has landed.
struct PhotonRecord {
  Vec3 position;           // world space
  Vec3 power;              // flux over pi, before the surface's colour
  std::uint16_t incoming;  // packed; to where the photon came from
  std::uint16_t normal;    // packed; geometric, on that side
};
static_assert(sizeof(PhotonRecord) == 28);

struct PhotonNode {
  std::uint32_t first;  // inner node: its first child; leaf: its first photon
  union {
    float split;          // inner node: coordinate
    std::uint32_t count;  // leaf: photons
  };
  std::uint8_t axis;
  std::uint8_t children;  // 0 leaf, 1 the lower one alone, 2 the upper one alone, 3 both
};
static_assert(sizeof(PhotonNode) == 12);

struct PhotonStore {
  std::vector<PhotonRecord> photons;  // in the order of the leaves, once built
  std::vector<std::uint16_t> slots;   // what each photon is told apart by; empty where nothing asks
  RawVector<PhotonNode> nodes;        // node 0 is the root
  Box box;                            // of all positions
};
extern PhotonStore photonStore;

// Builds the tree over photonStore.photons with up to the OpenMP maximum of threads. `radius`: leaves need
// not be smaller than a quarter of it. Prints the rows.
void BuildPhotonStore(float radius);
void EmptyPhotonStore();

inline constexpr int kMostFoundPhotons = 32;

// The photons nearest to a point.
struct FoundPhotons {
  struct Found {
    float squaredDistance;
    std::uint32_t photon;  // index in photonStore.photons
  };
  std::array<Found, kMostFoundPhotons> found;
  int count = 0;
  float largestSquared = 0;  // distance of the farthest of them
};
// Up to 32 photons within sqrt(squaredRadius), from surfaces that face as `normal` does within 60 degrees.
// Any thread.
void FindPhotons(Vec3 position, Vec3 normal, float squaredRadius, FoundPhotons& result);

}  // namespace zp
