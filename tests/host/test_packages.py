# SPDX-License-Identifier: MIT
"""The Debian packages: what is in them, what they ask for, and that removing them leaves nothing."""
import os
import pathlib
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGES = ("libipplayout1", "libipplayout-dev", "ipplay", "python3-ipplayout")


def run(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT).stdout


def files_below(root):
    return {os.path.relpath(os.path.join(folder, name), root)
            for folder, _, names in os.walk(root) for name in names}


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        run("cpack", "-G", "DEB", "-B", cls.folder.name, "--config",
            os.path.join(os.environ["IPPLAYOUT_BUILD"], "CPackConfig.cmake"))
        cls.files = {}
        for name in os.listdir(cls.folder.name):
            if name.endswith(".deb"):
                path = os.path.join(cls.folder.name, name)
                cls.files[run("dpkg-deb", "-f", path, "Package").strip()] = path

    def contents(self, package):
        listing = run("dpkg-deb", "-c", self.files[package]).splitlines()
        return {line.split()[5].removeprefix("./") for line in listing if not line.startswith("d")}

    def field(self, package, name):
        return run("dpkg-deb", "-f", self.files[package], name).strip()

    def test_contents(self):
        self.assertEqual(set(self.files), set(PACKAGES))
        multiarch = "usr/lib/" + run("dpkg-architecture", "-qDEB_HOST_MULTIARCH").strip()

        def documents(package):
            return {f"usr/share/doc/{package}/{name}" for name in ("copyright", "changelog.gz")}

        self.assertEqual(self.contents("libipplayout1"), documents("libipplayout1") | {
            f"{multiarch}/libipplayout.so.1", f"{multiarch}/libipplayout.so.1.0.0"})
        self.assertEqual(self.contents("ipplay"), documents("ipplay") | {
            "usr/bin/ipplay", "usr/share/man/man1/ipplay.1.gz",
            "usr/share/bash-completion/completions/ipplay",
            "usr/share/fish/vendor_completions.d/ipplay.fish", "usr/share/zsh/vendor-completions/_ipplay",
            *(f"usr/lib/systemd/system/ipplay-{name}.service" for name in ("lineup@", "serve")),
            *(f"usr/share/doc/ipplay/{name}" for name in (
                "README.Debian", "fleet.md", "json.md", "measuring.md", "openapi.json", "recipes.md", "security.md", "serve.md")),
            *(f"usr/share/doc/ipplay/examples/{folder}/{path.name}" for folder in ("fleet", "monitoring")
              for path in (ROOT / "examples" / folder).iterdir())})
        python = self.contents("python3-ipplayout")
        folder = "usr/lib/python3/dist-packages/ipplayout"
        sources = {f"{folder}/{path.name}" for path in (ROOT / "python" / "src" / "ipplayout").iterdir() if path.is_file()}
        self.assertEqual({name for name in python if name.startswith(folder)}, sources)
        self.assertIn(f"{folder}/py.typed", sources)
        self.assertLessEqual(documents("python3-ipplayout") | {
            f"usr/share/doc/python3-ipplayout/{name}" for name in ("python.md", "examples/test_receiver.py", "examples/run.ipynb")},
            python)
        development = self.contents("libipplayout-dev")
        for name in (f"{multiarch}/libipplayout.so", f"{multiarch}/pkgconfig/ipplayout.pc",
                     f"{multiarch}/cmake/ipplayout/ipplayoutConfig.cmake",
                     "usr/include/ipplayout/ipplayout.h", "usr/share/man/man3/libipplayout.3.gz"):
            self.assertIn(name, development)

    def test_dependencies(self):
        self.assertIn("libpcap0.8", self.field("libipplayout1", "Depends"))
        self.assertIn("libmnl0", self.field("libipplayout1", "Depends"))
        version = self.field("libipplayout1", "Version")
        for package in ("ipplay", "libipplayout-dev", "python3-ipplayout"):
            self.assertIn(f"libipplayout1 (= {version})", self.field(package, "Depends"))
        self.assertIn("libfmt9", self.field("ipplay", "Depends"))
        self.assertIn("libprometheus-cpp-core1.0", self.field("ipplay", "Depends"))
        self.assertEqual(self.field("python3-ipplayout", "Architecture"), "all")
        self.assertIn("python3 (>= 3.11)", self.field("python3-ipplayout", "Depends"))

    def test_installs_runs_and_leaves_nothing(self):
        with tempfile.TemporaryDirectory() as root:
            for folder in ("info", "updates", "triggers"):
                os.makedirs(f"{root}/var/lib/dpkg/{folder}")
            for name in ("status", "available"):
                open(f"{root}/var/lib/dpkg/{name}", "w", encoding="ascii").close()
            # The root holds no shell: the scripts run on this machine.
            dpkg = ("dpkg", "--root", root, "--force-depends", "--force-script-chrootless",
                    "--log", "/dev/null")
            run(*dpkg, "-i", *self.files.values())
            self.assertEqual(os.stat(f"{root}/usr/bin/ipplay").st_mode & 0o777, 0o755)
            # With the group, the program has rights and only the group may run it.
            with tempfile.NamedTemporaryFile("w", encoding="ascii") as groups:
                groups.write(pathlib.Path("/etc/group").read_text(encoding="ascii") + "ipplay:x:65533:\n")
                groups.flush()
                run("unshare", "--mount", "sh", "-ec", 'mount --bind "$0" /etc/group; "$@"', groups.name,
                    *dpkg, "-i", self.files["ipplay"])
            program = os.stat(f"{root}/usr/bin/ipplay")
            self.assertEqual((program.st_gid, program.st_mode & 0o777), (65533, 0o750))
            self.assertIn("cap_net_raw,cap_sys_nice=ep", run("/usr/sbin/getcap", f"{root}/usr/bin/ipplay"))
            library = run("sh", "-c", f"echo {root}/usr/lib/*-linux-*/").strip()
            self.assertRegex(run("env", f"LD_LIBRARY_PATH={library}", f"{root}/usr/bin/ipplay", "--version"),
                             "^ipplay ")
            # What Python compiles on the way is left for the removal to find.
            play = """import ipplayout
with ipplayout.Playout("/dev/null", sink="file", destination="239.1.1.1:5000", bit_rate=5e6) as p:
    p.play([bytes(1880)])
    p.wait()
    print(p.statistics().datagrams_sent)"""
            self.assertEqual(run("env", "-u", "IPPLAYOUT_LIBRARY", "PYTHONDONTWRITEBYTECODE=", f"LD_LIBRARY_PATH={library}",
                                 f"PYTHONPATH={root}/usr/lib/python3/dist-packages",
                                 "/usr/bin/python3", "-c", play), "2\n")
            run(*dpkg, "-P", *PACKAGES)
            left = {name for name in files_below(root) if not name.startswith("var/lib/dpkg/")}
            self.assertEqual(left, set())
            self.assertFalse(os.path.exists(f"{root}/usr"))


if __name__ == "__main__":
    unittest.main()
