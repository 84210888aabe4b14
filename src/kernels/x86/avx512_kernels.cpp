// The AVX-512 kernel set: full blocks in 64-byte vectors (four float blocks,
// one 8-bit block, or four double blocks per instruction), the last block of
// each row in 16-byte vectors, with the same operations as the 16-byte kernels.
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
#pragma clang attribute push( \
    __attribute__((target("avx512f,avx512dq,avx512bw,avx512vl,avx2,fma"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx512f,avx512dq,avx512bw,avx512vl,avx2,fma")
#endif
// GCC 12's own AVX-512 headers start some intrinsics from an "undefined"
// vector and then warn about it; the warning is about the header, not us.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define QZ_TARGET_NS avx512

#include "kernels/row_kernel-inl.h"
#include "kernels/x86/ops128-inl.h"
#include "kernels/x86/ops256-inl.h"
#include "kernels/x86/ops512-inl.h"

#pragma GCC diagnostic pop
#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

namespace qzinterp3d {

const KernelSet& avx512_kernel_set() {
  static constexpr KernelSet set =
      avx512::make_kernel_set<avx512::Ops512, avx512::Ops128>("avx512");
  return set;
}

const KernelSet& avx512_loads_kernel_set() {
  static constexpr KernelSet set =
      avx512::make_kernel_set<avx512::Ops512Loads, avx512::Ops128>("avx512_loads");
  return set;
}

}  // namespace qzinterp3d
