// Whatever the runtime's parallel-for does with the rows - any order, all at
// once on several threads, twice over, or a failure status - a call writes
// the same bits and returns 0. A failure status with no rows run leaves the
// output as it was, and still returns 0. The default is restored afterwards.
#include <gtest/gtest.h>

#include <random>

#include "par_for_shims.h"
#include "robust_case.h"
#include "sanitizer_build.h"

namespace qzrobust {
namespace {

// Rows in ascending order in the calling thread: the baseline where the
// runtime's own pool cannot be used (see sanitizer_build.h).
int ascending_par_for(void* uc, halide_task_t task, int min, int size, uint8_t* closure) {
  note_call(uc, min, size);
  for (int i = 0; i < size; ++i) run_task(task, uc, min + i, closure);
  return 0;
}

// Shapes on the parallel path: outputs narrower than a block, exactly one
// block, a whole number of blocks, a shifted last block; no rows, one row,
// many rows; padded strides and non-zero mins.
template <class Variant>
std::vector<Shape> parallel_shapes(std::mt19937_64& rng) {
  constexpr int32_t W = Variant::block_width;
  std::uniform_int_distribution<int32_t> nx(W + 1, 3 * W + 2), axis(1, 5), small(-9, 9), pad(0, 3);
  std::vector<Shape> shapes;
  for (int32_t w : {1, W - 1, W, W + 1, 2 * W, 2 * W + 3}) {
    for (int32_t h : {0, 1, 9}) {
      shapes.push_back({nx(rng), axis(rng), axis(rng), w, h, small(rng), small(rng), pad(rng),
                        pad(rng), pad(rng)});
    }
  }
  return shapes;
}

template <class V>
class RuntimeFaults : public ::testing::Test {
 protected:
  void SetUp() override { par_for_log().reset(); }
};
TYPED_TEST_SUITE(RuntimeFaults, qztest::AllVariants, qztest::VariantNames);

TYPED_TEST(RuntimeFaults, AnyRowOrderAndThreadingGivesTheSameBits) {
  struct Shim {
    const char* name;
    halide_do_par_for_t f;
    int passes;  // how many times each row runs
  };
  const Shim shims[] = {{"reverse", &reverse_par_for, 1},
                        {"shuffled", &shuffled_par_for, 1},
                        {"twice", &twice_par_for, 2},
                        {"threads", &threaded_par_for, 1},
                        {"error after rows", &failing_after_rows_par_for, 1}};
  for_each_supported_kernel_set([&](const char*) {
    std::mt19937_64 rng(77);
    for (const Shape& s : parallel_shapes<TypeParam>(rng)) {
      Case<TypeParam> c(s, rng());
      ASSERT_TRUE(c.parallel());
      auto baseline = c.make_output();
      {
        // The runtime's pool where usable, else rows in order in this thread.
        ScopedParFor in_order(kRealPoolUsable ? halide_default_do_par_for : &ascending_par_for);
        ASSERT_EQ(0, c.call(*baseline));
      }
      auto want = c.expected();
      ASSERT_TRUE(c.matches(*baseline, *want));
      for (const Shim& shim : shims) {
        SCOPED_TRACE(shim.name);
        par_for_log().reset();
        auto out = c.make_output();
        {
          ScopedParFor installed(shim.f);
          ASSERT_EQ(0, c.call(*out));
        }
        EXPECT_TRUE(qztest::same_storage(out->buffer(), baseline->buffer()))
            << "w=" << s.w << " h=" << s.h;
        ParForLog& log = par_for_log();
        EXPECT_EQ(1, log.calls.load());
        EXPECT_EQ(int64_t{s.h} * shim.passes, log.tasks_run.load());
        EXPECT_EQ(0, log.nonzero_task_results.load()) << "a row task returned non-zero";
        EXPECT_EQ(0, log.non_null_user_context.load());
        EXPECT_EQ(0, log.nonzero_min.load());
        EXPECT_EQ(s.h, log.last_size.load());
        if (::testing::Test::HasFailure()) return;
      }
    }
  });
}

TYPED_TEST(RuntimeFaults, FailureWithoutRowsStillReturnsZeroAndWritesNothing) {
  std::mt19937_64 rng(91);
  for (const Shape& s : parallel_shapes<TypeParam>(rng)) {
    Case<TypeParam> c(s, rng());
    auto out = c.make_output();
    auto untouched = c.make_output();
    par_for_log().reset();
    {
      ScopedParFor installed(&failing_par_for);
      ASSERT_EQ(0, c.call(*out));
    }
    EXPECT_EQ(1, par_for_log().calls.load());
    EXPECT_TRUE(qztest::same_storage(out->buffer(), untouched->buffer()));
  }
}

// The serial path and the bounds query never reach the parallel-for.
TYPED_TEST(RuntimeFaults, SerialPathAndQueriesNeverCallIt) {
  constexpr int32_t W = TypeParam::block_width;
  std::mt19937_64 rng(5);
  ScopedParFor installed(&failing_par_for);
  for (int32_t nx : {1, W}) {
    for (int32_t w : {1, 3, W + 5}) {
      const Shape s{nx, 3, 2, w, 4, -2, 3, 1, 2, 1};
      par_for_log().reset();
      Case<TypeParam> c(s, rng());  // its constructor makes a bounds query
      ASSERT_FALSE(c.parallel());
      auto out = c.make_output();
      ASSERT_EQ(0, c.call(*out));
      auto want = c.expected();
      EXPECT_TRUE(c.matches(*out, *want));
      EXPECT_EQ(0, par_for_log().calls.load());
    }
  }
  // A query with a parallel-path grid computes nothing either.
  par_for_log().reset();
  Case<TypeParam> c(Shape{W + 1, 2, 2, 5, 3, 0, 0}, 1);
  EXPECT_EQ(0, par_for_log().calls.load());
}

// Each stand-in is removed again: the runtime's default is back in place.
TEST(RuntimeFaultsRestore, DefaultIsBackAfterEveryScope) {
  { ScopedParFor a(&reverse_par_for); }
  { ScopedParFor b(&failing_par_for); }
  const halide_do_par_for_t current = halide_set_custom_do_par_for(halide_default_do_par_for);
  EXPECT_EQ(current, &halide_default_do_par_for);
}

}  // namespace
}  // namespace qzrobust
