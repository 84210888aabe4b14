// Runs a test body once per kernel set this CPU can run, with that set
// forced, and proves the forced set really computed the rows that the body's
// calls sent to the thread pool.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

#include "kernels/dispatch.h"

namespace qztest {

// Rows the current body sent to row tasks. Calls made through Scene add to it.
inline std::atomic<uint64_t>& pool_rows_sent() {
  static std::atomic<uint64_t> rows{0};
  return rows;
}

inline void note_pool_rows(int64_t rows) {
  if (rows > 0) pool_rows_sent() += static_cast<uint64_t>(rows);
}

// Test bodies run with each kernel set forced, printed when the tests end,
// so a run shows that every set this CPU has was tested, and how much.
inline std::map<std::string, int>& bodies_run_per_set() {
  static std::map<std::string, int> counts;
  return counts;
}
class KernelSetTally : public ::testing::Environment {
 public:
  void TearDown() override {
    for (const auto& [name, count] : bodies_run_per_set()) {
      std::printf("kernel set %s: %d test bodies run\n", name.c_str(), count);
    }
  }
};
inline const bool kernel_set_tally_registered =
    (::testing::AddGlobalTestEnvironment(new KernelSetTally), true);

// The active set is restored afterwards: every set gives the same bits, but
// later tests should start from the process's own choice.
template <class Body>
void for_each_kernel_set(Body&& body) {
  const std::string original = qzinterp3d::active_kernel_set().name;
  int sets_run = 0;
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const qzinterp3d::KernelSetEntry entry = qzinterp3d::kernel_set_at(i);
    if (!entry.supported) continue;
    SCOPED_TRACE(std::string("kernel set ") + entry.set->name);
    ASSERT_TRUE(qzinterp3d::force_kernel_set(entry.set->name));
    ASSERT_STREQ(entry.set->name, qzinterp3d::active_kernel_set().name);
    const uint64_t rows_before = qzinterp3d::rows_run_by(entry.set->name);
    pool_rows_sent() = 0;
    body();
    EXPECT_EQ(qzinterp3d::rows_run_by(entry.set->name) - rows_before, pool_rows_sent().load())
        << "the forced kernel set did not run exactly the rows sent to the pool";
    ++sets_run;
    ++bodies_run_per_set()[entry.set->name];
    if (::testing::Test::HasFatalFailure()) break;
  }
  EXPECT_GE(sets_run, 1);
  qzinterp3d::force_kernel_set(original.c_str());
}

}  // namespace qztest
