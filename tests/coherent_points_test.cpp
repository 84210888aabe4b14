// Coherent query points: oblique slices, upsampling grids, runs along and
// across grid rows. Kernel sets with windows read such groups with vector
// loads and permutes instead of gathers; the values must not change. Every
// case compares every written element bit for bit with the scalar model on
// every kernel set, with the grid's storage between two inaccessible pages
// (a read outside the grid's samples faults), padded, reversed and moved
// away from the origin; the probe tells which way the wide groups were read.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "kernels/dispatch.h"
#include "support/kernel_sets.h"
#include "support/random_inputs.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class CoherentPoints : public ::testing::Test {};
TYPED_TEST_SUITE(CoherentPoints, AllVariants, VariantNames);

template <class V>
class CoherentTrilinear : public ::testing::Test {};
TYPED_TEST_SUITE(CoherentTrilinear, TrilinearVariants, VariantNames);

// Extents and strides of a grid; strides may be negative (rows or planes
// stored last first).
struct Layout {
  int32_t nx, ny, nz, stride1, stride2;
};

// Rows and planes padded, positive strides.
Layout padded(int32_t nx, int32_t ny, int32_t nz, int32_t pad1 = 3, int32_t pad2 = 5) {
  return {nx, ny, nz, nx + pad1, (nx + pad1) * ny + pad2};
}

Layout reversed(Layout l, bool rows, bool planes) {
  if (rows) l.stride1 = -l.stride1;
  if (planes) l.stride2 = -l.stride2;
  return l;
}

std::string describe(const Layout& l) {
  return "grid " + std::to_string(l.nx) + "x" + std::to_string(l.ny) + "x" +
         std::to_string(l.nz) + " strides " + std::to_string(l.stride1) + " " +
         std::to_string(l.stride2);
}

// The grid's samples in a mapping of their own, pushed against the
// inaccessible page below them or the one above: reading one element before
// the lowest-addressed sample or after the highest faults.
template <class S>
class GuardedGrid {
 public:
  GuardedGrid(const Layout& l, bool at_end) : l_(l) {
    const int64_t sy = int64_t{l.ny - 1} * l.stride1, sz = int64_t{l.nz - 1} * l.stride2;
    const int64_t low = std::min<int64_t>(sy, 0) + std::min<int64_t>(sz, 0);
    const int64_t high = l.nx - 1 + std::max<int64_t>(sy, 0) + std::max<int64_t>(sz, 0);
    elements_ = static_cast<size_t>(high - low + 1);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t bytes = elements_ * sizeof(S);
    inner_ = (bytes + page - 1) / page * page;
    total_ = inner_ + 2 * page;
    void* p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) std::abort();
    base_ = static_cast<uint8_t*>(p);
    if (mprotect(base_, page, PROT_NONE) != 0 ||
        mprotect(base_ + page + inner_, page, PROT_NONE) != 0) {
      std::abort();
    }
    storage_ = reinterpret_cast<S*>(at_end ? base_ + page + inner_ - bytes : base_ + page);
    first_sample_ = storage_ - low;
  }
  ~GuardedGrid() { munmap(base_, total_); }
  GuardedGrid(const GuardedGrid&) = delete;
  GuardedGrid& operator=(const GuardedGrid&) = delete;

  S& at(int64_t i, int64_t j, int64_t k) {
    return first_sample_[i + j * l_.stride1 + k * l_.stride2];
  }

  // Every element of the storage: f(i, j, k) at the samples, `padding()`
  // between rows and planes.
  template <class F, class P>
  void fill(F f, P padding) {
    for (size_t e = 0; e < elements_; ++e) storage_[e] = padding();
    for (int32_t k = 0; k < l_.nz; ++k)
      for (int32_t j = 0; j < l_.ny; ++j)
        for (int32_t i = 0; i < l_.nx; ++i) at(i, j, k) = f(i, j, k);
  }

  // Points V's descriptor at this storage with these mins; sample (i, j, k)
  // is still read at absolute (i, j, k).
  void describe(halide_buffer_t* v, int32_t m0 = 0, int32_t m1 = 0, int32_t m2 = 0) const {
    v->dim[0].min = m0;
    v->dim[1].min = m1;
    v->dim[2].min = m2;
    v->dim[1].stride = l_.stride1;
    v->dim[2].stride = l_.stride2;
    const int64_t origin = int64_t{m0} + int64_t{m1} * l_.stride1 + int64_t{m2} * l_.stride2;
    v->host = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(first_sample_) +
                                         static_cast<uintptr_t>(origin * int64_t{sizeof(S)}));
  }

 private:
  Layout l_;
  size_t elements_ = 0, inner_ = 0, total_ = 0;
  uint8_t* base_ = nullptr;
  S* storage_ = nullptr;
  S* first_sample_ = nullptr;
};

// A scene of width x height points whose grid is a GuardedGrid.
template <Method M, class S>
struct GuardedScene {
  GuardedScene(const Layout& l, int32_t width, int32_t height, bool at_end = false)
      : layout(l), scene(Shape{l.nx, l.ny, l.nz, width, height}), grid(l, at_end) {
    grid.describe(scene.v());
  }
  Layout layout;
  Scene<M, S> scene;
  GuardedGrid<S> grid;
};

