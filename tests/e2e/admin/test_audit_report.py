"""kova-admin audit report: the figures, in every format."""

from __future__ import annotations

import csv
import gzip
import hashlib
import io
import json
import math
import random
from pathlib import Path
from typing import Any

import pytest

from harness.audit_logs import content, line, record, time_text, write
from harness.operator_desk import Desk

pytestmark = pytest.mark.threads

DAY = 24 * 3600
LINE_LIMIT = 65536


def report(desk: Desk, *arguments: "str | Path", stdin: bytes = b"") -> dict[str, Any]:
    result = desk.run("audit", "report", "--format", "json", *arguments, stdin=stdin)
    assert (result.stderr, result.code) == (b"", 0), result
    assert result.stdout.endswith(b"\n") and result.stdout.count(b"\n") == 1
    assert result.stdout.isascii()
    return json.loads(result.stdout)


def refused(desk: Desk, *arguments: "str | Path", stdin: bytes = b"") -> str:
    """Exit code 2, one line on standard error, no report."""
    result = desk.run("audit", "report", *arguments, stdin=stdin)
    assert (result.code, result.stdout) == (2, b"")
    text = result.stderr.decode().replace("\r", "")
    assert text.startswith("kova-admin: ") and text.count("\n") == 1, text
    return text


def counts(records: list[dict[str, Any]]) -> dict[str, int]:
    ok = sum(made["status"] == "ok" for made in records)
    return {"calls": len(records), "ok": ok, "errors": len(records) - ok,
            "rows": sum(made["rows"] for made in records),
            "bytes": sum(made["bytes"] for made in records)}


def table(records: list[dict[str, Any]], member: str, name: str) -> list[dict[str, Any]]:
    values = {made[member] for made in records}
    rows = [{name: value, **counts([made for made in records if made[member] == value])}
            for value in values]
    return sorted(rows, key=lambda row: (-row["calls"], row[name]))


def some_records(count: int) -> list[dict[str, Any]]:
    draw = random.Random(7)
    tools = ["kova_query", "kova_list_tables", "kova_execute", "kova_text_search"]
    decisions = ["allow", "deny", "kill_switch", "approval_required", "approval_accepted"]
    return [record(number * 3, tool=draw.choice(tools), client=draw.choice(["a", "b\"\\", "c d"]),
                   decision=draw.choice(decisions), status=draw.choice(["ok", "ok", "error"]),
                   duration=int(10 ** (draw.random() * 7)), rows=draw.randrange(300),
                   bytes=draw.randrange(500000), objects=draw.choice(["", "T", "ORDERS"]))
            for number in range(count)]


def nearest_rank(values: list[int], percent: int) -> int:
    return sorted(values)[math.ceil(percent * len(values) / 100) - 1]


@pytest.mark.parametrize("count", [1, 2, 99, 1000])
def test_the_figures_are_those_of_the_records(desk: Desk, count: int) -> None:
    records = some_records(count)
    file = write(desk.folder / "audit.jsonl", records)
    found = report(desk, file)
    durations = [made["duration_ms"] for made in records]
    assert found == {
        "files": [{"name": desk.target.path(file),
                   "sha256": hashlib.sha256(file.read_bytes()).hexdigest(), "lines": count,
                   "unreadable": 0, "first": records[0]["timestamp"],
                   "last": records[-1]["timestamp"]}],
        "totals": counts(records),
        "by_tool": table(records, "tool", "tool"),
        "by_client": table(records, "client_identity", "client"),
        "by_decision": table(records, "policy_decision", "decision"),
        "durations": {"p50": nearest_rank(durations, 50), "p90": nearest_rank(durations, 90),
                      "p99": nearest_rank(durations, 99), "max": max(durations)},
        "writes": [{"timestamp": made["timestamp"], "client": made["client_identity"],
                    "table": made["objects"], "decision": made["policy_decision"],
                    "status": made["status"]}
                   for made in records if made["tool"] == "kova_execute"],
        "gaps": []}


def test_a_file_without_records(desk: Desk) -> None:
    found = report(desk, desk.file("audit.jsonl", b""))
    [facts] = found["files"]
    assert (facts["lines"], facts["first"], facts["last"]) == (0, None, None)
    assert found["totals"] == {"calls": 0, "ok": 0, "errors": 0, "rows": 0, "bytes": 0}
    assert found["durations"] == {"p50": None, "p90": None, "p99": None, "max": None}
    for name in ("text", "csv", "html"):
        assert desk.run("audit", "report", "--format", name, desk.folder / "audit.jsonl").code == 0


