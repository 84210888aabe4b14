// Every computation runs in the default floating-point environment (round to
// nearest, no flush-to-zero, no denormals-are-zero, exceptions masked),
// whatever the calling thread has set; the caller's state is restored after.
#pragma once

#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__))
#include <xmmintrin.h>
#define QZ_FP_ENV_MXCSR 1
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
