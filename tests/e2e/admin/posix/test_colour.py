"""Colours: on a terminal alone, never without the word, and not for who wants none."""

from __future__ import annotations

import re
import subprocess
from pathlib import Path
from typing import Any

import pytest

from harness.deployments import Admin, admin_beside
from harness.targets import Installation, Target

RED_WORD = re.compile(rb"\x1b\[31mFAIL\x1b\[0m  ")
COLOUR = re.compile(rb"\x1b\[\d+m")


@pytest.fixture
def admin(target: Target, installation: Installation) -> Admin:
    return admin_beside(target, installation, "scripted")


def shown(admin: Admin, env: dict[str, str], **streams: Any) -> bytes:
    """What `doctor` shows of a deployment without settings."""
    terminal = admin.on_terminal("doctor", env={"TERM": "xterm", **env}, **streams)
    try:
        assert terminal.finish() == 1
        return terminal.transcript
    finally:
        terminal.close()


def test_on_a_terminal(admin: Admin) -> None:
    text = shown(admin, {})
    assert RED_WORD.search(text) and b"\x1b[32mok" in text
    plain = admin.run("doctor").stdout.replace(b"\n", b"\r\n")
    assert COLOUR.search(plain) is None and COLOUR.sub(b"", text) == plain


@pytest.mark.parametrize("env", [{"NO_COLOR": "1"}, {"TERM": "dumb"}])
def test_for_who_wants_none(admin: Admin, env: dict[str, str]) -> None:
    assert COLOUR.search(shown(admin, env)) is None


def test_an_empty_wish_is_none(admin: Admin) -> None:
    assert RED_WORD.search(shown(admin, {"NO_COLOR": ""}))


def test_into_a_file(admin: Admin, tmp_path: Path) -> None:
    with open(tmp_path / "report", "wb") as report:
        shown(admin, {}, stdout=report)
    text = (tmp_path / "report").read_bytes()
    assert b"FAIL" in text and COLOUR.search(text) is None


def test_the_page_of_approve(desk: Any) -> None:
    source = desk.file("s.sql", "delete from t")
    env = {**desk.env, "NO_COLOR": None, "TERM": "xterm"}
    terminal = desk.decide("why", "no", source, env=env)
    assert b"\x1b[33mwarning\x1b[0m no-where" in terminal.transcript
    printed = subprocess.run(desk.command("approve", "--show", source), capture_output=True,
                             env=desk.environment(env), check=True).stdout
    assert b"warning no-where" in printed and COLOUR.search(printed) is None
