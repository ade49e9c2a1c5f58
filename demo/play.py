#!/usr/bin/python3
"""Plays a client session with a server on the sample database, and shows it.

    play.py linux|windows    with the Linux or the Windows executable
"""

from __future__ import annotations

import sys

from desk_act import DeskAct
from engine import DATA, Engine
from outcome import BAD_ARGUMENTS, SessionFailure, guarded
from prepare import prepare
from processes import Processes, all_processes
from reading_act import SCENES
from review_act import ReviewAct, now_text
from search_act import SearchAct
from stage import Stage, Tally
from target import Target
from view import View, standard_view
from writing_act import WritingAct


def play(target: Target, view: View, processes: Processes) -> Tally:
    """Plays the five acts, the first three each with a server of its own; the scenes are numbered
    throughout."""
    prepare(target, view, processes)
    engine = Engine(target.name, processes)
    tally = Tally()
    began = now_text()
    desk = DeskAct(target)
    view.line(f"Server: {target.executable}", "dim")
    view.line(f"Sample engine: 127.0.0.1:{engine.port}, databases in {DATA}", "dim")
    first = 1
    for profile, scenes in (
            (engine.profile(target), SCENES),
            (engine.profile_for_writes(target), WritingAct().scenes),
            (engine.profile(target), SearchAct().scenes),
            (None, desk.scenes),
            (None, ReviewAct(target, desk, began).scenes)):
        stage = Stage.open(view, target, engine, processes, profile, tally)
        for number, scene in enumerate(scenes, first):
            view.heading(f"{number}. {scene.title}")
            scene.play(stage)
        stage.close()
        first += len(scenes)
    return tally


def run(target: Target, view: View) -> int:
    with all_processes() as processes:
        tally = play(target, view, processes)
    if processes.survivors:
        raise SessionFailure(f"had to be ended by force: {', '.join(processes.survivors)}")
    view.line()
    view.line(f"Session complete on {target.name}: {tally.served} requests served,"
              f" {tally.refused} calls refused as the policy wants it, {tally.cancelled} cancelled,"
              f" {tally.written} approved and written; nothing is left running.", "bold")
    return 0


def main(arguments: list[str]) -> int:
    if arguments not in (["linux"], ["windows"]):
        print("play.py: expected linux or windows", file=sys.stderr)
        return BAD_ARGUMENTS
    view = standard_view(sys.stdout)
    return guarded(view, lambda: run(Target(arguments[0]), view))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
