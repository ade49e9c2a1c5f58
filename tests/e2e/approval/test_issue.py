"""--issue-approval: a digest from standard input, a token or one line of refusal."""

from __future__ import annotations

import re
import time

import pytest

from harness.approval_tokens import Token
from harness.servers import Result

DIGEST = "0123456789abcdef" * 4
REFUSED = "approval issuance failed: approval request or policy is invalid"
NO_SECRET = "approval issuance failed: approval secret is unavailable or invalid"
NO_DIGEST = "approval digest is required on standard input"
SECRET = "s" * 32


@pytest.fixture
def changed(policy, tmp_path):
    """The environment of an operator whose policy has other values than those below."""
    (tmp_path / "state").mkdir()

    def changed(**values) -> dict:
        named = {"writes_enabled": True, "approval_required": True, "write_types": ["INSERT"],
                 "write_tables": ["ORDERS"], "approval_state_directory": tmp_path / "state"}
        return {**policy(**{**named, **values}), "KOVA_MCP_APPROVAL_SECRET": SECRET}
    return changed


@pytest.fixture
def approving(changed) -> dict:
    """The environment of an operator whose policy requires approvals."""
    return changed()


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


@pytest.mark.parametrize("line, code", [
    (DIGEST.encode() + b"\r" * 63, 0), (DIGEST.encode() * 2, 2), (b"x" * 127, 2),
], ids=["digest", "two digests", "no digest"])
def test_127_characters_are_not_waited_beyond(start, target, approving, line, code):
    """A line of full length is taken although it has no line feed."""
    server = start("--issue-approval", env=approving)
    server.send(line[:127])
    assert server.wait() == code
    assert server.stderr == (REFUSED.encode() + target.line_end if code else b"")


def test_126_characters_may_go_on(start, approving):
    server = start("--issue-approval", env=approving)
    server.send(DIGEST.encode() + b"\r" * 62)
    server.expect_silence(0.5)
    assert server.process.poll() is None
    server.send(b"\n")
    assert server.wait() == 0
    assert server.read_line().startswith(b"v1.")


def test_without_a_policy(run, target):
    expect_refusal(run("--issue-approval", stdin=DIGEST.encode()), target, REFUSED)


def test_the_database_is_not_touched(run, approving, engine):
    result = run("--issue-approval", stdin=DIGEST.encode(), env={**approving, **engine.env})
    assert result.code == 0
    assert engine.calls() == []


def issued(result: Result) -> Token:
    """Reads the token and checks its signature against its fields and the default identity."""
    [line] = result.lines
    version, expiry, nonce, digest, signature = line.decode().split(".")
    token = Token(digest=digest, expiry=expiry, nonce=nonce, secret=SECRET)
    assert (version, signature) == ("v1", token.signature)
    assert (result.stderr, result.code) == (b"", 0)
    return token


@pytest.fixture
def issue(run):
    def issue(env: dict, digest: str = DIGEST) -> Result:
        return run("--issue-approval", stdin=digest.encode() + b"\n", env=env)
    return issue


@pytest.mark.parametrize("digest", [DIGEST, DIGEST.upper(), "aB" * 32, "0" * 64, "f" * 64])
def test_the_digest_is_signed_as_it_was_given(issue, approving, digest):
    assert issued(issue(approving, digest)).digest == digest


@pytest.mark.parametrize("lifetime", [30, 300, 900])
def test_the_expiry_is_the_lifetime_from_now(issue, changed, lifetime):
    env = changed(approval_ttl_seconds=lifetime)
    earliest = int(time.time()) + lifetime
    token = issued(issue(env))
    assert earliest <= int(token.expiry) <= int(time.time()) + lifetime
    assert len(token.text) == 176 and str(int(token.expiry)) == token.expiry


def test_every_token_has_a_nonce_of_its_own(issue, approving, tmp_path):
    nonces = {issued(issue(approving)).nonce for _ in range(5)}
    assert len(nonces) == 5
    assert not any((tmp_path / "state").iterdir())


