"""The capacity plan: what was measured, the formulas that follow from it, and examples."""

from __future__ import annotations

import math
from dataclasses import dataclass

from figures import scale_tables
from figures.dataset import Dataset
from figures.markdown import paragraph, table
from figures.wording import short

SLOTS_OF_A_LISTENER = 16
SPARE_SLOTS = 1.25
SLOTS_OF_A_HOST = 1024
"""The most that was tried on one machine."""
SPARE_CONNECTIONS = 1.1
MIB_OF_A_REQUEST = 0.6
"""What a proxy holds for a request under way and its response, at most."""

CLIENTS = (10, 100, 1000, 10000)
CALLS_A_DAY = 600
CALLS_A_MINUTE = 3
SECONDS_OF_A_CALL = 0.5
CALLS_A_SECOND = CALLS_A_MINUTE / 60
"""Of one client, like the next one."""
CALLS_UNDER_WAY = CALLS_A_SECOND * SECONDS_OF_A_CALL


def rounded_up(value: float) -> float:
    """To two digits: what is planned with is never less than what was measured."""
    if value <= 0:
        return 0.0
    step = 10.0 ** (math.floor(math.log10(value)) - 1)
    return round(math.ceil(round(value / step, 6)) * step, 9)


@dataclass(frozen=True)
class Costs:
    """What one of each costs, rounded up."""
    listener_mib: float
    session_mib: float
    call_mib: float
    proxy_mib: float
    client_mib: float
    """Of the proxy that clients connect to, for each client and the connection that it keeps."""
    call_ms: float
    """Of processor time on the host: listener, session, worker and the host's proxy."""
    front_ms: float
    record_bytes: float
    connections: float

    @classmethod
    def of(cls, data: Dataset) -> Costs:
        seen = data["costs"]["costs"]
        return cls(listener_mib=rounded_up(seen["listener_mib"]),
                   session_mib=rounded_up(seen["session_mib"] + seen["session_kernel_mib"]),
                   call_mib=rounded_up(seen["call_mib"] + seen["call_kernel_mib"]),
                   proxy_mib=rounded_up(max(seen["front_proxy_mib"], seen["host_proxy_mib"])),
                   client_mib=rounded_up(proxy_mib_of_a_client(data)),
                   call_ms=rounded_up(seen["query_ms"] + seen["host_proxy_ms"]),
                   front_ms=rounded_up(seen["front_proxy_ms"]),
                   record_bytes=rounded_up(max(seen["list_record_bytes"],
                                               seen["query_record_bytes"])),
                   connections=math.ceil(round(seen["query_connections"], 1)))


def proxy_mib_of_a_client(data: Dataset) -> float:
    """The most that HAProxy held before many sessions, beyond what it holds with one: all of it is
    counted to the clients."""
    return ((scale_tables.highest_of_haproxy(data, "proportional_set_mib")
             - data["costs"]["costs"]["host_proxy_mib"]) / scale_tables.sessions(data))


def measured(data: Dataset) -> str:
    seen = data["costs"]["costs"]
    return table(("what", "costs"), [
        ("listener", f"{seen['listener_mib']:.2f} MiB, {seen['listener_descriptors']:.0f} "
         f"descriptors with {SLOTS_OF_A_LISTENER} sessions"),
        ("session", f"{seen['session_mib']:.2f} MiB, {seen['session_kernel_mib']:.2f} of the "
         f"kernel, one process, {seen['session_descriptors']:.0f} descriptors"),
        ("worker of a call that runs", f"{seen['call_mib']:.2f} MiB, "
         f"{seen['call_kernel_mib']:.2f} of the kernel, one process, "
         f"{seen['call_descriptors']:.0f} descriptors"),
        ("kova_list_tables by policy: listener, session, worker",
         f"{seen['list_ms']:.1f} ms of processor time, a record of "
         f"{seen['list_record_bytes']:.0f} bytes"),
        ("kova_query of one row: the same",
         f"{seen['query_ms']:.1f} ms of processor time, a record of "
         f"{seen['query_record_bytes']:.0f} bytes, {seen['query_connections']:.0f} connections"),
        ("HAProxy of a host, a request",
         f"{seen['host_proxy_ms']:.1f} ms of processor time; {seen['host_proxy_mib']:.0f} MiB"),
        ("HAProxy of a front, a request with a TLS handshake",
         f"{seen['front_proxy_ms']:.1f} ms of processor time; {seen['front_proxy_mib']:.0f} MiB")])


