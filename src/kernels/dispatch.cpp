#include "kernels/dispatch.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "kernels/portable/portable_kernels.h"
#if defined(__x86_64__) || defined(__i386__)
#include "kernels/x86/x86_kernels.h"
#define QZ_HAVE_X86_KERNELS 1
#endif
#if defined(__aarch64__)
#include <sys/auxv.h>

#include "kernels/arm/arm_kernels.h"
#define QZ_HAVE_ARM_KERNELS 1
#endif

namespace qzinterp3d {
namespace {

constexpr int kMaxKernelSets = 4;

#if defined(QZ_HAVE_X86_KERNELS)
bool cpu_has_fma128() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.1") && __builtin_cpu_supports("avx") &&
         __builtin_cpu_supports("fma");
}

bool cpu_has_avx2() { return cpu_has_fma128() && __builtin_cpu_supports("avx2"); }

bool cpu_has_avx512() {
  return cpu_has_avx2() && __builtin_cpu_supports("avx512f") &&
         __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl");
}
#endif

#if defined(QZ_HAVE_ARM_KERNELS)
// AdvSIMD as the operating system reports it (aarch64 Linux CPUs have it).
bool cpu_has_neon() { return (getauxval(AT_HWCAP) & HWCAP_ASIMD) != 0; }
#endif

struct Registry {
  KernelSetEntry entries[kMaxKernelSets];
  int count = 0;
  Registry() {
    entries[count++] = {&portable_kernel_set(), true};
#if defined(QZ_HAVE_X86_KERNELS)
    entries[count++] = {&fma128_kernel_set(), cpu_has_fma128()};
    entries[count++] = {&avx2_kernel_set(), cpu_has_avx2()};
    entries[count++] = {&avx512_kernel_set(), cpu_has_avx512()};
#endif
#if defined(QZ_HAVE_ARM_KERNELS)
    entries[count++] = {&neon_kernel_set(), cpu_has_neon()};
#endif
  }
};

const Registry& registry() {
  static const Registry r;
  return r;
}

const KernelSet* find_supported(const char* name) {
  const Registry& r = registry();
  for (int i = 0; i < r.count; ++i) {
    if (r.entries[i].supported && std::strcmp(r.entries[i].set->name, name) == 0) {
      return r.entries[i].set;
    }
  }
  return nullptr;
}

// The widest set the CPU supports, unless the environment names another.
const KernelSet* initial_choice() {
  if (const char* wanted = std::getenv("QZINTERP3D_KERNEL")) {
    if (const KernelSet* s = find_supported(wanted)) return s;
  }
  const Registry& r = registry();
  const KernelSet* best = r.entries[0].set;
  for (int i = 0; i < r.count; ++i) {
    if (r.entries[i].supported) best = r.entries[i].set;
  }
  return best;
}

std::atomic<const KernelSet*> g_active{nullptr};

}  // namespace

int kernel_set_count() { return registry().count; }

KernelSetEntry kernel_set_at(int i) { return registry().entries[i]; }

const KernelSet& active_kernel_set() {
  const KernelSet* s = g_active.load(std::memory_order_acquire);
  if (s == nullptr) {
    const KernelSet* expected = nullptr;
    s = initial_choice();
    if (!g_active.compare_exchange_strong(expected, s, std::memory_order_acq_rel)) s = expected;
  }
  return *s;
}

bool force_kernel_set(const char* name) {
  const KernelSet* s = find_supported(name);
  if (s == nullptr) return false;
  g_active.store(s, std::memory_order_release);
  return true;
}

#if defined(QZINTERP3D_KERNEL_PROBE)
namespace {

std::atomic<uint64_t> g_rows_run[kMaxKernelSets];
}

void note_row_run(const KernelSet& set) {
  const Registry& r = registry();
  for (int i = 0; i < r.count; ++i) {
    if (r.entries[i].set == &set) g_rows_run[i].fetch_add(1, std::memory_order_relaxed);
  }
}

namespace {
std::atomic<uint64_t> g_window_groups_served{0}, g_window_groups_gathered{0};
}

void note_window_groups(uint64_t served, uint64_t gathered) {
  g_window_groups_served.fetch_add(served, std::memory_order_relaxed);
  g_window_groups_gathered.fetch_add(gathered, std::memory_order_relaxed);
}

WindowGroups window_groups() {
  return {g_window_groups_served.load(), g_window_groups_gathered.load()};
}

uint64_t rows_run_by(const char* name) {
  const Registry& r = registry();
  for (int i = 0; i < r.count; ++i) {
    if (std::strcmp(r.entries[i].set->name, name) == 0) return g_rows_run[i].load();
  }
  return 0;
}
#endif

}  // namespace qzinterp3d
