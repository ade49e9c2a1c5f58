"""What the figures are held against."""

from __future__ import annotations

from typing import Callable

from figures import account_tables, growth_tables, process_tables
from figures.dataset import Dataset, NoData
from figures.markdown import table

FLOOR = "floor: spawn, line, line, exit"
POLICY_CALL = "(a) kova_list_tables by policy"
Measured = Callable[[Dataset], float]


def _call_ratio(target: str) -> Measured:
    def measured(data: Dataset) -> float:
        calls = data[target]["calls"]
        return process_tables.ratio(calls[POLICY_CALL], calls[FLOOR])
    return measured


AIMS: "list[tuple[str, float, Measured]]" = [
    ("policy-answered call to the floor, Linux", 1.15, _call_ratio("linux")),
    ("policy-answered call to the floor, Wine", 1.1, _call_ratio("windows")),
    ("million-byte call to a ping of that size", 2.0, growth_tables.long_call_ratio),
    ("check for duplicate keys to the parse, 2,000 keys", 5.0, growth_tables.check_ratio),
    ("processor time of that call to the floor's, Linux", 1.3, account_tables.processor_ratio),
    ("one-row query beyond process, audit and engine, ms", 0.2, account_tables.own_share_ms),
]
"""What, the most that it should be, and where it is seen."""


def table_of_aims(data: Dataset) -> str:
    rows = []
    for name, most, measured in AIMS:
        try:
            seen = measured(data)
        except NoData as missing:
            rows.append((name, f"{most:g}", "–", f"not measured: bench/run {missing}"))
            continue
        rows.append((name, f"{most:g}", f"{seen:.2f}", "met" if seen <= most else "not met"))
    return table(("aim", "at most", "seen", ""), rows)
