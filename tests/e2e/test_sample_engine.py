"""The sample engine and the sample client library, from outside.

The engine runs natively for both targets; what goes through the client library does so with the
library of the target.
"""

from __future__ import annotations

import errno
import json
import os
import signal
import socket
import sqlite3
import struct
import subprocess
import threading
import time
from contextlib import closing
from pathlib import Path
from typing import Callable, Iterator

import pytest

from kova import TIMEOUT, Target
from sample_engine import (END, ENDLESS, EXEC, FAILED, FETCH, HELLO, LOOPBACK, MORE, OUTCOME,
                           PASSWORD, RELEASE, ROWS, USER, WELCOME, Client, Engine, Session, frame,
                           hello, make_database, read_database, text, wait_until)

ROOT = Path(__file__).resolve().parents[2]
SHOP = """
CREATE TABLE ITEMS (ID INTEGER PRIMARY KEY, NAME TEXT NOT NULL, PRICE REAL DEFAULT 0, PICTURE BLOB);
CREATE TABLE PARTS (ITEM INTEGER NOT NULL REFERENCES ITEMS (ID), NAME TEXT);
CREATE VIEW CHEAP AS SELECT NAME FROM ITEMS WHERE PRICE < 2;
CREATE INDEX ITEMS_BY_NAME ON ITEMS (NAME);
INSERT INTO ITEMS VALUES (1, 'one', 1.5, NULL), (2, 'zw\u00f6', 2, x'4142'), (3, '', 1e20, '');
"""


@pytest.fixture(scope="session")
def executable(pytestconfig: pytest.Config) -> Path:
    """The engine, which is native also when the Windows client library is tested."""
    build = os.environ.get("KOVA_BUILD_DIR")
    if build is None and pytestconfig.getoption("--target") == "linux":
        build = pytestconfig.getoption("--build-dir")
    path = Path(build or ROOT / "build" / "linux").resolve() / "sample" / "kova-sample-engine"
    assert path.exists(), f"{path} is not built"
    return path


@pytest.fixture
def start_engine(executable: Path, tmp_path: Path) -> Iterator[Callable[..., Engine]]:
    started: list[Engine] = []

    def start(*options: str) -> Engine:
        (tmp_path / "data").mkdir(exist_ok=True)
        if not (tmp_path / "data" / "shop.db").exists():
            make_database(tmp_path / "data" / "shop.db", SHOP)
        started.append(Engine(executable, tmp_path, *options))
        return started[-1]

    yield start
    for engine in started:
        running = engine.process.poll() is None
        code = engine.stop()
        assert not running or code == 0, "the engine does not stop cleanly"


@pytest.fixture
def engine(start_engine: Callable[..., Engine]) -> Engine:
    return start_engine()


@pytest.fixture(scope="session")
def client(target: Target) -> Client:
    return Client(target)


@pytest.fixture
def shop(engine: Engine) -> Iterator[Session]:
    with engine.session() as session:
        yield session


# Starting and stopping


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


