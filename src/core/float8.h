// core/float8.h: four and eight floats at once. All intrinsics of the renderer live here; another platform
// is another version of this one file. Each type has a plain twin of the same arithmetic, bit for bit, so
// that code written once for any lane type can be checked against plain loops, and `float` is a lane type
// too.
//
// Max(x, y) and Min(x, y) give y when either is not a number.

#pragma once

#include <immintrin.h>

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace zp {

struct Float8 {
  __m256 v;
  static Float8 Load(const float* p) { return {_mm256_loadu_ps(p)}; }
  static Float8 LoadAligned(const float* p) { return {_mm256_load_ps(p)}; }
  static Float8 Set(float x) { return {_mm256_set1_ps(x)}; }
  void Store(float* p) const { _mm256_storeu_ps(p, v); }
  void StoreAligned(float* p) const { _mm256_store_ps(p, v); }
  float First() const { return _mm256_cvtss_f32(v); }
};
inline Float8 operator+(Float8 a, Float8 b) { return {_mm256_add_ps(a.v, b.v)}; }
inline Float8 operator-(Float8 a, Float8 b) { return {_mm256_sub_ps(a.v, b.v)}; }
inline Float8 operator*(Float8 a, Float8 b) { return {_mm256_mul_ps(a.v, b.v)}; }
inline Float8 operator/(Float8 a, Float8 b) { return {_mm256_div_ps(a.v, b.v)}; }
inline Float8 Max(Float8 a, Float8 b) { return {_mm256_max_ps(a.v, b.v)}; }
inline Float8 Min(Float8 a, Float8 b) { return {_mm256_min_ps(a.v, b.v)}; }
// Turns both halves, each of four rows of four: row i of a half becomes its column i.
inline void TransposeHalves(Float8& a, Float8& b, Float8& c, Float8& d) {
  const __m256 ab = _mm256_unpacklo_ps(a.v, b.v), ab2 = _mm256_unpackhi_ps(a.v, b.v);
  const __m256 cd = _mm256_unpacklo_ps(c.v, d.v), cd2 = _mm256_unpackhi_ps(c.v, d.v);
  a.v = _mm256_shuffle_ps(ab, cd, 0x44);
  b.v = _mm256_shuffle_ps(ab, cd, 0xee);
  c.v = _mm256_shuffle_ps(ab2, cd2, 0x44);
  d.v = _mm256_shuffle_ps(ab2, cd2, 0xee);
}
inline Float8 Sqrt(Float8 a) { return {_mm256_sqrt_ps(a.v)}; }
inline Float8 Abs(Float8 a) { return {_mm256_andnot_ps(_mm256_set1_ps(-0.0f), a.v)}; }
inline Float8 MulAdd(Float8 a, Float8 b, Float8 c) { return {_mm256_fmadd_ps(a.v, b.v, c.v)}; }
inline Float8 MulSub(Float8 a, Float8 b, Float8 c) { return {_mm256_fmsub_ps(a.v, b.v, c.v)}; }
// Where lane i of a is at most that of b; of several such, `&` says where all are, and Bits the lanes.
struct Where8 {
  __m256 v;
};
inline Where8 operator&(Where8 a, Where8 b) { return {_mm256_and_ps(a.v, b.v)}; }
inline unsigned Bits(Where8 a) { return static_cast<unsigned>(_mm256_movemask_ps(a.v)); }
inline Where8 LessEqual(Float8 a, Float8 b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_LE_OQ)}; }
// Bit i set where lane i of a is at most that of b.
inline unsigned MaskLessEqual(Float8 a, Float8 b) { return Bits(LessEqual(a, b)); }
// The same where it is below.
inline unsigned MaskLess(Float8 a, Float8 b) {
  return static_cast<unsigned>(_mm256_movemask_ps(_mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ)));
}

