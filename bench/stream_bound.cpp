#include "stream_bound.h"

#include <HalideRuntime.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

template <class C>
struct StreamRecord {
  const C *x, *y, *z;
  C *out;
  int cols;
};

template <class C>
int stream_row(void * /*user_context*/, int row, uint8_t *closure) {
  const auto &r = *reinterpret_cast<const StreamRecord<C> *>(closure);
  const std::ptrdiff_t base = std::ptrdiff_t{row} * r.cols;
  const C *__restrict x = r.x + base;
  const C *__restrict y = r.y + base;
  const C *__restrict z = r.z + base;
  C *__restrict out = r.out + base;
  for (int i = 0; i < r.cols; ++i) out[i] = x[i] + y[i] + z[i];
  return 0;
}

template <class C>
int stream(const C *x, const C *y, const C *z, C *out, int rows, int cols) {
  StreamRecord<C> record{x, y, z, out, cols};
  return halide_do_par_for(nullptr, &stream_row<C>, 0, rows,
                           reinterpret_cast<uint8_t *>(&record));
}

struct BusyRecord {
  int steps;
  double *sink;  // one result per task, 64 bytes apart
};

int busy_task(void * /*user_context*/, int row, uint8_t *closure) {
  const auto &r = *reinterpret_cast<const BusyRecord *>(closure);
  double x = row;
  for (int i = 0; i < r.steps; ++i) x = x * 0.999999 + 1e-9;
  r.sink[std::ptrdiff_t{row} * 8] = x;
  return 0;
}

}  // namespace

extern "C" int qzbench_stream_float32(const float *x, const float *y, const float *z, float *out,
                                      int rows, int cols) {
  return stream(x, y, z, out, rows, cols);
}

extern "C" int qzbench_stream_float64(const double *x, const double *y, const double *z,
                                      double *out, int rows, int cols) {
  return stream(x, y, z, out, rows, cols);
}

extern "C" int qzbench_busy_tasks(int tasks, int steps) {
  static thread_local std::vector<double> sink;
  sink.resize(static_cast<std::size_t>(tasks) * 8);
  BusyRecord record{steps, sink.data()};
  return halide_do_par_for(nullptr, &busy_task, 0, tasks, reinterpret_cast<uint8_t *>(&record));
}
