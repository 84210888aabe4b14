// Every computation runs in the default floating-point environment (round to
// nearest, no flush-to-zero, no denormals-are-zero, exceptions masked),
// whatever the calling thread has set; the caller's state is restored after.
#pragma once

#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__))
#include <xmmintrin.h>
#define QZ_FP_ENV_MXCSR 1
#elif defined(__aarch64__)
#include <cstdint>
#define QZ_FP_ENV_FPCR 1
#else
#include <cfenv>
#endif

namespace qzinterp3d {

class DefaultFpEnv {
 public:
#if defined(QZ_FP_ENV_MXCSR)
  // All exceptions masked, round to nearest, FTZ and DAZ off.
  static constexpr unsigned kDefaultMxcsr = 0x1F80u;
  DefaultFpEnv() : saved_(_mm_getcsr()) { _mm_setcsr(kDefaultMxcsr); }
  ~DefaultFpEnv() { _mm_setcsr(saved_); }

 private:
  unsigned saved_;
#elif defined(QZ_FP_ENV_FPCR)
  // FPCR all zero: round to nearest (RMode, bits 22-23), no flush-to-zero
  // (FZ, bit 24; FZ16, bit 19), no default NaN (DN, bit 25), every
  // exception trap disabled.
  static constexpr uint64_t kDefaultFpcr = 0;
  DefaultFpEnv() : saved_(read_fpcr()) {
    // Writing FPCR may synchronise the pipeline: only when it changes.
    if (saved_ != kDefaultFpcr) write_fpcr(kDefaultFpcr);
  }
  ~DefaultFpEnv() {
    if (saved_ != kDefaultFpcr) write_fpcr(saved_);
  }

 private:
  static uint64_t read_fpcr() {
    uint64_t v;
    __asm__ __volatile__("mrs %0, fpcr" : "=r"(v) : : "memory");
    return v;
  }
  static void write_fpcr(uint64_t v) { __asm__ __volatile__("msr fpcr, %0" : : "r"(v) : "memory"); }
  uint64_t saved_;
#else
  DefaultFpEnv() {
    std::fegetenv(&saved_);
    std::fesetenv(FE_DFL_ENV);
  }
  ~DefaultFpEnv() { std::fesetenv(&saved_); }

 private:
  std::fenv_t saved_;
#endif

 public:
  DefaultFpEnv(const DefaultFpEnv&) = delete;
  DefaultFpEnv& operator=(const DefaultFpEnv&) = delete;
};

}  // namespace qzinterp3d
