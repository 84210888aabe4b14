// The streaming bound: Vq = Xq + Yq + Zq over the rows of a 2-D grid of
// points, run on the Halide runtime's thread pool (halide_do_par_for, one
// task per row) exactly as the library runs its rows. It reads three
// coordinates and writes one result per point, the least traffic any
// interpolation of the same points must move; its speed bounds ours from
// above. Rows are dense and `cols` apart. Thread count:
// halide_set_num_threads() or HL_NUM_THREADS, as for the library.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

__attribute__((visibility("default"))) int qzbench_stream_float32(
    const float *x, const float *y, const float *z, float *out, int rows, int cols);
__attribute__((visibility("default"))) int qzbench_stream_float64(
    const double *x, const double *y, const double *z, double *out, int rows, int cols);

// The pool alone: `tasks` row tasks through the same halide_do_par_for,
// each a chain of `steps` dependent floating-point multiply-adds and no
// memory traffic. With 0 steps it times the dispatch of a row; with enough
// steps to last as long as a row of ours, it shows how far the pool itself
// lets tasks of that length scale with threads.
__attribute__((visibility("default"))) int qzbench_busy_tasks(int tasks, int steps);

#ifdef __cplusplus
}
#endif
