"""What the system allows this process: a test that needs more is skipped with the system's reason.

Each probe does the step that is refused where it is not allowed, and nothing of the product.
"""

from __future__ import annotations

import functools
import json
import subprocess
import tempfile
from pathlib import Path
from typing import Callable

import pytest

from harness.waiting import TIMEOUT

ENTER_ROOT = """
mount -t proc none "$root/proc"
mount --rbind /dev "$root/dev"
"""
"""Makes a root folder one to run programs in, within a mount namespace."""

ENTER_COPY = r"""
mount -t tmpfs none "$copy"
mkdir "$copy/upper" "$copy/work" "$copy/root"
mount -t overlay overlay -o "lowerdir=/,upperdir=$copy/upper,workdir=$copy/work" "$copy/root"
root=$copy/root
""" + ENTER_ROOT
"""Makes a copy of this system in a folder: what is written there is gone with the namespace."""

RUNTIME = "runc"
"""What starts containers; harness/containers.py says why this one."""


def in_namespaces(script: str, folder: Path) -> list[str]:
    return ["unshare", "--mount", "--pid", "--fork", "sh", "-euc", "folder=$1\n" + script, "sh",
            str(folder)]


def root_folder(folder: Path) -> list[str]:
    return in_namespaces('mknod "$folder/null" c 1 3; root=$folder; mkdir "$root/proc" "$root/dev"'
                         + ENTER_ROOT, folder)


def copy_of_this_system(folder: Path) -> list[str]:
    return in_namespaces("copy=$folder" + ENTER_COPY + 'chroot "$root" /bin/true', folder)


def container(folder: Path) -> list[str]:
    """With the runtime's own settings, and this system's programs in its root folder."""
    subprocess.run([RUNTIME, "spec", "--bundle", str(folder)], check=True, timeout=TIMEOUT)
    for name in ("usr", "proc", "sys", "dev"):
        (folder / "root" / name).mkdir(parents=True)
    for name in ("bin", "lib", "lib64"):
        (folder / "root" / name).symlink_to(f"usr/{name}")
    settings = folder / "config.json"
    changed = json.loads(settings.read_text("utf-8"))
    changed["root"] = {"path": "root", "readonly": True}
    changed["process"] |= {"args": ["/bin/true"], "terminal": False}
    changed["mounts"].append({"destination": "/usr", "type": "bind", "source": "/usr",
                              "options": ["rbind", "ro"]})
    settings.write_text(json.dumps(changed), encoding="utf-8")
    return [RUNTIME, "--root", str(folder / "state"), "run", "--bundle", str(folder), folder.name]


def machines(_: Path) -> list[str]:
    """Namespaces of processes, names and the network, with a bridge and a pair of interfaces."""
    return ["unshare", "--net", "--pid", "--uts", "--fork", "--kill-child", "sh", "-euc",
            "hostname probe; ip link add switch type bridge; "
            "ip link add one type veth peer name other; ip link set one master switch up"]


PROBES: dict[str, Callable[[Path], list[str]]] = {
    "a root folder to run programs in": root_folder, "a copy of this system": copy_of_this_system,
    "containers": container, "machines on a network of their own": machines}
"""What may be needed, and the command that fails where it is not to be had."""


@functools.cache
def refusal(what: str) -> str:
    """Why the system does not allow it, as its messages say; empty when it does."""
    with tempfile.TemporaryDirectory(prefix="kova-probe-") as folder:
        done = subprocess.run(PROBES[what](Path(folder)), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=TIMEOUT, check=False)
    if done.returncode == 0:
        return ""
    return " ".join(done.stderr.split()) or f"exit code {done.returncode}"


def need(*probes: str) -> None:
    """Skips the test, or every test of the fixture, unless the system allows these."""
    for what in probes:
        reason = refusal(what)
        if reason:
            pytest.skip(f"needs {what}: {reason}")
