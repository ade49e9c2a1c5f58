"""Tokens that were signed elsewhere: which of them kova_execute takes, and in which order it looks.

Every token is made and signed here, so a row changes what was signed as well as what is shown.
"""

from __future__ import annotations

import time

import pytest

from harness.approval_tokens import SECRET, Token, digest_of, token_for
from harness.messages import call
from harness.write_calls import (EXPIRED, FIELDS, INVALID, NO_SECRET, SIGNATURE, SPENT, TOOL,
                                 WRITES, Writes, accepted, token_refused, write_arguments)

STATEMENT = "DELETE FROM T;"
DIGEST = digest_of(STATEMENT)


@pytest.fixture
def writes(served: Writes) -> Writes:
    return served.guarded()


def good() -> Token:
    return token_for(STATEMENT)


def expiring(form: str) -> Token:
    """A token that expires soon, with its expiry written in this form."""
    return good().but(expiry=form.format(int(time.time()) + 200))


def mixed(text: str) -> str:
    return "".join(c.upper() if i % 2 else c for i, c in enumerate(text))


def spends(writes: Writes, text: str, nonce: str) -> None:
    accepted(writes(STATEMENT, text), STATEMENT)
    assert writes.markers() == {nonce + ".used"}
    assert (writes.state / f"{nonce}.used").stat().st_size == 0


def leaves_no_trace(writes: Writes, text: str, message: str) -> None:
    token_refused(writes(STATEMENT, text), message)
    assert writes.markers() == set()


@pytest.mark.parametrize("form", [
    "{}", "0{}", "0000000000{}", "{}x", "{} ", "{}-", "{},5", "{}e9", "{}\u00e9", "{}x99999999999",
])
def test_an_expiry_in_another_form(writes, form):
    token = expiring(form)
    spends(writes, token.text, token.nonce)


@pytest.mark.parametrize("form", [
    "0", "x", "-1", "-{}", "+{}", " {}", "x{}", "0x{}", "4294967296", "1{}", "{}0",
    "9223372036854775807", "9223372036854775808", "18446744073709551615", "18446744073709551616",
    "99999999999999999999999999999999999999999999",
])
def test_an_expiry_out_of_the_window(writes, form):
    leaves_no_trace(writes, expiring(form).text, EXPIRED)


@pytest.mark.parametrize("bits", [32, 63, 64, 65, 128])
def test_an_expiry_that_would_wrap(writes, bits):
    token = good().but(expiry=str(2**bits + int(time.time()) + 200))
    leaves_no_trace(writes, token.text, EXPIRED)


def test_both_ends_of_the_window(writes):
    leaves_no_trace(writes, token_for(STATEMENT, lifetime=-1).text, EXPIRED)
    leaves_no_trace(writes, token_for(STATEMENT, lifetime=330).text, EXPIRED)
    spends(writes, (last := token_for(STATEMENT, lifetime=300)).text, last.nonce)


def test_the_lifetime_is_that_of_the_verifying_policy(served):
    served.guarded(approval_ttl_seconds=30)
    leaves_no_trace(served, token_for(STATEMENT, lifetime=60).text, EXPIRED)
    spends(served, (short := token_for(STATEMENT, lifetime=30)).text, short.nonce)
    served.guarded(approval_ttl_seconds=900)
    spends(served, (long := token_for(STATEMENT, lifetime=900)).text, long.nonce)


@pytest.mark.parametrize("digest", [DIGEST.upper(), mixed(DIGEST)], ids=["upper", "mixed"])
def test_a_digest_in_other_letters(writes, digest):
    """The digest matches in any case of letters; the signature only in the signed one."""
    leaves_no_trace(writes, good().joined(digest=digest), SIGNATURE)
    token = good().but(digest=digest)
    leaves_no_trace(writes, token.joined(digest=DIGEST), SIGNATURE)
    spends(writes, token.text, token.nonce)


@pytest.mark.parametrize("nonce", ["AB" * 16, "aB" * 16, "0" * 32], ids=lambda nonce: nonce[:4])
def test_a_nonce_keeps_its_letters(writes, nonce):
    token = good().but(nonce=nonce)
    if nonce.lower() != nonce:
        leaves_no_trace(writes, token.joined(nonce=nonce.lower()), SIGNATURE)
    spends(writes, token.text, nonce)


