#!/usr/bin/python3
"""Builds the sample database from the machine's own Debian package index.

Tables: PACKAGES, one row a package; SECTIONS, what each section adds up to; DEPENDS, one row for
each package that another one names in Pre-Depends, Depends, Recommends or Suggests; NOTES, what
people write about packages, empty at first. AI_COLLECTIONS defines two collections, PACKAGE_TEXTS
of the packages and NOTE_TEXTS of the notes; the engine builds them.

The database is built beside its place and moved there when it is complete. It is left alone while
the index has not changed since it was built. The notes of the earlier database are kept, also those
about packages that the index no longer has.
"""

import argparse
import glob
import os
import re
import sqlite3
import subprocess
import sys
import zlib
from collections.abc import Iterator

# Changes with the tables and with what the engine makes of texts, so that databases of an earlier
# form are built anew.
FORM = 5

SCHEMA = """
CREATE TABLE PACKAGES (
  NAME TEXT PRIMARY KEY NOT NULL,
  VERSION TEXT NOT NULL,
  SECTION TEXT NOT NULL,
  PRIORITY TEXT NOT NULL,
  ARCHITECTURE TEXT NOT NULL,
  SOURCE TEXT NOT NULL,
  INSTALLED_SIZE INTEGER,
  DOWNLOAD_SIZE INTEGER,
  MAINTAINER TEXT,
  HOMEPAGE TEXT,
  SUMMARY TEXT,
  DESCRIPTION TEXT,
  TAGS TEXT
) WITHOUT ROWID;
CREATE TABLE SECTIONS (
  NAME TEXT PRIMARY KEY NOT NULL,
  PACKAGES INTEGER NOT NULL,
  INSTALLED_SIZE INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE DEPENDS (
  PACKAGE TEXT NOT NULL,
  KIND TEXT NOT NULL,
  DEPENDS_ON TEXT NOT NULL,
  VERSION_RULE TEXT,
  ALTERNATIVE INTEGER NOT NULL
);
CREATE TABLE NOTES (
  ID INTEGER PRIMARY KEY,
  PACKAGE TEXT NOT NULL,
  NOTE TEXT NOT NULL,
  CONSTRAINT "a NOTE has 1 to 500 characters" CHECK (length(NOTE) BETWEEN 1 AND 500)
);
CREATE TABLE AI_COLLECTIONS (
  NAME TEXT PRIMARY KEY COLLATE NOCASE NOT NULL,
  SOURCE_TABLE TEXT NOT NULL,
  KEY_COLUMN TEXT NOT NULL,
  TEXT_COLUMNS TEXT NOT NULL,
  PROVIDER TEXT NOT NULL
) WITHOUT ROWID;
INSERT INTO AI_COLLECTIONS VALUES
  ('PACKAGE_TEXTS', 'PACKAGES', 'NAME', 'SUMMARY 3, NAME 2, SECTION, TAGS 0.5', 'LOCAL'),
  ('NOTE_TEXTS', 'NOTES', 'ID', 'NOTE', 'LOCAL');
"""

INDEXES = """
CREATE INDEX PACKAGES_BY_SECTION ON PACKAGES (SECTION);
CREATE INDEX PACKAGES_BY_SIZE ON PACKAGES (INSTALLED_SIZE);
CREATE INDEX DEPENDS_BY_PACKAGE ON DEPENDS (PACKAGE);
CREATE INDEX DEPENDS_BY_TARGET ON DEPENDS (DEPENDS_ON);
INSERT INTO SECTIONS SELECT SECTION, COUNT(*), COALESCE(SUM(INSTALLED_SIZE), 0)
  FROM PACKAGES GROUP BY SECTION;
ANALYZE;
"""

# In the place of a foreign key: that would forbid the kept notes about packages that are gone, and
# its message names neither table nor column.
RULES = "".join(f"""
CREATE TRIGGER NOTES_PACKAGE_{name} AFTER {change} ON NOTES
  WHEN NOT EXISTS (SELECT 1 FROM PACKAGES WHERE NAME = NEW.PACKAGE)
  BEGIN SELECT RAISE(ABORT, 'NOTES.PACKAGE must be the NAME of one of the PACKAGES'); END;
""" for name, change in (("INSERTED", "INSERT"), ("UPDATED", "UPDATE OF PACKAGE")))

