// Benchmark workloads: the query points and the volumes they sample.
//
// Every workload has 1024 x 1024 query points laid out as a 1024-column,
// 1024-row output, so every run does the same number of row tasks. Every
// point lies inside the volume.
//
//   axis_x    an axial slice (volume z fixed at centre + 0.3): output rows
//             run along volume x, row after row along y, both spanning the
//             whole extent at spacing (n - 1) / 1024.
//   axis_y    a slice at fixed x (centre + 0.3): rows along y, row after row
//             along z. Consecutive points are a grid row apart.
//   axis_z    a slice at fixed y (centre + 0.3): rows along z, row after row
//             along x. Consecutive points are a grid plane apart.
//   oblique   a rotated plane through the centre of the volume, a square of
//             side 0.7 (n - 1) sampled 1024 x 1024 times: coherent access,
//             every point inside (the square's half-diagonal is below
//             (n - 1) / 2). Its rows rise about 13 degrees out of the x-y
//             plane.
//   oblique_45, oblique_steep
//             the same square on planes whose rows rise about 45 and 79
//             degrees out of the x-y plane: consecutive points cross grid
//             rows and planes more and more often.
//   upsample  a regular grid at 4x density (spacing 0.25, offset 0.125 from
//             the voxels, so no point sits on a rounding tie) over a
//             32 x 32 x 16-voxel box at the centre: 128 x 128 x 64 points,
//             x fastest. The box is the same for every volume size.
//   deformed  a regular 128 x 128 x 64 grid (x fastest) at spacing
//             0.8 (n - 1) / 128 around the centre, each point moved by a
//             smooth displacement of up to 4.5 voxels per axis (a sum of
//             low-frequency sines of the grid position), as a registration's
//             resampling does.
//   random    uniform in [1, n) on each axis: one cache miss per point once
//             the volume outgrows the caches.
//
// Coordinates are 1-based (q = 1 is the first sample) and computed in double,
// then rounded to the coordinate type. compare.py builds the same points,
// bit for bit (bench/workloads_test.py checks it): every double operation
// here is a plain IEEE operation in the same order there, and the sines are
// the C library's in both.
#pragma once

#include <sys/mman.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace qzbench {

constexpr int kCols = 1024;
constexpr int kRows = 1024;
constexpr std::size_t kPoints = std::size_t{kCols} * kRows;

enum class Workload {
  axis_x,
  axis_y,
  axis_z,
  oblique,
  oblique_45,
  oblique_steep,
  upsample,
  deformed,
  random
};

constexpr std::array<Workload, 9> kAllWorkloads = {
    Workload::axis_x,        Workload::axis_y,   Workload::axis_z,
    Workload::oblique,       Workload::oblique_45, Workload::oblique_steep,
    Workload::upsample,      Workload::deformed, Workload::random};

inline const char* workload_name(Workload w) {
  switch (w) {
    case Workload::axis_x: return "axis_x";
    case Workload::axis_y: return "axis_y";
    case Workload::axis_z: return "axis_z";
    case Workload::oblique: return "oblique";
    case Workload::oblique_45: return "oblique_45";
    case Workload::oblique_steep: return "oblique_steep";
    case Workload::upsample: return "upsample";
    case Workload::deformed: return "deformed";
    case Workload::random: return "random";
  }
  return "?";
}

// splitmix64: a small, fast, reproducible generator.
struct SplitMix64 {
  uint64_t s;
  explicit SplitMix64(uint64_t seed) : s(seed) {}
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }  // [0, 1)
};

template <class C>
struct Coords {
  std::vector<C> x, y, z;
};

