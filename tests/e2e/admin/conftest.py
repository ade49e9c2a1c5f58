"""Fixtures of the tests of kova-admin."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness.operator_desk import Desk, desks
from harness.targets import Target


@pytest.fixture
def desk(target: Target, tmp_path: Path) -> Iterator[Desk]:
    yield from desks(target, tmp_path)
