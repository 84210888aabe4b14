// libFuzzer target: one call of one of the sixteen pipelines, everything
// about it taken from the input - the variant, grid extents on both sides of
// the path threshold (nx against the block width W), mins, padded and
// reversed row strides, output widths below, at and above W, empty and
// negative extents, coordinates that are NaN, infinite, huge, exact integers,
// halves or any bit pattern, any fill value. Or, when the input asks for
// it, coherent coordinates: linear ramps along the rows (oblique slices,
// upsampling grids) with small steps of either sign, sometimes whole
// numbers, often crossing the grid's edges, with a few NaN or infinite
// lanes, over wider outputs and grids with rows and planes in either order,
// so that the window reads of such groups run here too. Once the input runs
// out, the remaining choices come from a generator seeded with the input's
// hash (see Source), so every input describes a whole call.
//
// Every buffer is sized through the pipeline's own bounds query and lives in
// its own mapping between two PROT_NONE guard pages, pushed against one of
// them, with the slack on the other side poisoned for AddressSanitizer; the
// inputs are made read-only before the call. The call is repeated with every
// kernel set this CPU can run and each result is compared, element by element
// and bit for bit (any NaN equal to any NaN), with the reference - guard
// columns and rows included, which must keep their sentinel.
//
// Along the way: a bounds query on a random subset of the buffers must touch
// nothing else and compute nothing, every call returns 0, and the runtime's
// parallel-for is called exactly once on the parallel path and never
// otherwise; rows go either to the runtime's pool or, when the input says
// so, run in reverse order in the calling thread.
#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "kernels/dispatch.h"
#include "support/reference.h"

namespace {

using qzinterp3d::Method;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "fuzz_calls: %s\n", what);
  std::abort();
}

size_t page_size() {
  static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

// `bytes` of memory between two inaccessible pages, against the upper one
// (at_end) or the lower one; the rest of the pages in between is poisoned.
class Guarded {
 public:
  Guarded(size_t bytes, bool at_end) : bytes_(bytes) {
    const size_t ps = page_size();
    inner_ = (bytes + ps - 1) / ps * ps;
    if (inner_ == 0) inner_ = ps;
    total_ = inner_ + 2 * ps;
    void* p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) fail("mmap");
    base_ = static_cast<uint8_t*>(p);
    if (mprotect(base_, ps, PROT_NONE) != 0 || mprotect(base_ + ps + inner_, ps, PROT_NONE) != 0) {
      fail("mprotect");
    }
    data_ = at_end ? base_ + ps + inner_ - bytes : base_ + ps;
    ASAN_POISON_MEMORY_REGION(base_ + ps, inner_);
    ASAN_UNPOISON_MEMORY_REGION(data_, bytes_);
  }
  ~Guarded() {
    ASAN_UNPOISON_MEMORY_REGION(base_ + page_size(), inner_);
    munmap(base_, total_);
  }
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;

  uint8_t* data() { return data_; }
  size_t bytes() const { return bytes_; }
  void make_read_only() {
    if (mprotect(base_ + page_size(), inner_, PROT_READ) != 0) fail("mprotect");
  }

 private:
  size_t bytes_, inner_ = 0, total_ = 0;
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
};

// A 2-D allocation: columns [xmin, xmin + xext), rows [ymin, ymin + rows),
// x dense, rows `stride` apart (negative: the last row first in memory).
struct Layout2D {
  int32_t xmin, xext, ymin, rows, stride;
  size_t elements() const {
    if (xext <= 0 || rows <= 0) return 0;
    return size_t(rows - 1) * size_t(std::abs(stride)) + size_t(xext);
  }
  int64_t offset(int64_t x, int64_t y) const {
    const int64_t first = stride < 0 ? int64_t(rows - 1) * -int64_t(stride) : 0;
    return first + (x - xmin) + (y - ymin) * stride;
  }
};

