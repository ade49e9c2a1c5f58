"""`policy diff`: what widens, narrows and changes, and which cases flip."""

from __future__ import annotations

import pytest

NOTHING = {"widened": [], "narrowed": [], "changed": [], "flips": []}

SHIFTS = [
    ("reads_enabled", False, True, True), ("provider_reads_enabled", False, True, True),
    ("writes_enabled", False, True, True), ("approval_required", True, False, False),
    ("approval_ttl_seconds", 60, 61, 61),
    ("allowed_tables", ["A"], ["A", "B"], "B"), ("allowed_collections", [], ["C"], "C"),
    ("write_tables", [], ["t"], "t"), ("write_types", ["INSERT"], ["delete", "insert"], "DELETE"),
]
"""Key, narrow value, wide value, and the value that is reported of the wide one."""


def compare(authors, old, new, code, *more):
    return authors.json("diff", *more, authors.policy("old.json", **old),
                        authors.policy("new.json", **new), code=code)


@pytest.mark.parametrize("key, narrow, wide, value", SHIFTS)
def test_what_widens_and_narrows(authors, key, narrow, wide, value):
    assert compare(authors, {key: narrow}, {key: wide}, 1) == {
        **NOTHING, "widened": [{"key": key, "value": value}]}
    compare(authors, {key: narrow}, {key: wide}, 1, "--fail-on-widening")
    back = compare(authors, {key: wide}, {key: narrow}, 0, "--fail-on-widening")
    lost = narrow if not isinstance(value, str) else value
    assert back == {**NOTHING, "narrowed": [{"key": key, "value": lost}]}
    compare(authors, {key: wide}, {key: narrow}, 1)


def test_denied_columns(authors):
    found = compare(authors, {"denied_columns": ["A", "B"]}, {"denied_columns": ["b", "C"]}, 1)
    assert found == {**NOTHING, "widened": [{"key": "denied_columns", "value": "A"}],
                     "narrowed": [{"key": "denied_columns", "value": "C"}]}


def test_order_and_case_make_no_difference(authors):
    old = {"allowed_tables": ["A", "B"], "write_types": ["INSERT", "UPDATE"]}
    new = {"allowed_tables": ["b", "a"], "write_types": ["update", "Insert"]}
    assert compare(authors, old, new, 0) == NOTHING


@pytest.mark.parametrize("key, new", [
    ("name", "other"), ("client_id", "other"), ("database", "OTHER"), ("database_user", "other"),
    ("approval_state_directory", "/other")])
def test_what_is_neither(authors, key, new):
    env = {"KOVA_MCP_CLIENT_ID": "desk-client", "KOVA_MCP_DATABASE": "SALES",
           "KOVA_MCP_USER": "reader"}
    old = authors.document()[key]
    found = authors.json("diff", authors.policy("old.json"),
                         authors.policy("new.json", **{key: new}), code=1, env=env)
    assert found == {**NOTHING, "changed": [{"key": key, "old": old, "new": new}]}
    compare(authors, {}, {key: new}, 0, "--fail-on-widening")


def test_flips(authors):
    cases = authors.cases([
        {"name": "read", "sql": "SELECT A FROM SECRETS", "expect": "deny"},
        {"name": "same", "sql": "SELECT A FROM ORDERS", "expect": "allow"},
        {"name": "write", "sql": "DELETE FROM T", "expect": "approval"}])
    old = authors.writes("old.json")
    new = authors.writes("new.json", allowed_tables=["ORDERS", "ITEMS", "SECRETS"],
                         approval_required=False)
    found = authors.json("diff", old, new, cases, code=1)
    assert found["flips"] == [{"case": "read", "old": "deny", "new": "allow"},
                              {"case": "write", "old": "approval", "new": "allow"}]
    assert authors.json("diff", old, old, cases, code=0)["flips"] == []


def test_cases_on_standard_input(authors):
    old, new = authors.policy("old.json"), authors.policy("new.json", allowed_tables=["ITEMS"])
    cases = b'[{"name": "x", "sql": "SELECT A FROM ORDERS", "expect": "allow"}]'
    assert authors.json("diff", old, new, "-", code=1, stdin=cases)["flips"] == [
        {"case": "x", "old": "allow", "new": "deny"}]


def test_sentences(authors):
    result = authors.run("diff", authors.policy("old.json", denied_columns=["SSN"]),
                         authors.policy("new.json", allowed_tables=["ORDERS"], name="b"))
    assert (result.code, result.stdout.decode().replace("\r", "")) == (1, (
        "widens    denied_columns: the column SSN may appear in a SELECT\n"
        "narrows   allowed_tables: the table ITEMS may no longer be read\n"
        'changes   name: "b" instead of "sales_read"\n'))
    result = authors.run("diff", authors.policy("old.json"), authors.policy("new.json"))
    assert (result.code, result.stdout.strip()) == (0, b"The policies are the same.")


def test_an_empty_name_of_the_cases_is_not_left_out(authors):
    assert "empty" in authors.refusal(
        "diff", authors.policy("a.json"), authors.policy("b.json"), "")
    assert "empty" in authors.refusal("test", "--junit", "", authors.policy(), authors.cases([]))
