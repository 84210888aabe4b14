// The 16-byte kernel set for x86-64 CPUs with SSE4.1 and FMA3 (VEX-encoded,
// so AVX too): one vector of coordinates per group, four float or two double
// lanes, exactly the block layout of the row tasks.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "kernels/blend.h"
#include "kernels/coords.h"
#include "kernels/dispatch.h"
#include "kernels/kernel_set.h"
#include "kernels/row_api.h"
#include "kernels/row_shape.h"
#include "kernels/sample.h"
#include "kernels/x86/x86_kernels.h"

// GCC and clang each mark the region's functions for the instruction set.
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("sse4.1,avx,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("sse4.1,avx,fma")
#endif

#define QZ_TARGET_NS fma128

#include "kernels/x86/ops128-inl.h"

#include "kernels/row_kernel-inl.h"

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace qzinterp3d {

const KernelSet& fma128_kernel_set() {
  static constexpr KernelSet set = fma128::make_kernel_set<fma128::Ops128, fma128::Ops128>("fma128");
  return set;
}

}  // namespace qzinterp3d