// A descriptor of a 2-D region over an allocation laid out by `l`.
struct Desc2D {
  halide_dimension_t dim[2];
  halide_buffer_t buf;
  Desc2D(uint8_t* data, size_t elem_size, const Layout2D& l, int32_t min0, int32_t ext0,
         int32_t min1, int32_t ext1, halide_type_t type) {
    dim[0] = {min0, ext0, 1, 0};
    dim[1] = {min1, ext1, l.stride, 0};
    buf = halide_buffer_t{};
    buf.host = data + l.offset(min0, min1) * int64_t(elem_size);
    buf.type = type;
    buf.dimensions = 2;
    buf.dim = dim;
  }
};

template <class T>
halide_type_t type_of() {
  if constexpr (std::is_floating_point_v<T>)
    return halide_type_t(halide_type_float, sizeof(T) * 8, 1);
  if constexpr (std::is_signed_v<T>) return halide_type_t(halide_type_int, sizeof(T) * 8, 1);
  return halide_type_t(halide_type_uint, sizeof(T) * 8, 1);
}

template <class C>
bool same_value(C a, C b) {
  if (std::isnan(a) && std::isnan(b)) return true;
  return std::memcmp(&a, &b, sizeof(C)) == 0;
}

// The runtime's parallel-for, counted; or, when the input asks, the rows in
// reverse order in the calling thread.
int g_par_for_calls = 0;
bool g_reverse_rows = false;
int counting_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  ++g_par_for_calls;
  if (g_reverse_rows) {
    for (int i = size - 1; i >= 0; --i) {
      if (task(uc, min + i, closure) != 0) fail("a row task returned non-zero");
    }
    return 0;
  }
  return halide_default_do_par_for(uc, task, min, size, closure);
}

// Draws every choice from the fuzz input while it lasts, then from a
// generator seeded with a hash of the whole input: a short input still
// describes a whole call (samples and coordinates included), and the same
// input always describes the same call.
class Source {
 public:
  Source(const uint8_t* data, size_t size) : in_(data, size), rng_(hash(data, size)) {}

  template <class T>
  T range(T lo, T hi) {
    if (in_.remaining_bytes() > 0) return in_.ConsumeIntegralInRange<T>(lo, hi);
    std::uniform_int_distribution<int64_t> d(lo, hi);
    return T(d(rng_));
  }
  template <class T>
  T any() {
    if (in_.remaining_bytes() > 0) return in_.ConsumeIntegral<T>();
    return T(rng_());
  }
  bool flip() { return range<int>(0, 1) == 1; }
  // True while choices still come from the input itself.
  bool from_input() { return in_.remaining_bytes() > 0; }
  // In [0, 1].
  double unit() {
    if (in_.remaining_bytes() > 0) return in_.ConsumeProbability<double>();
    return double(rng_() >> 11) / double(uint64_t{1} << 53);
  }

 private:
  static uint64_t hash(const uint8_t* data, size_t size) {
    uint64_t h = 1469598103934665603ull;
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 1099511628211ull;
    return h;
  }
  FuzzedDataProvider in_;
  std::mt19937_64 rng_;
};

// A floating value of any bit pattern: subnormals, -0, signalling NaNs...
template <class F>
F any_bits(Source& in) {
  using Bits = std::conditional_t<sizeof(F) == 4, uint32_t, uint64_t>;
  const Bits bits = in.any<Bits>();
  F v;
  std::memcpy(&v, &bits, sizeof(F));
  return v;
}

