"""One function for each kind of plot. Each draws series of plot_series.py into a new figure."""

from __future__ import annotations

from typing import Any

from matplotlib.ticker import FuncFormatter, LogLocator, MaxNLocator, NullFormatter

from figures.style import Theme, colour, figure
from figures.wording import short, short_time

Series = "dict[str, Any]"
SHARES = [1, 0.5, 0.1, 0.01, 0.001]


def _plain_ticks(axis: Any) -> None:
    axis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:,.10g}"))
    axis.set_minor_formatter(NullFormatter())


def _log_ticks(axis: Any) -> None:
    """At 1, 2 and 5 of each power of ten, so that values between two powers can be read."""
    axis.set_major_locator(LogLocator(base=10, subs=(1, 2, 5), numticks=99))
    _plain_ticks(axis)


def bars(series: Series, theme: Theme) -> Any:
    """A bar with its value for each subject; on a logarithmic axis, which has no zero, a point
    with its range."""
    shown = series["bars"]
    made, [axes] = figure(1, 1, 7.5, 0.75 + 0.5 * len(shown) + 0.5, series["title"])
    names = [one["name"] for one in shown]
    for place, one in enumerate(shown):
        paint = colour(theme, one["name"], names)
        if series["log"]:
            axes.plot([one["low"], one["high"]], [place, place], color=paint, linewidth=7,
                      alpha=0.45, solid_capstyle="butt")
            axes.plot(one["value"], place, "o", color=paint, markersize=8)
        else:
            axes.barh(place, one["value"], color=paint, height=0.55)
        axes.annotate(f"{short(one['value'])} {series['unit']}",
                      (one["high"] or one["value"], place), xytext=(8, 0),
                      textcoords="offset points", va="center", color=theme.ink)
    axes.set_yticks(range(len(shown)), names)
    axes.set_ylim(len(shown) - 0.4, -0.6)
    axes.tick_params(axis="y", length=0)
    highest = max(one["high"] or one["value"] for one in shown)
    if series["log"]:
        axes.set_xscale("log")
        axes.set_xlim(min(one["low"] for one in shown) / 2, highest * 5)
        _plain_ticks(axes.xaxis)
    else:
        axes.set_xlim(0, highest * 1.2)
    axes.set_xlabel(series["axis"])
    axes.grid(axis="x")
    return made


def distributions(series: Series, theme: Theme) -> Any:
    """The share of requests that took longer than the time on the axis; both axes logarithmic."""
    made, axes = figure(len(series["panels"]), 1, 9, 5.3, series["title"])
    for one, panel in zip(axes, series["panels"]):
        names = [line["name"] for line in panel["lines"]]
        _distribution(one, panel, theme, [colour(theme, name, names) for name in names])
    axes[0].set_ylabel("share of the requests")
    return made


def _distribution(axes: Any, panel: "dict[str, Any]", theme: Theme,
                  paints: "list[str]") -> None:
    """The legend has the medians: curves cross, so that labels beside them would hide some. An aim
    is a point that the curves should pass on the left."""
    for line, paint in zip(panel["lines"], paints):
        shares = [max(share, SHARES[-1] / 2) for share in line["longer"]]
        axes.step([line["ms"][0], *line["ms"]], [1, *shares], where="post", color=paint,
                  linewidth=1.6)
        axes.plot([], [], color=paint, linewidth=3,
                  label=f"{line['name']}, median {short_time(line['median'])}, "
                        f"{line['count']:,} requests")
    if "aim" in panel:
        share, ms = panel["aim"]["share"], panel["aim"]["ms"]
        axes.plot(ms, share, "D", color=theme.beside, markersize=6,
                  label=f"aim: {100 - 100 * share:g} % within {ms:g} ms")
    axes.legend(loc="upper left", bbox_to_anchor=(0, -0.17), frameon=False, fontsize=8)
    axes.set_title(panel["title"])
    axes.set_xscale("log")
    axes.set_yscale("log")
    axes.set_ylim(SHARES[-1], 1.1)
    axes.set_yticks(SHARES, [f"{100 * share:g} %" for share in SHARES])
    axes.yaxis.set_minor_formatter(NullFormatter())
    _log_ticks(axes.xaxis)
    axes.tick_params(axis="x", labelsize=8)
    axes.set_xlabel("t, milliseconds")
    axes.grid()


def scale(series: Series, theme: Theme) -> Any:
    """The latencies of calls, and the memory over the run."""
    made, [calls, memory] = figure(2, 1, 9, 4.6, series["title"])
    _distribution(calls, series["latency"], theme, [theme.colours[0], theme.second])
    calls.set_ylabel("share of the calls")
    _memory(memory, series["memory"], theme)
    return made


