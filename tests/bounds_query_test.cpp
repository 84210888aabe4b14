// Bounds queries: a descriptor without storage asks for the shape it must
// have. Checked field by field for every variant, against the rules written
// out here, including the widened output region of the pooled path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/kernel_sets.h"
#include "support/pool.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

constexpr int kAll = 5;
enum Which { kV, kXq, kYq, kZq, kVq };

// A descriptor whose every field, except host and device, holds junk, with
// one spare dim entry past its dimensions to catch writes beyond them.
struct Descriptor {
  halide_buffer_t buf;
  halide_dimension_t dims[4];

  Descriptor(bool query, int seed) {
    buf = halide_buffer_t{};
    buf.host = query ? nullptr : reinterpret_cast<uint8_t*>(storage);
    buf.device = 0;
    buf.device_interface = reinterpret_cast<const halide_device_interface_t*>(uintptr_t{0x5150});
    buf.flags = 0xF00D0000u + static_cast<uint64_t>(seed);
    buf.type = halide_type_t(halide_type_handle, 7, 3);
    buf.dimensions = 9;
    buf.padding = reinterpret_cast<void*>(uintptr_t{0xABCD00} + static_cast<uintptr_t>(seed));
    for (int d = 0; d < 4; ++d) dims[d] = {100 + seed + d, 200 + seed + d, 300 + seed + d, 77};
    buf.dim = dims;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  void set_dim(int d, int32_t min, int32_t extent) {
    dims[d].min = min;
    dims[d].extent = extent;
  }

  alignas(16) unsigned char storage[16] = {};
};

struct Expected {
  halide_type_t type;
  int32_t dimensions;
  std::vector<halide_dimension_t> dims;
};

std::string describe(const halide_dimension_t& d) {
  std::ostringstream s;
  s << "{" << d.min << ", " << d.extent << ", " << d.stride << ", flags " << d.flags << "}";
  return s.str();
}

// A queried descriptor after the rewrite: storage and flags cleared, type and
// dimensions set, dims as expected, the spare entry, dim pointer and padding
// as they were.
::testing::AssertionResult RewrittenAs(const Descriptor& got, const halide_buffer_t& before,
                                       const halide_dimension_t& spare_before, const Expected& want) {
  const halide_buffer_t& b = got.buf;
  if (b.host != nullptr || b.device != 0 || b.device_interface != nullptr || b.flags != 0) {
    return ::testing::AssertionFailure() << "storage, device interface or flags not cleared";
  }
  if (!(b.type == want.type)) {
    return ::testing::AssertionFailure()
           << "type {" << int(b.type.code) << ", " << int(b.type.bits) << ", " << b.type.lanes
           << "}, want {" << int(want.type.code) << ", " << int(want.type.bits) << ", 1}";
  }
  if (b.dimensions != want.dimensions) {
    return ::testing::AssertionFailure() << "dimensions " << b.dimensions;
  }
  if (b.dim != got.dims || b.padding != before.padding) {
    return ::testing::AssertionFailure() << "dim pointer or padding changed";
  }
  for (size_t d = 0; d < want.dims.size(); ++d) {
    const halide_dimension_t& g = got.dims[d];
    const halide_dimension_t& w = want.dims[d];
    if (g.min != w.min || g.extent != w.extent || g.stride != w.stride || g.flags != 0) {
      return ::testing::AssertionFailure()
             << "dim " << d << " is " << describe(g) << ", want " << describe(w);
    }
  }
  if (std::memcmp(&got.dims[want.dims.size()], &spare_before, sizeof spare_before) != 0) {
    return ::testing::AssertionFailure() << "wrote past its dimensions";
  }
  return ::testing::AssertionSuccess();
}

// The five descriptors of one call, any of them a query.
template <class Variant>
struct QueryCall {
  using S = typename Variant::sample_type;
  using C = typename Variant::coord_type;
  static constexpr int32_t W = Variant::block_width;

  Descriptor v{false, 0}, xq{false, 10}, yq{false, 20}, zq{false, 30}, vq{false, 40};
  Descriptor* all[kAll] = {&v, &xq, &yq, &zq, &vq};

  QueryCall(const bool (&query)[kAll], int32_t nx, int32_t ny, int32_t nz, int32_t m, int32_t w,
            int32_t row_min, int32_t rows) {
    for (int i = 0; i < kAll; ++i) {
      if (query[i]) all[i]->buf.host = nullptr;
    }
    v.set_dim(0, 5, nx);
    v.set_dim(1, -3, ny);
    v.set_dim(2, 8, nz);
    vq.set_dim(0, m, w);
    vq.set_dim(1, row_min, rows);
  }

