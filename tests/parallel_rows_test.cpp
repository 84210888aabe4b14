// The pooled path: one halide_do_par_for per call with one task per output
// row, and each row's full blocks followed by a last block shifted inwards to
// end at the row's last column.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/kernel_sets.h"
#include "support/pool.h"
#include "support/scene.h"
#include "support/trilinear_sequences.h"
#include "support/variants.h"

#define QZ_TEST_DECLARE_ROW_TASK(method, type, T) \
  extern "C" int interp3_##method##_##type##_par_for_Vq_s0_y_rebased(void*, int, uint8_t*);
QZ_FOR_EACH_VARIANT(QZ_TEST_DECLARE_ROW_TASK)
#undef QZ_TEST_DECLARE_ROW_TASK

namespace qztest {
namespace {

template <Method M, class S>
halide_task_t row_task_of();
#define QZ_TEST_ROW_TASK_OF(method, type, T)                  \
  template <>                                                 \
  inline halide_task_t row_task_of<Method::method, T>() {     \
    return &interp3_##method##_##type##_par_for_Vq_s0_y_rebased; \
  }
QZ_FOR_EACH_VARIANT(QZ_TEST_ROW_TASK_OF)
#undef QZ_TEST_ROW_TASK_OF

template <class V>
class PooledRows : public ::testing::Test {};
TYPED_TEST_SUITE(PooledRows, AllVariants, VariantNames);

template <class V>
class PooledTrilinearRows : public ::testing::Test {};
TYPED_TEST_SUITE(PooledTrilinearRows, TrilinearVariants, VariantNames);

// Points that vary along the row, inside and outside the grid, so that a
// column computed from the wrong coordinates shows.
template <Method M, class S>
void set_varied_points(Scene<M, S>& scene) {
  using C = CoordOf<S>;
  const Shape& s = scene.shape();
  for (int64_t r = 0; r < s.height; ++r) {
    for (int64_t c = -scene.reach(); c < s.width; ++c) {
      const int64_t k = c + 3 * r + 50;
      scene.set_point(c, r, C(1) + C(k % (s.nx + 1)) * C(0.75), C(1) + C(k % 3) * C(0.4),
                      C(1) + C(k % 5) * C(0.3));
    }
  }
}

TYPED_TEST(PooledRows, OneParForCallWithOneTaskPerRow) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int32_t rows : {3, 1, 0, -2}) {
      SCOPED_TRACE("rows " + std::to_string(rows));
      Scene<M, S> scene(Shape{W + 1, 2, 2, 2 * W + 1, rows});
      set_varied_points(scene);
      ParForSpy spy;
      ASSERT_EQ(0, scene.call(-1.0));
      ASSERT_EQ(1u, spy.calls().size());
      const ParForSpy::Call& call = spy.calls()[0];
      EXPECT_EQ(nullptr, call.user_context);
      const halide_task_t own_task = row_task_of<M, S>();
      EXPECT_TRUE(own_task == call.task) << "not the variant's own row task";
      EXPECT_EQ(0, call.min);
      EXPECT_EQ(rows, call.size);  // passed as it is, even when not positive
      EXPECT_NE(nullptr, call.closure);
      for (const int result : call.task_results) EXPECT_EQ(0, result);
      if (rows > 0) {
        EXPECT_EQ("", scene.mismatches_with_model(-1.0));
      } else {
        EXPECT_TRUE(scene.output_untouched());
      }
    }
  });
}

TYPED_TEST(PooledRows, ParForStatusIsIgnoredAndRowsMayRunInAnyOrder) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int status : {-1, 5}) {
      Scene<M, S> scene(Shape{2 * W + 1, 3, 2, 3 * W - 1, 5});
      set_varied_points(scene);
      ParForSpy spy(ParForSpy::Order::descending, status);
      EXPECT_EQ(0, scene.call(0.5));
      EXPECT_EQ(1u, spy.calls().size());
      EXPECT_EQ("", scene.mismatches_with_model(0.5));
      EXPECT_TRUE(scene.only_region_written());
    }
  });
}

