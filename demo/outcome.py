"""How a form of ./run ends: the failure that it reports, and its exit code."""

from __future__ import annotations

import os
import sys
from typing import Callable

from target import wine
from view import View

FAILED = 1
BAD_ARGUMENTS = 2
INTERRUPTED = 130


class SessionFailure(Exception):
    """The session did not show what it has to show. The text is one line."""


def guarded(view: View, action: Callable[[], int]) -> int:
    """Returns the action's exit code; a failure or an interrupt is reported in one line."""
    try:
        return action()
    except (SessionFailure, wine.WineFailure) as failure:
        view.line()
        view.line(f"./run failed: {failure}", "red")
        return FAILED
    except KeyboardInterrupt:
        view.line()
        view.line("./run: interrupted; nothing is left running.")
        return INTERRUPTED
    except BrokenPipeError:
        # The reader has gone; the interpreter's flush at exit must not fail as well.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return FAILED
