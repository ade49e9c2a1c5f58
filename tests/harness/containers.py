"""Container images and pods of a test's own: buildah and podman with a storage in its folder."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
from pathlib import Path

LIMIT = 900.0

# Debian's podman prefers a runtime that wants the newest control groups; this one takes any. The
# default limits may be above those of the test.
CONFIGURATION = """[containers]
default_ulimits = []
[engine]
runtime = "runc"
cgroup_manager = "cgroupfs"
"""
COMMAND = """#!/bin/sh
exec /usr/bin/{name} --storage-driver vfs --root {folder}/storage --runroot {folder}/run "$@"
"""


class Containers:
    """A shell in which `buildah` and `podman` see this storage alone. Needs to be root."""

    def __init__(self) -> None:
        # podman takes no long paths.
        self.folder = folder = Path(tempfile.mkdtemp(prefix="kova-"))
        self.work = folder / "work"
        self.work.mkdir()
        (folder / "containers.conf").write_text(CONFIGURATION, encoding="utf-8")
        commands = folder / "commands"
        commands.mkdir()
        for name in ("buildah", "podman"):
            (commands / name).write_text(COMMAND.format(name=name, folder=folder), encoding="utf-8")
            (commands / name).chmod(0o755)
        self.env = {**os.environ, "PATH": f"{commands}:{os.environ['PATH']}",
                    "CONTAINERS_CONF": str(folder / "containers.conf"),
                    "BUILDAH_ISOLATION": "chroot"}

    def run(self, script: str) -> str:
        """Runs a script in the folder `work` until its first failure, which fails the test."""
        done = subprocess.run(["/bin/sh", "-euc", script], cwd=self.work, env=self.env, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=LIMIT,
                              check=False)
        assert done.returncode == 0, f"{script}\n{done.stdout}{done.stderr}"
        return done.stdout

    def import_image(self, root: Path, tag: str) -> None:
        """Makes an image of the tar archive of a root folder."""
        (self.folder / "image").mkdir()
        os.link(root, self.folder / "image" / "root.tar")
        (self.folder / "image" / "Containerfile").write_text("FROM scratch\nADD root.tar /\n",
                                                             encoding="ascii")
        self.run(f"buildah build --tag {tag} {self.folder}/image")

    def close(self) -> None:
        self.run("podman pod rm --force --all")
        self.run("podman rmi --force --all")
        shutil.rmtree(self.folder)
