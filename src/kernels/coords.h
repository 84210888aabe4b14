// Coordinate rules shared by both methods: turning an integral coordinate
// value into a grid index, clamping it, and the bound n - 1 of an axis.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace qzinterp3d {

// n - 1 in 32-bit arithmetic (wrapping, so that no extent is undefined).
inline int32_t last_index(int32_t n) {
  return static_cast<int32_t>(static_cast<uint32_t>(n) - 1u);
}

// An integral floating value to a 32-bit index: NaN gives 0, values outside
// the 32-bit range saturate.
template <class F>
inline int32_t index_saturating_i32(F v) {
  if (v != v) return 0;
  if (v >= F(2147483648.0)) return INT32_MAX;
  if (v <= F(-2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

// The double row tasks convert through 64 bits (saturating, NaN to 0) and keep
// the low 32 bits. This differs from index_saturating_i32 only for |v| >= 2^31,
// which is always a point outside the grid, so only the (clamped) address of a
// sample that is then discarded can change.
inline int32_t index_low32_of_i64(double v) {
  int64_t wide;
  if (v != v) {
    wide = 0;
  } else if (v >= 9223372036854775808.0) {
    wide = INT64_MAX;
  } else if (v < -9223372036854775808.0) {
    wide = INT64_MIN;
  } else {
    wide = static_cast<int64_t>(v);
  }
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(wide)));
}

// Minimum with n - 1 first, then maximum with 0: always in [0, n - 1] for
// n >= 1, and 0 for an empty axis.
inline int32_t clamp_index(int32_t i, int32_t n_minus_1) {
  return std::max(std::min(i, n_minus_1), int32_t{0});
}

}  // namespace qzinterp3d
