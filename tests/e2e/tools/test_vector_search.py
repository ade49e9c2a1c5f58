"""kova_vector_search: how numbers are written, and where a vector ends."""

from __future__ import annotations

import random
import struct

import pytest

from harness.ai_calls import (BOUNDS, VECTOR_ARGUMENTS, VECTOR_NUMBER, VECTOR_SEARCH, VECTOR_SIZE,
                              ask)
from harness.messages import PARSE_ERROR
from harness.tool_calls import ABSENT, Outcome, ToolCalls, arguments, result_json

MOST_ELEMENTS = 4077
"""The numbers for which a message of 4,096 tokens has room."""
STATEMENT_LIMIT = 32768


def search_vector(tools: ToolCalls, vector: str) -> Outcome:
    """`vector` is JSON."""
    members = '{"collection":"MANUALS","vector":%s,"top":5}' % vector
    return tools.raw(arguments(VECTOR_SEARCH, members), tool=VECTOR_SEARCH)


def sent_vector(outcome: Outcome, elements: str) -> None:
    outcome.is_success(result_json(), objects="MANUALS",
                       statements=[f"SEARCH AI MANUALS QUERY [{elements}] TOP 5;"])


NUMBERS = [
    ("0", "0"), ("-0", "-0"), ("0.0", "0"), ("-0.0e0", "-0"), ("0e-999", "0"), ("0e999", "0"),
    ("1", "1"), ("2.5", "2.5"), ("-3", "-3"), ("1e0", "1"), ("1E+2", "100"), ("0.1", "0.100000001"),
    ("-0.1", "-0.100000001"), ("0.3333333333333333", "0.333333343"),
    ("100000000", "100000000"), ("123456789", "123456792"), ("999999999", "1e+09"),
    ("1e9", "1e+09"), ("1e10", "1e+10"), ("16777217", "16777216"), ("0.0001", "9.99999975e-05"),
    ("0.0001220703125", "0.000122070312"), ("1e-5", "9.99999975e-06"), ("1e-10", "1.00000001e-10"),
    ("1.17549435e-38", "1.17549435e-38"), ("1e-45", "1.40129846e-45"),
    ("3.402823466e38", "3.40282347e+38"), ("-3.402823466e38", "-3.40282347e+38"),
    ("340282346600000000000000000000000000000", "3.40282347e+38"),
    # Outside the range of float, and of normal doubles.
    ("1e-46", "0"), ("-1e-46", "-0"), ("2.2250738585072014e-308", "0"), ("1e-310", "0"),
    ("-1e-310", "-0"), ("5e-324", "0"), ("3e-324", "0"),
    # 63 characters.
    ("0." + "0" * 60 + "1", "0"), ("1." + "0" * 61, "1"), ("0.5" + "0" * 60, "0.5"),
]

REFUSED_NUMBERS = [
    '"1"', '""', "true", "false", "null", "[]", "[1]", "{}", '{"a":1}',
    "1e39", "-1e39", "3.402823467e38", "-3.402823467e38", "3.4028234664e38", "1e308", "1e309",
    "-1e309", "1e400", "1e-400", "-1e-400", "2e-324", "0.1e-400",
    "1." + "0" * 62, "0." + "0" * 61 + "1", "1" + "0" * 63,
]


def test_numbers_are_written_with_nine_digits(tools):
    sent_vector(search_vector(tools, "[" + ",".join(raw for raw, _ in NUMBERS) + "]"),
                ",".join(written for _, written in NUMBERS))


def test_a_thousand_numbers(tools):
    """Compared with another implementation of narrowing and formatting."""
    draw = random.Random(21)
    spellings = [repr, lambda value: f"{value:.17e}", lambda value: f"{value:.3f}",
                 lambda value: f"{value:.6e}", lambda value: str(round(value))]
    raw = []
    while len(raw) < 1000:
        value = draw.choice([-1, 1]) * draw.random() * 10.0 ** draw.randrange(-44, 38)
        text = draw.choice(spellings)(value)
        if len(text) < 64:
            raw.append(text)
    narrowed = [struct.unpack("f", struct.pack("f", float(text)))[0] for text in raw]
    written = ",".join("%.9g" % number for number in narrowed)
    assert len(written) < STATEMENT_LIMIT - 100
    sent_vector(search_vector(tools, "[" + ",".join(raw) + "]"), written)


