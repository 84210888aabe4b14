// How a row's points move decides how its groups read the grid: windows or
// gathers, strided rows, and whether gathered groups ask for lines ahead.
// Each test builds one row of points as a slice or plane through a dense
// grid would give it and checks what the rule makes of it.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "kernels/row_shape.h"

namespace {

using qzinterp3d::Grid;
using qzinterp3d::Method;
using qzinterp3d::row_shape;
using qzinterp3d::RowShape;
using qzinterp3d::RowSpan;

constexpr int64_t kColumns = 1024;
constexpr int32_t kLanes = 16;  // a 64-byte group of float coordinates

// A dense n^3 grid of samples (only its shape matters here).
template <class Sample>
Grid<Sample> dense_grid(int32_t n) {
  Grid<Sample> g{};
  g.nx = g.ny = g.nz = n;
  g.stride1 = n;
  g.stride2 = n * n;
  return g;
}

template <class Sample>
int64_t grid_bytes(int32_t n) {
  return int64_t{n} * n * n * int64_t{sizeof(Sample)};
}

// One row of points: start + c * step for each column c.
template <class C>
struct Row {
  std::vector<C> x, y, z;
  Row(const double start[3], const double step[3]) : x(kColumns), y(kColumns), z(kColumns) {
    for (int64_t c = 0; c < kColumns; ++c) {
      x[c] = static_cast<C>(start[0] + double(c) * step[0]);
      y[c] = static_cast<C>(start[1] + double(c) * step[1]);
      z[c] = static_cast<C>(start[2] + double(c) * step[2]);
    }
  }
  RowSpan<C> span() const {
    RowSpan<C> r{};
    r.xq = x.data();
    r.yq = y.data();
    r.zq = z.data();
    return r;
  }
};

template <class Sample>
RowShape shape_of(int32_t n, const double step[3]) {
  const double start[3] = {n / 2.0 - 100 * step[0] + 0.3, n / 2.0 - 100 * step[1] + 0.3,
                           n / 2.0 - 100 * step[2] + 0.3};
  const Row<qzinterp3d::CoordOf<Sample>> row(start, step);
  // A 64-byte group of coordinates.
  const auto lanes = static_cast<int32_t>(64 / sizeof(qzinterp3d::CoordOf<Sample>));
  return row_shape(dense_grid<Sample>(n), row.span(), kColumns, lanes);
}

TEST(RowShape, SliceAcrossPlanesNeverPrefetches) {
  // Rows along z at a fixed x and y, half a plane a point.
  const double step[3] = {0, 0, 0.5};
  const RowShape s = shape_of<float>(512, step);
  EXPECT_TRUE(s.across_planes_only);
  EXPECT_FALSE(s.along_rows_only);
  EXPECT_FALSE(s.scattered);
  EXPECT_FALSE(s.windows_likely);
  EXPECT_FALSE(s.strided);  // planes 1 MiB apart
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(s.prefetches(Method::bilinear, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(s.prefetches(Method::bilinear, 8, grid_bytes<double>(512)));
}

TEST(RowShape, SliceAlongRowsIsStridedAndPrefetchesOnlyOverEightByteSamples) {
  // Rows along y at a fixed x and z: grid rows 2 KiB apart.
  const double step[3] = {0, 0.5, 0};
  const RowShape s = shape_of<float>(512, step);
  EXPECT_TRUE(s.along_rows_only);
  EXPECT_FALSE(s.across_planes_only);
  EXPECT_TRUE(s.strided);
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(s.prefetches(Method::bilinear, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(s.prefetches(Method::bilinear, 2, grid_bytes<uint16_t>(512)));
  const RowShape d = shape_of<double>(256, step);
  EXPECT_TRUE(d.along_rows_only);
  EXPECT_TRUE(d.prefetches(Method::nearest, 8, grid_bytes<double>(256)));
  EXPECT_TRUE(d.prefetches(Method::bilinear, 8, grid_bytes<double>(256)));
  // Not where the grid is likely cached (64^3 double: 2 MiB), nor up to
  // 16 MiB (128^3 double), where the stride prefetchers keep up.
  EXPECT_FALSE(shape_of<double>(64, step).prefetches(Method::nearest, 8, grid_bytes<double>(64)));
  const RowShape d128 = shape_of<double>(128, step);
  EXPECT_TRUE(d128.along_rows_only);
  EXPECT_FALSE(d128.prefetches(Method::nearest, 8, grid_bytes<double>(128)));
  EXPECT_FALSE(d128.prefetches(Method::bilinear, 8, grid_bytes<double>(128)));
  EXPECT_TRUE(d128.prefetches(Method::nearest, 8, qzinterp3d::prefetch_along_rows_above_bytes + 1));
}

TEST(RowShape, GentlyObliquePlaneDoesNotPrefetch) {
  // Mostly along x, 0.076 planes a point (a plane rising about 13 degrees).
  const double step[3] = {0.305, 0.152, 0.076};
  const RowShape s = shape_of<float>(512, step);
  EXPECT_FALSE(s.scattered);
  EXPECT_FALSE(s.across_planes_only);
  EXPECT_FALSE(s.along_rows_only);
  EXPECT_FALSE(s.x_fast);
  EXPECT_FALSE(s.planes_fast_for_nearest);
  EXPECT_FALSE(s.planes_fast_for_trilinear);
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(s.prefetches(Method::bilinear, 4, grid_bytes<float>(512)));
  // Trilinear over 8-byte samples asks in every coherent row of a large grid.
  EXPECT_TRUE(s.prefetches(Method::bilinear, 8, grid_bytes<double>(512)));
  EXPECT_FALSE(s.prefetches(Method::nearest, 8, grid_bytes<double>(512)));
}

TEST(RowShape, PlanesPassingFastPrefetchForTrilinearFirst) {
  // 0.123 planes a point: above trilinear's limit, below nearest's.
  const double moderate[3] = {0.123, 0.018, 0.123};
  const RowShape m = shape_of<uint16_t>(256, moderate);
  EXPECT_TRUE(m.planes_fast_for_trilinear);
  EXPECT_FALSE(m.planes_fast_for_nearest);
  EXPECT_TRUE(m.prefetches(Method::bilinear, 2, grid_bytes<uint16_t>(256)));
  EXPECT_FALSE(m.prefetches(Method::nearest, 2, grid_bytes<uint16_t>(256)));
  // 0.245 planes a point (a plane at 45 degrees through 512^3): both ask.
  const double fast[3] = {0.245, 0.035, 0.245};
  const RowShape f = shape_of<uint16_t>(512, fast);
  EXPECT_TRUE(f.planes_fast_for_nearest);
  EXPECT_TRUE(f.prefetches(Method::nearest, 2, grid_bytes<uint16_t>(512)));
  EXPECT_TRUE(f.prefetches(Method::bilinear, 2, grid_bytes<uint16_t>(512)));
  // 256^3 8-bit samples (16 MiB) ask too; not a grid of 8 MiB or less.
  EXPECT_TRUE(f.prefetches(Method::bilinear, 1, grid_bytes<uint8_t>(256)));
  EXPECT_TRUE(f.prefetches(Method::nearest, 1, grid_bytes<uint8_t>(256)));
  EXPECT_FALSE(f.prefetches(Method::bilinear, 1, qzinterp3d::prefetch_coherent_above_bytes));
  EXPECT_FALSE(f.prefetches(Method::nearest, 1, qzinterp3d::prefetch_coherent_above_bytes));
}

TEST(RowShape, NearestOverEightByteSamplesAsksAtTheTrilinearLimitAndIsGathered) {
  // 0.123 planes a point (a plane at 45 degrees through 256^3): eight
  // float64 lanes cross grid rows about once a group, where windows would
  // serve most groups.
  const double moderate[3] = {0.123, 0.018, 0.123};
  const RowShape s = shape_of<double>(256, moderate);
  EXPECT_TRUE(s.windows_likely);
  EXPECT_TRUE(s.planes_fast_for_trilinear);
  EXPECT_FALSE(s.planes_fast_for_nearest);
  const int64_t bytes = grid_bytes<double>(256);
  EXPECT_TRUE(s.prefetches(Method::nearest, 8, bytes));
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, bytes));
  EXPECT_FALSE(s.prefetches(Method::nearest, 8, qzinterp3d::prefetch_coherent_above_bytes));
  // A nearest row that asks for lines ahead is gathered; one that does not,
  // and every trilinear row, keeps its windows.
  EXPECT_FALSE(s.window_reads(Method::nearest, true));
  EXPECT_TRUE(s.window_reads(Method::nearest, false));
  EXPECT_TRUE(s.window_reads(Method::bilinear, true));
  // Below trilinear's limit (a gently oblique plane), nearest over 8-byte
  // samples does not ask, and reads through windows where they fit.
  const double gentle[3] = {0.17, 0.02, 0.039};
  const RowShape g = shape_of<double>(256, gentle);
  EXPECT_TRUE(g.windows_likely);
  EXPECT_FALSE(g.planes_fast_for_trilinear);
  EXPECT_FALSE(g.prefetches(Method::nearest, 8, bytes));
  EXPECT_TRUE(g.window_reads(Method::nearest, g.prefetches(Method::nearest, 8, bytes)));
  // A row without windows stays without them.
  RowShape none = s;
  none.windows_likely = false;
  EXPECT_FALSE(none.window_reads(Method::nearest, false));
  EXPECT_FALSE(none.window_reads(Method::bilinear, false));
}

TEST(RowShape, GroupsCheckForOneWindowWhereTheirLanesSpanHalfAWindow) {
  // Sixteen lanes: half a window is 7 samples along x.
  const double along_x[3] = {0.25, 0, 0};  // 3.75 samples a group
  const RowShape a = shape_of<float>(64, along_x);
  EXPECT_TRUE(a.within_half_window);
  EXPECT_TRUE(a.rows_rarely_crossed);
  EXPECT_TRUE(a.one_window_first(Method::nearest));
  EXPECT_TRUE(a.one_window_first(Method::bilinear));
  // A grid row crossed every 32 columns, about once in two groups:
  // trilinear rows still check, nearest rows do not.
  const double crossing[3] = {0.25, 1.0 / 32, 0};
  const RowShape c = shape_of<float>(64, crossing);
  EXPECT_TRUE(c.within_half_window);
  EXPECT_FALSE(c.rows_rarely_crossed);
  EXPECT_FALSE(c.one_window_first(Method::nearest));
  EXPECT_TRUE(c.one_window_first(Method::bilinear));
  // Once in 16 groups is still rare; z counts as y does.
  const double rare[3] = {0.25, 0, 1.0 / 256};
  EXPECT_TRUE(shape_of<float>(64, rare).one_window_first(Method::nearest));
  // Lanes spanning more than half a window: neither checks.
  const double wide[3] = {0.5, 0, 0};  // 7.5 samples a group
  const RowShape w = shape_of<float>(64, wide);
  EXPECT_FALSE(w.within_half_window);
  EXPECT_FALSE(w.one_window_first(Method::nearest));
  EXPECT_FALSE(w.one_window_first(Method::bilinear));
  // Eight double lanes: half a window is 3 samples.
  const double doubles[3] = {0.5, 0, 0};  // 3.5 samples a group
  EXPECT_FALSE(shape_of<double>(64, doubles).within_half_window);
  const double closer[3] = {0.375, 0, 0};  // 2.625
  EXPECT_TRUE(shape_of<double>(64, closer).within_half_window);
}

TEST(RowShape, NearestOverSamplesUpToFourBytesBetweenTheLimitsUsesScalarLoads) {
  // 0.123 planes a point (a plane at 45 degrees through 256^3): at or above
  // trilinear's limit, below nearest's.
  const double moderate[3] = {0.123, 0.018, 0.123};
  const RowShape s = shape_of<float>(256, moderate);
  const int64_t bytes = grid_bytes<float>(256);
  EXPECT_FALSE(s.strided);
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, bytes));
  EXPECT_TRUE(s.scalar_loads(Method::nearest, 4, bytes));
  EXPECT_TRUE(s.scalar_loads(Method::nearest, 2, grid_bytes<uint16_t>(256)));
  EXPECT_TRUE(s.scalar_loads(Method::nearest, 1, grid_bytes<uint8_t>(256)));
  // Not for trilinear, 8-byte samples, or a grid of 8 MiB or less.
  const int64_t cached = qzinterp3d::prefetch_coherent_above_bytes;
  EXPECT_FALSE(s.scalar_loads(Method::bilinear, 4, bytes));
  EXPECT_FALSE(s.scalar_loads(Method::bilinear, 1, bytes));
  EXPECT_FALSE(s.scalar_loads(Method::nearest, 8, bytes));
  EXPECT_FALSE(s.scalar_loads(Method::nearest, 4, cached));
  EXPECT_FALSE(s.scalar_loads(Method::nearest, 1, cached));
  EXPECT_TRUE(s.scalar_loads(Method::nearest, 1, cached + 1));
  // Planes passing at nearest's limit or more: gathered, asking ahead.
  const double fast[3] = {0.245, 0.035, 0.245};
  const RowShape f = shape_of<float>(512, fast);
  EXPECT_TRUE(f.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(f.scalar_loads(Method::nearest, 4, grid_bytes<float>(512)));
  EXPECT_FALSE(f.scalar_loads(Method::nearest, 1, grid_bytes<uint8_t>(512)));
  // Planes passing below trilinear's limit (a gently oblique plane): gathered.
  const double gentle[3] = {0.305, 0.152, 0.076};
  EXPECT_FALSE(
      shape_of<float>(512, gentle).scalar_loads(Method::nearest, 4, grid_bytes<float>(512)));
  // Rows that only cross planes at a fixed x and y, or move fast along x,
  // keep their gathers whatever the planes.
  const double across[3] = {0.0, 0.0, 0.125};
  const RowShape a = shape_of<float>(256, across);
  EXPECT_TRUE(a.across_planes_only);
  EXPECT_FALSE(a.scalar_loads(Method::nearest, 4, bytes));
  EXPECT_FALSE(a.scalar_loads(Method::nearest, 1, bytes));
  const double deformed[3] = {1.2, 0.02, 0.12};
  const RowShape d = shape_of<float>(256, deformed);
  EXPECT_TRUE(d.x_fast);
  EXPECT_FALSE(d.scalar_loads(Method::nearest, 4, bytes));
  EXPECT_FALSE(d.scalar_loads(Method::nearest, 1, bytes));
  // Scattered points ask for lines ahead and stay gathered.
  const double scattered[3] = {37.3, 23.1, 11.7};
  const RowShape r = shape_of<float>(256, scattered);
  EXPECT_TRUE(r.scattered);
  EXPECT_FALSE(r.scalar_loads(Method::nearest, 4, bytes));
  EXPECT_FALSE(r.scalar_loads(Method::nearest, 1, bytes));
}

TEST(RowShape, StridedRowsUseScalarLoadsForEitherMethod) {
  // Along y at a fixed x, a grid row a point (1 KiB apart over float).
  const double along_y[3] = {0.0, 1.0, 0.0};
  const RowShape s = shape_of<float>(256, along_y);
  ASSERT_TRUE(s.strided);
  EXPECT_TRUE(s.scalar_loads(Method::nearest, 4, grid_bytes<float>(256)));
  EXPECT_TRUE(s.scalar_loads(Method::bilinear, 1, grid_bytes<uint8_t>(256)));
}

TEST(RowShape, FastAlongXPrefetches) {
  // 1.6 samples a point along x (a deformed grid's rows through 256^3).
  const double step[3] = {1.6, 0.01, 0.005};
  const RowShape s = shape_of<float>(256, step);
  EXPECT_TRUE(s.x_fast);
  EXPECT_FALSE(s.scattered);
  EXPECT_FALSE(s.windows_likely);
  EXPECT_TRUE(s.prefetches(Method::nearest, 4, grid_bytes<float>(256)));
  EXPECT_TRUE(s.prefetches(Method::bilinear, 4, grid_bytes<float>(256)));
  // Over 8-bit samples too (16 MiB).
  const RowShape b = shape_of<uint8_t>(256, step);
  EXPECT_TRUE(b.prefetches(Method::nearest, 1, grid_bytes<uint8_t>(256)));
  EXPECT_TRUE(b.prefetches(Method::bilinear, 1, grid_bytes<uint8_t>(256)));
  EXPECT_FALSE(b.scalar_loads(Method::nearest, 1, grid_bytes<uint8_t>(256)));
}

TEST(RowShape, ScatteredPointsPrefetchBeyondTheSecondLevelCache) {
  // Five samples a point along every axis: scattered.
  const double step[3] = {5, 5, 5};
  const RowShape s = shape_of<float>(128, step);
  EXPECT_TRUE(s.scattered);
  EXPECT_TRUE(s.prefetches(Method::nearest, 4, grid_bytes<float>(128)));  // 8 MiB
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(64)));  // 1 MiB
}

