"""kova-admin approve: what an operator sees, decides and gets."""

from __future__ import annotations

import json
import os
import signal
from datetime import datetime

import pytest

from harness.approval_tokens import SECRET, digest_of, token_for
from harness.operator_desk import CONFIRMATION, REASON
from harness.write_calls import SPENT, Writes, accepted, token_refused

STATEMENT = "update orders set note = 'x' where id = 7"
CANONICAL = "UPDATE ORDERS SET NOTE = 'x' WHERE ID = 7;"
CLOSED = "the terminal closed or was interrupted: nothing was decided"


def error(result) -> str:
    text = result.stderr.decode().replace("\r", "")
    assert text.startswith("kova-admin: ") and text.endswith("\n") and text.count("\n") == 1, text
    return text.removeprefix("kova-admin: ").removesuffix("\n")


def refused(desk, message: str, *arguments, **options) -> None:
    """One line, exit code 2, and nothing written."""
    result = desk.run("approve", *arguments, **options)
    assert (result.code, result.stdout) == (2, b"")
    assert error(result) == message
    assert desk.decisions() == []


def test_a_token_is_accepted_once(desk, served: Writes):
    served.guarded()
    desk.policy(approval_state_directory=served.state)
    token = desk.token(STATEMENT)
    accepted(served(STATEMENT.upper().replace("'X'", "'x'"), token), CANONICAL, table="ORDERS")
    token_refused(served(STATEMENT, token), SPENT, table="ORDERS")


def test_the_journal_has_the_decision(desk):
    token = desk.token(STATEMENT)
    _, expiry, nonce, digest, _ = token.split(".")
    [line] = desk.decisions()
    assert digest == line["digest"] == digest_of(CANONICAL)
    assert (line["nonce"], line["statement"], line["reason"]) == (nonce, CANONICAL, "ticket 7")
    assert (line["decision"], line["type"], line["table"]) == ("approved", "UPDATE", "ORDERS")
    assert (line["policy"], line["client_id"], line["database"]) == (
        "sales_read", "desk-client", "SALES")
    assert line["operator"] and line["host"]
    decided, expires = (datetime.fromisoformat(line[name].replace("Z", "+00:00"))
                        for name in ("timestamp", "expires_at"))
    # The time counts from the decision, in whole seconds.
    assert expires.timestamp() == int(expiry)
    assert 299 < expires.timestamp() - decided.timestamp() <= 301
    assert SECRET not in desk.journal.read_text() and token not in desk.journal.read_text()


def test_the_page_shows_everything(desk):
    terminal = desk.decide("why", "no", desk.file("s.sql", STATEMENT))
    shown = terminal.text.replace("\n", "")
    for text in ("sales_read", "desk-client", "SALES", "UPDATE", "ORDERS", CANONICAL, STATEMENT,
                 digest_of(CANONICAL), "300 seconds", desk.target.path(desk.folder)):
        assert text in shown, (text, terminal.text)
    assert SECRET not in terminal.text


@pytest.mark.parametrize("answer", ["no", "", "y", "YES", "Yes", "yes ", " yes", "yes!", "yesyes"])
def test_anything_but_yes_declines(desk, answer):
    place = desk.folder / "token"
    terminal = desk.decide("not today", answer, "--copy-to", place, desk.file("s.sql", STATEMENT))
    assert terminal.process.returncode == 1, terminal.text
    [line] = desk.decisions()
    assert (line["decision"], line["reason"], line["nonce"], line["expires_at"]) == (
        "declined", "not today", None, None)
    assert not place.exists()


@pytest.mark.parametrize("reason", ["", "   "])
def test_an_empty_reason_is_refused(desk, reason):
    terminal = desk.approve(desk.file("s.sql", STATEMENT))
    terminal.wait_for(REASON)
    terminal.type(reason)
    assert terminal.finish() == 2
    assert "a reason is required: nothing was decided" in terminal.text
    assert desk.decisions() == []


