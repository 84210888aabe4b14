// One exported pipeline, for any method and sample type: reads the
// descriptors, answers a bounds query, then runs the serial loop (nx <= W) or
// hands the rows to the runtime's thread pool (nx > W).
#pragma once

#include <HalideRuntime.h>

#include <cstdint>

#include "entry/bounds_query.h"
#include "entry/fp_env.h"
#include "entry/row_record.h"
#include "kernels/coords.h"
#include "kernels/dispatch.h"
#include "kernels/model.h"
#include "kernels/variant.h"

namespace qzinterp3d {

// Element offset of a buffer's min coordinates: min0 + min1 * stride1 (+ min2 * stride2).
inline int64_t origin_offset_2d(const halide_buffer_t* b) {
  return int64_t{b->dim[0].min} + int64_t{b->dim[1].min} * b->dim[1].stride;
}
inline int64_t origin_offset_3d(const halide_buffer_t* b) {
  return origin_offset_2d(b) + int64_t{b->dim[2].min} * b->dim[2].stride;
}

template <class Coord>
inline Coord convert_fill(double fill_value) {
  return static_cast<Coord>(fill_value);  // float: round to nearest, ties to even
}

template <Method M, class Sample>
struct Entry {
  using Coord = CoordOf<Sample>;
  static constexpr int32_t W = block_width_of<Sample>();

  static halide_type_t sample_type() {
    return halide_type_t(static_cast<halide_type_code_t>(SampleTraits<Sample>::type_code),
                         SampleTraits<Sample>::type_bits, 1);
  }
  static halide_type_t coord_type() {
    return halide_type_t(halide_type_float, sizeof(Coord) * 8, 1);
  }

  static int call(halide_buffer_t* V, halide_buffer_t* Xq, halide_buffer_t* Yq,
                  halide_buffer_t* Zq, double fill_value, halide_buffer_t* Vq,
                  halide_task_t row_task) {
    if (answer_bounds_query<Sample, W>(V, Xq, Yq, Zq, Vq, sample_type(), coord_type())) {
      return 0;
    }
    DefaultFpEnv fp_env;
    if (V->dim[0].extent > W) {
      run_parallel(V, Xq, Yq, Zq, fill_value, Vq, row_task);
    } else {
      run_serial(V, Xq, Yq, Zq, fill_value, Vq);
    }
    return 0;
  }

  static Grid<Sample> grid_of(const halide_buffer_t* V, Coord fill) {
    Grid<Sample> g;
    g.host = reinterpret_cast<const Sample*>(V->host);
    g.origin = origin_offset_3d(V);
    g.nx = V->dim[0].extent;
    g.ny = V->dim[1].extent;
    g.nz = V->dim[2].extent;
    g.stride1 = V->dim[1].stride;
    g.stride2 = V->dim[2].stride;
    g.bound_x = static_cast<Coord>(last_index(g.nx));
    g.bound_y = static_cast<Coord>(last_index(g.ny));
    g.bound_z = static_cast<Coord>(last_index(g.nz));
    g.fill = fill;
    return g;
  }

  // Rows outer, columns inner, both ascending, one element at a time by the
  // model (which also decides the nearest variants' groups of four).
  static void run_serial(const halide_buffer_t* V, const halide_buffer_t* Xq,
                         const halide_buffer_t* Yq, const halide_buffer_t* Zq, double fill_value,
                         halide_buffer_t* Vq) {
    const int32_t width = Vq->dim[0].extent, height = Vq->dim[1].extent;
    if (height < 1 || width < 1) return;
    const Grid<Sample> g = grid_of(V, convert_fill<Coord>(fill_value));
    const int32_t x0 = Vq->dim[0].min, y0 = Vq->dim[1].min;
    // Each buffer's element at absolute (x0, ya) for row ya.
    auto row_start = [&](const halide_buffer_t* b, int64_t ya) {
      return int64_t{x0} - b->dim[0].min + (ya - b->dim[1].min) * b->dim[1].stride;
    };
    const Coord* xs = reinterpret_cast<const Coord*>(Xq->host);
    const Coord* ys = reinterpret_cast<const Coord*>(Yq->host);
    const Coord* zs = reinterpret_cast<const Coord*>(Zq->host);
    Coord* out = reinterpret_cast<Coord*>(Vq->host);
    for (int64_t ya = y0; ya < int64_t{y0} + height; ++ya) {
      const Coord* xr = xs + row_start(Xq, ya);
      const Coord* yr = ys + row_start(Yq, ya);
      const Coord* zr = zs + row_start(Zq, ya);
      Coord* orow = out + row_start(Vq, ya);
      for (int64_t c = 0; c < width; ++c) {
        orow[c] = model::serial_value<M, Sample>(g, xr[c], yr[c], zr[c], c, width);
      }
    }
  }

