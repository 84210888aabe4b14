// The NEON kernel set for aarch64 (AdvSIMD, part of every aarch64 CPU):
// 16-byte vectors, four float or two double lanes, exactly the block layout
// of the row tasks. NEON has no gathers: samples are read with scalar loads,
// with 32-bit offset vectors where the grid allows them and both x corners of
// a lane from one load of two adjacent samples.
#include <arm_neon.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "kernels/arm/arm_kernels.h"
#include "kernels/blend.h"
#include "kernels/coords.h"
#include "kernels/dispatch.h"
#include "kernels/kernel_set.h"
#include "kernels/row_api.h"
#include "kernels/row_shape.h"
#include "kernels/sample.h"

#define QZ_TARGET_NS neon

namespace qzinterp3d {
namespace neon {

// Samples of one type, read one per lane at the given offsets, as float.
template <class Sample, class Offset>
inline float32x4_t float_lanes(const Sample* b, const Offset* o) {
  if constexpr (std::is_same_v<Sample, float>) {
    return float32x4_t{b[o[0]], b[o[1]], b[o[2]], b[o[3]]};
  } else if constexpr (std::is_same_v<Sample, uint32_t>) {
    // UCVTF: an unsigned conversion with one rounding, to nearest (the
    // entries run in the default rounding mode).
    return vcvtq_f32_u32(uint32x4_t{b[o[0]], b[o[1]], b[o[2]], b[o[3]]});
  } else {
    // 8- and 16-bit samples are sign- or zero-extended by their type and
    // exact in float; int32 is rounded to nearest once.
    return vcvtq_f32_s32(int32x4_t{b[o[0]], b[o[1]], b[o[2]], b[o[3]]});
  }
}

// 32-bit words as samples of a 4-byte type, converted to float.
template <class Sample>
inline float32x4_t words_to_float(uint32x4_t w) {
  if constexpr (std::is_same_v<Sample, float>) {
    return vreinterpretq_f32_u32(w);
  } else if constexpr (std::is_same_v<Sample, uint32_t>) {
    return vcvtq_f32_u32(w);
  } else {
    return vcvtq_f32_s32(vreinterpretq_s32_u32(w));
  }
}

template <class C>
struct NeonOps;

template <>
struct NeonOps<float> {
  using Coord = float;
  static constexpr int lanes = 4;
  using V = float32x4_t;
  using Mask = uint32x4_t;
  using Index = int32x4_t;

  static V load(const float* p) { return vld1q_f32(p); }
  static void store(float* p, V v) { vst1q_f32(p, v); }
  static V set1(float c) { return vdupq_n_f32(c); }
  static V add(V a, V b) { return vaddq_f32(a, b); }
  static V sub(V a, V b) { return vsubq_f32(a, b); }
  static V mul(V a, V b) { return vmulq_f32(a, b); }
  // a * b + c with one rounding (vfmaq takes the addend first).
  static V fma(V a, V b, V c) { return vfmaq_f32(c, a, b); }
  static V neg(V a) { return vnegq_f32(a); }
  static V floor(V a) { return vrndmq_f32(a); }
  static V ceil(V a) { return vrndpq_f32(a); }
  static V round_even(V a) { return vrndnq_f32(a); }
  static Mask gt(V a, V b) { return vcgtq_f32(a, b); }
  static Mask or_(Mask a, Mask b) { return vorrq_u32(a, b); }
  static V select(Mask m, V yes, V no) { return vbslq_f32(m, yes, no); }
  // FCVTZS saturates and gives 0 for NaN: the model's conversion exactly.
  static Index to_index(V a) { return vcvtq_s32_f32(a); }
  // Round and convert in one instruction, in the given mode (0: nearest,
  // ties to even; 1: down; 2: up), saturating as to_index.
  template <int Mode>
  static Index round_to_index(V a) {
    if constexpr (Mode == 0) {
      return vcvtnq_s32_f32(a);
    } else if constexpr (Mode == 1) {
      return vcvtmq_s32_f32(a);
    } else {
      return vcvtpq_s32_f32(a);
    }
  }
  static Index clamp(Index i, int32_t hi) {
    return vmaxq_s32(vminq_s32(i, vdupq_n_s32(hi)), vdupq_n_s32(0));
  }
  static V to_coord(Index i) { return vcvtq_f32_s32(i); }
  static void store_index(int32_t* p, Index i) { vst1q_s32(p, i); }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    return float_lanes(b, o);
  }

