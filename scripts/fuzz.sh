#!/usr/bin/env bash
# Builds the libFuzzer target (clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer) in build-fuzz and runs it for a fixed time from the committed
# seed corpus. Runnable from any directory; exits non-zero when the fuzzer
# finds a failure (the reproducer is left in build-fuzz/artifacts).
#   QZ_FUZZ_SECONDS=60   how long to run
#   QZ_JOBS=2            parallel build jobs
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build-fuzz
seconds=${QZ_FUZZ_SECONDS:-60}
jobs=${QZ_JOBS:-2}
cc=${QZ_FUZZ_CC:-clang-14}
cxx=${QZ_FUZZ_CXX:-clang++-14}
command -v "$cxx" >/dev/null || { cc=clang; cxx=clang++; }

# The build runs an instrumented tool (the runtime emitter) whose leaks,
# inside the uninstrumented Halide compiler library, are not ours.
ASAN_OPTIONS=detect_leaks=0 CC=$cc CXX=$cxx cmake -S "$root" -B "$build" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQZINTERP3D_SANITIZE=address,undefined \
  -DQZINTERP3D_BUILD_FUZZERS=ON \
  -DQZINTERP3D_BUILD_TESTS=OFF \
  -DQZINTERP3D_BUILD_BENCHMARKS=OFF \
  -DQZINTERP3D_BUILD_EXAMPLES=OFF \
  -DQZINTERP3D_BUILD_PYTHON=OFF
ASAN_OPTIONS=detect_leaks=0 cmake --build "$build" -j"$jobs" --target qz_fuzz_calls

# Work on a copy of the seeds: what the run adds stays in the build tree.
corpus=$build/corpus
artifacts=$build/artifacts
mkdir -p "$corpus" "$artifacts"
cp -n "$root"/fuzz/corpus/* "$corpus"/ 2>/dev/null || true

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=abort_on_error=1:detect_leaks=1
echo "== fuzzing for ${seconds} s"
"$build/fuzz/qz_fuzz_calls" "$corpus" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
  -max_len=8192 -print_final_stats=1 -artifact_prefix="$artifacts/"
