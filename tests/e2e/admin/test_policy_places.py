"""`policy explain --json` of a whole tools/call line: the place of everything that refuses one.

Each row has the call, the check, and what stands at the place, None for no place. The rows of one
tool follow its checks in their order.
"""

from __future__ import annotations

import json

import pytest

VECTOR = {"collection": "MANUALS", "vector": [1, 2], "top": 3}
TEXT = {"collection": "MANUALS", "text": "x", "top": 3}
HYBRID = {**TEXT, "source_table": "ORDERS", "key_field": "ID", "columns": ["A"]}
STATUS = {"collection": "MANUALS"}
QUERY = {"sql": "SELECT A FROM ORDERS"}
WRITE = {"sql": "DELETE FROM T"}


def line(tool, arguments, **extra) -> str:
    return json.dumps({"jsonrpc": "2.0", "id": 7, "method": "tools/call",
                       "params": {"name": tool, "arguments": arguments, **extra}},
                      ensure_ascii=False)


def without(arguments: dict, key: str) -> dict:
    return {name: value for name, value in arguments.items() if name != key}


def judged(authors, path, text: str, code: int = 1) -> dict:
    return authors.json("explain", path, "-", code=code, stdin=text.encode())


def is_at(authors, path, text: str, check: str, blamed: "str | None") -> None:
    found = judged(authors, path, text)
    data = text.encode()
    assert (found["verdict"], found["check"]) == ("deny", check), found
    if blamed is None:
        assert "offset" not in found, data[found["offset"]:]
        return
    assert data.count(blamed.encode()) == 1, "the row must name one place"
    assert found.get("offset") == data.index(blamed.encode()), found


def head(**members) -> str:
    """A message with its envelope changed; None takes a member out."""
    made = {"jsonrpc": "2.0", "id": 7, "method": "tools/call",
            "params": {"name": "kova_list_tables"}, **members}
    return json.dumps({key: value for key, value in made.items() if value is not None})


MESSAGES = [
    # No JSON: where it stops; a text that ends too early has no such place.
    ('{"a":1,}', "}"),
    ('{"a":tru}', "tru"),
    ('{"a" 1}', "1}"),
    ('{"a":"x\\qy"}', "\\qy"),
    ('{"a":"x\\u00g0"}', "\\u00g0"),
    ('{"a":"\t"}', "\t"),
    ('{"a":1} x', "x"),
    ('{"a":' + "[" * 128 + "7" + "]" * 128 + "}", "7"),
    ("{", None),
    ('{"a":"x', None),
    ('{"a":[1,2\n', None),
    ('{"a":[' + "1," * 5000 + "1]}", None),
    # The second of two equal keys, however it is spelled.
    ('{"a":1, "a":2}', '"a":2'),
    ('{"b":{"é":1,"é" :2}}', '"é" :2'),
    ('{"a":1,"b":2,"\\u0061":3}', '"\\u0061"'),
    # Version, method and id, in this order.
    (head(jsonrpc="1.0", method=8), '"1.0"'),
    (head(jsonrpc=2), "2,"),
    (head(jsonrpc=None), None),
    (head(method=8), "8"),
    (head(method="m" * 96), '"' + "m" * 96),
    (head(method=None), None),
    (head(id=[9]), "[9]"),
    (head(id=None).replace("{", '{"id":null,', 1), "null"),
    (head(id="i" * 96), '"' + "i" * 96),
    # The parameters.
    (head(params=None), None),
    (head(params=[9]), "[9]"),
    (head(params={"name": "kova_query", "x": 1}), '"x"'),
    (head(params={"arguments": {}}), None),
    (head(params={"name": 9}), "9"),
    (head(params={"name": "n" * 129}), '"' + "n" * 129),
    (head(params={"name": "surrogate"}).replace("surrogate", "a\\ud800"), "\\ud800"),
]


@pytest.mark.parametrize("text, blamed", MESSAGES)
def test_messages(authors, text, blamed):
    is_at(authors, authors.policy(), text, "message", blamed)


