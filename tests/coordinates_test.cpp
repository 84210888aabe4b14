// How a query point becomes grid terms, for both methods and every type:
// 1-based coordinates, the out-of-range rule in its block and element forms,
// NaN and infinite coordinates, empty axes, the float32 bound of a huge axis,
// and the fill value's conversion.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <string>

#include "support/kernel_sets.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class Coordinates : public ::testing::Test {};
TYPED_TEST_SUITE(Coordinates, AllVariants, VariantNames);

const char* const kAxisNames[3] = {"x", "y", "z"};

// The grid point a column reads when all its coordinates are whole numbers,
// as 0-based indices.
inline std::array<int32_t, 3> grid_point_of_column(int64_t column, const Shape& s) {
  auto wrap = [](int64_t v, int32_t n) {
    const int64_t m = std::max(n, 1);
    return static_cast<int32_t>((v % m + m) % m);
  };
  return {wrap(column, s.nx), wrap(column + 1, s.ny), wrap(column + 2, s.nz)};
}

// Sets every point of the scene on its column's grid point, then replaces
// one axis's coordinate with q.
template <Method M, class S>
void set_points_with_axis(Scene<M, S>& scene, int axis, CoordOf<S> q) {
  using C = CoordOf<S>;
  for (int64_t r = 0; r < scene.shape().height; ++r) {
    for (int64_t c = -scene.reach(); c < scene.shape().width; ++c) {
      const std::array<int32_t, 3> p = grid_point_of_column(c, scene.shape());
      C coords[3] = {C(p[0] + 1), C(p[1] + 1), C(p[2] + 1)};
      coords[axis] = q;
      scene.set_point(c, r, coords[0], coords[1], coords[2]);
    }
  }
}

// Whether a column is decided by the block test (a NaN counts as inside) or
// the element test (a NaN is outside).
template <Method M, class S>
bool block_test_decides(bool pooled, int64_t column, int64_t width) {
  if (pooled) return true;
  return M == Method::nearest && !std::is_same_v<S, double> && column < width / 4 * 4;
}

// Shapes on both paths; on the caller's path, widths on both sides of each
// multiple of four so the nearest groups and their remainders both occur.
template <class S>
std::vector<Shape> shapes_for_both_paths() {
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  std::vector<Shape> shapes;
  for (int32_t width = 1; width <= 9; ++width) shapes.push_back(Shape{std::min(W, 3), 3, 2, width, 2});
  for (const int32_t width : {1, W, W + 3}) shapes.push_back(Shape{W + 1, 3, 2, width, 2});
  return shapes;
}

TYPED_TEST(Coordinates, NanCoordinateIsInsideForTheBlockTestAndOutsideForTheElementTest) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = 42.0;
  for_each_kernel_set([&] {
    for (const Shape& shape : shapes_for_both_paths<S>()) {
      for (int axis = 0; axis < 3; ++axis) {
        SCOPED_TRACE(std::string("NaN ") + kAxisNames[axis] + ", nx " + std::to_string(shape.nx) +
                     ", width " + std::to_string(shape.width));
        Scene<M, S> scene(shape);
        set_points_with_axis(scene, axis, std::numeric_limits<C>::quiet_NaN());
        ASSERT_EQ(0, scene.call(fill));
        for (int64_t r = 0; r < shape.height; ++r) {
          for (int64_t c = -scene.reach(); c < shape.width; ++c) {
            if (!block_test_decides<M, S>(scene.parallel(), c, shape.width)) {
              EXPECT_TRUE(SameValue(scene.result(c, r), C(fill))) << "column " << c;
            } else if (M == Method::bilinear) {
              EXPECT_TRUE(std::isnan(scene.result(c, r))) << "column " << c;
            } else {
              // Index 0 along the NaN's axis.
              std::array<int32_t, 3> p = grid_point_of_column(c, shape);
              p[axis] = 0;
              EXPECT_TRUE(SameValue(scene.result(c, r), scene.converted_sample(p[0], p[1], p[2])))
                  << "column " << c << " row " << r;
            }
          }
        }
      }
    }
  });
}

