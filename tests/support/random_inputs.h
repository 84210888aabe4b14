// Random samples and coordinates for randomized tests.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>

namespace qztest {

// Floats in [-1000, 1000]; integers over the type's whole range.
template <class S>
S random_sample(std::mt19937_64& rng) {
  if constexpr (std::is_floating_point_v<S>) {
    std::uniform_real_distribution<S> d(-1000, 1000);
    return d(rng);
  } else {
    std::uniform_int_distribution<int64_t> d(std::numeric_limits<S>::min(),
                                             std::numeric_limits<S>::max());
    return static_cast<S>(d(rng));
  }
}

// Coordinates along an axis of n samples that exercise every rule: inside,
// integers, halves, edges, slightly outside, NaN, infinities, huge magnitudes.
template <class C>
C random_coord(std::mt19937_64& rng, int32_t n) {
  std::uniform_int_distribution<int> pick(0, 19);
  std::uniform_real_distribution<C> inside(C(1), C(n > 0 ? n : 1));
  std::uniform_int_distribution<int32_t> integer(0, n + 1);
  switch (pick(rng)) {
    case 0: return std::numeric_limits<C>::quiet_NaN();
    case 1: return std::numeric_limits<C>::infinity();
    case 2: return -std::numeric_limits<C>::infinity();
    case 3: return C(integer(rng));
    case 4: return C(integer(rng)) + C(0.5);
    case 5: return C(n) + C(0.25);
    case 6: return std::nextafter(C(1), C(0));
    case 7: return std::nextafter(C(n), C(2 * n + 2));
    case 8: return C(3e9);
    case 9: return C(-3e9);
    case 10: return C(n);
    default: return inside(rng);
  }
}

}  // namespace qztest
