"""Somebody who has never seen it installs a release on an empty Debian by docs/install.md."""

from __future__ import annotations

import re
import shutil
import subprocess
from pathlib import Path
from typing import Iterator

import pytest

import make_release
from harness import newcomer
from harness.debian_root import DebianRoot
from harness.sample_engine import PASSWORD, Engine
from harness.servers import Server
from harness.targets import ROOT, Target
from harness.waiting import TIMEOUT

ACCOUNT = "analyst"
HOME = f"/home/{ACCOUNT}"
NEXT = "99.0.0"
"""The version of the upgrade."""

NOTHING_STARTED = r"""
for process in /proc/[0-9]*; do
    case $(readlink $process/exe) in */kova-*) echo runs $process ;; esac
done
find /etc/systemd -name '*kova*'
"""


@pytest.fixture(scope="module")
def root(empty_debian: Path, tmp_path_factory: pytest.TempPathFactory) -> Iterator[DebianRoot]:
    made = DebianRoot(empty_debian, tmp_path_factory.mktemp("debian") / "root")
    made.run(f"useradd --create-home {ACCOUNT}")
    yield made
    shutil.rmtree(made.folder)


def newer(package: Path, version: str, folder: Path) -> Path:
    """The same package as one of a later version."""
    subprocess.run(["dpkg-deb", "-R", str(package), str(folder)], check=True, timeout=TIMEOUT)
    control = folder / "DEBIAN" / "control"
    control.write_text(re.sub(r"(?m)^Version: .*$", f"Version: {version}",
                              control.read_text("utf-8")), encoding="utf-8")
    made = folder.parent / f"kova-mcp_{version}_amd64.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", str(folder), str(made)], check=True,
                   capture_output=True, timeout=TIMEOUT)
    return made


def give(root: DebianRoot, home: str, *files: Path) -> None:
    for file in files:
        shutil.copy2(file, root.path(home) / file.name)


def deploy(root: DebianRoot, block: str, engine: Engine) -> str:
    """As the newcomer's account; returns what was printed."""
    shutil.rmtree(root.path(HOME) / "kova-sales", ignore_errors=True)
    password = root.path(HOME) / "password"
    password.write_text(PASSWORD, encoding="utf-8")
    root.run(f"chown {ACCOUNT} {HOME}/password; chmod 600 {HOME}/password")
    printed = root.run(newcomer.at_the_engine(block, engine), ACCOUNT, HOME)
    assert not password.exists()
    return printed


def start_by_entry(root: DebianRoot, target: Target, printed: str) -> Server:
    """As a client does that got the entry which was printed at the end."""
    command, arguments = newcomer.entry_of(printed[printed.index("\n{\n"):])
    words = root.command([command, *arguments], ACCOUNT, HOME)
    return Server(target, Path(words[0]), words[1:], {})


def assert_session(root: DebianRoot, server: Server) -> None:
    newcomer.play_session(server)
    ended = server.finish()
    assert (ended.code, ended.stderr) == (0, b"")
    audit = root.path(HOME) / "kova-sales" / "audit.jsonl"
    assert newcomer.last_calls(audit, 2) == ["count", "card"]


def assert_healthy(printed: str) -> None:
    """Nothing fails, the login works; a first deployment has no audit file yet."""
    found = dict(re.findall(r"^(ok|warn|FAIL) +(\S+)", printed, re.MULTILINE))
    assert "FAIL" not in found, printed
    assert re.search(r"^ok +login\.login", printed, re.MULTILINE), printed


def test_debian(root: DebianRoot, target: Target, engine: Engine, debian_package: Path,
                client_library: Path, version: str, tmp_path: Path) -> None:
    install, deployment, upgrade, remove = newcomer.blocks("Debian", "sh", VERSION=version)
    give(root, "/root", debian_package, client_library)
    root.run(install.replace("apt-get install", "apt-get install --yes"))
    printed = deploy(root, deployment, engine)
    assert_healthy(printed)
    assert root.run(NOTHING_STARTED) == ""
    server = start_by_entry(root, target, printed)
    try:
        give(root, "/root", newer(debian_package, NEXT, tmp_path / "newer"))
        root.run(upgrade.replace("apt-get install", "apt-get install --yes").replace(version, NEXT))
        assert root.run("dpkg-query -W -f '${Version}' kova-mcp") == NEXT
        assert_session(root, server)
    finally:
        server.kill()
    assert_session(root, start_by_entry(root, target, printed))
    root.run(remove.replace("apt-get remove", "apt-get remove --yes"))
    assert root.run("ls /usr/bin/kova-* /usr/local/lib/libkovadll.so 2>/dev/null || true") == ""
    assert (root.path("/etc/kova-mcp").exists()
            and (root.path(HOME) / "kova-sales" / "policy.json").exists())


def test_other_linux(root: DebianRoot, target: Target, engine: Engine, archive: Path,
                     client_library: Path, version: str) -> None:
    unpack, remove = newcomer.blocks("Other Linux", "sh", VERSION=version)
    deployment = newcomer.blocks("Debian", "sh")[1]
    deployment = re.sub(r"(?m)^kova-admin ", "/opt/kova-mcp/bin/kova-admin ", deployment)
    give(root, "/root", archive, client_library)
    root.run(unpack)
    printed = deploy(root, deployment, engine)
    assert_healthy(printed)
    server = start_by_entry(root, target, printed)
    try:
        server.initialize()
        root.run("\n".join(unpack.splitlines()[:3]))
        assert server.finish().code == 0
    finally:
        server.kill()
    assert_session(root, start_by_entry(root, target, printed))
    root.run(remove)
    assert not root.path("/opt/kova-mcp").exists()


# The download


@pytest.fixture
def download(archive: Path, debian_package: Path, tmp_path: Path,
             monkeypatch: pytest.MonkeyPatch) -> Path:
    """What ./release --sign leaves, and the key's public half."""
    folder = tmp_path / "dist"
    folder.mkdir()
    for file in (archive, debian_package):
        shutil.copy2(file, folder)
    subprocess.run(["minisign", "-G", "-W", "-p", str(tmp_path / "kova-mcp.pub"), "-s",
                    str(tmp_path / "key")], check=True, capture_output=True, timeout=TIMEOUT)
    monkeypatch.setattr(make_release, "DIST", folder)
    make_release.write_sums()
    make_release.sign(tmp_path / "key")
    (tmp_path / "kova-mcp.pub").rename(folder / "kova-mcp.pub")
    return folder


def check(download: Path) -> "subprocess.CompletedProcess[str]":
    [block] = newcomer.blocks("Check the download", "sh")
    return subprocess.run(["/bin/sh", "-euc", block], cwd=download, capture_output=True, text=True,
                          timeout=TIMEOUT, check=False)


def test_a_download_is_what_was_signed(download: Path, archive: Path, version: str) -> None:
    (download / archive.name).unlink()  # Nobody downloads everything.
    done = check(download)
    assert done.returncode == 0, done.stderr
    commit = subprocess.run(["git", "rev-parse", "HEAD"], cwd=ROOT, capture_output=True, text=True,
                            check=True).stdout.strip()
    assert f"Trusted comment: kova-mcp {version} {commit}\n" in done.stdout
    assert f"{next(download.glob('*.deb')).name}: OK\n" in done.stdout


@pytest.mark.parametrize("name", ["SHA256SUMS", "SHA256SUMS.minisig", "*.deb"])
def test_a_changed_download_is_found(download: Path, name: str) -> None:
    [file] = download.glob(name)
    data = bytearray(file.read_bytes())
    data[len(data) // 2] ^= 1
    file.write_bytes(data)
    assert check(download).returncode != 0
