/* Uses the C header alone: a bounds query, then the call, on a grid whose
 * sample at 0-based (i, j, k) is i + 10 j + 100 k. Exits non-zero when a
 * value is not the expected one. */
#include <qzinterp3d_halide.h>

#include <stdio.h>
#include <string.h>

int main(void) {
  float grid[3][4][6]; /* [k][j][i] */
  for (int k = 0; k < 3; ++k)
    for (int j = 0; j < 4; ++j)
      for (int i = 0; i < 6; ++i) grid[k][j][i] = (float)(i + 10 * j + 100 * k);
  halide_dimension_t vd[3] = {{0, 6, 1, 0}, {0, 4, 6, 0}, {0, 3, 24, 0}};
  halide_buffer_t V;
  memset(&V, 0, sizeof V);
  V.host = (uint8_t *)grid;
  V.type.code = halide_type_float;
  V.type.bits = 32;
  V.type.lanes = 1;
  V.dimensions = 3;
  V.dim = vd;

  /* One query point, at 1-based (2.5, 2, 3): the bounds query widens the
   * region to one block of 4 columns because the grid is 6 wide. */
  halide_dimension_t qd[4][2] = {{{0, 1, 1, 0}, {0, 1, 1, 0}}};
  halide_buffer_t q[4];
  for (int b = 0; b < 4; ++b) {
    memset(&q[b], 0, sizeof q[b]);
    q[b].dim = qd[b];
    q[b].dimensions = 2;
  }
  memcpy(qd[3], qd[0], sizeof qd[0]);
  interp3_bilinear_float32(&V, &q[0], &q[1], &q[2], -1.0, &q[3]);
  const int w = q[0].dim[0].extent;
  if (w != 4 || q[0].dim[0].min != -3) {
    fprintf(stderr, "consumer_c: bounds query gave min %d extent %d\n", q[0].dim[0].min, w);
    return 1;
  }
  float x[4], y[4], z[4], out[4];
  for (int c = 0; c < 4; ++c) {
    x[c] = 2.5f;
    y[c] = 2.0f;
    z[c] = 3.0f;
  }
  float *host[4] = {x, y, z, out};
  for (int b = 0; b < 4; ++b) q[b].host = (uint8_t *)host[b];
  interp3_bilinear_float32(&V, &q[0], &q[1], &q[2], -1.0, &q[3]);
  printf("consumer_c: V(2.5, 2, 3) = %g\n", out[3]);
  return out[3] == 211.5f ? 0 : 1;
}
