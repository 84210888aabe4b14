// What a row of the parallel path hands to a kernel: the grid with its
// per-call constants, and one output row already addressed.
#pragma once

#include <cstdint>

#include "kernels/variant.h"

namespace qzinterp3d {

template <class Sample>
struct Grid {
  using Coord = CoordOf<Sample>;
  const Sample* host;
  int64_t origin;  // min0 + min1 * stride1 + min2 * stride2: subtracted from every offset
  int32_t nx, ny, nz;
  int32_t stride1, stride2;
  Coord bound_x, bound_y, bound_z;  // n - 1 converted to the coordinate type
  Coord fill;                       // fill value converted to the coordinate type
};

// One output row: the first full block's positions and the last block's
// positions (W columns ending at the row's last column) in each buffer.
template <class Coord>
struct RowSpan {
  const Coord* xq;
  const Coord* yq;
  const Coord* zq;
  Coord* vq;
  const Coord* xq_last;
  const Coord* yq_last;
  const Coord* zq_last;
  Coord* vq_last;
  int32_t full_blocks;
  int32_t last_blocks;  // 1 when the width is not a multiple of W, else 0
};

template <class Sample>
using RowFn = void (*)(const Grid<Sample>&, const RowSpan<CoordOf<Sample>>&);

}  // namespace qzinterp3d
