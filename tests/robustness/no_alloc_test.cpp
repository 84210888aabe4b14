// A call allocates nothing: not in the calling thread, not in the row tasks,
// not in the runtime's parallel-for, on either path, for every variant and
// kernel set.
//
// This executable replaces the allocator for the whole process: global
// operator new/delete (every form) and malloc, calloc, realloc, free and the
// aligned allocators. Because the executable defines them, the dynamic
// linker binds every library's calls to them too - the pipelines' library
// and the Halide runtime's. Each counts while counting is on, from any
// thread, and forwards to the C library's own allocator. Sanitizer builds
// cannot replace malloc (the sanitizer owns it); there the sanitizer's
// allocation hook does the counting instead.
//
// The runtime's thread pool starts its worker threads at its first
// parallel-for, and starting a thread allocates (the C library's thread
// set-up; under a sanitizer, also its bookkeeping, in the new thread itself,
// after pthread_create has returned). The test therefore warms the pool up
// until a row task has run on a worker thread - which proves the worker has
// finished starting - before counting; what the warm-up allocated is
// reported, not judged.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <thread>
#include <vector>

#include "par_for_shims.h"
#include "robust_case.h"
#include "sanitizer_build.h"

#if defined(QZ_UNDER_ASAN) || defined(QZ_UNDER_TSAN)
#define QZ_COUNT_WITH_SANITIZER_HOOK 1
// Exported by the sanitizer runtimes of GCC and clang alike (GCC ships no
// header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*,
                                                                             size_t),
                                                         void (*free_hook)(const volatile void*));
#endif

namespace qzrobust {
namespace {

std::atomic<bool> g_counting{false};
std::atomic<int64_t> g_allocations{0};

inline void note_allocation() {
  if (g_counting.load(std::memory_order_relaxed)) g_allocations.fetch_add(1);
}

// Counts what `body` allocates, from any thread.
template <class Body>
int64_t allocations_during(Body&& body) {
  g_allocations = 0;
  g_counting = true;
  body();
  g_counting = false;
  return g_allocations.load();
}

}  // namespace
}  // namespace qzrobust

#if defined(QZ_COUNT_WITH_SANITIZER_HOOK)
namespace {
void sanitizer_malloc_hook(const volatile void*, size_t) { qzrobust::note_allocation(); }
void sanitizer_free_hook(const volatile void*) {}
[[maybe_unused]] const int g_hook_installed =
    __sanitizer_install_malloc_and_free_hooks(&sanitizer_malloc_hook, &sanitizer_free_hook);
}  // namespace
#else
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
void* __libc_memalign(size_t, size_t);
void* __libc_valloc(size_t);
void* __libc_pvalloc(size_t);

void* malloc(size_t n) {
  qzrobust::note_allocation();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
  qzrobust::note_allocation();
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
  qzrobust::note_allocation();
  return __libc_realloc(p, n);
}
void free(void* p) { __libc_free(p); }
void* memalign(size_t alignment, size_t n) {
  qzrobust::note_allocation();
  return __libc_memalign(alignment, n);
}
void* aligned_alloc(size_t alignment, size_t n) {
  qzrobust::note_allocation();
  return __libc_memalign(alignment, n);
}
int posix_memalign(void** out, size_t alignment, size_t n) {
  qzrobust::note_allocation();
  void* p = __libc_memalign(alignment, n);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}
void* reallocarray(void* p, size_t n, size_t size) {
  qzrobust::note_allocation();
  if (size != 0 && n > static_cast<size_t>(-1) / size) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_realloc(p, n * size);
}
void* valloc(size_t n) {
  qzrobust::note_allocation();
  return __libc_valloc(n);
}
void* pvalloc(size_t n) {
  qzrobust::note_allocation();
  return __libc_pvalloc(n);
}
}  // extern "C"
#endif

// operator new and delete, every form, on malloc and free. In a plain build
// an operator new counts twice (here and in malloc): the tests only ask for
// zero.
namespace {
void* counted_new(size_t n) {
  qzrobust::note_allocation();
  if (void* p = std::malloc(n != 0 ? n : 1)) return p;
  throw std::bad_alloc();
}
void* counted_new_aligned(size_t n, std::align_val_t a) {
  qzrobust::note_allocation();
  const size_t alignment = static_cast<size_t>(a);
  void* p = nullptr;
  if (posix_memalign(&p, alignment < sizeof(void*) ? sizeof(void*) : alignment, n != 0 ? n : 1) !=
      0) {
    throw std::bad_alloc();
  }
  return p;
}
}  // namespace

