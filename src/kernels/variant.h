// Variant traits: what distinguishes the sixteen pipelines from one another.
#pragma once

#include <cstdint>
#include <type_traits>

namespace qzinterp3d {

enum class Method { nearest, bilinear };

// Sample element types as they are declared in a buffer's halide_type_t.
template <class Sample>
struct SampleTraits;

#define QZ_SAMPLE_TRAITS(T, CODE, BITS, NAME)              \
  template <>                                              \
  struct SampleTraits<T> {                                 \
    static constexpr uint8_t type_code = CODE;             \
    static constexpr uint8_t type_bits = BITS;             \
    static constexpr const char* name = NAME;              \
  };
QZ_SAMPLE_TRAITS(int8_t, 0, 8, "int8")
QZ_SAMPLE_TRAITS(uint8_t, 1, 8, "uint8")
QZ_SAMPLE_TRAITS(int16_t, 0, 16, "int16")
QZ_SAMPLE_TRAITS(uint16_t, 1, 16, "uint16")
QZ_SAMPLE_TRAITS(int32_t, 0, 32, "int32")
QZ_SAMPLE_TRAITS(uint32_t, 1, 32, "uint32")
QZ_SAMPLE_TRAITS(float, 2, 32, "float32")
QZ_SAMPLE_TRAITS(double, 2, 64, "float64")
#undef QZ_SAMPLE_TRAITS

// Coordinates, weights, fill value and results are double for double samples
// and float for every other sample type.
template <class Sample>
using CoordOf = std::conditional_t<std::is_same_v<Sample, double>, double, float>;

// One block of a row task covers 16 bytes of samples.
template <class Sample>
constexpr int32_t block_width_of() {
  return static_cast<int32_t>(16 / sizeof(Sample));
}

template <Method M, class Sample>
struct Variant {
  static constexpr Method method = M;
  using sample_type = Sample;
  using coord_type = CoordOf<Sample>;
  static constexpr int32_t block_width = block_width_of<Sample>();
  // The serial nearest path of every type but double evaluates groups of
  // four columns with the block test (see model.h, OutOfRangeTest).
  static constexpr bool serial_groups_of_four =
      M == Method::nearest && !std::is_same_v<Sample, double>;
};

// The sixteen variants, in one list for instantiation and for tests.
#define QZ_FOR_EACH_VARIANT(X)         \
  X(nearest, float32, float)           \
  X(nearest, float64, double)          \
  X(nearest, int8, int8_t)             \
  X(nearest, int16, int16_t)           \
  X(nearest, int32, int32_t)           \
  X(nearest, uint8, uint8_t)           \
  X(nearest, uint16, uint16_t)         \
  X(nearest, uint32, uint32_t)         \
  X(bilinear, float32, float)          \
  X(bilinear, float64, double)         \
  X(bilinear, int8, int8_t)            \
  X(bilinear, int16, int16_t)          \
  X(bilinear, int32, int32_t)          \
  X(bilinear, uint8, uint8_t)          \
  X(bilinear, uint16, uint16_t)        \
  X(bilinear, uint32, uint32_t)

}  // namespace qzinterp3d