@pytest.mark.parametrize("arguments, words", [
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
                                    words: str) -> None:
    users = tmp_path / "users"
    users.write_text("a:b\n")
    result = run_engine(executable, "--data", str(tmp_path), "--users", str(users), *arguments)
    assert result.returncode == 2
    assert result.stderr == f"kova-sample-engine: {words}; try --help\n"
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
    session.start(f"SELECT COUNT(*) FROM {ENDLESS};")
    time.sleep(0.1)
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


# Statements, through the client library


def test_the_catalogue(engine: Engine, client: Client) -> None:
    make_database(engine.data / "OTHER_2.db", "CREATE TABLE T (A);")
    (engine.data / "not a name.db").touch()
    result = client.run(engine.port, "list database;", "LIST\tTABLE ;", "Describe items;",
                        "describe CHEAP")
    assert result.code == 0
    assert result.lines == [
        "status: OK", "NAME", "OTHER_2", "shop",
        "status: OK", "NAME\tTYPE", "CHEAP\tVIEW", "ITEMS\tTABLE", "PARTS\tTABLE",
        "status: OK", "NAME\tTYPE\tNULLABLE\tDEFAULT_VALUE\tKEY_POSITION",
        "ID\tINTEGER\tNO\t\\N\t1", "NAME\tTEXT\tNO\t\\N\t0", "PRICE\tREAL\tYES\t0\t0",
        "PICTURE\tBLOB\tYES\t\\N\t0",
        "status: OK", "NAME\tTYPE\tNULLABLE\tDEFAULT_VALUE\tKEY_POSITION",
        "NAME\tTEXT\tYES\t\\N\t0",
    ]


def test_cells_are_what_sqlite_writes(engine: Engine, client: Client) -> None:
    result = client.run(engine.port, "  select ID, NAME, PRICE, PICTURE from ITEMS order by ID ; ",
                        "SELECT 9223372036854775807, -0.5, 1=1, NULL AS UNKNOWN")
    assert result.lines == [
        "status: OK", "ID\tNAME\tPRICE\tPICTURE", "1\tone\t1.5\t\\N", "2\tzw\u00f6\t2.0\tAB",
        "3\t\t1.0e+20\t",
        "status: OK", "9223372036854775807\t-0.5\t1=1\tUNKNOWN",
        "9223372036854775807\t-0.5\t1\t\\N",
    ]


def test_statements_come_from_standard_input_too(engine: Engine, client: Client) -> None:
    result = client.finish(client.start(engine.port),
                           b"SELECT 1 AS A;\nnonsense\n\r\nSELECT 2 AS B;")
    assert result.code == 1
    assert result.lines == ["status: OK", "A", "1", "error: unknown statement: nonsense",
                            "status: OK", "B", "2"]


def test_writes_say_how_many_rows_and_last(engine: Engine, client: Client) -> None:
    result = client.run(
        engine.port,
        "INSERT INTO PARTS VALUES (1, 'a'), (1, 'b'), (2, 'c');", "insert into PARTS values (3, '')",
        "UPDATE PARTS SET NAME = 'x' WHERE ITEM = 1;", "update PARTS set NAME = 1 where ITEM = 9;",
        "DELETE FROM PARTS WHERE ITEM = 2;", "SELECT ITEM, NAME FROM PARTS ORDER BY ITEM;")
    assert result.lines == [
        "status: 3 rows inserted", "status: 1 row inserted", "status: 2 rows updated",
        "status: 0 rows updated", "status: 1 row deleted",
        "status: OK", "ITEM\tNAME", "1\tx", "1\tx", "3\t",
    ]
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM PARTS") == [(3,)]


@pytest.mark.parametrize("statement, words", [
    ("SELECT X FROM ITEMS;", "no such column: X"),
    ("SELECT NAME FROM NOWHERE;", "no such table: NOWHERE"),
    ("SELECT FROM ITEMS;", 'near "FROM": syntax error'),
    ("SELECT abs(-9223372036854775807 - 1);", "integer overflow"),
    ("describe NOWHERE;", "no such table: NOWHERE"),
    ("describe ITEMS_BY_NAME;", "no such table: ITEMS_BY_NAME"),
    ("describe A B;", "expected: describe TABLE;"),
    ("list;", "expected: list database; or list table;"),
    ("list tables;", "expected: list database; or list table;"),
    ("use nowhere;", "no such database: nowhere"),
    ("use ../users;", "expected: use NAME;"),
    ("use;", "expected: use NAME;"),
    ("login app;", "expected: login USER,PASSWORD;"),
    ("INSERT INTO PARTS VALUES (9, 'x');", "FOREIGN KEY constraint failed"),
    ("INSERT INTO ITEMS (ID, NAME) VALUES (8, 'x'), (1, 'y');", "UNIQUE constraint failed: ITEMS.ID"),
    ("INSERT INTO ITEMS (ID) VALUES (8);", "NOT NULL constraint failed: ITEMS.NAME"),
    ("UPDATE ITEMS SET NAME = 'x' RETURNING ID;", "RETURNING is not supported"),
    ("DELETE FROM sqlite_schema;", "table sqlite_master may not be modified"),
    ("DROP TABLE ITEMS;", "no such temporary table: ITEMS"),
    ("DROP VIEW CHEAP;", "expected: drop table NAME;"),
    ("SELECT 1; DELETE FROM ITEMS;", "only one statement at a time"),
    ("DELETE FROM ITEMS; SELECT 1;", "only one statement at a time"),
    ("SELECT * FROM pragma_table_info('ITEMS');", "not authorized"),
    ("SELECT load_extension('x');", "not authorized to use function: load_extension"),
    ("PRAGMA query_only = 0;", "unknown statement: PRAGMA"),
    ("ATTACH 'other.db' AS O;", "unknown statement: ATTACH"),
    ("CREATE TABLE T (A);", "unknown statement: CREATE"),
    ("VACUUM INTO 'copy.db';", "unknown statement: VACUUM"),
    ("EXPLAIN SELECT 1;", "unknown statement: EXPLAIN"),
    ("WITH C AS (SELECT 1) DELETE FROM ITEMS;", "unknown statement: WITH"),
    ("BEGIN;", "unknown statement: BEGIN"),
    ("REPLACE INTO ITEMS VALUES (1, 2, 3, 4);", "unknown statement: REPLACE"),
    ("-- comment\nDELETE FROM ITEMS;", "unknown statement: -"),
    ("(SELECT 1);", "unknown statement: ("),
    ("SELECTED;", "unknown statement: SELECTED"),
    (" ; ", "the statement is empty"),
])
def test_what_is_refused_has_words(engine: Engine, client: Client, statement: str,
                                   words: str) -> None:
    result = client.run(engine.port, statement)
    assert (result.code, result.lines) == (1, ["error: " + words])
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM ITEMS") == [(3,)]


@pytest.mark.parametrize("login, words", [
    ({"password": "wrong"}, "wrong user or password"),
    ({"password": PASSWORD + " "}, "wrong user or password"),
    ({"password": PASSWORD[:-1]}, "wrong user or password"),
    ({"user": "nobody"}, "wrong user or password"),
    ({"user": "APP"}, "wrong user or password"),
    ({"database": "nowhere"}, "no such database: nowhere"),
    ({"database": "d" * 64}, "no such database: " + "d" * 64),
])
def test_a_wrong_login_is_refused(engine: Engine, client: Client, login: dict[str, str],
                                  words: str) -> None:
    assert client.run(engine.port, "list table;", **login).lines == ["error: " + words]


@pytest.mark.parametrize("password", ["x", "p" * 255, " lead and trail ", "a,b", "a:b", "a'b\"c",
                                      "p\u00e4ss\u20ac", "#", "tab\there", "semi;colon", ";"])
def test_passwords_may_hold_anything_but_a_line_end(engine: Engine, client: Client,
                                                    tmp_path: Path, executable: Path,
                                                    password: str) -> None:
    engine.stop()
    engine.users.write_text(f"#{USER}:no\n{USER}:{password}\n", encoding="utf-8")
    again = Engine(executable, tmp_path)
    try:
        result = client.run(again.port, "SELECT 1 AS A;", password=password)
        assert result.lines == ["status: OK", "A", "1"]
    finally:
        assert again.stop() == 0


def test_names_of_databases_ignore_case_unless_two_differ_by_it(engine: Engine,
                                                                client: Client) -> None:
    assert client.run(engine.port, "SELECT 1 AS A;", database="SHOP").code == 0
    make_database(engine.data / "SHOP.db", "CREATE TABLE UPPER (A);")
    for database, tables in (("SHOP", ["UPPER\tTABLE"]),
                             ("shop", ["CHEAP\tVIEW", "ITEMS\tTABLE", "PARTS\tTABLE"])):
        assert client.run(engine.port, "list table;", database=database).lines[2:] == tables


def test_nothing_is_answered_before_the_login(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection).greet()
        for statement in ("list database;", "list table;", "SELECT 1;", "describe ITEMS;",
                          "DELETE FROM ITEMS;", "drop table X;", "PRAGMA user_version;"):
            assert session.run(statement).status == "not logged in"
        assert session.run("use shop;").success
        assert session.run("SELECT 1;").status == "not logged in"
        assert session.run(f"login {USER},wrong;").status == "wrong user or password"
        assert session.run("SELECT 1;").status == "not logged in"
        assert session.run(f"login {USER},{PASSWORD};").success
        assert session.run("SELECT 1;").success
        assert not session.run(f"login {USER},wrong;").success
        assert session.run("SELECT 1;").status == "not logged in"


def test_a_session_may_change_its_database(engine: Engine) -> None:
    make_database(engine.data / "other.db", "CREATE TABLE T (A); INSERT INTO T VALUES (7);")
    with engine.session("shop") as session:
        assert session.run("SELECT NAME FROM ITEMS;").success
        assert session.run("use other;").success
        assert session.all_rows("SELECT A FROM T;") == [["7"]]
        assert session.run("SELECT NAME FROM ITEMS;").status == "no such table: ITEMS"
        assert session.run("use nowhere;").status == "no such database: nowhere"
        assert session.all_rows("SELECT A FROM T;") == [["7"]]


def test_a_session_without_a_database_finds_none(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection).greet()
        assert session.run(f"login {USER},{PASSWORD};").success
        assert session.all_rows("list database;") == [["shop"]]
        assert session.all_rows("list table;") == []
        assert session.run("SELECT NAME FROM ITEMS;").status == "no such table: ITEMS"


def test_a_file_that_is_no_database_is_said_so(engine: Engine, client: Client) -> None:
    (engine.data / "text.db").write_text("words, and enough of them to be looked at" * 30)
    result = client.run(engine.port, "SELECT 1;", database="text")
    assert result.lines == ["error: file is not a database"]


# Large and long results


def test_rows_of_many_blocks_arrive_in_order(engine: Engine, client: Client) -> None:
    result = client.run(engine.port, f"SELECT N FROM {ENDLESS} LIMIT 3000;")
    assert result.lines[2:] == [str(number) for number in range(1, 3001)]


@pytest.mark.parametrize("columns", [1, 64, 65, 2000])
def test_results_may_be_wide(engine: Engine, client: Client, columns: int) -> None:
    names = [f"C{number}" for number in range(columns)]
    statement = "SELECT " + ",".join(f"{i} AS {name}" for i, name in enumerate(names)) + ";"
    result = client.run(engine.port, statement)
    assert result.lines[1].split("\t") == names
    assert result.lines[2].split("\t") == [str(number) for number in range(columns)]


def test_cells_may_be_large_but_not_without_end(engine: Engine, client: Client) -> None:
    result = client.run(engine.port, "SELECT printf('%.*c', 1000000, 'x') AS A;",
                        "SELECT hex(zeroblob(524289)) AS A;", "SELECT 1 AS B;")
    assert result.lines[2] == "x" * 1000000
    assert result.lines[3:] == ["error: string or blob too big", "status: OK", "B", "1"]


def test_a_row_has_a_limit(shop: Session) -> None:
    cell = "printf('%.*c', 1000000, 'x')"
    assert len(shop.all_rows(f"SELECT {','.join([cell] * 4)};")[0]) == 4
    assert shop.run(f"SELECT {','.join([cell] * 5)};").status == "a row is too large"
    assert shop.all_rows("SELECT 1;") == [["1"]]


def test_rows_are_made_as_they_are_read(engine: Engine, shop: Session) -> None:
    reply = shop.run(f"SELECT N FROM {ENDLESS};")
    assert reply.end == MORE and 1 <= len(reply.rows) <= 128
    before = engine.cpu_seconds()
    time.sleep(0.5)
    assert engine.cpu_seconds() - before < 0.1, "the engine works although nobody reads"
    again = shop.fetch()
    assert again.rows[0] == [str(len(reply.rows) + 1)]


def test_a_slow_row_does_not_hold_back_those_before_it(shop: Session) -> None:
    slow = f"(SELECT COUNT(*) FROM {ENDLESS} LIMIT 1)"
    counted = slow.replace("FROM C)", "FROM C LIMIT 2000000)", 1)
    assert counted != slow
    started = time.monotonic()
    reply = shop.run(f"SELECT A, CASE WHEN A % 2 THEN {counted.replace('N+1', 'N+1+0*A')} END FROM"
                     " (SELECT 1 AS A UNION ALL SELECT 3 UNION ALL SELECT 5 UNION ALL SELECT 7);")
    first = time.monotonic() - started
    rows = list(reply.rows)
    while reply.end == MORE:
        reply = shop.fetch()
        rows += reply.rows
    assert [row[0] for row in rows] == ["1", "3", "5", "7"]
    assert first < (time.monotonic() - started) * 0.9, "all rows came at once"


def test_a_failure_behind_some_rows_is_told_there(shop: Session) -> None:
    overflow = f"SELECT abs(CASE N WHEN 300 THEN -9223372036854775807 - 1 ELSE N END) FROM {ENDLESS};"
    reply = shop.run(overflow)
    assert reply.success and reply.end == MORE
    rows = list(reply.rows)
    while reply.end == MORE:
        reply = shop.fetch()
        rows += reply.rows
    assert reply.end == FAILED and reply.words == "integer overflow"
    assert rows == [[str(number)] for number in range(1, 300)]
    assert shop.fetch().end == END
    assert shop.all_rows("SELECT 1;") == [["1"]]


def test_a_client_that_stops_reading_costs_the_others_nothing(engine: Engine,
                                                              client: Client) -> None:
    with engine.session() as lazy:
        lazy.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        for _ in range(20):
            lazy.start(f"SELECT printf('%.*c', 60000, 'x') FROM {ENDLESS};")
        assert client.run(engine.port, "SELECT 1 AS A;").code == 0


# Several sessions and other writers


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
            time.sleep(0.3)
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
                    if session.all_rows(f"SELECT NAME FROM PARTS WHERE NAME = '{name}';") != [[name]]:
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


# Clients that go away


INTERRUPTIBLE = {
    "select": f"SELECT COUNT(*) FROM {ENDLESS};",
    "sort": f"SELECT N FROM {ENDLESS} WHERE N < 0;",
    "insert": f"INSERT INTO PARTS SELECT 1, N FROM {ENDLESS};",
    "update": f"UPDATE ITEMS SET PRICE = (SELECT COUNT(*) FROM {ENDLESS});",
}


@pytest.mark.parametrize("statement", INTERRUPTIBLE.values(), ids=INTERRUPTIBLE.keys())
def test_a_statement_ends_with_its_client(engine: Engine, client: Client, statement: str) -> None:
    process = client.start(engine.port, statement)
    wait_until(lambda: engine.logged("LOGIN -> OK"))
    time.sleep(0.3)
    assert not engine.logged("FROM C") and process.poll() is None
    process.kill()
    assert wait_until(lambda: engine.logged("FROM C", "-> interrupted")) < 1
    process.wait(TIMEOUT)
    process.stdin.close()
    process.stdout.close()
    wait_until(engine.serves_nobody)
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM PARTS") == [(0,)]
    assert read_database(engine.data / "shop.db", "SELECT SUM(PRICE) FROM ITEMS WHERE ID < 3") == [
        (3.5,)]


@pytest.mark.parametrize("leave", [lambda s: s.close(), lambda s: s.shutdown(socket.SHUT_WR)],
                         ids=["close", "half-close"])
def test_a_statement_ends_when_its_socket_closes(engine: Engine,
                                                 leave: Callable[[socket.socket], None]) -> None:
    with engine.session() as session:
        session.start(f"SELECT COUNT(*) FROM {ENDLESS};")
        time.sleep(0.2)
        leave(session.socket)
        assert wait_until(lambda: engine.logged("COUNT(*)", "-> interrupted")) < 1


def test_a_fetch_ends_with_its_client(engine: Engine) -> None:
    with engine.session() as session:
        reply = session.run(f"SELECT N FROM {ENDLESS} WHERE N < 200 OR N < 0;")
        assert reply.end == MORE
        session.send(frame(FETCH, struct.pack(">I", 1)))
        time.sleep(0.2)
    assert wait_until(lambda: engine.logged("(fetch) -> interrupted")) < 1


def test_a_wait_for_a_busy_database_ends_with_its_client(engine: Engine) -> None:
    with closing(sqlite3.connect(engine.data / "shop.db", isolation_level=None)) as other:
        with engine.session() as session:
            assert session.run("list table;").success
            other.execute("BEGIN IMMEDIATE")
            session.start("DELETE FROM ITEMS;")
            time.sleep(0.2)
        assert wait_until(lambda: engine.logged("DELETE", "-> interrupted")) < 1
        other.execute("ROLLBACK")
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM ITEMS") == [(3,)]


# Garbage and slowness on the port


@pytest.mark.parametrize("garbage", [
    b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(505),
    b"\xff" * 4096,
    bytes(4096),
    frame(EXEC, struct.pack(">I", 1) + text("list table;")),
    frame(HELLO, b""),
    frame(HELLO, b"KOVA"),
    frame(HELLO, b"kova\0\1"),
    frame(HELLO, b"KOVA\0\1x"),
], ids=["http", "tls", "ones", "zeros", "exec", "empty", "short", "magic", "long"])
def test_garbage_ends_its_connection_and_nothing_else(engine: Engine, garbage: bytes) -> None:
    with engine.session() as other, engine.connect() as connection:
        connection.sendall(garbage)
        received = b""
        try:
            connection.shutdown(socket.SHUT_WR)
            while piece := connection.recv(65536):
                received += piece
        except OSError as error:
            assert error.errno in (errno.ECONNRESET, errno.ENOTCONN), "still open"
        assert WELCOME not in received[4:5]
        assert other.all_rows("SELECT 1;") == [["1"]]
    wait_until(engine.serves_nobody)


def test_another_version_is_refused(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection)
        session.send(hello(2))
        assert session.refusal() == "the version is not known"


@pytest.mark.parametrize("request_frame, words", [
    (frame(0, b""), "the frame is not known"),
    (frame(99, b""), "the frame is not known"),
    (frame(OUTCOME, b""), "the frame is not known"),
    (frame(HELLO, b"KOVA\0\1"), "the frame is not known"),
    (frame(EXEC, b""), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;")[:-1]), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;") + b"\0"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1" + text("SELECT 1;")[:-1] + b"x"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1\xff\xff\xff\xff"), "the frame is malformed"),
    (frame(EXEC, b"\0\0\0\1\xff\xff\xff\xfex\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0\1\0"), "the frame is malformed"),
    (frame(FETCH, b"\0\0\0\7"), "the statement object is not known"),
    (frame(RELEASE, b"\0"), "the frame is malformed"),
    (struct.pack(">IB", 65546, EXEC), "the frame is too large"),
    (struct.pack(">IB", 0xFFFFFFFF, EXEC), "the frame is too large"),
], ids=["type 0", "type 99", "reply type", "second hello", "no object", "no statement",
        "unterminated", "trailing", "text end", "null", "longest text", "fetch short",
        "fetch long", "fetch unknown", "release short", "over the limit", "largest"])
