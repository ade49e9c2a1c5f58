"""./run and scripts/setup.sh, as a user types them. They use the checkout's own build folder."""

from __future__ import annotations

import hashlib
import json
import os
import pty
import re
import resource
import shutil
import signal
import stat
import subprocess
import tempfile
import uuid
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

from harness import processes
from harness.messages import call, notification, request
from harness.targets import Target
from harness.waiting import TIMEOUT, wait_until

pytestmark = pytest.mark.xdist_group("run")

ROOT = Path(__file__).resolve().parents[2]
RUN = str(ROOT / "run")
STATE = ROOT / "build" / "run"
SETUP = ROOT / "scripts" / "setup.sh"
MARKER = "KOVA_RUN_SESSION"
FIRST_RUN_LIMIT = 600.0  # it may have to build
SECOND_RUN_LIMIT = 30.0
"""Seconds of processor time: what others do on the machine meanwhile is not the run's."""
SCREEN = (24, 100)


def run(*arguments: str, **options: Any) -> subprocess.CompletedProcess[str]:
    return subprocess.run([RUN, *arguments], capture_output=True, text=True,
                          timeout=FIRST_RUN_LIMIT, check=False, **options)


class Watch:
    """Looks for the processes of the ./run that is started with its environment."""

    def __init__(self) -> None:
        self.marker = uuid.uuid4().hex
        self.environment = {**os.environ, MARKER: self.marker}

    def left(self) -> list[str]:
        found = [processes.name(pid) for pid in processes.marked(self.marker, MARKER)]
        return [name for name in found if name.startswith(("kova-", "python3", "run"))]


@pytest.fixture
def watch() -> Iterator[Watch]:
    made = Watch()
    yield made
    wait_until(lambda: not made.left(), TIMEOUT, "the end of everything that ./run has started")


@dataclass(frozen=True)
class Played:
    """A whole session after the first one: what it has printed, how much processor time it took,
    what it left."""

    text: str
    processor_seconds: float
    left: list[str]


@pytest.fixture(scope="module")
def played(prepared: list[str]) -> Played:
    watch = Watch()
    before = processor_seconds()
    done = subprocess.run(prepared, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=FIRST_RUN_LIMIT, check=False, env=watch.environment)
    used = processor_seconds() - before
    assert (done.returncode, done.stderr) == (0, ""), done.stdout
    return Played(done.stdout, used, watch.left())


def processor_seconds() -> float:
    """Of the children that have ended, and of theirs."""
    children = resource.getrusage(resource.RUSAGE_CHILDREN)
    return children.ru_utime + children.ru_stime


# the played session


def test_the_session(played: Played, target: Target) -> None:
    assert 0 < played.processor_seconds < SECOND_RUN_LIMIT
    assert played.left == []
    text = played.text
    assert text.splitlines()[-1] == (
        f"Session complete on {target.name}: 39 requests served, 14 calls refused as the policy"
        " wants it, 1 cancelled, 2 approved and written; nothing is left running.")
    for method in ("initialize", "notifications/initialized", "tools/list", "tools/call",
                   "notifications/cancelled"):
        assert f'"method": "{method}"' in text
    for tool in ("kova_list_databases", "kova_list_tables", "kova_query", "kova_describe_table"):
        assert f'"params": {{"name": "{tool}"' in text
    for reply in ('"truncated": true', "column is denied by MCP policy",
                  "table is not allowed by MCP policy", "sql must be one bounded read-only SELECT",
                  '"text": "request cancelled"', "another MCP database tool is still active",
                  "MCP_CONFIG_OK policy=sample_reads", "database_profile=authenticated",
                  "MCP_CONFIG_INVALID: MCP launch identity does not match named policy",
                  "MCP_CONFIG_INVALID: authenticated database profile unavailable"):
        assert reply in text
    assert re.search(r"^Cancelled: the call ended [\d.]+ m?s after the notification\.$", text, re.M)
    assert re.search(r"-> interrupted \(\d+ ms\)$", text, re.M)
    assert re.search(r"^ +libs +\d+ +\d+$", text, re.M), "no table of rows"
    assert re.search(r"^ +\d+  kova_describe_table +deny ", text, re.M), "no audit line"
    assert "\x1b" not in text and "\r" not in text