// Random samples; for the floating types sometimes infinite, NaN or -0, so
// that a corner read from the wrong place shows even where its weight is 0.
template <class S>
S random_value(std::mt19937_64& rng, bool specials) {
  if constexpr (std::is_floating_point_v<S>) {
    if (specials) {
      switch (std::uniform_int_distribution<int>(0, 11)(rng)) {
        case 0: return std::numeric_limits<S>::infinity();
        case 1: return -std::numeric_limits<S>::infinity();
        case 2: return std::numeric_limits<S>::quiet_NaN();
        case 3: return S(-0.0);
        default: break;
      }
    }
  }
  return random_sample<S>(rng);
}

template <class S>
void fill_random(GuardedGrid<S>& grid, std::mt19937_64& rng, bool specials = false) {
  grid.fill([&](int64_t, int64_t, int64_t) { return random_value<S>(rng, specials); },
            [&] { return random_value<S>(rng, specials); });
}

// Points along a line: column c is start + c * step on each axis (x, y, z).
struct Ramp {
  double start[3], step[3];
  double at(int axis, int64_t c) const { return start[axis] + step[axis] * double(c); }
};

std::string describe(const Ramp& r) {
  std::string s = "ramp";
  for (int a = 0; a < 3; ++a) {
    s += " " + std::to_string(r.start[a]) + "+" + std::to_string(r.step[a]) + "c";
  }
  return s;
}

// Row r follows ramps[r] (columns below 0 included, for the last block of a
// narrow output).
template <Method M, class S>
void set_rows(Scene<M, S>& scene, const std::vector<Ramp>& ramps) {
  using C = CoordOf<S>;
  for (int64_t r = 0; r < scene.shape().height; ++r) {
    const Ramp& ramp = ramps[static_cast<size_t>(r)];
    for (int64_t c = -scene.reach(); c < scene.shape().width; ++c) {
      scene.set_point(c, r, static_cast<C>(ramp.at(0, c)), static_cast<C>(ramp.at(1, c)),
                      static_cast<C>(ramp.at(2, c)));
    }
  }
}

// Every row the same ramp moved by row_step per row.
std::vector<Ramp> ramp_rows(const Ramp& first, const double (&row_step)[3], int32_t rows) {
  std::vector<Ramp> out;
  for (int32_t r = 0; r < rows; ++r) {
    Ramp ramp = first;
    for (int a = 0; a < 3; ++a) ramp.start[a] += row_step[a] * r;
    out.push_back(ramp);
  }
  return out;
}

// True when every point of the scene's rows lies inside the grid (the
// premise of the cases that expect windows).
template <Method M, class S>
bool all_inside(Scene<M, S>& scene) {
  const Shape& s = scene.shape();
  const int32_t n[3] = {s.nx, s.ny, s.nz};
  for (int64_t r = 0; r < s.height; ++r) {
    for (int64_t c = 0; c < s.width; ++c) {
      for (int a = 0; a < 3; ++a) {
        const double q = scene.coord(static_cast<Axis>(a), c, r);
        if (!(q >= 1 && q <= n[a])) return false;
      }
    }
  }
  return true;
}

// Calls the entry and compares everything it wrote with the model.
template <Method M, class S>
void expect_model(Scene<M, S>& scene, double fill, const std::string& what) {
  ASSERT_EQ(0, scene.call(fill)) << what;
  EXPECT_EQ("", scene.mismatches_with_model(fill)) << what;
  EXPECT_TRUE(scene.only_region_written()) << what;
}

enum class Reading { windows, gathers };

// How the active kernel set reads one variant's wide groups.
struct WideGroups {
  bool windows;  // the set reads coherent points through windows
  int lanes;     // columns per wide group when it does for this variant, else 0
};

// Seen through the probe: a row of 64 coherent full-block columns is
// counted as 64 / lanes groups. Float coordinates always have windows on a
// set that reads them for the variant; double coordinates may not.
template <Method M, class S>
WideGroups wide_groups_of_active_set() {
  WideGroups w{qzinterp3d::active_kernel_set().reads_windows<M, S>(), 0};
  GuardedScene<M, S> g(padded(40, 6, 5), 64, 1);
  std::mt19937_64 rng(1);
  fill_random(g.grid, rng);
  const Ramp r{{3.25, 2.5 + 1.0 / 128, 3.5 + 1.0 / 128}, {0.5, 0, 0}};
  for (int64_t c = 0; c < 64; ++c) {
    g.scene.set_point(c, 0, static_cast<CoordOf<S>>(r.at(0, c)), static_cast<CoordOf<S>>(r.at(1, c)),
                      static_cast<CoordOf<S>>(r.at(2, c)));
  }
  const qzinterp3d::WindowGroups before = qzinterp3d::window_groups();
  EXPECT_EQ(0, g.scene.call(0.0));
  EXPECT_EQ("", g.scene.mismatches_with_model(0.0));
  const qzinterp3d::WindowGroups after = qzinterp3d::window_groups();
  const uint64_t counted = (after.served - before.served) + (after.gathered - before.gathered);
  if (!w.windows) {
    EXPECT_EQ(0u, counted) << "a kernel set without windows for the variant counted groups";
  } else if (counted > 0) {
    EXPECT_EQ(0u, 64 % counted) << counted << " groups in 64 columns";
    w.lanes = static_cast<int>(64 / counted);
  } else {
    EXPECT_TRUE((std::is_same_v<S, double>)) << "float coordinates were not read through windows";
  }
  return w;
}

