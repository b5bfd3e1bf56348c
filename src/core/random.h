// core/random.h: the one source of random numbers.
// Each thread owns a small generator (PCG XSH-RR 64/32: O'Neill, "PCG", 2014), keyed from the processor's
// random instruction at start-up. With a seed set, callers re-key it for each camera ray, so that a picture
// does not depend on which thread renders which pixel.

#pragma once

#include <cstdint>
#include <optional>

namespace zp {

struct RandomState {
  std::uint64_t state = 0x853c49e6748fea9bULL;
  bool keyed = false;
  bool told = false;         // by what to key it, which is put off until a number is drawn
  std::uint64_t a = 0, b = 0;
};
inline thread_local RandomState randomState;

// Forget all keys: each thread keys itself again, from the hardware, at its next draw.
// With a seed every draw is determined by RekeyRandom.
void StartRandom(std::optional<std::uint64_t> seed);
std::optional<std::uint64_t> RandomSeed();

// Key the calling thread's generator from (seed, a, b); does nothing without a seed.
void RekeyRandom(std::uint64_t a, std::uint64_t b);

// Key an unkeyed generator; not for callers.
void KeyRandom();

// A uniform 32-bit number.
inline std::uint32_t RandomBits() {
  if (!randomState.keyed) [[unlikely]]
    KeyRandom();
  const std::uint64_t old = randomState.state;
  randomState.state = old * 6364136223846793005ULL + 1442695040888963407ULL;
  const auto shifted = static_cast<std::uint32_t>(((old >> 18U) ^ old) >> 27U);
  const auto turn = static_cast<std::uint32_t>(old >> 59U);
  return (shifted >> turn) | (shifted << ((32U - turn) & 31U));
}

// Uniform in [0, 1). Of the 32 bits the upper 24 count: a float would round the largest draws up to 1.
inline float RandomFloat() { return static_cast<float>(RandomBits() >> 8U) * 0x1p-24f; }

}  // namespace zp
