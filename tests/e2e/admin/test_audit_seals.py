"""kova-admin audit seal and verify: what a seal finds."""

from __future__ import annotations

import gzip
import hashlib
import json
from pathlib import Path

import pytest

from harness.audit_logs import content, line, record, write
from harness.operator_desk import Desk


def sha256(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()


class Vault:
    """A folder of rotated files and their seals."""

    def __init__(self, desk: Desk) -> None:
        self.desk = desk
        self.seals = desk.folder / "SEALS"

    def path(self, name: str) -> Path:
        return self.desk.folder / name

    def name(self, name: str) -> str:
        return self.desk.target.path(self.path(name))

    def rotate(self, name: str, count: int) -> Path:
        return write(self.path(name),
                     (record(number, correlation_id=name) for number in range(count)))

    def seal(self, *names: str) -> str:
        result = self.desk.run("audit", "seal", "--to", self.seals, *map(self.path, names))
        assert (result.stderr, result.code) == (b"", 0), result
        [kept] = result.stdout.decode().splitlines()
        return kept

    def verify(self, *arguments: str) -> tuple[int, list[str]]:
        result = self.desk.run("audit", "verify", self.seals, *arguments)
        assert result.stderr == b"", result
        return result.code, result.stdout.decode().splitlines()

    def holds(self, *arguments: str) -> None:
        code, lines = self.verify(*arguments)
        assert code == 0, lines
        assert len(lines) == 1 and lines[0].endswith(("seal holds", "seals hold")), lines

    def broken(self, *findings: str, arguments: tuple[str, ...] = ()) -> None:
        assert self.verify(*arguments) == (1, list(findings))

    def seal_lines(self) -> list[bytes]:
        data = self.seals.read_bytes()
        assert data.endswith(b"\n") and b"\r" not in data
        return data.splitlines(keepends=True)


@pytest.fixture
def vault(desk: Desk) -> Vault:
    return Vault(desk)


def test_a_line_a_file_chained(vault: Vault) -> None:
    first = vault.rotate("audit.jsonl-20261121", 2500).read_bytes()
    vault.rotate("audit.jsonl-20261122", 1)
    vault.path("audit.jsonl-20261123").write_bytes(b"no record")
    vault.seal("audit.jsonl-20261121")
    kept = vault.seal("audit.jsonl-20261122", "audit.jsonl-20261123")
    lines = vault.seal_lines()
    seals = [json.loads(text) for text in lines]
    pieces = first.splitlines(keepends=True)
    blocks = [b"".join(pieces[begin:begin + 1000]) for begin in (0, 1000, 2000)]
    assert seals[0] == {
        "file": vault.name("audit.jsonl-20261121"), "sha256": sha256(first), "lines": 2500,
        "first": record(0)["timestamp"], "last": record(2499)["timestamp"],
        "blocks": [sha256(block) for block in blocks], "previous": None}
    assert [seal["lines"] for seal in seals] == [2500, 1, 1]
    assert (seals[2]["first"], seals[2]["last"]) == (None, None)
    assert [seal["previous"] for seal in seals[1:]] == [
        sha256(text.rstrip(b"\n")) for text in lines[:2]]
    assert kept == "kova-seal 3 " + sha256(lines[2][:-1])
    vault.holds()
    vault.holds("--kept", kept)


def test_a_file_that_is_compressed_later_still_holds(vault: Vault) -> None:
    file = vault.rotate("audit.jsonl-20261121", 1200)
    vault.seal(file.name)
    packed = vault.path(file.name + ".gz")
    packed.write_bytes(gzip.compress(file.read_bytes()))
    file.unlink()
    vault.holds()
    lines = gzip.decompress(packed.read_bytes()).replace(b"SALES", b"OTHER", 1)
    packed.write_bytes(gzip.compress(lines))
    vault.broken(f"{vault.name(file.name)}: lines 1-1000: does not hold")
    packed.write_bytes(packed.read_bytes()[:-9])
    code, found = vault.verify()
    assert code == 1 and found[0] == f"{vault.name(file.name)}: lines 1-1000: does not hold"
    packed.unlink()
    vault.broken(f"{vault.name(file.name)}: missing")


def test_a_compressed_file_is_sealed_by_its_content(vault: Vault) -> None:
    data = content(record(number) for number in range(3))
    vault.path("old.jsonl.gz").write_bytes(gzip.compress(data))
    vault.seal("old.jsonl.gz")
    [seal] = map(json.loads, vault.seal_lines())
    assert (seal["sha256"], seal["lines"]) == (sha256(data), 3)
    vault.path("old.jsonl.gz").write_bytes(gzip.compress(data, 1))
    vault.holds()


@pytest.mark.parametrize("change, ranges", [
    ("first line", ["1-1000"]), ("line 1000", ["1-1000"]), ("line 1001", ["1001-2000"]),
    ("last line", ["2001-2500"]), ("line removed", ["1-1000", "1001-2000", "2001-2500"]),
    ("cut to 1500", ["1001-2000", "2001-2500"]), ("cut to 1000", ["1001-2000", "2001-2500"]),
    ("emptied", ["1-1000", "1001-2000", "2001-2500"]), ("lines added", ["2501-2502"]),
    ("two lines swapped", ["1001-2000"]), ("no last end", ["2001-2500"])])
def test_where_a_file_does_not_hold(vault: Vault, change: str, ranges: list[str]) -> None:
    file = vault.rotate("audit.jsonl-20261121", 2500)
    vault.seal(file.name)
    lines = file.read_bytes().splitlines(keepends=True)

    def altered(number: int) -> list[bytes]:
        return lines[:number - 1] + [lines[number - 1].replace(b"SALES", b"SALEZ")] + lines[number:]

    made = {"first line": altered(1), "line 1000": altered(1000), "line 1001": altered(1001),
            "last line": altered(2500), "line removed": lines[:500] + lines[501:],
            "cut to 1500": lines[:1500], "cut to 1000": lines[:1000], "emptied": [],
            "lines added": lines + [line(record()), b"x"],
            "two lines swapped": lines[:1200] + [lines[1201], lines[1200]] + lines[1202:],
            "no last end": lines[:-1] + [lines[-1].rstrip()]}[change]
    file.write_bytes(b"".join(made))
    vault.broken(*(f"{vault.name(file.name)}: lines {found}: does not hold" for found in ranges))


def test_where_the_chain_breaks(vault: Vault) -> None:
    for name in "abc":
        vault.rotate(name, 2)
    kept = vault.seal("a", "b", "c")
    lines = vault.seal_lines()
    seals = vault.desk.target.path(vault.seals)

    def breaks(made: list[bytes], number: int, *others: str,
               arguments: tuple[str, ...] = ()) -> None:
        vault.seals.write_bytes(b"".join(made))
        vault.broken(f"{seals}: line {number}: the chain breaks", *others, arguments=arguments)

    breaks([lines[0], lines[2]], 2)
    breaks(lines[1:], 1)
    breaks([lines[0].replace(b"2026", b"2027"), *lines[1:]], 2)
    breaks(lines[:2], 3, arguments=("--kept", kept))
    forged = lines[2].replace(b"2026", b"2027")
    breaks([*lines[:2], forged], 3, arguments=("--kept", kept))
    vault.seals.write_bytes(b"".join([*lines[:2], forged]))
    vault.holds()  # what only the kept line shows
    breaks([*lines, b"{}\n"], 4)
    breaks([*lines, lines[2][:50]], 4)
    digest = json.loads(lines[1])["sha256"].encode()
    swapped = lines[1].replace(b'"sha256":"' + digest, b'"sha256":"' + b"0" * 64)
    vault.seals.write_bytes(lines[0] + swapped + lines[2])
    vault.broken(f"{vault.name('b')}: lines 1-2: does not hold",
                 f"{seals}: line 3: the chain breaks")


def test_an_empty_file(vault: Vault) -> None:
    vault.path("empty").write_bytes(b"")
    vault.seal("empty")
    vault.holds()
    vault.path("empty").write_bytes(b"x\n")
    vault.broken(f"{vault.name('empty')}: lines 1-1: does not hold")


def test_files_that_moved_with_their_seals(vault: Vault) -> None:
    vault.rotate("a", 2)
    vault.seal("a")
    other = vault.desk.folder / "other"
    other.mkdir()
    vault.path("a").rename(other / "a")
    vault.seals = vault.seals.rename(other / "SEALS")
    vault.holds()


def refused(vault: Vault, *arguments: "str | Path") -> str:
    result = vault.desk.run("audit", *arguments)
    assert (result.code, result.stdout) == (2, b"")
    text = result.stderr.decode().replace("\r", "")
    assert text.startswith("kova-admin: ") and text.count("\n") == 1
    return text


def test_what_cannot_be_sealed(vault: Vault) -> None:
    vault.rotate("a", 2)
    to = ("seal", "--to", vault.seals)
    assert "no: the file cannot be opened" in refused(vault, *to, vault.path("a"), vault.path("no"))
    vault.path("b.gz").write_bytes(b"x")
    assert "broken or cut short" in refused(vault, *to, vault.path("a"), vault.path("b.gz"))
    assert "standard input" in refused(vault, *to, "-")
    assert not vault.seals.exists()
    for bad in (b"x\n", b"{}\n"):
        vault.seals.write_bytes(bad)
        message = refused(vault, *to, vault.path("a"))
        assert "SEALS: line 1, column 1: the line is no seal" in message
        assert vault.seals.read_bytes() == bad


def test_where_a_line_stops_being_a_seal(vault: Vault) -> None:
    vault.rotate("a", 2)
    vault.rotate("b", 2)
    vault.seal("a")
    [good] = vault.seal_lines()
    made = json.loads(good)
    # Of the second of two equal members, whose value counts.
    twice = good[:-2] + b', "lines" : "x"}\n'
    for bad, column in (
            (b'{"file":tru\n', 12), (b"[]\n", 1), (b"\n", 1), (good[:50] + b"\n", 51),
            (good[:-1], len(good)), (twice, twice.rindex(b'"lines"') + 1),
            *((good.replace(b'"%s":' % key, b'"%s":false,"x":' % key),
               good.index(b'"%s":' % key) + 1)
              for key in (b"file", b"sha256", b"lines", b"first", b"last", b"blocks", b"previous")),
            *((json.dumps({name: made[name] for name in made if name != key}).encode() + b"\n", 1)
              for key in made),
            (good.replace(b'"lines":2', b'"lines":1002'), good.index(b'"blocks"') + 4)):
        place = f"line 1, column {column}: the line is no seal\n"
        for before in (b"", good):
            vault.seals.write_bytes(before + bad)
            text = refused(vault, "seal", "--to", vault.seals, vault.path("b"))
            assert "SEALS: " + (place.replace("1", "2", 1) if before else place) in text, bad
            assert vault.seals.read_bytes() == before + bad
        # A good line before it makes it a break of the chain.
        code, lines = vault.verify()
        assert code == 1 and lines[0].endswith("SEALS: line 2: the chain breaks"), bad
        vault.seals.write_bytes(bad)
        assert "SEALS: " + place in refused(vault, "verify", vault.seals), bad


def test_seals_that_cannot_be_read(vault: Vault) -> None:
    assert "SEALS: the file cannot be read" in refused(vault, "verify", vault.seals)
    for bad in (b"no seal\n", b"", b"{}\n{}\n"):
        vault.seals.write_bytes(bad)
        assert "SEALS: " in refused(vault, "verify", vault.seals)
    vault.rotate("a", 1)
    vault.seals.unlink()
    vault.seal("a")
    assert "--kept" in refused(vault, "verify", vault.seals, "--kept", "kova-seal 1 xyz")


def test_seals_that_ask_for_too_much(vault: Vault) -> None:
    seal = {"file": "a", "sha256": "a" * 64, "lines": 1 << 40, "first": None, "last": None,
            "blocks": [], "previous": None}
    for lines, blocks in ((1 << 40, 0), (2 ** 64 - 1, 1), (1000, 2), (1001, 1), (0, 1)):
        made = {**seal, "lines": lines, "blocks": ["b" * 64] * blocks}
        made_line = json.dumps(made).encode() + b"\n"
        vault.seals.write_bytes(made_line)
        column = made_line.index(b'"blocks"') + 1
        assert f"SEALS: line 1, column {column}: the line is no seal" in refused(
            vault, "verify", vault.seals)
    vault.seals.write_bytes(b"x" * (17 << 20))
    assert f"SEALS: line 1, column {(16 << 20) + 1}: the line is too long" in refused(
        vault, "verify", vault.seals)
    vault.rotate("a", 1)
    assert "the line is too long" in refused(vault, "seal", "--to", vault.seals, vault.path("a"))


def test_what_is_no_file_is_missing(vault: Vault) -> None:
    file = vault.rotate("a", 2)
    vault.seal("a")
    file.unlink()
    file.mkdir()
    vault.broken(f"{vault.name('a')}: missing")


def test_a_name_with_a_nul_is_missing(vault: Vault) -> None:
    vault.rotate("a", 2)
    vault.seal("a")
    [made] = map(json.loads, vault.seal_lines())
    vault.seals.write_text(json.dumps({**made, "file": vault.name("a") + "\0x"}) + "\n",
                           newline="\n")
    vault.broken(vault.name("a") + "\\x00x: missing")
