"""Builds, installs and loads what a session needs and what is not there yet."""

from __future__ import annotations

import contextlib
import fcntl
import json
import os
import re
import secrets
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Any, Callable, Sequence

from engine import APPROVAL_SECRET, DATA, DATABASE, EXECUTABLE, USER, USERS
from outcome import SessionFailure
from processes import Processes
from target import BUILD, ROOT, STATE, WINE_PREFIX, Target, wine
from view import Step, View

POLICY_FOR_WRITES = ROOT / "sample" / "data" / "policy-notes.json"
LINES_SHOWN = 40


def prepare(target: Target, view: View, processes: Processes) -> None:
    """Does everything that is missing; a lock lets one session at a time do so."""
    STATE.mkdir(parents=True, exist_ok=True)
    with open(STATE / "prepare.lock", "w", encoding="ascii") as lock:
        _wait_for_lock(lock, view)
        _build("linux", ["kova-mcp", "kova-admin", "kova-sample-engine", "kovadll"], view,
               processes)
        if target.windows:
            _build("windows", ["kova-mcp", "kova-admin", "kovadll"], view, processes)
            _prepare_wine(view, processes)
        _install(target)
        _load_data(view, processes)
        _embed_data(view, processes)
        _make_secret_file(USERS, f"{USER}:{secrets.token_hex(16)}")
        _make_secret_file(APPROVAL_SECRET, secrets.token_hex(32))
        _make_policy_for_writes(target)


def _wait_for_lock(lock: Any, view: View) -> None:
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        view.line("Another ./run is building; this one waits for it.", "dim")
        fcntl.flock(lock, fcntl.LOCK_EX)


def _run(processes: Processes, command: Sequence[str], failure: str, view: View,
         on_line: Callable[[str], None] = lambda line: None, **options: Any) -> str:
    """Runs a command to its end and returns its last line; its output is shown when it fails."""
    process = processes.start(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, **options)
    assert process.stdout is not None
    lines = []
    for data in process.stdout:
        lines.append(data.decode(errors="replace").rstrip())
        on_line(lines[-1])
    if process.wait() != 0:
        view.line()
        for line in lines[-LINES_SHOWN:]:
            view.line(line)
        raise SessionFailure(failure)
    return lines[-1] if lines else ""


def _show_progress(step: Step, line: str) -> None:
    match = re.match(r"\[(\d+)/(\d+)\]|.*?\b(\d+)%", line)
    if match and match[1]:
        step.progress(f"{match[1]} of {match[2]}")
    elif match:
        step.progress(f"{match[3]} %")


# build and install


def _build(preset: str, targets: Sequence[str], view: View, processes: Processes) -> None:
    folder = BUILD / preset
    with view.step(f"Build for {preset}") as step:
        if not (folder / "build.ninja").exists():
            step.progress("configuring")
            _configure(preset, view, processes)
        _run(processes, ["cmake", "--build", str(folder), "--target", *targets],
             f"the build for {preset} failed", view, lambda line: _show_progress(step, line))


def _configure(preset: str, view: View, processes: Processes) -> None:
    """Leaves tests and benchmarks out when the packages that only they need are missing."""
    command = ["cmake", "--preset", preset]
    whole = processes.start(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    if whole.wait() != 0:
        _run(processes, [*command, "-DKOVA_TESTS=OFF", "-DKOVA_BENCHMARKS=OFF"],
             f"the build for {preset} cannot be configured", view, cwd=ROOT)


def _prepare_wine(view: View, processes: Processes) -> None:
    wine.fix_addresses()
    if not wine.is_prepared(WINE_PREFIX):
        with view.step("Wine prefix in build/wineprefix"):
            _run(processes, [sys.executable, wine.__file__, "prepare"],
                 "Wine cannot make its prefix", view, env=Target("windows").environment({}))


def _install(target: Target) -> None:
    folder = target.executable.parent
    folder.mkdir(exist_ok=True)
    for source in (target.built / target.executable_name, target.built / target.admin_name,
                   target.built / "sample" / target.library_name):
        installed = folder / source.name
        if not _same_file(source, installed):
            # Copied under another name first: a running session keeps the file that it has open.
            partial = folder / f"{source.name}.partial"
            shutil.copy2(source, partial)
            os.replace(partial, installed)


def _same_file(source: Path, installed: Path) -> bool:
    if not installed.exists():
        return False
    old, new = installed.stat(), source.stat()
    return (old.st_size, old.st_mtime_ns) == (new.st_size, new.st_mtime_ns)


# sample data


def _load_data(view: View, processes: Processes) -> None:
    database = DATA / f"{DATABASE}.db"
    with view.step("Sample data from Debian's package index") as step:
        command = [sys.executable, str(ROOT / "sample" / "data" / "load_packages.py"),
                   "--data", str(DATA), "--database", DATABASE]
        try:
            last = _run(processes, command, "the sample data cannot be loaded", view,
                        lambda line: _show_progress(step, line))
        except SessionFailure:
            if not database.exists():
                raise
            step.outcome = ": kept as it is"
            return
        step.outcome = f": {last}" if last.startswith("loaded") else ": up to date"


def _embed_data(view: View, processes: Processes) -> None:
    with view.step("AI collections of the sample data") as step:
        last = _run(processes, [str(EXECUTABLE), "--data", str(DATA), "--embed"],
                    "the collections cannot be built", view,
                    lambda line: _show_progress(step, line))
        step.outcome = f": {last}"


# users, key and policy


def _make_secret_file(path: Path, line: str) -> None:
    """Writes a file that its owner alone can read; an existing one is kept."""
    if not path.exists():
        _replace_file(path, line + "\n", 0o600)


def _make_policy_for_writes(target: Target) -> None:
    """Names the folder of the used tokens, in the spelling of the target's system."""
    approvals = target.executable.parent / "approvals"
    approvals.mkdir(mode=0o700, exist_ok=True)
    policy = json.loads(POLICY_FOR_WRITES.read_text("utf-8"))
    policy["approval_state_directory"] = target.path(approvals)
    _replace_file(target.policy_for_writes, json.dumps(policy, indent=2) + "\n", 0o644)


def _replace_file(path: Path, text: str, mode: int) -> None:
    """Replaces the file as a whole: a running server reads the old file or the new one."""
    partial = path.with_name(path.name + ".partial")
    with contextlib.suppress(FileNotFoundError):
        partial.unlink()
    descriptor = os.open(partial, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
    with open(descriptor, "w", encoding="utf-8") as file:
        file.write(text)
    os.replace(partial, path)