@pytest.mark.parametrize("length", [32, 63, 64, 65, 300, 5000])
def test_a_secret_of_any_length(issue, approving, length):
    secret = "".join(chr(0x21 + i % 94) for i in range(length))
    [line] = issue({**approving, "KOVA_MCP_APPROVAL_SECRET": secret}).lines
    _, expiry, nonce, digest, signature = line.decode().split(".")
    assert signature == Token(digest, expiry, nonce, secret).signature
    assert signature != Token(digest, expiry, nonce, secret[:-1]).signature


@pytest.mark.parametrize("identity", [
    {"name": "Sales_Read"}, {"client_id": "Desk-Client.2", "database": "Sales"},
    {"name": "n" * 63, "client_id": "c" * 95, "database": "D" * 63},
], ids=str)
def test_the_identity_is_signed(issue, changed, identity):
    [line] = issue(changed(**identity)).lines
    _, expiry, nonce, digest, signature = line.decode().split(".")
    token = Token(digest, expiry, nonce, SECRET)
    assert signature == token.but(**identity).signature != token.signature


def test_the_identity_is_spelled_as_in_the_policy_file(issue, approving):
    issued(issue({**approving, "KOVA_MCP_CLIENT_ID": "DESK-client", "KOVA_MCP_DATABASE": "sales",
                  "KOVA_MCP_USER": "READER"}))


@pytest.mark.parametrize("values", [
    {"approval_required": False}, {"writes_enabled": False}, {"write_types": []},
    {"write_tables": []}, {"version": 2}, {"approval_ttl_seconds": 29}, {"client_id": "a client"},
    {"approval_state_directory": ""}, {"approval_state_directory": "state"},
], ids=str)
def test_a_policy_that_wants_no_approvals(issue, changed, target, values):
    expect_refusal(issue(changed(**values)), target, REFUSED)


def test_a_state_folder_that_is_gone(issue, approving, target, tmp_path):
    (tmp_path / "state").rmdir()
    expect_refusal(issue(approving), target, REFUSED)


@pytest.mark.parametrize("identity", ["KOVA_MCP_CLIENT_ID", "KOVA_MCP_DATABASE", "KOVA_MCP_USER"])
def test_somebody_else_issues_nothing(issue, approving, target, identity):
    expect_refusal(issue({**approving, identity: "other"}), target, REFUSED)
    expect_refusal(issue({**approving, identity: None}), target, REFUSED)


@pytest.mark.parametrize("value", ["1", "true", "TRUE", "Yes", "on"])
def test_the_kill_switch_stops_issuing(issue, approving, target, value):
    expect_refusal(issue({**approving, "KOVA_MCP_DISABLE_WRITES": value}), target, REFUSED)


@pytest.mark.parametrize("value", ["", "0", "01", "true ", "enable", "false"], ids=repr)
def test_what_is_no_kill_switch(issue, approving, value):
    issued(issue({**approving, "KOVA_MCP_DISABLE_WRITES": value}))


@pytest.mark.parametrize("secret", [None, "", "s" * 31], ids=["none", "empty", "31"])
def test_a_secret_that_is_too_short(issue, approving, changed, target, secret):
    missing = {"KOVA_MCP_APPROVAL_SECRET": secret}
    expect_refusal(issue({**approving, **missing}), target, NO_SECRET)
    expect_refusal(issue({**approving, **missing}, DIGEST[1:]), target, REFUSED)
    expect_refusal(issue({**changed(approval_required=False), **missing}), target, REFUSED)


def test_other_tools_do_not_matter(issue, changed):
    issued(issue(changed(reads_enabled=False, provider_reads_enabled=False, allowed_tables=[])))


def test_a_byte_order_mark_is_no_digit(run, approving, target):
    result = run("--issue-approval", stdin=b"\xef\xbb\xbf" + DIGEST.encode(), env=approving)
    expect_refusal(result, target, REFUSED)
