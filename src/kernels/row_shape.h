// How a row's points move, and what the row kernel makes of it: whether its
// groups are read through windows or gathered, whether gathered groups use
// scalar loads instead of hardware gathers, and whether they ask for the
// grid lines ahead.
// None of it changes a value: only the way the same samples are read.
// Plain C++, included before any target region, so every kernel set shares
// one compiled copy and the tests can check the rule directly.
#pragma once
#define QZ_ROW_SHAPE_H 1

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kernels/row_api.h"
#include "kernels/variant.h"

namespace qzinterp3d {

// The shape is measured on one wide group's points (the distance its first
// and last lanes lie apart along each axis) in three groups: at the row's
// start, a third and two thirds along its first shape_columns columns
// (shape_group_start). Two of three decide each property, so that a single
// jump (an upsampling grid wrapping to its next row within the output row)
// does not decide alone. NaN distances count as far.
//
// Only the first columns: their lines are the ones the row reads first,
// while lines a third of a long row along are not yet in the caches when it
// starts, and the row's first groups wait for them (nearest along x and on
// upsampling grids, Zen 3: 1.15-1.23x measuring within 128 columns rather
// than the whole row).
inline constexpr int64_t shape_columns = 128;

// The first column of the i-th measured group (i = 0, 1, 2) of a row of
// `columns` full-block columns, at least `lanes` of them.
inline int64_t shape_group_start(int64_t columns, int32_t lanes, int i) {
  const int64_t last_start = std::min(columns, shape_columns) - lanes;
  return last_start / 3 * i;
}

// Windows serve a group when its lanes lie in at most two grid rows (along
// y and z) and span less than a window along x. Where the points cross grid
// rows more often than about once a group (oblique and steep planes,
// slices across rows, deformed grids through small volumes), failed
// attempts cost more than windows save, and the row is gathered from the
// start (float32 nearest, oblique plane through 256^3: 1.7x faster).
inline constexpr double window_row_crossings_per_group = 1;

// Where a group's lanes lie in one grid row and within less than half a
// window along x, the window placed for its first lane serves them all, and
// the window placed for its last lane need not be read. Groups check for
// that (one_window_first) only where it mostly holds, since a check that
// fails at random costs more than the reads it saves:
//   - trilinear groups save eight loads, permutes and blends: they check
//     where their lanes span at most half a window along x, even if they
//     cross grid rows, as planes do at regular intervals (float32 through
//     64^3, Zen 3: 1.11-1.31x on slices, planes and upsampling grids;
//     float64 on a deformed grid, whose lanes span 1.5 samples of a
//     4-sample window, 0.92x when it checked);
//   - a nearest group saves one of each: it checks only where in addition
//     its lanes cross grid rows at most once in this many groups (uint8
//     through 64^3, on the 32-byte set when its nearest rows still read
//     windows: along x and on upsampling grids 1.12-1.15x faster, a
//     deformed grid 0.94-0.97x when it checked).
inline constexpr double one_window_row_crossings_per_group = 1.0 / 16;

// Points that jump several samples from one to the next are scattered: in a
// grid beyond a core's second-level cache each waits on memory, and
// gathered groups ask for the lines of the groups ahead (prefetch_group).
inline constexpr double scattered_samples_per_point = 4;

// A row that runs across grid rows at a fixed x, one row a few hundred
// bytes from the next (an axis-aligned slice whose rows run along y), is
// strided: the lines a hardware gather touches then escape the stride
// prefetchers that follow scalar loads, and a set with gathers reads such
// rows through its ScalarLoadRows operations (uint8 trilinear through the
// centre of 512^3, Zen 5: about 2x).
inline constexpr int64_t strided_row_step_bytes = 4096;

// Gathered groups ask for the grid lines of groups further on only where
// the grid spans more than these many bytes: a core's second-level cache
// for scattered points, more for coherent ones, whose lines the caches and
// the hardware's prefetchers mostly hold already. 256^3 8-bit samples
// (16 MiB) are above the coherent limit: their steep planes and deformed
// grids ran 1.2-1.7x faster asking (nearest and trilinear), as did
// deformed grids through 192^3 16-bit samples.
inline constexpr int64_t prefetch_scattered_above_bytes = int64_t{1} << 20;
inline constexpr int64_t prefetch_coherent_above_bytes = int64_t{8} << 20;

// Whether a coherent gathered row in such a grid asks for lines ahead
// depends on how fast it leaves the lines it has read:
//   - a row that only crosses planes (the axis of the largest stride) at a
//     fixed x and y (an axis-aligned slice whose rows run across the planes)
//     never does: all its lines fall into the same cache sets, whole planes
//     apart, and lines asked for ahead push out the ones about to be read
//     (nearest through 512^3: 1.7x faster without);
//   - a row that crosses planes often, or moves along x by a sample or more
//     a point (a deformed grid), reads lines that the next rows do not find
//     in the caches: planes apart, they fall into few cache sets
//     (trilinear, oblique plane at 45 degrees through 512^3: 2x faster
//     with);
//   - a row that only crosses grid rows within a plane at a fixed x (a
//     slice whose rows run along y) steps by one constant stride, which the
//     hardware's stride prefetchers follow: it asks only over 8-byte
//     samples, whose lines it leaves fastest, in grids above 16 MiB
//     (nearest and trilinear over 2- and 4-byte samples through 256^3:
//     1.12-1.19x faster without, level through 512^3; float64 nearest
//     through 256^3: 1.25x faster with, through 112^3 and 128^3: 1.2x
//     faster without);
//   - any other row (a gently oblique plane) finds most of its lines where
//     the rows before it left them, and asking for them only costs
//     instructions (nearest, oblique plane through 256^3: 1.5x faster
//     without).
// Nearest reads one sample per point against trilinear's four x pairs, so
// its prefetches cost more per read they save: it asks only where planes
// pass faster, except over 8-byte samples, whose lines it leaves twice as
// fast: there it asks where trilinear does (float64 nearest, plane at 45
// degrees through 256^3: 1.8x faster with). Trilinear over 8-byte samples
// reads four 16-byte pairs a point and leaves its lines twice as fast as
// over 4-byte ones: it asks in every such row (float64, oblique plane
// through 512^3: 1.25x faster with).
//
// Windows ask for no lines ahead, so a nearest row that should is gathered
// instead (window_reads).
inline constexpr int64_t prefetch_wide_sample_bytes = 8;
inline constexpr int64_t prefetch_along_rows_above_bytes = int64_t{16} << 20;
inline constexpr double prefetch_planes_per_point_nearest = 0.15;
inline constexpr double prefetch_planes_per_point_trilinear = 0.1;
inline constexpr double prefetch_x_samples_per_point = 1;
// A coordinate that moves less than this over a group counts as fixed for
// the prefetch rule. Stricter than the strided test's half a sample: a
// steep plane through 256^3 moves under half a sample along x and y per
// group, and it needs its prefetches.
inline constexpr double fixed_within_group = 1.0 / 16;

// A nearest row over samples of up to 4 bytes in a grid beyond the caches
// that passes planes at trilinear's limit or more but below nearest's asks
// for no lines ahead and misses the caches often: there scalar loads keep
// more misses in flight than hardware gathers, whose speed on such rows
// also swung by up to 3x from one process to the next (float32 nearest,
// plane at 45 degrees through 256^3, in a numpy process: 243-280 M points/s
// gathered, 550-638 with scalar loads, the plain schedule's scalar loads
// 545-653). Faster planes ask for lines ahead and gather better; slower
// ones find their lines in the caches. Over 8-byte samples such a row asks
// for lines ahead instead. Over 8- and 16-bit samples the loads must be as
// wide as the gathers: eight lanes stayed behind the gathered words (uint8,
// plane at 45 degrees through 256^3: 0.67-0.76 of them), sixteen lanes ran
// 1.08-1.43x ahead.
struct RowShape {
  bool windows_likely = false;
  bool within_half_window = false;   // a group spans half a window or less along x
  bool rows_rarely_crossed = false;  // by one_window_row_crossings_per_group
  bool scattered = false;
  bool strided = false;
  bool across_planes_only = false;  // x and y fixed (in a dense grid)
  bool along_rows_only = false;     // x and z fixed (in a dense grid)
  // Planes passed per point at or above the nearest and trilinear limits.
  bool planes_fast_for_nearest = false;
  bool planes_fast_for_trilinear = false;
  bool x_fast = false;  // x moves by prefetch_x_samples_per_point or more a point

