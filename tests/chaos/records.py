"""The audit files of a round against its calls."""

from __future__ import annotations

import json
import re
from collections import Counter
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from chaos.ledger import Ledger, Request
from harness.audit_files import KEYS

LINE_END = b"\r\n"
START = b'{"timestamp":'
"""A record that was written behind a part of another one is on the same line."""
NAMED = re.compile(rb'\{"timestamp":"[^"]*","correlation_id":"([^"]*)"')
JUDGED = "calls that must be recorded"
LEFT_OUT_WITH = "calls left out, with a record"
LEFT_OUT_WITHOUT = "calls left out, without a record"
DETAILS = 5  # calls whose record is missing, in the report


@dataclass
class AuditFile:
    """The whole records of a file and the pieces of others."""

    records: list[dict[str, Any]] = field(default_factory=list)
    pieces: list[bytes] = field(default_factory=list)

    def read(self, data: bytes) -> None:
        *lines, end = data.split(LINE_END)
        for line in lines:
            self._take(line)
        if end:
            self.pieces += _parts(end)

    def _take(self, line: bytes) -> None:
        """A line; its last part alone had its line end."""
        *cut, last = _parts(line)
        self.pieces += cut
        try:
            record = json.loads(last)
            assert list(record) == KEYS
            self.records.append(record)
        except (AssertionError, TypeError, ValueError):
            self.pieces.append(last)


def _parts(line: bytes) -> list[bytes]:
    """Cuts a line before each beginning of a record."""
    return [part for part in re.split(rb"(?=" + re.escape(START) + rb")", line) if part] or [line]


class RecordCheck:
    """Every call with a result has exactly one record, and every record is whole."""

    def __init__(self, ledger: Ledger) -> None:
        self.ledger = ledger
        self._files = AuditFile()

    def read(self, path: Path) -> None:
        self._files.read(path.read_bytes())

    def judge(self) -> None:
        found = Counter(record["correlation_id"] for record in self._files.records)
        self.ledger.count("audit records", sum(found.values()))
        self._judge_owners(found)
        self._judge_missing(found)
        self._judge_pieces()

    def _judge_owners(self, found: Counter[str]) -> None:
        for name, number in found.items():
            request = self.ledger.requests.get(name)
            if request is None or not request.tool:
                self.ledger.violation(f"a record of a call that nobody made: {name}")
            elif number > 1:
                self.ledger.violation(f"{number} records of {name}")

    def _judge_missing(self, found: Counter[str]) -> None:
        judged, missing = 0, []
        for request in self.ledger.requests.values():
            has_record = request.id in found
            if not request.recorded:
                continue
            if self.ledger.is_doubtful(request):
                self.ledger.count(LEFT_OUT_WITH if has_record else LEFT_OUT_WITHOUT)
                continue
            judged += 1
            if not has_record:
                missing.append(self._told(request))
        self.ledger.count(JUDGED, judged)
        if missing:
            self.ledger.count("records missing", len(missing))
            self.ledger.violation(f"{len(missing)} answered calls have no record: "
                                  f"{missing[:DETAILS]}")

    def _told(self, request: Request) -> str:
        return (f"{request.id} ({request.kind}, at {self.ledger.in_round(request.sent):.2f} to "
                f"{self.ledger.in_round(request.answered):.2f} s)")

    def _judge_pieces(self) -> None:
        """A piece that names its call is judged by that; of the others, each kill in a time in
        which records were cut may have left one."""
        nameless = self.ledger.kills_that_may_cut()
        for piece in self._files.pieces:
            if name := NAMED.match(piece):
                request = self.ledger.requests.get(name[1].decode())
                excused = request is not None and self.ledger.may_be_cut(request)
            else:
                nameless -= 1
                excused = nameless >= 0 and START.startswith(piece[:len(START)])
            if excused:
                self.ledger.count("piece of a record whose writer was killed over a full disk")
            else:
                self.ledger.violation(f"no whole record: {piece[:200]!r}")
