"""The scripted client library: its script of results, and the log of its calls."""

from __future__ import annotations

from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterable

from harness.waiting import TIMEOUT, wait_until


def escape_field(text: "str | bytes | None | Repeat") -> str:
    """A field of a script, in the escapes that tests/support/scripted_library/script.h names."""
    if text is None:
        return "\\N"
    if isinstance(text, Repeat):
        return f"\\*{text.count};{escape_field(text.character)}"
    data = text.encode() if isinstance(text, str) else text
    return "".join(chr(b) if 0x20 <= b < 0x7F and b != 0x5C else f"\\x{b:02x}" for b in data)


@dataclass(frozen=True)
class Repeat:
    """A text of one repeated byte, for cells of a given length."""

    count: int
    character: "str | bytes" = "x"


Cell = "str | bytes | None | Repeat"


class Script:
    """The results of the scripted library. The first rule that matches a call applies.

    `Script().on_exec("SELECT", prefix=True, columns=["A"], rows=[["1"], [None]])`
    `Script().on("Next", "3", crash=True)`: the third KOVA_Next of a process
    `Script().on("NewObject", null=True)`

    What a rule may do, in this order: streams, leave, sleep (seconds), locale, stdout, stderr,
    crash, hang, exit_code. What it may return: null, result, status, columns, fields (a wrong
    column count), rows, repeat (a list of (count, cells)). `times` limits it to that many calls of
    one process.
    """

    def __init__(self) -> None:
        self._lines: list[str] = []

    def on_exec(self, statement: "str | bytes | None" = None, *, prefix: bool = False,
                **what: Any) -> "Script":
        return self.on("Exec", statement, prefix=prefix, **what)

    def on(self, operation: str, text: "str | bytes | None" = None, *, prefix: bool = False,
           times: int | None = None, streams: bool = False, leave: bool = False,
           sleep: float | None = None, locale: str | None = None,
           stdout: "str | bytes | Repeat | None" = None,
           stderr: "str | bytes | Repeat | None" = None,
           crash: bool = False, hang: bool = False, exit_code: int | None = None,
           null: bool = False, result: int | None = None, status: Any = "OK",
           columns: Iterable[Any] = (), fields: int | None = None,
           rows: Iterable[Iterable[Any]] = (),
           repeat: Iterable[tuple[int, Iterable[Any]]] = ()) -> "Script":
        if text is None:
            self._add("rule", operation, "any")
        else:
            self._add("rule", operation, "prefix" if prefix else "exact", escape_field(text))
        if times is not None:
            self._add("times", str(times))
        for name, wanted in (("streams", streams), ("leave", leave)):
            if wanted:
                self._add(name)
        if sleep is not None:
            self._add("sleep", str(round(sleep * 1000)))
        for name, value in (("locale", locale), ("stdout", stdout), ("stderr", stderr)):
            if value is not None:
                self._add(name, escape_field(value))
        for name, wanted in (("crash", crash), ("hang", hang), ("null", null)):
            if wanted:
                self._add(name)
        if exit_code is not None:
            self._add("exit", str(exit_code))
        if result is not None:
            self._add("result", str(result))
        self._add("status", escape_field(status))
        for column in columns:
            self._add("column", escape_field(column))
        if fields is not None:
            self._add("fields", str(fields))
        for row in rows:
            self._add("row", *map(escape_field, row))
        for count, row in repeat:
            self._add("repeat", str(count), *map(escape_field, row))
        return self

    def _add(self, *parts: str) -> None:
        self._lines.append("\t".join(parts))

    def text(self) -> str:
        return "\n".join(self._lines) + "\n"


@dataclass(frozen=True)
class Call:
    """One call that the library has seen: the name behind "KOVA_" and the arguments as bytes."""

    pid: int
    operation: str
    arguments: tuple[bytes, ...]


def _unescape(text: str) -> bytes:
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


@dataclass
class ScriptedLibrary:
    """The script and the log of the scripted library, for every process that is given `env`."""

    folder: Path
    profile: dict[str, str] = field(default_factory=dict)

    def __post_init__(self) -> None:
        self.script(Script())

    @property
    def _log(self) -> Path:
        return self.folder / "library.log"

    @property
    def env(self) -> dict[str, "str | Path | None"]:
        return {**self.profile, "SCRIPTED_LIBRARY_SCRIPT": self.folder / "library.script",
                "SCRIPTED_LIBRARY_LOG": self._log}

    def script(self, script: Script) -> None:
        """Takes effect in the next process: each reads the script at its first call."""
        (self.folder / "library.script").write_text(script.text(), encoding="ascii", newline="")

    def calls(self) -> list[Call]:
        text = self._log.read_text("ascii") if self._log.exists() else ""
        found = []
        for entry in text.split("\n")[:-1]:
            pid, operation, *arguments = entry.split("\t")
            found.append(Call(int(pid), operation, tuple(map(_unescape, arguments))))
        return found

    def operations(self) -> list[str]:
        return [entry.operation for entry in self.calls()]

    def statements(self) -> list[bytes]:
        """Every statement, including the "use" and "login" of the session."""
        return [entry.arguments[1] for entry in self.calls() if entry.operation == "Exec"]

    def queries(self) -> list[bytes]:
        """The statements without "use" and "login"."""
        return [statement for statement in self.statements()
                if not statement.startswith((b"use ", b"login "))]

    def wait_for_statement(self, statement: str, count: int = 1) -> None:
        """Waits until the statement has reached the library."""
        wanted = statement.encode()
        wait_until(lambda: self.statements().count(wanted) >= count, TIMEOUT,
                   f"{statement!r} at the library")

    def wait_for(self, operation: str, count: int = 1) -> None:
        """Waits until the operation has been called."""
        wait_until(lambda: self.operations().count(operation) >= count, TIMEOUT,
                   f"KOVA_{operation} at the library")

    def clear(self) -> None:
        """Deletes the log. No process may have it open."""
        self._log.unlink(missing_ok=True)
