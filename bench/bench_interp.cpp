// Throughput of the sixteen pipelines, called through the shared library's
// public entries, over methods x sample types x workloads x volume sizes,
// plus the streaming bound (Vq = Xq + Yq + Zq) over the same number of points,
// the plain Halide pipelines of the same algorithm (libqzbench_plain.so, when
// it was built next to this program) and the loads-only bound.
// One process runs one thread count, HL_NUM_THREADS (default: every CPU);
// run_suite.sh runs 1 and all.
//
// Names:  interp3_<method>_<type>/<workload>/n:<n>/threads:<t>
//         plain_<sse41|avx512>_<method>_<type>/<workload>/n:<n>/threads:<t>
//         loads/<method>_<type>/<workload>/n:<n>/threads:<t>
//         stream/<coordinate type>/points:<count>/threads:<t>
//         pool/tasks:<rows>/steps:<s>/threads:<t> (the pool alone; items: tasks)
//         host/line_round_trip (two threads hand one cache line back and forth)
// Without --benchmark_filter a quick subset runs (kQuickFilter below);
// --benchmark_filter=all runs the whole matrix, any other regex a part of it.
//
// items_per_second is query points per second. bytes_per_second counts the
// least traffic a point needs (three coordinates read, one result written),
// comparable with the stream rows. The kernel set is whatever the library
// picks: QZINTERP3D_KERNEL=<name> forces one (read once per process), and the
// context and each label say which was asked for ("auto" when none was).
#include <benchmark/benchmark.h>

#include <HalideRuntime.h>
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dense_buffer.h"
#include "loads_bound.h"
#include "qzinterp3d_halide.h"
#include "stream_bound.h"
#include "workloads.h"

namespace qzbench {
namespace {

constexpr const char* kQuickFilter =
    "^interp3_(bilinear|nearest)_float32/(oblique|random)/n:(64|512)/"
    "|^interp3_bilinear_uint8/oblique/n:256/"
    "|^(plain_(sse41|avx2|avx512)_|loads/)bilinear_uint8/oblique/n:256/"
    "|^stream/float32/"
    "|^pool/"
    "|^host/";

using Entry = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                      double, halide_buffer_t*);

std::string kernel_label() {
  const char* k = std::getenv("QZINTERP3D_KERNEL");
  return (k != nullptr && *k != '\0') ? std::string(k) : std::string("auto");
}

// The thread count of this process: HL_NUM_THREADS, else every CPU. The
// Halide runtime's pool is sized once: asked later for fewer threads it keeps
// all of its workers busy, and grown later it ran these short row tasks far
// slower than a pool started at that size. So one process measures one
// thread count (run_suite.sh runs 1 and all).
int pool_threads() {
  if (const char* s = std::getenv("HL_NUM_THREADS")) {
    const int n = std::atoi(s);
    if (n > 0) return n;
  }
  const unsigned n = std::thread::hardware_concurrency();
  return n > 0 ? static_cast<int>(n) : 1;
}

// One volume and one set of coordinates are kept at a time; benchmarks are
// registered so that consecutive ones share them (volume size and sample
// type outermost, then workload).
struct VolumeSlot {
  std::string key;
  std::shared_ptr<void> data;
};
VolumeSlot g_volume;

template <class T>
T* volume(const char* type_name, int n) {
  const std::string key = std::string(type_name) + "/" + std::to_string(n);
  if (g_volume.key != key) {
    g_volume.data.reset();  // free the old one first: 512^3 float64 is 1 GiB
    g_volume.data = std::shared_ptr<T[]>(make_volume<T>(n).release(), FreeDeleter{});
    g_volume.key = key;
  }
  return static_cast<T*>(g_volume.data.get());
}

template <class C>
const Coords<C>& coords(Workload w, int n) {
  static std::string key;
  static Coords<C> c;
  const std::string k = std::string(workload_name(w)) + "/" + std::to_string(n);
  if (key != k) {
    c = make_coords<C>(w, n);
    key = k;
  }
  return c;
}

// Times `run`, which computes kPoints points into `out` on `threads` threads.
template <class C, class Run>
void measure(benchmark::State& state, int threads, C* out, Run run) {
  run();  // warm up, start the pool
  for (auto _ : state) {
    run();
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
  const auto points = static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kPoints);
  state.SetItemsProcessed(points);
  state.SetBytesProcessed(points * static_cast<int64_t>(4 * sizeof(C)));
  state.counters["threads"] = threads;
}

// The descriptors of one benchmark: the shared volume and coordinates, and
// an output of its own.
template <class T>
struct Inputs {
  using C = std::conditional_t<std::is_same_v<T, double>, double, float>;
  static constexpr int kQueryExtents[2] = {kCols, kRows};
  int volume_extents[3];
  const Coords<C>& c;
  std::vector<C> out;
  Buffer V, X, Y, Z, Q;
  Inputs(const char* type_name, Workload w, int n)
      : volume_extents{n, n, n},
        c(coords<C>(w, n)),
        out(kPoints),
        V(volume<T>(type_name, n), 3, volume_extents),
        X(const_cast<C*>(c.x.data()), 2, kQueryExtents),
        Y(const_cast<C*>(c.y.data()), 2, kQueryExtents),
        Z(const_cast<C*>(c.z.data()), 2, kQueryExtents),
        Q(out.data(), 2, kQueryExtents) {}
};

// Ours, or a plain Halide pipeline: both take the entries' arguments.
template <class T>
void bm_interp(benchmark::State& state, Entry entry, const char* type_name, Workload w, int n,
               int threads) {
  Inputs<T> in(type_name, w, n);
  // Plain pipelines check their arguments and return non-zero on a misfit.
  if (entry(&in.V.buf, &in.X.buf, &in.Y.buf, &in.Z.buf, 0.0, &in.Q.buf) != 0) {
    state.SkipWithError("the pipeline returned an error");
    return;
  }
  measure(state, threads, in.out.data(),
          [&] { entry(&in.V.buf, &in.X.buf, &in.Y.buf, &in.Z.buf, 0.0, &in.Q.buf); });
  state.SetLabel("kernels=" + kernel_label());
}

// The loads-only bound: offsets prepared untimed, then only the sample reads.
template <class T>
void bm_loads(benchmark::State& state, int method, const char* type_name, Workload w, int n,
              int threads) {
  Inputs<T> in(type_name, w, n);
  const halide_type_t type = type_of<T>();
  const std::unique_ptr<void, void (*)(void*)> prepared(
      loads_prepare(method, type.code, type.bits, &in.V.buf, &in.X.buf, &in.Y.buf, &in.Z.buf),
      loads_free);
  if (!prepared) {
    state.SkipWithError("loads_prepare refused the volume");
    return;
  }
  measure(state, threads, in.out.data(), [&] { loads_run(prepared.get(), &in.Q.buf); });
}

template <class C>
void bm_stream(benchmark::State& state, int threads) {
  const Coords<C> c = make_coords<C>(Workload::random, 512);
  std::vector<C> out(kPoints);
  measure(state, threads, out.data(), [&] {
    if constexpr (std::is_same_v<C, double>) {
      qzbench_stream_float64(c.x.data(), c.y.data(), c.z.data(), out.data(), kRows, kCols);
    } else {
      qzbench_stream_float32(c.x.data(), c.y.data(), c.z.data(), out.data(), kRows, kCols);
    }
  });
}

// The pool alone: one call of kRows row tasks of `steps` dependent
// multiply-adds each (qzbench_busy_tasks). Items are tasks.
void bm_busy_tasks(benchmark::State& state, int threads, int steps) {
  int sink = 0;
  measure(state, threads, &sink, [&] { sink += qzbench_busy_tasks(kRows, steps); });
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRows);
  state.SetBytesProcessed(0);
}

