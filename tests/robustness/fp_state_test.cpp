// A caller's floating-point state changes nothing: with flush-to-zero and
// denormals-are-zero set, with each directed rounding mode, or with the
// invalid-operation exception unmasked, a call writes the same bits as from a
// thread in the default state, on both paths, and the caller finds its state
// as it left it. The row tasks are just as indifferent to the state of the
// thread that runs them (a runtime's worker may have inherited any state).
//
// The inputs are chosen so that the state matters: subnormal and near-
// subnormal samples, weights whose products fall below the normal range,
// products that round differently, exact halves for the nearest method, a
// subnormal fill value. Each test first proves that the same computation done
// naively under the state (the reference, evaluated in this thread) gives
// different bits - or, for unmasked exceptions, traps.
#include <gtest/gtest.h>

#include "support/fp_control.h"

#if defined(QZ_TEST_FP_CONTROL)

#include <cfenv>
#include <csignal>
#include <limits>
#include <random>
#include <thread>

#include "par_for_shims.h"
#include "robust_case.h"
#include "sanitizer_build.h"

namespace qzrobust {
namespace {

struct FpState {
  const char* name;
  int rounding;
  bool ftz_daz;
  bool trap_invalid;
};

const FpState kStates[] = {
    {"flush-to-zero, denormals-are-zero", FE_TONEAREST, true, false},
    {"round downward", FE_DOWNWARD, false, false},
    {"round upward", FE_UPWARD, false, false},
    {"round toward zero", FE_TOWARDZERO, false, false},
    {"round upward, flush-to-zero, denormals-are-zero", FE_UPWARD, true, false},
    {"invalid operation unmasked", FE_TONEAREST, false, true},
};

void enter(const FpState& s) {
  std::feclearexcept(FE_ALL_EXCEPT);
  std::fesetround(s.rounding);
  if (s.ftz_daz) qztest::fp_control::set_flush_to_zero();
  if (s.trap_invalid) feenableexcept(FE_INVALID);
}

// Trapping floating-point exceptions is optional on aarch64 (and user-mode
// emulators do not trap): where enabling the trap does not take, the state
// is the default one and is not tested.
bool can_trap_invalid() {
  const bool enabled = feenableexcept(FE_INVALID) != -1;
  fedisableexcept(FE_ALL_EXCEPT);
  return enabled;
}

void leave() {
  fedisableexcept(FE_ALL_EXCEPT);
  std::feclearexcept(FE_ALL_EXCEPT);
  std::fesetround(FE_TONEAREST);
  qztest::fp_control::set(qztest::fp_control::kDefault);
}

// Samples that make flush-to-zero and rounding visible: subnormal or barely
// normal in the first two planes along y (so that every blend of a point with
// y in [1, 2] falls below the normal range), ordinary values in the others.
template <class S>
S fp_sample(std::mt19937_64& rng, int64_t y) {
  if constexpr (std::is_same_v<S, float>) {
    static const float kTiny[] = {1e-39f, -4.5e-40f, 3e-39f, 1e-38f, -1.5e-38f, 7e-40f};
    static const float kOrdinary[] = {1.1f, 0.3f, -2.7f, 7.13f, 1000.1f, -0.77f};
    return y <= 1 ? kTiny[rng() % 6] : kOrdinary[rng() % 6];
  } else if constexpr (std::is_same_v<S, double>) {
    static const double kTiny[] = {1e-310, -4.5e-309, 3e-309, 1e-307, -1.5e-308, 7e-310};
    static const double kOrdinary[] = {1.1, 0.3, -2.7, 7.13, 1000.1, -0.77};
    return y <= 1 ? kTiny[rng() % 6] : kOrdinary[rng() % 6];
  } else {
    return random_sample<S>(rng);
  }
}

// Exact halves (the nearest method's ties), arbitrary fractions, points just
// above a grid line (tiny weights), NaN, and points outside (the fill value).
template <class C>
C fp_coord(std::mt19937_64& rng, int32_t n) {
  std::uniform_int_distribution<int32_t> k(1, n - 1);
  std::uniform_real_distribution<C> u(C(0), C(1));
  switch (rng() % 11) {
    case 0:
    case 1:
      return C(k(rng)) + C(0.5);
    case 2:
      return C(k(rng)) + C(1e-3);
    case 3:
      return C(k(rng)) + C(1.0 / (1 << 20));
    case 4:
      return C(0.5);
    case 5:
      return C(n) + C(0.7);
    case 6:
      return std::numeric_limits<C>::quiet_NaN();
    default:
      return C(1) + u(rng) * C(n - 1);
  }
}

// Runs each row with the thread in `g_row_state`, and checks that the row
// task hands the state back as it found it.
const FpState* g_row_state = nullptr;
std::atomic<int> g_row_state_lost{0};

int rows_in_state(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  note_call(uc, min, size);
  for (int i = 0; i < size; ++i) {
    enter(*g_row_state);
    const uint64_t before = qztest::fp_control::control_bits();
    const int r = task(uc, min + i, closure);
    const uint64_t after = qztest::fp_control::control_bits();
    const int rounding = std::fegetround();
    leave();
    if (after != before || rounding != g_row_state->rounding) g_row_state_lost.fetch_add(1);
    if (r != 0) par_for_log().nonzero_task_results.fetch_add(1);
  }
  return 0;
}

template <class Variant>
Case<Variant> fp_case(bool parallel, uint64_t seed) {
  using S = typename Variant::sample_type;
  using C = typename Variant::coord_type;
  constexpr int32_t W = Variant::block_width;
  const Shape s{parallel ? W + 3 : W, 3, 3, 2 * W + 3, 6, 2, -1, 1, 2, 1};
  Case<Variant> c(s, seed, 1e-40,
                  [](std::mt19937_64& rng, int32_t n) { return fp_coord<C>(rng, n); });
  std::mt19937_64 rng(seed * 3 + 1);
  c.grid().fill([&](int64_t, int64_t y, int64_t) { return fp_sample<S>(rng, y); });
  return c;
}

template <class Out>
int64_t elements_differing(Out& a, Out& b, int32_t region_min, int32_t region_extent,
                           const Shape& s) {
  int64_t n = 0;
  for (int64_t y = s.y0; y < int64_t{s.y0} + s.h; ++y) {
    for (int64_t x = region_min; x < int64_t{region_min} + region_extent; ++x) {
      n += !qztest::same_value(a.buffer().at(x, y), b.buffer().at(x, y));
    }
  }
  return n;
}

template <class V>
class CallerFpState : public ::testing::Test {};
TYPED_TEST_SUITE(CallerFpState, qztest::AllVariants, qztest::VariantNames);

TYPED_TEST(CallerFpState, SameBitsAndStateRestored) {
  using S = typename TypeParam::sample_type;
  constexpr bool nearest_float64 =
      TypeParam::method == qztest::Method::nearest && std::is_same_v<S, double>;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  leave();
  for_each_supported_kernel_set([&](const char*) {
    for (bool parallel : {false, true}) {
      SCOPED_TRACE(parallel ? "parallel path" : "serial path");
      Case<TypeParam> c = fp_case<TypeParam>(parallel, parallel ? 11 : 12);
      ASSERT_EQ(parallel, c.parallel());
      const Shape& s = c.shape();

      auto baseline = c.make_output();
      {
        ScopedParFor in_order(kRealPoolUsable ? halide_default_do_par_for : &reverse_par_for);
        ASSERT_EQ(0, c.call(*baseline));
      }
      auto want = c.expected();
      ASSERT_TRUE(c.matches(*baseline, *want));

      for (const FpState& state : kStates) {
        if (state.trap_invalid && !can_trap_invalid()) continue;
        SCOPED_TRACE(state.name);
        // The state is visible: naively, the same computation gives other
        // bits, or traps.
        if (state.trap_invalid) {
          auto naive_under_state = [&] {
            enter(state);
            auto naive = c.expected();
            leave();
            std::_Exit(0);
          };
          // AddressSanitizer catches the signal itself and reports it as FPE.
#if defined(QZ_UNDER_ASAN)
          EXPECT_DEATH(naive_under_state(), "FPE") << "the inputs raise no invalid operation";
#else
          EXPECT_EXIT(naive_under_state(), ::testing::KilledBySignal(SIGFPE), "")
              << "the inputs raise no invalid operation";
#endif
        } else {
          enter(state);
          auto naive = c.expected();
          leave();
          const int64_t differing =
              elements_differing(*naive, *want, c.region_min(), c.region_extent(), s);
          // The nearest method only moves samples, so with flush-to-zero alone
          // a float64 nearest call (whose fill value is not converted) has
          // nothing the state could change.
          if (nearest_float64 && state.rounding == FE_TONEAREST) {
            EXPECT_EQ(0, differing);
          } else {
            EXPECT_GT(differing, 0) << "the inputs do not show the state";
          }
        }

        // A caller thread in that state.
        auto out = c.make_output();
        int status = -1;
        uint64_t set_control = 0, after_control = 0;
        int after_rounding = -1;
        std::thread caller([&] {
          enter(state);
          set_control = qztest::fp_control::control_bits();
          status = c.call(*out);
          after_control = qztest::fp_control::control_bits();
          after_rounding = std::fegetround();
          leave();
        });
        caller.join();
        EXPECT_EQ(0, status);
        EXPECT_TRUE(qztest::same_storage(out->buffer(), baseline->buffer()));
        EXPECT_EQ(set_control, after_control) << "the caller's control register changed";
        EXPECT_EQ(state.rounding, after_rounding) << "the caller's rounding mode changed";

        // Row tasks run by a thread in that state.
        if (parallel) {
          g_row_state = &state;
          g_row_state_lost = 0;
          par_for_log().reset();
          auto rows_out = c.make_output();
          {
            ScopedParFor in_state(&rows_in_state);
            EXPECT_EQ(0, c.call(*rows_out));
          }
          EXPECT_EQ(1, par_for_log().calls.load());
          EXPECT_EQ(0, g_row_state_lost.load()) << "a row task did not restore the thread's state";
          EXPECT_EQ(0, par_for_log().nonzero_task_results.load());
          EXPECT_TRUE(qztest::same_storage(rows_out->buffer(), baseline->buffer()));
        }
        if (::testing::Test::HasFailure()) return;
      }
    }
  });
}

}  // namespace
}  // namespace qzrobust

#endif  // QZ_TEST_FP_CONTROL
