"""Each command and option of --help is completed in each shell, and none that does not exist."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path
from typing import Callable

import pytest

from harness.targets import Target
from harness.waiting import TIMEOUT

ROOT = Path(__file__).resolve().parents[3]
COMPLETIONS = ROOT / "completions"
SERVER_OPTIONS = {"--check-policy", "--check-config", "--issue-approval", "--http"}


def help_of(target: Target, path: list[str]) -> str:
    return subprocess.run([str(target.build / "kova-admin"), *path, "--help"], capture_output=True,
                          text=True, timeout=TIMEOUT, check=True).stdout


def below(text: str) -> list[str]:
    _, _, rest = text.partition("\nSubcommands:\n")
    return re.findall(r"^  ([a-z-]+)", rest, re.MULTILINE)


def options(text: str) -> set[str]:
    return set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", text, re.MULTILINE))


@pytest.fixture(scope="session")
def paths(target: Target) -> dict[tuple[str, ...], str]:
    """The help text of kova-admin and of each command, however deep."""
    found: dict[tuple[str, ...], str] = {}

    def look(path: tuple[str, ...]) -> None:
        found[path] = help_of(target, list(path))
        for name in below(found[path]):
            if name != "help":
                look((*path, name))

    look(())
    assert ("approvals", "clean") in found
    return found


Complete = Callable[..., set[str]]


def bash(program: str, *words: str, folder: Path) -> set[str]:
    script = (f"source {COMPLETIONS / program}.bash; COMP_WORDS=({program} \"$@\"); "
              f"COMP_CWORD=$#; _{program.replace('-', '_')}; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
    done = subprocess.run(["bash", "-uc", script, "bash", *words], capture_output=True, text=True,
                          timeout=TIMEOUT, check=True, cwd=folder)
    assert done.stderr == ""
    return set(done.stdout.split())


def zsh(program: str, *words: str, folder: Path) -> set[str]:
    """The functions of zsh's line editor stand in as what they would offer."""
    script = ("compadd() { shift; print -l -- ${(M)@:#$words[CURRENT]*} };"
              "_files() { [[ $1 == -/ ]] && print -l -- *(/N) || print -l -- *(N) };"
              f"complete_it() {{ source {COMPLETIONS}/_{program} }};"
              f"words=({program} \"$@\"); CURRENT=$(($# + 1)); complete_it; true")
    done = subprocess.run(["zsh", "-fc", script, "zsh", *words], capture_output=True, text=True,
                          timeout=TIMEOUT, check=True, cwd=folder)
    assert done.stderr == ""
    return set(done.stdout.split())


@pytest.fixture(params=[bash, zsh], ids=["bash", "zsh"])
def complete(request: pytest.FixtureRequest, tmp_path: Path) -> Complete:
    (tmp_path / "a.env").touch()
    (tmp_path / "folder").mkdir()
    return lambda *words, program="kova-admin": request.param(program, *words, folder=tmp_path)


def test_the_commands_and_options(complete: Complete, paths: dict[tuple[str, ...], str]) -> None:
    for path, text in paths.items():
        assert complete(*path, "-") == options(text), path
        if below(text):
            assert complete(*path, "") == set(below(text)), path
            if path:
                assert complete("help", *path, "") == set(below(text)), path


def test_the_options_of_the_server(complete: Complete) -> None:
    assert complete("--", program="kova-mcp") == SERVER_OPTIONS
    assert complete("--check-p", program="kova-mcp") == {"--check-policy"}
    assert complete("--http", "", program="kova-mcp") == set()


def test_the_values(complete: Complete) -> None:
    assert complete("init", "--writes", "") == {"none", "approval"}
    assert complete("init", "--transport", "h") == {"http"}
    assert complete("init", "--folder", "") == {"folder"}
    assert complete("doctor", "--env", "") == {"a.env", "folder"}
    assert complete("init", "--name", "") == set()
    assert {"a.env", "--show"} <= complete("approve", "")


def test_a_value_is_not_taken_for_a_command(complete: Complete) -> None:
    assert "--folder" in complete("init", "--name", "approvals", "--")


def powershell_table(program: str) -> dict[str, dict[str, list[str]]]:
    text = (COMPLETIONS / f"{program}.ps1").read_text("utf-8")
    assert f"-CommandName {program}, {program}.exe " in text
    [table] = re.findall(r"@'\n(.*?)\n'@", text, re.DOTALL)
    return json.loads(table)


def test_the_table_of_the_powershell_completion(paths: dict[tuple[str, ...], str]) -> None:
    """PowerShell itself is in no Debian package: what its script looks up is read here."""
    table = powershell_table("kova-admin")
    for path, text in paths.items():
        key = " ".join(("kova-admin", *path))
        assert set(table["options"][key]) == options(text)
        assert table["commands"].get(key, []) == below(text)
    assert len(table["options"]) == len(paths)
    assert set(powershell_table("kova-mcp")["options"]["kova-mcp"]) == SERVER_OPTIONS
