"""Finds what can be changed in a source, by its syntax tree (libclang)."""

from __future__ import annotations

import re
from dataclasses import dataclass, field, replace
from functools import lru_cache
from pathlib import Path
from typing import Iterator

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

RELATIONS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"),
             "==": ("!=",), "!=": ("==",)}
LOGICAL = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<", "&": "|",
              "|": "&", "^": "&", "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=",
              "&=": "|=", "<<=": ">>=", ">>=": "<<="}
STEPS = {"++": "--", "--": "++"}

NUMBERS = {TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.UCHAR, TypeKind.SHORT, TypeKind.USHORT,
           TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG,
           TypeKind.ULONGLONG, TypeKind.FLOAT, TypeKind.DOUBLE}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.CONVERSION_FUNCTION, Kind.FUNCTION_TEMPLATE}
PASSED_OVER = {Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.PARM_DECL, Kind.TYPE_REF, Kind.TEMPLATE_REF,
               Kind.NAMESPACE_REF, Kind.USING_DECLARATION, Kind.TYPE_ALIAS_DECL,
               Kind.TEMPLATE_NON_TYPE_PARAMETER, Kind.TEMPLATE_TYPE_PARAMETER}
CLASSES = {Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE, Kind.UNION_DECL}


class SyntaxFailure(Exception):
    """A source that the parser refuses. The text says why."""


@dataclass(frozen=True)
class Change:
    """One changed place. `start` and `end` are offsets in bytes."""
    file: str
    start: int
    end: int
    kind: str
    """relation, logic, condition, arithmetic, step, number, character, text, flag, name, return,
    removal, jump"""
    text: str
    """What stands at the place instead."""
    shown: str
    """The same as the report names it."""
    original: str
    function: str
    line: int
    line_text: str
    switched: bool = True
    """Whether the change can be chosen at run time; else it is built alone."""
    evaluated: bool = False
    """In a function that the compiler may evaluate."""
    number: int = 0
    nth: int = 1

    @property
    def key(self) -> tuple:
        """What names the change although lines shift."""
        return (self.file, self.function, self.line_text, self.original, self.shown, self.nth)


@dataclass(frozen=True)
class Constant:
    """The definition of a constant that may become a variable, so that it can change at run time:
    the place of its specifiers, and what stands there then."""
    start: int
    end: int
    specifiers: str
    body: tuple[int, int]


@dataclass(frozen=True)
class Source:
    file: str
    text: bytes
    changes: list[Change]
    constants: list[Constant]


@dataclass(frozen=True)
class Scope:
    """Where the walk stands."""
    function: str = ""
    evaluated: bool = False
    returns_flag: bool = False
    in_lambda: bool = False
    breaks: str = ""
    """What a break ends: loop, switch or nothing."""
    in_loop: bool = False
    constant: "int | bool" = False
    """True where the language asks for a constant; inside a constant's definition its start."""


def arguments(root: Path) -> list[str]:
    return ["-std=c++20", "-x", "c++", "-I", str(root / "src"), '-DKOVA_VERSION_LABEL="1"',
            "-Wno-pragma-once-outside-header"]


@lru_cache(maxsize=1)
def index() -> cindex.Index:
    return cindex.Index.create()


def read(root: Path, file: str) -> Source:
    """Parses one source. `file` is relative to the root."""
    path = root / file
    unit = index().parse(str(path), args=arguments(root))
    errors = [str(found) for found in unit.diagnostics if found.severity >= found.Error]
    if errors:
        raise SyntaxFailure(errors[0])
    return Finder(root, file, path.read_bytes()).find(unit)


def within(cursor: cindex.Cursor) -> tuple[int, int]:
    return cursor.extent.start.offset, cursor.extent.end.offset


def squeezed(text: str) -> str:
    return " ".join(text.split())


def peeled(cursor: cindex.Cursor) -> cindex.Cursor:
    """What stands inside parentheses and implicit conversions."""
    while cursor.kind in (Kind.PAREN_EXPR, Kind.UNEXPOSED_EXPR):
        inner = list(cursor.get_children())
        if len(inner) != 1:
            break
        cursor = inner[0]
    return cursor


