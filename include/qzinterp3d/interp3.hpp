// qzinterp3d/interp3.hpp: a checked C++ interface to libqzinterp3d_halide.
//
// The sixteen C entries (qzinterp3d_halide.h) trust their caller completely:
// element types, dimension counts, unit inner strides and buffer sizes are
// never looked at, and a wrong buffer is read or written out of bounds. This
// header wraps them for Halide::Runtime::Buffer and checks all of that first:
//
//   #include <qzinterp3d/interp3.hpp>
//   Halide::Runtime::Buffer<uint16_t> V(nx, ny, nz);           // mins 0
//   Halide::Runtime::Buffer<float> X(w, h), Y(w, h), Z(w, h);  // 1-based
//   auto out = qzinterp3d::interp3<qzinterp3d::method::linear>(V, X, Y, Z);
//
// * The entry is chosen at compile time from V's element type (float, double,
//   int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t) and the method;
//   coordinates and output are double for double samples and float otherwise.
//   Any other combination does not compile.
// * At run time every buffer is checked: host memory present and current,
//   dimension counts (3 for V, 2 for the others), a unit stride in
//   dimension 0, V's mins all 0 and extents all positive, coordinates that
//   cover everything the pipeline reads, an output region that is all the
//   pipeline writes, output rows that do not overlap one another, and output
//   memory disjoint from every input. A violation throws
//   qzinterp3d::argument_error (a std::invalid_argument) whose message names
//   the argument, what was expected and what was given, e.g.
//   "Xq: expected 2 dimensions, got 3". Nothing is written before the checks
//   pass, so a rejected call leaves the output untouched.
// * Regions: when V is wider than one block (16 bytes of samples: 4 floats,
//   2 doubles, 8 16-bit or 16 8-bit samples) and the output is narrower than
//   one block, the pipeline computes a full block ending at the output's last
//   column. The overload taking an output checks that its buffers already
//   have that region (ask required_region() for it); the overload returning
//   the output takes care of it and returns exactly the coordinates' region.
//
// * affine_transform<M>(V, map, boundary, fill_value, Vq) resamples V through
//   an affine map into a 3-D output without any coordinate array: each
//   output row's coordinates come from affine_row(), the one place the
//   formula (and library_coordinate(), the 0-based to 1-based rule) lives.
//   It runs on the Halide runtime's thread pool; link libqzhalideRuntime
//   (the installed CMake package and pkg-config file do).
//
// The results are those of the C entries, bit for bit.
#ifndef QZINTERP3D_INTERP3_HPP
#define QZINTERP3D_INTERP3_HPP

#include <HalideBuffer.h>
#include <qzinterp3d_halide.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace qzinterp3d {

// The interpolation method. `linear` blends the eight surrounding samples
// along all three axes (trilinear); the C entries call it "bilinear", and
// method::bilinear is the same value under that name.
enum class method { nearest, linear, bilinear = linear };

// The sample element types the library has pipelines for.
template <class T>
inline constexpr bool is_sample_type_v =
    std::is_same_v<T, float> || std::is_same_v<T, double> || std::is_same_v<T, int8_t> ||
    std::is_same_v<T, uint8_t> || std::is_same_v<T, int16_t> ||
    std::is_same_v<T, uint16_t> || std::is_same_v<T, int32_t> || std::is_same_v<T, uint32_t>;

// The element type of the coordinates and the output for samples of type T:
// double for double samples, float for all others.
template <class T>
using coord_t = std::conditional_t<std::is_same_v<std::remove_const_t<T>, double>, double, float>;

// Thrown for an argument the pipeline cannot take. argument() is the name of
// the offending argument ("V", "Xq", "Yq", "Zq" or "Vq"), also the start of
// what().
class argument_error : public std::invalid_argument {
 public:
  argument_error(const char* argument, const std::string& message)
      : std::invalid_argument(std::string(argument) + ": " + message), argument_(argument) {}
  const char* argument() const noexcept { return argument_; }

 private:
  const char* argument_;
};