// Two threads of this process hand one cache line to each other and back;
// items are round trips. What a pool's hand-over of a task costs at least
// when its threads run on cores that share no cache, and so how short a row
// task can be and still gain from a second thread.
void bm_line_round_trip(benchmark::State& state) {
  constexpr int64_t kTrips = 200000;
  alignas(64) std::atomic<int64_t> turn{0};
  for (auto _ : state) {
    turn.store(0);
    std::thread other([&] {
      for (int64_t i = 0; i < kTrips; ++i) {
        while (turn.load(std::memory_order_acquire) != 2 * i + 1) {
        }
        turn.store(2 * i + 2, std::memory_order_release);
      }
    });
    for (int64_t i = 0; i < kTrips; ++i) {
      while (turn.load(std::memory_order_acquire) != 2 * i) {
      }
      turn.store(2 * i + 1, std::memory_order_release);
    }
    other.join();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kTrips);
}

struct TypeEntry {
  const char* name;
  Entry nearest;
  Entry bilinear;
  void (*run)(benchmark::State&, Entry, const char*, Workload, int, int);
  void (*loads)(benchmark::State&, int, const char*, Workload, int, int);
};

#define QZ_TYPE_ENTRY(name, T) \
  {#name, interp3_nearest_##name, interp3_bilinear_##name, bm_interp<T>, bm_loads<T>}
const TypeEntry kTypes[] = {
    QZ_TYPE_ENTRY(float32, float), QZ_TYPE_ENTRY(float64, double),
    QZ_TYPE_ENTRY(int8, int8_t),   QZ_TYPE_ENTRY(uint8, uint8_t),
    QZ_TYPE_ENTRY(int16, int16_t), QZ_TYPE_ENTRY(uint16, uint16_t),
    QZ_TYPE_ENTRY(int32, int32_t), QZ_TYPE_ENTRY(uint32, uint32_t),
};
#undef QZ_TYPE_ENTRY

// libqzbench_plain.so from this program's directory, or null when it was not
// built (only qz_bench_all builds it). It links the same Halide runtime, so
// its pipelines run on the pool ours use.
void* plain_library() {
  static void* const handle = []() -> void* {
    char exe[4096];
    const ssize_t len = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (len <= 0) return nullptr;
    std::string path(exe, static_cast<std::size_t>(len));
    path.resize(path.rfind('/') + 1);
    return dlopen((path + "libqzbench_plain.so").c_str(), RTLD_NOW | RTLD_GLOBAL);
  }();
  return handle;
}

// The plain targets this CPU runs.
std::vector<std::string> plain_targets() {
  std::vector<std::string> targets{"sse41"};
  __builtin_cpu_init();
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                    __builtin_cpu_supports("f16c");
  if (avx2) targets.push_back("avx2");
  if (avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
      __builtin_cpu_supports("avx512cd")) {
    targets.push_back("avx512");
  }
  return targets;
}

void register_interp(const std::string& name, const TypeEntry& type, Entry entry, Workload w,
                     int n, int t) {
  benchmark::RegisterBenchmark(name.c_str(), type.run, entry, type.name, w, n, t)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
}

void register_all(int t) {
  // Volume size and sample type outer, so that consecutive benchmarks share a volume.
  const int sizes[] = {64, 128, 256, 512};
  const std::string threads = "/threads:" + std::to_string(t);
  const std::string points = "/points:" + std::to_string(kPoints);
  benchmark::RegisterBenchmark(("stream/float32" + points + threads).c_str(), bm_stream<float>, t)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("stream/float64" + points + threads).c_str(), bm_stream<double>, t)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond);
  // 0 steps: dispatch alone; 250 and 500 last about as long here as a row of
  // the fastest nearest and trilinear calls (0.3 and 0.7 us); the others
  // span the rest of the rows' lengths, so that bench/scaling.py can set each
  // row's two-thread speed-up beside the pool's at the same task length.
  for (int steps : {0, 125, 250, 500, 1000, 2000, 4000}) {
    const std::string name =
        "pool/tasks:" + std::to_string(kRows) + "/steps:" + std::to_string(steps) + threads;
    benchmark::RegisterBenchmark(name.c_str(), bm_busy_tasks, t, steps)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
  }
  if (std::thread::hardware_concurrency() >= 2) {
    benchmark::RegisterBenchmark("host/line_round_trip", bm_line_round_trip)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
  }
  const std::vector<std::string> targets = plain_targets();
  for (int n : sizes) {
    for (const TypeEntry& type : kTypes) {
      for (Workload w : kAllWorkloads) {
        for (int method = 0; method < 2; ++method) {
          const std::string variant =
              std::string(method == 0 ? "bilinear_" : "nearest_") + type.name;
          const std::string suffix =
              std::string("/") + workload_name(w) + "/n:" + std::to_string(n) + threads;
          register_interp("interp3_" + variant + suffix, type,
                          method == 0 ? type.bilinear : type.nearest, w, n, t);
          for (const std::string& target : targets) {
            const std::string plain = "plain_" + target + "_" + variant;
            void* symbol = plain_library() ? dlsym(plain_library(), plain.c_str()) : nullptr;
            if (symbol != nullptr) {
              register_interp(plain + suffix, type, reinterpret_cast<Entry>(symbol), w, n, t);
            }
          }
          benchmark::RegisterBenchmark(("loads/" + variant + suffix).c_str(), type.loads,
                                       method == 0 ? LOADS_TRILINEAR : LOADS_NEAREST, type.name,
                                       w, n, t)
              ->UseRealTime()
              ->Unit(benchmark::kMillisecond);
        }
      }
    }
  }
}

}  // namespace
}  // namespace qzbench

int main(int argc, char** argv) {
  // Without a filter of the caller's, run the quick subset.
  bool has_filter = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--benchmark_filter", 18) == 0) has_filter = true;
  }
  std::vector<char*> args(argv, argv + argc);
  std::string quick = std::string("--benchmark_filter=") + qzbench::kQuickFilter;
  if (!has_filter) args.insert(args.begin() + 1, quick.data());
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);

  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 1;
  benchmark::AddCustomContext("qz_kernel_set", qzbench::kernel_label());
  const int threads = qzbench::pool_threads();
  halide_set_num_threads(threads);  // before any parallel call: the pool's size
  benchmark::AddCustomContext("qz_threads", std::to_string(threads));
  benchmark::AddCustomContext("qz_filter", has_filter ? "caller's" : "quick default subset");
  qzbench::register_all(threads);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