// The wide groups a call of the scene makes, `lanes` columns each: the full
// blocks of each row (parallel path only).
template <Method M, class S>
uint64_t wide_groups_in(Scene<M, S>& scene, int lanes) {
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  const Shape& s = scene.shape();
  if (lanes == 0 || s.nx <= W || s.width <= 0 || s.height <= 0) return 0;
  return static_cast<uint64_t>(s.height) * static_cast<uint64_t>(s.width / W * W / lanes);
}

// Runs `body`, the scene's call, and checks how its wide groups were read:
// every one served by windows, or every one gathered; not one counted where
// the set has no windows for the variant.
template <Method M, class S, class Body>
void expect_reading(Reading expected, const WideGroups& w, Scene<M, S>& scene, Body&& body) {
  const qzinterp3d::WindowGroups before = qzinterp3d::window_groups();
  body();
  const qzinterp3d::WindowGroups after = qzinterp3d::window_groups();
  const uint64_t served = after.served - before.served;
  const uint64_t gathered = after.gathered - before.gathered;
  const uint64_t groups = wide_groups_in(scene, w.lanes);
  const bool windows = expected == Reading::windows;
  EXPECT_EQ(windows ? groups : 0, served) << "groups served by windows, of " << groups;
  EXPECT_EQ(windows ? 0 : groups, gathered) << "groups gathered, of " << groups;
}

// Sets the rows, checks the premise that they lie inside, calls, compares
// with the model and checks the way the groups were read.
template <Method M, class S>
void expect_inside_rows_read(GuardedScene<M, S>& g, const std::vector<Ramp>& rows,
                             Reading expected, const WideGroups& w, const std::string& what) {
  set_rows(g.scene, rows);
  ASSERT_TRUE(all_inside(g.scene)) << "the case's points leave the grid: " << what;
  expect_reading(expected, w, g.scene, [&] { expect_model(g.scene, -3.5, what); });
}

// Oblique runs inside a 70x6x5 grid: x along the row both ways with steps
// up to 1, y and z slowly (at most one grid row crossed per 16 columns), y
// and z never whole numbers, so that every lane of a group steps alike
// along y and z.
std::vector<std::vector<Ramp>> interior_slices() {
  const double o = 1.0 / 128;  // keeps y and z off whole numbers
  return {
      ramp_rows({{3.25, 2 + 3 * o, 2 + 5 * o}, {0.5, 0, 0}}, {0, 0.75, 0.5}, 3),
      ramp_rows({{3.5, 1.5 + o, 3 + o}, {1, 1.0 / 32, 0}}, {0.25, 0.5, 0.5}, 3),
      ramp_rows({{67, 4 + o, 1.25 + o}, {-0.9375, 0, 1.0 / 64}}, {-1, 0.5, 0.5}, 3),
      ramp_rows({{10, 5.5 + o, 4.5 + o}, {0.25, -1.0 / 64, 0}}, {5, -0.5, -1}, 3),
      ramp_rows({{60.75, 2.5 + o, 1 + o}, {-0.5, 1.0 / 64, 1.0 / 64}}, {0, 0.25, 1}, 3),
  };
}

// Coherent rows inside the grid are served by windows, whatever the
// direction of the strides and wherever V's mins put its origin.
TYPED_TEST(CoherentPoints, InteriorObliqueRowsAreServedByWindows) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(71);
  const Layout base = padded(70, 6, 5);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    for (int flips = 0; flips < 4; ++flips) {
      const Layout l = reversed(base, flips & 1, flips & 2);
      GuardedScene<M, S> g(l, 64, 3, flips == 1);
      fill_random(g.grid, rng);
      if (flips == 3) g.grid.describe(g.scene.v(), -7, 11, 3);
      for (const std::vector<Ramp>& rows : interior_slices()) {
        expect_inside_rows_read(g, rows, Reading::windows, w, describe(l) + " " + describe(rows[0]));
      }
    }
  });
}

// A group whose run passes into the next grid row once is served by the
// windows of its first and last lanes; one that passes through three rows
// is gathered. (Groups of 8 or 16 columns.)
TYPED_TEST(CoherentPoints, OneRowCrossingPerGroupIsServedTwoAreGathered) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(72);
  const double o = 1.0 / 128;
  // y - 1 passes a half (the rounding changes) between columns 3 and 4 and
  // a whole number (the floor changes) between 11 and 12, of every 16.
  const Ramp once{{3.25, 1.25 + o, 2 + 3 * o}, {0.5, 1.0 / 16, 0}};
  // y and z together: still two grid rows per group.
  const Ramp diagonal{{20.5, 1.25 + o, 1.25 + o}, {-0.25, 1.0 / 32, 1.0 / 32}};
  // Three grid rows in every 8 columns: y twice, or y and z at different
  // columns.
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    // Four-lane windows (double coordinates on 32-byte vectors): steeper
    // ramps over one group, so that a group still spans three grid rows.
    const bool four = w.lanes == 4;
    const Ramp twice{{3.25, 1.25 + o, 2 + 3 * o}, {0.5, four ? 0.75 : 0.25, 0}};
    const Ramp y_then_z{{3.25, 1.25 + o, 2.75 + o}, {0.5, four ? 0.25 : 0.125, four ? 0.25 : 0.125}};
    GuardedScene<M, S> g(padded(70, 6, 5), 48, 2);
    fill_random(g.grid, rng);
    for (const Ramp& r : {once, diagonal}) {
      expect_inside_rows_read(g, ramp_rows(r, {1, 0.5, 0.5}, 2), Reading::windows, w, describe(r));
    }
    GuardedScene<M, S> narrow(padded(70, 6, 5), four ? 4 : 16, 1);
    fill_random(narrow.grid, rng);
    for (const Ramp& r : {twice, y_then_z}) {
      expect_inside_rows_read(narrow, {r}, Reading::gathers, w, describe(r));
    }
  });
}