// A rectangle of output (and coordinate) elements, in absolute coordinates.
struct region {
  int x_min = 0, x_extent = 0, y_min = 0, y_extent = 0;
  friend bool operator==(const region& a, const region& b) {
    return a.x_min == b.x_min && a.x_extent == b.x_extent && a.y_min == b.y_min &&
           a.y_extent == b.y_extent;
  }
  friend bool operator!=(const region& a, const region& b) { return !(a == b); }
};

using entry_fn = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                         double, halide_buffer_t*);

// The unchecked C entry for a method and a sample type.
template <method M, class T>
constexpr entry_fn raw_entry() {
  static_assert(is_sample_type_v<T>,
                "qzinterp3d: samples must be float, double, int8_t, uint8_t, int16_t, "
                "uint16_t, int32_t or uint32_t");
  constexpr bool nearest = M == method::nearest;
  if constexpr (std::is_same_v<T, float>) {
    return nearest ? &interp3_nearest_float32 : &interp3_bilinear_float32;
  } else if constexpr (std::is_same_v<T, double>) {
    return nearest ? &interp3_nearest_float64 : &interp3_bilinear_float64;
  } else if constexpr (std::is_same_v<T, int8_t>) {
    return nearest ? &interp3_nearest_int8 : &interp3_bilinear_int8;
  } else if constexpr (std::is_same_v<T, uint8_t>) {
    return nearest ? &interp3_nearest_uint8 : &interp3_bilinear_uint8;
  } else if constexpr (std::is_same_v<T, int16_t>) {
    return nearest ? &interp3_nearest_int16 : &interp3_bilinear_int16;
  } else if constexpr (std::is_same_v<T, uint16_t>) {
    return nearest ? &interp3_nearest_uint16 : &interp3_bilinear_uint16;
  } else if constexpr (std::is_same_v<T, int32_t>) {
    return nearest ? &interp3_nearest_int32 : &interp3_bilinear_int32;
  } else {
    return nearest ? &interp3_nearest_uint32 : &interp3_bilinear_uint32;
  }
}

namespace detail {

// A private copy of a descriptor (and its dim array) that may be handed to
// the C entries as a non-const pointer.
struct descriptor {
  halide_buffer_t buf{};
  halide_dimension_t dims[3]{};

