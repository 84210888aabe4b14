// A kernel set: one row function per variant, all compiled for one
// instruction set. The library picks one set per process (dispatch.h).
#pragma once

#include "kernels/row_api.h"
#include "kernels/variant.h"

namespace qzinterp3d {

struct KernelSet {
  const char* name;
  // True when its wide groups read coherent points through windows (loads
  // and permutes) before falling back to gathers.
  bool reads_windows;
#define QZ_ROW_MEMBER(method, type, T) RowFn<T> method##_##type;
  QZ_FOR_EACH_VARIANT(QZ_ROW_MEMBER)
#undef QZ_ROW_MEMBER

  template <Method M, class Sample>
  RowFn<Sample> row() const;
};

#define QZ_ROW_ACCESSOR(method, type, T)                                 \
  template <>                                                            \
  inline RowFn<T> KernelSet::row<Method::method, T>() const {            \
    return method##_##type;                                              \
  }
QZ_FOR_EACH_VARIANT(QZ_ROW_ACCESSOR)
#undef QZ_ROW_ACCESSOR

}  // namespace qzinterp3d
