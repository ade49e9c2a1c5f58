"""Fixtures of the tests of kova-admin."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness.operator_desk import Desk, desks
from harness.policy_desk import PolicyDesk
from harness.targets import Target


@pytest.fixture
def desk(target: Target, tmp_path: Path) -> Iterator[Desk]:
    yield from desks(target, tmp_path)


@pytest.fixture
def authors(target: Target, tmp_path: Path) -> PolicyDesk:
    """What one who writes policies has."""
    return PolicyDesk(target, tmp_path)
