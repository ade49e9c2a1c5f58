"""deploy/several-hosts/ on a network of machines: hosts and fronts are lost, come back, and are
restarted one after the other while clients call."""

from __future__ import annotations

import collections
import json
import os
import re
import shutil
import signal
import subprocess
import threading
from pathlib import Path
from typing import Iterator

import pytest

from harness import privileges, processes
from harness.sample_engine import read_database
from harness.several_hosts import FILES, FRONTS, HOSTS, INSTANCES, Client, Service, variables
from harness.targets import Installation
from harness.waiting import TIMEOUT, wait_until
from tls_front_end import DEPLOY

TABLES = ", ".join(f"ORDERS {name}" for name in "ABCDEFGHI")
SLOW = {"sql": f"SELECT COUNT(A.ID) FROM {TABLES} WHERE A.TOTAL + B.TOTAL < C.TOTAL + D.TOTAL"}
"""Counts 5e11 combinations of rows, which takes longer than any test waits."""

SLOTS = 16
"""Of a listener."""

UNIT_FOLDER = "/etc/systemd/system/kova-mcp-http@.service.d/"


@pytest.fixture
def service(installation: Installation, engine_executable: Path,
            tmp_path: Path) -> Iterator[Service]:
    privileges.need("machines on a network of their own")
    made = Service(tmp_path, installation.executable("sample"), engine_executable)
    yield made
    made.close()
    assert processes.naming(str(tmp_path)) == []
    assert {"switch", *HOSTS, *FRONTS}.isdisjoint(os.listdir("/sys/class/net"))


# the files


def test_the_hosts_differ_in_the_policys_name_alone() -> None:
    first, second = (variables(FILES / f"{host}.env") for host in HOSTS)
    policies = [json.loads((FILES / Path(env.pop("KOVA_MCP_POLICY")).name).read_text("utf-8"))
                for env in (first, second)]
    assert first == second
    names = [policy.pop("name") for policy in policies]
    assert names == ["order_notes_host_a", "order_notes_host_b"]
    assert policies[0] == policies[1]


def test_the_listeners_of_a_host_share_no_port_and_no_audit_file() -> None:
    settings = [variables(FILES / f"{instance}.env") for instance in INSTANCES]
    assert [set(one) for one in settings] == [{"LISTEN_PORT", "KOVA_MCP_AUDIT"}] * 2
    assert not set(settings[0].values()) & set(settings[1].values())
    unit = (FILES / "host.conf").read_text("utf-8")
    assert UNIT_FOLDER in unit and "EnvironmentFile=/etc/kova-mcp/host.env\n" in unit
    engine = variables(FILES / "host-a.env")["KOVA_MCP_SERVER"]
    assert f"IPAddressAllow={engine}\n" in unit
    [folder] = re.findall(r"^StateDirectory=(.*)$", unit, re.MULTILINE)
    for host in HOSTS:
        policy = json.loads((FILES / f"policy-{host}.json").read_text("utf-8"))
        assert policy["approval_state_directory"] == f"/var/lib/{folder}"


def test_systemd_takes_the_hosts_settings_for_the_unit(tmp_path: Path) -> None:
    unit = tmp_path / "kova-mcp-http@.service"
    unit.write_text((DEPLOY / unit.name).read_text("utf-8").replace("/usr/bin/kova-mcp",
                                                                    "/bin/true"), "utf-8")
    (tmp_path / Path(UNIT_FOLDER).name).mkdir()
    shutil.copy2(FILES / "host.conf", tmp_path / Path(UNIT_FOLDER).name)
    instance = tmp_path / "kova-mcp-http@sales-1.service"
    instance.symlink_to(unit.name)
    done = subprocess.run(["systemd-analyze", "verify", "--recursive-errors=no", "--man=no",
                           str(instance)], capture_output=True, text=True, timeout=TIMEOUT,
                          check=False)
    said = [line for line in done.stderr.splitlines()
            if "kova-mcp-http@" in line or "host.conf" in line]
    assert (done.returncode, said) == (0, []), done.stderr


