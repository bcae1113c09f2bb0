#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Installs the build into a folder of its own and uses it as others do: a C11 host through
pkg-config, a C++20 host through find_package, the library's name and the list of its symbols."""

import argparse
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

WARNINGS = ["-Werror", "-Wall", "-Wextra", "-Wpedantic", "-Wconversion"]
PACKAGE = pathlib.Path(__file__).resolve().parent / "package"
DECLARATION = re.compile(r"^[a-zA-Z][\w *]*?\b(\w+)\([^;()]*\)(?: __asm__\([^)]*\))?;", re.MULTILINE)
options = None


def run(*command, **keywords):
    result = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, **keywords)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}")
    return result.stdout


class InstalledPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="ipplayout-consumer-")
        cls.addClassCleanup(folder.cleanup)
        cls.root = pathlib.Path(folder.name)
        cls.stage = cls.root / "stage"
        # Staged, as packages are made, since the pkg-config file names the final folders.
        run(options.cmake, "--install", options.build, "--config", options.config,
            env={**os.environ, "DESTDIR": str(cls.stage)})
        cls.library = cls.find("libipplayout.so.1")
        cls.flags = [f"-fsanitize={options.sanitize}"] if options.sanitize else []

    @classmethod
    def find(cls, name):
        found = list(cls.stage.rglob(name))
        assert len(found) == 1, f"{name} is installed {len(found)} times"
        return found[0]

    def run_host(self, host):
        run(host, env={**os.environ, "LD_LIBRARY_PATH": str(self.library.parent)})

    def test_c11_host_through_pkg_config(self):
        flags = run("pkg-config", "--cflags", "--libs", "ipplayout", env={
            **os.environ, "PKG_CONFIG_PATH": str(self.find("ipplayout.pc").parent),
            "PKG_CONFIG_SYSROOT_DIR": str(self.stage)}).split()
        host = self.root / "c_host"
        run(options.cc, "-std=c11", *WARNINGS, *self.flags, PACKAGE / "host.c", "-o", host, *flags)
        self.run_host(host)

    def test_cpp20_host_through_find_package(self):
        build = self.root / "cpp"
        run(options.cmake, "-G", "Ninja", "-S", PACKAGE, "-B", build, f"-DCMAKE_CXX_COMPILER={options.cxx}",
            f"-Dipplayout_DIR={self.find('ipplayoutConfig.cmake').parent}",
            "-DCMAKE_CXX_EXTENSIONS=OFF", f"-DCMAKE_CXX_FLAGS={' '.join(WARNINGS + self.flags)}")
        run(options.cmake, "--build", build)
        self.run_host(build / "host")

    def test_the_library_has_its_fixed_name(self):
        self.assertIn("[libipplayout.so.1]", run("readelf", "-d", self.library))

    def test_exactly_the_declared_functions_are_exported(self):
        declared = set()
        for header in self.find("ipplayout.h").parent.glob("*.h"):
            declared.update(DECLARATION.findall(re.sub(r"//.*", "", header.read_text(encoding="utf-8"))))
        self.assertGreater(len(declared), 250)
        lines = run("nm", "-D", "--defined-only", self.library).splitlines()
        exported = {"GetIpAddressBytes" if name.startswith("_Z17GetIpAddressBytes") else name
                    for name in (line.split()[-1] for line in lines)}
        self.assertEqual(exported, declared)

    def test_nothing_looks_for_libraries_by_itself(self):
        for path in (file for file in self.stage.rglob("*") if file.is_file()):
            if path.read_bytes()[:4] == b"\x7fELF":
                self.assertNotRegex(run("readelf", "-d", path), "R(UN)?PATH", path)


def main():
    global options
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    for name in ("cmake", "cc", "cxx", "config"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--sanitize", default="")
    options, rest = parser.parse_known_args()
    unittest.main(argv=[__file__, *rest])


if __name__ == "__main__":
    main()
