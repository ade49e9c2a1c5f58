"""./run http, as a user types it. It uses the checkout's own build folder."""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
import uuid
from pathlib import Path
from typing import Any, Iterator

import pytest

from harness import processes
from harness.front_ends import Caller, Response
from harness.messages import request
from harness.targets import Target
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.xdist_group("run")

ROOT = Path(__file__).resolve().parents[2]
STATE = ROOT / "build" / "run"
MARKER = "KOVA_RUN_SESSION"


class Served:
    """A running ./run http, and what it has printed until it serves."""

    def __init__(self, target: Target) -> None:
        self.marker = uuid.uuid4().hex
        command = [str(ROOT / "run"), "http", *(["windows"] if target.windows else [])]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True,
                                        env={**os.environ, MARKER: self.marker})
        self.text = self._read_what_it_prints()
        entry = self.text[self.text.index('{\n  "mcpServers"'):]
        self.entry, _ = json.JSONDecoder().raw_decode(entry)
        self.certificate = Path(self.printed("Certificate"))
        self.port = int(self.printed("URL").split(":")[2].partition("/")[0])
        self.folder = self.certificate.parent

    def _read_what_it_prints(self) -> str:
        assert self.process.stdout is not None
        text = ""
        for line in self.process.stdout:
            text += line
            if line.startswith("curl "):
                return text
        raise AssertionError(text)

    def printed(self, name: str) -> str:
        match = re.search(rf"^{name} +(\S+)$", self.text, re.M)
        assert match is not None, self.text
        return match[1]

    def ask(self, message: bytes, **headers: str) -> Response:
        [server] = self.entry["mcpServers"].values()
        return Caller(self).ask(message, headers={**server["headers"], **headers})

    def processes(self) -> dict[int, str]:
        """By the inherited marker; nginx overwrites its environment, so by its command line."""
        found = {*processes.marked(self.marker, MARKER), *processes.naming(str(self.folder))}
        names = {pid: processes.name(pid) for pid in found}
        return {pid: name for pid, name in names.items()
                if name.startswith(("kova-", "python3", "run", "nginx"))}

    def end(self, number: signal.Signals = signal.SIGINT) -> str:
        assert self.process.stdout is not None
        self.process.send_signal(number)
        rest = self.process.stdout.read()
        self.process.wait(TIMEOUT)
        return rest


@pytest.fixture
def served(prepared: list[str], target: Target) -> Iterator[Served]:
    made = Served(target)
    yield made
    if made.process.poll() is None:
        made.end()
    wait_until(lambda: not made.processes(), TIMEOUT, "the end of everything that was started")


def result_of(response: Response) -> Any:
    assert response.status == 200, response
    return json.loads(response.body)["result"]


def test_what_it_prints_serves_a_client(served: Served, target: Target) -> None:
    assert f"Serving the sample database with {target.executable.name} behind nginx." in served.text
    url, token = served.printed("URL"), served.printed("Bearer token")
    assert re.fullmatch(r"https://localhost:\d+/mcp", url)
    assert len(token) >= 32
    assert served.entry == {"mcpServers": {"vantreo-sample": {
        "type": "http", "url": url, "headers": {"Authorization": f"Bearer {token}"}}}}
    first = served.ask(request("initialize", 1, {}))
    session = {"Mcp-Session-Id": first.header("Mcp-Session-Id")}
    assert result_of(first)["serverInfo"]["name"] == "Vantreo MCP"
    query = request("tools/call", 2, {"name": "kova_query", "arguments": {
        "sql": "SELECT COUNT(NAME) AS N FROM PACKAGES"}})
    assert int(result_of(served.ask(query, **session))["structuredContent"]["rows"][0][0]) > 1000
    assert served.ask(query, Authorization="Bearer " + "x" * 32).status == 401


def test_the_command_that_it_prints(served: Served) -> None:
    command = served.text.splitlines()[-1]
    done = subprocess.run(["sh", "-c", command], capture_output=True, text=True, timeout=TIMEOUT,
                          check=True)
    head, _, body = done.stdout.partition("\n\n")
    assert head.splitlines()[0].split()[1] == "200"
    assert "mcp-session-id:" in head.lower()
    assert json.loads(body)["result"]["serverInfo"]["name"] == "Vantreo MCP"


def test_the_key_is_for_its_owner_only(served: Served) -> None:
    key = served.certificate.with_name("server.pem.key")
    assert key.stat().st_mode & 0o077 == 0
    assert served.folder.stat().st_mode & 0o077 == 0
    assert served.folder.parent == STATE


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_it_stops_everything(served: Served, number: signal.Signals) -> None:
    """With an open session, so that its process is running, too."""
    assert served.ask(request("initialize", 1, {})).status == 200
    names = {name[:8] for name in served.processes().values()}
    assert names >= {"kova-mcp", "kova-sam", "nginx", "python3"}
    rest = served.end(number)
    assert (served.process.returncode, rest.splitlines()[-1]) == (
        130, "./run: interrupted; nothing is left running.")
    assert served.processes() == {}
    assert not served.folder.exists()


def test_nothing_runs_on_without_it(served: Served) -> None:
    assert served.ask(request("initialize", 1, {})).status == 200
    served.end(signal.SIGKILL)
    wait_until(lambda: not served.processes(), TIMEOUT, "the end of everything that was started")


@pytest.mark.parametrize("name", ["nginx", "kova-sample-engine", "--http"])
def test_it_says_what_has_ended(served: Served, name: str) -> None:
    words = {"nginx": "nginx has ended", "kova-sample-engine": "the sample engine has ended",
             "--http": "the listener has ended"}
    os.kill(process_with(served, name), signal.SIGKILL)
    assert served.process.stdout is not None
    rest = served.process.stdout.read()
    assert served.process.wait(TIMEOUT) == 1
    assert rest.splitlines()[-1].startswith(f"./run failed: {words[name]}")


def process_with(served: Served, word: str) -> int:
    found = [pid for pid in served.processes()
             if word.encode() in Path(f"/proc/{pid}/cmdline").read_bytes()]
    assert len(found) == 1, found
    return found[0]


@pytest.mark.parametrize("arguments, word", [
    (["http", "linux"], "linux"), (["http", "windows", "x"], "x"), (["serve", "http"], "http")])
def test_bad_arguments_get_one_line(arguments: list[str], word: str) -> None:
    done = subprocess.run([str(ROOT / "run"), *arguments], capture_output=True, text=True,
                          timeout=TIMEOUT, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (
        2, "", f"run: unexpected argument {word}; try --help\n")