  // Whether gathered groups of a method ask for the lines of the groups
  // ahead, in a grid of samples of sample_bytes whose offsets span
  // grid_bytes.
  bool prefetches(Method method, int64_t sample_bytes, int64_t grid_bytes) const {
    if (scattered) return grid_bytes > prefetch_scattered_above_bytes;
    if (grid_bytes <= prefetch_coherent_above_bytes || across_planes_only) return false;
    if (along_rows_only) {
      return sample_bytes >= prefetch_wide_sample_bytes &&
             grid_bytes > prefetch_along_rows_above_bytes;
    }
    if (x_fast) return true;
    const bool wide_samples = sample_bytes >= prefetch_wide_sample_bytes;
    if (method == Method::nearest) {
      return planes_fast_for_nearest || (wide_samples && planes_fast_for_trilinear);
    }
    return planes_fast_for_trilinear || wide_samples;
  }

  // Whether gathered groups read through scalar loads (a set's
  // ScalarLoadRows, or ScalarLoadIntegerSingles) instead of hardware gathers:
  // strided rows, and the nearest rows described above RowShape, those
  // where trilinear would ask for lines ahead and nearest does not.
  bool scalar_loads(Method method, int64_t sample_bytes, int64_t grid_bytes) const {
    if (strided) return true;
    return method == Method::nearest && sample_bytes < prefetch_wide_sample_bytes &&
           prefetches(Method::bilinear, sample_bytes, grid_bytes) &&
           !prefetches(Method::nearest, sample_bytes, grid_bytes);
  }

