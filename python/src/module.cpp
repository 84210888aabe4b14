// qzinterp3d._core: the numpy front end of libqzinterp3d_halide.
//
// interp3(volume, xq, yq, zq, method, fill_value) checks its arguments,
// describes the caller's numpy memory in halide_buffer_t descriptors (no copy
// of any input), sizes the call through the library's bounds query and runs
// the pipeline with the GIL released. The one case that copies: when the
// library asks for a wider coordinate and output region than the caller's
// arrays cover (a grid wider than one block of 16 bytes of samples with rows
// narrower than that block), the rows are computed through a padded scratch
// copy, a slab of rows at a time.
//
// The resampling functions behind qzinterp3d.map_coordinates and
// affine_transform (_map_resample, _affine_resample) generate the library's
// coordinates themselves, from scipy-style coordinates or the affine
// formula, a tile of whole output rows at a time into bounded scratch, the
// tiles running on the Halide runtime's thread pool; they store the values
// into an output of any real dtype the way scipy.ndimage stores its own.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <qzinterp3d/interp3.hpp>
#include <qzinterp3d_halide.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace py = pybind11;

namespace {

using EntryFn = int (*)(halide_buffer_t*, halide_buffer_t*, halide_buffer_t*, halide_buffer_t*,
                        double, halide_buffer_t*);

// A 1-D query of n points is computed as rows of this many points (plus one
// shorter row for the rest), so that the rows can run in parallel. A multiple
// of every block width.
constexpr int64_t kRowLength = 1024;

// Upper bound on the elements of one padded scratch array.
constexpr int64_t kScratchElements = int64_t{1} << 16;

struct SampleVariant {
  const char* name;
  py::dtype (*dtype)();
  halide_type_t type;
  EntryFn nearest;
  EntryFn linear;
};

template <class T>
py::dtype dtype_of() {
  return py::dtype::of<T>();
}

const SampleVariant kVariants[] = {
    {"float32", dtype_of<float>, halide_type_t(halide_type_float, 32), interp3_nearest_float32,
     interp3_bilinear_float32},
    {"float64", dtype_of<double>, halide_type_t(halide_type_float, 64), interp3_nearest_float64,
     interp3_bilinear_float64},
    {"int8", dtype_of<int8_t>, halide_type_t(halide_type_int, 8), interp3_nearest_int8,
     interp3_bilinear_int8},
    {"uint8", dtype_of<uint8_t>, halide_type_t(halide_type_uint, 8), interp3_nearest_uint8,
     interp3_bilinear_uint8},
    {"int16", dtype_of<int16_t>, halide_type_t(halide_type_int, 16), interp3_nearest_int16,
     interp3_bilinear_int16},
    {"uint16", dtype_of<uint16_t>, halide_type_t(halide_type_uint, 16), interp3_nearest_uint16,
     interp3_bilinear_uint16},
    {"int32", dtype_of<int32_t>, halide_type_t(halide_type_int, 32), interp3_nearest_int32,
     interp3_bilinear_int32},
    {"uint32", dtype_of<uint32_t>, halide_type_t(halide_type_uint, 32), interp3_nearest_uint32,
     interp3_bilinear_uint32},
};

bool same_dtype(const py::dtype& a, const py::dtype& b) {
  // Equivalence in numpy's sense: same kind, size and byte order.
  return py::detail::npy_api::get().PyArray_EquivTypes_(a.ptr(), b.ptr());
}

std::string str_of(const py::handle& h) { return py::str(h).cast<std::string>(); }

std::string shape_of(const py::array& a) {
  std::string s = "(";
  for (py::ssize_t i = 0; i < a.ndim(); ++i) {
    if (i) s += ", ";
    s += std::to_string(a.shape(i));
  }
  return s + (a.ndim() == 1 ? ",)" : ")");
}

py::array as_ndarray(const py::object& obj, const char* name) {
  if (!py::isinstance<py::array>(obj)) {
    throw py::type_error(std::string(name) + " must be a numpy.ndarray, got " +
                         Py_TYPE(obj.ptr())->tp_name);
  }
  return py::reinterpret_borrow<py::array>(obj);
}

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
constexpr int64_t kInt32Min = std::numeric_limits<int32_t>::min();

// The stride of one axis in elements, as the 32-bit field of a descriptor.
// Axes of length 1 are never stepped along, and empty arrays are never read,
// so their strides are irrelevant: 0.
int32_t element_stride(const py::array& a, py::ssize_t axis, const std::string& what) {
  if (a.shape(axis) <= 1 || a.size() == 0) return 0;
  const int64_t bytes = a.strides(axis), size = a.itemsize();
  if (bytes % size != 0) {
    throw py::value_error(what + " has a stride of " + std::to_string(bytes) +
                          " bytes, not a whole number of " + std::to_string(size) +
                          "-byte elements");
  }
  const int64_t elements = bytes / size;
  if (elements < kInt32Min || elements > kInt32Max) {
    throw py::value_error(what + " has a stride of " + std::to_string(elements) +
                          " elements, beyond the 32-bit range of a buffer descriptor");
  }
  return static_cast<int32_t>(elements);
}

void require_contiguous_last_axis(const py::array& a, const std::string& name) {
  const py::ssize_t last = a.ndim() - 1;
  if (a.shape(last) > 1 && a.size() > 0 && a.strides(last) != a.itemsize()) {
    throw py::value_error(name + " must be contiguous along its last axis (a stride of " +
                          std::to_string(a.itemsize()) + " bytes), got a stride of " +
                          std::to_string(a.strides(last)) + " bytes; pass a C-contiguous array "
                          "or a view that keeps its last axis whole, e.g. np.ascontiguousarray(" +
                          name + ")");
  }
}

void require_aligned(const py::array& a, const std::string& name) {
  if (reinterpret_cast<uintptr_t>(a.data()) % static_cast<uintptr_t>(a.itemsize()) != 0) {
    throw py::value_error(name + " is not aligned to its " + std::to_string(a.itemsize()) +
                          "-byte elements; pass an aligned copy, e.g. np.require(" + name +
                          ", requirements='A')");
  }
}

void require_int32_extent(int64_t extent, const std::string& what) {
  if (extent > kInt32Max) {
    throw py::value_error(what + " of " + std::to_string(extent) +
                          " exceeds the 32-bit range of a buffer descriptor");
  }
}

// One 2-D region of query points: rows x cols, each array addressed by its
// host pointer (the element at row 0, column 0) and its row stride in elements.
struct Region {
  const void* xq;
  const void* yq;
  const void* zq;
  void* out;
  int32_t xq_stride, yq_stride, zq_stride, out_stride;
  int32_t rows, cols;
};

// The sample grid and the entry to call.
struct Call {
  const char* name;
  EntryFn entry;
  halide_type_t sample_type;
  halide_type_t coord_type;
  const void* volume;
  halide_dimension_t volume_dims[3];
  double fill_value;
};

struct Buffer2D {
  halide_buffer_t buf{};
  halide_dimension_t dim[2];

