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
//   arithmetic gives the same offsets as 64-bit arithmetic. Offsets handed
//   to the reads count from the low end of the grid's offset span and are
//   never negative: a set may read them as unsigned.
// Optionally (has_x_pair_gather), gather_x_pairs<Sample>(base, offsets, p,
//   nx, first, second): the samples at offsets and offsets + 1 of each lane,
//   where p is the lane's x index (0 <= p <= nx - 2), so both lie in the row.
//   With gather_narrow_singles<Sample>(base, offsets, x, nx), nearest reads
//   8- and 16-bit samples as the 32-bit words that hold them (x is the
//   lane's x index), one gather for all lanes.
// Optionally (has_window_loads, with offset vectors), reads of `lanes`
//   consecutive samples handed out to the lanes by permutes (see Windows):
//   IndexMask with bits / mask_of_bits, sub_index, clamp_index(i, lo, hi),
//   broadcast_lane(i, lane), first_lane(i) (lane 0 as an int32),
//   index_within(rel, max) (unsigned rel <= max), load_window<Sample>(p)
//   (`lanes` samples from p, converted), permute(window, rel) and
//   permute_into(dst, mask, window, rel); optionally mask_andnot and
//   union_is_full (mask instructions instead of bits).
// Optionally, shortcuts that change instructions, never results:
//   round_to_index<mode>(d) (round and convert in one step, as to_index;
//     rows run in the default floating-point environment, so a conversion
//     may round to nearest by itself);
//   not_gt and and_not_gt(mask, a, b) (the block test as chained masked
//   comparisons); with windows, all_set, round_to_index_in_range<mode>,
//   bits_within and and_bits_within (a's bits <= b's, unsigned), for
//   groups wholly inside the grid.

#include "kernels/blend.h"  // blend formulas for this target

// Plain C++ the kernel sets share: included before the target region, so
// that it is compiled for the baseline instruction set.
#if !defined(QZ_ROW_SHAPE_H)
#error "include kernels/row_shape.h before the target region"
#endif

// A group's whole computation is inlined into the row loop, so that its
// constants stay in registers across groups; the loop over groups read
// through windows has no call in it (window_run).
#ifndef QZ_ALWAYS_INLINE
#define QZ_ALWAYS_INLINE [[gnu::always_inline]] inline
#endif

namespace qzinterp3d {
namespace QZ_TARGET_NS {

template <class Ops>
concept HasOffsetVectors = Ops::has_offset_vectors;

template <class Ops>
concept HasXPairGather = Ops::has_x_pair_gather;

template <class Ops>
concept HasWindowLoads = Ops::has_window_loads;

// Whether rows of a variant read coherent points through windows where
// they can: every variant on a set with window loads, except nearest rows
// of the samples a set's Ops exclude (nearest_window_reads<Sample>).
template <class Ops, Method M, class Sample>
constexpr bool reads_windows() {
  if constexpr (!HasWindowLoads<Ops>) {
    return false;
  } else if constexpr (M == Method::nearest &&
                       requires { Ops::template nearest_window_reads<Sample>; }) {
    return Ops::template nearest_window_reads<Sample>;
  } else {
    return true;
  }
}

// Where a hardware gather of 32-bit words is the way to read narrow samples,
// a single sample is read as part of a word too.
template <class Ops>
concept GathersNarrowSingles = requires(typename Ops::Index i) {
  Ops::template gather_narrow_singles<uint8_t>(nullptr, i, i, 0);
};

// Ops that tell whether every lane's pair of samples straddles the end of a
// cache line (pairs_straddle_lines<Sample>(base, offsets)).
template <class Ops>
concept ChecksStraddledPairs = requires(typename Ops::Index i) {
  Ops::template pairs_straddle_lines<uint8_t>(nullptr, i);
};

// Ops of a set with hardware gathers that name the operations to read
// rows with scalar loads instead, for the rows RowShape::scalar_loads picks:
// ScalarLoadRows (narrower vectors), and optionally ScalarLoadIntegerSingles
// for nearest rows over integer samples.
template <class Ops>
concept HasScalarLoadRowOps = requires {
  typename Ops::ScalarLoadRows;
};

template <class Ops, Method M, class Sample>
struct ScalarLoadOps {
  using type = typename Ops::ScalarLoadRows;
};
template <class Ops, class Sample>
requires(!std::is_floating_point_v<Sample>) && requires { typename Ops::ScalarLoadIntegerSingles; }
struct ScalarLoadOps<Ops, Method::nearest, Sample> {
  using type = typename Ops::ScalarLoadIntegerSingles;
};

// What a row kernel works out once per row.
struct RowPlan {
  // The lowest and highest offsets any read of the grid can have (every
  // index clamped into [0, n - 1]), when offsets fit in 32 bits. Windows read
  // only inside them, so they touch no memory that the grid's own samples do
  // not span.
  int32_t lo = 0, hi = 0;
  // Windows work on offsets counted from lo, which are never negative; a
  // window of `lanes` samples may start from 0 to window_last_start, and
  // there is none (-1) when the span is shorter than a window.
  int32_t window_last_start = -1;
  // True when the grid spans more memory than the caches are likely to
  // hold for the row's points (less for scattered ones): they then wait on
  // memory, and gathered groups fetch the grid lines of a group a few
  // groups ahead (prefetch_group).
  bool prefetch = false;
  // True when every axis has samples and its bound n - 1 converted to the
  // coordinate type is not above n - 1 (it can round up above 2^24 in
  // float): a point inside the grid then rounds to indices in [0, n - 1].
  bool bounds_exact = false;
  // True when groups read through windows first check whether the window
  // placed for their first lane serves them all (RowShape::one_window_first).
  bool one_window_first = false;
};

template <class Sample>
inline bool bounds_exact(const Grid<Sample>& g) {
  auto exact = [](CoordOf<Sample> bound, int32_t n) {
    return n >= 1 && static_cast<int64_t>(bound) <= int64_t{n} - 1;
  };
  return exact(g.bound_x, g.nx) && exact(g.bound_y, g.ny) && exact(g.bound_z, g.nz);
}

// Margin kept below the 32-bit limits by the offset-vector path, so that
// placing a window (an offset minus at most half a vector) cannot wrap.
inline constexpr int32_t window_margin = 64;

// Windows compare offsets with window starts as unsigned differences, which
// needs every two offsets of the grid to lie within 2^31 of each other, and
// need a span of at least one window. When both hold, fills in where
// windows of `lanes` samples may start.
inline bool windows_fit(RowPlan& plan, int32_t lanes) {
  const int64_t length = int64_t{plan.hi} - plan.lo + 1;
  if (length > INT32_MAX - window_margin || length < lanes) return false;
  plan.window_last_start = static_cast<int32_t>(length - lanes);
  return true;
}

// How a group reads its samples: offsets in 64 bits lane by lane; offsets
// in 32-bit vector lanes with gathers; or the same with windows first (and
// gathers for the lanes they miss).
enum class Fetch : uint8_t { per_lane, gathers, windows };

// OneWindowFirst: groups read through windows check whether the window
// placed for their first lane serves every lane, and then read only it.
template <class Ops, class Sample, Fetch F, bool OneWindowFirst = false>
struct GroupKernel {
  static constexpr bool OffsetVectors = F != Fetch::per_lane;
  using C = typename Ops::Coord;
  using V = typename Ops::V;
  using Mask = typename Ops::Mask;
  using Index = typename Ops::Index;
  static constexpr int N = Ops::lanes;