def test_the_interrupt_key_decides_nothing(desk):
    terminal = desk.approve(desk.file("s.sql", STATEMENT))
    terminal.wait_for(REASON)
    terminal.type("ticket 7")
    terminal.wait_for(CONFIRMATION)
    terminal.interrupt()
    assert terminal.finish() == 2
    assert CLOSED in terminal.text.replace("\n", "")
    assert desk.decisions() == []


@pytest.mark.parametrize("prompt", [REASON, CONFIRMATION])
def test_a_terminal_that_closes_half_way(desk, prompt):
    terminal = desk.approve(desk.file("s.sql", STATEMENT))
    terminal.wait_for(REASON)
    if prompt == CONFIRMATION:
        terminal.type("ticket 7")
        terminal.wait_for(CONFIRMATION)
    terminal.go_away()
    # Wine's own process takes the signal by which Linux says that a terminal has closed.
    assert terminal.finish() == (-signal.SIGHUP if desk.target.windows else 2)
    assert desk.decisions() == []


def test_without_a_terminal(desk):
    refused(desk, "there is no terminal to ask on", desk.file("s.sql", STATEMENT))


def test_the_reason_is_escaped_in_the_journal(desk):
    source = desk.file("s.sql", STATEMENT)
    assert desk.decide("Gr\u00fc\u00dfe \"x\" \\", "no", source).process.returncode == 1
    assert desk.decisions()[0]["reason"] == "Gr\u00fc\u00dfe \"x\" \\"


def test_without_the_statement(desk):
    desk.token(STATEMENT, "--without-statement")
    [line] = desk.decisions()
    assert (line["statement"], line["digest"]) == (None, digest_of(CANONICAL))


def test_the_digest_must_match(desk):
    source = desk.file("s.sql", STATEMENT)
    other = digest_of("DELETE FROM T;")
    refused(desk, f"the digest differs: that of this statement is {digest_of(CANONICAL)}",
            "--digest", other, source)
    desk.token(STATEMENT, "--digest", digest_of(CANONICAL).upper())


def test_the_file_for_the_token_must_be_new(desk):
    place = desk.file("token", "mine")
    refused(desk, f"{desk.target.path(place)}: the file for the token exists already or cannot be "
            "made", "--copy-to", place, desk.file("s.sql", STATEMENT))
    assert place.read_text() == "mine"


def test_a_journal_that_cannot_be_written(desk):
    place = desk.folder / "token"
    terminal = desk.decide("why", "yes", "--journal", desk.folder / "gone" / "journal",
                           "--copy-to", place, desk.file("s.sql", STATEMENT))
    assert terminal.process.returncode == 2
    assert "the journal cannot be written" in terminal.text.replace("\n", "")
    assert not place.exists() and "v1." not in terminal.text


def test_a_journal_whose_last_line_has_no_end(desk):
    """A further line would be joined to it, and both were lost."""
    desk.token(STATEMENT)
    cut = desk.journal.read_bytes()[:-1]
    desk.journal.write_bytes(cut)
    terminal = desk.approve(desk.file("s.sql", STATEMENT))
    assert terminal.finish() == 2
    shown = terminal.text.replace("\n", "")
    assert "the last line of the journal has no end" in shown and REASON not in shown
    assert desk.journal.read_bytes() == cut


def test_no_journal_is_named(desk):
    refused(desk, "no journal is named: --journal FILE or KOVA_ADMIN_JOURNAL",
            desk.file("s.sql", STATEMENT), env={**desk.env, "KOVA_ADMIN_JOURNAL": None})


@pytest.mark.parametrize("secret", [None, "s" * 31])
def test_no_secret(desk, secret):
    refused(desk, "approval secret is unavailable or invalid", desk.file("s.sql", STATEMENT),
            env={**desk.env, "KOVA_MCP_APPROVAL_SECRET": secret})


def test_the_secret_file_overrides_the_environment(desk, served: Writes):
    served.guarded()
    desk.policy(approval_state_directory=served.state)
    secret = desk.file("secret", SECRET + "\n")
    secret.chmod(0o640)
    token = desk.token(STATEMENT, "--secret-file", secret,
                       env={**desk.env, "KOVA_MCP_APPROVAL_SECRET": "o" * 40})
    accepted(served(STATEMENT, token), CANONICAL, table="ORDERS")


