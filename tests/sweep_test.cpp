// Randomized calls of every entry on both paths, on every kernel set this CPU
// can run, compared element by element with the reference (the scalar model
// in the frame each path must follow), guard bands included.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "support/reference.h"
#include "support/test_buffer.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class S>
S random_sample(std::mt19937_64& rng) {
  if constexpr (std::is_floating_point_v<S>) {
    std::uniform_real_distribution<S> d(-1000, 1000);
    return d(rng);
  } else {
    std::uniform_int_distribution<int64_t> d(std::numeric_limits<S>::min(),
                                             std::numeric_limits<S>::max());
    return static_cast<S>(d(rng));
  }
}

// Coordinates that exercise every rule: inside, integers, halves, edges,
// slightly outside, NaN, infinities, huge magnitudes.
template <class C>
C random_coord(std::mt19937_64& rng, int32_t n) {
  std::uniform_int_distribution<int> pick(0, 19);
  std::uniform_real_distribution<C> inside(C(1), C(n > 0 ? n : 1));
  std::uniform_int_distribution<int32_t> integer(0, n + 1);
  switch (pick(rng)) {
    case 0: return std::numeric_limits<C>::quiet_NaN();
    case 1: return std::numeric_limits<C>::infinity();
    case 2: return -std::numeric_limits<C>::infinity();
    case 3: return C(integer(rng));
    case 4: return C(integer(rng)) + C(0.5);
    case 5: return C(n) + C(0.25);
    case 6: return std::nextafter(C(1), C(0));
    case 7: return std::nextafter(C(n), C(2 * n + 2));
    case 8: return C(3e9);
    case 9: return C(-3e9);
    case 10: return C(n);
    default: return inside(rng);
  }
}

template <class V>
class Sweep : public ::testing::Test {};
TYPED_TEST_SUITE(Sweep, AllVariants, VariantNames);

template <class Variant>
void run_case(std::mt19937_64& rng, int32_t nx, int32_t ny, int32_t nz, int32_t w, int32_t h) {
  using S = typename Variant::sample_type;
  using C = typename Variant::coord_type;
  constexpr Method M = Variant::method;
  constexpr int32_t W = Variant::block_width;
  std::uniform_int_distribution<int32_t> small(-7, 7), pad(0, 3);

  TestBuffer<S> v({0, 0, 0}, {nx, ny, nz}, {0, pad(rng), pad(rng)});
  v.fill([&](int64_t, int64_t, int64_t) { return random_sample<S>(rng); });

  // The output region, widened to a full block below its first column when
  // the parallel path runs a single block (as the bounds query asks).
  const int32_t x0 = small(rng), y0 = small(rng);
  const int32_t reach = (nx > W && w < W) ? W - w : 0;
  auto coord_buffer = [&](int32_t n) {
    auto b = std::make_unique<TestBuffer<C>>(std::vector<int32_t>{x0 - reach, y0},
                                             std::vector<int32_t>{w + reach, h},
                                             std::vector<int32_t>{0, pad(rng)});
    b->fill([&](int64_t, int64_t, int64_t) { return random_coord<C>(rng, n); });
    return b;
  };
  auto xq = coord_buffer(nx), yq = coord_buffer(ny), zq = coord_buffer(nz);
  const int32_t out_pad = pad(rng);
  TestBuffer<C> out({x0 - reach, y0}, {w + reach, h}, {0, out_pad});
  TestBuffer<C> expected({x0 - reach, y0}, {w + reach, h}, {0, out_pad});
  // The call describes the output region itself; the widened columns lie in
  // the buffer's storage below it.
  halide_dimension_t out_dims[2] = {out.dim(0), out.dim(1)};
  out_dims[0].min = x0;
  out_dims[0].extent = w;
  halide_buffer_t out_desc = *out.raw();
  out_desc.dim = out_dims;
  out_desc.host = reinterpret_cast<uint8_t*>(&out.at(x0, y0));
  halide_buffer_t expected_desc = *expected.raw();
  expected_desc.dim = out_dims;
  expected_desc.host = reinterpret_cast<uint8_t*>(&expected.at(x0, y0));

  const std::uniform_real_distribution<double> fill_pick(-5, 5);
  std::uniform_real_distribution<double> fd(-5, 5);
  const double fill = fd(rng);
  ASSERT_EQ(0, (entry_of<M, S>()(v.raw(), xq->raw(), yq->raw(), zq->raw(), fill, &out_desc)));
  reference_call<M, S>(v.raw(), xq->raw(), yq->raw(), zq->raw(), fill, &expected_desc);

  for (int64_t y = y0; y < y0 + h; ++y) {
    for (int64_t x = x0 - reach; x < x0 + w; ++x) {
      ASSERT_TRUE(same_value(out.at(x, y), expected.at(x, y)))
          << entry_name<M, S>() << " nx=" << nx << " ny=" << ny << " nz=" << nz << " w=" << w
          << " h=" << h << " at column " << x - x0 << " row " << y - y0 << ": got "
          << out.at(x, y) << " expected " << expected.at(x, y)
          << " coords " << xq->at(x, y) << " " << yq->at(x, y) << " " << zq->at(x, y);
    }
  }
  ASSERT_TRUE(out.outside_untouched()) << "write outside the output region";
}

TYPED_TEST(Sweep, EveryKernelSetMatchesTheModel) {
  constexpr int32_t W = TypeParam::block_width;
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const auto entry = qzinterp3d::kernel_set_at(i);
    if (!entry.supported) continue;
    SCOPED_TRACE(entry.set->name);
    ASSERT_TRUE(qzinterp3d::force_kernel_set(entry.set->name));
    const uint64_t rows_before = qzinterp3d::rows_run_by(entry.set->name);
    std::mt19937_64 rng(1234 + i);
    std::uniform_int_distribution<int32_t> axis(1, 6), height(0, 4);
    // Widths reach past the widest vector (16 lanes) plus a remainder.
    std::uniform_int_distribution<int32_t> width(0, 3 * W + 40), nx_pick(1, 3 * W + 3);
    for (int trial = 0; trial < 150; ++trial) {
      // Both sides of the path threshold, every width class.
      const int32_t nx = trial % 3 == 0 ? W + trial % 2 : nx_pick(rng);
      run_case<TypeParam>(rng, nx, axis(rng), axis(rng), width(rng), height(rng));
      if (::testing::Test::HasFatalFailure()) return;
    }
    EXPECT_GT(qzinterp3d::rows_run_by(entry.set->name), rows_before)
        << "the forced kernel set ran no rows";
  }
}

}  // namespace
}  // namespace qztest
