// The sixteen variants as GoogleTest type lists, and value comparison.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>

#include "kernels/variant.h"

namespace qztest {

#define QZ_TEST_VARIANT_TYPE(method, type, T) \
  , qzinterp3d::Variant<qzinterp3d::Method::method, T>
#define QZ_TEST_STRIP_FIRST(first, ...) __VA_ARGS__
#define QZ_TEST_EXPAND(...) QZ_TEST_STRIP_FIRST(__VA_ARGS__)
using AllVariants = ::testing::Types<QZ_TEST_EXPAND(
    void QZ_FOR_EACH_VARIANT(QZ_TEST_VARIANT_TYPE))>;

struct VariantNames {
  template <class V>
  static std::string GetName(int) {
    return std::string(V::method == qzinterp3d::Method::nearest ? "nearest_" : "bilinear_") +
           qzinterp3d::SampleTraits<typename V::sample_type>::name;
  }
};

// Exact equality of bits, except that any two NaNs are equal: the payload of
// a NaN result is left open.
template <class C>
bool same_value(C a, C b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof(C)) == 0;
}

template <class C>
uint64_t bits_of(C v) {
  if constexpr (sizeof(C) == 4) {
    uint32_t b;
    std::memcpy(&b, &v, 4);
    return b;
  } else {
    uint64_t b;
    std::memcpy(&b, &v, 8);
    return b;
  }
}

}  // namespace qztest
