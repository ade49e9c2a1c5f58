#!/usr/bin/python3
"""Plays a client session with the server on the sample database, or serves it to a client.

    session.py linux|windows    the session, with the Linux or the Windows executable
    session.py serve            the server on this process's standard streams
"""

from __future__ import annotations

import os
import sys
from typing import Callable

from session_acts import ACTS, Stage, Tally
from session_client import SessionFailure
from session_sample import STATE, Engine, Processes, Target, all_processes, prepare
from session_search import ThirdAct
from session_view import View, standard_view
from session_writes import SecondAct

INTERRUPTED = 130


def play(target: Target, view: View, processes: Processes) -> Tally:
    prepare(target, view, processes)
    engine = Engine(target.name, processes)
    tally = Tally()
    view.line(f"Server: {target.executable}", "dim")
    view.line(f"Sample engine: 127.0.0.1:{engine.port}, databases in {STATE / 'data'}", "dim")
    first = 1
    for profile, acts in (
            (engine.profile(target), ACTS),
            (engine.profile_for_writes(target), SecondAct().acts),
            (engine.profile(target), ThirdAct().acts)):
        stage = Stage.open(view, target, engine, processes, target.environment(profile), tally)
        for number, act in enumerate(acts, first):
            view.heading(f"{number}. {act.title}")
            act.play(stage)
        stage.close()
        first += len(acts)
    return tally


def serve(view: View, processes: Processes) -> int:
    """The server has this process's standard input and output; everything else is on error."""
    target = Target("linux")
    prepare(target, view, processes)
    engine = Engine("serve", processes)
    debug = {name: value for name, value in os.environ.items() if name == "KOVA_MCP_DEBUG"}
    environment = target.environment(engine.profile(target) | debug)
    view.line(f"Serving the sample database on standard input and output; audit file"
              f" {engine.audit_file}", "dim")
    server = processes.start(target.command(), environment)
    return server.wait()


def run(mode: str, view: View) -> int:
    if mode == "serve":
        with all_processes() as processes:
            return serve(view, processes)
    with all_processes() as processes:
        tally = play(Target(mode), view, processes)
    if processes.survivors:
        raise SessionFailure(f"had to be ended by force: {', '.join(processes.survivors)}")
    view.line()
    view.line(f"Session complete on {mode}: {tally.answered} requests answered,"
              f" {tally.refused} calls refused as the policy wants it, {tally.cancelled} cancelled,"
              f" {tally.written} approved and written; nothing is left running.", "bold")
    return 0


def main(arguments: list[str]) -> int:
    if arguments not in (["linux"], ["windows"], ["serve"]):
        print("session.py: expected linux, windows or serve", file=sys.stderr)
        return 2
    view = standard_view(sys.stderr if arguments == ["serve"] else sys.stdout)
    return guarded(view, lambda: run(arguments[0], view))


def guarded(view: View, action: Callable[[], int]) -> int:
    """The exit code of the action, or of what has ended it, which is said in one line."""
    try:
        return action()
    except SessionFailure as failure:
        view.line()
        view.line(f"./run failed: {failure}", "red")
        return 1
    except KeyboardInterrupt:
        view.line()
        view.line("./run: interrupted; nothing is left running.")
        return INTERRUPTED
    except BrokenPipeError:
        # Nobody reads any more; the interpreter's last flush goes nowhere.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
