"""What a run has done, and what comes of it."""

from __future__ import annotations

from collections import Counter

from chaos.hand import impossible_faults, process_faults, surrounding_faults
from chaos.ledger import Ledger
from chaos.records import JUDGED, LEFT_OUT_WITH, LEFT_OUT_WITHOUT
from chaos.stage import Stage

HELD, VIOLATED, SHOWN_NOTHING = 0, 1, 3
"""Exit codes."""

WRITTEN = "writes in the database"
FAULT = "fault "


def report(ledger: Ledger, stage: Stage, seed: str, chosen: list[str] | None) -> int:
    """Prints the counts and what did not come about; returns the exit code. `chosen` names the
    faults that were asked for."""
    for what, number in ledger.table():
        print(f"{number:9}  {what}")
    print(f"left out: {ledger.counts[LEFT_OUT_WITH]} with a record, "
          f"{ledger.counts[LEFT_OUT_WITHOUT]} without")
    for fault, reason in impossible_faults(stage).items():
        print(f"impossible here: {fault}: {reason}")
    missing = not_shown(ledger.counts)
    if missing:
        print(f"the run shows nothing: none of {', none of '.join(missing)}")
    absent = _never_done(ledger, stage, chosen)
    print(f"target {stage.target.name}, seed {seed}, {len(ledger.violations)} violations"
          + (f"; never done: {', '.join(absent)}" if absent else ""))
    return VIOLATED if ledger.violations else SHOWN_NOTHING if missing else HELD


def _never_done(ledger: Ledger, stage: Stage, chosen: list[str] | None) -> list[str]:
    possible = {*process_faults(stage), *surrounding_faults(stage)}
    return sorted(fault for fault in possible & set(chosen or possible)
                  if not ledger.counts[FAULT + fault])


def not_shown(counts: Counter[str]) -> list[str]:
    """What a run has to have had to say anything, and has not had."""
    faults = sum(number for what, number in counts.items() if what.startswith(FAULT))
    return [what for what, number in ((JUDGED, counts[JUDGED]), (WRITTEN, counts[WRITTEN]),
                                      ("the faults", faults)) if number == 0]
