// The bounds query: a buffer with neither host memory nor a device handle asks
// for the shape the computation needs instead of being computed into.
#pragma once

#include <HalideRuntime.h>

#include <algorithm>
#include <cstdint>

namespace qzinterp3d {

inline int32_t wrap32(int64_t v) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(v)));
}

inline bool is_bounds_query(const halide_buffer_t* b) {
  return b->host == nullptr && b->device == 0;
}

// Clears storage and flags and sets type and dimension count; the dim array
// is the caller's and is written in place.
inline void reset_queried(halide_buffer_t* b, halide_type_t type, int32_t dimensions) {
  b->device = 0;
  b->device_interface = nullptr;
  b->host = nullptr;
  b->flags = 0;
  b->type = type;
  b->dimensions = dimensions;
}

inline void set_dim(halide_dimension_t& d, int32_t min, int32_t extent, int32_t stride) {
  d.min = min;
  d.extent = extent;
  d.stride = stride;
  d.flags = 0;
}

// Answers a query on any of the five buffers, examined in the fixed order Vq,
// V, Xq, Yq, Zq. Returns false, touching nothing, when no buffer is a query.
//
// When the parallel path would run (nx > W) and the output is narrower than
// one block, the output's x region is widened to W columns ending at its last
// column, because the row task's single block covers exactly those.
template <class Sample, int32_t W>
bool answer_bounds_query(halide_buffer_t* V, halide_buffer_t* Xq, halide_buffer_t* Yq,
                         halide_buffer_t* Zq, halide_buffer_t* Vq, halide_type_t sample_type,
                         halide_type_t coord_type) {
  const bool query_vq = is_bounds_query(Vq), query_v = is_bounds_query(V);
  const bool query_x = is_bounds_query(Xq), query_y = is_bounds_query(Yq);
  const bool query_z = is_bounds_query(Zq);
  if (!(query_vq || query_v || query_x || query_y || query_z)) return false;

  // Everything below is read from the descriptors as passed.
  const int32_t nx = V->dim[0].extent, ny = V->dim[1].extent, nz = V->dim[2].extent;
  const int32_t m = Vq->dim[0].min, w = Vq->dim[0].extent;
  const int32_t c = nx > W ? std::min(w, W) : W;
  // 32-bit results, wrapping rather than undefined for extreme fields.
  const int32_t region_min = wrap32(int64_t{m} + c - W);
  const int32_t region_extent = wrap32(int64_t{w} - c + W);

  if (query_vq) {
    reset_queried(Vq, coord_type, 2);
    set_dim(Vq->dim[0], region_min, region_extent, 1);
    set_dim(Vq->dim[1], Vq->dim[1].min, Vq->dim[1].extent, region_extent);
  }
  if (query_v) {
    const int32_t ex = std::max(nx, 1), ey = std::max(ny, 1), ez = std::max(nz, 1);
    reset_queried(V, sample_type, 3);
    set_dim(V->dim[0], 0, ex, 1);
    set_dim(V->dim[1], 0, ey, ex);
    set_dim(V->dim[2], 0, ez, wrap32(int64_t{ex} * ey));
  }
  for (halide_buffer_t* coords : {query_x ? Xq : nullptr, query_y ? Yq : nullptr,
                                  query_z ? Zq : nullptr}) {
    if (coords == nullptr) continue;
    reset_queried(coords, coord_type, 2);
    set_dim(coords->dim[0], region_min, region_extent, 1);
    set_dim(coords->dim[1], Vq->dim[1].min, Vq->dim[1].extent, region_extent);
  }
  return true;
}

}  // namespace qzinterp3d
