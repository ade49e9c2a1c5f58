"""`policy test`: TAP, JUnit, and what is refused in a table of cases."""

from __future__ import annotations

import json
import resource
import xml.etree.ElementTree as ElementTree

import pytest

from e2e.admin.test_policy_check import place_of
from e2e.admin.test_policy_explain import APPROVAL, DENIED, SCREEN, UNKNOWN

READ = {"name": "read", "sql": "SELECT A FROM ORDERS", "expect": "allow"}
DELETE = {"name": "delete", "sql": "DELETE FROM T", "expect": "approval"}


def tap(authors, path, cases, code, *options):
    result = authors.run("test", *options, path, authors.cases(cases))
    assert (result.code, result.stderr) == (code, b""), result
    return result.stdout.decode().replace("\r", "")


def test_all_as_expected(authors):
    cases = [READ, DELETE,
             {"name": "other", "tool": "kova_list_tables", "arguments": {}, "expect": "allow"},
             {"name": "why", "sql": "SELECT SSN FROM ORDERS", "expect": "deny", "reason": DENIED},
             {"name": "what", "sql": "delete from T", "expect": "approval", "table": "t",
              "type": "Delete", "reason": APPROVAL},
             {"name": "read by the other tool", "tool": "kova_execute", "sql": "SELECT 1",
              "expect": "deny"},
             {"name": "target", "sql": "DELETE FROM HIDDEN", "expect": "deny", "table": "HIDDEN",
              "type": "DELETE"}]
    assert tap(authors, authors.writes(denied_columns=["SSN"]), cases, 0) == (
        "TAP version 13\n1..7\nok 1 - read\nok 2 - delete\nok 3 - other\nok 4 - why\n"
        "ok 5 - what\nok 6 - read by the other tool\nok 7 - target\n")


def test_the_table_on_standard_input(authors):
    table = json.dumps([READ, {**READ, "name": "no", "expect": "deny"}]).encode()
    result = authors.run("test", authors.policy(), "-", stdin=table)
    assert result.code == 1 and b"\n# unexpected allow: no" in result.stdout
    result = authors.run("test", authors.policy(), "-", stdin=b"[7]")
    assert (result.code, result.stdout) == (2, b"")
    assert result.stderr.startswith(b"kova-admin: -: line 1, column 2: ")


def test_kill_switches_count(authors):
    path, table = authors.writes(), authors.cases([DELETE])
    env = {"KOVA_MCP_DISABLE_WRITES": "1"}
    assert authors.run("test", path, table).code == 0
    result = authors.run("test", path, table, env=env)
    assert result.code == 1 and b"  got: deny\n" in result.stdout.replace(b"\r", b"")
    free = authors.writes("free.json", approval_required=False)
    assert [flip["case"] for flip in authors.json("diff", path, free, table, code=1)["flips"]] == [
        "delete"]
    assert authors.json("diff", path, free, table, code=1, env=env)["flips"] == []


def test_cases_have_names(authors):
    unnamed = {"sql": "SELECT A FROM ORDERS", "expect": "allow"}
    assert tap(authors, authors.policy(), [unnamed, READ, unnamed], 0) == (
        "TAP version 13\n1..3\nok 1 - case 1\nok 2 - read\nok 3 - case 3\n")


def test_an_empty_tool_is_a_tool(authors):
    case = {**READ, "tool": "", "expect": "deny", "reason": UNKNOWN}
    tap(authors, authors.policy(), [case], 0)


def test_an_escaped_nul_ends_no_text_of_a_case(authors):
    case = {"name": "a\0b", "sql": "SELECT SSN FROM ORDERS", "expect": "deny"}
    path = authors.policy(denied_columns=["SSN"])
    assert "ok 1 - a\\x00b\n" in tap(authors, path, [case], 0)
    tap(authors, path, [{**case, "reason": DENIED + "\0"}], 1)
    tap(authors, path, [{**case, "table": "\0"}], 1)
    # The server's text ends there.
    tap(authors, path, [{**case, "sql": "SELECT A FROM ORDERS\0, SSN", "expect": "allow"}], 0)
    write = {"sql": "\0DELETE FROM T", "expect": "deny", "reason": SCREEN}
    tap(authors, authors.writes(), [write], 0)