// Mostly inside the grid (so that samples and weights reach the result),
// and every special kind of coordinate.
template <class C>
C pick_coord(Source& in, int32_t n) {
  const C nc = C(n);
  const int kind = in.range<int>(0, 15);
  if (kind < 7) return C(1) + C(in.unit()) * (nc - C(1));  // inside
  switch (kind) {
    case 7: return C(in.range<int32_t>(-1, n + 1));           // exact integer
    case 8: return C(in.range<int32_t>(-1, n + 1)) + C(0.5);  // exact half
    case 9: return std::numeric_limits<C>::quiet_NaN();
    case 10:
      return in.flip() ? std::numeric_limits<C>::infinity() : -std::numeric_limits<C>::infinity();
    case 11: {
      const C huge[] = {C(3e9),
                        C(-3e9),
                        C(2147483648.0),
                        C(-2147483904.0),
                        C(1e30),
                        std::numeric_limits<C>::max(),
                        std::numeric_limits<C>::lowest(),
                        C(9.3e18)};
      return huge[in.range<int>(0, 7)];
    }
    case 12: {
      const C edge[] = {
          nc + C(0.25), std::nextafter(C(1), C(0)), std::nextafter(nc, C(2) * nc + C(2)), nc, C(1),
          C(0.999)};
      return edge[in.range<int>(0, 5)];
    }
    case 13: return any_bits<C>(in);
    default: return C(0.5) + C(in.unit()) * (nc + C(1));  // around the grid
  }
}

template <class S>
S pick_sample(Source& in) {
  if constexpr (std::is_floating_point_v<S>) {
    switch (in.range<int>(0, 7)) {
      case 0: return S(in.range<int>(-100, 100));
      case 1: return any_bits<S>(in);
      case 2: return S(in.unit() * 2e-38 - 1e-38);  // around the subnormal range of float
      default: return S(in.unit() * 10 - 5);
    }
  } else {
    return in.any<S>();
  }
}

// Samples of coherent calls: for the floating types, infinities, NaN and -0
// more often, so that a corner read from the wrong grid row shows even where
// its weight is 0.
template <class S>
S pick_coherent_sample(Source& in) {
  if constexpr (std::is_floating_point_v<S>) {
    switch (in.range<int>(0, 15)) {
      case 0: return std::numeric_limits<S>::infinity();
      case 1: return -std::numeric_limits<S>::infinity();
      case 2: return std::numeric_limits<S>::quiet_NaN();
      case 3: return S(-0.0);
      default: break;
    }
  }
  return pick_sample<S>(in);
}

double pick_fill(Source& in) {
  const double fills[] = {-7.0,
                          0.1,
                          1e40,
                          1e-40,
                          std::numeric_limits<double>::quiet_NaN(),
                          -std::numeric_limits<double>::infinity()};
  const int kind = in.range<int>(0, 7);
  if (kind < 6) return fills[kind];
  return kind == 6 ? in.unit() * 200 - 100 : any_bits<double>(in);
}

// An extent around the block width: W - 1, W, W + 1, small, empty, wide.
int32_t pick_width(Source& in, int32_t W) {
  const int32_t widths[] = {W - 1, W, W + 1, 1, 2 * W, 2 * W + 1};
  const int kind = in.range<int>(0, 9);
  if (kind < 6) return widths[kind];
  if (kind == 6) return in.range<int32_t>(-2, 0);
  return in.range<int32_t>(1, 3 * W + 3);
}

int32_t pick_axis(Source& in) {
  const int kind = in.range<int>(0, 9);
  if (kind == 0) return 0;
  if (kind == 1) return -1;
  return in.range<int32_t>(1, 6);
}

int32_t pick_min(Source& in) {
  if (in.range<int>(0, 7) == 0) return in.range<int32_t>(-(1 << 20), 1 << 20);
  return in.range<int32_t>(-40, 40);
}

// A coordinate or output allocation covering the queried region, with
// optional margins and padding; rows possibly reversed in memory.
Layout2D pick_layout(Source& in, int32_t region_min, int32_t region_extent, int32_t y0, int32_t h,
                     bool margins) {
  Layout2D l;
  const int32_t lo = margins ? in.range<int32_t>(0, 3) : 0;
  const int32_t hi = margins ? in.range<int32_t>(0, 3) : 0;
  const int32_t above = margins ? in.range<int32_t>(0, 2) : 0;
  const int32_t below = margins ? in.range<int32_t>(0, 2) : 0;
  l.xmin = region_min - lo;
  l.xext = std::max(region_extent, 0) + lo + hi;
  l.ymin = y0 - above;
  l.rows = std::max(h, 0) + above + below;
  l.stride = std::max(l.xext, 1) + in.range<int32_t>(0, 4);
  if (in.flip()) l.stride = -l.stride;
  return l;
}