FLAGS = [
    ({"reads_enabled": False}, "kova_query", QUERY, "reads_enabled"),
    ({"reads_enabled": False}, "kova_nothing", {}, "reads_enabled"),
    ({"provider_reads_enabled": False}, "kova_text_search", TEXT, "provider_reads_enabled"),
    ({"provider_reads_enabled": False}, "kova_hybrid_search", HYBRID, "provider_reads_enabled"),
    ({"writes_enabled": False}, "kova_execute", WRITE, "writes_enabled"),
    ({"denied_columns": ["SSN"]}, "kova_describe_table", {"table": "ORDERS"}, "denied_columns"),
]


@pytest.mark.parametrize("overrides, tool, arguments, check", FLAGS)
def test_a_flag_of_the_policy_has_no_place(authors, overrides, tool, arguments, check):
    is_at(authors, authors.policy(**overrides), line(tool, arguments), check, None)


CALLS = [
    ("kova_nothing", {}, "tool", "kova_nothing"),
    ("kova_list_databases", {"x": 1}, "arguments", '"x"'),
    ("kova_list_databases", [], "arguments", "[]"),
    ("kova_list_tables", {"_meta": {}, "table": "A"}, "arguments", '"table"'),
    ("kova_list_tables", "text", "arguments", '"text"'),

    ("kova_describe_table", {"table": "HIDDEN", "x": 1}, "arguments", '"x"'),
    ("kova_describe_table", [9], "arguments", "[9]"),
    ("kova_describe_table", {}, "allowed_tables", None),
    ("kova_describe_table", {"table": 9}, "allowed_tables", "9"),
    ("kova_describe_table", {"table": "a b"}, "allowed_tables", "a b"),
    ("kova_describe_table", {"table": "T" * 64}, "allowed_tables", "T" * 64),
    ("kova_describe_table", {"table": "HIDDEN"}, "allowed_tables", "HIDDEN"),

    ("kova_query", 9, "arguments", "9"),
    ("kova_query", {**QUERY, "x": {"y": 1}}, "arguments", '"x"'),
    ("kova_query", {**QUERY, "k" * 64: 1}, "arguments", '"' + "k" * 64),
    ("kova_query", {}, "arguments", None),
    ("kova_query", {"sql": ["SELECT 1"]}, "arguments", '["SELECT'),
    ("kova_query", {"sql": None}, "arguments", "null"),
    ("kova_query", {"sql": "SELECT " + "1" * 32768}, "arguments", None),
    ("kova_query", {"sql": "SELECT SSN", "max_rows": 0}, "arguments", "0}"),
    ("kova_query", {**QUERY, "max_rows": 257}, "arguments", "257"),
    ("kova_query", {**QUERY, "max_rows": -9}, "arguments", "-9"),
    ("kova_query", {**QUERY, "max_rows": 1.5}, "arguments", "1.5"),
    ("kova_query", {**QUERY, "max_rows": "5"}, "arguments", '"5"'),
    ("kova_query", {**QUERY, "max_rows": [5]}, "arguments", "[5]"),
    ("kova_query", {**QUERY, "max_rows": True}, "arguments", "true"),
    ("kova_query", {"sql": ""}, "screen-size", None),
    ("kova_query", {"sql": "(1)"}, "screen-select-only", None),
    ("kova_query", {"sql": "DROP é"}, "screen-select-only", "DROP"),
    ("kova_query", {"sql": 'SELECT "ü", \'\n\', SSN FROM ORDERS'}, "denied_columns", "SSN"),
    ("kova_query", {"sql": "SELECT 'é\U0001f600', SSN FROM ORDERS"}, "denied_columns", "SSN"),
    ("kova_query", {"sql": "SELECT A FROM ORDERS o, b c"}, "allowed_tables", "b c"),
    ("kova_query", {"sql": "SELECT '" + "1" * 32759 + "'"}, "select-size", None),

    ("kova_vector_search", [9], "allowed_collections", "[9]"),
    ("kova_vector_search", without(VECTOR, "collection"), "allowed_collections", None),
    ("kova_vector_search", {**VECTOR, "collection": 9}, "allowed_collections", "9"),
    ("kova_vector_search", {**VECTOR, "collection": "OTHER"}, "allowed_collections", "OTHER"),
    ("kova_vector_search", {**VECTOR, "x": 1}, "arguments", '"x"'),
    ("kova_vector_search", {**VECTOR, "top": 0}, "arguments", "0}"),
    ("kova_vector_search", {**VECTOR, "top": "3"}, "arguments", '"3"'),
    ("kova_vector_search", without(VECTOR, "top"), "arguments", None),
    ("kova_vector_search", without(VECTOR, "vector"), "arguments", None),
    ("kova_vector_search", {**VECTOR, "vector": "[1]"}, "arguments", '"[1]'),
    ("kova_vector_search", {**VECTOR, "vector": []}, "arguments", "[]"),
    ("kova_vector_search", {**VECTOR, "vector": ["5", "6"]}, "arguments", '"5"'),
    ("kova_vector_search", {**VECTOR, "vector": [1, [8], 2]}, "arguments", "[8]"),
    ("kova_vector_search", {**VECTOR, "vector": [1, None]}, "arguments", "null"),
    ("kova_vector_search", {**VECTOR, "vector": [1, {"a": "b"}]}, "arguments", '{"a"'),
    ("kova_vector_search", {**VECTOR, "vector": [1, 9e99]}, "arguments", "9e+99"),
    ("kova_vector_search", {**VECTOR, "vector": [1] * 5000}, "message", None),
    ("kova_vector_search", {**VECTOR, "vector": [-1.23456789e-30] * 4000}, "arguments", None),

    ("kova_text_search", {**TEXT, "y": 1}, "arguments", '"y"'),
    ("kova_text_search", without(TEXT, "text"), "arguments", None),
    ("kova_text_search", {**TEXT, "text": 9}, "arguments", "9"),
    ("kova_text_search", {**TEXT, "text": ""}, "arguments", '""'),
    ("kova_text_search", {**TEXT, "text": "é" * 4097}, "arguments", '"é'),
    ("kova_text_search", {**TEXT, "text": "\x01" + "a" * 8192}, "arguments", '"\\u0001'),
    ("kova_text_search", {**TEXT, "text": "é\n\x02b\x01"}, "arguments", "\\u0002"),
    ("kova_text_search", {**TEXT, "top": 257}, "arguments", "257"),
    ("kova_text_search", without(TEXT, "top"), "arguments", None),

    ("kova_hybrid_search", {**HYBRID, "collection": "OTHER"}, "allowed_collections", "OTHER"),
    ("kova_hybrid_search", without(HYBRID, "source_table"), "allowed_tables", None),
    ("kova_hybrid_search", {**HYBRID, "source_table": 9}, "allowed_tables", "9"),
    ("kova_hybrid_search", {**HYBRID, "source_table": "HIDDEN"}, "allowed_tables", "HIDDEN"),
    ("kova_hybrid_search", without(HYBRID, "key_field"), "denied_columns", None),
    ("kova_hybrid_search", {**HYBRID, "key_field": "SSN"}, "denied_columns", "SSN"),
    ("kova_hybrid_search", without(HYBRID, "columns"), "arguments", None),
    ("kova_hybrid_search", {**HYBRID, "columns": "SSN"}, "arguments", '"SSN'),
    ("kova_hybrid_search", {**HYBRID, "columns": ["A", "SSN"]}, "denied_columns", "SSN"),
    ("kova_hybrid_search", {**HYBRID, "columns": ["A", 9]}, "denied_columns", "9"),
    ("kova_hybrid_search", {**HYBRID, "columns": ["A", "b c"]}, "denied_columns", "b c"),
    ("kova_hybrid_search", {**HYBRID, "y": 1}, "arguments", '"y"'),
    ("kova_hybrid_search", {**HYBRID, "text": []}, "arguments", "[]"),
    ("kova_hybrid_search", {**HYBRID, "text": "a\x1f"}, "arguments", "\\u001f"),
    ("kova_hybrid_search", {**HYBRID, "top": 1e2}, "arguments", "100.0"),
    ("kova_hybrid_search", {**HYBRID, "columns": []}, "arguments", "[]"),
    ("kova_hybrid_search", {**HYBRID, "columns": ["C"] * 17}, "arguments", '["C'),

    ("kova_ai_status", {"collection": "OTHER"}, "allowed_collections", "OTHER"),
    ("kova_ai_status", {**STATUS, "x": 1}, "arguments", '"x"'),
    ("kova_ai_status", {**STATUS, "provider": 9}, "arguments", "9"),
    ("kova_ai_status", {**STATUS, "provider": "b c"}, "arguments", '"b c'),

    ("kova_execute", "sql", "arguments", '"sql"'),
    ("kova_execute", {**WRITE, "max_rows": 1}, "arguments", '"max_rows"'),
    ("kova_execute", {"approval_token": "x"}, "arguments", None),
    ("kova_execute", {"sql": 9}, "arguments", "9"),
    ("kova_execute", {"sql": "DELETE FROM T" + " " * 32768}, "arguments", None),
    ("kova_execute", {"sql": ""}, "write-size", None),
    ("kova_execute", {"sql": "DELETE"}, "write-shape", None),
    ("kova_execute", {"sql": "DELETE FROM"}, "write-shape", None),
    ("kova_execute", {"sql": "SELECT SSN FROM ORDERS"}, "write-shape", "SELECT"),
    ("kova_execute", {"sql": "DELETE FROM T; X"}, "write-one-statement", "; X"),
    ("kova_execute", {"sql": "DELETE FROM T /* é"}, "write-comment", "/*"),
    ("kova_execute", {"sql": "DELETE FROM T WHERE A = 'é"}, "write-open-literal", "'é"),
    ("kova_execute", {"sql": "DELETE FROM HIDDEN"}, "write_tables", "HIDDEN"),
    ("kova_execute", {"sql": "DELETE FROM T WHERE load = 1"}, "write-prohibited-word", "load"),
]


