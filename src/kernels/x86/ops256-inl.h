// 32-byte vector operations for the generic row kernel: eight float or four
// double lanes, so one vector covers two float blocks (or two double
// blocks). No include guard: included inside a target region, under
// QZ_TARGET_NS.

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <class C>
struct Ops256;

template <>
struct Ops256<float> {
  using Coord = float;
  static constexpr int lanes = 8;
  using V = __m256;
  using Mask = __m256;
  using Index = __m256i;

  static V load(const float* p) { return _mm256_loadu_ps(p); }
  static void store(float* p, V v) { _mm256_storeu_ps(p, v); }
  static V set1(float c) { return _mm256_set1_ps(c); }
  static V add(V a, V b) { return _mm256_add_ps(a, b); }
  static V sub(V a, V b) { return _mm256_sub_ps(a, b); }
  static V mul(V a, V b) { return _mm256_mul_ps(a, b); }
  static V fma(V a, V b, V c) { return _mm256_fmadd_ps(a, b, c); }
  static V neg(V a) { return _mm256_xor_ps(a, _mm256_set1_ps(-0.0f)); }
  static V floor(V a) { return _mm256_round_ps(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm256_round_ps(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm256_round_ps(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm256_cmp_ps(a, b, _CMP_GT_OQ); }
  static Mask or_(Mask a, Mask b) { return _mm256_or_ps(a, b); }
  static V select(Mask m, V yes, V no) { return _mm256_blendv_ps(no, yes, m); }
  // As Ops128: truncation, then INT32_MAX for lanes at or above 2^31.
  static Index to_index(V a) {
    const __m256i t = _mm256_cvttps_epi32(a);
    const __m256i high =
        _mm256_castps_si256(_mm256_cmp_ps(a, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ));
    return _mm256_xor_si256(t, high);
  }
  static Index clamp(Index i, int32_t hi) {
    return _mm256_max_epi32(_mm256_min_epi32(i, _mm256_set1_epi32(hi)), _mm256_setzero_si256());
  }
  // Values already known to round into [0, 2^31): rounded in the given mode
  // (0: nearest, ties to even; 1: down; 2: up), then converted exactly.
  // Rows run in the default floating-point environment (entry/fp_env.h), so
  // the conversion's own rounding is to nearest, ties to even: one
  // instruction instead of two.
  template <int Mode>
  static Index round_to_index_in_range(V a) {
    if constexpr (Mode == 0) {
      return _mm256_cvtps_epi32(a);
    } else {
      constexpr int rounding = Mode == 1 ? _MM_FROUND_TO_NEG_INF : _MM_FROUND_TO_POS_INF;
      return _mm256_cvttps_epi32(_mm256_round_ps(a, rounding | _MM_FROUND_NO_EXC));
    }
  }
  // a's bits not above b's, as unsigned integers (see GroupKernel::all_inside),
  // alone and and-ed into a mask: AVX2 compares only signed integers, but
  // max(a, b) == b unsigned is the same test, two instructions an axis
  // where ordered comparisons of q and d take three.
  static Mask bits_within(V a, V b) {
    const __m256i bi = _mm256_castps_si256(b);
    return _mm256_castsi256_ps(
        _mm256_cmpeq_epi32(_mm256_max_epu32(_mm256_castps_si256(a), bi), bi));
  }
  static Mask and_bits_within(Mask m, V a, V b) { return _mm256_and_ps(m, bits_within(a, b)); }
  static bool all_set(Mask m) { return _mm256_movemask_ps(m) == 0xFF; }
  static V to_coord(Index i) { return _mm256_cvtepi32_ps(i); }
  static void store_index(int32_t* p, Index i) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(p), i);
  }
  // uint32 to float with one rounding, as Ops128::unsigned_to_coord.
  [[gnu::always_inline]] static V unsigned_to_coord(__m256i u) {
    const __m256 high =
        _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(u, 16)), _mm256_set1_ps(65536.0f));
    const __m256 low = _mm256_cvtepi32_ps(_mm256_and_si256(u, _mm256_set1_epi32(0xFFFF)));
    return _mm256_add_ps(high, low);
  }

  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return _mm256_add_epi32(a, b); }
  static Index mul_index(Index a, int32_t s) { return _mm256_mullo_epi32(a, _mm256_set1_epi32(s)); }
  static Index set1_index(int32_t v) { return _mm256_set1_epi32(v); }
  // Scalar reads, not hardware gathers: this set runs on CPUs without
  // AVX-512, and on many of them (AMD before Zen 4, Intel with the gather
  // microcode mitigation) gathers are slower than eight scalar loads; on
  // Zen 3 they were level on nearest and up to 11% slower on trilinear.
  // Even on a CPU with fast gathers they won only on scattered points,
  // where reading x pairs with scalar loads wins more. Offsets are never
  // negative, and read as unsigned they need no sign extension (nearest in
  // cache, Zen 3: 1.03-1.09x).
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    alignas(32) uint32_t o[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(o), offsets);
    return from_lanes(b, o);
  }

  // The single samples of a nearest group: 16-bit ones inserted into one
  // vector and extended together, as from_lanes does 8-bit ones (Zen 3:
  // planes, deformed grids and random points in cache 1.02-1.13x faster).
  // Trilinear groups that read straddled pairs singly keep gather_offsets:
  // inserted 16-bit samples ran them 0.6-0.8x as fast.
  template <class Sample>
  static V gather_singles(const Sample* b, Index offsets) {
    if constexpr (sizeof(Sample) == 2) {
      alignas(32) uint32_t o[8];
      _mm256_store_si256(reinterpret_cast<__m256i*>(o), offsets);
      return inserted_lanes(b, o);
    } else {
      return gather_offsets(b, offsets);
    }
  }

  // Lane masks on offsets: only the sign bit of a lane counts (movemask,
  // blendv), so a mask made from bits may leave the other bits unset.
  using IndexMask = __m256i;
  static IndexMask index_gt(Index a, Index b) { return _mm256_cmpgt_epi32(a, b); }
  static Index min_index(Index a, int32_t hi) { return _mm256_min_epi32(a, _mm256_set1_epi32(hi)); }
  static V select_by_index_mask(IndexMask m, V yes, V no) {
    return _mm256_blendv_ps(no, yes, _mm256_castsi256_ps(m));
  }

  // Both x corners of a lane from one scalar read of two adjacent samples
  // (p and p + 1 both lie in the row): half the reads of two gathers.
  static constexpr bool has_x_pair_gather = true;
  // True when the pair of samples at every lane's offset straddles the end
  // of a 64-byte line.
  template <class Sample>
  static bool pairs_straddle_lines(const Sample* b, Index offsets) {
    constexpr int shift = sizeof(Sample) == 1   ? 0
                          : sizeof(Sample) == 2 ? 1
                          : sizeof(Sample) == 4 ? 2
                                                : 3;
    const int32_t base = static_cast<int32_t>(reinterpret_cast<uintptr_t>(b) & 63);
    const __m256i in_line = _mm256_and_si256(
        _mm256_add_epi32(_mm256_slli_epi32(offsets, shift), _mm256_set1_epi32(base)),
        _mm256_set1_epi32(63));
    const __m256i straddle =
        _mm256_cmpeq_epi32(in_line, _mm256_set1_epi32(64 - int32_t{sizeof(Sample)}));
    return _mm256_movemask_ps(_mm256_castsi256_ps(straddle)) == 0xFF;
  }
  // Scalar pair loads beat per-lane single loads only when both samples are
  // used; a single sample is read alone.
  static constexpr bool single_samples_in_pairs = false;
  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index /*p*/, int32_t /*nx*/, V& first,
                             V& second) {
    alignas(32) uint32_t o[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(o), offsets);
    if constexpr (sizeof(Sample) == 4) {
      // Lanes l and m as two 64-bit pairs, then even and odd words apart.
      auto pairs = [&](int l, int m) {
        const __m128i low = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b + o[l]));
        return _mm_castpd_ps(
            _mm_loadh_pd(_mm_castsi128_pd(low), reinterpret_cast<const double*>(b + o[m])));
      };
      const __m256 lanes0145 =
          _mm256_insertf128_ps(_mm256_castps128_ps256(pairs(0, 1)), pairs(4, 5), 1);
      const __m256 lanes2367 =
          _mm256_insertf128_ps(_mm256_castps128_ps256(pairs(2, 3)), pairs(6, 7), 1);
      first = convert_words<Sample>(
          _mm256_castps_si256(_mm256_shuffle_ps(lanes0145, lanes2367, _MM_SHUFFLE(2, 0, 2, 0))));
      second = convert_words<Sample>(
          _mm256_castps_si256(_mm256_shuffle_ps(lanes0145, lanes2367, _MM_SHUFFLE(3, 1, 3, 1))));
    } else {
      // Both samples in one word, p in its low half; extended by their type.
      using Word = std::conditional_t<sizeof(Sample) == 2, uint32_t, uint16_t>;
      const __m256i w = _mm256_setr_epi32(word_at<Word>(b + o[0]), word_at<Word>(b + o[1]),
                                          word_at<Word>(b + o[2]), word_at<Word>(b + o[3]),
                                          word_at<Word>(b + o[4]), word_at<Word>(b + o[5]),
                                          word_at<Word>(b + o[6]), word_at<Word>(b + o[7]));
      constexpr int bits = 8 * sizeof(Sample);
      if constexpr (std::is_signed_v<Sample>) {
        first = _mm256_cvtepi32_ps(_mm256_srai_epi32(_mm256_slli_epi32(w, 32 - bits), 32 - bits));
        second =
            _mm256_cvtepi32_ps(_mm256_srai_epi32(_mm256_slli_epi32(w, 32 - 2 * bits), 32 - bits));
      } else {
        first = _mm256_cvtepi32_ps(_mm256_and_si256(w, _mm256_set1_epi32((1 << bits) - 1)));
        second = _mm256_cvtepi32_ps(_mm256_srli_epi32(w, bits));
      }
    }
  }
  template <class Word, class Sample>
  static int word_at(const Sample* p) {
    Word w;
    std::memcpy(&w, p, sizeof w);
    return static_cast<int>(w);
  }

  // Windows: eight consecutive samples by one load, handed out by permutes.
  // Trilinear rows read through them, nearest rows do not: a nearest group
  // needs one sample a lane, and eight scalar loads, in about as many
  // instructions, do not wait on the window path's chain of broadcasts,
  // serve checks and cross-lane permutes. On Zen 3 nearest rows without
  // windows ran up to 1.46x as fast over 16- and 32-bit samples, and, since
  // 8- and 16-bit samples are inserted into one vector, 1.04-1.29x over
  // 8-bit ones (0.97-1.08x over 16-bit ones, against reading through the
  // window of a group's first lane where it serves them all).
  static constexpr bool has_window_loads = true;
  template <class Sample>
  static constexpr bool nearest_window_reads = false;
  static uint32_t bits(IndexMask m) {
    return static_cast<uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(m)));
  }
  // Bit l of b shifted to the sign bit of lane l.
  static IndexMask mask_of_bits(uint32_t b) {
    return _mm256_sllv_epi32(_mm256_set1_epi32(static_cast<int32_t>(b)),
                             _mm256_setr_epi32(31, 30, 29, 28, 27, 26, 25, 24));
  }
  // Lanes of b not in a, and whether a and b together hold every lane,
  // without going through bits.
  static IndexMask mask_andnot(IndexMask a, IndexMask b) { return _mm256_andnot_si256(a, b); }
  static bool union_is_full(IndexMask a, IndexMask b) {
    return _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_or_si256(a, b))) == 0xFF;
  }
  static Index sub_index(Index a, Index b) { return _mm256_sub_epi32(a, b); }
  static Index clamp_index(Index i, int32_t lo, int32_t hi) {
    return _mm256_max_epi32(_mm256_min_epi32(i, _mm256_set1_epi32(hi)), _mm256_set1_epi32(lo));
  }
  static Index broadcast_lane(Index i, int lane) {
    return _mm256_permutevar8x32_epi32(i, _mm256_set1_epi32(lane));
  }
  static int32_t first_lane(Index i) { return _mm_cvtsi128_si32(_mm256_castsi256_si128(i)); }
  // Unsigned rel <= max (no unsigned compare in AVX2): the unsigned maximum
  // of the two is max exactly then.
  static IndexMask index_within(Index rel, int32_t max) {
    const __m256i m = _mm256_set1_epi32(max);
    return _mm256_cmpeq_epi32(_mm256_max_epu32(rel, m), m);
  }
  // Exactly eight samples are read (8 bytes for 8-bit ones), converted as
  // the scalar reads are. Always inlined: a trilinear group reads up to
  // sixteen windows, and with that many call sites GCC left the uint32 one
  // out of line (0.88-0.95x).
  template <class Sample>
  [[gnu::always_inline]] static V load_window(const Sample* p) {
    if constexpr (sizeof(Sample) == 4) {
      return convert_words<Sample>(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
    } else if constexpr (sizeof(Sample) == 2) {
      const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
      return _mm256_cvtepi32_ps(std::is_signed_v<Sample> ? _mm256_cvtepi16_epi32(w)
                                                         : _mm256_cvtepu16_epi32(w));
    } else {
      const __m128i w = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
      return _mm256_cvtepi32_ps(std::is_signed_v<Sample> ? _mm256_cvtepi8_epi32(w)
                                                         : _mm256_cvtepu8_epi32(w));
    }
  }
  static V permute(V window, Index rel) { return _mm256_permutevar8x32_ps(window, rel); }
  static V permute_into(V dst, IndexMask m, V window, Index rel) {
    return _mm256_blendv_ps(dst, permute(window, rel), _mm256_castsi256_ps(m));
  }

  // 32-bit samples as read, converted.
  template <class Sample>
  [[gnu::always_inline]] static V convert_words(__m256i v) {
    if constexpr (std::is_same_v<Sample, float>) {
      return _mm256_castsi256_ps(v);
    } else if constexpr (std::is_same_v<Sample, uint32_t>) {
      return unsigned_to_coord(v);
    } else {
      return _mm256_cvtepi32_ps(v);
    }
  }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    return from_lanes(b, o);
  }
  // 8- or 16-bit samples, one per lane, each inserted into one vector from
  // memory, then extended together by their type.
  template <int Lane, class Sample>
  [[gnu::always_inline]] static __m128i insert_sample(__m128i v, Sample s) {
    if constexpr (sizeof(Sample) == 1) {
      return _mm_insert_epi8(v, static_cast<uint8_t>(s), Lane);
    } else {
      return _mm_insert_epi16(v, static_cast<uint16_t>(s), Lane);
    }
  }
  template <class Sample, class Offset>
  [[gnu::always_inline]] static V inserted_lanes(const Sample* b, const Offset* o) {
    static_assert(sizeof(Sample) <= 2, "narrow samples only");
    using Bits = std::make_unsigned_t<Sample>;
    __m128i v = _mm_cvtsi32_si128(static_cast<Bits>(b[o[0]]));
    v = insert_sample<1>(v, b[o[1]]);
    v = insert_sample<2>(v, b[o[2]]);
    v = insert_sample<3>(v, b[o[3]]);
    v = insert_sample<4>(v, b[o[4]]);
    v = insert_sample<5>(v, b[o[5]]);
    v = insert_sample<6>(v, b[o[6]]);
    v = insert_sample<7>(v, b[o[7]]);
    if constexpr (sizeof(Sample) == 1) {
      return _mm256_cvtepi32_ps(std::is_signed_v<Sample> ? _mm256_cvtepi8_epi32(v)
                                                         : _mm256_cvtepu8_epi32(v));
    } else {
      return _mm256_cvtepi32_ps(std::is_signed_v<Sample> ? _mm256_cvtepi16_epi32(v)
                                                         : _mm256_cvtepu16_epi32(v));
    }
  }
  // One scalar read per lane, converted.
  template <class Sample, class Offset>
  static V from_lanes(const Sample* b, const Offset* o) {
    if constexpr (std::is_same_v<Sample, float>) {
      return _mm256_setr_ps(b[o[0]], b[o[1]], b[o[2]], b[o[3]], b[o[4]], b[o[5]], b[o[6]], b[o[7]]);
    } else if constexpr (sizeof(Sample) == 1) {
      // GCC builds eight zero-extended bytes as one 64-bit word, by a chain of
      // fourteen dependent shifts and ors (Zen 3: nearest rows 1.05-1.17x,
      // trilinear slices along y 1.11-1.23x faster inserted). Inserting
      // 16-bit samples here ran trilinear slices along y 0.6-0.8x as fast.
      return inserted_lanes(b, o);
    } else {
      const __m256i v = _mm256_setr_epi32(static_cast<int>(b[o[0]]), static_cast<int>(b[o[1]]),
                                          static_cast<int>(b[o[2]]), static_cast<int>(b[o[3]]),
                                          static_cast<int>(b[o[4]]), static_cast<int>(b[o[5]]),
                                          static_cast<int>(b[o[6]]), static_cast<int>(b[o[7]]));
      if constexpr (std::is_same_v<Sample, uint32_t>) {
        return unsigned_to_coord(v);
      } else {
        return _mm256_cvtepi32_ps(v);
      }
    }
  }
};

