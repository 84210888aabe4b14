// Builds of the library against each other, in one process on the same
// inputs: each configuration loads its own copy of a library file (so two
// builds, or one build under two kernel sets, sit side by side), and every
// repetition times each in turn. Between processes the same case can vary by
// half here (where the volume's pages land); within one the copies agree to
// a few percent, so ratios from this tool are what to compare builds by.
//
//   HL_NUM_THREADS=1 build-bench/bench/qz_ab_libraries LIB CONFIGS REPS
//       METHOD TYPE WORKLOAD N [METHOD TYPE WORKLOAD N ...]
//
// CONFIGS is a comma list, each [FILE|]X[:KERNEL_SET]: the library file
// (default LIB), a label X, and a kernel set to force in that copy. The
// first configuration is the base: the table gives its million points per
// second and every other one's rate over it (medians of REPS).
#include <HalideRuntime.h>
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dense_buffer.h"
#include "workloads.h"

namespace qzbench {
namespace {

using Entry = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                      double, halide_buffer_t*);

// One loaded copy of a library, and what the table calls it.
struct Copy {
  void* handle;
  std::string label;
};

bool workload_named(const std::string& name, Workload& w) {
  for (Workload candidate : kAllWorkloads) {
    if (name == workload_name(candidate)) {
      w = candidate;
      return true;
    }
  }
  return false;
}

// Million points per second of one call of `entry`, timed over repeated
// calls for at least 50 ms after one untimed call.
double rate(Entry entry, Buffer& V, Buffer& X, Buffer& Y, Buffer& Z, Buffer& Q) {
  entry(&V.buf, &X.buf, &Y.buf, &Z.buf, 0.0, &Q.buf);
  const auto start = std::chrono::steady_clock::now();
  int calls = 0;
  double seconds = 0;
  do {
    entry(&V.buf, &X.buf, &Y.buf, &Z.buf, 0.0, &Q.buf);
    ++calls;
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  } while (seconds < 0.05);
  return static_cast<double>(kPoints) * calls / seconds / 1e6;
}

// One case: its volume and points built once, every copy timed in turn.
template <class T>
bool run_case(const std::vector<Copy>& copies, const std::string& method, const std::string& type,
              Workload w, int n, int reps) {
  using C = std::conditional_t<std::is_same_v<T, double>, double, float>;
  const Volume<T> volume = make_volume<T>(n);
  Coords<C> c = make_coords<C>(w, n);
  std::vector<C> out(kPoints);
  const int volume_extents[3] = {n, n, n}, query_extents[2] = {kCols, kRows};
  Buffer V(volume.get(), 3, volume_extents), X(c.x.data(), 2, query_extents),
      Y(c.y.data(), 2, query_extents), Z(c.z.data(), 2, query_extents),
      Q(out.data(), 2, query_extents);
  const std::string name = "interp3_" + method + "_" + type;
  std::vector<Entry> entries;
  for (const Copy& copy : copies) {
    auto* entry = reinterpret_cast<Entry>(dlsym(copy.handle, name.c_str()));
    if (entry == nullptr) {
      std::fprintf(stderr, "no entry %s\n", name.c_str());
      return false;
    }
    entries.push_back(entry);
  }
  std::vector<std::vector<double>> rates(entries.size());
  for (int r = 0; r < reps; ++r) {
    for (size_t k = 0; k < entries.size(); ++k) rates[k].push_back(rate(entries[k], V, X, Y, Z, Q));
  }
  std::vector<double> medians;
  for (std::vector<double>& v : rates) {
    std::sort(v.begin(), v.end());
    medians.push_back(v[v.size() / 2]);
  }
  std::printf("%-8s %-7s %-14s %4d %7.0f", method.c_str(), type.c_str(), workload_name(w), n,
              medians[0]);
  for (size_t k = 1; k < medians.size(); ++k) std::printf(" %6.2f", medians[k] / medians[0]);
  std::printf("\n");
  std::fflush(stdout);
  return true;
}

bool run_case(const std::vector<Copy>& copies, const std::string& method, const std::string& type,
              Workload w, int n, int reps) {
  if (type == "float32") return run_case<float>(copies, method, type, w, n, reps);
  if (type == "float64") return run_case<double>(copies, method, type, w, n, reps);
  if (type == "uint8") return run_case<uint8_t>(copies, method, type, w, n, reps);
  if (type == "int8") return run_case<int8_t>(copies, method, type, w, n, reps);
  if (type == "uint16") return run_case<uint16_t>(copies, method, type, w, n, reps);
  if (type == "int16") return run_case<int16_t>(copies, method, type, w, n, reps);
  if (type == "uint32") return run_case<uint32_t>(copies, method, type, w, n, reps);
  if (type == "int32") return run_case<int32_t>(copies, method, type, w, n, reps);
  std::fprintf(stderr, "unknown type %s\n", type.c_str());
  return false;
}

// Loads a copy of `file` of its own (so that the loader keeps its statics
// apart) and makes one call while QZINTERP3D_KERNEL names `kernel_set`, so
// that the copy picks that set (the library picks once, at its first call).
void* load_copy(const std::string& file, const std::string& dir, size_t k,
                const std::string& kernel_set) {
  const std::string copy = dir + "/lib_" + std::to_string(k) + ".so";
  const std::string command = "cp '" + file + "' '" + copy + "'";
  if (std::system(command.c_str()) != 0) return nullptr;
  if (kernel_set.empty()) {
    unsetenv("QZINTERP3D_KERNEL");
  } else {
    setenv("QZINTERP3D_KERNEL", kernel_set.c_str(), 1);
  }
  void* handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  unlink(copy.c_str());
  if (handle == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return nullptr;
  }
  std::vector<float> v(32 * 32 * 32, 1.f), x(64 * 2, 2.f), o(64 * 2);
  const int volume_extents[3] = {32, 32, 32}, query_extents[2] = {64, 2};
  Buffer V(v.data(), 3, volume_extents), X(x.data(), 2, query_extents),
      Q(o.data(), 2, query_extents);
  auto* entry = reinterpret_cast<Entry>(dlsym(handle, "interp3_nearest_float32"));
  if (entry == nullptr || entry(&V.buf, &X.buf, &X.buf, &X.buf, 0.0, &Q.buf) != 0) return nullptr;
  return handle;
}

}  // namespace
}  // namespace qzbench