struct Float4 {
  __m128 v;
  static Float4 Load(const float* p) { return {_mm_loadu_ps(p)}; }
  static Float4 LoadAligned(const float* p) { return {_mm_load_ps(p)}; }
  static Float4 Set(float x) { return {_mm_set1_ps(x)}; }
  static Float4 LoadThree(const float* p) {  // and a zero
    const __m128i two = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
    return {_mm_movelh_ps(_mm_castsi128_ps(two), _mm_load_ss(p + 2))};
  }
  static Float4 Of(float a, float b, float c, float d) { return {_mm_setr_ps(a, b, c, d)}; }
  void Store(float* p) const { _mm_storeu_ps(p, v); }
};
inline Float4 operator+(Float4 a, Float4 b) { return {_mm_add_ps(a.v, b.v)}; }
inline Float4 operator-(Float4 a, Float4 b) { return {_mm_sub_ps(a.v, b.v)}; }
inline Float4 operator*(Float4 a, Float4 b) { return {_mm_mul_ps(a.v, b.v)}; }
inline Float4 operator/(Float4 a, Float4 b) { return {_mm_div_ps(a.v, b.v)}; }
inline Float4 Max(Float4 a, Float4 b) { return {_mm_max_ps(a.v, b.v)}; }
inline Float4 Min(Float4 a, Float4 b) { return {_mm_min_ps(a.v, b.v)}; }
inline Float4 MulAdd(Float4 a, Float4 b, Float4 c) { return {_mm_fmadd_ps(a.v, b.v, c.v)}; }
inline Float4 MulSub(Float4 a, Float4 b, Float4 c) { return {_mm_fmsub_ps(a.v, b.v, c.v)}; }
inline Float4 Sqrt(Float4 a) { return {_mm_sqrt_ps(a.v)}; }
inline Float4 Abs(Float4 a) { return {_mm_andnot_ps(_mm_set1_ps(-0.0f), a.v)}; }
inline Float4 WithSignOf(Float4 size, Float4 sign) {  // of sizes that have none
  return {_mm_or_ps(size.v, _mm_and_ps(_mm_set1_ps(-0.0f), sign.v))};
}
// Lane i of the result is the lane behind it, the first one behind the last.
inline Float4 NextLanes(Float4 a) { return {_mm_permute_ps(a.v, 0x39)}; }
inline Float4 LowHalf(Float8 a) { return {_mm256_castps256_ps128(a.v)}; }
inline Float4 HighHalf(Float8 a) { return {_mm256_extractf128_ps(a.v, 1)}; }
inline Float8 Join(Float4 low, Float4 high) { return {_mm256_set_m128(high.v, low.v)}; }
inline Float8 LowHalves(Float8 a, Float8 b) { return {_mm256_permute2f128_ps(a.v, b.v, 0x20)}; }
inline Float8 HighHalves(Float8 a, Float8 b) { return {_mm256_permute2f128_ps(a.v, b.v, 0x31)}; }
inline Float8 SwapHalves(Float8 a) { return {_mm256_permute2f128_ps(a.v, a.v, 1)}; }
// Lanes of b where the mask has a bit, others of a.
template <int kMask>
Float8 Select(Float8 a, Float8 b) {
  return {_mm256_blend_ps(a.v, b.v, kMask)};
}
// Lanes of a where the mask is all set, of b where it is 0.
inline Float8 Choose(Float8 mask, Float8 a, Float8 b) { return {_mm256_blendv_ps(b.v, a.v, mask.v)}; }
// Masks of eight lanes: none, all.
alignas(32) inline constexpr std::uint32_t kNoneOrAll[2][8] = {{}, {~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U, ~0U}};
inline Float8 MaskOf(std::uint32_t all) {  // 0 or 1
  return {_mm256_castsi256_ps(_mm256_load_si256(reinterpret_cast<const __m256i*>(kNoneOrAll[all])))};
}
// The least lane in all of them.
inline Float8 Least(Float8 a) {
  const __m256 b = _mm256_min_ps(a.v, _mm256_permute2f128_ps(a.v, a.v, 1));
  const __m256 c = _mm256_min_ps(b, _mm256_permute_ps(b, 0x4E));
  return {_mm256_min_ps(c, _mm256_permute_ps(c, 0xB1))};
}
// Of the four by four in either half: rows 0, 1 and 2 as columns.
struct ThreeRows {
  Float8 x, y, z;
};
inline ThreeRows FirstThreeRows(const Float8 (&a)[4]) {
  const __m256 low = _mm256_unpacklo_ps(a[0].v, a[1].v), low2 = _mm256_unpacklo_ps(a[2].v, a[3].v);
  const __m256 high = _mm256_unpackhi_ps(a[0].v, a[1].v), high2 = _mm256_unpackhi_ps(a[2].v, a[3].v);
  return {{_mm256_shuffle_ps(low, low2, 0x44)},
          {_mm256_shuffle_ps(low, low2, 0xEE)},
          {_mm256_shuffle_ps(high, high2, 0x44)}};
}
// (x + y) * z + x * y of the first three lanes.
inline float PairProducts(Float4 a) {
  const __m128 y = _mm_movehdup_ps(a.v), z = _mm_movehl_ps(a.v, a.v);
  return _mm_cvtss_f32(_mm_add_ss(_mm_mul_ss(_mm_add_ss(a.v, y), z), _mm_mul_ss(a.v, y)));
}
struct Where4 {
  __m128 v;
};
inline Where4 operator&(Where4 a, Where4 b) { return {_mm_and_ps(a.v, b.v)}; }
inline Float4 Choose(Where4 where, Float4 a, Float4 b) { return {_mm_blendv_ps(b.v, a.v, where.v)}; }
inline unsigned Bits(Where4 a) { return static_cast<unsigned>(_mm_movemask_ps(a.v)); }
inline Where4 LessEqual(Float4 a, Float4 b) { return {_mm_cmple_ps(a.v, b.v)}; }
inline unsigned MaskLessEqual(Float4 a, Float4 b) { return Bits(LessEqual(a, b)); }
// Lanes truncated towards zero and limited to 0..limit; not-a-number gives 0.
inline void TruncateTo(Float8 a, std::int32_t limit, std::int32_t (&out)[8]) {
  const __m256i whole = _mm256_cvttps_epi32(a.v);
  const __m256i clamped =
      _mm256_min_epi32(_mm256_max_epi32(whole, _mm256_setzero_si256()), _mm256_set1_epi32(limit));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), clamped);
}
// The same of four vectors as bytes, to a limit of at most 255: the low halves of all, then the high ones.
inline void TruncateToBytes(const Float8 (&a)[4], std::uint8_t limit, std::uint8_t* out) {
  __m256i words[4];
  for (int i = 0; i < 4; ++i) words[i] = _mm256_cvttps_epi32(a[i].v);
  const __m256i bytes =
      _mm256_packus_epi16(_mm256_packs_epi32(words[0], words[1]), _mm256_packs_epi32(words[2], words[3]));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                      _mm256_min_epu8(bytes, _mm256_set1_epi8(static_cast<char>(limit))));
}

