"""Judges every change that was chosen."""

from __future__ import annotations

import json
import random
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Sequence

from mutation.modules import module_of
from mutation.objects import Tree
from mutation.syntax import Change
from mutation.tests import NOT_BUILT, SURVIVED, Outcome, Runner, UnitTest, suite_of, suites_of


@dataclass(frozen=True)
class Choice:
    """Which changes are judged."""
    modules: tuple[str, ...] = ()
    files: tuple[str, ...] = ()
    sample: int = 0
    seed: int = 1
    again: bool = False

    def of(self, changes: Sequence[Change], survived: "set[tuple]") -> list[Change]:
        chosen = [change for change in changes
                  if (not self.modules or module_of(change.file) in self.modules)
                  and (not self.files or change.file in self.files)
                  and (not self.again or change.key in survived)]
        if self.sample and self.sample < len(chosen):
            picked = random.Random(self.seed).sample(range(len(chosen)), self.sample)
            chosen = [chosen[place] for place in sorted(picked)]
        return chosen


class Record:
    """The outcomes of earlier runs, by the changes' keys."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self.outcomes: dict[tuple, dict] = {}
        if path.is_file():
            for entry in json.loads(path.read_text()):
                self.outcomes[tuple(entry["key"])] = entry

    def survived(self) -> set[tuple]:
        return {key for key, entry in self.outcomes.items() if entry["status"] == SURVIVED}

    def keep(self, changes: Sequence[Change]) -> None:
        """Forgets what the sources no longer have."""
        keys = {change.key for change in changes}
        self.outcomes = {key: entry for key, entry in self.outcomes.items() if key in keys}

    def add(self, change: Change, outcome: Outcome) -> None:
        self.outcomes[change.key] = {"key": change.key, "status": outcome.status,
                                     "test": outcome.test}

    def write(self) -> None:
        self.path.write_text(json.dumps(list(self.outcomes.values()), indent=1))


class Campaign:
    def __init__(self, tree: Tree, runner: Runner, jobs: int, say: Callable[[str], None]) -> None:
        self.tree = tree
        self.runner = runner
        self.jobs = jobs
        self.say = say
        self.record = Record(tree.folder / "outcomes.json")
        self.tests: list[UnitTest] = []

    def learn(self) -> None:
        self.tests = self.runner.learn(self.tree.program, self.tree.numbers)

    # Which tests judge a change.

    def by_cost(self, tests: Sequence[UnitTest]) -> list[UnitTest]:
        return sorted((test for test in tests if test.name), key=lambda test: test.ms)

    def come_by(self, numbers: "set[int]") -> list[UnitTest]:
        return self.by_cost([test for test in self.tests if test.reached & numbers])

    def rounds(self, change: Change) -> list[list[UnitTest]]:
        """The tests that come by a change; no other can notice it. For what holds before the first
        test, and for what is built alone: first the module's own tests, then all."""
        everything = self.by_cost(self.tests)
        if change.switched and change.number not in self.tests[0].reached:
            return [self.come_by({change.number})]
        suites = suites_of(module_of(change.file) or "")
        own = [test for test in everything if suite_of(test) in suites]
        near = self.come_by({other.number for other in self.tree.sources[change.file].changes
                             if other.function == change.function})
        first = own + [test for test in near if test not in own]
        return [first, [test for test in everything if test not in first]]

    def judge(self, change: Change, program: Path) -> Outcome:
        outcome = Outcome(SURVIVED, "no test comes by")
        number = change.number if change.switched else 0
        for tests in self.rounds(change):
            if tests:
                outcome = self.runner.judge(program, tests, number)
            if outcome.status != SURVIVED:
                break
        return outcome

    # All of them.

    def run(self, changes: Sequence[Change]) -> dict[Change, Outcome]:
        outcomes: dict[Change, Outcome] = {}
        switched = [change for change in changes if change.switched]
        alone = [change for change in changes if not change.switched]

        def done(change: Change, outcome: Outcome) -> None:
            outcomes[change] = outcome
            self.record.add(change, outcome)
            if len(outcomes) % 100 == 0:
                self.record.write()
                self.say(f"{len(outcomes)} of {len(changes)}")

        try:
            pool = ThreadPoolExecutor(self.jobs)
            try:
                judged = pool.map(lambda change: self.judge(change, self.tree.program), switched)
                for change, outcome in zip(switched, judged):
                    done(change, outcome)
            finally:
                pool.shutdown(cancel_futures=True)
            for place, change in enumerate(alone):
                done(change, self.judge_alone(change))
                following = alone[place + 1].file if place + 1 < len(alone) else None
                if following != change.file:
                    self.tree.restore(change.file)
            if alone:
                self.tree.make()
        finally:
            self.record.write()
        return {change: outcomes[change] for change in changes}

    def judge_alone(self, change: Change) -> Outcome:
        program = self.tree.build_alone(change)
        return Outcome(NOT_BUILT) if program is None else self.judge(change, program)
