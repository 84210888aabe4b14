// The exported entries as a whole: path choice, empty outputs, addressing of
// every buffer, the fill value's conversion, the order of the serial loop and
// independence from the caller's floating-point state.
#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <limits>
#include "support/fp_control.h"
#include "support/kernel_sets.h"
#include "support/pool.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class V>
class Entry : public ::testing::Test {};
TYPED_TEST_SUITE(Entry, AllVariants, VariantNames);

template <class V>
class TrilinearEntry : public ::testing::Test {};
TYPED_TEST_SUITE(TrilinearEntry, TrilinearVariants, VariantNames);

// The grid point that column c of row r reads in the addressing tests: every
// column of a row reads a different sample where the grid allows.
struct GridPoint {
  int32_t i, j, k;
};
inline GridPoint grid_point_for(int64_t column, int64_t row, const Shape& s) {
  const int64_t linear = (column + 1000) * 7 + row * 3;
  return {static_cast<int32_t>(linear % s.nx), static_cast<int32_t>((linear / 5 + row) % s.ny),
          static_cast<int32_t>((linear / 3) % s.nz)};
}

// Puts every point of the scene on a grid point (where both methods give the
// sample itself) and checks each element against that sample.
template <Method M, class S>
void check_grid_points_read(Scene<M, S>& scene) {
  using C = CoordOf<S>;
  const Shape& s = scene.shape();
  for (int64_t r = 0; r < s.height; ++r) {
    for (int64_t c = -scene.reach(); c < s.width; ++c) {
      const GridPoint p = grid_point_for(c, r, s);
      scene.set_point(c, r, C(p.i + 1), C(p.j + 1), C(p.k + 1));
    }
  }
  ASSERT_EQ(0, scene.call(-3.0));
  for (int64_t r = 0; r < s.height; ++r) {
    for (int64_t c = -scene.reach(); c < s.width; ++c) {
      const GridPoint p = grid_point_for(c, r, s);
      EXPECT_TRUE(SameValue(scene.result(c, r), scene.converted_sample(p.i, p.j, p.k)))
          << "column " << c << " row " << r;
    }
  }
  EXPECT_TRUE(scene.only_region_written());
}

TYPED_TEST(Entry, GridWiderThanOneBlockRunsInThePoolNarrowerRunsInTheCaller) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    // The choice follows V's width alone, not the output's.
    for (const Shape s : {Shape{W, 2, 2, 3 * W + 1, 2}, Shape{W + 1, 2, 2, 1, 2},
                          Shape{W + 1, 2, 2, 3 * W + 1, 2}, Shape{1, 1, 1, 2 * W, 1}}) {
      SCOPED_TRACE("nx " + std::to_string(s.nx) + " width " + std::to_string(s.width));
      Scene<M, S> scene(s);
      ParForSpy spy;
      check_grid_points_read(scene);
      if (s.nx > W) {
        ASSERT_EQ(1u, spy.calls().size());
        EXPECT_EQ(s.height, spy.calls()[0].size);
      } else {
        EXPECT_TRUE(spy.calls().empty());
      }
    }
  });
}

TYPED_TEST(Entry, EmptyOutputOnTheCallersPathWritesNothing) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const auto& [width, height] : {std::pair{0, 3}, std::pair{5, 0}, std::pair{0, 0},
                                       std::pair{-2, 3}, std::pair{4, -1}}) {
      SCOPED_TRACE("width " + std::to_string(width) + " height " + std::to_string(height));
      Scene<M, S> scene(Shape{W, 2, 2, width, height});
      ParForSpy spy;
      EXPECT_EQ(0, scene.call(7.0));
      EXPECT_TRUE(spy.calls().empty());
      EXPECT_TRUE(scene.output_untouched());
    }
  });
}

TYPED_TEST(TrilinearEntry, NanXCoordinateGivesFillInTheCallerAndNanInThePool) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const C nan = std::numeric_limits<C>::quiet_NaN();
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      Scene<M, S> scene(Shape{nx, 3, 2, 2 * W + 1, 2});
      scene.set_all_points(nan, C(1.5), C(1.25));
      ASSERT_EQ(0, scene.call(0.1));
      for (int64_t r = 0; r < 2; ++r) {
        for (int64_t c = 0; c < 2 * W + 1; ++c) {
          if (nx > W) {
            EXPECT_TRUE(std::isnan(scene.result(c, r))) << "nx " << nx << " column " << c;
          } else {
            EXPECT_TRUE(SameValue(scene.result(c, r), static_cast<C>(0.1))) << "column " << c;
          }
        }
      }
    }
  });
}