// Groups whose lanes lie within one window read only the window placed
// for their first lane, in rows that check for it; the values must not
// change. Along x within a grid row every method checks and every group is
// read so. With a grid row crossed every 32 columns, trilinear rows still
// check, and the groups across a crossing read both windows; nearest rows
// do not check.
TYPED_TEST(CoherentPoints, GroupsWithinOneWindowReadOnlyTheFirst) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(81);
  const double o = 1.0 / 128;
  const Ramp along_x{{3.25, 2 + 3 * o, 2 + 5 * o}, {0.125, 0, 0}};
  // y passes a whole number inside a group of 4, 8 or 16 columns.
  const Ramp crossing{{3.25, 2.09 + 3 * o, 2 + 5 * o}, {0.125, 1.0 / 32, 0}};
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    GuardedScene<M, S> g(padded(70, 6, 5), 64, 3);
    fill_random(g.grid, rng);
    for (const bool crosses : {false, true}) {
      const Ramp& r = crosses ? crossing : along_x;
      set_rows(g.scene, ramp_rows(r, {0.5, 0.75, 0.5}, 3));
      ASSERT_TRUE(all_inside(g.scene)) << describe(r);
      const qzinterp3d::WindowGroups before = qzinterp3d::window_groups();
      expect_model(g.scene, -3.5, describe(r));
      const qzinterp3d::WindowGroups after = qzinterp3d::window_groups();
      const uint64_t served = after.served - before.served;
      const uint64_t first_only = after.first_window_only - before.first_window_only;
      if (w.lanes == 0) {
        EXPECT_EQ(0u, first_only) << describe(r);
        continue;
      }
      EXPECT_EQ(wide_groups_in(g.scene, w.lanes), served) << describe(r);
      if (!crosses) {
        EXPECT_EQ(served, first_only) << describe(r);
      } else if (M == Method::nearest) {
        EXPECT_EQ(0u, first_only) << describe(r);
      } else {
        EXPECT_GT(first_only, 0u) << describe(r);
        EXPECT_LT(first_only, served) << describe(r);
      }
    }
  });
}

TYPED_TEST(CoherentPoints, ScatteredPointsAreGathered) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(73);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    const Layout l = padded(40, 6, 5);
    GuardedScene<M, S> g(l, 64, 3);
    fill_random(g.grid, rng);
    for (int64_t r = 0; r < 3; ++r) {
      for (int64_t c = 0; c < 64; ++c) {
        g.scene.set_point(c, r, random_coord<C>(rng, l.nx), random_coord<C>(rng, l.ny),
                          random_coord<C>(rng, l.nz));
      }
    }
    expect_reading(Reading::gathers, w, g.scene,
                   [&] { expect_model(g.scene, 0.25, "scattered"); });
  });
}

// Gathered lanes at a row's first and last samples, in every alignment of
// the rows' first samples: narrow samples are read as the words that hold
// them, which must stay inside the row (the grid's ends are guard pages)
// and keep each lane's own sample.
TYPED_TEST(CoherentPoints, GatheredLanesAtRowEndsInEveryAlignment) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(74);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    for (const int32_t nx : {W + 1, W + 2, W + 3, 37}) {
      const double ends[] = {1,        1.25,     2,        2.5,      3,         3.75,      4,
                             nx - 3.0, nx - 2.5, nx - 1.5, nx - 1.0, nx - 0.25, double(nx)};
      for (int32_t pad = 0; pad < 4; ++pad) {
        const Layout l = padded(nx, 7, 5, pad, pad);
        for (const bool at_end : {false, true}) {
          GuardedScene<M, S> g(l, 64, 2, at_end);
          fill_random(g.grid, rng);
          for (int64_t r = 0; r < 2; ++r) {
            for (int64_t c = 0; c < 64; ++c) {
              g.scene.set_point(c, r, C(ends[rng() % std::size(ends)]), random_coord<C>(rng, l.ny),
                                random_coord<C>(rng, l.nz));
            }
          }
          const qzinterp3d::WindowGroups before = qzinterp3d::window_groups();
          expect_model(
              g.scene, -1.0,
              describe(l) + (at_end ? " against the upper page" : " against the lower page"));
          // Scattered rows: windows may serve the odd short group by chance.
          const uint64_t gathered = qzinterp3d::window_groups().gathered - before.gathered;
          EXPECT_GE(gathered, wide_groups_in(g.scene, w.lanes) / 2);
        }
      }
    }
  });
}

