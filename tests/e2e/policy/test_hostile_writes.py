"""Writes that try to get around the policy.

Every refused text is seen not to reach the client library; every accepted one is seen to reach it
in its canonical form, as one statement. T and the longest name may be written, U may not.
"""

from __future__ import annotations

import pytest

from harness.messages import tool_error_reply
from harness.tool_calls import arguments
from harness.write_calls import (BAD_ARGUMENTS, COMMENT, NOT_ALLOWED, NO_WRITE, PROHIBITED,
                                 SECOND_STATEMENT, SIZE, TOOL, TOO_LARGE, UNCLASSIFIED,
                                 UNTERMINATED, Writes, ran, refused)

pytestmark = pytest.mark.slow

LONGEST = "N" * 63
LIMIT = 32768

WORDS = ["CREATE", "DROP", "ALTER", "GRANT", "REVOKE", "COMMIT", "ROLLBACK", "TRANSACTION", "EXEC",
         "EXECUTE", "CALL", "RUN", "LOAD", "IMPORT", "EXPORT", "SYNC", "PROVIDER", "LOGIN",
         "LOGOUT", "USE"]


@pytest.fixture
def writes(served: Writes) -> Writes:
    return served.open(write_tables=["T", LONGEST])


@pytest.mark.parametrize("sql", [
    "DELETE FROM T -- x", "DELETE FROM T --", "--\nDELETE FROM T", "UPDATE T SET A=A--1",
    "DELETE /* x */ FROM T", "DELETE/**/FROM T", "/*!DELETE*/ FROM T", "DELETE FROM T /*",
    "DELETE FROM T # x", "DELETE FROM T#", "#DELETE FROM T", 'DELETE FROM T WHERE "--" = A',
    'DELETE FROM T WHERE "#" = A', 'DELETE FROM "/*" T', "DELETE FROM T WHERE A = '' -- '",
    "DELETE FROM T WHERE A = 'x'--'", "DELETE FROM T -- x;", "DELETE FROM T /* ; */; DELETE",
    "DELETE FROM T ---", "--", "#", "/*", "DROP TABLE T --", "UPDATE T SET A = 'x'#'y'",
], ids=repr)
def test_comments(writes, sql):
    refused(writes(sql), COMMENT)


@pytest.mark.parametrize("sql, canonical", [
    ("DELETE FROM T WHERE A = '--'", "DELETE FROM T WHERE A = '--';"),
    ("DELETE FROM T WHERE A = '/* # */'", "DELETE FROM T WHERE A = '/* # */';"),
    ("DELETE FROM T WHERE A = - - 1", "DELETE FROM T WHERE A = - - 1;"),
    ("DELETE FROM T WHERE A = 1 / * 2", "DELETE FROM T WHERE A = 1 / * 2;"),
    ("DELETE FROM T WHERE A */ B", "DELETE FROM T WHERE A */ B;"),
    ("DELETE FROM T WHERE A = 1 -", "DELETE FROM T WHERE A = 1 -;"),
    ("DELETE FROM T WHERE A = -'-'", "DELETE FROM T WHERE A = -'-';"),
], ids=repr)
def test_what_only_looks_like_a_comment(writes, sql, canonical):
    ran(writes(sql), canonical)


@pytest.mark.parametrize("sql", [
    "DELETE FROM T; DELETE FROM T", "DELETE FROM T;DELETE FROM T;", "DELETE FROM T; DROP TABLE T",
    "DELETE FROM T;;", "DELETE FROM T; ;", ";;", "; DELETE FROM T", "DELETE FROM T; x",
    "DELETE FROM T;\x01", "DELETE FROM T;\u00a0", "DELETE FROM T;\u3000", "DELETE FROM T;\x1f",
    "DELETE FROM T; 'x'", "DELETE FROM T; -- x", "DELETE FROM T; /* x */", "DELETE FROM T;#",
    'DELETE FROM T WHERE ";" = A', "DELETE FROM [T;]", "DROP TABLE T; x",
    "DELETE FROM T WHERE A = 'x';'y'", "DELETE FROM T WHERE A = 'it''s'; --'",
], ids=repr)
def test_stacked_statements(writes, sql):
    refused(writes(sql), SECOND_STATEMENT)