TEST(RowShape, ThePlanesAreTheAxisOfTheLargestStride) {
  // A grid stored with y outermost: a row along y at a fixed x and z
  // crosses its planes.
  Grid<float> g = dense_grid<float>(512);
  g.stride1 = 512 * 512;
  g.stride2 = 512;
  const double start[3] = {100.3, 50.3, 200.3}, step[3] = {0, 0.5, 0};
  const Row<float> row(start, step);
  const RowShape s = row_shape(g, row.span(), kColumns, kLanes);
  EXPECT_TRUE(s.across_planes_only);
  EXPECT_FALSE(s.along_rows_only);
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
}

TEST(RowShape, TwoOfThreeGroupsDecide) {
  // A gently oblique row whose first group jumps across planes: the other
  // two groups decide.
  const double step[3] = {0.305, 0.152, 0.076};
  const double start[3] = {100.3, 100.3, 100.3};
  Row<float> row(start, step);
  for (int l = 0; l < kLanes; ++l) row.z[static_cast<size_t>(l)] += static_cast<float>(l);
  const RowShape s = row_shape(dense_grid<float>(512), row.span(), kColumns, kLanes);
  EXPECT_FALSE(s.planes_fast_for_nearest);
  EXPECT_FALSE(s.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
  // When two of three groups jump, they decide.
  const int64_t second = qzinterp3d::shape_group_start(kColumns, kLanes, 1);
  for (int l = 0; l < kLanes; ++l) row.z[static_cast<size_t>(second + l)] += static_cast<float>(l);
  const RowShape t = row_shape(dense_grid<float>(512), row.span(), kColumns, kLanes);
  EXPECT_TRUE(t.planes_fast_for_nearest);
  EXPECT_TRUE(t.prefetches(Method::nearest, 4, grid_bytes<float>(512)));
}

TEST(RowShape, MeasuresWithinTheRowsFirstColumns) {
  // A slice along x: windows, not scattered. NaN points count as far, so
  // they would make the row scattered wherever two measured groups hold
  // them; past the first shape_columns columns none is measured.
  const double step[3] = {0.5, 0, 0};
  const double start[3] = {100.3, 100.3, 100.3};
  Row<float> row(start, step);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  for (int64_t c = qzinterp3d::shape_columns; c < kColumns; ++c) {
    row.x[static_cast<size_t>(c)] = row.y[static_cast<size_t>(c)] = row.z[static_cast<size_t>(c)] =
        nan;
  }
  const RowShape s = row_shape(dense_grid<float>(512), row.span(), kColumns, kLanes);
  EXPECT_TRUE(s.windows_likely);
  EXPECT_FALSE(s.scattered);
  // The measured groups all lie in those columns, the last one ending there.
  EXPECT_EQ(qzinterp3d::shape_group_start(kColumns, kLanes, 0), 0);
  EXPECT_LT(qzinterp3d::shape_group_start(kColumns, kLanes, 1),
            qzinterp3d::shape_group_start(kColumns, kLanes, 2));
  EXPECT_LE(qzinterp3d::shape_group_start(kColumns, kLanes, 2) + kLanes,
            qzinterp3d::shape_columns);
  // NaN in the last lanes of the second and third measured groups decides.
  for (int i : {1, 2}) {
    const auto last = static_cast<size_t>(qzinterp3d::shape_group_start(kColumns, kLanes, i) +
                                          kLanes - 1);
    row.x[last] = nan;
  }
  const RowShape t = row_shape(dense_grid<float>(512), row.span(), kColumns, kLanes);
  EXPECT_TRUE(t.scattered);
  EXPECT_FALSE(t.windows_likely);
  // A row shorter than shape_columns is measured over its own length: the
  // last group ends within it, past the middle.
  EXPECT_LE(qzinterp3d::shape_group_start(64, kLanes, 2) + kLanes, 64);
  EXPECT_GE(qzinterp3d::shape_group_start(64, kLanes, 2), 64 / 2 - kLanes);
}

TEST(RowShape, RowsShorterThanAGroupKeepTheDefaults) {
  const double step[3] = {0, 0, 0.5};
  const double start[3] = {10.3, 10.3, 10.3};
  const Row<float> row(start, step);
  const RowShape s = row_shape(dense_grid<float>(512), row.span(), kLanes - 1, kLanes);
  EXPECT_FALSE(s.across_planes_only);
  EXPECT_FALSE(s.windows_likely);
  EXPECT_FALSE(s.scattered);
  EXPECT_FALSE(s.prefetches(Method::bilinear, 4, grid_bytes<float>(512)));
}

}  // namespace
