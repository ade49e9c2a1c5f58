"""An empty Debian of the release that this machine runs, made by mmdebstrap from its packages."""

from __future__ import annotations

import subprocess
from pathlib import Path
from typing import Sequence

from harness.privileges import ENTER_ROOT
from harness.waiting import TIMEOUT

MAKE_LIMIT = 900.0
"""Seconds for making it, most of which is the download."""
RUN_LIMIT = 600.0

ENTER = """
set -eu
root=$1 account=$2 folder=$3
shift 3
""" + ENTER_ROOT + """
exec /usr/sbin/chroot --userspec="$account" "$root" /bin/sh -c 'cd "$0" && exec "$@"' "$folder" "$@"
"""


def codename() -> str:
    lines = Path("/etc/os-release").read_text("utf-8").splitlines()
    [name] = [line.partition("=")[2] for line in lines if line.startswith("VERSION_CODENAME=")]
    return name


def sources() -> list[str]:
    """Where this machine gets Debian's packages from, in the form of a line of sources.list."""
    shown = subprocess.run(
        ["apt-get", "indextargets", "--format",
         "$(ORIGIN) deb $(REPO_URI) $(RELEASE) $(COMPONENT)", "Created-By: Packages"],
        capture_output=True, text=True, timeout=TIMEOUT, check=True).stdout
    found = {line.partition(" ")[2] for line in shown.splitlines() if line.startswith("Debian ")}
    assert found, "no package index; apt-get update fetches it"
    return sorted(found)


def make_archive(path: Path) -> None:
    """Writes a root folder with the packages that a Debian cannot be without, as a tar archive."""
    done = subprocess.run(["mmdebstrap", "--quiet", "--variant=minbase", codename(), str(path),
                           *sources()],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=MAKE_LIMIT, check=False)
    assert done.returncode == 0, done.stderr


class DebianRoot:
    """Such an archive, unpacked: it has this machine's network and nothing of its service manager
    or processes."""

    def __init__(self, archive: Path, folder: Path) -> None:
        self.folder = folder
        folder.mkdir()
        subprocess.run(["tar", "-xf", str(archive), "-C", str(folder)], check=True,
                       timeout=RUN_LIMIT)
        self.run("apt-get update --quiet=2")

    def path(self, inside: str) -> Path:
        return self.folder / inside.lstrip("/")

    def command(self, words: Sequence[str], account: str = "root",
                home: str = "/root") -> list[str]:
        """What runs a program in the root, in the account's home folder."""
        return ["/usr/bin/unshare", "--mount", "--pid", "--fork", "--kill-child", "/usr/bin/env",
                "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", f"HOME={home}", "LC_ALL=C.UTF-8",
                "DEBIAN_FRONTEND=noninteractive", "/bin/sh", "-c", ENTER, "sh", str(self.folder),
                account, home, *words]

    def run(self, script: str, account: str = "root", home: str = "/root") -> str:
        """Runs a script until its first failure, which fails the test; returns what it printed."""
        done = subprocess.run(self.command(["/bin/sh", "-euc", script], account, home),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=RUN_LIMIT, check=False)
        assert done.returncode == 0, f"{script}\n{done.stdout}{done.stderr}"
        return done.stdout
