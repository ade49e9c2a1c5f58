"""The executables as files: what they need of the system and how they are hardened."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path

import pytest

from harness.targets import Target

pytestmark = pytest.mark.shipped_build

SYSTEM_LIBRARIES = {
    "windows": {"KERNEL32.dll", "msvcrt.dll"},
    "linux": {"libc.so.6", "ld-linux-x86-64.so.2"},
}
"""Each further library would be loaded for each call. What few calls need is loaded by them."""
ADMIN_LIBRARIES = {"windows": {"ADVAPI32.dll"}, "linux": {"libm.so.6"}}
"""What kova-admin needs beside these: services and rights; the other half of the C library."""
NEEDED = {"windows": r"DLL Name: (\S+)", "linux": r"\(NEEDED\).*\[(\S+)\]"}
HARDENING = {
    "windows": {
        "a console program": r"\(Windows CUI\)",
        "loaded at any address": r"DYNAMIC_BASE",
        "of the whole address space": r"HIGH_ENTROPY_VA",
        "with the relocations that this takes": r"\.reloc",
        "no execution of data": r"NX_COMPAT",
        "guarded stack frames": r"__stack_chk_guard",
        "checked use of the standard library": r"__glibcxx_assert_fail",
    },
    "linux": {
        "loaded at any address": r"Type:\s+DYN \(Position-Independent Executable file\)",
        "no execution of the stack": r"GNU_STACK\s.*\sRW\s",
        "tables that become read-only": r"GNU_RELRO",
        "because they are bound at the start": r"BIND_NOW",
        "guarded stack frames": r"__stack_chk_fail",
        "checked library calls": r"__vsnprintf_chk",
        "checked use of the standard library": r"__glibcxx_assert_fail",
    },
}


OPTIONS = {
    "windows": ["-fstack-protector-strong", "-ftrivial-auto-var-init=zero",
                "-D_GLIBCXX_ASSERTIONS"],
    "linux": ["-fstack-protector-strong", "-ftrivial-auto-var-init=zero", "-D_GLIBCXX_ASSERTIONS",
              "-D_FORTIFY_SOURCE=3", "-fcf-protection=full", "-fstack-clash-protection"],
}
"""What leaves no sign in the headers, or none of its level."""


def output_of(*command: "str | Path") -> str:
    return subprocess.run([str(part) for part in command], check=True, text=True,
                          stdout=subprocess.PIPE).stdout


@pytest.fixture(scope="module", params=["kova-mcp", "kova-admin"])
def executable(request, target: Target) -> Path:
    return target.build / (request.param + (".exe" if target.windows else ""))


@pytest.fixture(scope="module")
def headers(target: Target, executable: Path) -> str:
    if target.windows:
        return output_of("x86_64-w64-mingw32-objdump", "-p", "-h", "-t", executable)
    return output_of("readelf", "-hlSdsW", executable)


def test_it_needs_nothing_but_the_system_s_libraries(target, executable, headers):
    allowed = SYSTEM_LIBRARIES[target.name]
    if executable.stem == "kova-admin":
        allowed = allowed | ADMIN_LIBRARIES[target.name]
    needed = set(re.findall(NEEDED[target.name], headers))
    assert needed and needed <= allowed


def test_it_is_hardened(target, headers):
    missing = [what for what, sign in HARDENING[target.name].items()
               if not re.search(sign, headers)]
    assert missing == []


def test_every_source_is_compiled_with_the_options(target):
    commands = json.loads((target.build / "compile_commands.json").read_text())
    own = {entry["file"]: set(entry["command"].split()) for entry in commands
           if re.search(r" -o (src|admin)/CMakeFiles/\S+\.c(pp|xx)\.", entry["command"])}
    assert sum("/src/" in file for file in own) > 70
    assert any("unity_audit" in file for file in own)  # files of a folder, compiled together
    missing = {(file, option) for file, given in own.items() for option in OPTIONS[target.name]
               if option not in given}
    assert missing == set()


def test_nothing_is_writable_and_executable(target, headers):
    if target.windows:
        # A section's name and size, and its properties in the next line.
        sections = re.findall(r"^ +\d+ (\S+) .*\n +(.*)$", headers, re.MULTILINE)
        executable = {name: what for name, what in sections if "CODE" in what}
        assert ".text" in executable
        bad = [name for name, what in executable.items() if "READONLY" not in what]
    else:
        sections = re.findall(r"^ +\[ *\d+\] (\S+) .* ([0-9a-f]{2}) +([A-Z]*) +\d+ +\d+ +\d+$",
                              headers, re.MULTILINE)
        flags = {name: flags for name, _, flags in sections}
        assert flags[".text"] == "AX" and flags[".data"] == "WA"
        bad = [name for name, what in flags.items() if "W" in what and "X" in what]
        segments = re.findall(r"^ +(\w+) +(?:0x[0-9a-f]+ +){5}([R ][W ][E ]) ", headers,
                              re.MULTILINE)
        assert ("LOAD", "R E") in segments
        bad += [name for name, what in segments if "W" in what and "E" in what]
    assert bad == []


def test_its_resources(target, executable):
    """A Windows executable has a version and a manifest with UTF-8 as active code page."""
    data = executable.read_bytes()
    version = "VS_VERSION_INFO".encode("utf-16-le") in data
    manifest = re.search(rb"<activeCodePage[^>]*>UTF-8</activeCodePage>", data) is not None
    assert (version, manifest) == (target.windows, target.windows)
