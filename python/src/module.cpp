// qzinterp3d._core: the numpy front end of libqzinterp3d_halide.
//
// One function, interp3(volume, xq, yq, zq, method, fill_value), which checks
// its arguments, describes the caller's numpy memory in halide_buffer_t
// descriptors (no copy of any input), sizes the call through the library's
// bounds query and runs the pipeline with the GIL released.
//
// The one case that copies: when the library asks for a wider coordinate and
// output region than the caller's arrays cover (a grid wider than one block of
// 16 bytes of samples with rows narrower than that block), the rows are
// computed through a padded scratch copy, a slab of rows at a time.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <qzinterp3d_halide.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
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
    if (a.ndim() != 1 && a.ndim() != 2) {
      throw py::value_error(name + " must be 1-D or 2-D, got a " + std::to_string(a.ndim()) +
                            "-D array of shape " + shape_of(a));
    }
    if (i > 0 && (a.ndim() != q.xq.ndim() ||
                  !std::equal(a.shape(), a.shape() + a.ndim(), q.xq.shape()))) {
      throw py::value_error(name + " has shape " + shape_of(a) + " but xq has shape " +
                            shape_of(q.xq) + "; xq, yq and zq must have one shape");
    }
    require_contiguous_last_axis(a, name);
    require_aligned(a, name);
    if (a.ndim() == 2) {
      require_int32_extent(a.shape(0), name + "'s row count");
      require_int32_extent(a.shape(1), name + "'s row length");
      element_stride(a, 0, name + "'s first axis");
    }
  }
  return q;
}

template <class Coord>
py::array compute(const Call& call, const Query& q) {
  const py::array& xq = q.xq;
  py::array_t<Coord> out(std::vector<py::ssize_t>(xq.shape(), xq.shape() + xq.ndim()));
  if (out.size() == 0) return out;

  std::vector<Region> regions;
  if (xq.ndim() == 2) {
    const int32_t rows = static_cast<int32_t>(xq.shape(0)), cols = static_cast<int32_t>(xq.shape(1));
    regions.push_back({q.xq.data(), q.yq.data(), q.zq.data(), out.mutable_data(),
                       element_stride(q.xq, 0, "xq"), element_stride(q.yq, 0, "yq"),
                       element_stride(q.zq, 0, "zq"), cols, rows, cols});
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

py::array interp3(const py::object& volume_obj, const py::object& xq_obj,
                  const py::object& yq_obj, const py::object& zq_obj,
                  const py::object& method_obj, const py::object& fill_value_obj) {
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
  const py::dtype coord_dtype = f64 ? py::dtype::of<double>() : py::dtype::of<float>();
  const Query q = check_coordinates(xq_obj, yq_obj, zq_obj, coord_dtype, variant->name);

  Call call{};
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
  return f64 ? compute<double>(call, q) : compute<float>(call, q);
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
xq, yq, zq : numpy.ndarray, 1-D or 2-D, all of one shape
    1-based query coordinates: ``xq`` addresses the volume's last axis
    (x, length nx), ``yq`` the middle axis (y, length ny), ``zq`` the first
    axis (z, length nz). q = 1 is the first sample along an axis and q = n
    the last, so ``volume[k, j, i]`` sits at (xq, yq, zq) = (i + 1, j + 1,
    k + 1). dtype float64 for a float64 volume, float32 for every other
    volume dtype, exactly (no conversion is made; other dtypes raise
    TypeError). The last axis must be contiguous; the row stride of 2-D
    arrays is free.
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
size). A 1-D query of n points is computed as rows of ROW_LENGTH points and
one shorter row for the rest.

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
}