  static void run_parallel(const halide_buffer_t* V, const halide_buffer_t* Xq,
                           const halide_buffer_t* Yq, const halide_buffer_t* Zq,
                           double fill_value, halide_buffer_t* Vq, halide_task_t row_task) {
    RowRecord<Coord> r;
    r.vq = reinterpret_cast<Coord*>(Vq->host);
    r.v = V->host;
    r.xq = reinterpret_cast<const Coord*>(Xq->host);
    r.yq = reinterpret_cast<const Coord*>(Yq->host);
    r.zq = reinterpret_cast<const Coord*>(Zq->host);
    r.fill = convert_fill<Coord>(fill_value);
    r.xq_offset = origin_offset_2d(Xq);
    r.yq_offset = origin_offset_2d(Yq);
    r.zq_offset = origin_offset_2d(Zq);
    r.v_offset = origin_offset_3d(V);
    r.vq_offset = origin_offset_2d(Vq);
    const int32_t w = Vq->dim[0].extent;
    // First column of the last block, formed in 32 bits.
    const int64_t last_start = static_cast<int32_t>(
        static_cast<uint32_t>(Vq->dim[0].min) + static_cast<uint32_t>(w) - static_cast<uint32_t>(W));
    r.xq_last_base = last_start - r.xq_offset;
    r.yq_last_base = last_start - r.yq_offset;
    r.zq_last_base = last_start - r.zq_offset;
    r.vq_last_base = last_start - r.vq_offset;
    r.vq_min0 = Vq->dim[0].min;
    r.vq_min1 = Vq->dim[1].min;
    r.vq_stride1 = Vq->dim[1].stride;
    r.nx = V->dim[0].extent;
    r.ny = V->dim[1].extent;
    r.nz = V->dim[2].extent;
    r.v_stride1 = V->dim[1].stride;
    r.v_stride2 = V->dim[2].stride;
    if constexpr (!std::is_same_v<Coord, double>) {
      r.bounds.x = static_cast<Coord>(last_index(r.nx));
      r.bounds.y = static_cast<Coord>(last_index(r.ny));
      r.bounds.z = static_cast<Coord>(last_index(r.nz));
    }
    r.full_blocks = w >= 0 ? w / W : 0;
    // 1 when w is not a multiple of W (wrapping add, arithmetic shift).
    r.last_blocks = (static_cast<int32_t>(static_cast<uint32_t>(w) + uint32_t{W - 1}) >>
                     log2_block_width()) -
                    r.full_blocks;
    r.xq_stride1 = Xq->dim[1].stride;
    r.yq_stride1 = Yq->dim[1].stride;
    r.zq_stride1 = Zq->dim[1].stride;
    // The runtime's status is not part of the result: every row is written
    // or the caller's buffers are as the runtime left them.
    (void)halide_do_par_for(nullptr, row_task, 0, Vq->dim[1].extent,
                            reinterpret_cast<uint8_t*>(&r));
  }

  static constexpr int log2_block_width() {
    int s = 0;
    while ((1 << s) < W) ++s;
    return s;
  }
};

// The row task: addresses row y (relative to the output's first row) in all
// four 2-D buffers and runs the active kernel set's blocks over it.
template <Method M, class Sample>
int run_row_task(void* /*user_context*/, int y, uint8_t* closure) {
  using Coord = CoordOf<Sample>;
  DefaultFpEnv fp_env;
  const RowRecord<Coord>& r = *reinterpret_cast<const RowRecord<Coord>*>(closure);
  const int64_t ya = int64_t{r.vq_min1} + y;
  auto first = [&](int32_t stride, int64_t offset) { return ya * stride + r.vq_min0 - offset; };
  RowSpan<Coord> span;
  span.xq = r.xq + first(r.xq_stride1, r.xq_offset);
  span.yq = r.yq + first(r.yq_stride1, r.yq_offset);
  span.zq = r.zq + first(r.zq_stride1, r.zq_offset);
  span.vq = r.vq + first(r.vq_stride1, r.vq_offset);
  span.xq_last = r.xq + (ya * r.xq_stride1 + r.xq_last_base);
  span.yq_last = r.yq + (ya * r.yq_stride1 + r.yq_last_base);
  span.zq_last = r.zq + (ya * r.zq_stride1 + r.zq_last_base);
  span.vq_last = r.vq + (ya * r.vq_stride1 + r.vq_last_base);
  span.full_blocks = r.full_blocks;
  span.last_blocks = r.last_blocks;

  Grid<Sample> g;
  g.host = static_cast<const Sample*>(r.v);
  g.origin = r.v_offset;
  g.nx = r.nx;
  g.ny = r.ny;
  g.nz = r.nz;
  g.stride1 = r.v_stride1;
  g.stride2 = r.v_stride2;
  if constexpr (std::is_same_v<Coord, double>) {
    g.bound_x = static_cast<double>(last_index(r.nx));
    g.bound_y = static_cast<double>(last_index(r.ny));
    g.bound_z = static_cast<double>(last_index(r.nz));
  } else {
    g.bound_x = r.bounds.x;
    g.bound_y = r.bounds.y;
    g.bound_z = r.bounds.z;
  }
  g.fill = r.fill;
  const KernelSet& kernels = active_kernel_set();
#if defined(QZINTERP3D_KERNEL_PROBE)
  note_row_run(kernels);
#endif
  kernels.row<M, Sample>()(g, span);
  return 0;
}

}  // namespace qzinterp3d
