"""`policy explain`: a policy in sentences, and the verdict on one call."""

from __future__ import annotations

import json

import pytest

from harness.approval_tokens import digest_of
from harness.write_calls import NOT_ALLOWED, NO_WRITE, PROHIBITED, SECOND_STATEMENT

SCREEN = ("sql must be one bounded read-only SELECT; unknown fields are rejected; max_rows must be "
          "1..256")
APPROVAL = "operator approval is required for this exact normalized operation"
UNKNOWN = "unknown Vantreo tool"


def explain(authors, path, sql, code, **options):
    arguments = ["--", sql] if sql.startswith("-") else [sql]
    return authors.json("explain", path, *arguments, code=code, **options)


@pytest.mark.parametrize("sql", [
    "SELECT A FROM ORDERS", "select a from orders, items", "SELECT 1",
    "SELECT 'ssn -- x' FROM ITEMS;",
])
def test_allowed_selects(authors, sql):
    found = explain(authors, authors.policy(denied_columns=["SSN"]), sql, 0)
    assert found == {"verdict": "allow", "tool": "kova_query", "check": "select"}


DENIED = "column is denied by MCP policy"
TABLE = "table is not allowed by MCP policy"
ONE = "subqueries and UNION are not enabled by this policy version"
WILD = "wildcard projection is denied when columns are restricted"


@pytest.mark.parametrize("sql, message, blamed", [
    ("SELECT SSN FROM ORDERS", DENIED, "SSN"),
    ("SELECT t.ssn FROM ORDERS t", DENIED, "ssn"),
    ("SELECT 'é', 9ssn FROM ORDERS", DENIED, "ssn"),
    ("SELECT A FROM HIDDEN", TABLE, "HIDDEN"),
    ("SELECT A FROM ORDERS o, HIDDEN h", TABLE, "HIDDEN"),
    ("SELECT A FROM ORDERS JOIN " + "X" * 80, TABLE, "X" * 80),
    ("SELECT A FROM ORDERS UNION SELECT B FROM ITEMS", ONE, "UNION"),
    ("SELECT A FROM ORDERS WHERE B IN (SELECT C FROM ITEMS)", ONE, "SELECT C"),
    ("SELECT * FROM ORDERS", WILD, "*"),
    ("SELECT A) FROM ORDERS", "unbalanced SQL parentheses", ")"),
    ("SELECT ((A) FROM ORDERS", "unterminated SQL literal or parentheses", "(("),
    ("SELECT A FROM ORDERS -- x", SCREEN, "--"),
    ("SELECT A /* x */ FROM ORDERS", SCREEN, "/*"),
    ("SELECT A # x", SCREEN, "#"),
    ("SELECT 'it''s open FROM ORDERS", SCREEN, "'it"),
    ("SELECT A FROM ORDERS; SELECT B FROM ITEMS", SCREEN, ";"),
    ("SELECT A FROM ORDERS WHERE SET = 1", SCREEN, "SET"),
    ("  WITH x AS (SELECT 1) SELECT 2", SCREEN, "WITH"),
    ("DROP TABLE ORDERS", SCREEN, "DROP"),
])
def test_refused_selects(authors, sql, message, blamed):
    found = explain(authors, authors.policy(denied_columns=["SSN"]), sql, 1)
    assert (found["verdict"], found["tool"], found["message"]) == ("deny", "kova_query", message)
    assert found["check"]
    assert found["offset"] == sql.encode().index(blamed.encode())


@pytest.mark.parametrize("sql", ["", " ", "(1)", "SELECT " + "1" * 32768,
                                 "SELECT '" + "1" * 32759 + "'"])
def test_refusals_without_a_place(authors, sql):
    found = authors.json("explain", authors.policy(), "-", code=1, stdin=sql.encode())
    assert "offset" not in found and found["verdict"] == "deny"


def test_an_approval(authors):
    sql = "update  orders set NOTE = 'it''s'  ; "
    canonical = "UPDATE ORDERS SET NOTE = 'it''s';"
    assert explain(authors, authors.writes(), sql, 3) == {
        "verdict": "approval", "tool": "kova_execute", "message": APPROVAL,
        "check": "approval_required", "type": "UPDATE", "table": "ORDERS", "canonical": canonical,
        "digest": digest_of(canonical)}


def test_a_write_at_once(authors):
    found = explain(authors, authors.writes(approval_required=False), "DELETE FROM T", 0)
    assert found["verdict"] == "allow" and "message" not in found and "offset" not in found
    assert (found["type"], found["table"], found["canonical"], found["digest"]) == (
        "DELETE", "T", "DELETE FROM T;", digest_of("DELETE FROM T;"))


