// Owning buffers for tests: any mins, padded row strides, and a band of
// sentinel elements around and between the described region, so that a test
// can prove nothing outside the region was written.
#pragma once

#include <HalideRuntime.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace qztest {

template <class T>
halide_type_t type_of() {
  if constexpr (std::is_floating_point_v<T>) {
    return halide_type_t(halide_type_float, sizeof(T) * 8, 1);
  } else if constexpr (std::is_signed_v<T>) {
    return halide_type_t(halide_type_int, sizeof(T) * 8, 1);
  } else {
    return halide_type_t(halide_type_uint, sizeof(T) * 8, 1);
  }
}

// A dense-along-x buffer of 2 or 3 dimensions. pad[i] extra elements are left
// between consecutive rows (i = 1) or planes (i = 2).
template <class T>
class TestBuffer {
 public:
  static constexpr int64_t kGuard = 64;

  TestBuffer(std::vector<int32_t> mins, std::vector<int32_t> extents,
             std::vector<int32_t> pads = {}) {
    const size_t n = extents.size();
    pads.resize(n, 0);
    dims_.resize(n);
    int64_t stride = 1;
    for (size_t i = 0; i < n; ++i) {
      dims_[i].min = mins[i];
      dims_[i].extent = extents[i];
      dims_[i].stride = static_cast<int32_t>(stride);
      dims_[i].flags = 0;
      const int64_t ext = extents[i] > 0 ? extents[i] : 0;
      stride = stride * ext + (i + 1 < n ? pads[i + 1] : 0);
    }
    int64_t span = 1;
    for (size_t i = 0; i < n; ++i) {
      if (dims_[i].extent > 0) span += int64_t{dims_[i].extent - 1} * dims_[i].stride;
    }
    storage_.resize(static_cast<size_t>(span + 2 * kGuard));
    std::memset(storage_.data(), kSentinelByte, storage_.size() * sizeof(T));
    buf_ = halide_buffer_t{};
    buf_.host = reinterpret_cast<uint8_t*>(storage_.data() + kGuard);
    buf_.type = type_of<T>();
    buf_.dimensions = static_cast<int32_t>(n);
    buf_.dim = dims_.data();
  }

  TestBuffer(const TestBuffer&) = delete;
  TestBuffer& operator=(const TestBuffer&) = delete;

  halide_buffer_t* raw() { return &buf_; }
  const halide_dimension_t& dim(int i) const { return dims_[i]; }

  // Element at absolute coordinates.
  T& at(int64_t x, int64_t y) { return data()[offset(x, y, dims_.size() > 2 ? dims_[2].min : 0)]; }
  T& at(int64_t x, int64_t y, int64_t z) { return data()[offset(x, y, z)]; }

  T* data() { return reinterpret_cast<T*>(buf_.host); }

  // True when every element outside the described region still holds the
  // sentinel.
  bool outside_untouched() const {
    std::vector<bool> inside(storage_.size(), false);
    mark_inside(inside, dims_.size() - 1, kGuard);
    for (size_t i = 0; i < storage_.size(); ++i) {
      if (inside[i]) continue;
      const unsigned char* b = reinterpret_cast<const unsigned char*>(&storage_[i]);
      for (size_t k = 0; k < sizeof(T); ++k) {
        if (b[k] != kSentinelByte) return false;
      }
    }
    return true;
  }

  // Fills every element of the region.
  template <class F>
  void fill(F f) {
    if (dims_.size() == 2) {
      for (int64_t y = dims_[1].min; y < dims_[1].min + dims_[1].extent; ++y)
        for (int64_t x = dims_[0].min; x < dims_[0].min + dims_[0].extent; ++x) at(x, y) = f(x, y, 0);
    } else {
      for (int64_t z = dims_[2].min; z < dims_[2].min + dims_[2].extent; ++z)
        for (int64_t y = dims_[1].min; y < dims_[1].min + dims_[1].extent; ++y)
          for (int64_t x = dims_[0].min; x < dims_[0].min + dims_[0].extent; ++x)
            at(x, y, z) = f(x, y, z);
    }
  }

 private:
  static constexpr unsigned char kSentinelByte = 0xA5;

  int64_t offset(int64_t x, int64_t y, int64_t z) const {
    int64_t o = (x - dims_[0].min) + (y - dims_[1].min) * dims_[1].stride;
    if (dims_.size() > 2) o += (z - dims_[2].min) * dims_[2].stride;
    return o;
  }

  void mark_inside(std::vector<bool>& inside, size_t d, int64_t base) const {
    if (dims_[d].extent <= 0) return;
    for (int64_t i = 0; i < dims_[d].extent; ++i) {
      const int64_t at = base + i * dims_[d].stride;
      if (d == 0) {
        inside[static_cast<size_t>(at)] = true;
      } else {
        mark_inside(inside, d - 1, at);
      }
    }
  }

  template <class U>
  friend bool same_storage(const TestBuffer<U>& a, const TestBuffer<U>& b);

  std::vector<T> storage_;
  std::vector<halide_dimension_t> dims_;
  halide_buffer_t buf_;
};

// Byte-for-byte equality of two buffers' whole storage, guard bands included.
template <class T>
bool same_storage(const TestBuffer<T>& a, const TestBuffer<T>& b) {
  return a.storage_.size() == b.storage_.size() &&
         std::memcmp(a.storage_.data(), b.storage_.data(), a.storage_.size() * sizeof(T)) == 0;
}

}  // namespace qztest
