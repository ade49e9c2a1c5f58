"""The images and the pod of deploy/, made and run by the commands of docs/install.md.

Their base is an empty Debian of this machine's release. The pod has a network of its own with
nothing but the loopback; engine and client are put into it from outside.
"""

from __future__ import annotations

import json
import re
import shutil
import subprocess
from pathlib import Path
from typing import Any, Iterator

import pytest

from harness import newcomer, privileges
from harness.containers import Containers
from harness.messages import call, notification, request
from harness.sample_engine import PASSWORD, make_database
from harness.targets import ROOT
from harness.waiting import TIMEOUT, wait_until
from tls_front_end import make_certificate

BASE = "localhost/empty-debian"
DEPLOY = ROOT / "deploy"
ACCOUNT = 6400
TOKEN = "0123456789abcdef0123456789abcdef"
NAME = "localhost"
"""In the place of mcp.example.com: the certificate of the tests has it."""

ORDERS = """
CREATE TABLE ORDERS (ID INTEGER PRIMARY KEY, PHONE TEXT);
INSERT INTO ORDERS VALUES (1, '1'), (2, '2');
"""
ENDED_BY_SIGTERM = 128 + 15


@pytest.fixture(scope="module")
def allowed() -> None:
    privileges.need("containers")


@pytest.fixture(scope="module")
def containers(allowed: None, empty_debian: Path, debian_package: Path, client_library: Path,
               version: str) -> Iterator[Containers]:
    """With both images."""
    made = Containers()
    try:
        made.import_image(empty_debian, BASE)
        for file in (debian_package, client_library, DEPLOY / "Containerfile"):
            shutil.copy2(file, made.work)
        made.run(block(0, version).replace("buildah build ",
                                           f"buildah build --build-arg BASE={BASE} "))
        yield made
    finally:
        made.close()


def block(number: int, version: str = "") -> str:
    """One of: build, fill the folders, start, stop, remove."""
    found = newcomer.blocks("Container", "sh", VERSION=version)
    assert len(found) == 5
    return found[number]


def changed(path: Path, **changes: str) -> str:
    """A file whose lines with these beginnings have another value."""
    text = path.read_text("utf-8")
    for name, value in changes.items():
        text, count = re.subn(rf"(?m)^{name}=.*$", f"{name}={value}", text)
        assert count == 1, name
    return text