def _memory(axes: Any, panel: "dict[str, Any]", theme: Theme) -> None:
    for line, paint in zip(panel["lines"], (theme.colours[0], theme.neutral, theme.ink)):
        axes.plot(line["seconds"], line["mib"], color=paint, linewidth=1.8,
                  label=f"{line['name']}: {short(line['mib'][0])} MiB idle, "
                        f"{short(max(line['mib']))} at most")
    axes.axhline(panel["aim"], color=theme.beside, linestyle="--", linewidth=1.4,
                 label=f"aim for the idle sessions: {panel['aim']:g} MiB")
    axes.set_ylim(0, None)
    axes.legend(loc="upper left", bbox_to_anchor=(0, -0.17), frameon=False, fontsize=8)
    axes.set_title(panel["title"])
    axes.set_xlabel("seconds of load")
    axes.set_ylabel("MiB (proportional set)")
    axes.grid()


def throughput(series: Series, theme: Theme) -> Any:
    """On a logarithmic axis: the floor is many times what a query reaches."""
    made, axes = figure(len(series["panels"]), 1, 9, 3.8, series["title"])
    for one, panel in zip(axes, series["panels"]):
        names = [line["name"] for line in panel["lines"]]
        for line in panel["lines"]:
            paint = colour(theme, line["name"], names)
            one.plot(line["clients"], line["a_second"], color=paint, marker="o", linewidth=2)
        clients = panel["lines"][0]["clients"]
        one.set_title(panel["title"])
        one.set_xscale("log", base=2)
        one.set_xticks(clients, list(map(str, clients)))
        one.set_xlim(clients[0] / 1.15, clients[-1] * 2.9)
        one.set_yscale("log")
        rates = [rate for line in panel["lines"] for rate in line["a_second"]]
        one.set_ylim(min(rates) / 1.5, max(rates) * 1.5)
        _plain_ticks(one.yaxis)
        one.set_xlabel("clients")
        _label_ends(one, [(line["name"], line["clients"][-1], line["a_second"][-1],
                           colour(theme, line["name"], names)) for line in panel["lines"]])
        one.grid()
    axes[0].set_ylabel("requests a second")
    return made


def _label_ends(axes: Any, ends: "list[tuple[str, float, float, str]]") -> None:
    """Labels beside the last points of a logarithmic axis, moved apart where they would overlap."""
    lowest, highest = axes.get_ylim()
    gap, last = (highest / lowest) ** 0.065, 0.0
    for name, x, y, paint in sorted(ends, key=lambda end: end[2]):
        last = max(y, last * gap)
        axes.annotate(f"{name} {short(y)}", (x, last), xytext=(7, 0), textcoords="offset points",
                      va="center", color=paint, fontsize=9)


def ratios(series: Series, theme: Theme) -> Any:
    """Medians with quartiles; the aim is a line in the row that it holds for."""
    targets = series["targets"]
    rows = len(targets[0]["rows"])
    made, axes = figure(len(targets), 1, 9.5, 1.5 + 0.5 * rows, series["title"])
    for one, target in zip(axes, targets):
        names = [row["name"] for row in target["rows"]]
        for place, row in enumerate(target["rows"]):
            _ratio(one, place, row, theme)
            if row["name"] == series["aim_of"]:
                _aim(one, place, target["aim"], theme)
        one.axvline(1, color=theme.neutral, linewidth=1.5)
        one.set_title(f"{target['title']}: the empty child takes {short(target['floor_ms'])} ms")
        one.set_yticks(range(rows), names if one is axes[0] else [""] * rows)
        one.set_ylim(rows - 0.4, -0.9)
        one.set_xlim(0, max(row["high"] for row in target["rows"]) * 1.2)
        one.tick_params(axis="y", length=0)
        one.set_xlabel("times the empty child (median, quartiles)")
        one.grid(axis="x")
    return made


def _ratio(axes: Any, place: int, row: "dict[str, Any]", theme: Theme) -> None:
    axes.plot([row["low"], row["high"]], [place, place], color=theme.colours[0], linewidth=7,
              alpha=0.45, solid_capstyle="butt")
    axes.plot(row["value"], place, "o", color=theme.colours[0])
    axes.annotate(short(row["value"]), (row["high"], place), xytext=(6, 0),
                  textcoords="offset points", va="center", fontsize=9)


