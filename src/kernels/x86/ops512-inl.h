// 64-byte vector operations for the generic row kernel: sixteen float or
// eight double lanes, so one vector covers four float blocks or one 8-bit
// block. No include guard: included inside a target region, under
// QZ_TARGET_NS.

namespace qzinterp3d {
namespace QZ_TARGET_NS {

// Embedded rounding for the round_to_index modes: 0 nearest (ties to
// even), 1 down, 2 up.
template <int Mode>
inline constexpr int rounding_of = Mode == 0   ? _MM_FROUND_TO_NEAREST_INT
                                   : Mode == 1 ? _MM_FROUND_TO_NEG_INF
                                               : _MM_FROUND_TO_POS_INF;

template <class C>
struct Ops512;
template <class C>
struct Ops512SampleLoads;

template <>
struct Ops512<float> {
  using Coord = float;
  // Rows read with scalar loads (RowShape::scalar_loads): through the 32-byte
  // operations, except nearest over integer samples, which loads one sample
  // a lane at full width.
  using ScalarLoadRows = Ops256<float>;
  using ScalarLoadIntegerSingles = Ops512SampleLoads<float>;
  static constexpr int lanes = 16;
  static constexpr int vector_registers = 32;
  using V = __m512;
  using Mask = __mmask16;
  using Index = __m512i;

