// Benchmark workloads: the query points and the volumes they sample.
//
// Every workload has 1024 x 1024 query points laid out as a 1024-column,
// 1024-row output, so every run does the same number of row tasks.
//
//   oblique   a rotated plane through the centre of the volume, a square of
//             side 0.7 (n - 1) sampled 1024 x 1024 times: coherent access,
//             every point inside (the square's half-diagonal is below
//             (n - 1) / 2).
//   upsample  a regular grid at 4x density (spacing 0.25, offset 0.125 from
//             the voxels, so no point sits on a rounding tie) over a
//             32 x 32 x 16-voxel box at the centre: 128 x 128 x 64 points,
//             x fastest. The box is the same for every volume size.
//   random    uniform in [1, n) on each axis: one cache miss per point once
//             the volume outgrows the caches.
//
// Coordinates are 1-based (q = 1 is the first sample) and computed in double,
// then rounded to the coordinate type. compare.py builds the same points.
#pragma once

#include <sys/mman.h>

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

enum class Workload { oblique, upsample, random };

inline const char* workload_name(Workload w) {
  switch (w) {
    case Workload::oblique: return "oblique";
    case Workload::upsample: return "upsample";
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

template <class C>
Coords<C> make_coords(Workload w, int n) {
  Coords<C> c;
  c.x.resize(kPoints);
  c.y.resize(kPoints);
  c.z.resize(kPoints);
  const double centre = (n + 1) / 2.0;  // 1-based centre of the volume
  switch (w) {
    case Workload::oblique: {
      // Orthonormal u, v spanning the plane (Gram-Schmidt on two fixed vectors).
      double u[3] = {1.0, 0.5, 0.25}, v[3] = {-0.4, 1.0, 0.6};
      const double nu = std::sqrt(u[0] * u[0] + u[1] * u[1] + u[2] * u[2]);
      for (double& e : u) e /= nu;
      const double d = u[0] * v[0] + u[1] * v[1] + u[2] * v[2];
      for (int k = 0; k < 3; ++k) v[k] -= d * u[k];
      const double nv = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      for (double& e : v) e /= nv;
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
      break;
    }
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