// Rows across grid rows at a fixed x (axis-aligned slices whose rows run
// along y), with x pairs that straddle the end of a cache line in every
// lane (rows start on a 64-byte line; x is on a line's last sample): sets
// with gathers read such rows another way and read straddled pairs sample
// by sample; the values must not change.
TYPED_TEST(CoherentPoints, SlicesAcrossRowsAtALinesEnd) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(79);
  constexpr int32_t line = static_cast<int32_t>(64 / sizeof(S));
  // Rows of two lines, against the page below: every row starts a line.
  const Layout l = padded(2 * line - 2, 40, 3, 2, 0);
  for_each_kernel_set([&] {
    for (const double x : {line + 0.5, line + 0.25, line - 0.125, 1.5, 2 * line - 2.5}) {
      GuardedScene<M, S> g(l, 128, 4, false);
      fill_random(g.grid, rng);
      std::vector<Ramp> rows;
      for (int r = 0; r < 4; ++r) rows.push_back({{x, 1.125, 1.25 + 0.5 * r}, {0, 0.25, 0}});
      set_rows(g.scene, rows);
      expect_model(g.scene, -1.0, "x " + std::to_string(x));
    }
  });
}

// A coherent row with a scattered stretch near its start: the stretch is
// gathered, and sets off a run of gathered groups, after which windows
// serve the rest of the row again.
TYPED_TEST(CoherentPoints, RowsReturnToWindowsAfterAScatteredStretch) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(78);
  const Layout l = padded(40, 6, 5);
  constexpr int64_t rows = 2, scattered_groups = 8, coherent_groups = 200;
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    // Groups of 16 columns where the set reads no windows for the variant:
    // the values are still checked.
    const int64_t lanes = w.lanes > 0 ? w.lanes : 16;
    const int64_t scattered = scattered_groups * lanes;
    GuardedScene<M, S> g(l, static_cast<int32_t>(scattered + coherent_groups * lanes),
                         static_cast<int32_t>(rows));
    fill_random(g.grid, rng);
    const double o = 1.0 / 128;
    const Ramp coherent{{3.25, 2.5 + o, 3.5 + o}, {0.01, 0, 0}};  // x stays below 36
    for (int64_t r = 0; r < rows; ++r) {
      for (int64_t c = -g.scene.reach(); c < g.scene.shape().width; ++c) {
        if (c >= 2 * lanes && c < 2 * lanes + scattered) {
          g.scene.set_point(c, r, random_coord<C>(rng, l.nx), random_coord<C>(rng, l.ny),
                            random_coord<C>(rng, l.nz));
        } else {
          g.scene.set_point(c, r, static_cast<C>(coherent.at(0, c)),
                            static_cast<C>(coherent.at(1, c)), static_cast<C>(coherent.at(2, c)));
        }
      }
    }
    const qzinterp3d::WindowGroups before = qzinterp3d::window_groups();
    expect_model(g.scene, 0.25, "coherent row with a scattered stretch");
    const qzinterp3d::WindowGroups after = qzinterp3d::window_groups();
    if (w.lanes == 0) return;
    const uint64_t served = after.served - before.served;
    const uint64_t gathered = after.gathered - before.gathered;
    EXPECT_EQ(wide_groups_in(g.scene, w.lanes), served + gathered);
    EXPECT_GE(gathered, uint64_t{rows * scattered_groups})
        << "the scattered groups were not all gathered";
    EXPECT_GE(served, uint64_t{rows * coherent_groups / 2})
        << "windows did not serve the coherent rest again";
  });
}

// Scattered points in a grid spanning more memory than the caches hold: the
// gathered groups then ask for their grid lines a few groups ahead (clamped
// indices, so also for points outside the grid or with NaN coordinates).
// Prefetches change no value: the results are the model's.
TYPED_TEST(CoherentPoints, ScatteredPointsInAGridBeyondTheCaches) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(75);
  const int32_t nz = static_cast<int32_t>((int64_t{18} << 20) / sizeof(S) / (128 * 128)) + 1;
  const Layout l = padded(128, 128, nz);
  GuardedScene<M, S> g(l, 256, 3);
  g.grid.fill(
      [](int64_t i, int64_t j, int64_t k) { return static_cast<S>((i + 3 * j + 7 * k) % 101); },
      [] { return S(7); });
  for (int64_t r = 0; r < 3; ++r) {
    for (int64_t c = 0; c < 256; ++c) {
      g.scene.set_point(c, r, random_coord<C>(rng, l.nx), random_coord<C>(rng, l.ny),
                        random_coord<C>(rng, l.nz));
    }
  }
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    expect_reading(Reading::gathers, w, g.scene,
                   [&] { expect_model(g.scene, -1.5, describe(l)); });
  });
}

// Planes at about 45 degrees through a grid of more than 8 MiB, crossing
// about 0.12 planes a point: nearest rows of such planes read with scalar
// loads on sets with hardware gathers (narrow samples one by one, not as
// the words that hold them), other variants as before. The last row runs
// out of the grid past its middle. The values must not change.
TYPED_TEST(CoherentPoints, PlanesAtFortyFiveDegreesInAGridBeyondTheCaches) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(80);
  const int32_t nz = static_cast<int32_t>((int64_t{10} << 20) / sizeof(S) / (128 * 128)) + 140;
  const Layout l = padded(128, 128, nz);
  GuardedScene<M, S> g(l, 512, 4);
  fill_random(g.grid, rng);
  const double o = 1.0 / 128;
  std::vector<Ramp> rows = ramp_rows({{3.25, 2 + o, 3 + o}, {0.123, 0.018, 0.123}}, {0, 1, 0}, 3);
  rows.push_back({{70.5, 40 + o, 5 + o}, {0.123, 0.018, 0.123}});  // leaves at x = 128
  set_rows(g.scene, rows);
  for_each_kernel_set([&] { expect_model(g.scene, -1.5, describe(l)); });
}

