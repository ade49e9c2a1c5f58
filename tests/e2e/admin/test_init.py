"""kova-admin init: a deployment that works, or nothing at all."""

from __future__ import annotations

import json
import stat
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import Admin, option_list, report_of, tree
from harness.messages import call, request
from harness.sample_engine import LOOPBACK, PASSWORD, USER, Engine
from harness.servers import Result
from harness.targets import Installation, Target
from harness.waiting import TIMEOUT

NAMES = {"policy.json", "kova-mcp.env", "approvals", "clients"}
CLIENTS = {"claude-desktop.json": "mcpServers", "claude-code.json": "mcpServers",
           "vscode.json": "servers", "cursor.json": "mcpServers"}


@pytest.fixture(scope="session")
def admin(target: Target, installation: Installation) -> Admin:
    return Admin(target, installation.executable("sample").parent)


@pytest.fixture
def engine(start_sample_engine: Callable[..., Engine]) -> Engine:
    return start_sample_engine()


@pytest.fixture
def options(engine: Engine, tmp_path: Path) -> "dict[str, str | Path]":
    """All options, so that nothing is asked."""
    password = tmp_path / "password"
    password.write_text(PASSWORD + "\n", encoding="utf-8")
    return {"--folder": tmp_path / "made", "--server": LOOPBACK, "--port": str(engine.port),
            "--database": "shop", "--user": USER, "--password-file": password,
            "--client-id": "desk-client", "--name": "shop_desk", "--tables": "ITEMS,PARTS",
            "--denied-columns": "PICTURE", "--collections": "DOCS", "--writes": "none",
            "--transport": "stdio"}


Options = "dict[str, str | Path]"


def init(admin: Admin, options: Any, *flags: str, **changes: Any) -> Result:
    """Underscores of a change stand for the hyphens of its option."""
    changed = {**options, **{"--" + name.replace("_", "-"): value
                             for name, value in changes.items()}}
    return admin.run("init", *option_list(changed), *flags)


def refused(result: Result, said: str) -> None:
    """One line that says why."""
    assert (result.stdout, result.code) == (b"", 2), result
    assert result.stderr.count(b"\n") == 1 and said.encode() in result.stderr, result.stderr


def entry_of(folder: Path, client: str = "claude-desktop.json") -> Any:
    document = json.loads((folder / "clients" / client).read_text("utf-8"))
    assert list(document) == [CLIENTS[client]]
    [(name, entry)] = document[CLIENTS[client]].items()
    assert name == "shop_desk"
    return entry


def test_everything_is_written(admin: Admin, options: Any, target: Target) -> None:
    result = init(admin, options)
    assert (result.stderr, result.code) == (b"", 0)
    assert len(result.stdout.splitlines()) <= 10
    folder = options["--folder"]
    script = "start.cmd" if target.windows else "start.sh"
    assert {path.name for path in folder.iterdir()} == NAMES | {script}
    policy = json.loads((folder / "policy.json").read_text("utf-8"))
    assert policy["allowed_tables"] == ["ITEMS", "PARTS"] and not policy["writes_enabled"]
    assert policy["denied_columns"] == ["PICTURE"] and policy["allowed_collections"] == ["DOCS"]
    assert policy["approval_state_directory"] == target.path(folder / "approvals")
    assert [path.name for path in folder.parent.iterdir() if path.name.startswith(".")] == []


def test_the_files_are_for_this_account_alone(admin: Admin, options: Any, target: Target) -> None:
    """Wine shows a list of rights as a mode in which the group has what the owner has."""
    assert init(admin, options).code == 0
    folder = options["--folder"]
    others = 0o007 if target.windows else 0o077
    for path in [folder, *folder.rglob("*")]:
        assert stat.S_IMODE(path.stat().st_mode) & others == 0, path


def test_the_servers_own_check_passes(admin: Admin, options: Any, target: Target) -> None:
    """With the variables of the file, read by another reader than ours."""
    assert init(admin, options).code == 0
    file = options["--folder"] / "kova-mcp.env"
    printed = subprocess.run(
        ["/bin/sh", "-c", 'set -a; . "$1"; env -0', "sh", str(file)], capture_output=True,
        env={"PATH": "/usr/bin:/bin"}, check=True).stdout.decode()
    variables = dict(item.split("=", 1) for item in printed.split("\0") if item.startswith("KOVA_"))
    assert variables["KOVA_MCP_PASSWORD"] == PASSWORD
    done = subprocess.run(target.command(admin.server, ["--check-config"]), capture_output=True,
                          env=target.environment(variables), timeout=TIMEOUT, check=False)
    assert done.returncode == 0 and b"database_profile=authenticated" in done.stdout, done


