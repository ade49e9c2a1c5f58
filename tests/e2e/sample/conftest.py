"""Fixtures of the sample engine's own tests: an engine, its client program, a session."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, Iterator

import pytest

from harness.sample_engine import Client, Engine, Session
from harness.targets import Target


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