  static V load(const float* p) { return _mm512_loadu_ps(p); }
  static void store(float* p, V v) { _mm512_storeu_ps(p, v); }
  static V set1(float c) { return _mm512_set1_ps(c); }
  static V add(V a, V b) { return _mm512_add_ps(a, b); }
  static V sub(V a, V b) { return _mm512_sub_ps(a, b); }
  static V mul(V a, V b) { return _mm512_mul_ps(a, b); }
  static V fma(V a, V b, V c) { return _mm512_fmadd_ps(a, b, c); }
  static V neg(V a) {
    return _mm512_castsi512_ps(
        _mm512_xor_si512(_mm512_castps_si512(a), _mm512_set1_epi32(INT32_MIN)));
  }
  static V floor(V a) { return _mm512_roundscale_ps(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm512_roundscale_ps(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm512_roundscale_ps(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
  static Mask or_(Mask a, Mask b) { return static_cast<Mask>(a | b); }
  static V select(Mask m, V yes, V no) { return _mm512_mask_blend_ps(m, no, yes); }
  // Truncation gives INT32_MIN for NaN and overflow; lanes at or above 2^31
  // saturate to INT32_MAX.
  static Index to_index(V a) {
    const Mask high = _mm512_cmp_ps_mask(a, _mm512_set1_ps(2147483648.0f), _CMP_GE_OQ);
    return _mm512_mask_mov_epi32(_mm512_cvttps_epi32(a), high, _mm512_set1_epi32(INT32_MAX));
  }
  static Index clamp(Index i, int32_t hi) {
    return _mm512_max_epi32(_mm512_min_epi32(i, _mm512_set1_epi32(hi)), _mm512_setzero_si512());
  }
  // Rounding and conversion in one instruction (mode 0: nearest, ties to
  // even; 1: down; 2: up), then as to_index: a float at or above 2^31 rounds
  // to 2^31 or more in every mode, and saturates.
  template <int Mode>
  static Index round_to_index(V a) {
    const Mask high = _mm512_cmp_ps_mask(a, _mm512_set1_ps(2147483648.0f), _CMP_GE_OQ);
    return _mm512_mask_mov_epi32(_mm512_cvt_roundps_epi32(a, rounding_of<Mode> | _MM_FROUND_NO_EXC),
                                 high, _mm512_set1_epi32(INT32_MAX));
  }
  // Values already known to round into [0, 2^31): no saturation.
  template <int Mode>
  static Index round_to_index_in_range(V a) {
    return _mm512_cvt_roundps_epi32(a, rounding_of<Mode> | _MM_FROUND_NO_EXC);
  }
  // not (a > b), true when either is NaN, alone and chained under a mask.
  static Mask not_gt(V a, V b) { return _mm512_cmp_ps_mask(a, b, _CMP_NGT_UQ); }
  static Mask and_not_gt(Mask m, V a, V b) { return _mm512_mask_cmp_ps_mask(m, a, b, _CMP_NGT_UQ); }
  static bool all_set(Mask m) { return _kortestc_mask16_u8(m, m); }
  // a's bits not above b's, as unsigned integers (see GroupKernel::all_inside).
  static Mask bits_within(V a, V b) {
    return _mm512_cmple_epu32_mask(_mm512_castps_si512(a), _mm512_castps_si512(b));
  }
  static Mask and_bits_within(Mask m, V a, V b) {
    return _mm512_mask_cmple_epu32_mask(m, _mm512_castps_si512(a), _mm512_castps_si512(b));
  }
  static V to_coord(Index i) { return _mm512_cvtepi32_ps(i); }
  static void store_index(int32_t* p, Index i) { _mm512_store_si512(p, i); }

  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return _mm512_add_epi32(a, b); }
  static Index mul_index(Index a, int32_t s) { return _mm512_mullo_epi32(a, _mm512_set1_epi32(s)); }
  static Index set1_index(int32_t v) { return _mm512_set1_epi32(v); }
  // Hardware gathers: on the CPUs measured they beat scalar loads here (see
  // the benchmark notes); 8- and 16-bit samples are read as 32-bit words
  // that stay inside the sample's row and shifted into place.
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    if constexpr (sizeof(Sample) == 4) {
      return convert_words<Sample>(_mm512_i32gather_epi32(offsets, b, 4));
    } else {
      alignas(64) uint32_t o[16];
      _mm512_store_si512(o, offsets);
      return from_lanes(b, o);
    }
  }

  static constexpr bool has_x_pair_gather = true;
  using IndexMask = __mmask16;
  static Index min_index(Index a, int32_t hi) { return _mm512_min_epi32(a, _mm512_set1_epi32(hi)); }
  static IndexMask index_gt(Index a, Index b) { return _mm512_cmpgt_epi32_mask(a, b); }
  static V select_by_index_mask(IndexMask m, V yes, V no) {
    return _mm512_mask_blend_ps(m, no, yes);
  }

  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index p, int32_t nx, V& first,
                             V& second) {
    if constexpr (sizeof(Sample) == 4) {
      // Eight 64-bit pairs per gather, then even and odd words apart.
      const __m512i lanes0to7 = _mm512_i32gather_epi64(_mm512_castsi512_si256(offsets), b, 4);
      const __m512i lanes8to15 =
          _mm512_i32gather_epi64(_mm512_extracti64x4_epi64(offsets, 1), b, 4);
      const __m512i even =
          _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
      const __m512i odd =
          _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
      first = convert_words<Sample>(_mm512_permutex2var_epi32(lanes0to7, even, lanes8to15));
      second = convert_words<Sample>(_mm512_permutex2var_epi32(lanes0to7, odd, lanes8to15));
    } else if constexpr (sizeof(Sample) == 2) {
      const __m512i w = _mm512_i32gather_epi32(offsets, b, 2);  // samples p and p + 1
      if constexpr (std::is_signed_v<Sample>) {
        first = _mm512_cvtepi32_ps(_mm512_srai_epi32(_mm512_slli_epi32(w, 16), 16));
        second = _mm512_cvtepi32_ps(_mm512_srai_epi32(w, 16));
      } else {
        first = _mm512_cvtepi32_ps(_mm512_and_si512(w, _mm512_set1_epi32(0xFFFF)));
        second = _mm512_cvtepi32_ps(_mm512_srli_epi32(w, 16));
      }
    } else {
      // Four bytes holding p and p + 1: the aligned word that holds p where
      // p + 1 is in it too and the word lies in the row, since an aligned
      // word never straddles two cache lines (which would double the lines
      // a gather waits for). `back` is where sample p sits in the word.
      const __m512i back = _mm512_max_epi32(
          _mm512_min_epi32(_mm512_min_epi32(misalignment(b, offsets), p), _mm512_set1_epi32(2)),
          _mm512_sub_epi32(p, _mm512_set1_epi32(nx - 4)));
      const __m512i w = _mm512_i32gather_epi32(_mm512_sub_epi32(offsets, back), b, 1);
      const __m512i bits = _mm512_slli_epi32(back, 3);
      // Move sample p to the top byte, then shift down with its sign or not.
      const __m512i at_top_first =
          _mm512_sllv_epi32(w, _mm512_sub_epi32(_mm512_set1_epi32(24), bits));
      const __m512i at_top_second =
          _mm512_sllv_epi32(w, _mm512_sub_epi32(_mm512_set1_epi32(16), bits));
      first = top_byte<Sample>(at_top_first);
      second = top_byte<Sample>(at_top_second);
    }
  }

  // True when the pair of samples at every lane's offset straddles the end
  // of a 64-byte line.
  template <class Sample>
  static bool pairs_straddle_lines(const Sample* b, Index offsets) {
    constexpr int shift = sizeof(Sample) == 1 ? 0 : sizeof(Sample) == 2 ? 1 : 2;
    const int32_t base = static_cast<int32_t>(reinterpret_cast<uintptr_t>(b) & 63);
    const __m512i in_line = _mm512_and_si512(
        _mm512_add_epi32(_mm512_slli_epi32(offsets, shift), _mm512_set1_epi32(base)),
        _mm512_set1_epi32(63));
    return _mm512_cmpeq_epi32_mask(in_line, _mm512_set1_epi32(64 - int32_t{sizeof(Sample)})) ==
           0xFFFF;
  }

  // Where the bytes at offsets sit in their aligned 4-byte words.
  template <class Sample>
  static __m512i misalignment(const Sample* b, Index offsets) {
    const int32_t base = static_cast<int32_t>(reinterpret_cast<uintptr_t>(b) & 3);
    const __m512i bytes = sizeof(Sample) == 1 ? offsets : _mm512_add_epi32(offsets, offsets);
    return _mm512_and_si512(_mm512_add_epi32(bytes, _mm512_set1_epi32(base)), _mm512_set1_epi32(3));
  }
  template <class Sample>
  static V top_byte(__m512i w) {
    return _mm512_cvtepi32_ps(std::is_signed_v<Sample> ? _mm512_srai_epi32(w, 24)
                                                       : _mm512_srli_epi32(w, 24));
  }

  // One 8- or 16-bit sample per lane (x its index in the row), read as the
  // aligned word that holds it, or, at the row's ends, the word moved into
  // the row (nx > 16 bytes): no read straddles two cache lines, where the
  // row does not.
  template <class Sample>
  static V gather_narrow_singles(const Sample* b, Index offsets, Index x, int32_t nx) {
    constexpr int32_t per_word = 4 / sizeof(Sample);
    const __m512i in_word = sizeof(Sample) == 1 ? misalignment(b, offsets)
                                                : _mm512_srli_epi32(misalignment(b, offsets), 1);
    const __m512i back = _mm512_max_epi32(_mm512_min_epi32(in_word, x),
                                          _mm512_sub_epi32(x, _mm512_set1_epi32(nx - per_word)));
    const __m512i w = _mm512_i32gather_epi32(_mm512_sub_epi32(offsets, back), b, sizeof(Sample));
    // The sample to the top, then down with its sign or not.
    constexpr int32_t top = 32 - 8 * static_cast<int32_t>(sizeof(Sample));
    const __m512i at_top = _mm512_sllv_epi32(
        w, _mm512_sub_epi32(_mm512_set1_epi32(top),
                            _mm512_slli_epi32(back, sizeof(Sample) == 1 ? 3 : 4)));
    return _mm512_cvtepi32_ps(std::is_signed_v<Sample> ? _mm512_srai_epi32(at_top, top)
                                                       : _mm512_srli_epi32(at_top, top));
  }

  // Windows: sixteen consecutive samples by one load, handed out by
  // permutes.
  static constexpr bool has_window_loads = true;
  static uint32_t bits(IndexMask m) { return m; }
  static IndexMask mask_of_bits(uint32_t b) { return static_cast<IndexMask>(b); }
  static IndexMask mask_andnot(IndexMask a, IndexMask b) { return _kandn_mask16(a, b); }
  static bool union_is_full(IndexMask a, IndexMask b) { return _kortestc_mask16_u8(a, b); }
  static Index sub_index(Index a, Index b) { return _mm512_sub_epi32(a, b); }
  static Index clamp_index(Index i, int32_t lo, int32_t hi) {
    return _mm512_max_epi32(_mm512_min_epi32(i, _mm512_set1_epi32(hi)), _mm512_set1_epi32(lo));
  }
  static Index broadcast_lane(Index i, int lane) {
    return _mm512_permutexvar_epi32(_mm512_set1_epi32(lane), i);
  }
  static int32_t first_lane(Index i) { return _mm_cvtsi128_si32(_mm512_castsi512_si128(i)); }
  static IndexMask index_within(Index rel, int32_t max) {
    return _mm512_cmple_epu32_mask(rel, _mm512_set1_epi32(max));
  }
  template <class Sample>
  static V load_window(const Sample* p) {
    if constexpr (sizeof(Sample) == 4) {
      return convert_words<Sample>(_mm512_loadu_si512(p));
    } else if constexpr (sizeof(Sample) == 2) {
      const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
      return _mm512_cvtepi32_ps(std::is_signed_v<Sample> ? _mm512_cvtepi16_epi32(w)
                                                         : _mm512_cvtepu16_epi32(w));
    } else {
      const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      return _mm512_cvtepi32_ps(std::is_signed_v<Sample> ? _mm512_cvtepi8_epi32(w)
                                                         : _mm512_cvtepu8_epi32(w));
    }
  }
  static V permute(V window, Index rel) { return _mm512_permutexvar_ps(rel, window); }
  static V permute_into(V dst, IndexMask m, V window, Index rel) {
    return _mm512_mask_permutexvar_ps(dst, m, rel, window);
  }

  template <class Sample>
  static V convert_words(__m512i v) {
    if constexpr (std::is_same_v<Sample, float>) {
      return _mm512_castsi512_ps(v);
    } else if constexpr (std::is_same_v<Sample, uint32_t>) {
      return _mm512_cvtepu32_ps(v);  // one rounding, unsigned
    } else {
      return _mm512_cvtepi32_ps(v);
    }
  }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    return from_lanes(b, o);
  }
  template <class Sample, class Offset>
  static V from_lanes(const Sample* b, const Offset* o) {
    if constexpr (std::is_same_v<Sample, float>) {
      return _mm512_setr_ps(b[o[0]], b[o[1]], b[o[2]], b[o[3]], b[o[4]], b[o[5]], b[o[6]], b[o[7]],
                            b[o[8]], b[o[9]], b[o[10]], b[o[11]], b[o[12]], b[o[13]], b[o[14]],
                            b[o[15]]);
    } else {
      const __m512i v = _mm512_setr_epi32(
          static_cast<int>(b[o[0]]), static_cast<int>(b[o[1]]), static_cast<int>(b[o[2]]),
          static_cast<int>(b[o[3]]), static_cast<int>(b[o[4]]), static_cast<int>(b[o[5]]),
          static_cast<int>(b[o[6]]), static_cast<int>(b[o[7]]), static_cast<int>(b[o[8]]),
          static_cast<int>(b[o[9]]), static_cast<int>(b[o[10]]), static_cast<int>(b[o[11]]),
          static_cast<int>(b[o[12]]), static_cast<int>(b[o[13]]), static_cast<int>(b[o[14]]),
          static_cast<int>(b[o[15]]));
      if constexpr (std::is_same_v<Sample, uint32_t>) {
        return _mm512_cvtepu32_ps(v);  // one rounding, unsigned
      } else {
        return _mm512_cvtepi32_ps(v);
      }
    }
  }
};

template <>
struct Ops512<double> {
  using Coord = double;
  // Rows read with scalar loads (RowShape::scalar_loads): through the 32-byte
  // operations, except nearest over integer samples, which loads one sample
  // a lane at full width.
  using ScalarLoadRows = Ops256<double>;
  using ScalarLoadIntegerSingles = Ops512SampleLoads<double>;
  static constexpr int lanes = 8;
  static constexpr int vector_registers = 32;
  using V = __m512d;
  using Mask = __mmask8;
  using Index = __m256i;