def test_a_malformed_request_is_refused(engine: Engine, request_frame: bytes, words: str) -> None:
    with engine.session() as other, engine.session() as session:
        session.send(request_frame)
        assert session.refusal() == words
        assert other.all_rows("SELECT 1;") == [["1"]]


def test_statements_have_a_limit(engine: Engine, client: Client, shop: Session) -> None:
    longest = "SELECT 1".ljust(65536)
    assert shop.all_rows(longest) == [["1"]]
    result = client.finish(client.start(engine.port),
                           longest.encode() + b" \nSELECT 1 AS A;\n")
    assert result.lines == ["error: the statement is too long", "status: OK", "A", "1"]
    shop.start(longest + " ")
    assert shop.refusal() == "the frame is too large"


def test_a_statement_with_a_nul_is_refused(shop: Session) -> None:
    reply = shop.run(b"SELECT 1;\0 DELETE FROM ITEMS;")
    assert (reply.success, reply.status) == (False, "the statement holds a NUL")
    assert shop.all_rows("SELECT COUNT(*) FROM ITEMS;") == [["3"]]


def test_bytes_that_are_no_utf8_pass_through(shop: Session) -> None:
    reply = shop.run(b"SELECT '\xff\xc3' AS A;")
    assert reply.rows == [["\udcff\udcc3"]]


