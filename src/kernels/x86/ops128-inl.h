// 16-byte vector operations for the generic row kernel (row_kernel-inl.h):
// four float or two double lanes. No include guard: each x86 kernel source
// includes this inside its own target region, under its own QZ_TARGET_NS.

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <class C>
struct Ops128;

template <>
struct Ops128<float> {
  using Coord = float;
  static constexpr int lanes = 4;
  using V = __m128;
  using Mask = __m128;
  using Index = __m128i;

  static V load(const float* p) { return _mm_loadu_ps(p); }
  static void store(float* p, V v) { _mm_storeu_ps(p, v); }
  static V set1(float c) { return _mm_set1_ps(c); }
  static V add(V a, V b) { return _mm_add_ps(a, b); }
  static V sub(V a, V b) { return _mm_sub_ps(a, b); }
  static V mul(V a, V b) { return _mm_mul_ps(a, b); }
  static V fma(V a, V b, V c) { return _mm_fmadd_ps(a, b, c); }
  static V neg(V a) { return _mm_xor_ps(a, _mm_set1_ps(-0.0f)); }
  static V floor(V a) { return _mm_round_ps(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm_round_ps(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm_round_ps(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm_cmpgt_ps(a, b); }
  static Mask or_(Mask a, Mask b) { return _mm_or_ps(a, b); }
  static V select(Mask m, V yes, V no) { return _mm_blendv_ps(no, yes, m); }
  // Truncation gives INT32_MIN for NaN and for both overflows; flipping the
  // lanes at or above 2^31 turns them into INT32_MAX (saturation). A NaN's
  // INT32_MIN clamps to 0, as the model's 0 does.
  static Index to_index(V a) {
    const __m128i t = _mm_cvttps_epi32(a);
    const __m128i high = _mm_castps_si128(_mm_cmpge_ps(a, _mm_set1_ps(2147483648.0f)));
    return _mm_xor_si128(t, high);
  }
  static Index clamp(Index i, int32_t hi) {
    return _mm_max_epi32(_mm_min_epi32(i, _mm_set1_epi32(hi)), _mm_setzero_si128());
  }
  static V to_coord(Index i) { return _mm_cvtepi32_ps(i); }
  static void store_index(int32_t* p, Index i) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), i);
  }

  // uint32 to float with one rounding: the high half times 2^16 and the low
  // half are both exact, so their sum is the only rounding.
  static V unsigned_to_coord(__m128i u) {
    const __m128 high = _mm_mul_ps(_mm_cvtepi32_ps(_mm_srli_epi32(u, 16)), _mm_set1_ps(65536.0f));
    const __m128 low = _mm_cvtepi32_ps(_mm_and_si128(u, _mm_set1_epi32(0xFFFF)));
    return _mm_add_ps(high, low);
  }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    if constexpr (std::is_same_v<Sample, float>) {
      return _mm_setr_ps(b[o[0]], b[o[1]], b[o[2]], b[o[3]]);
    } else if constexpr (std::is_same_v<Sample, uint32_t>) {
      return unsigned_to_coord(_mm_setr_epi32(static_cast<int>(b[o[0]]), static_cast<int>(b[o[1]]),
                                              static_cast<int>(b[o[2]]),
                                              static_cast<int>(b[o[3]])));
    } else {
      // 8- and 16-bit samples are sign- or zero-extended by their type.
      return _mm_cvtepi32_ps(_mm_setr_epi32(b[o[0]], b[o[1]], b[o[2]], b[o[3]]));
    }
  }
};

template <>
struct Ops128<double> {
  using Coord = double;
  static constexpr int lanes = 2;
  using V = __m128d;
  using Mask = __m128d;
  using Index = __m128i;  // two int32 lanes in the low half

  static V load(const double* p) { return _mm_loadu_pd(p); }
  static void store(double* p, V v) { _mm_storeu_pd(p, v); }
  static V set1(double c) { return _mm_set1_pd(c); }
  static V add(V a, V b) { return _mm_add_pd(a, b); }
  static V sub(V a, V b) { return _mm_sub_pd(a, b); }
  static V mul(V a, V b) { return _mm_mul_pd(a, b); }
  static V fma(V a, V b, V c) { return _mm_fmadd_pd(a, b, c); }
  static V neg(V a) { return _mm_xor_pd(a, _mm_set1_pd(-0.0)); }
  static V floor(V a) { return _mm_round_pd(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm_round_pd(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm_round_pd(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm_cmpgt_pd(a, b); }
  static Mask or_(Mask a, Mask b) { return _mm_or_pd(a, b); }
  static V select(Mask m, V yes, V no) { return _mm_blendv_pd(no, yes, m); }
  // Through 64 bits, keeping the low 32: truncation gives INT64_MIN (low
  // half 0) for NaN and overflow, the same clamped index as saturation.
  static Index to_index(V a) {
    const int64_t lane0 = _mm_cvttsd_si64(a);
    const int64_t lane1 = _mm_cvttsd_si64(_mm_unpackhi_pd(a, a));
    return _mm_setr_epi32(static_cast<int32_t>(lane0), static_cast<int32_t>(lane1), 0, 0);
  }
  static Index clamp(Index i, int32_t hi) {
    return _mm_max_epi32(_mm_min_epi32(i, _mm_set1_epi32(hi)), _mm_setzero_si128());
  }
  static V to_coord(Index i) { return _mm_cvtepi32_pd(i); }
  static void store_index(int32_t* p, Index i) {
    _mm_storel_epi64(reinterpret_cast<__m128i*>(p), i);
  }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return _mm_setr_pd(b[o[0]], b[o[1]]);
  }
};

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d