  static V load(const double* p) { return _mm512_loadu_pd(p); }
  static void store(double* p, V v) { _mm512_storeu_pd(p, v); }
  static V set1(double c) { return _mm512_set1_pd(c); }
  static V add(V a, V b) { return _mm512_add_pd(a, b); }
  static V sub(V a, V b) { return _mm512_sub_pd(a, b); }
  static V mul(V a, V b) { return _mm512_mul_pd(a, b); }
  static V fma(V a, V b, V c) { return _mm512_fmadd_pd(a, b, c); }
  static V neg(V a) {
    return _mm512_castsi512_pd(
        _mm512_xor_si512(_mm512_castpd_si512(a), _mm512_set1_epi64(INT64_MIN)));
  }
  static V floor(V a) { return _mm512_roundscale_pd(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm512_roundscale_pd(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm512_roundscale_pd(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm512_cmp_pd_mask(a, b, _CMP_GT_OQ); }
  static Mask or_(Mask a, Mask b) { return static_cast<Mask>(a | b); }
  static V select(Mask m, V yes, V no) { return _mm512_mask_blend_pd(m, no, yes); }
  // Through 64 bits, keeping the low 32 (INT64_MIN, low half 0, for NaN and
  // overflow: the same clamped index as saturation).
  static Index to_index(V a) { return _mm512_cvtepi64_epi32(_mm512_cvttpd_epi64(a)); }
  static Index clamp(Index i, int32_t hi) {
    return _mm256_max_epi32(_mm256_min_epi32(i, _mm256_set1_epi32(hi)), _mm256_setzero_si256());
  }
  static V to_coord(Index i) { return _mm512_cvtepi32_pd(i); }
  static void store_index(int32_t* p, Index i) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(p), i);
  }
  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return from_lanes(b, o);
  }
  template <class Sample, class Offset>
  static V from_lanes(const Sample* b, const Offset* o) {
    return _mm512_setr_pd(b[o[0]], b[o[1]], b[o[2]], b[o[3]], b[o[4]], b[o[5]], b[o[6]], b[o[7]]);
  }

