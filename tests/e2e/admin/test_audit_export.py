"""kova-admin audit export: records in the field models of other systems."""

from __future__ import annotations

import calendar
import gzip
import json
import time

import pytest

from harness.audit_logs import line, record, write
from harness.operator_desk import Desk

RECORDS = [
    record(0.158),
    record(1, tool="kova_execute", decision="approval_accepted", objects="T",
           correlation_id='a"\\'),
    record(2, tool="kova_execute", decision="approval_required", status="error"),
    record(3, tool="kova_ai_status", decision="kill_switch", status="error", duration=0),
    record(4, tool="kova_text_search", decision="deny", status="error"),
    record(5, objects="", status="error"),
]


def exported(desk: Desk, model: str, *arguments) -> list[dict]:
    result = desk.run("audit", "export", "--to", model, *arguments)
    assert (result.stderr, result.code) == (b"", 0), result
    return [json.loads(text) for text in result.stdout.splitlines()]


@pytest.fixture
def file(desk: Desk):
    return write(desk.folder / "audit.jsonl", RECORDS)


def test_ecs(desk: Desk, file) -> None:
    events = exported(desk, "ecs", file)
    for made, event in zip(RECORDS, events, strict=True):
        ok = made["status"] == "ok"
        refused = made["policy_decision"] in ("deny", "kill_switch", "approval_required")
        change = made["tool"] == "kova_execute"
        expected = {
            "@timestamp": made["timestamp"], "ecs": {"version": "9.3.0"},
            "event": {"kind": "event", "category": ["database"],
                      "type": ["denied" if refused else "change" if change else "access"],
                      "action": made["tool"], "outcome": "success" if ok else "failure",
                      "duration": made["duration_ms"] * 1000000, "dataset": "kova_mcp.audit",
                      "reason": made["policy_decision"]},
            "labels": {"request_id": made["correlation_id"]},
            "user": {"name": made["client_identity"]}, "rule": {"name": made["policy"]},
            "kova": {"database": made["database_identity"], "objects": made["objects"],
                     "rows": made["rows"], "bytes": made["bytes"]}}
        if not ok:
            expected["error"] = {"type": made["error_class"]}
        assert event == expected


def test_ocsf(desk: Desk, file) -> None:
    activities = {"kova_execute": 5, "kova_query": 4, "kova_text_search": 4}
    for made, event in zip(RECORDS, exported(desk, "ocsf", file), strict=True):
        stamp = made["timestamp"]
        seconds = calendar.timegm(time.strptime(stamp[:19], "%Y-%m-%dT%H:%M:%S"))
        activity = activities.get(made["tool"], 1)
        ok = made["status"] == "ok"
        assert event == {
            "class_uid": 6005, "category_uid": 6, "activity_id": activity,
            "type_uid": 600500 + activity,
            "severity_id": 3 if made["policy_decision"] == "deny" else 1,
            "time": seconds * 1000 + int(stamp[20:23]),
            "metadata": {"version": "1.6.0", "product": {"name": "kova-mcp"},
                         "correlation_uid": made["correlation_id"], "original_time": stamp,
                         "event_code": made["tool"]},
            "actor": {"app_name": made["client_identity"]},
            "database": {"name": made["database_identity"], "type_id": 1}, "type_id": 1,
            "status_id": 1 if ok else 2, "status_code": made["error_class"],
            "status_detail": made["policy_decision"], "duration": made["duration_ms"], "count": 1,
            "policy": {"name": made["policy"]},
            "unmapped": {"objects": made["objects"], "rows": made["rows"],
                         "bytes": made["bytes"]}}


def test_files_filters_and_output(desk: Desk, file) -> None:
    packed = desk.file("audit.jsonl-1.gz", gzip.compress(line(record(9, client="b"))))
    assert len(exported(desk, "ecs", file, packed)) == 7
    assert len(exported(desk, "ecs", "--client", "b", file, packed)) == 1
    output = desk.folder / "events.jsonl"
    assert exported(desk, "ecs", "--output", output, file) == []
    assert len(output.read_text().splitlines()) == len(RECORDS)


def test_lines_that_are_no_record(desk: Desk) -> None:
    file = desk.file("audit.jsonl", line(record()) + b"x\n" + line(record(1)))
    result = desk.run("audit", "export", "--to", "ocsf", file)
    assert result.code == 0 and len(result.stdout.splitlines()) == 2
    assert b"audit.jsonl: 1 of 3 lines could not be read" in result.stderr


def test_what_is_refused(desk: Desk, file) -> None:
    for arguments in (["--to", "cef", file], [file], ["--to", "ecs"],
                      ["--to", "ecs", desk.folder / "no"]):
        result = desk.run("audit", "export", *arguments)
        assert (result.code, result.stdout) == (2, b"") and result.stderr.count(b"\n") == 1
