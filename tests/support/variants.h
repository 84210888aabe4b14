// The sixteen variants as GoogleTest type lists, and value comparison.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "kernels/variant.h"

namespace qztest {

#define QZ_TEST_VARIANT_TYPE(method, type, T) \
  , qzinterp3d::Variant<qzinterp3d::Method::method, T>
#define QZ_TEST_STRIP_FIRST(first, ...) __VA_ARGS__
#define QZ_TEST_EXPAND(...) QZ_TEST_STRIP_FIRST(__VA_ARGS__)
using AllVariants = ::testing::Types<QZ_TEST_EXPAND(
    void QZ_FOR_EACH_VARIANT(QZ_TEST_VARIANT_TYPE))>;

// The eight sample types of one method.
#define QZ_TEST_METHOD_VARIANTS(method)                                              \
  qzinterp3d::Variant<qzinterp3d::Method::method, float>,                            \
      qzinterp3d::Variant<qzinterp3d::Method::method, double>,                       \
      qzinterp3d::Variant<qzinterp3d::Method::method, int8_t>,                       \
      qzinterp3d::Variant<qzinterp3d::Method::method, uint8_t>,                      \
      qzinterp3d::Variant<qzinterp3d::Method::method, int16_t>,                      \
      qzinterp3d::Variant<qzinterp3d::Method::method, uint16_t>,                     \
      qzinterp3d::Variant<qzinterp3d::Method::method, int32_t>,                      \
      qzinterp3d::Variant<qzinterp3d::Method::method, uint32_t>
using NearestVariants = ::testing::Types<QZ_TEST_METHOD_VARIANTS(nearest)>;
using TrilinearVariants = ::testing::Types<QZ_TEST_METHOD_VARIANTS(bilinear)>;

// The names a typed test uses for its variant: sample type S, coordinate
// type C, method M, block width W.
#define QZ_TEST_VARIANT_NAMES(Variant)                                  \
  using S [[maybe_unused]] = typename Variant::sample_type;            \
  using C [[maybe_unused]] = typename Variant::coord_type;             \
  [[maybe_unused]] constexpr qzinterp3d::Method M = Variant::method;   \
  [[maybe_unused]] constexpr int32_t W = Variant::block_width

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
uint64_t bits_of(C v);

// same_value as a GoogleTest assertion, with both values and their bits in
// the message.
template <class C>
::testing::AssertionResult SameValue(C got, C want) {
  if (same_value(got, want)) return ::testing::AssertionSuccess();
  std::ostringstream s;
  s << "got " << ::testing::PrintToString(got) << " (bits 0x" << std::hex << bits_of(got)
    << std::dec << "), want " << ::testing::PrintToString(want) << " (bits 0x" << std::hex
    << bits_of(want) << ")";
  return ::testing::AssertionFailure() << s.str();
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
