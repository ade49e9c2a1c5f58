"""Generated writes: the approved statement is the one that runs, by digest and log."""

from __future__ import annotations

import json
import random

import pytest

from harness.approval_tokens import digest_of, token_for
from harness.tool_calls import Outcome
from harness.write_calls import FIELDS, accepted, ran, token_refused
from harness.write_generator import Statement, statement

pytestmark = pytest.mark.slow

SEEDS = range(16)


@pytest.fixture(params=SEEDS)
def source(request: pytest.FixtureRequest) -> random.Random:
    return random.Random(20260 + request.param)


@pytest.fixture
def write(source: random.Random) -> Statement:
    return statement(source)


def digest_in(outcome: Outcome) -> str:
    return json.loads(outcome.reply)["result"]["structuredContent"]["operation_digest"]


def test_the_executed_bytes_are_the_digested_ones(served, source, write):
    served.guarded()
    digest = digest_in(served(write.spelled(source)))
    outcome = served(write.spelled(source), token_for("", digest=digest).text)
    accepted(outcome, write.canonical)
    assert digest_of(outcome.statements[0]) == digest


def test_normalising_twice_changes_nothing(served, source, write):
    served.open()
    first = served(write.spelled(source))
    ran(first, write.canonical)
    second = served(first.statements[0].decode())
    assert second.statements == first.statements
    assert digest_in(served.guarded()(first.statements[0].decode())) == digest_of(write.canonical)


def test_spacing_and_case_outside_literals_change_nothing(served, source, write):
    served.guarded()
    digests = {digest_in(served(write.spelled(source))) for _ in range(3)}
    assert digests == {digest_of(write.canonical)}


def test_any_change_inside_a_literal_is_another_write(served, source, write):
    served.guarded()
    other = write.altered(source)
    assert other.canonical != write.canonical
    digest = digest_in(served(write.spelled(source)))
    assert digest_in(served(other.spelled(source))) == digest_of(other.canonical) != digest
    token = token_for("", digest=digest)
    token_refused(served(other.spelled(source), token.text), FIELDS)
    assert served.markers() == set()
