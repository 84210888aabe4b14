// The checked C++ interface (qzinterp3d/interp3.hpp) against the C entries
// it wraps: the same bits on the same data, and every argument the C entries
// would take on trust rejected with a message naming it, the output left as
// it was.
#include <gtest/gtest.h>
#include <qzinterp3d/interp3.hpp>

#include "api_test_support.hpp"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

namespace {

using namespace qzinterp3d_test;
using qzinterp3d_test::expect_rejected;  // overloaded below for a Case
using Halide::Runtime::Buffer;

// Coordinates over region r along an axis of n samples: mostly inside,
// some just outside, some exact sample positions and a few NaNs.
template <class C>
Buffer<C> random_coords(const qz::region& r, int n, std::mt19937& rng) {
  Buffer<C> q(r.x_extent, r.y_extent);
  q.set_min(r.x_min, r.y_min);
  std::uniform_real_distribution<C> inside(C(0.5), C(n + 0.5));
  std::uniform_int_distribution<int> kind(0, 19), index(1, n);
  q.for_each_value([&](C& v) {
    switch (kind(rng)) {
      case 0: v = std::numeric_limits<C>::quiet_NaN(); break;
      case 1: v = C(index(rng)); break;
      default: v = inside(rng);
    }
  });
  return q;
}

template <class C>
Buffer<C> sentinel_output(const qz::region& r) {
  Buffer<C> out(r.x_extent, r.y_extent);
  out.set_min(r.x_min, r.y_min);
  out.fill(C(-12345.5));
  return out;
}

template <class C, int DA, int SA, int DB, int SB>
bool same_bits(const Buffer<C, DA, SA>& a, const Buffer<C, DB, SB>& b) {
  bool same = true;
  a.for_each_element([&](int x, int y) {
    same = same && std::memcmp(&a(x, y), &b(x, y), sizeof(C)) == 0;
  });
  return same;
}

template <class V>
class Interp3Api : public ::testing::Test {};
TYPED_TEST_SUITE(Interp3Api, AllVariants, VariantName);

// Both paths (grid no wider than one block, and wider), outputs wider and
// narrower than one block, non-zero output mins, fill value 0.1.
TYPED_TEST(Interp3Api, SameBitsAsTheCEntry) {
  using T = typename TypeParam::sample;
  using C = typename TypeParam::coord;
  constexpr qz::method M = TypeParam::method;
  constexpr int W = TypeParam::block;
  std::mt19937 rng(1234);
  for (int nx : {W, W + 3}) {
    for (int w : {1, W - 1, 2 * W + 3}) {
      SCOPED_TRACE("nx " + std::to_string(nx) + ", width " + std::to_string(w));
      Buffer<T> V = random_grid<T>(nx, 5, 4, rng);
      const qz::region r = qz::required_region<M>(V, qz::region{7, w, -2, 3});
      Buffer<C> X = random_coords<C>(r, nx, rng), Y = random_coords<C>(r, 5, rng),
                Z = random_coords<C>(r, 4, rng);
      Buffer<C> checked = sentinel_output<C>(r), raw = sentinel_output<C>(r);
      qz::interp3<M>(V, X, Y, Z, 0.1, checked);
      const int status = qz::raw_entry<M, T>()(V.raw_buffer(), X.raw_buffer(), Y.raw_buffer(),
                                               Z.raw_buffer(), 0.1, raw.raw_buffer());
      ASSERT_EQ(status, 0);
      EXPECT_TRUE(same_bits(checked, raw));
      EXPECT_NE(checked(r.x_min, r.y_min), C(-12345.5));
    }
  }
}

// The returning overload gives Xq's region, whatever its width, with the
// bits the C entry gives for those columns of a full-block call.
TYPED_TEST(Interp3Api, ReturnedOutputHasTheCoordinatesRegion) {
  using T = typename TypeParam::sample;
  using C = typename TypeParam::coord;
  constexpr qz::method M = TypeParam::method;
  constexpr int W = TypeParam::block;
  std::mt19937 rng(99);
  for (int w : {1, W - 1, W, 3 * W + 1}) {
    SCOPED_TRACE("width " + std::to_string(w));
    Buffer<T> V = random_grid<T>(W + 1, 3, 6, rng);
    const qz::region want{-4, w, 10, 2};
    const qz::region r = qz::required_region<M>(V, want);
    Buffer<C> X = random_coords<C>(r, W + 1, rng), Y = random_coords<C>(r, 3, rng),
              Z = random_coords<C>(r, 6, rng);
    Buffer<C> raw = sentinel_output<C>(r);
    qz::raw_entry<M, T>()(V.raw_buffer(), X.raw_buffer(), Y.raw_buffer(), Z.raw_buffer(), -7.0,
                          raw.raw_buffer());
    auto crop = [&](const Buffer<C>& q) { return q.cropped(0, want.x_min, want.x_extent); };
    Buffer<C, 2> out = qz::interp3<M>(V, crop(X), crop(Y), crop(Z), -7.0);
    ASSERT_EQ(out.dimensions(), 2);
    EXPECT_EQ(out.dim(0).min(), want.x_min);
    EXPECT_EQ(out.dim(0).extent(), want.x_extent);
    EXPECT_EQ(out.dim(1).min(), want.y_min);
    EXPECT_EQ(out.dim(1).extent(), want.y_extent);
    EXPECT_TRUE(same_bits(out, crop(raw)));
  }
}

TEST(Interp3Api, RawEntryIsTheNamedCFunction) {
  using M = qz::method;
  EXPECT_EQ((qz::raw_entry<M::nearest, float>()), &interp3_nearest_float32);
  EXPECT_EQ((qz::raw_entry<M::nearest, double>()), &interp3_nearest_float64);
  EXPECT_EQ((qz::raw_entry<M::nearest, int8_t>()), &interp3_nearest_int8);
  EXPECT_EQ((qz::raw_entry<M::nearest, uint8_t>()), &interp3_nearest_uint8);
  EXPECT_EQ((qz::raw_entry<M::nearest, int16_t>()), &interp3_nearest_int16);
  EXPECT_EQ((qz::raw_entry<M::nearest, uint16_t>()), &interp3_nearest_uint16);
  EXPECT_EQ((qz::raw_entry<M::nearest, int32_t>()), &interp3_nearest_int32);
  EXPECT_EQ((qz::raw_entry<M::nearest, uint32_t>()), &interp3_nearest_uint32);
  EXPECT_EQ((qz::raw_entry<M::linear, float>()), &interp3_bilinear_float32);
  EXPECT_EQ((qz::raw_entry<M::linear, double>()), &interp3_bilinear_float64);
  EXPECT_EQ((qz::raw_entry<M::linear, int8_t>()), &interp3_bilinear_int8);
  EXPECT_EQ((qz::raw_entry<M::linear, uint8_t>()), &interp3_bilinear_uint8);
  EXPECT_EQ((qz::raw_entry<M::linear, int16_t>()), &interp3_bilinear_int16);
  EXPECT_EQ((qz::raw_entry<M::linear, uint16_t>()), &interp3_bilinear_uint16);
  EXPECT_EQ((qz::raw_entry<M::linear, int32_t>()), &interp3_bilinear_int32);
  EXPECT_EQ((qz::raw_entry<M::linear, uint32_t>()), &interp3_bilinear_uint32);
  EXPECT_EQ((qz::raw_entry<M::bilinear, float>()), &interp3_bilinear_float32);
}

TEST(Interp3Api, KnownValues) {
  Buffer<uint8_t> V(20, 3, 2);  // wider than one block of 16 samples
  V.for_each_element([&](int i, int j, int k) { V(i, j, k) = uint8_t(i + 10 * j + 100 * k); });
  Buffer<float> X(3, 1), Y(3, 1), Z(3, 1);
  X(0, 0) = 4.5f, X(1, 0) = 20.0f, X(2, 0) = 20.5f;
  Y.fill(2.0f);
  Z.fill(2.0f);
  auto lin = qz::interp3<qz::method::linear>(V, X, Y, Z, 0.1);
  EXPECT_EQ(lin(0, 0), 113.5f);  // 1-based x 4.5: between 0-based samples 3 and 4
  EXPECT_EQ(lin(1, 0), 129.0f);
  EXPECT_EQ(lin(2, 0), 0.1f);  // outside, fill rounded to float
  auto near = qz::interp3<qz::method::nearest>(V, X, Y, Z, -1.0);
  EXPECT_EQ(near(0, 0), 114.0f);  // 3.5 rounds to even: 4
  EXPECT_EQ(near(2, 0), -1.0f);
}

TEST(Interp3Api, RequiredRegionIsTheBoundsQuery) {
  Buffer<float> V5(5, 2, 2), V4(4, 2, 2);
  const qz::region out{10, 3, 0, 2};
  EXPECT_EQ(qz::required_region<qz::method::linear>(V5, out), (qz::region{9, 4, 0, 2}));
  EXPECT_EQ(qz::required_region<qz::method::linear>(V4, out), out);
  EXPECT_EQ(qz::required_region<qz::method::nearest>(V5, qz::region{10, 7, 0, 2}),
            (qz::region{10, 7, 0, 2}));
  Buffer<int8_t> V17(17, 1, 1);
  EXPECT_EQ(qz::required_region<qz::method::nearest>(V17, qz::region{0, 5, 3, 1}),
            (qz::region{-11, 16, 3, 1}));
}

TEST(Interp3Api, EmptyOutputIsANoOp) {
  Buffer<float> V(8, 2, 2), X(0, 3), Y(0, 3), Z(0, 3), out(0, 3);
  EXPECT_NO_THROW(qz::interp3<qz::method::linear>(V, X, Y, Z, 0.0, out));
  auto returned = qz::interp3<qz::method::linear>(V, X, Y, Z);
  EXPECT_EQ(returned.dim(0).extent(), 0);
  EXPECT_EQ(returned.dim(1).extent(), 3);
}

// ---------------------------------------------------------------------------
// Violations. Each case starts from a valid float32 call on a grid 8 wide
// (the pooled path), breaks one thing, and expects the message and an
// untouched output.

struct Case {
  Buffer<float> V{8, 4, 3};
  Buffer<float> X{6, 3}, Y{6, 3}, Z{6, 3};
  Buffer<float> out{6, 3};

