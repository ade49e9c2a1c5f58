#!/usr/bin/python3
"""Builds both targets and runs the test rings, side by side where that saves time.

    ./test                 what shows that it works here: both targets, in at most ten minutes
    ./test --full          every ring
    ./test --quick         checks, unit tests and the short end-to-end tests of Linux
    ./test RING ...        these rings alone, and the builds that they need; with --full also what
                           takes long in them
    ./test --coverage      the lines and branches of src/ that tests run, in build/coverage/report

  checks             layers, includes, platform conditions, formatting, no address in lock files,
                     links of the documents, plots and tables of the benchmarks
  unit-linux         unit tests, and what secrets leave on the stack
  unit-windows       the same of the Windows build, under Wine
  e2e-linux          end-to-end tests of the Linux executable
  e2e-windows        end-to-end tests of the Windows executable, under Wine
  interop-linux      official client SDK and sample engine, Linux executable; ./run
  interop-windows    the same with the Windows executable
With --full, or by name; with --full the rings above also run what takes long in them:
  lint               clang-tidy over the product and the sample
  endurance-linux    long runs of the listener
  endurance-windows  the same of the Windows executable
  unit-asan          unit tests under the address and undefined-behaviour sanitizers
  e2e-asan           end-to-end tests of that build
  endurance-asan     long runs of that build
  unit-tsan          unit tests under the thread sanitizer
  e2e-tsan           the tests of the servers' threads and of the operator's tool under it
  chaos-linux        clients among faults for a minute: killed processes, full disks, moved clocks
  chaos-windows      the same with the Windows executable
  fuzz               every fuzzer for a bounded number of runs
  models             models of the threads' protocols: every interleaving, and their mutations
  release-linux      archive, Debian package, client bundle, manual pages, completion, rotation,
                     a newcomer's first session on an empty Debian and in containers
  release-windows    archive and installer of the Windows executables, a newcomer's first session

A line says when a build or ring ends, how it went, its seconds and the processor's seconds. The
logs are in build/test-logs/. The last line is 'N passed, N failed'; the exit code is 1 when
something failed.
"""

from __future__ import annotations

import dataclasses
import os
import re
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path
from typing import Callable

import count_tests

ROOT = Path(__file__).resolve().parents[1]
LOGS = ROOT / "build" / "test-logs"
PYTHON = "/usr/bin/python3"
WINE = "scripts/wine.py"
PREFIX = "wine-prefix"
"""The step that makes what every Windows program runs in: some seconds, most of them waiting."""

SIDE_BY_SIDE = 3
"""How many steps run at the same time, those behind not counted: much of a ring is waiting."""
SIDE_BY_SIDE_IN_FULL = 2
"""The rings of the sanitizers and the slow tests leave little of the processors."""
BESIDE_A_BUILD = 2
"""How many, with the build: the rings of Windows wait for it, and they are the longest."""
STEP_LIMIT = 80 * 60
"""Seconds after which a step is ended and counts as failed."""
NEWS_INTERVAL = 30
"""Seconds between two lines that say what runs, where the output is no terminal."""

BY_DEFAULT = ("checks", "unit-linux", "unit-windows", "e2e-linux", "e2e-windows", "interop-linux",
              "interop-windows")
QUICK = ("checks", "unit-linux", "e2e-linux")


@dataclasses.dataclass
class Command:
    line: list[str]
    results: "Path | None" = None
    """Where it writes its JUnit file; without one it counts as a single test."""
    name: str = ""
    """What it checks, where several commands make a ring."""