  // A group's coordinates q, their shifts d = q - 1, and the block test:
  // outside when 1 > q or d > n - 1 on some axis (ordered comparisons, so a
  // NaN coordinate alone does not make a lane outside). Where Ops chains
  // masked comparisons (and_not_gt), the complement is built instead, which
  // is the same test in fewer instructions: a lane is kept when neither
  // comparison holds on any axis.
  static constexpr bool chains_tests = requires(Mask m, V a) { Ops::and_not_gt(m, a, a); };
  struct Query {
    V xq, yq, zq, dx, dy, dz;
    Mask outside_or_kept;  // by block_test: kept when chains_tests, else outside
  };

  QZ_ALWAYS_INLINE static Query load_query(const C* xs, const C* ys, const C* zs) {
    const V one = Ops::set1(C(1));
    Query q;
    q.xq = Ops::load(xs);
    q.yq = Ops::load(ys);
    q.zq = Ops::load(zs);
    q.dx = Ops::sub(q.xq, one);
    q.dy = Ops::sub(q.yq, one);
    q.dz = Ops::sub(q.zq, one);
    return q;
  }

  QZ_ALWAYS_INLINE static void block_test(const Grid<Sample>& g, Query& q) {
    const V one = Ops::set1(C(1));
    if constexpr (chains_tests) {
      Mask kept = Ops::not_gt(one, q.xq);
      kept = Ops::and_not_gt(kept, q.dx, Ops::set1(g.bound_x));
      kept = Ops::and_not_gt(kept, one, q.yq);
      kept = Ops::and_not_gt(kept, q.dy, Ops::set1(g.bound_y));
      kept = Ops::and_not_gt(kept, one, q.zq);
      q.outside_or_kept = Ops::and_not_gt(kept, q.dz, Ops::set1(g.bound_z));
    } else {
      Mask m = Ops::or_(Ops::gt(one, q.xq), Ops::gt(q.dx, Ops::set1(g.bound_x)));
      m = Ops::or_(m, Ops::or_(Ops::gt(one, q.yq), Ops::gt(q.dy, Ops::set1(g.bound_y))));
      q.outside_or_kept =
          Ops::or_(m, Ops::or_(Ops::gt(one, q.zq), Ops::gt(q.dz, Ops::set1(g.bound_z))));
    }
  }

  // True when every lane is inside the grid with no NaN coordinate (ordered
  // comparisons) and the bounds are exact: then no lane is filled, and
  // rounding d gives indices in [0, n - 1] with nothing to clamp. Groups of
  // a slice through the grid mostly are; where Ops compares bits for the
  // test, this check costs less than the clamps and the fill it saves,
  // whether the group is read through windows or gathered (float32
  // nearest, oblique plane through 256^3, gathered: about 1.2x).
  static constexpr bool compares_bits = requires(Mask m, V a) { Ops::and_bits_within(m, a, a); };
  static constexpr bool sets_all = requires(Mask m) { Ops::all_set(m); };
  static constexpr bool checks_inside = F != Fetch::per_lane && sets_all && compares_bits;
  QZ_ALWAYS_INLINE static bool all_inside(const Grid<Sample>& g, const RowPlan& plan,
                                          const Query& q) {
    if (!plan.bounds_exact) return false;
    // One comparison per axis: d = q - 1 is +0 or positive exactly when
    // q >= 1 (it rounds to zero only at q = 1, and then to +0), and for
    // such d, and the bound n - 1 >= 0, d <= bound as numbers exactly when
    // d's bits are not above the bound's as unsigned integers. A negative d
    // (sign bit set) or a NaN d is above every such bound.
    Mask in = Ops::bits_within(q.dx, Ops::set1(g.bound_x));
    in = Ops::and_bits_within(in, q.dy, Ops::set1(g.bound_y));
    in = Ops::and_bits_within(in, q.dz, Ops::set1(g.bound_z));
    return Ops::all_set(in);
  }

  // The value of each lane, or the fill value where the lane is outside.
  QZ_ALWAYS_INLINE static V value_or_fill(const Grid<Sample>& g, const Query& q, V value) {
    if constexpr (chains_tests) {
      return Ops::select(q.outside_or_kept, value, Ops::set1(g.fill));
    } else {
      return Ops::select(q.outside_or_kept, Ops::set1(g.fill), value);
    }
  }

  // An integral coordinate value as a clamped index: rounded to nearest
  // (ties to even), down or up, then converted as to_index does. Ops may
  // round and convert in one step (round_to_index<Mode>).
  enum class Rounding { nearest_even, down, up };
  template <Rounding R, bool Inside>
  QZ_ALWAYS_INLINE static Index index_of(V d, int32_t n) {
    if constexpr (Inside) {
      return Ops::template round_to_index_in_range<static_cast<int>(R)>(d);
    } else {
      return clamped_index<R>(d, n);
    }
  }
  template <Rounding R>
  QZ_ALWAYS_INLINE static Index clamped_index(V d, int32_t n) {
    if constexpr (requires { Ops::template round_to_index<0>(d); }) {
      return Ops::clamp(Ops::template round_to_index<static_cast<int>(R)>(d), last_index(n));
    } else if constexpr (R == Rounding::nearest_even) {
      return Ops::clamp(Ops::to_index(Ops::round_even(d)), last_index(n));
    } else if constexpr (R == Rounding::down) {
      return Ops::clamp(Ops::to_index(Ops::floor(d)), last_index(n));
    } else {
      return Ops::clamp(Ops::to_index(Ops::ceil(d)), last_index(n));
    }
  }

