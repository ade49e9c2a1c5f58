"""The builds, and the peers that npm installs."""

from __future__ import annotations

import filecmp
import shutil
import subprocess
import sys
from pathlib import Path

from figures.dataset import ROOT

PACKAGES = ROOT / "bench" / "peers"


def build(folder: Path, preset: str, targets: "list[str]", *options: str) -> None:
    """Configures also where it is built already: it may have been without the benchmarks. What the
    tools say goes to standard error."""
    for command in (["cmake", "--preset", preset, "-B", str(folder / preset), *options],
                    ["cmake", "--build", str(folder / preset), "--target", *targets]):
        subprocess.run(command, cwd=ROOT, stdout=sys.stderr, check=True)


def peers(folder: Path) -> Path:
    """Installs, unless that was done already, the versions that package-lock.json pins; npm's own
    configuration says where from. Returns their modules."""
    modules, lock = folder / "node_modules", folder / "package-lock.json"
    if (modules / ".bin" / "node").exists() and lock.exists() and filecmp.cmp(
            PACKAGES / lock.name, lock, shallow=False):
        return modules
    if shutil.which("npm") is None:
        raise OSError("npm is missing, which installs the peers; "
                      "scripts/setup.sh bench installs it")
    folder.mkdir(parents=True, exist_ok=True)
    for name in ("package.json", "package-lock.json", ".npmrc"):
        shutil.copy2(PACKAGES / name, folder)
    done = subprocess.run(["npm", "ci", "--omit=optional", "--no-audit", "--no-fund",
                           "--loglevel=error"], cwd=folder, stdout=sys.stderr, check=False)
    if done.returncode != 0:
        lock.unlink()
        raise OSError("npm cannot install the peers of bench/peers/package.json")
    return modules
