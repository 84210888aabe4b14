// Trilinear values written out operation by operation, one function per
// rounding sequence, so that tests check each kind of block against plain
// std::fma and multiply-add expressions of their own, not against the
// library's blend table. Compiled with -ffp-contract=off: a * b + c here is
// two roundings, std::fma one.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "kernels/variant.h"
#include "support/random_inputs.h"
#include "support/variants.h"

namespace qztest {

// Where a value is computed, as far as its rounding sequence goes. The last
// block of 8-bit samples has two: its first group of four lanes and the rest.
enum class Sequence { full_block, last_block, last_block_first_group, serial };

inline const char* sequence_name(Sequence s) {
  switch (s) {
    case Sequence::full_block: return "full block";
    case Sequence::last_block: return "last block";
    case Sequence::last_block_first_group: return "last block, first group";
    case Sequence::serial: return "serial";
  }
  return "?";
}

template <class F>
struct Corners {
  // Digits: x, y, z; 0 the lower corner, 1 the upper.
  F v000, v100, v010, v110, v001, v101, v011, v111;
};

template <class F>
struct Weights {
  F wxl, wxu, wyl, wyu, tz, wzl;
};

// Per axis: p = q - 1, i0 = floor(p), t = q - i0, wl = 2 - t, wu = t - 1.
template <class F>
Weights<F> weights_at(F xq, F yq, F zq) {
  auto t_of = [](F q) { return q - std::floor(q - F(1)); };
  const F tx = t_of(xq), ty = t_of(yq), tz = t_of(zq);
  return {F(2) - tx, tx - F(1), F(2) - ty, ty - F(1), tz, F(2) - tz};
}

// u = B1 * tz - B1 in one rounding, then R = B0 * (2 - tz) + u in one.
template <class F>
F z_step(F b0, F b1, const Weights<F>& w) {
  const F u = std::fma(b1, w.tz, -b1);
  return std::fma(b0, w.wzl, u);
}

// float32 and integer full blocks, and every float64 block: each x and y
// pair rounds the lower product and adds the upper one fused.
template <class F>
F full_block_sequence(const Corners<F>& c, const Weights<F>& w) {
  const F a00 = std::fma(c.v100, w.wxu, c.v000 * w.wxl);
  const F a10 = std::fma(c.v110, w.wxu, c.v010 * w.wxl);
  const F a01 = std::fma(c.v101, w.wxu, c.v001 * w.wxl);
  const F a11 = std::fma(c.v111, w.wxu, c.v011 * w.wxl);
  const F b0 = std::fma(a10, w.wyu, a00 * w.wyl);
  const F b1 = std::fma(a11, w.wyu, a01 * w.wyl);
  return z_step(b0, b1, w);
}

// float32, int32 and uint32 last block: the upper z plane without fusion.
inline float float32_last_block_sequence(const Corners<float>& c, const Weights<float>& w) {
  const float a00 = std::fma(c.v100, w.wxu, c.v000 * w.wxl);
  const float a10 = std::fma(c.v110, w.wxu, c.v010 * w.wxl);
  const float a01 = c.v001 * w.wxl + c.v101 * w.wxu;
  const float a11 = c.v011 * w.wxl + c.v111 * w.wxu;
  const float b0 = std::fma(a10, w.wyu, a00 * w.wyl);
  const float b1 = a01 * w.wyl + a11 * w.wyu;
  return z_step(b0, b1, w);
}

// float32 serial path (and every integer type's): A00 rounds the upper product.
inline float float32_serial_sequence(const Corners<float>& c, const Weights<float>& w) {
  const float a00 = std::fma(c.v000, w.wxl, c.v100 * w.wxu);
  const float a10 = std::fma(c.v110, w.wxu, c.v010 * w.wxl);
  const float a01 = std::fma(c.v101, w.wxu, c.v001 * w.wxl);
  const float a11 = std::fma(c.v111, w.wxu, c.v011 * w.wxl);
  const float b0 = std::fma(a10, w.wyu, a00 * w.wyl);
  const float b1 = std::fma(a11, w.wyu, a01 * w.wyl);
  return z_step(b0, b1, w);
}

inline double float64_serial_sequence(const Corners<double>& c, const Weights<double>& w) {
  const double a00 = std::fma(c.v000, w.wxl, c.v100 * w.wxu);
  const double a10 = std::fma(c.v010, w.wxl, c.v110 * w.wxu);
  const double a01 = std::fma(c.v001, w.wxl, c.v101 * w.wxu);
  const double a11 = std::fma(c.v111, w.wxu, c.v011 * w.wxl);
  const double b0 = std::fma(a00, w.wyl, a10 * w.wyu);
  const double b1 = std::fma(a11, w.wyu, a01 * w.wyl);
  return z_step(b0, b1, w);
}

// 16-bit last block, and the 8-bit last block past its first four lanes:
// x and y entirely unfused.
inline float unfused_xy_sequence(const Corners<float>& c, const Weights<float>& w) {
  const float a00 = c.v000 * w.wxl + c.v100 * w.wxu;
  const float a10 = c.v010 * w.wxl + c.v110 * w.wxu;
  const float a01 = c.v001 * w.wxl + c.v101 * w.wxu;
  const float a11 = c.v011 * w.wxl + c.v111 * w.wxu;
  const float b0 = a00 * w.wyl + a10 * w.wyu;
  const float b1 = a01 * w.wyl + a11 * w.wyu;
  return z_step(b0, b1, w);
}

// 8-bit last block, its four lowest columns: A00 as in full blocks, and B0
// fused the other way round (the upper row's product rounded).
inline float bits8_last_block_first_group_sequence(const Corners<float>& c,
                                                   const Weights<float>& w) {
  const float a00 = std::fma(c.v100, w.wxu, c.v000 * w.wxl);
  const float a10 = c.v010 * w.wxl + c.v110 * w.wxu;
  const float a01 = c.v001 * w.wxl + c.v101 * w.wxu;
  const float a11 = c.v011 * w.wxl + c.v111 * w.wxu;
  const float b0 = std::fma(a00, w.wyl, a10 * w.wyu);
  const float b1 = a01 * w.wyl + a11 * w.wyu;
  return z_step(b0, b1, w);
}

// The value a sample type's trilinear variant must give in a sequence.
template <class S>
CoordOf<S> expected_trilinear(Sequence sequence, const Corners<CoordOf<S>>& c,
                              const Weights<CoordOf<S>>& w) {
  if constexpr (std::is_same_v<S, double>) {
    return sequence == Sequence::serial ? float64_serial_sequence(c, w) : full_block_sequence(c, w);
  } else {
    switch (sequence) {
      case Sequence::serial:
        return float32_serial_sequence(c, w);
      case Sequence::full_block:
        return full_block_sequence(c, w);
      case Sequence::last_block:
      case Sequence::last_block_first_group:
        break;
    }
    if constexpr (sizeof(S) == 1) {
      return sequence == Sequence::last_block_first_group
                 ? bits8_last_block_first_group_sequence(c, w)
                 : unfused_xy_sequence(c, w);
    } else if constexpr (sizeof(S) == 2) {
      return unfused_xy_sequence(c, w);
    } else {
      return float32_last_block_sequence(c, w);
    }
  }
}

// The sequences a sample type's variant has, each giving its own bits.
template <class S>
std::vector<Sequence> distinct_sequences_of() {
  if constexpr (std::is_same_v<S, double>) {
    return {Sequence::full_block, Sequence::serial};
  } else if constexpr (sizeof(S) == 1) {
    return {Sequence::full_block, Sequence::last_block_first_group, Sequence::last_block,
            Sequence::serial};
  } else {
    return {Sequence::full_block, Sequence::last_block, Sequence::serial};
  }
}

// A point in the cell [1, 2)^3 and its eight corner samples.
template <class S>
struct CellPoint {
  using C = CoordOf<S>;
  S corners[8];  // in the order of Corners: 000, 100, 010, 110, 001, 101, 011, 111
  C xq, yq, zq;

