"""The policy file: what is accepted, the message of each refusal, and the order of the checks.

A worker loads the file anew for each call, so that one server sees them all.
"""

from __future__ import annotations

import json
import re
from pathlib import Path
from typing import Any

import pytest

from harness.policy_files import DEFAULT
from harness.tool_calls import ToolCalls, filtered

SIZE = "MCP policy file size is invalid"
SCHEMA = "MCP policy JSON/schema is invalid"
IDENTITY = "MCP policy identity/version is invalid"
LAUNCH = "MCP launch identity does not match named policy"
LISTS = "MCP policy booleans or allowlists are invalid"
WRITE_LIST = "MCP write type list is invalid"
WRITE_TYPE = "unsupported MCP write type"
TTL = "approval TTL must be 30..900 seconds"
DIRECTORY = "approval state directory is required"
CANONICAL_DIRECTORY = "approval state directory must be absolute and canonical"
NO_DIRECTORY = "approval state directory does not exist"
CANONICAL = "KOVA_MCP_POLICY must be an absolute canonical path"
CANNOT_OPEN = "MCP policy file cannot be opened"
LIMIT = 65536

LISTED = filtered(["ORDERS", "ITEMS"])


def is_accepted(tools: ToolCalls) -> None:
    tools("kova_list_tables").is_success(LISTED, objects="table-catalog")


def is_refused(tools: ToolCalls, message: str) -> None:
    tools("kova_list_tables").is_error(message, decision="deny")


def document(**overrides: Any) -> str:
    return json.dumps({**DEFAULT, **overrides})


def with_raw(key: str, value: str) -> str:
    """The default policy with a value given as JSON text."""
    return re.sub(rf'("{key}": )({re.escape(json.dumps(DEFAULT[key]))})',
                  lambda match: match[1] + value, document(), count=1)


@pytest.mark.parametrize("text", [
    "\ufeff" + document(),
    document().ljust(LIMIT),
    "\r\n\t " + document() + " \n",
    json.dumps(dict(reversed(DEFAULT.items()))),
    json.dumps(DEFAULT, indent=4),
    with_raw("name", '"sales\\u005fread"'),
    with_raw("allowed_tables", '["ORDE\\u0052S","ITEMS"]'),
    with_raw("version", " 1 "),
], ids=["byte order mark", "65536 bytes", "white space", "another order", "indented",
        "an escaped name", "an escaped table", "blanks around a number"])
def test_files_that_are_accepted(tools, text):
    tools.policy(text=text)
    is_accepted(tools)


@pytest.mark.parametrize("overrides", [
    {"client_id": "DESK-client"}, {"database": "sales"}, {"database_user": "Reader"},
    {"denied_columns": ["SSN", "_1"]}, {"denied_columns": [f"C{n}" for n in range(64)]},
    {"denied_columns": ["c" * 63]},
    {"write_types": ["insert", "Update", "DELETE"]}, {"write_types": []},
    {"approval_ttl_seconds": 30}, {"approval_ttl_seconds": 900},
    {"approval_state_directory": "no/such directory"}, {"approval_state_directory": "d" * 511},
    {"approval_state_directory": "é" * 255 + "d"},
    {"writes_enabled": True, "approval_state_directory": ".."},
    {"approval_required": True, "approval_state_directory": ""},
    # An entry may stand in several lists, and a table may bear a column's name.
    {"denied_columns": ["ORDERS"], "write_tables": ["ORDERS", "items"]},
], ids=lambda overrides: str(overrides)[:50])
def test_values_that_are_accepted(tools, overrides):
    tools.policy(**overrides)
    is_accepted(tools)


@pytest.mark.parametrize("name", ["n", "9", "_", "N" * 63])
def test_names_that_are_accepted(tools, name):
    tools.policy(name=name)
    is_accepted(tools)


def tokens(count: int) -> str:
    """An object with this number of tokens and only known keys."""
    return json.dumps({"version": [0] * (count - 3)})


