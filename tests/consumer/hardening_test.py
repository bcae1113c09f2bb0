"""What stands in the way of an attacker who finds a fault in the program or the library: as the linked files
tell it themselves."""
import re
import subprocess
import sys


def readelf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], check=True, text=True, stdout=subprocess.PIPE).stdout


def function_starts(path, symbols):
    """The first four bytes of each function that is exported; its address is its offset in code that is mapped so."""
    addresses = [int(address, 16) for address in re.findall(r"^ *\d+: (\w+) +\d+ FUNC +GLOBAL +DEFAULT +\d+ ", symbols, re.M)]
    code = [tuple(int(number, 16) for number in found) for found in
            re.findall(r"^ +LOAD +(0x\w+) (0x\w+) 0x\w+ (0x\w+) 0x\w+ R E", readelf("--segments", path), re.M)]
    assert addresses and code, path
    with open(path, "rb") as file:
        content = file.read()
    for address in addresses:
        offset = next(offset + address - start for offset, start, size in code if start <= address < start + size)
        yield content[offset:offset + 4]


def check(path):
    """Name of each protection -> whether the file has it."""
    header, segments, dynamic = (readelf(option, path) for option in ("--file-header", "--segments", "--dynamic"))
    symbols = readelf("--dyn-syms", path)
    writable = re.findall(r"^ +(?:LOAD|GNU_STACK) .*? (RWE?|R E|R|E| WE)  *0x", segments, re.M)
    found = {
        "position-independent": "Type:                              DYN" in header,
        "read-only relocations": "GNU_RELRO" in segments and re.search(r"BIND_NOW|Flags:.* NOW", dynamic) is not None,
        "no text relocations": "TEXTREL" not in dynamic,
        "no executable stack": re.search(r"GNU_STACK .* RW +0x", segments) is not None,
        "nothing writable and executable": "RWE" not in writable,
        "stack protector": "__stack_chk_fail" in symbols,
        "fortified functions": re.search(r"__\w+_chk@", symbols.replace("__stack_chk_fail", "")) is not None,
    }
    if "X86-64" in header:
        # The linker drops the note of it as long as the start code of the C library has none, so the code is asked.
        found["control-flow protection"] = all(start == b"\xf3\x0f\x1e\xfa" for start in function_starts(path, symbols))
    return found


def main():
    for path in sys.argv[1:]:
        protections = check(path)
        print(path, *(f"  {'yes' if has else 'NO '}  {name}" for name, has in protections.items()), sep="\n")
        if not all(protections.values()):
            sys.exit(f"{path} lacks: " + ", ".join(name for name, has in protections.items() if not has))


if __name__ == "__main__":
    main()