RELATIONS = ("Pre-Depends", "Depends", "Recommends", "Suggests")
RELATION = re.compile(r"\s*([a-z0-9][a-z0-9.+-]*)(?::[a-z0-9]+)?\s*(?:\(([^)]*)\))?")


class Failure(Exception):
    """Its text is the one line that the user sees."""


class Progress:
    """A line on standard error: rewritten in place on a terminal, else one line a fifth."""

    def __init__(self, total: int) -> None:
        self.total = max(total, 1)
        self.shown = -1
        self.terminal = sys.stderr.isatty()

    def at(self, done: int) -> None:
        percent = 100 * done // self.total
        step = percent if self.terminal else percent // 20 * 20
        if step == self.shown:
            return
        self.shown = step
        end = "" if self.terminal else "\n"
        start = "\r" if self.terminal else ""
        print(f"{start}loading packages: {step:3d}%", end=end, file=sys.stderr, flush=True)

    def finish(self, message: str) -> None:
        start = "\r\x1b[K" if self.terminal else ""
        print(f"{start}{message}", file=sys.stderr, flush=True)


def stanzas(text: str) -> Iterator[dict[str, str]]:
    """The records of an index: fields by name, their further lines joined by line feeds."""
    for block in text.split("\n\n"):
        fields: dict[str, str] = {}
        name = ""
        for line in block.split("\n"):
            if line[:1] in (" ", "\t"):
                if name:
                    fields[name] += "\n" + line.strip()
                continue
            name, colon, value = line.partition(":")
            if colon:
                fields[name] = value.strip()
            else:
                name = ""
        if "Package" in fields:
            yield fields


def number(text: str | None) -> int | None:
    return int(text) if text is not None and text.isdecimal() else None


def package_row(fields: dict[str, str]) -> tuple:
    description = fields.get("Description") or fields.get("Description-en") or ""
    tags = " ".join(fields["Tag"].replace(",", " ").split()) if "Tag" in fields else None
    return (
        fields["Package"],
        fields.get("Version", ""),
        fields.get("Section", "unknown"),
        fields.get("Priority", "unknown"),
        fields.get("Architecture", ""),
        fields.get("Source", fields["Package"]).split(" ")[0],
        number(fields.get("Installed-Size")),
        number(fields.get("Size")),
        fields.get("Maintainer"),
        fields.get("Homepage"),
        description.partition("\n")[0],
        description,
        tags,
    )


def depends_rows(fields: dict[str, str]) -> Iterator[tuple]:
    for kind in RELATIONS:
        for group in fields.get(kind, "").split(","):
            for place, relation in enumerate(group.split("|")):
                match = RELATION.match(relation)
                if match:
                    target, rule = match.groups()
                    yield (fields["Package"], kind.upper(), target, rule, place)


def fingerprint(paths: list[str]) -> int:
    """A number that changes with the files; it is kept in the database's user_version."""
    parts = [str(FORM)]
    for path in sorted(paths):
        status = os.stat(path)
        parts.append(f"{path}:{status.st_size}:{status.st_mtime_ns}")
    return zlib.crc32("\n".join(parts).encode()) & 0x7FFFFFFF or 1


def index_files(given: str | None) -> list[str]:
    paths = [given] if given else glob.glob("/var/lib/apt/lists/*_Packages*")
    if not paths:
        raise Failure("the package index is empty; run apt-get update")
    return paths


def read_index(given: str | None) -> str:
    if given:
        with open(given, encoding="utf-8", errors="replace") as file:
            return file.read()
    done = subprocess.run(["apt-cache", "dumpavail"], capture_output=True, check=False)
    if done.returncode != 0:
        raise Failure("apt-cache dumpavail failed")
    return done.stdout.decode("utf-8", errors="replace")


def is_current(path: str, mark: int) -> bool:
    if not os.path.exists(path):
        return False
    try:
        connection = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
        try:
            return connection.execute("PRAGMA user_version").fetchone()[0] == mark
        finally:
            connection.close()
    except sqlite3.DatabaseError:
        return False


