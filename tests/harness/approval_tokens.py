"""Approval tokens that are made and checked here, with Python's own HMAC, not by the server."""

from __future__ import annotations

import hashlib
import hmac
import os
import time
from dataclasses import dataclass, field, replace
from typing import Any

SECRET = "an operator's secret of 37 characters"


def digest_of(canonical: "str | bytes") -> str:
    """The operation digest of a canonical statement."""
    data = canonical.encode() if isinstance(canonical, str) else canonical
    return hashlib.sha256(data).hexdigest()


def new_nonce() -> str:
    return os.urandom(16).hex()


@dataclass(frozen=True)
class Token:
    """What an approval binds; `text` is the token. The identity is the default policy's."""

    digest: str
    expiry: str
    nonce: str = field(default_factory=new_nonce)
    secret: str = SECRET
    name: str = "sales_read"
    client_id: str = "desk-client"
    database: str = "SALES"

    @property
    def signature(self) -> str:
        signed = "|".join(("v1", self.expiry, self.nonce, self.digest, self.name, self.client_id,
                           self.database))
        return hmac.new(self.secret.encode(), signed.encode(), hashlib.sha256).hexdigest()

    @property
    def text(self) -> str:
        return self.joined()

    def joined(self, separator: str = ".", **pieces: str) -> str:
        """The token with some pieces replaced after it was signed."""
        shown = {"version": "v1", "expiry": self.expiry, "nonce": self.nonce,
                 "digest": self.digest, "signature": self.signature, **pieces}
        return separator.join(shown.values())

    def but(self, **changes: Any) -> "Token":
        """A changed token with a signature over its changed fields."""
        return replace(self, **changes)


def token_for(canonical: "str | bytes", *, lifetime: int = 200, **fields: Any) -> Token:
    """A good token for a statement; the lifetime is in seconds."""
    return Token(**{"digest": digest_of(canonical), "expiry": str(int(time.time()) + lifetime),
                    **fields})
