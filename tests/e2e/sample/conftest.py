"""Fixtures of the sample engine's own tests: an engine, its client program, a session."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness.sample_engine import Client, Engine, Session
from harness.targets import Target


def pytest_collection_modifyitems(config: pytest.Config, items: "list[pytest.Item]") -> None:
    """The engine is a native program on both targets. A test that meets nothing else, neither the
    server nor the client library of the target, is the same test on both: it runs with Linux."""
    if config.getoption("--target") == "linux":
        return
    native = [item for item in items if item.get_closest_marker("sample_engine")
              and "target" not in item.fixturenames]
    config.hook.pytest_deselected(items=native)
    items[:] = [item for item in items if item not in native]


@pytest.fixture(scope="session")
def executable(engine_executable: Path) -> Path:
    return engine_executable


@pytest.fixture
def start_engine(start_sample_engine: Callable[..., Engine]) -> Callable[..., Engine]:
    return start_sample_engine


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine]) -> Engine:
    return start_sample_engine()


@pytest.fixture(scope="session")
def client(target: Target) -> Client:
    return Client(target)


@pytest.fixture
def shop(engine: Engine) -> Iterator[Session]:
    with engine.session() as session:
        yield session