def take_out_of_use(path: str) -> None:
    """Makes sure that no program has the old database open: its log must not meet the new file."""
    if not os.path.exists(path):
        return
    try:
        connection = sqlite3.connect(path, timeout=1)
        try:
            connection.execute("PRAGMA journal_mode=DELETE")
        finally:
            connection.close()
    except sqlite3.OperationalError as error:
        raise Failure(f"{path} is in use; stop the engine first ({error})") from error
    except sqlite3.DatabaseError:
        pass  # Not a database: replaced like any old one.
    for suffix in ("-wal", "-shm"):
        if os.path.exists(path + suffix):
            raise Failure(f"{path} is in use; stop the engine first")


def fill(connection: sqlite3.Connection, text: str) -> int:
    connection.executescript(SCHEMA)
    progress = Progress(text.count("\nPackage: ") + text.startswith("Package: "))
    count = 0
    with connection:
        for fields in stanzas(text):
            # An index may name a package twice; apt lists its candidate first.
            added = connection.execute(
                "INSERT OR IGNORE INTO PACKAGES VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?)",
                package_row(fields),
            )
            if added.rowcount == 0:
                continue
            connection.executemany("INSERT INTO DEPENDS VALUES (?,?,?,?,?)", depends_rows(fields))
            count += 1
            progress.at(count)
    if count == 0:
        raise Failure("the package index holds no package; run apt-get update")
    connection.executescript(INDEXES)
    progress.finish(f"loaded {count} packages")
    return count


def notes_of(path: str) -> list[tuple]:
    """The notes of the database that is replaced."""
    if not os.path.exists(path):
        return []
    try:
        connection = sqlite3.connect(f"file:{path}?mode=ro", uri=True)
        try:
            known = connection.execute("SELECT 1 FROM sqlite_schema WHERE name = 'NOTES'")
            if known.fetchone() is None:
                return []
            return connection.execute("SELECT ID, PACKAGE, NOTE FROM NOTES").fetchall()
        finally:
            connection.close()
    except sqlite3.OperationalError as error:
        raise Failure(f"the notes in {path} cannot be read ({error})") from error
    except sqlite3.DatabaseError:
        return []  # Not a database: it holds no notes.


def keep_notes(connection: sqlite3.Connection, path: str) -> None:
    with connection:
        connection.executemany("INSERT INTO NOTES VALUES (?,?,?)", notes_of(path))
    connection.executescript(RULES)


def build(path: str, mark: int, given: str | None) -> None:
    text = read_index(given)
    partial = f"{path}.partial-{os.getpid()}"
    try:
        connection = sqlite3.connect(partial)
        try:
            connection.execute("PRAGMA journal_mode=OFF")
            connection.execute("PRAGMA synchronous=OFF")
            fill(connection, text)
            # Nobody adds a note between the copying and the move.
            take_out_of_use(path)
            keep_notes(connection, path)
            connection.execute(f"PRAGMA user_version={mark}")
            connection.commit()
        finally:
            connection.close()
        descriptor = os.open(partial, os.O_RDONLY)
        os.fsync(descriptor)
        os.close(descriptor)
        os.replace(partial, path)
    finally:
        if os.path.exists(partial):
            os.remove(partial)


def main() -> int:
    parser = argparse.ArgumentParser(description="Builds the sample database of Debian packages.")
    parser.add_argument("--data", required=True, help="the engine's folder of databases")
    parser.add_argument("--database", default="sample", help="the database's name")
    parser.add_argument("--input", help="an index's text (default: what apt-cache dumpavail says)")
    options = parser.parse_args()
    if not re.fullmatch(r"[A-Za-z0-9_]{1,63}", options.database):
        parser.error("a database's name is 1 to 63 letters, digits and _")
    path = os.path.join(options.data, options.database + ".db")
    try:
        mark = fingerprint(index_files(options.input))
        if is_current(path, mark):
            print(f"{path} is up to date", file=sys.stderr)
            return 0
        os.makedirs(options.data, exist_ok=True)
        build(path, mark, options.input)
    except (Failure, OSError, sqlite3.Error) as error:
        print(f"load_packages: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("load_packages: interrupted", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
