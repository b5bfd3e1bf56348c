// The glossy lobe and the bending of rays.

#include "shading/shading.h"

namespace zp {
namespace {

// Narrower lobes are taken to be this wide, in the density as in the samples. With two different limits the
// balance heuristic would call the samples of the narrowest lobes impossible and lose them.
constexpr float kNarrowest = 1e-4f;

struct Widths {
  float x, y;
};

Widths LobeWidths(const ShadingPoint& point) {
  return {MaxOf(kNarrowest, point.alphaX), MaxOf(kNarrowest, point.alphaY)};
}

}  // namespace

// With h = direction + outgoing, H = h / |h| and x, y, n the components of H along tangent, bitangent and
// normal:  D = exp(-((x / alphaX)^2 + (y / alphaY)^2) / n^2) / (4 pi |h|^2 n^4 alphaX alphaY).
// Samples mirrored at SampleGlossyHalf have the density 2 D h . normal, below the horizon too: the caller
// tests the cosine of `direction`. 0 where no half vector in front of the surface mirrors one into the other.
float GlossyD(const ShadingPoint& point, Vec3 direction) {
  // In terms of h, which needs no root: |h|^2 n^4 is (h . normal)^4 / |h|^2.
  const Vec3 h = direction + point.outgoing;
  const float squared = Dot(h, h), n = Dot(h, point.normal), n2 = n * n;
  // Opposite directions have no half vector; one in the surface has an infinite slope.
  if (!(squared > 1e-10f) || !(n > 0) || !(n2 > 1e-10f * squared)) return 0;
  const Widths alpha = LobeWidths(point);
  const float x = Dot(h, point.tangent) / alpha.x, y = Dot(h, point.bitangent) / alpha.y;
  const float inverse = 1 / n2;
  const float d =
      std::exp(-(x * x + y * y) * inverse) * (squared * inverse) * inverse / (4 * kPi * (alpha.x * alpha.y));
  return d <= kFarthest ? d : 0.0f;
}

// The slope of the half vector, (x / n, y / n), is normally distributed with variances alphaX^2 / 2 and
// alphaY^2 / 2.
Vec3 SampleGlossyHalf(const ShadingPoint& point, float u, float v) {
  const Widths alpha = LobeWidths(point);
  const float phi = 2 * kPi * u;
  float a = alpha.x * std::cos(phi), b = alpha.y * std::sin(phi);
  const float scale = SafeInverseLength(a * a + b * b);
  a *= scale;
  b *= scale;
  const float spread = a * a / (alpha.x * alpha.x) + (1 - a * a) / (alpha.y * alpha.y);
  const float t = SafeSqrt(-SafeLog(v)), s = SafeSqrt(spread);
  // Sine and cosine of theta = atan2(t, s). By way of the angle, 1 - cos^2 would leave a handful of different
  // sines in a narrow lobe.
  const float inverse = 1 / std::sqrt(t * t + s * s);
  const float sine = MaxOf(t * inverse, 1e-5f), cosine = s * inverse;
  return SafeNormalize(sine * (a * point.tangent + b * point.bitangent) + cosine * point.normal);
}

bool Refract(Vec3 direction, Vec3 normal, float cosine, float ratio, Vec3& refracted) {
  // Thin panes: rounding must not bend what passes at a grazing angle.
  if (ratio == 1) {
    refracted = direction;
    return true;
  }
  const float k = 1 - ratio * ratio * (1 - cosine * cosine);
  if (!(k >= 0)) return false;
  refracted = SafeNormalize(ratio * direction + (ratio * cosine - SafeSqrt(k)) * normal);
  return IsFinite(refracted);
}

}  // namespace zp
