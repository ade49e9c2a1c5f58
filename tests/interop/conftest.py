"""Fixtures of the interoperability tests.

    /usr/bin/python3 -m pytest tests/interop --target linux|windows [--build-dir DIR]
    ... -n 2 --dist loadgroup    two at a time, those of ./run one after the other

scripts/setup.sh test installs the Node.js packages that package-lock.json pins.
"""

from __future__ import annotations

import json
import signal
import subprocess
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from harness.sales_engine import SALES
from harness.sample_engine import Engine, make_database
from harness.targets import ROOT, Target

HERE = Path(__file__).resolve().parent
SESSION_TIMEOUT = 80.0
FIRST_RUN_LIMIT = 600.0  # it may have to build


def pytest_configure() -> None:
    """What ends a session by a signal must reach it also when the tests run in the background: a
    shell starts those with some signals ignored, and programs hand that on."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)


@pytest.fixture(scope="module")
def engine(engine_executable: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Engine]:
    """The sample engine with the database of orders."""
    folder = tmp_path_factory.mktemp("engine")
    (folder / "data").mkdir()
    make_database(folder / "data" / "SALES.db", SALES)
    made = Engine(engine_executable, folder)
    yield made
    assert made.stop() == 0


@pytest.fixture(scope="session")
def prepared(target: Target) -> list[str]:
    """Everything for ./run is built and loaded, which the first session does; returns the command
    that plays a session with the target."""
    command = [str(ROOT / "run"), *(["windows"] if target.windows else [])]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=FIRST_RUN_LIMIT, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return command


@pytest.fixture(scope="session")
def sdk_session() -> Callable[..., Any]:
    """`sdk_session(scenario, server, **wishes)` returns what session.mjs has found."""
    pinned = json.loads((HERE / "package.json").read_text("utf-8"))["dependencies"]
    for name, version in pinned.items():
        manifest = HERE / "node_modules" / name / "package.json"
        assert manifest.exists(), f"{name} is not installed; run scripts/setup.sh test"
        assert json.loads(manifest.read_text("utf-8"))["version"] == version

    def play(scenario: str, server: dict[str, Any], **wishes: Any) -> Any:
        done = subprocess.run(["node", str(HERE / "session.mjs"), scenario], capture_output=True,
                              input=json.dumps({"server": server, **wishes}).encode(),
                              timeout=SESSION_TIMEOUT, check=False)
        assert done.returncode == 0, done.stderr.decode(errors="replace")
        return json.loads(done.stdout)

    return play
