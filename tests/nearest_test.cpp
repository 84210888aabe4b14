// The nearest-neighbour method: rounding to the nearest sample with ties to
// even, the grid's edges, NaN coordinates by column, and the same results on
// both sides of the path threshold.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include "support/kernel_sets.h"
#include "support/pool.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class Nearest : public ::testing::Test {};
TYPED_TEST_SUITE(Nearest, NearestVariants, VariantNames);

// One coordinate and the 0-based index it must read (-1: outside).
template <class C>
struct RoundingCase {
  C q;
  int32_t index;
};

// Runs the cases along each axis, the other two coordinates on their first
// sample. y and z have n = 6 samples; x has them too on the pooled path when
// W < 6, and is left out where the cases need the axis to end at 6.
template <Method M, class S>
void check_cases_along_axes(const std::vector<RoundingCase<CoordOf<S>>>& cases, double fill,
                            bool cases_need_six_samples) {
  using C = CoordOf<S>;
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  const int32_t n = 6;
  for (const int32_t nx : {std::min(W, 3), std::max(W + 1, n)}) {
    const bool x_fits = cases_need_six_samples ? nx == n : nx >= n;
    for (int axis = x_fits ? 0 : 1; axis < 3; ++axis) {
      Scene<M, S> scene(Shape{nx, n, n, static_cast<int32_t>(cases.size()), 1});
      for (size_t c = 0; c < cases.size(); ++c) {
        C point[3] = {C(1), C(1), C(1)};
        point[axis] = cases[c].q;
        scene.set_point(static_cast<int64_t>(c), 0, point[0], point[1], point[2]);
      }
      ASSERT_EQ(0, scene.call(fill));
      for (size_t c = 0; c < cases.size(); ++c) {
        int32_t index[3] = {0, 0, 0};
        index[axis] = cases[c].index;
        const C want = cases[c].index < 0 ? static_cast<C>(fill)
                                          : scene.converted_sample(index[0], index[1], index[2]);
        EXPECT_TRUE(SameValue(scene.result(static_cast<int64_t>(c)), want))
            << "axis " << axis << " q " << cases[c].q << " nx " << nx;
      }
    }
  }
}

TYPED_TEST(Nearest, HalfwayCoordinatesRoundToTheEvenIndex) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  // Two neighbouring halves (2.5 and 3.5) read the same sample.
  const std::vector<RoundingCase<C>> cases = {
      {C(1.5), 0}, {C(2.5), 2}, {C(3.5), 2}, {C(4.5), 4}, {C(5.5), 4},
      {C(2.4999), 1}, {C(2.5001), 2}, {C(1.4999), 0}, {C(3.5001), 3}, {C(3.4999), 2},
  };
  for_each_kernel_set([&] { check_cases_along_axes<M, S>(cases, -1.0, false); });
}

TYPED_TEST(Nearest, LastSampleIsInsideAndAnythingBeyondTheGridIsFill) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  // n + 0.4 would round onto the last sample, 0.9 onto the first: both are
  // outside all the same.
  const std::vector<RoundingCase<C>> cases = {
      {C(6), 5}, {C(6.4), -1}, {C(0.9), -1}, {C(1), 0}, {std::nextafter(C(6), C(7)), -1},
      {std::nextafter(C(1), C(0)), -1}, {C(5.6), 5},
  };
  for_each_kernel_set([&] { check_cases_along_axes<M, S>(cases, 0.25, true); });
}

// A six-column row on the caller's path: the first four columns form a group
// decided by the block test (NaN reads index 0), the last two go one by one
// with the element test (NaN gives the fill value). float64 is element by
// element throughout.
TYPED_TEST(Nearest, NanInASixColumnSerialRowDependsOnTheColumn) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    const double fill = -9.0;
    for (int axis = 0; axis < 3; ++axis) {
      Scene<M, S> scene(Shape{std::min(W, 3), 3, 3, 6, 1});
      ASSERT_FALSE(scene.parallel());
      for (int64_t c = 0; c < 6; ++c) {
        C point[3] = {C(2), C(3), C(2)};
        point[axis] = std::numeric_limits<C>::quiet_NaN();
        scene.set_point(c, 0, point[0], point[1], point[2]);
      }
      ASSERT_EQ(0, scene.call(fill));
      int32_t index[3] = {1, 2, 1};
      index[axis] = 0;
      const C from_grid = scene.converted_sample(index[0], index[1], index[2]);
      for (int64_t c = 0; c < 6; ++c) {
        const bool in_group = !std::is_same_v<S, double> && c < 4;
        EXPECT_TRUE(SameValue(scene.result(c), in_group ? from_grid : static_cast<C>(fill)))
            << "axis " << axis << " column " << c;
      }
    }
  });
}

TEST(NearestPaths, ThreeWideGridIsPooledForFloat64AndSerialForFloat32) {
  for_each_kernel_set([&] {
    {
      Scene<Method::nearest, double> scene(Shape{3, 2, 2, 4, 2});
      ParForSpy spy;
      ASSERT_EQ(0, scene.call(0.0));
      EXPECT_EQ(1u, spy.calls().size());
    }
    {
      Scene<Method::nearest, float> scene(Shape{3, 2, 2, 4, 2});
      ParForSpy spy;
      ASSERT_EQ(0, scene.call(0.0));
      EXPECT_TRUE(spy.calls().empty());
    }
  });
}

// Without NaN coordinates the two paths agree: a grid one column wider
// (pooled) gives the same bits as one exactly W wide (serial) for points
// that are inside both or outside both.
TYPED_TEST(Nearest, BothSidesOfThePathThresholdGiveTheSameResults) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const C inf = std::numeric_limits<C>::infinity();
  std::mt19937_64 rng(11);
  std::uniform_real_distribution<C> inside_both(C(-1), C(W));
  std::uniform_real_distribution<C> any(C(-2), C(6));
  for_each_kernel_set([&] {
    for (const int32_t width : {1, 3, 4, W, W + 5, 3 * W + 1}) {
      Scene<M, S> serial(Shape{W, 4, 3, width, 3});
      Scene<M, S> pooled(Shape{W + 1, 4, 3, width, 3});
      for (int64_t r = 0; r < 3; ++r) {
        for (int64_t c = -pooled.reach(); c < width; ++c) {
          const int pick = static_cast<int>(rng() % 8);
          const C x = pick == 0 ? inf : pick == 1 ? -inf : pick == 2 ? C(W) : inside_both(rng);
          const C y = any(rng), z = pick == 3 ? C(3) : any(rng);
          serial.set_point(c < 0 ? 0 : c, r, x, y, z);
          pooled.set_point(c, r, x, y, z);
        }
      }
      for (int64_t k = 0; k < 3; ++k) {
        for (int64_t j = 0; j < 4; ++j) {
          for (int64_t i = 0; i < W; ++i) pooled.sample(i, j, k) = serial.sample(i, j, k);
        }
      }
      ASSERT_EQ(0, serial.call(0.75));
      ASSERT_EQ(0, pooled.call(0.75));
      for (int64_t r = 0; r < 3; ++r) {
        for (int64_t c = 0; c < width; ++c) {
          EXPECT_TRUE(SameValue(pooled.result(c, r), serial.result(c, r)))
              << "width " << width << " column " << c << " row " << r;
        }
      }
    }
  });
}

}  // namespace
}  // namespace qztest
