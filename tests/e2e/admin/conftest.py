"""Fixtures of the tests of kova-admin."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness.operator_desk import Desk, desks
from harness.policy_desk import PolicyDesk
from harness.targets import Target

HERE = Path(__file__).resolve().parent


@pytest.fixture
def desk(target: Target, tmp_path: Path) -> Iterator[Desk]:
    yield from desks(target, tmp_path)


@pytest.fixture
def authors(target: Target, tmp_path: Path) -> PolicyDesk:
    """What one who writes policies has."""
    return PolicyDesk(target, tmp_path)


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """Marks the tests of this folder, before others are left out by their marks."""
    for item in items:
        if HERE in item.path.parents:
            item.add_marker("desk")
