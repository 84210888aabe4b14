#pragma once

#include "kernels/kernel_set.h"

namespace qzinterp3d {

// 16-byte NEON vectors; needs AdvSIMD (every aarch64 CPU has it).
const KernelSet& neon_kernel_set();

}  // namespace qzinterp3d
