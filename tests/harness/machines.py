"""Machines on a network of their own, all of them on this one: Linux namespaces.

Each machine has its own network, processes and host name; one network namespace with a bridge is
the switch between them. Nothing of this system's own network is touched. A machine's first process
waits for the end of its input; when it ends, also because the test has been killed, the kernel ends
every process of the machine, and its interfaces go with it.
"""

from __future__ import annotations

import ctypes
import os
import signal
import socket
import subprocess
import threading
from pathlib import Path
from typing import Mapping, Sequence

from harness import processes
from harness.waiting import TIMEOUT, wait_for_end, wait_until

CLONE_NEWNET = 0x40000000
PREFIX_LENGTH = 24

FIRST_PROCESS = 'hostname "$1"; ip link set lo up; echo up; cat'
"""The shell waits for `cat`, and collects the processes that have lost their parents."""

BRIDGE = "ip link add switch type bridge && ip link set switch up"


def first_process(name: str) -> list[str]:
    return ["unshare", "--net", "--pid", "--uts", "--fork", "--kill-child",
            "sh", "-euc", FIRST_PROCESS, "sh", name]


class Program:
    """A program that runs on a machine."""

    def __init__(self, entered: "subprocess.Popen[bytes]", log: Path) -> None:
        self._entered = entered
        self._log = log
        wait_until(lambda: _children(entered.pid) or entered.poll() is not None, TIMEOUT,
                   "the start of a program")
        self.pid = next(iter(_children(entered.pid)), 0)

    def running(self) -> bool:
        return self._entered.poll() is None

    def log(self) -> str:
        return self._log.read_text("utf-8", errors="replace")

    def end(self, number: int = signal.SIGTERM) -> None:
        if self.running():
            os.kill(self.pid, number)
        self.wait()

    def wait(self) -> None:
        wait_for_end(self._entered)


class Machine:
    """One machine; the first one that is made is the switch."""

    def __init__(self, name: str, folder: Path) -> None:
        self.name = name
        self.folder = folder
        folder.mkdir(exist_ok=True)
        self.programs: list[Program] = []
        with open(folder / "machine.log", "ab") as log:
            self._holder = subprocess.Popen(first_process(name), stdin=subprocess.PIPE, stderr=log,
                                            stdout=subprocess.PIPE, start_new_session=True)
        assert self._holder.stdout is not None
        assert self._holder.stdout.readline() == b"up\n", f"{name} does not start"
        [self.pid] = _children(self._holder.pid)

    def run(self, *command: str, env: "Mapping[str, str] | None" = None,
            data: bytes = b"") -> str:
        """Runs a command in the machine's network to its end; returns its output. It stays among
        this system's processes, by whose numbers `ip` finds another machine."""
        done = subprocess.run(self._entering(command, "--net", "--uts"), input=data, env=env,
                              capture_output=True, timeout=TIMEOUT, check=False)
        assert done.returncode == 0, (command, done.stderr)
        return done.stdout.decode()

    def start(self, name: str, command: Sequence[str],
              env: "Mapping[str, str] | None" = None) -> Program:
        path = self.folder / f"{name}.log"
        with open(path, "ab") as log:
            entered = subprocess.Popen(self._entering(command, "--net", "--pid", "--uts"), env=env,
                                       stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.programs.append(Program(entered, path))
        return self.programs[-1]

    def _entering(self, command: Sequence[str], *namespaces: str) -> list[str]:
        return ["nsenter", "--target", str(self.pid), *namespaces, *command]

    def connect(self, address: str, port: int, timeout: float = TIMEOUT) -> socket.socket:
        """A connection from this machine. A socket stays in the network that it was made in, so
        only the thread that makes it has to enter."""
        outcome: list[socket.socket | OSError] = []

        def make() -> None:
            try:
                _enter_network(self.pid)
                outcome.append(socket.create_connection((address, port), timeout))
            except OSError as error:
                outcome.append(error)

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        if isinstance(outcome[0], OSError):
            raise outcome[0]
        return outcome[0]

    def accepts(self, address: str, port: int) -> bool:
        try:
            self.connect(address, port, 1.0).close()
        except OSError:
            return False
        return True

    def unplug(self) -> None:
        self.run("ip", "link", "set", "eth0", "down")

    def plug(self) -> None:
        self.run("ip", "link", "set", "eth0", "up")

    def crash(self) -> None:
        """Ends every process of the machine at once, and the machine, unless it has ended."""
        if self._holder.poll() is not None:
            return
        inside = _namespace(self.pid)
        os.kill(self.pid, signal.SIGKILL)
        self._holder.wait(TIMEOUT)
        assert self._holder.stdin is not None and self._holder.stdout is not None
        self._holder.stdin.close()
        self._holder.stdout.close()
        for program in self.programs:
            program.wait()
        wait_until(lambda: not _processes_in(inside), TIMEOUT, f"the end of {self.name}")


class Network:
    """A switch and the machines at it."""

    def __init__(self, folder: Path) -> None:
        self._folder = folder
        self._switch = Machine("switch", folder / "switch")
        self._machines: dict[str, Machine] = {}
        self._switch.run("sh", "-euc", BRIDGE)

    def add(self, name: str, address: str) -> Machine:
        """A machine of this name and address; in the place of one that has crashed, if any. The
        hardware's address stays the same, which others remember for half a minute."""
        machine = Machine(name, self._folder / name)
        self._machines[name] = machine
        self._switch.run("ip", "link", "add", name, "type", "veth", "peer", "name", "eth0",
                         "address", _hardware_address(address), "netns", str(machine.pid))
        self._switch.run("ip", "link", "set", name, "master", "switch", "up")
        machine.run("ip", "address", "add", f"{address}/{PREFIX_LENGTH}", "dev", "eth0")
        machine.plug()
        return machine

    def close(self) -> None:
        for machine in [*self._machines.values(), self._switch]:
            machine.crash()


def _hardware_address(address: str) -> str:
    return ":".join(f"{part:02x}" for part in (2, 0, *socket.inet_aton(address)))


def _enter_network(pid: int) -> None:
    library = ctypes.CDLL(None, use_errno=True)
    descriptor = os.open(f"/proc/{pid}/ns/net", os.O_RDONLY | os.O_CLOEXEC)
    try:
        if library.setns(descriptor, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "cannot enter the network")
    finally:
        os.close(descriptor)


def _children(pid: int) -> list[int]:
    try:
        text = Path(f"/proc/{pid}/task/{pid}/children").read_text("ascii")
    except OSError:
        return []
    return [int(word) for word in text.split()]


def _namespace(pid: int) -> str:
    return os.readlink(f"/proc/{pid}/ns/pid")


def _processes_in(namespace: str) -> list[int]:
    """The processes of a machine that have not ended."""
    found = []
    for name in os.listdir("/proc"):
        try:
            if name.isdigit() and _namespace(int(name)) == namespace:
                found.append(int(name))
        except OSError:
            continue  # it has ended meanwhile
    return [pid for pid in found if not processes.has_closed_everything(pid)]