  // Whether groups read through windows first check whether the window
  // placed for their first lane serves every lane (see above).
  bool one_window_first(Method method) const {
    return within_half_window && (method != Method::nearest || rows_rarely_crossed);
  }

  // Whether a row whose offsets allow windows reads through them: where its
  // points are likely to be served, unless it is a nearest row that asks for
  // lines ahead. Trilinear rows keep their windows: there two windows serve
  // each x pair of a group's lanes, and gathering them instead costs more
  // than the lines ahead save (float64 upsampling grids: about 2x).
  bool window_reads(Method method, bool prefetch) const {
    return windows_likely && !(method == Method::nearest && prefetch);
  }
};

template <class Sample>
inline RowShape row_shape(const Grid<Sample>& g, const RowSpan<CoordOf<Sample>>& r, int64_t columns,
                          int32_t lanes) {
  RowShape shape;
  if (columns < lanes) return shape;
  int windows = 0, within_half_window = 0, rows_rarely_crossed = 0;
  int scattered = 0, strided = 0, x_fast = 0;
  int across_planes_only = 0, along_rows_only = 0;
  int planes_fast_nearest = 0, planes_fast_trilinear = 0;
  const double steps = lanes - 1;
  // The planes are the axis of the larger stride (z in a dense grid).
  const bool planes_along_z = std::abs(int64_t{g.stride2}) >= std::abs(int64_t{g.stride1});
  auto measure_group_at = [&](int64_t c) {
    const int64_t e = c + lanes - 1;
    const double along_x = std::fabs(double(r.xq[e]) - double(r.xq[c]));
    const double along_y = std::fabs(double(r.yq[e]) - double(r.yq[c]));
    const double along_z = std::fabs(double(r.zq[e]) - double(r.zq[c]));
    const double across_rows = along_y + along_z;
    windows += across_rows <= window_row_crossings_per_group && along_x <= double(lanes);
    within_half_window += along_x <= double(lanes / 2 - 1);
    rows_rarely_crossed += across_rows <= one_window_row_crossings_per_group;
    const bool far = !(along_x + across_rows <= scattered_samples_per_point * steps);
    scattered += far;
    const bool along_one_axis =
        along_x < 0.5 && std::min(along_y, along_z) < 0.5 && across_rows >= 2 && !far;
    const int64_t step =
        (along_y >= along_z ? int64_t{g.stride1} : int64_t{g.stride2}) * int64_t{sizeof(Sample)};
    strided += along_one_axis && std::abs(step) <= strided_row_step_bytes;
    const double planes = planes_along_z ? along_z : along_y;
    const double rows = planes_along_z ? along_y : along_z;
    const bool x_fixed = along_x < fixed_within_group;
    across_planes_only += x_fixed && rows < fixed_within_group && planes >= fixed_within_group;
    along_rows_only += x_fixed && planes < fixed_within_group && rows >= fixed_within_group;
    planes_fast_nearest += planes >= prefetch_planes_per_point_nearest * steps;
    planes_fast_trilinear += planes >= prefetch_planes_per_point_trilinear * steps;
    x_fast += along_x >= prefetch_x_samples_per_point * steps;
  };
  for (int i = 0; i < 3; ++i) measure_group_at(shape_group_start(columns, lanes, i));
  shape.windows_likely = windows >= 2;
  shape.within_half_window = within_half_window >= 2;
  shape.rows_rarely_crossed = rows_rarely_crossed >= 2;
  shape.scattered = scattered >= 2;
  shape.strided = strided >= 2;
  shape.across_planes_only = across_planes_only >= 2;
  shape.along_rows_only = along_rows_only >= 2;
  shape.planes_fast_for_nearest = planes_fast_nearest >= 2;
  shape.planes_fast_for_trilinear = planes_fast_trilinear >= 2;
  shape.x_fast = x_fast >= 2;
  return shape;
}

}  // namespace qzinterp3d
