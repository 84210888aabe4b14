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
#include <dlfcn.h>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <algorithm>
#include <HalideRuntime.h>
#include "workloads.h"
using namespace qzbench;
using Entry = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, double, halide_buffer_t*);
template <class T> halide_type_t type_of() {
  if constexpr (std::is_same_v<T, float>) return {halide_type_float, 32, 1};
  if constexpr (std::is_same_v<T, double>) return {halide_type_float, 64, 1};
  constexpr auto bits = static_cast<uint8_t>(8 * sizeof(T));
  if constexpr (std::is_signed_v<T>) return {halide_type_int, bits, 1};
  return {halide_type_uint, bits, 1};
}
struct Buffer {
  halide_dimension_t dim[3]; halide_buffer_t buf;
  template <class T> Buffer(T* host, int dims, const int* extents) : dim{}, buf{} {
    int stride = 1;
    for (int d = 0; d < dims; ++d) { dim[d] = {0, extents[d], stride, 0}; stride *= extents[d]; }
    buf.host = reinterpret_cast<uint8_t*>(host); buf.type = type_of<T>(); buf.dimensions = dims; buf.dim = dim;
  }
};
std::vector<void*> libs; std::vector<std::string> exps;
Workload wl(const std::string& s){ for (auto w: kAllWorkloads) if (s==workload_name(w)) return w; abort(); }
template <class T>
void run(const char* method, const char* tname, const std::string& w, int n, int reps) {
  using C = std::conditional_t<std::is_same_v<T, double>, double, float>;
  auto vol = make_volume<T>(n); auto c = make_coords<C>(wl(w), n);
  std::vector<C> out(kPoints);
  int ve[3] = {n, n, n}, qe[2] = {kCols, kRows};
  Buffer V(vol.get(), 3, ve), X(c.x.data(), 2, qe), Y(c.y.data(), 2, qe), Z(c.z.data(), 2, qe), Q(out.data(), 2, qe);
  std::string name = std::string("interp3_") + method + "_" + tname;
  std::vector<Entry> es; for (auto l: libs) es.push_back((Entry)dlsym(l, name.c_str()));
  std::vector<std::vector<double>> t(es.size());
  for (int r = 0; r < reps; ++r) for (size_t k = 0; k < es.size(); ++k) {
    es[k](&V.buf,&X.buf,&Y.buf,&Z.buf,0.0,&Q.buf);
    auto t0 = std::chrono::steady_clock::now();
    int it = 0; double el;
    do { es[k](&V.buf,&X.buf,&Y.buf,&Z.buf,0.0,&Q.buf); ++it; el = std::chrono::duration<double>(std::chrono::steady_clock::now()-t0).count(); } while (el < 0.05);
    t[k].push_back(kPoints * it / el / 1e6);
  }
  std::printf("%-8s %-7s %-14s %4d", method, tname, w.c_str(), n);
  std::vector<double> med; for (auto& v : t) { std::sort(v.begin(), v.end()); med.push_back(v[v.size()/2]); }
  std::printf(" %7.0f", med[0]); for (size_t k = 1; k < med.size(); ++k) std::printf(" %6.2f", med[k]/med[0]);
  std::printf("\n"); fflush(stdout);
}
int main(int argc, char** argv) {
  if (argc < 8 || (argc - 4) % 4 != 0 || std::atoi(argv[3]) < 1) {
    std::fprintf(stderr, "usage: %s LIB CONFIGS REPS METHOD TYPE WORKLOAD N [...]\n", argv[0]);
    return 2;
  }
  const char* lib = argv[1];
  const std::string list = argv[2];
  const int reps = std::atoi(argv[3]);
  for (size_t p = 0; p <= list.size();) {
    size_t q = list.find(',', p);
    if (q == std::string::npos) q = list.size();
    exps.push_back(list.substr(p, q - p));
    p = q + 1;
  }
  char dir_template[] = "/tmp/qz_ab_XXXXXX";
  const std::string dir = mkdtemp(dir_template);
  for (size_t k = 0; k < exps.size(); ++k) {
    std::string e = exps[k], kern, src = lib;
    const size_t bar = e.find('|');
    if (bar != std::string::npos) { src = e.substr(0, bar); e = e.substr(bar + 1); }
    const size_t colon = e.find(':');
    if (colon != std::string::npos) { kern = e.substr(colon + 1); e = e.substr(0, colon); }
    exps[k] = exps[k].substr(bar == std::string::npos ? 0 : bar + 1);  // the label[:set] shown
    // A copy of its own, so that the loader keeps its statics apart.
    const std::string copy = dir + "/lib_" + std::to_string(k) + ".so";
    const std::string cmd = "cp '" + src + "' '" + copy + "'";
    if (std::system(cmd.c_str()) != 0) return 1;
    if (kern.empty()) unsetenv("QZINTERP3D_KERNEL"); else setenv("QZINTERP3D_KERNEL", kern.c_str(), 1);
    void* h = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) { std::puts(dlerror()); return 1; }
    unlink(copy.c_str());
    libs.push_back(h);
    {  // a first call picks this copy's kernel set while its environment holds
      std::vector<float> v(32 * 32 * 32, 1.f), x(64 * 2, 2.f), o(64 * 2);
      int ve[3] = {32, 32, 32}, qe[2] = {64, 2};
      Buffer V(v.data(), 3, ve), X(x.data(), 2, qe), Q(o.data(), 2, qe);
      reinterpret_cast<Entry>(dlsym(h, "interp3_nearest_float32"))(&V.buf, &X.buf, &X.buf, &X.buf, 0.0, &Q.buf);
    }
  }
  rmdir(dir.c_str());
  std::printf("%-8s %-7s %-14s %4s %7s", "method", "type", "workload", "n", "base");
  for (size_t k = 1; k < exps.size(); ++k) std::printf(" %6s", exps[k].c_str());
  std::printf("\n");
  for (int a = 4; a + 3 < argc; a += 4) {
    const std::string m = argv[a], tn = argv[a + 1], w = argv[a + 2];
    const int n = std::atoi(argv[a + 3]);
#define GO(T) run<T>(m.c_str(), tn.c_str(), w, n, reps)
    if (tn == "float32") GO(float); else if (tn == "float64") GO(double);
    else if (tn == "uint8") GO(uint8_t); else if (tn == "int8") GO(int8_t);
    else if (tn == "uint16") GO(uint16_t); else if (tn == "int16") GO(int16_t);
    else if (tn == "uint32") GO(uint32_t); else if (tn == "int32") GO(int32_t);
    else { std::fprintf(stderr, "unknown type %s\n", tn.c_str()); return 2; }
#undef GO
  }
}
