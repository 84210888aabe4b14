// Uses the C++ interface and the C entry it wraps on the same data. Exits
// non-zero when a value is not the expected one.
#include <qzinterp3d/interp3.hpp>

#include <cstdio>

int main() {
  Halide::Runtime::Buffer<uint16_t> V(9, 5, 4);
  V.for_each_element([&](int i, int j, int k) { V(i, j, k) = uint16_t(i + 10 * j + 100 * k); });
  Halide::Runtime::Buffer<float> X(2, 3), Y(2, 3), Z(2, 3);
  X.fill(3.25f);  // 1-based: 0-based index 2.25
  Y.fill(2.0f);
  Z.fill(4.0f);
  X(1, 2) = 100.0f;  // outside the grid

  namespace qz = qzinterp3d;
  auto lin = qz::interp3<qz::method::linear>(V, X, Y, Z, -1.0);
  auto near = qz::interp3<qz::method::nearest>(V, X, Y, Z, -1.0);
  std::printf("consumer_cpp: linear %g, nearest %g, outside %g\n", lin(0, 0), near(0, 0),
              lin(1, 2));
  bool ok = lin(0, 0) == 312.25f && near(0, 0) == 312.0f && lin(1, 2) == -1.0f &&
            near(1, 2) == -1.0f && lin.dim(0).extent() == 2 && lin.dim(1).extent() == 3;

  try {
    Halide::Runtime::Buffer<float> flat(4);
    qz::interp3<qz::method::linear>(V, flat, Y, Z);
    ok = false;
  } catch (const std::invalid_argument& e) {
    std::printf("consumer_cpp: rejected as expected: %s\n", e.what());
  }
  return ok ? 0 : 1;
}
