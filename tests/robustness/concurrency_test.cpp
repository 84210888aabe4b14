// Many threads calling the pipelines at once, every variant on both paths,
// each call with its own output and all of them sharing the inputs: every
// call writes exactly the bits a lone call writes.
//
// The first test runs each call's rows on std::threads of its own
// (threaded_par_for), so that under ThreadSanitizer both the concurrent
// callers and the concurrent row tasks of each call are seen by the tool.
// The second uses the runtime's own pool, shared by all callers.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "par_for_shims.h"
#include "robust_case.h"
#include "sanitizer_build.h"

namespace qzrobust {
namespace {

constexpr int kCallers = 8;
constexpr int kRounds = 2;

// One call that can be repeated from any thread: true when it returned 0 and
// wrote the same bytes as the lone call made when the job was built.
using Job = std::function<bool()>;

template <class Variant>
void add_jobs(std::vector<Job>& jobs, uint64_t seed) {
  constexpr int32_t W = Variant::block_width;
  // A serial call, and a parallel one with full blocks and a shifted last
  // block over many rows.
  const Shape shapes[] = {{W, 4, 3, 2 * W + 3, 6, -3, 2, 1, 2, 1},
                          {2 * W + 1, 4, 3, 3 * W + 1, 24, 5, -4, 2, 1, 3}};
  for (const Shape& s : shapes) {
    auto c = std::make_shared<Case<Variant>>(s, seed++);
    std::shared_ptr<Output<typename Variant::coord_type>> lone = c->make_output();
    {
      // The lone call runs its rows in order in this thread.
      ScopedParFor in_order(&reverse_par_for);
      ASSERT_EQ(0, c->call(*lone));
    }
    auto want = c->expected();
    ASSERT_TRUE(c->matches(*lone, *want));
    jobs.push_back([c, lone] {
      auto out = c->make_output();
      return c->call(*out) == 0 && qztest::same_storage(out->buffer(), lone->buffer());
    });
  }
}

std::vector<Job> all_jobs() {
  std::vector<Job> jobs;
  uint64_t seed = 1000;
#define QZ_ADD_JOBS(method, type, T) \
  add_jobs<qzinterp3d::Variant<qzinterp3d::Method::method, T>>(jobs, seed += 10);
  QZ_FOR_EACH_VARIANT(QZ_ADD_JOBS)
#undef QZ_ADD_JOBS
  return jobs;
}

// kCallers threads, released together, each running every job kRounds times,
// starting at a different job so that different variants overlap. Returns
// the number of calls that went wrong; `calls` gets the number made.
int64_t run_concurrently(const std::vector<Job>& jobs, int64_t& calls) {
  std::atomic<int> ready{0};
  std::atomic<int64_t> wrong{0}, made{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < kCallers; ++t) {
    callers.emplace_back([&, t] {
      ready.fetch_add(1);
      while (ready.load() < kCallers) std::this_thread::yield();
      for (int round = 0; round < kRounds; ++round) {
        for (size_t k = 0; k < jobs.size(); ++k) {
          if (!jobs[(k + static_cast<size_t>(t) * 3) % jobs.size()]()) wrong.fetch_add(1);
          made.fetch_add(1);
        }
      }
    });
  }
  for (std::thread& t : callers) t.join();
  calls = made.load();
  return wrong.load();
}

TEST(ConcurrentCalls, RowsOnTheirOwnThreadsSameBitsAsALoneCall) {
  for_each_supported_kernel_set([](const char*) {
    std::vector<Job> jobs = all_jobs();
    if (::testing::Test::HasFatalFailure()) return;
    ASSERT_EQ(32u, jobs.size());
    par_for_log().reset();
    ScopedParFor threaded(&threaded_par_for);
    int64_t calls = 0;
    EXPECT_EQ(0, run_concurrently(jobs, calls)) << "calls that differ from a lone call";
    EXPECT_EQ(int64_t{kCallers} * kRounds * 32, calls);
    // Half the jobs take the parallel path; each of their calls ran its rows
    // on kParForThreads threads.
    EXPECT_EQ(calls / 2, par_for_log().calls.load());
    EXPECT_EQ(0, par_for_log().nonzero_task_results.load());
    ::testing::Test::RecordProperty("concurrent_callers", kCallers);
    ::testing::Test::RecordProperty("row_threads_per_call", kParForThreads);
    ::testing::Test::RecordProperty("calls", static_cast<int>(calls));
  });
}

TEST(ConcurrentCalls, RuntimePoolSharedByAllCallersSameBitsAsALoneCall) {
  if (!kRealPoolUsable) GTEST_SKIP() << "the runtime's pool is not instrumented";
  for_each_supported_kernel_set([](const char*) {
    std::vector<Job> jobs = all_jobs();
    if (::testing::Test::HasFatalFailure()) return;
    int64_t calls = 0;
    EXPECT_EQ(0, run_concurrently(jobs, calls)) << "calls that differ from a lone call";
    EXPECT_EQ(int64_t{kCallers} * kRounds * 32, calls);
  });
}

}  // namespace
}  // namespace qzrobust
