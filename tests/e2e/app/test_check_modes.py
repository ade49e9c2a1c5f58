"""--check-policy and --check-config: one line and an exit code."""

from __future__ import annotations

from pathlib import Path

import pytest

from harness.listeners import refused_port, silent_port
from harness.policy_files import profile
from harness.scripted_library import Script

TABLES = [f"T{n}" for n in range(64)]
UNAVAILABLE = "authenticated database profile unavailable"


def ok_line(policy="default", configured="no", reads="yes", provider_reads="yes", writes="no",
            approval_required="no", tables=0, collections=0, write_tables=0,
            database_profile="not-tested") -> bytes:
    return (f"MCP_CONFIG_OK policy={policy} configured={configured} reads={reads} "
            f"provider_reads={provider_reads} writes={writes} "
            f"approval_required={approval_required} tables={tables} collections={collections} "
            f"write_tables={write_tables} database_profile={database_profile}\n").encode()


def expect_refusal(result, target, message: str) -> None:
    assert result.stderr == f"MCP_CONFIG_INVALID: {message}".encode() + target.line_end
    assert result.stdout == b""
    assert result.code == 2


@pytest.mark.parametrize("path", [None, ""])
def test_no_policy_is_a_valid_configuration(run, path):
    result = run("--check-policy", env={"KOVA_MCP_POLICY": path})
    assert (result.stdout, result.stderr, result.code) == (ok_line(), b"", 0)


@pytest.mark.parametrize("flag, provider_reads", [
    ("1", "no"), ("true", "no"), ("TRUE", "no"), ("Yes", "no"), ("on", "no"),
    ("0", "yes"), ("01", "yes"), ("true ", "yes"), ("enable", "yes"), ("", "yes")])
def test_the_provider_switch_without_a_policy(run, flag, provider_reads):
    result = run("--check-policy", env={"KOVA_MCP_DISABLE_PROVIDERS": flag})
    assert result.stdout == ok_line(provider_reads=provider_reads)


WRITES = {"writes_enabled": True, "write_types": ["INSERT"], "write_tables": ["ORDERS"]}


@pytest.mark.parametrize("overrides, env, expected", [
    ({}, {}, {}),
    ({"name": "9a_B"}, {}, {"policy": "9a_B"}),
    ({"name": "n" * 63}, {}, {"policy": "n" * 63}),
    ({"reads_enabled": False}, {}, {"reads": "no"}),
    ({"provider_reads_enabled": False}, {}, {"provider_reads": "no"}),
    ({}, {"KOVA_MCP_DISABLE_PROVIDERS": "1"}, {"provider_reads": "no"}),
    ({"reads_enabled": False}, {"KOVA_MCP_DISABLE_PROVIDERS": "0"}, {"reads": "no"}),
    ({"approval_required": True}, {}, {"approval_required": "yes"}),
    ({"allowed_tables": []}, {}, {"tables": 0}),
    ({"allowed_tables": TABLES}, {}, {"tables": 64}),
    ({"allowed_collections": TABLES}, {}, {"collections": 64}),
    ({"write_tables": TABLES}, {}, {"write_tables": 64}),
    (WRITES, {}, {"writes": "yes", "write_tables": 1}),
    ({**WRITES, "writes_enabled": False}, {}, {"write_tables": 1}),
    ({**WRITES, "write_types": []}, {}, {"write_tables": 1}),
    ({**WRITES, "write_tables": []}, {}, {}),
    (WRITES, {"KOVA_MCP_DISABLE_WRITES": "on"}, {"write_tables": 1}),
    (WRITES, {"KOVA_MCP_DISABLE_WRITES": "off"}, {"writes": "yes", "write_tables": 1}),
])
def test_the_line_of_a_policy(run, policy, overrides, env, expected):
    result = run("--check-policy", env={**policy(**overrides), **env})
    defaults = {"policy": "sales_read", "configured": "yes", "tables": 2, "collections": 1}
    assert result.stdout == ok_line(**{**defaults, **expected})
    assert (result.stderr, result.code) == (b"", 0)


def test_writes_with_approval_need_their_directory(run, policy, tmp_path):
    state = tmp_path / "state"
    state.mkdir()
    env = policy(**WRITES, approval_required=True, approval_state_directory=state)
    assert run("--check-policy", env=env).stdout == ok_line(
        policy="sales_read", configured="yes", writes="yes", approval_required="yes", tables=2,
        collections=1, write_tables=1)


