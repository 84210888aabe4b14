// Writes one workload's query points to stdout as raw native-endian arrays,
// x then y then z, 1024 x 1024 each, for workloads_test.py to compare with
// compare.py's points.
//   qz_workloads_dump <workload> <n> <float32|float64>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "workloads.h"

namespace {

template <class C>
int dump(qzbench::Workload w, int n) {
  const qzbench::Coords<C> c = qzbench::make_coords<C>(w, n);
  for (const std::vector<C>* axis : {&c.x, &c.y, &c.z}) {
    if (std::fwrite(axis->data(), sizeof(C), axis->size(), stdout) != axis->size()) return 1;
  }
  return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <workload> <n> <float32|float64>\n", argv[0]);
    return 2;
  }
  const int n = std::atoi(argv[2]);
  for (qzbench::Workload w : qzbench::kAllWorkloads) {
    if (std::strcmp(argv[1], qzbench::workload_name(w)) != 0) continue;
    if (std::strcmp(argv[3], "float32") == 0) return dump<float>(w, n);
    if (std::strcmp(argv[3], "float64") == 0) return dump<double>(w, n);
  }
  std::fprintf(stderr, "%s: unknown workload or coordinate type\n", argv[0]);
  return 2;
}
