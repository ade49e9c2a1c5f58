"""The sample engine's statements and results, through the client library of the target."""

from __future__ import annotations

import socket
import time
from pathlib import Path

import pytest

from harness.sample_engine import (END, ENDLESS, FAILED, MORE, PASSWORD, USER, Client, Engine,
                                   Session, make_database, read_database)

pytestmark = pytest.mark.sample_engine


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
        "INSERT INTO PARTS VALUES (1, 'a'), (1, 'b'), (2, 'c');",
        "insert into PARTS values (3, '')",
        "UPDATE PARTS SET NAME = 'x' WHERE ITEM = 1;", "update PARTS set NAME = 1 where ITEM = 9;",
        "DELETE FROM PARTS WHERE ITEM = 2;", "SELECT ITEM, NAME FROM PARTS ORDER BY ITEM;")
    assert result.lines == [
        "status: 3 rows inserted", "status: 1 row inserted", "status: 2 rows updated",
        "status: 0 rows updated", "status: 1 row deleted",
        "status: OK", "ITEM\tNAME", "1\tx", "1\tx", "3\t",
    ]
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM PARTS") == [(3,)]


@pytest.mark.parametrize("statement, message", [
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
    ("INSERT INTO ITEMS (ID, NAME) VALUES (8, 'x'), (1, 'y');",
     "UNIQUE constraint failed: ITEMS.ID"),
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
def test_what_is_refused_has_a_message(engine: Engine, client: Client, statement: str,
                                       message: str) -> None:
    result = client.run(engine.port, statement)
    assert (result.code, result.lines) == (1, ["error: " + message])
    assert read_database(engine.data / "shop.db", "SELECT COUNT(*) FROM ITEMS") == [(3,)]


@pytest.mark.parametrize("login, message", [
    ({"password": "wrong"}, "wrong user or password"),
    ({"password": PASSWORD + " "}, "wrong user or password"),
    ({"password": PASSWORD[:-1]}, "wrong user or password"),
    ({"user": "nobody"}, "wrong user or password"),
    ({"user": "APP"}, "wrong user or password"),
    ({"database": "nowhere"}, "no such database: nowhere"),
    ({"database": "d" * 64}, "no such database: " + "d" * 64),
])
def test_a_wrong_login_is_refused(engine: Engine, client: Client, login: dict[str, str],
                                  message: str) -> None:
    assert client.run(engine.port, "list table;", **login).lines == ["error: " + message]


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
    counted = slow.replace("FROM C)", "FROM C LIMIT 500000)", 1)
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
    overflow = "CASE N WHEN 300 THEN -9223372036854775807 - 1 ELSE N END"
    reply = shop.run(f"SELECT abs({overflow}) FROM {ENDLESS};")
    assert reply.success and reply.end == MORE
    rows = list(reply.rows)
    while reply.end == MORE:
        reply = shop.fetch()
        rows += reply.rows
    assert reply.end == FAILED and reply.message == "integer overflow"
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