namespace detail {

using Vec3 = std::array<double, 3>;

inline double dot(const Vec3& a, const Vec3& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

inline Vec3 normalized(Vec3 a) {
  const double norm = std::sqrt(dot(a, a));
  for (double& e : a) e /= norm;
  return a;
}

// The square of side 0.7 (n - 1) centred in the volume on the plane spanned
// by u and (Gram-Schmidt) v; rows run along u.
template <class C>
void plane(Coords<C>& c, int n, Vec3 u, Vec3 v) {
  u = normalized(u);
  const double d = dot(u, v);
  for (int k = 0; k < 3; ++k) v[k] -= d * u[k];
  v = normalized(v);
  const double centre = (n + 1) / 2.0;
  const double side = 0.7 * (n - 1);
  for (int j = 0; j < kRows; ++j) {
    const double b = ((j + 0.5) / kRows - 0.5) * side;
    for (int i = 0; i < kCols; ++i) {
      const double a = ((i + 0.5) / kCols - 0.5) * side;
      const std::size_t k = std::size_t{static_cast<unsigned>(j)} * kCols + i;
      c.x[k] = static_cast<C>(centre + a * u[0] + b * v[0]);
      c.y[k] = static_cast<C>(centre + a * u[1] + b * v[1]);
      c.z[k] = static_cast<C>(centre + a * u[2] + b * v[2]);
    }
  }
}

// A slice through the whole extent: column i and row j at 1 + (n - 1)(i + 0.5)
// / 1024 along the volume axes `col_axis` and `row_axis`, the third axis at
// centre + 0.3 (between grid planes at every size).
template <class C>
void axis_slice(Coords<C>& c, int n, int col_axis, int row_axis) {
  std::vector<C>* axes[3] = {&c.x, &c.y, &c.z};
  const double fixed = (n + 1) / 2.0 + 0.3;
  for (int j = 0; j < kRows; ++j) {
    const double along_row = 1.0 + (n - 1) * ((j + 0.5) / kRows);
    for (int i = 0; i < kCols; ++i) {
      const double along_col = 1.0 + (n - 1) * ((i + 0.5) / kCols);
      const std::size_t k = std::size_t{static_cast<unsigned>(j)} * kCols + i;
      for (int a = 0; a < 3; ++a) {
        (*axes[a])[k] = static_cast<C>(a == col_axis ? along_col : a == row_axis ? along_row : fixed);
      }
    }
  }
}

// One axis of the deformed grid: the base position of grid index i (of g)
// plus that axis's share of the displacement along each grid axis.
// wave(t, cycles, phase) = sin(2 pi cycles t + phase), t = (i + 0.5) / g.
inline double wave(int i, int g, double cycles, double phase) {
  return std::sin(2.0 * M_PI * cycles * ((i + 0.5) / g) + phase);
}

}  // namespace detail

// The deformed grid's extents and displacement terms. For output axis a
// (0 = x) the displacement is  sum over grid axes b of
// kDeformAmplitude[b] * wave(t_b, kDeformCycles[b], kDeformPhase[a][b]).
constexpr int kDeformGrid[3] = {128, 128, 64};
constexpr double kDeformAmplitude[3] = {2.0, 1.5, 1.0};
constexpr double kDeformCycles[3] = {1.0, 2.0, 1.0};
constexpr double kDeformPhase[3][3] = {{0.0, 1.0, 2.0}, {0.5, 1.5, 2.5}, {1.2, 0.2, 2.2}};

template <class C>
Coords<C> make_coords(Workload w, int n) {
  Coords<C> c;
  c.x.resize(kPoints);
  c.y.resize(kPoints);
  c.z.resize(kPoints);
  const double centre = (n + 1) / 2.0;  // 1-based centre of the volume
  switch (w) {
    case Workload::axis_x: detail::axis_slice(c, n, 0, 1); break;
    case Workload::axis_y: detail::axis_slice(c, n, 1, 2); break;
    case Workload::axis_z: detail::axis_slice(c, n, 2, 0); break;
    case Workload::oblique: detail::plane(c, n, {1.0, 0.5, 0.25}, {-0.4, 1.0, 0.6}); break;
    case Workload::oblique_45: detail::plane(c, n, {0.7, 0.1, 0.7}, {0.2, 1.0, -0.3}); break;
    case Workload::oblique_steep: detail::plane(c, n, {0.17, 0.08, 0.98}, {-0.3, 1.0, 0.1}); break;
    case Workload::upsample: {
      constexpr int kFactor = 4, kBoxX = 32, kBoxY = 32, kBoxZ = 16;
      constexpr int px = kBoxX * kFactor, py = kBoxY * kFactor, pz = kBoxZ * kFactor;
      static_assert(std::size_t{px} * py * pz == kPoints, "the grid fills the output");
      const double x0 = centre - kBoxX / 2, y0 = centre - kBoxY / 2, z0 = centre - kBoxZ / 2;
      std::size_t k = 0;
      for (int iz = 0; iz < pz; ++iz) {
        for (int iy = 0; iy < py; ++iy) {
          for (int ix = 0; ix < px; ++ix, ++k) {
            c.x[k] = static_cast<C>(x0 + (ix + 0.5) / kFactor);
            c.y[k] = static_cast<C>(y0 + (iy + 0.5) / kFactor);
            c.z[k] = static_cast<C>(z0 + (iz + 0.5) / kFactor);
          }
        }
      }
      break;
    }
    case Workload::deformed: {
      const int* g = kDeformGrid;
      static_assert(std::size_t{kDeformGrid[0]} * kDeformGrid[1] * kDeformGrid[2] == kPoints,
                    "the grid fills the output");
      const double spacing = 0.8 * (n - 1) / g[0];
      // Per output axis a and grid axis b, the 1-D table of that term; for
      // b == a the base position comes first.
      std::vector<double> term[3][3];
      for (int a = 0; a < 3; ++a) {
        for (int b = 0; b < 3; ++b) {
          term[a][b].resize(static_cast<std::size_t>(g[b]));
          for (int i = 0; i < g[b]; ++i) {
            const double shift = kDeformAmplitude[b] *
                                 detail::wave(i, g[b], kDeformCycles[b], kDeformPhase[a][b]);
            const double base = centre + (i + 0.5 - g[b] / 2) * spacing;
            term[a][b][static_cast<std::size_t>(i)] = a == b ? base + shift : shift;
          }
        }
      }
      // Each axis: (own base + own term) + the other two terms in grid-axis order.
      std::vector<C>* axes[3] = {&c.x, &c.y, &c.z};
      std::size_t k = 0;
      for (int iz = 0; iz < g[2]; ++iz) {
        for (int iy = 0; iy < g[1]; ++iy) {
          for (int ix = 0; ix < g[0]; ++ix, ++k) {
            const int idx[3] = {ix, iy, iz};
            for (int a = 0; a < 3; ++a) {
              double q = term[a][a][static_cast<std::size_t>(idx[a])];
              for (int b = 0; b < 3; ++b) {
                if (b != a) q += term[a][b][static_cast<std::size_t>(idx[b])];
              }
              (*axes[a])[k] = static_cast<C>(q);
            }
          }
        }
      }
      break;
    }
    case Workload::random: {
      SplitMix64 rng(0x5EED0000u + static_cast<uint64_t>(n));
      const double span = n - 1;
      for (std::size_t k = 0; k < kPoints; ++k) {
        c.x[k] = static_cast<C>(1.0 + span * rng.uniform());
        c.y[k] = static_cast<C>(1.0 + span * rng.uniform());
        c.z[k] = static_cast<C>(1.0 + span * rng.uniform());
      }
      break;
    }
  }
  return c;
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
template <class T>
using Volume = std::unique_ptr<T[], FreeDeleter>;

// A volume of n^3 samples, x fastest. Float samples are uniform in [0, 1);
// integer samples are random over the whole range of the type. The values do
// not change the work done; they only keep it free of NaNs and denormals.
// The memory is 2 MiB aligned and, unless QZBENCH_HUGEPAGES=0, advised to use
// transparent huge pages, as numpy does for large arrays (compare.py's
// volumes): random access then pays for cache misses, not for page walks.
template <class T>
Volume<T> make_volume(int n) {
  const std::size_t count = std::size_t{static_cast<unsigned>(n)} * n * n;
  constexpr std::size_t kHuge = std::size_t{2} << 20;
  const std::size_t bytes = (count * sizeof(T) + kHuge - 1) / kHuge * kHuge;
  Volume<T> v(static_cast<T*>(std::aligned_alloc(kHuge, bytes)));
  if (!v) throw std::bad_alloc();
  const char* huge = std::getenv("QZBENCH_HUGEPAGES");
  if (huge == nullptr || std::string(huge) != "0") madvise(v.get(), bytes, MADV_HUGEPAGE);
  SplitMix64 rng(0xC0FFEEu + static_cast<uint64_t>(n));
  for (std::size_t k = 0; k < count; ++k) {
    if constexpr (std::is_floating_point_v<T>) {
      v[k] = static_cast<T>(rng.uniform());
    } else {
      v[k] = static_cast<T>(rng.next());
    }
  }
  return v;
}

}  // namespace qzbench