  // As Ops512<float>: rounding and conversion in one instruction, through 64
  // bits keeping the low 32 as to_index does; chained masked comparisons.
  template <int Mode>
  static Index round_to_index(V a) {
    return _mm512_cvtepi64_epi32(
        _mm512_cvt_roundpd_epi64(a, rounding_of<Mode> | _MM_FROUND_NO_EXC));
  }
  template <int Mode>
  static Index round_to_index_in_range(V a) {
    return _mm512_cvt_roundpd_epi32(a, rounding_of<Mode> | _MM_FROUND_NO_EXC);
  }
  static Mask not_gt(V a, V b) { return _mm512_cmp_pd_mask(a, b, _CMP_NGT_UQ); }
  static Mask and_not_gt(Mask m, V a, V b) { return _mm512_mask_cmp_pd_mask(m, a, b, _CMP_NGT_UQ); }
  static bool all_set(Mask m) { return _kortestc_mask8_u8(m, m); }
  static Mask bits_within(V a, V b) {
    return _mm512_cmple_epu64_mask(_mm512_castpd_si512(a), _mm512_castpd_si512(b));
  }
  static Mask and_bits_within(Mask m, V a, V b) {
    return _mm512_mask_cmple_epu64_mask(m, _mm512_castpd_si512(a), _mm512_castpd_si512(b));
  }

