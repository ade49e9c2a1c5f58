"""kova-admin doctor: each state that it is to find, by its stable name, status and advice."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any, Callable

import pytest

from harness.deployments import (SECRET, Report, admin_beside, checks_of, environment_file,
                                 report_of, tree)
from harness.listeners import refused_port
from harness.policy_files import PolicyFiles
from harness.scripted_library import Script, ScriptedLibrary
from harness.targets import Installation, Target

ALL = ["server", "client-library", "permissions", "policy", "login.settings", "login.resolve",
       "login.connect", "login.load", "login.start", "login.use", "login.login", "audit",
       "approval.secret", "approval.directory", "switches", "http", "clock", "limits"]
LOGIN = [name for name in ALL if name.startswith("login.")]

RECORD = ('{"timestamp":"2026-01-02T03:04:05.678Z","correlation_id":"1","client_identity":"c",'
          '"database_identity":"D","tool":"kova_query","policy":"p","policy_decision":"allow",'
          '"objects":"T","duration_ms":1,"rows":1,"bytes":2,"status":"ok","error_class":"none"}'
          "\r\n")


@pytest.fixture
def folder(tmp_path: Path) -> Path:
    made = tmp_path / "deployment"
    made.mkdir(mode=0o700)
    return made


@pytest.fixture
def deployment(engine: ScriptedLibrary, policy: PolicyFiles, folder: Path) -> dict[str, Any]:
    """The environment of a deployment without a fault."""
    return {**engine.env, **policy(), "KOVA_MCP_AUDIT": folder / "audit.jsonl"}


Examine = Callable[..., Report]


@pytest.fixture
def examine(target: Target, installation: Installation, deployment: dict[str, Any],
            tmp_path: Path) -> Examine:
    """`examine(library=..., NAME=value)`: the report on the deployment with some variables
    changed, from an environment file."""

    def run(library: "str | None" = "scripted", **changes: Any) -> Report:
        admin = admin_beside(target, installation, library)
        file = environment_file(target, tmp_path / "kova-mcp.env", {**deployment, **changes})
        return report_of(admin.run("doctor", "--json", "--env", file))

    return run


@pytest.fixture
def for_writes(policy: PolicyFiles, folder: Path) -> dict[str, Any]:
    """What turns the deployment into one for writes with approval."""
    state = folder / "approvals"
    state.mkdir(mode=0o700)
    return {**policy(writes_enabled=True, approval_required=True, write_tables=["ORDERS"],
                     write_types=["INSERT"], approval_state_directory=state),
            "KOVA_MCP_APPROVAL_SECRET": SECRET}


def fails(report: Report, name: str) -> str:
    """The detail of a check that fails."""
    assert report[name]["status"] == "fail", report[name]
    assert report.code == 1
    return report[name]["detail"]


def warns(report: Report, name: str) -> str:
    assert report[name]["status"] == "warn", report[name]
    return report[name]["detail"]


def test_nothing_is_wrong(examine: Examine, target: Target) -> None:
    """But for what the machine under the test is like. Wine does not tell that the files of others
    are safe in the folder of temporary files."""
    report = examine()
    assert report.names() == ALL
    for name in set(ALL) - {"clock", "limits", "audit", "permissions"}:
        assert report[name]["status"] == "ok", report[name]
    assert report["server"]["detail"].endswith(", version 1.25-m8")
    assert target.windows or report.code == 0


def test_it_changes_nothing(examine: Examine, folder: Path, deployment: dict[str, Any],
                            for_writes: dict[str, Any]) -> None:
    (folder / "audit.jsonl").write_text(RECORD, newline="")
    before = tree(folder)
    report = examine(**for_writes)
    assert report["approval.directory"]["status"] in ("ok", "warn")
    assert "last record" in report["audit"]["detail"]
    assert tree(folder) == before


def test_without_an_audit_file_none_is_made(examine: Examine, folder: Path) -> None:
    assert "no record yet" in examine()["audit"]["detail"]
    assert tree(folder) == {}


def test_the_report_for_people(target: Target, installation: Installation,
                               deployment: dict[str, Any]) -> None:
    """Without --env the deployment is the process's own environment."""
    admin = admin_beside(target, installation, "scripted")
    result = admin.run("doctor", env={**deployment, "KOVA_MCP_PASSWORD": ""})
    lines = result.stdout.decode().replace("\r\n", "\n").splitlines()
    at = next(i for i, line in enumerate(lines) if " login.settings " in line)
    assert lines[at].startswith("FAIL  login.settings")
    assert "KOVA_MCP_PASSWORD is not set" in lines[at]
    assert lines[at + 1].strip() == "-> mend the named variable"
    assert (result.stderr, result.code) == (b"", 1)
    assert b"\x1b" not in result.stdout


