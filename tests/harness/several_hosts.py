"""The files of deploy/several-hosts/ on machines of their own: two fronts, two hosts with two
listeners each, the engine's machine, and the machine that clients are on."""

from __future__ import annotations

import contextlib
import http.client
import json
import os
import re
import shlex
import socket
import ssl
import subprocess
import uuid
from pathlib import Path
from typing import Any, Mapping

from harness.front_ends import Response
from harness.machines import Machine, Network, Program
from harness.messages import call, request
from harness.sample_engine import make_database
from harness.waiting import TIMEOUT, wait_until
from tls_front_end import DEPLOY, filled

FILES = DEPLOY / "several-hosts"
NAME = "mcp.example.com"
FRONTS = {"front-a": "192.0.2.11", "front-b": "192.0.2.12"}
HOSTS = {"host-a": "192.0.2.21", "host-b": "192.0.2.22"}
ENGINE = "192.0.2.31"
CLIENTS = "192.0.2.41"
HTTPS, STATE, ENGINE_PORT, PEERS = 443, 8444, 2300, 8079
INSTANCES = ("sales-1", "sales-2")

ORDERS = 20
SALES = f"""
CREATE TABLE ORDERS (ID INTEGER PRIMARY KEY, TOTAL INTEGER);
CREATE TABLE ORDER_NOTES (ORDER_ID INTEGER, NOTE TEXT);
WITH RECURSIVE N(I) AS (SELECT 1 UNION ALL SELECT I + 1 FROM N WHERE I < {ORDERS})
INSERT INTO ORDERS SELECT I, I * 10 FROM N;
"""

SHORTER = {"inter 2s": "inter 500ms", "-idle 30s": "-idle 1s", "-intvl 10s": "-intvl 1s",
           "tcp-ut 60s": "tcp-ut 4s"}
"""What a test would wait for longer than it has to, in front.cfg."""

ENGINE_GATE = f"""
defaults
    mode tcp
    timeout connect 5s
    timeout client 24h
    timeout server 24h
listen engine
    bind {ENGINE}:{ENGINE_PORT}
    server engine 127.0.0.1:{ENGINE_PORT}
"""
"""The sample engine listens on the loopback alone."""


def command_of_readme(number: int) -> str:
    """The command of a step of README.md."""
    text = (FILES / "README.md").read_text("utf-8")
    [found] = re.findall(rf"^(\S.*?) +# {number}\. ", text, re.MULTILINE)
    return str(found)


def variables(*files: Path) -> dict[str, str]:
    """As systemd reads environment files one after the other."""
    words = [word for file in files for word in shlex.split(file.read_text("utf-8"), comments=True)]
    return dict(word.split("=", 1) for word in words)


