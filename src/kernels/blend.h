// The three ways of blending a lower and an upper corner value, and the one
// table that says which of them each step of a trilinear evaluation uses on
// each kind of block. Every path of the library takes its blends from here.
//
// Notation: fma(a, b, c) is a*b + c with one rounding; every other operation
// rounds once to the coordinate type (round to nearest, ties to even).
//
//   lower-first  fma(upper, wu, lower * wl)     the lower product is rounded
//   upper-first  fma(lower, wl, upper * wu)     the upper product is rounded
//   split        lower * wl + upper * wu        both products rounded, then the sum
//
// A trilinear value is built in a fixed order: four blends along x (A00, A10,
// A01, A11; digits are y then z, 0 = lower corner), two along y (B0 from
// A00/A10, B1 from A01/A11), then the z step, which is the same everywhere:
//   u = fma(B1, tz, -B1);  R = fma(B0, 2 - tz, u)
// The upper z weight tz - 1 is never formed; inside the grid it is exact, so
// the z step equals an upper-first blend.

#ifndef QZINTERP3D_KERNELS_BLEND_TABLE_H
#define QZINTERP3D_KERNELS_BLEND_TABLE_H

#include <cstdint>
#include <type_traits>

namespace qzinterp3d {

enum class Blend : uint8_t { lower_first, upper_first, split };

// Which blend each x and y step uses.
struct BlendPlan {
  Blend a00, a10, a01, a11, b0, b1;
};

// Where a value is computed: the serial loop of an entry, a full block of a
// row task, or the row task's last block (shifted inwards to end at the last
// column of the row).
enum class BlockKind : uint8_t { serial, full, last };

namespace plans {
constexpr Blend LF = Blend::lower_first;
constexpr Blend UF = Blend::upper_first;
constexpr Blend SP = Blend::split;
//                                          A00 A10 A01 A11  B0  B1
constexpr BlendPlan float32_full_block   = {LF, LF, LF, LF, LF, LF};
constexpr BlendPlan float32_last_block   = {LF, LF, SP, SP, LF, SP};
constexpr BlendPlan float32_serial       = {UF, LF, LF, LF, LF, LF};
constexpr BlendPlan float64_block        = {LF, LF, LF, LF, LF, LF};
constexpr BlendPlan float64_serial       = {UF, UF, UF, LF, UF, LF};
// Last block of 16-bit samples: x and y unfused.
constexpr BlendPlan bits16_last_block    = {SP, SP, SP, SP, SP, SP};
// Last block of 8-bit samples: its first group of four lanes keeps two fused
// pairs (A00 as in full blocks, B0 fused the other way round); the other
// groups are unfused like 16-bit samples.
constexpr BlendPlan bits8_last_block_first_group = {LF, SP, SP, SP, UF, SP};
constexpr BlendPlan bits8_last_block_other_groups = {SP, SP, SP, SP, SP, SP};
}  // namespace plans

// The per-path table. Integer samples use the float32 sequences except in the
// last block, where each sample width has its own; int32 and uint32 use the
// float32 last block.
template <class Sample>
constexpr BlendPlan blend_plan(BlockKind kind, bool first_group_of_block) {
  if constexpr (std::is_same_v<Sample, double>) {
    return kind == BlockKind::serial ? plans::float64_serial : plans::float64_block;
  } else {
    switch (kind) {
      case BlockKind::serial:
        return plans::float32_serial;
      case BlockKind::full:
        return plans::float32_full_block;
      case BlockKind::last:
        break;
    }
    if constexpr (sizeof(Sample) == 1) {
      return first_group_of_block ? plans::bits8_last_block_first_group
                                  : plans::bits8_last_block_other_groups;
    } else if constexpr (sizeof(Sample) == 2) {
      return plans::bits16_last_block;
    } else {
      return plans::float32_last_block;
    }
  }
}

}  // namespace qzinterp3d

#endif  // QZINTERP3D_KERNELS_BLEND_TABLE_H

// ---------------------------------------------------------------------------
// The blend formulas, over any arithmetic A (scalar or vector). This part is
// compiled once per instruction set: a kernel source defines QZ_TARGET_NS and
// includes this file again inside its own target region, so the formulas are
// inlined with that target's instructions.
#if defined(QZ_TARGET_NS) && !defined(QZ_BLEND_FORMULAS_DEFINED)
#define QZ_BLEND_FORMULAS_DEFINED

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <Blend B, class A, class V>
inline V blend(V lower, V upper, V wl, V wu) {
  if constexpr (B == Blend::lower_first) {
    return A::fma(upper, wu, A::mul(lower, wl));
  } else if constexpr (B == Blend::upper_first) {
    return A::fma(lower, wl, A::mul(upper, wu));
  } else {
    return A::add(A::mul(lower, wl), A::mul(upper, wu));
  }
}

template <class A, class V>
inline V z_step(V b0, V b1, V tz, V wzl) {
  const V u = A::fma(b1, tz, A::neg(b1));
  return A::fma(b0, wzl, u);
}

// The x, y and z steps of one trilinear value, corners named by x, y, z digits.
template <BlendPlan P, class A>
struct Trilinear {
  using V = typename A::V;
  static inline V eval(V v000, V v100, V v010, V v110, V v001, V v101, V v011,
                       V v111, V wxl, V wxu, V wyl, V wyu, V tz, V wzl) {
    const V a00 = blend<P.a00, A>(v000, v100, wxl, wxu);
    const V a10 = blend<P.a10, A>(v010, v110, wxl, wxu);
    const V a01 = blend<P.a01, A>(v001, v101, wxl, wxu);
    const V a11 = blend<P.a11, A>(v011, v111, wxl, wxu);
    const V b0 = blend<P.b0, A>(a00, a10, wyl, wyu);
    const V b1 = blend<P.b1, A>(a01, a11, wyl, wyu);
    return z_step<A>(b0, b1, tz, wzl);
  }
};

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d

#endif
