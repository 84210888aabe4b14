// Conversion of one stored sample to the coordinate type: applied exactly
// once, right after the sample is read.
#pragma once

#include <cstdint>
#include <type_traits>

#include "kernels/variant.h"

namespace qzinterp3d {

// 8- and 16-bit samples are exact in float; int32 and uint32 are rounded to
// nearest (ties to even) in one step, uint32 as an unsigned value, never
// through double. float and double samples pass unchanged.
template <class Sample>
inline CoordOf<Sample> sample_to_coord(Sample s) {
  if constexpr (std::is_floating_point_v<Sample>) {
    return s;
  } else if constexpr (std::is_same_v<Sample, uint32_t>) {
    return static_cast<float>(s);  // unsigned conversion, one rounding
  } else {
    return static_cast<float>(static_cast<int32_t>(s));
  }
}

}  // namespace qzinterp3d