def ask_socket(path: Path, command: str) -> str:
    """Sends a command to a HAProxy's socket and returns what it says. One that has only just been
    started has no socket yet."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(TIMEOUT)
        wait_until(lambda: connection.connect_ex(str(path)) == 0, TIMEOUT, f"the socket {path}")
        connection.sendall(command.encode() + b"\n")
        return connection.makefile("rb").read().decode()


def statistic(path: Path, proxy: str, server: str, column: str) -> str:
    first, *rows = ask_socket(path, "show stat").removeprefix("# ").splitlines()
    columns = first.split(",")
    for row in rows:
        fields = dict(zip(columns, row.split(",")))
        if (fields.get("pxname"), fields.get("svname")) == (proxy, server):
            return fields[column]
    raise AssertionError(f"no {proxy}/{server} in {rows}")


def make_certificates(folder: Path) -> None:
    """An authority and one certificate for the clients' name and the fronts' names."""
    names = ",".join(f"DNS:{name}" for name in (NAME, *FRONTS))
    common = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
              "-nodes", "-days", "2"]
    for arguments in (
            ["-subj", "/CN=authority of a test", "-keyout", "ca.key", "-out", "ca.pem"],
            ["-subj", f"/CN={NAME}", "-addext", f"subjectAltName={names}",
             "-addext", "basicConstraints=critical,CA:FALSE", "-CA", "ca.pem", "-CAkey",
             "ca.key", "-keyout", "server.pem.key", "-out", "server.pem"]):
        subprocess.run([*common, *arguments], check=True, stdin=subprocess.DEVNULL, cwd=folder,
                       capture_output=True, umask=0o077)
    for ending in ("", ".key"):
        os.link(folder / f"server.pem{ending}", folder / f"front.pem{ending}")


class Proxied:
    """A machine with a HAProxy."""

    def __init__(self, network: Network, name: str, address: str, folder: Path, tls: Path) -> None:
        self.name = name
        self.address = address
        self.folder = folder
        self.machine = network.add(name, address)
        self.socket = folder / "admin.sock"
        self._tls = tls
        self.proxy: Program

    def placed(self, file: Path, changes: "Mapping[str, str] | None" = None) -> str:
        """Writes a configuration with this machine's places in it; returns its path."""
        text = file.read_text("utf-8")
        places = {"/etc/kova-mcp/tls": str(self._tls), "/run/haproxy/admin.sock": str(self.socket),
                  "log /dev/log local0": "log stdout format raw local0",
                  "user haproxy": "user root", "group haproxy": "group root"}
        made = self.folder / file.name
        made.write_text(filled(text, {**{old: new for old, new in places.items() if old in text},
                                      **(changes or {})}), encoding="utf-8")
        return str(made)

    def start_proxy(self, *configurations: str) -> None:
        command = ["/usr/sbin/haproxy", "-db"]
        for configuration in configurations:
            command += ["-f", configuration]
        self.proxy = self.machine.start("haproxy", command)
        wait_until(lambda: self._up(), TIMEOUT, f"the proxy of {self.name}")

    def _up(self) -> bool:
        assert self.proxy.running(), self.proxy.log()
        return self.machine.accepts(self.address, HTTPS)

    def say(self, command: str) -> str:
        return ask_socket(self.socket, command).strip()


class Front(Proxied):
    def __init__(self, network: Network, name: str, folder: Path, tls: Path) -> None:
        super().__init__(network, name, FRONTS[name], folder, tls)
        self.start_proxy(self.placed(FILES / "front.cfg", SHORTER))

    def knows(self, session: str) -> bool:
        return session in self.say("show table kova_hosts")

    def wait_for(self, host: str, status: str) -> None:
        """Until this front has seen the state of a host."""
        wait_until(lambda: statistic(self.socket, "kova_hosts", host, "status") == status,
                   TIMEOUT, f"{host} to be {status} for {self.name}")


