// A kernel set: one row function per variant, all compiled for one
// instruction set. The library picks one set per process (dispatch.h).
#pragma once

#include "kernels/row_api.h"
#include "kernels/variant.h"

namespace qzinterp3d {

// Which coherent rows of a variant a kernel set reads through windows (loads
// and permutes) before falling back to gathers.
enum class WindowRows : uint8_t {
  none,        // none: every row is gathered or read with scalar loads
  one_window,  // only rows whose groups mostly lie in their first lane's window
  coherent,    // every row whose points windows are likely to serve
};

struct KernelSet {
  const char* name;
#define QZ_ROW_MEMBER(method, type, T) RowFn<T> method##_##type;
  QZ_FOR_EACH_VARIANT(QZ_ROW_MEMBER)
#undef QZ_ROW_MEMBER
  // Per variant: the rows whose wide groups read through windows.
#define QZ_WINDOWS_MEMBER(method, type, T) WindowRows method##_##type##_windows;
  QZ_FOR_EACH_VARIANT(QZ_WINDOWS_MEMBER)
#undef QZ_WINDOWS_MEMBER

  template <Method M, class Sample>
  RowFn<Sample> row() const;
  template <Method M, class Sample>
  WindowRows window_rows() const;
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
  inline WindowRows KernelSet::window_rows<Method::method, T>() const { \
    return method##_##type##_windows;                             \
  }
QZ_FOR_EACH_VARIANT(QZ_WINDOWS_ACCESSOR)
#undef QZ_WINDOWS_ACCESSOR

}  // namespace qzinterp3d
