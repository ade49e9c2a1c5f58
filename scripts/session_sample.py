"""The sample that a session plays on: what is built, its data, its engine, and the processes.

Everything that a session leaves behind lies in build/run/:

    data/           the engine's databases
    linux/ windows/ the server with the client library beside it, as an operator installs them
    linux/ windows/ also have the policy for writes, and approvals/ for the tokens that are spent
    users           the engine's one user, with a password made for this machine
    approval-secret the key of the operator's approvals, made for this machine
    audit-*.jsonl   what the server has recorded, by the kind of session
    engine-*.log    what the engine has answered
"""

from __future__ import annotations

import contextlib
import fcntl
import json
import os
import re
import secrets
import shutil
import signal
import subprocess
import sys
import time
import uuid
from pathlib import Path
from typing import Any, Callable, Iterator, Sequence

import wine
from session_client import SessionFailure
from session_view import Step, View

ROOT = Path(__file__).resolve().parents[1]
BUILD = ROOT / "build"
STATE = BUILD / "run"
ENGINE = BUILD / "linux" / "sample" / "kova-sample-engine"
WINE_PREFIX = BUILD / "wineprefix"

DATABASE = "sample"
USER = "sample"
CLIENT_ID = "sample-client"
POLICY = ROOT / "sample" / "data" / "policy.json"
POLICY_FOR_WRITES = ROOT / "sample" / "data" / "policy-notes.json"

MARKER = "KOVA_RUN_SESSION"
"""The environment variable that tells this session's processes from everyone else's. Whoever starts
the session may set it, to look for what is left."""

END_TIMEOUT = 10.0
GONE_TIMEOUT = 3.0


class Target:
    """One of the two executables, and how it is run here."""

    def __init__(self, name: str) -> None:
        self.name = name
        self.windows = name == "windows"
        self.built = BUILD / name
        self.executable_name = "kova-mcp.exe" if self.windows else "kova-mcp"
        self.library_name = "kovadll.dll" if self.windows else "libkovadll.so"
        self.executable = STATE / name / self.executable_name
        self.policy_for_writes = STATE / name / "policy-notes.json"

    def path(self, path: Path) -> str:
        """The path as the executable knows it."""
        return wine.windows_path(path) if self.windows else str(path)

    def command(self, *arguments: str) -> list[str]:
        if self.windows:
            return wine.command(self.executable, *arguments)
        return [str(self.executable), *arguments]

    def environment(self, variables: "dict[str, str]") -> dict[str, str]:
        env = {"PATH": "/usr/bin:/bin", "HOME": os.environ.get("HOME", "/"), "LC_ALL": "C.UTF-8"}
        if self.windows:
            env |= wine.environment(WINE_PREFIX)
        return env | variables