def test_unexpected_allows_come_first(authors):
    cases = [{**READ, "expect": "deny"}, READ, {**DELETE, "expect": "deny"},
             {**READ, "name": "again", "expect": "approval"}]
    assert tap(authors, authors.writes(), cases, 1) == (
        "TAP version 13\n1..4\n# unexpected allow: read\n# unexpected allow: again\n"
        "not ok 1 - read\n  ---\n  expected: deny\n  got: allow\n  ...\n"
        "ok 2 - read\n"
        f'not ok 3 - delete\n  ---\n  expected: deny\n  got: approval\n  message: "{APPROVAL}"\n'
        "  ...\n"
        "not ok 4 - again\n  ---\n  expected: approval\n  got: allow\n  ...\n")


@pytest.mark.parametrize("member, value", [
    ("reason", "column is denied"), ("table", "ORDERS"), ("type", "DELETE")])
def test_a_member_that_differs(authors, member, value):
    case = {"name": "x", "sql": "UPDATE T SET A = 1", "expect": "approval", member: value}
    text = tap(authors, authors.writes(), [case], 1)
    assert "not ok 1 - x\n  ---\n  expected: approval\n  got: approval\n" in text
    assert f"  expected_{member}: \"{value}\"\n  got_{member}: " in text
    assert "# unexpected allow" not in text


def test_reasons_are_compared_exactly(authors):
    for reason, code in ((SCREEN, 0), (SCREEN.upper(), 1), (SCREEN + " ", 1)):
        case = {"name": "x", "sql": "DROP TABLE T", "expect": "deny", "reason": reason}
        tap(authors, authors.policy(), [case], code)


def test_writes_that_are_off(authors):
    tap(authors, authors.policy(), [{**DELETE, "expect": "deny", "reason": UNKNOWN}], 0)


@pytest.mark.parametrize("name, shown", [
    ("a # TODO b", "a \\# TODO b"), ("a\\b", "a\\\\b"), ("a\nnot ok 2", "a\\nnot ok 2"),
    ("\x1b[2J", "\\x1b[2J"), ("é", "é")])
def test_names_are_escaped(authors, name, shown):
    text = tap(authors, authors.policy(), [{**READ, "name": name, "expect": "deny"}], 1)
    lower = text.replace("\\u{1B}", "\\x1b").replace("\\x1B", "\\x1b")
    assert f"# unexpected allow: {shown}\nnot ok 1 - {shown}\n" in lower


def test_an_empty_table(authors):
    assert tap(authors, authors.policy(), [], 0) == "TAP version 13\n1..0\n"
    assert tap(authors, authors.policy(), [], 1, "--fail-on-empty") == "TAP version 13\n1..0\n"
    tap(authors, authors.policy(), [READ], 0, "--fail-on-empty")


