"""Fixtures of the tests of the packages.

    /usr/bin/python3 -m pytest tests/release --target linux|windows

The build folders are those of the presets linux and windows, configured with KOVA_PACKAGES=ON,
which also have the sample engine and the client library; those of package-linux and package-windows
(--build-dir) will do for the packages. What scripts/setup.sh release installs has to be there. Some
tests are for root, and skip where the system refuses what they need.
"""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness import debian_root, privileges
from harness.packages import pack
from harness.sales_engine import sales_engine
from harness.sample_engine import Engine
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


@pytest.fixture(scope="session")
def engine_executable() -> Path:
    """The sample engine is in no package: it is that of the preset linux."""
    return built_sample("linux") / "kova-sample-engine"


@pytest.fixture(scope="session")
def client_library(target: Target) -> Path:
    """The sample's, of the target's own preset."""
    return built_sample(target.name) / target.library_name


def built_sample(preset: str) -> Path:
    folder = ROOT / "build" / preset / "sample"
    assert folder.exists(), f"{folder} is not built"
    return folder


@pytest.fixture(scope="module")
def engine(engine_executable: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Engine]:
    yield from sales_engine(engine_executable, tmp_path_factory.mktemp("engine"))


@pytest.fixture(scope="session")
def empty_debian(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Path]:
    """A tar archive of the root folder."""
    privileges.need("a root folder to run programs in")
    made = tmp_path_factory.mktemp("empty-debian") / "debian.tar"
    debian_root.make_archive(made)
    yield made
    made.unlink()
