// One call of one entry, with every buffer placed away from the origin:
// non-zero mins, padded rows and planes, coordinate buffers that reach past
// the output on every side (each with its own mins and row stride), and guard
// bands around everything, so that a test sees any misaddressed read or write.
#pragma once

#include <HalideRuntime.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kernels/variant.h"
#include "support/kernel_sets.h"
#include "support/reference.h"
#include "support/test_buffer.h"
#include "support/variants.h"

namespace qztest {

// A stored sample as the library must see it: the value itself for float and
// double, one rounding to float for every integer type.
template <class S>
CoordOf<S> converted(S sample) {
  return static_cast<CoordOf<S>>(sample);
}

struct Shape {
  int32_t nx = 1, ny = 1, nz = 1;  // V's extents
  int32_t width = 1, height = 1;   // the output region
  int32_t x0 = 3, y0 = -2;         // its first column and row
};

enum class Axis { x, y, z };
// Every axis, as a named array (GCC 12 for aarch64 warns falsely about a
// braced list looped over inside a loop).
inline constexpr Axis kAxes[] = {Axis::x, Axis::y, Axis::z};

template <Method M, class S>
class Scene {
 public:
  using C = CoordOf<S>;
  static constexpr int32_t W = qzinterp3d::block_width_of<S>();

  explicit Scene(Shape shape)
      : shape_(shape),
        reach_(shape.nx > W && shape.width > 0 && shape.width < W ? W - shape.width : 0),
        grid_({0, 0, 0},
              {std::max(shape.nx, 1), std::max(shape.ny, 1), std::max(shape.nz, 1)}, {0, 1, 2}),
        xq_(coordinate_buffer(1)),
        yq_(coordinate_buffer(2)),
        zq_(coordinate_buffer(3)),
        out_({shape.x0 - reach_, shape.y0},
             {std::max(shape.width, 0) + reach_, std::max(shape.height, 0)}, {0, 2}) {
    grid_.fill([&](int64_t i, int64_t j, int64_t k) { return pattern(i, j, k); });
    for (int d = 0; d < 3; ++d) v_dims_[d] = grid_.dim(d);
    v_dims_[0].extent = shape.nx;
    v_dims_[1].extent = shape.ny;
    v_dims_[2].extent = shape.nz;
    v_ = *grid_.raw();
    v_.dim = v_dims_;
    // The output descriptor covers the region only; the columns a narrow
    // output's last block reaches below it lie in the buffer's storage.
    vq_dims_[0] = {shape.x0, shape.width, 1, 0};
    vq_dims_[1] = out_.dim(1);
    vq_dims_[1].min = shape.y0;
    vq_dims_[1].extent = shape.height;
    vq_ = *out_.raw();
    vq_.dim = vq_dims_;
    vq_.host = reinterpret_cast<uint8_t*>(&out_.at(shape.x0, shape.y0));
    set_all_points(C(1), C(1), C(1));
  }

  const Shape& shape() const { return shape_; }
  // Columns below the first output column that the last block covers.
  int32_t reach() const { return reach_; }
  bool parallel() const { return shape_.nx > W; }

  // The grid at absolute (i, j, k), starting at 0 on every axis.
  S& sample(int64_t i, int64_t j, int64_t k) { return grid_.at(i, j, k); }
  CoordOf<S> converted_sample(int64_t i, int64_t j, int64_t k) {
    return converted(sample(i, j, k));
  }
  TestBuffer<S>& grid() { return grid_; }

  // Describes V with these mins, pointing its host at the absolute element
  // (m0, m1, m2): the grid is then still read from absolute 0.
  void describe_grid_with_mins(int32_t m0, int32_t m1, int32_t m2) {
    v_dims_[0].min = m0;
    v_dims_[1].min = m1;
    v_dims_[2].min = m2;
    const int64_t origin =
        int64_t{m0} + int64_t{m1} * v_dims_[1].stride + int64_t{m2} * v_dims_[2].stride;
    v_.host = reinterpret_cast<uint8_t*>(reinterpret_cast<uintptr_t>(grid_.data()) +
                                         static_cast<uintptr_t>(origin * int64_t{sizeof(S)}));
  }

  // Describes V with other mins and extents over the same storage: the
  // storage's first sample is then absolute (min0, min1, min2). The x extent
  // should stay the shape's, which decides the path.
  void describe_grid_as(const int32_t (&mins)[3], const int32_t (&extents)[3]) {
    for (int d = 0; d < 3; ++d) {
      v_dims_[d].min = mins[d];
      v_dims_[d].extent = extents[d];
    }
    v_.host = grid_.raw()->host;
  }

