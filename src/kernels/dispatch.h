// Picks the kernel set for this CPU once per process. The environment
// variable QZINTERP3D_KERNEL (a kernel set's name) overrides the choice when
// the CPU can run that set; every set gives the same bits.
#pragma once

#include <cstdint>

#include "kernels/kernel_set.h"

namespace qzinterp3d {

struct KernelSetEntry {
  const KernelSet* set;
  bool supported;  // this CPU has the instructions the set needs
};

// Every kernel set built into the library, narrowest first.
int kernel_set_count();
KernelSetEntry kernel_set_at(int i);

// The set the row tasks use.
const KernelSet& active_kernel_set();

// Makes the named set the active one. Returns false, changing nothing, when
// the name is unknown or this CPU cannot run it. For tests and benchmarks.
bool force_kernel_set(const char* name);

#if defined(QZINTERP3D_KERNEL_PROBE)
// Test builds count the rows each kernel set runs, so a test can tell that a
// forced set really computed its rows.
void note_row_run(const KernelSet& set);
uint64_t rows_run_by(const char* name);

// And, in sets that read windows, the wide groups that windows served or
// that were gathered instead (after windows fell short, while gathering was
// preferred, or in rows whose grid cannot use windows), so a test can tell
// which way coherent points were read.
struct WindowGroups {
  uint64_t served, gathered;
};
void note_window_groups(uint64_t served, uint64_t gathered);
WindowGroups window_groups();
#endif

}  // namespace qzinterp3d