@pytest.mark.parametrize("text, message", [
    ("", SIZE), (document().ljust(LIMIT + 1), SIZE), ("{" * (LIMIT + 1), SIZE),
    (" ", SCHEMA), ("\ufeff", SCHEMA), ("[]", SCHEMA), ("null", SCHEMA), ('"x"', SCHEMA),
    ("{", SCHEMA), (document() + "{}", SCHEMA), (document()[:-1] + ",}", SCHEMA),
    ("\ufeff\ufeff" + document(), SCHEMA), (document() + "\0", SCHEMA),
    (document().encode().replace(b"SALES", b"SALES\xff"), SCHEMA),
    ("// x\n" + document(), SCHEMA),
    (with_raw("reads_enabled", "TRUE"), SCHEMA), (with_raw("reads_enabled", "True"), SCHEMA),
    (with_raw("version", "01"), SCHEMA), (with_raw("version", "+1"), SCHEMA),
    (tokens(1025), SCHEMA), (tokens(1024), IDENTITY),
    ("{}", IDENTITY),
], ids=lambda value: repr(value)[:40])
def test_texts_that_are_refused(tools, text, message):
    tools.policy(text=text, audited="")
    is_refused(tools, message)


@pytest.mark.parametrize("text", [
    document(extra=1), document(Version=1), document(verison=1), document(**{"": 1}),
    document(**{"k" * 64: 1}), document(**{"version ": 1}),
    document()[:-1] + ',"version": 1}', document()[:-1] + ',"name": "sales_read"}',
    document()[:-1] + ',"v\\u0065rsion": 1}', document()[:-1] + ',"\\ud800": 1}',
    json.dumps({"Version": 2}), '{"x":1}',
], ids=lambda text: text[-30:])
def test_keys_that_are_refused(tools, text):
    tools.policy(text=text, audited="")
    is_refused(tools, SCHEMA)


@pytest.mark.parametrize("key, message", [
    ("version", IDENTITY), ("reads_enabled", LISTS), ("write_tables", LISTS),
    ("write_types", WRITE_LIST), ("approval_ttl_seconds", TTL),
    ("approval_state_directory", DIRECTORY)])
def test_an_escaped_key_is_known_and_not_found(tools, key, message):
    """The message is that of the step that reads the value."""
    escaped = f'"\\u{ord(key[0]):04x}{key[1:]}":'
    tools.policy(text=document().replace(f'"{key}":', escaped),
                 audited="" if key == "version" else "sales_read")
    is_refused(tools, message)


@pytest.mark.parametrize("key, message", [
    ("version", IDENTITY), ("name", IDENTITY), ("client_id", IDENTITY), ("database", IDENTITY),
    ("database_user", IDENTITY), ("reads_enabled", LISTS), ("provider_reads_enabled", LISTS),
    ("writes_enabled", LISTS), ("approval_required", LISTS), ("allowed_tables", LISTS),
    ("denied_columns", LISTS), ("allowed_collections", LISTS), ("write_tables", LISTS),
    ("write_types", WRITE_LIST), ("approval_ttl_seconds", TTL),
    ("approval_state_directory", DIRECTORY)])
def test_every_key_is_required(tools, key, message):
    tools.policy(without=[key], audited="" if key in ("version", "name") else "sales_read")
    is_refused(tools, message)


@pytest.mark.parametrize("version", ["2", "0", '"1"', "1.0", "1e0", "-1", "4294967297", "true",
                                     "null", "[1]", "1" + "0" * 31])
def test_versions_that_are_refused(tools, version):
    tools.policy(text=with_raw("version", version), audited="")
    is_refused(tools, IDENTITY)


NAMES = ["", "a-b", "a.b", "a b", "é", "n" * 64, 7, None, ["n"]]
IDENTITIES = ["", "a b", "a,b", "a;b", "é", "a/b", "i" * 96, 7, None, {}]


@pytest.mark.parametrize("key, value", [
    *(("name", value) for value in NAMES), ("database", "a-b"), ("database", "d" * 64),
    *(("client_id", value) for value in IDENTITIES), ("database_user", "a,b"),
    ("database_user", "u" * 96)], ids=lambda value: str(value)[:20])
