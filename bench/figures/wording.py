"""How numbers are written for readers."""

from __future__ import annotations


def short(value: float) -> str:
    """Of about three digits."""
    if value >= 99.95:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 9.995 else f"{value:.2f}"


SMALLER = {"ms": ("µs", 1000), "µs": ("ns", 1000), "MiB": ("KiB", 1024), "KiB": ("bytes", 1024)}


def with_unit(value: float, unit: str) -> str:
    """With a smaller unit where there is one and the value is below one."""
    while 0 < value < 1 and unit in SMALLER:
        unit, times = SMALLER[unit]
        value *= times
    return f"{short(value)} {unit}" if value else "0"


def short_time(milliseconds: float) -> str:
    """In microseconds or milliseconds, with the unit."""
    if milliseconds < 0.9995:
        return f"{milliseconds * 1000:.0f} µs"
    return f"{milliseconds:.2f} ms" if milliseconds < 99.995 else f"{milliseconds:,.0f} ms"