  Case() {
    V.fill(1.0f);
    X.fill(2.0f);
    Y.fill(2.0f);
    Z.fill(2.0f);
    out.fill(-3.0f);
  }
};

bool all_equal(const Buffer<float>& b, float v) {
  bool same = true;
  b.for_each_value([&](const float& e) { same = same && std::memcmp(&e, &v, sizeof v) == 0; });
  return same;
}

// Runs the call through the overload taking an output; `out` must keep its
// sentinel.
void expect_rejected(Case& c, const char* argument, const std::string& message) {
  expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, c.out); },
                  argument, message);
  EXPECT_TRUE(all_equal(c.out, -3.0f)) << "the output was written";
}

TEST(Interp3ApiViolations, ValidCaseIsAccepted) {
  Case c;
  qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, c.out);
  EXPECT_TRUE(all_equal(c.out, 1.0f));
}

TEST(Interp3ApiViolations, DimensionCounts) {
  {
    Case c;
    c.V = Buffer<float>(8, 4);
    expect_rejected(c, "V", "V: expected 3 dimensions, got 2");
  }
  {
    Case c;
    c.X = Buffer<float>(6, 3, 2);
    expect_rejected(c, "Xq", "Xq: expected 2 dimensions, got 3");
  }
  {
    Case c;
    c.Y = Buffer<float>(18);
    expect_rejected(c, "Yq", "Yq: expected 2 dimensions, got 1");
  }
  {
    Case c;
    c.Z = Buffer<float>(6, 3, 1);
    expect_rejected(c, "Zq", "Zq: expected 2 dimensions, got 3");
  }
  {
    Case c;
    Buffer<float> out3(6, 3, 1);
    out3.fill(-3.0f);
    expect_rejected([&] { qz::interp3<qz::method::nearest>(c.V, c.X, c.Y, c.Z, 0.0, out3); },
                    "Vq", "Vq: expected 2 dimensions, got 3");
    EXPECT_TRUE(all_equal(out3, -3.0f));
  }
}

