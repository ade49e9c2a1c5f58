"""Builds every artefact of a release into dist/ from the commit that is checked out.

    ./release                 builds; says each step
    ./release --sign KEY      also signs SHA256SUMS with a minisign key, unless a check has failed
    ./release --check         also builds in a second folder, compares, and validates what is there
    ./release --only linux    the archive, the package, their bills of materials alone; or windows
    ./release --maintainer "NAME <ADDRESS>"       who maintains the Debian package; NAME alone is
              the installer's manufacturer and the client bundle's author
    ./release --registry-name NAME --registry-repository ADDRESS --registry-source SOURCE
              --registry-downloads ADDRESS      what dist/server.json says of the publisher

Nothing is published. The tree has to be as committed. Times are those of the commit, so that the
same commit, built with the same packages of the system, gives the same bytes; the MSI has
identifiers of its own and is compared by its contents. scripts/setup.sh build windows release
installs what is needed.

Exit codes: 0 done, 1 a check has found a difference or a fault, 2 it could not be done.
"""

from __future__ import annotations

import argparse
import hashlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import bill_of_materials
import client_bundle
import registry_file
import windows_installer

ROOT = Path(__file__).resolve().parents[1]
DIST = ROOT / "dist"
SERVER = "kova-mcp"
TARGETS = (SERVER, "kova-admin")
SUMS = "SHA256SUMS"
REGISTRY = "server.json"
LICENCE = ROOT / "LICENSE"
COPYRIGHT = ROOT / "cmake" / "debian" / "copyright"
NO_LICENCE = "License: not-chosen"
VALIDATOR = ROOT / "tests" / "release" / "validate.mjs"


class Refused(Exception):
    """It cannot be done. The text is one line."""


def say(text: str) -> None:
    print(f"release: {text}", flush=True)


def run(*command: "str | Path", cwd: Path = ROOT, log: "Path | None" = None) -> None:
    words = [str(word) for word in command]
    if log is None:
        failed = subprocess.run(words, cwd=cwd, check=False).returncode
    else:
        with open(log, "ab") as out:
            failed = subprocess.run(words, cwd=cwd, stdout=out, stderr=out, check=False).returncode
    if failed:
        raise Refused(f"{' '.join(words)} has failed" + (f"; see {log}" if log else ""))


def git(*arguments: str) -> str:
    return subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True,
                          check=True).stdout.strip()


def version() -> str:
    text = (ROOT / "CMakeLists.txt").read_text("utf-8")
    return text.partition("project(kova-mcp VERSION ")[2].split()[0]


def build(system: str, work: Path, maintainer: str) -> tuple[Path, list[Path]]:
    """Builds and packs; returns the build folder and the packages."""
    folder, packed, log = work / system, work / f"packed-{system}", work / f"{system}.log"
    say(f"build the {system} executables ({log})")
    # What an earlier commit has left would have its times.
    for old in (folder, packed):
        shutil.rmtree(old, ignore_errors=True)
    log.unlink(missing_ok=True)
    chosen = [f"-DKOVA_MAINTAINER={maintainer}"] if maintainer else []
    run("cmake", "--preset", f"package-{system}", "-B", folder, *chosen, log=log)
    run("cmake", "--build", folder, log=log)
    say("pack them")
    run("cpack", "-B", packed, cwd=folder, log=log)
    return folder, sorted(path for path in packed.iterdir() if path.is_file())


def unpack(archive: Path, work: Path) -> Path:
    folder = work / f"unpacked-{archive.stem}"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    run("cmake", "-E", "tar", "xf", archive, cwd=folder)
    [top] = folder.iterdir()
    return top


def name_of(maintainer: str) -> str:
    return maintainer.partition("<")[0].strip()


def packages_of(folder: Path, system: str, targets: "tuple[str, ...]") -> list[str]:
    end = ".exe" if system == "windows" else ""
    return bill_of_materials.packages_of_build(folder, [name + end for name in targets])


