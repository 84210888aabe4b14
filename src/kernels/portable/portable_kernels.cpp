// The portable kernel set: plain C++ lanes and std::fma, for CPUs without a
// fused multiply-add instruction (and any architecture). Same block
// structure as the vector kernels: 16 bytes of coordinates per group.
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "kernels/blend.h"
#include "kernels/coords.h"
#include "kernels/dispatch.h"
#include "kernels/kernel_set.h"
#include "kernels/portable/portable_kernels.h"
#include "kernels/row_api.h"
#include "kernels/row_shape.h"
#include "kernels/sample.h"

#define QZ_TARGET_NS portable

namespace qzinterp3d {
namespace portable {

template <class C>
struct LaneOps {
  using Coord = C;
  static constexpr int lanes = static_cast<int>(16 / sizeof(C));
  struct V {
    C v[lanes];
  };
  struct Mask {
    bool m[lanes];
  };
  struct Index {
    int32_t i[lanes];
  };

  template <class Op>
  static V map(Op op) {
    V r;
    for (int l = 0; l < lanes; ++l) r.v[l] = op(l);
    return r;
  }

  static V load(const C* p) { return map([&](int l) { return p[l]; }); }
  static void store(C* p, V a) {
    for (int l = 0; l < lanes; ++l) p[l] = a.v[l];
  }
  static V set1(C c) { return map([&](int) { return c; }); }
  static V add(V a, V b) { return map([&](int l) { return a.v[l] + b.v[l]; }); }
  static V sub(V a, V b) { return map([&](int l) { return a.v[l] - b.v[l]; }); }
  static V mul(V a, V b) { return map([&](int l) { return a.v[l] * b.v[l]; }); }
  static V fma(V a, V b, V c) { return map([&](int l) { return std::fma(a.v[l], b.v[l], c.v[l]); }); }
  static V neg(V a) { return map([&](int l) { return -a.v[l]; }); }
  static V floor(V a) { return map([&](int l) { return std::floor(a.v[l]); }); }
  static V ceil(V a) { return map([&](int l) { return std::ceil(a.v[l]); }); }
  // The entry and row tasks run in round-to-nearest (fp_env.h).
  static V round_even(V a) { return map([&](int l) { return std::nearbyint(a.v[l]); }); }
  static Mask gt(V a, V b) {
    Mask m;
    for (int l = 0; l < lanes; ++l) m.m[l] = a.v[l] > b.v[l];
    return m;
  }
  static Mask or_(Mask a, Mask b) {
    Mask m;
    for (int l = 0; l < lanes; ++l) m.m[l] = a.m[l] || b.m[l];
    return m;
  }
  static V select(Mask m, V yes, V no) { return map([&](int l) { return m.m[l] ? yes.v[l] : no.v[l]; }); }
  static Index to_index(V a) {
    Index r;
    for (int l = 0; l < lanes; ++l) {
      if constexpr (sizeof(C) == 8) {
        r.i[l] = index_low32_of_i64(a.v[l]);
      } else {
        r.i[l] = index_saturating_i32(a.v[l]);
      }
    }
    return r;
  }
  static Index clamp(Index a, int32_t hi) {
    for (int l = 0; l < lanes; ++l) a.i[l] = clamp_index(a.i[l], hi);
    return a;
  }
  static V to_coord(Index a) { return map([&](int l) { return static_cast<C>(a.i[l]); }); }
  static void store_index(int32_t* p, Index a) {
    for (int l = 0; l < lanes; ++l) p[l] = a.i[l];
  }
  template <class Sample>
  static V gather(const Sample* base, const int64_t* offset) {
    return map([&](int l) { return sample_to_coord(base[offset[l]]); });
  }
};

}  // namespace portable
}  // namespace qzinterp3d

#include "kernels/row_kernel-inl.h"

namespace qzinterp3d {

const KernelSet& portable_kernel_set() {
  static constexpr KernelSet set =
      portable::make_kernel_set<portable::LaneOps, portable::LaneOps>("portable");
  return set;
}

}  // namespace qzinterp3d
