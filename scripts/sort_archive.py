#!/usr/bin/python3
"""Writes archives anew so that the same files give the same bytes on every machine.

    sort_archive.py ARCHIVE...     .tar.gz and .zip

cpack packs the files in the order in which the file system lists them, and a zip has local times.
Here the names are sorted, every time is that of SOURCE_DATE_EPOCH, files belong to root, and a file
is readable by all and writable by its owner. What was executable stays so.
"""

from __future__ import annotations

import gzip
import io
import os
import sys
import tarfile
import time
import zipfile
from pathlib import Path

Contents = "dict[str, tuple[bytes, bool]]"
"""The bytes of each file, and whether it is executable. Folders have no entry."""

ZIP_MADE_ON_UNIX = 3


def read_tar(path: Path) -> Contents:
    with tarfile.open(path) as archive:
        files = [member for member in archive if member.isfile()]
        return {one.name: (archive.extractfile(one).read(), bool(one.mode & 0o100))
                for one in files}


def read_zip(path: Path) -> Contents:
    with zipfile.ZipFile(path) as archive:
        return {one.filename: (archive.read(one), bool((one.external_attr >> 16) & 0o100))
                for one in archive.infolist() if not one.is_dir()}


def mode_of(executable: bool) -> int:
    return 0o755 if executable else 0o644


def write_tar(path: Path, contents: Contents, epoch: int) -> None:
    with open(path, "wb") as raw, \
            gzip.GzipFile(filename="", mode="wb", compresslevel=9, fileobj=raw,
                          mtime=epoch) as packed, \
            tarfile.open(fileobj=packed, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for name, (data, executable) in sorted(contents.items()):
            member = tarfile.TarInfo(name)
            member.size, member.mtime, member.mode = len(data), epoch, mode_of(executable)
            member.uname = member.gname = "root"
            archive.addfile(member, io.BytesIO(data))


def write_zip(path: Path, contents: Contents, epoch: int) -> None:
    date = time.gmtime(epoch)[:6]
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name, (data, executable) in sorted(contents.items()):
            member = zipfile.ZipInfo(name, date)
            member.compress_type = zipfile.ZIP_DEFLATED
            member.create_system = ZIP_MADE_ON_UNIX
            member.external_attr = (0o100000 | mode_of(executable)) << 16
            archive.writestr(member, data)


def main(arguments: list[str]) -> int:
    epoch = int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))
    for path in map(Path, arguments):
        if path.name.endswith(".tar.gz"):
            write_tar(path, read_tar(path), epoch)
        elif path.suffix == ".zip":
            write_zip(path, read_zip(path), epoch)
        else:
            print(f"sort_archive.py: {path}: neither .tar.gz nor .zip", file=sys.stderr)
            return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