def test_the_readme_names_every_file_and_the_commands_that_are_tested_here() -> None:
    text = (FILES / "README.md").read_text("utf-8")
    names = [path.name for path in FILES.iterdir() if path.name != "README.md"]
    assert len(names) >= 9 and all(f"`{name}`" in text for name in names)
    for command in ("disable server in_service/this", "disable frontend kova_mcp_tls",
                    "enable frontend kova_mcp_tls", "enable server in_service/this"):
        assert command in text


# sessions


def test_sessions_are_served_by_their_host_whichever_front_they_come_by(service: Service) -> None:
    clients = [Client(service, front) for front in [*FRONTS, *FRONTS]]
    hosts = [client.host() for client in clients]
    assert set(hosts) == set(HOSTS)
    for client in clients:
        for front in service.all_fronts():
            wait_until(lambda: front.knows(client.session), TIMEOUT, "the session at both fronts")
            client.front = front.name
            assert client.count() == 200
    assert [client.host() for client in clients] == hosts


@pytest.mark.slow
def test_sessions_outlive_the_loss_of_a_front(service: Service) -> None:
    clients = [Client(service, "front-a") for _ in range(4)]
    wait_until(lambda: all(service.fronts["front-b"].knows(client.session) for client in clients),
               TIMEOUT, "the sessions at the other front")
    service.fronts["front-a"].machine.crash()
    for client in clients:
        client.front = "front-b"
        assert client.count() == 200
    service.start_front("front-a")
    wait_until(lambda: all(service.fronts["front-a"].knows(client.session) for client in clients),
               TIMEOUT, "the sessions at the front that is back")
    for host in HOSTS:
        service.fronts["front-a"].wait_for(host, "UP")
    for client in clients:
        client.front = "front-a"
        assert client.count() == 200


@pytest.mark.slow
def test_both_fronts_are_lost_and_back(service: Service) -> None:
    clients = [Client(service) for _ in range(4)]
    for front in service.all_fronts():
        front.machine.crash()
    for name in FRONTS:
        service.start_front(name)
    for front in service.all_fronts():
        assert not any(front.knows(client.session) for client in clients)
        for host in HOSTS:
            front.wait_for(host, "UP")
    for client in clients:
        status = client.count()
        assert status in (200, 404)
        if status == 404:
            client.open()
    assert [client.count() for client in clients] == [200] * 4


# the engine


@pytest.mark.slow
def test_sessions_outlive_the_loss_of_the_engine(service: Service) -> None:
    clients = [service.clients_on(host, 1)[0] for host in HOSTS]
    service.engine.crash()
    for client in clients:
        status, result = client.call("kova_query", sql="SELECT COUNT(ID) AS N FROM ORDERS")
        assert (status, result["isError"]) == (200, True), result
    service.start_engine()
    assert [client.count() for client in clients] == [200, 200]


# hosts


@pytest.mark.slow
def test_a_host_that_cannot_be_reached_and_is_back(service: Service) -> None:
    [asking, silent] = service.clients_on("host-a", 2)
    [elsewhere] = service.clients_on("host-b", 1)
    service.hosts["host-a"].machine.unplug()
    assert elsewhere.count() == 200
    assert asking.count() == 404
    asking.open()
    assert asking.host() == "host-b"
    service.hosts["host-a"].machine.plug()
    for front in service.all_fronts():
        front.wait_for("host-a", "UP")
    assert silent.count() == 200 and silent.host() == "host-a"
    assert elsewhere.count() == 200 and asking.count() == 200
    assert len(service.clients_on("host-a", 1)) == 1


