"""The packages whose files a build has read, of both systems: the bills of materials list them, and
THIRD-PARTY-NOTICES has the licence of each."""

from __future__ import annotations

import re
import subprocess

import pytest

import bill_of_materials
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

OF_THE_SYSTEM = {"libc6", "libc6-dev", "linux-libc-dev"}
"""What stays a file of its own brings its own notices."""

WORKS = {
    "libstdc++-12-dev": r"libstdc\+\+ and libgcc \(GCC (\d+)\)",
    "libgcc-12-dev": r"libstdc\+\+ and libgcc \(GCC (\d+)\)",
    "g++-mingw-w64-x86-64-posix": r"libstdc\+\+ and libgcc \(GCC (\d+)\)",
    "gcc-mingw-w64-x86-64-posix": r"libstdc\+\+ and libgcc \(GCC (\d+)\)",
    "mingw-w64-common": r"mingw-w64 runtime ([\d.]+)",
    "mingw-w64-x86-64-dev": r"winpthreads \(mingw-w64 ([\d.]+)\)",
    "libsodium-dev": r"libsodium ([\d.]+)",
    "zlib1g-dev": r"zlib ([\d.]+)",
    "libz-mingw-w64-dev": r"zlib ([\d.]+)",
    "libssl-dev": r"OpenSSL ([\d.]+)",
    "libcli11-dev": r"CLI11()",
    "libfmt-dev": r"fmt()",
    "nlohmann-json3-dev": r"JSON for Modern C\+\+()"}
"""How a heading of the notices, or a line below one, begins: the work, for some its version."""


def packages(target: Target, *programs: str) -> set[str]:
    end = ".exe" if target.windows else ""
    found = bill_of_materials.packages_of_build(target.build, [name + end for name in programs])
    return {name.partition(":")[0] for name in found}


@pytest.fixture(scope="session")
def shipped(target: Target) -> set[str]:
    return packages(target, "kova-mcp", "kova-admin")


def test_the_packages_of_the_server(target: Target) -> None:
    names = packages(target, "kova-mcp")
    if target.windows:
        assert names >= {"mingw-w64-x86-64-dev", "g++-mingw-w64-x86-64-posix"}
    else:
        assert names >= {"libc6-dev", "libstdc++-12-dev", "libsodium-dev"}


def test_the_packages_of_all_that_is_shipped(shipped: set[str], target: Target) -> None:
    assert shipped >= {"libcli11-dev", "libfmt-dev", "nlohmann-json3-dev",
                       *(["libz-mingw-w64-dev"] if target.windows else
                         ["zlib1g-dev", "libssl-dev", "libsodium-dev"])}


def test_the_notices_have_each_of_them_in_its_version(shipped: set[str]) -> None:
    notices = (ROOT / "THIRD-PARTY-NOTICES").read_text("utf-8")
    for name in sorted(shipped - OF_THE_SYSTEM):
        assert name in WORKS, f"{name} is new: its licence belongs into THIRD-PARTY-NOTICES"
        [version] = re.findall(rf"^(?:\d+\. )?{WORKS[name]}(?=[:( \n])", notices, re.MULTILINE)
        shown = subprocess.run(["dpkg-query", "-W", "-f", "${Version}\n", name], text=True,
                               capture_output=True, timeout=TIMEOUT, check=True).stdout
        [upstream, *_] = re.findall(r"^(?:\d+:)?([\d.]*\d)", shown, re.MULTILINE)
        assert f"{upstream}.".startswith(f"{version}." if version else ""), (name, version)
