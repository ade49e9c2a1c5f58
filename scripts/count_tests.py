"""How many tests of a JUnit file passed and how many failed, and why some were skipped."""

from __future__ import annotations

import collections
import xml.etree.ElementTree as xml
from pathlib import Path


def counted(path: Path) -> tuple[int, int]:
    """Passed and failed tests; (0, 1) for no readable file. What was skipped is neither."""
    try:
        cases = list(xml.parse(path).iter("testcase"))
    except (OSError, xml.ParseError):
        return 0, 1
    passed = failed = 0
    for case in cases:
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is None and case.get("status") != "notrun":
            passed += 1
    return passed, failed


def skipped(path: Path) -> dict[str, int]:
    """The reasons for which tests were skipped, and how many each. None of an unreadable file."""
    try:
        elements = list(xml.parse(path).iter("skipped"))
    except (OSError, xml.ParseError):
        return {}
    reasons = collections.Counter(one.get("message") or "no reason" for one in elements)
    return dict(reasons)