@dataclasses.dataclass
class Step:
    """A build or a ring: commands one after the other."""
    name: str
    commands: list[Command]
    needs: tuple[str, ...] = ()
    holds: frozenset[str] = frozenset()
    """What no two steps use at the same time."""
    is_build: bool = False
    behind: bool = False
    """Whether it runs beside any other, with what they leave of the processors."""
    passed: int = 0
    failed: int = 0
    skipped: dict[str, int] = dataclasses.field(default_factory=dict)
    """How many, by the reason."""
    seconds: float = 0
    processor_seconds: float = 0
    started: float = 0
    process: "subprocess.Popen[bytes] | None" = None
    thread: "threading.Thread | None" = None
    why_not: str = ""

    @property
    def log(self) -> Path:
        return LOGS / f"{self.name}.log"


# What there is


def build(preset: str, target: str, *options: str) -> Step:
    return Step(f"build-{preset}",
                [Command(["cmake", "--preset", preset, *options]),
                 Command(["cmake", "--build", "--preset", preset, "--target", target])],
                holds=frozenset({"processors"}), is_build=True)


def builds(full: bool, packages: bool) -> list[Step]:
    """In the order in which they are wanted. What no ring runs is built in the full run alone.
    The packages are made of the executables that the other rings test."""
    target = "all" if full or packages else "kova-test-programs"
    options = ("-DKOVA_PACKAGES=ON",) if packages else ()
    return [build("linux", target, *options),
            Step(PREFIX, [Command([WINE, "prepare"])], is_build=True),
            build("windows", target, *options),
            build("asan", "kova-test-programs"), build("tsan", "kova-test-programs"),
            build("fuzz", "all")]


def with_low_priority(*line: str) -> list[str]:
    """The command at the lowest priority. Where Linux divides the processors among sessions first,
    the session's own level counts too: each step runs in a session of its own."""
    lower = "if [ -w /proc/self/autogroup ]; then echo 19 >/proc/self/autogroup; fi"
    return ["sh", "-c", f'{lower}; exec nice -n 19 "$@"', "sh", *line]


def unit(preset: str) -> Step:
    name = f"unit-{preset}"
    programs = ["kova-unit-tests"]
    if preset in ("linux", "windows"):
        programs.append("kova-wiping-tests")
    commands = []
    for program in programs:
        results = LOGS / f"{name}-{program}.xml"
        path = f"build/{preset}/tests/{program}"
        line = [path, f"--gtest_output=xml:{results}"]
        if preset == "windows":
            line = [WINE, "run", path + ".exe", f"--gtest_output=xml:Z:{results}"]
        commands.append(Command(line, results))
    needs = (f"build-{preset}", PREFIX) if preset == "windows" else (f"build-{preset}",)
    return Step(name, commands, needs)


def python_ring(kind: str, preset: str, folder: str, chosen: str, *options: str,
                holds: frozenset[str] = frozenset()) -> Step:
    name = f"{kind}-{preset}"
    results = LOGS / f"{name}.xml"
    target = "windows" if preset == "windows" else "linux"
    line = [PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider", "--timeout=900",
            f"--junitxml={results}", folder, "-m", chosen, "--target", target, *options]
    if preset not in ("linux", "windows"):
        line += ["--build-dir", f"build/{preset}"]
    needs = (f"build-{preset}",)
    if preset == "windows":
        # The sample engine is native.
        needs = ("build-linux", "build-windows", PREFIX)
        line = [WINE, "hold", *line]
    return Step(name, [Command(line, results)], needs, holds)


def bench_tests() -> Command:
    """Of the programs that make plots and tables; no figure is measured."""
    results = LOGS / "checks-bench.xml"
    return Command([PYTHON, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                    f"--junitxml={results}", "tests/bench"], results)


def chaos(target: str) -> Step:
    """A bounded run. It starts and ends Wine as it needs it, in a prefix of its own."""
    step = python_ring("chaos", target, "tests/chaos", "")
    if target == "windows":
        [command] = step.commands
        prefix = ROOT / "build" / "wineprefix-chaos"
        command.line = ["env", f"WINEPREFIX={prefix}", *command.line[len([WINE, "hold"]):]]
    return step


