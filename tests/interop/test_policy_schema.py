"""The schema of a policy file against every policy of the loader's tests and of its fuzzer's
corpus: it refuses nothing that the server accepts, and lets pass only what docs/policy.md says that
a schema cannot express."""

from __future__ import annotations

import importlib
import json
import re
import subprocess
from pathlib import Path
from typing import Any, Iterator

import pytest

from e2e.admin.test_policy_check import BAD
from harness.policy_desk import PolicyDesk
from harness.policy_files import DEFAULT
from harness.targets import ROOT, Target

HERE = Path(__file__).resolve().parent
MARK = "\ufeff"
KEYWORDS = {"title", "description", "type", "additionalProperties", "required", "properties", "if",
            "then", "const", "pattern", "items", "maxItems", "uniqueItems", "minimum", "maximum",
            "maxLength"}
APPROVED = {"writes_enabled": True, "approval_required": True}


def rows(module: Any) -> Iterator[dict[str, Any]]:
    """The parameters of every row of the module's tables."""
    for test in vars(module).values():
        for mark in getattr(test, "pytestmark", []):
            if mark.name != "parametrize":
                continue
            names = [name.strip() for name in mark.args[0].split(",")]
            for row in mark.args[1]:
                yield dict(zip(names, [row] if len(names) == 1 else row))


def documents(state: str) -> list[str]:
    module = importlib.import_module("e2e.policy.test_file")
    texts = []
    for row in rows(module):
        if "text" in row:
            text = row["text"]
            texts.append(text.decode("utf-8", "surrogateescape")
                         if isinstance(text, bytes) else text)
        elif "overrides" in row:
            texts.append(json.dumps({**DEFAULT, **row["overrides"]}))
        elif "key" in row and "value" in row:
            texts.append(json.dumps({**DEFAULT, row["key"]: row["value"]}))
            if isinstance(row["value"], str):  # some tables hold JSON text
                texts.append(module.with_raw(row["key"], row["value"]))
        elif "key" in row:
            texts.append(json.dumps({k: v for k, v in DEFAULT.items() if k != row["key"]}))
        elif "version" in row:
            texts.append(module.with_raw("version", row["version"]))
        elif "name" in row and not row["name"].startswith("KOVA_"):
            texts.append(json.dumps({**DEFAULT, "name": row["name"]}))
    texts += [json.dumps({**DEFAULT, **APPROVED, "approval_state_directory": value})
              for value in ("", "x", "/no/such", "C:\\no", "\\\\host\\share\\x", state)]
    texts += [module.with_raw(key, value) for key, value in (
        ("name", '"a\\u0000\\u00e9"'), ("client_id", '"a-b\\u0000 "'),
        ("allowed_tables", '["A\\u0000-", "B"]'), ("write_types", '["insert\\u0000!"]'),
        ("approval_state_directory", '"\\ud800"'), ("approval_state_directory", '"\\udc00x"'),
        ("approval_state_directory", '"\\ud83d\\ude00"'))]
    texts += [json.dumps({**DEFAULT, key: value}) for key, (value, _) in BAD.items()]
    for path in (*(ROOT / "deploy").glob("policy-*.json"),
                 *(ROOT / "deploy").glob("policy-repository/policies/*.json"),
                 *(ROOT / "sample" / "data").glob("policy*.json"),
                 *(ROOT / "tests" / "fuzz" / "corpus" / "policy_file").iterdir()):
        texts.append(path.read_bytes().decode("utf-8", "surrogateescape"))
    assert len(texts) > 300
    return list(dict.fromkeys(texts))


def is_whole(number: Any) -> bool:
    return isinstance(number, float) and number == int(number)


def cannot_be_said(text: str) -> bool:
    """Whether the text has one of the differences that docs/policy.md lists."""
    pairs: list[tuple[str, Any]] = []
    document = json.loads(text.removeprefix(MARK), object_pairs_hook=lambda found: (
        pairs.extend(found), dict(found))[1])
    keys = [key for key, _ in pairs]
    lists = [value for value in document.values() if isinstance(value, list)]
    return (len(keys) != len(set(keys))
            or any(f'"{key}"' not in text for key in keys)
            or len(text.encode()) > 65536
            or text.startswith(MARK + MARK)
            or is_whole(document["version"]) or is_whole(document["approval_ttl_seconds"])
            or any(len({str(entry).split("\0")[0].lower() for entry in names}) < len(names)
                   for names in lists)
            or any("\ud800" <= c <= "\udfff" for c in document["approval_state_directory"])
            or len(document["approval_state_directory"].encode()) > 511
            or (document["writes_enabled"] and document["approval_required"]
                and re.match(r"/|[A-Za-z]:\\|\\\\", document["approval_state_directory"])
                is not None))


@pytest.fixture(scope="module")
def authors(target: Target, tmp_path_factory: pytest.TempPathFactory) -> PolicyDesk:
    return PolicyDesk(target, tmp_path_factory.mktemp("schema"))


@pytest.fixture(scope="module")
def schema(authors: PolicyDesk) -> str:
    result = authors.run("schema")
    assert (result.code, result.stderr) == (0, b"")
    return result.stdout.decode()


def judge(schema: str, texts: list[str]) -> list[Any]:
    done = subprocess.run(["node", str(HERE / "schema.mjs")], capture_output=True, timeout=120,
                          input=json.dumps({"schema": schema, "documents": texts}).encode(),
                          check=False)
    assert done.returncode == 0, done.stderr.decode(errors="replace")
    return json.loads(done.stdout)


def test_the_shipped_file_is_what_the_program_prints(schema: str) -> None:
    assert schema.encode() == (ROOT / "deploy" / "policy.schema.json").read_bytes()


def test_only_words_that_both_drafts_know(schema: str) -> None:
    def check(node: Any) -> None:
        assert set(node) <= KEYWORDS
        for name, property_ in node.get("properties", {}).items():
            assert len(property_.get("description", "")) > 10, name
            check(property_)
        for word in ("items", "if", "then"):
            if word in node:
                check(node[word])

    parsed = json.loads(schema)
    check(parsed)
    assert set(parsed["properties"]) == set(parsed["required"]) == set(DEFAULT)


@pytest.mark.slow
def test_every_policy_of_the_tests(authors: PolicyDesk, schema: str) -> None:
    texts = documents(authors.target.path(authors.state))
    verdicts = judge(schema, [text.removeprefix(MARK) for text in texts])
    accepted = refused = 0
    for number, (text, verdict) in enumerate(zip(texts, verdicts)):
        path = authors.file(f"{number}.json", text.encode("utf-8", "surrogateescape"))
        valid = authors.run("check", path).code == 0
        if valid:
            assert verdict == {"draft07": True, "draft2020": True}, text
            accepted += 1
            continue
        refused += 1
        if verdict is not None:
            assert verdict["draft07"] == verdict["draft2020"], text
        if verdict is not None and verdict["draft07"]:
            assert cannot_be_said(text), text
    assert accepted > 25 and refused > 100


@pytest.mark.parametrize("directory, passes", [
    ("", False), ("x", False), ("./x", False), ("/srv/x", True), ("C:\\x", True),
    ("\\\\host\\x", True), ("C:x", False)])
def test_the_state_directory_of_approved_writes(schema: str, directory: str, passes: bool) -> None:
    text = json.dumps({**DEFAULT, **APPROVED, "approval_state_directory": directory})
    free = json.dumps({**DEFAULT, "approval_state_directory": directory})
    assert judge(schema, [text, free]) == [{"draft07": passes, "draft2020": passes},
                                           {"draft07": True, "draft2020": True}]
