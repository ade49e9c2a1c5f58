"""Fixtures of the end-to-end tests: the scripted client library, listeners, shared servers."""

from __future__ import annotations

from pathlib import Path
from typing import Iterator

import pytest

from harness.ai_calls import PROVIDERS_SWITCH
from harness.http_client import HttpListeners
from harness.listeners import Listener
from harness.policy_files import profile
from harness.scripted_library import ScriptedLibrary
from harness.servers import Servers
from harness.targets import Installation, Target
from harness.tool_calls import ToolCalls
from harness.write_calls import Writes


@pytest.fixture(scope="module")
def module_servers(target: Target, installation: Installation,
                   tmp_path_factory: pytest.TempPathFactory) -> Iterator[Servers]:
    """Servers that the tests of one module share."""
    made = Servers(target, installation, tmp_path_factory.mktemp("module"))
    yield made
    made.close()


@pytest.fixture
def http(servers: Servers) -> Iterator[HttpListeners]:
    made = HttpListeners(servers)
    yield made
    made.close()


@pytest.fixture(scope="module")
def module_http(module_servers: Servers) -> Iterator[HttpListeners]:
    """Listeners that the tests of one module share."""
    made = HttpListeners(module_servers)
    yield made
    made.close()


@pytest.fixture(scope="session")
def listener() -> Iterator[Listener]:
    """One listener for all tests that only need a reachable port."""
    made = Listener()
    yield made
    made.close()


@pytest.fixture
def own_listener() -> Iterator[Listener]:
    """A listener whose connections can be counted."""
    made = Listener()
    yield made
    made.close()


@pytest.fixture
def engine(listener: Listener, tmp_path: Path) -> ScriptedLibrary:
    """A reachable engine behind the scripted client library."""
    return ScriptedLibrary(tmp_path, profile(listener.port))


@pytest.fixture(scope="module")
def module_engine(listener: Listener,
                  tmp_path_factory: pytest.TempPathFactory) -> ScriptedLibrary:
    return ScriptedLibrary(tmp_path_factory.mktemp("engine"), profile(listener.port))


# Servers that the tests of one module share. Each test begins with the default policy.


@pytest.fixture(scope="module")
def module_tools(module_servers: Servers, module_engine: ScriptedLibrary,
                 tmp_path_factory: pytest.TempPathFactory) -> ToolCalls:
    return ToolCalls(module_servers, module_engine, tmp_path_factory.mktemp("tools"))


@pytest.fixture
def tools(module_tools: ToolCalls) -> ToolCalls:
    return module_tools.reset()


@pytest.fixture(scope="module")
def without_policy(module_servers: Servers, module_engine: ScriptedLibrary,
                   tmp_path_factory: pytest.TempPathFactory) -> ToolCalls:
    return ToolCalls(module_servers, module_engine, tmp_path_factory.mktemp("free"),
                     configured=False)


@pytest.fixture
def free(without_policy: ToolCalls) -> ToolCalls:
    """Without a policy file."""
    return without_policy.reset()


@pytest.fixture(scope="module")
def switched_off(module_servers: Servers, module_engine: ScriptedLibrary,
                 tmp_path_factory: pytest.TempPathFactory) -> ToolCalls:
    """With the kill switch of the AI providers."""
    return ToolCalls(module_servers, module_engine, tmp_path_factory.mktemp("switched"),
                     env=PROVIDERS_SWITCH)


@pytest.fixture(scope="module")
def served(module_servers: Servers, module_engine: ScriptedLibrary,
                  tmp_path_factory: pytest.TempPathFactory) -> Writes:
    return Writes(module_servers, module_engine, tmp_path_factory.mktemp("writes"))