  Corners<C> converted_corners() const {
    auto f = [](S s) { return static_cast<C>(s); };
    return {f(corners[0]), f(corners[1]), f(corners[2]), f(corners[3]),
            f(corners[4]), f(corners[5]), f(corners[6]), f(corners[7])};
  }
  Weights<C> weights() const { return weights_at(xq, yq, zq); }
  C expected(Sequence s) const { return expected_trilinear<S>(s, converted_corners(), weights()); }
};

// The test's own statement of which way each step of a sequence blends,
// used only to choose points: a point set is kept when, for every sequence,
// changing any one step (the x and y pairs, and the z step) changes the bits
// on at least one of its points. Checked against the explicit functions.
enum class StepBlend { lower_first, upper_first, split };
using StepPlan = std::array<StepBlend, 7>;  // A00 A10 A01 A11 B0 B1 Z

template <class S>
StepPlan plan_of(Sequence sequence) {
  constexpr StepBlend L = StepBlend::lower_first, U = StepBlend::upper_first, P = StepBlend::split;
  if constexpr (std::is_same_v<S, double>) {
    return sequence == Sequence::serial ? StepPlan{U, U, U, L, U, L, U}
                                        : StepPlan{L, L, L, L, L, L, U};
  } else {
    switch (sequence) {
      case Sequence::serial: return {U, L, L, L, L, L, U};
      case Sequence::full_block: return {L, L, L, L, L, L, U};
      case Sequence::last_block:
      case Sequence::last_block_first_group: break;
    }
    if constexpr (sizeof(S) == 1) {
      return sequence == Sequence::last_block_first_group ? StepPlan{L, P, P, P, U, P, U}
                                                          : StepPlan{P, P, P, P, P, P, U};
    } else if constexpr (sizeof(S) == 2) {
      return {P, P, P, P, P, P, U};
    } else {
      return {L, L, P, P, L, P, U};
    }
  }
}

template <class F>
F blend_step(StepBlend b, F lower, F upper, F wl, F wu) {
  switch (b) {
    case StepBlend::lower_first: return std::fma(upper, wu, lower * wl);
    case StepBlend::upper_first: return std::fma(lower, wl, upper * wu);
    case StepBlend::split: break;
  }
  return lower * wl + upper * wu;
}

template <class F>
F evaluate_plan(const StepPlan& plan, const Corners<F>& c, const Weights<F>& w) {
  const F a00 = blend_step(plan[0], c.v000, c.v100, w.wxl, w.wxu);
  const F a10 = blend_step(plan[1], c.v010, c.v110, w.wxl, w.wxu);
  const F a01 = blend_step(plan[2], c.v001, c.v101, w.wxl, w.wxu);
  const F a11 = blend_step(plan[3], c.v011, c.v111, w.wxl, w.wxu);
  const F b0 = blend_step(plan[4], a00, a10, w.wyl, w.wyu);
  const F b1 = blend_step(plan[5], a01, a11, w.wyl, w.wyu);
  // The z step proper (upper-first) never forms tz - 1; its variants do.
  if (plan[6] == StepBlend::upper_first) return z_step(b0, b1, w);
  return blend_step(plan[6], b0, b1, w.wzl, w.tz - F(1));
}

// Deterministic search for points on each of which every sequence of the
// sample type gives different bits from every other, and which together tell
// each sequence from each of its one-step variants.
template <class S>
std::vector<CellPoint<S>> points_separating_sequences(uint64_t seed = 1) {
  using C = CoordOf<S>;
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<C> fraction(C(0.01), C(0.99));
  const std::vector<Sequence> sequences = distinct_sequences_of<S>();
  // Every one-step variant of every sequence, still to be told apart.
  std::vector<std::pair<Sequence, StepPlan>> variants;
  for (const Sequence s : sequences) {
    for (size_t step = 0; step < 7; ++step) {
      for (const StepBlend b : {StepBlend::lower_first, StepBlend::upper_first, StepBlend::split}) {
        StepPlan changed = plan_of<S>(s);
        if (changed[step] == b) continue;
        changed[step] = b;
        variants.emplace_back(s, changed);
      }
    }
  }
  std::vector<CellPoint<S>> points;
  for (int attempt = 0; attempt < 1000000 && !variants.empty(); ++attempt) {
    CellPoint<S> p;
    for (S& s : p.corners) s = random_sample<S>(rng);
    p.xq = C(1) + fraction(rng);
    p.yq = C(1) + fraction(rng);
    p.zq = C(1) + fraction(rng);
    bool all_differ = true;
    for (size_t a = 0; a < sequences.size(); ++a) {
      EXPECT_EQ(bits_of(p.expected(sequences[a])),
                bits_of(evaluate_plan(plan_of<S>(sequences[a]), p.converted_corners(), p.weights())))
          << "the explicit " << sequence_name(sequences[a]) << " sequence disagrees with its plan";
      for (size_t b = a + 1; b < sequences.size(); ++b) {
        all_differ = all_differ && bits_of(p.expected(sequences[a])) != bits_of(p.expected(sequences[b]));
      }
    }
    if (!all_differ) continue;
    const size_t before = variants.size();
    variants.erase(std::remove_if(variants.begin(), variants.end(),
                                  [&](const std::pair<Sequence, StepPlan>& v) {
                                    return bits_of(p.expected(v.first)) !=
                                           bits_of(evaluate_plan(v.second, p.converted_corners(),
                                                                 p.weights()));
                                  }),
                   variants.end());
    if (variants.size() < before || points.empty()) points.push_back(p);
  }
  EXPECT_TRUE(variants.empty()) << variants.size() << " one-step variants not told apart";
  return points;
}

// The first such point, for tests that need one point telling the sequences apart.
template <class S>
const CellPoint<S>& point_separating_sequences() {
  static const CellPoint<S> point = points_separating_sequences<S>().front();
  return point;
}

}  // namespace qztest

namespace qztest {

// Puts the point's eight corners at x, y, z in {0, 1} of a scene's grid and
// the point itself at every output element.
template <class SceneT, class S>
void place_cell_everywhere(SceneT& scene, const CellPoint<S>& p) {
  for (int k = 0; k < 2; ++k) {
    for (int j = 0; j < 2; ++j) {
      for (int i = 0; i < 2; ++i) scene.sample(i, j, k) = p.corners[i + 2 * j + 4 * k];
    }
  }
  scene.set_all_points(p.xq, p.yq, p.zq);
}

// The sequence that leaves its value at a column of a pooled row of width w:
// the last block's over its W columns ending at the row's end (when w is not
// a multiple of W), the full blocks' elsewhere.
template <class S>
Sequence pooled_sequence_at(int64_t column, int64_t w) {
  constexpr int64_t W = qzinterp3d::block_width_of<S>();
  if (w % W == 0 || column < w - W) return Sequence::full_block;
  const int64_t lane = column - (w - W);
  return sizeof(S) == 1 && lane < 4 ? Sequence::last_block_first_group : Sequence::last_block;
}

}  // namespace qztest