  // Offsets in four 32-bit lanes, read lane by lane.
  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return vaddq_s32(a, b); }
  static Index mul_index(Index a, int32_t s) { return vmulq_n_s32(a, s); }
  static Index set1_index(int32_t v) { return vdupq_n_s32(v); }
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    alignas(16) uint32_t o[4];
    vst1q_u32(o, vreinterpretq_u32_s32(offsets));
    return float_lanes(b, o);
  }

  using IndexMask = uint32x4_t;
  static IndexMask index_gt(Index a, Index b) { return vcgtq_s32(a, b); }
  static Index min_index(Index a, int32_t hi) { return vminq_s32(a, vdupq_n_s32(hi)); }
  static V select_by_index_mask(IndexMask m, V yes, V no) { return vbslq_f32(m, yes, no); }

  // Both x corners of a lane from one load of two adjacent samples (p and
  // p + 1 both lie in the row): four loads instead of eight.
  static constexpr bool has_x_pair_gather = true;
  static constexpr bool single_samples_in_pairs = false;
  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index /*p*/, int32_t /*nx*/, V& first,
                             V& second) {
    alignas(16) uint32_t o[4];
    vst1q_u32(o, vreinterpretq_u32_s32(offsets));
    if constexpr (sizeof(Sample) == 4) {
      // Lane pairs side by side, then the even and odd words apart.
      auto pair = [&](int l) {
        uint32x2_t w;
        std::memcpy(&w, b + o[l], sizeof w);
        return w;
      };
      const uint32x4_t lanes01 = vcombine_u32(pair(0), pair(1));
      const uint32x4_t lanes23 = vcombine_u32(pair(2), pair(3));
      first = words_to_float<Sample>(vuzp1q_u32(lanes01, lanes23));
      second = words_to_float<Sample>(vuzp2q_u32(lanes01, lanes23));
    } else {
      // Both samples in one word, p in its low half; extended by their type.
      using Word = std::conditional_t<sizeof(Sample) == 2, uint32_t, uint16_t>;
      auto word = [&](int l) {
        Word w;
        std::memcpy(&w, b + o[l], sizeof w);
        return static_cast<uint32_t>(w);
      };
      const uint32x4_t w{word(0), word(1), word(2), word(3)};
      constexpr int bits = 8 * sizeof(Sample);
      if constexpr (std::is_signed_v<Sample>) {
        const int32x4_t s = vreinterpretq_s32_u32(w);
        first = vcvtq_f32_s32(vshrq_n_s32(vshlq_n_s32(s, 32 - bits), 32 - bits));
        second = vcvtq_f32_s32(vshrq_n_s32(vshlq_n_s32(s, 32 - 2 * bits), 32 - bits));
      } else {
        first = vcvtq_f32_u32(vandq_u32(w, vdupq_n_u32((1u << bits) - 1u)));
        second = vcvtq_f32_u32(vshrq_n_u32(w, bits));
      }
    }
  }
};

template <>
struct NeonOps<double> {
  using Coord = double;
  static constexpr int lanes = 2;
  using V = float64x2_t;
  using Mask = uint64x2_t;
  using Index = int32x2_t;