def test_objects_have_a_limit(shop: Session) -> None:
    for number in range(2, 65):
        assert shop.run("SELECT 1;", number).success
    shop.send(frame(RELEASE, struct.pack(">I", 2)))
    assert shop.run("SELECT 1;", 65).success
    shop.start("SELECT 1;", 66)
    assert shop.refusal() == "too many statement objects"


def test_requests_may_arrive_byte_by_byte_and_all_at_once(engine: Engine) -> None:
    with engine.connect() as connection:
        session = Session(connection)
        for byte in hello():
            session.send(bytes([byte]))
            time.sleep(0.002)
        assert session.receive()[0] == WELCOME
        session.login()
        session.send(b"".join(frame(EXEC, struct.pack(">I", 1) + text(f"SELECT {number};"))
                              for number in range(50)))
        assert [session.outcome().rows[0][0] for _ in range(50)] == [
            str(number) for number in range(50)]


def test_half_open_connections_hold_up_nobody(engine: Engine, client: Client) -> None:
    connections = [engine.connect() for _ in range(40)]
    for connection in connections[::2]:
        connection.sendall(b"\0\0\0")
    assert client.run(engine.port, "SELECT 1 AS A;").code == 0
    for connection in connections:
        connection.close()
    wait_until(engine.serves_nobody)