def test_a_secret_file_that_others_may_read(desk):
    secret = desk.file("secret", SECRET)
    secret.chmod(0o644)
    refused(desk, f"{desk.target.path(secret)}: others than the owner and the group may use the "
            "secret file", "--secret-file", secret, desk.file("s.sql", STATEMENT))


def test_the_environment_file_alone_counts(desk):
    env_file = desk.env_file()
    own = {"KOVA_MCP_DISABLE_WRITES": "1", "KOVA_MCP_POLICY": "nowhere",
           "KOVA_ADMIN_JOURNAL": desk.journal}
    desk.token(STATEMENT, "--env", env_file, env=own)
    refused_env = desk.env_file(KOVA_MCP_DISABLE_WRITES="1")
    result = desk.run("approve", "--show", "--env", refused_env, desk.file("s.sql", STATEMENT))
    assert error(result) == "MCP writes are disabled by policy or kill switch"


def test_an_environment_file_with_a_value_over_two_lines(desk):
    env_file = desk.file("bad.env",
                         "KOVA_MCP_DATABASE=SALES\nKOVA_MCP_APPROVAL_SECRET='abc\ndef'\n")
    refused(desk, f"{desk.target.path(env_file)}: line 2, column 26: a quote is left open or the "
            "value continues on the next line", "--env", env_file, desk.file("s.sql", STATEMENT))


def test_a_policy_that_is_refused(desk):
    refused(desk, "MCP launch identity does not match named policy",
            desk.file("s.sql", STATEMENT), env={**desk.env, "KOVA_MCP_USER": "other"})
    desk.policy(approval_required=False)
    refused(desk, "approval request or policy is invalid", desk.file("s.sql", STATEMENT))


@pytest.mark.parametrize("content, message", [
    (b"delete from t\0 where a = 1", "a NUL byte at line 1, column 14"),
    (b"delete from t where a = '\xff'", "the text is not UTF-8 at line 1, column 26"),
    (b'{"sql":"delete from t\\u0000"}', "the statement holds a NUL (\\u0000)"),
    (b'{"jsonrpc":"2.0","id":1,"result":{}}',
     "the server's answer holds no statement: its digest goes into --digest"),
    (b"x" * 1048577, "the file is larger than 1048576 bytes"),
])
def test_hostile_files(desk, content, message):
    result = desk.run("approve", desk.file("s.sql", content))
    assert (result.code, result.stdout) == (2, b"")
    assert error(result).endswith(message)
    assert desk.decisions() == []


def test_a_statement_that_would_repaint_the_terminal(desk):
    hostile = "update t set a = '\x1b[2J\x1b[H\u202e\u200b\x9b1A\r\x08\x07' where b = 1"
    terminal = desk.decide("why", "no", desk.file("s.sql", hostile))
    shown = terminal.text.replace("\n", "")
    assert "\\x1B[2J\\x1B[H\\u{202E}\\u{200B}\\u{9B}1A\\r\\x08\\x07" in shown
    for character in "\u202e\u200b\x9b\x08\x07":
        assert character not in terminal.text
    if not desk.target.windows:
        assert b"\x1b" not in terminal.transcript


def test_the_largest_statement_is_shown_whole(desk):
    head, tail = "UPDATE T SET A = '", "END' WHERE B = 1"
    statement = head + "".join(f"{i:07};" for i in range(4090))
    statement += "x" * (32767 - len(statement) - len(tail)) + tail
    # Wine's console draws what its window shows, not what has scrolled out of it meanwhile.
    terminal = desk.decide("why", "no", desk.file("s.sql", statement), rows=1200)
    assert terminal.process.returncode == 1
    [line] = desk.decisions()
    assert line["statement"] == statement + ";"
    rows = [row.partition(" | ")[2] for row in terminal.text.split("\n") if " | " in row]
    shown, expected = "".join(rows), statement + ";"
    if desk.target.windows:  # a console draws no blanks at the end of a row
        shown, expected = shown.replace(" ", ""), expected.replace(" ", "")
    assert expected in shown
    assert "warning long at " in terminal.text