  static V load(const double* p) { return vld1q_f64(p); }
  static void store(double* p, V v) { vst1q_f64(p, v); }
  static V set1(double c) { return vdupq_n_f64(c); }
  static V add(V a, V b) { return vaddq_f64(a, b); }
  static V sub(V a, V b) { return vsubq_f64(a, b); }
  static V mul(V a, V b) { return vmulq_f64(a, b); }
  static V fma(V a, V b, V c) { return vfmaq_f64(c, a, b); }
  static V neg(V a) { return vnegq_f64(a); }
  static V floor(V a) { return vrndmq_f64(a); }
  static V ceil(V a) { return vrndpq_f64(a); }
  static V round_even(V a) { return vrndnq_f64(a); }
  static Mask gt(V a, V b) { return vcgtq_f64(a, b); }
  static Mask or_(Mask a, Mask b) { return vorrq_u64(a, b); }
  static V select(Mask m, V yes, V no) { return vbslq_f64(m, yes, no); }
  // Through 64 bits (saturating, NaN to 0), keeping the low 32 bits: the
  // model's conversion for double rows exactly.
  static Index to_index(V a) { return vmovn_s64(vcvtq_s64_f64(a)); }
  template <int Mode>
  static Index round_to_index(V a) {
    if constexpr (Mode == 0) {
      return vmovn_s64(vcvtnq_s64_f64(a));
    } else if constexpr (Mode == 1) {
      return vmovn_s64(vcvtmq_s64_f64(a));
    } else {
      return vmovn_s64(vcvtpq_s64_f64(a));
    }
  }
  static Index clamp(Index i, int32_t hi) {
    return vmax_s32(vmin_s32(i, vdup_n_s32(hi)), vdup_n_s32(0));
  }
  static V to_coord(Index i) { return vcvtq_f64_s64(vmovl_s32(i)); }
  static void store_index(int32_t* p, Index i) { vst1_s32(p, i); }

  template <class Sample>
  static V gather(const Sample* b, const int64_t* o) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return float64x2_t{b[o[0]], b[o[1]]};
  }

  static constexpr bool has_offset_vectors = true;
  static Index add_index(Index a, Index b) { return vadd_s32(a, b); }
  static Index mul_index(Index a, int32_t s) { return vmul_n_s32(a, s); }
  static Index set1_index(int32_t v) { return vdup_n_s32(v); }
  template <class Sample>
  static V gather_offsets(const Sample* b, Index offsets) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    return float64x2_t{b[vget_lane_s32(offsets, 0)], b[vget_lane_s32(offsets, 1)]};
  }

  // A 64-bit lane's mask is its 32-bit one sign-extended.
  using IndexMask = uint32x2_t;
  static IndexMask index_gt(Index a, Index b) { return vcgt_s32(a, b); }
  static Index min_index(Index a, int32_t hi) { return vmin_s32(a, vdup_n_s32(hi)); }
  static V select_by_index_mask(IndexMask m, V yes, V no) {
    return vbslq_f64(vreinterpretq_u64_s64(vmovl_s32(vreinterpret_s32_u32(m))), yes, no);
  }

  static constexpr bool has_x_pair_gather = true;
  static constexpr bool single_samples_in_pairs = false;
  template <class Sample>
  static void gather_x_pairs(const Sample* b, Index offsets, Index /*p*/, int32_t /*nx*/, V& first,
                             V& second) {
    static_assert(std::is_same_v<Sample, double>, "double coordinates go with double samples");
    const float64x2_t lane0 = vld1q_f64(b + vget_lane_s32(offsets, 0));
    const float64x2_t lane1 = vld1q_f64(b + vget_lane_s32(offsets, 1));
    first = vzip1q_f64(lane0, lane1);
    second = vzip2q_f64(lane0, lane1);
  }
};

}  // namespace neon
}  // namespace qzinterp3d

#include "kernels/row_kernel-inl.h"

namespace qzinterp3d {

const KernelSet& neon_kernel_set() {
  static constexpr KernelSet set = neon::make_kernel_set<neon::NeonOps, neon::NeonOps>("neon");
  return set;
}

}  // namespace qzinterp3d
