"""The command line."""

from __future__ import annotations

import argparse
import json
import sys
import time
from pathlib import Path
from typing import Sequence

from mutation import verdicts
from mutation.campaign import Campaign, Choice
from mutation.modules import MODULES, ROOT, module_of, sources
from mutation.tests import Baseline, Runner, available

DESCRIPTION = """\
Changes one operator, constant, condition, call or jump of the sources at a time, and looks whether
a unit test fails. All changes that can be chosen at run time are in one build; each is one run of
the unit tests that come by it, until the first one fails. The others are built one by one. Works in
a copy below the build folder.
"""
EPILOG = """\
A change that no test finds and that changes nothing is listed, with the reason, in
tests/mutation/equivalent.json; --entries prints the survivors as its entries. Exit codes: 0; 1 when
less than 98 % of the other changes are found, or the list has an entry that no longer belongs
there; 2 when the run cannot be made. It takes its time: chrt --idle 0 tests/mutation/run
"""


def parse(words: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="tests/mutation/run", description=DESCRIPTION,
                                     epilog=EPILOG,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--module", action="append", default=[], choices=list(MODULES),
                        help="only the changes of this module; may be repeated")
    parser.add_argument("--file", action="append", default=[], metavar="F",
                        help="only the changes of this source (src/...); may be repeated")
    parser.add_argument("--sample", type=int, default=0, metavar="N",
                        help="only N of them, chosen at random")
    parser.add_argument("--seed", type=int, default=1, metavar="S", help="of the sample; 1")
    parser.add_argument("--again", action="store_true",
                        help="only those that survived when they were last judged")
    parser.add_argument("--list", action="store_true", help="print the changes and judge none")
    parser.add_argument("--entries", action="store_true",
                        help="print the survivors as entries of equivalent.json")
    parser.add_argument("--jobs", type=int, default=2, metavar="N",
                        help="runs and compilers at a time; 2")
    parser.add_argument("--build-dir", type=Path, default=ROOT / "build" / "mutation",
                        metavar="DIR", help="build/mutation")
    arguments = parser.parse_args(words)
    for file in arguments.file:
        if module_of(file) is None:
            parser.error(f"{file} belongs to no module")
    return arguments


def say(text: str) -> None:
    print(f"{time.strftime('%H:%M:%S')} {text}", file=sys.stderr, flush=True)


def judged(arguments: argparse.Namespace) -> int:
    from mutation.objects import Tree

    reasons = verdicts.read_list()
    folder = arguments.build_dir.resolve()
    (folder / "runs").mkdir(parents=True, exist_ok=True)
    tree = Tree(folder, [file for module in MODULES for file in sources(module)], arguments.jobs)
    campaign = Campaign(tree, Runner(folder / "runs"), arguments.jobs, say)
    say("reading the sources")
    choice = Choice(tuple(arguments.module), tuple(arguments.file), arguments.sample,
                    arguments.seed, arguments.again)
    everything = tree.prepare()
    campaign.record.keep(everything)
    changes = choice.of(everything, campaign.record.survived())
    if arguments.list:
        for change in changes:
            print(verdicts.named(change) + ("" if change.switched else "   (built alone)"))
        return 0
    say(f"building the unit tests with {sum(change.switched for change in changes)} of "
        f"{len(changes)} changes")
    tree.build()
    say("running the unit tests without a change")
    campaign.learn()
    say("judging")
    made = verdicts.Verdicts(campaign.run(changes), reasons,
                             {change.key for change in everything})
    if arguments.entries:
        print(json.dumps([verdicts.as_entry(change) for change in made.survivors()], indent=2))
    print(verdicts.report(made))
    return 0 if made.passed() and not made.stale() else 1


def main(words: Sequence[str]) -> int:
    arguments = parse(words)
    missing = available()
    if missing is None:
        try:
            import clang.cindex  # noqa: F401
        except ImportError:
            missing = "python3-clang"
    if missing is not None:
        print(f"{missing} is missing: scripts/setup.sh build test mutation", file=sys.stderr)
        return 2
    from mutation.objects import BuildFailure
    from mutation.syntax import SyntaxFailure

    try:
        return judged(arguments)
    except (BuildFailure, SyntaxFailure, Baseline, verdicts.ListFailure) as failure:
        print(failure, file=sys.stderr)
        return 2
