// The loads-only bound: for given query points, read the samples the
// library's method reads for them, at the same addresses, and do nothing
// else with them.
// Its speed bounds how fast any implementation of the method can fetch its
// samples from this volume.
//
// loads_prepare (untimed) maps every point to the element offsets it reads,
// by the library's rules: nearest, the one sample at the round-to-even index
// of q - 1; trilinear, the eight corners at the floor and ceiling indices of
// q - 1; every index clamped to [0, n - 1], points outside included (their
// samples are fetched too). As the library's kernels do, trilinear reads
// the corners in x pairs: the two samples at the lower x corner and the next
// one (one back where the lower corner is the row's last sample), one load
// where a pair fits in 64 bits, at the lower and upper y and z corners (the
// same pair twice where the two corners along y or z are one sample, at an
// integer coordinate or an edge). The offsets are kept as one 32-bit word
// per point, rows dense:
//   nearest    the sample's element offset from V's host;
//   trilinear  the offset of the first pair in bits 0-29, and in bits 30
//              and 31 whether the upper y and z corners lie one step further
//              (by V's dim-1 and dim-2 strides).
// So a point costs 4 bytes of offsets, a third of the 12 bytes of float32
// coordinates the library reads (a sixth of float64's 24): the bound moves
// less streaming traffic than the library, never more, and stays a bound.
//
// loads_run (timed) reads, per point, its word and its samples (scalar
// loads, no hardware gathers; where the points are scattered over a volume
// above 1 MiB, with prefetches 48 points ahead, as the library prefetches
// for large grids), XORs their raw bits together and stores that
// as one word of the coordinate type's size (4 bytes; 8 for float64
// samples), the size of the library's result. Rows run on the Halide
// runtime's pool, one halide_do_par_for task per row, as the library's rows
// do (halide_set_num_threads or HL_NUM_THREADS set the thread count).
#pragma once

#include <HalideRuntime.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { LOADS_NEAREST = 0, LOADS_TRILINEAR = 1 };

// method: LOADS_NEAREST or LOADS_TRILINEAR. type_code and type_bits: V's
// element type as halide_type_t's code and bits (int 0, uint 1, float 2;
// 8, 16, 32 or 64). V is 3-D with dense dimension 0; Xq, Yq, Zq are 2-D
// coordinates (float32, or float64 for float64 samples) over the same
// region, dense along dimension 0; the points are Xq's region. V is read by
// loads_run through its host pointer, so it must outlive the handle; the
// coordinates are not used after preparing. Returns NULL when the arguments
// do not fit (unknown method or type, wrong dimensions, or an offset outside
// [0, 2^30), or trilinear with fewer than two samples along x).
__attribute__((visibility("default"))) void *loads_prepare(int method, int type_code,
                                                           int type_bits,
                                                           const halide_buffer_t *V,
                                                           const halide_buffer_t *Xq,
                                                           const halide_buffer_t *Yq,
                                                           const halide_buffer_t *Zq);

// Reads the prepared samples into `out`: 2-D, the points' extents, elements
// of 4 bytes (8 for float64 samples), dense along dimension 0. Returns what
// halide_do_par_for returns (0), or -1 when `out` does not fit.
__attribute__((visibility("default"))) int loads_run(const void *prepared, halide_buffer_t *out);

__attribute__((visibility("default"))) void loads_free(void *prepared);

#ifdef __cplusplus
}
#endif