TYPED_TEST(Entry, FillValueIsRoundedOnceToTheOutputType) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  // float: the float nearest to 0.1; double: 0.1 itself.
  const uint64_t tenth_bits = sizeof(C) == 4 ? 0x3DCCCCCDu : 0x3FB999999999999Aull;
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      Scene<M, S> scene(Shape{nx, 2, 2, W + 3, 1});
      scene.set_all_points(C(0), C(1), C(1));  // left of the grid
      ASSERT_EQ(0, scene.call(0.1));
      for (int64_t c = 0; c < W + 3; ++c) {
        EXPECT_EQ(tenth_bits, bits_of(scene.result(c))) << "nx " << nx << " column " << c;
      }
    }
  });
}

TYPED_TEST(Entry, GridWithNonZeroMinsIsStillReadFromAbsoluteZero) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 2}) {
      for (const auto& [m0, m1, m2] : {std::tuple{5, 0, 0}, std::tuple{0, 3, 0},
                                      std::tuple{0, 0, 2}, std::tuple{-4, 2, -1}}) {
        SCOPED_TRACE("nx " + std::to_string(nx) + " mins " + std::to_string(m0) + " " +
                     std::to_string(m1) + " " + std::to_string(m2));
        Scene<M, S> scene(Shape{nx, 3, 2, W + 3, 2});
        scene.describe_grid_with_mins(m0, m1, m2);
        check_grid_points_read(scene);
      }
    }
  });
}

TYPED_TEST(Entry, EveryBufferIsAddressedByItsOwnMinsAndRowStride) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int32_t nx : {2, W, W + 1, 2 * W + 3}) {
      for (const int32_t width : {1, W - 1, W, W + 1, 3 * W + 2}) {
        for (const auto& [x0, y0] : {std::pair{0, 0}, std::pair{-7, 4}, std::pair{100003, -90001}}) {
          SCOPED_TRACE("nx " + std::to_string(nx) + " width " + std::to_string(width) +
                       " first column " + std::to_string(x0) + " first row " + std::to_string(y0));
          Scene<M, S> scene(Shape{nx, 4, 3, width, 3, x0, y0});
          check_grid_points_read(scene);
          if (::testing::Test::HasFailure()) return;
        }
      }
    }
  });
}

// Fields the call has no use for (types, dimension counts, flags, device
// fields, x strides, the coordinates' extents) may hold anything.
TYPED_TEST(Entry, FieldsTheCallDoesNotReadMayHoldAnything) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const halide_type_t junk_type(halide_type_handle, 3, 5);
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      const Shape shape{nx, 3, 2, 2 * W + 1, 3, 4, -6};
      Scene<M, S> plain(shape), junk(shape);
      for (Scene<M, S>* scene : {&plain, &junk}) {
        for (int64_t r = 0; r < shape.height; ++r) {
          for (int64_t c = -scene->reach(); c < shape.width; ++c) {
            scene->set_point(c, r, C(1) + C((c + r + 8) % (nx + 1)) * C(0.6), C(1.5), C(1) + C(r));
          }
        }
      }
      for (halide_buffer_t* b : {junk.v(), junk.xq(), junk.yq(), junk.zq(), junk.vq()}) {
        b->type = junk_type;
        b->dimensions = 0;
        b->flags = ~uint64_t{0};
        b->device = 0x77;  // with host memory: not a query
        b->device_interface = reinterpret_cast<const halide_device_interface_t*>(uintptr_t{0x40});
        b->dim[0].stride = 9;
        b->dim[0].flags = -1;
        b->dim[1].flags = -1;
      }
      for (halide_buffer_t* b : {junk.xq(), junk.yq(), junk.zq()}) {
        b->dim[0].extent = 0;
        b->dim[1].extent = -5;
      }
      ASSERT_EQ(0, plain.call(-4.0));
      ASSERT_EQ(0, junk.call(-4.0));
      for (int64_t r = 0; r < shape.height; ++r) {
        for (int64_t c = -plain.reach(); c < shape.width; ++c) {
          EXPECT_TRUE(SameValue(junk.result(c, r), plain.result(c, r)))
              << "nx " << nx << " column " << c << " row " << r;
        }
      }
      EXPECT_TRUE(junk.only_region_written());
    }
  });
}

// Rows far from 0 with wide rows: min * stride no longer fits in 32 bits.
TYPED_TEST(Entry, BufferOffsetsAreSixtyFourBit) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      Scene<M, S> scene(Shape{nx, 2, 2, 70000, 2, -5, 40000});
      check_grid_points_read(scene);
    }
  });
}

