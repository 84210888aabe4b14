#!/usr/bin/env bash
# Installs the Debian packages that are missing (scripts/packages.txt), builds
# both libraries in Release and runs the examples: the minimal call of one
# nearest and one trilinear entry, then the demo, which writes PNG slices to
# ./out. Safe to run again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${QZINTERP3D_BUILD_DIR:-$root/build}

bash "$root/scripts/install-deps.sh"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release
cmake --build "$build" -j"$(nproc)"
for example in minimal demo; do
  if [ -x "$build/examples/$example" ]; then
    echo "== $example"
    "$build/examples/$example" "${@:-$PWD/out}"
  fi
done
