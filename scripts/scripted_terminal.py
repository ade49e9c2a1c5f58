"""A terminal of a program's own, with someone scripted in front of it.

The program's controlling terminal is a pseudo-terminal; a Windows program under Wine has a console
on it. A prompt is an open line: text after the last line end.
"""

from __future__ import annotations

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time
import tty
from typing import Any, Callable, Mapping, Sequence

TIMEOUT = 60.0
"""Seconds to wait for a prompt or for the end before it is a failure."""

AGAIN = 2.0
"""Seconds after which the interrupt key is pressed once more."""

MOVE = re.compile(rb"\x1b\[(\d*)C")
CONTROL = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]|\x1b\][^\x07]*\x07")


class ScriptedTerminal:
    """A program on a terminal. Its standard streams are `streams`, or else the terminal. `raw`
    leaves keys and echo to the program from the start, as Wine's console wants it: it takes the
    terminal over only when it first reads."""

    def __init__(self, command: Sequence[str], env: Mapping[str, str], *,
                 columns: int = 80, rows: int = 24, raw: bool = False, **streams: Any) -> None:
        self._master, self._slave = pty.openpty()
        fcntl.ioctl(self._slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        if raw:
            tty.setraw(self._slave)
        self.transcript = b""
        slave = self._slave
        prepare = streams.pop("prepare", None)

        def take_terminal() -> None:
            # Whoever has started all this may ignore it, as nohup does.
            signal.signal(signal.SIGHUP, signal.SIG_DFL)
            os.setsid()
            fcntl.ioctl(slave, termios.TIOCSCTTY, 0)
            if prepare is not None:
                prepare()

        self.process = subprocess.Popen(command, env=dict(env), preexec_fn=take_terminal,
                                        **{"stdin": slave, "stdout": slave, "stderr": slave,
                                           **streams})

    @property
    def text(self) -> str:
        """What is on the terminal, without the terminal's own control sequences."""
        # A console moves the cursor over blanks instead of writing them.
        spaced = MOVE.sub(lambda move: b" " * int(move[1] or 1), self.transcript)
        plain = CONTROL.sub(b"", spaced)
        return plain.decode("utf-8", "replace").replace("\r", "")

    def wait_for(self, text: str) -> None:
        self.wait_until(lambda shown: text in shown, text)

    def wait_until(self, holds: Callable[[str], Any], what: str = "") -> None:
        """Waits until something holds of the text on the terminal."""
        end = time.monotonic() + TIMEOUT
        while not holds(self.text):
            assert time.monotonic() < end, f"waited for {what!r}: {self.text!r}"
            assert self._read(0.1) or self.process.poll() is None, self.text

    def type(self, line: str) -> None:
        """Types a line and the return key."""
        os.write(self._master, line.encode() + b"\r")

    def press(self, key: bytes) -> None:
        os.write(self._master, key)

    def interrupt(self) -> None:
        """Presses the interrupt key, again while nothing happens: Wine's console drops the key at
        the moment in which a program begins to read."""
        end = time.monotonic() + TIMEOUT
        while self.process.poll() is None and time.monotonic() < end:
            self.press(b"\x03")
            again = time.monotonic() + AGAIN
            while self.process.poll() is None and time.monotonic() < again:
                self._read(0.02)

    def go_away(self) -> None:
        """Closes the terminal as a window that is closed: its session is told."""
        os.close(self._slave)
        os.close(self._master)
        self._master = self._slave = -1

    def finish(self) -> int:
        """Waits for the end of the program and returns its exit code."""
        end = time.monotonic() + TIMEOUT
        while self.process.poll() is None:
            assert time.monotonic() < end, f"still running: {self.text!r}"
            if self._master >= 0:
                self._read(0.05)
            else:
                time.sleep(0.01)
        while self._master >= 0 and self._read(0.05):
            pass
        return self.process.returncode

    def close(self) -> None:
        """Ends what is left."""
        if self.process.poll() is None:
            os.kill(self.process.pid, signal.SIGKILL)
            self.process.wait()
        if self._master >= 0:
            os.close(self._slave)
            os.close(self._master)
            self._master = self._slave = -1

    def _read(self, seconds: float) -> bool:
        if not select.select([self._master], [], [], seconds)[0]:
            return False
        self.transcript += os.read(self._master, 65536)
        return True
