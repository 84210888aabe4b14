// A kernel set: one row function per variant, all compiled for one
// instruction set. The library picks one set per process (dispatch.h).
#pragma once

#include "kernels/row_api.h"
#include "kernels/variant.h"

namespace qzinterp3d {

struct KernelSet {
  const char* name;
#define QZ_ROW_MEMBER(method, type, T) RowFn<T> method##_##type;
  QZ_FOR_EACH_VARIANT(QZ_ROW_MEMBER)
#undef QZ_ROW_MEMBER
  // Per variant: true when its wide groups read coherent points through
  // windows (loads and permutes) before falling back to gathers.
#define QZ_WINDOWS_MEMBER(method, type, T) bool method##_##type##_windows;
  QZ_FOR_EACH_VARIANT(QZ_WINDOWS_MEMBER)
#undef QZ_WINDOWS_MEMBER

  template <Method M, class Sample>
  RowFn<Sample> row() const;
  template <Method M, class Sample>
  bool reads_windows() const;
};

#define QZ_ROW_ACCESSOR(method, type, T)                                 \
  template <>                                                            \
  inline RowFn<T> KernelSet::row<Method::method, T>() const {            \
    return method##_##type;                                              \
  }
QZ_FOR_EACH_VARIANT(QZ_ROW_ACCESSOR)
#undef QZ_ROW_ACCESSOR

#define QZ_WINDOWS_ACCESSOR(method, type, T)                      \
  template <>                                                     \
  inline bool KernelSet::reads_windows<Method::method, T>() const { \
    return method##_##type##_windows;                             \
  }
QZ_FOR_EACH_VARIANT(QZ_WINDOWS_ACCESSOR)
#undef QZ_WINDOWS_ACCESSOR

}  // namespace qzinterp3d
