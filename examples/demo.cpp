// Demo: oblique slices through a synthetic head phantom, resampled with
// nearest-neighbour and trilinear interpolation for three sample types, and
// written as PNG images; then a throughput run on larger slabs.
//
//   demo [OUTPUT_DIR] [--size N]
//
// OUTPUT_DIR defaults to ./out. The phantom is an N x N x N grid (default
// 128) of ten ellipsoids, the modified three-dimensional Shepp-Logan head,
// evaluated analytically: nothing is downloaded. Threads: HL_NUM_THREADS.
#include <png.h>
#include <qzinterp3d/interp3.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace qz = qzinterp3d;
using Halide::Runtime::Buffer;

// ---------------------------------------------------------------------------
// The phantom: a sum of ellipsoids in [-1, 1]^3, each adding its intensity
// inside itself. Values lie in [0, 1].

struct Ellipsoid {
  double cx, cy, cz;  // centre
  double a, b, c;     // semi-axes along the ellipsoid's own x, y, z
  double phi_deg;     // rotation about z
  double value;       // added inside
};

const Ellipsoid kHead[] = {
    {0.0, 0.0, 0.0, 0.69, 0.92, 0.90, 0.0, 1.0},           // skull
    {0.0, -0.0184, 0.0, 0.6624, 0.874, 0.88, 0.0, -0.8},  // brain
    {-0.22, 0.0, -0.25, 0.41, 0.16, 0.21, 108.0, -0.2},   // ventricles
    {0.22, 0.0, -0.25, 0.31, 0.11, 0.22, 72.0, -0.2},
    {0.0, 0.35, -0.25, 0.21, 0.25, 0.50, 0.0, 0.1},
    {0.0, 0.1, -0.25, 0.046, 0.046, 0.046, 0.0, 0.1},     // small lesions
    {-0.08, -0.65, -0.25, 0.046, 0.023, 0.02, 0.0, 0.1},
    {0.06, -0.65, -0.25, 0.046, 0.023, 0.02, 90.0, 0.1},
    {0.06, -0.105, 0.625, 0.056, 0.04, 0.1, 90.0, 0.2},
    {0.0, 0.1, 0.625, 0.056, 0.056, 0.1, 0.0, -0.2},
};

double phantom_at(double x, double y, double z) {
  double v = 0;
  for (const Ellipsoid& e : kHead) {
    const double p = e.phi_deg * M_PI / 180.0;
    const double dx = x - e.cx, dy = y - e.cy, dz = z - e.cz;
    const double u = (dx * std::cos(p) + dy * std::sin(p)) / e.a;
    const double w = (-dx * std::sin(p) + dy * std::cos(p)) / e.b;
    const double t = dz / e.c;
    if (u * u + w * w + t * t <= 1.0) v += e.value;
  }
  return std::clamp(v, 0.0, 1.0);
}

// The phantom on an n^3 grid, in [0, 1].
Buffer<float> make_phantom(int n) {
  Buffer<float> V(n, n, n);
  auto axis = [n](int i) { return (2.0 * i + 1.0) / n - 1.0; };
  std::vector<std::thread> workers;
  const int threads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      for (int k = t; k < n; k += threads)
        for (int j = 0; j < n; ++j)
          for (int i = 0; i < n; ++i)
            V(i, j, k) = static_cast<float>(phantom_at(axis(i), -axis(j), axis(k)));
    });
  }
  for (std::thread& w : workers) w.join();
  return V;
}

// The same grid scaled to [0, full] and rounded into an integer type.
template <class T>
Buffer<T> quantized(const Buffer<float>& V, double full) {
  Buffer<T> Q(V.dim(0).extent(), V.dim(1).extent(), V.dim(2).extent());
  Q.for_each_element([&](int i, int j, int k) {
    Q(i, j, k) = static_cast<T>(std::lround(V(i, j, k) * full));
  });
  return Q;
}

// ---------------------------------------------------------------------------
// Slices: a plane through `centre` spanned by unit vectors e1 (along output
// x) and e2 (along output y), sampled every `step` voxels. All in 1-based
// grid coordinates, the library's convention.