  // Offsets in 32-bit lanes (eight, in a 32-byte vector).
  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return _mm256_add_epi32(a, b); }
  static Index mul_index(Index a, int32_t s) { return _mm256_mullo_epi32(a, _mm256_set1_epi32(s)); }
  static Index set1_index(int32_t v) { return _mm256_set1_epi32(v); }
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return _mm512_i32gather_pd(offsets, b, 8);
  }
  using IndexMask = __mmask8;
  static Index min_index(Index a, int32_t hi) { return _mm256_min_epi32(a, _mm256_set1_epi32(hi)); }
  static IndexMask index_gt(Index a, Index b) { return _mm256_cmpgt_epi32_mask(a, b); }
  static V select_by_index_mask(IndexMask m, V yes, V no) {
    return _mm512_mask_blend_pd(m, no, yes);
  }

  // Windows of eight samples.
  static constexpr bool has_window_loads = true;
  static uint32_t bits(IndexMask m) { return m; }
  static IndexMask mask_of_bits(uint32_t b) { return static_cast<IndexMask>(b); }
  static IndexMask mask_andnot(IndexMask a, IndexMask b) { return _kandn_mask8(a, b); }
  static bool union_is_full(IndexMask a, IndexMask b) { return _kortestc_mask8_u8(a, b); }
  static Index sub_index(Index a, Index b) { return _mm256_sub_epi32(a, b); }
  static Index clamp_index(Index i, int32_t lo, int32_t hi) {
    return _mm256_max_epi32(_mm256_min_epi32(i, _mm256_set1_epi32(hi)), _mm256_set1_epi32(lo));
  }
  static Index broadcast_lane(Index i, int lane) {
    return _mm256_permutexvar_epi32(_mm256_set1_epi32(lane), i);
  }
  static int32_t first_lane(Index i) { return _mm_cvtsi128_si32(_mm256_castsi256_si128(i)); }
  static IndexMask index_within(Index rel, int32_t max) {
    return _mm256_cmple_epu32_mask(rel, _mm256_set1_epi32(max));
  }
  template <class Sample>
  static V load_window(const Sample* p) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return _mm512_loadu_pd(p);
  }
  static V permute(V window, Index rel) {
    return _mm512_permutexvar_pd(_mm512_cvtepu32_epi64(rel), window);
  }
  static V permute_into(V dst, IndexMask m, V window, Index rel) {
    return _mm512_mask_permutexvar_pd(dst, m, _mm512_cvtepu32_epi64(rel), window);
  }
};

