#pragma once

#include "kernels/kernel_set.h"

namespace qzinterp3d {

// 16-byte vectors; needs SSE4.1, AVX and FMA3.
const KernelSet& fma128_kernel_set();

// 32-byte vectors for full blocks; needs AVX2 and FMA3.
const KernelSet& avx2_kernel_set();

// 64-byte vectors for full blocks; needs AVX-512 F, DQ, BW and VL.
const KernelSet& avx512_kernel_set();

// The same, reading samples with scalar loads instead of hardware gathers.
const KernelSet& avx512_loads_kernel_set();

}  // namespace qzinterp3d
