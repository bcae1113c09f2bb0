# SPDX-License-Identifier: MIT
"""Records, values and functions of the package against the C headers, by a C program that is compiled here."""
import ctypes
import inspect
import os
import re
import subprocess

import ipplayout
import pytest
from conftest import ROOT
from ipplayout import _library, errors, playout, records

INCLUDE = ROOT / "include"
HEADER = (INCLUDE / "ipplayout" / "playouts.h").read_text()
CODE = re.sub(r"//[^\n]*", "", HEADER)
RECORDS = [each for _, each in inspect.getmembers(records, inspect.isclass)
           if issubclass(each, records.Record) and each is not records.Record]
# Only ipplayout.h has functions for these.
OF_THE_OTHER_INTERFACE = {"DeviceListEntry", "IPOtherSettings", "IPStatistics", "TSStatistics"}
VALUES = {"TO": playout.Sink, "LATE": playout.Late, "DID": playout.Did}


@pytest.fixture(scope="module")
def in_c(tmp_path_factory):
    """Evaluates expressions of C, many at a time, with both headers."""
    folder = tmp_path_factory.mktemp("c")

    def evaluate(expressions):
        lines = "\n".join(f'printf("%lld\\n", (long long)({each}));' for each in expressions)
        (folder / "values.c").write_text("#include <stddef.h>\n#include <stdio.h>\n#include <ipplayout/playouts.h>\n"
                                         f"int main(void) {{ {lines} return 0; }}\n")
        subprocess.run([os.environ["CC"], "-std=c11", f"-I{INCLUDE}", "-o", folder / "values", folder / "values.c"], check=True)
        output = subprocess.run([folder / "values"], check=True, text=True, stdout=subprocess.PIPE).stdout
        return dict(zip(expressions, map(int, output.split())))
    return evaluate


def test_layout_is_that_of_the_header(in_c):
    here = {}
    for each in RECORDS:
        here[f"sizeof({each.__name__})"] = ctypes.sizeof(each)
        for name, _ in each._fields_:
            here[f"offsetof({each.__name__}, {name})"] = getattr(each, name).offset
            here[f"sizeof((({each.__name__}*)0)->{name})"] = getattr(each, name).size
    assert in_c(list(here)) == here


def test_kinds_are_those_of_the_header(in_c):
    """A field is signed, or a fraction, where it is so in C."""
    here = {}
    for each in RECORDS:
        for name, kind in each._fields_:
            if issubclass(kind, ctypes._SimpleCData):
                value = f"(({each.__name__}*)0)->{name}"
                here[f"(__typeof__({value}))-1 < 0"] = int(kind(-1).value < 0)
                here[f"(__typeof__({value}))0.5 != 0"] = int(kind in (ctypes.c_float, ctypes.c_double))
    assert len(here) > 100
    assert in_c(list(here)) == here


def test_every_record_and_field_is_here():
    text = re.sub(r"//[^\n]*", "", (INCLUDE / "ipplayout" / "records.h").read_text() + HEADER)
    in_header = {name: re.findall(r"(\w+)(?:\[\w+\])?;", body) for body, name in
                 re.findall(r"typedef struct \w+ \{(.*?)\} (\w+);", text, re.S)}
    assert {each.__name__ for each in RECORDS} == in_header.keys() - OF_THE_OTHER_INTERFACE
    for each in RECORDS:
        assert [name for name, _ in each._fields_] == in_header[each.__name__]


def test_values_are_those_of_the_header(in_c):
    here = {f"IPPLAYOUT_{prefix}_{each.name}": each.value for prefix, values in VALUES.items() for each in values}
    for code, kind in errors.BY_CODE.items():
        here["IPPLAYOUT_" + re.sub(r"(?<=[a-z])(?=[A-Z])", "_", kind.__name__).upper()] = code
    assert in_c(list(here)) == here
    declared = set(re.findall(r"\b(IPPLAYOUT_(?:TO|LATE|DID|BAD|NO|NOT)_\w+|IPPLAYOUT_ENDED)\b", CODE))
    assert declared == here.keys()


def test_every_function_is_bound():
    declared = {name: arguments.split(",") for name, arguments in re.findall(r"\bIpPlayout(\w+)\(([^)]*)\);", CODE)}
    assert declared.keys() == _library.FUNCTIONS.keys()
    for name, (_, arguments) in _library.FUNCTIONS.items():
        assert len(arguments) == (0 if declared[name] == ["void"] else len(declared[name])), name


def test_versions_agree():
    assert ipplayout.__version__ == os.environ["IPPLAYOUT_VERSION"]


@pytest.mark.parametrize("fields, sentence", [
    ({"TTLL": 3}, "TTLL is no field of IpPlayoutSettings; TTL is"),
    ({"TOS": 256}, "TOS is 256; it can be a whole number from 0 to 255"),
    ({"TOS": -1}, "TOS is -1; it can be a whole number from 0 to 255"),
    ({"TTL": 1.5}, "TTL is 1.5; it can be a whole number from 0 to 4294967295"),
    ({"SourceIP": "10.0.0"}, "SourceIP is '10.0.0'; it can be an IPv4 address, or its 4 bytes"),
    ({"SourceMacAddress": "1:2"}, "SourceMacAddress is '1:2'; it can be a MAC address, as in 02:00:00:00:00:01, or its 6 bytes"),
    ({"DestinationIPv6": "10.0.0.1"}, "DestinationIPv6 is '10.0.0.1'; it can be an IPv6 address, or its 16 bytes"),
    ({"Destination": "x" * 256}, f"Destination is '{'x' * 256}'; it can be a text of up to 255 bytes"),
])
def test_what_a_field_has_no_room_for_is_refused(fields, sentence):
    settings = records.IpPlayoutSettings()
    with pytest.raises(ipplayout.BadValue) as refused:
        settings.set(**fields)
    assert str(refused.value) == sentence
    assert bytes(settings) == bytes(ctypes.sizeof(settings))
