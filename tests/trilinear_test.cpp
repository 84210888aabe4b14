// The trilinear method: exact values on and between grid points, the edges
// of the grid, the rounding sequence of each kind of block, and samples that
// are not finite.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>

#include "support/kernel_sets.h"
#include "support/scene.h"
#include "support/trilinear_sequences.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class Trilinear : public ::testing::Test {};
TYPED_TEST_SUITE(Trilinear, TrilinearVariants, VariantNames);

// Full blocks, the last block (both of its groups for 8-bit samples) and the
// serial path, on points where their sequences give different bits, each
// against its own sequence written out in the test.
TYPED_TEST(Trilinear, EachKindOfBlockFollowsItsOwnRoundingSequence) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const std::vector<CellPoint<S>> points = points_separating_sequences<S>();
  ASSERT_FALSE(points.empty());
  this->RecordProperty("points", static_cast<int>(points.size()));
  const std::vector<Sequence> sequences = distinct_sequences_of<S>();
  for_each_kernel_set([&] {
    for (const CellPoint<S>& point : points) {
      for (size_t a = 0; a < sequences.size(); ++a) {
        for (size_t b = a + 1; b < sequences.size(); ++b) {
          ASSERT_NE(bits_of(point.expected(sequences[a])), bits_of(point.expected(sequences[b])))
              << sequence_name(sequences[a]) << " and " << sequence_name(sequences[b]);
        }
      }
      // Pooled: column 0 only in the full block, columns 1 to W in the last.
      Scene<M, S> pooled(Shape{W + 1, 2, 2, W + 1, 2});
      place_cell_everywhere(pooled, point);
      ASSERT_EQ(0, pooled.call(-1.0));
      for (int64_t r = 0; r < 2; ++r) {
        for (int64_t c = 0; c <= W; ++c) {
          const Sequence s = c == 0 ? Sequence::full_block
                             : sizeof(S) == 1 && c <= 4 ? Sequence::last_block_first_group
                                                        : Sequence::last_block;
          EXPECT_TRUE(SameValue(pooled.result(c, r), point.expected(s)))
              << sequence_name(s) << ", column " << c << " row " << r;
        }
      }
      Scene<M, S> serial(Shape{2, 2, 2, W + 1, 2});
      place_cell_everywhere(serial, point);
      ASSERT_EQ(0, serial.call(-1.0));
      for (int64_t r = 0; r < 2; ++r) {
        for (int64_t c = 0; c <= W; ++c) {
          EXPECT_TRUE(SameValue(serial.result(c, r), point.expected(Sequence::serial)))
              << "serial, column " << c << " row " << r;
        }
      }
    }
  });
}

template <class S>
S random_value_for_grid(std::mt19937_64& rng) {
  if constexpr (std::is_floating_point_v<S>) {
    // Values with full mantissas, of both signs and many magnitudes.
    const S mantissa = std::uniform_real_distribution<S>(S(-1), S(1))(rng);
    return std::ldexp(mantissa, std::uniform_int_distribution<int>(-30, 30)(rng));
  } else {
    return random_sample<S>(rng);
  }
}

// Pooled and serial scenes over the same random grid.
template <Method M, class S>
void for_both_paths(int32_t ny, int32_t nz, int32_t width, int32_t height,
                    const std::function<void(Scene<M, S>&)>& check) {
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  for (const int32_t nx : {std::min(W, 3), W + 2}) {
    SCOPED_TRACE(nx > W ? "pooled path" : "serial path");
    Scene<M, S> scene(Shape{nx, ny, nz, width, height});
    std::mt19937_64 rng(static_cast<uint64_t>(nx) * 31 + static_cast<uint64_t>(ny));
    scene.grid().fill([&](int64_t, int64_t, int64_t) { return random_value_for_grid<S>(rng); });
    check(scene);
  }
}

TYPED_TEST(Trilinear, GridPointsGiveTheirSampleUnchanged) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for_both_paths<M, S>(3, 4, 12, 4, [](Scene<M, S>& scene) {
      const Shape& s = scene.shape();
      for (int64_t r = 0; r < s.height; ++r) {
        for (int64_t c = -scene.reach(); c < s.width; ++c) {
          scene.set_point(c, r, C(1 + (c + 12) % s.nx), C(1 + (c + r) % s.ny), C(1 + r % s.nz));
        }
      }
      ASSERT_EQ(0, scene.call(0.0));
      for (int64_t r = 0; r < s.height; ++r) {
        for (int64_t c = 0; c < s.width; ++c) {
          EXPECT_TRUE(SameValue(scene.result(c, r),
                                scene.converted_sample((c + 12) % s.nx, (c + r) % s.ny, r % s.nz)))
              << "column " << c << " row " << r;
        }
      }
    });
  });
}

