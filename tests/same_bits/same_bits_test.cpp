// The recorded calls (recorded_calls.h) give, on every kernel set this CPU
// can run, the bits another build recorded in QZ_SAME_BITS_RECORD: the same
// inputs give the same outputs on every CPU. NaN results are equal to any
// NaN, as everywhere in the tests (a NaN's payload is left open); how many
// differ in their bits is printed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "same_bits/recorded_calls.h"
#include "support/kernel_sets.h"

namespace qztest::same_bits {
namespace {

// Element size of a call's outputs: float64 variants write doubles.
size_t element_size(const std::string& name) {
  return name.find("float64") != std::string::npos ? sizeof(double) : sizeof(float);
}

template <class C>
C element_at(const std::vector<uint8_t>& bytes, size_t offset) {
  C v;
  std::memcpy(&v, bytes.data() + offset, sizeof v);
  return v;
}

TEST(SameBits, RecordedCallsGiveTheRecordedBits) {
  std::ifstream in(QZ_SAME_BITS_RECORD, std::ios::binary);
  ASSERT_TRUE(in) << "cannot read " << QZ_SAME_BITS_RECORD;
  const std::vector<RecordedCall> want = read_record(in);
  ASSERT_EQ(16u * 5u, want.size());
  for_each_kernel_set([&] {
    const std::vector<RecordedCall> got = record_calls();
    ASSERT_EQ(want.size(), got.size());
    int64_t elements = 0, nan_bits_differing = 0;
    for (size_t i = 0; i < want.size(); ++i) {
      SCOPED_TRACE(want[i].name);
      ASSERT_EQ(want[i].name, got[i].name);
      ASSERT_EQ(want[i].bytes.size(), got[i].bytes.size());
      EXPECT_EQ(element_at<int32_t>(want[i].bytes, 0), element_at<int32_t>(got[i].bytes, 0))
          << "status";
      const size_t size = element_size(want[i].name);
      for (size_t at = sizeof(int32_t); at < want[i].bytes.size(); at += size) {
        ++elements;
        const bool same_bytes = std::memcmp(&want[i].bytes[at], &got[i].bytes[at], size) == 0;
        if (size == sizeof(double)) {
          const double w = element_at<double>(want[i].bytes, at);
          const double g = element_at<double>(got[i].bytes, at);
          EXPECT_TRUE(SameValue(g, w)) << "element " << (at - sizeof(int32_t)) / size;
          nan_bits_differing += std::isnan(w) && !same_bytes;
        } else {
          const float w = element_at<float>(want[i].bytes, at);
          const float g = element_at<float>(got[i].bytes, at);
          EXPECT_TRUE(SameValue(g, w)) << "element " << (at - sizeof(int32_t)) / size;
          nan_bits_differing += std::isnan(w) && !same_bytes;
        }
      }
    }
    std::printf("kernel set %s: %lld elements compared, %lld NaNs with other bits\n",
                qzinterp3d::active_kernel_set().name, static_cast<long long>(elements),
                static_cast<long long>(nan_bits_differing));
  });
}

}  // namespace
}  // namespace qztest::same_bits