def test_two_approvals_at_once(desk):
    source = desk.file("s.sql", STATEMENT)
    first, second = desk.approve(source), desk.approve(source)
    for terminal in (first, second):
        terminal.wait_for(REASON)
        terminal.type("ticket 7")
        terminal.wait_for(CONFIRMATION)
    for terminal in (first, second):
        terminal.type("yes")
    assert (first.finish(), second.finish()) == (0, 0)
    lines = desk.decisions()
    assert len({line["nonce"] for line in lines}) == len(lines) == 2


def test_show_needs_neither_terminal_nor_secret(desk):
    env = {**desk.env, "KOVA_MCP_APPROVAL_SECRET": None, "KOVA_ADMIN_JOURNAL": None}
    result = desk.run("approve", "--show", "--json", desk.file("s.sql", "delete\nfrom t"), env=env)
    assert (result.code, result.stderr) == (0, b"")
    assert json.loads(result.stdout) == {
        "type": "DELETE", "table": "T", "canonical": "DELETE FROM T;",
        "digest": digest_of("DELETE FROM T;"),
        "warnings": [{"name": "no-where", "line": 1, "column": 1}]}


def test_a_message_on_standard_input(desk):
    message = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "tools/call", "params": {
        "name": "kova_execute", "arguments": {"sql": STATEMENT}}}) + "\n"
    result = desk.run("approve", "--show", "--json", "-", stdin=message.encode())
    assert json.loads(result.stdout)["canonical"] == CANONICAL


@pytest.mark.parametrize("arguments", [[], ["--json", "s.sql"], ["--wrong", "s.sql"], ["a", "b"]])
def test_a_wrong_command_line(desk, arguments):
    result = desk.run("approve", *arguments)
    assert (result.code, result.stdout) == (2, b"")
    error(result)


@pytest.mark.parametrize("option", ["--digest", "--env", "--journal", "--secret-file",
                                    "--copy-to"])
def test_an_empty_value_is_not_an_option_left_out(desk, option):
    """A script whose variable is empty must not sign without what it asked for."""
    refused(desk, f"{option}: the value is empty", option, "", desk.file("s.sql", STATEMENT))


@pytest.mark.parametrize("arguments", [
    ["help", "approve"], ["approve", "--help"], ["help", "approvals", "list"],
    ["help", "approvals", "clean"], ["help", "doctor"], ["help", "init"], ["help", "serve"],
    ["help"], ["--help"]])
def test_help(desk, arguments):
    result = desk.run(*arguments)
    assert (result.code, result.stderr) == (0, b"")
    assert b"Usage: kova-admin" in result.stdout


def test_list_follows_an_approval(desk, served: Writes):
    served.guarded()
    desk.policy(approval_state_directory=served.state)

    def listed() -> "list[tuple[str, str | None]]":
        result = desk.run("approvals", "list", "--json")
        assert result.code == 0, result.stderr
        return [(one["state"], one["nonce"]) for one in json.loads(result.stdout)["approvals"]]

    assert listed() == []
    token = desk.token(STATEMENT)
    nonce = token.split(".")[2]
    assert listed() == [("pending", nonce)]
    accepted(served(STATEMENT, token), CANONICAL, table="ORDERS")
    assert listed() == [("used", nonce)]
    desk.decide("why", "no", desk.file("s.sql", STATEMENT))
    assert listed() == [("used", nonce), ("declined", None)]


ENTRY = ["state", "nonce", "digest", "table", "type", "operator", "decided_at", "expires_at",
         "used_at"]