def test_doctor_finds_nothing(admin: Admin, options: Any, target: Target) -> None:
    """Wine does not tell that files are safe in the folder of temporary files."""
    assert init(admin, options, writes="approval", transport="http").code == 0
    folder = options["--folder"]
    before = tree(folder)
    report = report_of(admin.run("doctor", "--json", "--env", folder / "kova-mcp.env"))
    bad = {name: check for name, check in report.checks.items() if check["status"] == "fail"}
    assert set(bad) <= ({"permissions"} if target.windows else set())
    for name in ("policy", "approval.secret", "switches", "http", "login.login", "server"):
        assert report[name]["status"] == "ok", report[name]
    assert tree(folder) == before


@pytest.mark.parametrize("client", list(CLIENTS))
def test_an_entry_starts_the_server(admin: Admin, options: Any, target: Target,
                                    client: str) -> None:
    assert init(admin, options).code == 0
    entry = entry_of(options["--folder"], client)
    absolute = entry["command"][1:3] == ":\\" if target.windows else entry["command"][0] == "/"
    assert absolute and set(entry) <= {"type", "command", "args"}
    command = (target.command(Path(entry["command"]), entry["args"]) if target.windows
               else [entry["command"], *entry["args"]])
    done = subprocess.run(
        command, env=target.environment({}), capture_output=True, timeout=TIMEOUT, check=False,
        input=request("initialize", 1, {}) + call(2, "kova_query", {"sql": "SELECT ID FROM ITEMS"}))
    first, second = map(json.loads, done.stdout.splitlines())
    assert first["result"]["serverInfo"]["name"] == "Vantreo MCP"
    assert sorted(second["result"]["structuredContent"]["rows"]) == [["1"], ["2"], ["3"]]
    assert (done.stderr, done.returncode) == (b"", 0)


def test_no_secret_leaves_the_environment_file(admin: Admin, options: Any) -> None:
    result = init(admin, options, writes="approval", transport="http")
    assert result.code == 0
    folder = options["--folder"]
    lines = (folder / "kova-mcp.env").read_text("utf-8").splitlines()
    secrets = [line.split("=", 1)[1].strip("'") for line in lines
               if line.startswith(("KOVA_MCP_APPROVAL_SECRET=", "KOVA_MCP_HTTP_BEARER_TOKEN="))]
    assert [len(secret) for secret in secrets] == [64, 64] and len(set(secrets)) == 2
    told = result.stdout.decode() + "".join(
        path.read_text("utf-8") for path in folder.rglob("*")
        if path.is_file() and path.name != "kova-mcp.env")
    for secret in [*secrets, PASSWORD]:
        assert secret not in told


def test_two_deployments_share_no_secret(admin: Admin, options: Any, tmp_path: Path) -> None:
    assert init(admin, options, writes="approval").code == 0
    assert init(admin, options, writes="approval", folder=tmp_path / "second").code == 0
    secrets = {line for name in ("made", "second")
               for line in (tmp_path / name / "kova-mcp.env").read_text("utf-8").splitlines()
               if line.startswith("KOVA_MCP_APPROVAL_SECRET=")}
    assert len(secrets) == 2


def test_a_folder_that_is_there_is_filled(admin: Admin, options: Any) -> None:
    folder = options["--folder"]
    folder.mkdir()
    (folder / "notes").write_text("mine")
    assert init(admin, options).code == 0
    assert (folder / "notes").read_text() == "mine"
    assert NAMES < {path.name for path in folder.iterdir()}


@pytest.mark.parametrize("name", ["policy.json", "kova-mcp.env", "approvals", "clients"])
def test_nothing_is_overwritten(admin: Admin, options: Any, name: str) -> None:
    folder = options["--folder"]
    folder.mkdir()
    (folder / name).write_text("mine")
    before = tree(folder)
    refused(init(admin, options), f"{name} is there already")
    assert tree(folder) == before


@pytest.mark.parametrize("changes, said", [
    ({"name": "has-hyphen"}, "--name"),
    ({"name": ""}, "--name"),
    ({"client_id": "a b"}, "--client-id"),
    ({"client_id": "c" * 96}, "--client-id"),
    ({"tables": "ITEMS,items"}, "--tables"),
    ({"tables": ",".join(f"T{i}" for i in range(65))}, "--tables"),
    ({"denied_columns": "A-B"}, "--denied-columns"),
    ({"collections": "C" * 64}, "--collections"),
    ({"writes": "some"}, "--writes"),
    ({"transport": "carrier"}, "--transport"),
    ({"folder": "a\nb"}, "--folder: the value holds a line end or a NUL"),
    ({"user": "a,b"}, '--user: KOVA_MCP_USER holds one of ",'),
    ({"server": ""}, "--server: KOVA_MCP_SERVER is not set"),
    ({"port": "123456"}, "--port: KOVA_MCP_PORT has 6 bytes"),
    ({"port": ""}, "--port: KOVA_MCP_PORT is not set"),
    ({"port": "?"}, "login.resolve: 127.0.0.1:? cannot be resolved"),
    ({"http_port": "0"}, "--http-port: 0 is no port"),
    ({"http_port": "65536"}, "--http-port: 65536 is no port"),
    ({"http_port": "kova"}, "--http-port: kova is no port"),
    ({"database": "nowhere"}, "login.use"),
    ({"user": "nobody"}, "login.login"),
])
def test_a_value_that_would_not_work(admin: Admin, options: Any, tmp_path: Path,
                                     changes: Any, said: str) -> None:
    before = tree(tmp_path)
    refused(init(admin, options, **changes), said)
    after = tree(tmp_path)
    for files in (before, after):  # the engine's own files may change
        for name in [name for name in files if name.startswith(("data", "log"))]:
            del files[name]
    assert after == before


