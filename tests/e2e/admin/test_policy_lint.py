"""`policy lint`: each mistake that looks harmless, and none in a good policy."""

from __future__ import annotations

import os
import shutil

import pytest

MEMBERS = ["file", "rule", "key", "why", "instead"]


def lint(authors, *paths, code=1, env=None):
    findings = authors.json("lint", *paths, code=code, env=env)["findings"]
    assert all(list(each) == MEMBERS and each["why"] and each["instead"] for each in findings)
    return [(each["rule"], each["key"]) for each in findings]


def test_nothing(authors):
    assert lint(authors, authors.policy(), code=0) == []
    assert lint(authors, authors.writes(allowed_tables=["ORDERS", "T"]), code=0) == []
    result = authors.run("lint", authors.policy())
    assert (result.code, result.stdout.strip()) == (0, b"Nothing found.")


@pytest.mark.parametrize("overrides, rules", [
    ({"writes_enabled": True, "write_types": ["INSERT"], "write_tables": ["ORDERS"]},
     [("writes-without-approval", "approval_required")]),
    ({"approval_ttl_seconds": 301}, [("long-ttl", "approval_ttl_seconds")]),
    ({"write_tables": ["orders", "LOG"]}, [("write-table-not-readable", "write_tables")]),
    ({"allowed_tables": ["ORDERS", "customers"]}, [("no-denied-columns", "denied_columns")]),
    ({"allowed_tables": ["CUSTOMERS"], "denied_columns": ["EMAIL"]}, []),
    ({"approval_ttl_seconds": 900, "allowed_tables": ["EMPLOYEE"]},
     [("long-ttl", "approval_ttl_seconds"), ("no-denied-columns", "denied_columns")]),
])
def test_rules_of_the_policy(authors, overrides, rules):
    assert lint(authors, authors.policy(**overrides), code=1 if rules else 0) == rules


def test_one_name_on_several_hosts(authors):
    first, second = authors.policy("a.json"), authors.policy("b.json")
    third = authors.policy("c.json", name="other")
    found = authors.json("lint", first, second, third, code=1)["findings"]
    assert [(each["file"], each["rule"], each["key"]) for each in found] == [
        (authors.target.path(second), "shared-name", "name")]
    assert authors.target.path(first) in found[0]["why"]
    assert "a token for one host is accepted by the other" in found[0]["why"]
    # An approval for the one is none for the other; its name still says too little.
    for binding in ({"client_id": "other"}, {"database": "OTHER"}):
        other = authors.policy("d.json", **binding)
        [finding] = authors.json("lint", first, other, code=1)["findings"]
        assert finding["rule"] == "shared-name" and "token" not in finding["why"]
    assert lint(authors, first, first, code=0) == []


def test_one_file_under_two_names_shares_no_name(authors):
    path = authors.policy()
    again = path.with_name("again.json")
    os.link(path, again)
    assert lint(authors, path, again, code=0) == []
    copy = path.with_name("copy.json")
    shutil.copy(path, copy)
    assert lint(authors, path, copy, again) == [("shared-name", "name"), ("shared-name", "name")]
    if not authors.target.windows:
        link = path.with_name("link.json")
        link.symlink_to(path)
        assert lint(authors, link, path, code=0) == []


def test_identities_are_not_judged(authors):
    assert lint(authors, authors.policy(), code=0, env={"KOVA_MCP_CLIENT_ID": "other"}) == []


def test_the_limit_of_a_long_lifetime(authors):
    assert lint(authors, authors.policy(approval_ttl_seconds=300), code=0) == []
    assert lint(authors, authors.policy(approval_ttl_seconds=301)) == [
        ("long-ttl", "approval_ttl_seconds")]


def test_the_text_for_people(authors):
    path = authors.policy(approval_ttl_seconds=900)
    result = authors.run("lint", path)
    assert result.code == 1
    first, second = result.stdout.decode().replace("\r", "").splitlines()
    assert first.startswith(f"{authors.target.path(path)}: long-ttl (approval_ttl_seconds): ")
    assert second.startswith("  -> ")
