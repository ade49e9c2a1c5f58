"""Writes that an operator has approved, carried out by the sample engine."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Callable

import pytest

from harness.approval_tokens import SECRET, token_for
from harness.messages import call, tool_error_reply, tool_success_reply
from harness.sample_engine import USER, Engine, read_database
from harness.servers import Server, Servers
from harness.tool_calls import result_json
from harness.write_calls import FIELDS, SPENT, TOOL, write_arguments


class Shop:
    """A server on the engine's database, where PARTS and ITEMS may be written."""

    def __init__(self, server: Server, engine: Engine) -> None:
        self.server = server
        self.path = engine.data / "shop.db"
        self.number = 0
        server.initialize()

    def call(self, sql: str, token: str) -> bytes:
        self.number += 1
        return self.server.ask(call(self.number, TOOL, write_arguments(sql, token)))

    def approved(self, sql: str, canonical: str) -> bytes:
        return self.call(sql, token_for(canonical, database="shop").text)

    def does(self, sql: str, canonical: str, status: str) -> None:
        expected = tool_success_reply(str(self.number + 1), result_json(status=status))
        assert self.approved(sql, canonical) == expected

    def fails(self, sql: str, canonical: str, message: str) -> None:
        expected = tool_error_reply(str(self.number + 1), message)
        assert self.approved(sql, canonical) == expected

    def rows(self, sql: str) -> list[tuple]:
        return read_database(self.path, sql)


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine]) -> Engine:
    return start_sample_engine()


@pytest.fixture
def shop(engine: Engine, servers: Servers, tmp_path: Path, policy) -> Shop:
    (tmp_path / "state").mkdir()
    named = {"database": "shop", "database_user": USER, "writes_enabled": True,
             "approval_required": True, "write_types": ["INSERT", "UPDATE", "DELETE"],
             "write_tables": ["PARTS", "ITEMS"], "approval_state_directory": tmp_path / "state"}
    env = {**policy(**named), "KOVA_MCP_APPROVAL_SECRET": SECRET, **engine.profile()}
    return Shop(servers.start(env=env, library="sample"), engine)


def test_an_insert_an_update_and_a_delete(shop):
    shop.does("insert into parts values (1, 'it''s  B'), (2, 'c')",
              "INSERT INTO PARTS VALUES (1, 'it''s  B'), (2, 'c');", "2 rows inserted")
    assert shop.rows("SELECT * FROM PARTS ORDER BY ITEM") == [(1, "it's  B"), (2, "c")]
    shop.does("update parts set name = 'x' where item = 2",
              "UPDATE PARTS SET NAME = 'x' WHERE ITEM = 2;", "1 row updated")
    assert shop.rows("SELECT * FROM PARTS ORDER BY ITEM") == [(1, "it's  B"), (2, "x")]
    shop.does("delete from parts", "DELETE FROM PARTS;", "2 rows deleted")
    assert shop.rows("SELECT * FROM PARTS") == []
    shop.does("delete from parts", "DELETE FROM PARTS;", "0 rows deleted")


def test_nothing_happens_without_an_approval(shop):
    sql = "INSERT INTO PARTS VALUES (1, 'a');"
    answer = json.loads(shop.server.ask(call(0, TOOL, write_arguments(sql))))["result"]
    assert answer["isError"] and answer["structuredContent"]["approval_required"]
    assert shop.rows("SELECT * FROM PARTS") == []
    token = token_for(sql, database="shop").text
    assert shop.call(sql.replace("'a'", "'A'"), token) == tool_error_reply("1", FIELDS)
    assert shop.rows("SELECT * FROM PARTS") == []
    assert b"1 row inserted" in shop.call(sql, token)
    assert shop.call(sql, token) == tool_error_reply("3", SPENT)
    assert shop.rows("SELECT * FROM PARTS") == [(1, "a")]


@pytest.mark.parametrize("canonical, message", [
    ("INSERT INTO PARTS VALUES (9, 'x');", "FOREIGN KEY constraint failed"),
    ("INSERT INTO ITEMS (ID, NAME) VALUES (8, 'x'), (1, 'y');",
     "UNIQUE constraint failed: ITEMS.ID"),
    ("INSERT INTO ITEMS (ID) VALUES (8);", "NOT NULL constraint failed: ITEMS.NAME"),
    ("UPDATE ITEMS SET NAME = NULL WHERE ID > 1;", "NOT NULL constraint failed: ITEMS.NAME"),
    ("UPDATE ITEMS SET NOWHERE = 1;", "no such column: NOWHERE"),
], ids=lambda text: text[:40])
def test_a_constraint_is_told_in_a_clear_message(shop, canonical, message):
    before = shop.rows("SELECT * FROM ITEMS")
    shop.fails(canonical.rstrip(";"), canonical, message)
    assert shop.rows("SELECT * FROM ITEMS") == before
    assert shop.rows("SELECT * FROM PARTS") == []
    shop.does("DELETE FROM PARTS", "DELETE FROM PARTS;", "0 rows deleted")
