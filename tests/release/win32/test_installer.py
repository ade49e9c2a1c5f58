"""The Windows installer: silent, runnable afterwards, and gone without a trace."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest

import windows_installer
from harness.targets import Target
from harness.waiting import TIMEOUT


def files_below(folder: Path) -> set[str]:
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()}


@pytest.fixture
def unpacked(archive: Path, tmp_path: Path) -> Path:
    folder = tmp_path / "unpacked"
    folder.mkdir()
    subprocess.run(["cmake", "-E", "tar", "xf", str(archive)], cwd=folder, check=True,
                   timeout=TIMEOUT)
    [top] = folder.iterdir()
    return top


@pytest.fixture
def installer(unpacked: Path, version: str, tmp_path: Path) -> Path:
    made = tmp_path / "kova-mcp.msi"
    windows_installer.write_installer(made, unpacked, version, tmp_path)
    return made


def run_of_windows(target: Target, name: str, *arguments: str) -> int:
    """Its exit code. What it prints is not collected: msiexec may start Wine's desktop, which would
    keep a pipe open after it."""
    program = target.prefix / "drive_c" / "windows" / "system32" / name
    return subprocess.run(target.command(program, list(arguments)), env=target.environment({}),
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, timeout=TIMEOUT, check=False).returncode


def registered(target: Target, file: Path) -> bool:
    """Whether the machine's part of the registry names the program."""
    key = "HKLM\\Software"
    assert run_of_windows(target, "reg.exe", "export", key, target.path(file), "/y") == 0
    return "kova-mcp" in file.read_text("utf-16")


def test_it_installs_silently_and_leaves_nothing_behind(target: Target, unpacked: Path,
                                                        installer: Path, tmp_path: Path) -> None:
    disk = target.prefix / "drive_c"
    place = disk / "Program Files" / "kova-mcp"
    before = files_below(disk)

    def msiexec(option: str) -> int:
        return run_of_windows(target, "msiexec.exe", option, target.path(installer), "/qn")

    assert msiexec("/i") == 0
    try:
        assert registered(target, tmp_path / "with.reg")
        assert files_below(place) == files_below(unpacked)
        done = subprocess.run(target.command(place / "kova-mcp.exe", ["--check-policy"]),
                              env=target.environment({}), capture_output=True, timeout=TIMEOUT,
                              check=False)
        assert done.returncode == 0 and done.stdout.startswith(b"MCP_CONFIG_OK ")
    finally:
        code = msiexec("/x")
    assert code == 0 and not place.exists()
    assert files_below(disk) - before == set()
    assert not registered(target, tmp_path / "without.reg")


def test_two_installers_hold_the_same_files(unpacked: Path, installer: Path, version: str,
                                            tmp_path: Path) -> None:
    again = tmp_path / "again.msi"
    windows_installer.write_installer(again, unpacked, version, tmp_path)
    held = []
    for number, one in enumerate((installer, again)):
        folder = tmp_path / f"extracted-{number}"
        folder.mkdir()
        subprocess.run(["msiextract", "-C", str(folder), str(one)], check=True,
                       capture_output=True, timeout=TIMEOUT)
        held.append({name: (folder / name).read_bytes() for name in files_below(folder)})
    assert held[0] == held[1] and len(held[0]) == len(files_below(unpacked))
