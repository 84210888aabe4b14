// 64-bit addressing: grids of more than 2^31 samples, and strides whose
// products with an index overflow 32 bits (and, with padding, offsets past
// 2^32), read exactly at their far corners on both paths. The grids are
// anonymous MAP_NORESERVE mappings: only the pages that the test writes or
// the call reads are ever touched, so a 4 GB grid costs a few pages.
//
// The expected values come from what the test wrote: at integer coordinates
// and exact halves of uint8 samples every blend is exact whatever its
// rounding sequence, so the trilinear value is the plain average of the
// corners involved.
//
// Also the float32 bound: with n - 1 = 16777217 the bound converts to
// 16777216.0, so q = 16777218 (d rounds to 16777216) is inside and reads
// index 16777216, while q = 16777220 is outside.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <map>
#include <vector>

#include "robust_case.h"

namespace qzrobust {
namespace {

class Mapping {
 public:
  explicit Mapping(uint64_t bytes) : bytes_(bytes) {
    void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    data_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
  }
  ~Mapping() {
    if (data_ != nullptr) munmap(data_, bytes_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  uint8_t* data() { return data_; }

 private:
  uint64_t bytes_;
  uint8_t* data_;
};

struct Geometry {
  const char* name;
  int32_t nx, ny, nz, stride1, stride2;
  uint64_t volume() const { return uint64_t(nx) * uint64_t(ny) * uint64_t(nz); }
  uint64_t span() const {
    return uint64_t(nx - 1) + uint64_t(ny - 1) * uint64_t(stride1) +
           uint64_t(nz - 1) * uint64_t(stride2) + 1;
  }
};

// nx <= 16 runs the serial path for uint8 samples, nx > 16 the parallel one.
const Geometry kGeometries[] = {
    {"serial, dense, 2^31 + 2^20 samples", 16, 65536, 2049, 16, 16 * 65536},
    {"parallel, dense, over 2^31 samples", 17, 65536, 1929, 17, 17 * 65536},
    {"serial, padded, last offset past 2^32", 16, 65536, 3500, 19, 19 * 65536 + 1},
    {"parallel, padded, last offset past 2^32", 17, 65536, 3200, 21, 21 * 65536 + 3},
};

using Index3 = std::array<int32_t, 3>;

// Distinct non-zero values at every combination of the first two and last
// two indices of each axis; every other sample is 0.
std::map<Index3, uint8_t> write_corners(const Geometry& g, uint8_t* v) {
  std::map<Index3, uint8_t> written;
  uint32_t next = 1;
  for (int32_t i : {0, 1, g.nx - 2, g.nx - 1}) {
    for (int32_t j : {0, 1, g.ny - 2, g.ny - 1}) {
      for (int32_t k : {0, 1, g.nz - 2, g.nz - 1}) {
        const uint8_t value = static_cast<uint8_t>(1 + (next++ * 97) % 251);
        v[uint64_t(i) + uint64_t(j) * uint64_t(g.stride1) + uint64_t(k) * uint64_t(g.stride2)] =
            value;
        written[{i, j, k}] = value;
      }
    }
  }
  return written;
}

// The value a point must get, from the samples written: coordinates are
// integers or exact halves.
float expected_value(qztest::Method m, const std::array<float, 3>& q, const Index3& n,
                     const std::map<Index3, uint8_t>& written, float fill) {
  for (int a = 0; a < 3; ++a) {
    if (q[a] < 1.0f || q[a] - 1.0f > float(n[a] - 1)) return fill;
  }
  auto sample = [&](const Index3& at) {
    auto it = written.find(at);
    return it == written.end() ? 0.0 : double(it->second);
  };
  if (m == qztest::Method::nearest) {
    Index3 at;
    for (int a = 0; a < 3; ++a) at[a] = int32_t(std::nearbyint(double(q[a]) - 1.0));
    return float(sample(at));
  }
  double sum = 0;
  int corners = 0;
  for (int c = 0; c < 8; ++c) {
    Index3 at;
    for (int a = 0; a < 3; ++a) {
      const double p = double(q[a]) - 1.0;
      at[a] = int32_t((c >> a) & 1 ? std::ceil(p) : std::floor(p));
    }
    sum += sample(at);
    ++corners;
  }
  return float(sum / corners);
}

// Points at the corners (first, second, second-to-last and last index on
// each axis), halves between the last two, and points just outside.
std::vector<std::array<float, 3>> probes(const Index3& n) {
  std::vector<std::array<float, 3>> p;
  auto choices = [](int32_t e) { return std::array<float, 4>{1.0f, 2.0f, float(e - 1), float(e)}; };
  for (float x : choices(n[0]))
    for (float y : choices(n[1]))
      for (float z : choices(n[2])) p.push_back({x, y, z});
  for (float x : {1.5f, float(n[0]) - 0.5f})
    for (float y : {1.5f, float(n[1]) - 0.5f})
      for (float z : {1.5f, float(n[2]) - 0.5f}) p.push_back({x, y, z});
  p.push_back({float(n[0]) + 0.25f, float(n[1]), float(n[2])});
  p.push_back({float(n[0]), float(n[1]) + 0.25f, float(n[2])});
  p.push_back({float(n[0]), float(n[1]), float(n[2]) + 0.25f});
  p.push_back({0.5f, float(n[1]), float(n[2])});
  return p;
}

template <qztest::Method M>
void read_far_corners(const Geometry& g) {
  SCOPED_TRACE(g.name);
  ASSERT_GT(g.volume(), uint64_t{1} << 31);
  ASSERT_GT(uint64_t(g.nz - 1) * uint64_t(g.stride2), uint64_t{INT32_MAX});
  Mapping map(g.span());
  ASSERT_NE(nullptr, map.data()) << "could not reserve " << g.span() << " bytes";
  const std::map<Index3, uint8_t> written = write_corners(g, map.data());

  halide_dimension_t vd[3] = {{0, g.nx, 1, 0}, {0, g.ny, g.stride1, 0}, {0, g.nz, g.stride2, 0}};
  halide_buffer_t v{};
  v.host = map.data();
  v.type = halide_type_t(halide_type_uint, 8, 1);
  v.dimensions = 3;
  v.dim = vd;

  const Index3 n{g.nx, g.ny, g.nz};
  const std::vector<std::array<float, 3>> points = probes(n);
  constexpr int32_t kWidth = 24;  // one full block of 16 and a shifted last block
  const int32_t rows = int32_t((points.size() + kWidth - 1) / kWidth);
  TestBuffer<float> xq({3, -2}, {kWidth, rows}, {0, 1}), yq({3, -2}, {kWidth, rows}, {0, 2}),
      zq({3, -2}, {kWidth, rows}, {0, 0});
  for (size_t i = 0; i < size_t(kWidth) * size_t(rows); ++i) {
    const std::array<float, 3> p = i < points.size() ? points[i] : points[0];
    const int64_t x = 3 + int64_t(i % kWidth), y = -2 + int64_t(i / kWidth);
    xq.at(x, y) = p[0];
    yq.at(x, y) = p[1];
    zq.at(x, y) = p[2];
  }
  const float fill = -3.5f;
  for_each_supported_kernel_set([&](const char*) {
    TestBuffer<float> out({3, -2}, {kWidth, rows}, {0, 3});
    ASSERT_EQ(0,
              (qztest::entry_of<M, uint8_t>()(&v, xq.raw(), yq.raw(), zq.raw(), fill, out.raw())));
    int64_t far_reads = 0;
    for (size_t i = 0; i < points.size(); ++i) {
      const int64_t x = 3 + int64_t(i % kWidth), y = -2 + int64_t(i / kWidth);
      const float want = expected_value(M, points[i], n, written, fill);
      ASSERT_TRUE(qztest::same_value(out.at(x, y), want))
          << "point (" << points[i][0] << ", " << points[i][1] << ", " << points[i][2] << "): got "
          << out.at(x, y) << " want " << want;
      far_reads += points[i][2] == float(g.nz);
    }
    EXPECT_GT(far_reads, 0);
    EXPECT_TRUE(out.outside_untouched());
  });
}

TEST(LargeGrid, NearestReadsFarCornersExactly) {
  for (const Geometry& g : kGeometries) read_far_corners<qztest::Method::nearest>(g);
}

TEST(LargeGrid, TrilinearReadsFarCornersExactly) {
  for (const Geometry& g : kGeometries) read_far_corners<qztest::Method::bilinear>(g);
}

// n - 1 = 16777217 is not a float32: the bound becomes 16777216.0.
template <qztest::Method M>
void float32_bound() {
  constexpr int32_t kN = 16777218;
  Mapping map(kN);
  ASSERT_NE(nullptr, map.data());
  uint8_t* s = map.data();
  s[0] = 5;
  s[16777214] = 44;
  s[16777215] = 11;
  s[16777216] = 22;
  s[16777217] = 33;  // the true last sample: never reached by a float32 coordinate
  halide_dimension_t vd[3] = {{0, kN, 1, 0}, {0, 1, kN, 0}, {0, 1, kN, 0}};
  halide_buffer_t v{};
  v.host = s;
  v.type = halide_type_t(halide_type_uint, 8, 1);
  v.dimensions = 3;
  v.dim = vd;

  // q along x, the value it must give (NaN standing for the fill value).
  struct Probe {
    float q;
    float want;
  };
  const float fill = -1.0f;
  const Probe probe[] = {
      {16777218.0f, 22}, {16777216.0f, 11}, {16777215.0f, 44}, {16777220.0f, fill}, {1.0f, 5}};
  ASSERT_EQ(16777216.0f, float(kN - 1));
  ASSERT_EQ(16777216.0f, 16777218.0f - 1.0f);
  constexpr int32_t kWidth = 20;  // full block 0..15, last block 4..19
  TestBuffer<float> xq({0, 0}, {kWidth, 2}), yq({0, 0}, {kWidth, 2}), zq({0, 0}, {kWidth, 2});
  for (int32_t y = 0; y < 2; ++y) {
    for (int32_t x = 0; x < kWidth; ++x) {
      xq.at(x, y) = probe[(x + y) % 5].q;
      yq.at(x, y) = 1.0f;
      zq.at(x, y) = 1.0f;
    }
  }
  for_each_supported_kernel_set([&](const char*) {
    TestBuffer<float> out({0, 0}, {kWidth, 2});
    ASSERT_EQ(0,
              (qztest::entry_of<M, uint8_t>()(&v, xq.raw(), yq.raw(), zq.raw(), fill, out.raw())));
    for (int32_t y = 0; y < 2; ++y) {
      for (int32_t x = 0; x < kWidth; ++x) {
        const Probe& p = probe[(x + y) % 5];
        EXPECT_TRUE(qztest::same_value(out.at(x, y), p.want))
            << "q = " << p.q << " at column " << x << ": got " << out.at(x, y);
      }
    }
  });
}

TEST(Float32Bound, NearestReadsIndex16777216) { float32_bound<qztest::Method::nearest>(); }
TEST(Float32Bound, TrilinearReadsIndex16777216) { float32_bound<qztest::Method::bilinear>(); }

}  // namespace
}  // namespace qzrobust
