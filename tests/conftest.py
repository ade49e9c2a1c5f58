"""Options and fixtures of every Python ring; harness/__init__.py says how a test is written.

    /usr/bin/python3 -m pytest tests/e2e --target linux|windows [--build-dir DIR]
    ... -n 2 --dist loadfile     two at a time, each file in one process

The tests stand first on the command line. The build folder is build/<target>, the Wine prefix
$WINEPREFIX or build/wineprefix.
"""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator

import pytest

pytest.register_assert_rewrite("harness")

import wine  # noqa: E402
from harness import sample_engine  # noqa: E402
from harness.policy_files import PolicyFiles  # noqa: E402
from harness.servers import Servers  # noqa: E402
from harness.targets import ROOT, Installation, Target  # noqa: E402


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--target", choices=["linux", "windows"], default="linux",
                     help="the executable under test")
    parser.addoption("--build-dir", type=Path, help="where it was built; build/<target>")


def pytest_ignore_collect(collection_path: Path, config: pytest.Config) -> "bool | None":
    """Tests in posix/ run on Linux only, those in win32/ on Windows only."""
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
def engine_executable(pytestconfig: pytest.Config) -> Path:
    """The sample engine, which is native also when the Windows client library is tested."""
    return sample_engine.executable(pytestconfig)


@pytest.fixture
def start_sample_engine(engine_executable: Path,
                        tmp_path: Path) -> Iterator[Callable[..., sample_engine.Engine]]:
    """`start_sample_engine(*options)`: an engine on a small database of the test's own."""
    started: list[sample_engine.Engine] = []

    def start(*options: str) -> sample_engine.Engine:
        (tmp_path / "data").mkdir(exist_ok=True)
        if not (tmp_path / "data" / "shop.db").exists():
            sample_engine.make_database(tmp_path / "data" / "shop.db", sample_engine.SHOP)
        started.append(sample_engine.Engine(engine_executable, tmp_path, *options))
        return started[-1]

    yield start
    for engine in started:
        running = engine.process.poll() is None
        code = engine.stop()
        assert not running or code == 0, "the engine does not stop cleanly"