def test_the_second_act(played: Played, target: Target) -> None:
    text = played.text[played.text.index("\n10. "):played.text.index("\n16. ")]
    statement = re.search(r'^\$ printf %s "(INSERT INTO NOTES .*;)" \| sha256sum$', text, re.M)
    assert statement is not None
    digest = hashlib.sha256(statement[1].encode()).hexdigest()
    token = re.search(rf"^  v1\.\d+\.[0-9a-f]{{32}}\.{digest}\.[0-9a-f]{{64}}$", text, re.M)
    assert token is not None
    server = re.escape(target.executable.name)
    appear_in_order(text, [
        "kova_query, kova_vector_search, kova_ai_status, kova_execute$",
        '"text": "write type or target table is not allowed by MCP policy"',
        '"text": "operator approval is required for this exact normalized operation"',
        f'"operation_digest": "{digest}"',
        f"^  {digest}  -$",
        rf"^\$ echo {digest} \| {server} --issue-approval$",
        "^" + re.escape(token[0]) + "$",
        "Upgrade without the backup",
        '"text": "approval token fields or operation binding are invalid"',
        '"status": "1 row inserted"',
        '"text": "approval token was already used or replay state is unavailable"',
        r"^ +\d+  sqlite3  Upgrade after the backup",
        "kova_query, kova_vector_search, kova_ai_status$",
        '"error": {"code": -32602, "message": "unknown Vantreo tool"}',
        rf"^\$ echo {digest} \| KOVA_MCP_DISABLE_WRITES=1 {server} --issue-approval$",
        "^  approval issuance failed: approval request or policy is invalid$",
        "^  exit code 2$"])
    audited = re.findall(r"^ +\d+  (kova_\w+) +(allow|deny|approval_\w+) +(NOTES|policy-select|) "
                         r".* (ok|error)$", text, re.M)
    assert audited == [
        ("kova_execute", "allow", "", "error"),
        ("kova_execute", "approval_required", "NOTES", "error"),
        ("kova_execute", "deny", "NOTES", "error"),
        ("kova_execute", "approval_accepted", "NOTES", "ok"),
        ("kova_execute", "deny", "NOTES", "error"),
        ("kova_query", "allow", "policy-select", "ok")]


def test_the_third_act(played: Played, target: Target) -> None:
    assert re.search(r"^AI collections of the sample data: sample\.PACKAGE_TEXTS: \d+ vectors ",
                     played.text, re.M)
    text = played.text[played.text.index("\n16. "):played.text.index("\n24. ")]
    hit = r"^ +1 +0\.\d+ +\d+  "
    appear_in_order(text, [
        "kova_vector_search, kova_text_search, kova_hybrid_search, kova_ai_status$",
        '"text": "tool to edit photos"', r"^ +RANK +SCORE +VECTOR_ID +SOURCE_KEY$", hit + r"\S+$",
        '"source_table": "PACKAGES"', r"SOURCE_KEY +SECTION +INSTALLED_SIZE +SUMMARY$",
        hit + r"\S+ +graphics +\d+  \S", r"^ +10 +0\.\d+ ",
        "FROM PACKAGE_TEXTS_VECTORS WHERE SOURCE_KEY = 'gimp'", r"^  gimp +\[-?\d+\.\d+,",
        '"vector": [', r"^ +1 +1\.0 +\d+  gimp$",
        '"provider": "LOCAL"', r"^  STATE +READY$", r"^  VECTORS +\d{4,}$",
        r"^  TEMPORARY_TABLES +0$", r"^  LOCAL +READY ", r"^ +\d+ +BUILD +DONE ",
        '"collection": "NOTE_TEXTS"', "collection is invalid or not allowed by MCP policy",
        '"columns": ["SUMMARY", "MAINTAINER"]', "hybrid column is denied by MCP policy",
        "kova_query, kova_vector_search, kova_ai_status$",
        "provider-backed MCP reads are disabled by policy or kill switch",
        r"^ +1 +1\.0 +\d+  gimp$"])
    audited = re.findall(r"^ +\d+  (kova_\w+) +(allow|deny|kill_switch) +(PACKAGE_TEXTS(?:,LOCAL)?"
                         r"|policy-select|) .* (ok|error)$", text, re.M)
    assert audited == [
        ("kova_text_search", "allow", "PACKAGE_TEXTS", "ok"),
        ("kova_hybrid_search", "allow", "", "ok"),
        ("kova_query", "allow", "policy-select", "ok"),
        ("kova_vector_search", "allow", "PACKAGE_TEXTS", "ok"),
        ("kova_ai_status", "allow", "PACKAGE_TEXTS,LOCAL", "ok"),
        ("kova_text_search", "deny", "", "error"),
        ("kova_hybrid_search", "allow", "", "error"),
        ("kova_text_search", "kill_switch", "", "error"),
        ("kova_vector_search", "allow", "PACKAGE_TEXTS", "ok")]
    log = (STATE / f"engine-{target.name}.log").read_text("utf-8", "replace")
    made = re.findall(r"INTO TEMP (mcp_hits_\d+_\d+); -> OK", log)
    assert made and f"DROP TABLE {made[-1]}; -> OK" in log