def test_connections_have_a_limit(start_engine: Callable[..., Engine], client: Client) -> None:
    engine = start_engine("--connections", "2")
    with engine.session(), engine.session():
        with engine.connect() as third:
            assert Session(third).at_end()
        result = client.run(engine.port, "SELECT 1 AS A;")
        assert (result.code, result.lines) == (1, ["error: no connection"])
        assert engine.logged("refused: too many connections")
    wait_until(engine.serves_nobody)
    assert client.run(engine.port, "SELECT 1 AS A;").code == 0


@pytest.mark.parametrize("first", [b"", b"\0", hello(), hello() + b"\0\0\0\5"],
                         ids=["nothing", "a byte", "hello", "half a frame"])
def test_who_does_not_log_in_in_time_is_dropped(start_engine: Callable[..., Engine],
                                                first: bytes) -> None:
    engine = start_engine("--timeout", "1")
    with engine.session() as idle, engine.connect() as connection:
        connection.sendall(first)
        started = time.monotonic()
        while connection.recv(65536):
            pass
        assert 0.5 < time.monotonic() - started < 5
        assert idle.all_rows("SELECT 1;") == [["1"]], "who is logged in may be idle"
        idle.send(b"\0")
        assert idle.at_end(), "but has to finish a message"


def test_who_does_not_take_an_answer_in_time_is_dropped(start_engine: Callable[..., Engine]) -> None:
    engine = start_engine("--timeout", "1")
    with engine.session() as lazy:
        for _ in range(40):
            lazy.start("SELECT " + ",".join(["printf('%.*c', 1000000, 'x')"] * 4) + ";")
        wait_until(engine.serves_nobody)


