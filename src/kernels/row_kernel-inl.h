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
// Optionally (has_offset_vectors), 32-bit offset arithmetic in vector lanes:
//   add_index, mul_index(i, scalar), set1_index and
//   gather_offsets<Sample>(base, Index offsets), used when every offset of
//   the grid fits in 31 bits (offsets_fit_in_32_bits), where 32-bit
//   arithmetic gives the same offsets as 64-bit arithmetic.
// Optionally (has_x_pair_gather), gather_x_pairs<Sample>(base, offsets, p,
//   first, second): the samples at offsets and offsets + 1 of each lane,
//   where p is the lane's x index (0 <= p <= nx - 2), so both lie in the row.

#include "kernels/blend.h"  // blend formulas for this target

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <class Ops>
concept HasOffsetVectors = Ops::has_offset_vectors;

template <class Ops>
concept HasXPairGather = Ops::has_x_pair_gather;

template <class Ops, class Sample, bool OffsetVectors>
struct GroupKernel {
  using C = typename Ops::Coord;
  using V = typename Ops::V;
  using Mask = typename Ops::Mask;
  using Index = typename Ops::Index;
  static constexpr int N = Ops::lanes;

  // A group's coordinates q, their shifts d = q - 1, and the block test:
  // outside when 1 > q or d > n - 1 on some axis (ordered comparisons, so a
  // NaN coordinate alone does not make a lane outside).
  struct Query {
    V xq, yq, zq, dx, dy, dz;
    Mask outside;
  };

  static inline Query load_query(const Grid<Sample>& g, const C* xs, const C* ys, const C* zs) {
    const V one = Ops::set1(C(1));
    Query q;
    q.xq = Ops::load(xs);
    q.yq = Ops::load(ys);
    q.zq = Ops::load(zs);
    q.dx = Ops::sub(q.xq, one);
    q.dy = Ops::sub(q.yq, one);
    q.dz = Ops::sub(q.zq, one);
    Mask m = Ops::or_(Ops::gt(one, q.xq), Ops::gt(q.dx, Ops::set1(g.bound_x)));
    m = Ops::or_(m, Ops::or_(Ops::gt(one, q.yq), Ops::gt(q.dy, Ops::set1(g.bound_y))));
    q.outside = Ops::or_(m, Ops::or_(Ops::gt(one, q.zq), Ops::gt(q.dz, Ops::set1(g.bound_z))));
    return q;
  }

  static inline void nearest(const Grid<Sample>& g, const C* xs, const C* ys, const C* zs,
                             C* out) {
    const Query q = load_query(g, xs, ys, zs);
    // Round to nearest, ties to even.
    const Index ix = Ops::clamp(Ops::to_index(Ops::round_even(q.dx)), last_index(g.nx));
    const Index iy = Ops::clamp(Ops::to_index(Ops::round_even(q.dy)), last_index(g.ny));
    const Index iz = Ops::clamp(Ops::to_index(Ops::round_even(q.dz)), last_index(g.nz));
    const V value = fetch_sample(g, ix, iy, iz);
    Ops::store(out, Ops::select(q.outside, Ops::set1(g.fill), value));
  }

  // The one sample of each lane.
  static inline V fetch_sample(const Grid<Sample>& g, Index ix, Index iy, Index iz) {
    if constexpr (OffsetVectors) {
      const Index yz = Ops::add_index(Ops::mul_index(iy, g.stride1), Ops::mul_index(iz, g.stride2));
      const Index row = Ops::add_index(yz, Ops::set1_index(static_cast<int32_t>(-g.origin)));
      if constexpr (HasXPairGather<Ops> && sizeof(Sample) < 4) {
        // Narrow samples are read in pairs (see fetch_corners): at
        // p = min(ix, nx - 2), keeping the one at ix.
        const Index p = Ops::min_index(ix, last_index(g.nx) - 1);
        V first, second;
        Ops::template gather_x_pairs<Sample>(g.host, Ops::add_index(row, p), p, first, second);
        return Ops::select_by_index_mask(Ops::index_gt(ix, p), second, first);
      } else {
        return Ops::template gather_offsets<Sample>(g.host, Ops::add_index(row, ix));
      }
    } else {
      // Offsets in 64 bits, lane by lane.
      alignas(64) int32_t x[N], y[N], z[N];
      Ops::store_index(x, ix);
      Ops::store_index(y, iy);
      Ops::store_index(z, iz);
      alignas(64) int64_t offset[N];
      for (int l = 0; l < N; ++l) {
        offset[l] = -g.origin + int64_t{y[l]} * g.stride1 + int64_t{z[l]} * g.stride2 +
                    int64_t{static_cast<uint32_t>(x[l])};
      }
      return Ops::template gather<Sample>(g.host, offset);
    }
  }