  int call() {
    return entry_of<Variant::method, S>()(&v.buf, &xq.buf, &yq.buf, &zq.buf, 1.5, &vq.buf);
  }

  // The rules, as the entry must apply them to the descriptors as passed.
  Expected expected(Which which, int32_t nx, int32_t ny, int32_t nz, int32_t m, int32_t w,
                    int32_t row_min, int32_t rows) const {
    const halide_type_t coord(halide_type_float, sizeof(C) * 8, 1);
    if (which == kV) {
      const int32_t ex = std::max(nx, 1), ey = std::max(ny, 1), ez = std::max(nz, 1);
      const int32_t plane = static_cast<int32_t>(static_cast<uint32_t>(ex) * static_cast<uint32_t>(ey));
      return {type_of<S>(), 3, {{0, ex, 1, 0}, {0, ey, ex, 0}, {0, ez, plane, 0}}};
    }
    const int32_t c = nx > W ? std::min(w, W) : W;
    const int32_t region_min = m + c - W, region_extent = w - c + W;
    return {coord, 2, {{region_min, region_extent, 1, 0}, {row_min, rows, region_extent, 0}}};
  }
};

template <class V>
class BoundsQuery : public ::testing::Test {};
TYPED_TEST_SUITE(BoundsQuery, AllVariants, VariantNames);

// Every subset of queried buffers over grids and outputs on both sides of
// the block width; buffers not queried keep every byte.
TYPED_TEST(BoundsQuery, QueriedBuffersReceiveTheShapesTheComputationNeeds) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for (int subset = 1; subset < (1 << kAll); ++subset) {
    bool query[kAll];
    for (int i = 0; i < kAll; ++i) query[i] = (subset >> i) & 1;
    for (const int32_t nx : {-3, 0, 1, W - 1, W, W + 1, 2 * W + 5}) {
      for (const int32_t w : {-5, -1, 0, 1, W - 1, W, W + 1, 3 * W + 2}) {
        for (const int32_t m : {-6, 0, 10}) {
          const int32_t ny = 0, nz = 4, row_min = -4, rows = 3;
          SCOPED_TRACE("queried set " + std::to_string(subset) + " nx " + std::to_string(nx) +
                       " w " + std::to_string(w) + " m " + std::to_string(m));
          QueryCall<TypeParam> q(query, nx, ny, nz, m, w, row_min, rows);
          halide_buffer_t before[kAll];
          halide_dimension_t dims_before[kAll][4];
          for (int i = 0; i < kAll; ++i) {
            before[i] = q.all[i]->buf;
            std::memcpy(dims_before[i], q.all[i]->dims, sizeof dims_before[i]);
          }
          ASSERT_EQ(0, q.call());
          for (int i = 0; i < kAll; ++i) {
            const Descriptor& d = *q.all[i];
            if (!query[i]) {
              EXPECT_EQ(0, std::memcmp(&d.buf, &before[i], sizeof before[i])) << "buffer " << i;
              EXPECT_EQ(0, std::memcmp(d.dims, dims_before[i], sizeof dims_before[i]))
                  << "buffer " << i;
              continue;
            }
            const Expected want =
                q.expected(static_cast<Which>(i), nx, ny, nz, m, w, row_min, rows);
            EXPECT_TRUE(RewrittenAs(d, before[i], dims_before[i][want.dims.size()], want))
                << "buffer " << i;
          }
          if (::testing::Test::HasFailure()) return;
        }
      }
    }
  }
}