// The serial loop goes row by row and column by column, both ascending. An
// output that overlaps Xq shows it: each result becomes a later coordinate.
template <Method M, class S>
void check_serial_order_through_aliasing(bool next_row) {
  using C = CoordOf<S>;
  constexpr int32_t kWidth = 6, kHeight = 4;
  TestBuffer<S> grid({0, 0, 0}, {2, 1, 1});
  grid.at(0, 0, 0) = S(2);
  grid.at(1, 0, 0) = S(1);
  TestBuffer<C> xq({0, 0}, {kWidth + 1, kHeight + 1}, {0, 1});
  TestBuffer<C> ones({0, 0}, {kWidth + 1, kHeight + 1}, {0, 1});
  xq.fill([](int64_t, int64_t, int64_t) { return C(1); });
  ones.fill([](int64_t, int64_t, int64_t) { return C(1); });
  halide_dimension_t dims[2] = {{0, kWidth, 1, 0}, xq.dim(1)};
  dims[1].extent = kHeight;
  halide_buffer_t out = *xq.raw();
  out.dim = dims;
  // Vq(x, y) is Xq(x + 1, y) or Xq(x, y + 1).
  out.host = reinterpret_cast<uint8_t*>(next_row ? &xq.at(0, 1) : &xq.at(1, 0));
  ASSERT_EQ(0, (entry_of<M, S>()(grid.raw(), xq.raw(), ones.raw(), ones.raw(), -1.0, &out)));
  // From xq = 1: V(0) = 2, so the next point reads V(1) = 1, and so on.
  for (int32_t y = 0; y < kHeight; ++y) {
    for (int32_t x = 0; x < kWidth; ++x) {
      const int32_t step = next_row ? y : x;
      const C want = step % 2 == 0 ? C(2) : C(1);
      const C got = next_row ? xq.at(x, y + 1) : xq.at(x + 1, y);
      EXPECT_TRUE(SameValue(got, want)) << "column " << x << " row " << y;
    }
  }
}

template <class V>
class ElementByElementEntry : public ::testing::Test {};
using ElementByElementVariants =
    ::testing::Types<QZ_TEST_METHOD_VARIANTS(bilinear),
                     qzinterp3d::Variant<qzinterp3d::Method::nearest, double>>;
TYPED_TEST_SUITE(ElementByElementEntry, ElementByElementVariants, VariantNames);

TYPED_TEST(ElementByElementEntry, SerialLoopWalksColumnsAscending) {
  check_serial_order_through_aliasing<TypeParam::method, typename TypeParam::sample_type>(false);
}

TYPED_TEST(ElementByElementEntry, SerialLoopWalksRowsAscending) {
  check_serial_order_through_aliasing<TypeParam::method, typename TypeParam::sample_type>(true);
}

// The caller's rounding mode and denormal flags do not reach the results,
// and are as the caller left them afterwards.
class CallerFpState {
 public:
  CallerFpState(int rounding, bool flush_denormals) : saved_rounding_(std::fegetround()) {
    std::fesetround(rounding);
#if defined(QZ_TEST_FP_CONTROL)
    saved_control_ = fp_control::control_bits();
    if (flush_denormals) fp_control::set_flush_to_zero();
#else
    (void)flush_denormals;
#endif
  }
  ~CallerFpState() {
#if defined(QZ_TEST_FP_CONTROL)
    fp_control::set(saved_control_);
#endif
    std::fesetround(saved_rounding_);
  }
  static uint64_t control_word() {
#if defined(QZ_TEST_FP_CONTROL)
    return fp_control::control_bits();
#else
    return static_cast<uint64_t>(std::fegetround());
#endif
  }

 private:
  int saved_rounding_;
  uint64_t saved_control_ = 0;
};

TYPED_TEST(Entry, CallersFloatingPointStateDoesNotChangeResults) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for (const int32_t nx : {W, W + 1}) {
    auto make = [&] {
      auto scene = std::make_unique<Scene<M, S>>(Shape{nx, 3, 3, 2 * W + 3, 2});
      // Fractions whose products round, and halves that round to even.
      for (int64_t c = 0; c < 2 * W + 3; ++c) {
        for (int64_t r = 0; r < 2; ++r) {
          scene->set_point(c, r, C(1) + C(c % nx) * C(0.3) + C(0.137), C(1.5) + C(r) * C(0.71),
                           C(2.5) - C(c % 3) * C(0.419));
        }
      }
      if constexpr (std::is_floating_point_v<S>) {
        // Subnormal samples, which flushing would zero.
        scene->sample(0, 1, 1) = std::numeric_limits<S>::denorm_min() * S(3);
        scene->sample(1, 1, 2) = -std::numeric_limits<S>::min() / S(5);
      }
      return scene;
    };
    auto plain = make();
    ASSERT_EQ(0, plain->call(-0.3));
    for (const int rounding : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
      for (const bool flush : {false, true}) {
        SCOPED_TRACE("nx " + std::to_string(nx) + " rounding " + std::to_string(rounding) +
                     (flush ? " flushing denormals" : ""));
        auto scene = make();
        uint64_t before = 0, after = 0;
        {
          CallerFpState state(rounding, flush);
          before = CallerFpState::control_word();
          ASSERT_EQ(0, scene->call(-0.3));
          after = CallerFpState::control_word();
        }
        EXPECT_EQ(before, after) << "the caller's floating-point state was changed";
        for (int64_t r = 0; r < 2; ++r) {
          for (int64_t c = 0; c < 2 * W + 3; ++c) {
            EXPECT_TRUE(SameValue(scene->result(c, r), plain->result(c, r)))
                << "column " << c << " row " << r;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace qztest
