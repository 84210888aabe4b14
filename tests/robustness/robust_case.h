// One call of one pipeline, with every buffer sized through the bounds query:
// a grid with padded strides, coordinate buffers and an output covering the
// region the query reports (widened below the first column when the row task
// runs a single block), and a sentinel band around every buffer. Outputs are
// made fresh for every run so that two runs can be compared byte for byte,
// guard bands included.
#pragma once

#include <HalideRuntime.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "support/kernel_sets.h"
#include "support/random_inputs.h"
#include "support/reference.h"
#include "support/test_buffer.h"
#include "support/variants.h"

namespace qzrobust {

using qztest::TestBuffer;

using qztest::random_coord;
using qztest::random_sample;

// The shape of one call.
struct Shape {
  int32_t nx, ny, nz;  // grid extents
  int32_t w, h;        // output extents
  int32_t x0, y0;      // output mins
  int32_t grid_pad = 0, coord_pad = 0, out_pad = 0;
};

// The output of one run, laid out over the queried region. The descriptor
// handed to the call describes the output region itself (min x0, extent w);
// the widened columns lie below it in the same storage.
template <class C>
class Output {
 public:
  Output(int32_t region_min, int32_t region_extent, int32_t stride_pad, const Shape& s)
      : buf_({region_min, s.y0}, {region_extent, s.h}, {0, stride_pad}) {
    dims_[0] = buf_.dim(0);
    dims_[1] = buf_.dim(1);
    dims_[0].min = s.x0;
    dims_[0].extent = s.w;
    desc_ = *buf_.raw();
    desc_.dim = dims_;
    desc_.host = reinterpret_cast<uint8_t*>(buf_.data() + (s.x0 - region_min));
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  halide_buffer_t* desc() { return &desc_; }
  TestBuffer<C>& buffer() { return buf_; }

 private:
  TestBuffer<C> buf_;
  halide_dimension_t dims_[2];
  halide_buffer_t desc_;
};

template <class Variant>
class Case {
 public:
  using S = typename Variant::sample_type;
  using C = typename Variant::coord_type;
  static constexpr qztest::Method M = Variant::method;
  static constexpr int32_t W = Variant::block_width;

  // Fills the grid with random samples and the coordinates by `coord`
  // (called as coord(rng, n) for the axis of extent n), the default being
  // random_coord.
  template <class CoordGen>
  Case(const Shape& s, uint64_t seed, double fill, CoordGen coord) : shape_(s), fill_(fill) {
    query_shapes();
    std::mt19937_64 rng(seed);
    v_ = std::make_unique<TestBuffer<S>>(std::vector<int32_t>{0, 0, 0},
                                         std::vector<int32_t>{s.nx, s.ny, s.nz},
                                         std::vector<int32_t>{0, s.grid_pad, s.grid_pad});
    v_->fill([&](int64_t, int64_t, int64_t) { return random_sample<S>(rng); });
    auto coords = [&](int32_t n) {
      auto b = std::make_unique<TestBuffer<C>>(std::vector<int32_t>{region_min_, s.y0},
                                               std::vector<int32_t>{region_extent_, s.h},
                                               std::vector<int32_t>{0, s.coord_pad});
      b->fill([&](int64_t, int64_t, int64_t) { return coord(rng, n); });
      return b;
    };
    xq_ = coords(s.nx);
    yq_ = coords(s.ny);
    zq_ = coords(s.nz);
  }
  Case(const Shape& s, uint64_t seed, double fill = -7.25)
      : Case(s, seed, fill,
             [](std::mt19937_64& rng, int32_t n) { return random_coord<C>(rng, n); }) {}

  bool parallel() const { return shape_.nx > W; }
  const Shape& shape() const { return shape_; }
  int32_t region_min() const { return region_min_; }
  int32_t region_extent() const { return region_extent_; }
  TestBuffer<S>& grid() { return *v_; }
  TestBuffer<C>& xq() { return *xq_; }
  TestBuffer<C>& yq() { return *yq_; }
  TestBuffer<C>& zq() { return *zq_; }
  double fill() const { return fill_; }

