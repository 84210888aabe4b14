#!/usr/bin/env bash
# Sanitizer builds of the C++ test suite, each in its own build directory:
#   build-asan  AddressSanitizer + UndefinedBehaviorSanitizer, every test;
#   build-tsan  ThreadSanitizer, the concurrency tests (ctest label
#               "concurrency"): concurrent callers, and row tasks run on
#               instrumented std::threads, since the Halide runtime's own pool
#               is not instrumented (see tests/robustness/par_for_shims.h).
# No suppressions. Runnable from any directory; exits non-zero on any
# failure or report.
#   QZ_SANITIZERS="asan tsan"  which builds to run (default both)
#   QZ_JOBS=2                  parallel build and test jobs
#   QZ_SANITIZE_OPT=-O0        optimisation level of the sanitized builds
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${QZ_JOBS:-2}
which_builds=${QZ_SANITIZERS:-asan tsan}

opt=${QZ_SANITIZE_OPT:--O0}
# -O0 -g1: a third of the compile time of -O1 (the typed test suites are
# heavy), the most precise reports, line numbers in every report, and
# assertions kept (no NDEBUG).
common=(-DCMAKE_BUILD_TYPE=RelWithDebInfo
        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$opt -g1"
        "-DCMAKE_C_FLAGS_RELWITHDEBINFO=$opt -g1"
        -DQZINTERP3D_BUILD_TESTS=ON
        -DQZINTERP3D_BUILD_BENCHMARKS=OFF
        -DQZINTERP3D_BUILD_EXAMPLES=OFF
        -DQZINTERP3D_BUILD_PYTHON=OFF
        -DQZINTERP3D_BUILD_FUZZERS=OFF)

# A report must fail the run; leaks count. The build itself runs an
# instrumented tool (the runtime emitter, linked against the uninstrumented
# Halide compiler library) whose leaks are not ours.
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_asan_options=detect_leaks=1:abort_on_error=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

for which in $which_builds; do
  case $which in
    asan)
      build=$root/build-asan
      echo "== AddressSanitizer + UndefinedBehaviorSanitizer ($build)"
      ASAN_OPTIONS=detect_leaks=0 cmake -S "$root" -B "$build" "${common[@]}" \
        -DQZINTERP3D_SANITIZE=address,undefined
      ASAN_OPTIONS=detect_leaks=0 cmake --build "$build" -j"$jobs"
      ASAN_OPTIONS=$run_asan_options ctest --test-dir "$build" --output-on-failure --no-tests=error -j"$jobs"
      ;;
    tsan)
      build=$root/build-tsan
      echo "== ThreadSanitizer ($build)"
      cmake -S "$root" -B "$build" "${common[@]}" -DQZINTERP3D_SANITIZE=thread
      cmake --build "$build" -j"$jobs" --target qz_robust_par_for qz_robust_concurrency
      ctest --test-dir "$build" --output-on-failure --no-tests=error -j"$jobs" -L concurrency
      ;;
    *)
      echo "sanitizers.sh: unknown build '$which' (asan, tsan)" >&2
      exit 2
      ;;
  esac
done