@pytest.mark.parametrize("number", REFUSED_NUMBERS, ids=lambda number: number[:24])
def test_elements_that_are_refused(tools, number):
    search_vector(tools, f"[{number}]").is_error(VECTOR_NUMBER, objects="MANUALS")


@pytest.mark.parametrize("vector", ['[1,2,"3"]', "[null,1]", "[1,[2],3]", '[1,{"a":2}]'])
def test_every_element_is_looked_at(tools, vector):
    search_vector(tools, vector).is_error(VECTOR_NUMBER, objects="MANUALS")


@pytest.mark.parametrize("vector", ["[1e]", "[01]", "[.5]", "[+1]", "[NaN]", "[Infinity]", "[0x1]",
                                    "[1,]", "[1 2]"])
def test_what_is_no_json_number(tools, vector):
    assert search_vector(tools, vector).reply == PARSE_ERROR


@pytest.mark.parametrize("vector", ["null", "7", "true", '"[1]"', "{}", '{"a":1}', "[]", "[ ]"])
def test_vectors_that_are_refused(tools, vector):
    search_vector(tools, vector).is_error(VECTOR_SIZE, objects="MANUALS")


def test_a_vector_is_needed(tools):
    ask(tools, VECTOR_SEARCH, vector=ABSENT).is_error(VECTOR_SIZE, objects="MANUALS")
    members = '{"collection":"MANUALS","v\\u0065ctor":[1],"top":5}'
    tools.raw(arguments(VECTOR_SEARCH, members), tool=VECTOR_SEARCH).is_error(VECTOR_SIZE,
                                                                              objects="MANUALS")


def test_white_space_is_not_sent(tools):
    sent_vector(search_vector(tools, "[ 1 ,\t2.50 , -3e0 ]"), "1,2.5,-3")


def vector_of(*elements: str) -> str:
    return "[" + ",".join(elements) + "]"


def test_the_most_elements_of_a_message(tools):
    digits = [str(n % 10) for n in range(MOST_ELEMENTS)]
    sent_vector(search_vector(tools, vector_of(*digits)), ",".join(digits))
    for more in (MOST_ELEMENTS + 1, 4096, 4097):
        outcome = search_vector(tools, vector_of(*["0"] * more))
        assert outcome.reply == PARSE_ERROR
        assert (outcome.statements, outcome.records) == ([], [])


LONG = "-1.23456793e-30"
"""A number of the greatest length, which is sent unchanged."""


@pytest.mark.parametrize("short, size", [("10000", STATEMENT_LIMIT),
                                         ("100000", STATEMENT_LIMIT + 1)])
def test_a_statement_has_at_most_32768_bytes(tools, short, size):
    """The limit of statements is reached before that of vectors."""
    elements = [LONG] * 2045 + [short, "100000000"]
    statement = f"SEARCH AI MANUALS QUERY {vector_of(*elements)} TOP 5;"
    assert len(statement) == size
    outcome = search_vector(tools, vector_of(*elements))
    if size == STATEMENT_LIMIT:
        sent_vector(outcome, ",".join(elements))
    else:
        outcome.is_error(BOUNDS, objects="MANUALS")


def test_the_longest_vector_of_a_message(tools):
    search_vector(tools, vector_of(*[LONG] * MOST_ELEMENTS)).is_error(BOUNDS, objects="MANUALS")


@pytest.mark.parametrize("changes, message, objects", [
    ({"top": 0, "vector": []}, VECTOR_ARGUMENTS, ""),
    ({"x": 1, "vector": [None]}, VECTOR_ARGUMENTS, ""),
    ({"vector": []}, VECTOR_SIZE, "MANUALS"),
    ({"vector": [1, None]}, VECTOR_NUMBER, "MANUALS"),
    ({"vector": [None] + [-1.23456793e-30] * 4000}, VECTOR_NUMBER, "MANUALS"),
    ({"vector": [-1.23456793e-30] * 4000 + [None]}, VECTOR_NUMBER, "MANUALS"),
], ids=lambda value: str(value)[:40])
def test_the_order_of_the_checks(tools, changes, message, objects):
    ask(tools, VECTOR_SEARCH, **changes).is_error(message, objects=objects)