def test_files_in_order_compressed_ones_too(desk: Desk) -> None:
    parts = [content([record(60 * number), record(60 * number + 1)]) for number in range(4)]
    plain = desk.file("a-1.jsonl", parts[0])
    packed = desk.file("a-2.jsonl.gz", gzip.compress(parts[1]))
    # Two members, and a name that does not tell.
    hidden = desk.file("a-3.jsonl", gzip.compress(parts[2][:100]) + gzip.compress(parts[2][100:]))
    found = report(desk, plain, packed, hidden, "-", stdin=parts[3])
    assert [facts["name"] for facts in found["files"]] == [
        desk.target.path(plain), desk.target.path(packed), desk.target.path(hidden), "-"]
    assert [facts["sha256"] for facts in found["files"]] == [
        hashlib.sha256(data).hexdigest()
        for data in (plain.read_bytes(), packed.read_bytes(), hidden.read_bytes(), parts[3])]
    assert [facts["lines"] for facts in found["files"]] == [2, 2, 2, 2]
    assert found["totals"]["calls"] == 8 and found["gaps"] == []


@pytest.mark.parametrize("damage", ["cut", "flipped", "no gzip", "empty", "trailing"])
def test_a_broken_compressed_file_gives_no_report(desk: Desk, damage: str) -> None:
    good = gzip.compress(content(record(number) for number in range(3000)))
    bad = {"cut": good[:-1], "flipped": good[:2000] + bytes([good[2000] ^ 1]) + good[2001:],
           "no gzip": content([record()]), "empty": b"", "trailing": good + b"x"}[damage]
    file = desk.file("audit.jsonl.gz", bad)
    output = desk.folder / "report.html"
    for arguments in ([file], ["--output", output, file]):
        assert "audit.jsonl.gz: the compressed file is broken or cut short" in refused(
            desk, *arguments)
    assert not output.exists()
    assert {path.name for path in desk.folder.iterdir()} >= {"audit.jsonl.gz"}
    assert not list(desk.folder.glob(".kova-admin*"))


def test_lines_and_what_is_not_readable(desk: Desk) -> None:
    good = line(record()).strip()
    longest = good[:-1] + b" " * (LINE_LIMIT - len(good)) + b"}"
    assert len(longest) == LINE_LIMIT
    readable = [good, good + b"\r", longest, longest + b"\r", b" " + good]
    bad = [b"", b"\r", b"null", b"[]", b"{}", b"x" * 200, good[:-1], good + b",", longest + b" ",
           good.replace(b'"rows":3', b'"rows":"3"'), good.replace(b'"ok"', b"true"),
           good.replace(b'"objects"', b'"object"'), good.replace(b"2026-11-21", b"2026-11-31"),
           b"y" * (LINE_LIMIT * 3), b"\xff" + good]
    file = desk.file("audit.jsonl", b"\n".join(readable + bad + [good]))
    [facts] = report(desk, file)["files"]
    assert facts["lines"] == len(readable) + len(bad) + 1
    assert facts["unreadable"] == len(bad)


def test_gaps_and_clocks(desk: Desk) -> None:
    times = [0, DAY, 2 * DAY + 0.001, 2 * DAY - 1.999, 2 * DAY - 4, 4 * DAY]
    first = write(desk.folder / "a-1.jsonl", [record(seconds) for seconds in times[:3]])
    second = desk.file("a-2.jsonl", b"no record\n" + content(record(s) for s in times[3:]))
    name = desk.target.path(second)
    assert report(desk, first, second)["gaps"] == [
        {"kind": "gap", "file": desk.target.path(first), "line": 3, "from": time_text(DAY),
         "to": time_text(2 * DAY + 0.001)},
        {"kind": "clock", "file": name, "line": 3, "from": time_text(2 * DAY - 1.999),
         "to": time_text(2 * DAY - 4)},
        {"kind": "gap", "file": name, "line": 4, "from": time_text(2 * DAY - 4),
         "to": time_text(4 * DAY)}]