@pytest.mark.parametrize("case, at, word", [
    ('{"name": "x", "sql": "y", "expects": "deny"}', '"expects"', "expects"),
    ('{"name": "x", "sql": "y"}', "{", "expect"),
    ('{"name": "x", "expect": "deny"}', "{", "sql"),
    ('{"sql": "y", "expect": "maybe"}', '"maybe"', "expect"),
    ('{"sql": "y", "expect": true}', "true", "expect"),
    ('{"sql": 7, "expect": "deny"}', "7", "sql"),
    ('{"sql": "y", "arguments": {}, "expect": "deny"}', '"arguments"', "both"),
    ('{"arguments": {}, "expect": "deny"}', "{", "tool"),
    ('{"sql": "y", "sql": "z", "expect": "deny"}', '"sql": "z"', "second"),
    ('{"sql": "y", "expect": "deny", "name": []}', "[", "name"),
    ('7', "7", "object"),
    ('{"sql": "y" "expect": "deny"}', '"expect"', "JSON"),
])
def test_cases_that_are_refused(authors, case, at, word):
    text = f'[\n  {{"sql": "\u00e9", "expect": "deny"}},\n  {case}\n]\n'
    path = authors.cases(text.encode())
    offset = text.encode().index(case.encode()) + case.encode().index(at.encode())
    line, column = place_of(text.encode(), offset)
    for command in (["test", authors.policy()], ["diff", authors.policy(), authors.policy()]):
        message = authors.refusal(*command, path)
        assert message.startswith(
            f"{authors.target.path(path)}: line {line}, column {column}: "), message
        assert word in message


@pytest.mark.parametrize("text", ["", "{}", "7", "[", '[{"sql": "y", "expect": "deny"},]'])
def test_tables_that_are_refused(authors, text):
    assert ": line 1, column " in authors.refusal("test", authors.policy(), authors.cases(text))
    assert "missing" in authors.refusal("test", authors.policy(), authors.folder / "missing")


def test_junit(authors):
    cases = [READ, {**READ, "name": "<&\"\x1b>", "expect": "deny"}, {**DELETE, "expect": "deny"}]
    report = authors.folder / "report.xml"
    tap(authors, authors.writes(), cases, 1, "--junit", report)
    suite = ElementTree.parse(report).getroot()
    assert (suite.tag, suite.get("tests"), suite.get("failures")) == ("testsuite", "3", "2")
    assert [case.get("name")[:3] for case in suite] == ["rea", "<&\"", "del"]
    assert [[child.tag for child in case] for case in suite] == [[], ["failure"], ["failure"]]
    assert [case[0].get("type") for case in list(suite)[1:]] == ["unexpected allow",
                                                                "not as expected"]
    assert [path.name for path in authors.folder.glob("report*")] == ["report.xml"]


def test_a_junit_file_that_cannot_be_written(authors):
    message = authors.refusal("test", "--junit", authors.folder / "no" / "x.xml", authors.policy(),
                              authors.cases([READ]))
    assert "x.xml" in message


def test_junit_overwrites_no_input(authors):
    path, table = authors.policy(), authors.cases([READ])
    before = path.read_bytes(), table.read_bytes()
    for name in (path, table):
        message = authors.refusal("test", "--junit", name, path, table)
        assert message == f"{authors.target.path(name)}: the output is one of the inputs"
    assert (path.read_bytes(), table.read_bytes()) == before
    message = authors.refusal("test", "--junit", authors.folder, path, table)
    assert message == f"{authors.target.path(authors.folder)}: it is no regular file"
    report = authors.file("report.xml", "old")
    tap(authors, path, [READ], 0, "--junit", report)
    assert report.read_bytes().startswith(b"<?xml")


def processor_seconds() -> float:
    """What the ended children of this process have used."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


@pytest.mark.shipped_build
def test_ten_thousand_cases(authors):
    cases = [{"name": f"case {n}", "expect": expect, "sql": sql}
             for n in range(2500) for expect, sql in (
                 ("allow", f"SELECT A{n}, B FROM ORDERS WHERE C = 'x' ORDER BY A{n}"),
                 ("deny", f"SELECT A{n} FROM HIDDEN"), ("deny", "DROP TABLE T"),
                 ("approval", f"UPDATE T SET A = {n} WHERE B = 'it''s'"))]
    path, table = authors.writes(), authors.cases(cases)
    spent = []
    for _ in range(3):
        begin = processor_seconds()
        result = authors.run("test", path, table)
        spent.append(processor_seconds() - begin)
        assert result.code == 0 and result.stdout.count(b"\nok ") == 10000
    # The processor's time: other processes on the machine do not lengthen it.
    assert 0 < min(spent) < 1, spent