  Buffer2D(const void* host, halide_type_t type, int32_t min0, int32_t extent0, int32_t rows,
           int32_t row_stride) {
    dim[0] = halide_dimension_t(min0, extent0, 1);
    dim[1] = halide_dimension_t(0, rows, row_stride);
    buf.host = static_cast<uint8_t*>(const_cast<void*>(host));
    buf.type = type;
    buf.dimensions = 2;
    buf.dim = dim;
  }
  Buffer2D(const Buffer2D&) = delete;
  Buffer2D& operator=(const Buffer2D&) = delete;
};

struct Buffer3D {
  halide_buffer_t buf{};
  halide_dimension_t dim[3];

  Buffer3D(const Call& c, const void* host) {
    std::copy(c.volume_dims, c.volume_dims + 3, dim);
    buf.host = static_cast<uint8_t*>(const_cast<void*>(host));
    buf.type = c.sample_type;
    buf.dimensions = 3;
    buf.dim = dim;
  }
  Buffer3D(const Buffer3D&) = delete;
  Buffer3D& operator=(const Buffer3D&) = delete;
};

// Asks the library which columns of the coordinate (and output) arrays a call
// over rows x cols reads and writes. Returns {min, extent} of that column
// range; [0, cols) when no headroom is needed.
halide_dimension_t queried_columns(const Call& c, int32_t rows, int32_t cols) {
  Buffer3D v(c, nullptr);
  Buffer2D xq(nullptr, c.coord_type, 0, 0, 0, 0), yq(nullptr, c.coord_type, 0, 0, 0, 0),
      zq(nullptr, c.coord_type, 0, 0, 0, 0);
  Buffer2D out(nullptr, c.coord_type, 0, cols, rows, cols);
  c.entry(&v.buf, &xq.buf, &yq.buf, &zq.buf, c.fill_value, &out.buf);
  for (int i = 0; i < 3; ++i) {
    if (v.dim[i].min != 0 || v.dim[i].extent != c.volume_dims[i].extent) {
      throw std::runtime_error("the library asked for a volume region other than the whole grid");
    }
  }
  const halide_dimension_t x = xq.dim[0];
  if (xq.dim[1].min != 0 || xq.dim[1].extent != rows || x.min > 0 ||
      int64_t{x.min} + x.extent < cols) {
    throw std::runtime_error("the library asked for a coordinate region that does not cover "
                             "the query");
  }
  return x;
}

template <class Coord>
void call_direct(const Call& c, const Region& r) {
  Buffer3D v(c, c.volume);
  Buffer2D xq(r.xq, c.coord_type, 0, r.cols, r.rows, r.xq_stride);
  Buffer2D yq(r.yq, c.coord_type, 0, r.cols, r.rows, r.yq_stride);
  Buffer2D zq(r.zq, c.coord_type, 0, r.cols, r.rows, r.zq_stride);
  Buffer2D out(r.out, c.coord_type, 0, r.cols, r.rows, r.out_stride);
  c.entry(&v.buf, &xq.buf, &yq.buf, &zq.buf, c.fill_value, &out.buf);
}

// The rows go through scratch arrays whose rows are columns.extent wide, the
// query's columns sitting at [lead, lead + cols). The extra columns hold the
// coordinate 1 (any value would do: each column is computed on its own) and
// their results are discarded.
template <class Coord>
void call_padded(const Call& c, const Region& r, halide_dimension_t columns) {
  const int32_t width = columns.extent, lead = -columns.min;
  const int32_t slab = static_cast<int32_t>(
      std::clamp<int64_t>(kScratchElements / width, 1, r.rows));
  const size_t size = static_cast<size_t>(slab) * static_cast<size_t>(width);
  std::vector<Coord> xs(size, Coord(1)), ys(size, Coord(1)), zs(size, Coord(1)), outs(size);
  const size_t row_bytes = sizeof(Coord) * static_cast<size_t>(r.cols);
  auto row_of = [](const void* base, int64_t row, int32_t stride) {
    return static_cast<const Coord*>(base) + row * stride;
  };
  for (int64_t first = 0; first < r.rows; first += slab) {
    const int32_t n = static_cast<int32_t>(std::min<int64_t>(slab, r.rows - first));
    for (int32_t i = 0; i < n; ++i) {
      const size_t at = static_cast<size_t>(i) * width + static_cast<size_t>(lead);
      std::memcpy(&xs[at], row_of(r.xq, first + i, r.xq_stride), row_bytes);
      std::memcpy(&ys[at], row_of(r.yq, first + i, r.yq_stride), row_bytes);
      std::memcpy(&zs[at], row_of(r.zq, first + i, r.zq_stride), row_bytes);
    }
    Buffer3D v(c, c.volume);
    Buffer2D xq(xs.data(), c.coord_type, columns.min, width, n, width);
    Buffer2D yq(ys.data(), c.coord_type, columns.min, width, n, width);
    Buffer2D zq(zs.data(), c.coord_type, columns.min, width, n, width);
    // The output keeps the caller's column range [0, cols): the library then
    // computes exactly what it computes for rows of that width.
    Buffer2D out(outs.data() + lead, c.coord_type, 0, r.cols, n, width);
    c.entry(&v.buf, &xq.buf, &yq.buf, &zq.buf, c.fill_value, &out.buf);
    for (int32_t i = 0; i < n; ++i) {
      const size_t at = static_cast<size_t>(i) * width + static_cast<size_t>(lead);
      std::memcpy(static_cast<Coord*>(r.out) + (first + i) * r.out_stride, &outs[at],
                  row_bytes);
    }
  }
}

template <class Coord>
void run_region(const Call& c, const Region& r) {
  if (r.rows == 0 || r.cols == 0) return;
  const halide_dimension_t columns = queried_columns(c, r.rows, r.cols);
  if (columns.min == 0 && columns.extent == r.cols) {
    call_direct<Coord>(c, r);
  } else {
    call_padded<Coord>(c, r, columns);
  }
}

struct Query {
  py::array xq, yq, zq;
};

// Checks the three coordinate arrays against each other and the volume.
Query check_coordinates(const py::object& xq_obj, const py::object& yq_obj,
                        const py::object& zq_obj, const py::dtype& coord_dtype,
                        const char* volume_dtype) {
  Query q{as_ndarray(xq_obj, "xq"), as_ndarray(yq_obj, "yq"), as_ndarray(zq_obj, "zq")};
  const char* names[3] = {"xq", "yq", "zq"};
  const py::array* arrays[3] = {&q.xq, &q.yq, &q.zq};
  for (int i = 0; i < 3; ++i) {
    const py::array& a = *arrays[i];
    const std::string name = names[i];
    if (!same_dtype(a.dtype(), coord_dtype)) {
      throw py::type_error(name + " must have dtype " + str_of(coord_dtype) +
                           " to go with a volume of dtype " + volume_dtype + ", got " +
                           str_of(a.dtype()) + " (convert it with " + name + ".astype(np." +
                           str_of(coord_dtype) + "))");
    }
    if (i > 0 && (a.ndim() != q.xq.ndim() ||
                  !std::equal(a.shape(), a.shape() + a.ndim(), q.xq.shape()))) {
      throw py::value_error(name + " has shape " + shape_of(a) + " but xq has shape " +
                            shape_of(q.xq) + "; xq, yq and zq must have one shape");
    }
    if (a.ndim() > 0) require_contiguous_last_axis(a, name);
    require_aligned(a, name);
    if (a.ndim() >= 2) {
      require_int32_extent(a.shape(a.ndim() - 1), name + "'s row length");
      for (py::ssize_t axis = 0; axis + 1 < a.ndim(); ++axis) {
        element_stride(a, axis, name + (axis == 0 ? std::string("'s first axis")
                                                  : "'s axis " + std::to_string(axis)));
      }
    }
  }
  return q;
}

// The rows of an N-D query (N >= 2): every index of the leading axes, in C
// order, is one row along the last axis. Rows that lie at one stride from
// each other in all four arrays form one region; the others are grouped by
// the second-to-last axis.
void nd_regions(const Query& q, const py::array& out, std::vector<Region>& regions) {
  const py::array* arrays[4] = {&q.xq, &q.yq, &q.zq, &out};
  const py::ssize_t nd = out.ndim(), last = nd - 1;
  const int32_t cols = static_cast<int32_t>(out.shape(last));
  // Whether, in every array, each leading axis steps exactly over the axes after it.
  bool uniform = true;
  for (const py::array* a : arrays) {
    for (py::ssize_t axis = 0; axis + 2 < nd; ++axis) {
      if (a->shape(axis) > 1 && a->strides(axis) != a->shape(axis + 1) * a->strides(axis + 1)) {
        uniform = false;
      }
    }
  }
  const int64_t rows = static_cast<int64_t>(out.size() / out.shape(last));
  const int64_t group = uniform ? rows : out.shape(last - 1);
  auto stride_of = [&](const py::array& a) {
    for (py::ssize_t axis = last - 1; axis >= 0; --axis) {
      if (a.shape(axis) > 1) return static_cast<int32_t>(a.strides(axis) / a.itemsize());
    }
    return cols;
  };
  const int32_t strides[4] = {stride_of(q.xq), stride_of(q.yq), stride_of(q.zq), stride_of(out)};
  // Regions of at most 2^30 rows, to stay within the descriptors' 32-bit extents.
  constexpr int64_t kMaxRows = int64_t{1} << 30;
  for (int64_t first = 0; first < rows; first += group) {
    // The address of row `first`: unravel it over the leading axes.
    const char* at[4];
    for (int k = 0; k < 4; ++k) {
      int64_t rest = first, offset = 0;
      for (py::ssize_t axis = last - 1; axis >= 0; --axis) {
        offset += (rest % arrays[k]->shape(axis)) * arrays[k]->strides(axis);
        rest /= arrays[k]->shape(axis);
      }
      at[k] = static_cast<const char*>(arrays[k]->data()) + offset;
    }
    for (int64_t done = 0; done < group; done += kMaxRows) {
      const int32_t n = static_cast<int32_t>(std::min(kMaxRows, group - done));
      const char* p[4];
      for (int k = 0; k < 4; ++k) p[k] = at[k] + done * strides[k] * arrays[k]->itemsize();
      regions.push_back({p[0], p[1], p[2], const_cast<char*>(p[3]), strides[0], strides[1],
                         strides[2], strides[3], n, cols});
    }
  }
}

template <class Coord>
py::array compute(const Call& call, const Query& q) {
  const py::array& xq = q.xq;
  py::array_t<Coord> out(std::vector<py::ssize_t>(xq.shape(), xq.shape() + xq.ndim()));
  if (out.size() == 0) return out;

  std::vector<Region> regions;
  if (xq.ndim() == 0) {
    regions.push_back({q.xq.data(), q.yq.data(), q.zq.data(), out.mutable_data(), 1, 1, 1, 1, 1,
                       1});
  } else if (xq.ndim() >= 2) {
    nd_regions(q, out, regions);
  } else {
    const int64_t n = xq.shape(0), full_rows = n / kRowLength, rest = n % kRowLength;
    require_int32_extent(full_rows, "the number of rows of a 1-D query");
    const int32_t len = static_cast<int32_t>(kRowLength);
    const Coord* x = static_cast<const Coord*>(q.xq.data());
    const Coord* y = static_cast<const Coord*>(q.yq.data());
    const Coord* z = static_cast<const Coord*>(q.zq.data());
    Coord* o = out.mutable_data();
    regions.push_back({x, y, z, o, len, len, len, len, static_cast<int32_t>(full_rows), len});
    const int64_t done = full_rows * kRowLength;
    regions.push_back({x + done, y + done, z + done, o + done, len, len, len, len, 1,
                       static_cast<int32_t>(rest)});
  }
  {
    py::gil_scoped_release release;
    for (const Region& r : regions) run_region<Coord>(call, r);
  }
  return out;
}

// The volume, method and fill value of a call, checked.
Call prepare_call(const py::object& volume_obj, const py::object& method_obj,
                  const py::object& fill_value_obj) {
  const py::array volume = as_ndarray(volume_obj, "volume");
  const SampleVariant* variant = nullptr;
  for (const SampleVariant& v : kVariants) {
    if (same_dtype(volume.dtype(), v.dtype())) variant = &v;
  }
  if (variant == nullptr) {
    throw py::type_error("volume has dtype " + str_of(volume.dtype()) +
                         "; expected one of float32, float64, int8, uint8, int16, uint16, "
                         "int32, uint32 (in native byte order)");
  }
  if (volume.ndim() != 3) {
    throw py::value_error("volume must be 3-D, of shape (nz, ny, nx), got a " +
                          std::to_string(volume.ndim()) + "-D array of shape " +
                          shape_of(volume));
  }
  for (py::ssize_t i = 0; i < 3; ++i) {
    if (volume.shape(i) == 0) {
      throw py::value_error("volume has shape " + shape_of(volume) +
                            ", with an empty axis; every axis needs at least one sample");
    }
    require_int32_extent(volume.shape(i), "volume's extent");
  }
  require_contiguous_last_axis(volume, "volume");
  require_aligned(volume, "volume");

  if (!py::isinstance<py::str>(method_obj)) {
    throw py::type_error(std::string("method must be a str, 'linear' or 'nearest', got ") +
                         Py_TYPE(method_obj.ptr())->tp_name);
  }
  const std::string method = method_obj.cast<std::string>();
  EntryFn entry = nullptr;
  if (method == "linear") {
    entry = variant->linear;
  } else if (method == "nearest") {
    entry = variant->nearest;
  } else {
    throw py::value_error("method must be 'linear' or 'nearest', got '" + method + "'");
  }

  const double fill_value = PyFloat_AsDouble(fill_value_obj.ptr());
  if (fill_value == -1.0 && PyErr_Occurred()) {
    PyErr_Clear();
    throw py::type_error(std::string("fill_value must be a real number, got ") +
                         Py_TYPE(fill_value_obj.ptr())->tp_name);
  }

  const bool f64 = variant->type.code == halide_type_float && variant->type.bits == 64;
  Call call{};
  call.name = variant->name;
  call.entry = entry;
  call.sample_type = variant->type;
  call.coord_type = halide_type_t(halide_type_float, f64 ? 64 : 32);
  call.volume = volume.data();
  // Grid dimension 0 is numpy's last axis (x), 1 the middle (y), 2 the first (z).
  call.volume_dims[0] = halide_dimension_t(0, static_cast<int32_t>(volume.shape(2)), 1);
  call.volume_dims[1] = halide_dimension_t(0, static_cast<int32_t>(volume.shape(1)),
                                           element_stride(volume, 1, "volume's middle axis (y)"));
  call.volume_dims[2] = halide_dimension_t(0, static_cast<int32_t>(volume.shape(0)),
                                           element_stride(volume, 0, "volume's first axis (z)"));
  call.fill_value = fill_value;
  return call;
}

bool is_f64(const Call& c) { return c.coord_type.bits == 64; }

py::array interp3(const py::object& volume_obj, const py::object& xq_obj,
                  const py::object& yq_obj, const py::object& zq_obj,
                  const py::object& method_obj, const py::object& fill_value_obj) {
  const Call call = prepare_call(volume_obj, method_obj, fill_value_obj);
  const py::dtype coord_dtype = is_f64(call) ? py::dtype::of<double>() : py::dtype::of<float>();
  const Query q = check_coordinates(xq_obj, yq_obj, zq_obj, coord_dtype, call.name);
  return is_f64(call) ? compute<double>(call, q) : compute<float>(call, q);
}

// ---------------------------------------------------------------------------
// Storing results into an output of another dtype, rounded and cast the way
// scipy.ndimage (1.10, x86-64) stores its double results for interpolation
// orders 0 and 1, so that a given output array gets the same values from both.

enum class OutKind { f16, f32, f64, i8, i16, i32, i64, u8, u16, u32, u64, boolean };

// The value a signed integer output gets: half-way cases away from zero,
// saturating at the type's range; a NaN gives what the x86 truncating
// conversion gives (the 32-bit "integer indefinite" INT32_MIN, of which 8-
// and 16-bit outputs keep the low bits, 0; INT64_MIN for 64 bits), and so
// does exactly 2^63 for int64, which is not above INT64_MAX as a double.
template <class I>
I to_signed(double t) {
  t = t > 0 ? t + 0.5 : t - 0.5;
  constexpr I lo = std::numeric_limits<I>::min(), hi = std::numeric_limits<I>::max();
  if (t > static_cast<double>(hi)) return hi;
  if (t < static_cast<double>(lo)) return lo;
  if (std::isnan(t) || t >= 9223372036854775808.0) {
    return sizeof(I) == 8 ? lo : static_cast<I>(sizeof(I) == 4 ? lo : 0);
  }
  return static_cast<I>(static_cast<int64_t>(t));
}

// Unsigned outputs: values at or below 0 (and NaN) give 0, others are
// rounded half up and saturate; exactly 2^64 (not above UINT64_MAX as a
// double) gives 0 as the x86 conversion does.
template <class U>
U to_unsigned(double t) {
  t = t > 0 ? t + 0.5 : 0.0;
  constexpr U hi = std::numeric_limits<U>::max();
  if (t > static_cast<double>(hi)) return hi;
  if (t >= 18446744073709551616.0) return 0;
  if (t >= 9223372036854775808.0) {
    return static_cast<U>(static_cast<uint64_t>(static_cast<int64_t>(t - 9223372036854775808.0)) ^
                          (uint64_t{1} << 63));
  }
  return static_cast<U>(static_cast<int64_t>(t));
}

// Boolean outputs: the value truncated towards zero to a 32-bit integer
// (NaN and values beyond the range give INT32_MIN) is true when its low byte
// is not zero. Stored as 1 (scipy stores the byte itself).
bool to_bool(double t) {
  if (!(t > -2147483649.0 && t < 2147483648.0)) return false;
  return (static_cast<int64_t>(t) & 0xff) != 0;
}

// Round to nearest, ties to even, to IEEE half precision.
uint16_t to_half(double t) {
  const uint16_t sign = std::signbit(t) ? 0x8000 : 0;
  const double a = std::fabs(t);
  if (std::isnan(t)) return static_cast<uint16_t>(sign | 0x7e00);
  if (a >= 65520.0) return static_cast<uint16_t>(sign | 0x7c00);  // rounds to infinity
  if (a < 6.103515625e-05) {  // below 2^-14: subnormal steps of 2^-24 (1024: the smallest normal)
    return static_cast<uint16_t>(sign | static_cast<uint16_t>(std::nearbyint(a * 16777216.0)));
  }
  int e = 0;
  (void)std::frexp(a, &e);  // a = f * 2^e, f in [0.5, 1)
  const double m = std::nearbyint(std::ldexp(a, 11 - e));  // in [1024, 2048], exactly scaled
  // m == 2048 carries into the exponent field through the addition.
  return static_cast<uint16_t>(sign | (((e + 14) << 10) + (static_cast<int>(m) - 1024)));
}

// How values are stored into an output of dtype `dt`.
OutKind output_kind(const py::dtype& dt) {
  const char kind = dt.kind();
  const int size = static_cast<int>(dt.itemsize());
  const bool native = same_dtype(dt, py::dtype(dt.attr("newbyteorder")("=")));
  if (native) {
    if (kind == 'f' && size == 2) return OutKind::f16;
    if (kind == 'f' && size == 4) return OutKind::f32;
    if (kind == 'f' && size == 8) return OutKind::f64;
    if (kind == 'i' && size == 1) return OutKind::i8;
    if (kind == 'i' && size == 2) return OutKind::i16;
    if (kind == 'i' && size == 4) return OutKind::i32;
    if (kind == 'i' && size == 8) return OutKind::i64;
    if (kind == 'u' && size == 1) return OutKind::u8;
    if (kind == 'u' && size == 2) return OutKind::u16;
    if (kind == 'u' && size == 4) return OutKind::u32;
    if (kind == 'u' && size == 8) return OutKind::u64;
    if (kind == 'b' && size == 1) return OutKind::boolean;
  }
  throw py::type_error("output has dtype " + str_of(dt) +
                       "; expected a real dtype in native byte order: float16, float32, "
                       "float64, int8 to int64, uint8 to uint64 or bool");
}

template <class T>
void put(char* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

// Stores n values at dst, dst + stride, ... (stride in bytes).
template <class C>
void store_row(const C* src, int64_t n, char* dst, int64_t stride, OutKind kind) {
  for (int64_t i = 0; i < n; ++i, dst += stride) {
    const double t = static_cast<double>(src[i]);
    switch (kind) {
      case OutKind::f16: put(dst, to_half(t)); break;
      case OutKind::f32: put(dst, static_cast<float>(src[i])); break;
      case OutKind::f64: put(dst, t); break;
      case OutKind::i8: put(dst, to_signed<int8_t>(t)); break;
      case OutKind::i16: put(dst, to_signed<int16_t>(t)); break;
      case OutKind::i32: put(dst, to_signed<int32_t>(t)); break;
      case OutKind::i64: put(dst, to_signed<int64_t>(t)); break;
      case OutKind::u8: put(dst, to_unsigned<uint8_t>(t)); break;
      case OutKind::u16: put(dst, to_unsigned<uint16_t>(t)); break;
      case OutKind::u32: put(dst, to_unsigned<uint32_t>(t)); break;
      case OutKind::u64: put(dst, to_unsigned<uint64_t>(t)); break;
      case OutKind::boolean: put(dst, static_cast<uint8_t>(to_bool(t))); break;
    }
  }
}

// The shape of an output and how its points are grouped into rows: for two
// or more dimensions each row is the last axis at one index of the leading
// axes (in C order); for one dimension, rows of kRowLength points and one
// row of the rest; for none, one row of one point. shape[] is padded with
// leading 1s (and strides with 0s) to three dimensions.
struct Layout {
  int ndim = 0;
  int64_t shape[3] = {1, 1, 1};
  int64_t strides[3] = {0, 0, 0};  // of the output array, in bytes
  int64_t rows = 1, row_length = 1, total = 1;

  void start(int64_t row, int64_t o[3]) const {
    if (ndim == 1) {
      o[0] = o[1] = 0;
      o[2] = row * row_length;
    } else {
      o[0] = row / shape[1];
      o[1] = row % shape[1];
      o[2] = 0;
    }
  }
  int64_t length(int64_t row) const {
    return ndim == 1 ? std::min(row_length, total - row * row_length) : shape[2];
  }
  int64_t byte_offset(const int64_t o[3]) const {
    return o[0] * strides[0] + o[1] * strides[1] + o[2] * strides[2];
  }
};

Layout layout_of(const std::vector<int64_t>& shape, const std::vector<int64_t>& strides) {
  Layout l;
  l.ndim = static_cast<int>(shape.size());
  const int pad = 3 - l.ndim;
  for (int i = 0; i < l.ndim; ++i) {
    l.shape[pad + i] = shape[i];
    l.strides[pad + i] = strides[i];
    l.total *= shape[i];
  }
  if (l.ndim == 1) {
    l.row_length = kRowLength;
    l.rows = (l.total + kRowLength - 1) / kRowLength;
  } else {
    l.row_length = l.shape[2];
    l.rows = l.shape[2] == 0 ? 0 : l.total / l.shape[2];
  }
  return l;
}

// A piece of the output computed by one call of the entry: `rows` rows from
// `first_row` on, columns [col, col + cols) of each (all of them, unless a
// row is longer than a tile holds).
struct Tile {
  int64_t first_row;
  int64_t col;
  int32_t rows, cols;
};

// Scratch per worker: about 1 MiB of coordinates and values.
constexpr int64_t kTileBytes = int64_t{1} << 20;
// Workers running tiles at once; with their scratch, at most 32 MiB.
constexpr int kMaxWorkers = 32;

// Splits the rows into tiles of whole rows of at most `points` points. A row
// longer than that is split into pieces whose widths are multiples of 16
// columns (a multiple of every block width and of the nearest method's
// groups of four), the last piece keeping at least 16 columns: each piece is
// then computed with the blocks (and groups) the whole row would have, so
// the bits are the same.
std::vector<Tile> tiles_of(const Layout& l, int64_t points) {
  std::vector<Tile> tiles;
  int64_t row = 0;
  while (row < l.rows) {
    const int64_t len = l.length(row);
    if (len <= points) {
      // Rows of one length, up to `points` points (the 1-D layout's last row is shorter).
      int64_t n = std::max<int64_t>(1, points / std::max<int64_t>(len, 16));
      n = std::min<int64_t>(n, l.rows - row);
      if (l.ndim == 1 && row + n == l.rows && l.length(row + n - 1) != len) --n;
      n = std::max<int64_t>(n, 1);
      tiles.push_back({row, 0, static_cast<int32_t>(n), static_cast<int32_t>(len)});
      row += n;
    } else {
      const int64_t piece = (points / 2) / 16 * 16;
      const int64_t pieces = len / piece;
      for (int64_t k = 0; k < pieces; ++k) {
        const int64_t width = k + 1 < pieces ? piece : len - k * piece;
        tiles.push_back({row, k * piece, 1, static_cast<int32_t>(width)});
      }
      ++row;
    }
  }
  return tiles;
}

// Where the coordinates of an output row come from: the affine formula ...
struct AffineSource {
  qzinterp3d::affine_map map;
  qzinterp3d::boundary mode;
  int32_t n[3];

  template <class Coord>
  void operator()(const int64_t o[3], int64_t count, Coord* x, Coord* y, Coord* z) const {
    qzinterp3d::affine_row<Coord>(map, n, mode, o, count, x, y, z);
  }
};

// ... or an array of scipy's 0-based coordinates, shape (ndim, *S), float32
// or float64, any strides: the row of library dimension d is read from the
// coordinate array's row axes[d] (an added axis, -1, gets 1).
struct ArraySource {
  const char* data;
  bool f64;
  int axes[3];
  int64_t axis_stride;   // bytes between the coordinate array's rows
  int64_t strides[3];    // bytes per step of o[0], o[1], o[2] (row layout of S)
  qzinterp3d::boundary mode;
  int32_t n[3];

  template <class Coord>
  void operator()(const int64_t o[3], int64_t count, Coord* x, Coord* y, Coord* z) const {
    Coord* const out[3] = {x, y, z};
    const int64_t base = o[0] * strides[0] + o[1] * strides[1] + o[2] * strides[2];
    for (int d = 0; d < 3; ++d) {
      Coord* q = out[d];
      if (axes[d] < 0) {
        std::fill(q, q + count, Coord(1));
        continue;
      }
      const char* p = data + axes[d] * axis_stride + base;
      const double last = static_cast<double>(n[d] - 1);
      for (int64_t i = 0; i < count; ++i, p += strides[2]) {
        double c;
        if (f64) {
          std::memcpy(&c, p, sizeof c);
        } else {
          float f;
          std::memcpy(&f, p, sizeof f);
          c = f;
        }
        q[i] = qzinterp3d::library_coordinate<Coord>(c, last, mode);
      }
    }
  }
};

// One resampling call, shared by its worker tasks: the grid and entry, the
// source of each row's coordinates, the output and the tiles still to do.
template <class Coord, class Source>
struct ResampleJob {
  using coord_type = Coord;
  Call call;
  Source source;
  Layout layout;
  char* output;
  OutKind out_kind;
  bool direct;  // a C-ordered output of the coordinate dtype: entries write it in place
  std::vector<Tile> tiles;
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};

  void run_tile(const Tile& t, std::vector<Coord>& scratch) {
    const halide_dimension_t columns = queried_columns(call, t.rows, t.cols);
    const int32_t width = columns.extent, lead = -columns.min;
    const size_t plane = static_cast<size_t>(t.rows) * static_cast<size_t>(width);
    scratch.resize(4 * plane);
    Coord* xs = scratch.data();
    Coord* ys = xs + plane;
    Coord* zs = ys + plane;
    Coord* outs = zs + plane;
    const bool padded = width != t.cols;
    if (padded) std::fill(xs, xs + 3 * plane, Coord(1));
    for (int32_t r = 0; r < t.rows; ++r) {
      int64_t o[3];
      layout.start(t.first_row + r, o);
      o[2] += t.col;
      const size_t at = static_cast<size_t>(r) * width + static_cast<size_t>(lead);
      source(o, t.cols, xs + at, ys + at, zs + at);
    }
    int64_t o0[3];
    layout.start(t.first_row, o0);
    o0[2] += t.col;
    const bool in_place = direct && !padded;
    Coord* target = in_place ? reinterpret_cast<Coord*>(output + layout.byte_offset(o0))
                             : outs + lead;
    // Rows of a C-ordered output lie one row length apart.
    const int32_t out_stride = in_place ? static_cast<int32_t>(layout.row_length) : width;
    {
      Buffer3D v(call, call.volume);
      Buffer2D xq(xs, call.coord_type, columns.min, width, t.rows, width);
      Buffer2D yq(ys, call.coord_type, columns.min, width, t.rows, width);
      Buffer2D zq(zs, call.coord_type, columns.min, width, t.rows, width);
      Buffer2D out(target, call.coord_type, 0, t.cols, t.rows, out_stride);
      call.entry(&v.buf, &xq.buf, &yq.buf, &zq.buf, call.fill_value, &out.buf);
    }
    if (in_place) return;
    for (int32_t r = 0; r < t.rows; ++r) {
      int64_t o[3];
      layout.start(t.first_row + r, o);
      o[2] += t.col;
      store_row<Coord>(outs + static_cast<size_t>(r) * width + static_cast<size_t>(lead), t.cols,
                       output + layout.byte_offset(o), layout.strides[2], out_kind);
    }
  }

  // One worker: takes tiles until none is left.
  int work() noexcept {
    try {
      std::vector<Coord> scratch;
      for (size_t i = next++; i < tiles.size(); i = next++) run_tile(tiles[i], scratch);
      return 0;
    } catch (...) {
      failed = true;
      return -1;
    }
  }
  static int task(void*, int, uint8_t* closure) {
    return reinterpret_cast<ResampleJob*>(closure)->work();
  }
};

int worker_count(size_t tiles) {
  const unsigned hw = std::max(1u, std::thread::hardware_concurrency());
  return static_cast<int>(std::min<size_t>({tiles, static_cast<size_t>(hw), kMaxWorkers}));
}

qzinterp3d::affine_map affine_map_of(const py::array_t<double>& matrix,
                                     const py::array_t<double>& offset) {
  if (matrix.ndim() != 2 || matrix.shape(0) != 3 || matrix.shape(1) != 3) {
    throw py::value_error("matrix must have shape (3, 3), got " + shape_of(matrix));
  }
  if (offset.ndim() != 1 || offset.shape(0) != 3) {
    throw py::value_error("offset must have shape (3,), got " + shape_of(offset));
  }
  qzinterp3d::affine_map m;
  for (int d = 0; d < 3; ++d) {
    for (int j = 0; j < 3; ++j) m.matrix[d][j] = matrix.at(d, j);
    m.offset[d] = offset.at(d);
  }
  return m;
}

qzinterp3d::boundary boundary_of(const std::string& mode) {
  if (mode == "constant") return qzinterp3d::boundary::constant;
  if (mode == "nearest") return qzinterp3d::boundary::nearest;
  throw py::value_error("mode must be 'constant' or 'nearest', got '" + mode + "'");
}

template <class Job>
void run_job(Job& job) {
  if (job.tiles.empty()) return;
  py::gil_scoped_release release;
  (void)halide_do_par_for(nullptr, &Job::task, 0, worker_count(job.tiles.size()),
                          reinterpret_cast<uint8_t*>(&job));
  if (job.failed) throw std::runtime_error("resampling failed (out of memory?)");
}

using DoubleArray = py::array_t<double, py::array::c_style | py::array::forcecast>;

// The output array of a resampling call: at most 3-D, writable, aligned,
// of a dtype results can be stored into.
py::array checked_output(const py::object& output_obj) {
  py::array output = as_ndarray(output_obj, "output");
  if (output.ndim() > 3) {
    throw py::value_error("output must have at most 3 dimensions, got " + shape_of(output));
  }
  if (!output.writeable()) throw py::value_error("output is read-only");
  require_aligned(output, "output");
  return output;
}

Layout layout_of(const py::array& a) {
  return layout_of(std::vector<int64_t>(a.shape(), a.shape() + a.ndim()),
                   std::vector<int64_t>(a.strides(), a.strides() + a.ndim()));
}

// Fills `output` with the grid of `call` sampled at the points of `source`,
// a tile of whole rows at a time, on the Halide runtime's thread pool.
template <class Source>
void resample(const Call& call, const Source& source, py::array& output) {
  const OutKind out_kind = output_kind(output.dtype());
  const Layout layout = layout_of(output);
  if (layout.total == 0) return;
  const bool c_ordered = (output.flags() & py::array::c_style) != 0;
  auto run = [&](auto tag) {
    using Coord = decltype(tag);
    ResampleJob<Coord, Source> job;
    job.call = call;
    job.source = source;
    job.layout = layout;
    job.output = static_cast<char*>(output.mutable_data());
    job.out_kind = out_kind;
    job.direct = c_ordered && out_kind == (sizeof(Coord) == 8 ? OutKind::f64 : OutKind::f32);
    job.tiles = tiles_of(layout, kTileBytes / (4 * static_cast<int64_t>(sizeof(Coord))));
    run_job(job);
  };
  if (is_f64(call)) {
    run(double{});
  } else {
    run(float{});
  }
}

void grid_extents(const Call& call, int32_t n[3]) {
  for (int d = 0; d < 3; ++d) n[d] = call.volume_dims[d].extent;
}

// _affine_resample(volume, matrix, offset, method, mode, fill_value, output)
void affine_resample(const py::object& volume_obj, const py::object& matrix_obj,
                     const py::object& offset_obj, const py::object& method_obj,
                     const std::string& mode, const py::object& fill_value_obj,
                     const py::object& output_obj) {
  const Call call = prepare_call(volume_obj, method_obj, fill_value_obj);
  AffineSource source{affine_map_of(py::cast<DoubleArray>(matrix_obj),
                                    py::cast<DoubleArray>(offset_obj)),
                      boundary_of(mode), {0, 0, 0}};
  grid_extents(call, source.n);
  py::array output = checked_output(output_obj);
  resample(call, source, output);
}

// The source reading `coordinates` (shape (k, *S), float32 or float64) for
// an output of shape S; axes[d] is the coordinate row of library dimension d
// (-1: none, the coordinate 1).
ArraySource array_source(const py::array& coordinates, const std::vector<int>& axes,
                         const int32_t n[3], const std::string& mode) {
  const bool f64 = same_dtype(coordinates.dtype(), py::dtype::of<double>());
  if (!f64 && !same_dtype(coordinates.dtype(), py::dtype::of<float>())) {
    throw py::type_error("coordinates must be float32 or float64, got " +
                         str_of(coordinates.dtype()));
  }
  if (coordinates.ndim() < 1 || coordinates.ndim() > 4) {
    throw py::value_error("coordinates must have 1 to 4 dimensions, got " + shape_of(coordinates));
  }
  if (axes.size() != 3) throw py::value_error("axes must hold 3 values");
  require_aligned(coordinates, "coordinates");
  ArraySource src{};
  src.data = static_cast<const char*>(coordinates.data());
  src.f64 = f64;
  src.axis_stride = coordinates.strides(0);
  const int k = static_cast<int>(coordinates.ndim()) - 1;
  for (int d = 0; d < 3; ++d) {
    if (axes[d] >= coordinates.shape(0)) throw py::value_error("axes: no such coordinate row");
    src.axes[d] = axes[d];
    src.n[d] = n[d];
    src.strides[d] = 0;
  }
  for (int i = 0; i < k; ++i) src.strides[3 - k + i] = coordinates.strides(i + 1);
  src.mode = boundary_of(mode);
  return src;
}

// _map_resample(volume, coordinates, axes, method, mode, fill_value, output)
void map_resample(const py::object& volume_obj, const py::array& coordinates,
                  const std::vector<int>& axes, const py::object& method_obj,
                  const std::string& mode, const py::object& fill_value_obj,
                  const py::object& output_obj) {
  const Call call = prepare_call(volume_obj, method_obj, fill_value_obj);
  int32_t n[3];
  grid_extents(call, n);
  const ArraySource source = array_source(coordinates, axes, n, mode);
  py::array output = checked_output(output_obj);
  if (output.ndim() + 1 != coordinates.ndim() ||
      !std::equal(output.shape(), output.shape() + output.ndim(), coordinates.shape() + 1)) {
    throw py::value_error("output has shape " + shape_of(output) + ", expected coordinates.shape[1:]");
  }
  resample(call, source, output);
}

// _library_coordinates(coordinates, axes, extents, mode, double): the
// library coordinates (xq, yq, zq), each of shape coordinates.shape[1:].
py::tuple library_coordinates(const py::array& coordinates, const std::vector<int>& axes,
                              const std::vector<int32_t>& extents, const std::string& mode,
                              bool f64) {
  if (extents.size() != 3) throw py::value_error("extents must hold 3 values");
  const int32_t n[3] = {extents[0], extents[1], extents[2]};
  const ArraySource source = array_source(coordinates, axes, n, mode);
  const std::vector<int64_t> shape(coordinates.shape() + 1, coordinates.shape() + coordinates.ndim());
  // The rows of the output's layout; the strides do not matter here.
  const Layout l = layout_of(shape, std::vector<int64_t>(shape.size(), 0));
  auto make = [&](auto tag) {
    using Coord = decltype(tag);
    const std::vector<py::ssize_t> s(shape.begin(), shape.end());
    py::array_t<Coord> x(s), y(s), z(s);
    Coord *px = x.mutable_data(), *py_ = y.mutable_data(), *pz = z.mutable_data();
    {
      py::gil_scoped_release release;
      int64_t at = 0;
      for (int64_t row = 0; row < l.rows; ++row) {
        int64_t o[3];
        l.start(row, o);
        const int64_t len = l.length(row);
        source(o, len, px + at, py_ + at, pz + at);
        at += len;
      }
    }
    return py::make_tuple(x, y, z);
  };
  return f64 ? make(double{}) : make(float{});
}

// _affine_coordinates(extents, matrix, offset, mode, start, stop, double)
// The library coordinates of the box of output indices [start, stop), as
// three C-ordered arrays of the box's shape (float64 if `double`, else
// float32): the values affine resampling hands to the entries.
py::tuple affine_coordinates(const std::vector<int32_t>& extents, const py::object& matrix_obj,
                             const py::object& offset_obj, const std::string& mode,
                             const std::vector<int64_t>& start, const std::vector<int64_t>& stop,
                             bool f64) {
  if (extents.size() != 3) throw py::value_error("extents must hold 3 values");
  if (start.size() != stop.size() || start.size() > 3) {
    throw py::value_error("start and stop must have one length, at most 3");
  }
  const qzinterp3d::affine_map map =
      affine_map_of(py::cast<DoubleArray>(matrix_obj), py::cast<DoubleArray>(offset_obj));
  const qzinterp3d::boundary boundary = boundary_of(mode);
  std::vector<py::ssize_t> shape;
  int64_t lo[3] = {0, 0, 0}, count[3] = {1, 1, 1};
  const size_t pad = 3 - start.size();
  for (size_t i = 0; i < start.size(); ++i) {
    if (stop[i] < start[i] || start[i] < 0) throw py::value_error("start and stop: an empty or negative range");
    shape.push_back(static_cast<py::ssize_t>(stop[i] - start[i]));
    lo[pad + i] = start[i];
    count[pad + i] = stop[i] - start[i];
  }
  const int32_t n[3] = {extents[0], extents[1], extents[2]};
  auto make = [&](auto tag) {
    using Coord = decltype(tag);
    py::array_t<Coord> x(shape), y(shape), z(shape);
    Coord *px = x.mutable_data(), *py_ = y.mutable_data(), *pz = z.mutable_data();
    {
      py::gil_scoped_release release;
      int64_t at = 0;
      for (int64_t i0 = 0; i0 < count[0]; ++i0) {
        for (int64_t i1 = 0; i1 < count[1]; ++i1, at += count[2]) {
          const int64_t o[3] = {lo[0] + i0, lo[1] + i1, lo[2]};
          qzinterp3d::affine_row<Coord>(map, n, boundary, o, count[2], px + at, py_ + at, pz + at);
        }
      }
    }
    return py::make_tuple(x, y, z);
  };
  return f64 ? make(double{}) : make(float{});
}

// _cast_into(values, output): stores C-ordered float32 or float64 values
// into `output` (same shape, any real dtype, any strides) with the rounding
// and casts of integer outputs of the resampling functions.
void cast_into(const py::array& values, const py::object& output_obj) {
  py::array output = as_ndarray(output_obj, "output");
  if (values.ndim() != output.ndim() ||
      !std::equal(values.shape(), values.shape() + values.ndim(), output.shape())) {
    throw py::value_error("output has shape " + shape_of(output) + ", expected " + shape_of(values));
  }
  if (!(values.flags() & py::array::c_style)) throw py::value_error("values must be C-ordered");
  if (!output.writeable()) throw py::value_error("output is read-only");
  require_aligned(output, "output");
  const OutKind out_kind = output_kind(output.dtype());
  const bool f64 = same_dtype(values.dtype(), py::dtype::of<double>());
  if (!f64 && !same_dtype(values.dtype(), py::dtype::of<float>())) {
    throw py::type_error("values must be float32 or float64");
  }
  std::vector<int64_t> shape(output.shape(), output.shape() + output.ndim());
  std::vector<int64_t> strides(output.strides(), output.strides() + output.ndim());
  const Layout l = layout_of(shape, strides);
  char* out = static_cast<char*>(output.mutable_data());
  const char* in = static_cast<const char*>(values.data());
  const size_t size = f64 ? 8 : 4;
  py::gil_scoped_release release;
  for (int64_t row = 0; row < l.rows; ++row) {
    int64_t o[3];
    l.start(row, o);
    const int64_t flat = (o[0] * l.shape[1] + o[1]) * l.shape[2] + o[2];
    if (f64) {
      store_row(reinterpret_cast<const double*>(in + flat * size), l.length(row), out + l.byte_offset(o), l.strides[2], out_kind);
    } else {
      store_row(reinterpret_cast<const float*>(in + flat * size), l.length(row), out + l.byte_offset(o), l.strides[2], out_kind);
    }
  }
}

constexpr const char* kInterp3Doc = R"doc(
interp3(volume, xq, yq, zq, method="linear", fill_value=nan)

Sample a 3-D grid at query points.

Parameters
----------
volume : numpy.ndarray, 3-D, shape (nz, ny, nx)
    The samples. dtype float32, float64, int8, uint8, int16, uint16, int32
    or uint32 (native byte order). The last axis (x) must be contiguous; the
    strides of the other two axes are free (views of larger arrays, reversed
    or broadcast axes are read in place).
xq, yq, zq : numpy.ndarray of any shape, all of one shape
    1-based query coordinates: ``xq`` addresses the volume's last axis
    (x, length nx), ``yq`` the middle axis (y, length ny), ``zq`` the first
    axis (z, length nz). q = 1 is the first sample along an axis and q = n
    the last, so ``volume[k, j, i]`` sits at (xq, yq, zq) = (i + 1, j + 1,
    k + 1). dtype float64 for a float64 volume, float32 for every other
    volume dtype, exactly (no conversion is made; other dtypes raise
    TypeError). The last axis must be contiguous; the strides of the
    other axes are free.
method : {"linear", "nearest"}
    "linear" blends the eight surrounding samples (trilinear); "nearest"
    takes the nearest sample, ties rounding to the even index.
fill_value : float
    The value of points outside the grid: a point is inside when
    1 <= q <= n on every axis. Converted to float32 (nearest) for every
    volume dtype but float64. Never converted to the volume's dtype.

Returns
-------
numpy.ndarray of the coordinates' shape, float64 for a float64 volume and
float32 otherwise. Integer samples are converted to float32 when read; the
result is never rounded back to an integer dtype.

Notes
-----
Arrays must be aligned to their element size, as numpy allocates them.
No input is copied; the one exception is a grid wider than one 16-byte
block of samples (nx > 16 / itemsize) queried with rows narrower than that
block, whose rows are computed through a padded scratch copy. The GIL is
released during the computation; grids wider than one block are computed
row by row on the Halide runtime's thread pool (HL_NUM_THREADS sets its
size). Rows: for coordinates of two or more dimensions, each row is the
last axis at one index of the leading axes; a 1-D query of n points is
computed as rows of ROW_LENGTH points and one shorter row for the rest; a
0-D query as one row of one point.