def test_filters(desk: Desk) -> None:
    records = [record(number, client="ab"[number % 2],
                      tool=["kova_query", "kova_execute"][number % 3 == 0])
               for number in range(12)]
    file = write(desk.folder / "audit.jsonl", records)

    def calls(*arguments: str) -> int:
        found = report(desk, *arguments, file)
        assert found["files"][0]["lines"] == 12
        return found["totals"]["calls"]

    assert calls("--since", time_text(3)) == 9
    assert calls("--until", time_text(3)) == 3
    assert calls("--since", time_text(3), "--until", time_text(5)) == 2
    assert calls("--client", "a") == 6
    assert calls("--tool", "kova_execute") == 4
    assert calls("--client", "a", "--tool", "kova_execute", "--since", time_text(1)) == 1
    assert calls("--client", "A") == 0
    for option in ("--since", "--until"):
        assert option in refused(desk, option, "2026-11-21", file)


def test_the_rest_is_counted_together(desk: Desk) -> None:
    records = [record(number, client=f"c{number % 5000}") for number in range(6000)]
    found = report(desk, write(desk.folder / "audit.jsonl", records))
    rows = {row["client"]: row["calls"] for row in found["by_client"]}
    assert len(rows) == 4097 and sum(rows.values()) == 6000
    assert rows["(other)"] == 904 and found["by_client"][-1]["client"] == "(other)"
    assert rows["c0"] == rows["c999"] == 2 and rows["c1000"] == 1


def test_the_journal_says_who_and_why(desk: Desk) -> None:
    def decision(seconds: float, **members: Any) -> bytes:
        made = {"timestamp": time_text(seconds), "decision": "approved", "operator": "alice",
                "host": "h", "reason": "ticket 7", "policy": "sales_read", "client_id": "desk",
                "database": "SALES", "type": "UPDATE", "table": "T", "statement": None,
                "digest": "d" * 64, "nonce": "n" * 32, "expires_at": time_text(seconds + 300),
                **members}
        if made["decision"] == "declined":
            made["nonce"] = made["expires_at"] = None
        return json.dumps(made).encode() + b"\n"

    journal = desk.file("j.jsonl", decision(0) + decision(10, operator="bob", reason="<b>")
                        + decision(20, decision="declined") + decision(30, table="U"))
    write_of = {"tool": "kova_execute", "objects": "T", "decision": "approval_accepted"}
    file = write(desk.folder / "audit.jsonl", [
        record(1, **{**write_of, "decision": "approval_required", "status": "error"}),
        record(15, **write_of), record(16, **write_of), record(17, **write_of),
        record(18, **{**write_of, "objects": "V"}), record(900, **{**write_of, "objects": "U"})])
    found = report(desk, "--journal", journal, file)
    assert [(row.get("operator"), row.get("reason")) for row in found["writes"]] == [
        (None, None), ("alice", "ticket 7"), ("bob", "<b>"), (None, None), (None, None),
        (None, None)]
    text = desk.run("audit", "report", "--format", "text", "--journal", journal, file)
    assert b"journal: 3 approved, 1 declined" in text.stdout
    page = desk.run("audit", "report", "--journal", journal, file).stdout
    assert b"<td>bob</td><td>&lt;b&gt;</td>" in page and b"<b>" not in page.split(b"</ul>", 3)[3]
    output = desk.run("audit", "report", "--format", "csv", "--journal", journal, file).stdout
    rows = list(csv.DictReader(io.StringIO(output.decode(), newline="")))
    assert [(row["name"], row["reason"]) for row in rows if row["table"] == "write"] == [
        ("", ""), ("alice", "ticket 7"), ("bob", "<b>"), ("", ""), ("", ""), ("", "")]
    assert [(row["table"], row["name"], row["calls"]) for row in rows
            if row["table"] in ("approval", "journal")] == [
        ("approval", "required", "1"), ("approval", "accepted", "5"), ("approval", "refused", "0"),
        ("journal", "approved", "3"), ("journal", "declined", "1")]
    broken = desk.file("broken.jsonl", decision(0) + b"{}\n")
    assert "broken.jsonl: line 2, column 1: the member timestamp is missing" in refused(
        desk, "--journal", broken, file)


def test_a_journal_of_many_approvals_of_one_client(desk: Desk) -> None:
    made = {"timestamp": time_text(0), "decision": "approved", "operator": "alice", "host": "h",
            "reason": "ticket", "policy": "sales_read", "client_id": "desk", "database": "SALES",
            "type": "UPDATE", "table": "T", "statement": None, "digest": "d" * 64,
            "nonce": "n" * 32, "expires_at": time_text(300)}
    journal = desk.file("j.jsonl", (json.dumps(made) + "\n") * 70000)
    file = write(desk.folder / "audit.jsonl", [
        record(1, tool="kova_execute", objects="T", decision="approval_accepted")])
    [row] = report(desk, "--journal", journal, file)["writes"]
    assert row["operator"] == "alice"