class Host(Proxied):
    def __init__(self, network: Network, name: str, folder: Path, tls: Path,
                 executable: Path) -> None:
        super().__init__(network, name, HOSTS[name], folder, tls)
        self._executable = executable
        self.policy = self._placed_policy()
        self.listeners: dict[str, Program] = {}
        self.start_listeners()
        self.start_proxy(self.placed(DEPLOY / "haproxy.cfg"), self.placed(FILES / "host.cfg"))

    def _placed_policy(self) -> Path:
        approvals = self.folder / "approvals"
        approvals.mkdir(exist_ok=True)
        document = json.loads((FILES / f"policy-{self.name}.json").read_text("utf-8"))
        assert document["approval_state_directory"] == "/var/lib/kova-mcp/approvals"
        document["approval_state_directory"] = str(approvals)
        made = self.folder / "policy.json"
        made.write_text(json.dumps(document), encoding="utf-8")
        return made

    def environment(self, instance: str) -> dict[str, str]:
        """The instance's own file and the host's, with this machine's places in them."""
        found = variables(FILES / f"{instance}.env", FILES / f"{self.name}.env")
        assert found["KOVA_MCP_POLICY"] == f"/etc/kova-mcp/policy-{self.name}.json"
        return {**found, "PATH": "/usr/bin:/bin", "KOVA_MCP_POLICY": str(self.policy),
                "KOVA_MCP_AUDIT": str(self.folder / f"{instance}.jsonl")}

    def start_listeners(self) -> None:
        for instance in INSTANCES:
            environment = self.environment(instance)
            port = environment["LISTEN_PORT"]
            program = self.machine.start(instance, [str(self._executable), "--http", port],
                                         environment)
            self.listeners[instance] = program
        for program in self.listeners.values():
            wait_until(lambda: "(TLS termination required)" in program.log()
                       or not program.running(), TIMEOUT, "a listener")
            assert program.running(), program.log()
        ports = [int(self.environment(instance)["LISTEN_PORT"]) for instance in INSTANCES]
        wait_until(lambda: all(self._listens(port) for port in ports), TIMEOUT, "the listeners")

    def _listens(self, port: int) -> bool:
        return f":{port} " in self.machine.run("ss", "-Hltn")

    def stop_listeners(self) -> None:
        for program in self.listeners.values():
            program.end()

    def requests_at_listeners(self) -> int:
        return int(statistic(self.socket, "kova_mcp", "BACKEND", "scur"))

    def requests_under_way(self) -> int:
        """Those too that the proxy has not passed on: what README.md's command says, which asks the
        socket by "tell"."""
        script = f"tell() {{ cat; }}\n{command_of_readme(4)}"
        return int(self.machine.run("sh", "-euc", script, data=self.say("show stat").encode()))

    def sessions(self) -> int:
        """What README.md's command says on the machine, which sees its own processes alone."""
        command = filled(command_of_readme(2), {"/usr/bin/kova-mcp": str(self._executable)})
        return int(self.machine.run(
            "nsenter", "--target", str(self.machine.pid), "--pid", "unshare", "--mount-proc",
            "sh", "-uc", f"{command} || [ $? = 1 ]"))

    def leave(self, fronts: "list[Front]") -> None:
        """From now on no new session; its own go on."""
        assert self.say("disable server in_service/this") == ""
        for front in fronts:
            front.wait_for(self.name, "NOLB")

    def restart(self) -> None:
        """Refuses connections, waits for the calls that run, and restarts the listeners."""
        assert self.say("disable frontend kova_mcp_tls") == ""
        wait_until(lambda: self.requests_under_way() == 0, TIMEOUT, "the end of the calls")
        self.stop_listeners()
        self.start_listeners()
        assert self.say("enable frontend kova_mcp_tls") == ""

    def come_back(self, fronts: "list[Front]") -> None:
        assert self.say("enable server in_service/this") == ""
        for front in fronts:
            front.wait_for(self.name, "UP")

    def records(self) -> list[dict[str, Any]]:
        """The audit records of all listeners of the host."""
        return [json.loads(line) for instance in INSTANCES
                if (path := self.folder / f"{instance}.jsonl").exists()
                for line in path.read_bytes().splitlines()]

    def approval(self, digest: str) -> str:
        """What the operator of this host issues for an operation."""
        return self.machine.run(str(self._executable), "--issue-approval",
                                env=self.environment(INSTANCES[0]), data=digest.encode()).strip()


class _Connection(http.client.HTTPSConnection):
    def __init__(self, machine: Machine, address: str, context: ssl.SSLContext) -> None:
        super().__init__(NAME, HTTPS, context=context)
        self._machine, self._address, self._tls = machine, address, context

    def connect(self) -> None:
        plain = self._machine.connect(self._address, HTTPS)
        self.sock = self._tls.wrap_socket(plain, server_hostname=NAME)


class Client:
    """A client with one session at a time."""

    def __init__(self, service: "Service", front: str = "front-a") -> None:
        self._service = service
        self.front = front
        self.session = ""
        self.open()

    def open(self) -> None:
        got = self.initialize()
        assert got.status == 200, (got, self._service.logs())
        self.session = got.header("Mcp-Session-Id") or ""
        assert len(self.session) == 64

    def initialize(self) -> Response:
        """Asks for a session, and belongs to none any more."""
        self.session = ""
        return self.ask(request("initialize", 1, {}))

    def ask(self, message: bytes = b"", method: str = "POST") -> Response:
        headers = {"Authorization": f"Bearer {self._service.token}"}
        if self.session:
            headers["Mcp-Session-Id"] = self.session
        connection = _Connection(self._service.clients, FRONTS[self.front], self._service.trust)
        with contextlib.closing(connection):
            connection.request(method, "/mcp", message.rstrip(b"\n"), headers)
            return Response.of(connection.getresponse())

    def call(self, tool: str, **arguments: Any) -> tuple[int, Any]:
        """The status and, with 200, the result. The reply has to be that of this call."""
        name = uuid.uuid4().hex
        got = self.ask(call(name, tool, arguments))
        if got.status != 200:
            return got.status, None
        reply = json.loads(got.body)
        assert reply["id"] == name, reply
        return got.status, reply["result"]

    def count(self) -> int:
        """Calls kova_query; the status."""
        status, result = self.call("kova_query", sql="SELECT COUNT(ID) AS N FROM ORDERS")
        assert status != 200 or result["structuredContent"]["rows"] == [[str(ORDERS)]], result
        return status

    def propose(self, note: str, token: "str | None" = None) -> tuple[int, Any]:
        sql = f"INSERT INTO ORDER_NOTES (ORDER_ID, NOTE) VALUES (1, '{note}')"
        return self.call("kova_execute", sql=sql, **({"approval_token": token} if token else {}))

    def host(self) -> str:
        """The host of the session, whose name the policy's name ends in."""
        status, result = self.propose("where am I")
        assert status == 200, (status, self._service.logs())
        policy = result["structuredContent"]["policy"]
        return policy.removeprefix("order_notes_").replace("_", "-")