  // Both methods return false, having written nothing, when windows do not
  // serve the group; the row then computes it again with gathers.
  QZ_ALWAYS_INLINE static bool nearest(const Grid<Sample>& g, const RowPlan& plan, const C* xs,
                                       const C* ys, const C* zs, C* out) {
    Query q = load_query(xs, ys, zs);
    if constexpr (checks_inside) {
      // Most groups are: saying so keeps this path in line and its
      // constants out of the loop (a branch to a return counts as unlikely).
      if (all_inside(g, plan, q)) [[likely]] {
        return nearest_of<true>(g, plan, q, out);
      }
    }
    block_test(g, q);
    return nearest_of<false>(g, plan, q, out);
  }
  template <bool Inside>
  QZ_ALWAYS_INLINE static bool nearest_of(const Grid<Sample>& g, const RowPlan& plan,
                                          const Query& q, C* out) {
    // Round to nearest, ties to even.
    const Index ix = index_of<Rounding::nearest_even, Inside>(q.dx, g.nx);
    const Index iy = index_of<Rounding::nearest_even, Inside>(q.dy, g.ny);
    const Index iz = index_of<Rounding::nearest_even, Inside>(q.dz, g.nz);
    V value;
    if (!fetch_sample(g, plan, ix, iy, iz, value)) return false;
    if constexpr (Inside) {
      Ops::store(out, value);
    } else {
      Ops::store(out, value_or_fill(g, q, value));
    }
    return true;
  }

