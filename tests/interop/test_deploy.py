"""The files of deploy/ work as they stand, but for the paths and the engine to put in."""

from __future__ import annotations

import json
import re
import shlex
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.messages import call, request
from harness.servers import Result
from harness.targets import Environment, Target
from harness.waiting import TIMEOUT

DEPLOY = Path(__file__).resolve().parents[2] / "deploy"
POLICY = DEPLOY / "policy-read-only.json"
ENVIRONMENT = DEPLOY / "kova-mcp.env"
POLICY_FOR_WRITES = DEPLOY / "policy-writes.json"
ENVIRONMENT_FOR_WRITES = DEPLOY / "kova-mcp-writes.env"
ENVIRONMENT_FOR_HTTP = DEPLOY / "kova-mcp-http.env"
UNIT = DEPLOY / "kova-mcp-http@.service"
INSTANCE = "sales"
EXPOSURE_LIMIT = 12  # tenths of systemd's points; 100 is no protection at all

CHECKED = (b"MCP_CONFIG_OK policy=sales_read_only configured=yes reads=yes provider_reads=no"
           b" writes=no approval_required=no tables=4 collections=0 write_tables=0"
           b" database_profile=not-tested\n")

CHECKED_FOR_WRITES = (
    b"MCP_CONFIG_OK policy=order_notes configured=yes reads=yes provider_reads=no writes=yes"
    b" approval_required=yes tables=4 collections=0 write_tables=1 database_profile=not-tested\n")

READING_VARIABLES = {
    "KOVA_MCP_POLICY", "KOVA_MCP_CLIENT_ID", "KOVA_MCP_DATABASE", "KOVA_MCP_USER",
    "KOVA_MCP_PASSWORD", "KOVA_MCP_SERVER", "KOVA_MCP_PORT", "KOVA_MCP_AUDIT",
    "KOVA_MCP_DISABLE_PROVIDERS", "KOVA_MCP_DISABLE_WRITES", "KOVA_MCP_DEBUG"}


def entries(name: str) -> list[dict[str, Any]]:
    document = json.loads((DEPLOY / name).read_text("utf-8"))
    assert list(document) == ["mcpServers"]
    return list(document["mcpServers"].values())


def environment_file(file: Path = ENVIRONMENT) -> dict[str, str]:
    words = shlex.split(file.read_text("utf-8"), comments=True)
    return dict(word.split("=", 1) for word in words)


Check = Callable[[Environment], Result]


@pytest.fixture
def check_policy(run: Callable[..., Result]) -> Check:
    return lambda env: run("--check-policy", env=env, library=None)


def test_the_policy_loads(check_policy: Check) -> None:
    document = json.loads(POLICY.read_text("utf-8"))
    result = check_policy({
        "KOVA_MCP_POLICY": POLICY, "KOVA_MCP_CLIENT_ID": document["client_id"],
        "KOVA_MCP_DATABASE": document["database"], "KOVA_MCP_USER": document["database_user"]})
    assert (result.stdout, result.stderr, result.code) == (CHECKED, b"", 0)


def test_the_environment_file_goes_with_the_policy(check_policy: Check) -> None:
    variables = environment_file()
    assert Path(variables["KOVA_MCP_POLICY"]).name == POLICY.name
    result = check_policy({**variables, "KOVA_MCP_POLICY": POLICY})
    assert (result.stdout, result.stderr, result.code) == (CHECKED, b"", 0)


def test_the_environment_file_explains_every_variable_of_a_server_that_reads() -> None:
    lines = ENVIRONMENT.read_text("utf-8").splitlines()
    named = [line.lstrip("#").partition("=")[0] for line in lines
             if line.lstrip("#").startswith("KOVA_MCP_")]
    assert len(named) == len(set(named)) and set(named) == READING_VARIABLES


