"""What runs out first: at how many clients each resource of one host or one front ends."""

from __future__ import annotations

import math

from figures.capacity_tables import (CALLS_A_MINUTE, CALLS_A_SECOND, CALLS_UNDER_WAY,
                                     MIB_OF_A_REQUEST, SLOTS_OF_A_HOST, SLOTS_OF_A_LISTENER,
                                     SPARE_CONNECTIONS, SPARE_SLOTS, Costs)
from figures.dataset import Dataset
from figures.markdown import table

LISTENERS = SLOTS_OF_A_HOST // SLOTS_OF_A_LISTENER
RATE_A_MINUTE = 120
"""Of a listener, unless it is set."""
MAXCONN = {"haproxy.cfg": 200, "several-hosts/host.cfg": 1200, "several-hosts/front.cfg": 4000}
"""Of the files in deploy/, as they are delivered."""
LOCAL_PORTS = 28232
"""Of Linux, to one address: 32768 to 60999."""
SECONDS_OF_A_PORT = 60
"""After its connection was closed."""
CORES = 2
HOST_GIB = 4

Row = tuple[str, str, float]
"""What, how much of it there is, and the clients that it carries."""


def rounded_down(value: float) -> float:
    """To two digits: what is promised is never more than what was measured."""
    step = 10.0 ** (math.floor(math.log10(value)) - 1)
    return math.floor(round(value / step, 6)) * step


def runs_out(data: Dataset) -> str:
    """In the order in which it ends when clients become more."""
    costs = Costs.of(data)
    rows = sorted([*_connections(), *_work(costs), _memory(costs)], key=lambda row: row[2])
    told = [(name, has, f"{rounded_down(clients):,.0f}") for name, has, clients in rows]
    unknown = [("engine: logins", "what it and its licence allow", "not known"),
               ("host: the audit's disk", "a flush for each call", "not known")]
    return table(("what", "there is", "ends at clients"), [*told, *unknown])


def _connections() -> list[Row]:
    return [("host without a front: `maxconn`", f"{MAXCONN['haproxy.cfg']:,}",
             MAXCONN["haproxy.cfg"] / SPARE_CONNECTIONS),
            ("front: `maxconn`", f"{MAXCONN['several-hosts/front.cfg']:,}",
             MAXCONN["several-hosts/front.cfg"] / SPARE_CONNECTIONS),
            ("host behind fronts: `maxconn`", f"{MAXCONN['several-hosts/host.cfg']:,}",
             MAXCONN["several-hosts/host.cfg"] / CALLS_UNDER_WAY)]


def _work(costs: Costs) -> list[Row]:
    rate = LISTENERS * RATE_A_MINUTE
    ports = LOCAL_PORTS / costs.connections / SECONDS_OF_A_PORT
    rows = [("host: the listeners' rate", f"{rate:,} calls a minute", rate / CALLS_A_MINUTE),
            ("host: local ports", f"{ports:,.0f} calls a second", ports / CALLS_A_SECOND)]
    for name, milliseconds in (("host", costs.call_ms), ("front", costs.front_ms)):
        calls = CORES * 1000 / milliseconds
        rows.append((f"{name}: processors", f"{CORES}, for {calls:,.0f} calls a second",
                     calls / CALLS_A_SECOND))
    return [("host: slots", f"{SLOTS_OF_A_HOST:,}, the most that was tried",
             SLOTS_OF_A_HOST / SPARE_SLOTS), *rows]


def _memory(costs: Costs) -> Row:
    """Of a host without a front, whose proxy holds the clients' connections."""
    client = (SPARE_SLOTS * (costs.session_mib + costs.listener_mib / SLOTS_OF_A_LISTENER)
              + costs.client_mib + CALLS_UNDER_WAY * (costs.call_mib + MIB_OF_A_REQUEST))
    return "host: memory", f"{HOST_GIB} GiB", (HOST_GIB * 1024 - costs.proxy_mib) / client
