"""`policy check`: the loader's verdict, and the place of the key that it speaks of."""

from __future__ import annotations

import json

import pytest

from e2e.policy.test_file import (CANONICAL_DIRECTORY, DIRECTORY, IDENTITY, LAUNCH, LISTS,
                                  NO_DIRECTORY, SCHEMA, SIZE, TTL, WRITE_LIST, WRITE_TYPE)

KEYS = ["version", "name", "client_id", "database", "database_user", "reads_enabled",
        "provider_reads_enabled", "writes_enabled", "approval_required", "allowed_tables",
        "denied_columns", "allowed_collections", "write_tables", "write_types",
        "approval_ttl_seconds", "approval_state_directory"]
BAD = {"version": (2, IDENTITY), "name": ("a b", IDENTITY), "client_id": ("", IDENTITY),
       "database": ("a-b", IDENTITY), "database_user": ("a,b", IDENTITY),
       "reads_enabled": (1, LISTS), "provider_reads_enabled": ("true", LISTS),
       "writes_enabled": (None, LISTS), "approval_required": ([], LISTS),
       "allowed_tables": (["A", "a"], LISTS), "denied_columns": ("A", LISTS),
       "allowed_collections": ([""], LISTS), "write_tables": ([7], LISTS),
       "write_types": (["MERGE"], WRITE_TYPE), "approval_ttl_seconds": (29, TTL),
       "approval_state_directory": (None, DIRECTORY)}


def place_of(text: bytes, offset: int) -> tuple[int, int]:
    before = text[:offset]
    return before.count(b"\n") + 1, offset - (before.rfind(b"\n") + 1) + 1


def is_fault(authors, path, message, offset, env=None):
    place = place_of(path.read_bytes(), offset) if offset is not None else (None, None)
    assert authors.json("check", path, code=1, env=env) == {
        "valid": False, "message": message, "line": place[0], "column": place[1]}


def test_a_valid_policy(authors):
    assert authors.json("check", authors.policy(), code=0) == {
        "valid": True, "message": None, "line": None, "column": None}


@pytest.mark.parametrize("key", KEYS)
@pytest.mark.parametrize("indent", [None, 4])
def test_the_key_of_each_bad_value(authors, key, indent):
    value, message = BAD[key]
    text = json.dumps(authors.document(**{key: value}), indent=indent).encode()
    is_fault(authors, authors.file("p.json", text), message, text.index(b'"%s"' % key.encode()))


@pytest.mark.parametrize("key", KEYS)
def test_a_missing_key_has_no_place(authors, key):
    document = authors.document()
    del document[key]
    found = authors.json("check", authors.file("p.json", json.dumps(document)), code=1)
    assert (found["line"], found["column"]) == (None, None) and found["message"]


def test_the_second_of_two_equal_keys(authors):
    text = json.dumps(authors.document(), indent=1).replace("\n}", ',\r\n  "name": "x"\n}').encode()
    is_fault(authors, authors.file("p.json", text), SCHEMA, text.rindex(b'"name"'))


def test_an_unknown_key(authors):
    text = json.dumps(authors.document(verison=1), indent=2).encode()
    is_fault(authors, authors.file("p.json", text), SCHEMA, text.index(b'"verison"'))


def test_columns_count_bytes(authors):
    text = json.dumps({"approval_state_directory": "é€", **authors.document(version=2)},
                      ensure_ascii=False).encode()
    assert text.index(b'"version"') == 33
    document = {"approval_state_directory": "é€", "version": 2}
    text = json.dumps({**document, **{k: v for k, v in authors.document().items()
                                      if k not in document}}, ensure_ascii=False).encode()
    is_fault(authors, authors.file("p.json", text), IDENTITY, text.index(b'"version"'))


def test_a_byte_order_mark_counts(authors):
    text = b"\xef\xbb\xbf" + json.dumps(authors.document(version=2)).encode()
    is_fault(authors, authors.file("p.json", text), IDENTITY, text.index(b'"version"'))


@pytest.mark.parametrize("text, line, column", [
    ('{\n "version": 1,\n oops', 3, 2), ("[]", 1, 1), ('{"a": "\x01"}', 1, 8)])
def test_where_the_text_stops_being_json(authors, text, line, column):
    found = authors.json("check", authors.file("p.json", text), code=1)
    assert found == {"valid": False, "message": SCHEMA, "line": line, "column": column}


