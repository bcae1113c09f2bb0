# SPDX-License-Identifier: MIT
"""What stands in the way of an attacker who finds a fault in the program or the library: as the linked files
tell it themselves. Usage: hardening_test.py BUILD_FOLDER HARDENED_FILE..."""
import pathlib
import re
import subprocess
import sys


def readelf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


def landing_pads(path):
    """How many places of the code an indirect jump may lead to: those marked with endbr64."""
    executable = re.findall(r"^ +LOAD +(0x\w+) 0x\w+ 0x\w+ (0x\w+) 0x\w+ R E",
                            readelf("--segments", path), re.M)
    with open(path, "rb") as file:
        content = file.read()
    return sum(content[int(offset, 16):int(offset, 16) + int(size, 16)].count(b"\xf3\x0f\x1e\xfa")
               for offset, size in executable)


def check(path):
    """Name of each protection -> whether the file has it."""
    header, segments, dynamic = (readelf(option, path)
                                 for option in ("--file-header", "--segments", "--dynamic"))
    symbols = readelf("--dyn-syms", path)
    writable = re.findall(r"^ +(?:LOAD|GNU_STACK) .*? (RWE?|R E|R|E| WE)  *0x", segments, re.M)
    found = {
        "position-independent": "Type:                              DYN" in header,
        "read-only relocations": ("GNU_RELRO" in segments
                                  and re.search(r"BIND_NOW|Flags:.* NOW", dynamic) is not None),
        "no text relocations": "TEXTREL" not in dynamic,
        "no executable stack": re.search(r"GNU_STACK .* RW +0x", segments) is not None,
        "nothing writable and executable": "RWE" not in writable,
        "stack protector": "__stack_chk_fail" in symbols,
        "fortified functions": re.search(r"__\w+_chk@", symbols.replace("__stack_chk_fail", "")) is not None,
    }
    if "X86-64" in header:
        # The linker drops the note of it as long as the start code of the C library has none, so the code is
        # asked. That start code has a handful of pads itself.
        found["control-flow protection"] = landing_pads(path) > 100
    return found


def linked_files(folder):
    """The executables and shared libraries of a build."""
    for path in sorted(pathlib.Path(folder).rglob("*")):
        if path.is_file() and not path.is_symlink() and "CMakeFiles" not in path.parts:
            with open(path, "rb") as file:
                head = file.read(18)
            if head[:4] == b"\x7fELF" and head[16] in (2, 3):
                yield path


def unsafe_run_path(path):
    """The parts of its run path that depend on the folder it is started in."""
    found = re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", readelf("--dynamic", path))
    return [part for run_path in found for part in run_path.split(":") if not part.startswith("/")]


def main():
    linked = list(linked_files(sys.argv[1]))
    unsafe = {str(path): parts for path in linked if (parts := unsafe_run_path(path))}
    if unsafe or not linked:
        sys.exit(f"{len(linked)} linked files, with these parts in run paths: {unsafe}")
    for path in sys.argv[2:]:
        protections = check(path)
        print(path, *(f"  {'yes' if has else 'NO '}  {name}" for name, has in protections.items()), sep="\n")
        if not all(protections.values()):
            sys.exit(f"{path} lacks: " + ", ".join(name for name, has in protections.items() if not has))


if __name__ == "__main__":
    main()
