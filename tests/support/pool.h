// Control over the runtime's thread pool for tests: a stand-in for
// halide_do_par_for that records each call, and a scoped thread count.
#pragma once

#include <HalideRuntime.h>

#include <cstdint>
#include <vector>

namespace qztest {

// While alive, every halide_do_par_for goes here: the arguments are recorded
// and the tasks are run in the calling thread in the order asked for, and the
// given status is returned. Not for concurrent callers.
class ParForSpy {
 public:
  enum class Order { ascending, descending };

  struct Call {
    void* user_context;
    halide_task_t task;
    int min;
    int size;
    uint8_t* closure;
    std::vector<int> task_results;  // in the order the tasks ran
  };

  explicit ParForSpy(Order order = Order::ascending, int status = 0)
      : order_(order), status_(status) {
    current() = this;
    previous_ = halide_set_custom_do_par_for(&ParForSpy::hook);
  }
  ~ParForSpy() {
    halide_set_custom_do_par_for(previous_);
    current() = nullptr;
  }
  ParForSpy(const ParForSpy&) = delete;
  ParForSpy& operator=(const ParForSpy&) = delete;

  const std::vector<Call>& calls() const { return calls_; }

 private:
  static ParForSpy*& current() {
    static ParForSpy* spy = nullptr;
    return spy;
  }

  static int hook(void* user_context, halide_task_t task, int min, int size, uint8_t* closure) {
    ParForSpy& spy = *current();
    Call call{user_context, task, min, size, closure, {}};
    for (int i = 0; i < size; ++i) {
      const int index = spy.order_ == Order::ascending ? min + i : min + size - 1 - i;
      call.task_results.push_back(task(user_context, index, closure));
    }
    spy.calls_.push_back(call);
    return spy.status_;
  }

  Order order_;
  int status_;
  halide_do_par_for_t previous_;
  std::vector<Call> calls_;
};

// Sets the pool's thread count for the scope and restores the previous one.
class PoolThreads {
 public:
  explicit PoolThreads(int n) : previous_(halide_set_num_threads(n)) {}
  ~PoolThreads() { halide_set_num_threads(previous_); }
  PoolThreads(const PoolThreads&) = delete;
  PoolThreads& operator=(const PoolThreads&) = delete;

 private:
  int previous_;
};

}  // namespace qztest
