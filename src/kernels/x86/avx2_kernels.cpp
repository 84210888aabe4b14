// The AVX2 kernel set: full blocks in 32-byte vectors (two float blocks or
// two double blocks per instruction), the last block of each row in 16-byte
// vectors, with the same operations as the 16-byte kernels.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
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
#pragma clang attribute push(__attribute__((target("avx2,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2,fma")
#endif

#define QZ_TARGET_NS avx2

#include "kernels/x86/ops128-inl.h"
#include "kernels/x86/ops256-inl.h"

#include "kernels/row_kernel-inl.h"

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace qzinterp3d {

const KernelSet& avx2_kernel_set() {
  static constexpr KernelSet set =
      avx2::make_kernel_set<avx2::Ops256, avx2::Ops128>("avx2");
  return set;
}

}  // namespace qzinterp3d