def test_the_fourth_act(played: Played, target: Target) -> None:
    text = played.text[played.text.index("\n24. "):played.text.index("\n30. ")]
    tool = re.escape("kova-admin.exe" if target.windows else "kova-admin")
    appear_in_order(text, [
        rf"^\$ {tool} init --folder\b", "--writes approval", "Wrote ", "Next: kova-admin doctor",
        rf"^\$ {tool} doctor --env\b",
        'KOVA_MCP_CLIENT_ID is "desk-clent", the policy\'s client_id is "desk-client"',
        r"^  and \d+ of 18 checks are ok$",
        "# The name is mended.", rf"^\$ {tool} doctor --env\b", r"^  and \d+ of 18 checks are ok$",
        '"args": ["serve", "--env",',
        '"text": "operator approval is required for this exact normalized operation"',
        rf"^\$ {tool} approve --env\b", "--digest", "The canonical statement", "Reason: ",
        "Type yes: yes", "^  exit code 0$", r"^  .*token: v1\.\d+\.[0-9a-f]{32}\.",
        '"status": "1 row inserted"',
        '"text": "approval token was already used or replay state is unavailable"',
        rf"^\$ {tool} approvals list --env", r"^  used  .*  table NOTES  used 20.*  nonce "])
    canonical = "".join(re.findall(r"^  \|  +\d+:\d+ +\| (.*)$",
                                   text[text.index("The canonical statement"):], re.M))
    digest = hashlib.sha256(canonical.encode()).hexdigest()
    assert re.search(rf'^  \| digest +{digest}$', text, re.M) is not None
    assert f'"operation_digest": "{digest}"' in text
    secret = re.search(r"^KOVA_MCP_APPROVAL_SECRET='(.*)'$",
                       (STATE / target.name / "desk" / "sample" / "kova-mcp.env").read_text(), re.M)
    assert secret is not None and secret[1] not in played.text


def test_the_fifth_act(played: Played, target: Target) -> None:
    text = played.text[played.text.index("\n30. "):]
    tool = re.escape("kova-admin.exe" if target.windows else "kova-admin")
    appear_in_order(text, [
        rf"^\$ {tool} policy explain\b", "^  exit code 0$", rf"^\$ {tool} policy explain\b",
        "column is denied by MCP policy", "^  exit code 1$",
        rf"^\$ {tool} policy test\b", "^  1..3$", "^  ok 3 - no writes$", "^  exit code 0$",
        rf"^\$ {tool} policy diff\b", "MAINTAINER", "^  exit code 1$",
        rf"^\$ {tool} audit report\b", "^  exit code 0$"])
    place = re.search(r"^The report of this session: (.*)$", text, re.M)
    assert place is not None
    page = Path(place[1]).read_text("utf-8")
    # The calls of all acts, and who approved the one at the desk.
    for words in ("kova_text_search", "desk-client", "sample-client", "approval_accepted",
                  "the package&#39;s maintainer asked for it"):
        assert words in page
    assert STATE in Path(place[1]).parents


def appear_in_order(text: str, patterns: list[str]) -> None:
    """Patterns that begin with ^ or end with $ are regular expressions of lines."""
    at = 0
    for pattern in patterns:
        lines = pattern.startswith("^") or pattern.endswith("$")
        found = re.compile(pattern if lines else re.escape(pattern), re.M).search(text, at)
        assert found is not None, f"{pattern} is missing after {text[max(at - 200, 0):at]}"
        at = found.end()