def test_the_log_holds_no_password(engine: Engine, client: Client) -> None:
    client.run(engine.port, f"login {USER},{PASSWORD};", f"logni {USER},{PASSWORD};",
               f"use shop; login {USER},{PASSWORD};", f"{USER},{PASSWORD}")
    client.run(engine.port, "SELECT 1;", password="another-secret")
    log = "\n".join(engine.log())
    assert "LOGIN -> OK" in log and "LOGIN -> wrong user or password" in log
    for secret in ("s3cret", "pass: word", "another-secret"):
        assert secret not in log


# The client library and engines that misbehave


class FakeEngine:
    """Accepts one connection after the other, welcomes each and answers its frames from a list."""

    def __init__(self, *answers: bytes, welcome: bytes = frame(WELCOME, b"\0\1")) -> None:
        self._listener = socket.create_server((LOOPBACK, 0))
        self.port = self._listener.getsockname()[1]
        self._answers = [welcome, *answers]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with connection:
                session = Session(connection)
                try:
                    for answer in self._answers:
                        session.receive()
                        session.send(answer)
                except (EOFError, OSError):
                    pass

    def __enter__(self) -> "FakeEngine":
        return self

    def __exit__(self, *_: object) -> None:
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(TIMEOUT)


def rows_block(*cells: bytes, count: int = 0, end: bytes = b"\1", words: bytes = text("")) -> bytes:
    return struct.pack(">H", count) + b"".join(cells) + end + words


def outcome(rows: bytes = rows_block(), names: tuple[str, ...] = (), success: bytes = b"\1",
            status: bytes = text("OK")) -> bytes:
    columns = struct.pack(">H", len(names)) + b"".join(text(name) for name in names)
    return frame(OUTCOME, success + status + columns + rows)


OK = outcome()
LOST = ["error: connection to the engine was lost"]
MALFORMED = ["error: the engine's reply is malformed"]


def test_the_fake_engine_can_behave(client: Client) -> None:
    good = outcome(rows_block(text("1"), b"\xff\xff\xff\xff", count=1), ("A", "B"))
    with FakeEngine(OK, OK, good) as fake:
        assert client.run(fake.port, "x").lines == ["status: OK", "A\tB", "1\t\\N"]


@pytest.mark.parametrize("welcome", [
    b"", b"HTTP/1.1 400 Bad Request\r\n\r\n", frame(WELCOME, b"\0\2"), frame(WELCOME, b""),
    frame(OUTCOME, b"\0\1"), frame(132, text("no")), struct.pack(">IB", 0xFFFFFFFF, WELCOME),
], ids=["silence", "http", "version", "empty", "type", "refused", "oversized"])
def test_what_is_no_engine_gives_no_connection(client: Client, welcome: bytes) -> None:
    with FakeEngine(welcome=welcome) as fake:
        assert client.run(fake.port, "x").lines == ["error: no connection"]


def test_no_engine_gives_no_connection(client: Client) -> None:
    with socket.create_server((LOOPBACK, 0)) as listener:
        port = listener.getsockname()[1]
    started = time.monotonic()
    assert client.run(port, "x").lines == ["error: no connection"]
    assert time.monotonic() - started < 5


