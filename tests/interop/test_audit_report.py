"""The report in a real browser, and the audit file in tools that exist: lnav, minisign."""

from __future__ import annotations

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from harness.audit_logs import record, write
from harness.operator_desk import Desk
from harness.report_browser import (DESK, PHONE, PICTURES, VIEWS, example_records, look,
                                    make_pictures)
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

PICTURE_LIMIT = 150 * 1024
LNAV_FORMAT = ROOT / "deploy" / "lnav" / "kova_mcp_audit.json"
DOCUMENT = ROOT / "docs" / "audit-reading.md"

HOSTILE = ["</title><script>alert(1)</script>", "<img src=x onerror=alert(1)>",
           "\"><svg onload=alert(1)>", "\x1b[2J\u202egnp.exe", "&lt;b&gt;",
           "<style>*{background:url(//evil.example/x)}</style>", "x" * 500,
           "<meta http-equiv=refresh content=0>", "<iframe src=//evil.example>"]


@pytest.fixture
def desk(target: Target, tmp_path: Path) -> Desk:
    return Desk(target, tmp_path)


def page_of(desk: Desk, records: list[dict]) -> Path:
    file = write(desk.folder / "audit.jsonl", records)
    page = desk.folder / "report.html"
    assert desk.run("audit", "report", "--output", page, file).code == 0
    return page


def hostile_records() -> list[dict]:
    return [record(number, client=text, tool=text, objects=text, decision=text, status=text,
                   correlation_id=text)
            for number, text in enumerate(HOSTILE)] + [
        record(100, tool="kova_execute", objects=HOSTILE[0], client=HOSTILE[1],
               decision="approval_accepted")]


@pytest.mark.slow
@pytest.mark.parametrize("content", ["example", "hostile", "empty", "many"])
def test_the_page_in_a_browser(desk: Desk, content: str) -> None:
    records = {"example": example_records, "hostile": hostile_records, "empty": lambda: [],
               "many": lambda: [record(number * 40, client=f"client {number}", bytes=10 ** 9)
                                for number in range(3000)]}[content]()
    page = page_of(desk, records)
    views = [PHONE, DESK, {**PHONE, "dark": True}, {**DESK, "dark": True}]
    for view, seen in zip(views, look(page, views), strict=True):
        for nothing in ("console", "violations", "requests", "serious", "handlers"):
            assert seen[nothing] == [], (nothing, view)
        assert seen["scripts"] == 0
        assert seen["width"] <= view["width"], view
        assert seen["figures"] == 5 and "Provenance" in seen["text"]
        assert seen["print_pages"] >= 1
        assert seen["ground"] == ("rgb(15, 20, 25)" if view["dark"] else "rgb(255, 255, 255)")
        if content == "hostile":
            for text in (HOSTILE[0], HOSTILE[1], HOSTILE[4], "\\x1B[2J\\u{202E}gnp.exe"):
                assert text in seen["text"]


@pytest.mark.slow
def test_the_pictures_of_the_document(desk: Desk, tmp_path: Path) -> None:
    if not desk.target.windows:
        make_pictures(str(desk.executable), tmp_path)
    for name in VIEWS:
        assert f"(pictures/{name})" in DOCUMENT.read_text("utf-8")
        for folder in (PICTURES, tmp_path):
            if folder == tmp_path and desk.target.windows:
                continue
            data = (folder / name).read_bytes()
            assert data.startswith(b"\x89PNG") and len(data) < PICTURE_LIMIT, name


def lnav(tmp_path: Path, file: Path, *commands: str) -> str:
    formats = tmp_path / "config" / "formats" / "kova"
    formats.mkdir(parents=True)
    shutil.copy(LNAV_FORMAT, formats)
    options = [word for command in commands for word in ("-c", command)]
    done = subprocess.run(["lnav", "-n", "-I", str(tmp_path / "config"), *options, str(file)],
                          env={"PATH": "/usr/bin:/bin", "HOME": str(tmp_path), "TERM": "dumb",
                               "LC_ALL": "C.UTF-8"},
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=TIMEOUT, check=False)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.mark.parametrize("name", ["audit.jsonl", "audit.jsonl-20261121-1795219200",
                                  "audit-2026-11-21.jsonl"])
def test_lnav_reads_the_file(tmp_path: Path, name: str) -> None:
    file = write(tmp_path / name, [
        record(0), record(1, tool="kova_execute", decision="deny", status="error", objects="",
                          client="night", duration=7)])
    # Below each line stand the members that it does not show.
    shown = [text for text in lnav(tmp_path, file).splitlines() if not text.startswith(" ")]
    assert len(shown) == 2, shown
    assert re.search(r"ok +allow +kova_query +desk policy-select rows=3 bytes=119 ms=13$", shown[0])
    assert re.search(r"error +deny +kova_execute +night", shown[1])


def test_lnav_asks_the_file(tmp_path: Path) -> None:
    file = write(tmp_path / "audit.jsonl", [record(number, client="ab"[number % 2], duration=number)
                                            for number in range(9)])
    output = lnav(tmp_path, file, ";SELECT client_identity, count(*) AS calls, max(duration_ms) AS"
                  " slowest FROM kova_mcp_audit WHERE log_level = 'info' GROUP BY 1 ORDER BY 1",
                  ":write-json-to -")
    found = json.loads(output[output.index("["):output.rindex("]") + 1])
    assert found == [{"client_identity": "a", "calls": 5, "slowest": 8},
                     {"client_identity": "b", "calls": 4, "slowest": 7}]


def test_the_recipe_with_minisign(desk: Desk) -> None:
    """The commands of the document, as they stand there."""
    text = DOCUMENT.read_text("utf-8")
    section = text[text.index("## Seals"):]
    commands = [line for block in re.findall(r"```sh\n(.*?)```", section, re.DOTALL)
                for line in block.splitlines() if line.startswith("minisign")]
    assert len(commands) == 3, commands
    write(desk.folder / "audit.jsonl-20261121", [record()])
    assert desk.run("audit", "seal", "--to", desk.folder / "SEALS",
                    desk.folder / "audit.jsonl-20261121").code == 0
    for command in commands:
        # The document's key has a password; a test cannot type one.
        command = command.replace("minisign -G", "minisign -G -W")
        subprocess.run(command, shell=True, cwd=desk.folder, check=True, capture_output=True,
                       stdin=subprocess.DEVNULL, timeout=TIMEOUT)
    seals = desk.folder / "SEALS"
    seals.write_bytes(seals.read_bytes() + b"\n")
    changed = subprocess.run(commands[-1], shell=True, cwd=desk.folder, check=False,
                             capture_output=True, timeout=TIMEOUT)
    assert changed.returncode != 0
