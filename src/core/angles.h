// core/angles.h: sine and cosine without a branch or a call, to the last digits of a float. By the power
// series, which angles of at most an eighth of a turn need few terms of.

#pragma once

#include <cmath>
#include <cstdint>

#include "core/vec.h"

namespace zp {

struct SineAndCosine {
  float sine, cosine;
};

// Of an angle within an eighth of a turn, in radians.
inline SineAndCosine OfSmallAngle(float angle) {
  const float s = angle * angle;
  const auto next = [s](float sum, float coefficient) { return std::fma(sum, s, coefficient); };
  return {angle * next(next(next(next(1.0f / 362880, -1.0f / 5040), 1.0f / 120), -1.0f / 6), 1),
          next(next(next(next(1.0f / 40320, -1.0f / 720), 1.0f / 24), -0.5f), 1)};
}

// Of an angle within half a turn, by those of its half, with few terms that wait for others.
inline SineAndCosine OfHalfTurn(float angle) {
  const float half = 0.5f * angle, z = half * half, z2 = z * z;
  const auto pair = [z](float a, float b) { return std::fma(z, b, a); };
  const float sine =
      half * std::fma(z2, std::fma(z2, pair(1.0f / 362880, -1.0f / 39916800), pair(1.0f / 120, -1.0f / 5040)),
                      pair(1, -1.0f / 6));
  const float end = std::fma(z2, 1.0f / 479001600, pair(1.0f / 40320, -1.0f / 3628800));
  const float cosine = std::fma(z2, std::fma(z2, end, pair(1.0f / 24, -1.0f / 720)), pair(1, -0.5f));
  return {2 * sine * cosine, std::fma(-2 * sine, sine, 1.0f)};
}

// Of an angle within some turns.
inline SineAndCosine OfAngle(float angle) {
  constexpr float kQuarter = 1.57079637f,
                  kQuarterRest = -4.37113883e-8f;  // of a turn; together in doubled digits
  const float quarters = std::nearbyint(angle * (2 / kPi));
  const auto turned = static_cast<std::uint32_t>(static_cast<std::int32_t>(quarters));
  const SineAndCosine small =
      OfSmallAngle(std::fma(-quarters, kQuarterRest, std::fma(-quarters, kQuarter, angle)));
  const bool odd = (turned & 1U) != 0;
  const auto signedBy = [](float x, std::uint32_t bit) {
    return std::bit_cast<float>(std::bit_cast<std::uint32_t>(x) ^ (bit & 2U) << 30U);
  };
  return {signedBy(Choose(odd, small.cosine, small.sine), turned),
          signedBy(Choose(odd, small.sine, small.cosine), turned + 1)};
}

}  // namespace zp