def rings(full: bool, quick: bool) -> list[Step]:
    """In the order in which they are wanted. A sanitizer build takes more memory, and keeps what
    was freed for a while: what judges the shipped executable is not for it."""
    unless_slow = "" if full else "not slow"
    short = "not endurance" if full else "not endurance and not slow"
    quickest = f"{short} and not sample_engine" if quick else short
    # Tests of one group run in the same process.
    grouped = ("--dist", "loadgroup")
    two = ("-n", "2", *grouped)
    played = frozenset({"./run"})
    fuzz_results = LOGS / "fuzz.xml"
    return [
        Step("checks",
             [Command([PYTHON, "scripts/check_layers.py"], name="layers and includes"),
              Command(["scripts/check_format.sh"], name="formatting"),
              Command(["scripts/check_lock_files.sh"], name="lock files name no address"),
              Command([PYTHON, "scripts/check_links.py"], name="links of the documents"),
              Command(["bench/tables", "--check"], name="tables of the benchmarks"),
              Command(["bench/plot", "--check"], name="plots of the benchmarks"),
              bench_tests()]),
        unit("linux"),
        python_ring("e2e", "linux", "tests/e2e", quickest, *two),
        # Much of it waits until Wine has started a process.
        python_ring("e2e", "windows", "tests/e2e", short, "-n", "3" if full else "4", *grouped),
        python_ring("interop", "windows", "tests/interop", unless_slow, *two, holds=played),
        unit("windows"),
        python_ring("interop", "linux", "tests/interop", unless_slow, *two, holds=played),
        Step("lint", [Command(with_low_priority("scripts/check_lint.sh", "build/linux"))],
             ("build-linux",), behind=True),
        python_ring("endurance", "linux", "tests/e2e", "endurance"),
        python_ring("endurance", "windows", "tests/e2e", "endurance"),
        unit("asan"),
        python_ring("e2e", "asan", "tests/e2e", "not shipped_build and not endurance", *two),
        python_ring("endurance", "asan", "tests/e2e", "endurance and not shipped_build"),
        unit("tsan"),
        python_ring("e2e", "tsan", "tests/e2e", "threads", *two),
        chaos("linux"),
        chaos("windows"),
        Step("fuzz", [Command(["ctest", "--test-dir", "build/fuzz/tests/fuzz",
                               "--output-on-failure", "--output-junit", str(fuzz_results)],
                              fuzz_results)], ("build-fuzz",)),
        Step("models", [Command(["tests/models/run"], name="models of the threads' protocols")]),
        # Packing looks whether the build is up to date, and so does ./run.
        python_ring("release", "linux", "tests/release", "", holds=played),
        python_ring("release", "windows", "tests/release", "", holds=played),
    ]


def chosen_steps(names: list[str], full: bool, quick: bool) -> list[Step]:
    """The rings of these names and the builds that they need, builds and rings each in order."""
    wanted = [step for step in rings(full, quick) if step.name in names]
    needed = {name for step in wanted for name in step.needs}
    packages = any(name.startswith("release-") for name in names)
    return [step for step in builds(full, packages) if step.name in needed] + wanted


# Running