void* operator new(size_t n) { return counted_new(n); }
void* operator new[](size_t n) { return counted_new(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
  try {
    return counted_new(n);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  try {
    return counted_new(n);
  } catch (...) {
    return nullptr;
  }
}
void* operator new(size_t n, std::align_val_t a) { return counted_new_aligned(n, a); }
void* operator new[](size_t n, std::align_val_t a) { return counted_new_aligned(n, a); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace qzrobust {
namespace {

// The counter sees allocations in this thread, in other threads, through
// operator new, and inside another shared library (the runtime's
// halide_malloc calls malloc there): so a zero below means something.
TEST(AllocationCounter, SeesEveryKindOfAllocation) {
  EXPECT_GE(allocations_during([] {
              int* volatile p = new int(7);
              delete p;
            }),
            1);
  EXPECT_GE(allocations_during([] {
              void* volatile p = std::malloc(40);
              std::free(p);
            }),
            1);
  EXPECT_GE(allocations_during([] {
              void* volatile p = halide_malloc(nullptr, 64);
              halide_free(nullptr, p);
            }),
            1);
  EXPECT_GE(allocations_during([] {
              std::thread t([] {
                void* volatile p = std::calloc(3, 8);
                std::free(p);
              });
              t.join();
            }),
            1);
}

struct PreparedCall {
  std::function<int()> call;
  bool parallel;
};

template <class Variant>
void prepare(std::vector<PreparedCall>& calls, std::vector<std::shared_ptr<void>>& keep,
             uint64_t seed) {
  constexpr int32_t W = Variant::block_width;
  const Shape shapes[] = {{W, 3, 4, 2 * W + 3, 5, -1, 2, 1, 1, 2},       // serial
                          {W + 3, 3, 4, 2 * W + 3, 40, 4, -3, 2, 0, 1},  // parallel, last block
                          {2 * W, 2, 2, W - 1, 7, 0, 0, 0, 1, 0}};       // one shifted block
  for (const Shape& s : shapes) {
    auto c = std::make_shared<Case<Variant>>(s, seed++);
    std::shared_ptr<Output<typename Variant::coord_type>> out = c->make_output();
    keep.push_back(c);
    keep.push_back(out);
    Case<Variant>* cp = c.get();
    auto* op = out.get();
    calls.push_back({[cp, op] { return cp->call(*op); }, c->parallel()});
  }
}

// Three calls of every variant, made ready (buffers and all) in advance.
void prepare_all(std::vector<PreparedCall>& calls, std::vector<std::shared_ptr<void>>& keep,
                 uint64_t seed) {
#define QZ_PREPARE(method, type, T) \
  prepare<qzinterp3d::Variant<qzinterp3d::Method::method, T>>(calls, keep, seed += 5);
  QZ_FOR_EACH_VARIANT(QZ_PREPARE)
#undef QZ_PREPARE
}

// Counts the row tasks that the pool runs on threads other than the caller.
// A task on the caller waits (a bounded number of yields) for a worker to
// take one, so that the worker gets its turn however fast the rows are.
thread_local bool t_is_caller = false;
std::atomic<int64_t> g_tasks_on_workers{0};
int observing_do_task(void* uc, halide_task_t f, int idx, uint8_t* closure) {
  if (!t_is_caller) {
    g_tasks_on_workers.fetch_add(1);
  } else {
    for (int i = 0; i < 10000000 && g_tasks_on_workers.load() == 0; ++i) std::this_thread::yield();
  }
  return f(uc, idx, closure);
}

TEST(NoAllocation, NoCallOnEitherPathAllocates) {
  if (!kRealPoolUsable) GTEST_SKIP() << "the runtime's pool is not instrumented";
  std::vector<PreparedCall> calls;
  std::vector<std::shared_ptr<void>> keep;
  prepare_all(calls, keep, 40);
  ASSERT_EQ(48u, calls.size());
  int parallel_calls = 0;
  for (const PreparedCall& c : calls) parallel_calls += c.parallel;
  ASSERT_EQ(32, parallel_calls);

  // Warm-up, with one worker thread (two threads working, the caller
  // included), until a row task has run on it. The observing do_task stays
  // in place while counting, so that every parallel call below has at least
  // one of its rows run by the worker.
  const int previous_threads = halide_set_num_threads(2);
  t_is_caller = true;
  const halide_do_task_t previous_do_task = halide_set_custom_do_task(&observing_do_task);
  int64_t warm_up = 0;
  for (int attempt = 0; attempt < 1000 && g_tasks_on_workers.load() == 0; ++attempt) {
    warm_up += allocations_during([&] { (void)calls[1].call(); });
  }
  ASSERT_GT(g_tasks_on_workers.load(), 0) << "no row task ever ran on a worker thread";
  std::cout << "allocations while the runtime's pool started: " << warm_up << "\n";

  for_each_supported_kernel_set([&](const char* set) {
    (void)qzinterp3d::active_kernel_set();
    std::vector<int> statuses(calls.size(), -1);
    std::vector<int64_t> worker_rows(calls.size(), -1);
    for (int repeat = 0; repeat < 3; ++repeat) {
      const int64_t n = allocations_during([&] {
        for (size_t i = 0; i < calls.size(); ++i) {
          g_tasks_on_workers = 0;
          statuses[i] = calls[i].call();
          worker_rows[i] = g_tasks_on_workers.load();
        }
      });
      EXPECT_EQ(0, n) << "allocations during " << calls.size() << " calls with kernel set " << set;
      for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(0, statuses[i]);
        if (calls[i].parallel) {
          EXPECT_GT(worker_rows[i], 0) << "call " << i << " ran no row on the worker";
        }
      }
    }
  });
  halide_set_custom_do_task(previous_do_task);
  halide_set_num_threads(previous_threads);
}

// The same calls, the rows on the calling thread and with the runtime's
// default pool replaced: the library itself allocates nothing, whoever runs
// the rows (this variant runs in sanitizer builds too).
int rows_in_caller(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  for (int i = 0; i < size; ++i) (void)task(uc, min + i, closure);
  return 0;
}

TEST(NoAllocation, LibraryAloneAllocatesNothing) {
  std::vector<PreparedCall> calls;
  std::vector<std::shared_ptr<void>> keep;
  prepare_all(calls, keep, 80);
  ScopedParFor in_caller(&rows_in_caller);
  for_each_supported_kernel_set([&](const char*) {
    (void)qzinterp3d::active_kernel_set();
    const int64_t n = allocations_during([&] {
      for (const PreparedCall& c : calls) (void)c.call();
    });
    EXPECT_EQ(0, n);
  });
}

}  // namespace
}  // namespace qzrobust
