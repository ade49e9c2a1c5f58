"""SELECTs that try to get around the policy.

Every refused text is seen not to reach the client library; every accepted one is seen to reach it
whole, as one statement.
"""

from __future__ import annotations

import pytest

from harness.messages import PARSE_ERROR
from harness.tool_calls import ToolCalls, arguments, result_json

pytestmark = pytest.mark.slow

SCREEN = ("sql must be one bounded read-only SELECT; unknown fields are rejected; "
          "max_rows must be 1..256")
COLUMN = "column is denied by MCP policy"
TABLE = "table is not allowed by MCP policy"
SUBQUERY = "subqueries and UNION are not enabled by this policy version"
WILDCARD = "wildcard projection is denied when columns are restricted"
UNBALANCED = "unbalanced SQL parentheses"
UNTERMINATED = "unterminated SQL literal or parentheses"


@pytest.fixture
def tools(module_tools: ToolCalls) -> ToolCalls:
    """T and U may be read; the column C may not."""
    return module_tools.reset().policy(allowed_tables=["T", "U"], denied_columns=["C"])


@pytest.fixture
def open_columns(module_tools: ToolCalls) -> ToolCalls:
    """T and U may be read with all of their columns."""
    return module_tools.reset().policy(allowed_tables=["T", "U"])


def refused(tools: ToolCalls, sql: str, message: str) -> None:
    tools("kova_query", {"sql": sql}).is_error(message)


def reaches_the_library(tools: ToolCalls, sql: str) -> None:
    sent = sql if sql.endswith(";") else sql + ";"
    tools("kova_query", {"sql": sql}).is_success(result_json(), objects="policy-select",
                                                 statements=[sent])


@pytest.mark.parametrize("sql", [
    "SELECT a FROM T; SELECT b FROM U",
    "SELECT a FROM T;SELECT b FROM U;",
    "SELECT a FROM T; DROP TABLE T",
    "SELECT a FROM T;;",
    "SELECT a FROM T; ;",
    "SELECT a FROM T; x",
    "SELECT a FROM T;\x01",
    "SELECT a FROM T;\u00a0",
    "SELECT a FROM T;\u3000 ",
    "SELECT a FROM T; 'x'",
    "SELECT a FROM T; -- x",
    "; SELECT a FROM T",
    ";",
], ids=repr)
def test_a_second_statement(tools, sql):
    refused(tools, sql, SCREEN)


@pytest.mark.parametrize("sql", [
    "SELECT a FROM T -- x", "SELECT a FROM T --", "--\nSELECT a FROM T", "SELECT a--b FROM T",
    "SELECT a /* x */ FROM T", "SELECT a /*!50000 , b */ FROM T", "SELECT a FROM T /*",
    "SELECT/**/a FROM T", "/*!SELECT*/ SELECT a FROM T", "SELECT a FROM T # x", "SELECT a#b FROM T",
    "SELECT #\na FROM T", 'SELECT "--" FROM T', 'SELECT "#" FROM T', "SELECT 'a' -- ' FROM T",
], ids=repr)
def test_comments(tools, sql):
    refused(tools, sql, SCREEN)


@pytest.mark.parametrize("sql", [
    "SELECT 'abc", "SELECT '", "SELECT 'it''s", "SELECT '''", "SELECT a FROM T '",
    "SELECT 'a\\' FROM T WHERE b = '", '"SELECT \'',
], ids=repr)
def test_a_literal_without_its_end(tools, sql):
    """A backslash does not escape."""
    refused(tools, sql, SCREEN)


@pytest.mark.parametrize("word", ["INTO", "DELETE", "EXECUTE", "TRANSACTION", "SET", "DETACH"])
def test_words_that_no_select_may_hold(tools, word):
    refused(tools, f"SELECT a FROM T WHERE {word.title()} = 1", SCREEN)