@pytest.mark.parametrize("tool, arguments, check, blamed", CALLS)
def test_calls(authors, tool, arguments, check, blamed):
    overrides = {"denied_columns": ["SSN"]} if "SSN" in str(arguments) else {}
    is_at(authors, authors.writes(**overrides), line(tool, arguments), check, blamed)


def test_a_type_that_is_not_listed(authors):
    is_at(authors, authors.writes(write_types=["INSERT"]), line("kova_execute", WRITE),
          "write_types", "DELETE")


def test_a_provider_that_may_not_be_asked_about(authors):
    is_at(authors, authors.policy(provider_reads_enabled=False),
          line("kova_ai_status", {**STATUS, "provider": "P_1"}), "provider_reads_enabled", "P_1")


@pytest.mark.parametrize("text, blamed", [
    (line("kova_query", {"sql": "SELECT SSN FROM ORDERS"}).replace("SSN", "\\u0053SN"),
     "\\u0053SN"),
    (line("kova_query", {"sql": "SELECT 'E\U0001f600', SSN FROM ORDERS"})
     .replace("\U0001f600", "\\ud83d\\ude00"), "SSN"),
])
def test_escapes_before_the_place(authors, text, blamed):
    is_at(authors, authors.policy(denied_columns=["SSN"]), text, "denied_columns", blamed)