@pytest.mark.parametrize("sql, message, blamed", [
    ("  delete from HIDDEN where A = 1", NOT_ALLOWED, "HIDDEN"),
    ("insert into\n\thidden values (1)", NOT_ALLOWED, "hidden"),
    ("UPDATE HIDDEN SET A = 1", NOT_ALLOWED, "HIDDEN"),
    ("INSERT INTO T SELECT * FROM  load", PROHIBITED, "load"),
    ("INSERT INTO T VALUES ('drop', 'é', DROP)", PROHIBITED, "DROP"),
    ("DELETE T WHERE A = 1", NO_WRITE, "T WHERE"),
    ("INSERT HIDDEN", NO_WRITE, "HIDDEN"),
    ("UPDATE T SET A = 1 -- x", "comments are not allowed in writes", "--"),
    ("UPDATE T SET A = 1; DELETE FROM T", SECOND_STATEMENT, ";"),
    ("UPDATE T SET A = 'open", "unterminated write literal", "'open"),
])
def test_refused_writes(authors, sql, message, blamed):
    found = explain(authors, authors.writes(), sql, 1)
    assert (found["tool"], found["message"]) == ("kova_execute", message)
    assert found["offset"] == sql.encode().index(blamed.encode())
    assert "digest" not in found


def test_a_type_that_is_not_listed(authors):
    found = explain(authors, authors.writes(write_types=["INSERT"]), " delete from T", 1)
    assert (found["message"], found["check"], found["offset"]) == (NOT_ALLOWED, "write_types", 1)


def test_writes_that_are_off(authors):
    found = explain(authors, authors.policy(), "DELETE FROM T", 1)
    assert found == {"verdict": "deny", "tool": "kova_execute", "message": UNKNOWN,
                     "check": "writes_enabled"}


def test_kill_switches_count(authors):
    path = authors.writes()
    env = {"KOVA_MCP_DISABLE_WRITES": "1"}
    assert explain(authors, path, "DELETE FROM T", 1, env=env)["message"] == UNKNOWN
    switches = authors.file("switches.env", "KOVA_MCP_DISABLE_WRITES=on\n")
    found = authors.json("explain", "--env", switches, path, "DELETE FROM T", code=1)
    assert found["message"] == UNKNOWN


def line(tool, arguments, **extra):
    return json.dumps({"jsonrpc": "2.0", "id": 7, "method": "tools/call",
                       "params": {"name": tool, "arguments": arguments, **extra}},
                      ensure_ascii=False)


@pytest.mark.parametrize("text, code, verdict, message", [
    (line("kova_query", {"sql": "SELECT A FROM ORDERS", "max_rows": 5}), 0, "allow", None),
    (line("kova_query", {"sql": "SELECT A FROM ORDERS", "max_rows": 0}), 1, "deny", SCREEN),
    (line("kova_list_tables", {}), 0, "allow", None),
    (line("kova_list_tables", {"x": 1}), 1, "deny", "this tool accepts no arguments"),
    (line("kova_describe_table", {"table": "ORDERS"}), 0, "allow", None),
    (line("kova_vector_search", {"collection": "MANUALS", "vector": [1], "top": 3}), 0, "allow",
     None),
    (line("kova_ai_status", {"collection": "MANUALS", "provider": "P"}), 0, "allow", None),
    (line("kova_text_search", {"collection": "MANUALS", "text": "x", "top": 3}), 0, "allow", None),
    (line("kova_hybrid_search", {"collection": "MANUALS", "text": "x", "top": 3, "source_table":
                                 "ORDERS", "key_field": "ID", "columns": ["A"]}), 0, "allow", None),
    (line("kova_execute", {"sql": "DELETE FROM T"}), 3, "approval", APPROVAL),
    # A token is neither verified nor used up.
    (line("kova_execute", {"sql": "DELETE FROM T", "approval_token": "x"}), 3, "approval",
     APPROVAL),
    (line("kova_query", {}, extra=1), 1, "deny",
     "tools/call params are invalid or contain unknown fields"),
    ('{"jsonrpc":"1.0","id":1,"method":"tools/call"}', 1, "deny", "jsonrpc must be 2.0"),
    ('{"a":1,"a":2}', 1, "deny", "invalid, duplicate, deep, or oversized JSON message"),
    ("{", 1, "deny", "invalid, duplicate, deep, or oversized JSON message"),
])
def test_whole_lines(authors, text, code, verdict, message):
    found = authors.json("explain", authors.writes(), "-", code=code, stdin=text.encode() + b"\n")
    assert (found["verdict"], found.get("message")) == (verdict, message)
    assert list(authors.state.iterdir()) == []