// Windows read only inside the span from the grid's lowest to its highest
// sample: a span shorter than a window is gathered, one just long enough is
// served (with a window at its first sample), and trilinear rows whose
// upper y corners lie one row up need the span less a row to hold a window.
TYPED_TEST(CoherentPoints, SpansShorterThanAWindowAreGathered) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(74);
  struct Case {
    Layout layout;
    double y;
    int32_t span, span_less_row;  // samples from the lowest to the highest
  };
  std::vector<Case> cases;
  for (const int32_t nx : {W + 1, 7, 8, 15, 16, 17}) {
    if (nx > W) cases.push_back({{nx, 1, 1, nx, nx}, 1, nx, nx});
  }
  // Two rows, y between them.
  for (const Case& k : std::vector<Case>{{{7, 2, 1, 8, 16}, 1.25, 15, 7},
                                         {{8, 2, 1, 8, 16}, 1.25, 16, 8},
                                         {{15, 2, 1, 16, 32}, 1.25, 31, 15},
                                         {{16, 2, 1, 17, 34}, 1.25, 33, 16},
                                         {{17, 2, 1, 17, 34}, 1.75, 34, 17}}) {
    if (k.layout.nx > W) cases.push_back(k);
  }
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    for (const Case& k : cases) {
      const int32_t needed = M == Method::bilinear ? k.span_less_row : k.span;
      const Reading expected = needed >= w.lanes ? Reading::windows : Reading::gathers;
      for (const bool at_end : {false, true}) {
        GuardedScene<M, S> g(k.layout, 16, 3, at_end);
        fill_random(g.grid, rng);
        // x from 1 to nx - 0.25 (nx - 0.1875 in the last row): the last
        // lanes read the grid's last x samples.
        const Ramp r{{1, k.y, 1}, {(k.layout.nx - 1.25) / 15, 0, 0}};
        expect_inside_rows_read(g, ramp_rows(r, {0.03125, 0, 0}, 3), expected, w,
                                describe(k.layout));
      }
    }
  });
}

// An upsampling grid: a quarter of a sample per column, so x is a whole
// number at every fourth column (the x step of those lanes is 0) and reaches
// the last sample; y and z whole or halves, the same along each row.
TYPED_TEST(CoherentPoints, UpsamplingGridsAreServedByWindows) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(75);
  const Layout l = padded(17, 5, 3);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    GuardedScene<M, S> g(l, 64, 9, true);
    fill_random(g.grid, rng, true);
    for (const double z : {1.0, 1.5, 2.0, 2.5, 3.0}) {
      const Ramp r{{1.25, 1, z}, {0.25, 0, 0}};
      const std::string what = "z " + std::to_string(z);
      if (z <= 2 || M == Method::nearest) {
        expect_inside_rows_read(g, ramp_rows(r, {0, 0.5, 0}, 9), Reading::windows, w, what);
      } else {
        // The x corner pair of the last lane is the grid's last sample,
        // read twice, in the top rows: compared only.
        set_rows(g.scene, ramp_rows(r, {0, 0.5, 0}, 9));
        expect_model(g.scene, 7.0, what);
      }
    }
  });
}

// Lanes inside coherent groups that leave the grid, sit on its last x
// sample, or have NaN or infinite coordinates.
TYPED_TEST(CoherentPoints, OutsideLastAndSpecialLanesInsideCoherentGroups) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  using Lim = std::numeric_limits<C>;
  std::mt19937_64 rng(76);
  const Layout l = padded(40, 6, 5);
  const std::vector<Ramp> rows = {
      {{-2.5, 3.25, 2.5}, {0.5, 0, 0}},           // entering at x = 1 from below
      {{40 - 7.5, 2.75, 3.5}, {0.5, 0, 0}},       // x = nx at column 15, then out
      {{40, 3.5, 4}, {-0.25, 0, 0}},              // from the last x sample down
      {{10.5, 6 - 0.25, 2.5}, {0.5, 1.0 / 64, 0}},  // leaving through y = ny
      {{10.5, 3.5, 0.75}, {0.5, 0, 1.0 / 32}},      // entering through z = 1
      {{20.25, 2.5, 5}, {0.5, 1.0 / 64, 0}},        // on the last z plane
  };
  for_each_kernel_set([&] {
    for (const bool specials : {false, true}) {
      GuardedScene<M, S> g(l, 64 + W - 1, 6);
      fill_random(g.grid, rng, specials);
      set_rows(g.scene, rows);
      expect_model(g.scene, 1.5, "coherent rows");
      // Special coordinates at a few columns of every row.
      for (int64_t r = 0; r < 6; ++r) {
        g.scene.coord(Axis::x, 5, r) = Lim::quiet_NaN();
        g.scene.coord(Axis::y, 20, r) = Lim::infinity();
        g.scene.coord(Axis::z, 37, r) = -Lim::infinity();
        g.scene.coord(Axis::y, 50, r) = Lim::quiet_NaN();
        for (const Axis a : kAxes) g.scene.coord(a, 60, r) = Lim::quiet_NaN();
      }
      expect_model(g.scene, 1.5, "with NaN and infinite lanes");
    }
  });
}

