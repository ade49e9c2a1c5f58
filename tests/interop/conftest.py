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
from typing import Any, Callable, Iterator, Mapping

import pytest

from harness.front_ends import FrontEnd, Recorder
from harness.http_client import HttpListener, HttpListeners
from harness.policy_files import PolicyFiles
from harness.sales_engine import profile, sales_engine
from harness.sample_engine import Engine
from harness.servers import Servers
from harness.targets import ROOT, Target
from tls_front_end import NAMES, make_certificate

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
    yield from sales_engine(engine_executable, tmp_path_factory.mktemp("engine"))


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
def pinned_packages() -> None:
    """The Node.js packages are there, in the versions that package.json pins."""
    pinned = json.loads((HERE / "package.json").read_text("utf-8"))["dependencies"]
    for name, version in pinned.items():
        manifest = HERE / "node_modules" / name / "package.json"
        assert manifest.exists(), f"{name} is not installed; run scripts/setup.sh test"
        assert json.loads(manifest.read_text("utf-8"))["version"] == version


@pytest.fixture(scope="session")
def sdk_session(pinned_packages: None) -> Callable[..., Any]:
    """`sdk_session(scenario, server, **wishes)` returns what session.mjs has found."""
    def play(scenario: str, server: dict[str, Any], **wishes: Any) -> Any:
        done = subprocess.run(["node", str(HERE / "session.mjs"), scenario], capture_output=True,
                              input=json.dumps({"server": server, **wishes}).encode(),
                              timeout=SESSION_TIMEOUT, check=False)
        assert done.returncode == 0, done.stderr.decode(errors="replace")
        return json.loads(done.stdout)

    return play


@pytest.fixture(scope="session")
def certificate(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return make_certificate(tmp_path_factory.mktemp("tls"))


@pytest.fixture
def listen(servers: Servers, engine: Engine,
           policy: PolicyFiles) -> Iterator[Callable[..., HttpListener]]:
    """`listen(**variables)` starts a listener on the sample engine."""
    listeners = HttpListeners(servers)
    names = {"KOVA_MCP_HTTP_ALLOWED_HOSTS": NAMES.replace(" ", ",")}
    yield lambda **variables: listeners({**profile(policy, engine), **names, **variables},
                                        library="sample")
    listeners.close()


@pytest.fixture
def front(certificate: Path, tmp_path: Path) -> Iterator[Callable[..., FrontEnd]]:
    """`front(kind, *servers, changes={})` starts a front end before the servers."""
    started: list[FrontEnd] = []

    def start(kind: str, *servers: "HttpListener | Recorder",
              changes: "Mapping[str, str] | None" = None) -> FrontEnd:
        folder = tmp_path / f"{kind}-{len(started)}"
        started.append(FrontEnd(kind, folder, certificate, [server.port for server in servers],
                                changes or {}))
        return started[-1]

    yield start
    for end in started:
        end.stop()
