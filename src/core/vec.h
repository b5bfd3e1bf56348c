// core/vec.h: vectors, matrices and the guarded arithmetic that the whole renderer shares.
// Colours are Vec3 too: linear light, red green blue. Nothing here fails.

#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace zp {

// The largest float of the system. Never infinity, so that differences of box planes stay finite.
inline constexpr float kFarthest = 3.4e38f;
inline constexpr float kPi = 3.14159265358979f;

struct Vec2 {
  float x = 0, y = 0;
  friend bool operator==(const Vec2&, const Vec2&) = default;
};

struct Vec3 {
  float x = 0, y = 0, z = 0;
  constexpr float& operator[](int i) { return i == 0 ? x : i == 1 ? y : z; }
  constexpr float operator[](int i) const { return i == 0 ? x : i == 1 ? y : z; }
  friend constexpr bool operator==(const Vec3&, const Vec3&) = default;
};

inline constexpr Vec3 kBlack = {0, 0, 0};
inline constexpr Vec3 kWhite = {1, 1, 1};

constexpr Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
constexpr Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
constexpr Vec3 operator-(Vec3 a) { return {-a.x, -a.y, -a.z}; }
constexpr Vec3 operator*(Vec3 a, Vec3 b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
constexpr Vec3 operator*(Vec3 a, float s) { return {a.x * s, a.y * s, a.z * s}; }
constexpr Vec3 operator*(float s, Vec3 a) { return a * s; }
constexpr Vec3 operator/(Vec3 a, float s) { return {a.x / s, a.y / s, a.z / s}; }
constexpr Vec3& operator+=(Vec3& a, Vec3 b) { return a = a + b; }
constexpr Vec3& operator*=(Vec3& a, Vec3 b) { return a = a * b; }
constexpr Vec3& operator*=(Vec3& a, float s) { return a = a * s; }

constexpr float Dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
constexpr Vec3 Cross(Vec3 a, Vec3 b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
constexpr float MinOf(float a, float b) { return b < a ? b : a; }
constexpr float MaxOf(float a, float b) { return a < b ? b : a; }
constexpr Vec3 MinOf(Vec3 a, Vec3 b) { return {MinOf(a.x, b.x), MinOf(a.y, b.y), MinOf(a.z, b.z)}; }
constexpr Vec3 MaxOf(Vec3 a, Vec3 b) { return {MaxOf(a.x, b.x), MaxOf(a.y, b.y), MaxOf(a.z, b.z)}; }

// A colour's grey value.
constexpr float Mean(Vec3 c) { return (c.x + c.y + c.z) * 0.33333334f; }

// The one threshold below which light is not followed: there is no Russian roulette.
inline constexpr float kBlackThreshold = 0.0009765625f;
constexpr bool IsBlack(Vec3 c) {
  return !(c.x > kBlackThreshold) && !(c.y > kBlackThreshold) && !(c.z > kBlackThreshold);
}

// Square root with a floor: values at or below 1e-10 give 1e-5, never 0.
inline float SafeSqrt(float x) { return x > 1e-10f ? std::sqrt(x) : 1e-5f; }
// Natural logarithm; values below 1e-10 give -10.
inline float SafeLog(float x) { return x < 1e-10f ? -10.0f : std::log(x); }
// The factor that makes a vector of squared length s a unit vector; 1 for the zero vector.
inline float SafeInverseLength(float s) { return s == 0.0f ? 1.0f : 1.0f / SafeSqrt(s); }
inline float SafeLength(Vec3 v) { return SafeSqrt(Dot(v, v)); }
inline Vec3 SafeNormalize(Vec3 v) { return v * SafeInverseLength(Dot(v, v)); }

inline bool IsFinite(Vec3 v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// A vector perpendicular to the unit vector d, of no defined length: d x (d.z, -d.x, d.y).
constexpr Vec3 Perpendicular(Vec3 d) {
  return {d.y * d.y + d.x * d.z, d.z * d.z - d.x * d.y, -d.x * d.x - d.y * d.z};
}

// A unit vector of any input but zero, tiny ones included: the safe length alone would leave the normals of
// triangles with edges below a thousandth short.
inline Vec3 UnitVector(Vec3 v) {
  const float largest = MaxOf(MaxOf(std::fabs(v.x), std::fabs(v.y)), std::fabs(v.z));
  return largest > 0 && std::isfinite(largest) ? SafeNormalize(v / largest) : v;
}

// The same as a unit vector; along (1, 1, -1), where it vanishes, another axis.
inline Vec3 UnitPerpendicular(Vec3 d) {
  constexpr float kVanishing = 1e-6f;
  const Vec3 y = Perpendicular(d);
  return UnitVector(Dot(y, y) > kVanishing ? y : Cross(d, Vec3{1, 0, 0}));
}

// Completes a unit vector to a right-handed orthonormal frame without a branch or a root. Duff and others,
// "Building an Orthonormal Basis, Revisited", 2017.
inline void FrameAround(Vec3 z, Vec3& x, Vec3& y) {
  const float sign = std::copysign(1.0f, z.z), a = -1 / (sign + z.z), b = z.x * z.y * a;
  x = {1 + sign * z.x * z.x * a, sign * b, -sign * z.x};
  y = {b, sign + z.y * z.y * a, -z.y};
}

// What follows has no branch: for choices that no processor could foretell.
inline float Choose(bool first, float a, float b) {
  const std::uint32_t mask = 0U - static_cast<std::uint32_t>(first);
  return std::bit_cast<float>((std::bit_cast<std::uint32_t>(a) & mask) |
                              (std::bit_cast<std::uint32_t>(b) & ~mask));
}
inline Vec3 NegatedIf(bool negate, Vec3 v) {
  const std::uint32_t sign = static_cast<std::uint32_t>(negate) << 31U;
  const auto turn = [sign](float x) { return std::bit_cast<float>(std::bit_cast<std::uint32_t>(x) ^ sign); };
  return {turn(v.x), turn(v.y), turn(v.z)};
}

// Three rows of three.
struct Mat3 {
  float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  friend bool operator==(const Mat3&, const Mat3&) = default;
};
constexpr Vec3 operator*(const Mat3& a, Vec3 v) {
  return {a.m[0][0] * v.x + a.m[0][1] * v.y + a.m[0][2] * v.z,
          a.m[1][0] * v.x + a.m[1][1] * v.y + a.m[1][2] * v.z,
          a.m[2][0] * v.x + a.m[2][1] * v.y + a.m[2][2] * v.z};
}

// Four rows of four; points are columns: p' = M (p, 1), divided by the fourth row's result.
struct Mat4 {
  float m[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  friend bool operator==(const Mat4&, const Mat4&) = default;
};
constexpr Vec3 TransformPoint(const Mat4& a, Vec3 p) {
  const auto row = [&](int i) { return a.m[i][0] * p.x + a.m[i][1] * p.y + a.m[i][2] * p.z + a.m[i][3]; };
  const float w = row(3);
  return {row(0) / w, row(1) / w, row(2) / w};
}
constexpr Vec3 TransformDirection(const Mat4& a, Vec3 d) {
  const auto row = [&](int i) { return a.m[i][0] * d.x + a.m[i][1] * d.y + a.m[i][2] * d.z; };
  return {row(0), row(1), row(2)};
}

// The first three rows of a Mat4 whose fourth one is 0 0 0 1, or stands elsewhere.
struct Mat34 {
  float m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
  friend bool operator==(const Mat34&, const Mat34&) = default;
};
constexpr Vec3 TransformPoint(const Mat34& a, Vec3 p) {
  const auto row = [&](int i) { return a.m[i][0] * p.x + a.m[i][1] * p.y + a.m[i][2] * p.z + a.m[i][3]; };
  return {row(0), row(1), row(2)};
}
constexpr Vec3 TransformDirection(const Mat34& a, Vec3 d) {
  const auto row = [&](int i) { return a.m[i][0] * d.x + a.m[i][1] * d.y + a.m[i][2] * d.z; };
  return {row(0), row(1), row(2)};
}

}  // namespace zp