// Groups of coherent points inside the grid but for one lane on one axis,
// at a value on or just beyond a face: 1 and the coordinate below it, n and
// the one above it, signed zeros and subnormals, NaN, infinities and the
// extremes. Groups whose lanes are all inside skip the block test and the
// clamps, so one lane outside must still send its group the full way.
TYPED_TEST(CoherentPoints, OneLaneOnOrJustBeyondAFace) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  using Lim = std::numeric_limits<C>;
  std::mt19937_64 rng(77);
  const Layout l = padded(40, 6, 5);
  const int32_t n[3] = {l.nx, l.ny, l.nz};
  auto edges = [](int32_t n_axis) {
    const C top = static_cast<C>(n_axis);
    return std::vector<C>{std::nextafter(C(1), C(0)),
                          C(1),
                          top,
                          std::nextafter(top, Lim::infinity()),
                          C(-0.0),
                          C(0),
                          Lim::denorm_min(),
                          -Lim::denorm_min(),
                          Lim::quiet_NaN(),
                          Lim::infinity(),
                          -Lim::infinity(),
                          Lim::lowest(),
                          Lim::max()};
  };
  const size_t values = edges(1).size();
  const double o = 1.0 / 128;
  const Ramp inside{{3.25, 2.5 + o, 3.5 + o}, {0.5, 0, 0}};
  // The odd lane sits at a different place in each group of a row.
  const int64_t columns[] = {3, 16 + 8, 32 + 15, 48, 56 + 7};
  for_each_kernel_set([&] {
    GuardedScene<M, S> g(l, 64 + W - 1, static_cast<int32_t>(3 * values));
    fill_random(g.grid, rng);
    set_rows(g.scene, std::vector<Ramp>(3 * values, inside));
    for (int a = 0; a < 3; ++a) {
      const std::vector<C> v = edges(n[a]);
      for (size_t k = 0; k < values; ++k) {
        const int64_t row = static_cast<int64_t>(a * values + k);
        for (const int64_t c : columns) g.scene.coord(static_cast<Axis>(a), c, row) = v[k];
      }
    }
    expect_model(g.scene, 1.5, "one lane on or beyond a face");
  });
}

// Trilinear groups whose lanes do not all step alike along y (or z): one
// lane on a whole y, whose upper y corner is its lower one, the others
// between rows. They are gathered; odd rows (planes) of infinite samples
// make an upper corner read from the next row show as NaN.
TYPED_TEST(CoherentTrilinear, LanesSteppingUnlikeAlongYOrZAreGathered) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(77);
  const Layout l = padded(40, 6, 6);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    const int lanes = w.lanes > 0 ? w.lanes : 16;
    for (const int axis : {1, 2}) {
      GuardedScene<M, S> g(l, 4 * lanes, 2);
      g.grid.fill(
          [&](int64_t, int64_t j, int64_t k) {
            if constexpr (std::is_floating_point_v<S>) {
              if ((axis == 1 ? j : k) % 2 == 1) return std::numeric_limits<S>::infinity();
            }
            return random_value<S>(rng, false);
          },
          [&] { return random_value<S>(rng, false); });
      // One grid row per group along the axis, whole in the middle lane of
      // every group.
      Ramp r{{3.25, 3.125, 3.125}, {0.5, 0, 0}};
      r.start[axis] = 1.5;
      r.step[axis] = 1.0 / lanes;
      expect_inside_rows_read(g, ramp_rows(r, {0, 0, 0}, 2), Reading::gathers, w,
                              axis == 1 ? "y" : "z");
    }
  });
}

// The samples with the lowest and the highest address each next to an
// inaccessible page, strides of both signs: rows of points at and around
// every corner of the grid, along x both ways.
TYPED_TEST(CoherentPoints, ExtremeSamplesNextToGuardPages) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(78);
  const double o = 1.0 / 128;
  for_each_kernel_set([&] {
    for (const int32_t nx : {W + 1, 40}) {
      for (const Layout base : {padded(nx, 1, 1, 0, 0), padded(nx, 3, 1, 0, 0), padded(nx, 3, 2),
                                padded(nx, 1, 3, 2, 1)}) {
        // On the first and last sample of y and z, and just inside them.
        auto near_ends = [&](int32_t n) {
          std::vector<double> v = {1.0, double(n)};
          if (n > 1) v.insert(v.end(), {1 + o, n - o});
          return v;
        };
        std::vector<Ramp> rows;
        for (const double y : near_ends(base.ny)) {
          for (const double z : near_ends(base.nz)) {
            rows.push_back({{1, y, z}, {0.5, 0, 0}});
            rows.push_back({{-1, y, z}, {0.75, 0, 0}});
            rows.push_back({{double(nx), y, z}, {-0.5, 0, 0}});
            rows.push_back({{nx - 7.5, y, z}, {0.5, 0, 0}});
            rows.push_back({{nx - 15 * 0.9375, y, z}, {0.9375, 0, 0}});
          }
        }
        for (int flips = 0; flips < 4; ++flips) {
          const Layout l = reversed(base, flips & 1, flips & 2);
          for (const bool at_end : {false, true}) {
            GuardedScene<M, S> g(l, 32, static_cast<int32_t>(rows.size()), at_end);
            fill_random(g.grid, rng, flips == 2);
            set_rows(g.scene, rows);
            expect_model(g.scene, -1.0,
                         describe(l) + (at_end ? " against the upper page" : " against the lower page"));
          }
        }
      }
    }
  });
}