class Runner:
    def __init__(self, steps: list[Step], report: "Report", side_by_side: int) -> None:
        self.steps = steps
        self.side_by_side = side_by_side
        self.report = report
        self.ended: dict[str, Step] = {}
        self.running: list[Step] = []
        self.changed = threading.Condition()

    def run(self) -> None:
        waiting = list(self.steps)
        while waiting or self.running:
            with self.changed:
                for step in list(waiting):
                    if self._cannot_run(step):
                        waiting.remove(step)
                    elif self._may_start(step):
                        waiting.remove(step)
                        self._start(step)
                if self.running:
                    self.changed.wait(1)
                self.report.news(self.running)
                for step in [one for one in self.running if one.name in self.ended]:
                    assert step.thread is not None
                    step.thread.join()
                    self.running.remove(step)
                    self.report.ended(step)

    def _cannot_run(self, step: Step) -> bool:
        """A ring that does not come to its tests has failed."""
        failed = [name for name in step.needs if name in self.ended and self.ended[name].failed]
        if failed:
            step.failed = 1
            step.why_not = f"not run: {failed[0]} failed"
            self.ended[step.name] = step
            self.report.ended(step)
        return bool(failed)

    def _may_start(self, step: Step) -> bool:
        before = [one for one in self.running if not one.behind]
        limit = BESIDE_A_BUILD if any(one.is_build for one in before) else self.side_by_side
        return ((step.behind or len(before) < limit)
                and all(name in self.ended for name in step.needs)
                and not any(step.holds & other.holds for other in self.running))

    def _start(self, step: Step) -> None:
        step.started = time.monotonic()
        self.running.append(step)
        self.report.started(step)
        step.thread = threading.Thread(target=self._work, args=(step,), daemon=True)
        step.thread.start()

    def _work(self, step: Step) -> None:
        try:
            with open(step.log, "wb") as log:
                for command in step.commands:
                    if not self._run_command(step, command, log) and step.is_build:
                        break
        except OSError as failure:
            step.log.write_text(f"error: {failure}\n")
            step.failed += 1
        finally:
            step.seconds = time.monotonic() - step.started
            with self.changed:
                self.ended[step.name] = step
                self.changed.notify_all()

    def _run_command(self, step: Step, command: Command, log) -> bool:
        if command.results is not None:
            command.results.unlink(missing_ok=True)
        step.process = subprocess.Popen(command.line, cwd=ROOT, stdin=subprocess.DEVNULL,
                                        stdout=log, stderr=subprocess.STDOUT,
                                        start_new_session=True)
        timer = threading.Timer(STEP_LIMIT, end_group, (step.process,))
        timer.start()
        _, status, used = os.wait4(step.process.pid, 0)
        timer.cancel()
        step.process.returncode = os.waitstatus_to_exitcode(status)
        step.processor_seconds += used.ru_utime + used.ru_stime
        self._count(step, command, log)
        return step.process.returncode == 0

    @staticmethod
    def _count(step: Step, command: Command, log) -> None:
        good = step.process is not None and step.process.returncode == 0
        if step.is_build:
            step.failed += not good
            return
        passed, failed = int(good), int(not good)
        if command.results is not None:
            passed, failed = count_tests.counted(command.results)
            step.skipped |= count_tests.skipped(command.results)
            # One that ended badly without a failed test has failed, too.
            if not good and failed == 0:
                failed = 1
        if not good and command.name:
            log.write(f"check failed: {command.name}\n".encode())
        step.passed += passed
        step.failed += failed


def end_group(process: "subprocess.Popen[bytes]") -> None:
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


# Saying


BAD_LINE = re.compile(r"^(?:FAILED|ERROR)|\[  FAILED  \]|error:|warning:|Error|check failed|"
                      r"must not include|a circle|without")
FAILED_TEST = re.compile(r"^(?:FAILED|ERROR) |\[  FAILED  \] \w+[./][\w./]+(?:,|$)|check failed: |"
                         r"error: ")
PROGRESS = re.compile(rb"\[ *(\d+)/(\d+)\]|\[ *(\d+)%\]")


