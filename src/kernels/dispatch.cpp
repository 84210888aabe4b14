#include "kernels/dispatch.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

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

constexpr int kMaxKernelSets = 5;

#if defined(QZ_HAVE_X86_KERNELS)
CpuTraits::Vendor vendor_of_cpuid() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(0, &eax, &ebx, &ecx, &edx)) return CpuTraits::Vendor::other;
  char name[13] = {};
  std::memcpy(name, &ebx, 4);
  std::memcpy(name + 4, &edx, 4);
  std::memcpy(name + 8, &ecx, 4);
  if (std::strcmp(name, "AuthenticAMD") == 0) return CpuTraits::Vendor::amd;
  if (std::strcmp(name, "GenuineIntel") == 0) return CpuTraits::Vendor::intel;
  return CpuTraits::Vendor::other;
}

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

}  // namespace

CpuTraits this_cpu() {
  CpuTraits cpu;
#if defined(QZ_HAVE_X86_KERNELS)
  cpu.vendor = vendor_of_cpuid();
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) {
    const int base_family = static_cast<int>((eax >> 8) & 0xF);
    const int base_model = static_cast<int>((eax >> 4) & 0xF);
    cpu.family =
        base_family == 0xF ? base_family + static_cast<int>((eax >> 20) & 0xFF) : base_family;
    cpu.model = base_family == 0x6 || base_family == 0xF
                    ? base_model + (static_cast<int>((eax >> 16) & 0xF) << 4)
                    : base_model;
  }
  cpu.fma128 = cpu_has_fma128();
  cpu.avx2 = cpu_has_avx2();
  cpu.avx512 = cpu_has_avx512();
#endif
#if defined(QZ_HAVE_ARM_KERNELS)
  cpu.neon = cpu_has_neon();
#endif
  return cpu;
}

const char* kernel_set_for(const CpuTraits& cpu) {
  using Vendor = CpuTraits::Vendor;
  if (cpu.neon) return "neon";
  if (!cpu.fma128) return "portable";
  if (!cpu.avx2) return "fma128";
  if (!cpu.avx512) return "avx2";
  if (cpu.vendor == Vendor::amd) {
    // Zen 4 runs 512-bit operations as two halves and its gathers and
    // cross-lane permutes are slower than Zen 5's; later families gather
    // fast.
    return cpu.family >= 0x1A ? "avx512" : "avx2";
  }
  if (cpu.vendor == Vendor::intel && cpu.family == 6) {
    switch (cpu.model) {
      case 0x55:  // Skylake-SP, Cascade Lake, Cooper Lake: 512-bit work lowers the clock
        return "avx2";
      case 0x8F:  // Sapphire Rapids
      case 0xCF:  // Emerald Rapids
      case 0xAD:  // Granite Rapids
      case 0xAE:
        return "avx512";  // gathers without the gather microcode mitigation
      default:
        // Ice Lake, Tiger Lake, Rocket Lake and unknown models: gathers may
        // be slowed by the gather microcode mitigation, scalar loads never.
        return "avx512_loads";
    }
  }
  return "avx512_loads";
}

namespace {

struct Registry {
  KernelSetEntry entries[kMaxKernelSets];
  int count = 0;
  Registry() {
    entries[count++] = {&portable_kernel_set(), true};
#if defined(QZ_HAVE_X86_KERNELS)
    entries[count++] = {&fma128_kernel_set(), cpu_has_fma128()};
    entries[count++] = {&avx2_kernel_set(), cpu_has_avx2()};
    entries[count++] = {&avx512_loads_kernel_set(), cpu_has_avx512()};
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

// The set the rule picks for this CPU, unless the environment names another.
const KernelSet* initial_choice() {
  if (const char* wanted = std::getenv("QZINTERP3D_KERNEL")) {
    if (const KernelSet* s = find_supported(wanted)) return s;
  }
  if (const KernelSet* s = find_supported(kernel_set_for(this_cpu()))) return s;
  return registry().entries[0].set;
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
std::atomic<uint64_t> g_first_window_only_groups{0};

void note_window_groups(uint64_t served, uint64_t gathered) {
  g_window_groups_served.fetch_add(served, std::memory_order_relaxed);
  g_window_groups_gathered.fetch_add(gathered, std::memory_order_relaxed);
}

WindowGroups window_groups() {
  return {g_window_groups_served.load(), g_window_groups_gathered.load(),
          g_first_window_only_groups.load()};
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