def test_identities_that_are_refused(tools, key, value):
    tools.policy(**{key: value})
    outcome = tools("kova_list_tables")
    assert outcome.statements == []
    assert IDENTITY.encode() in outcome.reply


@pytest.mark.parametrize("overrides", [
    {"client_id": "desk-client2"}, {"client_id": "desk_client"}, {"database": "SALE"},
    {"database_user": "reader."}], ids=str)
def test_another_launch_identity(tools, overrides):
    tools.policy(**overrides)
    is_refused(tools, LAUNCH)


@pytest.mark.parametrize("key, value", [
    *(("reads_enabled", value) for value in ('"true"', '"TRUE"', "1", "0", "null", "[]", '""')),
    ("provider_reads_enabled", '"true"'), ("writes_enabled", "0"), ("approval_required", "null")])
def test_booleans_that_are_refused(tools, key, value):
    tools.policy(text=with_raw(key, value), audited="sales_read")
    is_refused(tools, LISTS)


BAD_LISTS = [None, "ORDERS", {}, 7, [7], [None], [["A"]], [""], ["A B"], ["A-B"], ["É"], ["A;"],
             ["A", "a"], ["T" * 64], [f"T{n}" for n in range(65)]]


@pytest.mark.parametrize("key, message, value", [
    *(("allowed_tables", LISTS, value) for value in BAD_LISTS),
    *((key, LISTS, value) for value in (["A", "a"], [f"T{n}" for n in range(65)])
      for key in ("denied_columns", "allowed_collections", "write_tables")),
    *(("write_types", WRITE_LIST, value)
      for value in (None, "INSERT", ["INSERT "], ["A B"], ["INSERT", "insert"], [7],
                    [f"T{n}" for n in range(65)])),
    ("write_types", WRITE_TYPE, ["MERGE"]), ("write_types", WRITE_TYPE, ["INSERT", "INSERTS"]),
    ("write_types", WRITE_TYPE, ["SELECT"]),
], ids=lambda value: str(value)[:30])
def test_lists_that_are_refused(tools, key, message, value):
    tools.policy(**{key: value})
    is_refused(tools, message)


@pytest.mark.parametrize("value", ["29", "901", "0", "-30", '"300"', "300.0", "3e2", "null",
                                   "4294967596"])
def test_lifetimes_that_are_refused(tools, value):
    tools.policy(text=with_raw("approval_ttl_seconds", value), audited="sales_read")
    is_refused(tools, TTL)


@pytest.mark.parametrize("value", [None, 7, [], "d" * 512, "é" * 256], ids=lambda v: str(v)[:9])
def test_directories_that_are_no_text(tools, value):
    tools.policy(approval_state_directory=value)
    is_refused(tools, DIRECTORY)


APPROVED_WRITES = {"writes_enabled": True, "approval_required": True}


@pytest.mark.parametrize("value", ["", "x", ".", "./x", "..", "state/"])
def test_directories_that_are_not_canonical(tools, value):
    tools.policy(**APPROVED_WRITES, approval_state_directory=value)
    is_refused(tools, CANONICAL_DIRECTORY)


def test_directories_that_are_none(tools, tmp_path):
    for value in (tmp_path / "missing", tmp_path / "file"):
        (tmp_path / "file").write_text("x")
        tools.policy(**APPROVED_WRITES, approval_state_directory=value)
        is_refused(tools, NO_DIRECTORY)
    tools.policy(**APPROVED_WRITES, approval_state_directory=tmp_path / "x" / ".." / "file")
    is_refused(tools, CANONICAL_DIRECTORY)
    tools.policy(**APPROVED_WRITES, approval_state_directory=tmp_path)
    is_accepted(tools)


