"""The processor time of a call as the kernel counts it, without tracing."""

from __future__ import annotations

import resource
from functools import partial
from typing import Callable

from common.stdio import Program
from figures.turns import by_turns

CALLS = 200
"""In each round: the start of the program itself, which is counted too, is hardly any of it."""
ROUNDS = 30

Asks = Callable[[Program], object]


def microseconds_a_call(subjects: "dict[str, tuple[Callable[[], Program], Asks]]"
                        ) -> "dict[str, list[float]]":
    """By round, of each program and of the processes that it has started, until they have ended:
    how it is started, and how it is asked for one call."""
    def measured(start: "Callable[[], Program]", ask: Asks) -> float:
        before = _spent()
        with start() as program:
            for _ in range(CALLS):
                ask(program)
        return round((_spent() - before) / CALLS * 1e6, 1)

    return by_turns({name: partial(measured, *subject) for name, subject in subjects.items()},
                    ROUNDS)


def _spent() -> float:
    """Seconds, of the children of this process that it has waited for, and of theirs."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime
