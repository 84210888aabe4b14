// Picks the kernel set for this CPU once per process. The environment
// variable QZINTERP3D_KERNEL (a kernel set's name) overrides the choice when
// the CPU can run that set; every set gives the same bits.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernels/kernel_set.h"

namespace qzinterp3d {

struct KernelSetEntry {
  const KernelSet* set;
  bool supported;  // this CPU has the instructions the set needs
};

// What the choice of a kernel set depends on: the CPU's vendor and
// generation, and which sets' instructions it has.
struct CpuTraits {
  enum class Vendor : uint8_t { amd, intel, other };
  Vendor vendor = Vendor::other;
  int family = 0;  // display family: base, plus extended when base is 15
  int model = 0;   // display model: base, plus extended << 4 for families 6 and 15
  bool fma128 = false, avx2 = false, avx512 = false, neon = false;
};

// The CPU this process runs on.
CpuTraits this_cpu();

// The name of the kernel set the library runs on such a CPU: the rule, its
// reasons and its measurements are in docs/ARCHITECTURE.md.
const char* kernel_set_for(const CpuTraits& cpu);

// Every kernel set built into the library, narrowest first.
int kernel_set_count();
KernelSetEntry kernel_set_at(int i);

// The set the row tasks use: kernel_set_for(this_cpu()), unless the
// environment names another set this CPU runs.
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
// Of the served ones, first_window_only counts those read through the
// window placed for their first lane alone (one_window_first rows).
struct WindowGroups {
  uint64_t served, gathered, first_window_only;
};
void note_window_groups(uint64_t served, uint64_t gathered);
extern std::atomic<uint64_t> g_first_window_only_groups;
WindowGroups window_groups();
#endif

}  // namespace qzinterp3d
