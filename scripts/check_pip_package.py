"""Checks an installed qzinterp3d package, or a wheel of it.

    python check_pip_package.py installed VENV SOURCE_ROOT
    python check_pip_package.py wheel WHEEL SOURCE_ROOT

`installed` (run with the venv's interpreter, from outside the checkout):
the package is imported from the venv, its version is the CMake project's,
the extension and the library resolve both shared libraries inside the
package through $ORIGIN alone, and a small call gives exact values.
`wheel`: the wheel holds exactly the package's Python files, the extension
and the two libraries (under their sonames), with the project's version.
Each failure raises; the last line printed says what was checked.
"""

import importlib.metadata
import os
import re
import subprocess
import sys
import sysconfig
import zipfile
from pathlib import Path

LIBRARIES = ("libqzinterp3d_halide.so.0", "libqzhalideRuntime.so.0")


def project_version(source_root):
    text = (source_root / "CMakeLists.txt").read_text()
    return re.search(r"project\(\s*qzinterp3d_halide\s+VERSION\s+([0-9.]+)", text).group(1)


def python_sources(source_root):
    return sorted(p.name for p in (source_root / "python" / "qzinterp3d").glob("*.py"))


def check(condition, message):
    if not condition:
        raise SystemExit(f"check_pip_package: {message}")


def run_paths(path):
    dynamic = subprocess.run(["readelf", "-d", str(path)], check=True, capture_output=True,
                             text=True).stdout
    return re.findall(r"\((?:RPATH|RUNPATH)\)\s+Library r(?:un)?path: \[(.*)\]", dynamic)


def resolved_libraries(path):
    """name -> path as the loader resolves them (ldd), in an environment
    without LD_LIBRARY_PATH."""
    env = {k: v for k, v in os.environ.items() if k != "LD_LIBRARY_PATH"}
    listing = subprocess.run(["ldd", str(path)], check=True, capture_output=True, text=True,
                             env=env).stdout
    return dict(re.findall(r"^\s*(\S+) => (\S+)", listing, flags=re.M))


def check_installed(venv, source_root):
    check("PYTHONPATH" not in os.environ and "LD_LIBRARY_PATH" not in os.environ,
          "run without PYTHONPATH and LD_LIBRARY_PATH")
    check(not Path.cwd().resolve().is_relative_to(source_root),
          f"run from outside the checkout, not {Path.cwd()}")
    import numpy as np
    import qzinterp3d

    package = Path(qzinterp3d.__file__).resolve().parent
    check(package.is_relative_to(venv.resolve()), f"qzinterp3d imported from {package}, not from {venv}")
    version = importlib.metadata.version("qzinterp3d")
    check(version == project_version(source_root),
          f"installed version {version}, project version {project_version(source_root)}")

    extension = Path(qzinterp3d._core.__file__).resolve()
    check(extension.parent == package, f"extension {extension} outside {package}")
    check(extension.name == "_core" + sysconfig.get_config_var("EXT_SUFFIX"),
          f"extension named {extension.name}")
    for binary in (extension, package / LIBRARIES[0]):
        check(run_paths(binary) == ["$ORIGIN"], f"{binary.name}: run paths {run_paths(binary)}")
    resolved = resolved_libraries(extension)
    for name in LIBRARIES:
        check(name in resolved, f"ldd {extension.name}: {name} missing from {resolved}")
        check(Path(resolved[name]).resolve() == package / name,
              f"{name} resolves to {resolved[name]}, not inside {package}")

    # Trilinear half-way between small integers and nearest on samples: no
    # rounding anywhere, so the values are exact.
    volume = np.arange(2 * 3 * 5, dtype=np.float32).reshape(2, 3, 5)  # v[k, j, i] = 15k + 5j + i
    xq = np.array([[1.0, 2.5, 5.0]], np.float32)
    yq = np.array([[1.0, 1.5, 3.0]], np.float32)
    zq = np.array([[1.0, 1.5, 2.0]], np.float32)
    linear = qzinterp3d.interp3(volume, xq, yq, zq, method="linear", fill_value=-1)
    check(np.array_equal(linear, np.array([[0.0, 11.5, 29.0]], np.float32)), f"linear gave {linear}")
    outside = qzinterp3d.interp3(volume, xq + 5, yq, zq, method="nearest", fill_value=-1)
    check(np.array_equal(outside, np.full((1, 3), -1, np.float32)), f"outside gave {outside}")
    # The scipy-style calls, 0-based: a shift by whole samples reads samples.
    shifted = qzinterp3d.affine_transform(volume, np.ones(3), offset=(1, 0, 2), output_shape=(1, 3, 3))
    check(np.array_equal(shifted, volume[1:, :, 2:]), f"affine_transform gave {shifted}")
    picked = qzinterp3d.map_coordinates(volume, [[0, 1], [2, 0.5], [4, 3]], order=1)
    check(np.array_equal(picked, np.array([14.0, 20.5], np.float32)), f"map_coordinates gave {picked}")
    print(f"check_pip_package: qzinterp3d {version} imported from {package}; _core, "
          f"{' and '.join(LIBRARIES)} inside it (run paths $ORIGIN); exact values right")


def check_wheel(wheel, source_root):
    version = project_version(source_root)
    tag = sysconfig.get_config_var("EXT_SUFFIX")
    expected = {f"qzinterp3d/{name}" for name in python_sources(source_root)}
    expected |= {f"qzinterp3d/_core{tag}"} | {f"qzinterp3d/{name}" for name in LIBRARIES}
    check(wheel.name.startswith(f"qzinterp3d-{version}-"), f"wheel {wheel.name}: not version {version}")
    with zipfile.ZipFile(wheel) as archive:
        names = set(archive.namelist())
        metadata = archive.read(f"qzinterp3d-{version}.dist-info/METADATA").decode()
    dist_info = {n for n in names if n.startswith(f"qzinterp3d-{version}.dist-info/")}
    check(names - dist_info == expected,
          f"wheel holds {sorted(names - dist_info)}, expected {sorted(expected)}")
    check(f"\nVersion: {version}\n" in metadata, "METADATA: wrong version")
    print(f"check_pip_package: {wheel.name} holds {len(expected)} package files "
          f"({', '.join(sorted(n.split('/')[1] for n in expected))}) and its metadata")


def main():
    kind, target, source_root = sys.argv[1], Path(sys.argv[2]), Path(sys.argv[3]).resolve()
    {"installed": check_installed, "wheel": check_wheel}[kind](target, source_root)


if __name__ == "__main__":
    main()
