// The kernel set the library picks follows from the CPU's vendor, family,
// model and instruction sets, as docs/ARCHITECTURE.md states the rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "kernels/dispatch.h"

namespace {

using qzinterp3d::CpuTraits;
using qzinterp3d::kernel_set_for;
using Vendor = CpuTraits::Vendor;

CpuTraits x86(Vendor vendor, int family, int model, bool fma128, bool avx2, bool avx512) {
  CpuTraits cpu;
  cpu.vendor = vendor;
  cpu.family = family;
  cpu.model = model;
  cpu.fma128 = fma128;
  cpu.avx2 = avx2;
  cpu.avx512 = avx512;
  return cpu;
}
CpuTraits with_avx512(Vendor vendor, int family, int model) {
  return x86(vendor, family, model, true, true, true);
}

TEST(DispatchRule, InstructionSetsBoundTheChoice) {
  for (Vendor v : {Vendor::amd, Vendor::intel, Vendor::other}) {
    EXPECT_STREQ(kernel_set_for(x86(v, 0x1A, 2, false, false, false)), "portable");
    EXPECT_STREQ(kernel_set_for(x86(v, 0x1A, 2, true, false, false)), "fma128");
    EXPECT_STREQ(kernel_set_for(x86(v, 0x1A, 2, true, true, false)), "avx2");
    EXPECT_STREQ(kernel_set_for(x86(v, 6, 0x8F, true, true, false)), "avx2");
  }
}

TEST(DispatchRule, CoresWithoutAvx512TakeTheAvx2Set) {
  // AMD family 0x19 without AVX-512: Zen 3 (Milan, Vermeer, Cezanne); 0x17:
  // Zen 2. Intel client cores without AVX-512 (Alder and Raptor Lake).
  for (int model : {0x01, 0x21, 0x50}) {
    EXPECT_STREQ(kernel_set_for(x86(Vendor::amd, 0x19, model, true, true, false)), "avx2") << model;
  }
  EXPECT_STREQ(kernel_set_for(x86(Vendor::amd, 0x17, 0x31, true, true, false)), "avx2");
  for (int model : {0x97, 0xB7}) {
    EXPECT_STREQ(kernel_set_for(x86(Vendor::intel, 6, model, true, true, false)), "avx2") << model;
  }
}

TEST(DispatchRule, AmdZen4TakesTheAvx2Set) {
  // Family 0x19 with AVX-512: Zen 4 (Genoa, Raphael, Phoenix, Bergamo).
  for (int model : {0x11, 0x61, 0x74, 0xA0}) {
    EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::amd, 0x19, model)), "avx2") << model;
  }
}

TEST(DispatchRule, AmdZen5AndLaterGather) {
  for (int model : {0x02, 0x11, 0x24, 0x44}) {
    EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::amd, 0x1A, model)), "avx512") << model;
  }
  EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::amd, 0x1B, 0)), "avx512");
}

TEST(DispatchRule, IntelByModel) {
  EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::intel, 6, 0x55)), "avx2");  // Skylake-SP
  for (int model : {0x8F, 0xCF, 0xAD, 0xAE}) {  // Sapphire, Emerald, Granite Rapids
    EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::intel, 6, model)), "avx512") << model;
  }
  for (int model :
       {0x6A, 0x6C, 0x7D, 0x7E, 0x8C, 0x8D, 0xA7, 0x99}) {  // Ice/Tiger/Rocket Lake, unknown
    EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::intel, 6, model)), "avx512_loads") << model;
  }
  EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::intel, 0x13, 0x01)), "avx512_loads");
}

TEST(DispatchRule, UnknownVendorsReadWithScalarLoads) {
  EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::other, 0x1A, 2)), "avx512_loads");
  EXPECT_STREQ(kernel_set_for(with_avx512(Vendor::other, 6, 0x8F)), "avx512_loads");
}

TEST(DispatchRule, NeonWhereTheSystemReportsIt) {
  CpuTraits cpu;
  cpu.neon = true;
  EXPECT_STREQ(kernel_set_for(cpu), "neon");
  EXPECT_STREQ(kernel_set_for(CpuTraits{}), "portable");
}

// What this CPU reports agrees with the kernel sets it is said to run, and
// the process started on the set the rule names for it (the tests force
// other sets only after this, and QZINTERP3D_KERNEL is unset under ctest).
TEST(DispatchRule, ThisCpuGetsTheRulesSet) {
  const CpuTraits cpu = qzinterp3d::this_cpu();
  const std::string chosen = kernel_set_for(cpu);
  bool found = false;
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const qzinterp3d::KernelSetEntry e = qzinterp3d::kernel_set_at(i);
    if (chosen == e.set->name) {
      found = true;
      EXPECT_TRUE(e.supported) << chosen;
    }
  }
  EXPECT_TRUE(found) << chosen;
