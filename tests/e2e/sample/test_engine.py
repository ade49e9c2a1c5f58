"""Starting and stopping the sample engine, and its sessions side by side."""

from __future__ import annotations

import errno
import signal
import socket
import sqlite3
import subprocess
import threading
import time
from contextlib import closing
from pathlib import Path
from typing import Callable

import pytest

from harness.sample_engine import ENDLESS, MORE, Engine, Session, read_database
from harness.targets import Target
from harness.sockets import has_read
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.sample_engine


def run_engine(executable: Path, *arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run([str(executable), *arguments], capture_output=True, text=True,
                          timeout=TIMEOUT, stdin=subprocess.DEVNULL, check=False)


def test_the_ready_line_names_the_port(engine: Engine) -> None:
    assert engine.ready_line == f"kova-sample-engine ready on 127.0.0.1:{engine.port}\n"
    engine.connect().close()


def test_it_listens_on_the_loopback_address_only(engine: Engine) -> None:
    with socket.socket() as other:
        assert other.connect_ex(("127.0.0.2", engine.port)) == errno.ECONNREFUSED


def test_help_is_one_screen(executable: Path) -> None:
    result = run_engine(executable, "--help")
    assert (result.returncode, result.stderr) == (0, "")
    lines = result.stdout.splitlines()
    assert len(lines) <= 24 and all(len(line) <= 90 for line in lines)
    for option in ("--data", "--users", "--port", "--connections", "--timeout", "--log", "--help"):
        assert any(line.strip().startswith(option) for line in lines), option


@pytest.mark.parametrize("arguments, message", [
    (["--nonsense"], "unknown option --nonsense"),
    (["--port"], "missing value after --port"),
    (["--port", "65536"], "--port takes a number from 0 to 65535"),
    (["--port", "-1"], "--port takes a number from 0 to 65535"),
    (["--port", "7x"], "--port takes a number from 0 to 65535"),
    (["--port", ""], "--port takes a number from 0 to 65535"),
    (["--connections", "0"], "--connections takes a number from 1 to 1000"),
    (["--connections", "1001"], "--connections takes a number from 1 to 1000"),
    (["--timeout", "0"], "--timeout takes a number of seconds from 1 to 3600"),
    (["--log=yes"], "unknown option --log=yes"),
    (["-x"], "unknown option -x"),
    (["stray"], "unexpected argument stray"),
])
def test_bad_arguments_are_one_line(executable: Path, tmp_path: Path, arguments: list[str],
                                    message: str) -> None:
    users = tmp_path / "users"
    users.write_text("a:b\n")
    result = run_engine(executable, "--data", str(tmp_path), "--users", str(users), *arguments)
    assert result.returncode == 2
    assert result.stderr == f"kova-sample-engine: {message}; try --help\n"
    assert result.stdout == ""


@pytest.mark.parametrize("given", [[], ["--data", "."], ["--users", "x"]])
def test_data_and_users_are_needed(executable: Path, given: list[str]) -> None:
    result = run_engine(executable, *given)
    assert result.returncode == 2
    assert result.stderr == "kova-sample-engine: --data and --users are needed; try --help\n"


@pytest.mark.parametrize("content", [
    "nobody", ":password", "user:", "a,b:c", "a;b:c", "u" * 64 + ":p", "u:" + "p" * 256,
    "a:b\na:c", "a:b\n \n",
])
def test_a_malformed_users_file_is_one_line(executable: Path, tmp_path: Path,
                                            content: str) -> None:
    users = tmp_path / "users"
    users.write_text(content)
    result = run_engine(executable, "--data", str(tmp_path), "--users", str(users))
    line = content.count("\n", 0, len(content.rstrip("\n"))) + 1
    assert result.returncode == 2
    assert result.stderr == (f"kova-sample-engine: users file {users}, line {line}: "
                             "not USER:PASSWORD, or a user given twice\n")


def test_what_cannot_be_served_is_one_line(executable: Path, tmp_path: Path,
                                           engine: Engine) -> None:
    missing = run_engine(executable, "--data", str(tmp_path), "--users", "/nonexistent")
    assert (missing.returncode, missing.stderr) == (
        2, "kova-sample-engine: cannot read the users file /nonexistent\n")
    no_data = run_engine(executable, "--data", "/nonexistent", "--users", str(engine.users))
    assert (no_data.returncode, no_data.stderr) == (
        1, "kova-sample-engine: cannot read /nonexistent: No such file or directory\n")
    taken = run_engine(executable, "--data", str(engine.data), "--users", str(engine.users),
                       "--port", str(engine.port))
    assert (taken.returncode, taken.stderr) == (
        1, f"kova-sample-engine: cannot listen on 127.0.0.1:{engine.port}: "
           "Address already in use\n")


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_stops_it_in_the_middle_of_everything(start_engine: Callable[..., Engine],
                                                       how: int) -> None:
    engine = start_engine()
    idle, half, greeted, busy = (engine.connect() for _ in range(4))
    half.sendall(b"\0\0")
    Session(greeted).greet()
    session = Session(busy).greet().login()
    before = engine.cpu_seconds()
    session.start(f"SELECT COUNT(*) FROM {ENDLESS};")
    engine.wait_until_busy(before)
    started = time.monotonic()
    assert engine.stop(how) == 0
    assert time.monotonic() - started < 5
    for connection in (idle, half, greeted):
        assert Session(connection).at_end()
        connection.close()
    busy.close()
    assert engine.logged("COUNT(*)", "interrupted")


def test_it_can_be_started_again_on_its_port(start_engine: Callable[..., Engine]) -> None:
    first = start_engine()
    with first.session():
        first.stop()
    second = start_engine("--port", str(first.port))
    assert second.port == first.port
    with second.session():
        pass


def test_no_thread_outlives_its_client(engine: Engine) -> None:
    for _ in range(5):
        with engine.session() as session:
            assert session.run("list table;").success
            assert not engine.serves_nobody()
    wait_until(engine.serves_nobody)


def test_sessions_see_what_others_committed(engine: Engine) -> None:
    with engine.session() as writer, engine.session() as reader:
        assert reader.all_rows("SELECT COUNT(*) FROM ITEMS;") == [["3"]]
        assert writer.run("DELETE FROM ITEMS WHERE ID = 3;").status == "1 row deleted"
        assert reader.all_rows("SELECT COUNT(*) FROM ITEMS;") == [["2"]]


def test_a_half_read_result_blocks_no_writer(engine: Engine) -> None:
    with engine.session() as reader, engine.session() as writer:
        assert reader.run("SELECT A.ID FROM ITEMS A, ITEMS B, ITEMS C, ITEMS D, ITEMS E;"
                          ).end == MORE
        assert writer.run("UPDATE ITEMS SET PRICE = 0;").status == "3 rows updated"


def test_a_busy_database_is_waited_for(engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "shop.db", isolation_level=None)) as other:
        with engine.session() as session:
            assert session.run("list table;").success
            other.execute("BEGIN IMMEDIATE")
            session.start("DELETE FROM ITEMS;")
            wait_until(lambda: has_read(session.socket))
            with engine.session() as reader:
                assert reader.all_rows("SELECT COUNT(*) FROM ITEMS;") == [["3"]]
            other.execute("COMMIT")
            assert session.outcome().status == "3 rows deleted"


