"""The changes of small sources: what is found, and what a changed source does."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path
from typing import Callable

import pytest

from mutation import schema, syntax, verdicts
from mutation.objects import numbered
from mutation.syntax import Source
from mutation.tests import KILLED, SURVIVED, Outcome

SWITCH = Path(__file__).parent / "switch"


@pytest.fixture
def source(tmp_path: Path) -> Callable[[str], Source]:
    def read(text: str) -> Source:
        (tmp_path / "src").mkdir()
        (tmp_path / "src" / "a.cpp").write_text(text)
        return numbered(syntax.read(tmp_path, "src/a.cpp"), 1)

    return read


def found(source: Source, kind: str) -> set[tuple[str, str]]:
    return {(change.original, change.shown) for change in source.changes if change.kind == kind}


@pytest.mark.parametrize("expression, kind, expected", [
    ("a < b", "relation", {("a < b", "a <= b"), ("a < b", "a >= b")}),
    ("a >= b", "relation", {("a >= b", "a > b"), ("a >= b", "a < b")}),
    ("a == b", "relation", {("a == b", "a != b")}),
    ("a && b", "logic", {("a && b", "(a) || (b)")}),
    ("a && b", "condition", {("a && b", "a"), ("a && b", "b")}),
    ("a || b || f()", "condition", {("a || b || f()", "a || b"), ("a || b", "a"), ("a || b", "b")}),
    ("!a", "condition", {("!a", "a")}),
    ("a ? b : 0", "condition", {("a", "!(a)")}),
    ("a + b", "arithmetic", {("a + b", "(a) - (b)")}),
    ("a += b", "arithmetic", {("a += b", "a -= b")}),
    ("-a", "arithmetic", {("-a", "a")}),
    ("++a", "step", {("++a", "--a")}),
    ("a--", "step", {("a--", "a++")}),
    ("a = 5", "number", {("5", "5 + 1"), ("5", "0")}),
    ("a = 0x0", "number", {("0x0", "0x0 + 1")}),
    ("a = 'x'", "character", {("'x'", "'x' + 1"), ("'x'", r"'\0'")}),
    ("a = true", "flag", {("true", "false")}),
    ("p = \"text\"", "text", {('"text"', '"~ext"')}),
    ("p = \"\"", "text", set()),
    ("p = \"\\r\\n\"", "text", {(r'"\r\n"', r'"\t\n"')}),
    ("p = R\"(text)\"", "text", {('R"(text)"', 'R"(~ext)"')}),
    ("f()", "removal", {("f()", "removed")}),
])
def test_an_expression_changes(source, expression, kind, expected):
    made = source("bool f(); void g(int a, int b, const char* p) { " + expression + "; }")
    assert found(made, kind) == expected


@pytest.mark.parametrize("statement, kind, expected", [
    ("if (a) f();", "condition", {("a", "!(a)")}),
    ("if (a < b) f();", "condition", set()),
    ("if (!a) f();", "condition", {("!a", "a")}),
    ("while (a) f();", "condition", {("a", "!(a)")}),
    ("do f(); while (a);", "condition", {("a", "!(a)")}),
    ("for (int i = 0; a; f()) f();", "condition", {("a", "!(a)")}),
    ("for (int i = 0; a; f()) ++a;", "removal", {("f()", "removed"), ("++a", "removed")}),
    ("if (a) f(); else g();", "removal", {("f()", "removed"), ("g()", "removed")}),
    ("for (;;) { if (a) break; }", "jump", {("break;", "continue;")}),
    ("while (a) { if (b) continue; f(); }", "jump", {("continue;", "break;")}),
    ("switch (a) { case 1: f(); break; default: g(); }", "jump", {("break;", ";")}),
    ("switch (a) { case 1: f(); break; default: g(); }", "removal",
     {("f()", "removed"), ("g()", "removed")}),
    ("return a < b;", "return", {("a < b", "true"), ("a < b", "false")}),
    ("return true;", "return", set()),
    ("return true;", "flag", {("true", "false")}),
])
def test_a_statement_changes(source, statement, kind, expected):
    made = source("bool f(); bool g(); bool h(int a, int b) { " + statement + " return f(); }")
    assert expected == found(made, kind) - {("f()", "true"), ("f()", "false")}


def test_where_a_constant_is_needed_a_change_is_built_alone(source):
    made = source("constexpr int kSize = 4; constexpr int kLimit = 5;\n"
                  "bool f(int a) { char b[kSize] = {}; return a < kLimit && b[a] == 0; }\n"
                  "int g(int a) { switch (a) { case 7: return 1; } return 2; }")
    alone = {change.original for change in made.changes if not change.switched}
    assert alone == {"4", "7"}
    assert [made.text[constant.start:constant.end] for constant in made.constants] == \
        [b"constexpr int "]


def test_a_change_is_found_again_when_lines_shift(source, tmp_path):
    text = "bool f(int a) {\n  return a < 1;\n}\n"
    first = {change.key for change in source(text).changes}
    (tmp_path / "src" / "a.cpp").write_text("// more\n\n" + text)
    second = {change.key for change in syntax.read(tmp_path, "src/a.cpp").changes}
    assert first == second and len(first) == 6


def test_equal_changes_of_a_line_are_told_apart(source):
    made = source("int f(int a, int b) { return a + 1 + b + 1; }")
    ones = [change.nth for change in made.changes if change.shown == "1 + 1"]
    assert ones == [1, 2]


PROGRAM = """
#include <cstdlib>
namespace {
constexpr int kStep = 3;
constexpr bool is_small(int a) { return a < 10; }
bool even(int a) { return a % 2 == 0; }
int count(int end) {
  int found = 0;
  for (int i = 0; i < end; i += kStep) {
    if (i == 9) continue;
    if (!is_small(i) || (even(i) && i > 6)) break;
    ++found;
  }
  return found;
}
static_assert(is_small(9));
}
int kova_mutant_chosen = 0;
unsigned char* kova_mutant_reached = nullptr;
__attribute__((constructor(101))) static void choose() {
  kova_mutant_chosen = std::atoi(std::getenv("KOVA_MUTANT"));
}
int main() { return count(12); }
"""


def test_a_source_with_all_its_changes_does_each(source, tmp_path):
    """Each change, chosen at run time, does what the same change does that is built alone."""
    made = source(PROGRAM)
    switched = [change for change in made.changes
                if change.switched and change.function in ("is_small", "even", "count", "kStep")]
    assert len(switched) > 30

    def build(name: str, text: str) -> str:
        program = tmp_path / name
        subprocess.run(["g++", "-std=c++20", "-w", "-include", str(SWITCH / "kova_mutant.h"),
                        "-x", "c++", "-", "-o", str(program)], input=text.encode(), check=True)
        return str(program)

    def result(program: str, number: int) -> "int | None":
        code = subprocess.run([shutil.which("prlimit"), "--cpu=1", "--core=0", program],
                              check=False, env={"KOVA_MUTANT": str(number)}).returncode
        return None if code < 0 else code

    schemata = build("all", schema.with_all(made, switched, made.constants))
    assert result(schemata, 0) == 3
    for change in switched[::4]:
        alone = schema.with_one(made, change)
        # A function whose constant evaluation a change would alter does not compile alone.
        if change.evaluated:
            continue
        assert result(schemata, change.number) == result(build("alone", alone), 0), change


def test_survivors_are_counted_apart_by_the_list(source):
    made = source("bool f(int a) { return a < 1; }")
    survivor, *others = made.changes
    outcomes = {change: Outcome(KILLED) for change in others}
    outcomes[survivor] = Outcome(SURVIVED)
    possible = {change.key for change in made.changes}
    assert verdicts.Verdicts(outcomes, {}, possible).survivors() == [survivor]
    assert not verdicts.Verdicts(outcomes, {}, possible).passed()
    listed = verdicts.Verdicts(outcomes, {survivor.key: "reason"}, possible)
    assert listed.passed() and listed.survivors() == [] and listed.stale() == []
    again = verdicts.Verdicts({survivor: Outcome(SURVIVED)}, {survivor.key: "reason"}, possible)
    assert again.passed()
    assert not verdicts.Verdicts({}, {}, possible).passed()
    stale = verdicts.Verdicts(outcomes, {others[0].key: "reason"}, possible)
    assert stale.stale() == [others[0].key] and not stale.passed()


def test_an_entry_is_stale_when_the_sources_no_longer_have_it(source):
    made = source("bool f(int a) { return a < 1; }")
    gone = ("src/a.cpp", "g", "return 1;", "1", "2", 1)
    possible = {change.key for change in made.changes}
    assert verdicts.Verdicts({}, {gone: "reason"}, possible).stale() == [gone]
    # Not judged, but there.
    assert verdicts.Verdicts({}, {made.changes[0].key: "reason"}, possible).stale() == []


def test_an_entry_has_a_reason_and_stands_once(tmp_path):
    path = tmp_path / "list.json"
    entry = '{"file": "a", "function": "f", "line": "x", "from": "1", "to": "2"}'
    path.write_text(f'[{{"reason": "same", "changes": [{entry}]}}]')
    assert verdicts.read_list(path) == {("a", "f", "x", "1", "2", 1): "same"}
    for text in (f'[{{"reason": "", "changes": [{entry}]}}]',
                 f'[{{"reason": "same", "changes": [{entry}, {entry}]}}]'):
        path.write_text(text)
        with pytest.raises(verdicts.ListFailure):
            verdicts.read_list(path)
