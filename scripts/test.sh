#!/usr/bin/env bash
# The whole test suite, from a fresh clone: installs the Debian packages that
# are missing (scripts/packages.txt), builds in Release, runs the sanitizer
# builds and a short fuzz run (scripts/sanitizers.sh, scripts/fuzz.sh), the
# pip-installed package in a fresh venv (scripts/test-pip-package.sh), the
# C++ suite for aarch64 under emulation (scripts/test-aarch64.sh, on x86-64),
# then every test through ctest (C++ and Python), last, so its summary closes
# the output. Safe to run again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QZINTERP3D_BUILD_DIR:-$root/build}
jobs=$(nproc)

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j"$jobs"

for stage in sanitizers fuzz; do
  if [ -f "$root/scripts/$stage.sh" ]; then
    echo "== $stage"
    bash "$root/scripts/$stage.sh"
  fi
done

echo "== pip package"
bash "$root/scripts/test-pip-package.sh"

# The suite for aarch64, cross-built and run under emulation (on an aarch64
# machine the build above is native already).
if [ "$(uname -m)" = x86_64 ]; then
  echo "== aarch64 (emulated)"
  QZINTERP3D_BUILD_DIR="$build" bash "$root/scripts/test-aarch64.sh"
fi

echo "== tests"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
