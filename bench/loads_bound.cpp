#include "loads_bound.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>
#include <vector>

namespace {

constexpr uint32_t kOffsetBits = 30;
constexpr uint32_t kOffsetMask = (uint32_t{1} << kOffsetBits) - 1;

struct Prepared {
  int method;
  int sample_bytes;
  int result_bytes;
  const uint8_t *samples;
  int64_t stride_y, stride_z;  // V's dim-1 and dim-2 strides, in elements
  int cols, rows;
  bool prefetch;
  std::vector<uint32_t> words;  // one per point, rows dense
};

// Where the points are scattered over a volume larger than a core's L2, each
// point first asks for the samples of the point this far ahead, as the
// library does for large grids, so that the misses overlap (measured here:
// twice as fast on random points; on coherent points the prefetches only
// cost instructions, and are left out).
constexpr int kPrefetchAhead = 48;
constexpr int64_t kPrefetchAboveBytes = int64_t{1} << 20;

// Scattered: most neighbouring points of a row read lines 64 bytes or more
// apart.
bool scattered(const Prepared &p) {
  int64_t apart = 0, pairs = 0;
  for (int row = 0; row < p.rows; ++row) {
    const uint32_t *words = p.words.data() + static_cast<std::size_t>(row) * p.cols;
    for (int c = 1; c < p.cols; ++c, ++pairs) {
      const int64_t step = int64_t{words[c] & kOffsetMask} - int64_t{words[c - 1] & kOffsetMask};
      if ((step < 0 ? -step : step) * p.sample_bytes >= 64) ++apart;
    }
  }
  return 2 * apart > pairs;
}

// Float to 32-bit index as the library converts: NaN to 0, saturating.
template <class C>
int32_t to_index(C v) {
  if (std::isnan(v)) return 0;
  if (v >= static_cast<C>(INT32_MAX)) return INT32_MAX;
  if (v <= static_cast<C>(INT32_MIN)) return INT32_MIN;
  return static_cast<int32_t>(v);
}

int32_t clamp_index(int32_t i, int32_t n) {
  const int32_t upper = i < n - 1 ? i : n - 1;
  return upper > 0 ? upper : 0;
}

template <class C>
const C &coordinate(const halide_buffer_t *b, int col, int row) {
  const auto *base = reinterpret_cast<const C *>(b->host);
  return base[col + static_cast<std::ptrdiff_t>(row) * b->dim[1].stride];
}

// The words of every point; false when an offset does not fit.
template <class C>
bool prepare_words(Prepared &p, const halide_buffer_t *V, const halide_buffer_t *const q[3]) {
  int32_t n[3];
  for (int a = 0; a < 3; ++a) n[a] = V->dim[a].extent;
  const int64_t strides[3] = {1, p.stride_y, p.stride_z};
  const int64_t origin = V->dim[0].min + V->dim[1].min * p.stride_y + V->dim[2].min * p.stride_z;
  p.words.resize(static_cast<std::size_t>(p.rows) * static_cast<std::size_t>(p.cols));
  std::size_t k = 0;
  for (int row = 0; row < p.rows; ++row) {
    for (int col = 0; col < p.cols; ++col, ++k) {
      int64_t offset = -origin;
      uint32_t steps = 0;
      for (int a = 0; a < 3; ++a) {
        const C d = coordinate<C>(q[a], col, row) - C{1};
        if (p.method == LOADS_NEAREST) {
          offset += clamp_index(to_index(std::nearbyint(d)), n[a]) * strides[a];
          continue;
        }
        int32_t lower = clamp_index(to_index(std::floor(d)), n[a]);
        const int32_t upper = clamp_index(to_index(std::ceil(d)), n[a]);
        if (a == 0) {
          // The x pair starts at the lower corner, or one back where that
          // corner is the last sample of its row.
          if (n[0] < 2) return false;
          if (lower == n[0] - 1) --lower;
        } else if (upper != lower) {
          steps |= uint32_t{1} << (kOffsetBits + a - 1);
        }
        offset += lower * strides[a];
      }
      if (offset < 0 || offset > kOffsetMask) return false;
      p.words[k] = static_cast<uint32_t>(offset) | steps;
    }
  }
  return true;
}

struct Task {
  const Prepared *p;
  uint8_t *out;
  int64_t out_stride;  // elements
};

// The XOR of the samples at p and p + 1: one load where two samples fit in
// a 64-bit word, folded at the end (fold_pair) so that neither half is dead.
template <class S>
auto load_pair(const S *p) {
  if constexpr (sizeof(S) < 8) {
    using Pair = std::conditional_t<sizeof(S) == 1, uint16_t,
                                    std::conditional_t<sizeof(S) == 2, uint32_t, uint64_t>>;
    Pair both;
    std::memcpy(&both, p, sizeof both);
    return both;
  } else {
    return static_cast<S>(p[0] ^ p[1]);
  }
}

template <class S, class Pair>
S fold_pair(Pair bits) {
  if constexpr (sizeof(Pair) == 2 * sizeof(S)) {
    return static_cast<S>(bits ^ (bits >> (8 * sizeof(S))));
  } else {
    return bits;
  }
}

// S: the raw sample bits; R: the stored word.
template <class S, class R>
int row_task(void * /*user_context*/, int row, uint8_t *closure) {
  const Task &task = *reinterpret_cast<const Task *>(closure);
  const Prepared &p = *task.p;
  const S *__restrict v = reinterpret_cast<const S *>(p.samples);
  const uint32_t *__restrict words = p.words.data() + static_cast<std::size_t>(row) * p.cols;
  R *__restrict out = reinterpret_cast<R *>(task.out) + row * task.out_stride;
  const int prefetch_end = p.prefetch ? p.cols - kPrefetchAhead : 0;
  if (p.method == LOADS_NEAREST) {
    for (int c = 0; c < p.cols; ++c) {
      if (c < prefetch_end) __builtin_prefetch(v + words[c + kPrefetchAhead], 0, 3);
      out[c] = static_cast<R>(v[words[c]]);
    }
    return 0;
  }
  // The lower pair's offset, and the steps (0 or the stride) to the upper
  // y and z corners' pairs, chosen without a branch.
  auto decode = [&p](uint32_t w, int64_t &k, int64_t &dy, int64_t &dz) {
    k = w & kOffsetMask;
    dy = -static_cast<int64_t>((w >> kOffsetBits) & 1) & p.stride_y;
    dz = -static_cast<int64_t>(w >> (kOffsetBits + 1)) & p.stride_z;
  };
  int64_t k, dy, dz;
  for (int c = 0; c < p.cols; ++c) {
    if (c < prefetch_end) {
      decode(words[c + kPrefetchAhead], k, dy, dz);
      __builtin_prefetch(v + k, 0, 3);
      __builtin_prefetch(v + k + dy, 0, 3);
      __builtin_prefetch(v + k + dz, 0, 3);
      __builtin_prefetch(v + k + dy + dz, 0, 3);
    }
    decode(words[c], k, dy, dz);
    using Pair = decltype(load_pair(v));
    const auto pairs = static_cast<Pair>(load_pair(v + k) ^ load_pair(v + k + dy) ^
                                         load_pair(v + k + dz) ^ load_pair(v + k + dy + dz));
    out[c] = static_cast<R>(fold_pair<S>(pairs));
  }
  return 0;
}

using RowTask = int (*)(void *, int, uint8_t *);

RowTask row_task_for(int sample_bytes, int result_bytes) {
  if (result_bytes == 8) return sample_bytes == 8 ? &row_task<uint64_t, uint64_t> : nullptr;
  switch (sample_bytes) {
    case 1: return &row_task<uint8_t, uint32_t>;
    case 2: return &row_task<uint16_t, uint32_t>;
    case 4: return &row_task<uint32_t, uint32_t>;
    default: return nullptr;
  }
}

}  // namespace

