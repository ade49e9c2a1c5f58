"""The copy of the tree in which the sources are changed, and its builds."""

from __future__ import annotations

import hashlib
import json
import os
import shutil
import subprocess
from dataclasses import dataclass, replace
from pathlib import Path
from typing import Sequence

from mutation import schema, syntax
from mutation.modules import ROOT
from mutation.syntax import Change, Constant, Source

SWITCH = Path(__file__).parent / "switch"
NUMBERS_A_FILE = 1000
"""A file's changes are numbered from a multiple of this: they stay when another file changes."""

UNIT_TESTS = ("app", "approval", "http", "json", "mcp", "policy", "tools")
"""The folders of tests/unit whose tests judge: those of the modules, and of what uses them."""
COPIED = ("CMakeLists.txt", "CMakePresets.json", "cmake", "src", "tests/CMakeLists.txt",
          "tests/support", "tests/unit/CMakeLists.txt", "tests/unit/support", "tests/wiping",
          *(f"tests/unit/{folder}" for folder in UNIT_TESTS))


class BuildFailure(Exception):
    """A build that does not work. The text is what the compiler wrote."""


def write_if_changed(path: Path, text: bytes) -> None:
    if not path.is_file() or path.read_bytes() != text:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text)


@dataclass
class Elements:
    """What a changed source consists of: changes that can be chosen at run time, and the constants
    that must become variables for some of them."""
    changes: list[Change]
    constants: list[Constant]

    def __len__(self) -> int:
        return len(self.changes) + len(self.constants)

    def halves(self) -> "tuple[Elements, Elements]":
        """Constants first: changes inside one need it."""
        if self.constants and self.changes:
            return Elements([], self.constants), Elements(self.changes, [])
        if self.constants:
            middle = len(self.constants) // 2
            return (Elements([], self.constants[:middle]), Elements([], self.constants[middle:]))
        middle = len(self.changes) // 2
        return Elements(self.changes[:middle], []), Elements(self.changes[middle:], [])


