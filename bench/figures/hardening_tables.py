"""What the hardening options cost."""

from __future__ import annotations

from typing import Any

from figures.dataset import Dataset
from figures.markdown import table

BOTH = ("linux", "windows")
OPTIONS: "dict[str, dict[str, str]]" = {
    "zeroed automatic variables": dict.fromkeys(BOTH, "-ftrivial-auto-var-init=uninitialized"),
    "assertions of the standard library": dict.fromkeys(
        BOTH, "-U_GLIBCXX_ASSERTIONS;-Wno-error=missing-declarations"),
    "control-flow protection": {"linux": "-fcf-protection=none"},
    "stack clash protection": {"linux": "-fno-stack-clash-protection"},
    "stack protector": dict.fromkeys(BOTH, "-fno-stack-protector"),
    "fortify": {"linux": "-U_FORTIFY_SOURCE"}}
"""The options of the compiler that take each one back, by target. Without assertions nothing
declares their handler."""


def cost(one: "dict[str, float]") -> str:
    """Of the build with all to the one without, in percent: median, and undisturbed."""
    return " / ".join(f"{100 / one[figure] - 100:+.1f}" for figure in ("ratio", "undisturbed"))


def summary(data: Dataset) -> str:
    targets: "dict[str, Any]" = data["hardening"]["targets"]
    rows = [(option, *(cost(targets[name]["without"][option]) if name in against else "–"
                       for name in BOTH)) for option, against in OPTIONS.items()]
    rows.append(("nothing (a copy of the file)", *(cost(targets[name]["again"]) for name in BOTH)))
    heads = [f"{name}, {targets[target]['rounds']:,} rounds"
             for target, name in zip(BOTH, ("Linux", "Wine"))]
    return table(("percent of a call: median / undisturbed", *heads), rows)
