#include "shading/hair.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "core/console.h"
#include "core/index.h"
#include "core/random.h"
#include "core/settings.h"
#include "core/stop.h"
#include "shading/shading.h"

namespace zp {
namespace {

constexpr int kOffsets = 128;  // steps over the width of the fibre
// Limits of what a width and an index can be, lest the images hold what is no number.
constexpr float kSmallestWidth = 1e-3f;
constexpr float kLargestWidth = 100;
constexpr float kSmallestIor = 1e-3f;
constexpr float kLargestIor = 1e3f;

float SafeAsin(float x) { return std::asin(std::clamp(x, -1.0f, 1.0f)); }
float SafeAcos(float x) { return std::acos(std::clamp(x, -1.0f, 1.0f)); }

// Schlick, "An Inexpensive BRDF Model for Physically-based Rendering", 1994.
float Schlick(float f0, float cosine) {
  const float x = 1 - cosine, x2 = x * x;
  return f0 + x2 * x2 * x * (1 - f0);
}

// What one pass through the fibre leaves, for a ray that is refracted by gammaT across it.
Vec3 PassTransmission(const FiberParameters& fiber, float gammaT, float cosGammaT) {
  const float way = -2 * (1 + std::cos(2 * gammaT)) / cosGammaT;
  const Vec3 a = fiber.absorption;
  return {std::exp(way * a.x), std::exp(way * a.y), std::exp(way * a.z)};
}

// A Gaussian on the circle.
float WrappedGaussian(float x, float width) {
  float sum = 0;
  for (int m = -2; m <= 2; ++m) {
    const float distance = (x - 2 * kPi * static_cast<float>(m)) / width;
    const float exponent = -0.5f * distance * distance;
    if (exponent > -88.0f) sum += std::exp(exponent);  // what is left out is smaller than any normal float
  }
  return sum / (width * std::sqrt(2 * kPi));
}

// What a ray that meets the fibre at one offset does, whatever the azimuth it is looked for at.
struct OffsetPaths {
  std::array<float, 3> azimuth;  // of the lobes, to be subtracted from phi
  Vec3 tt, trt;                  // attenuations
};

// In format 1 the images take all light to cross the fibre at right angles to its axis when it is reflected,
// as rays do not; and they are read by their last cell's middle, as if that were their edge.
bool ImagesAreExact() { return settings.format >= 2; }

OffsetPaths FollowOffset(const FiberParameters& fiber, float h, float etaP, float cosThetaD) {
  const float gammaI = SafeAsin(h), gammaT = SafeAsin(h / etaP);
  const float sinGammaT = h / etaP;
  const Vec3 pass = PassTransmission(fiber, gammaT, SafeSqrt(1 - sinGammaT * sinGammaT));
  const float fresnel = Schlick(fiber.f0, (ImagesAreExact() ? cosThetaD : 1) * std::cos(gammaI));
  const float through = (1 - fresnel) * (1 - fresnel);
  OffsetPaths paths;
  paths.azimuth = {-2 * gammaI, kPi - 2 * (gammaI - gammaT), 2 * (kPi - gammaI) + 4 * gammaT};
  paths.tt = pass * through;
  paths.trt = pass * pass * (fresnel * through);
  return paths;
}

// What becomes of a ray that meets the fibre at offset h, with the inclination cosD between its ways.
struct FiberCrossing {
  float gammaO, gammaT, fresnel;
  Vec3 pass;
};
FiberCrossing CrossFiber(const FiberParameters& fiber, float h, float cosD) {
  FiberCrossing crossing;
  crossing.gammaO = SafeAsin(h);
  const float sinGammaT =
      std::clamp(cosD * h / SafeSqrt(fiber.ior * fiber.ior - 1 + cosD * cosD), -1.0f, 1.0f);
  crossing.gammaT = std::asin(sinGammaT);
  crossing.fresnel = Schlick(fiber.f0, cosD * std::cos(crossing.gammaO));
  crossing.pass = PassTransmission(fiber, crossing.gammaT, SafeSqrt(1 - sinGammaT * sinGammaT));
  return crossing;
}

// The chances of R, TT and TRT: what each brings home, or paths through many fibres are a few bright dots.
// Known before the ray's own inclination is, so that it is taken to be the view's.
Vec3 LobeChances(const FiberParameters& fiber, float h, float cosThetaI) {
  constexpr float kLeast = 0.02f;  // for what the true inclination makes brighter
  const FiberCrossing crossing = CrossFiber(fiber, h, MaxOf(cosThetaI, 0.25f));
  const float through = (1 - crossing.fresnel) * (1 - crossing.fresnel);
  const Vec3 kept = {crossing.fresnel + kLeast, Mean(crossing.pass) * through + kLeast,
                     Mean(crossing.pass * crossing.pass) * through * crossing.fresnel + kLeast};
  const float sum = kept.x + kept.y + kept.z;
  return std::isfinite(sum) ? kept / sum : Vec3{1, 1, 1} / 3;
}

// The row of the images of an inclination, in 0 to pi / 2.
int LutRow(float theta) {
  const float cells = ImagesAreExact() ? kFiberLutSize : kFiberLutSize - 1;
  return std::clamp(static_cast<int>(cells * theta / (kPi / 2)), 0, kFiberLutSize - 1);
}

void FillRow(const FiberParameters& fiber, int row, FiberLut& lut) {
  const auto step = static_cast<float>(kFiberLutSize);
  const float cosThetaD = std::cos((static_cast<float>(row) + 0.5f) / step * (kPi / 2));
  const float etaP = SafeSqrt(fiber.ior * fiber.ior - 1 + cosThetaD * cosThetaD) / cosThetaD;
  std::array<OffsetPaths, kOffsets> offsets;
  Vec3& chances = At(lut.lobeChances, row);
  for (int k = 0; k < kOffsets; ++k) {
    const float h = (static_cast<float>(k) - 63.5f) / 64;
    At(offsets, k) = FollowOffset(fiber, h, etaP, cosThetaD);
    chances += LobeChances(fiber, h, cosThetaD) / kOffsets;
  }

  for (int column = 0; column < kFiberLutSize; ++column) {
    const float phi = (static_cast<float>(column) + 0.5f) / step * kPi;
    Vec3 weights, tt, trt;
    for (const OffsetPaths& paths : offsets) {
      const Vec3 w = {WrappedGaussian(phi - paths.azimuth[0], fiber.widthR),
                      WrappedGaussian(phi - paths.azimuth[1], fiber.widthTT),
                      WrappedGaussian(phi - paths.azimuth[2], fiber.widthTRT)};
      weights += w;
      tt += w.y * paths.tt;
      trt += w.z * paths.trt;
    }
    constexpr float kScale = 1.0f / kOffsets;
    const auto cell = static_cast<std::size_t>(row * kFiberLutSize + column);
    WritePixel(lut.lutLobeWeights, weights * kScale, cell);
    WritePixel(lut.lutR, Vec3{weights.x, weights.x, weights.x} * kScale, cell);
    WritePixel(lut.lutTT, tt * kScale, cell);
    WritePixel(lut.lutTRT, trt * kScale, cell);
  }
}

std::shared_ptr<const FiberLut> BuildLut(const FiberParameters& fiber) {
  auto lut = std::make_shared<FiberLut>();
  for (ImageBuffer* image : {&lut->lutLobeWeights, &lut->lutR, &lut->lutTT, &lut->lutTRT})
    Allocate(*image, kFiberLutSize, kFiberLutSize, 3, 32, false);
#pragma omp parallel for schedule(dynamic)
  for (int row = 0; row < kFiberLutSize; ++row)
    if (!Stopping()) FillRow(fiber, row, *lut);
  return Stopping() ? nullptr : lut;
}

// Written so that what is no number becomes a limit too.
float Limit(float x, float smallest, float largest) { return x > smallest ? MinOf(x, largest) : smallest; }

// In format 1 rays leave hair by R alone, and what goes through fibres is light samples' alone.
bool DrawsAllLobes() { return settings.format >= 2; }

bool IsSameFiber(const FiberParameters& a, const FiberParameters& b) {
  return a.widthR == b.widthR && a.ior == b.ior && a.absorption == b.absorption;
}

// Both directions seen from the fibre.
struct FiberAngles {
  float sinI, sinO;  // along the tangent
  float cosI, cosO;
  float cosPhi;
};

FiberAngles MeasureAngles(Vec3 incoming, Vec3 scattered, Vec3 tangent) {
  FiberAngles angles;
  angles.sinI = Dot(tangent, incoming);
  angles.sinO = Dot(tangent, scattered);
  const Vec3 acrossI = SafeNormalize(incoming - angles.sinI * tangent);
  const Vec3 acrossO = SafeNormalize(scattered - angles.sinO * tangent);
  angles.cosI = Dot(incoming, acrossI);
  angles.cosO = Dot(scattered, acrossO);
  angles.cosPhi = std::clamp(Dot(acrossI, acrossO), -1.0f, 1.0f);
  return angles;
}

std::size_t LutCell(const FiberAngles& angles) {
  const float cells = ImagesAreExact() ? kFiberLutSize : kFiberLutSize - 1;
  const float thetaD =
      std::fabs(0.5f * (std::atan2(angles.sinO, angles.cosO) - std::atan2(angles.sinI, angles.cosI)));
  const int column = static_cast<int>(cells * std::acos(angles.cosPhi) / kPi);
  return static_cast<std::size_t>(LutRow(thetaD)) * kFiberLutSize +
         static_cast<std::size_t>(std::clamp(column, 0, kFiberLutSize - 1));
}

// The cosine of the angle between the mirror direction's cone and the sample. In double precision: between a
// tenth and 88^-1/2 the hyperbolic sine does not fit a float.
float SampleLongitudinal(float width, float variance) {
  const double u = std::clamp(static_cast<double>(RandomFloat()), 1e-8, 1.0);
  const double v = static_cast<double>(variance), k = 1 / v;
  const auto log = [](double x) { return x < 1e-10 ? -10.0 : std::log(x); };
  if (width < 0.1f) return static_cast<float>(1 + v * (log(u) + log(1 - (u - 1) / u) * std::exp(-2 * k)));
  return static_cast<float>(v * log(std::exp(-k) + 2 * u * std::sinh(k)));
}

}  // namespace

float BesselI0(float x) {
  const float t = x / 3.75f;
  if (t <= 1) {
    const float s = t * t;
    return 1 +
           s * (3.5156229f +
                s * (3.0899424f + s * (1.2067492f + s * (0.2659732f + s * (0.0360768f + s * 0.0045813f)))));
  }
  const float s = 1 / t;
  const float polynomial =
      0.39894228f +
      s * (0.01328592f +
           s * (0.00225319f +
                s * (-0.00157565f +
                     s * (0.00916281f +
                          s * (-0.02057706f + s * (0.02635537f + s * (-0.01647633f + s * 0.00392377f)))))));
  return std::exp(x) / std::sqrt(x) * polynomial;
}

float LongitudinalTerm(float variance, float normalization, float cosines, float sines) {
  const float a = cosines / variance, b = -sines / variance;
  if (variance >= 0.2f) return std::exp(b) * normalization * BesselI0(a);
  // In logarithms, where neither sinh nor I0 fits a float: ln(2 sinh(1 / v)) is 1 / v all but exactly.
  constexpr float kLog2 = 0.6931472f;
  const float scale = SafeLog(1 / (2 * variance));
  if (a <= 12) return std::exp(b + kLog2 - 1 / variance + SafeLog(BesselI0(a)) + scale);
  const float logI0 = 0.5f * (1 / (8 * a) - std::log(2 * kPi) + SafeLog(1 / a));  // without a itself
  return std::exp(a + kLog2 + b - 1 / variance + logI0 + scale);
}

void InitializeFiber(FiberParameters& fiber) {
  const std::int64_t start = WallTicks();
  fiber.widthR = Limit(fiber.widthR, kSmallestWidth, kLargestWidth);
  fiber.ior = Limit(fiber.ior, kSmallestIor, kLargestIor);
  for (int c = 0; c < 3; ++c) fiber.absorption[c] = Limit(fiber.absorption[c], 0, kFarthest);
  fiber.widthTT = 2 * fiber.widthR;
  fiber.widthTRT = 3 * fiber.widthR;
  fiber.variance = {fiber.widthR * fiber.widthR, fiber.widthTT * fiber.widthTT,
                    fiber.widthTRT * fiber.widthTRT};
  for (int lobe = 0; lobe < 3; ++lobe)
    fiber.normalization[lobe] = 1 / (2 * fiber.variance[lobe] * std::sinh(1 / fiber.variance[lobe]));
  const float ratio = (fiber.ior - 1) / (fiber.ior + 1);
  fiber.f0 = ratio * ratio;
  fiber.lut = BuildLut(fiber);
  PrintFloatRow("bcsdf lut", static_cast<float>(static_cast<double>(WallTicks() - start) / 1e7), "seconds");
  PrintRule();
}

void InitializeFibers() {
  const auto isHair = [](const Shader& shader) { return shader.usedByHair; };
  if (std::none_of(shaders.begin(), shaders.end(), isHair)) return;
  for (Shader& shader : shaders) {
    if (shader.fiber.lut == nullptr) {
      const auto isBuilt = [&](const Shader& other) {
        return other.fiber.lut != nullptr && IsSameFiber(other.fiber, shader.fiber);
      };
      const auto built = std::find_if(shaders.begin(), shaders.end(), isBuilt);
      if (built == shaders.end()) {
        InitializeFiber(shader.fiber);
      } else {
        shader.fiber = built->fiber;
      }
    }
    shader.fiber.sampleAllLobes = DrawsAllLobes();
    for (SurfaceShader& surface : shader.surfaces) surface.fiber = shader.fiber;
  }
}

FiberScattering EvaluateFiber(const FiberParameters& fiber, Vec3 incoming, Vec3 scattered, Vec3 tangent) {
  FiberScattering scattering;
  if (fiber.lut == nullptr) return scattering;
  const FiberAngles angles = MeasureAngles(incoming, scattered, tangent);
  const float cosines = angles.cosI * angles.cosO, sines = angles.sinI * angles.sinO;
  Vec3 longitudinal;
  for (int lobe = 0; lobe < 3; ++lobe)
    longitudinal[lobe] = LongitudinalTerm(fiber.variance[lobe], fiber.normalization[lobe], cosines, sines);
  const std::size_t cell = LutCell(angles);
  const float fresnel = Schlick(fiber.f0, std::cos(0.5f * SafeAcos(Dot(incoming, scattered))));
  scattering.r = ReadPixel(fiber.lut->lutR, cell) * (longitudinal.x * fresnel);
  scattering.tt = ReadPixel(fiber.lut->lutTT, cell) * longitudinal.y;
  scattering.trt = ReadPixel(fiber.lut->lutTRT, cell) * longitudinal.z;
  scattering.density =
      ReadPixel(fiber.lut->lutLobeWeights, cell) * longitudinal * (angles.cosO * angles.cosO);
  if (fiber.sampleAllLobes)
    scattering.density *= 3.0f * At(fiber.lut->lobeChances, LutRow(SafeAsin(std::fabs(angles.sinI))));
  return scattering;
}

Vec3 DrawnLobes(const FiberParameters& fiber, const FiberScattering& scattering) {
  return fiber.sampleAllLobes ? scattering.r + scattering.tt + scattering.trt : scattering.r;
}

Vec3 UndrawnLobes(const FiberParameters& fiber, const FiberScattering& scattering) {
  return fiber.sampleAllLobes ? kBlack : scattering.tt + scattering.trt;
}

float DrawnDensity(const FiberParameters& fiber, const FiberScattering& scattering) {
  return fiber.sampleAllLobes ? Mean(scattering.density) : scattering.density.x;
}

float FiberDiffuse(Vec3 incoming, Vec3 scattered, Vec3 tangent) {
  const FiberAngles angles = MeasureAngles(incoming, scattered, tangent);
  const float p = std::acos(angles.cosPhi);
  return std::fabs((kPi - p) * angles.cosPhi + std::sin(p)) * angles.cosO / (4 * kPi);
}

FiberSample SampleFiber(const FiberParameters& fiber, Vec3 outgoing, Vec3 tangent, float h) {
  FiberSample sample;
  const float sinI = Dot(tangent, outgoing);
  Vec3 w = SafeNormalize(outgoing - sinI * tangent);
  // Seen along its axis a fibre has no azimuth of its own: any will do.
  if (!(Dot(w, w) > 0.9f)) w = UnitPerpendicular(tangent);
  const Vec3 a = Cross(w, tangent);
  const float thetaI = SafeAsin(sinI);

  float choices = 1;  // by the chance of the lobe
  if (fiber.sampleAllLobes) {
    const Vec3 chances = LobeChances(fiber, h, std::cos(thetaI));
    const float u = RandomFloat();
    sample.lobe = u < chances.x ? 0 : u < chances.x + chances.y ? 1 : 2;
    choices = 1 / chances[sample.lobe];
  }
  const auto p = static_cast<float>(sample.lobe);
  const float width = sample.lobe == 0 ? fiber.widthR : sample.lobe == 1 ? fiber.widthTT : fiber.widthTRT;

  const float c = SampleLongitudinal(width, fiber.variance[sample.lobe]);
  const float b = kPi / 2 - thetaI;
  const float sinO = c * std::cos(b) + SafeSqrt(1 - c * c) * std::cos(2 * kPi * RandomFloat()) * std::sin(b);
  const float cosO = SafeSqrt(1 - sinO * sinO);
  // The direction goes to the other side of the fibre's normal plane: of the two inclinations it is the sum.
  // Format 1 takes the difference, which its images do not.
  const float thetaO = SafeAsin(sinO);
  const float cosD = std::cos((ImagesAreExact() ? thetaO + thetaI : thetaO - thetaI) / 2);

  const FiberCrossing crossing = CrossFiber(fiber, h, cosD);
  const float radius = SafeSqrt(-2 * SafeLog(RandomFloat()));
  const float phi = p * kPi - 2 * crossing.gammaO + 2 * p * crossing.gammaT +
                    radius * std::cos(2 * kPi * RandomFloat()) * width;
  // A unit vector but for the roundings of the two roots.
  sample.direction = UnitVector(cosO * (std::sin(phi) * a + std::cos(phi) * w) - sinO * tangent);

  if (sample.lobe == 0) {
    const float fresnel = Schlick(fiber.f0, std::cos(0.5f * SafeAcos(Dot(sample.direction, outgoing))));
    sample.weight = choices * Vec3{fresnel, fresnel, fresnel};
    return sample;
  }
  const Vec3 pass = crossing.pass;
  const float through = choices * (1 - crossing.fresnel) * (1 - crossing.fresnel);
  sample.weight = sample.lobe == 1 ? pass * through : pass * pass * (through * crossing.fresnel);
  return sample;
}

}  // namespace zp
