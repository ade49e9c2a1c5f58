"""kova_text_search: the text and its literal (test_searches.py has the rest)."""

from __future__ import annotations

import random

import pytest

from harness.ai_calls import TEXT_ARGUMENTS, TEXT_SEARCH, ask
from harness.tool_calls import ABSENT, Outcome, ToolCalls, arguments, result_json


def search_text(tools: ToolCalls, text: str) -> Outcome:
    """`text` is JSON."""
    return tools.raw(arguments(TEXT_SEARCH, '{"collection":"MANUALS","text":%s,"top":5}' % text),
                     tool=TEXT_SEARCH)


def sent_text(outcome: Outcome, literal: str) -> None:
    outcome.is_success(result_json(), objects="MANUALS",
                       statements=[f"SEARCH AI MANUALS TEXT {literal} TOP 5;"])


@pytest.mark.parametrize("text, literal", [
    ('"red car"', "'red car'"),
    ('" "', "' '"),
    ('"O\'Brien"', "'O''Brien'"),
    ('"\'"', "''''"),
    ('"\'\'"', "''''''"),
    ('"\\u0027; DROP TABLE T; --"', "'''; DROP TABLE T; --'"),
    ('"\\\\\'"', "'\\'''"),
    ('"a\\\\"', "'a\\'"),
    ('"\\"\\/"', "'\"/'"),
    ('"a\\nb\\tc\\rd"', "'a\nb\tc\rd'"),
    ('"%s%lu%n"', "'%s%lu%n'"),
    ('"\x7f\\u007f"', "'\x7f\x7f'"),
    ('"caf\\u00e9 é \\ud83d\\ude97"', "'café é \U0001f697'"),
    # Quotation marks of other scripts do not end a literal.
    ('"\u2019\u02bc\uff07"', "'\u2019\u02bc\uff07'"),
    # A text ends at an escaped NUL.
    ('"a\\u0000\\u0001\'"', "'a'"),
], ids=repr)
def test_the_literal_of_a_text(tools, text, literal):
    sent_text(search_text(tools, text), literal)


@pytest.mark.parametrize("byte", sorted(set(range(1, 32)) - {9, 10, 13}))
def test_control_bytes_are_refused(tools, byte):
    search_text(tools, '"a\\u%04xb"' % byte).is_error(TEXT_ARGUMENTS)


@pytest.mark.parametrize("text", [
    "null", "7", "true", "[]", '["red car"]', "{}", '""', '"\\u0000red car"', '"\\b"', '"\\f"',
    '"\\ud800"', '"\\udc00"', '"\\ud83dx"'])
def test_texts_that_are_refused(tools, text):
    search_text(tools, text).is_error(TEXT_ARGUMENTS)


def test_a_text_is_needed(tools):
    ask(tools, TEXT_SEARCH, text=ABSENT).is_error(TEXT_ARGUMENTS)
    ask(tools, TEXT_SEARCH, text=ABSENT, TEXT="x").is_error(TEXT_ARGUMENTS)
    members = '{"collection":"MANUALS","te\\u0078t":"x","top":5}'
    tools.raw(arguments(TEXT_SEARCH, members), tool=TEXT_SEARCH).is_error(TEXT_ARGUMENTS)


@pytest.mark.parametrize("text, fits", [
    ("x" * 8192, True), ("x" * 8193, False), ("'" * 8192, True), ("'" * 8193, False),
    ("é" * 4096, True), ("é" * 4096 + "x", False), ("x" * 16400, False), ("x" * 16401, False),
    ("x" * 500000, False)], ids=lambda value: str(value)[:1] + str(len(str(value))))
def test_a_text_has_at_most_8192_bytes(tools, text, fits):
    outcome = ask(tools, TEXT_SEARCH, text=text)
    if fits:
        sent_text(outcome, "'" + text.replace("'", "''") + "'")
    else:
        outcome.is_error(TEXT_ARGUMENTS)


def test_escapes_count_as_what_they_stand_for(tools):
    sent_text(search_text(tools, '"' + "\\u0041" * 8192 + '"'), "'" + "A" * 8192 + "'")
    search_text(tools, '"' + "\\u0041" * 8193 + '"').is_error(TEXT_ARGUMENTS)


@pytest.mark.parametrize("behind, fits", [(16398, True), (16399, False)])
def test_a_text_is_decoded_into_16400_bytes(tools, behind, fits):
    """A text that ends early shows it."""
    outcome = search_text(tools, '"a\\u0000' + "x" * behind + '"')
    if fits:
        sent_text(outcome, "'a'")
    else:
        outcome.is_error(TEXT_ARGUMENTS)


def literal_text(literal: str) -> str:
    """The text of a literal. Checks that each quotation mark within is doubled."""
    assert literal[0] == literal[-1] == "'"
    parts = literal[1:-1].split("''")
    assert not any("'" in part for part in parts)
    return "'".join(parts)


def test_no_text_leaves_its_literal(tools):
    pieces = ["'", "''", "\\", "\\'", '"', ";", "--", "/*", "\n", " TOP 1;", "x", "é",
              "\U0001f697"]
    draw = random.Random(20)
    for _ in range(25):
        text = "".join(draw.choices(pieces, k=draw.randrange(1, 40)))
        outcome = ask(tools, TEXT_SEARCH, text=text)
        [statement] = outcome.statements
        head, tail = "SEARCH AI MANUALS TEXT ", " TOP 5;"
        literal = statement.decode().removeprefix(head).removesuffix(tail)
        assert literal_text(literal) == text
        sent_text(outcome, literal)