class Service:
    """Everything, running."""

    def __init__(self, folder: Path, executable: Path, engine: Path) -> None:
        self.folder = folder
        self._executable = executable
        self._engine = engine
        self.tls = folder / "tls"
        self.tls.mkdir()
        make_certificates(self.tls)
        self.trust = ssl.create_default_context(cafile=str(self.tls / "ca.pem"))
        self.token = variables(FILES / "host-a.env")["KOVA_MCP_HTTP_BEARER_TOKEN"]
        self.network = Network(folder)
        self.fronts: dict[str, Front] = {}
        self.hosts: dict[str, Host] = {}
        try:
            self.clients = self.network.add("clients", CLIENTS)
            self._make_database()
            self.start_engine()
            for name in HOSTS:
                self.start_host(name)
            for name in FRONTS:
                self.start_front(name)
            for front in self.fronts.values():
                for name in HOSTS:
                    front.wait_for(name, "UP")
        except BaseException:
            self.network.close()
            raise

    def _make_database(self) -> None:
        settings = variables(FILES / "host-a.env")
        (self.folder / "data").mkdir()
        make_database(self.folder / "data" / f"{settings['KOVA_MCP_DATABASE']}.db", SALES)
        users = f"{settings['KOVA_MCP_USER']}:{settings['KOVA_MCP_PASSWORD']}\n"
        (self.folder / "users").write_text(users, "utf-8")
        (self.folder / "engine.cfg").write_text(ENGINE_GATE, "utf-8")

    def start_engine(self) -> None:
        self.engine = machine = self.network.add("engine", ENGINE)
        machine.start("engine", [str(self._engine), "--data", str(self.folder / "data"), "--users",
                                 str(self.folder / "users"), "--port", str(ENGINE_PORT)])
        machine.start("gate", ["/usr/sbin/haproxy", "-db", "-f", str(self.folder / "engine.cfg")])
        wait_until(lambda: machine.accepts("127.0.0.1", ENGINE_PORT)
                   and machine.accepts(ENGINE, ENGINE_PORT), TIMEOUT, "the engine")

    def _folder_of(self, name: str) -> Path:
        made = self.folder / name
        made.mkdir(exist_ok=True)
        return made

    def start_host(self, name: str) -> None:
        self.hosts[name] = Host(self.network, name, self._folder_of(name), self.tls,
                                self._executable)

    def start_front(self, name: str) -> None:
        self.fronts[name] = Front(self.network, name, self._folder_of(name), self.tls)

    def all_fronts(self) -> list[Front]:
        return list(self.fronts.values())

    def clients_on(self, wanted: str, number: int) -> list[Client]:
        """Clients with sessions on one host. New sessions go to the hosts in turn."""
        found: list[Client] = []
        while len(found) < number:
            client = Client(self)
            if client.host() == wanted:
                found.append(client)
            else:
                assert client.ask(method="DELETE").status == 204
        return found

    def logs(self) -> str:
        return "\n".join(path.read_text("utf-8", errors="replace")
                         for path in sorted(self.folder.glob("*/*.log")))[-4000:]

    def close(self) -> None:
        self.network.close()
