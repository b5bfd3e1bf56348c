// core/tables.h: the tables that Startup fills once: radical inverses, pixel rotations, powers of two, noise.

#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/vec.h"

namespace zp {

inline constexpr int kHaltonDimensions = 16;
inline constexpr int kHaltonSamples = 4096;
inline constexpr std::array<std::uint32_t, kHaltonDimensions> kHaltonBases = {2,  3,  5,  7,  11, 13, 17, 19,
                                                                              23, 29, 31, 37, 41, 43, 47, 53};

// Table d holds the radical inverse in base kHaltonBases[d] of the sample numbers 0 to 4,095.
extern std::array<std::vector<float>, kHaltonDimensions> haltonTables;
// One pair of uniform numbers for each residue of a pixel: [y & 31][x & 31].
extern Vec2 pixelRotationTable[32][32];
// Entry e is 2^(e - 136): the scale of a shared-exponent pixel.
extern double exponentTable[256];
// Ken Perlin's permutation ("Improving Noise", 2002), twice over.
extern std::array<std::int32_t, 512> noisePermutation;

void FillExponentTable();
void FillHaltonTables();
void FillPixelRotationTable();  // draws from core/random.h: seeded when the generator is
void FillNoisePermutation();
void EmptyHaltonTables();  // keeps the storage

// The digits of `sample` mirrored at the point, in single precision, below 1.
float RadicalInverse(std::uint32_t sample, std::uint32_t base);

// Halton point: one coordinate of sample number `sample`. Dimensions past the sixteenth wrap around.
inline float Halton(std::uint32_t sample, std::int32_t dimension) {
  const auto d = static_cast<std::size_t>(dimension) % kHaltonDimensions;
  if (dimension < kHaltonDimensions && sample < haltonTables[d].size()) return haltonTables[d][sample];
  return RadicalInverse(sample, kHaltonBases[d]);
}

// Cranley-Patterson rotation: shifts x in [0, 1) by `rotation`, modulo 1.
inline float Rotate(float x, float rotation) {
  const float sum = x + rotation;
  return sum > 1.0f ? sum - 1.0f : sum;
}

}  // namespace zp
