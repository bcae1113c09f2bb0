# SPDX-License-Identifier: MIT
"""Builds the package with the system's setuptools, so that an installation needs no network.

pip builds in an environment of its own, without the packages of the system. Debian's setuptools and wheel
are written in Python alone and work there too; only where they are missing pip is to fetch them.
"""
import importlib.util
import pathlib
import sys

DEBIAN = "/usr/lib/python3/dist-packages"
TOOLS = ("setuptools", "wheel")


def requirements():
    """What pip has to fetch: nothing, where the system has it."""
    here = all(importlib.util.find_spec(name) or pathlib.Path(DEBIAN, name).is_dir() for name in TOOLS)
    return [] if here else ["setuptools>=61", "wheel"]


def backend():
    if DEBIAN not in sys.path and pathlib.Path(DEBIAN).is_dir():
        sys.path.append(DEBIAN)  # last: what pip has fetched comes first
    from setuptools import build_meta
    return build_meta


def get_requires_for_build_wheel(config_settings=None):
    return requirements()


def get_requires_for_build_sdist(config_settings=None):
    return requirements()


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    return backend().prepare_metadata_for_build_wheel(metadata_directory, config_settings)


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    return backend().build_wheel(wheel_directory, config_settings, metadata_directory)


def build_sdist(sdist_directory, config_settings=None):
    return backend().build_sdist(sdist_directory, config_settings)
