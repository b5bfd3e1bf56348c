#include "lights/sky_model.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace zp {
namespace {

constexpr double kQuarterTurn = 1.57079632679489662;

// Not a number counts as the lower end.
double Limit(double x, double low, double high) { return x > low ? std::min(x, high) : low; }

// Quintic Bezier curve; `stride` is the distance of its six control points.
double Bezier(const double* points, std::size_t stride, double x) {
  constexpr double kWeights[6] = {1, 5, 10, 10, 5, 1};
  double sum = 0;
  for (int k = 0; k < 6; ++k)
    sum +=
        kWeights[k] * std::pow(x, k) * std::pow(1 - x, 5 - k) * points[static_cast<std::size_t>(k) * stride];
  return sum;
}

}  // namespace

SkyModelState MakeSkyModelState(double turbidity, double albedo, double elevation) {
  turbidity = Limit(turbidity, 1, 10);
  albedo = Limit(albedo, 0, 1);
  // The cube root spends the resolution on low suns.
  const double x = std::min(std::cbrt(Limit(elevation, 0, kQuarterTurn) / kQuarterTurn), 1.0);
  const int level = static_cast<int>(turbidity);
  const double fraction = turbidity - level;
  const auto blend = [&](auto value) {  // value(albedo, turbidity - 1)
    const auto mix = [&](int t) { return (1 - albedo) * value(0, t) + albedo * value(1, t); };
    // Behind the last level there is none.
    return fraction > 0 ? (1 - fraction) * mix(level - 1) + fraction * mix(level) : mix(level - 1);
  };
  SkyModelState state;
  for (int c = 0; c < 3; ++c) {
    SkyChannelState& channel = state.channels[c];
    for (int i = 0; i < kSkyModelCoefficients; ++i)
      channel.coefficients[i] = blend(
          [&](int a, int t) { return Bezier(&kSkyModelConfig[c][a][t][0][i], kSkyModelCoefficients, x); });
    channel.scale = blend([&](int a, int t) { return Bezier(kSkyModelRadiance[c][a][t], 1, x); });
  }
  return state;
}

double SkyModelRadiance(const SkyChannelState& state, double cosTheta, double cosGamma) {
  const double* c = state.coefficients;
  cosTheta = Limit(cosTheta, 0, 1);
  cosGamma = Limit(cosGamma, -1, 1);
  const double horizon = 1 + c[0] * std::exp(c[1] / (cosTheta + 0.01));
  const double base = 1 + c[8] * c[8] - 2 * c[8] * cosGamma;
  const double chi = (1 + cosGamma * cosGamma) / (base * std::sqrt(base));
  const double glow = c[2] + c[3] * std::exp(c[4] * std::acos(cosGamma)) + c[5] * cosGamma * cosGamma +
                      c[6] * chi + c[7] * std::sqrt(cosTheta);
  return state.scale * horizon * glow;
}

}  // namespace zp