  // The eight corner samples of each lane (digits: x, y, z; 0 = lower).
  struct Corners {
    V v000, v100, v010, v110, v001, v101, v011, v111;
  };

  static inline Corners fetch_corners(const Grid<Sample>& g, Index ix0, Index ix1, Index iy0,
                                      Index iy1, Index iz0, Index iz1) {
    if constexpr (!OffsetVectors) {
      return corners_by_lanes(g, ix0, ix1, iy0, iy1, iz0, iz1);
    } else {
      // The y and z parts of the offsets are shared by both x corners.
      const Index origin = Ops::set1_index(static_cast<int32_t>(-g.origin));
      const Index ylo = Ops::mul_index(iy0, g.stride1), yhi = Ops::mul_index(iy1, g.stride1);
      const Index zlo = Ops::add_index(Ops::mul_index(iz0, g.stride2), origin);
      const Index zhi = Ops::add_index(Ops::mul_index(iz1, g.stride2), origin);
      const Index rows[4] = {Ops::add_index(ylo, zlo), Ops::add_index(yhi, zlo),
                             Ops::add_index(ylo, zhi), Ops::add_index(yhi, zhi)};
      Corners c;
      V* lower[4] = {&c.v000, &c.v010, &c.v001, &c.v011};
      V* upper[4] = {&c.v100, &c.v110, &c.v101, &c.v111};
      if constexpr (HasXPairGather<Ops>) {
        // Both x corners of a row from one read of two adjacent samples at
        // p = min(ix0, nx - 2): ix0 and ix1 are each p or p + 1 (row kernels
        // run only for nx > W >= 2), so every read stays in the row.
        const Index p = Ops::min_index(ix0, last_index(g.nx) - 1);
        const auto lower_is_second = Ops::index_gt(ix0, p);
        const auto upper_is_second = Ops::index_gt(ix1, p);
        for (int r = 0; r < 4; ++r) {
          V first, second;
          Ops::template gather_x_pairs<Sample>(g.host, Ops::add_index(rows[r], p), p, first,
                                               second);
          *lower[r] = Ops::select_by_index_mask(lower_is_second, second, first);
          *upper[r] = Ops::select_by_index_mask(upper_is_second, second, first);
        }
      } else {
        for (int r = 0; r < 4; ++r) {
          *lower[r] = Ops::template gather_offsets<Sample>(g.host, Ops::add_index(rows[r], ix0));
          *upper[r] = Ops::template gather_offsets<Sample>(g.host, Ops::add_index(rows[r], ix1));
        }
      }
      return c;
    }
  }

  // Offsets in 64 bits, lane by lane, one scalar read per corner and lane.
  static inline Corners corners_by_lanes(const Grid<Sample>& g, Index ix0, Index ix1, Index iy0,
                                         Index iy1, Index iz0, Index iz1) {
    alignas(64) int32_t x0[N], x1[N], y0[N], y1[N], z0[N], z1[N];
    Ops::store_index(x0, ix0);
    Ops::store_index(x1, ix1);
    Ops::store_index(y0, iy0);
    Ops::store_index(y1, iy1);
    Ops::store_index(z0, iz0);
    Ops::store_index(z1, iz1);
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
    return {Ops::template gather<Sample>(g.host, o000), Ops::template gather<Sample>(g.host, o100),
            Ops::template gather<Sample>(g.host, o010), Ops::template gather<Sample>(g.host, o110),
            Ops::template gather<Sample>(g.host, o001), Ops::template gather<Sample>(g.host, o101),
            Ops::template gather<Sample>(g.host, o011), Ops::template gather<Sample>(g.host, o111)};
  }

