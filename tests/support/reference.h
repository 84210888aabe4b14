// The entries by variant, and the reference for a whole call: which output
// elements each path writes and, through the scalar model, with which value.
#pragma once

#include <HalideRuntime.h>

#include <cstdint>

#include "kernels/blend.h"
#include "kernels/coords.h"
#include "kernels/model.h"
#include "kernels/variant.h"
#include "qzinterp3d_halide.h"
#include "support/test_buffer.h"

namespace qztest {

using qzinterp3d::BlockKind;
using qzinterp3d::CoordOf;
using qzinterp3d::Method;

using EntryFn = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                        double, halide_buffer_t*);

template <Method M, class Sample>
EntryFn entry_of();
#define QZ_TEST_ENTRY_OF(method, type, T)                  \
  template <>                                              \
  inline EntryFn entry_of<Method::method, T>() {           \
    return &interp3_##method##_##type;                     \
  }
QZ_FOR_EACH_VARIANT(QZ_TEST_ENTRY_OF)
#undef QZ_TEST_ENTRY_OF

template <Method M, class Sample>
const char* entry_name() {
  static const std::string name = std::string("interp3_") +
                                  (M == Method::nearest ? "nearest_" : "bilinear_") +
                                  qzinterp3d::SampleTraits<Sample>::name;
  return name.c_str();
}

// The grid as a call sees it, from V's descriptor.
template <class Sample>
qzinterp3d::Grid<Sample> grid_from(const halide_buffer_t* V, double fill_value) {
  using C = CoordOf<Sample>;
  qzinterp3d::Grid<Sample> g;
  g.host = reinterpret_cast<const Sample*>(V->host);
  g.origin = int64_t{V->dim[0].min} + int64_t{V->dim[1].min} * V->dim[1].stride +
             int64_t{V->dim[2].min} * V->dim[2].stride;
  g.nx = V->dim[0].extent;
  g.ny = V->dim[1].extent;
  g.nz = V->dim[2].extent;
  g.stride1 = V->dim[1].stride;
  g.stride2 = V->dim[2].stride;
  g.bound_x = static_cast<C>(qzinterp3d::last_index(g.nx));
  g.bound_y = static_cast<C>(qzinterp3d::last_index(g.ny));
  g.bound_z = static_cast<C>(qzinterp3d::last_index(g.nz));
  g.fill = static_cast<C>(fill_value);
  return g;
}

template <class C>
C element_at(const halide_buffer_t* b, int64_t x, int64_t y) {
  const int64_t o = (x - b->dim[0].min) + (y - b->dim[1].min) * b->dim[1].stride;
  return reinterpret_cast<const C*>(b->host)[o];
}

// Writes into `out` (laid out like the call's Vq) exactly what the call must
// write: the serial path's elements when nx <= W, otherwise each row's full
// blocks then its last block (W columns ending at the last column, rewriting
// the overlap, reaching below the first column when w < W).
template <Method M, class Sample>
void reference_call(const halide_buffer_t* V, const halide_buffer_t* Xq,
                    const halide_buffer_t* Yq, const halide_buffer_t* Zq, double fill_value,
                    halide_buffer_t* out) {
  using C = CoordOf<Sample>;
  constexpr int64_t W = qzinterp3d::block_width_of<Sample>();
  const auto g = grid_from<Sample>(V, fill_value);
  const int64_t x0 = out->dim[0].min, y0 = out->dim[1].min;
  const int64_t w = out->dim[0].extent, h = out->dim[1].extent;
  auto write = [&](int64_t xa, int64_t ya, C v) {
    const int64_t o = (xa - out->dim[0].min) + (ya - out->dim[1].min) * out->dim[1].stride;
    reinterpret_cast<C*>(out->host)[o] = v;
  };
  auto coords = [&](int64_t xa, int64_t ya, C& xq, C& yq, C& zq) {
    xq = element_at<C>(Xq, xa, ya);
    yq = element_at<C>(Yq, xa, ya);
    zq = element_at<C>(Zq, xa, ya);
  };
  C xq, yq, zq;
  if (g.nx <= W) {
    if (w < 1 || h < 1) return;
    for (int64_t ya = y0; ya < y0 + h; ++ya) {
      for (int64_t c = 0; c < w; ++c) {
        coords(x0 + c, ya, xq, yq, zq);
        write(x0 + c, ya, qzinterp3d::model::serial_value<M, Sample>(g, xq, yq, zq, c, w));
      }
    }
    return;
  }
  const int64_t full = w >= 0 ? w / W : 0;
  const bool last = w > 0 && w % W != 0;
  constexpr int64_t group = 16 / static_cast<int64_t>(sizeof(C));
  for (int64_t ya = y0; ya < y0 + h; ++ya) {
    for (int64_t c = 0; c < full * W; ++c) {
      coords(x0 + c, ya, xq, yq, zq);
      write(x0 + c, ya,
            qzinterp3d::model::parallel_value<M, Sample>(g, xq, yq, zq, BlockKind::full, false));
    }
    if (last) {
      for (int64_t k = 0; k < W; ++k) {
        const int64_t c = w - W + k;
        coords(x0 + c, ya, xq, yq, zq);
        write(x0 + c, ya,
              qzinterp3d::model::parallel_value<M, Sample>(g, xq, yq, zq, BlockKind::last,
                                                           k < group));
      }
    }
  }
}

}  // namespace qztest