// q = 1 and q = n are inside (both corners the same sample); anything below
// 1 or above n is outside, however close.
TYPED_TEST(Trilinear, GridEdgesAreInsideAndAnythingBeyondIsFill) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = -77.0;
  for_each_kernel_set([&] {
    for_both_paths<M, S>(3, 2, 8, 1, [&](Scene<M, S>& scene) {
      const Shape& s = scene.shape();
      const C nx = static_cast<C>(s.nx), ny = static_cast<C>(s.ny), nz = static_cast<C>(s.nz);
      struct Case {
        C x, y, z;
        bool inside;
        int64_t i, j, k;
      };
      const Case cases[] = {
          {C(1), C(1), C(1), true, 0, 0, 0},
          {nx, ny, nz, true, s.nx - 1, s.ny - 1, s.nz - 1},
          {nx, C(1), C(2), true, s.nx - 1, 0, 1},
          {std::nextafter(nx, C(1000)), C(1), C(1), false, 0, 0, 0},
          {C(1), std::nextafter(ny, C(1000)), C(1), false, 0, 0, 0},
          {C(1), C(1), std::nextafter(nz, C(1000)), false, 0, 0, 0},
          {std::nextafter(C(1), C(0)), C(1), C(1), false, 0, 0, 0},
          {C(1), std::nextafter(C(1), C(0)), C(1), false, 0, 0, 0},
          {C(1), C(1), std::nextafter(C(1), C(0)), false, 0, 0, 0},
          {C(0.5), C(1.5), C(1.5), false, 0, 0, 0},
      };
      for (const Case& k : cases) {
        scene.set_all_points(k.x, k.y, k.z);
        ASSERT_EQ(0, scene.call(fill));
        const C want = k.inside ? scene.converted_sample(k.i, k.j, k.k) : static_cast<C>(fill);
        for (int64_t c = 0; c < s.width; ++c) {
          EXPECT_TRUE(SameValue(scene.result(c), want))
              << "point " << k.x << " " << k.y << " " << k.z << " column " << c;
        }
      }
    });
  });
}

// A single-sample axis: only q = 1 exactly is inside.
TYPED_TEST(Trilinear, SingleSampleAxisHasOnlyOneInsideCoordinate) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const double fill = 3.5;
  for_each_kernel_set([&] {
    for (const Shape shape : {Shape{1, 3, 2, 6, 2}, Shape{W + 1, 1, 2, 6, 2}, Shape{W + 1, 3, 1, 6, 2}}) {
      Scene<M, S> scene(shape);
      for (const C q : {C(1), std::nextafter(C(1), C(2)), std::nextafter(C(1), C(0)), C(1.5)}) {
        C point[3] = {C(1), C(1), C(1)};
        const int single = shape.nx == 1 ? 0 : shape.ny == 1 ? 1 : 2;
        point[single] = q;
        scene.set_all_points(point[0], point[1], point[2]);
        ASSERT_EQ(0, scene.call(fill));
        const C want = q == C(1) ? scene.converted_sample(0, 0, 0) : static_cast<C>(fill);
        EXPECT_TRUE(SameValue(scene.result(5, 1), want)) << "axis " << single << " q " << q;
        EXPECT_TRUE(SameValue(scene.result(0, 0), want)) << "axis " << single << " q " << q;
      }
    }
  });
}

// Weights of one half: every product exact, so every path gives the same
// value, that of any of the sequences.
TYPED_TEST(Trilinear, HalfwayPointsGiveTheSameValueOnEveryPath) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(7);
  for_each_kernel_set([&] {
    for (int trial = 0; trial < 20; ++trial) {
      CellPoint<S> point;
      for (S& s : point.corners) s = random_sample<S>(rng);
      point.xq = point.yq = point.zq = C(1.5);
      const C want = point.expected(Sequence::full_block);
      for (const Sequence s : distinct_sequences_of<S>()) {
        ASSERT_EQ(bits_of(want), bits_of(point.expected(s))) << sequence_name(s);
      }
      for (const int32_t nx : {2, W + 1}) {
        Scene<M, S> scene(Shape{nx, 2, 2, W + 3, 1});
        place_cell_everywhere(scene, point);
        ASSERT_EQ(0, scene.call(0.0));
        for (int64_t c = 0; c < W + 3; ++c) {
          EXPECT_TRUE(SameValue(scene.result(c), want)) << "nx " << nx << " column " << c;
        }
      }
    }
  });
}