@pytest.mark.parametrize("case", [str.upper, mixed], ids=["upper", "mixed"])
def test_a_signature_in_other_letters(writes, case):
    token = good()
    spends(writes, token.joined(signature=case(token.signature)), token.nonce)


@pytest.mark.parametrize("form", [".{}", "{}.", "...{}...", "{}\0", "{}\0rest", "{}.\0"], ids=repr)
def test_a_token_with_something_around_it(writes, form):
    token = good()
    spends(writes, form.format(token.text), token.nonce)


def test_doubled_dots_are_one(writes):
    token = good()
    spends(writes, token.joined(".."), token.nonce)
    token_refused(writes(STATEMENT, token.text), SPENT)


def test_255_bytes_pass_and_256_do_not(writes):
    token = good()
    leaves_no_trace(writes, token.text.ljust(256, "."), INVALID)
    spends(writes, token.text.ljust(255, "."), token.nonce)
    filled = expiring("{}")
    filled = filled.but(expiry=filled.expiry.ljust(255 - 2 - 32 - 64 - 64 - 4, "x"))
    assert len(filled.text) == 255
    accepted(writes(STATEMENT, filled.text), STATEMENT)


@pytest.mark.parametrize("pieces", [
    {"version": "v2"}, {"version": "V1"}, {"version": "v1 "}, {"version": " v1"},
    {"version": "v11"}, {"version": "v"}, {"version": ""}, {"version": "v1.v1"},
    {"expiry": ""}, {"nonce": ""}, {"nonce": "0" * 31}, {"nonce": "0" * 33},
    {"nonce": "0" * 31 + "g"}, {"nonce": "../" + "0" * 29}, {"nonce": "0" * 31 + "/"},
    {"nonce": "\u00e9" * 16}, {"nonce": " " + "0" * 31},
    {"digest": ""}, {"digest": DIGEST[1:]}, {"digest": DIGEST + "0"}, {"digest": "g" + DIGEST[1:]},
    {"digest": digest_of("DELETE FROM ORDERS;")}, {"digest": "0" * 64},
    {"signature": ""}, {"signature": "0" * 63}, {"signature": "0" * 65},
    {"signature": "g" + "0" * 63}, {"signature": "0" * 64 + "\n"}, {"signature": "0" * 32},
    {"signature": "0" * 64 + ".x"},
], ids=str)
def test_fields_that_are_not_right(writes, pieces):
    leaves_no_trace(writes, good().joined(**pieces), FIELDS)


@pytest.mark.parametrize("text", ["v1", "v1.1.2.3", "v1 1 2 3 4", "....", "null",
                                  "\u0430" * 120], ids=repr)
def test_what_is_no_token(writes, text):
    leaves_no_trace(writes, text, FIELDS)


def test_a_token_for_another_write(writes):
    leaves_no_trace(writes, token_for("DELETE FROM ORDERS;").text, FIELDS)


def changed(text: str, index: int) -> str:
    """Another hexadecimal digit in one place."""
    characters = list(text)
    characters[index] = "0" if characters[index] != "0" else "1"
    return "".join(characters)


@pytest.mark.parametrize("index", [0, 31, 32, 63, -2])
def test_a_changed_signature(writes, index):
    token = good()
    leaves_no_trace(writes, token.joined(signature=changed(token.signature, index)), SIGNATURE)


@pytest.mark.parametrize("index", [0, 15, 31])
def test_a_changed_nonce(writes, index):
    token = good()
    leaves_no_trace(writes, token.joined(nonce=changed(token.nonce, index)), SIGNATURE)


def test_a_changed_expiry(writes):
    token = good()
    for expiry in (str(int(token.expiry) + 1), "0" + token.expiry, token.expiry + "x"):
        leaves_no_trace(writes, token.joined(expiry=expiry), SIGNATURE)


@pytest.mark.parametrize("signed", [
    {"secret": SECRET[:-1]}, {"secret": SECRET + " "}, {"secret": SECRET.upper()},
    {"name": "Sales_read"}, {"name": "other"}, {"client_id": "desk-client2"},
    {"client_id": "Desk-Client"}, {"database": "sales"}, {"database": "SALE"},
    {"nonce": "0" * 32 + "|"}, {"digest": DIGEST.upper()},
], ids=str)
def test_a_token_signed_over_something_else(writes, signed):
    token = good()
    other = token.but(**signed)
    leaves_no_trace(writes, token.joined(signature=other.signature), SIGNATURE)


