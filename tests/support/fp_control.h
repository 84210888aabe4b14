// The thread's floating-point control register, as the tests of the
// library's indifference to a caller's state set and read it: MXCSR on
// x86-64, FPCR on aarch64. Rounding modes go through <cfenv> as usual.
#pragma once

#include <cstdint>

#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__))
#include <xmmintrin.h>
#define QZ_TEST_FP_CONTROL 1
#elif defined(__aarch64__)
#define QZ_TEST_FP_CONTROL 1
#endif

#if defined(QZ_TEST_FP_CONTROL)
namespace qztest::fp_control {

#if defined(__aarch64__)
// All zero: round to nearest, no flush-to-zero, every trap disabled.
inline constexpr uint64_t kDefault = 0;
// FZ (bit 24): subnormal inputs and results become zero, as FTZ with DAZ do.
inline constexpr uint64_t kFlushToZero = uint64_t{1} << 24;

// FPCR holds no sticky flags (they are in FPSR): all of it is control.
inline uint64_t control_bits() {
  uint64_t v;
  __asm__ __volatile__("mrs %0, fpcr" : "=r"(v) : : "memory");
  return v;
}
inline void set(uint64_t v) { __asm__ __volatile__("msr fpcr, %0" : : "r"(v) : "memory"); }
#else
// Every exception masked, round to nearest, FTZ and DAZ off.
inline constexpr uint64_t kDefault = 0x1F80u;
// FTZ (bit 15) and DAZ (bit 6).
inline constexpr uint64_t kFlushToZero = 0x8040u;

// Without the sticky exception flags (bits 0-5).
inline uint64_t control_bits() { return _mm_getcsr() & 0xFFC0u; }
inline void set(uint64_t v) { _mm_setcsr(static_cast<unsigned>(v)); }
#endif

inline void set_flush_to_zero() {
  set(control_bits() | kFlushToZero);
}

}  // namespace qztest::fp_control
#endif