// Coherent calls: grids and outputs wide enough for the widest groups of
// full blocks (16 columns) and for windows (16 samples), or just above W.
int32_t pick_coherent_extent(Source& in, int32_t W) {
  const int32_t extents[] = {W + 1, W + 2, 16, 17, 2 * W + 1, 33};
  const int kind = in.range<int>(0, 7);
  if (kind < 6) return std::max(extents[kind], W + 1);
  return kind == 6 ? pick_width(in, W) : in.range<int32_t>(W + 1, 70);
}

int32_t pick_coherent_width(Source& in, int32_t W) {
  const int32_t widths[] = {16, 17, 32 + W - 1, 48, 64, 65};
  const int kind = in.range<int>(0, 7);
  if (kind < 6) return widths[kind];
  return kind == 6 ? pick_width(in, W) : in.range<int32_t>(1, 100);
}

// Where a ramp starts along an axis of n samples: on the first or last
// sample, a little outside either end, on a whole number, or inside (often
// on a multiple of 1/64).
double ramp_start(Source& in, int32_t n) {
  switch (in.range<int>(0, 6)) {
    case 0: return 1;
    case 1: return n;
    case 2: return 1 - in.range<int>(1, 16) / 8.0;
    case 3: return n + in.range<int>(1, 16) / 8.0;
    case 4: return in.range<int32_t>(1, std::max(n, 1));
    default: {
      const double q = 1 + in.unit() * (std::max(n, 1) - 1);
      return in.flip() ? std::round(q * 64) / 64 : q;
    }
  }
}

// A step per column: small, of either sign, often a power of two.
double ramp_step(Source& in) {
  const double steps[] = {0,       1.0 / 64, -1.0 / 64, 1.0 / 32, -1.0 / 32, 1.0 / 16,
                          -1.0 / 16, 0.125,  -0.125,    0.25,     -0.25,     0.5,
                          -0.5,    0.75,     1,         -1,       0.9375,    1.0625};
  const int kind = in.range<int>(0, 19);
  if (kind < 18) return steps[kind];
  return kind == 18 ? (in.unit() - 0.5) * 2.2 : 2;
}

// Coordinates along one axis for every element of the region: start +
// step * column + row_step * row (from the output's first column and row),
// sometimes whole numbers throughout, and a few special lanes.
template <class C>
void fill_ramp(Source& in, C* c, const Layout2D& l, int32_t n, int32_t x0, int32_t y0) {
  double start = ramp_start(in, n), step = ramp_step(in);
  const double row_steps[] = {0, 0.5, -0.5, 1, -1, 0.25};
  const int row_kind = in.range<int>(0, 6);
  double row_step = row_kind < 6 ? row_steps[row_kind] : (in.unit() - 0.5) * 4;
  if (in.range<int>(0, 3) == 0) {  // an upsampling grid's whole rows
    start = std::round(start);
    step = std::round(step);
    row_step = std::round(row_step);
  }
  for (int64_t y = l.ymin; y < int64_t{l.ymin} + l.rows; ++y) {
    for (int64_t x = l.xmin; x < int64_t{l.xmin} + l.xext; ++x) {
      c[l.offset(x, y)] = C(start + step * double(x - x0) + row_step * double(y - y0));
    }
  }
  if (l.elements() == 0) return;
  for (int k = in.range<int>(0, 3); k > 0; --k) {
    const int64_t x = in.range<int64_t>(l.xmin, int64_t{l.xmin} + l.xext - 1);
    const int64_t y = in.range<int64_t>(l.ymin, int64_t{l.ymin} + l.rows - 1);
    c[l.offset(x, y)] = pick_coord<C>(in, n);
  }
}