  std::unique_ptr<Output<C>> make_output() const {
    return std::make_unique<Output<C>>(region_min_, region_extent_, shape_.out_pad, shape_);
  }

  // Calls the pipeline into `out` and returns its status.
  int call(Output<C>& out) {
    return qztest::entry_of<M, S>()(v_->raw(), xq_->raw(), yq_->raw(), zq_->raw(), fill_,
                                    out.desc());
  }

  // A fresh output holding exactly what the call must write.
  std::unique_ptr<Output<C>> expected() {
    auto out = make_output();
    qztest::reference_call<M, S>(v_->raw(), xq_->raw(), yq_->raw(), zq_->raw(), fill_, out->desc());
    return out;
  }

  // Every element of the queried region as the reference has it (any NaN
  // equal to any NaN), and nothing outside the region written.
  ::testing::AssertionResult matches(Output<C>& got, Output<C>& want) {
    for (int64_t y = shape_.y0; y < int64_t{shape_.y0} + shape_.h; ++y) {
      for (int64_t x = region_min_; x < int64_t{region_min_} + region_extent_; ++x) {
        const C g = got.buffer().at(x, y), e = want.buffer().at(x, y);
        if (!qztest::same_value(g, e)) {
          return ::testing::AssertionFailure()
                 << qztest::entry_name<M, S>() << " nx=" << shape_.nx << " w=" << shape_.w
                 << " h=" << shape_.h << ": column " << x - shape_.x0 << " row " << y - shape_.y0
                 << " got " << g << " want " << e;
        }
      }
    }
    if (!got.buffer().outside_untouched()) {
      return ::testing::AssertionFailure() << "written outside the output region";
    }
    return ::testing::AssertionSuccess();
  }

 private:
  // Asks the pipeline for the output's x region with every buffer a query.
  void query_shapes() {
    halide_dimension_t vd[3] = {{0, shape_.nx, 0, 0}, {0, shape_.ny, 0, 0}, {0, shape_.nz, 0, 0}};
    halide_dimension_t od[2] = {{shape_.x0, shape_.w, 0, 0}, {shape_.y0, shape_.h, 0, 0}};
    halide_dimension_t xd[2], yd[2], zd[2];
    halide_buffer_t v{}, x{}, y{}, z{}, o{};
    v.dim = vd;
    v.dimensions = 3;
    o.dim = od;
    o.dimensions = 2;
    x.dim = xd;
    y.dim = yd;
    z.dim = zd;
    const int status = qztest::entry_of<M, S>()(&v, &x, &y, &z, 0.0, &o);
    EXPECT_EQ(0, status);
    region_min_ = od[0].min;
    region_extent_ = od[0].extent;
  }

  Shape shape_;
  double fill_;
  int32_t region_min_ = 0, region_extent_ = 0;
  std::unique_ptr<TestBuffer<S>> v_;
  std::unique_ptr<TestBuffer<C>> xq_, yq_, zq_;
};

// Calls `body(name)` once per kernel set this CPU can run, with that set
// forced, then gives the process its own choice back.
template <class Body>
void for_each_supported_kernel_set(Body&& body) {
  const char* original = qzinterp3d::active_kernel_set().name;
  int run = 0;
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const qzinterp3d::KernelSetEntry e = qzinterp3d::kernel_set_at(i);
    if (!e.supported) continue;
    SCOPED_TRACE(std::string("kernel set ") + e.set->name);
    ASSERT_TRUE(qzinterp3d::force_kernel_set(e.set->name));
    body(e.set->name);
    ++run;
    ++qztest::bodies_run_per_set()[e.set->name];
    if (::testing::Test::HasFatalFailure()) break;
  }
  EXPECT_GE(run, 1);
  qzinterp3d::force_kernel_set(original);
}

}  // namespace qzrobust
