"""The costs of hardening options, and of audit records, as the tables show them."""

from __future__ import annotations

import json
from pathlib import Path

from figures import tables
from figures.dataset import Dataset
from figures.hardening_tables import BOTH, OPTIONS
from hardening.program import copies


def rows(text: str) -> "dict[str, list[str]]":
    cells = [[cell.strip() for cell in line.split("|")[1:-1]] for line in text.splitlines()[2:]]
    return {row[0]: row[1:] for row in cells}


def test_a_build_without_an_option_is_faster_by_what_it_costs(tmp_path: Path) -> None:
    without = {"ratio": 0.98, "undisturbed": 1.01}
    (tmp_path / "hardening.json").write_text(json.dumps({"targets": {name: {
        "rounds": 3000, "again": {"ratio": 1.0, "undisturbed": 0.995},
        "without": {option: without for option, against in OPTIONS.items() if name in against}}
        for name in BOTH}}))
    found = rows(tables.make("hardening", Dataset(tmp_path)))
    assert found["stack protector"] == ["+2.0 / -1.0", "+2.0 / -1.0"]
    assert found["stack clash protection"] == ["+2.0 / -1.0", "–"]
    assert found["nothing (a copy of the file)"] == ["+0.0 / +0.5", "+0.0 / +0.5"]
    assert len(found) == len(OPTIONS) + 1


def test_builds_are_compared_as_copies(tmp_path: Path) -> None:
    built = [tmp_path / "all" / "kova-mcp", tmp_path / "without" / "kova-mcp"]
    for number, path in enumerate(built):
        path.parent.mkdir()
        path.write_bytes(b"%d" % number)
        path.chmod(0o755)
    made = copies(tmp_path / "copies", [built[0], *built])
    assert [path.read_bytes() for path in made] == [b"0", b"0", b"1"]
    assert len({path.stat().st_ino for path in (*built, *made)}) == 5
    assert all(path.name == "kova-mcp" and path.stat().st_mode & 0o111 for path in made)


def test_records_of_both_targets(tmp_path: Path) -> None:
    calls = [{"target": name, "sessions": sessions, "without_ms": [2.0, 4.0, 3.0],
              "with_ms": [3.0, 5.0, 4.5]} for name in BOTH for sessions in (1, 16)]
    (tmp_path / "audit.json").write_text(json.dumps({"calls": calls}))
    assert rows(tables.make("audit", Dataset(tmp_path))) == {
        f"{name}, {sessions} at once": ["3.00 ms", "4.50 ms", "1.50"]
        for name in ("Linux", "Windows executable, Wine")
        for sessions in ("1 session", "16 sessions")}