@pytest.mark.parametrize("sql", [
    'SELECT "SET" FROM T', 'SELECT a AS "x drop y" FROM T', "SELECT [update] FROM T",
    "SELECT `use` FROM T", "SELECT 1into FROM T", "SELECT 'x'drop FROM T", "SELECT é_ÉSET FROM T",
    "SELECT a INTO OUTFILE 'x' FROM T", "SELECT a FROM T FOR UPDATE",
    "SELECT a\v\finto\x1fb FROM T", "select a from T where sEt=1",
], ids=repr)
def test_words_in_disguise(tools, sql):
    refused(tools, sql, SCREEN)


@pytest.mark.parametrize("sql", [
    "SELECT settings, reuse, dropped, call_ FROM T", "SELECT 'set -- /* # ; drop' FROM T",
    "SELECT a FROM T WHERE b = '*'", "SELECT a FROM T WHERE b = 'C'",
    "SELECT 'it''s; --' FROM T", "SELECT a FROM T WHERE b = 'SELECT c FROM HIDDEN'",
    "SELECT _set, set_, x_set FROM T",
], ids=repr)
def test_honest_selects(tools, sql):
    reaches_the_library(tools, sql)


@pytest.mark.parametrize("sql", [
    "WITH x AS (SELECT 1) SELECT * FROM x", "EXPLAIN SELECT a FROM T", "VALUES (1)", "TABLE T",
    "INSERT SELECT a FROM T", "SHOW AI STATUS X", "describe T", "_SELECT 1", "SELECT_ 1",
    "SELECTS 1", "éSELECTS 1", "'SELECT' 1", "1", "*", "'x'", "SELECT1"], ids=repr)
def test_what_is_no_select(tools, sql):
    refused(tools, sql, SCREEN)


@pytest.mark.parametrize("sql", [
    "SELECT C FROM T", "SELECT c FROM T", "SELECT t.C FROM T", 'SELECT "C" FROM T',
    "SELECT [C] FROM T", "SELECT `C` FROM T", "SELECT a FROM T WHERE C = 1",
    "SELECT a FROM T ORDER BY C", "SELECT a AS c FROM T", "SELECT MAX(C) FROM T",
    "SELECT a FROM T c", "SELECT a FROM C", "SELECT 1C FROM T", "SELECT éC FROM T",
    "SELECT T.\vC FROM T", "SELECT a FROM T WHERE 'x'C'y' = 1", "SELECT a FROM T GROUP BY\nc",
    # Checked before the structure and the wildcard.
    "SELECT C FROM HIDDEN", "SELECT *, C FROM T", "SELECT a FROM T UNION SELECT C FROM T",
], ids=repr)
def test_a_denied_column(tools, sql):
    refused(tools, sql, COLUMN)


@pytest.mark.parametrize("sql", [
    "SELECT a FROM HIDDEN", "SELECT a FROM hidden", "SELECT a FROM T JOIN HIDDEN ON 1 = 1",
    "SELECT a FROM T x, HIDDEN", "SELECT a FROM T x , HIDDEN", "SELECT a FROM T AS x\n\v,\fHIDDEN",
    "SELECT a FROM T x, U y, HIDDEN", "SELECT a FROM T LEFT OUTER JOIN HIDDEN",
    'SELECT a FROM "HIDDEN"', "SELECT a FROM (HIDDEN)", "SELECT a FROM S.T", "SELECT a FROM 'x' b",
    "SELECT a FROM\nHIDDEN", "SELECT a FROM T_", "SELECT a FROM T1", "SELECT a FROM éHIDDEN",
    "SELECT a FROM AS T", "SELECT a FROM LATERAL T", "SELECT a FROM ON T",
    "SELECT a FROM T WHERE b = 1 FROM HIDDEN", "SELECT EXTRACT(YEAR FROM d) FROM T",
    # Checked before the wildcard.
    "SELECT * FROM HIDDEN",
], ids=repr)
def test_a_table_that_is_not_allowed(tools, sql):
    refused(tools, sql, TABLE)


