"""A token allows one write, however often it is presented; none when no marker can be made."""

from __future__ import annotations

import errno
import json
from pathlib import Path
from typing import Iterator

import pytest

from harness import small_disks
from harness.approval_tokens import SECRET, Token, token_for
from harness.messages import WORKER_FAILED, call, tool_error_reply, tool_success_reply
from harness.scripted_library import Script, ScriptedLibrary
from harness.servers import Server
from harness.targets import Target
from harness.tool_calls import result_json
from harness.waiting import TIMEOUT, wait_until
from harness.write_calls import SPENT, TOOL, WRITES, Writes, token_refused, write_arguments

STATEMENT = "DELETE FROM T;"


@pytest.fixture
def state(tmp_path: Path) -> Path:
    folder = tmp_path / "state"
    folder.mkdir()
    return folder


@pytest.fixture
def launch(policy, engine: ScriptedLibrary, state: Path) -> dict:
    return {**engine.env, "KOVA_MCP_APPROVAL_SECRET": SECRET,
            **policy(**WRITES, approval_required=True, approval_state_directory=state)}


# many processes at once


@pytest.fixture
def crowd(target: Target) -> tuple[int, int]:
    """How many processes, and how often."""
    return (6, 2) if target.windows else (12, 5)


@pytest.fixture
def present_at_once(start, launch):
    def present_at_once(tokens: list[str]) -> list[bytes]:
        """Starts one process for each token and lets them all read their line's end at once."""
        servers = [start("--tool-worker", env=launch) for _ in tokens]
        return replies_of(servers, tokens)
    return present_at_once


def replies_of(servers: list[Server], tokens: list[str]) -> list[bytes]:
    lines = [call(1, TOOL, write_arguments(STATEMENT, token)) for token in tokens]
    for server, message in zip(servers, lines):
        assert message.endswith(b"\n")
        server.send(message[:-1])
    wait_until(lambda: all(server.has_read_its_input() for server in servers), TIMEOUT,
               "processes that have read all but the end of their line")
    for server in servers:
        server.send(b"\n")
    return [server.finish().stdout for server in servers]


def expect_one_success(answers: list[bytes], engine: ScriptedLibrary, state: Path,
                       token: Token) -> None:
    done = tool_success_reply("1", result_json())
    spent = tool_error_reply("1", SPENT)
    assert sorted(answers) == sorted([done] + [spent] * (len(answers) - 1))
    assert engine.queries() == [STATEMENT.encode()]
    assert [path.name for path in state.iterdir()] == [token.nonce + ".used"]


def test_one_token_presented_at_once(present_at_once, engine, state, crowd):
    count, rounds = crowd
    for _ in range(rounds):
        token = token_for(STATEMENT)
        answers = present_at_once([token.text] * count)
        expect_one_success(answers, engine, state, token)
        engine.clear()
        (state / f"{token.nonce}.used").unlink()


def test_tokens_of_one_nonce_presented_at_once(present_at_once, engine, state, crowd):
    count, _ = crowd
    first = token_for(STATEMENT)
    tokens = [first.but(expiry=str(int(first.expiry) - i)).text for i in range(count)]
    assert len(set(tokens)) == count
    expect_one_success(present_at_once(tokens), engine, state, first)


def test_different_tokens_presented_at_once(present_at_once, engine, state):
    tokens = [token_for(STATEMENT) for _ in range(4)]
    answers = present_at_once([token.text for token in tokens])
    assert answers == [tool_success_reply("1", result_json())] * 4
    assert engine.queries() == [STATEMENT.encode()] * 4
    assert {path.name for path in state.iterdir()} == {f"{token.nonce}.used" for token in tokens}


# a process that ends between the marker and the statement


@pytest.fixture
def writes(servers, engine, tmp_path) -> Writes:
    folder = tmp_path / "writes"
    folder.mkdir()
    return Writes(servers, engine, folder).guarded()


@pytest.mark.parametrize("operation", ["Exec", "StartVantreo", "NewObject"])
@pytest.mark.parametrize("end", [{"crash": True}, {"exit_code": 3}], ids=["crash", "exit"])
def test_a_process_that_ends_has_spent_the_token(writes, operation, end):
    token = token_for(STATEMENT)
    text = STATEMENT if operation == "Exec" else None
    writes.calls.script(Script().on(operation, text, **end))
    outcome = writes(STATEMENT, token.text)
    assert outcome.reply == WORKER_FAILED and outcome.records == []
    assert outcome.statements == ([STATEMENT.encode()] if operation == "Exec" else [])
    assert writes.markers() == {token.nonce + ".used"}
    writes.calls.script(Script())
    token_refused(writes(STATEMENT, token.text), SPENT)


# a marker that cannot be made


