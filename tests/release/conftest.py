"""Fixtures of the tests of the packages.

    /usr/bin/python3 -m pytest tests/release --target linux --build-dir build/package-linux
    ... --target windows --build-dir build/package-windows

The build folders are those of the presets package-linux and package-windows. Debian's scdoc, groff-base,
lintian, zsh, logrotate and man-db have to be there, and some tests need to be root.
"""

from __future__ import annotations

from pathlib import Path

import pytest

from harness.packages import pack
from harness.targets import ROOT, Target


@pytest.fixture(scope="session")
def packed(target: Target, tmp_path_factory: pytest.TempPathFactory) -> list[Path]:
    return pack(target.build, tmp_path_factory.mktemp("packed"))


@pytest.fixture(scope="session")
def archive(packed: list[Path]) -> Path:
    [found] = [path for path in packed if path.name.endswith((".tar.gz", ".zip"))]
    return found


@pytest.fixture(scope="session")
def debian_package(packed: list[Path]) -> Path:
    [found] = [path for path in packed if path.suffix == ".deb"]
    return found


@pytest.fixture(scope="session")
def version() -> str:
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    return text.partition("project(kova-mcp VERSION ")[2].split()[0]