def test_the_windows_entry_goes_with_the_policy(check_policy: Check) -> None:
    [entry] = entries("mcp-servers-windows.json")
    assert entry["command"].endswith("\\kova-mcp.exe") and entry["args"] == []
    assert set(entry["env"]) <= READING_VARIABLES
    assert entry["env"]["KOVA_MCP_POLICY"].endswith("\\" + POLICY.name)
    result = check_policy({**entry["env"], "KOVA_MCP_POLICY": POLICY})
    assert (result.stdout, result.stderr, result.code) == (CHECKED, b"", 0)


def test_the_linux_entry_starts_the_server(target: Target, tmp_path: Path) -> None:
    """As it stands, with the three paths that an operator would have installed."""
    [entry] = entries("mcp-servers-linux.json")
    environment = ENVIRONMENT.read_text("utf-8")
    policy = "/etc/kova-mcp/policy-read-only.json"
    assert policy in environment
    (tmp_path / "kova-mcp.env").write_text(
        environment.replace(policy, shlex.quote(target.path(POLICY))), encoding="utf-8")
    places = {"/etc/kova-mcp/kova-mcp.env": str(tmp_path / "kova-mcp.env"),
              "/opt/kova-mcp/kova-mcp": shlex.join(target.command(target.executable, []))}
    arguments = entry["args"]
    for place, here in places.items():
        assert place in arguments[-1]
        arguments = [argument.replace(place, here) for argument in arguments]
    done = subprocess.run(
        [entry["command"], *arguments], env=target.environment({}), capture_output=True,
        input=request("initialize", 1, {}) + request("tools/list", 2), timeout=TIMEOUT, check=False)
    first, second = map(json.loads, done.stdout.splitlines())
    assert first["result"]["serverInfo"]["name"] == "Vantreo MCP"
    names = [tool["name"] for tool in second["result"]["tools"]]
    assert "kova_query" in names and "kova_text_search" not in names
    assert (done.stderr, done.returncode) == (b"", 0)


# writes


@pytest.fixture
def policy_for_writes(target: Target, tmp_path: Path) -> Path:
    """The policy as it stands, but for the state directory."""
    document = json.loads(POLICY_FOR_WRITES.read_text("utf-8"))
    assert document["approval_state_directory"] == "/var/lib/kova-mcp/approvals"
    approvals = tmp_path / "approvals"
    approvals.mkdir()
    document["approval_state_directory"] = target.path(approvals)
    made = tmp_path / POLICY_FOR_WRITES.name
    made.write_text(json.dumps(document), encoding="utf-8")
    return made


def test_the_policy_for_writes_loads_in_its_environment(check_policy: Check,
                                                        policy_for_writes: Path) -> None:
    variables = environment_file(ENVIRONMENT_FOR_WRITES)
    assert Path(variables["KOVA_MCP_POLICY"]).name == POLICY_FOR_WRITES.name
    assert len(variables["KOVA_MCP_APPROVAL_SECRET"]) >= 32
    result = check_policy({**variables, "KOVA_MCP_POLICY": policy_for_writes})
    assert (result.stdout, result.stderr, result.code) == (CHECKED_FOR_WRITES, b"", 0)


def test_the_key_of_the_approvals_stands_in_no_clients_entry() -> None:
    files = list(DEPLOY.glob("mcp-servers-*.json"))
    assert len(files) >= 4
    for file in files:
        assert "APPROVAL_SECRET" not in file.read_text("utf-8"), file


def test_the_entry_for_writes_starts_the_server_as_another_account() -> None:
    [entry] = entries("mcp-servers-linux-writes.json")
    assert entry["command"] == "sudo"
    assert entry["args"] == ["-n", "-u", "kova-mcp", "/opt/kova-mcp/serve-writes.sh"]


