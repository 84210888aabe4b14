// The scalar model: one output element at a time, every rounding stated
// plainly. The serial path of the entries is this model; every vector kernel
// is tested bit for bit against it, block kind by block kind.
#pragma once

#include <cmath>
#include <cstdint>

#include "kernels/blend.h"
#include "kernels/coords.h"
#include "kernels/row_api.h"
#include "kernels/sample.h"
#include "kernels/variant.h"

#define QZ_TARGET_NS model
#include "kernels/blend.h"  // the blend formulas, for scalar arithmetic
#undef QZ_TARGET_NS

namespace qzinterp3d {
namespace model {

template <class F>
struct ScalarArith {
  using V = F;
  static F add(F a, F b) { return a + b; }
  static F mul(F a, F b) { return a * b; }
  static F fma(F a, F b, F c) { return std::fma(a, b, c); }
  static F neg(F a) { return -a; }
};

// The two forms of the out-of-range rule. They agree unless a coordinate is
// NaN: the block test then counts the point as inside (its index becomes 0),
// the element test as outside (it gets the fill value).
enum class OutOfRangeTest { block, element };

// How an integral coordinate value becomes an index (see coords.h).
enum class IndexConversion { saturate_i32, low32_of_i64 };

template <class F>
inline int32_t to_index(F integral, IndexConversion conversion) {
  if constexpr (sizeof(F) == 8) {
    if (conversion == IndexConversion::low32_of_i64) return index_low32_of_i64(integral);
  }
  return index_saturating_i32(integral);
}

// Per axis: q the coordinate, d = q - 1 (rounded), b = n - 1 converted.
template <class F>
inline bool outside_block_test(F q, F d, F b) {
  return F(1) > q || d > b;
}
template <class F>
inline bool inside_element_test(F q, F d, F b) {
  return q >= F(1) && d <= b;
}

template <class F>
inline bool is_outside(OutOfRangeTest test, F xq, F dx, F bx, F yq, F dy, F by, F zq, F dz,
                       F bz) {
  if (test == OutOfRangeTest::block) {
    return outside_block_test(xq, dx, bx) || outside_block_test(yq, dy, by) ||
           outside_block_test(zq, dz, bz);
  }
  return !(inside_element_test(xq, dx, bx) && inside_element_test(yq, dy, by) &&
           inside_element_test(zq, dz, bz));
}

template <class Sample>
inline int64_t flat_offset(const Grid<Sample>& g, int32_t ix, int32_t iy, int32_t iz) {
  return int64_t{ix} + int64_t{iy} * g.stride1 + int64_t{iz} * g.stride2 - g.origin;
}

// Nearest neighbour: d rounded to nearest, ties to even; the one sample at the
// clamped indices, or the fill value.
template <class Sample>
CoordOf<Sample> nearest(const Grid<Sample>& g, CoordOf<Sample> xq, CoordOf<Sample> yq,
                        CoordOf<Sample> zq, OutOfRangeTest test, IndexConversion conversion) {
  using F = CoordOf<Sample>;
  const F dx = xq - F(1);
  const F dy = yq - F(1);
  const F dz = zq - F(1);
  const int32_t ix = clamp_index(to_index(std::nearbyint(dx), conversion), last_index(g.nx));
  const int32_t iy = clamp_index(to_index(std::nearbyint(dy), conversion), last_index(g.ny));
  const int32_t iz = clamp_index(to_index(std::nearbyint(dz), conversion), last_index(g.nz));
  const F value = sample_to_coord(g.host[flat_offset(g, ix, iy, iz)]);
  return is_outside(test, xq, dx, g.bound_x, yq, dy, g.bound_y, zq, dz, g.bound_z) ? g.fill
                                                                                  : value;
}

// Corner indices and weights along one axis: i0 from the floor of q - 1, i1
// from its ceiling (not i0 + 1), both clamped; t = q - i0; wl = 2 - t, wu = t - 1.
template <class F>
struct AxisCorners {
  int32_t i0, i1;
  F t, wl, wu;
};

template <class F>
inline AxisCorners<F> axis_corners(F q, int32_t n, IndexConversion conversion) {
  const F p = q - F(1);
  const int32_t i0 = clamp_index(to_index(std::floor(p), conversion), last_index(n));
  const int32_t i1 = clamp_index(to_index(std::ceil(p), conversion), last_index(n));
  const F t = q - static_cast<F>(i0);
  return {i0, i1, t, F(2) - t, t - F(1)};
}

template <class F>
inline F blend_by(Blend b, F lower, F upper, F wl, F wu) {
  switch (b) {
    case Blend::lower_first:
      return blend<Blend::lower_first, ScalarArith<F>>(lower, upper, wl, wu);
    case Blend::upper_first:
      return blend<Blend::upper_first, ScalarArith<F>>(lower, upper, wl, wu);
    case Blend::split:
      break;
  }
  return blend<Blend::split, ScalarArith<F>>(lower, upper, wl, wu);
}

// Trilinear: the eight corners blended along x, then y, then the z step, each
// x and y step with the blend the plan names.
template <class Sample>
CoordOf<Sample> trilinear(const Grid<Sample>& g, CoordOf<Sample> xq, CoordOf<Sample> yq,
                          CoordOf<Sample> zq, const BlendPlan& plan, OutOfRangeTest test,
                          IndexConversion conversion) {
  using F = CoordOf<Sample>;
  const AxisCorners<F> x = axis_corners(xq, g.nx, conversion);
  const AxisCorners<F> y = axis_corners(yq, g.ny, conversion);
  const AxisCorners<F> z = axis_corners(zq, g.nz, conversion);
  auto at = [&](int32_t ix, int32_t iy, int32_t iz) {
    return sample_to_coord(g.host[flat_offset(g, ix, iy, iz)]);
  };
  const F v000 = at(x.i0, y.i0, z.i0), v100 = at(x.i1, y.i0, z.i0);
  const F v010 = at(x.i0, y.i1, z.i0), v110 = at(x.i1, y.i1, z.i0);
  const F v001 = at(x.i0, y.i0, z.i1), v101 = at(x.i1, y.i0, z.i1);
  const F v011 = at(x.i0, y.i1, z.i1), v111 = at(x.i1, y.i1, z.i1);

  const F a00 = blend_by(plan.a00, v000, v100, x.wl, x.wu);
  const F a10 = blend_by(plan.a10, v010, v110, x.wl, x.wu);
  const F a01 = blend_by(plan.a01, v001, v101, x.wl, x.wu);
  const F a11 = blend_by(plan.a11, v011, v111, x.wl, x.wu);
  const F b0 = blend_by(plan.b0, a00, a10, y.wl, y.wu);
  const F b1 = blend_by(plan.b1, a01, a11, y.wl, y.wu);
  const F r = z_step<ScalarArith<F>>(b0, b1, z.t, z.wl);

  const F dx = xq - F(1), dy = yq - F(1), dz = zq - F(1);
  return is_outside(test, xq, dx, g.bound_x, yq, dy, g.bound_y, zq, dz, g.bound_z) ? g.fill : r;
}

// The value the serial path writes at a column of a row of width w.
template <Method M, class Sample>
CoordOf<Sample> serial_value(const Grid<Sample>& g, CoordOf<Sample> xq, CoordOf<Sample> yq,
                             CoordOf<Sample> zq, int64_t column, int64_t width) {
  if constexpr (M == Method::nearest) {
    // Groups of four from the row's first column use the block test; the
    // remaining width mod 4 columns use the element test.
    const bool in_group = Variant<M, Sample>::serial_groups_of_four && column < (width / 4) * 4;
    return nearest(g, xq, yq, zq, in_group ? OutOfRangeTest::block : OutOfRangeTest::element,
                   IndexConversion::saturate_i32);
  } else {
    return trilinear(g, xq, yq, zq, blend_plan<Sample>(BlockKind::serial, false),
                     OutOfRangeTest::element, IndexConversion::saturate_i32);
  }
}

// The value a row task writes in a block of the given kind. first_group is
// true for the block's four (double: two) lowest columns.
template <Method M, class Sample>
CoordOf<Sample> parallel_value(const Grid<Sample>& g, CoordOf<Sample> xq, CoordOf<Sample> yq,
                               CoordOf<Sample> zq, BlockKind kind, bool first_group) {
  constexpr IndexConversion conversion = sizeof(CoordOf<Sample>) == 8
                                             ? IndexConversion::low32_of_i64
                                             : IndexConversion::saturate_i32;
  if constexpr (M == Method::nearest) {
    return nearest(g, xq, yq, zq, OutOfRangeTest::block, conversion);
  } else {
    return trilinear(g, xq, yq, zq, blend_plan<Sample>(kind, first_group), OutOfRangeTest::block,
                     conversion);
  }
}

}  // namespace model
}  // namespace qzinterp3d
