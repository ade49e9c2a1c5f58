"""What runs: the engine, the listener, HAProxy before it; and the files that the servers get."""

from __future__ import annotations

import contextlib
import ctypes
import json
import os
import signal
import subprocess
import time
from contextlib import ExitStack
from pathlib import Path

import wine
from chaos.clock import Clock
from harness import processes
from harness.approval_tokens import SECRET
from harness.http_client import TOKEN, free_ports
from harness.listeners import LOOPBACK
from harness.policy_files import DEFAULT
from harness.sales_engine import SALES
from harness.sample_engine import PASSWORD, USER, make_database
from harness.servers import Server
from harness.targets import Installation, Target
from harness.waiting import TIMEOUT, wait_for_end, wait_until
from tls_front_end import free_port, haproxy_command, haproxy_configuration, make_certificate

POLICY = {**DEFAULT, "name": "sales_chaos", "database_user": USER, "writes_enabled": True,
          "approval_required": True, "write_types": ["INSERT"], "write_tables": ["EVENTS"],
          "allowed_collections": []}
DATABASE = SALES + "CREATE TABLE EVENTS (MARK TEXT);"

AUDIT_FOLDER_SIZE = 1 << 20
STATE_FOLDER_FILES = 2000

CLONE_NEWNS, MS_REC, MS_PRIVATE, MNT_DETACH = 0x20000, 0x4000, 0x40000, 2


def own_mounts() -> bool:
    """Gives this process file systems of its own to mount, which end with it. False where only root
    may do that, and this is not root."""
    libc = ctypes.CDLL(None, use_errno=True)
    return (libc.unshare(CLONE_NEWNS) == 0
            and libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) == 0)


def unmount(folder: Path) -> None:
    ctypes.CDLL(None).umount2(os.fsencode(folder), MNT_DETACH)


def mount_small(folder: Path, options: str) -> bool:
    libc = ctypes.CDLL(None, use_errno=True)
    return libc.mount(b"none", os.fsencode(folder), b"tmpfs", 0, options.encode()) == 0


class SmallFolder:
    """A folder that can be filled, by its bytes or by its number of files, and emptied again."""

    def __init__(self, path: Path, options: str, mounts: bool) -> None:
        self.path = path
        path.mkdir()
        self.can_be_filled = mounts and mount_small(path, options)

    def fill(self, left: int) -> None:
        """Leaves so many bytes."""
        with open(self.path / "filler", "wb", buffering=0) as filler:
            with contextlib.suppress(OSError):
                while filler.write(bytes(4096)):
                    pass
            size = filler.tell()
            filler.truncate(max(0, size - left))

    def fill_with_files(self) -> None:
        (self.path / "fillers").mkdir()
        with contextlib.suppress(OSError):
            for number in range(STATE_FOLDER_FILES):
                (self.path / "fillers" / str(number)).touch()

    def empty(self) -> None:
        (self.path / "filler").unlink(missing_ok=True)
        with contextlib.suppress(FileNotFoundError):
            for filler in (self.path / "fillers").iterdir():
                filler.unlink()
            (self.path / "fillers").rmdir()

    def close(self) -> None:
        if self.can_be_filled:
            unmount(self.path)


Holdings = tuple[int, int, int]
"""Threads, descriptors and, under Wine, handles."""


class NamedInstallation(Installation):
    """The executable under another name, by which Wine's table of handles is read."""

    def __init__(self, target: Target, root: Path, name: str) -> None:
        super().__init__(target, root / name)
        self._name = f"kova-mcp-{name}-{os.getpid()}.exe"

    def executable(self, library: str | None = None, folder: Path | None = None) -> Path:
        plain = super().executable(library, folder)
        return plain.rename(plain.with_name(self._name))


class Engine:
    """The sample engine, always on the same port."""

    def __init__(self, executable: Path, folder: Path) -> None:
        self.data = folder / "data"
        self.data.mkdir(parents=True)
        self.database = self.data / "SALES.db"
        make_database(self.database, "PRAGMA journal_mode=WAL;" + DATABASE)
        users = folder / "users"
        users.write_text(f"{USER}:{PASSWORD}\n", encoding="utf-8")
        self.port = free_port()
        self._command = [str(executable), "--data", str(self.data), "--users", str(users),
                         "--port", str(self.port), "--connections", "100"]
        self.start()

    def start(self) -> None:
        end = time.monotonic() + TIMEOUT
        while True:
            self.process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL,
                                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            assert self.process.stdout is not None
            if b"ready" in self.process.stdout.readline():
                return
            self.end(signal.SIGKILL)
            assert time.monotonic() < end, "the engine does not start"
            time.sleep(0.1)

    def end(self, how: signal.Signals) -> None:
        self.process.send_signal(how)
        wait_for_end(self.process)
        assert self.process.stdout is not None
        self.process.stdout.close()

    def clients(self) -> int:
        """The threads that serve a client."""
        return [processes.name(int(task)) for task in
                os.listdir(f"/proc/{self.process.pid}/task")].count("client")


class Proxy:
    """HAProxy with the configuration of deploy/, always on the same port."""

    def __init__(self, folder: Path, listener_port: int) -> None:
        folder.mkdir()
        self.certificate = make_certificate(folder)
        self.port = free_port()
        self._log = folder / "log"
        self._configuration = folder / "haproxy.cfg"
        self._configuration.write_text(
            haproxy_configuration(self.certificate, self.port, [listener_port]), encoding="utf-8")
        self.start()

    def start(self) -> None:
        with open(self._log, "wb") as log:
            self.process = subprocess.Popen(haproxy_command(self._configuration),
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            start_new_session=True)
        wait_until(lambda: b"Loading success" in self._log.read_bytes(), TIMEOUT, "HAProxy")

    def end(self, how: signal.Signals = signal.SIGKILL) -> None:
        os.killpg(self.process.pid, how)
        wait_for_end(self.process)
        wait_until(lambda: processes.of_group(self.process.pid) == [], TIMEOUT,
                   "the end of HAProxy's processes")

    def processes(self) -> list[int]:
        return [pid for pid in processes.naming(str(self._configuration))]


