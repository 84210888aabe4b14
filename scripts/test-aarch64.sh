#!/usr/bin/env bash
# The C++ test suite for aarch64, on an x86-64 machine: installs the cross
# compiler and user-mode emulator (scripts/packages-aarch64.txt), cross-builds
# into build-aarch64/ and runs every test under qemu-aarch64-static, with the
# comparison of this build's outputs with a native build's
# (tests/same_bits). On an aarch64 machine scripts/test.sh runs the suite
# natively instead. Safe to run again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
native=${QZINTERP3D_BUILD_DIR:-$root/build}
cross=${QZINTERP3D_AARCH64_BUILD_DIR:-$root/build-aarch64}
jobs=$(nproc)
start=$SECONDS

bash "$root/scripts/install-deps.sh" --with-aarch64

# The native outputs to compare with: from the native build when it is
# configured (scripts/test.sh builds it first), else from a small one here.
if [ ! -f "$native/CMakeCache.txt" ]; then
  native=$cross/native-record
  cmake -S "$root" -B "$native" -DCMAKE_BUILD_TYPE=Release -DQZINTERP3D_BUILD_PYTHON=OFF \
    -DQZINTERP3D_BUILD_BENCHMARKS=OFF -DQZINTERP3D_BUILD_EXAMPLES=OFF
fi
cmake --build "$native" -j"$jobs" --target qz_write_same_bits_record
mkdir -p "$cross"
record=$cross/same_bits_record.bin
"$native/tests/same_bits/qz_write_same_bits_record" "$record"

cmake -S "$root" -B "$cross" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DQZINTERP3D_BUILD_PYTHON=OFF -DQZINTERP3D_BUILD_BENCHMARKS=OFF \
  -DQZINTERP3D_BUILD_EXAMPLES=OFF -DQZINTERP3D_SAME_BITS_RECORD="$record"
cmake --build "$cross" -j"$jobs"
built=$SECONDS

echo "== aarch64 tests (emulated)"
ctest --test-dir "$cross" --output-on-failure -j"$jobs"
echo "aarch64: built in $((built - start)) s, tests in $((SECONDS - built)) s"