def make(systems: list[str], epoch: int, maintainer: str,
         publisher: registry_file.Publisher) -> None:
    work = ROOT / "build" / "release"
    work.mkdir(parents=True, exist_ok=True)
    shutil.rmtree(DIST, ignore_errors=True)
    DIST.mkdir()
    number = version()
    packages: dict[str, list[str]] = {}
    of_servers: set[str] = set()
    programs: dict[str, Path] = {}
    contents: dict[str, list[str]] = {}
    for system in systems:
        folder, packed = build(system, work, maintainer)
        packages[system] = packages_of(folder, system, TARGETS)
        of_servers.update(packages_of(folder, system, (SERVER,)))
        for path in packed:
            shutil.copy2(path, DIST)
            contents[path.name] = packages[system]
        [archive] = [path for path in packed if path.suffix in (".gz", ".zip")]
        programs[system] = unpack(archive, work)
    if "windows" in systems:
        installer = f"kova-mcp-{number}-x64.msi"
        say("make the Windows installer")
        windows_installer.write_installer(DIST / installer, programs["windows"], number, work,
                                          name_of(maintainer))
        contents[installer] = packages["windows"]
    if len(systems) == 2:
        bundle = f"kova-mcp-{number}.mcpb"
        say("make the client bundle")
        client_bundle.write_bundle(DIST / bundle, number, programs["linux"] / "bin" / "kova-mcp",
                                   programs["windows"] / "kova-mcp.exe",
                                   ROOT / "THIRD-PARTY-NOTICES", epoch, name_of(maintainer))
        contents[bundle] = sorted(of_servers)
        text = registry_file.filled(DIST / bundle, number, publisher)
        (DIST / REGISTRY).write_text(text, encoding="utf-8")
    say("write the bills of materials and the sums")
    for name, found in contents.items():
        text = bill_of_materials.bill(DIST / name, number, found, epoch)
        (DIST / f"{name}.cdx.json").write_text(text, encoding="utf-8")
    write_sums()


def write_sums() -> None:
    lines = [f"{hashlib.sha256(path.read_bytes()).hexdigest()}  {path.name}\n"
             for path in sorted(DIST.iterdir())]
    (DIST / SUMS).write_text("".join(lines), encoding="ascii")


def sign(key: Path) -> None:
    say(f"sign {SUMS}")
    comment = f"kova-mcp {version()} {git('rev-parse', 'HEAD')}"
    run("minisign", "-S", "-s", key, "-t", comment, "-m", DIST / SUMS)


# Checks


def contents_of_installer(path: Path, folder: Path) -> dict[str, str]:
    run("msiextract", "-C", folder, path, log=folder.parent / "msiextract.log")
    return {str(one.relative_to(folder)): hashlib.sha256(one.read_bytes()).hexdigest()
            for one in sorted(folder.rglob("*")) if one.is_file()}


def differences(one: Path, other: Path, work: Path) -> list[str]:
    names = {path.name for path in one.iterdir()}, {path.name for path in other.iterdir()}
    found = [f"{name} is in one build alone" for name in sorted(names[0] ^ names[1])]
    for name in sorted(names[0] & names[1]):
        # The sums, and the bill of the MSI, hold the hash of the MSI.
        if name.startswith(SUMS) or name.endswith(".msi.cdx.json"):
            continue
        if name.endswith(".msi"):
            read = []
            for number, folder in enumerate((one, other)):
                place = work / f"msi-{number}"
                place.mkdir()
                read.append(contents_of_installer(folder / name, place))
            same = read[0] == read[1] and bool(read[0])
        else:
            same = (one / name).read_bytes() == (other / name).read_bytes()
        if not same:
            found.append(f"{name} differs between two builds")
    return found


def build_again(arguments: list[str], work: Path) -> Path:
    """In a clone of its own, with the same commit."""
    log = ROOT / "build" / "release" / "again.log"
    log.unlink(missing_ok=True)
    say(f"build again in {work} ({log})")
    clone = work / "another-folder" / "clone"
    run("git", "clone", "--quiet", "--local", ROOT, clone)
    run("git", "checkout", "--quiet", git("rev-parse", "HEAD"), cwd=clone)
    # A launcher of the compiler could return what the first build has compiled.
    for name in ("CMAKE_C_COMPILER_LAUNCHER", "CMAKE_CXX_COMPILER_LAUNCHER"):
        os.environ.pop(name, None)
    run("./release", *arguments, cwd=clone, log=log)
    return clone / "dist"