class Pod:
    """The pod of deploy/pod.yaml with its folders below another one."""

    def __init__(self, containers: Containers, folder: Path, engine: Path) -> None:
        self.containers = containers
        self.folder = folder
        self.engine_program = engine
        self.certificate = make_certificate(folder)
        work = containers.work
        for file in (self.certificate, self.certificate.with_name("server.pem.key")):
            shutil.copy2(file, work)
        shutil.copy2(DEPLOY / "policy-read-only.json", work)
        (work / "nginx.conf").write_text(
            (DEPLOY / "nginx.conf").read_text("utf-8").replace("mcp.example.com", NAME),
            encoding="utf-8")
        (work / "kova-mcp-http.env").write_text(
            changed(DEPLOY / "kova-mcp-http.env", KOVA_MCP_SERVER="127.0.0.1",
                    KOVA_MCP_PASSWORD=PASSWORD, KOVA_MCP_HTTP_BEARER_TOKEN=TOKEN,
                    KOVA_MCP_HTTP_ALLOWED_HOSTS=NAME), encoding="utf-8")
        # Another machine may have no network for pods; the port is looked at by a test of its own.
        text = (DEPLOY / "pod.yaml").read_text("utf-8")
        text = text.replace("/srv/kova-mcp", str(folder / "srv"))
        (work / "pod.yaml").write_text(re.sub(r"(?m)^ +ports:\n( +- .*\n +hostPort.*\n)", "", text),
                                       encoding="utf-8")
        containers.run(block(1).replace("/srv/kova-mcp", str(folder / "srv")))
        self.play()

    def play(self) -> None:
        start = block(2).replace("podman kube play ", "podman kube play --network none ")
        self.containers.run(start)
        self.network = ["nsenter", f"--target={self.process('listener')}", "--net"]
        wait_until(lambda: "listening on 127.0.0.1:8080" in self.log("listener"), TIMEOUT,
                   "the listener's first line")

    def process(self, container: str) -> int:
        return int(self.inspect(container, "{{.State.Pid}}"))

    def inspect(self, container: str, what: str) -> str:
        return self.containers.run(
            f"podman inspect --format '{what}' kova-mcp-sales-{container}").strip()

    def log(self, container: str) -> str:
        return self.containers.run(f"podman logs kova-mcp-sales-{container} 2>&1")

    def start_engine(self) -> "subprocess.Popen[bytes]":
        data = self.folder / "data"
        data.mkdir()
        make_database(data / "SALES.db", ORDERS)
        (self.folder / "users").write_text(f"mcp_reader:{PASSWORD}\n", encoding="utf-8")
        engine = subprocess.Popen(
            [*self.network, str(self.engine_program), "--data", str(data), "--users",
             str(self.folder / "users"), "--port", "2300"], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE)
        assert b"ready" in engine.stdout.readline()
        return engine

    def ask(self, body: "bytes | None", session: str = "") -> "tuple[int, dict[str, str], Any]":
        """One request of a client to the proxy; returns status, headers and what JSON there is."""
        words = ["--data-binary", "@-"] if body else ["--request", "DELETE"]
        if session:
            words += ["--header", f"Mcp-Session-Id: {session}"]
        done = subprocess.run(
            [*self.network, "curl", "--silent", "--show-error", "--include", "--cacert",
             str(self.certificate), "--header", f"Authorization: Bearer {TOKEN}", *words,
             f"https://{NAME}/mcp"], input=(body or b"").rstrip(), capture_output=True,
            timeout=TIMEOUT, check=False)
        assert done.returncode == 0, done.stderr
        head, _, text = done.stdout.decode("utf-8").partition("\r\n\r\n")
        first, *fields = head.split("\r\n")
        headers = dict(field.split(": ", 1) for field in fields)
        return int(first.split()[1]), headers, json.loads(text) if text else None

    def status_of(self, process: int) -> dict[str, str]:
        lines = Path(f"/proc/{process}/status").read_text("ascii").splitlines()
        return {name: value.strip() for name, _, value in (line.partition(":") for line in lines)}


@pytest.fixture(scope="module")
def pod(containers: Containers, engine_executable: Path,
        tmp_path_factory: pytest.TempPathFactory) -> Pod:
    """It runs before and after each test."""
    return Pod(containers, tmp_path_factory.mktemp("pod"), engine_executable)


def children_of(process: int) -> list[int]:
    return [int(word) for word in
            Path(f"/proc/{process}/task/{process}/children").read_text("ascii").split()]


def play_session(pod: Pod) -> None:
    status, headers, reply = pod.ask(request("initialize", 1, {}))
    assert status == 200 and reply["result"]["serverInfo"]["name"] == "Vantreo MCP"
    session = headers["Mcp-Session-Id"]
    assert pod.ask(notification("notifications/initialized"), session)[0] == 202
    count = call(2, "kova_query", {"sql": "SELECT COUNT(ID) AS N FROM ORDERS"})
    status, _, reply = pod.ask(count, session)
    assert status == 200, reply
    assert reply["result"]["structuredContent"]["rows"] == [["2"]], reply
    _, _, reply = pod.ask(call(3, "kova_query", {"sql": "SELECT PHONE FROM ORDERS"}), session)
    assert reply["result"]["isError"] is True
    assert pod.ask(None, session)[0] == 204


