// The generic row kernel: the blocks of one output row for every variant,
// written once over a set of vector operations ("Ops") and compiled once per
// instruction set. No include guard: a kernel source defines QZ_TARGET_NS,
// opens its target region, defines its Ops and includes this file.
//
// Ops<C> supplies, for N lanes of coordinate type C:
//   V, Mask, Index (N x int32) and `lanes`;
//   load, store, set1, add, sub, mul, fma, neg;
//   floor, ceil, round_even (ties to even), whatever the rounding mode;
//   gt (ordered a > b), or_, select(mask, if_set, otherwise);
//   to_index (integral value to int32: NaN and overflow give indices that
//     clamp to the same value as the model's conversion), clamp(i, n - 1),
//   to_coord (int32 to C, rounded to nearest), store_index;
//   gather<Sample>(base, offsets): one scalar read per lane, converted.

#include "kernels/blend.h"  // blend formulas for this target

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <class Ops, class Sample>
struct GroupKernel {
  using C = typename Ops::Coord;
  using V = typename Ops::V;
  using Mask = typename Ops::Mask;
  using Index = typename Ops::Index;
  static constexpr int N = Ops::lanes;

  // Block test: outside when 1 > q or q - 1 > n - 1 on some axis (ordered,
  // so a NaN coordinate alone does not make a lane outside).
  static inline Mask outside(V one, V xq, V dx, V bx, V yq, V dy, V by, V zq, V dz, V bz) {
    Mask m = Ops::or_(Ops::gt(one, xq), Ops::gt(dx, bx));
    m = Ops::or_(m, Ops::or_(Ops::gt(one, yq), Ops::gt(dy, by)));
    return Ops::or_(m, Ops::or_(Ops::gt(one, zq), Ops::gt(dz, bz)));
  }

  static inline void nearest(const Grid<Sample>& g, const C* xs, const C* ys, const C* zs,
                             C* out) {
    const V one = Ops::set1(C(1));
    const V xq = Ops::load(xs), yq = Ops::load(ys), zq = Ops::load(zs);
    const V dx = Ops::sub(xq, one), dy = Ops::sub(yq, one), dz = Ops::sub(zq, one);
    const Mask out_of_range =
        outside(one, xq, dx, Ops::set1(g.bound_x), yq, dy, Ops::set1(g.bound_y), zq, dz,
                Ops::set1(g.bound_z));
    alignas(64) int32_t ix[N], iy[N], iz[N];
    Ops::store_index(ix, Ops::clamp(Ops::to_index(Ops::round_even(dx)), last_index(g.nx)));
    Ops::store_index(iy, Ops::clamp(Ops::to_index(Ops::round_even(dy)), last_index(g.ny)));
    Ops::store_index(iz, Ops::clamp(Ops::to_index(Ops::round_even(dz)), last_index(g.nz)));
    alignas(64) int64_t offset[N];
    for (int l = 0; l < N; ++l) {
      offset[l] = -g.origin + int64_t{iy[l]} * g.stride1 + int64_t{iz[l]} * g.stride2 +
                  int64_t{static_cast<uint32_t>(ix[l])};
    }
    const V value = Ops::template gather<Sample>(g.host, offset);
    Ops::store(out, Ops::select(out_of_range, Ops::set1(g.fill), value));
  }

