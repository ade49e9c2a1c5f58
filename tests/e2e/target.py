"""The executable of one target, how it is run and what lies beside it."""

from __future__ import annotations

import fcntl
import select
import shutil
import subprocess
from pathlib import Path
from typing import Mapping, Sequence

from waiting import TIMEOUT, wait_until

WINE = "/usr/lib/wine/wine64"

Environment = Mapping[str, "str | Path | None"]


class Target:
    """One of the two executables and how to run it."""

    def __init__(self, name: str, build: Path, prefix: Path) -> None:
        self.name = name
        self.build = build
        self.prefix = prefix
        self.windows = name == "windows"
        self.executable = build / ("kova-mcp.exe" if self.windows else "kova-mcp")
        self.library_name = "kovadll.dll" if self.windows else "libkovadll.so"
        self.line_end = b"\r\n" if self.windows else b"\n"  # of standard error
        self._keeper: subprocess.Popen[bytes] | None = None

    def path(self, path: Path) -> str:
        """The path as the target writes it."""
        text = str(path)
        return "Z:" + text.replace("/", "\\") if self.windows else text

    def command(self, executable: Path, arguments: Sequence[str]) -> list[str]:
        return ([WINE] if self.windows else []) + [str(executable), *arguments]

    def environment(self, extra: Environment) -> dict[str, str]:
        """A minimal environment and the variables of the test; None leaves one out."""
        env = {"PATH": "/usr/bin:/bin", "HOME": str(self.build), "LC_ALL": "C.UTF-8"}
        if self.windows:
            env |= {"WINEPREFIX": str(self.prefix), "WINEDEBUG": "-all"}
        for name, value in extra.items():
            if value is not None:
                env[name] = self.path(value) if isinstance(value, Path) else value
        return env

    def prepare(self) -> None:
        """Makes the Wine prefix once, and keeps Wine's own servers up for the session."""
        if not self.windows:
            return
        self.prefix.parent.mkdir(parents=True, exist_ok=True)
        env = self.environment({})
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        with open(f"{self.prefix}.lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            if not (self.prefix / "system.reg").exists():
                subprocess.run([WINE, "wineboot", "-i"], env=env, check=True, timeout=300, **quiet)
            # Wine's own servers keep the streams of the process that starts them.
            subprocess.run([WINE, "cmd", "/c", "exit"], env=env, check=True, timeout=300, **quiet)
            wait_until(lambda: self._start_keeper(env), TIMEOUT, "a process that keeps Wine up")

    def _start_keeper(self, env: Environment) -> bool:
        """A program of Wine's that waits for its input to end. False when it did not come up: it
        has met servers that were about to end, as they do when no program is left."""
        self._keeper = subprocess.Popen([WINE, "cmd", "/k", "echo up"], env=env,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL)
        said = self._keeper.stdout
        assert said is not None
        return bool(select.select([said], [], [], TIMEOUT)[0]) and said.readline().startswith(b"up")

    def release(self) -> None:
        if self._keeper is not None and self._keeper.stdin is not None:
            self._keeper.stdin.close()
            self._keeper.wait(timeout=TIMEOUT)


class Installation:
    """Folders that each hold the executable and, beside it, one kind of client library."""

    def __init__(self, target: Target, root: Path) -> None:
        self.target = target
        self.root = root

    def executable(self, library: str | None = None, folder: Path | None = None) -> Path:
        folder = folder or self.root / (library or "none")
        executable = folder / self.target.executable.name
        if not executable.exists():
            folder.mkdir(parents=True, exist_ok=True)
            self._add_library(folder / self.target.library_name, library)
            shutil.copy2(self.target.executable, executable)
        return executable

    def _add_library(self, path: Path, library: str | None) -> None:
        support = self.target.build / "tests" / "support"
        if library == "scripted":
            shutil.copy2(support / self.target.library_name, path)
        elif library == "incomplete":
            shutil.copy2(support / "incomplete" / self.target.library_name, path)
        elif library == "broken":
            path.write_text("no library\n", encoding="ascii")
        elif library is not None:
            raise ValueError(library)