::testing::AssertionResult DimIs(const halide_dimension_t& d, int32_t min, int32_t extent,
                                 int32_t stride) {
  if (d.min == min && d.extent == extent && d.stride == stride && d.flags == 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "dim is " << describe(d) << ", want "
                                       << describe({min, extent, stride, 0});
}

// The cases a caller meets most, spelled out in numbers.
TEST(BoundsQueryExamples, Float32OutputNarrowerThanABlockGrowsDownwards) {
  using Q = QueryCall<qzinterp3d::Variant<Method::bilinear, float>>;
  const bool only_xq[kAll] = {false, true, false, false, false};
  const int32_t first_column = 10, first_row = 7, rows = 2;
  Q wide_grid(only_xq, 5, 2, 2, first_column, 3, first_row, rows);
  ASSERT_EQ(0, wide_grid.call());
  EXPECT_TRUE(DimIs(wide_grid.xq.dims[0], 9, 4, 1));  // columns 9 to 12
  EXPECT_TRUE(DimIs(wide_grid.xq.dims[1], first_row, rows, 4));

  Q narrow_grid(only_xq, 4, 2, 2, first_column, 3, first_row, rows);  // no widening
  ASSERT_EQ(0, narrow_grid.call());
  EXPECT_TRUE(DimIs(narrow_grid.xq.dims[0], 10, 3, 1));
  EXPECT_TRUE(DimIs(narrow_grid.xq.dims[1], first_row, rows, 3));

  Q wide_output(only_xq, 5, 2, 2, first_column, 7, first_row, rows);  // unchanged
  ASSERT_EQ(0, wide_output.call());
  EXPECT_TRUE(DimIs(wide_output.xq.dims[0], 10, 7, 1));
  EXPECT_TRUE(DimIs(wide_output.xq.dims[1], first_row, rows, 7));
}

TEST(BoundsQueryExamples, Int8OutputFiveWideGrowsToSixteen) {
  for (const EntryFn entry : {&interp3_nearest_int8, &interp3_bilinear_int8}) {
    const bool only_vq[kAll] = {false, false, false, false, true};
    QueryCall<qzinterp3d::Variant<Method::nearest, int8_t>> q(only_vq, 17, 1, 1, 30, 5, 0, 1);
    ASSERT_EQ(0, entry(&q.v.buf, &q.xq.buf, &q.yq.buf, &q.zq.buf, 0.0, &q.vq.buf));
    EXPECT_TRUE(DimIs(q.vq.dims[0], 30 - 11, 16, 1));
    EXPECT_TRUE(DimIs(q.vq.dims[1], 0, 1, 16));
  }
}

TEST(BoundsQueryExamples, GridExtentsAreRaisedToOneAndMinsSetToZero) {
  using Q = QueryCall<qzinterp3d::Variant<Method::nearest, float>>;
  const bool only_v[kAll] = {true, false, false, false, false};
  Q q(only_v, 7, 0, 3, 0, 4, 0, 1);
  q.v.set_dim(0, 5, 7);
  ASSERT_EQ(0, q.call());
  EXPECT_TRUE(DimIs(q.v.dims[0], 0, 7, 1));
  EXPECT_TRUE(DimIs(q.v.dims[1], 0, 1, 7));
  EXPECT_TRUE(DimIs(q.v.dims[2], 0, 3, 7));
}

TEST(BoundsQueryExamples, PlaneStrideIsA32BitProduct) {
  using Q = QueryCall<qzinterp3d::Variant<Method::bilinear, double>>;
  const bool only_v[kAll] = {true, false, false, false, false};
  Q q(only_v, 65536, 65537, 2, 0, 4, 0, 1);
  ASSERT_EQ(0, q.call());
  EXPECT_TRUE(DimIs(q.v.dims[1], 0, 65537, 65536));
  EXPECT_TRUE(DimIs(q.v.dims[2], 0, 2, 65536));  // 65536 * 65537 wraps to 2^16
}

template <class Variant>
void check_types_written() {
  using C = typename Variant::coord_type;
  const bool every[kAll] = {true, true, true, true, true};
  QueryCall<Variant> q(every, 3, 3, 3, 0, 2, 0, 2);
  ASSERT_EQ(0, q.call());
  EXPECT_TRUE(q.v.buf.type == type_of<typename Variant::sample_type>());
  for (const Descriptor* d : {&q.xq, &q.yq, &q.zq, &q.vq}) {
    EXPECT_EQ(halide_type_float, d->buf.type.code);
    EXPECT_EQ(sizeof(C) * 8, d->buf.type.bits);
    EXPECT_EQ(1, d->buf.type.lanes);
  }
}

TEST(BoundsQueryExamples, Float64VariantsWriteSixtyFourBitTypesEverywhere) {
  check_types_written<qzinterp3d::Variant<Method::nearest, double>>();
  check_types_written<qzinterp3d::Variant<Method::bilinear, double>>();
}

TEST(BoundsQueryExamples, IntegerVariantsWriteFloat32CoordinatesAndOutput) {
  check_types_written<qzinterp3d::Variant<Method::nearest, int8_t>>();
  check_types_written<qzinterp3d::Variant<Method::bilinear, uint16_t>>();
  check_types_written<qzinterp3d::Variant<Method::nearest, int32_t>>();
  check_types_written<qzinterp3d::Variant<Method::bilinear, uint32_t>>();
}

// A query on one buffer among real ones: only that descriptor changes, no
// row is computed, no output element is written.
TYPED_TEST(BoundsQuery, QueryAmongRealBuffersComputesNothing) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (int queried = 0; queried < kAll; ++queried) {
      for (const int32_t nx : {W, W + 1}) {
        SCOPED_TRACE("queried buffer " + std::to_string(queried) + " nx " + std::to_string(nx));
        Scene<M, S> scene(Shape{nx, 2, 2, W + 1, 3});
        halide_buffer_t* all[kAll] = {scene.v(), scene.xq(), scene.yq(), scene.zq(), scene.vq()};
        halide_buffer_t before[kAll];
        std::vector<halide_dimension_t> dims_before[kAll];
        for (int i = 0; i < kAll; ++i) {
          before[i] = *all[i];
          dims_before[i].assign(all[i]->dim, all[i]->dim + all[i]->dimensions);
        }
        uint8_t* const output_host = scene.vq()->host;
        all[queried]->host = nullptr;
        ParForSpy spy;
        // Called directly: a query computes no row on any kernel set.
        EXPECT_EQ(0, (entry_of<M, S>()(scene.v(), scene.xq(), scene.yq(), scene.zq(), 2.0,
                                       scene.vq())));
        EXPECT_TRUE(spy.calls().empty());
        for (int i = 0; i < kAll; ++i) {
          if (i == queried) continue;
          EXPECT_EQ(0, std::memcmp(all[i], &before[i], sizeof before[i])) << "buffer " << i;
          EXPECT_TRUE(std::equal(dims_before[i].begin(), dims_before[i].end(), all[i]->dim,
                                 [](const halide_dimension_t& a, const halide_dimension_t& b) {
                                   return std::memcmp(&a, &b, sizeof a) == 0;
                                 }))
              << "buffer " << i;
        }
        EXPECT_EQ(nullptr, all[queried]->host);
        scene.vq()->host = output_host;
        EXPECT_TRUE(scene.output_untouched());
      }
    }
  });
}

