"""kova-admin bundle: a whole bundle of what a client may have, or nothing."""

from __future__ import annotations

import json
import shutil
import zipfile
from pathlib import Path
from typing import Any

import pytest

from harness.deployments import SECRET, Admin, environment_file, tree
from harness.policy_files import PolicyFiles, profile
from harness.servers import Result
from harness.targets import ROOT, Installation, Target
from harness.write_calls import WRITES

PASSWORD = "zz-password-zz"
TOKEN = "zz-token-of-the-listener-0123456789"


@pytest.fixture(scope="session")
def admin(target: Target, installation: Installation) -> Admin:
    return Admin(target, installation.executable("sample").parent)


@pytest.fixture
def variables(policy: PolicyFiles) -> "dict[str, Any]":
    """A deployment with every secret that one may have."""
    return {**policy(), **profile("2300"), "KOVA_MCP_SERVER": "db.example",
            "KOVA_MCP_PASSWORD": PASSWORD, "KOVA_MCP_APPROVAL_SECRET": SECRET,
            "KOVA_MCP_HTTP_BEARER_TOKEN": TOKEN}


@pytest.fixture
def made(admin: Admin, target: Target, variables: Any, tmp_path: Path):
    """`made(*options, **variables)` runs the command on the deployment with these changes."""

    def run(*options: "str | Path", output: str = "site.mcpb", **changes: Any) -> Result:
        file = environment_file(target, tmp_path / "site.env", {**variables, **changes})
        return admin.run("bundle", "--env", file, "--output", tmp_path / output, *options)

    return run


def fine(result: Result) -> str:
    assert (result.stderr, result.code) == (b"", 0), result
    return result.stdout.decode().replace("\r", "")


def refused(result: Result, said: str, tmp_path: Path) -> None:
    """One line that says why, and nothing left."""
    assert (result.stdout, result.code) == (b"", 2), result
    assert result.stderr.count(b"\n") == 1 and said.encode() in result.stderr, result.stderr
    assert [path.name for path in tmp_path.iterdir() if "mcpb" in path.name] == []
    assert not list(tmp_path.glob(".kova-admin-*"))


def manifest_of(bundle: Path) -> "dict[str, Any]":
    with zipfile.ZipFile(bundle) as opened:
        return json.loads(opened.read("manifest.json"))


def other_system(target: Target, folder: Path) -> "tuple[Path, Path]":
    """Files that begin like a server and a client library of the target that is not under test."""
    if target.windows:
        head = bytearray(b"\x7fELF\x02\x01" + bytes(64 + 56 - 6))
        head[16], head[18], head[32], head[54], head[56], head[64] = 3, 62, 64, 56, 1, 3
        library = bytearray(head)
        library[64] = 1
    else:
        head = bytearray(b"MZ" + bytes(0x3a) + b"\x40\0\0\0" + b"PE\0\0\x64\x86" + bytes(18))
        library = bytearray(head)
        library[0x40 + 23] = 0x20
    (folder / "other-server").write_bytes(head)
    (folder / "other-library").write_bytes(library)
    return folder / "other-server", folder / "other-library"


def test_what_a_bundle_holds(made: Any, admin: Admin, target: Target, tmp_path: Path,
                             variables: Any) -> None:
    library = admin.folder / target.library_name
    text = fine(made("--library", library))
    assert "with the client library" in text and "--audit names no file" in text
    with zipfile.ZipFile(tmp_path / "site.mcpb") as opened:
        assert opened.testzip() is None
        found = {one.filename: opened.read(one) for one in opened.infolist()}
        modes = {one.filename: one.external_attr >> 16 for one in opened.infolist()}
        assert {one.date_time for one in opened.infolist()} == {(1980, 1, 1, 0, 0, 0)}
    manifest = found.pop("manifest.json")
    server = f"server/{target.executable.name}"
    assert found == {
        "policy.json": variables["KOVA_MCP_POLICY"].read_bytes(),
        "THIRD-PARTY-NOTICES": (ROOT / "THIRD-PARTY-NOTICES").read_bytes(),
        server: admin.server.read_bytes(),
        f"server/{target.library_name}": library.read_bytes()}
    assert list(modes) == sorted(modes)
    assert {name for name, mode in modes.items() if mode == 0o100755} == {server}
    assert {mode for name, mode in modes.items() if name != server} == {0o100644}
    document = json.loads(manifest)
    assert list(document["user_config"]) == ["password"]
    assert document["compatibility"]["platforms"] == ["win32" if target.windows else "linux"]