@pytest.mark.parametrize("sql", [
    "SELECT a FROM T WHERE b IN (SELECT x FROM HIDDEN)", "SELECT 1 UNION SELECT 2",
    "SELECT 1 UNION ALL VALUES (1)", "SELECT select", "SELECT a FROM T union",
    "SELECT a FROM (SELECT b FROM T)", "SELECT (SELECT a FROM T)", 'SELECT "union" FROM T',
    "SELECT SELECT a FROM HIDDEN", "SELECT a FROM UNION", "SELECT *, (SELECT 1) FROM T",
], ids=repr)
def test_subqueries_and_unions(tools, sql):
    refused(tools, sql, SUBQUERY)


@pytest.mark.parametrize("sql", [
    "SELECT * FROM T", "SELECT T.* FROM T", "SELECT COUNT(*) FROM T", "SELECT a*b FROM T",
    "SELECT *", "SELECT a, * FROM_ T", "SELECT from_x, * FROM T", "SELECT 'FROM', * FROM T",
    "SELECT fro, m*2 FROM T", "SELECT '''', * FROM T", "SELECT *\v\fFROM T", "SELECT from9, * x",
    'SELECT "*" FROM T',
], ids=repr)
def test_wildcards_where_columns_are_denied(tools, sql):
    refused(tools, sql, WILDCARD)


@pytest.mark.parametrize("sql", [
    "SELECT * FROM T", "SELECT COUNT(*) FROM T", "SELECT T.*, a*b FROM T", "SELECT *"])
def test_wildcards_where_no_column_is_denied(open_columns, sql):
    reaches_the_library(open_columns, sql)


@pytest.mark.parametrize("sql, message", [
    ("SELECT a) FROM T", UNBALANCED), ("SELECT )a( FROM T", UNBALANCED),
    ('SELECT ")" FROM T', UNBALANCED), (")SELECT a FROM T", UNBALANCED),
    ("SELECT (a FROM T", UNTERMINATED), ('SELECT "(" FROM T', UNTERMINATED),
    ("SELECT ((a) FROM T", UNTERMINATED), ("SELECT '(' || (a FROM T", UNTERMINATED),
    # Checked before the denied words.
    ("SELECT C) FROM T", UNBALANCED), ("SELECT (C FROM HIDDEN", UNTERMINATED),
], ids=repr)
def test_parentheses(tools, sql, message):
    refused(tools, sql, message)


LONG = "L" * 63


@pytest.mark.parametrize("sql", [
    # No table is expected after a table's comma, a dot or a word other than JOIN.
    "SELECT a FROM T, HIDDEN", "SELECT a FROM T.HIDDEN", "SELECT a FROM T x(y), HIDDEN",
    'SELECT a FROM T "x", HIDDEN', "SELECT a FROM T x 1, HIDDEN",
    "SELECT a FROM T EXCEPT TABLE HIDDEN", "SELECT a FROM T STRAIGHT_JOIN HIDDEN",
    "SELECT a FROM T WHERE b IN HIDDEN", "SELECT a FROM T WHERE b = 1, HIDDEN",
    # A keyword wins over an expected table.
    "SELECT a FROM", "SELECT a FROM WHERE x", "SELECT a FROM FROM T", "SELECT a FROM ORDER",
    # The search for a wildcard ends at a word that ends in FROM, and behind the first FROM.
    "SELECT 1 AS AFROM, * FROM T", "SELECT xfrom, * FROM T", "SELECT a FROM T WHERE b = d * 2",
    "SELECT a FROM T, *",
    # Apostrophes inside double quotes hide the text between them.
    """SELECT "'", C, "'" FROM T""", """SELECT "'", a FROM HIDDEN, "'" FROM T""",
    """SELECT "'"; DELETE FROM T; SELECT "'";""",
    """SELECT "'" -- x' FROM T""",
    # What may stand before the first word.
    "9SELECT 1", "(SELECT 1)", "'x' SELECT 1", "éSELECT 1",
    # Parts of names.
    "SELECT a FROM 9T", "SELECT a FROM éT", "SELECT a FROM $T", 'SELECT a FROM "T of 2020"',
    "SELECT 1", "SELECT a FROM T\v\f\rWHERE\tb = 1",
], ids=repr)
def test_what_is_accepted_although_a_reader_may_be_surprised(tools, sql):
    reaches_the_library(tools, sql)