@dataclass
class Finder:
    root: Path
    file: str
    text: bytes
    found: dict[tuple, Change] = field(default_factory=dict)
    owners: dict[tuple, "int | bool"] = field(default_factory=dict)
    """The scope's `constant` of each change."""
    constants: dict[int, Constant] = field(default_factory=dict)
    fixed: set[int] = field(default_factory=set)
    """Starts of the definitions that must stay constants."""
    uses: list[tuple[int, int]] = field(default_factory=list)
    """(a constant, the constant in whose definition it is used)"""

    @property
    def is_header(self) -> bool:
        return self.file.endswith(".h")

    def find(self, unit: cindex.TranslationUnit) -> Source:
        for cursor in unit.cursor.get_children():
            if self.is_here(cursor):
                self.visit(cursor, Scope())
        self.settle_constants()
        changes = []
        for key, change in sorted(self.found.items()):
            owner = self.owners[key]
            alone = owner is True or (owner is not False and owner in self.fixed)
            if alone and self.is_header:
                continue
            changes.append(replace(change, switched=not alone))
        chosen = [constant for start, constant in sorted(self.constants.items())
                  if start not in self.fixed]
        return Source(self.file, self.text, numbered(changes), chosen)

    def settle_constants(self) -> None:
        """A constant that a constant needs is one."""
        before = -1
        while before != len(self.fixed):
            before = len(self.fixed)
            self.fixed.update(used for used, owner in self.uses if owner in self.fixed)

    def is_here(self, cursor: cindex.Cursor) -> bool:
        place = cursor.extent.start
        return place.file is not None and Path(place.file.name) == self.root / self.file

    def source(self, start: int, end: int) -> str:
        return self.text[start:end].decode()

    # What is reported.

    def add(self, scope: Scope, start: int, end: int, kind: str, text: str,
            shown: str = "") -> None:
        original = self.source(start, end)
        begin = self.text.rfind(b"\n", 0, start) + 1
        stop = self.text.find(b"\n", start)
        key = (start, end, text)
        self.owners.setdefault(key, scope.constant)
        self.found.setdefault(key, Change(
            file=self.file, start=start, end=end, kind=kind, text=text,
            shown=squeezed(shown or text), original=squeezed(original), function=scope.function,
            line=self.text.count(b"\n", 0, start) + 1,
            line_text=squeezed(self.source(begin, stop if stop >= 0 else len(self.text))),
            evaluated=scope.evaluated))

    # The walk.

    def children(self, cursor: cindex.Cursor) -> list[cindex.Cursor]:
        def stands_here(child: cindex.Cursor) -> bool:
            start, end = within(child)
            return self.is_here(child) and start < end

        return [child for child in cursor.get_children() if stands_here(child)]

    def visit(self, cursor: cindex.Cursor, scope: Scope) -> None:
        kind = cursor.kind
        if kind in PASSED_OVER or kind.is_attribute():
            return
        if kind in FUNCTIONS:
            scope = self.function_scope(cursor, scope)
        elif kind in CLASSES:
            scope = replace(scope, function=joined(scope.function, cursor.spelling))
        elif kind in (Kind.VAR_DECL, Kind.FIELD_DECL):
            self.visit_variable(cursor, scope)
            return
        elif kind == Kind.LAMBDA_EXPR:
            scope = replace(scope, in_lambda=True, breaks="", in_loop=False)
        elif kind == Kind.CASE_STMT:
            label, *rest = self.children(cursor)
            self.visit(label, replace(scope, constant=True))
            for child in rest:
                self.visit_statement(child, scope)
            return
        handler = HANDLERS.get(kind)
        if handler is not None:
            handler(self, cursor, scope)
        elif kind.is_expression():
            self.visit_operation(cursor, scope)
        inner = self.inner_scope(cursor, scope)
        if kind == Kind.CALL_EXPR and cursor.spelling == "size":
            # The size of an array follows from its type.
            scope = replace(scope, constant=False)
        statements = kind in (Kind.COMPOUND_STMT, Kind.DEFAULT_STMT)
        bodies = self.bodies(cursor)
        for child in self.children(cursor):
            is_body = within(child) in bodies
            if statements or is_body:
                self.visit_statement(child, inner if is_body or statements else scope)
            else:
                self.visit(child, scope)

    def visit_statement(self, cursor: cindex.Cursor, scope: Scope) -> None:
        """A statement: where it is an expression, its value is not used."""
        if cursor.kind.is_expression():
            start, end = within(cursor)
            self.add(scope, start, end, "removal", "", "removed")
        self.visit(cursor, scope)

    def inner_scope(self, cursor: cindex.Cursor, scope: Scope) -> Scope:
        if cursor.kind in LOOPS:
            return replace(scope, breaks="loop", in_loop=True)
        if cursor.kind == Kind.SWITCH_STMT:
            return replace(scope, breaks="switch")
        return scope

    def bodies(self, cursor: cindex.Cursor) -> set[tuple[int, int]]:
        """The places of the statements that a statement holds."""
        children = self.children(cursor)
        if cursor.kind in LOOPS or cursor.kind == Kind.SWITCH_STMT:
            body = children[0] if cursor.kind == Kind.DO_STMT else children[-1]
            return {within(body)}
        if cursor.kind == Kind.IF_STMT:
            condition = self.condition_of(cursor)
            end = within(condition)[1] if condition is not None else 0
            return {within(child) for child in children if within(child)[0] >= end}
        return set()

    def function_scope(self, cursor: cindex.Cursor, scope: Scope) -> Scope:
        start = cursor.extent.start.offset
        before = self.source(start, cursor.location.offset)
        return replace(scope, function=joined(scope.function, cursor.spelling),
                       evaluated=bool(re.search(r"\b(constexpr|consteval)\b", before)),
                       returns_flag=cursor.result_type.get_canonical().kind == TypeKind.BOOL,
                       in_lambda=False, breaks="", in_loop=False)

    def visit_variable(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        name = cursor.location.offset
        name_end = name + len(cursor.spelling.encode())
        specifiers = self.source(start, name)
        if not scope.function:
            scope = replace(scope, function=cursor.spelling)
        inner = scope
        if re.search(r"\bconstexpr\b", specifiers):
            inner = replace(scope, constant=self.constant(cursor, start, name, end, scope))
        for child in self.children(cursor):
            begin = within(child)[0]
            is_bound = begin < name or re.fullmatch(r"\)?\s*\[[^={]*", self.source(name_end, begin))
            self.visit(child, replace(scope, constant=True) if is_bound else inner)

    def constant(self, cursor: cindex.Cursor, start: int, name: int, end: int,
                 scope: Scope) -> "int | bool":
        specifiers = self.source(start, name)
        in_class = cursor.semantic_parent.kind in CLASSES
        is_array_of_text = re.match(r"\w+\[\w*\]\s*=\s*R?\"", self.source(name, end))
        if self.is_header or in_class or is_array_of_text or scope.evaluated or \
                scope.constant is True:
            self.fixed.add(start)
        else:
            changed = re.sub(r"\bconstexpr\b", "const", specifiers)
            if cursor.semantic_parent.kind in FUNCTIONS:
                changed = re.sub(r"\bstatic\s+", "", changed)
            self.constants[start] = Constant(start, name, changed, (name, end))
        return start

    # Handlers.

    def visit_operation(self, cursor: cindex.Cursor, scope: Scope) -> None:
        """Two operands with an operator between them, a built-in one or not."""
        children = self.children(cursor)
        if len(children) < 2:
            return
        left, right = children[0], children[-1]
        start, end = within(cursor)
        (left_start, left_end), (right_start, right_end) = within(left), within(right)
        if left_start != start or right_end != end or left_end > right_start:
            return
        operator = self.source(left_end, right_start).strip()
        before, after = self.source(start, left_end), self.source(right_start, end)

        def exchange(kind: str, other: str, enclosed: bool = False) -> None:
            text = f"({before}) {other} ({after})" if enclosed else f"{before} {other} {after}"
            self.add(scope, start, end, kind, text)

        if operator in RELATIONS:
            for other in RELATIONS[operator]:
                exchange("relation", other)
        elif operator in LOGICAL:
            exchange("logic", LOGICAL[operator], enclosed=True)
            self.add(scope, start, end, "condition", f"static_cast<bool>({before})", before)
            if not self.is_operation(left, operator):
                self.add(scope, start, end, "condition", f"static_cast<bool>({after})", after)
        elif operator in ARITHMETIC and self.is_arithmetic(left, right, operator):
            exchange("arithmetic", ARITHMETIC[operator],
                     enclosed=operator[-1] != "=")

    def is_operation(self, cursor: cindex.Cursor, operator: str) -> bool:
        cursor = peeled(cursor)
        children = self.children(cursor)
        return len(children) >= 2 and operator == \
            self.source(within(children[0])[1], within(children[-1])[0]).strip()

    @staticmethod
    def is_arithmetic(left: cindex.Cursor, right: cindex.Cursor, operator: str) -> bool:
        kinds = [side.type.get_canonical().kind for side in (left, right)]
        if not all(kind in NUMBERS or kind in (TypeKind.POINTER, TypeKind.ENUM, TypeKind.BOOL)
                   for kind in kinds):
            return False
        return not (kinds[0] == TypeKind.POINTER and kinds[1] == TypeKind.POINTER) and \
            not (kinds[1] == TypeKind.POINTER and operator == "+")

    def visit_unary(self, cursor: cindex.Cursor, scope: Scope) -> None:
        children = self.children(cursor)
        if not children:
            return
        start, end = within(cursor)
        inner_start, inner_end = within(children[0])
        operand = self.source(inner_start, inner_end)
        if inner_start > start:
            operator = self.source(start, inner_start).strip()
            if operator in STEPS:
                self.add(scope, start, end, "step", STEPS[operator] + operand)
            elif operator == "!":
                self.add(scope, start, end, "condition", f"static_cast<bool>({operand})", operand)
            elif operator in ("-", "~"):
                self.add(scope, start, end, "arithmetic", operand)
        elif inner_end < end:
            operator = self.source(inner_end, end).strip()
            if operator in STEPS:
                self.add(scope, start, end, "step", operand + STEPS[operator])

    def visit_number(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        text = self.source(start, end)
        self.add(scope, start, end, "number", f"kova_mutant_next({text})", f"{text} + 1")
        try:
            is_zero = int(re.sub(r"[uUlLzZ]+$", "", text).replace("'", ""), 0) == 0
        except ValueError:
            is_zero = False
        if not is_zero:
            self.add(scope, start, end, "number", f"decltype({text}){{}}", "0")

    def visit_fraction(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        text = self.source(start, end)
        self.add(scope, start, end, "number", f"2 * {text}")

    def visit_character(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        text = self.source(start, end)
        self.add(scope, start, end, "character", f"kova_mutant_next({text})", f"{text} + 1")
        if text != r"'\0'":
            self.add(scope, start, end, "character", r"'\0'")

    def visit_text(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        text = self.source(start, end)
        changed = changed_text(text)
        if changed is not None:
            self.add(scope, start, end, "text", changed)

    def visit_flag(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        text = self.source(start, end)
        self.add(scope, start, end, "flag", "false" if text == "true" else "true")

    def visit_name(self, cursor: cindex.Cursor, scope: Scope) -> None:
        """A number that has a name: one that another file defines changes where it is used."""
        named = cursor.referenced
        if named is None or named.kind != Kind.VAR_DECL:
            return
        place = named.extent.start
        if place.file is None:
            return
        before = constant_specifiers(named)
        if not re.search(r"\bconstexpr\b", before):
            return
        if Path(place.file.name) == self.root / self.file:
            if scope.constant is True or scope.evaluated:
                self.fixed.add(place.offset)
            elif scope.constant is not False:
                self.uses.append((place.offset, scope.constant))
            return
        if self.root / "src" not in Path(place.file.name).parents:
            return
        if named.type.get_canonical().kind in NUMBERS:
            start, end = within(cursor)
            text = self.source(start, end)
            self.add(scope, start, end, "name", f"kova_mutant_next({text})", f"{text} + 1")

    def condition_of(self, cursor: cindex.Cursor) -> "cindex.Cursor | None":
        children = self.children(cursor)
        if cursor.kind == Kind.FOR_STMT:
            return self.part_of_for(cursor, 1)
        if cursor.kind == Kind.DO_STMT:
            return children[-1]
        for child, after in zip(children, children[1:]):
            if self.source(within(child)[1], within(after)[0]).lstrip().startswith(")"):
                return child
        return None

    def part_of_for(self, cursor: cindex.Cursor, wanted: int) -> "cindex.Cursor | None":
        """What stands before the first, before the second or behind the second semicolon."""
        *parts, body = self.children(cursor)
        start = cursor.extent.start.offset
        header = self.source(start, within(body)[0])
        for part in parts:
            begin, end = within(part)
            part_of = header[:begin - start].count(";") - (1 if is_declaration(part) else 0)
            if is_declaration(part) and wanted == 0 or \
                    not is_declaration(part) and part_of == wanted:
                return part
        return None

    def visit_condition(self, cursor: cindex.Cursor, scope: Scope) -> None:
        condition = self.condition_of(cursor)
        if cursor.kind == Kind.FOR_STMT:
            last = self.part_of_for(cursor, 2)
            if last is not None and peeled(last).kind != Kind.UNARY_OPERATOR:
                self.add(scope, *within(last), "removal", "", "removed")
        if condition is None or is_declaration(condition) or \
                self.source(*within(cursor)).startswith("if constexpr"):
            return
        self.negate(condition, scope)

    def visit_choice(self, cursor: cindex.Cursor, scope: Scope) -> None:
        self.negate(self.children(cursor)[0], scope)

    def negate(self, condition: cindex.Cursor, scope: Scope) -> None:
        """The negation, where no other change of the place is one."""
        inner = peeled(condition)
        children = self.children(inner)
        if len(children) >= 2 and within(children[0])[1] <= within(children[-1])[0] and \
                self.source(within(children[0])[1], within(children[-1])[0]).strip() in RELATIONS:
            return
        start, end = within(condition)
        if inner.kind == Kind.UNARY_OPERATOR and self.source(*within(inner)).startswith("!"):
            return
        if inner.kind == Kind.CXX_BOOL_LITERAL_EXPR:
            return
        text = self.source(start, end)
        self.add(scope, start, end, "condition", f"!({text})")

    def visit_return(self, cursor: cindex.Cursor, scope: Scope) -> None:
        children = self.children(cursor)
        if not children:
            return
        value = children[0]
        is_flag = value.type.get_canonical().kind == TypeKind.BOOL if scope.in_lambda \
            else scope.returns_flag
        if not is_flag or peeled(value).kind == Kind.CXX_BOOL_LITERAL_EXPR:
            return
        for text in ("true", "false"):
            self.add(scope, *within(value), "return", text)

    def visit_jump(self, cursor: cindex.Cursor, scope: Scope) -> None:
        start, end = within(cursor)
        semicolon = self.text.index(b";", end) + 1
        if cursor.kind == Kind.BREAK_STMT:
            other = "continue;" if scope.breaks == "loop" else ";"
        else:
            other = "break;" if scope.breaks == "loop" else ""
        if other:
            self.add(scope, start, semicolon, "jump", other)


LOOPS = {Kind.FOR_STMT, Kind.WHILE_STMT, Kind.DO_STMT, Kind.CXX_FOR_RANGE_STMT}

HANDLERS = {
    Kind.UNARY_OPERATOR: Finder.visit_unary,
    Kind.CXX_UNARY_EXPR: lambda *_: None,
    Kind.INTEGER_LITERAL: Finder.visit_number,
    Kind.FLOATING_LITERAL: Finder.visit_fraction,
    Kind.CHARACTER_LITERAL: Finder.visit_character,
    Kind.STRING_LITERAL: Finder.visit_text,
    Kind.CXX_BOOL_LITERAL_EXPR: Finder.visit_flag,
    Kind.DECL_REF_EXPR: Finder.visit_name,
    Kind.IF_STMT: Finder.visit_condition,
    Kind.WHILE_STMT: Finder.visit_condition,
    Kind.DO_STMT: Finder.visit_condition,
    Kind.FOR_STMT: Finder.visit_condition,
    Kind.CONDITIONAL_OPERATOR: Finder.visit_choice,
    Kind.RETURN_STMT: Finder.visit_return,
    Kind.BREAK_STMT: Finder.visit_jump,
    Kind.CONTINUE_STMT: Finder.visit_jump,
}


def joined(outer: str, name: str) -> str:
    return f"{outer}::{name}" if outer and name else outer or name


def is_declaration(cursor: cindex.Cursor) -> bool:
    return cursor.kind in (Kind.DECL_STMT, Kind.VAR_DECL)


def constant_specifiers(named: cindex.Cursor) -> str:
    """The text before a variable's name."""
    path = named.extent.start.file.name
    return file_bytes(path)[named.extent.start.offset:named.location.offset].decode()


@lru_cache(maxsize=None)
def file_bytes(path: str) -> bytes:
    return Path(path).read_bytes()


def changed_text(literal: str) -> "str | None":
    """The literal with its first character changed, of the same length; none for an empty one."""
    match = re.match(r'R"\(|"', literal)
    if match is None:
        return None
    at = match.end()
    first = literal[at]
    if literal.startswith("R") and first == ")" or not literal.startswith("R") and first == '"':
        return None
    if first == "\\" and not literal.startswith("R"):
        letter = literal[at + 1]
        if letter not in "rntfbv":
            return None
        return literal[:at + 1] + ("t" if letter != "t" else "n") + literal[at + 2:]
    return literal[:at] + ("~" if first != "~" else "!") + literal[at + 1:]


def numbered(changes: list[Change]) -> list[Change]:
    """Tells equal changes of one line apart by their order."""
    seen: dict[tuple, int] = {}
    made = []
    for change in changes:
        key = change.key[:-1]
        seen[key] = seen.get(key, 0) + 1
        made.append(replace(change, nth=seen[key]))
    return made


def changes_of(root: Path, files: list[str]) -> Iterator[Source]:
    for file in files:
        yield read(root, file)
