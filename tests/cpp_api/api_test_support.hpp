// What the tests of the checked C++ interface share: the sixteen variants
// as GoogleTest types, random grids, and the check that a call is rejected
// with a given argument and message.
#ifndef QZINTERP3D_TESTS_CPP_API_SUPPORT_HPP
#define QZINTERP3D_TESTS_CPP_API_SUPPORT_HPP

#include <gtest/gtest.h>
#include <qzinterp3d/interp3.hpp>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

namespace qzinterp3d_test {

namespace qz = qzinterp3d;
using Halide::Runtime::Buffer;

template <qz::method M, class T>
struct Variant {
  static constexpr qz::method method = M;
  using sample = T;
  using coord = qz::coord_t<T>;
  static constexpr int block = static_cast<int>(16 / sizeof(T));
};

#define QZ_API_VARIANTS(M)                                                                 \
  Variant<M, float>, Variant<M, double>, Variant<M, int8_t>, Variant<M, uint8_t>,          \
      Variant<M, int16_t>, Variant<M, uint16_t>, Variant<M, int32_t>, Variant<M, uint32_t>
using AllVariants =
    ::testing::Types<QZ_API_VARIANTS(qz::method::nearest), QZ_API_VARIANTS(qz::method::linear)>;
#undef QZ_API_VARIANTS

struct VariantName {
  template <class V>
  static std::string GetName(int) {
    std::string type = std::is_floating_point_v<typename V::sample>
                           ? (sizeof(typename V::sample) == 4 ? "float32" : "float64")
                           : std::string(std::is_signed_v<typename V::sample> ? "int" : "uint") +
                                 std::to_string(8 * sizeof(typename V::sample));
    return std::string(V::method == qz::method::nearest ? "nearest_" : "linear_") + type;
  }
};

// A grid with random samples over the type's range (floats in [-100, 100)).
template <class T>
Buffer<T> random_grid(int nx, int ny, int nz, std::mt19937& rng) {
  Buffer<T> V(nx, ny, nz);
  if constexpr (std::is_floating_point_v<T>) {
    std::uniform_real_distribution<T> d(T(-100), T(100));
    V.for_each_value([&](T& v) { v = d(rng); });
  } else {
    std::uniform_int_distribution<int64_t> d(std::numeric_limits<T>::min(),
                                             std::numeric_limits<T>::max());
    V.for_each_value([&](T& v) { v = static_cast<T>(d(rng)); });
  }
  return V;
}

template <class Call>
void expect_rejected(Call&& call, const char* argument, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "accepted; expected " << message;
  } catch (const qz::argument_error& e) {
    EXPECT_STREQ(e.argument(), argument);
    EXPECT_EQ(std::string(e.what()), message);
  }
}

}  // namespace qzinterp3d_test

#endif  // QZINTERP3D_TESTS_CPP_API_SUPPORT_HPP
