#include "core/random.h"

#include <immintrin.h>

#include <atomic>
#include <random>

namespace zp {
namespace {

std::optional<std::uint64_t> seedValue;
std::atomic<std::uint64_t> threadsKeyed{0};

// SplitMix64's finaliser (Steele, Lea, Flood, "Fast Splittable Pseudorandom Number Generators", 2014).
std::uint64_t Mix(std::uint64_t x) {
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30U)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27U)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31U);
}

std::uint64_t HardwareBits() {
  unsigned long long bits = 0;
  for (int attempt = 0; attempt < 16; ++attempt)
    if (_rdrand64_step(&bits) != 0) return bits;
  std::random_device device;  // the instruction may be exhausted or broken; the system's source is not
  return (static_cast<std::uint64_t>(device()) << 32U) | device();
}

}  // namespace

void StartRandom(std::optional<std::uint64_t> seed) {
  seedValue = seed;
  threadsKeyed = 0;
  randomState.keyed = randomState.told = false;
  if (seed) RekeyRandom(0, 0);
}

std::optional<std::uint64_t> RandomSeed() { return seedValue; }

void RekeyRandom(std::uint64_t a, std::uint64_t b) {
  if (!seedValue) return;
  randomState.a = a;
  randomState.b = b;
  randomState.told = true;
  randomState.keyed = false;
}

void KeyRandom() {
  RandomState& random = randomState;
  if (seedValue) {
    if (!random.told) RekeyRandom(~std::uint64_t{0}, threadsKeyed.fetch_add(1));
    random.state = Mix(Mix(Mix(*seedValue) ^ random.a) ^ random.b);
  } else {
    random.state = HardwareBits();
  }
  random.told = false;
  random.keyed = true;
}

}  // namespace zp