@pytest.mark.parametrize("overrides, message", [
    ({"text": ""}, "MCP policy file size is invalid"),
    ({"text": "{}" + " " * 65535}, "MCP policy file size is invalid"),
    ({"text": "{}" + " " * 65534}, "MCP policy identity/version is invalid"),
    ({"text": "{"}, "MCP policy JSON/schema is invalid"),
    ({"Version": 1}, "MCP policy JSON/schema is invalid"),
    ({"without": ["version"]}, "MCP policy identity/version is invalid"),
    ({"version": 2}, "MCP policy identity/version is invalid"),
    ({"reads_enabled": "true"}, "MCP policy booleans or allowlists are invalid"),
    ({"allowed_tables": TABLES + ["ONE"]}, "MCP policy booleans or allowlists are invalid"),
    ({"write_types": ["A B"]}, "MCP write type list is invalid"),
    ({"write_types": ["MERGE"]}, "unsupported MCP write type"),
    ({"approval_ttl_seconds": 29}, "approval TTL must be 30..900 seconds"),
    ({"without": ["approval_state_directory"]}, "approval state directory is required"),
    ({"writes_enabled": True, "approval_required": True},
     "approval state directory must be absolute and canonical"),
    ({"writes_enabled": True, "approval_required": True,
      "approval_state_directory": Path("/tmp/no-such-directory-of-approvals")},
     "approval state directory does not exist"),
])
@pytest.mark.parametrize("mode", ["--check-policy", "--check-config"])
def test_the_loader_s_message(run, policy, target, mode, overrides, message):
    expect_refusal(run(mode, env=policy(**overrides)), target, message)


@pytest.mark.parametrize("path, message", [
    ("policy.json", "KOVA_MCP_POLICY must be an absolute canonical path"),
    (Path("/tmp/../tmp/policy.json"), "KOVA_MCP_POLICY must be an absolute canonical path"),
    (Path("/tmp/no-such-policy.json"), "MCP policy file cannot be opened"),
])
def test_the_message_of_a_wrong_path(run, target, path, message):
    expect_refusal(run("--check-policy", env={"KOVA_MCP_POLICY": path}), target, message)


def test_a_launch_identity_that_is_not_the_policy_s(run, policy, target):
    env = {**policy(), "KOVA_MCP_USER": None}
    expect_refusal(run("--check-policy", env=env), target,
                   "MCP launch identity does not match named policy")


def test_check_policy_touches_no_database(run, policy, own_listener, engine):
    env = {**policy(), **engine.env, **profile(own_listener.port)}
    assert run("--check-policy", env=env).code == 0
    assert own_listener.connections == 0
    assert engine.calls() == []


def test_check_config_reports_the_authenticated_profile(run, policy, engine):
    result = run("--check-config", env={**policy(), **engine.env})
    assert result.stdout == ok_line(policy="sales_read", configured="yes", tables=2, collections=1,
                                    database_profile="authenticated")
    assert (result.stderr, result.code) == (b"", 0)
    assert engine.statements() == [b"use SALES;", b"login reader,secret;"]
    assert engine.operations() == ["CreateVantreoInstance", "DisableMessage", "StartVantreo",
                                   "NewObject", "Exec", "Exec", "FreeObject", "StopVantreo"]


def test_check_config_without_a_policy(run, engine):
    result = run("--check-config", env=engine.env)
    assert result.stdout == ok_line(database_profile="authenticated")
    assert result.code == 0


def test_check_config_looks_at_the_policy_first(run, policy, target, own_listener, engine):
    env = {**policy(version=2), **engine.env, **profile(own_listener.port)}
    env["KOVA_MCP_CLIENT_ID"] = "desk-client"
    expect_refusal(run("--check-config", env=env), target, "MCP policy identity/version is invalid")
    assert own_listener.connections == 0
    assert engine.calls() == []


@pytest.mark.parametrize("refused", ["use SALES;", "login reader,secret;"])
def test_check_config_with_a_refusing_engine(run, target, engine, refused):
    engine.script(Script().on_exec(refused, result=0, status="no"))
    expect_refusal(run("--check-config", env=engine.env), target, UNAVAILABLE)
    assert engine.operations().count("FreeObject") == 1
    assert engine.operations().count("StopVantreo") == 1


def test_check_config_without_a_profile(run, target):
    expect_refusal(run("--check-config"), target, UNAVAILABLE)


@pytest.mark.parametrize("library", [None, "broken", "incomplete"])
def test_check_config_without_a_usable_library(run, target, engine, library):
    expect_refusal(run("--check-config", env=engine.env, library=library), target, UNAVAILABLE)


def test_check_config_with_a_port_that_refuses(run, target, engine):
    with refused_port() as port:
        env = {**engine.env, "KOVA_MCP_PORT": port}
        expect_refusal(run("--check-config", env=env), target, UNAVAILABLE)
    assert engine.calls() == []


def test_check_config_with_a_port_that_never_answers(run, target, engine):
    with silent_port() as port:
        env = {**engine.env, "KOVA_MCP_PORT": port}
        expect_refusal(run("--check-config", env=env), target, UNAVAILABLE)
    assert engine.calls() == []
