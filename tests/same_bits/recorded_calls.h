// A fixed, seeded set of calls of all sixteen entries, on both paths, whose
// outputs one build writes to a file (write_record.cpp) and another compares
// bit for bit (same_bits_test.cpp): the same inputs must give the same bits
// on every CPU. Both builds use the same standard library, so its seeded
// distributions give both the same inputs (a difference would fail loudly).
#pragma once

#include <cstdint>
#include <istream>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/random_inputs.h"
#include "support/scene.h"
#include "support/variants.h"

namespace qztest::same_bits {

// One call's status, then its output elements row by row, as stored bytes.
struct RecordedCall {
  std::string name;
  std::vector<uint8_t> bytes;
};

// Samples: arbitrary values, with the type's extremes and (for the float
// types) NaN, infinities, signed zeros and subnormals mixed in.
template <class S>
S sample_value(std::mt19937_64& rng) {
  using Lim = std::numeric_limits<S>;
  const uint64_t pick = rng() % 16;
  if constexpr (std::is_floating_point_v<S>) {
    switch (pick) {
      case 0: return Lim::quiet_NaN();
      case 1: return Lim::infinity();
      case 2: return -Lim::infinity();
      case 3: return Lim::denorm_min() * S(5);
      case 4: return S(-0.0);
      case 5: return Lim::max();
      case 6: return -Lim::min() / S(3);
      default: return random_sample<S>(rng);
    }
  } else {
    switch (pick) {
      case 0: return Lim::min();
      case 1: return Lim::max();
      case 2: return S(0);
      default: return random_sample<S>(rng);
    }
  }
}

inline double fill_value(int which) {
  static const double kFills[] = {-0.3, std::numeric_limits<double>::quiet_NaN(), 1e300, -0.0,
                                  12345.678};
  return kFills[which % 5];
}

template <Method M, class S>
RecordedCall call_and_record(Scene<M, S>& scene, double fill, const std::string& name) {
  using C = CoordOf<S>;
  RecordedCall call{name, {}};
  const int32_t status = scene.call(fill);
  const auto* status_bytes = reinterpret_cast<const uint8_t*>(&status);
  call.bytes.assign(status_bytes, status_bytes + sizeof status);
  const Shape& s = scene.shape();
  for (int64_t r = 0; r < s.height; ++r) {
    for (int64_t c = -scene.reach(); c < s.width; ++c) {
      const C v = scene.result(c, r);
      const auto* p = reinterpret_cast<const uint8_t*>(&v);
      call.bytes.insert(call.bytes.end(), p, p + sizeof v);
    }
  }
  return call;
}

// Scattered points on the element-by-element path (nx <= W) and on the
// row-task path, and a coherent oblique slice with a few special lanes.
template <Method M, class S>
void record_variant(std::vector<RecordedCall>& calls, const std::string& variant) {
  using C = CoordOf<S>;
  constexpr int32_t W = qzinterp3d::block_width_of<S>();
  std::mt19937_64 rng(0x5EED0000u + calls.size());
  const Shape scattered[] = {{W, 5, 4, 2 * W + 3, 3, 0, 0},
                             {3 * W + 5, 5, 4, 4 * W + 3, 6, 0, 0}};
  int fill = 0;
  for (const Shape& shape : scattered) {
    Scene<M, S> scene(shape);
    scene.grid().fill([&](int64_t, int64_t, int64_t) { return sample_value<S>(rng); });
    for (int64_t r = 0; r < shape.height; ++r) {
      for (int64_t c = -scene.reach(); c < shape.width; ++c) {
        const C x = random_coord<C>(rng, shape.nx);
        const C y = random_coord<C>(rng, shape.ny);
        const C z = random_coord<C>(rng, shape.nz);
        scene.set_point(c, r, x, y, z);
      }
    }
    for (int k = 0; k < 2; ++k, ++fill) {
      calls.push_back(call_and_record(
          scene, fill_value(fill),
          variant + (scene.parallel() ? " rows" : " serial") + " fill " + std::to_string(fill)));
    }
  }
  const Shape slice{64, 8, 8, 100, 4, 0, 0};
  Scene<M, S> scene(slice);
  scene.grid().fill([&](int64_t, int64_t, int64_t) { return sample_value<S>(rng); });
  for (int64_t r = 0; r < slice.height; ++r) {
    for (int64_t c = 0; c < slice.width; ++c) {
      scene.set_point(c, r, C(1.25) + C(0.61) * C(c) + C(0.173) * C(r), C(2.2) + C(0.013) * C(c),
                      C(1.7) + C(1.37) * C(r) + C(0.007) * C(c));
    }
    scene.coord(Axis::x, 17, r) = std::numeric_limits<C>::quiet_NaN();
    scene.coord(Axis::y, 45, r) = std::numeric_limits<C>::infinity();
  }
  calls.push_back(call_and_record(scene, fill_value(fill), variant + " coherent slice"));
}

// The file: per call, its name's length and name, its bytes' count and bytes
// (lengths as 64-bit little-endian words; both machines are little-endian).
inline void write_record(std::ostream& out, const std::vector<RecordedCall>& calls) {
  auto word = [&](uint64_t v) { out.write(reinterpret_cast<const char*>(&v), sizeof v); };
  for (const RecordedCall& c : calls) {
    word(c.name.size());
    out.write(c.name.data(), static_cast<std::streamsize>(c.name.size()));
    word(c.bytes.size());
    out.write(reinterpret_cast<const char*>(c.bytes.data()),
              static_cast<std::streamsize>(c.bytes.size()));
  }
}

inline std::vector<RecordedCall> read_record(std::istream& in) {
  std::vector<RecordedCall> calls;
  auto word = [&](uint64_t& v) {
    return static_cast<bool>(in.read(reinterpret_cast<char*>(&v), sizeof v));
  };
  uint64_t n = 0;
  while (word(n)) {
    RecordedCall c;
    c.name.resize(n);
    in.read(c.name.data(), static_cast<std::streamsize>(n));
    if (!word(n)) break;
    c.bytes.resize(n);
    in.read(reinterpret_cast<char*>(c.bytes.data()), static_cast<std::streamsize>(n));
    if (!in) break;
    calls.push_back(std::move(c));
  }
  return calls;
}

inline std::vector<RecordedCall> record_calls() {
  std::vector<RecordedCall> calls;
#define QZ_RECORD_VARIANT(method, type, T) \
  record_variant<Method::method, T>(calls, #method "_" #type);
  QZ_FOR_EACH_VARIANT(QZ_RECORD_VARIANT)
#undef QZ_RECORD_VARIANT
  return calls;
}

}  // namespace qztest::same_bits