  descriptor() { buf.dim = dims; }
  explicit descriptor(const halide_buffer_t& b) : buf(b) {
    for (int i = 0; i < 3 && i < b.dimensions; ++i) dims[i] = b.dim[i];
    buf.dim = dims;
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
};

inline std::string str(long long v) { return std::to_string(v); }

inline std::string describe(const region& r) {
  return "x in [" + str(r.x_min) + ", " + str(int64_t{r.x_min} + r.x_extent) + ") and y in [" +
         str(r.y_min) + ", " + str(int64_t{r.y_min} + r.y_extent) + ")";
}

inline region region_of(const halide_buffer_t& b) {
  return region{b.dim[0].min, b.dim[0].extent, b.dim[1].min, b.dim[1].extent};
}

inline bool covers(const halide_buffer_t& b, const region& r) {
  const region have = region_of(b);
  return have.x_min <= r.x_min &&
         int64_t{r.x_min} + r.x_extent <= int64_t{have.x_min} + have.x_extent &&
         have.y_min <= r.y_min &&
         int64_t{r.y_min} + r.y_extent <= int64_t{have.y_min} + have.y_extent;
}

// Dimension count, unit inner stride and extents: what must hold before any
// other field of the descriptor can be read.
inline void check_shape(const char* name, const halide_buffer_t& b, int dimensions) {
  if (b.dimensions != dimensions) {
    throw argument_error(name, "expected " + str(dimensions) + " dimensions, got " +
                                   str(b.dimensions));
  }
  if (b.dim[0].stride != 1) {
    throw argument_error(name, "expected stride 1 in dimension 0, got " + str(b.dim[0].stride));
  }
  for (int i = 0; i < dimensions; ++i) {
    if (b.dim[i].extent < 0) {
      throw argument_error(name, "expected a non-negative extent in dimension " + str(i) +
                                     ", got " + str(b.dim[i].extent));
    }
  }
}

// Host memory that holds the current data.
inline void check_storage(const char* name, const halide_buffer_t& b) {
  if (b.host == nullptr) {
    throw argument_error(name,
                         "expected host memory, got a buffer without any (to the C entries "
                         "that would be a bounds query)");
  }
  if (b.device_dirty()) {
    throw argument_error(name,
                         "expected its data on the host, got a buffer whose device copy is "
                         "newer (copy it to the host first)");
  }
}

// The grid is read from absolute index 0 on every axis, and at least the
// sample at index 0 is always read.
inline void check_grid(const halide_buffer_t& V) {
  check_shape("V", V, 3);
  for (int i = 0; i < 3; ++i) {
    if (V.dim[i].min != 0) {
      throw argument_error("V", "expected min 0 in dimension " + str(i) + ", got " +
                                    str(V.dim[i].min));
    }
    if (V.dim[i].extent < 1) {
      throw argument_error("V", "expected a positive extent in dimension " + str(i) + ", got " +
                                    str(V.dim[i].extent));
    }
  }
  check_storage("V", V);
}

// Rows are written concurrently: no two rows may share memory.
inline void check_output_rows(const halide_buffer_t& Vq) {
  const int64_t width = Vq.dim[0].extent, stride = Vq.dim[1].stride;
  if (Vq.dim[1].extent > 1 && width > 0 && (stride < 0 ? -stride : stride) < width) {
    throw argument_error("Vq", "expected rows that do not overlap (a row stride of at least "
                               "the width " + str(width) + " in magnitude), got row stride " +
                                   str(stride));
  }
}

inline void check_disjoint(const halide_buffer_t& Vq, const halide_buffer_t& input,
                           const char* input_name) {
  if (Vq.begin() < input.end() && input.begin() < Vq.end()) {
    throw argument_error("Vq", std::string("expected memory disjoint from ") + input_name +
                                   "'s, got a buffer that overlaps it");
  }
}

inline void check_covers(const char* name, const halide_buffer_t& b, const region& needed,
                         const char* what_needed) {
  if (covers(b, needed)) return;
  throw argument_error(name, "expected to cover " + describe(needed) + " (" + what_needed +
                                 "), got " + describe(region_of(b)));
}

// What the C entry reads of each coordinate array, and writes of the output,
// for an output of region `out`: asked of the entry's own bounds query.
template <method M, class T>
region query_region(const halide_buffer_t& V, const region& out) {
  descriptor v(V), vq, xq, yq, zq;  // vq, xq, yq, zq: no host, no device: queries
  vq.buf.dimensions = xq.buf.dimensions = yq.buf.dimensions = zq.buf.dimensions = 2;
  vq.dims[0] = halide_dimension_t(out.x_min, out.x_extent, 1);
  vq.dims[1] = halide_dimension_t(out.y_min, out.y_extent, out.x_extent);
  raw_entry<M, T>()(&v.buf, &xq.buf, &yq.buf, &zq.buf, 0.0, &vq.buf);
  return region_of(xq.buf);
}

// The four inputs' descriptors, checked together.
struct inputs {
  const halide_buffer_t &v, &x, &y, &z;