// Mins that put V's origin as far from its first sample as 32-bit offsets
// allow (the window placement then works near the 32-bit limits), on both
// sides.
TYPED_TEST(CoherentPoints, OriginAtTheLimitOfThirtyTwoBitOffsets) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(79);
  const Layout l = padded(40, 6, 5);
  const int64_t reach = (l.nx - 1) + int64_t{l.ny - 1} * l.stride1 + int64_t{l.nz - 1} * l.stride2;
  const int32_t far = static_cast<int32_t>(INT32_MAX - 64 - reach);
  for_each_kernel_set([&] {
    const WideGroups w = wide_groups_of_active_set<M, S>();
    for (const int32_t m0 : {far, -far}) {
      GuardedScene<M, S> g(l, 64, 3, m0 < 0);
      fill_random(g.grid, rng);
      g.grid.describe(g.scene.v(), m0, 0, 0);
      for (const std::vector<Ramp>& rows : interior_slices()) {
        if (rows[0].start[0] > 40) continue;  // beyond this grid's x
        // The run's x scaled into 40 samples.
        std::vector<Ramp> scaled = rows;
        for (Ramp& r : scaled) r.step[0] /= 2;
        expect_inside_rows_read(g, scaled, Reading::windows, w, "min " + std::to_string(m0));
      }
    }
  });
}

// Random coherent rows: grids from just above the block width up, with one
// or more rows and planes, padded or dense, strides of either sign, mins
// anywhere near the origin; runs starting inside, on the first or last
// sample, or outside, with steps of either sign along each axis, many of
// them landing on whole numbers; sometimes special lanes and samples.
template <Method M, class S>
void run_random_coherent_case(std::mt19937_64& rng) {
  using C = CoordOf<S>;
  using Lim = std::numeric_limits<C>;
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  auto in = [&](int32_t lo, int32_t hi) {
    return std::uniform_int_distribution<int32_t>(lo, hi)(rng);
  };
  auto one_of = [&](const std::vector<double>& v) {
    return v[static_cast<size_t>(in(0, static_cast<int32_t>(v.size()) - 1))];
  };
  const std::vector<int32_t> nxs = {W + 1, W + 2, 15, 16, 17, 2 * W + 1, 33, 67};
  int32_t nx = 0;
  while (nx <= W) nx = nxs[static_cast<size_t>(in(0, static_cast<int32_t>(nxs.size()) - 1))];
  const int32_t ny = in(1, 7), nz = in(1, 5);
  Layout l = in(0, 2) == 0 ? Layout{nx, ny, nz, nx, nx * ny} : padded(nx, ny, nz, in(0, 9), in(0, 9));
  l = reversed(l, in(0, 3) == 0, in(0, 3) == 0);
  const int32_t widths[] = {16, 32 + W - 1, 48, 64 + 1, 96};
  const int32_t width = widths[in(0, 4)], height = in(1, 4);
  GuardedScene<M, S> g(l, width, height, in(0, 1) == 1);
  fill_random(g.grid, rng, in(0, 3) == 0);
  if (in(0, 2) == 0) g.grid.describe(g.scene.v(), in(-9, 9), in(-9, 9), in(-9, 9));

  const int32_t n[3] = {nx, ny, nz};
  auto start = [&](int axis) {
    const double size = n[axis];
    switch (in(0, 6)) {
      case 0: return 1.0;
      case 1: return size;
      case 2: return 1 - in(1, 8) / 8.0;
      case 3: return size + in(1, 8) / 8.0;
      case 4: return double(in(1, n[axis]));
      default: return 1 + in(0, 64 * (n[axis] - 1)) / 64.0;
    }
  };
  const std::vector<double> x_steps = {1, -1, 0.5, -0.5, 0.25, -0.25, 0.75, -0.75, 0.9375,
                                       -0.9375, 0, 0.3, -0.3, 1.0625, 2, 0.0625};
  const std::vector<double> yz_steps = {0, 0, 0, 1.0 / 64, -1.0 / 64, 1.0 / 32, -1.0 / 32,
                                        1.0 / 16, -1.0 / 16, 1.0 / 8, 0.01, -0.013};
  const std::vector<double> row_steps = {0, 0.25, 0.5, 1, -0.5, -1.0 / 3};
  Ramp first{{start(0), start(1), start(2)},
             {one_of(x_steps), one_of(yz_steps), one_of(yz_steps)}};
  const double row_step[3] = {one_of(row_steps), one_of(row_steps), one_of(row_steps)};
  const std::vector<Ramp> rows = ramp_rows(first, row_step, height);
  set_rows(g.scene, rows);
  if (in(0, 3) == 0) {
    const C specials[] = {Lim::quiet_NaN(), Lim::infinity(), -Lim::infinity()};
    for (int k = 0; k < 4; ++k) {
      g.scene.coord(static_cast<Axis>(in(0, 2)), in(0, width - 1), in(0, height - 1)) =
          specials[in(0, 2)];
    }
  }
  expect_model(g.scene, std::uniform_real_distribution<double>(-5, 5)(rng),
               describe(l) + " width " + std::to_string(width) + " " + describe(rows[0]));
}

TYPED_TEST(CoherentPoints, RandomCoherentRowsMatchTheModel) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  uint64_t seed = 4321;
  for_each_kernel_set([&] {
    std::mt19937_64 rng(seed++);
    for (int trial = 0; trial < 60; ++trial) {
      run_random_coherent_case<M, S>(rng);
      if (::testing::Test::HasFailure()) return;
    }
  });
}

}  // namespace
}  // namespace qztest