TEST(Interp3ApiViolations, UnitInnerStride) {
  {
    Case c;
    c.V = Buffer<float>(4, 8, 3).transposed(0, 1);  // 8 x 4 x 3 with x stride 4
    c.V.fill(1.0f);
    expect_rejected(c, "V", "V: expected stride 1 in dimension 0, got 4");
  }
  {
    Case c;
    c.Y = Buffer<float>(3, 6).transposed(0, 1);
    c.Y.fill(2.0f);
    expect_rejected(c, "Yq", "Yq: expected stride 1 in dimension 0, got 3");
  }
  {
    Case c;
    Buffer<float> t = Buffer<float>(3, 6).transposed(0, 1);
    t.fill(-3.0f);
    expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, t); }, "Vq",
                    "Vq: expected stride 1 in dimension 0, got 3");
    EXPECT_TRUE(all_equal(t, -3.0f));
  }
}

TEST(Interp3ApiViolations, GridMinsAndExtents) {
  {
    Case c;
    c.V.set_min(0, 1, 0);
    expect_rejected(c, "V", "V: expected min 0 in dimension 1, got 1");
  }
  {
    Case c;
    c.V.set_min(-2, 0, 0);
    expect_rejected(c, "V", "V: expected min 0 in dimension 0, got -2");
  }
  {
    Case c;
    c.V = Buffer<float>(8, 4, 0);
    expect_rejected(c, "V", "V: expected a positive extent in dimension 2, got 0");
  }
  {
    Case c;
    float storage[6 * 3];
    halide_dimension_t shape[2] = {{0, 6, 1}, {0, -1, 6}};
    c.X = Buffer<float>(storage, 2, shape);
    expect_rejected(c, "Xq", "Xq: expected a non-negative extent in dimension 1, got -1");
  }
}