Results are exact and reproducible: the same inputs give the same bits. The
last bit of a trilinear value can depend on where a point lies in its row
(each row is computed in blocks, the row's last block with its own rounding
sequence), and a NaN coordinate gives either fill_value or a value
depending on the grid width and the column; see the package documentation.
)doc";

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Exact interpolation of 3-D grids at query points (numpy front end).";
  m.attr("ROW_LENGTH") = kRowLength;
  py::options options;
  options.disable_function_signatures();  // the docstring starts with the signature
  m.def("interp3", &interp3, py::arg("volume"), py::arg("xq"), py::arg("yq"), py::arg("zq"),
        py::arg("method") = "linear",
        py::arg("fill_value") = std::numeric_limits<double>::quiet_NaN(), kInterp3Doc + 1);
  m.def("_affine_resample", &affine_resample, py::arg("volume"), py::arg("matrix"),
        py::arg("offset"), py::arg("method"), py::arg("mode"), py::arg("fill_value"),
        py::arg("output"),
        "_affine_resample(volume, matrix, offset, method, mode, fill_value, output)\n\n"
        "Fills `output` (at most 3-D, any real dtype) with `volume` (3-D, (nz, ny, nx), last\n"
        "axis contiguous) resampled at the library coordinates of the affine formula:\n"
        "matrix (3, 3) and offset (3,) in float64, row d giving grid dimension d (x, y, z),\n"
        "column j the output index term j (padded with leading zero terms). The output's\n"
        "rows follow the row layout of its shape. mode is 'constant' or 'nearest'.");
  m.def("_map_resample", &map_resample, py::arg("volume"), py::arg("coordinates"),
        py::arg("axes"), py::arg("method"), py::arg("mode"), py::arg("fill_value"),
        py::arg("output"),
        "_map_resample(volume, coordinates, axes, method, mode, fill_value, output)\n\n"
        "Fills `output` (shape coordinates.shape[1:], at most 3-D) with `volume` sampled at\n"
        "scipy's 0-based `coordinates` (float32 or float64, any strides): library dimension d\n"
        "reads coordinate row axes[d] (-1: the coordinate 1), formed into the library's\n"
        "coordinate as library_coordinate() does, tile by tile on the thread pool.");
  m.def("_library_coordinates", &library_coordinates, py::arg("coordinates"), py::arg("axes"),
        py::arg("extents"), py::arg("mode"), py::arg("double"),
        "_library_coordinates(coordinates, axes, extents, mode, double)\n\n"
        "The library coordinates (xq, yq, zq) that _map_resample forms from `coordinates`.");
  m.def("_affine_coordinates", &affine_coordinates, py::arg("extents"), py::arg("matrix"),
        py::arg("offset"), py::arg("mode"), py::arg("start"), py::arg("stop"),
        py::arg("double"),
        "_affine_coordinates(extents, matrix, offset, mode, start, stop, double)\n\n"
        "The library coordinates (xq, yq, zq) of the box [start, stop) of output indices,\n"
        "for a grid of extents (nx, ny, nz): the same bits _affine_resample computes.");
  m.def("_cast_into", &cast_into, py::arg("values"), py::arg("output"),
        "_cast_into(values, output)\n\nStores float32/float64 values into output the way the\n"
        "resampling functions store theirs (qzinterp3d.dask stores its blocks with it).");
}
