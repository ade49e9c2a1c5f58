"""One sentence on where and when the figures were measured."""

from __future__ import annotations

from typing import Any

from figures.markdown import paragraph


def _stolen(data: "dict[str, Any]") -> str:
    if "stolen" not in data:
        return ""
    return f"; {100 * data['stolen']:.0f} % of the processor time withheld by the host"


def run_line(data: "dict[str, Any]") -> str:
    machine, load = data["machine"], data["load_average"]
    parameters = ", ".join(f"{name} {value}" for name, value in data["parameters"].items()
                           if not isinstance(value, dict))
    return paragraph(
        f"{machine['processor']}, {machine['processors']} processors, "
        f"{machine['memory_mib'] / 1024:.0f} GiB; {machine['distribution']}, kernel "
        f"{machine['kernel']}; {data['date']}, commit {data['commit']}; load {load[0]} before, "
        f"{load[1]} after{_stolen(data)}; {parameters}.")
