"""How numbers are written for readers."""

from __future__ import annotations


def short(value: float) -> str:
    """Of about three digits."""
    if value >= 100:
        return f"{value:,.0f}"
    return f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def short_time(milliseconds: float) -> str:
    """In microseconds or milliseconds, with the unit."""
    if milliseconds < 0.9995:
        return f"{milliseconds * 1000:.0f} µs"
    return f"{milliseconds:.2f} ms" if milliseconds < 99.995 else f"{milliseconds:,.0f} ms"
