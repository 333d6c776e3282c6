"""setuptools' build backend, asking for CMake and Ninja from the package index
only when this machine lacks them: a system CMake and Ninja are used as they
are, and an isolated build on a bare machine still finds both."""
import re
import shutil
import subprocess

from setuptools import build_meta as _setuptools
from setuptools.build_meta import *  # noqa: F401,F403 - the rest of the hooks as they are

CMAKE_MINIMUM = (3, 25)


def _cmake_is_recent():
    cmake = shutil.which("cmake")
    if not cmake:
        return False
    try:
        out = subprocess.run([cmake, "--version"], capture_output=True, text=True).stdout
    except OSError:
        return False
    found = re.search(r"(\d+)\.(\d+)", out)
    return bool(found) and (int(found[1]), int(found[2])) >= CMAKE_MINIMUM


def _build_tools():
    tools = []
    if not _cmake_is_recent():
        tools.append("cmake>=%d.%d" % CMAKE_MINIMUM)
    if not shutil.which("ninja"):
        tools.append("ninja")
    return tools


def get_requires_for_build_wheel(config_settings=None):
    return _setuptools.get_requires_for_build_wheel(config_settings) + _build_tools()


def get_requires_for_build_sdist(config_settings=None):
    return _setuptools.get_requires_for_build_sdist(config_settings)


def get_requires_for_build_editable(config_settings=None):
    return _setuptools.get_requires_for_build_editable(config_settings) + _build_tools()