TEST(Interp3ApiViolations, HostMemory) {
  {
    Case c;
    c.Z = Buffer<float>(nullptr, 6, 3);
    expect_rejected(c, "Zq",
                    "Zq: expected host memory, got a buffer without any (to the C entries that "
                    "would be a bounds query)");
  }
  {
    Case c;
    c.V = Buffer<float>(nullptr, 8, 4, 3);
    expect_rejected(c, "V",
                    "V: expected host memory, got a buffer without any (to the C entries that "
                    "would be a bounds query)");
  }
  {
    Case c;
    c.X.raw_buffer()->set_device_dirty(true);
    expect_rejected(c, "Xq",
                    "Xq: expected its data on the host, got a buffer whose device copy is newer "
                    "(copy it to the host first)");
    c.X.raw_buffer()->set_device_dirty(false);
  }
}

TEST(Interp3ApiViolations, CoordinatesCoverTheOutput) {
  {
    Case c;
    c.X = c.X.cropped(0, 0, 5);
    expect_rejected(c, "Xq",
                    "Xq: expected to cover x in [0, 6) and y in [0, 3) (the output's region), "
                    "got x in [0, 5) and y in [0, 3)");
  }
  {
    Case c;
    c.Z = c.Z.cropped(1, 1, 2);
    expect_rejected(c, "Zq",
                    "Zq: expected to cover x in [0, 6) and y in [0, 3) (the output's region), "
                    "got x in [0, 6) and y in [1, 3)");
  }
  {
    Case c;
    c.Y.set_min(1, 0);
    expect_rejected(c, "Yq",
                    "Yq: expected to cover x in [0, 6) and y in [0, 3) (the output's region), "
                    "got x in [1, 7) and y in [0, 3)");
  }
}