@pytest.mark.parametrize("tool, arguments", [
    ("kova_query", {"sql": "SELECT '?' FROM ORDERS"}),
    ("kova_text_search", {**TEXT, "text": "é?"}),
    ("kova_execute", {"sql": "DELETE FROM T WHERE A = '?'"}),
    ("kova_ai_status", {**STATUS, "provider": "?"}),
])
@pytest.mark.parametrize("escape", ["\\ud800", "\\udc00", "\\ud800\\u0041"])
def test_a_lone_surrogate(authors, tool, arguments, escape):
    text = line(tool, arguments).replace("?", escape)
    is_at(authors, authors.writes(), text, "arguments", escape)


@pytest.mark.parametrize("token", ["x", 9, "t" * 300])
def test_a_token_is_not_judged(authors, token):
    found = judged(authors, authors.writes(),
                   line("kova_execute", {**WRITE, "approval_token": token}), code=3)
    assert found["check"] == "approval_required" and "offset" not in found


def test_the_page_shows_the_place(authors):
    text = line("kova_query", {**QUERY, "rows": 5})
    result = authors.run("explain", authors.policy(), text)
    place = text.index('"rows"')
    assert f'place      line 1, column {place + 1} (byte {place}): "rows"\n' in (
        result.stdout.decode().replace("\r", ""))