def test_no_secret_goes_into_it(made: Any, tmp_path: Path) -> None:
    fine(made())
    with zipfile.ZipFile(tmp_path / "site.mcpb") as opened:
        for one in opened.infolist():
            held = opened.read(one)
            for secret in (PASSWORD, SECRET, TOKEN):
                assert secret.encode() not in held, one.filename
    text = json.dumps(manifest_of(tmp_path / "site.mcpb"))
    assert "APPROVAL" not in text and "BEARER" not in text


def test_it_is_the_same_each_time(made: Any, tmp_path: Path, target: Target, admin: Admin) -> None:
    """Whatever the order of the options, and whenever it is made."""
    server, library = other_system(target, tmp_path)
    own_library = admin.folder / target.library_name
    fine(made("--server", admin.server, "--server", server, "--library", own_library, "--library",
              library, output="one.mcpb"))
    shutil.copy2(admin.server, tmp_path / "renamed")
    fine(made("--library", library, "--library", own_library, "--server", server, "--server",
              tmp_path / "renamed", output="two.mcpb"))
    assert (tmp_path / "one.mcpb").read_bytes() == (tmp_path / "two.mcpb").read_bytes()
    platforms = manifest_of(tmp_path / "one.mcpb")["compatibility"]["platforms"]
    assert platforms == ["win32", "linux"]


def test_without_a_file_the_environment_is_the_deployment(made: Any, admin: Admin, variables: Any,
                                                          tmp_path: Path) -> None:
    fine(made())
    fine(admin.run("bundle", "--output", tmp_path / "other.mcpb", env=variables))
    assert (tmp_path / "other.mcpb").read_bytes() == (tmp_path / "site.mcpb").read_bytes()


def test_a_bundle_for_the_other_system_alone(made: Any, tmp_path: Path, target: Target) -> None:
    server, _ = other_system(target, tmp_path)
    text = fine(made("--server", server))
    assert "the client library has to be on each machine's search path" in text
    platform, name = (("linux", "server/kova-mcp") if target.windows else
                      ("win32", "server/kova-mcp.exe"))
    manifest = manifest_of(tmp_path / "site.mcpb")
    assert manifest["compatibility"]["platforms"] == [platform]
    assert manifest["server"]["entry_point"] == name


def test_kill_switch_and_audit_file_go_with_it(made: Any, tmp_path: Path) -> None:
    text = fine(made("--audit", "${HOME}/calls.jsonl", KOVA_MCP_DISABLE_PROVIDERS="yes"))
    assert "--audit" not in text
    variables = manifest_of(tmp_path / "site.mcpb")["server"]["mcp_config"]["env"]
    assert variables["KOVA_MCP_DISABLE_PROVIDERS"] == "1"
    assert variables["KOVA_MCP_AUDIT"] == "${HOME}/calls.jsonl"


def test_a_bundle_that_is_there_is_replaced(made: Any, tmp_path: Path) -> None:
    (tmp_path / "site.mcpb").write_bytes(b"old")
    fine(made())
    assert (tmp_path / "site.mcpb").read_bytes().startswith(b"PK")


def test_a_bundle_that_is_there_stays_when_none_can_be_made(made: Any, tmp_path: Path) -> None:
    (tmp_path / "site.mcpb").write_bytes(b"old")
    assert made("--audit", "relative").code == 2
    assert (tmp_path / "site.mcpb").read_bytes() == b"old"