  // The one sample of each lane; false when windows do not serve every lane.
  QZ_ALWAYS_INLINE static bool fetch_sample(const Grid<Sample>& g, const RowPlan& plan, Index ix,
                                            Index iy, Index iz, V& value) {
    if constexpr (OffsetVectors) {
      const Index yz = Ops::add_index(Ops::mul_index(iy, g.stride1), Ops::mul_index(iz, g.stride2));
      if constexpr (F == Fetch::windows) {
        return Windows::sample(g, plan, Windows::from_lo(g, plan, yz, ix), value);
      } else {
        value = gather_nearest_sample(g, span_base(g, plan),
                                      Ops::add_index(yz, span_origin(g, plan)), ix);
        return true;
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
      value = Ops::template gather<Sample>(g.host, offset);
      return true;
    }
  }

  // Gathered groups count offsets from the low end of the grid's offset
  // span, as windows do: never negative, so a set that reads lane by lane
  // widens them to 64 bits for free.
  QZ_ALWAYS_INLINE static const Sample* span_base(const Grid<Sample>& g, const RowPlan& plan) {
    return g.host + plan.lo;
  }
  // The offset of the sample at index 0 on every axis, from that end
  // (-origin - lo lies in [0, hi - lo]).
  QZ_ALWAYS_INLINE static Index span_origin(const Grid<Sample>& g, const RowPlan& plan) {
    return Ops::set1_index(static_cast<int32_t>(-g.origin - plan.lo));
  }

  // The sample at base + row + ix of each lane, by gathering (offset vectors).
  static inline V gather_sample(const Grid<Sample>& g, const Sample* base, Index row, Index ix) {
    if constexpr (GathersNarrowSingles<Ops> && sizeof(Sample) < 4) {
      return Ops::template gather_narrow_singles<Sample>(base, Ops::add_index(row, ix), ix, g.nx);
    } else {
      return Ops::template gather_offsets<Sample>(base, Ops::add_index(row, ix));
    }
  }

  // A nearest group's samples: by the set's own reads of single samples
  // where it has them (gather_singles), else as gather_sample.
  static inline V gather_nearest_sample(const Grid<Sample>& g, const Sample* base, Index row,
                                        Index ix) {
    if constexpr (requires { Ops::template gather_singles<Sample>(base, ix); }) {
      return Ops::template gather_singles<Sample>(base, Ops::add_index(row, ix));
    } else {
      return gather_sample(g, base, row, ix);
    }
  }

  // The samples at base + row + ix0 and base + row + ix1 of each lane, by
  // gathering: as pairs unless `singly` (see corners_by_gathers).
  static inline void gather_pair(const Grid<Sample>& g, const Sample* base, Index row, Index ix0,
                                 Index ix1, V& lower, V& upper, bool singly = false) {
    if (singly) {
      lower = gather_sample(g, base, row, ix0);
      upper = gather_sample(g, base, row, ix1);
      return;
    }
    if constexpr (HasXPairGather<Ops>) {
      // Both from one read of two adjacent samples at p = min(ix0, nx - 2):
      // ix0 and ix1 are each p or p + 1 (row kernels run only for
      // nx > W >= 2), so every read stays in the row.
      const Index p = Ops::min_index(ix0, last_index(g.nx) - 1);
      V first, second;
      Ops::template gather_x_pairs<Sample>(base, Ops::add_index(row, p), p, g.nx, first, second);
      lower = Ops::select_by_index_mask(Ops::index_gt(ix0, p), second, first);
      upper = Ops::select_by_index_mask(Ops::index_gt(ix1, p), second, first);
    } else {
      lower = Ops::template gather_offsets<Sample>(base, Ops::add_index(row, ix0));
      upper = Ops::template gather_offsets<Sample>(base, Ops::add_index(row, ix1));
    }
  }

  // The eight corner samples of each lane (digits: x, y, z; 0 = lower).
  struct Corners {
    V v000, v100, v010, v110, v001, v101, v011, v111;
  };

  // Windows: `lanes` consecutive samples of the grid read with one vector
  // load and handed to every lane whose sample (or pair of x corners) lies
  // inside by a permute. The lanes of a coherent run of query points (an
  // oblique slice, an upsampling grid) mostly read from one or two short
  // stretches of a grid row, so loads and permutes replace gathers, which
  // are slow on many CPUs. The values are the same samples, converted the
  // same way; only the way they are read differs. Two windows are placed
  // for the first and the last lane, so a run that crosses from one grid row
  // to the next within the group is served too; when lanes are left over
  // the caller gathers the group instead. When the first window serves
  // every lane, the last one is not read.
  struct Windows {
    // A window starts this many samples before the offset it is placed for,
    // so that lanes on either side of that one fit.
    static constexpr int32_t slack = N / 2 - 1;
    static constexpr uint32_t all_lanes = (uint32_t{1} << N) - 1;
    using IndexMask = decltype(Ops::index_gt(Index{}, Index{}));

    // The two windows for offsets o, their starts kept in [lo, hi].
    struct Pair {
      int32_t first_start, last_start;
      Index first_rel, last_rel;  // o less each start
      IndexMask from_last;        // lanes served by the last lane's window only
      bool first_only;            // the first lane's window serves every lane
    };

    // False when some lane fits neither window; `reach` is how far past its
    // offset each lane reads (1 for an x pair, 0 for one sample).
    // Starts are kept in [lo, hi], offsets and starts counted from the
    // span's low end.
    QZ_ALWAYS_INLINE static bool place(Index o, int32_t lo, int32_t hi, int32_t reach, Pair& w) {
      const Index starts = Ops::clamp_index(Ops::sub_index(o, Ops::set1_index(slack)), lo, hi);
      const Index first = Ops::broadcast_lane(starts, 0), last = Ops::broadcast_lane(starts, N - 1);
      w.first_start = Ops::first_lane(first);
      w.last_start = Ops::first_lane(last);
      w.first_rel = Ops::sub_index(o, first);
      w.last_rel = Ops::sub_index(o, last);
      // Unsigned: offsets below a start wrap to large values (the offsets
      // and starts are within 2^31 of each other).
      const IndexMask from_first = Ops::index_within(w.first_rel, N - 1 - reach);
      const IndexMask from_either = Ops::index_within(w.last_rel, N - 1 - reach);
      w.first_only = Ops::bits(from_first) == all_lanes;
      if constexpr (requires { Ops::union_is_full(from_first, from_either); }) {
        w.from_last = Ops::mask_andnot(from_first, from_either);
        return Ops::union_is_full(from_first, from_either);
      } else {
        const uint32_t first_bits = Ops::bits(from_first);
        w.from_last = Ops::mask_of_bits(~first_bits & Ops::bits(from_either));
        return (first_bits | Ops::bits(from_either)) == all_lanes;
      }
    }

    // The lanes' samples at rel (and rel + step) in the two windows that
    // start `delta` past the placed ones.
    QZ_ALWAYS_INLINE static V read(const Sample* span, const Pair& w, int64_t delta,
                                   Index first_rel, Index last_rel) {
      // Starts are never negative: read as unsigned, they need no widening.
      const V first =
          Ops::template load_window<Sample>(span + (static_cast<uint32_t>(w.first_start) + delta));
      const V last =
          Ops::template load_window<Sample>(span + (static_cast<uint32_t>(w.last_start) + delta));
      return Ops::permute_into(Ops::permute(first, first_rel), w.from_last, last, last_rel);
    }
    static void note_first_window_only() {
#if defined(QZINTERP3D_KERNEL_PROBE)
      g_first_window_only_groups.fetch_add(1, std::memory_order_relaxed);
#endif
    }
    // The same, where the first window serves every lane (first_only): the
    // last window's load, permute and blend would change no lane.
    QZ_ALWAYS_INLINE static V read_first(const Sample* span, const Pair& w, int64_t delta,
                                         Index first_rel) {
      return Ops::permute(
          Ops::template load_window<Sample>(span + (static_cast<uint32_t>(w.first_start) + delta)),
          first_rel);
    }

    // One sample per lane at offsets o. False (and nothing read) when the
    // two windows do not serve every lane.
    QZ_ALWAYS_INLINE static bool sample(const Grid<Sample>& g, const RowPlan& plan, Index o,
                                        V& value) {
      Pair w;
      if (!place(o, 0, plan.window_last_start, 0, w)) return false;
      if constexpr (OneWindowFirst) {
        if (w.first_only) {
          value = read_first(g.host + plan.lo, w, 0, w.first_rel);
          note_first_window_only();
          return true;
        }
      }
      value = read(g.host + plan.lo, w, 0, w.first_rel, w.last_rel);
      return true;
    }

    // Offsets yz + ix of the grid's samples, counted from the low end of
    // the grid's offset span.
    QZ_ALWAYS_INLINE static Index from_lo(const Grid<Sample>& g, const RowPlan& plan, Index yz,
                                          Index ix) {
      // -origin - lo lies in [0, hi - lo]: no overflow.
      return Ops::add_index(
          Ops::add_index(yz, Ops::set1_index(static_cast<int32_t>(-g.origin - plan.lo))), ix);
    }

    // The eight corners of each lane, from the offsets o of its lower x
    // corner in the (y0, z0) grid row, its x step (0 or 1), and the y and z
    // offset steps dy, dz, the same for every lane: the other three grid
    // rows are then the first one moved by dy, dz and dy + dz, and the two
    // windows placed for the first row serve them all, moved alike. False
    // (and nothing read) when they do not serve every lane.
    QZ_ALWAYS_INLINE static bool corners(const Grid<Sample>& g, const RowPlan& plan, Index o,
                                         Index step, int64_t dy, int64_t dz, Corners& c) {
      // Every moved window must lie in the grid's offset span too.
      const int64_t lo = -(dy < 0 ? dy : 0) - (dz < 0 ? dz : 0);
      const int64_t hi = int64_t{plan.window_last_start} - (dy > 0 ? dy : 0) - (dz > 0 ? dz : 0);
      if (lo > hi) return false;  // the span is shorter than the moved windows' reach
      Pair w;
      if (!place(o, static_cast<int32_t>(lo), static_cast<int32_t>(hi), 1, w)) return false;
      const Sample* span = g.host + plan.lo;
      const Index first_upper = Ops::add_index(w.first_rel, step);
      if (OneWindowFirst && w.first_only) {  // eight reads saved
        c.v000 = read_first(span, w, 0, w.first_rel);
        c.v100 = read_first(span, w, 0, first_upper);
        c.v010 = read_first(span, w, dy, w.first_rel);
        c.v110 = read_first(span, w, dy, first_upper);
        c.v001 = read_first(span, w, dz, w.first_rel);
        c.v101 = read_first(span, w, dz, first_upper);
        c.v011 = read_first(span, w, dy + dz, w.first_rel);
        c.v111 = read_first(span, w, dy + dz, first_upper);
        note_first_window_only();
        return true;
      }
      const Index last_upper = Ops::add_index(w.last_rel, step);
      c.v000 = read(span, w, 0, w.first_rel, w.last_rel);
      c.v100 = read(span, w, 0, first_upper, last_upper);
      c.v010 = read(span, w, dy, w.first_rel, w.last_rel);
      c.v110 = read(span, w, dy, first_upper, last_upper);
      c.v001 = read(span, w, dz, w.first_rel, w.last_rel);
      c.v101 = read(span, w, dz, first_upper, last_upper);
      c.v011 = read(span, w, dy + dz, w.first_rel, w.last_rel);
      c.v111 = read(span, w, dy + dz, first_upper, last_upper);
      return true;
    }
  };

  // The eight corners of each lane; false when windows do not serve every
  // lane.
  QZ_ALWAYS_INLINE static bool fetch_corners(const Grid<Sample>& g, const RowPlan& plan, Index ix0,
                                             Index ix1, Index iy0, Index iy1, Index iz0, Index iz1,
                                             Corners& c) {
    if constexpr (!OffsetVectors) {
      c = corners_by_lanes(g, ix0, ix1, iy0, iy1, iz0, iz1);
      return true;
    } else if constexpr (F == Fetch::windows) {
      // Inside the grid each upper index is the lower one or the next, so
      // the x step is 0 or 1, and a lane's four grid rows are its first
      // moved by 0 or one stride along y and z; when every lane moves
      // alike, one pair of windows serves all four rows.
      constexpr uint32_t all = Windows::all_lanes;
      const uint32_t y_up = Ops::bits(Ops::index_gt(iy1, iy0));
      const uint32_t z_up = Ops::bits(Ops::index_gt(iz1, iz0));
      if ((y_up == 0 || y_up == all) && (z_up == 0 || z_up == all)) [[likely]] {
        const Index yz =
            Ops::add_index(Ops::mul_index(iy0, g.stride1), Ops::mul_index(iz0, g.stride2));
        const int64_t dy = y_up ? g.stride1 : 0, dz = z_up ? g.stride2 : 0;
        return Windows::corners(g, plan, Windows::from_lo(g, plan, yz, ix0),
                                Ops::sub_index(ix1, ix0), dy, dz, c);
      }
      return false;
    } else {
      c = corners_by_gathers(g, plan, ix0, ix1, iy0, iy1, iz0, iz1);
      return true;
    }
  }

  QZ_ALWAYS_INLINE static Corners corners_by_gathers(const Grid<Sample>& g, const RowPlan& plan,
                                                     Index ix0, Index ix1, Index iy0, Index iy1,
                                                     Index iz0, Index iz1) {
    // The y and z parts of the offsets are shared by both x corners.
    const Sample* base = span_base(g, plan);
    const Index origin = span_origin(g, plan);
    const Index ylo = Ops::mul_index(iy0, g.stride1), yhi = Ops::mul_index(iy1, g.stride1);
    const Index zlo = Ops::add_index(Ops::mul_index(iz0, g.stride2), origin);
    const Index zhi = Ops::add_index(Ops::mul_index(iz1, g.stride2), origin);
    // A pair of samples on either side of a cache line's end is one read
    // split over two lines, which costs more than reading both samples
    // alone. On an axis-aligned slice every lane has the same x, and a
    // slice through a grid's centre puts all of them there; so where every
    // lane of the first grid row straddles, the group reads its samples
    // one by one (uint8 trilinear, y-running slice through the centre of
    // 512^3, avx2: 127 -> 229 M points/s).
    bool singly = false;
    if constexpr (ChecksStraddledPairs<Ops>) {
      singly = Ops::template pairs_straddle_lines<Sample>(
          base,
          Ops::add_index(Ops::add_index(ylo, zlo), Ops::min_index(ix0, last_index(g.nx) - 1)));
    }
    Corners c;
    gather_pair(g, base, Ops::add_index(ylo, zlo), ix0, ix1, c.v000, c.v100, singly);
    gather_pair(g, base, Ops::add_index(yhi, zlo), ix0, ix1, c.v010, c.v110, singly);
    gather_pair(g, base, Ops::add_index(ylo, zhi), ix0, ix1, c.v001, c.v101, singly);
    gather_pair(g, base, Ops::add_index(yhi, zhi), ix0, ix1, c.v011, c.v111, singly);
    return c;
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
  QZ_ALWAYS_INLINE static bool trilinear(const Grid<Sample>& g, const RowPlan& plan, const C* xs,
                                         const C* ys, const C* zs, C* out) {
    Query q = load_query(xs, ys, zs);
    if constexpr (checks_inside) {
      if (all_inside(g, plan, q)) [[likely]] {  // as in nearest
        return trilinear_of<P, true>(g, plan, q, out);
      }
    }
    block_test(g, q);
    return trilinear_of<P, false>(g, plan, q, out);
  }
  template <BlendPlan P, bool Inside>
  QZ_ALWAYS_INLINE static bool trilinear_of(const Grid<Sample>& g, const RowPlan& plan,
                                            const Query& q, C* out) {
    const V one = Ops::set1(C(1));
    const V two = Ops::set1(C(2));
    // Lower corners from the floor of q - 1, upper ones from its ceiling.
    const Index ix0 = index_of<Rounding::down, Inside>(q.dx, g.nx);
    const Index ix1 = index_of<Rounding::up, Inside>(q.dx, g.nx);
    const Index iy0 = index_of<Rounding::down, Inside>(q.dy, g.ny);
    const Index iy1 = index_of<Rounding::up, Inside>(q.dy, g.ny);
    const Index iz0 = index_of<Rounding::down, Inside>(q.dz, g.nz);
    const Index iz1 = index_of<Rounding::up, Inside>(q.dz, g.nz);
    // t is taken from q itself: in [1, 2) inside the grid.
    const V tx = Ops::sub(q.xq, Ops::to_coord(ix0));
    const V ty = Ops::sub(q.yq, Ops::to_coord(iy0));
    const V tz = Ops::sub(q.zq, Ops::to_coord(iz0));
    const V wxl = Ops::sub(two, tx), wxu = Ops::sub(tx, one);
    const V wyl = Ops::sub(two, ty), wyu = Ops::sub(ty, one);
    const V wzl = Ops::sub(two, tz);

    Corners c;
    if (!fetch_corners(g, plan, ix0, ix1, iy0, iy1, iz0, iz1, c)) return false;
    const V r = Trilinear<P, Ops>::eval(c.v000, c.v100, c.v010, c.v110, c.v001, c.v101, c.v011,
                                        c.v111, wxl, wxu, wyl, wyu, tz, wzl);
    if constexpr (Inside) {
      Ops::store(out, r);
    } else {
      Ops::store(out, value_or_fill(g, q, r));
    }
    return true;
  }

  // An index in [0, n - 1] for a prefetch hint. Where Ops clamps
  // coordinates (clamp_coord: into [0, bound], NaN to bound), d is clamped
  // before it is rounded, in fewer instructions than the exact conversion
  // where that is dear (four scalar conversions an axis for float64 on
  // 32-byte vectors); inside the grid both give the same index.
  template <Rounding R>
  QZ_ALWAYS_INLINE static Index hint_index(V d, C bound, int32_t n) {
    if constexpr (requires { Ops::clamp_coord(d, d); }) {
      const V clamped = Ops::clamp_coord(d, Ops::set1(bound));
      return Ops::min_index(Ops::template round_to_index_in_range<static_cast<int>(R)>(clamped),
                            last_index(n));
    } else {
      return clamped_index<R>(d, n);
    }
  }

  // Asks for the grid lines a group at these coordinates will read (the
  // lower corner's line in each grid row, or the sample's), so that their
  // misses overlap with the work on the groups before it. The indices are
  // clamped, so every address lies in the grid.
  template <Method M>
  QZ_ALWAYS_INLINE static void prefetch_group(const Grid<Sample>& g, const RowPlan& plan,
                                              const C* xs, const C* ys, const C* zs) {
    constexpr Rounding R = M == Method::nearest ? Rounding::nearest_even : Rounding::down;
    const Query q = load_query(xs, ys, zs);
    const Index yz =
        Ops::add_index(Ops::mul_index(hint_index<R>(q.dy, g.bound_y, g.ny), g.stride1),
                       Ops::mul_index(hint_index<R>(q.dz, g.bound_z, g.nz), g.stride2));
    const Index x = Ops::add_index(hint_index<R>(q.dx, g.bound_x, g.nx), span_origin(g, plan));
    alignas(64) int32_t offset[N];
    Ops::store_index(offset, Ops::add_index(yz, x));
    const Sample* base = span_base(g, plan);
    // The upper rows' lines by address arithmetic: past the grid's last row
    // they are only hints.
    const uintptr_t y_step = static_cast<uintptr_t>(int64_t{g.stride1} * int64_t{sizeof(Sample)});
    const uintptr_t z_step = static_cast<uintptr_t>(int64_t{g.stride2} * int64_t{sizeof(Sample)});
    for (int l = 0; l < N; ++l) {
      const uintptr_t at = reinterpret_cast<uintptr_t>(base + static_cast<uint32_t>(offset[l]));
      __builtin_prefetch(reinterpret_cast<const void*>(at), 0, 3);
      if constexpr (M == Method::bilinear) {
        __builtin_prefetch(reinterpret_cast<const void*>(at + y_step), 0, 3);
        __builtin_prefetch(reinterpret_cast<const void*>(at + z_step), 0, 3);
        __builtin_prefetch(reinterpret_cast<const void*>(at + y_step + z_step), 0, 3);
      }
    }
  }
};

// One group of Ops::lanes columns of a block of the given kind. Returns
// false, having written nothing, when windows do not serve it.
template <class Ops, Method M, class Sample, BlockKind Kind, bool FirstGroup,
          Fetch F = Fetch::per_lane, bool OneWindowFirst = false>
QZ_ALWAYS_INLINE bool compute_group(const Grid<Sample>& g, const RowPlan& plan,
                                    const CoordOf<Sample>* xs, const CoordOf<Sample>* ys,
                                    const CoordOf<Sample>* zs, CoordOf<Sample>* out) {
  using Kernel = GroupKernel<Ops, Sample, F, OneWindowFirst>;
  if constexpr (M == Method::nearest) {
    return Kernel::nearest(g, plan, xs, ys, zs, out);
  } else {
    return Kernel::template trilinear<blend_plan<Sample>(Kind, FirstGroup)>(g, plan, xs, ys, zs,
                                                                            out);
  }
}

// True, with the span of the grid's offsets, when every offset the grid can
// produce, and every partial sum of one, lies within the 32-bit limits less
// window_margin, so that 32-bit arithmetic is exact.
template <class Sample>
inline bool offsets_fit_in_32_bits(const Grid<Sample>& g, RowPlan& plan) {
  auto span = [](int32_t n, int32_t stride) {
    const int64_t steps = n > 1 ? int64_t{n} - 1 : 0;
    return steps * stride;
  };
  auto magnitude = [](int64_t v) { return v < 0 ? -v : v; };
  const int64_t sy = span(g.ny, g.stride1), sz = span(g.nz, g.stride2);
  constexpr int64_t limit = INT32_MAX - window_margin;
  if (magnitude(g.origin) > limit) return false;
  const int64_t reach = magnitude(g.origin) + span(g.nx, 1) + magnitude(sy) + magnitude(sz);
  if (reach > limit) return false;
  plan.lo = static_cast<int32_t>(-g.origin + (sy < 0 ? sy : 0) + (sz < 0 ? sz : 0));
  plan.hi = static_cast<int32_t>(-g.origin + span(g.nx, 1) + (sy > 0 ? sy : 0) + (sz > 0 ? sz : 0));
  return true;
}

// Where windows pay off: where two of them serve a group's lanes, in
// coherent runs of points. A group they do not serve is gathered. Where that
// happens often, the points are scattered across grid rows and gathers are
// cheaper: after two such groups close together, the next groups go
// straight to gathers before windows are tried again. Long runs pay off on
// scattered points: every switch costs the groups that try windows in vain,
// and the first groups of a run get no prefetch (64 rather than 16 groups:
// float32 trilinear on random points in 256^3, 56 -> 75 M points/s).
inline constexpr int64_t gather_run_groups = 64;
struct Shortfalls {
  int64_t last = INT64_MIN / 2;  // column of the last group windows did not serve
  uint64_t count = 0;            // groups windows did not serve
  // Notes the group at column c; true when it comes close after the last.
  bool close_after_last(int64_t c, int64_t lanes) {
    ++count;
    const bool close = c - last <= 4 * lanes;
    last = c;
    return close;
  }
};

// With 32 vector registers a group's gathers fit in line beside the window
// path's constants. With 16 they push those out of registers, so the run
// stops at the group instead and the row gathers it.
template <class Ops>
concept GathersInLine = Ops::vector_registers >= 32;

// Full blocks from c on, in wide groups read through windows, up to end or
// to a group they did not serve; returns where it stopped. With gathers in
// line the run gathers such a group itself and stops only past one that
// came close after the last. Kept out of line and free of calls, so that
// its constants stay in registers for the whole run: a call, even on the
// rare path, would clobber them all in every group.
template <class Wide, Method M, class Sample, bool OneWindowFirst>
[[gnu::noinline]] int64_t window_run(const Grid<Sample>& grid, const RowPlan& row_plan,
                                     const RowSpan<CoordOf<Sample>>& span, int64_t c, int64_t end,
                                     Shortfalls& shortfalls) {
  // Local copies: the compiler then knows that the stores to the output do
  // not change them, and keeps them in registers.
  const Grid<Sample> g = grid;
  const RowPlan plan = row_plan;
  const RowSpan<CoordOf<Sample>> r = span;
  for (; c + Wide::lanes <= end; c += Wide::lanes) {
    if (compute_group<Wide, M, Sample, BlockKind::full, false, Fetch::windows, OneWindowFirst>(
            g, plan, r.xq + c, r.yq + c, r.zq + c, r.vq + c)) [[likely]] {
      continue;
    }
    if constexpr (GathersInLine<Wide>) {
      compute_group<Wide, M, Sample, BlockKind::full, false, Fetch::gathers>(
          g, plan, r.xq + c, r.yq + c, r.zq + c, r.vq + c);
      if (shortfalls.close_after_last(c, Wide::lanes)) return c + Wide::lanes;
    } else {
      return c;
    }
  }
  return c;
}

// Full blocks [c, stop) in wide groups read by gathers. Where scattered
// points read a grid beyond the caches (plan.prefetch) each group first asks
// for the grid lines of a group further on (within the row's full blocks,
// which end at end). Out of line and free of calls, as window_run.
template <class Wide, Method M, class Sample>
[[gnu::noinline]] void gather_run(const Grid<Sample>& grid, const RowPlan& row_plan,
                                  const RowSpan<CoordOf<Sample>>& span, int64_t c, int64_t stop,
                                  int64_t end) {
  const Grid<Sample> g = grid;  // local copies, as in window_run
  const RowPlan plan = row_plan;
  const RowSpan<CoordOf<Sample>> r = span;
  // As far ahead as a few hundred cycles of work: six nearest groups, three
  // trilinear ones (each reads four grid lines per lane).
  constexpr int64_t ahead = (M == Method::nearest ? 6 : 3) * Wide::lanes;
  for (; c + Wide::lanes <= stop; c += Wide::lanes) {
    if (plan.prefetch && c + ahead + Wide::lanes <= end) {
      GroupKernel<Wide, Sample, Fetch::gathers>::template prefetch_group<M>(
          g, plan, r.xq + c + ahead, r.yq + c + ahead, r.zq + c + ahead);
    }
    compute_group<Wide, M, Sample, BlockKind::full, false, Fetch::gathers>(
        g, plan, r.xq + c, r.yq + c, r.zq + c, r.vq + c);
  }
}

// Full blocks [c, end) in wide groups. Test builds count the groups where
// the row's kernel set reads windows for the variant (SetReadsWindows; a
// set may read some rows through other, narrower operations).
template <class Wide, Method M, class Sample, Fetch F,
          bool SetReadsWindows = reads_windows<Wide, M, Sample>()>
inline int64_t wide_full_groups(const Grid<Sample>& grid, const RowPlan& row_plan,
                                const RowSpan<CoordOf<Sample>>& span, int64_t c, int64_t end) {
  const Grid<Sample> g = grid;  // local copies, as in window_run
  const RowPlan plan = row_plan;
  const RowSpan<CoordOf<Sample>> r = span;
  if constexpr (F == Fetch::windows) {
    // Runs of one kind (window_run, gather_run), each a loop with no call in
    // it.
    Shortfalls shortfalls;
    [[maybe_unused]] const int64_t first = c;
    [[maybe_unused]] uint64_t gathered = 0;  // by gather_run, then in all
    while (c + Wide::lanes <= end) {
      // Rows where the check would often fail leave it out of the loop.
      c = plan.one_window_first
              ? window_run<Wide, M, Sample, true>(g, plan, r, c, end, shortfalls)
              : window_run<Wide, M, Sample, false>(g, plan, r, c, end, shortfalls);
      int64_t groups = gather_run_groups;
      if constexpr (!GathersInLine<Wide>) {
        // Stopped at a group the windows did not serve, or at the end.
        if (c + Wide::lanes > end) break;
        if (!shortfalls.close_after_last(c, Wide::lanes)) {
          // One group alone: here, in line, rather than by another call.
          compute_group<Wide, M, Sample, BlockKind::full, false, Fetch::gathers>(
              g, plan, r.xq + c, r.yq + c, r.zq + c, r.vq + c);
          ++gathered;
          c += Wide::lanes;
          continue;
        }
        groups = gather_run_groups + 1;
      }
      const int64_t stop = c + std::min(groups, (end - c) / Wide::lanes) * Wide::lanes;
      gather_run<Wide, M, Sample>(g, plan, r, c, stop, end);
      gathered += static_cast<uint64_t>((stop - c) / Wide::lanes);
      c = stop;
    }
    if constexpr (GathersInLine<Wide>) gathered += shortfalls.count;  // by window_run
    [[maybe_unused]] const uint64_t served =
        static_cast<uint64_t>((c - first) / Wide::lanes) - gathered;
#if defined(QZINTERP3D_KERNEL_PROBE)
    note_window_groups(served, gathered);
#endif
  } else if constexpr (F == Fetch::gathers) {
    [[maybe_unused]] const int64_t first = c;
    const int64_t stop = c + (end - c) / Wide::lanes * Wide::lanes;
    gather_run<Wide, M, Sample>(g, plan, r, c, stop, end);
    c = stop;
#if defined(QZINTERP3D_KERNEL_PROBE)
    if constexpr (SetReadsWindows) {
      note_window_groups(0, static_cast<uint64_t>((c - first) / Wide::lanes));
    }
#endif
  } else {
    [[maybe_unused]] const int64_t first = c;
    for (; c + Wide::lanes <= end; c += Wide::lanes) {
      compute_group<Wide, M, Sample, BlockKind::full, false, F>(g, plan, r.xq + c, r.yq + c,
                                                                r.zq + c, r.vq + c);
    }
#if defined(QZINTERP3D_KERNEL_PROBE)
    // Where the set has windows but the row cannot use them, its groups
    // count as gathered.
    if constexpr (SetReadsWindows) {
      note_window_groups(0, static_cast<uint64_t>((c - first) / Wide::lanes));
    }
#endif
  }
  return c;
}

// A row: its full blocks left to right, then the last block, which spans the
// W columns ending at the row's last column and so rewrites any overlap with
// its own sequence. Full blocks may be covered by wide vectors (several
// blocks at once); the last block always goes in groups of the narrow ones,
// because its lanes do not all follow one sequence.
template <template <class> class WideOps, template <class> class NarrowOps, Method M, class Sample>
void row(const Grid<Sample>& grid, const RowSpan<CoordOf<Sample>>& span) {
  const Grid<Sample> g = grid;  // local copies, as in wide_full_groups
  const RowSpan<CoordOf<Sample>> r = span;
  using C = CoordOf<Sample>;
  using Wide = WideOps<C>;
  using Narrow = NarrowOps<C>;
  constexpr int64_t W = block_width_of<Sample>();
  static_assert(W % Narrow::lanes == 0, "a block is a whole number of narrow groups");
  const int64_t full_columns = int64_t{r.full_blocks} * W;
  int64_t c = 0;
  RowPlan plan;
  plan.bounds_exact = bounds_exact(g);
  if constexpr (HasOffsetVectors<Wide>) {
    Fetch fetch = Fetch::per_lane;
    bool scalar_loads = false;
    if (offsets_fit_in_32_bits(g, plan)) {
      const RowShape shape = row_shape(g, r, full_columns, Wide::lanes);
      plan.one_window_first = shape.one_window_first(M);
      const int64_t grid_bytes = (int64_t{plan.hi} - plan.lo + 1) * int64_t{sizeof(Sample)};
      plan.prefetch = shape.prefetches(M, int64_t{sizeof(Sample)}, grid_bytes);
      fetch = reads_windows<Wide, M, Sample>() && shape.window_reads(M, plan.prefetch) &&
                      windows_fit(plan, Wide::lanes)
                  ? Fetch::windows
                  : Fetch::gathers;
      scalar_loads = shape.scalar_loads(M, int64_t{sizeof(Sample)}, grid_bytes);
    }
    switch (fetch) {
      case Fetch::per_lane:
        c = wide_full_groups<Wide, M, Sample, Fetch::per_lane>(g, plan, r, c, full_columns);
        break;
      case Fetch::gathers:
        if constexpr (HasScalarLoadRowOps<Wide>) {
          if (scalar_loads) {
            c = wide_full_groups<typename ScalarLoadOps<Wide, M, Sample>::type, M, Sample,
                                 Fetch::gathers, reads_windows<Wide, M, Sample>()>(
                g, plan, r, c, full_columns);
            break;
          }
        }
        c = wide_full_groups<Wide, M, Sample, Fetch::gathers>(g, plan, r, c, full_columns);
        break;
      case Fetch::windows:
        if constexpr (reads_windows<Wide, M, Sample>()) {
          c = wide_full_groups<Wide, M, Sample, Fetch::windows>(g, plan, r, c, full_columns);
        }
        break;
    }
  } else {
    c = wide_full_groups<Wide, M, Sample, Fetch::per_lane>(g, plan, r, c, full_columns);
  }
  for (; c < full_columns; c += Narrow::lanes) {
    compute_group<Narrow, M, Sample, BlockKind::full, false>(g, plan, r.xq + c, r.yq + c, r.zq + c,
                                                             r.vq + c);
  }
  if (r.last_blocks > 0) {
    compute_group<Narrow, M, Sample, BlockKind::last, true>(g, plan, r.xq_last, r.yq_last,
                                                            r.zq_last, r.vq_last);
    for (int64_t k = Narrow::lanes; k < W; k += Narrow::lanes) {
      compute_group<Narrow, M, Sample, BlockKind::last, false>(
          g, plan, r.xq_last + k, r.yq_last + k, r.zq_last + k, r.vq_last + k);
    }
  }
}

template <template <class> class WideOps, template <class> class NarrowOps>
constexpr KernelSet make_kernel_set(const char* name) {
  return KernelSet{name,
#define QZ_ROW_POINTER(method, type, T) &row<WideOps, NarrowOps, Method::method, T>,
                   QZ_FOR_EACH_VARIANT(QZ_ROW_POINTER)
#undef QZ_ROW_POINTER
#define QZ_WINDOWS_FLAG(method, type, T) reads_windows<WideOps<CoordOf<T>>, Method::method, T>(),
                   QZ_FOR_EACH_VARIANT(QZ_WINDOWS_FLAG)
#undef QZ_WINDOWS_FLAG
  };
}

}  // namespace QZ_TARGET_NS
}  // namespace qzinterp3d
