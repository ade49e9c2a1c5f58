#!/usr/bin/python3
"""Serves the sample database to one client on this process's standard input and output.

Everything else that it prints goes to standard error.
"""

from __future__ import annotations

import os
import sys

from engine import Engine
from outcome import BAD_ARGUMENTS, guarded
from prepare import prepare
from processes import Processes, all_processes
from target import Target
from view import View, standard_view


def serve(view: View, processes: Processes) -> int:
    target = Target("linux")
    prepare(target, view, processes)
    engine = Engine("serve", processes)
    debug = {name: value for name, value in os.environ.items() if name == "KOVA_MCP_DEBUG"}
    environment = target.environment(engine.profile(target) | debug)
    view.line(f"Serving the sample database on standard input and output; audit file"
              f" {engine.audit_file}", "dim")
    server = processes.start(target.command(), environment)
    return server.wait()


def run(view: View) -> int:
    with all_processes() as processes:
        return serve(view, processes)


def main(arguments: list[str]) -> int:
    if arguments:
        print("serve_stdio.py: takes no arguments", file=sys.stderr)
        return BAD_ARGUMENTS
    view = standard_view(sys.stderr)
    return guarded(view, lambda: run(view))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