def _aim(axes: Any, place: int, most: float, theme: Theme) -> None:
    axes.plot([most, most], [place - 0.35, place + 0.35], color=theme.beside, linewidth=2)
    axes.annotate(f"aim: at most {most:g}", (most, place - 0.35), xytext=(0, 2),
                  textcoords="offset points", ha="left", va="bottom", fontsize=8,
                  color=theme.beside)


def growth(series: Series, theme: Theme) -> Any:
    """Linear axes from zero on: there a fixed part and what each item adds are seen apart."""
    panels = series["panels"]
    made, axes = figure(2, len(panels) // 2, 9.5, 3 * len(panels) / 2, series["title"])
    for one, panel in zip(axes, panels):
        for line, (paint, marker) in zip(panel["lines"], _paints(panel, series["subjects"], theme)):
            one.plot(line["items"], line["costs"], color=paint, marker=marker, markersize=4,
                     linewidth=1.8, label=_legend_of(line, panel))
            one.plot(*zip(*line["fit"]), color=theme.ink, linestyle=":", linewidth=1.2)
        if "bar" in panel:
            _bar(one, panel, theme)
        one.set_xlim(0, None)
        one.set_ylim(0, None)
        one.legend(loc="upper left", bbox_to_anchor=(0, -0.12), frameon=False, fontsize=8)
        one.set_title(panel["title"])
        one.xaxis.set_major_locator(MaxNLocator(4))
        _plain_ticks(one.xaxis)
        _plain_ticks(one.yaxis)
        one.set_ylabel(panel["lines"][0]["unit"])
        one.grid()
    return made


def _paints(panel: "dict[str, Any]", subjects: "list[str]",
            theme: Theme) -> "list[tuple[str, str]]":
    """Colour and marker of each line: two of ours differ, and each peer has one."""
    ours = iter(((theme.colours[0], "o"), (theme.second, "s")))
    return [next(ours) if line["of"] == subjects[0]
            else (colour(theme, line["of"], subjects), "^") for line in panel["lines"]]


def _legend_of(line: "dict[str, Any]", panel: "dict[str, Any]") -> str:
    return line["words"] if len(panel["lines"]) == 1 else f"{line['name']}: {line['words']}"


def _bar(axes: Any, panel: "dict[str, Any]", theme: Theme) -> None:
    """What a check may take at most: a multiple of another line of the panel."""
    times, of = panel["bar"]["times"], panel["bar"]["of"]
    line = next(one for one in panel["lines"] if one["name"] == of)
    axes.plot(line["items"], [times * cost for cost in line["costs"]], color=theme.neutral,
              linestyle="--", linewidth=1.4, label=f"{times:g} times the {of}")


def stages(series: Series, theme: Theme) -> Any:
    """A bar for each stage in the order of time, divided by who had a processor; a line across it
    is what the floor takes for the same stage."""
    rows = series["rows"]
    made, [axes] = figure(1, 1, 9, 1.4 + 0.32 * len(rows), series["title"])
    highest = _stacked_bars(axes, rows, theme)
    floors = [(place, row["floor"]) for place, row in enumerate(rows) if row["floor"] is not None]
    axes.vlines([floor for _, floor in floors], [place - 0.42 for place, _ in floors],
                [place + 0.42 for place, _ in floors], color=theme.ink, linewidth=1.6,
                label="the same stage of the empty program")
    axes.set_yticks(range(len(rows)), [row["name"] for row in rows])
    axes.set_ylim(len(rows) - 0.4, -0.6)
    axes.set_xlim(0, highest * 1.1)
    axes.tick_params(axis="y", length=0)
    axes.set_xlabel(series["axis"])
    axes.legend(loc="lower right", frameon=False, fontsize=8)
    axes.grid(axis="x")
    return made


def _stacked_bars(axes: Any, rows: "list[dict[str, Any]]", theme: Theme) -> float:
    """Returns the length of the longest. A number stands behind its bar and the floor's line."""
    parts = (("product", "the product runs", theme.colours[0]),
             ("engine", "the sample engine runs", theme.beside),
             ("neither", "neither: wakes, the disk, other programs", theme.waiting))
    ends = [0.0] * len(rows)
    for part, label, paint in parts:
        values = [row[part] for row in rows]
        axes.barh(range(len(rows)), values, left=ends, color=paint, height=0.65, label=label)
        ends = [end + value for end, value in zip(ends, values)]
    for place, row in enumerate(rows):
        axes.annotate(short(ends[place]), (max(ends[place], row["floor"] or 0), place),
                      xytext=(5, 0), textcoords="offset points", va="center", fontsize=8)
    return max([*ends, *(row["floor"] or 0 for row in rows)])