def test_the_shape_of_the_list(desk):
    """What does not apply is null; the use is the marker's time; no secret is needed."""
    nonce = desk.token(STATEMENT).split(".")[2]
    desk.decide("why", "no", desk.file("s.sql", STATEMENT))
    marker = desk.state / f"{nonce}.used"
    marker.touch()
    os.utime(marker, (0, 1_700_000_000))
    (desk.state / ("0" * 32 + ".used")).touch()
    result = desk.run("approvals", "list", "--json",
                      env={**desk.env, "KOVA_MCP_APPROVAL_SECRET": None})
    assert (result.code, result.stderr, result.stdout.count(b"\n")) == (1, b"", 1)
    document = json.loads(result.stdout)
    assert list(document) == ["approvals"]
    used, declined, unjournaled = document["approvals"]
    assert list(used) == list(declined) == list(unjournaled) == ENTRY
    lines = desk.decisions()
    for entry, line in ((used, lines[0]), (declined, lines[1])):
        assert entry["decided_at"] == line["timestamp"]
        assert {name: entry[name] for name in ENTRY[1:6]} == {name: line[name]
                                                             for name in ENTRY[1:6]}
        assert entry["expires_at"] == line["expires_at"]
    assert (used["state"], used["used_at"]) == ("used", "2023-11-14T22:13:20.000Z")
    assert (declined["state"], declined["used_at"]) == ("declined", None)
    assert (unjournaled["state"], unjournaled["nonce"]) == ("unjournaled", "0" * 32)
    assert [unjournaled[name] for name in ENTRY[2:8]] == [None] * 6


def test_a_token_that_was_not_used_expires(desk):
    desk.token(STATEMENT)
    [line] = desk.decisions()
    text = desk.journal.read_text()
    desk.journal.write_bytes(
        text.replace(line["expires_at"], "2020-01-01T00:00:00.000Z").encode())
    [one] = json.loads(desk.run("approvals", "list", "--json").stdout)["approvals"]
    assert (one["state"], one["used_at"]) == ("expired", None)


def test_a_use_without_a_journal_line_is_an_alarm(desk, served: Writes):
    served.guarded()
    desk.policy(approval_state_directory=served.state)
    token = token_for(CANONICAL)
    accepted(served(STATEMENT, token.text), CANONICAL, table="ORDERS")
    result = desk.run("approvals", "list", "--json")
    [one] = json.loads(result.stdout)["approvals"]
    assert (result.code, one["state"], one["nonce"]) == (1, "unjournaled", token.nonce)
    assert one["used_at"] and one["digest"] is None and one["operator"] is None
    plain = desk.run("approvals", "list")
    assert plain.code == 1 and b"ALARM" in plain.stdout


def test_clean_removes_what_expired_long_ago(desk):
    token = desk.token(STATEMENT)
    nonce = token.split(".")[2]
    for name in (nonce, "0" * 32):
        (desk.state / f"{name}.used").touch()
    assert desk.run("approvals", "clean").stdout == b""
    text = desk.journal.read_text()
    [line] = desk.decisions()
    desk.journal.write_text(text.replace(line["expires_at"], "2020-01-01T00:00:00.000Z"))
    for arguments, left in ((["--dry-run"], 2), ([], 1)):
        result = desk.run("approvals", "clean", *arguments)
        assert (result.code, result.stdout) == (0, f"{nonce}.used\n".encode())
        assert len(list(desk.state.iterdir())) == left
    assert desk.run("approvals", "clean").stdout == b""
    assert [path.name for path in desk.state.iterdir()] == ["0" * 32 + ".used"]


def test_a_folder_in_the_place_of_the_audit_file(desk):
    """Nothing can be said of uses then, not that there is none."""
    desk.audit.mkdir()
    result = desk.run("approvals", "list")
    assert (result.code, result.stdout) == (2, b"")
    assert error(result) == f"{desk.target.path(desk.audit)}: the audit file is no regular file"


@pytest.mark.parametrize("command", ["list", "clean"])
@pytest.mark.parametrize("policy", [True, False])
def test_a_policy_without_approvals(desk, command, policy):
    desk.policy(approval_required=False, approval_state_directory="")
    env = {**desk.env} if policy else {"KOVA_ADMIN_JOURNAL": desk.journal}
    result = desk.run("approvals", command, env=env)
    assert (result.code, result.stdout) == (2, b"")
    assert error(result) == "the policy names no approval_state_directory"


@pytest.mark.parametrize("command", ["list", "clean"])
def test_a_journal_that_is_none(desk, command):
    desk.journal.write_text("{}\n")
    result = desk.run("approvals", command)
    assert (result.code, result.stdout) == (2, b"")
    assert error(result) == (f"{desk.target.path(desk.journal)}: line 1, column 1: the member "
                             "timestamp is missing")