// A bounds query with every buffer a query; `v` and `o` hold the grid's and
// the output's fields and receive the answer. Whatever the fields, it returns
// 0, runs no rows, gives the coordinate buffers the output's region and asks
// for a grid with mins 0 - with no undefined arithmetic on the way (the
// sanitizers watch).
void query_all(qztest::EntryFn entry, halide_dimension_t (&v)[3], halide_dimension_t (&o)[2],
               double fill) {
  halide_dimension_t qx[2], qy[2], qz[2];
  halide_buffer_t bv{}, bx{}, by{}, bz{}, bo{};
  bv.dim = v;
  bo.dim = o;
  bx.dim = qx;
  by.dim = qy;
  bz.dim = qz;
  g_par_for_calls = 0;
  if (entry(&bv, &bx, &by, &bz, fill, &bo) != 0) fail("a bounds query returned non-zero");
  if (g_par_for_calls != 0) fail("a bounds query ran rows");
  for (const halide_dimension_t* c : {qx, qy, qz}) {
    if (c[0].min != o[0].min || c[0].extent != o[0].extent || c[1].min != o[1].min ||
        c[1].extent != o[1].extent) {
      fail("a coordinate buffer was not given the output's region");
    }
  }
  if (v[0].min != 0 || v[1].min != 0 || v[2].min != 0) {
    fail("the grid query asks for mins other than 0");
  }
}

// The same with every field any 32-bit value, extreme mins and extents
// included.
void query_with_any_fields(qztest::EntryFn entry, Source& in) {
  halide_dimension_t qv[3], qo[2];
  for (halide_dimension_t& d : qv) d = {in.any<int32_t>(), in.any<int32_t>(), 0, 0};
  for (halide_dimension_t& d : qo) d = {in.any<int32_t>(), in.any<int32_t>(), 0, 0};
  query_all(entry, qv, qo, 0.0);
}