#if defined(__x86_64__)
  EXPECT_NE(cpu.family, 0);
  EXPECT_EQ(cpu.avx512, cpu.avx512 && cpu.avx2 && cpu.fma128);
#endif
  if (std::getenv("QZINTERP3D_KERNEL") == nullptr) {
    EXPECT_EQ(chosen, qzinterp3d::active_kernel_set().name);
  }
}

#if defined(__x86_64__) && defined(__linux__)
// The vendor, family and model read from cpuid are the ones the system
// reports in /proc/cpuinfo.
TEST(DispatchRule, TraitsMatchTheSystemsReport) {
  std::ifstream info("/proc/cpuinfo");
  if (!info) GTEST_SKIP() << "no /proc/cpuinfo";
  std::string line, vendor;
  int family = -1, model = -1;
  auto value = [](const std::string& l) { return l.substr(l.find(':') + 2); };
  while (std::getline(info, line) && (vendor.empty() || family < 0 || model < 0)) {
    if (line.rfind("vendor_id", 0) == 0) vendor = value(line);
    if (line.rfind("cpu family", 0) == 0) family = std::stoi(value(line));
    if (line.rfind("model\t", 0) == 0) model = std::stoi(value(line));
  }
  const CpuTraits cpu = qzinterp3d::this_cpu();
  EXPECT_EQ(cpu.family, family);
  EXPECT_EQ(cpu.model, model);
  const Vendor expected = vendor == "AuthenticAMD"   ? Vendor::amd
                          : vendor == "GenuineIntel" ? Vendor::intel
                                                     : Vendor::other;
  EXPECT_EQ(cpu.vendor, expected) << vendor;
}
#endif

}  // namespace

// Which variants of each set read coherent points through windows: the
// 32-byte set reads trilinear rows of every type through them, and no
// nearest rows (scalar loads were faster); the 64-byte sets read every
// variant through them; the 16-byte and portable sets have none. The flags come from the same constants the
// row kernels branch on; tests/coherent_points_test.cpp checks, set by set,
// that rows read the way the flags say.
namespace {

const qzinterp3d::KernelSet* kernel_set_named(const std::string& name) {
  for (int i = 0; i < qzinterp3d::kernel_set_count(); ++i) {
    const qzinterp3d::KernelSetEntry e = qzinterp3d::kernel_set_at(i);
    if (name == e.set->name) return e.set;
  }
  return nullptr;
}

using qzinterp3d::Method;

// The set's flags for nearest and trilinear, in the order int8, uint8,
// int16, uint16, int32, uint32, float32, float64.
std::string window_flags(const qzinterp3d::KernelSet& set, Method m) {
  auto flag = [&](auto sample) {
    using S = decltype(sample);
    const bool windows = m == Method::nearest ? set.reads_windows<Method::nearest, S>()
                                              : set.reads_windows<Method::bilinear, S>();
    return windows ? '1' : '0';
  };
  return {flag(int8_t{}),  flag(uint8_t{}),  flag(int16_t{}), flag(uint16_t{}),
          flag(int32_t{}), flag(uint32_t{}), flag(float{}),   flag(double{})};
}

}  // namespace

TEST(KernelSetWindows, Avx2ReadsTrilinearRowsThroughWindowsAndNoNearestOnes) {
  const qzinterp3d::KernelSet* set = kernel_set_named("avx2");
  if (set == nullptr) GTEST_SKIP() << "this build has no avx2 set";
  EXPECT_EQ("00000000", window_flags(*set, Method::nearest));
  EXPECT_EQ("11111111", window_flags(*set, Method::bilinear));
}

TEST(KernelSetWindows, WideSetsReadEveryVariantThroughWindows) {
  int checked = 0;
  for (const char* name : {"avx512", "avx512_loads"}) {
    const qzinterp3d::KernelSet* set = kernel_set_named(name);
    if (set == nullptr) continue;
    ++checked;
    EXPECT_EQ("11111111", window_flags(*set, Method::nearest)) << name;
    EXPECT_EQ("11111111", window_flags(*set, Method::bilinear)) << name;
  }
  if (checked == 0) GTEST_SKIP() << "this build has no 64-byte set";
}

TEST(KernelSetWindows, NarrowSetsHaveNone) {
  int checked = 0;
  for (const char* name : {"portable", "fma128", "neon"}) {
    const qzinterp3d::KernelSet* set = kernel_set_named(name);
    if (set == nullptr) continue;
    ++checked;
    EXPECT_EQ("00000000", window_flags(*set, Method::nearest)) << name;
    EXPECT_EQ("00000000", window_flags(*set, Method::bilinear)) << name;
  }
  EXPECT_GT(checked, 0) << "every build has the portable set";
}
