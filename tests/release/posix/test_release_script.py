"""What ./release refuses before it builds, and what ./release --check finds. Nothing is built."""

from __future__ import annotations

import argparse
import json
import subprocess
from pathlib import Path
from typing import Any, Callable

import pytest

import make_release
import registry_file
import windows_installer
from harness.waiting import TIMEOUT


def options(**chosen: Any) -> argparse.Namespace:
    return argparse.Namespace(**{"check": False, "sign": None, "maintainer": "", **chosen})


# Before anything is built


@pytest.fixture
def settled(monkeypatch: pytest.MonkeyPatch) -> None:
    """The tree is as committed."""
    monkeypatch.setattr(make_release, "git", lambda *_: "")


def refusal(**chosen: Any) -> str:
    with pytest.raises(make_release.Refused) as refused:
        make_release.refuse_unready(options(**chosen))
    return str(refused.value)


def test_a_tree_as_committed_is_taken(settled: None, tmp_path: Path) -> None:
    key = tmp_path / "key"
    key.touch()
    make_release.refuse_unready(options(sign=key, check=True))


def test_a_tree_with_a_change_is_refused(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(make_release, "git", lambda *_: " M README.md")
    assert refusal() == "the tree is not as committed"


def test_a_version_that_the_changelog_does_not_have(settled: None,
                                                    monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(make_release, "version", lambda: "99.0.0")
    assert refusal() == "CHANGELOG.md has no heading for 99.0.0"


def test_a_licence_that_the_package_does_not_name(settled: None, tmp_path: Path,
                                                  monkeypatch: pytest.MonkeyPatch) -> None:
    (tmp_path / "LICENSE").touch()
    monkeypatch.setattr(make_release, "LICENCE", tmp_path / "LICENSE")
    assert refusal() == "cmake/debian/copyright says that no licence is chosen"


def test_a_key_that_is_not_there(settled: None, tmp_path: Path) -> None:
    assert refusal(sign=tmp_path / "key") == f"{tmp_path}/key: there is no such key"


def test_validators_that_are_not_installed(settled: None, tmp_path: Path,
                                           monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(make_release, "VALIDATOR", tmp_path / "validate.mjs")
    assert "the validators are not installed" in refusal(check=True)


# What only the owner can choose


def test_what_is_missing_is_named(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(make_release, "LICENCE", tmp_path / "LICENSE")
    nobody, somebody = registry_file.Publisher(), registry_file.Publisher("a", "b", "c", "d")
    named = " ".join(make_release.missing(options(), nobody))
    for text in ("licence", "--maintainer", "--registry-", "--sign", "Authenticode"):
        assert text in named
    (tmp_path / "LICENSE").touch()
    [left] = make_release.missing(options(maintainer="A <a@b>", sign=tmp_path / "key"), somebody)
    assert "Authenticode" in left


# The comparison of two builds


def installer(folder: Path, text: str, publisher: str = "") -> Path:
    files = folder / "files"
    files.mkdir(parents=True)
    (files / "kova-mcp.exe").write_text(text, encoding="ascii")
    made = folder / "kova-mcp.msi"
    windows_installer.write_installer(made, files, "1.2.3", folder, publisher)
    return made


@pytest.fixture
def builds(tmp_path: Path) -> Callable[..., list[str]]:
    """`builds(one, other)` makes two folders of these files and returns what differs."""

    def compare(*contents: dict[str, bytes]) -> list[str]:
        folders = []
        for number, files in enumerate(contents):
            folder = tmp_path / f"build-{number}"
            folder.mkdir()
            for name, data in files.items():
                (folder / name).write_bytes(data)
            folders.append(folder)
        work = tmp_path / "work"
        work.mkdir()
        return make_release.differences(folders[0], folders[1], work)

    return compare


def test_builds_with_the_same_bytes(builds: Callable[..., list[str]]) -> None:
    files = {"a.deb": b"1", "a.zip": b"2", "a.mcpb": b"3", "a.zip.cdx.json": b"4"}
    assert builds({**files, "SHA256SUMS": b"5", "a.msi.cdx.json": b"6"},
                  {**files, "SHA256SUMS": b"7", "a.msi.cdx.json": b"8"}) == []


@pytest.mark.parametrize("name", ["a.tar.gz", "a.deb", "a.zip", "a.mcpb", "a.zip.cdx.json",
                                  "server.json"])
def test_a_file_that_differs(builds: Callable[..., list[str]], name: str) -> None:
    assert builds({name: b"1"}, {name: b"2"}) == [f"{name} differs between two builds"]


def test_a_file_of_one_build_alone(builds: Callable[..., list[str]]) -> None:
    assert builds({"a.deb": b"1", "a.zip": b"2"}, {"a.deb": b"1"}) == [
        "a.zip is in one build alone"]


def test_an_installer_is_compared_by_its_contents(builds: Callable[..., list[str]],
                                                  tmp_path: Path) -> None:
    one = installer(tmp_path / "one", "the program").read_bytes()
    other = installer(tmp_path / "other", "the program", "Example Ltd").read_bytes()
    assert one != other and builds({"a.msi": one}, {"a.msi": other}) == []


def test_an_installer_of_another_program(builds: Callable[..., list[str]],
                                         tmp_path: Path) -> None:
    one, other = (installer(tmp_path / text, text).read_bytes() for text in ("one", "two"))
    assert builds({"a.msi": one}, {"a.msi": other}) == ["a.msi differs between two builds"]


def test_an_installer_names_its_publisher(tmp_path: Path) -> None:
    for folder, publisher, said in (("one", "Example & Sons", "Example & Sons"),
                                    ("two", "", windows_installer.NOBODY)):
        made = installer(tmp_path / folder, "the program", publisher)
        shown = subprocess.run(["msiinfo", "export", str(made), "Property"], capture_output=True,
                               text=True, timeout=TIMEOUT, check=True).stdout
        assert f"Manufacturer\t{said}\n" in shown.replace("\r", "")


# The validators, and the exit code


@pytest.fixture
def dist(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    folder = tmp_path / "dist"
    folder.mkdir()
    monkeypatch.setattr(make_release, "DIST", folder)
    return folder


def test_each_validator_is_asked(dist: Path, tmp_path: Path) -> None:
    control = tmp_path / "package" / "DEBIAN" / "control"
    control.parent.mkdir(parents=True)
    control.write_text("Package: a\nVersion: 1\nArchitecture: amd64\nMaintainer: A <a@b.c>\n"
                       "Description: without a copyright file\n", encoding="ascii")
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", str(tmp_path / "package"),
                    str(dist / "a_1_amd64.deb")], check=True, capture_output=True, timeout=TIMEOUT)
    (dist / "a.zip.cdx.json").write_text("{}", encoding="ascii")
    (dist / "a.mcpb").write_bytes(b"no archive")
    bundle = tmp_path / "mcp.mcpb"
    bundle.write_bytes(b"a bundle")
    document = json.loads(registry_file.filled(bundle, "1.2.3", registry_file.Publisher()))
    document["version"] = "^1"
    (dist / "server.json").write_text(json.dumps(document), encoding="utf-8")
    found = make_release.faults()
    assert found[:3] == ["lintian objects to a_1_amd64.deb", "a.mcpb is not valid",
                         "a.zip.cdx.json is not valid"]
    assert len(found) > 3 and all(one.startswith("server.json: version") for one in found[3:])


@pytest.mark.parametrize("found, code", [([], 0), (["a.deb differs between two builds"], 1)])
def test_what_is_found_ends_it_unsigned(dist: Path, tmp_path: Path, found: list[str], code: int,
                                        monkeypatch: pytest.MonkeyPatch,
                                        capfd: pytest.CaptureFixture[str]) -> None:
    key, signed = tmp_path / "key", []
    key.touch()
    (dist / "SHA256SUMS").touch()
    monkeypatch.setattr(make_release, "git", lambda *words: "1700000000" * ("log" in words))
    monkeypatch.setattr(make_release, "make", lambda *_: None)
    monkeypatch.setattr(make_release, "check", lambda _: found)
    monkeypatch.setattr(make_release, "sign", signed.append)
    for name in ("SOURCE_DATE_EPOCH", "TZ", "LC_ALL"):
        monkeypatch.setenv(name, "")
    assert make_release.main(["--check", "--sign", str(key)]) == code
    assert signed == ([] if found else [key])
    assert all(f"release: {one}\n" in capfd.readouterr().err for one in found)