template <>
struct Ops256<double> {
  using Coord = double;
  static constexpr int lanes = 4;
  using V = __m256d;
  using Mask = __m256d;
  using Index = __m128i;

  static V load(const double* p) { return _mm256_loadu_pd(p); }
  static void store(double* p, V v) { _mm256_storeu_pd(p, v); }
  static V set1(double c) { return _mm256_set1_pd(c); }
  static V add(V a, V b) { return _mm256_add_pd(a, b); }
  static V sub(V a, V b) { return _mm256_sub_pd(a, b); }
  static V mul(V a, V b) { return _mm256_mul_pd(a, b); }
  static V fma(V a, V b, V c) { return _mm256_fmadd_pd(a, b, c); }
  static V neg(V a) { return _mm256_xor_pd(a, _mm256_set1_pd(-0.0)); }
  static V floor(V a) { return _mm256_round_pd(a, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
  static V ceil(V a) { return _mm256_round_pd(a, _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC); }
  static V round_even(V a) {
    return _mm256_round_pd(a, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
  }
  static Mask gt(V a, V b) { return _mm256_cmp_pd(a, b, _CMP_GT_OQ); }
  static Mask or_(Mask a, Mask b) { return _mm256_or_pd(a, b); }
  static V select(Mask m, V yes, V no) { return _mm256_blendv_pd(no, yes, m); }
  // As Ops128<double>: through 64 bits, keeping the low 32.
  static Index to_index(V a) {
    const __m128d low = _mm256_castpd256_pd128(a), high = _mm256_extractf128_pd(a, 1);
    return _mm_setr_epi32(static_cast<int32_t>(_mm_cvttsd_si64(low)),
                          static_cast<int32_t>(_mm_cvttsd_si64(_mm_unpackhi_pd(low, low))),
                          static_cast<int32_t>(_mm_cvttsd_si64(high)),
                          static_cast<int32_t>(_mm_cvttsd_si64(_mm_unpackhi_pd(high, high))));
  }
  static Index clamp(Index i, int32_t hi) {
    return _mm_max_epi32(_mm_min_epi32(i, _mm_set1_epi32(hi)), _mm_setzero_si128());
  }
  // As Ops256<float>: nearest by the conversion's own rounding, down and up
  // rounded first, then converted exactly.
  template <int Mode>
  static Index round_to_index_in_range(V a) {
    if constexpr (Mode == 0) {
      return _mm256_cvtpd_epi32(a);
    } else {
      constexpr int rounding = Mode == 1 ? _MM_FROUND_TO_NEG_INF : _MM_FROUND_TO_POS_INF;
      return _mm256_cvttpd_epi32(_mm256_round_pd(a, rounding | _MM_FROUND_NO_EXC));
    }
  }
  // a's bits not above b's as unsigned integers (see Ops256<float>), for a
  // bound b whose sign bit is clear. AVX2 compares 64-bit integers only as
  // signed ones; an a with its sign bit set is out by that bit, and for the
  // others the signed comparison is the unsigned one. Only sign bits count
  // (all_set), so a lane is out where (a > b signed) | a has it set: three
  // instructions an axis, where two ordered comparisons and their ands
  // take four.
  static __m256i beyond(V a, V b) {
    const __m256i bits = _mm256_castpd_si256(a);
    return _mm256_or_si256(_mm256_cmpgt_epi64(bits, _mm256_castpd_si256(b)), bits);
  }
  static Mask bits_within(V a, V b) {
    return _mm256_castsi256_pd(_mm256_xor_si256(beyond(a, b), _mm256_set1_epi64x(-1)));
  }
  static Mask and_bits_within(Mask m, V a, V b) {
    return _mm256_andnot_pd(_mm256_castsi256_pd(beyond(a, b)), m);
  }
  static bool all_set(Mask m) { return _mm256_movemask_pd(m) == 0xF; }
  // a clamped into [0, hi], NaN to hi (minpd gives its second operand
  // where either is NaN), for prefetch hints: there it replaces to_index's
  // four scalar conversions (float64 nearest on random points in 64^3 on
  // Zen 3: 1.3x). Float coordinates keep their exact conversion, which is
  // cheap, and was a little faster on trilinear rows.
  static V clamp_coord(V a, V hi) {
    return _mm256_max_pd(_mm256_min_pd(a, hi), _mm256_setzero_pd());
  }
  static V to_coord(Index i) { return _mm256_cvtepi32_pd(i); }
  static void store_index(int32_t* p, Index i) {
    _mm_store_si128(reinterpret_cast<__m128i*>(p), i);
  }

  // Offsets in four 32-bit lanes, read with scalar loads as Ops256<float>.
  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return _mm_add_epi32(a, b); }
  static Index mul_index(Index a, int32_t s) { return _mm_mullo_epi32(a, _mm_set1_epi32(s)); }
  static Index set1_index(int32_t v) { return _mm_set1_epi32(v); }
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    alignas(16) uint32_t o[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(o), offsets);
    return from_lanes(b, o);
  }

  // Lane masks on offsets, sign bits as Ops256<float>; a 64-bit lane's
  // mask is its 32-bit one sign-extended.
  using IndexMask = __m128i;
  static __m256d lane_mask(IndexMask m) { return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(m)); }
  static IndexMask index_gt(Index a, Index b) { return _mm_cmpgt_epi32(a, b); }
  static Index min_index(Index a, int32_t hi) { return _mm_min_epi32(a, _mm_set1_epi32(hi)); }
  static V select_by_index_mask(IndexMask m, V yes, V no) {
    return _mm256_blendv_pd(no, yes, lane_mask(m));
  }