def test_a_database_that_stays_busy_is_given_up(engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "shop.db", isolation_level=None)) as other:
        with engine.session() as session:
            assert session.run("list table;").success
            other.execute("BEGIN IMMEDIATE")
            started = time.monotonic()
            assert session.run("DELETE FROM ITEMS;").status == "database is locked"
            assert 3 < time.monotonic() - started < 15
            other.execute("ROLLBACK")
            assert session.run("DELETE FROM ITEMS;").status == "3 rows deleted"


def test_many_clients_are_served_at_a_time(engine: Engine) -> None:
    failures: list[object] = []

    def work(number: int) -> None:
        try:
            with engine.session() as session:
                for turn in range(10):
                    name = f"{number}-{turn}"
                    reply = session.run(f"INSERT INTO PARTS VALUES (1, '{name}');")
                    if reply.status != "1 row inserted":
                        failures.append(reply.status)
                    found = session.all_rows(f"SELECT NAME FROM PARTS WHERE NAME = '{name}';")
                    if found != [[name]]:
                        failures.append(name)
        except Exception as error:  # pylint: disable=broad-except
            failures.append(error)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(16)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(TIMEOUT * 3)
    assert not failures
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM PARTS") == [(160,)]


def test_units(target: Target) -> None:
    tests = target.build / "tests" / ("kova-sample-tests" + (".exe" if target.windows else ""))
    result = subprocess.run(target.command(tests, []), env=target.environment({}),
                            capture_output=True, timeout=120, stdin=subprocess.DEVNULL,
                            check=False)
    output = result.stdout.decode(errors="replace")
    assert result.returncode == 0 and "[  PASSED  ]" in output, output
