"""All series of growth, in one run."""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import tempfile
from pathlib import Path

from common.stdio import Failed
from figures import record
from figures.conditions import Moment
from growth import calls, sessions
from growth.series import Series
from peers.subjects import peers

PARSER_ROUNDS = 10
"""For each round of the others: a sample takes some tens of microseconds."""
CALL_ROUNDS = 5
"""A sample takes milliseconds."""
OF = {"keys: parse": "keys of one object", "keys: check for duplicates": "keys of one object",
      "pairs of tokens: parse": "pairs of tokens in a list"}


def parse(arguments: "list[str]") -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="bench/run growth", allow_abbrev=False)
    parser.add_argument("--server", type=Path, required=True,
                        help="the executable")
    parser.add_argument("--parser", type=Path, required=True, help="growth-bench")
    parser.add_argument("--database", type=Path, required=True, help="an SQLite file")
    parser.add_argument("--modules", type=Path, required=True, help="node_modules of the peers")
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--data", type=Path, required=True, help="the JSON file to be written")
    return parser.parse_args(arguments)


def of_messages(parser: Path, rounds: int) -> "list[Series]":
    with tempfile.TemporaryDirectory(prefix="growth-") as folder:
        path = Path(folder) / "parser.json"
        subprocess.run([str(parser), str(rounds), str(path)], check=True)
        found = json.loads(path.read_text("utf-8"))
    return [Series(name, OF[name], "µs", {int(items): [value * 1000 for value in values]
                                          for items, values in by_items.items()})
            for name, by_items in found.items()]


def main(arguments: "list[str]") -> int:
    asked = parse(arguments)
    began = Moment.now()
    all_peers = peers(asked.server.resolve(), asked.modules, asked.database)
    try:
        found = [*of_messages(asked.parser, asked.rounds * PARSER_ROUNDS),
                 *calls.of_results(all_peers, asked.rounds * CALL_ROUNDS),
                 *calls.of_pings(all_peers, asked.rounds * CALL_ROUNDS),
                 *sessions.of_sessions(all_peers, asked.rounds),
                 *sessions.of_listeners(all_peers, max(2, asked.rounds // 4))]
    except (Failed, OSError, subprocess.CalledProcessError) as failure:
        print(f"bench/run growth: {failure}", file=sys.stderr)
        return 1
    record.write(asked.data, record.document(began, {"rounds": asked.rounds}, {
        "versions": {peer.name: peer.version for peer in all_peers[1:]},
        "series": [one.data() for one in found]}))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