@pytest.mark.parametrize("answer, lines", [
    (b"", LOST),
    (b"\0\0", LOST),
    (outcome()[:-1], LOST),
    (frame(ROWS, rows_block()), LOST),
    (struct.pack(">IB", 4194305, OUTCOME), LOST),
    (frame(132, text("the reason")), ["error: the engine refused: the reason"]),
    (frame(132, b"\0"), LOST),
    (frame(OUTCOME, b""), MALFORMED),
    (outcome(success=b"\2"), MALFORMED),
    (outcome(status=b"\0\0\0\2OK"), MALFORMED),
    (outcome(status=b"\0\0\0\2OKx"), MALFORMED),
    (outcome(status=b"\xff\xff\xff\xff"), MALFORMED),
    (outcome(status=b"\xff\xff\xff\xfeOK\0"), MALFORMED),
    (outcome(rows_block(end=b"\3")), MALFORMED),
    (outcome(rows_block(words=b"")), MALFORMED),
    (outcome(rows_block() + b"x"), MALFORMED),
    (frame(OUTCOME, b"\1" + text("OK") + b"\xff\xff"), MALFORMED),
    (outcome(b""), MALFORMED),
], ids=["closed", "cut header", "cut payload", "other type", "oversized", "refused",
        "bad refusal", "empty", "success", "unterminated status", "status end", "null status",
        "long status", "rows end", "no words", "trailing", "names", "no rows"])
def test_a_bad_outcome_fails_the_statement(client: Client, answer: bytes,
                                           lines: list[str]) -> None:
    with FakeEngine(OK, OK, answer) as fake:
        result = client.run(fake.port, "x", "y")
        assert result.lines == lines + LOST, "and the connection is lost"


@pytest.mark.parametrize("rows", [
    rows_block(text("1"), count=2),
    rows_block(text("1")[:-1] + b"x", count=1),
    rows_block(b"\0\1\0\0x\0", count=1),
    rows_block(text("1"), count=1, end=b"\7"),
    rows_block(text("1"), count=1) + b"x",
], ids=["too few", "unterminated", "too long", "end", "trailing"])
def test_bad_rows_end_the_result(client: Client, rows: bytes) -> None:
    with FakeEngine(OK, OK, outcome(rows, ("A",))) as fake:
        result = client.run(fake.port, "x", "y")
        assert result.lines[:2] == ["status: OK", "A"]
        assert result.lines[-1:] == LOST and len(result.lines) <= 4


@pytest.mark.parametrize("how", [signal.SIGKILL, signal.SIGTERM])
def test_an_engine_that_dies_fails_the_statement_at_once(engine: Engine, client: Client,
                                                         how: int) -> None:
    process = client.start(engine.port, f"SELECT COUNT(*) FROM {ENDLESS};", "SELECT 1;")
    wait_until(lambda: engine.logged("LOGIN -> OK"))
    time.sleep(0.3)
    engine.stop(how)
    started = time.monotonic()
    result = client.finish(process)
    assert time.monotonic() - started < 1.5
    assert result.code == 1 and result.lines[-1:] == LOST
    assert result.lines[0] in (LOST[0], "error: interrupted")


def test_an_engine_that_dies_ends_a_result(engine: Engine, client: Client) -> None:
    process = client.start(engine.port, f"SELECT N FROM {ENDLESS};", "SELECT 1;")
    assert process.stdout.readline().rstrip() == b"status: OK"
    engine.stop(signal.SIGKILL)
    assert client.finish(process).lines[-1:] == LOST


# The units that only a test inside a process reaches


def test_units(target: Target) -> None:
    tests = target.build / "tests" / ("kova-sample-tests" + (".exe" if target.windows else ""))
    result = subprocess.run(target.command(tests, []), env=target.environment({}),
                            capture_output=True, timeout=120, stdin=subprocess.DEVNULL,
                            check=False)
    output = result.stdout.decode(errors="replace")
    assert result.returncode == 0 and "[  PASSED  ]" in output, output


# The sample data


INDEX = """\
Package: alpha
Source: alpha-source (1.0)
Version: 1.0-1
Installed-Size: 100
Maintainer: A Person <person@example.org>
Architecture: amd64
Pre-Depends: dpkg (>= 1.15)
Depends: beta (>= 2:1.0) | gamma:any, delta
Suggests: epsilon
Description: first of them
 Its longer words.
Homepage: https://example.org/alpha
Tag: role::program,
 uitoolkit::none
Section: games
Priority: optional
Size: 5000

Package: beta
Version: 2.0
Architecture: all
Maintainer: B
Description: second
Section: games
Priority: extra

Package: beta
Version: 1.0
Architecture: all
Maintainer: B
Description: an older second
Section: games
Priority: extra
"""


class Loader:
    def __init__(self, folder: Path) -> None:
        self.data = folder / "data"
        self.index = folder / "index"
        self.index.write_text(INDEX)
        self.database = self.data / "sample.db"

    def run(self, *arguments: str) -> subprocess.CompletedProcess[str]:
        return subprocess.run(
            ["/usr/bin/python3", str(ROOT / "sample" / "data" / "load_packages.py"), "--data",
             str(self.data), "--input", str(self.index), *arguments],
            capture_output=True, text=True, timeout=TIMEOUT, check=False)

    def query(self, sql: str) -> list[tuple]:
        return read_database(self.database, sql)