  // V in full; the coordinates' shapes.
  void check_shapes() const {
    check_grid(v);
    check_shape("Xq", x, 2);
    check_shape("Yq", y, 2);
    check_shape("Zq", z, 2);
  }
  void check_coordinate_storage() const {
    check_storage("Xq", x);
    check_storage("Yq", y);
    check_storage("Zq", z);
  }
  bool coordinates_cover(const region& r) const {
    return covers(x, r) && covers(y, r) && covers(z, r);
  }
  void check_coordinates_cover(const region& r, const char* what) const {
    check_covers("Xq", x, r, what);
    check_covers("Yq", y, r, what);
    check_covers("Zq", z, r, what);
  }
};

template <class VT>
constexpr void check_sample_type() {
  using S = std::remove_const_t<VT>;
  static_assert(!std::is_void_v<S>,
                "V: the element type must be known at compile time: use Buffer<float>, "
                "Buffer<uint8_t>, ... rather than Buffer<void>");
  static_assert(is_sample_type_v<S>,
                "V: expected elements of type float, double, int8_t, uint8_t, int16_t, "
                "uint16_t, int32_t or uint32_t");
}

template <class VT, int VD, class XT, int XD, class YT, int YD, class ZT, int ZD>
constexpr void check_input_types() {
  check_sample_type<VT>();
  using C = coord_t<VT>;
  static_assert(std::is_same_v<std::remove_const_t<XT>, C>,
                "Xq: expected coordinates of type double for double samples, float otherwise");
  static_assert(std::is_same_v<std::remove_const_t<YT>, C>,
                "Yq: expected coordinates of type double for double samples, float otherwise");
  static_assert(std::is_same_v<std::remove_const_t<ZT>, C>,
                "Zq: expected coordinates of type double for double samples, float otherwise");
  constexpr int any = Halide::Runtime::AnyDims;
  static_assert(VD == any || VD == 3, "V: expected a 3-D buffer");
  static_assert(XD == any || XD == 2, "Xq: expected a 2-D buffer");
  static_assert(YD == any || YD == 2, "Yq: expected a 2-D buffer");
  static_assert(ZD == any || ZD == 2, "Zq: expected a 2-D buffer");
}

}  // namespace detail

// The region that every coordinate array must cover, and that the output
// must have, to compute the output region `out` over the grid V: `out`
// itself, or, when V is wider than one block and `out` is narrower, `out`
// widened to one full block ending at its last column. Asked of the
// library's bounds query. An empty `out` is returned as it is.
template <method M, class VT, int VD, int VS>
region required_region(const Halide::Runtime::Buffer<VT, VD, VS>& V, const region& out) {
  detail::check_sample_type<VT>();
  static_assert(VD == Halide::Runtime::AnyDims || VD == 3, "V: expected a 3-D buffer");
  detail::check_grid(*V.raw_buffer());
  if (out.x_extent <= 0 || out.y_extent <= 0) return out;
  return detail::query_region<M, std::remove_const_t<VT>>(*V.raw_buffer(), out);
}

// Samples V at (Xq, Yq, Zq) into the existing output Vq, over Vq's region.
// Allocates nothing. Xq, Yq and Zq must cover required_region<M>(V, Vq's
// region), and Vq's region must equal it. fill_value is written where a
// point lies outside the grid (rounded to float for float outputs). The
// handle Vq is const; its elements are written. Throws argument_error,
// having written nothing, when an argument is unfit.
template <method M, class VT, int VD, int VS, class XT, int XD, int XS, class YT, int YD,
          int YS, class ZT, int ZD, int ZS, class OT, int OD, int OS>
void interp3(const Halide::Runtime::Buffer<VT, VD, VS>& V,
             const Halide::Runtime::Buffer<XT, XD, XS>& Xq,
             const Halide::Runtime::Buffer<YT, YD, YS>& Yq,
             const Halide::Runtime::Buffer<ZT, ZD, ZS>& Zq, double fill_value,
             const Halide::Runtime::Buffer<OT, OD, OS>& Vq) {
  using S = std::remove_const_t<VT>;
  detail::check_input_types<VT, VD, XT, XD, YT, YD, ZT, ZD>();
  static_assert(std::is_same_v<std::remove_const_t<OT>, coord_t<S>>,
                "Vq: expected elements of type double for double samples, float otherwise");
  static_assert(!std::is_const_v<OT>, "Vq: expected a writable buffer, got Buffer<const T>");
  static_assert(OD == Halide::Runtime::AnyDims || OD == 2, "Vq: expected a 2-D buffer");

  const detail::inputs in{*V.raw_buffer(), *Xq.raw_buffer(), *Yq.raw_buffer(), *Zq.raw_buffer()};
  const halide_buffer_t& o = *Vq.raw_buffer();
  in.check_shapes();
  detail::check_shape("Vq", o, 2);
  detail::check_output_rows(o);
  const region out = detail::region_of(o);
  if (out.x_extent == 0 || out.y_extent == 0) return;  // nothing is read or written

  in.check_coordinate_storage();
  detail::check_storage("Vq", o);
  const region needed = detail::query_region<M, S>(in.v, out);
  in.check_coordinates_cover(needed, needed == out
                                         ? "the output's region"
                                         : "the output's region widened to one full block");
  if (needed != out) {
    throw argument_error(
        "Vq", "expected the region " + detail::describe(needed) +
                  " (V is wider than one block of " + detail::str(static_cast<long long>(16 / sizeof(S))) +
                  " samples, so a narrower output is computed as one full block), got " +
                  detail::describe(out) +
                  "; size buffers with required_region() or let interp3() allocate the output");
  }
  detail::check_disjoint(o, in.v, "V");
  detail::check_disjoint(o, in.x, "Xq");
  detail::check_disjoint(o, in.y, "Yq");
  detail::check_disjoint(o, in.z, "Zq");

  detail::descriptor dv(in.v), dx(in.x), dy(in.y), dz(in.z), dout(o);
  raw_entry<M, S>()(&dv.buf, &dx.buf, &dy.buf, &dz.buf, fill_value, &dout.buf);
}

// Samples V at (Xq, Yq, Zq) and returns a new output over Xq's region (Yq
// and Zq must cover it). An output narrower than one block of a wider grid
// is computed as a full block and returned cropped, so any region works.
// fill_value (NaN unless given) is written where a point lies outside the
// grid. Throws argument_error when an argument is unfit.
template <method M, class VT, int VD, int VS, class XT, int XD, int XS, class YT, int YD,
          int YS, class ZT, int ZD, int ZS>
Halide::Runtime::Buffer<coord_t<VT>, 2> interp3(
    const Halide::Runtime::Buffer<VT, VD, VS>& V, const Halide::Runtime::Buffer<XT, XD, XS>& Xq,
    const Halide::Runtime::Buffer<YT, YD, YS>& Yq, const Halide::Runtime::Buffer<ZT, ZD, ZS>& Zq,
    double fill_value = std::numeric_limits<double>::quiet_NaN()) {
  using S = std::remove_const_t<VT>;
  using C = coord_t<S>;
  using Out = Halide::Runtime::Buffer<C, 2>;
  detail::check_input_types<VT, VD, XT, XD, YT, YD, ZT, ZD>();

  const detail::inputs in{*V.raw_buffer(), *Xq.raw_buffer(), *Yq.raw_buffer(), *Zq.raw_buffer()};
  in.check_shapes();
  const region out = detail::region_of(in.x);
  in.check_coordinates_cover(out, "Xq's region, the output's");
  if (out.x_extent == 0 || out.y_extent == 0) {
    Out empty(out.x_extent, out.y_extent);
    empty.set_min(out.x_min, out.y_min);
    return empty;
  }
  in.check_coordinate_storage();

  const region needed = detail::query_region<M, S>(in.v, out);
  auto sized = [&]() {
    Out b(needed.x_extent, needed.y_extent);
    b.set_min(needed.x_min, needed.y_min);
    return b;
  };
  Out full = sized();
  if (in.coordinates_cover(needed)) {
    interp3<M>(V, Xq, Yq, Zq, fill_value, full);
  } else {
    // The extra columns only pad the block; their results are cropped away.
    auto padded = [&](const auto& q) {
      Out b = sized();
      b.fill(C(1));
      b.copy_from(q);
      return b;
    };
    interp3<M>(V, padded(Xq), padded(Yq), padded(Zq), fill_value, full);
  }
  return full.cropped(0, out.x_min, out.x_extent);
}

// ---------------------------------------------------------------------------
// Affine resampling: the output's points are generated, not given.
//
// Every output point has an index o = (o[0], o[1], o[2]), o[0] the outermost
// term and o[2] the innermost (for a 3-D output buffer Vq(x, y, z): o = (z, y,
// x), the order of a C-ordered numpy array). Its 0-based position along grid
// dimension d is, in double precision, in exactly this order and with no
// fused operation:
//
//   c_d = ((matrix[d][0] * o[0] + matrix[d][1] * o[1]) + matrix[d][2] * o[2]) + offset[d]
//
// Outputs of fewer dimensions use leading terms of zero (their index term is
// 0 and so is their column): 0 + a is a, so the bits are those of the same
// sum with fewer terms. With boundary::nearest, c_d is then clamped to
// [0, n_d - 1] (a NaN stays NaN), which gives the edge sample beyond each edge
// for both methods. The library's 1-based coordinate is c_d + 1, formed in
// double and rounded once to coord_t<T>. affine_row() is the one place that
// computes it.

// What a point beyond the grid gets: fill_value (constant), or the value at
// the nearest point of the grid (nearest).
enum class boundary { constant, nearest };

// Output index terms to 0-based grid positions: row d gives grid dimension d.
struct affine_map {
  double matrix[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
  double offset[3] = {0, 0, 0};
};

// The library's 1-based coordinate for the 0-based position c along an axis
// of n samples (last = n - 1): c clamped to [0, last] for boundary::nearest
// (a NaN stays NaN), plus 1, in double, rounded once to C.
template <class C>
C library_coordinate(double c, double last, boundary mode) {
  static_assert(std::is_same_v<C, float> || std::is_same_v<C, double>,
                "coordinates are float or double");
  if (mode == boundary::nearest) c = c < 0.0 ? 0.0 : (c > last ? last : c);
  return static_cast<C>(c + 1.0);
}

// The library coordinates (1-based, along grid dimensions 0, 1, 2) of the
// `count` output points o, o + (0, 0, 1), ..., o + (0, 0, count - 1), for a
// grid of extents n[0..2]; written to xq[i], yq[i], zq[i].
template <class C>
void affine_row(const affine_map& map, const int32_t n[3], boundary mode, const int64_t o[3],
                int64_t count, C* xq, C* yq, C* zq) {
  C* const out[3] = {xq, yq, zq};
  for (int d = 0; d < 3; ++d) {
    const double* m = map.matrix[d];
    // The first two products and their sum are the same for the whole row.
    const double outer = m[0] * static_cast<double>(o[0]) + m[1] * static_cast<double>(o[1]);
    const double inner = m[2], offset = map.offset[d];
    const double last = static_cast<double>(n[d] - 1);
    C* q = out[d];
    for (int64_t i = 0; i < count; ++i) {
      const double c = (outer + inner * static_cast<double>(o[2] + i)) + offset;
      q[i] = library_coordinate<C>(c, last, mode);
    }
  }
}

namespace detail {

// The x-rows of a 3-D output are written concurrently: none may share memory
// with another. Going through dimensions 1 and 2 by increasing stride, each
// stride must step past everything the smaller ones span.
inline void check_affine_output_rows(const halide_buffer_t& Vq) {
  int64_t span = Vq.dim[0].extent;
  int64_t strides[2], extents[2];
  int count = 0;
  for (int i = 1; i < 3; ++i) {
    if (Vq.dim[i].extent > 1) {
      const int64_t s = Vq.dim[i].stride;
      strides[count] = s < 0 ? -s : s;
      extents[count++] = Vq.dim[i].extent;
    }
  }
  if (count == 2 && strides[1] < strides[0]) {
    std::swap(strides[0], strides[1]);
    std::swap(extents[0], extents[1]);
  }
  for (int i = 0; i < count; ++i) {
    if (strides[i] < span) {
      throw argument_error("Vq", "expected rows that do not overlap, got strides " +
                                     str(Vq.dim[1].stride) + " and " + str(Vq.dim[2].stride) +
                                     " for rows of " + str(Vq.dim[0].extent) + " elements");
    }
    span = strides[i] * (extents[i] - 1) + span;
  }
}

// One task's share of an affine_transform call: a run of whole x-rows.
template <method M, class VT, int VD, int VS, class C>
struct affine_job {
  const Halide::Runtime::Buffer<VT, VD, VS>* V;
  const affine_map* map;
  boundary mode;
  double fill_value;
  halide_buffer_t* Vq;
  int32_t rows_per_task;
  int32_t n[3];
  bool failed = false;