// At an integer coordinate the upper corner is the ceiling of q - 1, the
// same sample as the lower one, not the next sample: a NaN there stays out.
TYPED_TEST(Trilinear, UpperCornerIsTheCeilingNotTheNextSample) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  if constexpr (std::is_floating_point_v<S>) {
    for_each_kernel_set([&] {
      for_both_paths<M, S>(4, 4, 6, 1, [&](Scene<M, S>& scene) {
        // The samples after (0, 1, 1) along each axis.
        scene.sample(1, 1, 1) = std::numeric_limits<S>::quiet_NaN();
        scene.sample(0, 2, 1) = std::numeric_limits<S>::quiet_NaN();
        scene.sample(0, 1, 2) = std::numeric_limits<S>::quiet_NaN();
        scene.set_all_points(C(1), C(2), C(2));
        ASSERT_EQ(0, scene.call(0.0));
        for (int64_t c = 0; c < 6; ++c) {
          EXPECT_TRUE(SameValue(scene.result(c), scene.converted_sample(0, 1, 1))) << c;
        }
      });
    });
  } else {
    // Integer samples are always finite; the float variants show the rule.
    SUCCEED();
  }
}

// Samples enter the arithmetic as they are: an infinite sample times a zero
// weight is NaN, so even a grid point on an infinite sample gives NaN.
TYPED_TEST(Trilinear, NonFiniteSamplesMakeTheResultNaN) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  if constexpr (std::is_floating_point_v<S>) {
    for_each_kernel_set([&] {
      for_both_paths<M, S>(3, 3, 6, 1, [&](Scene<M, S>& scene) {
        for (const S bad : {std::numeric_limits<S>::infinity(), -std::numeric_limits<S>::infinity(),
                            std::numeric_limits<S>::quiet_NaN()}) {
          scene.sample(1, 1, 1) = bad;
          scene.set_point(0, 0, C(2), C(2), C(2));      // on the sample
          scene.set_point(1, 0, C(1.5), C(2), C(2));    // between it and a finite one
          scene.set_point(2, 0, C(2), C(1.25), C(2.75));
          for (int64_t c = 3; c < 6; ++c) scene.set_point(c, 0, C(1), C(1), C(1));  // away from it
          ASSERT_EQ(0, scene.call(0.0));
          for (int64_t c = 0; c < 3; ++c) {
            EXPECT_TRUE(std::isnan(scene.result(c))) << "sample " << bad << " column " << c;
          }
          for (int64_t c = 3; c < 6; ++c) {
            EXPECT_TRUE(SameValue(scene.result(c), scene.converted_sample(0, 0, 0))) << c;
          }
        }
      });
    });
  } else {
    SUCCEED();
  }
}

TYPED_TEST(Trilinear, NanYAloneIsNanInThePoolAndFillInTheCaller) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const C nan = std::numeric_limits<C>::quiet_NaN();
  for_each_kernel_set([&] {
    for_both_paths<M, S>(3, 3, W + 1, 2, [&](Scene<M, S>& scene) {
      scene.set_all_points(C(1.5), nan, C(2.25));
      scene.set_point(W, 1, C(0.5), nan, C(2.25));  // x outside as well
      ASSERT_EQ(0, scene.call(0.1));
      const C fill = static_cast<C>(0.1);
      for (int64_t r = 0; r < 2; ++r) {
        for (int64_t c = 0; c <= W; ++c) {
          const bool x_outside = r == 1 && c == W;
          if (scene.parallel() && !x_outside) {
            EXPECT_TRUE(std::isnan(scene.result(c, r))) << "column " << c << " row " << r;
          } else {
            EXPECT_TRUE(SameValue(scene.result(c, r), fill)) << "column " << c << " row " << r;
          }
        }
      }
    });
  });
}

TYPED_TEST(Trilinear, NanFillValueIsWrittenAsNan) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for_both_paths<M, S>(2, 2, W + 1, 1, [&](Scene<M, S>& scene) {
      scene.set_all_points(C(1), C(-4), C(1));
      ASSERT_EQ(0, scene.call(std::numeric_limits<double>::quiet_NaN()));
      for (int64_t c = 0; c <= W; ++c) EXPECT_TRUE(std::isnan(scene.result(c))) << c;
    });
  });
}

}  // namespace
}  // namespace qztest