template <Method M, class S>
void run(Source& in) {
  using C = qzinterp3d::CoordOf<S>;
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  const qztest::EntryFn entry = qztest::entry_of<M, S>();
  // QZ_FUZZ_DESCRIBE=1 names each input's call on stderr (for picking seeds).
  static const bool describe = std::getenv("QZ_FUZZ_DESCRIBE") != nullptr;
  if (in.range<int>(0, 15) == 0) {
    if (describe) std::fprintf(stderr, "query %s\n", qztest::entry_name<M, S>());
    query_with_any_fields(entry, in);
    return;
  }
  // Coherent coordinates take a byte of the input to ask for them, so that
  // the seeds of one or two bytes keep describing the calls they were
  // picked for.
  const bool coherent = in.from_input() && in.range<int>(0, 2) == 0;

  const int32_t nx = coherent ? pick_coherent_extent(in, W) : pick_width(in, W);
  const int32_t ny = pick_axis(in), nz = pick_axis(in);
  const int32_t w = coherent ? pick_coherent_width(in, W) : pick_width(in, W);
  const int32_t h = in.range<int32_t>(-1, 5);
  const int32_t x0 = pick_min(in), y0 = pick_min(in);
  const double fill = pick_fill(in);
  g_reverse_rows = in.flip();

  // Sizing: every buffer a query.
  halide_dimension_t qv[3] = {{0, nx, 0, 0}, {0, ny, 0, 0}, {0, nz, 0, 0}};
  halide_dimension_t qo[2] = {{x0, w, 0, 0}, {y0, h, 0, 0}};
  query_all(entry, qv, qo, fill);
  const int32_t region_min = qo[0].min, region_extent = qo[0].extent;

  // The grid: the extents queried (at least 1), padded strides, any mins
  // (the grid is read from absolute index 0, so the storage starts there).
  const int32_t ex = qv[0].extent, ey = qv[1].extent, ez = qv[2].extent;
  const int32_t s1 = ex + in.range<int32_t>(0, 5);
  const int32_t s2 = s1 * ey + in.range<int32_t>(0, 5);
  // Coherent calls sometimes store rows or planes last first.
  const int32_t sign1 = coherent && in.flip() ? -1 : 1;
  const int32_t sign2 = coherent && in.flip() ? -1 : 1;
  const bool nonzero_mins = in.range<int>(0, 4) == 0;
  const int32_t m0 = nonzero_mins ? in.range<int32_t>(-3, 3) : 0;
  const int32_t m1 = nonzero_mins ? in.range<int32_t>(-3, 3) : 0;
  const int32_t m2 = nonzero_mins ? in.range<int32_t>(-3, 3) : 0;
  const size_t v_elements = size_t(ex - 1) + size_t(ey - 1) * s1 + size_t(ez - 1) * s2 + 1;
  Guarded v_mem(v_elements * sizeof(S), in.flip());
  S* samples = reinterpret_cast<S*>(v_mem.data());
  for (size_t i = 0; i < v_elements; ++i) {
    samples[i] = coherent ? pick_coherent_sample<S>(in) : pick_sample<S>(in);
  }
  halide_dimension_t vd[3] = {{m0, nx, 1, 0}, {m1, ny, sign1 * s1, 0}, {m2, nz, sign2 * s2, 0}};
  halide_buffer_t v{};
  // Sample (0, 0, 0) sits after the rows and planes stored before it.
  const int64_t first = (sign1 < 0 ? int64_t(ey - 1) * s1 : 0) + (sign2 < 0 ? int64_t(ez - 1) * s2 : 0);
  const int64_t origin = int64_t(m0) + int64_t(m1) * vd[1].stride + int64_t(m2) * vd[2].stride;
  v.host = reinterpret_cast<uint8_t*>(samples + first + origin);
  v.type = type_of<S>();
  v.dimensions = 3;
  v.dim = vd;

  // Coordinates over the queried region; Yq may share Xq's storage.
  const int32_t axis_n[3] = {nx, ny, nz};
  std::vector<std::unique_ptr<Guarded>> coord_mem;
  std::vector<std::unique_ptr<Desc2D>> coord_desc;
  const bool shared_y = in.range<int>(0, 7) == 0;
  for (int a = 0; a < 3; ++a) {
    if (a == 1 && shared_y) {
      coord_desc.push_back(std::make_unique<Desc2D>(*coord_desc[0]));
      coord_desc.back()->buf.dim = coord_desc.back()->dim;
      continue;
    }
    const Layout2D l = pick_layout(in, region_min, region_extent, y0, h, true);
    auto mem = std::make_unique<Guarded>(l.elements() * sizeof(C), in.flip());
    C* c = reinterpret_cast<C*>(mem->data());
    if (coherent) {
      fill_ramp<C>(in, c, l, axis_n[a], x0, y0);
    } else {
      for (size_t i = 0; i < l.elements(); ++i) c[i] = pick_coord<C>(in, axis_n[a]);
    }
    coord_desc.push_back(std::make_unique<Desc2D>(mem->data(), sizeof(C), l, l.xmin, l.xext, l.ymin,
                                                  l.rows, type_of<C>()));
    coord_mem.push_back(std::move(mem));
  }
  v_mem.make_read_only();
  for (auto& m : coord_mem) m->make_read_only();

  // The output, and the expected output in the same layout.
  const Layout2D lo = pick_layout(in, region_min, region_extent, y0, h, in.flip());
  Guarded out_mem(lo.elements() * sizeof(C), in.flip());
  std::vector<C> want_mem(std::max<size_t>(lo.elements(), 1));
  const unsigned char sentinel = 0xA5;
  std::memset(want_mem.data(), sentinel, want_mem.size() * sizeof(C));
  Desc2D want(reinterpret_cast<uint8_t*>(want_mem.data()), sizeof(C), lo, x0, w, y0, h,
              type_of<C>());
  halide_buffer_t* xq = &coord_desc[0]->buf;
  halide_buffer_t* yq = &coord_desc[1]->buf;
  halide_buffer_t* zq = &coord_desc[2]->buf;
  qztest::reference_call<M, S>(&v, xq, yq, zq, fill, &want.buf);

  // A query on some of the buffers with the others real: only the queried
  // descriptors change, nothing is computed.
  {
    std::memset(out_mem.data(), sentinel, out_mem.bytes());
    Desc2D o(out_mem.data(), sizeof(C), lo, x0, w, y0, h, type_of<C>());
    halide_dimension_t qd[5][3] = {};
    halide_buffer_t copies[5] = {v, *xq, *yq, *zq, o.buf};
    const unsigned mask = in.range<unsigned>(1, 31);
    for (int b = 0; b < 5; ++b) {
      const int dims = b == 0 ? 3 : 2;
      for (int d = 0; d < dims; ++d) qd[b][d] = copies[b].dim[d];
      copies[b].dim = qd[b];
      if (mask & (1u << b)) copies[b].host = nullptr;
    }
    g_par_for_calls = 0;
    if (entry(&copies[0], &copies[1], &copies[2], &copies[3], fill, &copies[4]) != 0) {
      fail("a partial bounds query returned non-zero");
    }
    if (g_par_for_calls != 0) fail("a partial bounds query ran rows");
    for (int b = 0; b < 5; ++b) {
      if (mask & (1u << b)) continue;
      const halide_buffer_t& orig = b == 0 ? v : b == 1 ? *xq : b == 2 ? *yq : b == 3 ? *zq : o.buf;
      const int dims = b == 0 ? 3 : 2;
      if (copies[b].host != orig.host ||
          std::memcmp(qd[b], orig.dim, dims * sizeof(halide_dimension_t)) != 0) {
        fail("a bounds query changed a buffer that was not a query");
      }
    }
    const uint8_t* p = out_mem.data();
    for (size_t i = 0; i < out_mem.bytes(); ++i) {
      if (p[i] != sentinel) fail("a bounds query wrote into the output");
    }
  }

  if (describe) {
    std::fprintf(stderr, "call %s %s%s nx=%d ny=%d nz=%d w=%d h=%d\n", qztest::entry_name<M, S>(),
                 nx > W ? "parallel" : "serial", coherent ? " coherent" : "", nx, ny, nz, w, h);
  }

  for (int k = 0; k < qzinterp3d::kernel_set_count(); ++k) {
    const qzinterp3d::KernelSetEntry set = qzinterp3d::kernel_set_at(k);
    if (!set.supported) continue;
    if (!qzinterp3d::force_kernel_set(set.set->name)) fail("cannot force a supported kernel set");
    std::memset(out_mem.data(), sentinel, out_mem.bytes());
    Desc2D o(out_mem.data(), sizeof(C), lo, x0, w, y0, h, type_of<C>());
    g_par_for_calls = 0;
    if (entry(&v, xq, yq, zq, fill, &o.buf) != 0) fail("a call returned non-zero");
    if (g_par_for_calls != (nx > W ? 1 : 0))
      fail("the parallel-for was not called exactly as the path requires");
    const C* got = reinterpret_cast<const C*>(out_mem.data());
    for (size_t i = 0; i < lo.elements(); ++i) {
      if (!same_value(got[i], want_mem[i])) {
        std::fprintf(stderr,
                     "%s, kernel set %s: nx=%d ny=%d nz=%d w=%d h=%d x0=%d y0=%d: element %zu "
                     "got %.9g want %.9g\n",
                     qztest::entry_name<M, S>(), set.set->name, nx, ny, nz, w, h, x0, y0, i,
                     double(got[i]), double(want_mem[i]));
        fail("result differs from the reference");
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  halide_set_custom_do_par_for(&counting_par_for);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using RunFn = void (*)(Source&);
  static const RunFn kRuns[] = {
#define QZ_FUZZ_RUN(method, type, T) &run<Method::method, T>,
      QZ_FOR_EACH_VARIANT(QZ_FUZZ_RUN)
#undef QZ_FUZZ_RUN
  };
  Source in(data, size);
  const char* initial = qzinterp3d::active_kernel_set().name;
  kRuns[in.range<int>(0, 15)](in);
  qzinterp3d::force_kernel_set(initial);
  return 0;
}
