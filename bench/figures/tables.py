"""The table of tables: what fills the marked regions of the documents, by name.

Beside these there is `run-NAME` for each data file, and `plot-NAME` for each plot.
"""

from __future__ import annotations

from typing import Callable

from figures import (account_tables, aims, audit_tables, capacity_tables, growth_tables,
                     hardening_tables, http_tables, limit_tables, micro_tables, peer_tables,
                     plot_pictures, process_tables, scale_tables)
from figures.dataset import Dataset, NoData
from figures.markdown import BadDocument
from figures.run_line import run_line

Maker = Callable[[Dataset], str]
TABLES: "dict[str, Maker]" = {
    "peers": peer_tables.summary,
    "linux-calls": lambda data: process_tables.subjects(data["linux"]["calls"]),
    "linux-starts": lambda data: process_tables.subjects(data["linux"]["starts"]),
    "windows-calls": lambda data: process_tables.subjects(data["windows"]["calls"]),
    "windows-starts": lambda data: process_tables.subjects(data["windows"]["starts"]),
    "resident": process_tables.resident,
    "aims": aims.table_of_aims,
    "micro-parse": lambda data: micro_tables.group(data["micro"], "parse"),
    "micro-take": lambda data: micro_tables.group(data["micro"], "take"),
    "micro-numbers": lambda data: micro_tables.group(data["micro"], "numbers"),
    "micro-reply-line": lambda data: micro_tables.group(data["micro"], "reply line"),
    "micro-result-text": lambda data: micro_tables.group(data["micro"], "result text"),
    "http-throughput": lambda data: http_tables.throughput(data["http"]["throughput"]),
    "http-memory": lambda data: http_tables.memory(data["http"]["memory"]),
    "peers-http": lambda data: http_tables.throughput(data["peers"]["http"]),
    "audit": audit_tables.summary,
    "account-totals": account_tables.totals,
    "account-floor": lambda data: account_tables.stages(data, account_tables.FLOOR),
    "account-list": lambda data: account_tables.stages(data, account_tables.LIST),
    "account-query": lambda data: account_tables.stages(data, account_tables.QUERY),
    "growth": growth_tables.summary,
    "growth-checks": growth_tables.checks,
    "hardening": hardening_tables.summary,
    "costs": capacity_tables.measured,
    "kept": capacity_tables.kept,
    "capacity": capacity_tables.formulas,
    "clients": capacity_tables.examples,
    "limits": limit_tables.runs_out,
    "scale": scale_tables.summary,
    "refused": scale_tables.refused,
}
OF_BENCHMARK = {"linux": ["linux-calls", "linux-starts"],
                "windows": ["windows-calls", "windows-starts"],
                "micro": [name for name in TABLES if name.startswith("micro-")],
                "http": ["http-memory", "http-throughput"], "peers": ["peers", "peers-http"],
                "growth": ["growth", "growth-checks"], "audit": ["audit"], "costs": ["costs"],
                "hardening": ["hardening"],
                "scale": ["scale"],
                "account": [name for name in TABLES if name.startswith("account-")]}
"""What a benchmark prints at its end."""
RUN, PLOT = "run-", "plot-"


def make(name: str, data: Dataset) -> str:
    """The text of a region. One whose benchmark was never run says so."""
    try:
        if name.startswith(RUN):
            return run_line(data[name.removeprefix(RUN)])
        if name.startswith(PLOT):
            return plot_pictures.picture(name.removeprefix(PLOT), data)
        if name not in TABLES:
            raise BadDocument(f"no table is named {name}")
        return TABLES[name](data)
    except NoData as missing:
        return f"(no data: `bench/run {missing}` has not been run)"
