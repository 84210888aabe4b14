// Integer samples: each read is converted to float32 once (signed or
// unsigned, one rounding for 32-bit values), in every lane of every block,
// and results stay float32: never rounded, saturated or converted back.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/kernel_sets.h"
#include "support/scene.h"
#include "support/trilinear_sequences.h"
#include "support/variants.h"

namespace qztest {
namespace {

template <class S>
struct Conversion {
  S sample;
  float value;
};

// The values worth naming for each type, with the float32 each must become.
template <class S>
std::vector<Conversion<S>> named_conversions();
template <>
std::vector<Conversion<int8_t>> named_conversions() {
  return {{-128, -128.0f}, {127, 127.0f}, {-1, -1.0f}, {0, 0.0f}};
}
template <>
std::vector<Conversion<uint8_t>> named_conversions() {
  return {{255, 255.0f}, {128, 128.0f}, {0, 0.0f}, {1, 1.0f}};
}
template <>
std::vector<Conversion<int16_t>> named_conversions() {
  return {{-32768, -32768.0f}, {32767, 32767.0f}, {-1, -1.0f}, {-129, -129.0f}};
}
template <>
std::vector<Conversion<uint16_t>> named_conversions() {
  return {{65535, 65535.0f}, {32768, 32768.0f}, {0, 0.0f}, {255, 255.0f}};
}
template <>
std::vector<Conversion<int32_t>> named_conversions() {
  return {{16777217, 16777216.0f},           {16777219, 16777220.0f},
          {2147483647, 2147483648.0f},       {-2147483647 - 1, -2147483648.0f},
          {-16777217, -16777216.0f},         {-16777219, -16777220.0f},
          {16777216, 16777216.0f},           {-1, -1.0f}};
}
template <>
std::vector<Conversion<uint32_t>> named_conversions() {
  return {{4294967295u, 4294967296.0f}, {4294967168u, 4294967296.0f},
          {4294967040u, 4294967040.0f}, {2147483648u, 2147483648.0f},
          {16777217u, 16777216.0f},     {16777219u, 16777220.0f},
          {0u, 0.0f},                   {4294967167u, 4294967040.0f}};
}

template <class V>
class IntegerSamples : public ::testing::Test {};
using IntegerVariants = ::testing::Types<
    qzinterp3d::Variant<Method::nearest, int8_t>, qzinterp3d::Variant<Method::nearest, uint8_t>,
    qzinterp3d::Variant<Method::nearest, int16_t>, qzinterp3d::Variant<Method::nearest, uint16_t>,
    qzinterp3d::Variant<Method::nearest, int32_t>, qzinterp3d::Variant<Method::nearest, uint32_t>,
    qzinterp3d::Variant<Method::bilinear, int8_t>, qzinterp3d::Variant<Method::bilinear, uint8_t>,
    qzinterp3d::Variant<Method::bilinear, int16_t>, qzinterp3d::Variant<Method::bilinear, uint16_t>,
    qzinterp3d::Variant<Method::bilinear, int32_t>, qzinterp3d::Variant<Method::bilinear, uint32_t>>;
TYPED_TEST_SUITE(IntegerSamples, IntegerVariants, VariantNames);

// Every named value in every lane position of the blocks and of the serial
// groups: column c reads grid column (c + shift) mod nx, on a grid point,
// where both methods give the converted sample itself.
TYPED_TEST(IntegerSamples, EveryLaneConvertsEachValueExactlyAsNamed) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const std::vector<Conversion<S>> conversions = named_conversions<S>();
  for_each_kernel_set([&] {
    for (const int32_t nx : {W, W + 1}) {
      for (size_t shift = 0; shift < conversions.size(); ++shift) {
        const int32_t width = 2 * W + 3;
        Scene<M, S> scene(Shape{nx, 1, 2, width, 2});
        for (int32_t i = 0; i < nx; ++i) {
          scene.sample(i, 0, 0) = conversions[(static_cast<size_t>(i) + shift) % conversions.size()].sample;
          scene.sample(i, 0, 1) = conversions[(static_cast<size_t>(i) + shift + 1) % conversions.size()].sample;
        }
        for (int64_t r = 0; r < 2; ++r) {
          for (int64_t c = -scene.reach(); c < width; ++c) {
            scene.set_point(c, r, C(1 + (c + 3 * r + W) % nx), C(1), C(1 + r));
          }
        }
        ASSERT_EQ(0, scene.call(0.0));
        for (int64_t r = 0; r < 2; ++r) {
          for (int64_t c = 0; c < width; ++c) {
            const size_t i = static_cast<size_t>((c + 3 * r + W) % nx);
            const float want = conversions[(i + shift + static_cast<size_t>(r)) % conversions.size()].value;
            EXPECT_TRUE(SameValue(scene.result(c, r), want))
                << "nx " << nx << " column " << c << " row " << r;
          }
        }
      }
    }
  });
}

template <class V>
class IntegerTrilinear : public ::testing::Test {};
using IntegerTrilinearVariants = ::testing::Types<
    qzinterp3d::Variant<Method::bilinear, int8_t>, qzinterp3d::Variant<Method::bilinear, uint8_t>,
    qzinterp3d::Variant<Method::bilinear, int16_t>, qzinterp3d::Variant<Method::bilinear, uint16_t>,
    qzinterp3d::Variant<Method::bilinear, int32_t>, qzinterp3d::Variant<Method::bilinear, uint32_t>>;
TYPED_TEST_SUITE(IntegerTrilinear, IntegerTrilinearVariants, VariantNames);

// A row of the given width on both paths where every point lies halfway
// along x between samples a and b, on grid points along y and z.
template <class S>
void check_blend_along_x(S a, S b, float x_fraction, float want) {
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  for (const int32_t nx : {2, W + 1}) {
    Scene<Method::bilinear, S> scene(Shape{nx, 2, 2, W + 3, 1});
    for (int j = 0; j < 2; ++j) {
      for (int k = 0; k < 2; ++k) {
        scene.sample(0, j, k) = a;
        scene.sample(1, j, k) = b;
      }
    }
    scene.set_all_points(1.0f + x_fraction, 2.0f, 1.0f);
    ASSERT_EQ(0, scene.call(0.0));
    for (int64_t c = 0; c < W + 3; ++c) {
      EXPECT_TRUE(SameValue(scene.result(c), want))
          << "nx " << nx << " column " << c << " fraction " << x_fraction;
    }
  }
}

TEST(IntegerTrilinearExamples, HalfwayBetweenInt8ExtremesIsMinusOneHalf) {
  for_each_kernel_set([] { check_blend_along_x<int8_t>(-128, 127, 0.5f, -0.5f); });
}

TEST(IntegerTrilinearExamples, Uint32NeighboursOfTheTopBothBecomeTwoToThe32) {
  for_each_kernel_set([] {
    for (const float fraction : {0.0f, 0.1f, 0.5f, 0.377f, 0.999f}) {
      check_blend_along_x<uint32_t>(4294967295u, 4294967294u, fraction, 4294967296.0f);
    }
  });
}

// The same corners as float32 samples: the float32 variant's results, bit for
// bit, in full blocks and on the serial path (and, for 32-bit samples whose
// last block follows the float32 one, in every block).
TYPED_TEST(IntegerTrilinear, FullBlocksAndSerialPathMatchTheFloat32VariantOnConvertedSamples) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  std::mt19937_64 rng(99);
  std::uniform_real_distribution<float> coordinate(0.5f, 4.75f);
  for_each_kernel_set([&] {
    for (const int32_t nx : {3, W + 3}) {
      const bool pooled = nx > W;
      for (const int32_t width : {W, 3 * W, W + 1, 2 * W + 3}) {
        const bool only_full_blocks = width % W == 0;
        if (pooled && !only_full_blocks && sizeof(S) != 4) continue;
        SCOPED_TRACE("nx " + std::to_string(nx) + " width " + std::to_string(width));
        Scene<M, S> integer(Shape{nx, 4, 4, width, 3});
        Scene<M, float> real(Shape{nx, 4, 4, width, 3});
        for (int64_t k = 0; k < 4; ++k) {
          for (int64_t j = 0; j < 4; ++j) {
            for (int64_t i = 0; i < nx; ++i) {
              integer.sample(i, j, k) = random_sample<S>(rng);
              real.sample(i, j, k) = converted(integer.sample(i, j, k));
            }
          }
        }
        for (int64_t r = 0; r < 3; ++r) {
          for (int64_t c = -integer.reach(); c < width; ++c) {
            const float x = coordinate(rng), y = coordinate(rng), z = coordinate(rng);
            integer.set_point(c, r, x, y, z);
            if (c >= -real.reach()) real.set_point(c, r, x, y, z);
          }
        }
        ASSERT_EQ(0, integer.call(-5.0));
        ASSERT_EQ(0, real.call(-5.0));
        for (int64_t r = 0; r < 3; ++r) {
          for (int64_t c = 0; c < width; ++c) {
            EXPECT_TRUE(SameValue(integer.result(c, r), real.result(c, r)))
                << "column " << c << " row " << r;
          }
        }
      }
    }
  });
}

}  // namespace
}  // namespace qztest
