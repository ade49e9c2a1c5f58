"""What the system allows this process: a test that needs more is skipped with the system's reason.

Each probe does the step that is refused where it is not allowed, and nothing of the product.
"""

from __future__ import annotations

import functools
import subprocess
import tempfile

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

MOUNTS = ("--mount", "--pid", "--fork")

PROBES = {
    "a root folder to run programs in": (
        MOUNTS, 'mknod "$folder/null" c 1 3; root=$folder; mkdir "$root/proc" "$root/dev"'
        + ENTER_ROOT),
    "a copy of this system": (MOUNTS, "copy=$folder" + ENTER_COPY + 'chroot "$root" /bin/true'),
    "containers": (
        (*MOUNTS, "--uts", "--ipc", "--net", "--cgroup"), r"""
        mkdir "$folder/proc" "$folder/sys"
        mount -t proc none "$folder/proc"
        mount -t sysfs none "$folder/sys"
        for hierarchy in /sys/fs/cgroup/cgroup.procs /sys/fs/cgroup/*/cgroup.procs; do
            [ -e "$hierarchy" ] || continue
            mkdir "${hierarchy%/*}/${folder##*/}"
            rmdir "${hierarchy%/*}/${folder##*/}"
            break
        done""")}


@functools.cache
def refusal(what: str) -> str:
    """Why the system does not allow it, as the first message says; empty when it does."""
    namespaces, script = PROBES[what]
    with tempfile.TemporaryDirectory(prefix="kova-probe-") as folder:
        done = subprocess.run(
            ["unshare", *namespaces, "sh", "-euc", "folder=$1\n" + script, "sh", folder],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=TIMEOUT, check=False)
    if done.returncode == 0:
        return ""
    return next(iter(done.stderr.splitlines()), f"exit code {done.returncode}")


def need(*probes: str) -> None:
    """Skips the test, or every test of the fixture, unless the system allows these."""
    for what in probes:
        reason = refusal(what)
        if reason:
            pytest.skip(f"needs {what}: {reason}")