TYPED_TEST(BoundsQuery, OnlyNullHostWithoutDeviceIsAQuery) {
  const bool only_vq[kAll] = {false, false, false, false, true};
  QueryCall<TypeParam> q(only_vq, 3, 2, 2, 0, 4, 0, 1);
  // No host but a device handle: a buffer with storage, left alone.
  q.xq.buf.host = nullptr;
  q.xq.buf.device = 1;
  const halide_buffer_t xq_before = q.xq.buf;
  ASSERT_EQ(0, q.call());
  EXPECT_EQ(0, std::memcmp(&q.xq.buf, &xq_before, sizeof xq_before));
  EXPECT_EQ(2, q.vq.buf.dimensions);
}

// V is rewritten before the coordinate buffers: when V and one of them share
// one dim array, the coordinate buffer's two dims are what remains.
TYPED_TEST(BoundsQuery, GridIsRewrittenBeforeTheCoordinates) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for (const Which coords : {kXq, kYq, kZq}) {
    bool query[kAll] = {true, false, false, false, false};
    query[coords] = true;
    const int32_t nx = W + 3, ny = 5, nz = 6, m = 2, w = 1, row_min = -1, rows = 4;
    QueryCall<TypeParam> q(query, nx, ny, nz, m, w, row_min, rows);
    q.all[coords]->buf.dim = q.v.dims;
    ASSERT_EQ(0, q.call());
    const Expected of_v = q.expected(kV, nx, ny, nz, m, w, row_min, rows);
    const Expected of_coords = q.expected(coords, nx, ny, nz, m, w, row_min, rows);
    for (int d = 0; d < 2; ++d) {
      const halide_dimension_t& want = of_coords.dims[d];
      EXPECT_TRUE(DimIs(q.v.dims[d], want.min, want.extent, want.stride)) << d;
    }
    EXPECT_TRUE(DimIs(q.v.dims[2], 0, of_v.dims[2].extent, of_v.dims[2].stride));
  }
}

// The output is rewritten before V; and the coordinates' x region comes from
// the output's fields as passed, not as rewritten.
TYPED_TEST(BoundsQuery, OutputIsRewrittenBeforeTheGridAndRegionsUseFieldsAsPassed) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  const bool query[kAll] = {true, true, false, false, true};
  // V and Vq share one dim array: nx is the output's width.
  const int32_t width = W + 2, first = -9;
  QueryCall<TypeParam> q(query, width, 3, 2, first, width, 0, 1);
  q.vq.buf.dim = q.v.dims;
  q.v.set_dim(0, first, width);
  ASSERT_EQ(0, q.call());
  EXPECT_TRUE(DimIs(q.v.dims[0], 0, width, 1));
  EXPECT_TRUE(DimIs(q.v.dims[1], 0, 3, width));
  EXPECT_TRUE(DimIs(q.xq.dims[0], first, width, 1));
}

}  // namespace
}  // namespace qztest