def test_what_the_second_act_leaves_behind(prepared: list[str], target: Target) -> None:
    """The secret is for its owner only; it stands in no other file, and no token does."""
    secret_file = STATE / "approval-secret"
    assert stat.S_IMODE(secret_file.stat().st_mode) == 0o600
    secret = secret_file.read_bytes().strip()
    assert len(secret) == 64
    folder = STATE / target.name
    policy = json.loads((folder / "policy-notes.json").read_text("utf-8"))
    assert policy["write_tables"] == ["NOTES"]
    assert policy["approval_state_directory"] == target.path(folder / "approvals")
    markers = list((folder / "approvals").iterdir())
    assert markers and all(re.fullmatch(r"[0-9a-f]{32}\.used", path.name) for path in markers)
    readable = [folder / "policy-notes.json", STATE / f"audit-{target.name}.jsonl",
                STATE / f"engine-{target.name}.log"]
    for path in readable:
        content = path.read_bytes()
        assert secret not in content, path
        assert re.search(rb"v1\.\d{10}\.", content) is None, path


@pytest.mark.slow
def test_colour_on_a_terminal(prepared: list[str], watch: Watch) -> None:
    terminal, screen = pty.openpty()
    environment = {**watch.environment, "TERM": "xterm"}
    environment.pop("NO_COLOR", None)
    with subprocess.Popen(prepared, stdin=screen, stdout=screen, stderr=screen,
                          env=environment) as process:
        os.close(screen)
        shown = read_all(terminal)
    assert process.returncode == 0
    assert "\x1b[36m→ " in shown and "\x1b[32m← " in shown and "\x1b[31m← " in shown


def read_all(terminal: int) -> str:
    data = b""
    try:
        while block := os.read(terminal, 65536):
            data += block
    except OSError:
        pass  # the end of a terminal
    os.close(terminal)
    return data.decode()


@pytest.mark.parametrize("number", [
    signal.SIGINT, *(pytest.param(number, marks=pytest.mark.slow)
                     for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGKILL))])
def test_nothing_is_left_of_an_interrupted_session(prepared: list[str], watch: Watch,
                                                   number: signal.Signals) -> None:
    """In the middle of the slow query, when the engine, the server and a worker are there."""
    with subprocess.Popen(prepared, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          text=True, env=watch.environment) as process:
        assert process.stdout is not None
        lines = iter(process.stdout)
        assert any(line.startswith("The query runs") for line in lines)
        assert {name[:15] for name in watch.left()} >= {"kova-sample-eng"}
        process.send_signal(number)
        rest = list(lines)
    if number == signal.SIGKILL:
        assert process.returncode == -signal.SIGKILL
    else:
        assert (process.returncode, rest[-1]) == (
            130, "./run: interrupted; nothing is left running.\n")
        assert watch.left() == []


def test_a_reader_that_goes_away_ends_the_session(prepared: list[str], watch: Watch) -> None:
    with subprocess.Popen(prepared, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=watch.environment) as process:
        assert process.stdout is not None and process.stderr is not None
        process.stdout.readline()
        process.stdout.close()
        assert process.stderr.read() == b""
        assert process.wait(TIMEOUT) == 1


# ./run serve