def test_the_fields_cannot_be_shifted(writes):
    """The same signed bytes, split at other places, form another token."""
    token = good()
    shifted = token.but(name="read", client_id="x|desk-client")
    leaves_no_trace(writes, token.joined(signature=shifted.signature), SIGNATURE)


def test_a_signature_comes_before_the_marker(writes):
    token = good()
    spends(writes, token.text, token.nonce)
    token_refused(writes(STATEMENT, token.joined(signature="0" * 64)), SIGNATURE)
    token_refused(writes(STATEMENT, token.text), SPENT)


def test_a_nonce_is_spent_for_every_token(writes):
    token = good()
    spends(writes, token.text, token.nonce)
    again = token.but(expiry=str(int(token.expiry) - 1))
    token_refused(writes(STATEMENT, again.text), SPENT)
    orders = token_for("DELETE FROM ORDERS;", nonce=token.nonce)
    token_refused(writes("DELETE FROM ORDERS", orders.text), SPENT, table="ORDERS")


def test_a_forged_token_spends_nothing(writes):
    token = good()
    leaves_no_trace(writes, token.joined(signature="0" * 64), SIGNATURE)
    spends(writes, token.text, token.nonce)


def presented(run, env, text: str) -> bytes:
    """The reply of a single worker process."""
    message = call(1, TOOL, write_arguments(STATEMENT, text))
    return run("--tool-worker", stdin=message, env=env).stdout


@pytest.fixture
def launch(policy, engine, tmp_path) -> dict:
    (tmp_path / "state").mkdir()
    return {**engine.env, **policy(**WRITES, approval_required=True,
                                   approval_state_directory=tmp_path / "state"),
            "KOVA_MCP_APPROVAL_SECRET": SECRET}


@pytest.mark.parametrize("secret", [None, "", "s" * 31], ids=["none", "empty", "31"])
def test_a_short_secret_shows_after_the_time(run, launch, engine, tmp_path, secret):
    launch["KOVA_MCP_APPROVAL_SECRET"] = secret
    assert FIELDS.encode() in presented(run, launch, good().joined(nonce="0" * 31))
    assert EXPIRED.encode() in presented(run, launch, token_for(STATEMENT, lifetime=-1).text)
    assert NO_SECRET.encode() in presented(run, launch, good().but(secret=secret or "").text)
    assert engine.queries() == [] and not any((tmp_path / "state").iterdir())


@pytest.mark.parametrize("length", [32, 63, 64, 65, 300, 5000])
def test_secrets_of_every_length(run, launch, engine, tmp_path, length):
    secret = "".join(chr(0x21 + i % 94) for i in range(length))
    launch["KOVA_MCP_APPROVAL_SECRET"] = secret
    token = good().but(secret=secret)
    shorter = good().but(secret=secret[:-1])
    assert SIGNATURE.encode() in presented(run, launch, shorter.text)
    assert b'"isError":false' in presented(run, launch, token.text)
    assert engine.queries() == [STATEMENT.encode()]
    assert [path.name for path in (tmp_path / "state").iterdir()] == [token.nonce + ".used"]


def test_the_policy_is_signed_as_its_file_spells_it(run, launch, engine):
    launch.update(KOVA_MCP_CLIENT_ID="DESK-CLIENT", KOVA_MCP_DATABASE="Sales")
    as_launched = good().but(client_id="DESK-CLIENT", database="Sales")
    assert SIGNATURE.encode() in presented(run, launch, as_launched.text)
    assert b'"isError":false' in presented(run, launch, good().text)


def test_longest_identity(run, policy, engine, tmp_path):
    identity = {"name": "n" * 63, "client_id": "c" * 95, "database": "D" * 63}
    env = {**engine.env, "KOVA_MCP_APPROVAL_SECRET": SECRET,
           **policy(**WRITES, **identity, approval_required=True,
                    approval_state_directory=tmp_path)}
    token = good().but(**identity)
    assert b'"isError":false' in presented(run, env, token.text)
    assert (tmp_path / f"{token.nonce}.used").exists()
