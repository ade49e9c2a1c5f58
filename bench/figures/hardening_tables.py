"""What the hardening options cost."""

from __future__ import annotations

from typing import Any, NamedTuple

from figures.dataset import Dataset
from figures.markdown import table

BOTH = ("linux", "windows")


class Without(NamedTuple):
    """The compiler's and the linker's options that take a hardening option back."""

    compiler: str = ""
    linker: str = ""


OPTIONS: "dict[str, dict[str, Without]]" = {
    "zeroed automatic variables": dict.fromkeys(
        BOTH, Without("-ftrivial-auto-var-init=uninitialized")),
    "assertions of the standard library": dict.fromkeys(
        BOTH, Without("-U_GLIBCXX_ASSERTIONS;-Wno-error=missing-declarations")),
    "control-flow protection": {"linux": Without("-fcf-protection=none")},
    "stack clash protection": {"linux": Without("-fno-stack-clash-protection")},
    "stack protector": dict.fromkeys(BOTH, Without("-fno-stack-protector")),
    "fortify": {"linux": Without("-U_FORTIFY_SOURCE")},
    "loading at any address": {
        "linux": Without("-fno-pie", "-no-pie"),
        "windows": Without(linker="-Wl,--disable-high-entropy-va,--disable-dynamicbase")},
    "read-only tables, bound at the start": {"linux": Without(linker="-Wl,-z,norelro,-z,lazy")},
    "no execution of data": {"linux": Without(linker="-Wl,-z,execstack"),
                             "windows": Without(linker="-Wl,--disable-nxcompat")}}
"""By target. Without assertions nothing declares their handler."""


def cost(one: "dict[str, float]") -> str:
    """Of the build with all to the one without, in percent: median, and undisturbed."""
    return " / ".join(f"{100 / one[figure] - 100:+.1f}" for figure in ("ratio", "undisturbed"))


def summary(data: Dataset) -> str:
    targets: "dict[str, Any]" = data["hardening"]["targets"]
    found = [targets[name]["without"] for name in BOTH]
    rows = [(option, *(cost(without[option]) if option in without else "–" for without in found))
            for option in OPTIONS]
    rows.append(("nothing (a copy of the file)", *(cost(targets[name]["again"]) for name in BOTH)))
    heads = [f"{name}, {targets[target]['rounds']:,} rounds"
             for target, name in zip(BOTH, ("Linux", "Wine"))]
    return table(("percent of a call: median / undisturbed", *heads), rows)