def test_serve_speaks_protocol_only(prepared: list[str], watch: Watch) -> None:
    with subprocess.Popen([RUN, "serve"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=watch.environment) as process:
        assert process.stdin is not None and process.stdout is not None
        replies = []
        # Each call waits for its reply: one that came during another would be refused as busy.
        for sent in (request("initialize", 1, {}) + notification("notifications/initialized"),
                     call(2, "kova_query", {"sql": "SELECT COUNT(NAME) AS N FROM PACKAGES"}),
                     call(3, "kova_execute", {"sql": "DELETE FROM NOTES"})):
            process.stdin.write(sent)
            process.stdin.flush()
            replies.append(json.loads(process.stdout.readline()))
        rest, diagnostics = process.communicate(timeout=TIMEOUT)
    assert (process.returncode, rest) == (0, b"")
    first, second, third = replies
    assert first["id"] == 1 and first["result"]["serverInfo"]["name"] == "Vantreo MCP"
    assert int(second["result"]["structuredContent"]["rows"][0][0]) > 1000
    assert third["error"] == {"code": -32602, "message": "unknown Vantreo tool"}
    assert b"Serving the sample database" in diagnostics
    assert watch.left() == []


def test_serve_is_what_a_client_starts(prepared: list[str], watch: Watch,
                                       sdk_session: Callable[..., Any]) -> None:
    server = {"command": RUN, "args": ["serve"], "env": watch.environment}
    session = sdk_session("calls", server, calls=[
        {"name": "kova_list_tables", "args": {}},
        {"name": "kova_query", "args": {"sql": "SELECT MAINTAINER FROM PACKAGES"}}])
    tables, refused = [outcome["result"] for outcome in session["findings"]]
    assert tables["structuredContent"]["rows"] == [
        ["PACKAGES"], ["SECTIONS"], ["DEPENDS"], ["PACKAGE_TEXTS_VECTORS"]]
    assert refused["content"][0]["text"] == "column is denied by MCP policy"
    assert (session["closed"]["exitCode"], session["errors"]) == (0, [])


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_nothing_is_left_of_a_server_whose_client_ends_it(prepared: list[str], watch: Watch,
                                                          number: signal.Signals) -> None:
    with subprocess.Popen([RUN, "serve"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, env=watch.environment) as process:
        assert process.stdin is not None and process.stdout is not None
        process.stdin.write(request("initialize", 1, {}))
        process.stdin.flush()
        assert b'"id":1' in process.stdout.readline()
        process.send_signal(number)
        assert process.stdout.read() == b""


# arguments


def test_help_fits_a_screen() -> None:
    done = run("--help")
    lines = done.stdout.splitlines()
    assert (done.returncode, done.stderr) == (0, "")
    assert len(lines) <= SCREEN[0] and max(map(len, lines)) <= SCREEN[1]
    for words in ("./run windows", "./run serve", "without root", "protocol only",
                  "A second run starts within seconds", "Nothing is left running",
                  "the operator's approval", "kill switch", "approval-secret", "AI search",
                  "The operator's desk: kova-admin",
                  "the report of the session"):
        assert words in done.stdout


@pytest.mark.parametrize("arguments, message", [
    (["linux"], "unknown argument linux"), (["--Help"], "unknown argument --Help"),
    ([""], "unknown argument "), (["serve", "x"], "unexpected argument x"),
    (["windows", "serve", "x"], "unexpected argument serve")])
def test_bad_arguments_get_one_line(arguments: list[str], message: str) -> None:
    done = run(*arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == f"run: {message}; try --help\n"


# scripts/setup.sh, with stand-ins for the system's package tools


class Machine:
    """A machine on which only some packages are installed."""

    def __init__(self, folder: Path, installed: list[str]) -> None:
        self.folder = folder
        self.called = folder / "called"
        self.called.touch(mode=0o666)
        folder.chmod(0o755)
        (folder / "scripts").mkdir(mode=0o755)
        shutil.copy(SETUP, folder / "scripts")
        present = " ".join(installed)
        self._tool("dpkg-query", 'for package in "${@:3}"; do'
                                 f' [[ " {present} " == *" $package "* ]] &&'
                                 ' echo "installed $package"'
                                 '; done; exit 1')
        self._tool("apt-get", f'echo "apt-get $*" >>{self.called}')
        self._tool("systemctl", f'echo "systemctl $*" >>{self.called}')

    def _tool(self, name: str, script: str) -> None:
        path = self.folder / name
        path.write_text(f"#!/bin/bash\n{script}\n", encoding="utf-8")
        path.chmod(0o755)

    def setup(self, *groups: str, root: bool) -> subprocess.CompletedProcess[str]:
        command = [str(self.folder / "scripts" / "setup.sh"), *groups]
        if not root and os.geteuid() == 0:
            command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *command]
        return subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT, check=False,
                              env={"PATH": f"{self.folder}:/usr/bin:/bin"})

    def calls(self) -> list[str]:
        return self.called.read_text("utf-8").splitlines()


@pytest.fixture
def folder() -> Iterator[Path]:
    """A folder that other users can read, unlike pytest's own."""
    with tempfile.TemporaryDirectory() as name:
        yield Path(name)


def packages(group: str) -> list[str]:
    """The packages of a group, in the order in which setup.sh names them."""
    match = re.search(rf"^readonly -a {group}=\((.*?)\)$", SETUP.read_text("utf-8"), re.M | re.S)
    assert match is not None
    return match[1].split()


INSTALLED = ["g++", "python3"]
MISSING = " ".join(name for name in packages("BUILD") + packages("WINDOWS")
                   if name not in INSTALLED)


def test_setup_knows_what_the_build_needs() -> None:
    assert {"g++", "cmake", "ninja-build", "libsqlite3-dev", "python3"} <= set(packages("BUILD"))
    assert {"g++-mingw-w64-x86-64-posix", "wine64"} <= set(packages("WINDOWS"))
    assert {"googletest", "python3-pytest", "clang-tidy", "libbenchmark-dev", "haproxy"} <= set(
        packages("TEST"))
    assert packages("PROXY") == ["nginx", "openssl"]


def test_setup_installs_nothing_when_all_is_there(folder: Path) -> None:
    machine = Machine(folder, packages("BUILD"))
    done = machine.setup("build", root=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert machine.calls() == []


def test_setup_without_root_prints_the_one_command(folder: Path) -> None:
    machine = Machine(folder, INSTALLED)
    done = machine.setup("build", "windows", root=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.splitlines() == [
        f"Debian packages to install: {MISSING}",
        "As root, run:",
        f"  apt-get update && apt-get install -y --no-install-recommends {MISSING}"]
    assert machine.calls() == []


@pytest.mark.skipif(os.geteuid() != 0, reason="installing is for root")
def test_setup_as_root_says_what_it_installs_and_updates_once(folder: Path) -> None:
    machine = Machine(folder, INSTALLED)
    done = machine.setup("build", "windows", root=True)
    assert (done.returncode, done.stdout) == (0, "")
    assert done.stderr.splitlines() == [f"Debian packages to install: {MISSING}"]
    assert machine.calls() == [
        "apt-get update", f"apt-get install -y --no-install-recommends {MISSING}"]


@pytest.mark.skipif(os.geteuid() != 0, reason="installing is for root")
def test_setup_starts_no_service(folder: Path) -> None:
    machine = Machine(folder, packages("BUILD"))
    done = machine.setup("build", "proxy", root=True)
    assert (done.returncode, done.stdout) == (0, "")
    assert machine.calls() == [
        "systemctl mask nginx.service", "apt-get update",
        "apt-get install -y --no-install-recommends nginx openssl",
        "systemctl unmask nginx.service", "systemctl disable nginx.service"]


def test_setup_starts_nothing_of_what_a_release_needs(folder: Path) -> None:
    present = [name for name in packages("RELEASE") if name not in ("logrotate", "podman")]
    machine = Machine(folder, present)
    done = machine.setup("release", root=False)
    units = ("logrotate.timer podman.socket podman.service podman-restart.service"
             " podman-auto-update.service podman-auto-update.timer")
    assert done.stderr.splitlines()[-1] == (
        f"  systemctl mask {units} && apt-get update &&"
        " apt-get install -y --no-install-recommends logrotate podman &&"
        f" systemctl unmask {units} && systemctl disable {units}")


def test_setup_leaves_a_proxy_that_is_there_alone(folder: Path) -> None:
    machine = Machine(folder, packages("PROXY"))
    assert machine.setup("proxy", root=False).returncode == 0
    assert machine.calls() == []


def test_setup_names_a_package_of_two_groups_once(folder: Path) -> None:
    groups = packages("TEST") + packages("PROXY") + packages("MODELS") + packages("RELEASE")
    [shared] = sorted({name for name in groups if groups.count(name) > 1})
    machine = Machine(folder, [name for name in groups if name != shared])
    done = machine.setup("test", "release", root=False)
    assert done.stderr.splitlines()[0] == f"Debian packages to install: {shared}"


@pytest.mark.parametrize("arguments, message", [
    ([], "which group? try --help"), (["all"], "unknown group all; try --help")])
def test_setup_refuses_bad_arguments(folder: Path, arguments: list[str], message: str) -> None:
    done = Machine(folder, []).setup(*arguments, root=False)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", f"setup.sh: {message}\n")
