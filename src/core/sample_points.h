// core/sample_points.h: the sample points of format 2, Sobol points that are scrambled for each decision and
// diffused over the screen.
//
// A decision is one draw of a path: the place in the pixel, the direction of a lobe, the point on a light.
// Each has a key, which the way to it gives, and with it a (0,2)-sequence of its own: a pixel's first 2^m
// points hold one in every elementary interval of area 2^-m, and so do those of each later group of 2^m. A
// point depends on seed, pixel, key and number alone; how many passes are planned is no part of it. The
// decisions of a hit and those of the hit behind it are one set in four dimensions, since what a ray finds
// depends on both; others take the numbers in orders of their own.
//
// Numbers and coordinates are scrambled as Owen does, by hashes: Burley, "Practical Hash-based Owen
// Scrambling", 2020, with Vegdahl's permutation ("Building a Better LK Hash", 2021). What differs between
// neighbours is a shift of all digits, by points that follow the pixels in Z order, and that order is
// shuffled by the same hash: Ahmed and Wonka, "Screen-space Blue-noise Diffusion of Monte Carlo Sampling
// Error via Hierarchical Ordering of Pixels", 2020. They need to know the number of samples beforehand; here
// the pixels' matrices are Pascal's triangles that the lower digits of the points enter, and one coordinate
// of the first 2^m points of an aligned group of 2^n pixels together hold one in every interval of 2^-(m+n),
// at any m. Over both coordinates of one
// sample for each pixel they do too; of several no interval of that area holds more than four.

#pragma once

#include <array>
#include <cstdint>

#include "core/vec.h"

namespace zp {

// Makes the scrambling of all points from the seed of core/random.h; drawn anew without one.
void StartSamplePoints();

// Groups of pixels are tiles of this edge; each has scramblings of its own.
inline constexpr int kPointTile = 16;

// Who takes points at a hit: a lobe by its Event, or one of these.
enum Decision : std::uint32_t {
  kDecidePixel = 0,  // the place in the pixel
  kDecideLens = 8,
  kDecideLayer,
  kDecideExit,
  kDecidePhoton,      // where it begins
  kDecideLight = 16,  // the geometry light
  kDecideSky,         // other lights follow
};

// A well mixed number of two.
inline std::uint32_t MixKeys(std::uint32_t a, std::uint32_t b) {
  std::uint64_t x = (static_cast<std::uint64_t>(a) << 32U | b) * 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 32U)) * 0xbf58476d1ce4e5b9ULL;
  return static_cast<std::uint32_t>(x >> 32U);
}

// The half set that a pass belongs to, where such are kept apart (settings.said.halfSets): even passes are
// one and odd passes the other. Each has scramblings of its own, without which the two would share out the
// strata of one sequence, and neither be a picture by itself.
inline std::uint32_t HalfOfPass(std::uint32_t pass) { return pass & 1U; }
// The number of a pass in its sequence.
std::uint32_t NumberOfPass(std::uint32_t pass);

// What the points of a ray come from.
struct PointSource {
  std::uint32_t key = 0;       // of the tile, and of the way that the path has taken
  std::uint32_t order = 0;     // key of the order that numbers are taken in
  std::uint32_t number = 0;    // the ray's number in its sequence
  std::uint32_t shuffled = 0;  // where that order puts it
  std::uint8_t place = 0;      // in the tile: bits in Z order, the last one first
  bool second = false;         // at the second hit of the two that share an order
};
PointSource PointSourceOf(int x, int y, std::uint32_t pass);
PointSource PhotonPoints(std::uint32_t number);  // which have no pixel

namespace points {

// Nested permutation from the lowest bit up: each bit is turned over, or not, by a hash of those below it.
inline std::uint32_t Permute(std::uint32_t x, std::uint32_t key) {
  x ^= x * 0x3d20adeaU;
  x += key;
  x *= (key >> 16U) | 1U;
  x ^= x * 0x05526c56U;
  x ^= x * 0x53a22864U;
  return x;
}

// The bits in reverse.
inline std::uint64_t Mirror(std::uint64_t x) {
  x = (x & 0x5555555555555555ULL) << 1U | (x >> 1U & 0x5555555555555555ULL);
  x = (x & 0x3333333333333333ULL) << 2U | (x >> 2U & 0x3333333333333333ULL);
  x = (x & 0x0f0f0f0f0f0f0f0fULL) << 4U | (x >> 4U & 0x0f0f0f0f0f0f0f0fULL);
  return __builtin_bswap64(x);
}
inline std::uint32_t Mirror(std::uint32_t x) {
  x = (x & 0x55555555U) << 1U | (x >> 1U & 0x55555555U);
  x = (x & 0x33333333U) << 2U | (x >> 2U & 0x33333333U);
  x = (x & 0x0f0f0f0fU) << 4U | (x >> 4U & 0x0f0f0f0fU);
  return __builtin_bswap32(x);
}

// Sobol's second coordinate, lowest bit first, of a number: Pascal's triangle modulo 2, which is a power of
// itself, so that it goes by halves (Ahmed, "An Implementation Algorithm of 2D Sobol Sequence", 2024).
inline std::uint32_t Pascal(std::uint32_t x) {
  x ^= x >> 1U & 0x55555555U;
  x ^= x >> 2U & 0x33333333U;
  x ^= x >> 4U & 0x0f0f0f0fU;
  x ^= x >> 8U & 0x00ff00ffU;
  return x ^ x >> 16U;
}

// The shifts of a tile's pixels by their place: the first coordinate in the lower half, both lowest bit
// first.
extern const std::array<std::uint64_t, static_cast<std::size_t>(kPointTile* kPointTile)> pixelShifts;

// By the two lower bytes of a number: what the second hit puts in their place.
extern const std::array<std::array<std::uint16_t, 256>, 2> secondNumbers;
inline std::uint32_t SecondNumber(std::uint32_t x) {
  return (x & 0xffff0000U) | (secondNumbers[0][x & 255U] ^ secondNumbers[1][x >> 8U & 255U]);
}

inline std::uint32_t Shuffle(std::uint32_t number, std::uint32_t order) {
  return Mirror(Permute(Mirror(number), order));
}

}  // namespace points

