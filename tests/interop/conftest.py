"""Fixtures of the interoperability tests: they share those of the end-to-end tests.

    /usr/bin/python3 -m pytest tests/interop --target linux|windows [--build-dir DIR]

scripts/setup.sh test installs the Node.js packages that package-lock.json pins.
"""

from __future__ import annotations

import importlib.util
import json
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any, Callable

import pytest

HERE = Path(__file__).resolve().parent
SESSION_TIMEOUT = 80.0
END_TO_END = HERE.parent / "e2e"

sys.path[:0] = [str(END_TO_END), str(END_TO_END / "admin"), str(HERE.parents[1] / "scripts")]
_made = importlib.util.spec_from_file_location("end_to_end_fixtures", END_TO_END / "conftest.py")
assert _made is not None and _made.loader is not None
_shared = importlib.util.module_from_spec(_made)
_made.loader.exec_module(_shared)

pytest_report_header = _shared.pytest_report_header
target = _shared.target
installation = _shared.installation
servers = _shared.servers
run = _shared.run
policy = _shared.policy


def pytest_addoption(parser: pytest.Parser) -> None:
    try:
        _shared.pytest_addoption(parser)
    except ValueError:
        pass  # the end-to-end tests run as well and have added the options


def pytest_configure() -> None:
    """What ends a session by a signal must reach it also when the tests run in the background: a
    shell starts those with some signals ignored, and programs hand that on."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)


@pytest.fixture(scope="session")
def sdk_session() -> Callable[..., Any]:
    """`sdk_session(scenario, server, **wishes)` answers what session.mjs has found."""
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
