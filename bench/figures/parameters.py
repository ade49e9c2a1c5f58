"""The parameters with which each benchmark runs when it is asked for nothing else.

A data file of the repository is of a run with these; it may name more of them than stand here.
"""

from __future__ import annotations

from typing import Any

DEFAULTS: "dict[str, dict[str, Any]]" = {
    "linux": {"rounds": 1000}, "windows": {"rounds": 200}, "http": {"rounds": 30},
    "peers": {"rounds": 20}, "growth": {"rounds": 20}, "account": {"calls": 200},
    "audit": {"rounds": 20}, "costs": {"calls": 400}, "micro": {"repetitions": 9},
    "hardening": {"rounds": 3000},
    "scale": {"seconds": 600, "listeners": 64, "policy_answered_calls_a_second": 200}}
"""In the order in which they are run."""
