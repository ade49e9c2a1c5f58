"""Runs unit tests of a changed program under limits; learns which tests come by which changes."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Iterator, Mapping, Sequence

from mutation.modules import ROOT

PROCESSOR_SECONDS = 1.0
"""Processor time that a run may take beyond what its tests take otherwise."""
PROCESSOR_FACTOR = 4.0
QUIET_SECONDS = 10.0
"""A run none of whose threads has run for so long is blocked. A busy machine does not count: a
thread that waits for a processor is not asleep, nor is one that was stopped."""
QUICK_MS = 60.0
"""Tests that take no longer are run first."""
FILE_BYTES = 256 << 20
MEMORY_BYTES = 8 << 30

KILLED, TIMED_OUT, SURVIVED, NOT_BUILT = "killed", "timed out", "survived", "not built"


@dataclass(frozen=True)
class UnitTest:
    name: str
    processor_ms: float
    ms: float
    reached: frozenset[int]


@dataclass(frozen=True)
class Outcome:
    status: str
    test: str = ""
    """The first test that failed."""


class Baseline(Exception):
    """The tests do not pass without a change. The text names them."""


class Runner:
    def __init__(self, folder: Path) -> None:
        self.folder = folder

    def run(self, program: Path, names: "Sequence[str] | None", seconds: float,
            environment: Mapping[str, str]) -> Outcome:
        """Runs the named tests, or all, until one fails."""
        with tempfile.TemporaryDirectory(dir=self.folder, ignore_cleanup_errors=True) as temporary:
            output = Path(temporary) / "output"
            words = ["prlimit", f"--cpu={int(seconds + 1)}", f"--fsize={FILE_BYTES}",
                     f"--as={MEMORY_BYTES}", "--core=0", str(program), "--gtest_brief=1",
                     "--gtest_color=no"]
            if names is not None:
                words += ["--gtest_fail_fast", "--gtest_filter=" + ":".join(names)]
            with output.open("wb") as file:
                running = subprocess.Popen(
                    words, stdin=subprocess.DEVNULL, stdout=file, stderr=subprocess.STDOUT,
                    start_new_session=True, cwd=temporary,
                    env={**os.environ, **environment, "TMPDIR": temporary})
                blocked = not ends(running)
                end_session(running)
            text = output.read_bytes()[-200_000:].decode(errors="replace")
        failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", text, re.MULTILINE)
        if blocked or running.returncode in (-signal.SIGXCPU, -signal.SIGKILL):
            return Outcome(TIMED_OUT)
        if running.returncode != 0:
            return Outcome(KILLED, failed[0] if failed else f"exit code {running.returncode}")
        return Outcome(SURVIVED)

    def learn(self, program: Path, numbers: int) -> list[UnitTest]:
        """Runs all tests without a change, and what they come by. The first entry, which has no
        name, holds what comes before the tests."""
        reached, log = self.folder / "reached", self.folder / "tests.log"
        reached.write_bytes(bytes(numbers))
        outcome = self.run(program, None, 3600, {
            "KOVA_MUTANT_REACHED": str(reached), "KOVA_MUTANT_LOG": str(log)})
        if outcome.status != SURVIVED:
            raise Baseline(f"without a change: {outcome.status} {outcome.test}")
        tests = []
        for line in log.read_text().splitlines():
            name, processor, taken, marks = line.split("\t")
            tests.append(UnitTest(name, float(processor), float(taken),
                                  frozenset(map(int, marks.split()))))
        return tests

    def judge(self, program: Path, tests: Iterable[UnitTest], number: int) -> Outcome:
        """Runs tests with a change, quick ones first, until one fails."""
        quick: list[UnitTest] = []
        slow: list[UnitTest] = []
        for test in tests:
            (quick if test.ms <= QUICK_MS else slow).append(test)
        for part in (quick, slow):
            if not part:
                continue
            seconds = PROCESSOR_SECONDS + \
                PROCESSOR_FACTOR * sum(test.processor_ms for test in part) / 1000
            outcome = self.run(program, [test.name for test in part], seconds,
                               {"KOVA_MUTANT": str(number)})
            if outcome.status != SURVIVED:
                return outcome
        return Outcome(SURVIVED)


def ends(running: subprocess.Popen) -> bool:
    """Waits for the end of a process; false when nothing has run in its session for long."""
    last, quiet, pause = -1, 0.0, 0.01
    while True:
        try:
            running.wait(pause)
            return True
        except subprocess.TimeoutExpired:
            pass
        # By the pauses, not by the clock: this process can be stopped too.
        ticks, awake = activity(running.pid)
        quiet = 0.0 if awake or ticks != last else quiet + pause
        last, pause = ticks, min(2 * pause, 1.0)
        if quiet > QUIET_SECONDS:
            return False


def session_members(session: int) -> list[Path]:
    members = []
    for path in Path("/proc").iterdir():
        if path.name.isdigit():
            try:
                fields = (path / "stat").read_text(errors="replace").rpartition(")")[2].split()
            except OSError:
                continue
            if int(fields[3]) == session:
                members.append(path)
    return members


def activity(session: int) -> tuple[int, bool]:
    """The processor time of a session so far, in ticks; whether a thread of it runs or could."""
    ticks, awake = 0, False
    for fields in thread_states(session_members(session)):
        awake = awake or fields[0] in "RDTt"
        ticks += int(fields[11]) + int(fields[12])
    return ticks, awake


def thread_states(members: Iterable[Path]) -> Iterator[list[str]]:
    """What the system says of each thread. Any of them, and its process, may end meanwhile."""
    for member in members:
        try:
            threads = list((member / "task").iterdir())
        except OSError:
            continue
        for thread in threads:
            try:
                yield (thread / "stat").read_text(errors="replace").rpartition(")")[2].split()
            except OSError:
                continue


def end_session(running: subprocess.Popen) -> None:
    """Ends what a run has left behind. Its session has no members but those that it started."""
    for member in session_members(running.pid):
        try:
            os.kill(int(member.name), signal.SIGKILL)
        except OSError:
            pass
    running.wait()


def suites_of(module: str) -> set[str]:
    """The test suites in the module's folder of tests/unit."""
    folder = {"query": "tools"}.get(module, module)
    names = set()
    for path in (ROOT / "tests" / "unit" / folder).rglob("*_test.cpp"):
        if module == "query" and path.name != "query_tool_test.cpp":
            continue
        names.update(re.findall(r"^TEST(?:_F|_P)?\((\w+)", path.read_text(), re.MULTILINE))
    return names


def suite_of(test: UnitTest) -> str:
    return test.name.split(".")[0].split("/")[-1]


def available() -> "str | None":
    """What is missing on this machine."""
    for program in ("g++", "cmake", "ninja", "prlimit"):
        if shutil.which(program) is None:
            return program
    return None
