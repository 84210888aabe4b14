#pragma once

#include "kernels/kernel_set.h"

namespace qzinterp3d {

// 16-byte vectors; needs SSE4.1, AVX and FMA3.
const KernelSet& fma128_kernel_set();

}  // namespace qzinterp3d