  template <BlendPlan P>
  static inline void trilinear(const Grid<Sample>& g, const C* xs, const C* ys, const C* zs,
                               C* out) {
    const V one = Ops::set1(C(1));
    const V two = Ops::set1(C(2));
    const V xq = Ops::load(xs), yq = Ops::load(ys), zq = Ops::load(zs);
    const V px = Ops::sub(xq, one), py = Ops::sub(yq, one), pz = Ops::sub(zq, one);
    const Mask out_of_range =
        outside(one, xq, px, Ops::set1(g.bound_x), yq, py, Ops::set1(g.bound_y), zq, pz,
                Ops::set1(g.bound_z));

    const Index ix0 = Ops::clamp(Ops::to_index(Ops::floor(px)), last_index(g.nx));
    const Index ix1 = Ops::clamp(Ops::to_index(Ops::ceil(px)), last_index(g.nx));
    const Index iy0 = Ops::clamp(Ops::to_index(Ops::floor(py)), last_index(g.ny));
    const Index iy1 = Ops::clamp(Ops::to_index(Ops::ceil(py)), last_index(g.ny));
    const Index iz0 = Ops::clamp(Ops::to_index(Ops::floor(pz)), last_index(g.nz));
    const Index iz1 = Ops::clamp(Ops::to_index(Ops::ceil(pz)), last_index(g.nz));

    const V tx = Ops::sub(xq, Ops::to_coord(ix0));
    const V ty = Ops::sub(yq, Ops::to_coord(iy0));
    const V tz = Ops::sub(zq, Ops::to_coord(iz0));
    const V wxl = Ops::sub(two, tx), wxu = Ops::sub(tx, one);
    const V wyl = Ops::sub(two, ty), wyu = Ops::sub(ty, one);
    const V wzl = Ops::sub(two, tz);

    alignas(64) int32_t x0[N], x1[N], y0[N], y1[N], z0[N], z1[N];
    Ops::store_index(x0, ix0);
    Ops::store_index(x1, ix1);
    Ops::store_index(y0, iy0);
    Ops::store_index(y1, iy1);
    Ops::store_index(z0, iz0);
    Ops::store_index(z1, iz1);
    // Corner offsets: the y and z parts are shared by both x corners.
    alignas(64) int64_t o000[N], o100[N], o010[N], o110[N], o001[N], o101[N], o011[N], o111[N];
    for (int l = 0; l < N; ++l) {
      const int64_t ylo = int64_t{y0[l]} * g.stride1, yhi = int64_t{y1[l]} * g.stride1;
      const int64_t zlo = int64_t{z0[l]} * g.stride2 - g.origin;
      const int64_t zhi = int64_t{z1[l]} * g.stride2 - g.origin;
      const int64_t xlo = static_cast<uint32_t>(x0[l]), xhi = static_cast<uint32_t>(x1[l]);
      o000[l] = ylo + zlo + xlo;
      o100[l] = ylo + zlo + xhi;
      o010[l] = yhi + zlo + xlo;
      o110[l] = yhi + zlo + xhi;
      o001[l] = ylo + zhi + xlo;
      o101[l] = ylo + zhi + xhi;
      o011[l] = yhi + zhi + xlo;
      o111[l] = yhi + zhi + xhi;
    }
    const V r = Trilinear<P, Ops>::eval(
        Ops::template gather<Sample>(g.host, o000), Ops::template gather<Sample>(g.host, o100),
        Ops::template gather<Sample>(g.host, o010), Ops::template gather<Sample>(g.host, o110),
        Ops::template gather<Sample>(g.host, o001), Ops::template gather<Sample>(g.host, o101),
        Ops::template gather<Sample>(g.host, o011), Ops::template gather<Sample>(g.host, o111),
        wxl, wxu, wyl, wyu, tz, wzl);
    Ops::store(out, Ops::select(out_of_range, Ops::set1(g.fill), r));
  }
};

// One group of Ops::lanes columns of a block of the given kind.
template <class Ops, Method M, class Sample, BlockKind Kind, bool FirstGroup>
inline void compute_group(const Grid<Sample>& g, const CoordOf<Sample>* xs,
                          const CoordOf<Sample>* ys, const CoordOf<Sample>* zs,
                          CoordOf<Sample>* out) {
  if constexpr (M == Method::nearest) {
    GroupKernel<Ops, Sample>::nearest(g, xs, ys, zs, out);
  } else {
    GroupKernel<Ops, Sample>::template trilinear<blend_plan<Sample>(Kind, FirstGroup)>(g, xs, ys,
                                                                                      zs, out);
  }
}

// A row: its full blocks left to right, then the last block, which spans the
// W columns ending at the row's last column and so rewrites any overlap with
// its own sequence. Full blocks may be covered by wide vectors (several
// blocks at once); the last block always goes in groups of the narrow ones,
// because its lanes do not all follow one sequence.
template <template <class> class WideOps, template <class> class NarrowOps, Method M,
          class Sample>
void row(const Grid<Sample>& g, const RowSpan<CoordOf<Sample>>& r) {
  using C = CoordOf<Sample>;
  using Wide = WideOps<C>;
  using Narrow = NarrowOps<C>;
  constexpr int64_t W = block_width_of<Sample>();
  static_assert(W % Narrow::lanes == 0, "a block is a whole number of narrow groups");
  const int64_t full_columns = int64_t{r.full_blocks} * W;
  int64_t c = 0;
  for (; c + Wide::lanes <= full_columns; c += Wide::lanes) {
    compute_group<Wide, M, Sample, BlockKind::full, false>(g, r.xq + c, r.yq + c, r.zq + c,
                                                           r.vq + c);
  }
  for (; c < full_columns; c += Narrow::lanes) {
    compute_group<Narrow, M, Sample, BlockKind::full, false>(g, r.xq + c, r.yq + c, r.zq + c,
                                                             r.vq + c);
  }
  if (r.last_blocks > 0) {
    compute_group<Narrow, M, Sample, BlockKind::last, true>(g, r.xq_last, r.yq_last, r.zq_last,
                                                            r.vq_last);
    for (int64_t k = Narrow::lanes; k < W; k += Narrow::lanes) {
      compute_group<Narrow, M, Sample, BlockKind::last, false>(
          g, r.xq_last + k, r.yq_last + k, r.zq_last + k, r.vq_last + k);
    }
  }
}

template <template <class> class WideOps, template <class> class NarrowOps>
constexpr KernelSet make_kernel_set(const char* name) {
  return KernelSet{
      name,
#define QZ_ROW_POINTER(method, type, T) &row<WideOps, NarrowOps, Method::method, T>,
      QZ_FOR_EACH_VARIANT(QZ_ROW_POINTER)
#undef QZ_ROW_POINTER
  };
}

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d