@pytest.mark.parametrize("text, message", [
    ('{"jsonrpc":"2.0","id":1,"method":"ping"}', "the message calls ping, not tools/call"),
    ('{"jsonrpc":"2.0","method":"tools/call"}',
     "the message has no id: the server does not serve it"),
    ("SELECT '\x00'", "a NUL byte at line 1, column 9"),
    ("SELECT\n'\u00e9\x00'", "a NUL byte at line 2, column 4"),
])
def test_what_no_client_sends(authors, text, message):
    result = authors.run("explain", authors.policy(), "-",
                         env={}, stdin=text.encode())
    assert (result.code, result.stdout) == (2, b"")
    assert result.stderr.decode().replace("\r", "") == f"kova-admin: {message}\n"


def test_the_page_of_a_call(authors):
    result = authors.run("explain", authors.policy(denied_columns=["SSN"]), "SELECT SSN\nFROM T")
    text = result.stdout.decode().replace("\r", "")
    assert result.code == 1
    assert "verdict    deny\n" in text and f"message    {DENIED}\n" in text
    assert "place      line 1, column 8 (byte 7): SSN\n" in text


def test_a_hostile_text_is_escaped(authors):
    result = authors.run("explain", authors.writes(), "DELETE FROM T WHERE A = '\x1b[2J\u202e'")
    assert result.code == 3 and b"\x1b" not in result.stdout
    assert "\u202e".encode() not in result.stdout


SENTENCES = [
    ({}, ["kova_query", "ORDERS, ITEMS", "No column is hidden", "can write nothing",
          "docs/security-model.md#"]),
    ({"denied_columns": ["SSN", "CARD"]}, ["SSN, CARD", "cannot select"]),
    ({"reads_enabled": False}, ["can read nothing"]),
    ({"allowed_tables": [], "allowed_collections": []}, ["can read no table", "no AI collection"]),
]


@pytest.mark.parametrize("overrides, wanted", SENTENCES)
@pytest.mark.parametrize("form", [[], ["--markdown"]])
def test_a_policy_in_sentences(authors, overrides, wanted, form):
    result = authors.run("explain", *form, authors.policy(**overrides))
    text = result.stdout.decode()
    assert (result.code, result.stderr) == (0, b"")
    assert all(each in text for each in wanted), text
    assert ("## " in text) == (form != [])


def test_writes_in_sentences(authors):
    text = authors.run("explain", authors.writes(write_types=["INSERT"])).stdout.decode()
    assert "Without an operator it can write nothing." in text
    assert ("With an operator's approval of the exact statement it can run INSERT on ORDERS, T."
            in text)
    text = authors.run("explain", authors.writes(approval_required=False)).stdout.decode()
    assert "Without an operator it can run INSERT, UPDATE, DELETE on ORDERS, T" in text


def test_without_a_table_nothing_is_said_of_columns(authors):
    text = authors.run("explain", authors.policy(allowed_tables=[])).stdout.decode()
    assert "It can read no table" in text and "columns are called" not in text


HOSTILE = "/x\x1b[2J\u202e <img src=x> [y](z) `c` _d_ *e* ~f~ |g| &amp; \\ \n# h"


def hostile_page(authors, *form):
    path = authors.policy(writes_enabled=True, approval_required=True, write_tables=["T"],
                          write_types=["INSERT"], approval_state_directory=HOSTILE)
    result = authors.run("explain", "--other-host", *form, path)
    assert (result.code, result.stderr) == (0, b"")
    text = result.stdout.decode().replace("\r", "")
    assert "\x1b" not in text and "\u202e" not in text and "\n# h" not in text
    return text


def test_a_hostile_policy_is_escaped(authors):
    assert r"lie in /x\x1B[2J\u{202E} <img src=x> [y](z)" in hostile_page(authors)
    page = hostile_page(authors, "--markdown")
    assert (r"lie in /x\\x1B\[2J\\u{202E} \<img src=x\> \[y\](z) \`c\` \_d\_ \*e\* \~f\~ "
            r"|g| \&amp; \\ \\n# h.") in page
    path = authors.folder / "policy.json"
    sections = authors.json("explain", "--other-host", path, code=0)["sections"]
    assert any(HOSTILE in sentence for section in sections for sentence in section["sentences"])


def test_sections_as_json(authors):
    found = authors.json("explain", authors.policy(), code=0)
    assert found["policy"] == "sales_read"
    assert all(section["title"] and section["sentences"] for section in found["sections"])
