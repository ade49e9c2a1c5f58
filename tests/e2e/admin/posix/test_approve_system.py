"""What kova-admin asks of the system on Linux."""

from __future__ import annotations

import os
import resource
import stat
import subprocess

import pytest

STATEMENT = "update orders set note = 'x' where id = 7"


def test_the_modes_of_what_is_written(desk):
    desk.token(STATEMENT)
    for path in (desk.journal, desk.folder / "token-0"):
        assert stat.S_IMODE(path.stat().st_mode) == 0o600


def test_the_token_alone_goes_to_standard_output(desk):
    terminal = desk.decide("why", "yes", desk.file("s.sql", STATEMENT), stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
    out, err = terminal.process.communicate()
    [line] = desk.decisions()
    assert (out.count(b"\n"), err) == (1, b"")
    assert out.startswith(b"v1.") and f".{line['nonce']}.{line['digest']}.".encode() in out
    assert "v1." not in terminal.text


def test_the_disk_is_full_for_the_journal(desk):
    before = b"".join(b"x" * 99 + b"\n" for _ in range(10))
    desk.journal.write_bytes(before)

    def fill_the_disk() -> None:
        resource.setrlimit(resource.RLIMIT_FSIZE, (1100, 1100))

    place = desk.folder / "token"
    terminal = desk.decide("why", "yes", "--copy-to", place, desk.file("s.sql", STATEMENT),
                           prepare=fill_the_disk)
    assert terminal.process.returncode == 2, terminal.text
    assert "the journal cannot be written" in terminal.text.replace("\n", "")
    assert desk.journal.read_bytes() == before
    assert not place.exists()


def test_the_disk_is_full_for_the_token(desk):
    def fill_the_disk() -> None:
        resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))

    place = desk.folder / "token"
    terminal = desk.decide("why", "yes", "--copy-to", place, desk.file("s.sql", STATEMENT),
                           prepare=fill_the_disk)
    assert terminal.process.returncode == 2, terminal.text
    assert not place.exists() and desk.decisions() == []


def test_nobody_reads_the_token(desk):
    """Standard output that takes nothing: the decision stands in the journal."""
    with open("/dev/full", "wb") as full:
        terminal = desk.decide("why", "yes", desk.file("s.sql", STATEMENT), stdout=full)
    assert terminal.process.returncode == 2
    assert "it is journalled as approved and was not shown" in terminal.text.replace("\n", "")
    assert [line["decision"] for line in desk.decisions()] == ["approved"]


def test_an_audit_file_that_is_a_pipe(desk):
    """It is refused, not waited for."""
    os.mkfifo(desk.audit)
    result = desk.run("approvals", "list")
    assert (result.code, result.stdout) == (2, b"")
    assert b"the audit file is no regular file" in result.stderr


def test_sudo_names_both_users(desk):
    env = {**desk.env, "SUDO_USER": "alice"}
    desk.decide("why", "no", desk.file("s.sql", STATEMENT), env=env)
    [line] = desk.decisions()
    whoami = subprocess.run(["id", "-un"], capture_output=True, text=True, check=True).stdout
    assert line["operator"] == f"alice (as {whoami.strip()})"


def test_the_environment_file_does_not_say_who_decides(desk):
    env_file = desk.env_file(SUDO_USER="mallory")
    desk.decide("why", "no", "--env", env_file, desk.file("s.sql", STATEMENT), env={})
    [line] = desk.decisions()
    whoami = subprocess.run(["id", "-un"], capture_output=True, text=True, check=True).stdout
    assert line["operator"] == whoami.strip()


def test_what_was_typed_before_the_page_counts_for_nothing(desk):
    terminal = desk.approve("-", stdin=subprocess.PIPE)
    terminal.press(b"typed ahead\ryes\r")
    terminal.wait_for("typed ahead")
    assert terminal.process.stdin is not None
    terminal.process.stdin.write(STATEMENT.encode())
    terminal.process.stdin.close()
    terminal.wait_for("Reason:")
    terminal.go_away()
    assert terminal.finish() == 2
    assert desk.decisions() == []


@pytest.mark.parametrize("mode, accepted", [(0o600, True), (0o440, True), (0o604, False),
                                            (0o602, False), (0o644, False)])
def test_who_may_read_a_secret_file(desk, mode, accepted):
    secret = desk.file("secret", "s" * 40)
    secret.chmod(mode)
    result = desk.run("approve", "--secret-file", secret, desk.file("s.sql", STATEMENT))
    expected = b"no terminal" if accepted else b"others than the owner"
    assert result.code == 2 and expected in result.stderr