def test_a_session_through_the_pod_s_proxy(pod: Pod) -> None:
    engine = pod.start_engine()
    try:
        play_session(pod)
    finally:
        engine.terminate()
        assert engine.wait(TIMEOUT) == 0
        engine.stdout.close()
    audit = pod.folder / "srv" / "audit" / "sales" / "audit.jsonl"
    tools = [json.loads(line)["tool"] for line in audit.read_text("utf-8").splitlines()]
    assert tools == ["kova_query"] * 2 and audit.stat().st_uid == ACCOUNT
    assert '"POST /mcp HTTP/1.1" 200' in pod.log("proxy")


def test_the_listener_has_few_rights(pod: Pod) -> None:
    [listener] = children_of(pod.process("listener"))
    status = pod.status_of(listener)
    assert status["Name"] == "kova-mcp"
    assert set(status["Uid"].split() + status["Gid"].split()) == {str(ACCOUNT)}
    assert int(status["CapEff"], 16) == int(status["CapBnd"], 16) == 0
    assert status["NoNewPrivs"] == "1"
    done = subprocess.run(["podman", "exec", "kova-mcp-sales-listener", "touch", "/tmp/file"],
                          env=pod.containers.env, capture_output=True, text=True, timeout=TIMEOUT,
                          check=False)
    assert done.returncode != 0 and "Read-only file system" in done.stderr


def test_stop_down_and_play_again(pod: Pod) -> None:
    """It ends by the signal: what is a container's first process and ignores it is killed later."""
    [listener] = children_of(pod.process("listener"))
    pod.containers.run("podman pod stop kova-mcp-sales")
    assert int(pod.inspect("listener", "{{.State.ExitCode}}")) == ENDED_BY_SIGTERM
    assert not Path(f"/proc/{listener}").exists()
    pod.containers.run(block(3))
    assert pod.containers.run("podman ps --all --quiet") == ""
    pod.play()
    assert pod.ask(request("initialize", 1, {}))[0] == 200


def test_removal_leaves_nothing(pod: Pod) -> None:
    """The last test of the pod."""
    pod.containers.run(block(3))
    pod.containers.run(block(4).replace("/srv/kova-mcp", str(pod.folder / "srv")))
    images = pod.containers.run("podman images --all --format '{{.Repository}}'")
    assert "kova-mcp" not in images and BASE in images
    assert not (pod.folder / "srv").exists()


def test_the_files_fit_together() -> None:
    """Ports and folders of the pod, the proxy, the listener and the image."""
    pod = (DEPLOY / "pod.yaml").read_text("utf-8")
    image = (DEPLOY / "Containerfile").read_text("utf-8")
    proxy = (DEPLOY / "nginx.conf").read_text("utf-8")
    environment = (DEPLOY / "kova-mcp-http.env").read_text("utf-8")
    assert re.findall(r"containerPort: (\d+)\n +hostPort: (\d+)", pod) == [("443", "443")]
    assert "listen 443 ssl" in proxy and "server 127.0.0.1:8080;" in proxy
    [command] = re.findall(r'^ENTRYPOINT (\[.*"--http".*\])$', image, re.MULTILINE)
    assert json.loads(command)[-3:] == ["/etc/kova-mcp/listener.env", "--http", "8080"]
    mounted = re.findall(r"mountPath: (\S+)", pod)
    assert mounted == ["/etc/kova-mcp", "/var/log/kova-mcp", "/var/lib/kova-mcp",
                       "/etc/nginx/nginx.conf", "/etc/kova-mcp/tls"]
    for name, folder in (("KOVA_MCP_POLICY", mounted[0]), ("KOVA_MCP_AUDIT", mounted[1])):
        assert re.search(rf"^{name}={folder}/", environment, re.MULTILINE)
    assert f"ssl_certificate {mounted[4]}/server.pem;" in proxy
    assert re.findall(r"image: (\S+)", pod) == re.findall(
        r"--tag (\S+)", block(0).replace("--tag ", "--tag localhost/"))