  // Coordinates of the point at (column, row) relative to the output's first
  // column and row; columns down to -reach() exist.
  void set_point(int64_t column, int64_t row, C x, C y, C z) {
    coord(Axis::x, column, row) = x;
    coord(Axis::y, column, row) = y;
    coord(Axis::z, column, row) = z;
  }
  void set_all_points(C x, C y, C z) {
    for (int64_t row = 0; row < shape_.height; ++row) {
      for (int64_t column = -reach_; column < shape_.width; ++column) set_point(column, row, x, y, z);
    }
  }
  C& coord(Axis axis, int64_t column, int64_t row) {
    TestBuffer<C>& b = axis == Axis::x ? *xq_ : axis == Axis::y ? *yq_ : *zq_;
    return b.at(shape_.x0 + column, shape_.y0 + row);
  }

  int call(double fill_value) {
    if (parallel()) note_pool_rows(shape_.height);
    return entry_of<M, S>()(v(), xq(), yq(), zq(), fill_value, vq());
  }

  C result(int64_t column, int64_t row = 0) {
    return out_.at(shape_.x0 + column, shape_.y0 + row);
  }
  // True when nothing outside the output's region (and the columns its last
  // block may reach below it) was written.
  bool only_region_written() const { return out_.outside_untouched(); }
  // True when not a single output element was written.
  bool output_untouched() const { return same_storage(out_, *new_output()); }

  // Another output buffer laid out like this scene's, untouched, and the
  // descriptor through which a call writes it: for calls sharing the inputs.
  std::unique_ptr<TestBuffer<C>> new_output() const {
    return std::make_unique<TestBuffer<C>>(
        std::vector<int32_t>{shape_.x0 - reach_, shape_.y0},
        std::vector<int32_t>{std::max(shape_.width, 0) + reach_, std::max(shape_.height, 0)},
        std::vector<int32_t>{0, 2});
  }
  halide_buffer_t describe_output(TestBuffer<C>& out) {
    halide_buffer_t d = vq_;
    d.host = reinterpret_cast<uint8_t*>(&out.at(shape_.x0, shape_.y0));
    return d;
  }
  // This scene's results against another output buffer's, element by element
  // (any NaN equal to any NaN) over what a call writes, and nothing written
  // elsewhere in the other buffer. Empty when equal.
  std::string mismatches_with(TestBuffer<C>& other) {
    for (int64_t row = 0; row < shape_.height; ++row) {
      for (int64_t column = -reach_; column < shape_.width; ++column) {
        const ::testing::AssertionResult same =
            SameValue(result(column, row), other.at(shape_.x0 + column, shape_.y0 + row));
        if (!same) {
          return "column " + std::to_string(column) + " row " + std::to_string(row) + ": " +
                 same.message();
        }
      }
    }
    return other.outside_untouched() ? "" : "written outside the output region";
  }

  // Every element the call must write, compared with the scalar model in
  // the frame of the path taken. Empty when all match.
  std::string mismatches_with_model(double fill_value) {
    const std::unique_ptr<TestBuffer<C>> expected = new_output();
    halide_buffer_t expected_desc = describe_output(*expected);
    reference_call<M, S>(v(), xq(), yq(), zq(), fill_value, &expected_desc);
    return mismatches_with(*expected);
  }

  halide_buffer_t* v() { return &v_; }
  halide_buffer_t* xq() { return xq_->raw(); }
  halide_buffer_t* yq() { return yq_->raw(); }
  halide_buffer_t* zq() { return zq_->raw(); }
  halide_buffer_t* vq() { return &vq_; }

 private:
  // Distinct small values, exact in every sample type; fractional for the
  // float types so that a conversion through an integer would show.
  S pattern(int64_t i, int64_t j, int64_t k) const {
    const int64_t linear = i + int64_t{std::max(shape_.nx, 1)} * (j + int64_t{std::max(shape_.ny, 1)} * k);
    const int64_t small = 1 + linear % 101;
    if constexpr (std::is_floating_point_v<S>) {
      return static_cast<S>(small) + S(0.25);
    } else {
      return static_cast<S>(small);
    }
  }

  // Coordinates outside the output region hold a point outside the grid, so
  // that reading one instead of the right element changes the result.
  std::unique_ptr<TestBuffer<C>> coordinate_buffer(int32_t margin) {
    auto b = std::make_unique<TestBuffer<C>>(
        std::vector<int32_t>{shape_.x0 - reach_ - margin, shape_.y0 - margin},
        std::vector<int32_t>{std::max(shape_.width, 0) + reach_ + 2 * margin,
                             std::max(shape_.height, 0) + 2 * margin},
        std::vector<int32_t>{0, margin});
    b->fill([](int64_t, int64_t, int64_t) { return C(-1000); });
    return b;
  }

  Shape shape_;
  int32_t reach_;
  TestBuffer<S> grid_;
  std::unique_ptr<TestBuffer<C>> xq_, yq_, zq_;
  TestBuffer<C> out_;
  halide_dimension_t v_dims_[3];
  halide_dimension_t vq_dims_[2];
  halide_buffer_t v_;
  halide_buffer_t vq_;
};

}  // namespace qztest