struct Vec {
  double x, y, z;
};
Vec operator+(Vec a, Vec b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
Vec operator*(double s, Vec a) { return {s * a.x, s * a.y, s * a.z}; }

// Rotations about the x and z axes, applied to a vector.
Vec rot_x(Vec v, double deg) {
  const double r = deg * M_PI / 180.0, c = std::cos(r), s = std::sin(r);
  return {v.x, c * v.y - s * v.z, s * v.y + c * v.z};
}
Vec rot_z(Vec v, double deg) {
  const double r = deg * M_PI / 180.0, c = std::cos(r), s = std::sin(r);
  return {c * v.x - s * v.y, s * v.x + c * v.y, v.z};
}

struct View {
  const char* name;
  Vec centre;  // 1-based grid coordinates
  Vec e1, e2;  // unit vectors along the output's x and y
  double step; // grid units per output pixel
  int width, height;
};

template <class C>
struct Coords {
  Buffer<C> X, Y, Z;
};

template <class C>
Coords<C> plane(const View& v) {
  Coords<C> q{Buffer<C>(v.width, v.height), Buffer<C>(v.width, v.height),
              Buffer<C>(v.width, v.height)};
  for (int r = 0; r < v.height; ++r) {
    for (int c = 0; c < v.width; ++c) {
      const Vec p = v.centre + ((c - 0.5 * (v.width - 1)) * v.step) * v.e1 +
                    ((r - 0.5 * (v.height - 1)) * v.step) * v.e2;
      q.X(c, r) = static_cast<C>(p.x);
      q.Y(c, r) = static_cast<C>(p.y);
      q.Z(c, r) = static_cast<C>(p.z);
    }
  }
  return q;
}

std::vector<View> views(int n) {
  const double mid = 0.5 * (n + 1);   // the grid's centre, 1-based
  const double from_unit = 0.5 * n;   // phantom units to grid units
  const Vec x{1, 0, 0}, y{0, 1, 0}, z{0, 0, 1};
  const Vec centre{mid, mid, mid};
  const int px = 512;
  const double full = 1.05 * n / px;  // the whole head across the image
  // The ventricle plane (phantom z = -0.25) tilted by 20 degrees; a tilted
  // near-coronal plane; a plane with normal (1, 1, 1); and a close-up, 40
  // voxels across, of the untilted ventricle plane where a small lesion
  // meets a larger ellipsoid: the voxels show in the nearest image.
  const Vec ax2 = rot_x(y, 20);
  const Vec co1 = rot_z(x, 10), co2 = rot_x(rot_z(z, 10), 15);
  const Vec ob1{1 / std::sqrt(2.0), -1 / std::sqrt(2.0), 0};
  const Vec ob2{1 / std::sqrt(6.0), 1 / std::sqrt(6.0), -2 / std::sqrt(6.0)};
  const Vec ventricles = centre + Vec{0, 0, -0.25 * from_unit};
  const Vec lesion = ventricles + Vec{0, -0.05 * from_unit, 0};
  return {
      {"axial_tilted", ventricles, x, ax2, full, px, px},
      {"coronal_tilted", centre, co1, co2, full, px, px},
      {"oblique_111", centre, ob1, ob2, full, px, px},
      {"closeup", lesion, x, y, 40.0 / 384, 384, 384},
  };
}

// ---------------------------------------------------------------------------
// Output: 8-bit grey PNGs through libpng. `lo` maps to black, `hi` to white;
// the fill value (NaN) is drawn black.

template <class C>
std::vector<uint8_t> grey(const Buffer<C>& img, double lo, double hi) {
  std::vector<uint8_t> px;
  px.reserve(size_t(img.dim(0).extent()) * size_t(img.dim(1).extent()));
  for (int r = img.dim(1).min(); r <= img.dim(1).max(); ++r) {
    for (int c = img.dim(0).min(); c <= img.dim(0).max(); ++c) {
      const double v = img(c, r);
      const double t = std::isnan(v) ? 0.0 : std::clamp((v - lo) / (hi - lo), 0.0, 1.0);
      px.push_back(static_cast<uint8_t>(std::lround(255.0 * t)));
    }
  }
  return px;
}

void write_png(const std::filesystem::path& path, const std::vector<uint8_t>& pixels, int width,
               int height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(width);
  image.height = static_cast<png_uint_32>(height);
  image.format = PNG_FORMAT_GRAY;
  if (!png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), width, nullptr)) {
    throw std::runtime_error("cannot write " + path.string() + ": " + image.message);
  }
}

// Two images of one size side by side, with a white gap.
std::vector<uint8_t> side_by_side(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                                  int width, int height, int gap) {
  std::vector<uint8_t> out;
  out.reserve(size_t(2 * width + gap) * size_t(height));
  for (int r = 0; r < height; ++r) {
    out.insert(out.end(), a.begin() + r * width, a.begin() + (r + 1) * width);
    out.insert(out.end(), size_t(gap), uint8_t{255});
    out.insert(out.end(), b.begin() + r * width, b.begin() + (r + 1) * width);
  }
  return out;
}

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

const char* name_of(qz::method m) { return m == qz::method::nearest ? "nearest" : "linear"; }