@pytest.mark.parametrize("sql, canonical", [
    ("DELETE FROM T;   ", "DELETE FROM T;"),
    ("DELETE FROM T;\t\n\v\f\r ", "DELETE FROM T;"),
    ("DELETE FROM T   ;", "DELETE FROM T;"),
    ("DELETE FROM T WHERE A = ';'", "DELETE FROM T WHERE A = ';';"),
    ("DELETE FROM T WHERE A = '; DROP T; --'", "DELETE FROM T WHERE A = '; DROP T; --';"),
    ("DELETE FROM T\0; DROP TABLE T", "DELETE FROM T;"),
    ("DELETE FROM T;\0 DROP TABLE T", "DELETE FROM T;"),
    ("DELETE FROM T WHERE A = 'x'\0'", "DELETE FROM T WHERE A = 'x';"),
], ids=repr)
def test_one_statement_and_its_end(writes, sql, canonical):
    ran(writes(sql), canonical)


@pytest.mark.parametrize("sql, message", [
    ("", SIZE), ("\0DELETE FROM T", SIZE),
    (" ", UNCLASSIFIED), ("\n\t", UNCLASSIFIED), (";", UNCLASSIFIED), (" ; ", UNCLASSIFIED),
    ("DELETE", UNCLASSIFIED), ("INSERT", UNCLASSIFIED), ("UPDATE;", UNCLASSIFIED),
    ("1 2 3", UNCLASSIFIED), ("T", UNCLASSIFIED), ("UPDATE 1", UNCLASSIFIED),
    ("''", UNCLASSIFIED), ("'DELETE'", UNCLASSIFIED),
    ("INSERT INTO", NO_WRITE), ("DELETE FROM", NO_WRITE), ("DELETE FROM 1", NO_WRITE),
    ("INSERT T VALUES (1)", NO_WRITE), ("DELETE T", NO_WRITE), ("DELETE t WHERE a = 1", NO_WRITE),
    ("MERGE INTO T USING U ON 1", NO_WRITE), ("REPLACE INTO T VALUES (1)", NO_WRITE),
    ("INSERT OR REPLACE INTO T VALUES (1)", NO_WRITE), ("INSERT OVERWRITE T", NO_WRITE),
    ("SELECT * FROM T", NO_WRITE), ("TRUNCATE TABLE T", NO_WRITE), ("DROP TABLE T", NO_WRITE),
    ("EXPLAIN DELETE FROM T", NO_WRITE), ("WITH X AS (SELECT 1) DELETE FROM T", NO_WRITE),
    ("BEGIN DELETE FROM T", NO_WRITE), ("INSERTS INTO T VALUES (1)", NO_WRITE),
    ("_DELETE FROM T", NO_WRITE), ("DELETE1 FROM T", NO_WRITE), ("DELETE FROMT T", NO_WRITE),
    ("UPDATES T SET A = 1", NO_WRITE), ("USE SALES", NO_WRITE), ("LOGIN a,b", NO_WRITE),
    ("PRAGMA writable_schema", NO_WRITE), ("A" * 70 + " B", NO_WRITE),
], ids=lambda text: repr(text)[:30])
def test_what_is_no_write(writes, sql, message):
    refused(writes(sql), message)


@pytest.mark.parametrize("sql", [
    "DELETE FROM U", "INSERT INTO U VALUES (1)", "UPDATE U SET A = 1", "DELETE FROM TT",
    "DELETE FROM T_", "DELETE FROM T1", "DELETE FROM _T", "DELETE FROM S.T", "DELETE FROM ONLY T",
    "UPDATE ONLY T SET A = 1", "UPDATE OR REPLACE T SET A = 1", "INSERT INTO TABLE T VALUES (1)",
    'DELETE FROM "S"."T"', "DELETE FROM 'U' T", "UPDATE 'U' T SET A = 1", "DELETE FROM USE",
    "UPDATE DROP SET A = 1", "UPDATE CREATE", "UPDATE SET A = 1", "INSERT INTO VALUES (1)",
    "DELETE FROM WHERE T = 1", "DELETE FROM U, T", f"DELETE FROM {LONGEST[1:]}",
    f"DELETE FROM M{LONGEST}", f"DELETE FROM _{LONGEST}",
], ids=lambda sql: sql[:40])
def test_other_tables(writes, sql):
    refused(writes(sql), NOT_ALLOWED)


