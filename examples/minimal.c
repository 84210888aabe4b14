/* The smallest complete use of the C interface: a 6 x 4 x 3 float32 grid,
 * three query points in one row, one nearest and one trilinear entry, each
 * called twice: first as a bounds query (no host memory) to learn how large
 * the coordinate and output buffers must be, then for real.
 *
 * The grid holds V(i, j, k) = i + 10 j + 100 k (0-based indices), so a
 * result can be read off as the 0-based position it was taken at. Query
 * coordinates are 1-based: x = 1 is the first sample along dimension 0.
 */
#include <qzinterp3d_halide.h>

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef int (*entry_fn)(struct halide_buffer_t *, struct halide_buffer_t *,
                        struct halide_buffer_t *, struct halide_buffer_t *, double,
                        struct halide_buffer_t *);

enum { NX = 6, NY = 4, NZ = 3, POINTS = 3 };

static const float kQuery[POINTS][3] = {
    {2.5f, 2.0f, 3.0f},   /* half-way between i = 1 and i = 2, at j = 1, k = 2 */
    {4.2f, 3.7f, 1.25f},  /* somewhere inside */
    {7.0f, 1.0f, 1.0f},   /* outside: x beyond the last sample (6) */
};

static void describe(const char *name, const halide_buffer_t *b) {
  printf("  %-2s: x in [%d, %d), y in [%d, %d), row stride %d\n", name, b->dim[0].min,
         b->dim[0].min + b->dim[0].extent, b->dim[1].min, b->dim[1].min + b->dim[1].extent,
         b->dim[1].stride);
}

static int run(const char *name, entry_fn entry, halide_buffer_t *V) {
  /* The output we want: POINTS columns, one row. Coordinates and output
   * start as bounds queries: host NULL, device 0, dims filled in by the
   * call. */
  halide_dimension_t dims[4][2];
  halide_buffer_t q[4]; /* Xq, Yq, Zq, Vq */
  memset(q, 0, sizeof q);
  for (int b = 0; b < 4; ++b) {
    memset(dims[b], 0, sizeof dims[b]);
    q[b].dim = dims[b];
    q[b].dimensions = 2;
  }
  dims[3][0].extent = POINTS;
  dims[3][0].stride = 1;
  dims[3][1].extent = 1;
  dims[3][1].stride = POINTS;

  entry(V, &q[0], &q[1], &q[2], NAN, &q[3]);
  printf("%s, bounds query for %d points:\n", name, POINTS);
  describe("Xq", &q[0]);
  describe("Vq", &q[3]);

  /* Allocate what was asked for: the grid is wider than one block (4
   * floats), so an output narrower than 4 columns grows to 4, ending at its
   * last column. Our points go in the last POINTS columns. */
  const int w = q[3].dim[0].extent, skip = w - POINTS;
  float *mem = calloc((size_t)4 * (size_t)w, sizeof(float));
  if (mem == NULL) return 1;
  for (int b = 0; b < 4; ++b) q[b].host = (uint8_t *)(mem + b * w);
  for (int p = 0; p < POINTS; ++p)
    for (int axis = 0; axis < 3; ++axis) mem[axis * w + skip + p] = kQuery[p][axis];

  entry(V, &q[0], &q[1], &q[2], NAN, &q[3]);
  for (int p = 0; p < POINTS; ++p) {
    printf("  V(%.2f, %.2f, %.2f) = %g\n", kQuery[p][0], kQuery[p][1], kQuery[p][2],
           mem[3 * w + skip + p]);
  }
  const float expected = strcmp(name, "nearest") == 0 ? 212.0f : 211.5f;
  const int ok = mem[3 * w + skip] == expected && isnan(mem[3 * w + skip + 2]);
  free(mem);
  return ok ? 0 : 1;
}

int main(void) {
  static float grid[NZ][NY][NX];
  for (int k = 0; k < NZ; ++k)
    for (int j = 0; j < NY; ++j)
      for (int i = 0; i < NX; ++i) grid[k][j][i] = (float)(i + 10 * j + 100 * k);

  halide_dimension_t vdims[3] = {{0, NX, 1, 0}, {0, NY, NX, 0}, {0, NZ, NX * NY, 0}};
  halide_buffer_t V;
  memset(&V, 0, sizeof V);
  V.host = (uint8_t *)grid;
  V.type.code = halide_type_float;
  V.type.bits = 32;
  V.type.lanes = 1;
  V.dimensions = 3;
  V.dim = vdims;

  int failures = 0;
  failures += run("nearest", interp3_nearest_float32, &V);
  failures += run("trilinear", interp3_bilinear_float32, &V);
  if (failures) fprintf(stderr, "minimal: unexpected results\n");
  return failures ? 1 : 0;
}