inline void SetNumber(PointSource& source, std::uint32_t number) {
  if (number == source.number) return;
  source.number = number;
  source.shuffled = points::Shuffle(number, source.order);
}

// Goes on behind a hit, by the event that its ray leaves with.
inline void StepOn(PointSource& source, std::uint32_t event) {
  source.key = MixKeys(source.key, event);
  source.second = !source.second;
  if (source.second) return;
  source.order = source.key;
  source.shuffled = points::Shuffle(source.number, source.order);
}

// Two coordinates as 32-bit fractions.
struct PointBits {
  std::uint32_t x, y;
};

namespace points {

// A point before its digits are scrambled, lowest bit first, and the keys to do it by.
struct PlainPoint {
  std::uint32_t x, y, keyX, keyY;
};
inline PlainPoint PlainPointAt(const PointSource& source, std::uint32_t decision, std::uint32_t number) {
  std::uint64_t h = (static_cast<std::uint64_t>(source.key) << 32U | decision) * 0x9e3779b97f4a7c15ULL;
  h = (h ^ (h >> 32U)) * 0xbf58476d1ce4e5b9ULL;
  h ^= h >> 32U;
  const std::uint64_t g = h * 0x94d049bb133111ebULL;
  const auto low = [](std::uint64_t v) { return static_cast<std::uint32_t>(v); };
  const auto high = [](std::uint64_t v) { return static_cast<std::uint32_t>(v >> 32U); };
  std::uint32_t shuffled = source.shuffled;
  if (number != source.number) shuffled = Shuffle(number, source.order);
  if (source.second) shuffled = SecondNumber(shuffled);
  const std::uint64_t shift = pixelShifts[Permute(source.place, low(h)) & 255U];
  return {shuffled ^ low(shift), Pascal(shuffled) ^ high(shift), high(h), high(g)};
}

inline PointBits BitsOf(std::uint32_t x, std::uint32_t y) {
  const std::uint64_t both = Mirror(static_cast<std::uint64_t>(x) << 32U | y);
  return {static_cast<std::uint32_t>(both), static_cast<std::uint32_t>(both >> 32U)};
}

}  // namespace points

// Point number `number` of a decision.
inline PointBits PointAt(const PointSource& source, std::uint32_t decision, std::uint32_t number) {
  const points::PlainPoint p = points::PlainPointAt(source, decision, number);
  return points::BitsOf(points::Permute(p.x, p.keyX), points::Permute(p.y, p.keyY));
}

// The same with digits that are turned over alike for all numbers: in each coordinate a pixel's first 2^m
// points stand at equal distances. How many of them an interval gets is then by chance at one of its ends
// alone, where Owen's scrambling leaves both to chance: for draws that find what is small and bright in some
// interval. Of what is smooth the errors of the strata no longer cancel, so that others do not use it.
inline PointBits EvenPointAt(const PointSource& source, std::uint32_t decision, std::uint32_t number) {
  const points::PlainPoint p = points::PlainPointAt(source, decision, number);
  return points::BitsOf(p.x ^ p.keyX, p.y ^ p.keyY);
}

// The same of a decision with an order of its own.
inline PointBits LonePointAt(PointSource source, std::uint32_t decision, std::uint32_t number) {
  source.order = MixKeys(source.key, decision);
  source.shuffled = points::Shuffle(number, source.order);
  source.number = number;
  source.second = false;
  return PointAt(source, decision, number);
}

// Uniform in [0, 1): the upper 24 bits, for a float would round the largest numbers up to 1.
inline float UnitFloat(std::uint32_t bits) { return static_cast<float>(bits >> 8U) * 0x1p-24f; }
inline float UnitNumber(double x) { return x < 0x1.fffffep-1 ? static_cast<float>(x) : 0x1.fffffep-1f; }
inline Vec2 UnitPair(PointBits bits) { return {UnitFloat(bits.x), UnitFloat(bits.y)}; }

// When pass `pass` sees the scene, as a share of the time that the shutter is open: the first 2^m passes are
// at equal distances.
float ShutterInstant(std::uint32_t pass);

}  // namespace zp