TYPED_TEST(Coordinates, InfiniteAndHugeCoordinatesAreAlwaysOutside) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = -6.5;
  const C inf = std::numeric_limits<C>::infinity();
  const C huge[] = {inf, -inf, C(3e9), C(-3e9), C(2147483648.0), C(-2147483648.0),
                    C(4294967297.5), C(-4294967296.0), C(1e30), C(-1e30)};
  for_each_kernel_set([&] {
    for (const Shape& shape : shapes_for_both_paths<S>()) {
      for (int axis = 0; axis < 3; ++axis) {
        for (const C q : huge) {
          SCOPED_TRACE(std::string(kAxisNames[axis]) + " = " + std::to_string(q) + ", nx " +
                       std::to_string(shape.nx) + ", width " + std::to_string(shape.width));
          Scene<M, S> scene(shape);
          set_points_with_axis(scene, axis, q);
          // A NaN on another axis changes nothing: the point is outside.
          scene.coord(static_cast<Axis>((axis + 1) % 3), 0, 0) = std::numeric_limits<C>::quiet_NaN();
          ASSERT_EQ(0, scene.call(fill));
          for (int64_t r = 0; r < shape.height; ++r) {
            for (int64_t c = -scene.reach(); c < shape.width; ++c) {
              EXPECT_TRUE(SameValue(scene.result(c, r), C(fill))) << "column " << c;
            }
          }
        }
      }
    }
  });
}

// q = 1 is the first sample and q = n the last; n + 0.25 and 0.999 are
// outside although their indices would clamp or round into the grid.
TYPED_TEST(Coordinates, OneBasedCoordinatesAndTheEdgesOfTheGrid) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = 1234.0;
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      const Shape shape{nx, 4, 3, 2 * W + 1, 2};
      const int32_t n[3] = {shape.nx, shape.ny, shape.nz};
      for (int axis = 0; axis < 3; ++axis) {
        struct Case {
          C q;
          int32_t index;  // -1: outside
        };
        const C last = static_cast<C>(n[axis]);
        for (const Case k : {Case{C(1), 0}, Case{last, n[axis] - 1}, Case{last + C(0.25), -1},
                             Case{C(0.999), -1}, Case{C(0), -1}, Case{-C(1), -1}}) {
          SCOPED_TRACE(std::string(kAxisNames[axis]) + " = " + std::to_string(k.q) + ", nx " +
                       std::to_string(nx));
          Scene<M, S> scene(shape);
          set_points_with_axis(scene, axis, k.q);
          ASSERT_EQ(0, scene.call(fill));
          for (int64_t r = 0; r < shape.height; ++r) {
            for (int64_t c = 0; c < shape.width; ++c) {
              std::array<int32_t, 3> p = grid_point_of_column(c, shape);
              p[axis] = k.index;
              const C want = k.index < 0 ? C(fill) : scene.converted_sample(p[0], p[1], p[2]);
              EXPECT_TRUE(SameValue(scene.result(c, r), want)) << "column " << c << " row " << r;
            }
          }
        }
      }
    }
  });
}

// An empty axis has bound -1: every point with numbers for coordinates is
// outside. Its index still clamps to 0, which a NaN under the block test
// shows: that point reads index 0 along the empty axis.
TYPED_TEST(Coordinates, EmptyAxisMakesEveryPointOutsideButIndexZeroIsStillRead) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = 8.0;
  for_each_kernel_set([&] {
    for (int axis = 0; axis < 3; ++axis) {
      for (const int32_t nx : {W, W + 1}) {
        if (axis == 0 && nx > W) continue;  // nx = 0 is always the caller's path
        Shape shape{nx, 3, 2, 9, 2};
        (axis == 0 ? shape.nx : axis == 1 ? shape.ny : shape.nz) = 0;
        SCOPED_TRACE(std::string("empty ") + kAxisNames[axis] + ", nx " + std::to_string(shape.nx));
        for (const C q : {C(1), C(0), C(0.5), C(2), C(-3)}) {
          Scene<M, S> scene(shape);
          set_points_with_axis(scene, axis, q);
          ASSERT_EQ(0, scene.call(fill));
          for (int64_t c = 0; c < shape.width; ++c) {
            EXPECT_TRUE(SameValue(scene.result(c, 1), C(fill))) << "q " << q << " column " << c;
          }
        }
        Scene<M, S> scene(shape);
        set_points_with_axis(scene, axis, std::numeric_limits<C>::quiet_NaN());
        ASSERT_EQ(0, scene.call(fill));
        for (int64_t c = 0; c < shape.width; ++c) {
          if (!block_test_decides<M, S>(scene.parallel(), c, shape.width)) {
            EXPECT_TRUE(SameValue(scene.result(c, 1), C(fill))) << "NaN, column " << c;
          } else if (M == Method::bilinear) {
            EXPECT_TRUE(std::isnan(scene.result(c, 1))) << "NaN, column " << c;
          } else {
            std::array<int32_t, 3> p = grid_point_of_column(c, shape);
            p[axis] = 0;
            EXPECT_TRUE(SameValue(scene.result(c, 1), scene.converted_sample(p[0], p[1], p[2])))
                << "NaN, column " << c;
          }
        }
      }
    }
  });
}