class Tree:
    """A copy of the tree below `folder`."""

    def __init__(self, folder: Path, files: Sequence[str], jobs: int = 2) -> None:
        self.folder = folder
        self.copy = folder / "tree"
        self.objects = folder / "objects"
        self.jobs = jobs
        self.files = list(files)
        self.sources: dict[str, Source] = {}

    @property
    def program(self) -> Path:
        return self.objects / "tests" / "kova-unit-tests"

    @property
    def numbers(self) -> int:
        return (len(self.files) + 1) * NUMBERS_A_FILE

    # The changed sources.

    def prepare(self) -> list[Change]:
        """Writes the copy with all changes that can be chosen at run time. Returns all changes."""
        self.copy_tree()
        texts = {}
        for place, file in enumerate(self.files):
            source = self.checked(numbered(syntax.read(ROOT, file), place * NUMBERS_A_FILE + 1))
            self.sources[file] = source
            texts[file] = schema.with_all(source, [change for change in source.changes
                                                   if change.switched], source.constants)
        for file, text in texts.items():
            write_if_changed(self.copy / file, text.encode())
        return [change for source in self.sources.values() for change in source.changes]

    def copy_tree(self) -> None:
        wanted = {}
        for name in COPIED:
            path = ROOT / name
            for found in (path.rglob("*") if path.is_dir() else [path]):
                if found.is_file() and "__pycache__" not in found.parts:
                    wanted[found.relative_to(ROOT).as_posix()] = found
        for found in (ROOT / "tests" / "unit").rglob("*.h"):
            wanted[found.relative_to(ROOT).as_posix()] = found
        wanted["tests/unit/kova_mutant_test.cpp"] = SWITCH / "kova_mutant_test.cpp"
        wanted["kova_mutant.h"] = SWITCH / "kova_mutant.h"
        for old in [path for path in self.copy.rglob("*") if path.is_file()]:
            if old.relative_to(self.copy).as_posix() not in wanted:
                old.unlink()
        for name, path in wanted.items():
            if name not in self.files:
                write_if_changed(self.copy / name, path.read_bytes())

    # What compiles.

    def checked(self, source: Source) -> Source:
        """The source with those of its changes marked as switched that compile so."""
        if not source.changes:
            return source
        known = self.folder / "checked" / (source.file.replace("/", "-") + ".json")
        key = self.fingerprint(source)
        if known.is_file():
            stored = json.loads(known.read_text())
            if stored["key"] == key:
                return marked(source, set(stored["alone"]), set(stored["constants"]))
        switched = Elements([change for change in source.changes if change.switched],
                            list(source.constants))
        refused = self.refused(source, switched, Elements([], []))
        inside = {change.number for change in switched.changes for constant in refused.constants
                  if constant.body[0] <= change.start < constant.body[1]}
        alone = {change.number for change in refused.changes} | inside
        constants = {constant.start for constant in refused.constants}
        known.parent.mkdir(parents=True, exist_ok=True)
        known.write_text(json.dumps({"key": key, "alone": sorted(alone),
                                     "constants": sorted(constants)}))
        return marked(source, alone, constants)

    def refused(self, source: Source, tried: Elements, beside: Elements) -> Elements:
        """Those elements that do not compile. What compiles is tried together with `beside`."""
        everything = Elements(beside.changes + tried.changes, beside.constants + tried.constants)
        if len(tried) == 0 or self.compiles(source, everything):
            return Elements([], [])
        if len(tried) == 1:
            return tried
        first, second = tried.halves()
        bad_first = self.refused(source, first, beside)
        good = Elements(
            beside.changes + [change for change in first.changes
                              if change not in bad_first.changes],
            beside.constants + [constant for constant in first.constants
                                if constant not in bad_first.constants])
        outside = [change for change in second.changes if not any(
            constant.body[0] <= change.start < constant.body[1]
            for constant in bad_first.constants)]
        bad_second = self.refused(source, Elements(outside, second.constants), good)
        return Elements(bad_first.changes + bad_second.changes,
                        bad_first.constants + bad_second.constants)

    def compiles(self, source: Source, elements: Elements) -> bool:
        text = schema.with_all(source, elements.changes, elements.constants)
        # Beside the original, so that it finds what that includes.
        return subprocess.run(
            ["g++", "-std=c++20", "-fsyntax-only", "-w", "-x", "c++", "-fno-exceptions",
             "-fno-rtti", "-O1", "-include", str(SWITCH / "kova_mutant.h"),
             "-I", str(ROOT / "src"), '-DKOVA_VERSION_LABEL="1"', "-"],
            input=text.encode(), capture_output=True, check=False).returncode == 0

    @staticmethod
    def fingerprint(source: Source) -> str:
        """Changes when what is to be compiled does."""
        text = schema.with_all(source, [change for change in source.changes if change.switched],
                               source.constants)
        return hashlib.sha256(text.encode()).hexdigest()

    # Builds.

    def build(self) -> None:
        flags = f"-w -include {self.copy / 'kova_mutant.h'}"
        self.command("cmake", "--preset", "linux", "-B", str(self.objects),
                     "-DKOVA_SAMPLE=OFF", "-DKOVA_ADMIN=OFF", "-DKOVA_BENCHMARKS=OFF",
                     f"-DCMAKE_CXX_FLAGS={flags}", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG")
        self.make()

    def make(self) -> None:
        self.command("cmake", "--build", str(self.objects), "--target", "kova-unit-tests",
                     "-j", str(self.jobs))

    def command(self, *words: str) -> None:
        ran = subprocess.run(words, cwd=self.copy, capture_output=True, text=True, check=False)
        if ran.returncode != 0:
            raise BuildFailure((ran.stdout + ran.stderr)[-4000:])

    def build_alone(self, change: Change) -> "Path | None":
        """The program with one change that cannot be chosen at run time; none when it does not
        build. restore() must follow."""
        source = self.sources[change.file]
        (self.copy / change.file).write_text(schema.with_one(source, change))
        try:
            self.make()
        except BuildFailure:
            return None
        made = self.folder / "alone"
        shutil.copy2(self.program, made)
        return made

    def restore(self, file: str) -> None:
        source = self.sources[file]
        text = schema.with_all(source, [change for change in source.changes if change.switched],
                               source.constants)
        path = self.copy / file
        path.write_bytes(text.encode())
        os.utime(path)


def numbered(source: Source, first: int) -> Source:
    if len(source.changes) >= NUMBERS_A_FILE:
        raise ValueError(f"{source.file} has more than {NUMBERS_A_FILE - 1} changes")
    return replace(source, changes=[replace(change, number=first + place)
                                    for place, change in enumerate(source.changes)])


def marked(source: Source, alone: set[int], constants: set[int]) -> Source:
    return replace(
        source,
        changes=[replace(change, switched=change.switched and change.number not in alone)
                 for change in source.changes],
        constants=[constant for constant in source.constants if constant.start not in constants])