class Waiting:
    """A server that has loaded its policy and takes a write in its own process.

    An id of escapes only is too long for the reader of messages, which then hands the call to no
    process of its own. So what happens to the folder happens after the policy was found valid.
    """

    ID = "\\u0061" * 20

    def __init__(self, server: Server, engine: ScriptedLibrary) -> None:
        self.server = server
        self.engine = engine
        self._count = 0
        server.initialize()

    def present(self, token: str) -> bytes:
        params = json.dumps({"name": TOOL, "arguments": write_arguments(STATEMENT, token)})
        self._count += 1
        request_id = self.ID + "b" * self._count
        return self.server.ask(b'{"jsonrpc":"2.0","id":"%s","method":"tools/call","params":%s}\n'
                               % (request_id.encode(), params.encode()))

    @property
    def raw_id(self) -> str:
        """The id of the last call as it stands in the reply."""
        return '"%s"' % ("a" * 20 + "b" * self._count)

    def expect_spent(self, token: str) -> None:
        before = self.engine.calls()
        assert self.present(token) == tool_error_reply(self.raw_id, SPENT)
        assert self.engine.calls() == before

    def expect_success(self, token: str) -> None:
        assert self.present(token) == tool_success_reply(self.raw_id, result_json())


@pytest.fixture
def waiting(start, launch, engine) -> Waiting:
    return Waiting(start(env=launch), engine)


def test_a_server_that_waits_writes(waiting, engine, state):
    token = token_for(STATEMENT)
    waiting.expect_success(token.text)
    assert [path.name for path in state.iterdir()] == [token.nonce + ".used"]
    waiting.expect_spent(token.text)
    assert engine.queries() == [STATEMENT.encode()]


def test_a_folder_that_is_gone(waiting, state):
    state.rmdir()
    waiting.expect_spent(token_for(STATEMENT).text)
    assert not state.exists()


def test_a_folder_that_was_moved(waiting, state):
    token = token_for(STATEMENT)
    state.rename(state.parent / "elsewhere")
    waiting.expect_spent(token.text)
    (state.parent / "elsewhere").rename(state)
    waiting.expect_success(token.text)


def test_a_folder_that_became_a_file(waiting, state):
    state.rmdir()
    state.write_text("", encoding="ascii")
    waiting.expect_spent(token_for(STATEMENT).text)
    assert state.read_bytes() == b""


def test_a_folder_that_became_a_link_to_nothing(waiting, state):
    state.rmdir()
    state.symlink_to(state.parent / "nothing")
    waiting.expect_spent(token_for(STATEMENT).text)
    assert not (state.parent / "nothing").exists()


def test_a_name_that_is_a_folder(waiting, state):
    token = token_for(STATEMENT)
    (state / f"{token.nonce}.used").mkdir()
    waiting.expect_spent(token.text)


def test_a_name_that_is_a_file(waiting, state):
    token = token_for(STATEMENT)
    (state / f"{token.nonce}.used").write_text("kept", encoding="ascii")
    waiting.expect_spent(token.text)
    assert (state / f"{token.nonce}.used").read_text(encoding="ascii") == "kept"


@pytest.mark.parametrize("there", [True, False], ids=["a file", "nothing"])
def test_a_name_that_is_a_link(waiting, state, tmp_path, there):
    token = token_for(STATEMENT)
    if there:
        (tmp_path / "aim").touch()
    (state / f"{token.nonce}.used").symlink_to(tmp_path / "aim")
    waiting.expect_spent(token.text)
    assert (tmp_path / "aim").exists() == there


@pytest.fixture
def small_disk(state: Path) -> Iterator[Path]:
    """The folder as a mounted file system with room for a few files."""
    with small_disks.small_disk(state, "nr_inodes=8,size=64k"):
        yield state


def fill(folder: Path) -> list[Path]:
    """Creates files until the file system is full."""
    made = []
    while True:
        try:
            (folder / f"filler-{len(made)}").touch()
        except OSError as failure:
            assert failure.errno == errno.ENOSPC and made
            return made
        made.append(folder / f"filler-{len(made)}")


def test_a_full_disk(waiting, small_disk, engine):
    """The server looks the folder up at each call, so it sees the file system mounted there."""
    token, later = token_for(STATEMENT), token_for(STATEMENT)
    waiting.expect_success(token.text)
    fillers = fill(small_disk)
    waiting.expect_spent(later.text)
    assert engine.queries() == [STATEMENT.encode()]
    for filler in fillers:
        filler.unlink()
    waiting.expect_success(later.text)


def test_a_disk_that_may_not_be_written(waiting, small_disk, engine):
    small_disks.remount(small_disk, "ro")
    waiting.expect_spent(token_for(STATEMENT).text)
    assert engine.calls() == []


@pytest.mark.parametrize("how", ["gone", "a file"])
def test_a_folder_that_is_gone_at_the_start(writes, how):
    """Each call loads the policy again; without the folder the policy is not valid."""
    writes.state.rmdir()
    if how == "a file":
        writes.state.touch()
    writes(STATEMENT, token_for(STATEMENT).text).is_error(
        "approval state directory does not exist", decision="deny")