  // Rows are numbered y + ny * z from Vq's mins; task t computes rows
  // [t * rows_per_task, (t + 1) * rows_per_task).
  int run(int task) noexcept {
    try {
      const halide_dimension_t* d = Vq->dim;
      const int32_t width = d[0].extent, ny = d[1].extent;
      const int64_t total = int64_t{ny} * d[2].extent;
      const int64_t first = int64_t{task} * rows_per_task;
      const int32_t rows = static_cast<int32_t>(std::min<int64_t>(rows_per_task, total - first));
      Halide::Runtime::Buffer<C, 2> X(width, rows), Y(width, rows), Z(width, rows);
      for (int32_t r = 0; r < rows; ++r) {
        const int64_t row = first + r;
        const int64_t o[3] = {d[2].min + row / ny, d[1].min + row % ny, d[0].min};
        affine_row<C>(*map, n, mode, o, width, &X(0, r), &Y(0, r), &Z(0, r));
      }
      const Halide::Runtime::Buffer<C, 2> values = interp3<M>(*V, X, Y, Z, fill_value);
      for (int32_t r = 0; r < rows; ++r) {
        const int64_t row = first + r;
        const int64_t offset = (row % ny) * int64_t{d[1].stride} + (row / ny) * int64_t{d[2].stride};
        std::copy(&values(0, r), &values(0, r) + width, reinterpret_cast<C*>(Vq->host) + offset);
      }
      return 0;
    } catch (...) {
      failed = true;
      return -1;
    }
  }

