// A dense halide_buffer_t over caller-owned memory, for the benchmark
// programs that call the entries directly.
#pragma once

#include <HalideRuntime.h>

#include <cstdint>
#include <type_traits>

namespace qzbench {

template <class T>
halide_type_t type_of() {
  if constexpr (std::is_same_v<T, float>) return {halide_type_float, 32, 1};
  if constexpr (std::is_same_v<T, double>) return {halide_type_float, 64, 1};
  constexpr auto bits = static_cast<uint8_t>(8 * sizeof(T));
  if constexpr (std::is_signed_v<T>) return {halide_type_int, bits, 1};
  return {halide_type_uint, bits, 1};
}

// Dimension 0 dense, each next dimension's stride the product of the
// extents before it; mins 0.
struct Buffer {
  halide_dimension_t dim[3];
  halide_buffer_t buf;
  template <class T>
  Buffer(T* host, int dims, const int* extents) : dim{}, buf{} {
    int stride = 1;
    for (int d = 0; d < dims; ++d) {
      dim[d] = {0, extents[d], stride, 0};
      stride *= extents[d];
    }
    buf.host = reinterpret_cast<uint8_t*>(host);
    buf.type = type_of<T>();
    buf.dimensions = dims;
    buf.dim = dim;
  }
};

}  // namespace qzbench
