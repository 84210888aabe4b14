// Randomized calls of every entry on both paths, on every kernel set this CPU
// can run and with 1, 2 and 4 pool threads, compared element by element with
// the reference (the scalar model in the frame each path must follow), guard
// bands included.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/kernel_sets.h"
#include "support/pool.h"
#include "support/random_inputs.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class Sweep : public ::testing::Test {};
TYPED_TEST_SUITE(Sweep, AllVariants, VariantNames);

std::string describe(const Shape& s) {
  return "nx " + std::to_string(s.nx) + " ny " + std::to_string(s.ny) + " nz " +
         std::to_string(s.nz) + " width " + std::to_string(s.width) + " height " +
         std::to_string(s.height) + " first column " + std::to_string(s.x0) + " first row " +
         std::to_string(s.y0);
}

// Shapes on both sides of the path threshold, of every width class, some
// tall enough to spread over the pool, some far from the origin, some with
// an empty grid axis.
template <class S>
Shape random_shape(std::mt19937_64& rng, int trial) {
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  auto in = [&](int32_t lo, int32_t hi) { return std::uniform_int_distribution<int32_t>(lo, hi)(rng); };
  Shape s;
  s.nx = trial % 3 == 0 ? W + trial % 2 : in(1, 3 * W + 3);
  s.ny = in(1, 6);
  s.nz = in(1, 6);
  if (trial % 17 == 0) (trial % 2 == 0 ? s.ny : s.nz) = 0;
  // Widths reach past the widest vector (16 lanes) plus a remainder.
  s.width = in(0, 3 * W + 40);
  s.height = trial % 10 == 0 ? in(5, 24) : in(0, 4);
  s.x0 = trial % 13 == 0 ? in(-100000, 100000) : in(-7, 7);
  s.y0 = trial % 11 == 0 ? in(-100000, 100000) : in(-7, 7);
  return s;
}

template <Method M, class S>
void run_random_case(std::mt19937_64& rng, const Shape& shape) {
  using C = CoordOf<S>;
  Scene<M, S> scene(shape);
  scene.grid().fill([&](int64_t, int64_t, int64_t) { return random_sample<S>(rng); });
  for (int64_t r = 0; r < shape.height; ++r) {
    for (int64_t c = -scene.reach(); c < shape.width; ++c) {
      const C x = random_coord<C>(rng, shape.nx);
      const C y = random_coord<C>(rng, shape.ny);
      const C z = random_coord<C>(rng, shape.nz);
      scene.set_point(c, r, x, y, z);
    }
  }
  const double fill = std::uniform_real_distribution<double>(-5, 5)(rng);
  ASSERT_EQ(0, scene.call(fill));
  ASSERT_EQ("", scene.mismatches_with_model(fill)) << describe(shape);
  ASSERT_TRUE(scene.only_region_written()) << describe(shape);
}

TYPED_TEST(Sweep, EveryKernelSetAndThreadCountMatchesTheModel) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for (const int threads : {1, 2, 4}) {
    SCOPED_TRACE("pool threads " + std::to_string(threads));
    PoolThreads pool(threads);
    uint64_t seed = 1234 + static_cast<uint64_t>(threads);
    for_each_kernel_set([&] {
      std::mt19937_64 rng(seed++);
      for (int trial = 0; trial < 300; ++trial) {
        run_random_case<M, S>(rng, random_shape<S>(rng, trial));
        if (::testing::Test::HasFatalFailure()) return;
      }
    });
  }
}

}  // namespace
}  // namespace qztest
