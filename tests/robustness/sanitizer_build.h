// Which sanitizer, if any, this test executable is built with.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define QZ_UNDER_TSAN 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define QZ_UNDER_ASAN 1
#endif
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) && !defined(QZ_UNDER_TSAN)
#define QZ_UNDER_TSAN 1
#endif
#if __has_feature(address_sanitizer) && !defined(QZ_UNDER_ASAN)
#define QZ_UNDER_ASAN 1
#endif
#endif

namespace qzrobust {

// The runtime's own thread pool is not instrumented, so under
// ThreadSanitizer its hand-offs are invisible and would be reported as
// races; tests that need the real pool skip themselves there.
#if defined(QZ_UNDER_TSAN)
constexpr bool kRealPoolUsable = false;
#else
constexpr bool kRealPoolUsable = true;
#endif

}  // namespace qzrobust