@pytest.mark.parametrize("sql, canonical", [
    ('DELETE FROM "t"', 'DELETE FROM "T";'), ("DELETE FROM [t]", "DELETE FROM [T];"),
    ("DELETE FROM `t`", "DELETE FROM `T`;"), ("DELETE FROM (T)", "DELETE FROM (T);"),
    ("(DELETE FROM T)", "(DELETE FROM T);"), ("1 DELETE FROM T", "1 DELETE FROM T;"),
    ("DELETE FROM T.U", "DELETE FROM T.U;"), ("DELETE FROM T, U", "DELETE FROM T, U;"),
    ("UPDATE T", "UPDATE T;"), ("UPDATE T, U SET A = 1", "UPDATE T, U SET A = 1;"),
    ("DELETE,FROM,T", "DELETE,FROM,T;"), ("DELETE FROM T WHERE (((", "DELETE FROM T WHERE (((;"),
    ("DELETE FROM 't'", "DELETE FROM 't';"), ("'DELETE' FROM T", "'DELETE' FROM T;"),
    ("DELETE 'from' T", "DELETE 'from' T;"), ("UPDATE 'x y' SET A = 1", None),
    ("UPDATE T SET A = (SELECT B FROM U)", "UPDATE T SET A = (SELECT B FROM U);"),
    ("INSERT INTO T SELECT * FROM U", "INSERT INTO T SELECT * FROM U;"),
    ("DELETE FROM T WHERE A IN (SELECT X FROM drop_log)",
     "DELETE FROM T WHERE A IN (SELECT X FROM DROP_LOG);"),
], ids=repr)
def test_words_decide_not_syntax(writes, sql, canonical):
    """The database checks the syntax; type and table are found by words alone."""
    if canonical is None:
        refused(writes(sql), NOT_ALLOWED)
    else:
        ran(writes(sql), canonical)


@pytest.mark.parametrize("sql, canonical", [
    ("UPDATE T SET A = ''", "UPDATE T SET A = '';"),
    ("UPDATE T SET A = ''''", "UPDATE T SET A = '''';"),
    ("UPDATE T SET A = 'it''s  OK'", "UPDATE T SET A = 'it''s  OK';"),
    ("UPDATE T SET A = 'a'  'b'", "UPDATE T SET A = 'a' 'b';"),
    ("UPDATE T SET A = 'a'b'c'", "UPDATE T SET A = 'a'B'c';"),
    ("UPDATE T SET A =   'a'", "UPDATE T SET A = 'a';"),
    ("UPDATE T SET A = 'a\\'", "UPDATE T SET A = 'a\\';"),
    ("UPDATE T SET A = 'a\\''b'", "UPDATE T SET A = 'a\\''b';"),
    ("UPDATE T SET A = '\"' , b = '\"'", "UPDATE T SET A = '\"' , B = '\"';"),
    ("UPDATE T SET A = 'line\n\tline'", "UPDATE T SET A = 'line\n\tline';"),
    ("UPDATE T SET A = 'x' ", "UPDATE T SET A = 'x';"),
    ("UPDATE T SET A = n'x'", "UPDATE T SET A = N'x';"),
    ("UPDATE T SET \"a b\" = 1", "UPDATE T SET \"A B\" = 1;"),
    ("UPDATE T SET \"a  b\" = 1", "UPDATE T SET \"A B\" = 1;"),
    # Apostrophes inside double quotes hide the text between them.
    ("""UPDATE T SET a = "'"; DROP TABLE U; SELECT "'\"""",
     """UPDATE T SET A = "'"; DROP TABLE U; SELECT "'";"""),
], ids=repr)
def test_quoting(writes, sql, canonical):
    ran(writes(sql), canonical)


@pytest.mark.parametrize("sql", [
    "UPDATE T SET A = '", "UPDATE T SET A = 'x", "UPDATE T SET A = '''", "UPDATE T SET A = 'x''",
    "UPDATE T SET A = 'it's'", "UPDATE T SET A = 'a\\'b'", "UPDATE T SET \"it's\" = 1", "'",
    "DROP TABLE 'T", "UPDATE T SET A = 'x\0'", "UPDATE T SET A = 'x; -- y",
], ids=repr)
def test_open_literals(writes, sql):
    refused(writes(sql), UNTERMINATED)


