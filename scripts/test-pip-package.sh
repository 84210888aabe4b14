#!/usr/bin/env bash
# The pip-installed package, as a user gets it: in a fresh
# `python3 -m venv --system-site-packages` under the build directory,
# `pip install --no-build-isolation .` (offline: --no-index), then, from a
# folder outside the checkout and without PYTHONPATH or LD_LIBRARY_PATH:
# import it from the venv, check that the extension resolves both shared
# libraries inside the package, run a small exact call, the pytest suite of
# python/tests and the example examples/reslice_mri.py against it. Then
# `pip wheel` once and check the wheel's contents. Safe to run again; writes
# only under the build directory.
#   QZINTERP3D_BUILD_DIR   the build directory (default ./build)
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${QZINTERP3D_BUILD_DIR:-$root/build}
mkdir -p "$build"
build=$(cd "$build" && pwd)
venv=$build/pip-venv
wheels=$build/pip-wheels
trap 'echo "pip package: FAILED"' ERR

# setuptools' and the package's CMake build go under the build directory too;
# its CMake build is kept between runs, what setuptools assembles is not.
export QZINTERP3D_PIP_BUILD_DIR=$build/pip-build
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
export PYTHONDONTWRITEBYTECODE=1
unset PYTHONPATH LD_LIBRARY_PATH
# pip as on a clean machine: no configuration of this one (extra indexes,
# local wheel folders) takes part.
while read -r name; do unset "$name"; done < <(compgen -e | grep '^PIP_' || true)
export PIP_CONFIG_FILE=/dev/null
rm -rf "$venv" "$wheels" "$QZINTERP3D_PIP_BUILD_DIR"/lib.* "$QZINTERP3D_PIP_BUILD_DIR"/bdist.*
git_state() { git -C "$root" status --porcelain 2>/dev/null || true; }
before=$(git_state)

# Debian's interpreter, whose numpy, scipy, pytest and dask the venv sees.
/usr/bin/python3 -m venv --system-site-packages "$venv"
pip=("$venv/bin/python" -m pip --disable-pip-version-check --no-cache-dir)
(cd "$root" && "${pip[@]}" install --no-build-isolation --no-index .)

outside=$(mktemp -d)
trap 'rm -rf "$outside"' EXIT
(cd "$outside" && "$venv/bin/python" -P "$root/scripts/check_pip_package.py" installed "$venv" "$root")
(cd "$outside" && "$venv/bin/python" -P -m pytest -q -p no:cacheprovider "$root/python/tests")
(cd "$outside" && "$venv/bin/python" -P "$root/examples/reslice_mri.py" "$outside/reslice_mri.png")

(cd "$root" && "${pip[@]}" wheel --no-build-isolation --no-index --no-deps -w "$wheels" .)
wheel=$(ls "$wheels"/qzinterp3d-*.whl)
"$venv/bin/python" -P "$root/scripts/check_pip_package.py" wheel "$wheel" "$root"

after=$(git_state)
if [ "$before" != "$after" ]; then
  echo "the pip build changed the checkout:"; diff <(echo "$before") <(echo "$after") || true
  false
fi
echo "pip package: OK (installed in a fresh venv, imported from outside the checkout, pytest passed, wheel checked)"