// A grid 8 floats wide and an output 3 wide: the C entry computes the block
// of 4 columns ending at the output's last column.
TEST(Interp3ApiViolations, CoordinatesCoverTheWidenedBlock) {
  Case c;
  c.out = Buffer<float>(4, 3);
  c.out.set_min(9, 0);
  c.out.fill(-3.0f);
  c.X.set_min(10, 0);
  c.X = c.X.cropped(0, 10, 3);
  c.Y.set_min(9, 0);
  c.Z.set_min(9, 0);
  expect_rejected(c, "Xq",
                  "Xq: expected to cover x in [9, 13) and y in [0, 3) (the output's region), "
                  "got x in [10, 13) and y in [0, 3)");

  Buffer<float> narrow(3, 3);
  narrow.set_min(10, 0);
  narrow.fill(-3.0f);
  Buffer<float> X = c.Y;  // covers [9, 15)
  expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, X, X, X, 0.0, narrow); }, "Vq",
                  "Vq: expected the region x in [9, 13) and y in [0, 3) (V is wider than one "
                  "block of 4 samples, so a narrower output is computed as one full block), got "
                  "x in [10, 13) and y in [0, 3); size buffers with required_region() or let "
                  "interp3() allocate the output");
  EXPECT_TRUE(all_equal(narrow, -3.0f));

  // Everything narrow: the first coordinate array is named, with the block.
  Buffer<float> Xn = X.cropped(0, 10, 3);
  expect_rejected([&] { qz::interp3<qz::method::nearest>(c.V, Xn, X, X, 0.0, narrow); }, "Xq",
                  "Xq: expected to cover x in [9, 13) and y in [0, 3) (the output's region "
                  "widened to one full block), got x in [10, 13) and y in [0, 3)");
  EXPECT_TRUE(all_equal(narrow, -3.0f));
}

TEST(Interp3ApiViolations, OutputRowsOverlap) {
  Case c;
  float storage[2 * 3 + 4];
  halide_dimension_t shape[2] = {{0, 6, 1}, {0, 3, 2}};
  Buffer<float> rows(storage, 2, shape);
  rows.fill(-3.0f);
  expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, rows); }, "Vq",
                  "Vq: expected rows that do not overlap (a row stride of at least the width 6 "
                  "in magnitude), got row stride 2");
  EXPECT_TRUE(all_equal(rows, -3.0f));
}

TEST(Interp3ApiViolations, OutputAliasesAnInput) {
  {
    Case c;
    Buffer<float> alias(c.Y.data(), 6, 3);  // the same memory as Yq
    expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, alias); },
                    "Vq", "Vq: expected memory disjoint from Yq's, got a buffer that overlaps it");
    EXPECT_TRUE(all_equal(c.Y, 2.0f));
  }
  {
    Case c;
    Buffer<float> alias(c.V.data() + 10, 6, 3);  // inside the grid
    expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, alias); },
                    "Vq", "Vq: expected memory disjoint from V's, got a buffer that overlaps it");
    EXPECT_TRUE(all_equal(c.V, 1.0f));
  }
  {
    Case c;
    Buffer<float> alias(c.Z.data() + 17, 6, 3);  // last element of Zq is its first
    expect_rejected([&] { qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z, 0.0, alias); },
                    "Vq", "Vq: expected memory disjoint from Zq's, got a buffer that overlaps it");
  }
  {
    // Adjacent but disjoint is fine.
    Case c;
    Buffer<float> storage(6, 6);
    storage.fill(2.0f);
    Buffer<float> coords = storage.cropped(1, 0, 3), after = storage.cropped(1, 3, 3);
    after.set_min(0, 0);
    qz::interp3<qz::method::linear>(c.V, coords, coords, coords, 0.0, after);
    EXPECT_TRUE(all_equal(after, 1.0f));
  }
}

TEST(Interp3ApiViolations, ReturningOverload) {
  Case c;
  expect_rejected([&] { (void)qz::interp3<qz::method::linear>(c.V, Buffer<float>(6), c.Y, c.Z); },
                  "Xq", "Xq: expected 2 dimensions, got 1");
  expect_rejected(
      [&] { (void)qz::interp3<qz::method::linear>(c.V, c.X, c.Y, c.Z.cropped(0, 0, 2)); }, "Zq",
      "Zq: expected to cover x in [0, 6) and y in [0, 3) (Xq's region, the output's), got x in "
      "[0, 2) and y in [0, 3)");
  c.V.set_min(0, 0, 4);
  expect_rejected([&] { (void)qz::interp3<qz::method::nearest>(c.V, c.X, c.Y, c.Z); }, "V",
                  "V: expected min 0 in dimension 2, got 4");
}

}  // namespace