@pytest.mark.parametrize("sql, canonical", [
    ("update t set a = 'z\u00fcrich \u00df'", "UPDATE T SET A = 'z\u00fcrich \u00df';"),
    ("update t set \u00e9\u00df = 1", "UPDATE T SET \u00e9\u00df = 1;"),
    ("update t set a = '\U0001f600'", "UPDATE T SET A = '\U0001f600';"),
    ("update\u00a0t set a = 1", "UPDATE\u00a0T SET A = 1;"),
    ("update t\u3000\u3000set a = 1", "UPDATE T\u3000\u3000SET A = 1;"),
    ("\ufeffupdate t set a = 1", "\ufeffUPDATE T SET A = 1;"),
    ("update t\u00e9 set a = 1", "UPDATE T\u00e9 SET A = 1;"),
    ("update \u200bt set a = 1", "UPDATE \u200bT SET A = 1;"),
    ("update t set a = \u2019x y\u2019", "UPDATE T SET A = \u2019X Y\u2019;"),
    ("update t set a = 1\uff1b delete", "UPDATE T SET A = 1\uff1b DELETE;"),
    ("update t set a = 1 \u2014\u2014 x", "UPDATE T SET A = 1 \u2014\u2014 X;"),
    ("update\x01t set a = 1\x7f", "UPDATE\x01T SET A = 1\x7f;"),
    ("update t set a = 1 \x85 x", "UPDATE T SET A = 1 \x85 X;"),
], ids=ascii)
def test_unicode(writes, sql, canonical):
    """Letters and spacing are those of ASCII; every other byte stays as it is."""
    ran(writes(sql), canonical)


@pytest.mark.parametrize("sql, message", [
    ("\uff24\uff25\uff2c\uff25\uff34\uff25 FROM T", NO_WRITE),
    ("DEL\u200bETE FROM T", NO_WRITE), ("\u0131nsert INTO T VALUES (1)", NO_WRITE),
    ("in\u017fert INTO T VALUES (1)", NO_WRITE), ("D\u0415LETE FROM T", NO_WRITE),
    ("DELETE FROM \u0422", NO_WRITE), ("DELETE FROM \u0422 U", NOT_ALLOWED),
    ("DELETE FROM \u00e9U", NOT_ALLOWED), ("DELETE FROM T WHERE \u00e9DROP = 1", PROHIBITED),
    ("DELETE FROM T WHERE A = \u2019DROP\u2019", PROHIBITED),
    ("DELETE\u2028FROM U", NOT_ALLOWED),
], ids=ascii)
def test_unicode_that_is_refused(writes, sql, message):
    refused(writes(sql), message)


@pytest.mark.parametrize("word", WORDS)
def test_a_prohibited_word(writes, word):
    for spelling in (word, word.lower(), word.capitalize()):
        refused(writes(f"UPDATE T SET A = {spelling}"), PROHIBITED)
    near = " ".join((word + "S", word + "_", "_" + word, word + "1", "X" + word, word[:-1]))
    ran(writes(f"UPDATE T SET A = '{word}', B = {near.lower()}"),
        f"UPDATE T SET A = '{word}', B = {near};")


@pytest.mark.parametrize("sql", [
    "UPDATE T SET A = 1DROP", 'UPDATE T SET "DROP" = 1', "UPDATE T SET [use] = 1",
    "UPDATE T SET A = (call)", "UPDATE T SET A = x.load", "UPDATE T SET A = 'x'run",
    "UPDATE T SET A = 'x''y'drop'z'", "UPDATE T SET A = 1,sync", "UPDATE T SET A = @exec",
    "DELETE FROM T\nlogout", "INSERT INTO t SELECT * FROM load", "UPDATE T drop",
], ids=repr)
def test_prohibited_words_in_hiding(writes, sql):
    refused(writes(sql), PROHIBITED)


def test_a_prohibited_word_as_the_table(served):
    served.open(write_tables=["USE", "DROP_LOG"])
    refused(served("DELETE FROM USE"), PROHIBITED)
    ran(served("DELETE FROM DROP_LOG"), "DELETE FROM DROP_LOG;", table="DROP_LOG")


@pytest.mark.parametrize("word", ["ATTACH", "LOCK", "DETACH", "BEGIN", "SET", "VALUES", "SELECT",
                                  "INSERT", "UPDATE", "DELETE", "INTO", "MERGE", "REPLACE"])
def test_words_that_are_not_prohibited(writes, word):
    ran(writes(f"UPDATE T SET A = {word}"), f"UPDATE T SET A = {word};")


