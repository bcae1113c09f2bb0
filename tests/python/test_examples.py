# SPDX-License-Identifier: MIT
"""The examples work as they stand: the tests of a receiver, the notebook, and what docs/python.md shows."""
import json
import os
import re
import subprocess
import sys

from conftest import ROOT

EXAMPLES = ROOT / "examples" / "python"


def test_the_tests_of_a_receiver_pass():
    process = subprocess.run([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", EXAMPLES],
                             text=True, stdout=subprocess.PIPE, check=False)
    assert process.returncode == 0, process.stdout
    assert re.search(r"^12 passed", process.stdout, re.M)


def test_the_notebook_runs(tmp_path):
    subprocess.run([sys.executable, "-m", "nbconvert", "--to", "notebook", "--execute", "--output-dir", tmp_path,
                    EXAMPLES / "run.ipynb"], check=True, env={**os.environ, "HOME": str(tmp_path)})
    outputs = [output for cell in json.loads((tmp_path / "run.ipynb").read_text())["cells"]
               for output in cell.get("outputs", [])]
    assert "".join(outputs[0]["text"]) == "ordered 30 losses, seen 30; limits met: True\n"
    assert any("image/png" in output.get("data", {}) for output in outputs)


def test_the_document_runs(wire, tmp_path):
    """Each block of docs/python.md in turn, with a stream of its own, between the two ends of a wire."""
    text = (ROOT / "docs" / "python.md").read_text()
    blocks = re.findall(r"^```python\n(.*?)^```", text, re.M | re.S)
    assert len(blocks) >= 6
    (tmp_path / "x.ts").write_bytes(b"".join(bytes((0x47, 0x01, 0x00, 0x10 | n & 0xF)) + bytes(184) for n in range(7000)))
    script = tmp_path / "blocks.py"
    script.write_text("\n".join(blocks).replace("eth0", wire.NEAR))
    subprocess.run([sys.executable, script], cwd=tmp_path, check=True, timeout=100)
