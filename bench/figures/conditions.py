"""What else the machine did while something was measured.

    python3 -m figures.conditions

prints the present moment as one word, for `figures.record --began`.
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path
from typing import Any

IDLE, WAITING, STOLEN, COUNTED = 3, 4, 7, 8
"""Columns of the first line of /proc/stat, and how many of them do not count another one again."""


@dataclass(frozen=True)
class Moment:
    load: float
    """The load average of the last minute."""
    wanted: int
    """Clock ticks of all processors since the start of the machine that were not idle."""
    stolen: int
    """Of those, the ticks in which the host of this virtual machine ran something else."""

    @classmethod
    def now(cls) -> Moment:
        line = Path("/proc/stat").read_text("ascii").partition("\n")[0]
        ticks = [int(word) for word in line.split()[1:1 + COUNTED]]
        return cls(round(os.getloadavg()[0], 2), sum(ticks) - ticks[IDLE] - ticks[WAITING],
                   ticks[STOLEN])

    @classmethod
    def of(cls, word: str) -> Moment:
        """Reads what `str` gives; a ValueError for anything else."""
        load, wanted, stolen = word.split(":")
        return cls(float(load), int(wanted), int(stolen))

    def __str__(self) -> str:
        return f"{self.load}:{self.wanted}:{self.stolen}"


def since(before: Moment) -> "dict[str, Any]":
    """The load before and after, and which share of the time that programs wanted a processor went
    to other machines of the host."""
    after = Moment.now()
    wanted = after.wanted - before.wanted
    stolen = (after.stolen - before.stolen) / wanted if wanted > 0 else 0.0
    return {"load_average": [before.load, after.load], "stolen": round(stolen, 3)}


if __name__ == "__main__":
    print(Moment.now())
