"""Builds the qzinterp3d Python package with the project's own CMake build.

    python3 -m pip install --no-build-isolation .     # into the active environment
    python3 -m pip wheel --no-build-isolation --no-deps -w dist .

`build_ext` configures the CMake project in Release with only the library,
the Halide runtime and the Python extension (no tests, benchmarks or
examples), builds the extension target, installs it with the two shared
libraries into a staging prefix, and puts all three into the package: the
extension and `libqzinterp3d_halide` find their neighbours through `$ORIGIN`
run paths, so the installed package needs neither PYTHONPATH nor
LD_LIBRARY_PATH. The version is the CMake project's.

Environment:
  QZINTERP3D_PIP_BUILD_DIR   where setuptools and CMake build (default:
                             build-pip/ next to this file)
  CMAKE_BUILD_PARALLEL_LEVEL parallel compile jobs (default: every CPU)
  QZINTERP3D_CMAKE_ARGS      extra arguments for the CMake configure step
"""

import os
import re
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
PACKAGE = "qzinterp3d"
# Inside the staging prefix, the package folder; the libraries go into it too.
STAGE_PACKAGE_DIR = Path("python") / PACKAGE
# The runtime-loader name of a shared library: lib<name>.so.<major>.
SONAME_PATTERN = re.compile(r"^lib[\w.-]+\.so\.\d+$")


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    match = re.search(r"project\(\s*qzinterp3d_halide\s+VERSION\s+([0-9.]+)", text)
    if not match:
        raise RuntimeError("CMakeLists.txt: no 'project(qzinterp3d_halide VERSION x.y.z' found")
    return match.group(1)


def build_base():
    chosen = os.environ.get("QZINTERP3D_PIP_BUILD_DIR")
    base = Path(chosen).resolve() if chosen else ROOT / "build-pip"
    base.mkdir(parents=True, exist_ok=True)  # egg_info insists that egg_base exists
    return base


class CMakeExtension(Extension):
    """An extension whose sources CMake compiles: setuptools gets no sources."""

    def __init__(self, name, target):
        super().__init__(name, sources=[])
        self.target = target


class CMakeBuild(build_ext):
    def run(self):
        for ext in self.extensions:
            self.build_cmake(ext)

    def build_cmake(self, ext):
        cmake_build = Path(self.build_temp).resolve() / "cmake"
        stage = Path(self.build_temp).resolve() / "stage"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(cmake_build),
            "-DCMAKE_BUILD_TYPE=Release",
            "-DQZINTERP3D_BUILD_TESTS=OFF",
            "-DQZINTERP3D_BUILD_BENCHMARKS=OFF",
            "-DQZINTERP3D_BUILD_EXAMPLES=OFF",
            "-DQZINTERP3D_BUILD_FUZZERS=OFF",
            "-DQZINTERP3D_BUILD_PYTHON=ON",
            # The interpreter running this build (a venv's, for instance)
            # decides the extension's suffix and headers.
            f"-DQZINTERP3D_PYTHON={sys.executable}",
            f"-DPython_EXECUTABLE={sys.executable}",
            # Libraries and package in one folder of the staging prefix, so
            # that the run paths CMake writes at install are plain $ORIGIN.
            f"-DCMAKE_INSTALL_LIBDIR:STRING={STAGE_PACKAGE_DIR}",
            f"-DQZINTERP3D_PYTHON_INSTALL_DIR:STRING={STAGE_PACKAGE_DIR.parent}",
        ]
        configure += shlex.split(os.environ.get("QZINTERP3D_CMAKE_ARGS", ""))
        env = dict(os.environ)
        env.setdefault("CMAKE_BUILD_PARALLEL_LEVEL", str(len(os.sched_getaffinity(0))))
        self.spawn_in(configure, env)
        self.spawn_in(["cmake", "--build", str(cmake_build), "--target", ext.target], env)
        if stage.exists():
            shutil.rmtree(stage)
        for component in ("Runtime", "python"):
            self.spawn_in(["cmake", "--install", str(cmake_build), "--prefix", str(stage),
                           "--component", component], env)
        self.collect(ext, stage / STAGE_PACKAGE_DIR)

    def collect(self, ext, staged):
        """Copies the extension and each library (under its soname, the name
        the loader looks for; a wheel cannot hold symbolic links) into the
        package folder of the build."""
        extension_path = Path(self.get_ext_fullpath(ext.name))
        package_dir = extension_path.parent
        package_dir.mkdir(parents=True, exist_ok=True)
        built = staged / extension_path.name  # CMake and setuptools share the suffix
        if not built.is_file():
            raise RuntimeError(f"the CMake install did not produce {built}")
        shutil.copyfile(built, extension_path)
        libraries = sorted(p for p in staged.iterdir() if SONAME_PATTERN.match(p.name))
        if len(libraries) != 2:
            raise RuntimeError(f"expected the library and the runtime in {staged}, found "
                               f"{[p.name for p in libraries]}")
        for library in libraries:
            shutil.copyfile(library.resolve(), package_dir / library.name)

    def spawn_in(self, command, env):
        print(" ".join(shlex.quote(c) for c in command), flush=True)
        subprocess.run(command, check=True, env=env)


BUILD_BASE = build_base()

setup(
    name=PACKAGE,
    version=project_version(),
    description="Exact 3-D grid interpolation: nearest and trilinear, scipy.ndimage-style calls",
    python_requires=">=3.9",
    install_requires=["numpy"],
    packages=[PACKAGE],
    package_dir={"": "python"},
    ext_modules=[CMakeExtension(f"{PACKAGE}._core", target="qzinterp3d_python")],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
    options={
        "build": {"build_base": str(BUILD_BASE)},
        "egg_info": {"egg_base": str(BUILD_BASE)},
    },
)