@pytest.mark.slow
def test_a_call_on_a_host_that_is_lost_ends_and_is_not_sent_again(service: Service) -> None:
    [calling] = service.clients_on("host-a", 1)
    outcome: list[int] = []
    thread = threading.Thread(target=lambda: outcome.append(calling.call("kova_query", **SLOW)[0]))
    thread.start()
    wait_until(lambda: service.hosts["host-a"].requests_at_listeners() == 1, TIMEOUT, "the call")
    service.hosts["host-a"].machine.unplug()
    thread.join()
    assert outcome == [502]
    assert service.hosts["host-b"].requests_under_way() == 0
    assert [one for one in service.hosts["host-b"].records() if one["tool"] == "kova_query"] == []


@pytest.mark.slow
def test_a_host_that_has_crashed_has_lost_its_sessions(service: Service) -> None:
    [lost] = service.clients_on("host-a", 1)
    [elsewhere] = service.clients_on("host-b", 1)
    service.hosts["host-a"].machine.crash()
    assert (lost.count(), elsewhere.count()) == (404, 200)
    lost.open()
    assert lost.host() == "host-b"
    service.start_host("host-a")
    for front in service.all_fronts():
        front.wait_for("host-a", "UP")
    assert (lost.count(), elsewhere.count()) == (200, 200)
    assert len(service.clients_on("host-a", 1)) == 1


@pytest.mark.slow
def test_a_host_without_listeners_passes_new_sessions_on(service: Service) -> None:
    [lost] = service.clients_on("host-a", 1)
    service.hosts["host-a"].stop_listeners()
    assert lost.count() == 404
    clients = [Client(service) for _ in range(4)]
    assert [client.host() for client in clients] == ["host-b"] * 4
    service.hosts["host-a"].start_listeners()
    assert len(service.clients_on("host-a", 1)) == 1


@pytest.mark.slow
def test_a_host_that_has_lost_one_listener_serves_by_the_others(service: Service) -> None:
    host = service.hosts["host-a"]
    clients = service.clients_on("host-a", 2)
    host.listeners[INSTANCES[0]].end(signal.SIGKILL)
    wait_until(lambda: host.sessions() == 1, TIMEOUT, "the end of its sessions")
    assert sorted(client.count() for client in clients) == [200, 404]
    assert [client.count() for client in service.clients_on("host-a", 2)] == [200, 200]
    assert host.sessions() == 3


@pytest.mark.slow
def test_a_full_host_passes_new_sessions_on(service: Service) -> None:
    slots = len(HOSTS) * len(INSTANCES) * SLOTS
    clients = [Client(service) for _ in range(slots)]
    assert clients.pop().initialize().status == 400
    leaving = [client for client in clients if client.host() == "host-b"][:5]
    for client in leaving:
        assert client.ask(method="DELETE").status == 204
    assert [Client(service).host() for _ in leaving] == ["host-b"] * len(leaving)
    assert leaving[0].initialize().status == 400


# a rolling restart


def test_the_readmes_commands_count_sessions_and_requests(service: Service) -> None:
    clients = service.clients_on("host-a", 3)
    host = service.hosts["host-a"]
    assert (host.sessions(), host.requests_under_way()) == (3, 0)
    calling = threading.Thread(target=lambda: clients[0].call("kova_query", **SLOW))
    calling.start()
    wait_until(lambda: host.requests_at_listeners() == 1, TIMEOUT, "the call")
    assert (host.sessions(), host.requests_under_way()) == (3, 1)
    for client in clients:
        assert client.ask(method="DELETE").status == 204
    calling.join()
    wait_until(lambda: host.requests_under_way() == 0, TIMEOUT, "the end of the call")
    assert host.sessions() == 0


class Caller(threading.Thread):
    """A client that calls until it is told to stop, and initializes anew after 404."""

    def __init__(self, client: Client) -> None:
        super().__init__()
        self.client = client
        self.statuses: collections.Counter[int] = collections.Counter()
        self.failure: BaseException | None = None
        self._stopping = threading.Event()
        self.start()

    def run(self) -> None:
        try:
            while not self._stopping.is_set():
                status = self.client.count()
                self.statuses[status] += 1
                if status == 404:
                    self.client.open()
        except BaseException as failure:  # the test's thread raises it
            self.failure = failure

    def stop(self) -> None:
        self._stopping.set()
        self.join()
        if self.failure is not None:
            raise self.failure