extern "C" void *loads_prepare(int method, int type_code, int type_bits, const halide_buffer_t *V,
                               const halide_buffer_t *Xq, const halide_buffer_t *Yq,
                               const halide_buffer_t *Zq) {
  if (method != LOADS_NEAREST && method != LOADS_TRILINEAR) return nullptr;
  if (type_code < 0 || type_code > 2 || type_bits % 8 != 0) return nullptr;
  if (V == nullptr || V->dimensions != 3 || V->host == nullptr) return nullptr;
  const halide_buffer_t *const q[3] = {Xq, Yq, Zq};
  for (const halide_buffer_t *b : q) {
    if (b == nullptr || b->dimensions != 2 || b->host == nullptr) return nullptr;
  }
  const int sample_bytes = type_bits / 8;
  const bool float64 = type_code == 2 && type_bits == 64;
  const int result_bytes = float64 ? 8 : 4;
  if (row_task_for(sample_bytes, result_bytes) == nullptr) return nullptr;
  for (const halide_buffer_t *b : q) {
    if (b->type.bits != result_bytes * 8) return nullptr;
  }

  auto *p = new (std::nothrow) Prepared{};
  if (p == nullptr) return nullptr;
  p->method = method;
  p->sample_bytes = sample_bytes;
  p->result_bytes = result_bytes;
  p->samples = V->host;
  p->stride_y = V->dim[1].stride;
  p->stride_z = V->dim[2].stride;
  p->cols = Xq->dim[0].extent;
  p->rows = Xq->dim[1].extent;
  const bool fits = float64 ? prepare_words<double>(*p, V, q) : prepare_words<float>(*p, V, q);
  if (!fits) {
    delete p;
    return nullptr;
  }
  p->prefetch = int64_t{V->dim[0].extent} * V->dim[1].extent * V->dim[2].extent * sample_bytes >
                    kPrefetchAboveBytes &&
                scattered(*p);
  return p;
}

extern "C" int loads_run(const void *prepared, halide_buffer_t *out) {
  const auto *p = static_cast<const Prepared *>(prepared);
  if (p == nullptr || out == nullptr || out->host == nullptr || out->dimensions != 2 ||
      out->type.bits != p->result_bytes * 8 || out->dim[0].extent != p->cols ||
      out->dim[1].extent != p->rows) {
    return -1;
  }
  Task task{p, out->host, out->dim[1].stride};
  return halide_do_par_for(nullptr, row_task_for(p->sample_bytes, p->result_bytes), 0, p->rows,
                           reinterpret_cast<uint8_t *>(&task));
}

extern "C" void loads_free(void *prepared) { delete static_cast<Prepared *>(prepared); }
