// The sixteen exported entries and their row tasks. A row task carries its
// entry's name followed by _par_for_Vq_s0_y_rebased and stays local to the
// library.
#include "qzinterp3d_halide.h"

#include "entry/entry.h"
#include "kernels/variant.h"

#define QZ_DEFINE_ENTRY(method, type, T)                                                      \
  extern "C" __attribute__((visibility("hidden"))) int                                        \
      interp3_##method##_##type##_par_for_Vq_s0_y_rebased(void* user_context, int y,          \
                                                          uint8_t* closure) {                 \
    return qzinterp3d::run_row_task<qzinterp3d::Method::method, T>(user_context, y, closure); \
  }                                                                                           \
  extern "C" int interp3_##method##_##type(halide_buffer_t* V, halide_buffer_t* Xq,           \
                                           halide_buffer_t* Yq, halide_buffer_t* Zq,          \
                                           double fill_value, halide_buffer_t* Vq) {          \
    return qzinterp3d::Entry<qzinterp3d::Method::method, T>::call(                            \
        V, Xq, Yq, Zq, fill_value, Vq, &interp3_##method##_##type##_par_for_Vq_s0_y_rebased); \
  }

QZ_FOR_EACH_VARIANT(QZ_DEFINE_ENTRY)
