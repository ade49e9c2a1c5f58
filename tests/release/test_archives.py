"""The archives: the files of each target below one folder, the same bytes each time."""

from __future__ import annotations

import json
import subprocess
import sys
import tarfile
import zipfile
from pathlib import Path

from harness.messages import request
from harness.packages import EPOCH, pack
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

PROGRAMS = ("kova-mcp", "kova-admin")


def unpacked(archive: Path, folder: Path) -> Path:
    """Unpacks as a user would; returns the one folder that is there then."""
    if archive.suffix == ".zip":
        with zipfile.ZipFile(archive) as opened:
            opened.extractall(folder)
    else:
        with tarfile.open(archive) as opened:
            opened.extractall(folder)
    [top] = folder.iterdir()
    return top


def test_the_names(target: Target, packed: list[Path], version: str) -> None:
    names = ({f"kova-mcp-{version}-windows-x86_64.zip"} if target.windows else
             {f"kova-mcp-{version}-linux-x86_64.tar.gz", f"kova-mcp_{version}_amd64.deb"})
    assert {path.name for path in packed} == names


def test_what_an_archive_holds(target: Target, archive: Path, tmp_path: Path) -> None:
    top = unpacked(archive, tmp_path)
    assert archive.name in (f"{top.name}.zip", f"{top.name}.tar.gz")
    found = {str(path.relative_to(top)) for path in top.rglob("*") if path.is_file()}
    documents = "" if target.windows else "share/doc/kova-mcp/"
    if target.windows:
        expected = {f"{name}.exe" for name in PROGRAMS}
        expected |= {f"man/{page}.txt" for page in
                     ("kova-mcp.1", "kova-admin.1", "kova-mcp-policy.5")}
    else:
        expected = {f"bin/{name}" for name in PROGRAMS}
        expected |= {f"share/bash-completion/completions/{name}" for name in PROGRAMS}
        expected |= {f"share/zsh/site-functions/_{name}" for name in PROGRAMS}
        expected |= {"share/man/man1/kova-mcp.1.gz", "share/man/man1/kova-admin.1.gz",
                     "share/man/man5/kova-mcp-policy.5.gz"}
    expected |= {f"{documents}completions/{name}.ps1" for name in PROGRAMS}
    for folder in ("docs", "deploy"):
        expected |= {documents + str(path.relative_to(ROOT)) for path in (ROOT / folder).rglob("*")
                     if path.is_file() and not path.is_relative_to(ROOT / "docs" / "man")}
    expected |= {documents + name for name in
                 ("README.md", "CHANGELOG.md", "SECURITY.md", "THIRD-PARTY-NOTICES", "LICENSE")
                 if (ROOT / name).exists()}
    assert found == expected


def test_the_server_of_an_archive_runs(target: Target, archive: Path, tmp_path: Path) -> None:
    top = unpacked(archive, tmp_path)
    program = top / ("kova-mcp.exe" if target.windows else "bin/kova-mcp")
    done = subprocess.run(target.command(program, []), env=target.environment({}),
                          input=request("initialize", 1, {}), capture_output=True, timeout=TIMEOUT,
                          check=False)
    assert (done.returncode, done.stderr) == (0, b"")
    assert json.loads(done.stdout)["result"]["serverInfo"]["name"] == "Vantreo MCP"


def test_the_executables_are_stripped(target: Target, archive: Path, tmp_path: Path) -> None:
    top = unpacked(archive, tmp_path)
    for name in PROGRAMS:
        program = top / (f"{name}.exe" if target.windows else f"bin/{name}")
        done = subprocess.run(["nm", str(program)], capture_output=True, text=True,
                              timeout=TIMEOUT, check=False)
        assert "no symbols" in done.stderr and done.stdout == ""


def test_packing_again_gives_the_same_bytes(target: Target, packed: list[Path],
                                            tmp_path: Path) -> None:
    again = pack(target.build, tmp_path)
    assert [path.name for path in again] == [path.name for path in packed]
    for one, other in zip(packed, again):
        assert one.read_bytes() == other.read_bytes(), one.name


def test_an_archive_does_not_depend_on_the_order_of_its_files(archive: Path,
                                                              tmp_path: Path) -> None:
    """Packed anew in the opposite order and with other times, it is sorted to the same bytes."""
    top = unpacked(archive, tmp_path / "unpacked")
    files = sorted((path for path in top.rglob("*") if path.is_file()), reverse=True)
    other = tmp_path / archive.name
    if archive.suffix == ".zip":
        with zipfile.ZipFile(archive) as opened, zipfile.ZipFile(other, "w") as made:
            for member in reversed(opened.infolist()):
                data = opened.read(member)
                member.date_time = (1999, 1, 1, 0, 0, 0)
                made.writestr(member, data)
    else:
        with tarfile.open(other, "w:gz") as made:
            for path in files:
                made.add(path, str(path.relative_to(top.parent)))
    assert other.read_bytes() != archive.read_bytes()
    subprocess.run([sys.executable, str(ROOT / "scripts/sort_archive.py"), str(other)], check=True,
                   env={"SOURCE_DATE_EPOCH": EPOCH}, timeout=TIMEOUT)
    assert other.read_bytes() == archive.read_bytes()