def test_an_engine_that_does_not_answer(admin: Admin, options: Any, engine: Engine) -> None:
    engine.stop()
    refused(init(admin, options), "login.connect")
    assert not options["--folder"].exists()
    assert init(admin, options, "--offline").code == 0
    assert options["--folder"].is_dir()


@pytest.mark.parametrize("port", ["kova", "65536", "0", "a'b", '$"`', "\u00e9 \\"])
def test_a_port_is_any_text_that_the_server_takes(admin: Admin, options: Any, port: str) -> None:
    """The resolver of the machine that the server runs on knows it, or not."""
    assert init(admin, options, "--offline", port=port).code == 0
    folder = options["--folder"]
    report = report_of(admin.run("doctor", "--env", folder / "kova-mcp.env", "--json"))
    assert report["login.settings"]["status"] == "ok"
    [failed] = [name for name in ("login.resolve", "login.connect")
                if report.checks.get(name, {}).get("status") == "fail"]
    assert report[failed]["detail"].startswith(f"{LOOPBACK}:{port} ")


def test_a_password_file_that_is_missing(admin: Admin, options: Any, tmp_path: Path) -> None:
    refused(init(admin, options, password_file=tmp_path / "none"), "none")
    assert not options["--folder"].exists()


@pytest.mark.parametrize("end", ["", "\n", "\r\n"])
def test_one_line_end_of_the_password_file_is_dropped(admin: Admin, options: Any, engine: Engine,
                                                      end: str) -> None:
    options["--password-file"].write_bytes((PASSWORD + end).encode())
    assert init(admin, options).code == 0


@pytest.mark.parametrize("end", ["\n\n", "\r", " \n"])
def test_anything_more_belongs_to_the_password(admin: Admin, options: Any, end: str) -> None:
    options["--password-file"].write_bytes((PASSWORD + end).encode())
    assert init(admin, options).code == 2
    assert not options["--folder"].exists()


@pytest.mark.parametrize("password, said", [
    (b"", "KOVA_MCP_PASSWORD is not set"),
    (b"\xff\xfe", "the value is not UTF-8"),
    (b"first\nsecond\n", "the value holds a line end or a NUL"),
    (b"cut\0here", "the value holds a line end or a NUL"),
])
def test_a_password_that_no_environment_file_holds(admin: Admin, options: Any, engine: Engine,
                                                   password: bytes, said: str) -> None:
    engine.stop()
    options["--password-file"].write_bytes(password)
    refused(init(admin, options, "--offline"), f"--password-file: {said}")
    assert not options["--folder"].exists()


def test_without_a_terminal_nothing_is_asked(admin: Admin, options: Any) -> None:
    given = {name: value for name, value in options.items() if name != "--client-id"}
    refused(admin.run("init", *option_list(given)), "--client-id is missing")
    assert not options["--folder"].exists()


def test_the_folder_above_must_be_there(admin: Admin, options: Any, tmp_path: Path) -> None:
    refused(init(admin, options, folder=tmp_path / "no" / "made"), "is no folder")


def test_a_table_that_the_engine_does_not_have_is_told(admin: Admin, options: Any) -> None:
    result = init(admin, options, "--json", tables="ITEMS,GHOSTS")
    assert json.loads(result.stdout)["unknown_tables"] == ["GHOSTS"] and result.code == 0


@pytest.mark.parametrize("password", ["it's \"q\" $HOME `x` \\ %PATH% !", "plain", "trailing ",
                                      "caf\u00e9"])
def test_a_password_of_any_spelling(admin: Admin, options: Any, engine: Engine,
                                    password: str) -> None:
    engine.stop()
    options["--password-file"].write_text(password + "\n", encoding="utf-8")
    assert init(admin, options, "--offline").code == 0
    file = options["--folder"] / "kova-mcp.env"
    printed = subprocess.run(["/bin/sh", "-c", '. "$1"; printf %s "$KOVA_MCP_PASSWORD"', "sh",
                              str(file)], capture_output=True, check=True).stdout
    assert printed.decode() == password