def kept(data: Dataset) -> str:
    """What HAProxy holds for the connections that clients keep, as a sentence."""
    mib, descriptors = (scale_tables.highest_of_haproxy(data, what)
                        for what in ("proportional_set_mib", "descriptors"))
    return paragraph(
        f"In `bench/run scale`, whose {scale_tables.sessions(data):,} clients keep their "
        f"connections, HAProxy held at most {mib:.1f} MiB and {descriptors:,.0f} descriptors: "
        f"{proxy_mib_of_a_client(data) * 1024:.0f} KiB a client beyond what it holds for one.")


def formulas(data: Dataset) -> str:
    costs = Costs.of(data)
    return table(("what", "how much"), [
        ("slots", f"{SPARE_SLOTS} × (C + F / 4)"),
        ("listeners", f"slots / {SLOTS_OF_A_LISTENER}, rounded up"),
        ("processes", "listeners + slots + P × T"),
        ("memory, MiB, without HAProxy", f"{costs.listener_mib} × listeners + "
         f"{costs.session_mib} × slots + ({costs.call_mib} + the client library's own) × P × T"),
        ("memory of a HAProxy that clients connect to, MiB",
         f"{costs.proxy_mib:g} + {costs.client_mib:g} × C + {MIB_OF_A_REQUEST} × P × T"),
        ("memory of the HAProxy of a host behind fronts, MiB",
         f"{costs.proxy_mib:g} + {MIB_OF_A_REQUEST} × P × T of this host"),
        ("`maxconn` of a HAProxy that clients connect to",
         f"{SPARE_CONNECTIONS} × C; on each front, because the other one may be lost"),
        ("`maxconn` of the HAProxy of a host behind fronts",
         "its slots, and some for requests beside calls"),
        ("cores, all hosts together", f"{costs.call_ms / 1000:g} × P, and the engine's own"),
        ("cores, all fronts together", f"{costs.front_ms / 1000:g} × P; less when clients keep "
         "their connections"),
        ("logins at the engine", "P a second"),
        ("new connections to the engine", f"{costs.connections:g} × P a second"),
        ("audit", f"C × N × {costs.record_bytes:g} bytes a day"),
        ("requests that listeners have to allow a minute",
         "60 × P, and two for each session that begins; each listener its share"),
        ("approvals", "one empty file for each approved write")])


def examples(data: Dataset) -> str:
    costs = Costs.of(data)
    plans = [_plan(clients, costs) for clients in CLIENTS]
    return table(("clients", *(f"{clients:,}" for clients in CLIENTS)),
                 [(name, *(plan[name] for plan in plans)) for name in plans[0]])


def _plan(clients: int, costs: Costs) -> "dict[str, str]":
    slots = math.ceil(SPARE_SLOTS * clients)
    listeners = math.ceil(slots / SLOTS_OF_A_LISTENER)
    hosts = math.ceil(slots / SLOTS_OF_A_HOST)
    a_second, under_way = clients * CALLS_A_SECOND, clients * CALLS_UNDER_WAY
    mib = (costs.listener_mib * listeners + costs.session_mib * slots + costs.call_mib * under_way)
    front_mib = costs.proxy_mib + costs.client_mib * clients + MIB_OF_A_REQUEST * under_way
    host_proxy_mib = costs.proxy_mib + MIB_OF_A_REQUEST * under_way / hosts
    return {"slots": f"{slots:,}", "listeners": f"{listeners:,}", "hosts": str(hosts + 1),
            "processes": f"{listeners + slots + math.ceil(under_way):,}",
            "memory of listeners, sessions and calls": _memory(mib),
            "memory of each front's HAProxy": _memory(front_mib),
            "memory of each host's HAProxy, one host lost": _memory(host_proxy_mib),
            "`maxconn` of each front": f"{math.ceil(round(SPARE_CONNECTIONS * clients, 6)):,}",
            "calls and logins a second": f"{a_second:g}",
            "new connections to the engine a second": f"{costs.connections * a_second:,g}",
            "cores of the hosts": f"{costs.call_ms / 1000 * a_second:.2g}",
            "cores of the fronts": f"{costs.front_ms / 1000 * a_second:.2g}",
            "audit a day, MB": short(clients * CALLS_A_DAY * costs.record_bytes / 1e6)}


def _memory(mib: float) -> str:
    return f"{mib:.0f} MiB" if mib < 1000 else f"{mib / 1024:.1f} GiB"