// `float` as a lane type of one.
inline float MulAdd(float a, float b, float c) { return std::fma(a, b, c); }
inline float MulSub(float a, float b, float c) { return std::fma(a, b, -c); }
inline unsigned MaskLessEqual(float a, float b) { return a <= b ? 1U : 0U; }
inline unsigned LessEqual(float a, float b) { return MaskLessEqual(a, b); }
inline unsigned MaskLess(float a, float b) { return a < b ? 1U : 0U; }
inline unsigned Bits(unsigned lanes) { return lanes; }

// The twin: the same operations as loops.
template <int kLanes>
struct PlainLanes {
  float v[kLanes];
  static PlainLanes Load(const float* p) {
    PlainLanes r;
    for (int i = 0; i < kLanes; ++i) r.v[i] = p[i];
    return r;
  }
  static PlainLanes LoadAligned(const float* p) { return Load(p); }
  static PlainLanes Set(float x) {
    PlainLanes r;
    for (float& lane : r.v) lane = x;
    return r;
  }
  void Store(float* p) const {
    for (int i = 0; i < kLanes; ++i) p[i] = v[i];
  }
  template <class Operation>
  static PlainLanes Each(Operation operation) {
    PlainLanes r;
    for (int i = 0; i < kLanes; ++i) r.v[i] = operation(i);
    return r;
  }
  friend PlainLanes operator+(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] + b.v[i]; });
  }
  friend PlainLanes operator-(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] - b.v[i]; });
  }
  friend PlainLanes operator*(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] * b.v[i]; });
  }
  friend PlainLanes operator/(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] / b.v[i]; });
  }
  friend PlainLanes Max(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] > b.v[i] ? a.v[i] : b.v[i]; });
  }
  friend PlainLanes Min(PlainLanes a, PlainLanes b) {
    return Each([&](int i) { return a.v[i] < b.v[i] ? a.v[i] : b.v[i]; });
  }
  friend PlainLanes Sqrt(PlainLanes a) {
    return Each([&](int i) { return std::sqrt(a.v[i]); });
  }
  friend PlainLanes Abs(PlainLanes a) {
    return Each([&](int i) { return std::fabs(a.v[i]); });
  }
  friend PlainLanes MulAdd(PlainLanes a, PlainLanes b, PlainLanes c) {
    return Each([&](int i) { return std::fma(a.v[i], b.v[i], c.v[i]); });
  }
  friend PlainLanes MulSub(PlainLanes a, PlainLanes b, PlainLanes c) {
    return Each([&](int i) { return std::fma(a.v[i], b.v[i], -c.v[i]); });
  }
  friend unsigned MaskLessEqual(PlainLanes a, PlainLanes b) {
    unsigned mask = 0;
    for (int i = 0; i < kLanes; ++i) mask |= static_cast<unsigned>(a.v[i] <= b.v[i]) << i;
    return mask;
  }
  friend unsigned LessEqual(PlainLanes a, PlainLanes b) { return MaskLessEqual(a, b); }
  friend unsigned MaskLess(PlainLanes a, PlainLanes b) {
    unsigned mask = 0;
    for (int i = 0; i < kLanes; ++i) mask |= static_cast<unsigned>(a.v[i] < b.v[i]) << i;
    return mask;
  }
};