class Report:
    def __init__(self, count: int) -> None:
        self.count = count
        self.done = 0
        self.since = time.monotonic()
        self.last_news = self.since
        self.live = sys.stdout.isatty()
        self.passed = 0
        self.failed = 0
        self.failures: list[str] = []
        """Repeated at the end: of a long output often the end alone is kept."""

    def say(self, text: str) -> None:
        if self.live:
            print("\r\033[K", end="")
        print(text, flush=True)

    def started(self, step: Step) -> None:
        if not self.live:
            self.say(f"        {step.name} begins")

    def ended(self, step: Step) -> None:
        self.done += 1
        self.passed += step.passed
        self.failed += step.failed
        if step.why_not:
            outcome = step.why_not
            self.failures.append(f"{step.name}: {step.why_not}")
        elif step.is_build:
            outcome = "failed" if step.failed else "built"
        else:
            outcome = f"{step.passed} passed, {step.failed} failed"
        self.say(f"[{self.done:2}/{self.count}] {step.name:<18} {outcome:<26}"
                 f"{step.seconds:6.0f} s {step.processor_seconds:6.0f} s cpu")
        for reason, count in step.skipped.items():
            one_line = " ".join(reason.split())
            self.say(f"    {count} skipped: {one_line[:200]}")
        if step.failed and not step.why_not:
            self._show(step)

    def _show(self, step: Step) -> None:
        """What the log says of the failure, and where it is."""
        lines = [line.decode(errors="replace")[:300] for line in step.log.read_bytes().splitlines()]
        bad = [line for line in lines if BAD_LINE.search(line)][:30]
        for line in bad + ["..."] + lines[-15:]:
            self.say("    " + line)
        self.say(f"    ({step.log.relative_to(ROOT)})")
        failed = dict.fromkeys(line for line in lines if FAILED_TEST.search(line))
        self.failures += [f"{step.name}: {line}" for line in failed][:10]

    def news(self, running: list[Step]) -> None:
        """What runs, and how far it is: every second on a terminal."""
        now = time.monotonic()
        if not running or (not self.live and now - self.last_news < NEWS_INTERVAL):
            return
        self.last_news = now
        parts = [f"{step.name} {now - step.started:.0f} s{progress(step)}" for step in running]
        text = f"{now - self.since:5.0f} s  running: " + ", ".join(parts)
        if self.live:
            print("\r\033[K" + text[:100], end="", flush=True)
        else:
            self.say(text)


def progress(step: Step) -> str:
    """How far a build or a Python ring is, as its log says."""
    try:
        with open(step.log, "rb") as log:
            log.seek(max(0, os.fstat(log.fileno()).st_size - 4096))
            found = PROGRESS.findall(log.read())
    except OSError:
        return ""
    if not found:
        return ""
    done, of, percent = (part.decode() for part in found[-1])
    return f" ({done} of {of})" if of else f" ({percent} %)"


def ring_names() -> list[str]:
    return [step.name for step in rings(False, False)]


def main(arguments: list[str]) -> int:
    if "--help" in arguments or "-h" in arguments:
        print(__doc__.strip())
        return 0
    full, quick = "--full" in arguments, "--quick" in arguments
    names = [one for one in arguments if one not in ("--full", "--quick")]
    known = ring_names()
    for name in names:
        if name not in known:
            print(f"./test: unknown ring '{name}' (see ./test --help)", file=sys.stderr)
            return 2
    if not names:
        by_default = list(QUICK if quick else BY_DEFAULT)
        names = known if full else by_default
    LOGS.mkdir(parents=True, exist_ok=True)
    os.environ.setdefault("WINEPREFIX", str(ROOT / "build" / "wineprefix"))
    steps = chosen_steps(names, full, quick)
    report = Report(len(steps))
    print(f"{len(steps)} builds and rings: " + ", ".join(step.name for step in steps), flush=True)
    runner = Runner(steps, report, SIDE_BY_SIDE_IN_FULL if full else SIDE_BY_SIDE)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        runner.run()
    except (KeyboardInterrupt, SystemExit):
        report.say("interrupted")
        report.failed += 1
    finally:
        for step in runner.running:
            if step.process is not None and step.process.returncode is None:
                end_group(step.process)
    cpu = sum(step.processor_seconds for step in steps)
    print("", *report.failures, sep="\n")
    print(f"{time.monotonic() - report.since:.0f} s, {cpu:.0f} s of processor time")
    print(f"{report.passed} passed, {report.failed} failed")
    return 0 if report.failed == 0 and report.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