def test_the_start_of_the_server_for_writes(target: Target, tmp_path: Path,
                                            policy_for_writes: Path) -> None:
    """It serves writes, and issues no approval for who starts it with arguments."""
    policy = "/etc/kova-mcp/policy-writes.json"
    environment = ENVIRONMENT_FOR_WRITES.read_text("utf-8")
    assert policy in environment
    (tmp_path / "kova-mcp-writes.env").write_text(
        environment.replace(policy, shlex.quote(target.path(policy_for_writes))), encoding="utf-8")
    script = (DEPLOY / "serve-writes.sh").read_text("utf-8")
    for place, here in {"/etc/kova-mcp/kova-mcp-writes.env": str(tmp_path / "kova-mcp-writes.env"),
                        "/opt/kova-mcp/kova-mcp\n":
                            shlex.join(target.command(target.executable, [])) + "\n"}.items():
        assert script.count(place) == 1
        script = script.replace(place, here)
    made = tmp_path / "serve-writes.sh"
    made.write_text(script, encoding="utf-8")
    made.chmod(0o755)
    sql = {"sql": "DELETE FROM ORDER_NOTES WHERE ID = 1"}
    done = subprocess.run(
        [str(made), "--issue-approval"], env=target.environment({}), capture_output=True,
        input=request("initialize", 1, {}) + call(2, "kova_execute", sql), timeout=TIMEOUT,
        check=False)
    first, second = map(json.loads, done.stdout.splitlines())
    assert first["result"]["serverInfo"]["name"] == "Vantreo MCP"
    assert second["result"]["structuredContent"]["approval_required"] is True
    assert (done.stderr, done.returncode) == (b"", 0)


# the HTTP listener


def test_the_listeners_environment_goes_with_the_policy(check_policy: Check) -> None:
    variables = environment_file(ENVIRONMENT_FOR_HTTP)
    assert Path(variables["KOVA_MCP_POLICY"]).name == POLICY.name
    assert len(variables["KOVA_MCP_HTTP_BEARER_TOKEN"]) >= 32
    result = check_policy({**variables, "KOVA_MCP_POLICY": POLICY})
    assert (result.stdout, result.stderr, result.code) == (CHECKED, b"", 0)


def unit_settings() -> dict[str, str]:
    """The settings that the unit has once, of the instance."""
    lines = [line for line in UNIT.read_text("utf-8").splitlines() if not line.startswith("#")]
    settings = [line.replace("%i", INSTANCE).split("=", 1) for line in lines if "=" in line]
    names = [name for name, _ in settings]
    return {name: value for name, value in settings if names.count(name) == 1}


def test_the_unit_goes_with_the_listeners_environment() -> None:
    settings, variables = unit_settings(), environment_file(ENVIRONMENT_FOR_HTTP)
    assert settings["EnvironmentFile"] == f"/etc/kova-mcp/{INSTANCE}.env"
    assert settings["EnvironmentFile"] in ENVIRONMENT_FOR_HTTP.read_text("utf-8")
    assert Path(variables["KOVA_MCP_AUDIT"]).parent == Path("/var/log", settings["LogsDirectory"])
    assert settings["StateDirectory"].split() == ["kova-mcp/sales", "kova-mcp/sales/approvals"]
    assert settings["Restart"] == "always"  # the listener's own end has exit code 0
    assert settings["ExecStartPre"] == "/usr/bin/kova-mcp --check-policy"
    assert settings["ExecStart"] == "/usr/bin/kova-mcp --http ${LISTEN_PORT}"
    assert settings["Environment"] == "LISTEN_PORT=" + variables["LISTEN_PORT"]


def test_two_classes_of_clients_share_no_folder() -> None:
    text = UNIT.read_text("utf-8")
    for name in ("EnvironmentFile", "StateDirectory", "LogsDirectory"):
        [value] = re.findall(rf"^{name}=(.*)$", text, re.MULTILINE)
        assert all("%i" in folder for folder in value.split())


