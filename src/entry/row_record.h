// The row-task record: everything a row task needs, packed once per call on
// the entry's stack and read by every row task.
#pragma once

#include <cstdint>
#include <type_traits>

namespace qzinterp3d {

// float coordinates carry n - 1 converted once per call; the double row task
// converts them itself at the start of each row.
template <class Coord>
struct ConvertedBounds {
  Coord x, y, z;
};
template <>
struct ConvertedBounds<double> {};

template <class Coord>
struct RowRecord {
  Coord* vq;
  const void* v;
  const Coord* xq;
  const Coord* yq;
  const Coord* zq;
  Coord fill;  // fill_value converted to the coordinate type
  // Element offsets of each buffer's min coordinates (64-bit).
  int64_t xq_offset, yq_offset, zq_offset, v_offset, vq_offset;
  // Element (ya * stride + base) is where the last block of row ya starts.
  int64_t xq_last_base, yq_last_base, zq_last_base, vq_last_base;
  int32_t vq_min0, vq_min1, vq_stride1;
  int32_t nx, ny, nz;
  int32_t v_stride1, v_stride2;
  [[no_unique_address]] ConvertedBounds<Coord> bounds;
  int32_t last_blocks;
  int32_t full_blocks;
  int32_t xq_stride1, yq_stride1, zq_stride1;
};

}  // namespace qzinterp3d