// Every width class: full blocks only, full plus last, one block reaching
// below the first column, none. Compared with the scalar model in the
// block frame, guard bands included.
TYPED_TEST(PooledRows, RowsAreCoveredByFullBlocksAndOneShiftedLastBlock) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (int32_t width = 0; width <= 3 * W + 1; ++width) {
      SCOPED_TRACE("width " + std::to_string(width));
      Scene<M, S> scene(Shape{W + 3, 3, 2, width, 2});
      set_varied_points(scene);
      ASSERT_EQ(0, scene.call(-2.5));
      EXPECT_EQ("", scene.mismatches_with_model(-2.5));
      EXPECT_TRUE(scene.only_region_written());
      if (width == 0) {
        EXPECT_TRUE(scene.output_untouched());
      }
    }
  });
}

TYPED_TEST(PooledRows, NegativeWidthWritesNothing) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (const int32_t width : {-1, -W + 1, -W, -3 * W - 1}) {
      Scene<M, S> scene(Shape{W + 1, 2, 2, width, 3});
      EXPECT_EQ(0, scene.call(1.0));
      EXPECT_TRUE(scene.output_untouched()) << "width " << width;
    }
  });
}

// On a point where the full-block and last-block sequences give different
// bits, each column's value shows which block wrote it last.
template <Method M, class S>
void check_sequence_per_column(int32_t width, int32_t rows) {
  Scene<M, S> scene(Shape{qzinterp3d::block_width_of<S>() + 1, 2, 2, width, rows});
  const CellPoint<S>& point = point_separating_sequences<S>();
  place_cell_everywhere(scene, point);
  ASSERT_EQ(0, scene.call(9.0));
  for (int64_t r = 0; r < rows; ++r) {
    for (int64_t c = -scene.reach(); c < width; ++c) {
      const Sequence s = pooled_sequence_at<S>(c, width);
      EXPECT_TRUE(SameValue(scene.result(c, r), point.expected(s)))
          << "column " << c << " row " << r << " should hold the " << sequence_name(s)
          << " value";
    }
  }
  EXPECT_TRUE(scene.only_region_written());
}

TYPED_TEST(PooledTrilinearRows, EachColumnKeepsTheValueOfTheLastBlockThatCoveredIt) {
  QZ_TEST_VARIANT_NAMES(TypeParam);
  for_each_kernel_set([&] {
    for (int32_t width = 1; width <= 3 * W + 1; ++width) {
      SCOPED_TRACE("width " + std::to_string(width));
      check_sequence_per_column<M, S>(width, 2);
    }
  });
}

// The widths worth naming, with the columns each block kind leaves.
struct ColumnRun {
  int first, last;
  Sequence sequence;
};

template <class S>
void check_named_width(int32_t width, const std::vector<ColumnRun>& runs) {
  SCOPED_TRACE(std::string(qzinterp3d::SampleTraits<S>::name) + " width " + std::to_string(width));
  int next = runs.front().first;
  for (const ColumnRun& run : runs) {
    ASSERT_EQ(next, run.first);
    for (int c = run.first; c <= run.last; ++c) {
      ASSERT_EQ(run.sequence, pooled_sequence_at<S>(c, width)) << "column " << c;
    }
    next = run.last + 1;
  }
  ASSERT_EQ(width, next);
  for_each_kernel_set([&] { check_sequence_per_column<Method::bilinear, S>(width, 1); });
}

TEST(PooledRowExamples, BlocksOfTheNamedWidths) {
  using Seq = Sequence;
  // Two full blocks and a last block over 6..9: 6 and 7 written twice.
  check_named_width<float>(10, {{0, 5, Seq::full_block}, {6, 9, Seq::last_block}});
  check_named_width<float>(8, {{0, 7, Seq::full_block}});
  // One block over -1..2.
  check_named_width<float>(3, {{-1, 2, Seq::last_block}});
  check_named_width<int8_t>(20, {{0, 3, Seq::full_block},
                                 {4, 7, Seq::last_block_first_group},
                                 {8, 19, Seq::last_block}});
  // float64 blocks all share one sequence; the frame is the same.
  check_named_width<double>(5, {{0, 2, Seq::full_block}, {3, 4, Seq::last_block}});
  check_named_width<int16_t>(20, {{0, 11, Seq::full_block}, {12, 19, Seq::last_block}});
  check_named_width<uint8_t>(17, {{0, 0, Seq::full_block},
                                  {1, 4, Seq::last_block_first_group},
                                  {5, 16, Seq::last_block}});
}

}  // namespace
}  // namespace qztest
