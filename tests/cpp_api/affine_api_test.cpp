// qzinterp3d::affine_transform and its coordinate formula (affine_row,
// library_coordinate): the same bits as the C entries on coordinates formed
// by the formula, boxes of a larger output that agree with it, and unfit
// arguments rejected with the output untouched.
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
using Halide::Runtime::Buffer;

// An oblique map that reaches beyond the grid on every side.
qz::affine_map oblique_map(std::mt19937& rng) {
  std::uniform_real_distribution<double> d(-0.4, 0.4), off(-2.0, 2.0);
  qz::affine_map map;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) map.matrix[i][j] = d(rng) + (i + j == 2 ? 0.9 : 0.0);
    map.offset[i] = off(rng);
  }
  return map;
}

template <class C>
Buffer<C> sentinel(int w, int h, int d) {
  Buffer<C> out(w, h, d);
  out.fill(C(-12345.5));
  return out;
}

template <class C, int DA, int SA, int DB, int SB>
bool same_bits(const Buffer<C, DA, SA>& a, const Buffer<C, DB, SB>& b) {
  bool same = true;
  a.for_each_element([&](int x, int y, int z) {
    same = same && std::memcmp(&a(x, y, z), &b(x, y, z), sizeof(C)) == 0;
  });
  return same;
}

// The reference: each x-row's coordinates from affine_row, all rows in one
// call of the checked interp3 (the C entry's bits, tested elsewhere).
template <qz::method M, class T>
Buffer<qz::coord_t<T>> reference(const Buffer<T>& V, const qz::affine_map& map,
                                 qz::boundary mode, double fill, int w, int h, int d) {
  using C = qz::coord_t<T>;
  Buffer<C> X(w, h * d), Y(w, h * d), Z(w, h * d);
  const int32_t n[3] = {V.dim(0).extent(), V.dim(1).extent(), V.dim(2).extent()};
  for (int z = 0; z < d; ++z) {
    for (int y = 0; y < h; ++y) {
      const int64_t o[3] = {z, y, 0};
      const int row = y + h * z;
      qz::affine_row<C>(map, n, mode, o, w, &X(0, row), &Y(0, row), &Z(0, row));
    }
  }
  Buffer<C> rows = qz::interp3<M>(V, X, Y, Z, fill);
  Buffer<C> out(w, h, d);
  out.for_each_element([&](int x, int y, int z) { out(x, y, z) = rows(x, y + h * z); });
  return out;
}

template <class V>
class AffineApi : public ::testing::Test {};
TYPED_TEST_SUITE(AffineApi, AllVariants, VariantName);

// Grids no wider and wider than one block, rows narrower and wider than one
// block (odd widths), both boundaries.
TYPED_TEST(AffineApi, SameBitsAsTheCEntryOnFormulaCoordinates) {
  using T = typename TypeParam::sample;
  using C = typename TypeParam::coord;
  constexpr qz::method M = TypeParam::method;
  constexpr int W = TypeParam::block;
  std::mt19937 rng(77);
  for (int nx : {W, W + 3}) {
    for (int w : {1, W - 1, 2 * W + 3, 37}) {
      for (qz::boundary mode : {qz::boundary::constant, qz::boundary::nearest}) {
        SCOPED_TRACE("nx " + std::to_string(nx) + ", width " + std::to_string(w) +
                     (mode == qz::boundary::nearest ? ", nearest" : ", constant"));
        const Buffer<T> V = random_grid<T>(nx, 6, 5, rng);
        const qz::affine_map map = oblique_map(rng);
        Buffer<C> out = sentinel<C>(w, 7, 3);
        qz::affine_transform<M>(V, map, mode, 0.1, out);
        EXPECT_TRUE(same_bits(out, reference<M>(V, map, mode, 0.1, w, 7, 3)));
      }
    }
  }
}

// A buffer over a box of the output (its mins the box's first index) holds
// the bits of that box of the whole output.
TYPED_TEST(AffineApi, BoxOfTheOutputMatchesTheWhole) {
  using T = typename TypeParam::sample;
  using C = typename TypeParam::coord;
  constexpr qz::method M = TypeParam::method;
  std::mt19937 rng(5);
  const Buffer<T> V = random_grid<T>(TypeParam::block + 2, 6, 5, rng);
  const qz::affine_map map = oblique_map(rng);
  Buffer<C> whole = sentinel<C>(19, 8, 6);
  qz::affine_transform<M>(V, map, qz::boundary::constant, -1.0, whole);
  Buffer<C> box = sentinel<C>(19, 3, 2);  // whole rows, as the library's results need
  box.set_min(0, 4, 3);
  qz::affine_transform<M>(V, map, qz::boundary::constant, -1.0, box);
  EXPECT_TRUE(same_bits(box, whole.cropped(1, 4, 3).cropped(2, 3, 2)));
}

// Many rows, so that several tasks of the thread pool share them.
TEST(AffineApiRows, ManyRowsInParallel) {
  std::mt19937 rng(9);
  const Buffer<float> V = random_grid<float>(30, 20, 10, rng);
  const qz::affine_map map = oblique_map(rng);
  Buffer<float> out = sentinel<float>(300, 250, 3);
  qz::affine_transform<qz::method::linear>(V, map, qz::boundary::nearest, 0.0, out);
  EXPECT_TRUE(same_bits(out, reference<qz::method::linear>(V, map, qz::boundary::nearest, 0.0,
                                                           300, 250, 3)));
}

