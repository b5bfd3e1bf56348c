// lights/sky_model.h: the analytic sky, linear RGB. L. Hosek and A. Wilkie, "An Analytic Model for Full
// Spectral Sky-Dome Radiance", ACM Transactions on Graphics 31 (4), 2012. It has the sky's light with the
// bright region around the sun, but not the sun's disc.

#pragma once

namespace zp {

inline constexpr int kSkyModelCoefficients = 9;

// Published figures: [red, green, blue][ground albedo 0, 1][turbidity 1 to 10][control point][coefficient].
extern const double kSkyModelConfig[3][2][10][6][kSkyModelCoefficients];
extern const double kSkyModelRadiance[3][2][10][6];

struct SkyChannelState {
  double coefficients[kSkyModelCoefficients];
  double scale;  // of the radiance
};
struct SkyModelState {
  SkyChannelState channels[3];
};

// turbidity 1 to 10, ground albedo 0 to 1, elevation of the sun above the horizon 0 to pi/2 radians. What
// lies outside, or is no number, is limited to these ranges.
SkyModelState MakeSkyModelState(double turbidity, double albedo, double elevation);

// Radiance of one channel. cosTheta is the cosine between the direction and the zenith, limited to 0 and
// above: the fit ends at the horizon; cosGamma that between the direction and the sun, limited to -1..1. Near
// the horizon a low sun's fit goes slightly below 0, and so does the result.
double SkyModelRadiance(const SkyChannelState& state, double cosTheta, double cosGamma);

}  // namespace zp