class Processes:
    """Every process that is started ends with the session, however that ends."""

    def __init__(self) -> None:
        self.marker = os.environ.get(MARKER) or uuid.uuid4().hex
        self._started: list[subprocess.Popen[bytes]] = []
        self.survivors: list[str] = []
        self._wine_env: dict[str, str] | None = None

    def start(self, command: Sequence[str], env: "dict[str, str] | None" = None,
              **options: Any) -> "subprocess.Popen[bytes]":
        """A session of its own keeps the terminal's Ctrl-C from it: this process passes it on."""
        marked = {**(os.environ if env is None else env), MARKER: self.marker}
        if env is not None and "WINEPREFIX" in env:
            self._wine_env = marked
        process = subprocess.Popen(["setpriv", "--pdeathsig", "TERM", "--", *command], env=marked,
                                   start_new_session=True, **options)
        self._started.append(process)
        return process

    def finish(self, process: "subprocess.Popen[bytes]") -> None:
        """Asks the process to stop, and makes it."""
        if process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGTERM)
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(END_TIMEOUT)
        if process.poll() is None:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()

    def close(self) -> None:
        """Ends everything; what did not end by itself is in `survivors` and is ended too."""
        for process in reversed(self._started):
            self.finish(process)
        self._started.clear()
        self._end_survivors(wine.OWN_PROGRAMS)
        if self._wine_env is not None and not self._prefix_is_shared() and self._wine_ends():
            self._end_survivors(set())

    def _wine_ends(self) -> bool:
        """Wine's own servers end by themselves, soon after the last program."""
        try:
            subprocess.run([wine.server(), "-w"], env=self._wine_env, timeout=END_TIMEOUT,
                           check=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            return False
        return True

    def _prefix_is_shared(self) -> bool:
        """Whether another program, a test for one, keeps Wine's own servers."""
        return any(name not in wine.OWN_PROGRAMS and f"{MARKER}={self.marker}".encode() not in variables
                   for _, name, variables in _processes_with(f"WINEPREFIX={WINE_PREFIX}"))

    def _end_survivors(self, tolerated: set[str]) -> None:
        end = time.monotonic() + GONE_TIMEOUT
        while (left := self._left(tolerated)) and time.monotonic() < end:
            time.sleep(0.05)
        for pid, name in left.items():
            self.survivors.append(name)
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def _left(self, tolerated: set[str]) -> dict[int, str]:
        """This session's processes that are still there, by the marker that they inherit."""
        found = _processes_with(f"{MARKER}={self.marker}")
        return {pid: name for pid, name, _ in found if pid != os.getpid() and name not in tolerated}


def _processes_with(variable: str) -> Iterator[tuple[int, str, list[bytes]]]:
    """The processes that have the variable in their environment: number, name, environment."""
    for folder in Path("/proc").iterdir():
        if not folder.name.isdigit():
            continue
        with contextlib.suppress(OSError):  # it has ended, or belongs to somebody else
            variables = (folder / "environ").read_bytes().split(b"\0")
            if variable.encode() in variables:
                yield int(folder.name), (folder / "comm").read_text().strip(), variables


# what has to be there first


def prepare(target: Target, view: View, processes: Processes) -> None:
    """Builds, installs and loads what is not there yet; one session at a time does so."""
    STATE.mkdir(parents=True, exist_ok=True)
    with open(STATE / "prepare.lock", "w", encoding="ascii") as lock:
        _wait_for_lock(lock, view)
        _build("linux", ["kova-mcp", "kova-sample-engine", "kovadll"], view, processes)
        if target.windows:
            _build("windows", ["kova-mcp", "kovadll"], view, processes)
            _prepare_wine(view, processes)
        _install(target)
        _load_data(view, processes)
        _embed_data(view, processes)
        _make_secret_file(STATE / "users", f"{USER}:{secrets.token_hex(16)}")
        _make_secret_file(STATE / "approval-secret", secrets.token_hex(32))
        _make_policy_for_writes(target)


def _wait_for_lock(lock: Any, view: View) -> None:
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        view.line("Another ./run is building; this one waits for it.", "dim")
        fcntl.flock(lock, fcntl.LOCK_EX)


def _run(processes: Processes, command: Sequence[str], failure: str, view: View,
         on_line: Callable[[str], None] = lambda line: None, **options: Any) -> str:
    """Runs a command to its end and answers its last line; its output is shown when it fails."""
    process = processes.start(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, **options)
    assert process.stdout is not None
    lines = []
    for data in process.stdout:
        lines.append(data.decode(errors="replace").rstrip())
        on_line(lines[-1])
    if process.wait() != 0:
        view.line()
        for line in lines[-40:]:
            view.line(line)
        raise SessionFailure(failure)
    return lines[-1] if lines else ""


def _build(preset: str, targets: Sequence[str], view: View, processes: Processes) -> None:
    folder = BUILD / preset
    with view.step(f"Build for {preset}") as step:
        if not (folder / "build.ninja").exists():
            step.progress("configuring")
            _configure(preset, view, processes)
        _run(processes, ["cmake", "--build", str(folder), "--target", *targets],
             f"the build for {preset} failed", view, lambda line: _show_progress(step, line))


def _configure(preset: str, view: View, processes: Processes) -> None:
    """Leaves the tests and benchmarks out where the packages that only they need are missing."""
    command = ["cmake", "--preset", preset]
    whole = processes.start(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    if whole.wait() != 0:
        _run(processes, [*command, "-DKOVA_TESTS=OFF", "-DKOVA_BENCHMARKS=OFF"],
             f"the build for {preset} cannot be configured", view, cwd=ROOT)


def _show_progress(step: Step, line: str) -> None:
    match = re.match(r"\[(\d+)/(\d+)\]|.*?\b(\d+)%", line)
    if match and match[1]:
        step.progress(f"{match[1]} of {match[2]}")
    elif match:
        step.progress(f"{match[3]} %")


def _prepare_wine(view: View, processes: Processes) -> None:
    wine.fix_addresses()
    if not wine.is_prepared(WINE_PREFIX):
        with view.step("Wine prefix in build/wineprefix"):
            _run(processes, [sys.executable, wine.__file__, "prepare"],
                 "Wine cannot make its prefix", view, env=Target("windows").environment({}))


def _install(target: Target) -> None:
    folder = target.executable.parent
    folder.mkdir(exist_ok=True)
    for source in (target.built / target.executable_name,
                   target.built / "sample" / target.library_name):
        installed = folder / source.name
        if not _same_file(source, installed):
            # Under another name first: a session that runs keeps the file that it has open.
            partial = folder / f"{source.name}.partial"
            shutil.copy2(source, partial)
            os.replace(partial, installed)


def _same_file(source: Path, installed: Path) -> bool:
    if not installed.exists():
        return False
    old, new = installed.stat(), source.stat()
    return (old.st_size, old.st_mtime_ns) == (new.st_size, new.st_mtime_ns)


def _load_data(view: View, processes: Processes) -> None:
    database = STATE / "data" / f"{DATABASE}.db"
    with view.step("Sample data from Debian's package index") as step:
        command = [sys.executable, str(ROOT / "sample" / "data" / "load_packages.py"),
                   "--data", str(database.parent), "--database", DATABASE]
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
        last = _run(processes, [str(ENGINE), "--data", str(STATE / "data"), "--embed"],
                    "the collections cannot be built", view,
                    lambda line: _show_progress(step, line))
        step.outcome = f": {last}"


def _make_secret_file(path: Path, line: str) -> None:
    """What is in it is this machine's own, for whoever can read the file."""
    if path.exists():
        return
    _replace_file(path, line + "\n", 0o600)


def _make_policy_for_writes(target: Target) -> None:
    """The policy has to name a folder of this machine, in the executable's own spelling."""
    approvals = target.executable.parent / "approvals"
    approvals.mkdir(mode=0o700, exist_ok=True)
    policy = json.loads(POLICY_FOR_WRITES.read_text("utf-8"))
    policy["approval_state_directory"] = target.path(approvals)
    _replace_file(target.policy_for_writes, json.dumps(policy, indent=2) + "\n", 0o644)


def _replace_file(path: Path, text: str, mode: int) -> None:
    """A server that runs meets the old file or the new one, never half of one."""
    partial = path.with_name(path.name + ".partial")
    with contextlib.suppress(FileNotFoundError):
        partial.unlink()
    descriptor = os.open(partial, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
    with open(descriptor, "w", encoding="utf-8") as file:
        file.write(text)
    os.replace(partial, path)


# the engine


class Engine:
    """The sample engine on a free port, for one session."""

    def __init__(self, kind: str, processes: Processes) -> None:
        self.log_file = STATE / f"engine-{kind}.log"
        self.audit_file = STATE / f"audit-{kind}.jsonl"
        with open(self.log_file, "ab") as log:
            self._log_start = log.tell()
            self.process = processes.start(
                [str(ENGINE), "--data", str(STATE / "data"), "--users", str(STATE / "users"),
                 "--log"],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        self.port = self._wait_until_ready()

    def _wait_until_ready(self) -> str:
        assert self.process.stdout is not None
        line = self.process.stdout.readline().decode(errors="replace")
        match = re.search(r"ready on 127\.0\.0\.1:(\d+)$", line.rstrip())
        if match is None:
            words = self.log()
            raise SessionFailure(words[-1] if words else "the sample engine does not start")
        return match[1]

    def log(self) -> list[str]:
        """The lines of this session."""
        with open(self.log_file, "rb") as log:
            log.seek(self._log_start)
            return log.read().decode(errors="replace").splitlines()

    def profile(self, target: Target) -> dict[str, str]:
        """The server's whole configuration: policy, launch identity, database profile, audit."""
        password = (STATE / "users").read_text("ascii").strip().partition(":")[2]
        return {"KOVA_MCP_POLICY": target.path(POLICY), "KOVA_MCP_CLIENT_ID": CLIENT_ID,
                "KOVA_MCP_SERVER": "127.0.0.1", "KOVA_MCP_PORT": self.port,
                "KOVA_MCP_DATABASE": DATABASE, "KOVA_MCP_USER": USER,
                "KOVA_MCP_PASSWORD": password,
                "KOVA_MCP_AUDIT": target.path(self.audit_file)}

    def profile_for_writes(self, target: Target) -> dict[str, str]:
        secret = (STATE / "approval-secret").read_text("ascii").strip()
        return self.profile(target) | {"KOVA_MCP_POLICY": target.path(target.policy_for_writes),
                                       "KOVA_MCP_APPROVAL_SECRET": secret}


@contextlib.contextmanager
def all_processes() -> Iterator[Processes]:
    """SIGTERM and SIGHUP end the session as Ctrl-C does."""
    processes = Processes()

    def stop(number: int, _: Any) -> None:
        raise KeyboardInterrupt(signal.Signals(number).name)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    try:
        yield processes
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        processes.close()
