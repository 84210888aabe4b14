// Many caller threads at once, each with its own outputs over shared inputs:
// every call gives the bits that the same call gives alone.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/kernel_sets.h"
#include "support/random_inputs.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest {
namespace {

constexpr int kCallerThreads = 8;
constexpr int kRounds = 6;

// One variant's inputs, the output of a lone call over them, and an output
// buffer per caller thread.
class SharedInputsJob {
 public:
  virtual ~SharedInputsJob() = default;
  virtual void call_from(int thread) = 0;
  virtual std::string mismatches_of(int thread) = 0;
};

template <Method M, class S>
class JobOf : public SharedInputsJob {
 public:
  using C = CoordOf<S>;

  JobOf(const Shape& shape, uint64_t seed) : scene_(shape) {
    std::mt19937_64 rng(seed);
    scene_.grid().fill([&](int64_t, int64_t, int64_t) { return random_sample<S>(rng); });
    for (int64_t r = 0; r < shape.height; ++r) {
      for (int64_t c = -scene_.reach(); c < shape.width; ++c) {
        scene_.set_point(c, r, random_coord<C>(rng, shape.nx), random_coord<C>(rng, shape.ny),
                         random_coord<C>(rng, shape.nz));
      }
    }
    EXPECT_EQ(0, scene_.call(1.25));
    for (int t = 0; t < kCallerThreads; ++t) {
      outputs_.push_back(scene_.new_output());
      descriptors_.push_back(scene_.describe_output(*outputs_.back()));
    }
  }

  void call_from(int thread) override {
    if (scene_.parallel()) note_pool_rows(scene_.shape().height);
    const int status = entry_of<M, S>()(scene_.v(), scene_.xq(), scene_.yq(), scene_.zq(), 1.25,
                                        &descriptors_[static_cast<size_t>(thread)]);
    if (status != 0) failed_status_ = status;
  }

  std::string mismatches_of(int thread) override {
    if (failed_status_ != 0) return "returned " + std::to_string(failed_status_);
    return scene_.mismatches_with(*outputs_[static_cast<size_t>(thread)]);
  }

 private:
  Scene<M, S> scene_;
  std::vector<std::unique_ptr<TestBuffer<C>>> outputs_;
  std::vector<halide_buffer_t> descriptors_;
  std::atomic<int> failed_status_{0};
};

// Every variant on both paths: a pooled grid with tall, wide outputs, and a
// serial one.
std::vector<std::unique_ptr<SharedInputsJob>> make_jobs() {
  std::vector<std::unique_ptr<SharedInputsJob>> jobs;
  uint64_t seed = 5;
#define QZ_TEST_ADD_JOBS(method, type, T)                                               \
  {                                                                                     \
    constexpr int32_t W = qzinterp3d::block_width_of<T>();                              \
    jobs.push_back(std::make_unique<JobOf<Method::method, T>>(                          \
        Shape{3 * W + 1, 5, 4, 5 * W + 3, 24, -3, 2}, seed++));                         \
    jobs.push_back(std::make_unique<JobOf<Method::method, T>>(                          \
        Shape{W, 5, 4, 13, 6, 1, -1}, seed++));                                         \
  }
  QZ_FOR_EACH_VARIANT(QZ_TEST_ADD_JOBS)
#undef QZ_TEST_ADD_JOBS
  return jobs;
}

TEST(CallerThreads, ConcurrentCallsOnDisjointOutputsGiveTheBitsOfALoneCall) {
  for_each_kernel_set([] {
    const std::vector<std::unique_ptr<SharedInputsJob>> jobs = make_jobs();
    std::vector<std::thread> threads;
    for (int t = 0; t < kCallerThreads; ++t) {
      threads.emplace_back([&jobs, t] {
        // Each thread walks the jobs from its own starting point, so that
        // different variants run at the same moment.
        for (int round = 0; round < kRounds; ++round) {
          for (size_t k = 0; k < jobs.size(); ++k) {
            jobs[(k + static_cast<size_t>(t) * 5) % jobs.size()]->call_from(t);
          }
        }
      });
    }
    for (std::thread& th : threads) th.join();
    for (size_t k = 0; k < jobs.size(); ++k) {
      for (int t = 0; t < kCallerThreads; ++t) {
        EXPECT_EQ("", jobs[k]->mismatches_of(t)) << "job " << k << " thread " << t;
      }
    }
  });
}

}  // namespace
}  // namespace qztest