// The formula, term by term, in double, in this order; then + 1 and one
// rounding; nearest clamps first.
TEST(AffineApiFormula, AffineRowIsTheDocumentedExpression) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> d(-3.0, 3.0);
  for (int trial = 0; trial < 200; ++trial) {
    qz::affine_map map;
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) map.matrix[i][j] = d(rng) / 3.0;
      map.offset[i] = d(rng) * 7.0;
    }
    const int32_t n[3] = {11, 7, 5};
    const int64_t o[3] = {trial % 5, trial % 7 + 100, trial};
    float xf[13], yf[13], zf[13];
    double xd[13], yd[13], zd[13];
    for (qz::boundary mode : {qz::boundary::constant, qz::boundary::nearest}) {
      qz::affine_row<float>(map, n, mode, o, 13, xf, yf, zf);
      qz::affine_row<double>(map, n, mode, o, 13, xd, yd, zd);
      const float* f[3] = {xf, yf, zf};
      const double* dd[3] = {xd, yd, zd};
      for (int dim = 0; dim < 3; ++dim) {
        const double* m = map.matrix[dim];
        for (int i = 0; i < 13; ++i) {
          double c = ((m[0] * double(o[0]) + m[1] * double(o[1])) + m[2] * double(o[2] + i)) +
                     map.offset[dim];
          if (mode == qz::boundary::nearest) c = std::fmin(std::fmax(c, 0.0), n[dim] - 1.0);
          const double L = c + 1.0;
          EXPECT_EQ(std::memcmp(&dd[dim][i], &L, sizeof L), 0);
          const float Lf = static_cast<float>(L);
          EXPECT_EQ(std::memcmp(&f[dim][i], &Lf, sizeof Lf), 0);
        }
      }
    }
  }
}

TEST(AffineApiFormula, NanStaysNanInNearestMode) {
  EXPECT_TRUE(std::isnan(qz::library_coordinate<float>(std::nan(""), 4.0, qz::boundary::nearest)));
  EXPECT_EQ(qz::library_coordinate<float>(-7.0, 4.0, qz::boundary::nearest), 1.0f);
  EXPECT_EQ(qz::library_coordinate<double>(9.0, 4.0, qz::boundary::nearest), 5.0);
  EXPECT_EQ(qz::library_coordinate<double>(-7.0, 4.0, qz::boundary::constant), -6.0);
  // one rounding: 2^-30 + 1 in double, then to float
  EXPECT_EQ(qz::library_coordinate<float>(std::ldexp(1.0, -30), 4.0, qz::boundary::constant), 1.0f);
}

// --- rejected arguments ------------------------------------------------------

bool untouched(const Buffer<float>& b) {
  bool same = true;
  b.for_each_value([&](const float& v) { same = same && v == -12345.5f; });
  return same;
}

TEST(AffineApiViolations, OutputMustBe3D) {
  Buffer<float> V(4, 4, 4);
  V.fill(1.0f);
  Buffer<float, Halide::Runtime::AnyDims> flat(5, 6);
  flat.fill(-12345.5f);
  expect_rejected([&] { qz::affine_transform<qz::method::linear>(V, {}, qz::boundary::constant, 0.0, flat); },
                  "Vq", "Vq: expected 3 dimensions, got 2");
}

TEST(AffineApiViolations, GridMinsMustBeZero) {
  Buffer<float> V(4, 4, 4);
  V.set_min(1, 0, 0);
  Buffer<float> out = sentinel<float>(5, 2, 2);
  expect_rejected([&] { qz::affine_transform<qz::method::nearest>(V, {}, qz::boundary::constant, 0.0, out); },
                  "V", "V: expected min 0 in dimension 0, got 1");
  EXPECT_TRUE(untouched(out));
}

TEST(AffineApiViolations, OutputRowsMustNotOverlap) {
  Buffer<float> V(4, 4, 4);
  V.fill(1.0f);
  float storage[64];
  std::fill(storage, storage + 64, -12345.5f);
  halide_dimension_t dims[3] = {{0, 8, 1}, {0, 3, 4}, {0, 2, 16}};  // rows 8 wide, 4 apart
  Buffer<float> out(storage, 3, dims);
  expect_rejected([&] { qz::affine_transform<qz::method::linear>(V, {}, qz::boundary::constant, 0.0, out); },
                  "Vq", "Vq: expected rows that do not overlap, got strides 4 and 16 for rows of 8 elements");
  EXPECT_TRUE(untouched(out));
  halide_dimension_t planes[3] = {{0, 4, 1}, {0, 3, 4}, {0, 2, 8}};  // planes overlap
  Buffer<float> overlapping(storage, 3, planes);
  expect_rejected([&] { qz::affine_transform<qz::method::linear>(V, {}, qz::boundary::constant, 0.0, overlapping); },
                  "Vq", "Vq: expected rows that do not overlap, got strides 4 and 8 for rows of 4 elements");
  EXPECT_TRUE(untouched(out));
}

TEST(AffineApiViolations, OutputMustNotAliasTheGrid) {
  Buffer<float> V(8, 4, 4);
  V.fill(-12345.5f);
  Buffer<float> alias = V.cropped(2, 1, 2);
  expect_rejected([&] { qz::affine_transform<qz::method::linear>(V, {}, qz::boundary::constant, 0.0, alias); },
                  "Vq", "Vq: expected memory disjoint from V's, got a buffer that overlaps it");
  EXPECT_TRUE(untouched(V));
}

TEST(AffineApiViolations, EmptyOutputIsANoOp) {
  Buffer<float> V(4, 4, 4);
  V.fill(1.0f);
  Buffer<float> empty(0, 3, 2);
  qz::affine_transform<qz::method::linear>(V, {}, qz::boundary::constant, 0.0, empty);
}

}  // namespace