@pytest.mark.parametrize("size", [0, 65537, 200000])
def test_sizes(authors, size):
    is_fault(authors, authors.file("p.json", " " * size), SIZE, None)


def test_the_state_directory(authors):
    path = authors.writes(approval_state_directory="state")
    is_fault(authors, path, CANONICAL_DIRECTORY,
             path.read_bytes().index(b'"approval_state_directory"'))
    path = authors.writes(approval_state_directory=authors.folder / "missing")
    is_fault(authors, path, NO_DIRECTORY, path.read_bytes().index(b'"approval_state_directory"'))
    assert authors.json("check", "--other-host", path, code=0)["valid"] is True


def test_a_write_type_list(authors):
    path = authors.policy(write_types=["INSERT", "insert"])
    is_fault(authors, path, WRITE_LIST, path.read_bytes().index(b'"write_types"'))


IDENTITY_OF = {"KOVA_MCP_CLIENT_ID": "client_id", "KOVA_MCP_DATABASE": "database",
               "KOVA_MCP_USER": "database_user"}


@pytest.mark.parametrize("name", list(IDENTITY_OF))
def test_launch_identities(authors, name):
    path = authors.policy()
    env = {"KOVA_MCP_CLIENT_ID": "DESK-client", "KOVA_MCP_DATABASE": "sales",
           "KOVA_MCP_USER": "reader"}
    authors.json("check", path, code=0, env=env)
    offset = path.read_bytes().index(b'"%s"' % IDENTITY_OF[name].encode())
    is_fault(authors, path, LAUNCH, offset, env={**env, name: "other"})
    is_fault(authors, path, LAUNCH, offset, env={**env, name: None})
    authors.json("check", "--other-host", path, code=0, env={**env, name: "other"})
    # One that is set is enough for all three to be judged.
    first = next(key for key in IDENTITY_OF if key != name)
    is_fault(authors, path, LAUNCH,
             path.read_bytes().index(b'"%s"' % IDENTITY_OF[first].encode()),
             env={name: env[name]})


OTHER_LAUNCH = {"KOVA_MCP_CLIENT_ID": "desk-client", "KOVA_MCP_DATABASE": "SALES",
                "KOVA_MCP_USER": "other"}


def test_where_a_policy_is_needed_its_launch_identity_is_judged(authors):
    path, table = authors.policy(), authors.cases([])
    for command in (["explain", path], ["explain", path, "SELECT 1"], ["test", path, table]):
        assert authors.refusal(*command, env=OTHER_LAUNCH).endswith(LAUNCH)
        for fine in ([*command, "--other-host"], command):
            env = OTHER_LAUNCH if fine is not command else {}
            assert authors.run(*fine, env=env).code == 0
    # The files of several launches are compared with each other.
    assert authors.run("diff", path, path, env=OTHER_LAUNCH).code == 0


def test_the_environment_file_replaces_the_environment(authors):
    path = authors.policy()
    other = authors.file("other.env", "KOVA_MCP_USER=other\n")
    empty = authors.file("empty.env", "\n")
    assert authors.json("check", "--env", other, path, code=1)["message"] == LAUNCH
    authors.json("check", "--env", empty, path, code=0, env={"KOVA_MCP_USER": "other"})


def test_a_file_that_cannot_be_read(authors):
    for command in ("check", "explain", "lint"):
        assert "missing.json" in authors.refusal(command, authors.folder / "missing.json")
        assert authors.refusal(command, authors.folder)


def test_the_text_for_people(authors):
    path = authors.file("bad.json", '{\n  "version": 2}')
    result = authors.run("check", path)
    assert (result.code, result.stdout.decode().replace("\r", "")) == (
        1, f"{authors.target.path(path)}: line 2, column 3: {IDENTITY}\n")
    result = authors.run("check", authors.policy())
    assert (result.code, b"valid" in result.stdout) == (0, True)


@pytest.mark.parametrize("command", ["explain", "test", "diff", "lint"])
def test_where_a_policy_is_needed_an_invalid_one_is_bad_input(authors, command):
    path = authors.file("bad.json", '{\n  "version": 2}')
    more = {"test": [authors.cases([])], "diff": [path]}.get(command, [])
    assert authors.refusal(command, path, *more) == (
        f"{authors.target.path(path)}: line 2, column 3: {IDENTITY}")
