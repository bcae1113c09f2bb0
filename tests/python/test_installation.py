# SPDX-License-Identifier: MIT
"""pip installs the package without a network and without a compiler, and what it installs is typed and complete."""
import os
import subprocess
import sys

from conftest import ROOT


def test_pip_needs_no_network_and_no_compiler(tmp_path):
    subprocess.run([sys.executable, "-m", "venv", tmp_path / "venv"], check=True)
    source = tmp_path / "source"
    subprocess.run(["cp", "-r", ROOT / "python", source], check=True)  # setuptools builds beside its sources
    environment = {**os.environ, "CC": "/bin/false", "PIP_DISABLE_PIP_VERSION_CHECK": "1"}
    del environment["PYTHONPATH"]
    python = tmp_path / "venv" / "bin" / "python"
    subprocess.run(["unshare", "--net", python, "-m", "pip", "install", "-q", source], check=True, env=environment)
    report = subprocess.run([python, "-c", """if True:
        import importlib.metadata, importlib.resources, ipplayout
        assert importlib.metadata.version("ipplayout") == ipplayout.__version__
        assert (importlib.resources.files("ipplayout") / "py.typed").is_file()
        with ipplayout.Playout("out.pcapng", destination="239.1.1.1:5000", bit_rate=5e6) as p:
            p.play([bytes(188 * 70)])
        print(ipplayout.__file__, ipplayout.measure("out.pcapng").streams[0].rate.frames)
        """], check=True, env=environment, cwd=tmp_path, text=True, stdout=subprocess.PIPE).stdout
    file, frames = report.split()
    assert file.startswith(str(tmp_path / "venv"))
    assert frames == "10"