// An axis of 16777218 samples: n - 1 = 16777217 becomes 16777216 in float32.
// q = 16777218 gives d = 16777216 after rounding, inside, at index 16777216.
// Three rows of storage stand for the axis's last three samples.
TYPED_TEST(Coordinates, HugeAxisBoundIsRoundedToTheCoordinateType) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = -2.0;
  const int32_t first_stored = 16777215;
  for_each_kernel_set([&] {
    for (const int32_t nx : {1, W + 1}) {
      Scene<M, S> scene(Shape{nx, 3, 1, W + 2, 1});
      scene.describe_grid_as({0, first_stored, 0}, {nx, 16777218, 1});
      struct Case {
        C yq;
        int32_t float_row, double_row;  // absolute row read; -1: outside
      };
      for (const Case k : {Case{C(16777218), 16777216, 16777217}, Case{C(16777216), 16777215, 16777215},
                           Case{C(16777220), -1, -1}}) {
        const int32_t row = sizeof(C) == 4 ? k.float_row : k.double_row;
        SCOPED_TRACE("yq " + std::to_string(k.yq) + ", nx " + std::to_string(nx));
        for (int64_t c = -scene.reach(); c < W + 2; ++c) scene.set_point(c, 0, C(1 + c % nx), k.yq, C(1));
        ASSERT_EQ(0, scene.call(fill));
        for (int64_t c = 0; c < W + 2; ++c) {
          const C want = row < 0 ? C(fill) : scene.converted_sample(c % nx, row - first_stored, 0);
          EXPECT_TRUE(SameValue(scene.result(c), want)) << "column " << c;
        }
      }
    }
  });
}

// Row 1000000064 of a grid with 3 or more samples per row: index times
// stride passes 2^31, so the flat index must be formed in 64 bits. Three
// rows of storage stand for rows 1000000063 to 1000000065.
TYPED_TEST(Coordinates, FlatIndexIsFormedInSixtyFourBits) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const int32_t row = 1000000064, first_stored = row - 1;
  for_each_kernel_set([&] {
    for (const int32_t nx : {std::max(W, 2), W + 1}) {
      SCOPED_TRACE("nx " + std::to_string(nx));
      Scene<M, S> scene(Shape{nx, 3, 2, W + 2, 1});
      scene.describe_grid_as({0, first_stored, 0}, {nx, row + 2, 2});
      ASSERT_GT(int64_t{row} * scene.v()->dim[1].stride, int64_t{INT32_MAX});
      // q = 1000000064 is exact in both types; d = q - 1 rounds back to it
      // in float32 (spacing 64) and stays one below in float64.
      const int32_t row_read = sizeof(C) == 4 ? row : row - 1;
      for (int64_t c = 0; c < W + 2; ++c) scene.set_point(c, 0, C(1 + c % nx), C(row), C(2));
      ASSERT_EQ(0, scene.call(0.0));
      for (int64_t c = 0; c < W + 2; ++c) {
        EXPECT_TRUE(SameValue(scene.result(c), scene.converted_sample(c % nx, row_read - first_stored, 1)))
            << "column " << c;
      }
    }
  });
}

TYPED_TEST(Coordinates, FillValueIsConvertedOnceWithRoundingToNearestEven) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const float inf = std::numeric_limits<float>::infinity();
  struct Case {
    double fill;
    float as_float;
  };
  const Case cases[] = {
      {0.1, 0.100000001490116119384765625f},
      {1e40, inf},
      {-1e40, -inf},
      {1e300, inf},
      {-1.0, -1.0f},
      {0.5, 0.5f},
      {16777217.0, 16777216.0f},  // a tie, to even
      {16777219.0, 16777220.0f},
      {1e-50, 0.0f},
      {-1e-50, -0.0f},
      {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<float>::quiet_NaN()},
  };
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      for (const Case& k : cases) {
        Scene<M, S> scene(Shape{nx, 2, 2, W + 1, 2});
        scene.set_all_points(C(1), C(1), C(5));  // beyond the grid along z
        ASSERT_EQ(0, scene.call(k.fill));
        const C want = sizeof(C) == 4 ? C(k.as_float) : C(k.fill);
        for (int64_t c = 0; c <= W; ++c) {
          EXPECT_TRUE(SameValue(scene.result(c, 1), want)) << "fill " << k.fill << " nx " << nx;
        }
      }
    }
  });
}

}  // namespace
}  // namespace qztest
