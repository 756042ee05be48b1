"""Builds the package with the system's setuptools, so that pip needs no network on Debian.

pip hides the system's packages from a build. If Debian's setuptools and wheel are installed, this module
lets the build use them; otherwise pip must fetch them.
"""
import contextlib
import shutil
import sys
import tempfile
from importlib.util import find_spec
from pathlib import Path

DEBIAN_PACKAGES = "/usr/lib/python3/dist-packages"
TOOLS = ("setuptools", "wheel")

sys.path.append(DEBIAN_PACKAGES)


def get_requires_for_build_wheel(config_settings=None):
    return [tool for tool in TOOLS if find_spec(tool) is None]


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    from setuptools import build_meta

    with tempfile.TemporaryDirectory() as copy:  # setuptools leaves files behind where it builds
        for part in ("guilink", "pyproject.toml"):
            (shutil.copytree if Path(part).is_dir() else shutil.copy)(part, Path(copy, part))
        with contextlib.chdir(copy):
            return build_meta.build_wheel(wheel_directory, config_settings, metadata_directory)
