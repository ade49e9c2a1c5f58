"""A report in a real browser, and the pictures of it in docs/pictures.

    PYTHONPATH=tests:scripts python3 -m harness.report_browser KOVA_ADMIN

makes the pictures anew, with the program of that path.
"""

from __future__ import annotations

import json
import random
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Any, Sequence

from harness.audit_logs import record, write
from harness.targets import ROOT

PICTURES = ROOT / "docs" / "pictures"
PROGRAM = ROOT / "tests" / "interop" / "report_page.mjs"
TIMEOUT = 300.0
PHONE = {"width": 360, "height": 780, "dark": False}
DESK = {"width": 1280, "height": 900, "dark": False}
VIEWS = {"report-desk.png": {**DESK, "height": 1000},
         "report-phone-dark.png": {**PHONE, "dark": True}}


def look(page: Path, views: Sequence[dict[str, Any]]) -> list[dict[str, Any]]:
    """What report_page.mjs says of a page in these views."""
    done = subprocess.run(["node", str(PROGRAM)], capture_output=True, timeout=TIMEOUT, check=False,
                          input=json.dumps({"page": str(page), "views": list(views)}).encode())
    assert done.returncode == 0, done.stderr.decode(errors="replace")
    return json.loads(done.stdout)["views"]


def example_records() -> list[dict[str, Any]]:
    """Three days of three clients, with refusals, writes and a kill switch."""
    draw = random.Random(20261121)
    made = []
    seconds = 0.0
    while seconds < 3 * 24 * 3600:
        hour = (seconds / 3600 + 11) % 24
        seconds += draw.expovariate(1 / (90 if 8 <= hour < 18 else 900))
        tool = draw.choices(["kova_query", "kova_list_tables", "kova_text_search", "kova_execute",
                             "kova_ai_status"], [60, 12, 15, 6, 3])[0]
        members: dict[str, Any] = {
            "client": draw.choices(["reporting-assistant", "night-batch", "desk"], [6, 1, 3])[0],
            "tool": tool, "duration": int(draw.lognormvariate(3, 1.2)) + 2,
            "rows": draw.randrange(200), "bytes": draw.randrange(60000),
            "objects": {"kova_query": "policy-select", "kova_list_tables": "table-catalog",
                        "kova_text_search": "ARTICLES", "kova_execute": "ORDER_NOTES",
                        "kova_ai_status": "ARTICLES,LOCAL"}[tool],
            "correlation_id": str(len(made) % 40 + 1)}
        if tool == "kova_execute":
            members["decision"] = draw.choice(["approval_required", "approval_accepted", "deny"])
        if tool == "kova_ai_status":
            members["decision"] = draw.choice(["allow", "kill_switch"])
        if tool == "kova_query" and draw.random() < 0.06:
            members["objects"] = ""
        failed = (members.get("decision") in ("approval_required", "deny", "kill_switch")
                  or members["objects"] == "" or draw.random() < 0.02)
        if failed:
            members |= {"status": "error", "rows": 0, "bytes": 0}
        made.append(record(round(seconds, 3), **members))
    return made


def make_pictures(admin: str, folder: Path) -> None:
    """Writes the pictures of docs/audit-reading.md into a folder."""
    with tempfile.TemporaryDirectory() as place:
        file = write(Path(place, "audit.jsonl-20261124"), example_records())
        page = Path(place, "report.html")
        subprocess.run([admin, "audit", "report", "--output", str(page), file.name], cwd=place,
                       check=True)
        look(page, [{**view, "picture": str(folder / name)} for name, view in VIEWS.items()])


if __name__ == "__main__":
    PICTURES.mkdir(exist_ok=True)
    make_pictures(str(Path(sys.argv[1]).resolve()), PICTURES)