// The same operations reading samples with scalar loads instead of
// hardware gathers: on CPUs whose gathers are slow (see dispatch.cpp) sixteen
// loads, or sixteen loads of x pairs, cost less than one gather.
template <class C>
struct Ops512Loads : Ops512<C> {
  using Base = Ops512<C>;
  using typename Base::Index;
  using typename Base::V;
  static constexpr bool single_samples_in_pairs = false;

  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    alignas(64) uint32_t o[Base::lanes];
    Base::store_index(reinterpret_cast<int32_t*>(o), offsets);
    return Base::from_lanes(b, o);
  }

  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index /*p*/, int32_t /*nx*/, V& first,
                             V& second) requires(std::is_same_v<C, float>) {
    alignas(64) uint32_t o[16];
    Base::store_index(reinterpret_cast<int32_t*>(o), offsets);
    if constexpr (sizeof(Sample) == 4) {
      // Lanes l and l + 1 as two 64-bit pairs, then even and odd words apart.
      auto pairs = [&](int l) {
        const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b + o[l]));
        return _mm_castpd_si128(
            _mm_loadh_pd(_mm_castsi128_pd(low), reinterpret_cast<const double*>(b + o[l + 1])));
      };
      auto four = [&](int l) {
        return _mm256_inserti128_si256(_mm256_castsi128_si256(pairs(l)), pairs(l + 2), 1);
      };
      const __m512i lanes0to7 = _mm512_inserti64x4(_mm512_castsi256_si512(four(0)), four(4), 1);
      const __m512i lanes8to15 = _mm512_inserti64x4(_mm512_castsi256_si512(four(8)), four(12), 1);
      const __m512i even =
          _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
      const __m512i odd =
          _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
      first = Base::template convert_words<Sample>(
          _mm512_permutex2var_epi32(lanes0to7, even, lanes8to15));
      second = Base::template convert_words<Sample>(
          _mm512_permutex2var_epi32(lanes0to7, odd, lanes8to15));
    } else {
      // Both samples in one word, p in its low half; extended by their type.
      using Word = std::conditional_t<sizeof(Sample) == 2, uint32_t, uint16_t>;
      auto at = [&](int l) {
        Word w;
        std::memcpy(&w, b + o[l], sizeof w);
        return static_cast<int>(w);
      };
      const __m512i w =
          _mm512_setr_epi32(at(0), at(1), at(2), at(3), at(4), at(5), at(6), at(7), at(8), at(9),
                            at(10), at(11), at(12), at(13), at(14), at(15));
      constexpr int bits = 8 * sizeof(Sample);
      if constexpr (std::is_signed_v<Sample>) {
        first = _mm512_cvtepi32_ps(_mm512_srai_epi32(_mm512_slli_epi32(w, 32 - bits), 32 - bits));
        second =
            _mm512_cvtepi32_ps(_mm512_srai_epi32(_mm512_slli_epi32(w, 32 - 2 * bits), 32 - bits));
      } else {
        first = _mm512_cvtepi32_ps(_mm512_and_si512(w, _mm512_set1_epi32((1 << bits) - 1)));
        second = _mm512_cvtepi32_ps(_mm512_srli_epi32(w, bits));
      }
    }
  }
};

// Scalar loads for every sample type: 8- and 16-bit samples too are read one
// by one rather than as the words that hold them, for the nearest rows over
// integer samples whose hardware gathers lose to scalar loads
// (RowShape::scalar_loads). Sixteen lanes, not the eight of the 32-byte
// operations: over 8- and 16-bit samples those stayed behind the gathered
// words, and over 32-bit integers sixteen lanes read slices along y through
// 256^3 1.06-1.15x faster (float32 level).
template <class C>
struct Ops512SampleLoads : Ops512Loads<C> {
  using typename Ops512Loads<C>::Index;
  using typename Ops512Loads<C>::V;
  template <class Sample>
  static V gather_narrow_singles(const Sample* b, Index offsets, Index x, int32_t nx) = delete;
};

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d