def faults() -> list[str]:
    """What the validators find."""
    found = []
    for package in sorted(DIST.glob("*.deb")):
        say(f"lintian {package.name}")
        done = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning",
                               str(package)], check=False)
        if done.returncode:
            found.append(f"lintian objects to {package.name}")
    for path in sorted([*DIST.glob("*.cdx.json"), *DIST.glob("*.mcpb")]):
        say(f"validate {path.name}")
        if subprocess.run(["node", str(VALIDATOR), str(path)], check=False).returncode:
            found.append(f"{path.name} is not valid")
    for path in DIST.glob(REGISTRY):
        say(f"validate {path.name}")
        found += [f"{path.name}: {fault}"
                  for fault in registry_file.faults(json.loads(path.read_text("utf-8")))]
    return found


def check(options: list[str]) -> list[str]:
    with tempfile.TemporaryDirectory(prefix="kova-release-") as folder:
        found = differences(DIST, build_again(options, Path(folder)), Path(folder))
    return found + faults()


def refuse_unready(chosen: argparse.Namespace) -> None:
    """Before anything is built."""
    if git("status", "--porcelain"):
        raise Refused("the tree is not as committed")
    if f"\n## {version()}\n" not in (ROOT / "CHANGELOG.md").read_text("utf-8"):
        raise Refused(f"CHANGELOG.md has no heading for {version()}")
    if LICENCE.exists() and NO_LICENCE in COPYRIGHT.read_text("utf-8"):
        raise Refused(f"{COPYRIGHT.relative_to(ROOT)} says that no licence is chosen")
    if chosen.sign and not chosen.sign.is_file():
        raise Refused(f"{chosen.sign}: there is no such key")
    if chosen.check and not (VALIDATOR.parent / "node_modules").exists():
        raise Refused("the validators are not installed; run npm ci in tests/release")


def missing(chosen: argparse.Namespace, publisher: registry_file.Publisher) -> list[str]:
    """What only the owner can choose, and has not."""
    named = ((LICENCE.exists(), "the project's licence (LICENSE, cmake/debian/copyright)"),
             (chosen.maintainer, "the maintainer's name (--maintainer)"),
             (publisher.is_chosen, "the names in the registry (--registry-...)"),
             (chosen.sign, "the signing key (--sign)"),
             (False, "an Authenticode certificate: the executables and the MSI are not signed"))
    return [text for is_there, text in named if not is_there]


def main(arguments: list[str]) -> int:
    parser = argparse.ArgumentParser(prog="./release", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="build twice, compare and validate")
    parser.add_argument("--sign", type=Path, metavar="KEY", help="a minisign secret key")
    parser.add_argument("--maintainer", default="", metavar="NAME",
                        help="of the Debian package, the installer and the client bundle")
    parser.add_argument("--only", choices=("linux", "windows"), help="one system's artefacts")
    registry_file.add_options(parser)
    chosen = parser.parse_args(arguments)
    publisher = registry_file.publisher_of(chosen)
    try:
        refuse_unready(chosen)
        os.umask(0o022)
        epoch = int(git("log", "-1", "--format=%ct"))
        os.environ |= {"SOURCE_DATE_EPOCH": str(epoch), "TZ": "UTC", "LC_ALL": "C.UTF-8"}
        systems = [chosen.only] if chosen.only else ["linux", "windows"]
        make(systems, epoch, chosen.maintainer, publisher)
        again = [*(["--only", chosen.only] if chosen.only else []),
                 *(["--maintainer", chosen.maintainer] if chosen.maintainer else []),
                 *registry_file.options_of(publisher)]
        found = check(again) if chosen.check else []
        if chosen.sign and not found:
            sign(chosen.sign)
    except (Refused, subprocess.CalledProcessError, OSError) as error:
        print(f"release: {error}", file=sys.stderr)
        return 2
    for fault in found:
        print(f"release: {fault}", file=sys.stderr)
    for text in missing(chosen, publisher):
        say(f"missing, the owner's to choose: {text}")
    for path in sorted(DIST.iterdir()):
        say(f"dist/{path.name}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