def restart(service: Service, name: str, here: list[Caller], elsewhere: list[Caller]) -> None:
    """Restarts one host as README.md says, while clients call."""
    [other] = set(HOSTS) - {name}
    host, fronts = service.hosts[name], service.all_fronts()
    lost = [caller.statuses[404] for caller in here]
    kept = [(caller.client.session, caller.statuses[404]) for caller in elsewhere]
    host.leave(fronts)
    assert [Client(service).host() for _ in range(4)] == [other] * 4
    assert [caller.statuses[404] for caller in here] == lost
    host.restart()
    host.come_back(fronts)
    for caller, before in zip(here, lost):
        wait_until(lambda: caller.statuses[404] > before or not caller.is_alive(), TIMEOUT, "404")
    for caller in [*here, *elsewhere]:
        answered = caller.statuses[200]
        wait_until(lambda: caller.statuses[200] > answered or not caller.is_alive(), TIMEOUT,
                   "a call after the restart")
    assert [caller.statuses[404] for caller in here] == [before + 1 for before in lost]
    assert [(caller.client.session, caller.statuses[404]) for caller in elsewhere] == kept


@pytest.mark.slow
def test_a_rolling_restart_loses_no_answer(service: Service) -> None:
    statuses: collections.Counter[int] = collections.Counter()
    for name in HOSTS:
        on = {host: [Caller(client) for client in service.clients_on(host, 2)] for host in HOSTS}
        here, elsewhere = on.pop(name), [caller for group in on.values() for caller in group]
        try:
            restart(service, name, here, elsewhere)
        finally:
            for caller in [*here, *elsewhere]:
                caller.stop()
        for caller in [*here, *elsewhere]:
            statuses += caller.statuses
            assert caller.client.ask(method="DELETE").status == 204
    assert set(statuses) == {200, 404} and statuses[404] == 4
    records = [record for host in service.hosts.values() for record in host.records()
               if record["tool"] == "kova_query"]
    assert len(records) == statuses[200] and {record["status"] for record in records} == {"ok"}


# approvals


def test_an_approval_holds_on_the_host_that_it_was_issued_for(service: Service) -> None:
    [here] = service.clients_on("host-a", 1)
    [there] = service.clients_on("host-b", 1)
    asked = [client.propose("approved")[1]["structuredContent"] for client in (here, there)]
    assert [one["policy"] for one in asked] == ["order_notes_host_a", "order_notes_host_b"]
    assert asked[0]["operation_digest"] == asked[1]["operation_digest"]
    token = service.hosts["host-a"].approval(asked[0]["operation_digest"])
    refused = {"content": [{"type": "text", "text": "approval signature is invalid"}],
               "isError": True}
    assert there.propose("approved", token) == (200, refused)
    status, result = here.propose("approved", token)
    assert (status, result["isError"]) == (200, False), result
    spent = here.propose("approved", token)[1]["content"][0]["text"]
    assert spent == "approval token was already used or replay state is unavailable"
    assert there.propose("approved", token) == (200, refused)
    [database] = (service.folder / "data").glob("*.db")
    assert read_database(database, "SELECT NOTE FROM ORDER_NOTES") == [("approved",)]


def test_the_listeners_of_a_host_share_the_markers_of_used_approvals(service: Service) -> None:
    clients = service.clients_on("host-a", 2)
    digest = clients[0].propose("once")[1]["structuredContent"]["operation_digest"]
    token = service.hosts["host-a"].approval(digest)
    outcomes = [client.propose("once", token)[1]["isError"] for client in clients]
    assert outcomes == [False, True]
    used = [record for record in service.hosts["host-a"].records()
            if record["policy_decision"] in ("approval_accepted", "deny")]
    assert [record["policy_decision"] for record in used] == ["approval_accepted", "deny"]