class Stage:
    """Everything that a run starts. It closes what it has started."""

    def __init__(self, target: Target, engine: Path, folder: Path, *, mounts: bool,
                 clock: "Clock | None") -> None:
        self.target = target
        self.folder = folder
        self.clock = clock
        self.executable, self.stdio_executable = (
            NamedInstallation(target, folder / "installed", name).executable("sample")
            for name in ("http", "stdio"))
        with ExitStack() as opened:
            self.audit = SmallFolder(folder / "audit", f"size={AUDIT_FOLDER_SIZE}", mounts)
            opened.callback(self.audit.close)
            self.state = SmallFolder(folder / "state", f"size=16m,nr_inodes={STATE_FOLDER_FILES}",
                                     mounts)
            opened.callback(self.state.close)
            self.markers = self.state.path / "markers"
            self.markers.mkdir()
            self.audit_file = self.audit.path / "audit.jsonl"
            self.engine = Engine(engine, folder / "engine")
            opened.callback(lambda: self.engine.end(signal.SIGTERM))
            self.env = self._environment()
            self.stdio_rest: Holdings = (0, 0, 0)  # of an idle stdio server; the run measures it
            self._expect_the_clock_to_move()
            self.listener_port = 0
            self.start_listener()
            opened.callback(self._end_listener)
            self.proxy = Proxy(folder / "proxy", self.listener_port)
            opened.callback(lambda: self.proxy.end())
            self._opened = opened.pop_all()

    def _environment(self) -> dict[str, str]:
        policy = self.folder / "policy.json"
        policy.write_text(json.dumps({
            **POLICY, "approval_state_directory": self.target.path(self.markers)}))
        return {
            "KOVA_MCP_POLICY": self.target.path(policy), "KOVA_MCP_CLIENT_ID": POLICY["client_id"],
            "KOVA_MCP_SERVER": LOOPBACK, "KOVA_MCP_PORT": str(self.engine.port),
            "KOVA_MCP_DATABASE": "SALES", "KOVA_MCP_USER": USER, "KOVA_MCP_PASSWORD": PASSWORD,
            "KOVA_MCP_AUDIT": self.target.path(self.audit_file),
            "KOVA_MCP_APPROVAL_SECRET": SECRET,
            "KOVA_MCP_HTTP_BEARER_TOKEN": TOKEN, "KOVA_MCP_HTTP_RATE_PER_MINUTE": "1000000",
            "KOVA_MCP_HTTP_ALLOWED_HOSTS": "localhost",
            **(self.clock.env if self.clock else {})}

    def _expect_the_clock_to_move(self) -> None:
        """An approval that is issued in a moved hour says so."""
        if self.clock is None:
            return
        self.clock.set_wall(3600)
        issuer = Server(self.target, self.executable, ["--issue-approval"], self.env, self.folder)
        issuer.send(b"0" * 64 + b"\n")
        token = issuer.finish().stdout
        self.clock.set_wall(0)
        moved = int(token.split(b".")[1]) - time.time()
        assert abs(moved - 3600 - POLICY["approval_ttl_seconds"]) < 60, token

    def start_stdio(self, **options: object) -> Server:
        return Server(self.target, self.stdio_executable, [], self.env, self.folder,
                      **options)  # type: ignore[arg-type]

    def start_listener(self) -> None:
        """On the port of the first one, once there is one."""
        end = time.monotonic() + TIMEOUT
        ports = free_ports()
        while time.monotonic() < end:
            port = self.listener_port or next(ports)
            self.listener = Server(self.target, self.executable, ["--http", str(port)], self.env,
                                   self.folder)
            while self.listener.process.poll() is None:
                if b"(TLS termination required)" in self.listener.stderr:
                    self.listener_port = port
                    return
                time.sleep(0.005)
            self.listener.close()
            time.sleep(0.1)
        raise AssertionError("the listener does not start")

    def sessions(self) -> list[int]:
        """The processes of the listener's sessions."""
        found = self.listener.processes()
        workers = processes.workers(found)
        return [pid for pid in found if pid != self.listener.process.pid and pid not in workers]

    def _end_listener(self) -> None:
        self.listener.kill()
        self.listener.expect_no_process(TIMEOUT)
        self.listener.close()  # It also ends what Wine has left in its loader.

    def holdings(self) -> Holdings:
        """The listener's."""
        return self._holdings(self.listener, self.executable)

    def stdio_holdings(self, server: Server) -> Holdings:
        """A stdio server's. Under Wine there may be one at a time, and no worker of it."""
        return self._holdings(server, self.stdio_executable)

    def _holdings(self, server: Server, executable: Path) -> Holdings:
        """A descriptor of Wine's is a socket or pipe; processes, jobs, events and threads are
        handles alone."""
        task, fd = (len(os.listdir(f"/proc/{server.process.pid}/{kind}"))
                    for kind in ("task", "fd"))
        return task, fd, self._handles(executable)

    def _handles(self, executable: Path) -> int:
        if not self.target.windows:
            return 0
        helper = self.target.build / "tests" / "support" / "handle-count.exe"
        env = self.target.environment(self.clock.env if self.clock else {})
        told = subprocess.run(wine.command(helper, executable.name), stdout=subprocess.PIPE,
                              env=env, check=True, timeout=TIMEOUT)
        return int(told.stdout)

    def close(self) -> None:
        self._opened.close()