  // Both x corners of a lane from one 16-byte load.
  static constexpr bool has_x_pair_gather = true;
  // True when the pair of samples at every lane's offset straddles the end
  // of a 64-byte line.
  template <class Sample>
  static bool pairs_straddle_lines(const Sample* b, Index offsets) {
    constexpr int shift = sizeof(Sample) == 1   ? 0
                          : sizeof(Sample) == 2 ? 1
                          : sizeof(Sample) == 4 ? 2
                                                : 3;
    const int32_t base = static_cast<int32_t>(reinterpret_cast<uintptr_t>(b) & 63);
    const __m128i in_line = _mm_and_si128(
        _mm_add_epi32(_mm_slli_epi32(offsets, shift), _mm_set1_epi32(base)), _mm_set1_epi32(63));
    const __m128i straddle = _mm_cmpeq_epi32(in_line, _mm_set1_epi32(64 - int32_t{sizeof(Sample)}));
    return _mm_movemask_ps(_mm_castsi128_ps(straddle)) == 0xF;
  }
  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index /*p*/, int32_t /*nx*/, V& first,
                             V& second) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    alignas(16) uint32_t o[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(o), offsets);
    auto pairs = [&](int l, int m) {
      return _mm256_insertf128_pd(_mm256_castpd128_pd256(_mm_loadu_pd(b + o[l])),
                                  _mm_loadu_pd(b + o[m]), 1);
    };
    const __m256d lanes02 = pairs(0, 2), lanes13 = pairs(1, 3);
    first = _mm256_unpacklo_pd(lanes02, lanes13);
    second = _mm256_unpackhi_pd(lanes02, lanes13);
  }

  // Windows of four samples, for trilinear rows only: a nearest row's four
  // scalar loads cost far less than placing two windows and permuting
  // 64-bit lanes (up to 1.8x on Zen 3).
  static constexpr bool has_window_loads = true;
  template <class Sample>
  static constexpr bool nearest_window_reads = false;
  static uint32_t bits(IndexMask m) {
    return static_cast<uint32_t>(_mm_movemask_ps(_mm_castsi128_ps(m)));
  }
  static IndexMask mask_of_bits(uint32_t b) {
    return _mm_sllv_epi32(_mm_set1_epi32(static_cast<int32_t>(b)), _mm_setr_epi32(31, 30, 29, 28));
  }
  static IndexMask mask_andnot(IndexMask a, IndexMask b) { return _mm_andnot_si128(a, b); }
  static bool union_is_full(IndexMask a, IndexMask b) {
    return _mm_movemask_ps(_mm_castsi128_ps(_mm_or_si128(a, b))) == 0xF;
  }
  static Index sub_index(Index a, Index b) { return _mm_sub_epi32(a, b); }
  static Index clamp_index(Index i, int32_t lo, int32_t hi) {
    return _mm_max_epi32(_mm_min_epi32(i, _mm_set1_epi32(hi)), _mm_set1_epi32(lo));
  }
  static Index broadcast_lane(Index i, int lane) {
    return _mm_castps_si128(_mm_permutevar_ps(_mm_castsi128_ps(i), _mm_set1_epi32(lane)));
  }
  static int32_t first_lane(Index i) { return _mm_cvtsi128_si32(i); }
  static IndexMask index_within(Index rel, int32_t max) {
    const __m128i m = _mm_set1_epi32(max);
    return _mm_cmpeq_epi32(_mm_max_epu32(rel, m), m);
  }
  template <class Sample>
  static V load_window(const Sample* p) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return _mm256_loadu_pd(p);
  }
  // No variable permute of 64-bit lanes in AVX2: lane l takes the 32-bit
  // halves 2 rel and 2 rel + 1.
  static V permute(V window, Index rel) {
    const __m256i twice = _mm256_permutevar8x32_epi32(_mm256_castsi128_si256(rel),
                                                      _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3));
    const __m256i halves =
        _mm256_add_epi32(_mm256_add_epi32(twice, twice), _mm256_setr_epi32(0, 1, 0, 1, 0, 1, 0, 1));
    return _mm256_castps_pd(_mm256_permutevar8x32_ps(_mm256_castpd_ps(window), halves));
  }
  static V permute_into(V dst, IndexMask m, V window, Index rel) {
    return _mm256_blendv_pd(dst, permute(window, rel), lane_mask(m));
  }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    return from_lanes(b, o);
  }
  template <class Sample, class Offset>
  static V from_lanes(const Sample* b, const Offset* o) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return _mm256_setr_pd(b[o[0]], b[o[1]], b[o[2]], b[o[3]]);
  }
};

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d
