"""Fixtures of the interoperability tests: they share those of the end-to-end tests.

    /usr/bin/python3 -m pytest tests/interop --target linux|windows [--build-dir DIR]

scripts/setup.sh test installs the Node.js packages that package-lock.json pins.
"""

from __future__ import annotations

import importlib.util
import sys
from pathlib import Path

import pytest

END_TO_END = Path(__file__).resolve().parents[1] / "e2e"

sys.path.insert(0, str(END_TO_END))
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