@pytest.fixture
def loader(tmp_path: Path) -> Loader:
    return Loader(tmp_path)


def test_the_loader_fills_its_tables(loader: Loader) -> None:
    result = loader.run()
    assert (result.returncode, result.stdout) == (0, "")
    assert result.stderr.splitlines()[-1] == "loaded 2 packages"
    assert "\r" not in result.stderr, "nothing is rewritten where there is no terminal"
    assert loader.query("SELECT * FROM PACKAGES ORDER BY NAME") == [
        ("alpha", "1.0-1", "games", "optional", "amd64", "alpha-source", 100, 5000,
         "A Person <person@example.org>", "https://example.org/alpha", "first of them",
         "first of them\nIts longer words.", "role::program uitoolkit::none"),
        ("beta", "2.0", "games", "extra", "all", "beta", None, None, "B", None, "second", "second",
         None),
    ]
    assert loader.query("SELECT * FROM SECTIONS") == [("games", 2, 100)]
    assert loader.query("SELECT * FROM DEPENDS ORDER BY rowid") == [
        ("alpha", "PRE-DEPENDS", "dpkg", ">= 1.15", 0),
        ("alpha", "DEPENDS", "beta", ">= 2:1.0", 0),
        ("alpha", "DEPENDS", "gamma", None, 1),
        ("alpha", "DEPENDS", "delta", None, 0),
        ("alpha", "SUGGESTS", "epsilon", None, 0),
    ]
    assert [path.name for path in loader.data.iterdir()] == ["sample.db"]


def test_the_loader_leaves_current_data_alone(loader: Loader, executable: Path,
                                              tmp_path: Path) -> None:
    assert loader.run().returncode == 0
    before = loader.database.stat().st_ino
    assert loader.run().stderr == f"{loader.database} is up to date\n"
    engine = Engine(executable, tmp_path)
    try:
        with engine.session("sample") as session:
            assert session.all_rows("SELECT NAME FROM PACKAGES ORDER BY NAME;") == [["alpha"], ["beta"]]
            assert loader.run().stderr == f"{loader.database} is up to date\n"
    finally:
        assert engine.stop() == 0
    assert loader.run().stderr == f"{loader.database} is up to date\n"
    assert loader.database.stat().st_ino == before


def test_the_loader_follows_the_index(loader: Loader, executable: Path, tmp_path: Path) -> None:
    assert loader.run().returncode == 0
    loader.index.write_text(INDEX.replace("alpha", "omega"))
    engine = Engine(executable, tmp_path)
    try:
        with engine.session("sample") as session:
            assert session.all_rows("SELECT NAME FROM PACKAGES ORDER BY NAME;") == [["alpha"], ["beta"]]
            refused = loader.run()
            assert refused.returncode == 1
            last = refused.stderr.splitlines()[-1]
            assert last.startswith(f"load_packages: {loader.database} is in use; stop the engine")
            assert session.all_rows("SELECT NAME FROM PACKAGES ORDER BY NAME;") == [["alpha"], ["beta"]]
    finally:
        assert engine.stop() == 0
    assert loader.run().returncode == 0
    assert loader.query("SELECT NAME FROM PACKAGES ORDER BY NAME") == [("beta",), ("omega",)]


@pytest.mark.parametrize("content", ["", "\n\n", "Nothing: here\n"])
def test_an_index_without_packages_keeps_the_old_data(loader: Loader, content: str) -> None:
    assert loader.run().returncode == 0
    loader.index.write_text(content)
    result = loader.run()
    assert result.returncode == 1
    assert result.stderr.splitlines()[-1] == (
        "load_packages: the package index holds no package; run apt-get update")
    assert loader.query("SELECT COUNT(*) FROM PACKAGES") == [(2,)]
    assert [path.name for path in loader.data.iterdir()] == ["sample.db"]


def test_the_loader_replaces_what_is_no_database(loader: Loader) -> None:
    loader.data.mkdir()
    loader.database.write_text("words, and enough of them to be looked at" * 30)
    assert loader.run().returncode == 0
    assert loader.query("SELECT COUNT(*) FROM PACKAGES") == [(2,)]


@pytest.mark.parametrize("arguments, code", [
    (["--database", "../x"], 2), (["--nonsense"], 2), (["--input", "/nonexistent"], 1)])
def test_the_loader_refuses_bad_arguments(loader: Loader, arguments: list[str], code: int) -> None:
    result = loader.run(*arguments)
    assert result.returncode == code and "Traceback" not in result.stderr


def test_the_sample_policy_fits_the_sample_data(loader: Loader) -> None:
    policy = json.loads((ROOT / "sample" / "data" / "policy.json").read_text())
    assert loader.run().returncode == 0
    tables = {name for (name,) in loader.query(
        "SELECT name FROM sqlite_schema WHERE type = 'table' AND name NOT LIKE 'sqlite_%'")}
    assert set(policy["allowed_tables"]) == tables
    columns = {name for (name,) in loader.query("SELECT name FROM pragma_table_info('PACKAGES')")}
    assert policy["denied_columns"] == ["MAINTAINER"] and "MAINTAINER" in columns
    assert policy["database"] == "sample" and not policy["writes_enabled"]
