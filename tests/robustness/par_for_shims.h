// Stand-ins for the runtime's parallel-for, installed with
// halide_set_custom_do_par_for for the life of a ScopedParFor.
//
// ThreadedParFor runs the row tasks of one call on several std::threads that
// start together and take rows from a shared counter. The threads and every
// synchronisation between them are ordinary C++ (std::thread, std::atomic),
// so a ThreadSanitizer build sees the real row tasks running concurrently,
// and the happens-before edges that make them correct: the Halide runtime
// itself is not instrumented, so its own pool would be invisible to the tool
// (and its internal locking would read as races).
#pragma once

#include <HalideRuntime.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace qzrobust {

class ScopedParFor {
 public:
  explicit ScopedParFor(halide_do_par_for_t f) : previous_(halide_set_custom_do_par_for(f)) {}
  ~ScopedParFor() { halide_set_custom_do_par_for(previous_); }
  ScopedParFor(const ScopedParFor&) = delete;
  ScopedParFor& operator=(const ScopedParFor&) = delete;

 private:
  halide_do_par_for_t previous_;
};

// What the stand-ins saw, over all calls since the last reset. Atomic: calls
// may come from many threads.
struct ParForLog {
  std::atomic<int64_t> calls{0};
  std::atomic<int64_t> tasks_run{0};
  std::atomic<int64_t> nonzero_task_results{0};
  std::atomic<int64_t> non_null_user_context{0};
  std::atomic<int64_t> nonzero_min{0};
  std::atomic<int> last_size{-1};
  void reset() {
    calls = 0;
    tasks_run = 0;
    nonzero_task_results = 0;
    non_null_user_context = 0;
    nonzero_min = 0;
    last_size = -1;
  }
};

inline ParForLog& par_for_log() {
  static ParForLog log;
  return log;
}

inline void note_call(void* user_context, int min, int size) {
  ParForLog& log = par_for_log();
  log.calls.fetch_add(1);
  if (user_context != nullptr) log.non_null_user_context.fetch_add(1);
  if (min != 0) log.nonzero_min.fetch_add(1);
  log.last_size = size;
}

inline void run_task(halide_task_t task, void* user_context, int index, uint8_t* closure) {
  const int r = task(user_context, index, closure);
  par_for_log().tasks_run.fetch_add(1);
  if (r != 0) par_for_log().nonzero_task_results.fetch_add(1);
}

// Rows last to first, in the calling thread.
inline int reverse_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  note_call(uc, min, size);
  for (int i = size - 1; i >= 0; --i) run_task(task, uc, min + i, closure);
  return 0;
}

// Rows in a random order (a fresh permutation every call), in the calling
// thread.
inline int shuffled_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  static std::atomic<uint64_t> seed{12345};
  note_call(uc, min, size);
  std::vector<int> order(static_cast<size_t>(std::max(size, 0)));
  for (int i = 0; i < size; ++i) order[static_cast<size_t>(i)] = min + i;
  std::mt19937_64 rng(seed.fetch_add(1));
  std::shuffle(order.begin(), order.end(), rng);
  for (int index : order) run_task(task, uc, index, closure);
  return 0;
}

// Every row twice, ascending then descending, as a runtime that retries
// would: rows depend only on the inputs, so the second pass changes nothing.
inline int twice_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  note_call(uc, min, size);
  for (int i = 0; i < size; ++i) run_task(task, uc, min + i, closure);
  for (int i = size - 1; i >= 0; --i) run_task(task, uc, min + i, closure);
  return 0;
}

// Rows on kThreads std::threads at once, released together, each taking the
// next row from a shared counter; the caller waits for all of them.
constexpr int kParForThreads = 4;
inline int threaded_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  note_call(uc, min, size);
  std::atomic<int> next{0};
  std::atomic<int> ready{0};
  std::atomic<int> status{0};
  std::vector<std::thread> threads;
  threads.reserve(kParForThreads);
  for (int t = 0; t < kParForThreads; ++t) {
    threads.emplace_back([&] {
      ready.fetch_add(1);
      while (ready.load() < kParForThreads) std::this_thread::yield();
      for (int i = next.fetch_add(1); i < size; i = next.fetch_add(1)) {
        const int r = task(uc, min + i, closure);
        par_for_log().tasks_run.fetch_add(1);
        if (r != 0) {
          par_for_log().nonzero_task_results.fetch_add(1);
          status = r;
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  return status.load();
}

// Runs every row, then reports a failure.
inline int failing_after_rows_par_for(void* uc, halide_task_t task, int min, int size,
                                      uint8_t* closure) {
  note_call(uc, min, size);
  for (int i = 0; i < size; ++i) run_task(task, uc, min + i, closure);
  return -1;
}

// Reports a failure without running a single row.
inline int failing_par_for(void* uc, halide_task_t, int min, int size, uint8_t*) {
  note_call(uc, min, size);
  return -27;
}

}  // namespace qzrobust
