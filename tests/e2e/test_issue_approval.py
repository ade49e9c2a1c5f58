"""--issue-approval: a digest from standard input, a token or one line of refusal."""

from __future__ import annotations

import re

import pytest

DIGEST = "0123456789abcdef" * 4
REFUSED = "approval issuance failed: approval request or policy is invalid"
NO_DIGEST = "approval digest is required on standard input"


@pytest.fixture
def approving(policy, tmp_path) -> dict:
    """The environment of an operator whose policy wants approvals."""
    state = tmp_path / "state"
    state.mkdir()
    return {**policy(writes_enabled=True, approval_required=True, write_types=["INSERT"],
                     write_tables=["ORDERS"], approval_state_directory=state),
            "KOVA_MCP_APPROVAL_SECRET": "s" * 32}


def expect_refusal(result, target, message: str) -> None:
    assert result.stderr == message.encode() + target.line_end
    assert (result.stdout, result.code) == (b"", 2)


@pytest.mark.parametrize("end", [b"", b"\n", b"\r\n", b"\r\r\n", b"\r", b"\nmore\n"], ids=repr)
def test_a_token_is_one_line(run, approving, end):
    result = run("--issue-approval", stdin=DIGEST.encode() + end, env=approving)
    token = rf"v1\.[0-9]+\.[0-9a-f]{{32}}\.{DIGEST}\.[0-9a-f]{{64}}\n"
    assert re.fullmatch(token.encode(), result.stdout), result
    assert (result.stderr, result.code) == (b"", 0)


def test_no_input(run, target, approving):
    expect_refusal(run("--issue-approval", env=approving), target, NO_DIGEST)
    expect_refusal(run("--issue-approval"), target, NO_DIGEST)


@pytest.mark.parametrize("line", [
    b"\n", b"\r\n", b" " + DIGEST.encode(), DIGEST.encode() + b" \n", DIGEST[1:].encode(),
    DIGEST.encode() + b"0", b"g" + DIGEST[1:].encode(), DIGEST.encode() * 2, b"0" * 1000000,
    b"\n" + DIGEST.encode(),
], ids=lambda line: repr(line[:20]))
def test_a_line_that_is_no_digest(run, target, approving, line):
    expect_refusal(run("--issue-approval", stdin=line, env=approving), target, REFUSED)


def test_only_127_characters_are_read(run, approving):
    line = DIGEST.encode() + b"\r" * 63 + b"\r\n"
    assert run("--issue-approval", stdin=line, env=approving).code == 0
    line = DIGEST.encode() + b"\r" * 62 + b"x\n"
    assert run("--issue-approval", stdin=line, env=approving).code == 2


def test_without_a_policy(run, target):
    expect_refusal(run("--issue-approval", stdin=DIGEST.encode()), target, REFUSED)


def test_the_database_is_not_touched(run, approving, engine):
    result = run("--issue-approval", stdin=DIGEST.encode(), env={**approving, **engine.env})
    assert result.code == 0
    assert engine.calls() == []
