#!/usr/bin/python3
"""Runs Windows programs under Wine: the loader, the prefix, the environment, the paths.

    wine.py run PROGRAM [ARG ...]   runs a Windows program
    wine.py hold COMMAND [ARG ...]  runs a native command and keeps Wine up meanwhile, so that each
                                    Windows program of the command starts within a tenth of a second
    wine.py prepare                 makes the prefix when there is none
    wine.py path PATH               prints a path as Windows programs name it (Z:\\...)
    wine.py host-path PATH          prints the native path of such a name

The prefix is $WINEPREFIX, or build/wineprefix. Exit codes: that of the program or command; 2 for
bad arguments; 1, and one line on standard error, when Wine cannot be had.
"""

from __future__ import annotations

import contextlib
import ctypes
import fcntl
import os
import select
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Iterator, Mapping, Sequence

ROOT = Path(__file__).resolve().parents[1]

LOADERS = ("/usr/lib/wine/wine64", "/usr/lib/x86_64-linux-gnu/wine/wine64")
OWN_PROGRAMS = {"wineserver64", "services.exe", "explorer.exe", "winedevice.exe", "plugplay.exe",
                "svchost.exe", "rpcss.exe", "conhost.exe"}
"""Names of the processes that Wine starts on its own account. They end soon after the last program,
and keep the environment of the program that was the first."""

TIME_ZONES = r"HKLM\Software\Microsoft\Windows NT\CurrentVersion\Time Zones"

START_TIMEOUT = 300.0
"""Seconds for making a prefix, and for the first start in one."""
KEEPER_TIMEOUT = 20.0

ADDR_NO_RANDOMIZE = 0x0040000
PERSONALITY_QUERY = 0xFFFFFFFF


class WineFailure(Exception):
    """Wine is missing or does not start. The text is one line."""


def loader() -> str:
    """The 64-bit loader, which runs a Windows program that is its first argument."""
    for path in LOADERS:
        if os.access(path, os.X_OK):
            return path
    raise WineFailure("no 64-bit Wine loader is installed")


def server() -> str:
    """The program that ends (`-k`) or waits for (`-w`) the Wine of one prefix."""
    return str(Path(loader()).with_name("wineserver"))


def command(executable: "Path | str", *arguments: str) -> list[str]:
    return [loader(), str(executable), *arguments]


def windows_path(path: "Path | str") -> str:
    """An absolute native path as Windows programs name it: Wine's drive Z: is the root."""
    return "Z:" + str(path).replace("/", "\\")


def host_path(path: str) -> Path:
    """The native path of a name on drive Z:."""
    if path[:2].upper() != "Z:":
        raise WineFailure(f"{path} is not on drive Z:")
    return Path(path[2:].replace("\\", "/"))


def default_prefix() -> Path:
    """$WINEPREFIX, or the one in build/. Wine takes absolute paths only."""
    return Path(os.environ.get("WINEPREFIX") or ROOT / "build" / "wineprefix").absolute()


def environment(prefix: "Path | None" = None) -> dict[str, str]:
    """The variables that a Windows program needs beside its own."""
    return {"WINEPREFIX": str(prefix or default_prefix()), "WINEDEBUG": "-all",
            "WINEDLLOVERRIDES": "mscoree,mshtml="}


def fix_addresses() -> None:
    """Turns address randomization off for what this process starts from now on, where the system
    allows that. Wine needs one page at a fixed address: where a random layout has put something
    else there, a program does not start."""
    personality = ctypes.CDLL(None, use_errno=True).personality
    personality.argtypes = [ctypes.c_ulong]
    present = personality(PERSONALITY_QUERY)
    if present != -1:
        personality(present | ADDR_NO_RANDOMIZE)


def is_prepared(prefix: "Path | None" = None) -> bool:
    return ((prefix or default_prefix()) / "system.reg").exists()


def prepare(prefix: "Path | None" = None) -> None:
    """Makes the prefix when there is none. Several processes may call this at the same time."""
    prefix = prefix or default_prefix()
    with _locked(prefix):
        if not is_prepared(prefix):
            _run_quietly(prefix, "wineboot", "-i")
            # Each program looks its time zone up at its start, one registry key after the other:
            # that is nearly half of the start. Without the keys it takes the system's own.
            _run_quietly(prefix, "reg", "delete", TIME_ZONES, "/f")
            # The next program would start a second service manager beside the one that made the
            # prefix, and services would be known to one of them alone.
            _end(prefix)


