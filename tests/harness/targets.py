"""The executable of one target, how it is run and what lies beside it."""

from __future__ import annotations

import contextlib
import shutil
from pathlib import Path
from typing import Iterator, Mapping, Sequence

import wine

ROOT = Path(__file__).resolve().parents[2]

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

    def path(self, path: Path) -> str:
        """The path as the target writes it."""
        return wine.windows_path(path) if self.windows else str(path)

    def command(self, executable: Path, arguments: Sequence[str]) -> list[str]:
        if self.windows:
            return wine.command(executable, *arguments)
        return [str(executable), *arguments]

    def environment(self, extra: Environment) -> dict[str, str]:
        """A minimal environment and the variables of the test; None leaves one out."""
        env = {"PATH": "/usr/bin:/bin", "HOME": str(self.build), "LC_ALL": "C.UTF-8"}
        if self.windows:
            env |= wine.environment(self.prefix)
        for name, value in extra.items():
            if value is not None:
                env[name] = self.path(value) if isinstance(value, Path) else value
        return env

    @contextlib.contextmanager
    def ready(self) -> Iterator[None]:
        """Keeps Wine up, if the target needs it, so that the executable starts fast."""
        if self.windows:
            with wine.held(self.prefix):
                yield
        else:
            yield


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
        elif library == "sample":
            shutil.copy2(self.target.build / "sample" / self.target.library_name, path)
        elif library == "incomplete":
            shutil.copy2(support / "incomplete" / self.target.library_name, path)
        elif library == "broken":
            path.write_text("no library\n", encoding="ascii")
        elif library is not None:
            raise ValueError(library)