def test_a_star_before_the_first_word(open_columns):
    reaches_the_library(open_columns, "*,= SELECT 1")


@pytest.mark.parametrize("sql", [
    f"SELECT a FROM {LONG}", f"SELECT a FROM {LONG}M", f"SELECT a FROM {LONG.lower()}mnop"],
    ids=len)
def test_tables_are_compared_by_63_characters(module_tools, sql):
    """And is sent complete."""
    module_tools.reset().policy(allowed_tables=[LONG])
    reaches_the_library(module_tools, sql)


def test_columns_and_words_are_compared_by_63_characters(module_tools):
    module_tools.reset().policy(allowed_tables=["T"], denied_columns=[LONG])
    refused(module_tools, f"SELECT {LONG}M FROM T", COLUMN)
    refused(module_tools, f"SELECT {LONG[:62]}M FROM {LONG[:62]}", TABLE)


def test_the_comma_is_looked_for_behind_the_whole_word(tools):
    alias = "x" * 80
    refused(tools, f"SELECT a FROM T {alias}, HIDDEN", TABLE)


@pytest.mark.parametrize("sql", [
    "SELECT '-- # ; )*' FROM T WHERE a_1 = 'it''s'",
    "select 'it''s' , a1_b FROM \"T\"",
    "SELECT x.a, y.b FROM T AS x INNER JOIN U AS y ON x.id = y.id WHERE x.a > 9 ORDER BY 1",
    "SELECT a FROM t x, u y GROUP BY a HAVING (a = 'x') LIMIT 9",
    "SELECT a AS \"é\" FROM T WHERE b = 'é\u20ac\U0001f600'",
], ids=repr)
def test_allowed_tables_in_every_place(tools, sql):
    reaches_the_library(tools, sql)


@pytest.mark.parametrize("text", [
    b"SELECT '\xff' FROM T", b"SELECT '\xc0\x80' FROM T", b"SELECT '\xed\xa0\x80'",
    b"SELECT '\t'", b"SELECT '\x01'"], ids=repr)
def test_bytes_that_are_no_json_text(tools, text):
    outcome = tools.raw(arguments("kova_query", b'{"sql":"%s"}' % text))
    assert outcome.reply == PARSE_ERROR
    assert (outcome.statements, outcome.records) == ([], [])


def test_a_text_ends_at_an_escaped_nul(tools):
    tools.raw(arguments("kova_query", '{"sql":"SELECT 1\\u0000; DROP TABLE T"}'),
              tool="kova_query").is_success(result_json(), objects="policy-select",
                                            statements=["SELECT 1;"])


@pytest.mark.parametrize("sql", [
    "SELECT * FROM (SELECT C FROM HIDDEN) UNION SELECT 1", "SELECT ) FROM", "SELECT (((",
    "SELECT x"])
def test_without_a_policy_the_screen_is_all(without_policy, sql):
    reaches_the_library(without_policy, sql)


@pytest.mark.parametrize("sql", ["SELECT 1; SELECT 2", "SELECT 1 -- x", "DELETE FROM T",
                                 "WITH x AS (SELECT 1) SELECT * FROM x"])
def test_without_a_policy_the_screen_still_stands(without_policy, sql):
    refused(without_policy, sql, SCREEN)


def test_an_empty_table_list_allows_no_table(module_tools):
    module_tools.reset().policy(allowed_tables=[])
    refused(module_tools, "SELECT a FROM T", TABLE)
    reaches_the_library(module_tools, "SELECT 1")