@pytest.mark.parametrize("overrides, message", [
    # A fault of one step together with one of the next.
    ({"extra": 1, "version": 2}, SCHEMA),
    ({"version": 2, "client_id": "other"}, IDENTITY),
    ({"database": "OTHER", "reads_enabled": 1}, LAUNCH),
    ({"approval_required": 1, "write_types": 7}, LISTS),
    ({"write_tables": [""], "write_types": ["MERGE"]}, LISTS),
    ({"write_types": ["MERGE", "merge"]}, WRITE_LIST),
    ({"write_types": ["MERGE"], "approval_ttl_seconds": 29}, WRITE_TYPE),
    ({"approval_ttl_seconds": 29, "approval_state_directory": 7}, TTL),
    ({**APPROVED_WRITES, "approval_state_directory": 7}, DIRECTORY),
    ({**APPROVED_WRITES, "approval_state_directory": "no such"}, CANONICAL_DIRECTORY),
], ids=lambda value: str(value)[:60])
def test_the_first_fault_is_told(tools, overrides, message):
    tools.policy(**overrides, audited="" if message in (SCHEMA, IDENTITY) else "sales_read")
    is_refused(tools, message)


def check(run, env) -> str:
    """The message of --check-policy, or nothing."""
    result = run("--check-policy", env=env)
    if result.code == 0:
        return ""
    return result.stderr.decode().strip().removeprefix("MCP_CONFIG_INVALID: ")


def of_length(folder: Path, target, length: int) -> Path:
    """A path below the folder that has this number of characters on the target."""
    path = folder
    while len(target.path(path)) < length - 100:
        path = path / ("d" * 60)
    path.mkdir(parents=True, exist_ok=True)
    path = path / ("p" * (length - len(target.path(path)) - 1))
    assert len(target.path(path)) == length
    return path


def test_the_length_of_a_path(run, target, policy, tmp_path):
    for length, message in ((259, ""), (260, CANONICAL)):
        path = of_length(tmp_path, target, length)
        path.write_text(document())
        assert check(run, {"KOVA_MCP_POLICY": path, **policy.identity()}) == message


def test_paths_that_are_not_canonical(run, target, policy, tmp_path):
    """Only the text is checked, not what exists at that path."""
    file = tmp_path / "policy.json"
    file.write_text(document())
    (tmp_path / "d").mkdir()
    text, separator = target.path(file), "\\" if target.windows else "/"
    folder = target.path(tmp_path)
    wrong = ["policy.json", f".{separator}policy.json", folder + separator + separator + file.name,
             separator.join([folder, ".", file.name]),
             separator.join([folder, "d", "..", file.name]),
             separator.join([folder, "missing", "..", file.name]), separator.join([folder, ".."])]
    if target.windows:
        wrong += [text.replace("\\", "/"), text[2:], "Z:policy.json", text + " ", text + "."]
    for path in wrong:
        assert check(run, {"KOVA_MCP_POLICY": path, **policy.identity()}) == CANONICAL, path
    assert check(run, {"KOVA_MCP_POLICY": text, **policy.identity()}) == ""


def test_files_that_cannot_be_opened(run, policy, tmp_path):
    for path in (tmp_path / "missing.json", tmp_path / "missing" / "policy.json", tmp_path):
        assert check(run, {"KOVA_MCP_POLICY": path, **policy.identity()}) == CANNOT_OPEN


def test_a_path_beyond_ascii(run, policy, tmp_path):
    path = tmp_path / "pölicy-€.json"
    path.write_text(document())
    assert check(run, {"KOVA_MCP_POLICY": path, **policy.identity()}) == ""


@pytest.mark.parametrize("name", ["KOVA_MCP_CLIENT_ID", "KOVA_MCP_DATABASE", "KOVA_MCP_USER"])
def test_the_launch_identity_must_be_whole(run, policy, name):
    env = policy()
    for value in (None, "", "other", f"{env[name]} "):
        assert check(run, {**env, name: value}) == LAUNCH
    assert check(run, {**env, name: str(env[name]).swapcase()}) == ""


@pytest.mark.parametrize("path, message", [("x.json", CANONICAL), (Path("/x/y.json"), CANNOT_OPEN)])
def test_a_policy_that_cannot_be_read_is_named_by_nothing(module_servers, engine, tmp_path, path,
                                                          message):
    """The audit does not record it as a missing policy."""
    tools = ToolCalls(module_servers, engine, tmp_path, env={"KOVA_MCP_POLICY": path})
    tools.policy_name = ""
    tools("kova_list_tables").is_error(message, decision="deny")
    tools("nothing").is_error(message, decision="deny")
