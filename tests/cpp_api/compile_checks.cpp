// Misuses of qzinterp3d/interp3.hpp that must not compile, one per CASE; the
// test harness (CMakeLists.txt) expects each compiler error to carry the
// message of the matching static_assert. CASE 0 is a correct call and must
// compile.
#include <qzinterp3d/interp3.hpp>

#include <cstdint>

using Halide::Runtime::Buffer;
namespace qz = qzinterp3d;

void check() {
#if CASE == 0
  Buffer<const uint16_t> V;
  Buffer<const float> X, Y, Z;
  Buffer<float> out;
  qz::interp3<qz::method::linear>(V, X, Y, Z, 0.0, out);
  Buffer<float, 2> returned = qz::interp3<qz::method::nearest>(V, X, Y, Z);
  (void)returned;
#elif CASE == 1  // no pipeline for 64-bit integers
  Buffer<int64_t> V;
  Buffer<float> X, Y, Z;
  (void)qz::interp3<qz::method::linear>(V, X, Y, Z);
#elif CASE == 2  // double samples take double coordinates
  Buffer<double> V;
  Buffer<float> X, Y, Z;
  (void)qz::interp3<qz::method::linear>(V, X, Y, Z);
#elif CASE == 3  // float samples give float output
  Buffer<float> V, X, Y, Z;
  Buffer<double> out;
  qz::interp3<qz::method::nearest>(V, X, Y, Z, 0.0, out);
#elif CASE == 4  // the output must be writable
  Buffer<float> V, X, Y, Z;
  Buffer<const float> out;
  qz::interp3<qz::method::nearest>(V, X, Y, Z, 0.0, out);
#elif CASE == 5  // the element type must be static
  Buffer<void> V;
  Buffer<float> X, Y, Z;
  (void)qz::interp3<qz::method::linear>(V, X, Y, Z);
#elif CASE == 6  // a statically 2-D grid
  Buffer<float, 2> V;
  Buffer<float> X, Y, Z;
  (void)qz::interp3<qz::method::linear>(V, X, Y, Z);
#elif CASE == 7  // statically 3-D coordinates
  Buffer<float> V, X, Y;
  Buffer<float, 3> Z;
  (void)qz::interp3<qz::method::linear>(V, X, Y, Z);
#endif
}
