"""Lines: the size limit, line ends, the byte order mark, NUL bytes and the end of input.

A server that is not initialized refuses a ping by its id, which shows whether the line arrived.
"""

from __future__ import annotations

import pytest

from harness.messages import OVERSIZE_ERROR, PARSE_ERROR, not_initialized, notification, ping

LIMIT = 1048576
BOM = b"\xef\xbb\xbf"


def message(request_id: int, length: int) -> bytes:
    """A ping of so many bytes, without a line end."""
    text = ping(request_id)[:-1]
    return text[:-1] + b" " * (length - len(text)) + b"}"


def bare(request_id: int) -> bytes:
    return ping(request_id)[:-1]


ONE = not_initialized(1)
TWO = not_initialized(2)
THREE = not_initialized(3)


def check(run, sent: bytes, *replies: bytes) -> None:
    result = run(stdin=sent)
    assert result.stdout == b"".join(replies)
    assert (result.stderr, result.code) == (b"", 0)


@pytest.mark.parametrize("sent, replies", [
    (message(1, LIMIT) + b"\n" + ping(2), [ONE, TWO]),
    (message(1, LIMIT + 1) + b"\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (message(1, LIMIT + 2) + b"\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (message(1, LIMIT - 1) + b"\r\n" + ping(2), [ONE, TWO]),
    (message(1, LIMIT) + b"\r\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (message(1, LIMIT - 2) + b"\r\r\n" + ping(2), [ONE, TWO]),
    (message(1, LIMIT), [ONE]),
    (message(1, LIMIT - 1) + b"\r", [ONE]),
    (message(1, LIMIT) + b"\r", [OVERSIZE_ERROR]),
    (message(1, LIMIT + 1), [OVERSIZE_ERROR]),
    (message(1, LIMIT + 2), [OVERSIZE_ERROR]),
    (message(1, 3 * LIMIT) + b"\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (message(1, 3 * LIMIT), [OVERSIZE_ERROR]),
    (b"\n" * 3 * LIMIT + ping(1), [ONE]),
    (message(1, LIMIT + 1) + b"\n" + message(2, LIMIT + 1) + b"\n" + ping(3),
     [OVERSIZE_ERROR, OVERSIZE_ERROR, THREE]),
    (message(1, LIMIT) + b"\n" + message(2, LIMIT) + b"\n" + ping(3), [ONE, TWO, THREE]),
    (b"x" * (LIMIT + 1) + b"\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (b"x" * LIMIT + b"\n" + ping(2), [PARSE_ERROR, TWO]),
    (notification("ping")[:-1].ljust(LIMIT) + b"\n" + ping(2), [TWO]),
], ids=range(19))
def test_the_size_limit(run, sent, replies):
    check(run, sent, *replies)


@pytest.mark.parametrize("sent, replies", [
    (b"", []),
    (b"\n", []),
    (b"\r\n", []),
    (b"\r", []),
    (b"\n\r\n\r\r\n\n", []),
    (bare(1), [ONE]),
    (bare(1) + b"\r", [ONE]),
    (bare(1) + b"\r\n", [ONE]),
    (bare(1) + b"\r\r\r\n", [ONE]),
    (b"\n\n" + ping(1) + b"\r\n\n" + ping(2), [ONE, TWO]),
    (ping(1) + ping(2) + bare(3), [ONE, TWO, THREE]),
    (b" \t\r" + ping(1), [ONE]),
    (b"\r" + ping(1), [ONE]),
    (bare(1) + b"\r \r\n", [ONE]),
    (bare(1) + b"\r" + ping(2), [PARSE_ERROR]),
    (b" \n" + ping(1), [PARSE_ERROR, ONE]),
    (b"\t\r\n" + ping(1), [PARSE_ERROR, ONE]),
    (b" ", [PARSE_ERROR]),
    (b"{}\n{\n}\n" + ping(1), [
        b'{"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"jsonrpc must be 2.0"}}\n',
        PARSE_ERROR, PARSE_ERROR, ONE]),
    (bare(1) + b"\x0b\n", [PARSE_ERROR]),
    (bare(1) + b"\x0c\n", [PARSE_ERROR]),
    (bare(1) + b"\x1a\n" + ping(2), [PARSE_ERROR, TWO]),
    (b"\x1a" + ping(1) + ping(2), [PARSE_ERROR, TWO]),
], ids=repr)
def test_line_ends_and_blank_lines(run, sent, replies):
    check(run, sent, *replies)


@pytest.mark.parametrize("sent, replies", [
    (BOM + ping(1), [ONE]),
    (BOM + bare(1), [ONE]),
    (ping(1) + BOM + ping(2), [ONE, PARSE_ERROR]),
    (BOM + ping(1) + BOM + ping(2), [ONE, PARSE_ERROR]),
    (BOM + BOM + ping(1), [PARSE_ERROR]),
    (BOM[:2] + ping(1), [PARSE_ERROR]),
    (b" " + BOM + ping(1), [PARSE_ERROR]),
    (b"\xfe\xff" + ping(1), [PARSE_ERROR]),
    # A line of only that is skipped, and counts as the first line.
    (BOM + b"\n" + ping(1), [ONE]),
    (BOM + b"\r\n" + BOM + ping(1), [PARSE_ERROR]),
    (BOM, []),
    (BOM + b"\r", []),
    (b"\n" + BOM + ping(1), [PARSE_ERROR]),
    (b"\r\n" + BOM + ping(1), [PARSE_ERROR]),
    # A line that a NUL makes empty does not count as a line.
    (b"\0\n" + BOM + ping(1), [ONE]),
    (b"\0" + BOM + b"\n\0\n" + BOM + ping(1), [ONE]),
    (b"\0\n\n" + BOM + ping(1), [PARSE_ERROR]),
    # The mark counts against the limit.
    (BOM + message(1, LIMIT - 3) + b"\n" + ping(2), [ONE, TWO]),
    (BOM + message(1, LIMIT - 2) + b"\n" + ping(2), [OVERSIZE_ERROR, TWO]),
    (BOM + message(1, LIMIT - 3), [ONE]),
    (BOM + message(1, LIMIT - 2), [OVERSIZE_ERROR]),
    # An oversized line counts as the first line, too.
    (b"x" * (LIMIT + 1) + b"\n" + BOM + ping(2), [OVERSIZE_ERROR, PARSE_ERROR]),
    (BOM + b"x" * LIMIT + b"\n" + BOM + ping(2), [OVERSIZE_ERROR, PARSE_ERROR]),
    (BOM + b"\0\n" + ping(1) + ping(2), [OVERSIZE_ERROR, TWO]),
], ids=range(24))
def test_the_byte_order_mark(run, sent, replies):
    check(run, sent, *replies)


@pytest.mark.parametrize("sent, replies", [
    # At the start of a line: the line is skipped without a reply.
    (b"\0" + ping(1) + ping(2), [TWO]),
    (b"\0\n" + ping(2), [TWO]),
    (b"\0\0\0\n" + ping(2), [TWO]),
    (ping(1) + b"\0" + ping(2) + ping(3), [ONE, THREE]),
    (b"\0" + bare(1), []),
    (b"\0", []),
    # Later in a line: refused as oversized, together with the next line.
    (bare(1) + b"\0\n" + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    (bare(1) + b"\0 rest\n" + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    (b"x\0" + ping(1) + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    (bare(1) + b"\r\0\n" + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    (b"\r\0\n" + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    (bare(1) + b"\0\n" + bare(2) + b"\0\n" + ping(3), [OVERSIZE_ERROR, THREE]),
    (bare(1) + b"\0\n", [OVERSIZE_ERROR]),
    (bare(1) + b"\0\n" + ping(2), [OVERSIZE_ERROR]),
    (bare(1) + b"\0\n" + bare(2), [OVERSIZE_ERROR]),
    (bare(1) + b"\0\n\n" + ping(3), [OVERSIZE_ERROR, THREE]),
    (bare(1) + b"\0\n" + b"x" * (2 * LIMIT) + b"\n" + ping(3), [OVERSIZE_ERROR, THREE]),
    # The last piece without a line feed is cut at the NUL.
    (bare(1) + b"\0", [ONE]),
    (bare(1) + b"\0 rest", [ONE]),
    (bare(1) + b"\r\0\r", [ONE]),
    (bare(1)[:-1] + b"\0}", [PARSE_ERROR]),
    (ping(1) + bare(2) + b"\0", [ONE, TWO]),
    # In a line that is too long, only that line is lost.
    (bare(1) + b"\0" + b"x" * LIMIT + b"\n" + ping(2) + ping(3), [OVERSIZE_ERROR, TWO, THREE]),
    (message(1, LIMIT) + b"\0\n" + ping(2) + ping(3), [OVERSIZE_ERROR, TWO, THREE]),
    (message(1, LIMIT - 1) + b"\0\n" + ping(2) + ping(3), [OVERSIZE_ERROR, THREE]),
    # The skipped piece has at most 1,048,577 bytes; what follows is read as the next line.
    (b"\0".ljust(LIMIT + 1, b"x") + ping(1) + ping(2), [ONE, TWO]),
    (b"\0".ljust(LIMIT, b"x") + b"\n" + ping(1), [ONE]),
], ids=range(27))
def test_nul_bytes(run, sent, replies):
    check(run, sent, *replies)


def test_a_line_in_many_writes(start):
    server = start()
    for byte in ping(1) + ping(2)[:-5]:
        server.send(bytes([byte]))
    assert server.read_line() == ONE
    server.expect_silence()
    server.send(ping(2)[-5:])
    assert server.read_line() == TWO


def test_a_line_is_answered_before_the_next_one_is_there(start):
    server = start()
    for number in range(1, 20):
        assert server.ask(ping(number)) == not_initialized(number)


def test_many_lines_in_one_write(run):
    numbers = range(1, 201)
    check(run, b"".join(map(ping, numbers)), *map(not_initialized, numbers))


def test_the_remainder_of_an_oversized_line_comes_later(start):
    server = start()
    server.send(b"x" * (LIMIT + 1))
    server.expect_silence()
    server.send(b"y" * LIMIT)
    server.expect_silence()
    server.send(b"\n" + ping(2))
    assert server.read_line() == OVERSIZE_ERROR
    assert server.read_line() == TWO


def test_an_exactly_full_line_waits_for_its_line_feed(start):
    server = start()
    server.send(message(1, LIMIT))
    server.expect_silence()
    server.send(b"\n")
    assert server.read_line() == ONE


def test_the_end_of_input_ends_the_server(start):
    server = start()
    assert server.ask(ping(1)) == ONE
    result = server.finish()
    assert (result.stdout, result.stderr, result.code) == (ONE, b"", 0)