def test_csv_has_every_table(desk: Desk) -> None:
    records = some_records(50) + [record(500, client="=1+1"), record(501, client='a,"b"')]
    output = desk.run("audit", "report", "--format", "csv",
                      write(desk.folder / "audit.jsonl", records)).stdout.decode()
    rows = list(csv.DictReader(io.StringIO(output, newline="")))
    tables = {row["table"] for row in rows}
    assert tables == {"file", "total", "tool", "client", "decision", "over_time", "hour",
                      "duration", "refusal", "approval", "kill_switch", "first_seen", "slowest",
                      "largest", "write"}
    assert {row["name"] for row in rows if row["table"] == "client"} == {
        "a", 'b"\\', "c d", "'=1+1", 'a,"b"'}
    assert sum(int(row["calls"]) for row in rows if row["table"] == "hour") == 52
    assert sum(int(row["calls"]) for row in rows if row["table"] == "over_time") == 52


HOSTILE = ["</title><script>alert(1)</script>", "<img src=x onerror=alert(1)>",
           "\x1b[2J\x1b]0;x\x07", "\u202eevil", "\u200bnone", "a\u0000b", "'\"&<>",
           "javascript:alert(1)"]


def test_hostile_values_stay_text(desk: Desk) -> None:
    records = [record(number, client=text, tool=text, objects=text, decision=text,
                      correlation_id=text, status="error")
               for number, text in enumerate(HOSTILE)]
    file = write(desk.folder / "audit.jsonl", records)
    page = desk.run("audit", "report", file).stdout.decode()
    for markup in ("<script", "<img", "onerror=alert(1)>"):
        assert markup not in page
    text = desk.run("audit", "report", "--format", "text", file).stdout.decode()
    table_text = desk.run("audit", "report", "--format", "csv", file).stdout.decode()
    for printed in (page, text, table_text):
        assert not set(printed) & set("\x1b\x07\x00\u202e\u200b")
        assert "\\x1B[2J" in printed and "\\u{202E}evil" in printed
    found = report(desk, file)
    assert {row["client"] for row in found["by_client"]} == set(HOSTILE)


def test_the_page_needs_nothing_else_and_is_the_same_each_time(desk: Desk) -> None:
    file = write(desk.folder / "audit.jsonl", some_records(300))
    pages = []
    for number in range(2):
        output = desk.folder / f"report-{number}.html"
        result = desk.run("audit", "report", "--output", output, file)
        assert (result.stdout, result.stderr, result.code) == (b"", b"", 0)
        pages.append(output.read_bytes())
    assert pages[0] == pages[1] == desk.run("audit", "report", file).stdout
    page = pages[0].decode()
    assert "default-src 'none'; style-src 'sha256-" in page
    for word in ("<script", "http:", "https:", " style=", "@import", "src="):
        assert word not in page, word
    assert "url(" not in page.replace("url(#hatch)", "").replace("url(#dots)", "")
    assert not list(desk.folder.glob(".kova-admin*"))


def test_the_output_replaces_a_report_and_nothing_else(desk: Desk) -> None:
    file = write(desk.folder / "audit.jsonl", [record()])
    before = file.read_bytes()
    output = desk.file("report.html", "old")
    assert desk.run("audit", "report", "--output", output, file).code == 0
    assert output.read_bytes().startswith(b"<!doctype html>")
    assert "the output is one of the inputs" in refused(desk, "--output", file, file)
    assert file.read_bytes() == before
    assert "it is no regular file" in refused(desk, "--output", desk.folder, file)
    assert "cannot be written" in refused(desk, "--output", desk.folder / "no" / "report", file)


def test_what_cannot_be_read(desk: Desk) -> None:
    file = write(desk.folder / "audit.jsonl", [record()])
    assert "no.jsonl: the file cannot be opened" in refused(desk, file, desk.folder / "no.jsonl")
    assert "cannot be opened" in refused(desk, desk.folder)
    assert "standard input can be read once" in refused(desk, "-", "-")
    assert "FILE" in refused(desk)
    assert "--format" in refused(desk, "--format", "pdf", file)
    assert "no.jsonl: the file cannot be opened" in refused(
        desk, "--journal", desk.folder / "no.jsonl", file)
