"""Builds nimbara._nimbara with CMake: the library's own build of its sources,
plus the pybind11 module, into setuptools' temporary folder."""
import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
sys.path.insert(0, str(ROOT / "python" / "build_backend"))
from wheel_fallback import bdist_wheel_command  # noqa: E402


def project_version():
    return (ROOT / "VERSION").read_text().strip()


def pybind11_location():
    """pybind11's CMake package from its Python package, when there is one
    (an isolated build's, or Debian's python3-pybind11); otherwise CMake
    searches the system for it."""
    try:
        import pybind11
    except ImportError:
        return []
    return [f"-Dpybind11_DIR={pybind11.get_cmake_dir()}"]


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build_dir = Path(self.build_temp).resolve() / "cmake"
        out_dir = build_dir / "module"
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        subprocess.run(
            ["cmake", "-S", str(ROOT), "-B", str(build_dir), *generator,
             "-DCMAKE_BUILD_TYPE=Release",
             "-DNIMBARA_BUILD_PYTHON=ON",
             "-DNIMBARA_BUILD_TESTS=OFF",
             "-DNIMBARA_BUILD_BENCH=OFF",
             "-DNIMBARA_BUILD_TOOL=OFF",
             f"-DPython_EXECUTABLE={sys.executable}",
             *pybind11_location(),
             f"-DCMAKE_LIBRARY_OUTPUT_DIRECTORY={out_dir}"],
            check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.run(["cmake", "--build", str(build_dir), "--target", "_nimbara", "-j", jobs],
                       check=True)
        built = next(out_dir.glob("_nimbara*.so"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)


setup(
    version=project_version(),
    package_dir={"": "python"},
    packages=["nimbara"],
    package_data={"nimbara": ["py.typed", "*.pyi"]},
    ext_modules=[Extension("nimbara._nimbara", sources=[])],
    cmdclass={"build_ext": CMakeBuild,
              **({"bdist_wheel": bdist_wheel_command()} if bdist_wheel_command() else {})},
)