  static int task(void*, int t, uint8_t* closure) {
    return reinterpret_cast<affine_job*>(closure)->run(t);
  }
};

}  // namespace detail

// Resamples V through an affine map into the existing 3-D output Vq, whose
// element Vq(x, y, z) (absolute coordinates: a buffer over a box of a larger
// output, with its mins, gives that box) is the point o = (z, y, x) of the
// formula above. Each x-row of Vq is computed as one row of the C entry, so
// the result equals interp3<M>() over coordinates from affine_row(), row by
// row, bit for bit. Rows run in parallel on the Halide runtime's thread pool,
// a bounded number of them at a time, each with its own scratch coordinates;
// no full coordinate array is ever formed. Throws argument_error, having
// written nothing, when an argument is unfit.
template <method M, class VT, int VD, int VS, class OT, int OD, int OS>
void affine_transform(const Halide::Runtime::Buffer<VT, VD, VS>& V, const affine_map& map,
                      boundary mode, double fill_value,
                      const Halide::Runtime::Buffer<OT, OD, OS>& Vq) {
  using S = std::remove_const_t<VT>;
  using C = coord_t<S>;
  detail::check_sample_type<VT>();
  static_assert(VD == Halide::Runtime::AnyDims || VD == 3, "V: expected a 3-D buffer");
  static_assert(std::is_same_v<std::remove_const_t<OT>, C>,
                "Vq: expected elements of type double for double samples, float otherwise");
  static_assert(!std::is_const_v<OT>, "Vq: expected a writable buffer, got Buffer<const T>");
  static_assert(OD == Halide::Runtime::AnyDims || OD == 3, "Vq: expected a 3-D buffer");

  const halide_buffer_t& v = *V.raw_buffer();
  const halide_buffer_t& o = *Vq.raw_buffer();
  detail::check_grid(v);
  detail::check_shape("Vq", o, 3);
  const int64_t width = o.dim[0].extent, rows = int64_t{o.dim[1].extent} * o.dim[2].extent;
  if (width == 0 || rows == 0) return;
  detail::check_storage("Vq", o);
  if (rows > std::numeric_limits<int32_t>::max()) {
    throw argument_error("Vq", "expected at most 2^31 - 1 rows, got " + detail::str(rows));
  }
  detail::check_affine_output_rows(o);
  detail::check_disjoint(o, v, "V");

  // About 65536 points per task (rows are never split): its scratch is a few MiB.
  constexpr int64_t points_per_task = int64_t{1} << 16;
  const int64_t rows_per_task = std::clamp<int64_t>(points_per_task / width, 1, rows);
  const int64_t tasks = (rows + rows_per_task - 1) / rows_per_task;
  detail::affine_job<M, VT, VD, VS, C> job{&V, &map, mode, fill_value,
                                          const_cast<halide_buffer_t*>(&o),
                                          static_cast<int32_t>(rows_per_task),
                                          {v.dim[0].extent, v.dim[1].extent, v.dim[2].extent}};
  (void)halide_do_par_for(nullptr, &decltype(job)::task, 0, static_cast<int>(tasks),
                          reinterpret_cast<uint8_t*>(&job));
  if (job.failed) throw std::runtime_error("qzinterp3d::affine_transform: a row task failed");
}

}  // namespace qzinterp3d

#endif  // QZINTERP3D_INTERP3_HPP