def test_names_of_63_and_64_characters(writes):
    ran(writes(f"DELETE FROM {LONGEST}"), f"DELETE FROM {LONGEST};", table=LONGEST)
    ran(writes(f"DELETE FROM {LONGEST.lower()}"), f"DELETE FROM {LONGEST};", table=LONGEST)
    # A word is cut to 63 characters, so a longer name counts as its beginning.
    for longer in (LONGEST + "N", LONGEST + "X", LONGEST * 2):
        ran(writes(f"DELETE FROM {longer}"), f"DELETE FROM {longer};", table=LONGEST)


def test_a_long_word_does_not_hide_a_prohibited_one(writes):
    ran(writes(f"UPDATE T SET A = {'X' * 63}DROP"), f"UPDATE T SET A = {'X' * 63}DROP;")
    refused(writes(f"UPDATE T SET A = {'X' * 63} DROP"), PROHIBITED)
    refused(writes(f"UPDATE T SET A = {'X' * 63}\u00e9DROP"), PROHIBITED)


def filled(head: str, tail: str, size: int) -> str:
    """A text of this number of bytes."""
    return head + "x" * (size - len((head + tail).encode())) + tail


OUTSIDE = ("UPDATE T SET A = ", ";")
INSIDE = ("UPDATE T SET A = '", "';")


def test_texts_that_fill_the_area(writes):
    """The canonical text is 32,768 bytes at most, its semicolon included."""
    head, end = OUTSIDE
    for size in (LIMIT - 1, LIMIT):
        text = filled(head, end, size)
        ran(writes(text), head + text[len(head):].upper())
    text = filled(head, "", LIMIT - 1)
    ran(writes(text), head + text[len(head):].upper() + ";")
    refused(writes(filled(head, "", LIMIT)), TOO_LARGE)
    refused(writes(filled(head, " ", LIMIT + 1)), BAD_ARGUMENTS)
    refused(writes(filled(head, end, LIMIT + 1)), BAD_ARGUMENTS)


def test_literals_that_fill_the_area(writes):
    head, end = INSIDE
    ran(writes(filled(head, end, LIMIT)), filled(head, end, LIMIT))
    ran(writes(filled(head, "'", LIMIT - 1)), filled(head, "';", LIMIT))
    refused(writes(filled(head, "'", LIMIT)), "")
    refused(writes(filled(head, "", LIMIT)), "")
    refused(writes(filled(head, "", LIMIT - 1)), UNTERMINATED)
    refused(writes(filled("UPDATE T SET A = ", "'", LIMIT)), UNTERMINATED)


def test_a_full_area_keeps_an_approval_away(served):
    served.guarded()
    refused(served(filled(INSIDE[0], "'", LIMIT), "x"), "")
    refused(served(filled(OUTSIDE[0], "", LIMIT), "x"), TOO_LARGE)


def test_spacing_that_fills_the_text(writes):
    ran(writes("DELETE FROM T".ljust(LIMIT)), "DELETE FROM T;")
    ran(writes("DELETE FROM T".rjust(LIMIT)), "DELETE FROM T;")
    ran(writes("DELETE" + "\n" * (LIMIT - 12) + "FROM T"), "DELETE FROM T;")
    refused(writes(" " * LIMIT), UNCLASSIFIED)
    refused(writes(" " * (LIMIT + 1)), BAD_ARGUMENTS)


def test_sizes_are_those_of_the_decoded_text(writes):
    head, end = INSIDE
    text = filled(head, end, LIMIT - 2).replace("xx';", "\u00e9\u00e9';")
    assert len(text.encode()) == LIMIT
    ran(writes(text), text)
    escaped = (head + "\\u0078" * (LIMIT - len(head + end)) + end).encode()
    ran(writes.calls.raw(arguments(TOOL, b'{"sql":"%s"}' % escaped), tool=TOOL),
        filled(head, end, LIMIT))
    longer = b'{"sql":"\\u0020%s"}' % escaped
    refused(writes.calls.raw(arguments(TOOL, longer), tool=TOOL), BAD_ARGUMENTS)


def test_an_empty_refusal_is_still_one(writes):
    outcome = writes(filled(INSIDE[0], "", LIMIT))
    assert outcome.reply == tool_error_reply(outcome.raw_id, "")