@pytest.mark.parametrize("program", ["/usr/bin/kova-mcp", "/opt/kova-mcp/bin/kova-mcp"])
def test_the_unit_is_valid_and_confines_the_listener(tmp_path: Path, program: str) -> None:
    """As it stands and as README.md changes it, with an executable that is there."""
    text = UNIT.read_text("utf-8")
    change = "s,/usr/bin/,/opt/kova-mcp/bin/,"
    assert f"sed '{change}' {UNIT.name}" in (DEPLOY / "README.md").read_text("utf-8")
    if program.startswith("/opt"):
        text = subprocess.run(["sed", change], input=text, capture_output=True, text=True,
                              timeout=TIMEOUT, check=True).stdout
    assert text.count(f"={program} ") == 2
    made = tmp_path / UNIT.name
    made.write_text(text.replace(program, "/bin/true"), encoding="utf-8")
    instance = tmp_path / UNIT.name.replace("@", f"@{INSTANCE}")
    instance.symlink_to(made.name)
    for arguments in (["verify", "--recursive-errors=no", "--man=no", str(instance)],
                      ["security", "--offline=yes", f"--threshold={EXPOSURE_LIMIT}", str(made)]):
        done = subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True,
                              timeout=TIMEOUT, check=False)
        # A machine's own units may have their warnings, too.
        said = [line for line in done.stderr.splitlines() if "kova-mcp-http@" in line]
        assert (done.returncode, said) == (0, []), done.stdout + done.stderr


def test_the_account_and_its_folders_are_those_of_the_unit(tmp_path: Path) -> None:
    """Made in an empty root by systemd's own programs."""
    settings = unit_settings()
    (tmp_path / "etc").mkdir()
    done = subprocess.run(["systemd-sysusers", f"--root={tmp_path}", "-"], capture_output=True,
                          input=(DEPLOY / "kova-mcp.sysusers").read_bytes(), timeout=TIMEOUT,
                          check=False)
    assert done.returncode == 0, done.stderr
    [account] = (tmp_path / "etc" / "passwd").read_text("utf-8").splitlines()
    assert account.startswith(settings["User"] + ":") and account.endswith("nologin")
    folders = [line.split() for line in
               (DEPLOY / "kova-mcp.tmpfiles").read_text("utf-8").splitlines()
               if line.startswith("d ")]
    assert {folder[1] for folder in folders} == {
        str(Path(settings["EnvironmentFile"]).parent),
        str(Path("/var/lib", settings["StateDirectory"].split()[0]).parent),
        str(Path("/var/log", settings["LogsDirectory"]).parent)}
    assert all(folder[2] == "0750" and folder[4] == settings["Group"] for folder in folders)


def test_the_rotation_renames_the_audit_file_of_each_listener() -> None:
    settings, text = unit_settings(), (DEPLOY / "kova-mcp.logrotate").read_text("utf-8")
    lines = [line.strip() for line in text.splitlines() if not line.startswith("#")]
    audit = Path(environment_file(ENVIRONMENT_FOR_HTTP)["KOVA_MCP_AUDIT"])
    assert audit.match(lines[0].removesuffix(" {"))
    assert f"su {settings['User']} {settings['Group']}" in lines
    assert {"nocreate", "delaycompress", "compress"} <= set(lines)
    assert not {"copytruncate", "copy", "postrotate"} & set(lines)


def test_the_sample_entry_names_what_run_takes() -> None:
    [entry] = entries("mcp-servers-sample.json")
    assert (Path(entry["command"]).name, entry["args"]) == ("run", ["serve"])
    help_text = subprocess.run([str(DEPLOY.parent / "run"), "--help"], capture_output=True,
                               text=True, timeout=TIMEOUT, check=True).stdout
    assert "./run serve" in help_text


def test_the_readme_names_every_file() -> None:
    text = (DEPLOY / "README.md").read_text("utf-8")
    others = [path.name + "/" * path.is_dir() for path in DEPLOY.iterdir()
              if path.name != "README.md"]
    assert len(others) >= 13 and all(f"`{name}`" in text for name in others)
