"""Options and fixtures of the end-to-end tests; kova.py says how a test is written.

    /usr/bin/python3 -m pytest tests/e2e --target linux|windows [--build-dir DIR] [-n 2]

The tests stand first on the command line. The build folder is build/<target>, the Wine prefix
$WINEPREFIX or build/wineprefix.
"""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

import wine
from http_client import HttpListeners
from kova import Installation, ScriptedLibrary, Servers, Target
from listeners import LOOPBACK, Listener
from policy_files import PolicyFiles

ROOT = Path(__file__).resolve().parents[2]


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--target", choices=["linux", "windows"], default="linux",
                     help="the executable under test")
    parser.addoption("--build-dir", type=Path, help="where it was built; build/<target>")


def pytest_ignore_collect(collection_path: Path, config: pytest.Config) -> "bool | None":
    """What one system alone has is looked at there alone."""
    other = {"linux": "win32", "windows": "posix"}[config.getoption("--target")]
    return True if other in collection_path.relative_to(ROOT).parts else None


def pytest_report_header(config: pytest.Config) -> str:
    return f"target: {config.getoption('--target')}"


@pytest.fixture(scope="session")
def target(pytestconfig: pytest.Config) -> Iterator[Target]:
    name = pytestconfig.getoption("--target")
    build = pytestconfig.getoption("--build-dir") or ROOT / "build" / name
    made = Target(name, build.resolve(), wine.default_prefix())
    assert made.executable.exists(), f"{made.executable} is not built"
    with made.ready():
        yield made


@pytest.fixture(scope="session")
def installation(target: Target, tmp_path_factory: pytest.TempPathFactory) -> Installation:
    return Installation(target, tmp_path_factory.mktemp("installed"))


@pytest.fixture
def servers(target: Target, installation: Installation, tmp_path: Path) -> Iterator[Servers]:
    made = Servers(target, installation, tmp_path)
    yield made
    made.close()


@pytest.fixture(scope="module")
def module_servers(target: Target, installation: Installation,
                   tmp_path_factory: pytest.TempPathFactory) -> Iterator[Servers]:
    """Servers that the tests of one module share."""
    made = Servers(target, installation, tmp_path_factory.mktemp("module"))
    yield made
    made.close()


@pytest.fixture
def http(servers: Servers) -> Iterator[HttpListeners]:
    made = HttpListeners(servers)
    yield made
    made.close()


@pytest.fixture(scope="module")
def module_http(module_servers: Servers) -> Iterator[HttpListeners]:
    """Listeners that the tests of one module share."""
    made = HttpListeners(module_servers)
    yield made
    made.close()


@pytest.fixture
def start(servers: Servers):
    return servers.start


@pytest.fixture
def run(servers: Servers):
    return servers.run


@pytest.fixture
def policy(target: Target, tmp_path: Path) -> PolicyFiles:
    return PolicyFiles(target, tmp_path)


@pytest.fixture(scope="session")
def listener() -> Iterator[Listener]:
    """One listener for all tests that only need a reachable port."""
    made = Listener()
    yield made
    made.close()


@pytest.fixture
def own_listener() -> Iterator[Listener]:
    """A listener whose connections can be counted."""
    made = Listener()
    yield made
    made.close()


def profile(port: str) -> dict[str, str]:
    """The database profile that goes with the default policy."""
    return {"KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": port, "KOVA_MCP_DATABASE": "SALES",
            "KOVA_MCP_USER": "reader", "KOVA_MCP_PASSWORD": "secret"}


@pytest.fixture
def engine(listener: Listener, tmp_path: Path) -> ScriptedLibrary:
    """A reachable engine behind the scripted client library."""
    return ScriptedLibrary(tmp_path, profile(listener.port))


@pytest.fixture(scope="module")
def module_engine(listener: Listener,
                  tmp_path_factory: pytest.TempPathFactory) -> ScriptedLibrary:
    return ScriptedLibrary(tmp_path_factory.mktemp("engine"), profile(listener.port))