  template <BlendPlan P>
  static inline void trilinear(const Grid<Sample>& g, const C* xs, const C* ys, const C* zs,
                               C* out) {
    const V one = Ops::set1(C(1));
    const V two = Ops::set1(C(2));
    const Query q = load_query(g, xs, ys, zs);
    // Lower corners from the floor of q - 1, upper ones from its ceiling.
    const Index ix0 = Ops::clamp(Ops::to_index(Ops::floor(q.dx)), last_index(g.nx));
    const Index ix1 = Ops::clamp(Ops::to_index(Ops::ceil(q.dx)), last_index(g.nx));
    const Index iy0 = Ops::clamp(Ops::to_index(Ops::floor(q.dy)), last_index(g.ny));
    const Index iy1 = Ops::clamp(Ops::to_index(Ops::ceil(q.dy)), last_index(g.ny));
    const Index iz0 = Ops::clamp(Ops::to_index(Ops::floor(q.dz)), last_index(g.nz));
    const Index iz1 = Ops::clamp(Ops::to_index(Ops::ceil(q.dz)), last_index(g.nz));
    // t is taken from q itself: in [1, 2) inside the grid.
    const V tx = Ops::sub(q.xq, Ops::to_coord(ix0));
    const V ty = Ops::sub(q.yq, Ops::to_coord(iy0));
    const V tz = Ops::sub(q.zq, Ops::to_coord(iz0));
    const V wxl = Ops::sub(two, tx), wxu = Ops::sub(tx, one);
    const V wyl = Ops::sub(two, ty), wyu = Ops::sub(ty, one);
    const V wzl = Ops::sub(two, tz);

    const Corners c = fetch_corners(g, ix0, ix1, iy0, iy1, iz0, iz1);
    const V r = Trilinear<P, Ops>::eval(c.v000, c.v100, c.v010, c.v110, c.v001, c.v101, c.v011,
                                        c.v111, wxl, wxu, wyl, wyu, tz, wzl);
    Ops::store(out, Ops::select(q.outside, Ops::set1(g.fill), r));
  }
};

// One group of Ops::lanes columns of a block of the given kind.
template <class Ops, Method M, class Sample, BlockKind Kind, bool FirstGroup,
          bool OffsetVectors = false>
inline void compute_group(const Grid<Sample>& g, const CoordOf<Sample>* xs,
                          const CoordOf<Sample>* ys, const CoordOf<Sample>* zs,
                          CoordOf<Sample>* out) {
  using Kernel = GroupKernel<Ops, Sample, OffsetVectors>;
  if constexpr (M == Method::nearest) {
    Kernel::nearest(g, xs, ys, zs, out);
  } else {
    Kernel::template trilinear<blend_plan<Sample>(Kind, FirstGroup)>(g, xs, ys, zs, out);
  }
}

// True when every offset the grid can produce, and every partial sum of one,
// lies in [-(2^31 - 1), 2^31 - 1], so 32-bit arithmetic is exact.
template <class Sample>
inline bool offsets_fit_in_32_bits(const Grid<Sample>& g) {
  auto span = [](int32_t n, int32_t stride) {
    const int64_t steps = n > 1 ? int64_t{n} - 1 : 0;
    return steps * (stride < 0 ? -int64_t{stride} : int64_t{stride});
  };
  const int64_t origin = g.origin < 0 ? -g.origin : g.origin;
  if (origin > INT32_MAX) return false;
  const int64_t reach = origin + span(g.nx, 1) + span(g.ny, g.stride1) + span(g.nz, g.stride2);
  return reach <= INT32_MAX;
}

// Full blocks [c, end) in wide groups.
template <class Wide, Method M, class Sample, bool OffsetVectors>
inline int64_t wide_full_groups(const Grid<Sample>& g, const RowSpan<CoordOf<Sample>>& r,
                                int64_t c, int64_t end) {
  for (; c + Wide::lanes <= end; c += Wide::lanes) {
    compute_group<Wide, M, Sample, BlockKind::full, false, OffsetVectors>(
        g, r.xq + c, r.yq + c, r.zq + c, r.vq + c);
  }
  return c;
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
  if constexpr (HasOffsetVectors<Wide>) {
    c = offsets_fit_in_32_bits(g) ? wide_full_groups<Wide, M, Sample, true>(g, r, c, full_columns)
                                  : wide_full_groups<Wide, M, Sample, false>(g, r, c, full_columns);
  } else {
    c = wide_full_groups<Wide, M, Sample, false>(g, r, c, full_columns);
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
