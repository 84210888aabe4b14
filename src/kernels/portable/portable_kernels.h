#pragma once

#include "kernels/kernel_set.h"

namespace qzinterp3d {

// Runs on every CPU.
const KernelSet& portable_kernel_set();

}  // namespace qzinterp3d