int main(int argc, char** argv) {
  using namespace qzbench;
  if (argc < 8 || (argc - 4) % 4 != 0 || std::atoi(argv[3]) < 1) {
    std::fprintf(stderr, "usage: %s LIB CONFIGS REPS METHOD TYPE WORKLOAD N [...]\n", argv[0]);
    return 2;
  }
  const std::string default_file = argv[1], list = argv[2];
  const int reps = std::atoi(argv[3]);
  char dir_template[] = "/tmp/qz_ab_XXXXXX";
  if (mkdtemp(dir_template) == nullptr) return 1;
  const std::string dir = dir_template;
  std::vector<Copy> copies;
  for (size_t begin = 0; begin <= list.size();) {
    size_t end = list.find(',', begin);
    if (end == std::string::npos) end = list.size();
    // [FILE|]LABEL[:KERNEL_SET]
    std::string config = list.substr(begin, end - begin), file = default_file, kernel_set;
    begin = end + 1;
    const size_t bar = config.find('|');
    if (bar != std::string::npos) {
      file = config.substr(0, bar);
      config = config.substr(bar + 1);
    }
    const size_t colon = config.find(':');
    if (colon != std::string::npos) kernel_set = config.substr(colon + 1);
    void* handle = load_copy(file, dir, copies.size(), kernel_set);
    if (handle == nullptr) {
      std::fprintf(stderr, "could not load %s\n", file.c_str());
      return 1;
    }
    copies.push_back({handle, config});
  }
  rmdir(dir.c_str());
  std::printf("%-8s %-7s %-14s %4s %7s", "method", "type", "workload", "n", "base");
  for (size_t k = 1; k < copies.size(); ++k) std::printf(" %6s", copies[k].label.c_str());
  std::printf("\n");
  for (int a = 4; a + 3 < argc; a += 4) {
    Workload w;
    if (!workload_named(argv[a + 2], w)) {
      std::fprintf(stderr, "unknown workload %s\n", argv[a + 2]);
      return 2;
    }
    if (!run_case(copies, argv[a], argv[a + 1], w, std::atoi(argv[a + 3]), reps)) return 2;
  }
  return 0;
}