def test_what_it_prints_cannot_repaint_the_terminal(target: Target, installation: Installation,
                                                    deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    result = admin.run("doctor", env={**deployment, "KOVA_MCP_DISABLE_WRITES": "\x1b[2Jyes\u202e"})
    assert b"\x1b" not in result.stdout and "\u202e".encode() not in result.stdout


# the server and its library


def test_another_server_is_named(target: Target, installation: Installation, tmp_path: Path,
                                 deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    file = environment_file(target, tmp_path / "e.env", deployment)
    missing = tmp_path / "nowhere" / target.executable.name
    report = report_of(admin.run("doctor", "--json", "--env", file, "--server", missing))
    assert fails(report, "server") == f"{target.path(missing)} does not exist"
    other = report_of(admin.run("doctor", "--json", "--env", file, "--server", admin.path))
    assert re.search("is another program|does not run", fails(other, "server"))


def test_the_library_beside_the_named_server_is_looked_at(
        target: Target, installation: Installation, tmp_path: Path,
        deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    server = installation.executable("incomplete")
    file = environment_file(target, tmp_path / "e.env", deployment)
    report = report_of(admin.run("doctor", "--json", "--env", file, "--server", server))
    assert target.path(server.parent) in fails(report, "client-library")


def test_the_library_beside_kova_admin_is_not_that_of_another_server(
        target: Target, installation: Installation, tmp_path: Path,
        deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    server = installation.executable(None)
    assert server.parent != admin.path.parent
    file = environment_file(target, tmp_path / "e.env", deployment)
    report = report_of(admin.run("doctor", "--json", "--env", file, "--server", server))
    assert "neither beside the server" in fails(report, "client-library")
    assert report["server"]["status"] == "ok"


def test_a_missing_library(examine: Examine) -> None:
    report = examine(library=None)
    assert "beside the server" in fails(report, "client-library")
    assert report.names()[4:8] == LOGIN[:4]
    fails(report, "login.load")
    assert "login.start" not in report.names()


def test_a_library_that_cannot_be_loaded(examine: Examine) -> None:
    assert "cannot be loaded" in fails(examine(library="broken"), "client-library")


def test_a_missing_operation_is_named(examine: Examine) -> None:
    report = examine(library="incomplete")
    assert "KOVA_StopVantreo" in fails(report, "client-library")
    fails(report, "login.load")


# the policy


@pytest.mark.parametrize("variable, key, given", [
    ("KOVA_MCP_CLIENT_ID", "client_id", "another-client"),
    ("KOVA_MCP_DATABASE", "database", "OTHER"),
    ("KOVA_MCP_USER", "database_user", "writer"),
])
def test_an_identity_that_differs_is_named_with_both_values(
        examine: Examine, policy: PolicyFiles, variable: str, key: str, given: str) -> None:
    detail = fails(examine(**{variable: given}), "policy")
    assert detail == ("MCP launch identity does not match named policy; "
                      f'{variable} is "{given}", the policy\'s {key} is "{policy.document()[key]}"')


def test_an_identity_that_is_not_set(examine: Examine) -> None:
    assert "KOVA_MCP_CLIENT_ID is not set" in fails(examine(KOVA_MCP_CLIENT_ID=None), "policy")


def test_the_loaders_own_message(examine: Examine, policy: PolicyFiles) -> None:
    broken = policy(approval_ttl_seconds=29)
    assert fails(examine(**broken), "policy") == "approval TTL must be 30..900 seconds"


def test_without_a_policy(examine: Examine) -> None:
    assert "KOVA_MCP_POLICY is not set" in warns(examine(KOVA_MCP_POLICY=None), "policy")


def test_writes_without_approval(examine: Examine, policy: PolicyFiles) -> None:
    open_writes = policy(writes_enabled=True, write_tables=["ORDERS"], write_types=["INSERT"])
    assert "without an operator's approval" in warns(examine(**open_writes), "policy")


# the login, step by step


def login_of(report: Report) -> dict[str, str]:
    return {name: report[name]["status"] for name in report.names() if name in LOGIN}


def expect_step(report: Report, step: str) -> dict[str, str]:
    """Every step before has passed, and none is listed behind."""
    reached = LOGIN[:LOGIN.index(step) + 1]
    assert login_of(report) == {name: "fail" if name == step else "ok" for name in reached}
    assert report.code == 1
    return report[step]


@pytest.mark.parametrize("variable, value, said", [
    ("KOVA_MCP_SERVER", None, "is not set"),
    ("KOVA_MCP_SERVER", "x" * 254, "253"),
    ("KOVA_MCP_PORT", "", "is not set"),
    ("KOVA_MCP_PORT", "123456", "5"),
    ("KOVA_MCP_DATABASE", "D" * 64, "63"),
    ("KOVA_MCP_DATABASE", "A;B", ";"),
    ("KOVA_MCP_USER", "a,b", ","),
    ("KOVA_MCP_USER", "u" * 64, "63"),
    ("KOVA_MCP_PASSWORD", "a;b", ";"),
    ("KOVA_MCP_PASSWORD", "p" * 256, "255"),
])
def test_a_value_outside_its_limits(examine: Examine, variable: str, value: "str | None",
                                    said: str) -> None:
    detail = expect_step(examine(**{variable: value}), "login.settings")["detail"]
    assert variable in detail and said in detail
    assert value is None or variable != "KOVA_MCP_PASSWORD" or value not in detail


def test_a_host_without_an_address(examine: Examine) -> None:
    check = expect_step(examine(KOVA_MCP_SERVER="no-such-host.invalid"), "login.resolve")
    assert "no-such-host.invalid" in check["detail"] and "KOVA_MCP_SERVER" in check["advice"]


def test_a_port_that_this_machine_does_not_know(examine: Examine) -> None:
    check = expect_step(examine(KOVA_MCP_PORT="kova?"), "login.resolve")
    assert "127.0.0.1:kova? cannot" in check["detail"] and "KOVA_MCP_PORT" in check["advice"]


def test_an_engine_that_takes_no_connection(examine: Examine) -> None:
    with refused_port() as port:
        check = expect_step(examine(KOVA_MCP_PORT=port), "login.connect")
    assert f"127.0.0.1:{port}" in check["detail"]


@pytest.mark.parametrize("operation", ["CreateVantreoInstance", "StartVantreo", "NewObject"])
def test_a_library_that_does_not_start(examine: Examine, engine: ScriptedLibrary,
                                       operation: str) -> None:
    engine.script(Script().on(operation, null=True))
    expect_step(examine(), "login.start")


def test_a_database_that_is_refused(examine: Examine, engine: ScriptedLibrary) -> None:
    engine.script(Script().on_exec("use ", prefix=True, result=0))
    assert '"SALES"' in expect_step(examine(), "login.use")["detail"]


def test_a_login_that_is_refused(examine: Examine, engine: ScriptedLibrary) -> None:
    engine.script(Script().on_exec("login ", prefix=True, result=0))
    check = expect_step(examine(), "login.login")
    assert "KOVA_MCP_PASSWORD" in check["advice"] and "secret" not in check["detail"]


# the audit file


def test_a_missing_folder_of_the_audit_file(examine: Examine, tmp_path: Path) -> None:
    assert "does not exist" in fails(examine(KOVA_MCP_AUDIT=tmp_path / "no" / "a.jsonl"), "audit")


def test_an_audit_path_that_switches_it_off(examine: Examine) -> None:
    assert "260" in fails(examine(KOVA_MCP_AUDIT="/" + "a" * 259), "audit")


@pytest.mark.parametrize("value, said", [(None, "is not set"), ("audit.jsonl", "no absolute path")])
def test_an_audit_file_that_is_not_sure(examine: Examine, value: "str | None", said: str) -> None:
    assert said in warns(examine(KOVA_MCP_AUDIT=value), "audit")


def test_a_folder_in_the_place_of_the_audit_file(examine: Examine, folder: Path) -> None:
    assert "append" in fails(examine(KOVA_MCP_AUDIT=folder), "audit")


def test_an_audit_file_whose_end_is_no_record(examine: Examine, folder: Path) -> None:
    (folder / "audit.jsonl").write_text(RECORD + "something else\n", newline="")
    (folder / "audit.jsonl").chmod(0o600)
    assert "no audit record" in warns(examine(), "audit")


def test_an_audit_file_that_everybody_reads(examine: Examine, folder: Path) -> None:
    (folder / "audit.jsonl").write_text(RECORD, newline="")
    (folder / "audit.jsonl").chmod(0o644)
    assert "every account may read it" in warns(examine(), "audit")


# approvals


def test_approvals_that_work(examine: Examine, for_writes: dict[str, Any]) -> None:
    report = examine(**for_writes)
    assert report["approval.secret"]["status"] == "ok"
    assert "markers are created once" in report["approval.directory"]["detail"]
    assert SECRET not in str(report.checks)


def test_a_missing_state_directory_fails_twice(examine: Examine, for_writes: dict[str, Any],
                                               folder: Path) -> None:
    (folder / "approvals").rmdir()
    report = examine(**for_writes)
    assert "approval state directory does not exist" in fails(report, "policy")
    assert "does not exist" in fails(report, "approval.directory")


@pytest.mark.parametrize("secret, status", [
    (None, "fail"), ("a" * 31, "fail"), ("a" * 32, "warn"),
    ("put the key here, 32 bytes or more", "warn"), (SECRET[:31], "fail"), (SECRET, "ok")])
def test_the_secret_of_the_approvals(examine: Examine, for_writes: dict[str, Any],
                                     secret: "str | None", status: str) -> None:
    report = examine(**{**for_writes, "KOVA_MCP_APPROVAL_SECRET": secret})
    assert report["approval.secret"]["status"] == status
    assert secret is None or secret not in str(report.checks)


def test_a_state_directory_that_others_can_write(examine: Examine, for_writes: dict[str, Any],
                                                 folder: Path) -> None:
    (folder / "approvals").chmod(0o777)
    assert "every account may change" in fails(examine(**for_writes), "approval.directory")


def test_a_secret_that_others_can_read(target: Target, installation: Installation, tmp_path: Path,
                                       deployment: dict[str, Any],
                                       for_writes: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    file = environment_file(target, tmp_path / "e.env", {**deployment, **for_writes})
    file.chmod(0o644)
    report = report_of(admin.run("doctor", "--json", "--env", file))
    assert "every account may read" in fails(report, "approval.secret")
    assert "every account may read" in fails(report, "permissions")


# switches and HTTP


@pytest.mark.parametrize("value", ["1", "TRUE", "on", "0", "no", ""])
def test_a_switch_that_is_spelled_right(examine: Examine, value: str) -> None:
    assert examine(KOVA_MCP_DISABLE_WRITES=value)["switches"]["status"] == "ok"


@pytest.mark.parametrize("value", ["01", "true ", "enable", "ja"])
def test_a_switch_that_stops_nothing(examine: Examine, value: str) -> None:
    assert "KOVA_MCP_DISABLE_WRITES" in fails(examine(KOVA_MCP_DISABLE_WRITES=value), "switches")


@pytest.mark.parametrize("name", ["KOVA_MCP_DISABLE_WRITE", "KOVA_DISABLE_WRITES",
                                  "KOVA_MCP_PASWORD"])
def test_a_name_that_the_server_does_not_know(examine: Examine, name: str) -> None:
    assert name in warns(examine(**{name: "1"}), "switches")


@pytest.mark.parametrize("changes, status, said", [
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET}, "ok", "32 characters"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET[:31]}, "fail", "31 characters"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": "a" * 40}, "warn", "few different"),
    ({"KOVA_MCP_HTTP_RATE_PER_MINUTE": "60"}, "fail", "is not set"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_RATE_PER_MINUTE": "1e3"}, "warn", "120"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_ALLOWED_HOSTS": "https://a.example"},
     "warn", "never matches"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_ALLOWED_HOSTS": "a.example,b:8443"},
     "ok", "token"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_ALLOWED_ORIGINS": "a.example"},
     "warn", "never matches"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK": "yes"},
     "warn", "TLS"),
    ({"KOVA_MCP_HTTP_BEARER_TOKEN": SECRET, "KOVA_MCP_HTTP_ALLOW_PLAINTEXT_LOOPBACK": "2"},
     "warn", "switches nothing on"),
])
def test_the_settings_of_http(examine: Examine, changes: dict[str, str], status: str,
                              said: str) -> None:
    check = examine(**changes)["http"]
    assert check["status"] == status and said in check["detail"], check
    assert SECRET not in check["detail"] + check["advice"]


# the command itself


@pytest.mark.parametrize("text, line", [("A='x\n", 1), ("A=1\nB\n", 2)])
def test_an_environment_file_that_cannot_be_read(target: Target, installation: Installation,
                                                 tmp_path: Path, text: str, line: int) -> None:
    admin = admin_beside(target, installation, "scripted")
    file = tmp_path / "bad.env"
    file.write_text(text)
    result = admin.run("doctor", "--json", "--env", file)
    assert (result.stdout, result.code) == (b"", 2)
    assert result.stderr.count(b"\n") == 1 and str(line).encode() in result.stderr


def test_with_a_file_the_processs_own_variables_do_not_count(
        target: Target, installation: Installation, tmp_path: Path,
        deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    file = environment_file(target, tmp_path / "e.env", deployment)
    report = report_of(admin.run("doctor", "--json", "--env", file, env={
        "KOVA_MCP_DISABLE_WRITES": "wrong", "kova_mcp_disable_providers": "wrong",
        "KOVA_MCP_POLICY": "/nowhere"}))
    assert report["switches"]["status"] == report["policy"]["status"] == "ok"


# several deployments


@pytest.fixture
def examine_both(target: Target, installation: Installation, deployment: dict[str, Any],
                 for_writes: dict[str, Any], policy: PolicyFiles, folder: Path,
                 tmp_path: Path) -> "Callable[..., tuple[list[dict[str, str]], list[Path]]]":
    """`examine_both(name=..., secret=...)`: the checks of two hosts' deployments, the second with
    another policy name or secret, and their environment files."""

    def run(name: "str | None" = None,
            secret: "str | None" = SECRET) -> "tuple[list[dict[str, str]], list[Path]]":
        second_state = folder / "second"
        second_state.mkdir(mode=0o700)
        renamed = {} if name is None else {"name": name}
        second = policy(writes_enabled=True, approval_required=True, write_tables=["ORDERS"],
                        write_types=["INSERT"], approval_state_directory=second_state, **renamed)
        files = [environment_file(target, tmp_path / "one.env", {**deployment, **for_writes}),
                 environment_file(target, tmp_path / "two.env", {
                     **deployment, **second, "KOVA_MCP_APPROVAL_SECRET": secret})]
        admin = admin_beside(target, installation, "scripted")
        return checks_of(admin.run("doctor", "--json", "--env", files[0], "--env", files[1])), files

    return run


def test_two_deployments_each_have_all_checks(target: Target, examine_both: Any) -> None:
    checks, files = examine_both(name="another")
    assert [check["name"] for check in checks] == ALL + ALL
    for check, file in zip(checks, [files[0]] * len(ALL) + [files[1]] * len(ALL)):
        assert check["detail"].startswith(f"{target.path(file)}: "), check
    assert [check["status"] for check in checks if check["name"] == "approval.secret"] == [
        "ok", "ok"]


def test_equal_names_with_the_same_secret(target: Target, examine_both: Any) -> None:
    checks, files = examine_both()
    told = [check for check in checks if check["name"] == "approval.secret"]
    for check, other in zip(told, reversed(files)):
        assert check["status"] == "warn"
        assert (f'{target.path(other)} has the policy name "sales_read" and the same secret'
                in check["detail"])
        assert "a name of its own" in check["advice"]
    assert SECRET not in str(checks)


@pytest.mark.parametrize("changes", [{"name": "SALES_READ"}, {"secret": SECRET[::-1]}])
def test_deployments_whose_tokens_differ(examine_both: Any, changes: dict[str, str]) -> None:
    checks, _ = examine_both(**changes)
    assert {check["status"] for check in checks if check["name"] == "approval.secret"} == {"ok"}


def test_no_secret_is_no_shared_secret(examine_both: Any) -> None:
    checks, _ = examine_both(secret=None)
    assert [check["status"] for check in checks if check["name"] == "approval.secret"] == [
        "ok", "fail"]


def test_variables_of_one_file_do_not_count_for_the_next(
        target: Target, installation: Installation, tmp_path: Path,
        deployment: dict[str, Any]) -> None:
    admin = admin_beside(target, installation, "scripted")
    files = [environment_file(target, tmp_path / "one.env",
                              {**deployment, "KOVA_DISABLE_WRITES": "1",
                               "KOVA_MCP_HTTP_BEARER_TOKEN": SECRET}),
             environment_file(target, tmp_path / "two.env", deployment)]
    checks = checks_of(admin.run("doctor", "--json", "--env", files[0], "--env", files[1]))
    found = [(check["name"], check["status"]) for check in checks]
    assert found.index(("switches", "warn")) < found.index(("switches", "ok"))
    told = [check["detail"] for check in checks if check["name"] == "http"]
    assert "32 characters" in told[0] and told[1].endswith("not set up: stdio alone")


@pytest.mark.parametrize("second", ["one.env", "missing.env", ""])
def test_a_second_file_that_is_wrong(target: Target, installation: Installation, tmp_path: Path,
                                     deployment: dict[str, Any], second: str) -> None:
    admin = admin_beside(target, installation, "scripted")
    file = environment_file(target, tmp_path / "one.env", deployment)
    result = admin.run("doctor", "--json", "--env", file, "--env",
                       tmp_path / second if second else "")
    assert (result.stdout, result.code) == (b"", 2)
    said = {"one.env": b"is named twice", "missing.env": b"cannot be opened",
            "": b"the value is empty"}[second]
    assert said in result.stderr and result.stderr.count(b"\n") == 1