// One sample type: every view with both methods, each image saved, plus a
// nearest | linear comparison per view.
template <class T>
void render(const char* type, const Buffer<T>& V, double full_scale,
            const std::filesystem::path& dir, int& done, int total) {
  using C = qz::coord_t<T>;
  for (const View& view : views(V.dim(0).extent())) {
    const Coords<C> q = plane<C>(view);
    std::vector<uint8_t> shown[2];
    for (qz::method m : {qz::method::nearest, qz::method::linear}) {
      // Best of three calls: a single one is at the mercy of the scheduler.
      Buffer<C> img;
      double s = 1e300;
      for (int i = 0; i < 3; ++i) {
        const auto t0 = Clock::now();
        img = m == qz::method::nearest ? qz::interp3<qz::method::nearest>(V, q.X, q.Y, q.Z)
                                       : qz::interp3<qz::method::linear>(V, q.X, q.Y, q.Z);
        s = std::min(s, seconds_since(t0));
      }
      // Window on the brain's soft tissue (phantom values 0.1 to 0.45).
      shown[m == qz::method::linear] = grey(img, 0.1 * full_scale, 0.45 * full_scale);
      const std::string file = std::string(type) + "_" + name_of(m) + "_" + view.name + ".png";
      write_png(dir / file, shown[m == qz::method::linear], view.width, view.height);
      const double points = double(view.width) * view.height;
      std::printf("[%2d/%d] %-7s %-7s %-15s %4dx%-4d %8.1f Mpoints/s  -> %s\n", ++done, total,
                  type, name_of(m), view.name, view.width, view.height, points / s / 1e6,
                  file.c_str());
    }
    const std::string file = std::string(type) + "_compare_" + view.name + ".png";
    write_png(dir / file, side_by_side(shown[0], shown[1], view.width, view.height, 8),
              2 * view.width + 8, view.height);
  }
}

// Throughput on a slab of parallel oblique planes, stacked as the rows of
// one 2-D query (points per call: width x height x planes).
template <class T, qz::method M>
void throughput(const char* type, const Buffer<T>& V) {
  using C = qz::coord_t<T>;
  const int n = V.dim(0).extent();
  const int width = 1024, planes = 16, height = 128;
  const double mid = 0.5 * (n + 1), step = double(n) / width;
  const Vec e1 = rot_z(Vec{1, 0, 0}, 30), e2 = rot_x(Vec{0, 1, 0}, 25);
  const Vec normal = rot_x(Vec{0, 0, 1}, 25);
  Buffer<C> X(width, height * planes), Y(width, height * planes), Z(width, height * planes);
  for (int p = 0; p < planes; ++p) {
    const Vec centre = Vec{mid, mid, mid} + ((p - planes / 2) * 2.0) * normal;
    for (int r = 0; r < height; ++r) {
      for (int c = 0; c < width; ++c) {
        const Vec pt = centre + ((c - width / 2) * step) * e1 +
                       ((r - height / 2) * step * width / height) * e2;
        X(c, p * height + r) = static_cast<C>(pt.x);
        Y(c, p * height + r) = static_cast<C>(pt.y);
        Z(c, p * height + r) = static_cast<C>(pt.z);
      }
    }
  }
  Buffer<C> out(width, height * planes);
  const double points = double(width) * height * planes;
  qz::interp3<M>(V, X, Y, Z, 0.0, out);  // warm-up: pages in, threads started
  const int repeats = 5;
  double best = 1e300;
  for (int i = 0; i < repeats; ++i) {
    const auto t0 = Clock::now();
    qz::interp3<M>(V, X, Y, Z, 0.0, out);
    best = std::min(best, seconds_since(t0));
  }
  std::printf("  %-7s %-7s %5.1f Mpoints per call, best of %d: %8.1f Mpoints/s\n", type,
              name_of(M), points / 1e6, repeats, points / best / 1e6);
}

int usage(const char* argv0) {
  std::fprintf(stderr, "usage: %s [OUTPUT_DIR] [--size N]   (defaults: ./out, 128)\n", argv0);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::filesystem::path dir = "out";
  int n = 128;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--size" && i + 1 < argc) {
      n = std::atoi(argv[++i]);
      if (n < 8 || n > 1024) return usage(argv[0]);
    } else if (arg == "-h" || arg == "--help" || arg.rfind("--", 0) == 0) {
      return usage(argv[0]);
    } else {
      dir = arg;
    }
  }
  std::filesystem::create_directories(dir);
  const char* threads = std::getenv("HL_NUM_THREADS");
  std::printf("qzinterp3d demo: %d^3 phantom, images to %s, %s threads%s\n", n,
              dir.string().c_str(), threads ? threads : "all",
              threads ? " (HL_NUM_THREADS)" : "");

  auto t0 = Clock::now();
  const Buffer<float> f32 = make_phantom(n);
  const Buffer<uint8_t> u8 = quantized<uint8_t>(f32, 255.0);
  const Buffer<uint16_t> u16 = quantized<uint16_t>(f32, 4095.0);
  std::printf("phantom: %d^3 samples as float32, uint8 and uint16 in %.2f s\n", n,
              seconds_since(t0));

  const int total = 3 * 2 * int(views(n).size());
  int done = 0;
  render("float32", f32, 1.0, dir, done, total);
  render("uint8", u8, 255.0, dir, done, total);
  render("uint16", u16, 4095.0, dir, done, total);

  std::printf("throughput (oblique slabs):\n");
  throughput<float, qz::method::nearest>("float32", f32);
  throughput<float, qz::method::linear>("float32", f32);
  throughput<uint8_t, qz::method::nearest>("uint8", u8);
  throughput<uint8_t, qz::method::linear>("uint8", u8);
  throughput<uint16_t, qz::method::nearest>("uint16", u16);
  throughput<uint16_t, qz::method::linear>("uint16", u16);
  std::printf("done: %d images and %d comparisons in %s\n", total, total / 2,
              dir.string().c_str());
  return 0;
}
