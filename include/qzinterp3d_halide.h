/*
 * libqzinterp3d_halide: sample a 3-D grid at arbitrary query points.
 *
 * Sixteen pipelines, interp3_<method>_<type>:
 *   method  nearest   nearest neighbour (ties round to even)
 *           bilinear  trilinear: blends along all three axes (the name is historical)
 *   type    the element type of V: float32, float64, int8, uint8, int16, uint16,
 *           int32, uint32
 *
 * Arguments, the same for all sixteen:
 *   V           3-D grid. Dimension 0 (x) is dense (stride 1; not read).
 *               Indexed from absolute coordinate 0 on every axis, so give it
 *               mins of 0 (what the bounds query asks for). All memory
 *               between the lowest and the highest address that indices in
 *               [0, n - 1] on every axis reach must be readable (with mins of
 *               0: V's storage, as a Halide buffer's one allocation is): row
 *               padding there may be read (never used) by vector loads.
 *   Xq, Yq, Zq  2-D query coordinates along V's dimensions 0, 1 and 2,
 *               1-based: q = 1 is the first sample, q = n the last. Each is
 *               read at the same absolute (x, y) as the output element.
 *   fill_value  written where a point lies outside the grid, converted once
 *               to the output type (float32 outputs: rounded to nearest).
 *   Vq          2-D output, same region as the coordinates.
 * Coordinates and output are float64 for the float64 pipelines and float32
 * for all others; integer samples are converted to float32 when read, and
 * results are never converted back to the sample type.
 *
 * Each function returns 0, always. It validates nothing: element types,
 * dimension counts, unit inner strides and buffer sizes are the caller's
 * duty, and a buffer too small for the region it must cover is read or
 * written out of bounds. Nothing is allocated, logged or kept between calls.
 *
 * Bounds query: a buffer whose host is NULL and device is 0 asks for its
 * shape. If any of the five buffers is such a query, the call rewrites each
 * queried descriptor (type, dimensions, and for each dimension min, extent,
 * dense stride and flags 0; its dim array must already hold 2, or 3 for V,
 * entries), computes nothing and returns 0. Size every buffer this way: when
 * V is wider than one block (16 bytes of samples) and the output is narrower,
 * the output and coordinate regions grow to a full block ending at the
 * output's last column, and those extra columns are read and written.
 *
 * Paths: V no wider than one block (nx <= 16 / sample size) is computed in
 * the calling thread; wider grids are computed row by row on the Halide
 * runtime's thread pool (halide_do_par_for; HL_NUM_THREADS sets its size).
 * NaN coordinates: in the calling-thread path of the trilinear pipelines and
 * of interp3_nearest_float64 they give fill_value; in the pooled path they
 * count as inside (index 0 on that axis; trilinear gives NaN), and so do they
 * in the calling-thread path of the other nearest pipelines, except in the
 * last (width mod 4) columns of each row, where they give fill_value.
 *
 * Results are exact: each path follows a fixed rounding sequence, the same
 * bits on every CPU, every thread count and any caller floating-point state.
 */
#ifndef QZINTERP3D_HALIDE_H
#define QZINTERP3D_HALIDE_H

#include <HalideRuntime.h>

#if defined(_WIN32)
#define QZINTERP3D_API
#else
#define QZINTERP3D_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define QZINTERP3D_DECLARE(name)                                                      \
  QZINTERP3D_API int name(struct halide_buffer_t *V, struct halide_buffer_t *Xq,      \
                          struct halide_buffer_t *Yq, struct halide_buffer_t *Zq,     \
                          double fill_value, struct halide_buffer_t *Vq)

QZINTERP3D_DECLARE(interp3_bilinear_float32);
QZINTERP3D_DECLARE(interp3_bilinear_float64);
QZINTERP3D_DECLARE(interp3_bilinear_int8);
QZINTERP3D_DECLARE(interp3_bilinear_int16);
QZINTERP3D_DECLARE(interp3_bilinear_int32);
QZINTERP3D_DECLARE(interp3_bilinear_uint8);
QZINTERP3D_DECLARE(interp3_bilinear_uint16);
QZINTERP3D_DECLARE(interp3_bilinear_uint32);
QZINTERP3D_DECLARE(interp3_nearest_float32);
QZINTERP3D_DECLARE(interp3_nearest_float64);
QZINTERP3D_DECLARE(interp3_nearest_int8);
QZINTERP3D_DECLARE(interp3_nearest_int16);
QZINTERP3D_DECLARE(interp3_nearest_int32);
QZINTERP3D_DECLARE(interp3_nearest_uint8);
QZINTERP3D_DECLARE(interp3_nearest_uint16);
QZINTERP3D_DECLARE(interp3_nearest_uint32);

#undef QZINTERP3D_DECLARE

#ifdef __cplusplus
}
#endif

#endif /* QZINTERP3D_HALIDE_H */