@pytest.mark.parametrize("changes, said", [
    ({"writes_enabled": True}, "the policy enables writes; a bundle is for reading only"),
    ({**WRITES, "approval_required": True}, "the policy enables writes"),
    ({"reads_enabled": "yes"}, "MCP policy booleans or allowlists are invalid"),
])
def test_a_policy_that_no_bundle_may_have(made: Any, policy: PolicyFiles, tmp_path: Path,
                                          changes: Any, said: str) -> None:
    state = tmp_path / "state"
    state.mkdir()
    refused(made(**policy(**{"approval_state_directory": state, **changes})), said, tmp_path)


@pytest.mark.parametrize("changes, said", [
    ({"KOVA_MCP_POLICY": None}, "KOVA_MCP_POLICY is not set"),
    ({"KOVA_MCP_POLICY": Path("/no/such/policy.json")}, "the file cannot be opened"),
    ({"KOVA_MCP_CLIENT_ID": "somebody"}, "MCP launch identity does not match named policy"),
    ({"KOVA_MCP_SERVER": ""}, "KOVA_MCP_SERVER is not set"),
    ({"KOVA_MCP_SERVER": "h" * 254}, "KOVA_MCP_SERVER is too long"),
    ({"KOVA_MCP_SERVER": "${HOME}"}, 'KOVA_MCP_SERVER holds "${", which a client replaces'),
    ({"KOVA_MCP_PORT": "123456"}, "KOVA_MCP_PORT is too long"),
])
def test_a_deployment_that_no_client_could_use(made: Any, tmp_path: Path, changes: Any,
                                               said: str) -> None:
    refused(made(**changes), said, tmp_path)


def test_a_server_and_a_library_are_what_they_should_be(made: Any, admin: Admin, target: Target,
                                                        tmp_path: Path) -> None:
    library = admin.folder / target.library_name
    text = tmp_path / "text"
    text.write_text("#!/bin/sh\n")
    other_server, other_library = other_system(target, tmp_path)
    for options, said in (
            (("--server", text), "neither a Windows nor a Linux file of machine code for x86-64"),
            (("--server", library), "it is a library"),
            (("--library", admin.server), "it is a program"),
            (("--server", tmp_path / "none"), "the file cannot be opened"),
            (("--server", admin.server, "--server", admin.server),
             "there is one for that system already"),
            (("--library", other_library), "the bundle has no server for it"),
            (("--server", other_server, "--library", library), "the bundle has no server for it"),
            (("--audit", "calls.jsonl"), "it is no absolute path on"),
            (("--audit", "${HOME}/${x}"), 'holds "${" after its beginning'),
            (("--server", ""), "--server")):
        refused(made(*options), said, tmp_path)


def test_an_audit_path_of_one_system_serves_no_other(made: Any, admin: Admin, target: Target,
                                                     tmp_path: Path) -> None:
    path = "C:\\calls.jsonl" if target.windows else "/var/log/calls.jsonl"
    fine(made("--audit", path))
    (tmp_path / "site.mcpb").unlink()
    server, _ = other_system(target, tmp_path)
    refused(made("--audit", path, "--server", admin.server, "--server", server),
            "begin it with ${HOME}/", tmp_path)


def test_where_it_is_written(made: Any, admin: Admin, target: Target, variables: Any,
                             tmp_path: Path) -> None:
    refused(made(output="site.zip"), "the name has to end in .mcpb", tmp_path)
    refused(made(output="none/site.mcpb"), "the file cannot be written", tmp_path)
    server = tmp_path / "server.mcpb"
    shutil.copy2(admin.server, server)
    before = tree(tmp_path)
    result = made("--server", server, output="server.mcpb")
    assert result.code == 2 and b"the output is one of the inputs" in result.stderr
    assert {name: one for name, one in tree(tmp_path).items() if name != "site.env"} == {
        name: one for name, one in before.items() if name != "site.env"}