@contextlib.contextmanager
def held(prefix: "Path | None" = None) -> Iterator[None]:
    """Makes the prefix when there is none, and keeps Wine's own processes up: without a program
    they end, and the next program waits seconds for their start."""
    prefix = prefix or default_prefix()
    fix_addresses()
    prepare(prefix)
    with _locked(prefix):
        keeper = _start_keeper(prefix)
    try:
        yield
    finally:
        assert keeper.stdin is not None
        keeper.stdin.close()
        try:
            keeper.wait(KEEPER_TIMEOUT)
        except subprocess.TimeoutExpired:
            keeper.kill()
            keeper.wait()


@contextlib.contextmanager
def _locked(prefix: Path) -> Iterator[None]:
    prefix.parent.mkdir(parents=True, exist_ok=True)
    with open(f"{prefix}.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


def _variables(prefix: Path) -> dict[str, str]:
    """What Wine's own processes get; the prefix links to no folder of the user's."""
    return {**os.environ, "HOME": str(prefix.parent), "LC_ALL": "C.UTF-8", **environment(prefix)}


def _run_quietly(prefix: Path, *program: str) -> None:
    try:
        subprocess.run(command(*program), env=_variables(prefix), check=True, timeout=START_TIMEOUT,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
    except subprocess.SubprocessError:
        raise WineFailure(f"Wine does not start in {prefix}: {' '.join(program)}") from None


def _end(prefix: Path) -> None:
    """Ends what runs in the prefix, and waits for the end."""
    for option in ("-k", "-w"):
        subprocess.run([server(), option], env=_variables(prefix), check=False,
                       timeout=START_TIMEOUT, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def _start_keeper(prefix: Path) -> "subprocess.Popen[bytes]":
    """A program of Wine's that waits for its input to end."""
    # Wine's own processes keep the streams of the program that was the first: let those be empty.
    _run_quietly(prefix, "cmd", "/c", "exit")
    end = time.monotonic() + KEEPER_TIMEOUT
    while time.monotonic() < end:
        keeper = subprocess.Popen(command("cmd", "/k", "echo up"), env=_variables(prefix),
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL)
        assert keeper.stdout is not None
        if (select.select([keeper.stdout], [], [], KEEPER_TIMEOUT)[0]
                and keeper.stdout.readline().startswith(b"up")):
            return keeper
        # It has met Wine's processes at their end, as they do when no program is left.
        keeper.kill()
        keeper.wait()
    raise WineFailure(f"Wine does not stay up in {prefix}")


# the command


def _run(arguments: Sequence[str]) -> int:
    fix_addresses()
    prepare()
    line = command(*arguments)
    os.execve(line[0], line, {**os.environ, **environment()})


def _hold(arguments: Sequence[str]) -> int:
    with held():
        return _wait_for(arguments, {**os.environ, **environment()})


def _wait_for(arguments: Sequence[str], variables: Mapping[str, str]) -> int:
    """Passes on the signals that end a command, and its exit code as a shell gives it."""
    process = subprocess.Popen(arguments, env=variables)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda given, _: process.send_signal(given))
    code = process.wait()
    return 128 - code if code < 0 else code


def main(arguments: list[str]) -> int:
    if arguments in (["--help"], ["-h"]):
        print(__doc__.strip())
        return 0
    name, *rest = arguments or [""]
    try:
        if name in ("run", "hold") and rest:
            return _run(rest) if name == "run" else _hold(rest)
        if name == "prepare" and not rest:
            prepare()
            return 0
        if name in ("path", "host-path") and len(rest) == 1:
            print(windows_path(os.path.abspath(rest[0])) if name == "path" else host_path(rest[0]))
            return 0
    except (WineFailure, FileNotFoundError) as failure:
        print(f"wine.py: {failure}", file=sys.stderr)
        return 1
    print("wine.py: bad arguments; see --help", file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