// For each mask of eight lanes: its lanes from the highest to the lowest.
struct alignas(64) LaneOrders {
  std::uint32_t lanes[256][8];
};
constexpr LaneOrders MakeLaneOrders() {
  LaneOrders orders = {};
  for (unsigned mask = 0; mask < 256; ++mask) {
    int n = 0;
    for (unsigned lane = 8; lane-- > 0;)
      if ((mask >> lane & 1U) != 0) orders.lanes[mask][n++] = lane;
  }
  return orders;
}
inline constexpr LaneOrders kLaneOrders = MakeLaneOrders();

// Eight words at once, for stacks and counts.
struct Words8 {
  __m256i v;
  static Words8 Load(const std::uint32_t* p) {
    return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
  }
  static Words8 Set(std::uint32_t x) { return {_mm256_set1_epi32(static_cast<int>(x))}; }
  // Its bytes, the lowest first.
  static Words8 OfBytes(std::uint64_t x) {
    return {_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(x)))};
  }
  std::uint32_t Last() const { return static_cast<std::uint32_t>(_mm256_extract_epi32(v, 7)); }
  void Store(std::uint32_t* p) const { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
};
inline Words8 operator+(Words8 a, Words8 b) { return {_mm256_add_epi32(a.v, b.v)}; }
// The last two lanes are the bits of `words`, the lower first.
inline Float8 WithLastWords(Float8 a, std::uint64_t words) {
  const __m256i all = _mm256_set1_epi64x(static_cast<long long>(words));
  return {_mm256_blend_ps(a.v, _mm256_castsi256_ps(all), 0xC0)};
}
inline Words8 MakeWords(const std::uint32_t (&a)[4], const std::uint32_t (&b)[4]) {
  const auto word = [](std::uint32_t x) { return static_cast<int>(x); };
  return {_mm256_setr_epi32(word(a[0]), word(a[1]), word(a[2]), word(a[3]), word(b[0]), word(b[1]),
                            word(b[2]), word(b[3]))};
}
// Byte `number` of each word, counted from the lowest, as a signed number.
template <int number>
Float8 SignedByte(Words8 a) {
  return {_mm256_cvtepi32_ps(_mm256_srai_epi32(_mm256_slli_epi32(a.v, 24 - 8 * number), 24))};
}
inline Words8 operator-(Words8 a, Words8 b) { return {_mm256_sub_epi32(a.v, b.v)}; }
inline Float8 ToFloat(Words8 a) { return {_mm256_cvtepi32_ps(a.v)}; }  // below 2^31
// Lane i of the result is lane order[i] of a, of which the lowest three bits count.
inline Float8 Permute(Float8 a, Words8 order) { return {_mm256_permutevar8x32_ps(a.v, order.v)}; }
inline Words8 Permute(Words8 a, Words8 order) { return {_mm256_permutevar8x32_epi32(a.v, order.v)}; }

// Always inline: GCC drops the call of a function that does nothing but fetch ahead.
[[gnu::always_inline]] inline void Prefetch(const void* address) {
  _mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
}

}  // namespace zp
