"""Rows of results: ratios, bars, the printed table, the JSON file and the plot."""

from __future__ import annotations

import json
from dataclasses import asdict, dataclass, field
from pathlib import Path
from typing import Sequence


@dataclass
class Bar:
    """A target of a row.

    `kind` is what is compared. "bandwidth" (fraction of the read bandwidth), "copy" (fraction of the row's `byte_rate`,
    that of a copy) and "speed" (how many times the peer's speed) must reach the limit; "microseconds" (of one call),
    "peer time" (how many times the peer's time) and "byte time" (how many times the time that the row's bytes take at
    its `byte_rate`) must not exceed it.
    """

    kind: str
    limit: float

    def reached(self, value: float) -> bool:
        return value >= self.limit if self.kind in ("bandwidth", "copy", "speed") else value <= self.limit

    def text(self) -> str:
        return {
            "bandwidth": f">= {self.limit:.0%} of bandwidth",
            "copy": f">= {self.limit:.0%} of a copy",
            "speed": f">= {self.limit:g}x peer",
            "peer time": f"<= {self.limit:g}x peer's time",
            "microseconds": f"<= {self.limit:g} us",
            "byte time": f"<= {self.limit:g}x byte time",
        }[self.kind]


@dataclass
class Row:
    """One measured case. Times are seconds per call, or with `per_second` set, that many units per second."""

    name: str
    ours: float | None = None
    peer: float | None = None
    peer_name: str = ""
    bytes: int = 0
    per_second: str = ""
    byte_rate: float | None = None
    bars: list[Bar] = field(default_factory=list)

    def speed(self) -> float | None:
        """Speed relative to the peer's."""
        if not self.ours or not self.peer:
            return None
        return self.ours / self.peer if self.per_second else self.peer / self.ours

    def rate(self) -> float | None:
        """Bytes per second."""
        if not self.ours or not self.bytes:
            return None
        return self.bytes * self.ours if self.per_second else self.bytes / self.ours

    def value(self, bar: Bar, bandwidth: float) -> float | None:
        """What `bar` compares with its limit; None if it was not measured."""
        if bar.kind == "bandwidth":
            rate = self.rate()
            return None if rate is None else rate / bandwidth
        if bar.kind == "copy":
            rate = self.rate()
            return rate / self.byte_rate if rate and self.byte_rate else None
        if bar.kind == "speed":
            return self.speed()
        if bar.kind == "peer time":
            speed = self.speed()
            return 1 / speed if speed else None
        if bar.kind == "microseconds":
            return None if self.ours is None else self.ours * 1e6
        if bar.kind == "byte time":
            return self.ours * self.byte_rate / self.bytes if self.ours and self.byte_rate else None
        raise ValueError(f"unknown kind of bar: {bar.kind}")


def time_text(seconds: float) -> str:
    if seconds < 1e-3:
        return f"{seconds * 1e6:.2f} us" if seconds < 1e-5 else f"{seconds * 1e6:.1f} us"
    return f"{seconds * 1e3:.3f} ms" if seconds < 1 else f"{seconds:.2f} s"


def quantity(value: float | None, per_second: str) -> str:
    if value is None:
        return "-"
    return f"{value:.1f} {per_second}/s" if per_second else time_text(value)


def bar_cells(row: Row, bandwidth: float) -> tuple[str, str]:
    """The texts of the columns "target" and "met"."""
    targets, verdicts = [], []
    for bar in row.bars:
        value = row.value(bar, bandwidth)
        targets.append(bar.text())
        if value is None:
            verdicts.append("not measured")
            continue
        shown = f"{value:.0%}" if bar.kind in ("bandwidth", "copy") else f"{value:.2f}"
        verdicts.append(f"{'yes' if bar.reached(value) else 'NO'} ({shown})")
    return ", ".join(targets), ", ".join(verdicts)


def table(rows: Sequence[Row], bandwidth: float) -> str:
    """All rows as aligned text."""
    header = ("case", "ours", "peer", "speed-up", "GB/s", "of bandwidth", "target", "met", "peer is")
    lines = [header]
    for row in rows:
        speed, rate = row.speed(), row.rate()
        target, met = bar_cells(row, bandwidth)
        lines.append(
            (
                row.name,
                quantity(row.ours, row.per_second),
                quantity(row.peer, row.per_second),
                "-" if speed is None else f"{speed:.2f}x",
                "-" if rate is None else f"{rate / 1e9:.2f}",
                "-" if rate is None else f"{rate / bandwidth:.0%}",
                target or "-",
                met or "-",
                row.peer_name or "-",
            )
        )
    widths = [max(len(line[i]) for line in lines) for i in range(len(header))]
    lines.insert(1, tuple("-" * width for width in widths))
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip() for line in lines)


def summary(rows: Sequence[Row], bandwidth: float) -> str:
    measured = [(bar, row.value(bar, bandwidth)) for row in rows for bar in row.bars]
    known = [bar.reached(value) for bar, value in measured if value is not None]
    return f"{sum(known)} of {len(measured)} targets met, {len(measured) - len(known)} not measured"


def as_json(rows: Sequence[Row], bandwidth: float, machine: dict[str, object]) -> dict[str, object]:
    cases = []
    for row in rows:
        bars = []
        for bar in row.bars:
            value = row.value(bar, bandwidth)
            bars.append({**asdict(bar), "value": value, "met": None if value is None else bar.reached(value)})
        cases.append({**asdict(row), "speed": row.speed(), "bytes_per_second": row.rate(), "bars": bars})
    return {"machine": machine, "read_bandwidth": bandwidth, "cases": cases}


def plot(rows: Sequence[Row], bandwidth: float, title: str, path: Path) -> None:
    """Two panels: speed against the peer (its targets as ticks), and the share of the read bandwidth."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot, ticker

    compared = [row for row in rows if row.speed() is not None]
    streaming = [row for row in rows if row.rate() is not None]
    height = 1.6 + 0.32 * max(len(compared), len(streaming), 3)
    figure, (left, right) = pyplot.subplots(1, 2, figsize=(15, height), layout="constrained")
    _bars(left, compared, [row.speed() or 0.0 for row in compared], "speed", "times the peer's speed")
    if compared:
        left.set_xscale("log")
        left.xaxis.set_major_locator(ticker.LogLocator(subs=(1, 2, 5)))
        left.xaxis.set_major_formatter(ticker.StrMethodFormatter("{x:g}"))
        left.xaxis.set_minor_formatter(ticker.NullFormatter())
    left.axvline(1.0, color="black", linewidth=0.8)
    shares = [100 * (row.rate() or 0.0) / bandwidth for row in streaming]
    _bars(right, streaming, shares, "bandwidth", f"% of the read bandwidth, {bandwidth / 1e9:.1f} GB/s", scale=100)
    figure.suptitle(title, fontsize=10)
    figure.savefig(path, dpi=110)
    pyplot.close(figure)


def _bars(axes, rows: Sequence[Row], lengths: Sequence[float], kind: str, label: str, scale: float = 1.0) -> None:
    limits = [next((bar.limit * scale for bar in row.bars if bar.kind == kind), None) for row in rows]
    good = [limit is None or length >= limit for limit, length in zip(limits, lengths)]
    places = range(len(rows))
    bars = axes.barh(places, lengths, color=["#4878a8" if ok else "#c44e52" for ok in good])
    axes.bar_label(bars, fmt="%.2f" if scale == 1.0 else "%.0f", padding=3, fontsize=8)
    for place, limit in zip(places, limits):
        if limit is not None:
            axes.plot([limit, limit], [place - 0.45, place + 0.45], color="black", linewidth=2)
    axes.set_yticks(places, [row.name for row in rows], fontsize=8)
    axes.invert_yaxis()
    axes.margins(x=0.12)
    axes.set_xlabel(label)


def save(rows: Sequence[Row], bandwidth: float, machine: dict[str, object], folder: Path, stem: str) -> list[Path]:
    """Writes STEM.json and STEM.png into `folder`."""
    folder.mkdir(parents=True, exist_ok=True)
    data, picture = folder / f"{stem}.json", folder / f"{stem}.png"
    data.write_text(json.dumps(as_json(rows, bandwidth, machine), indent=2) + "\n")
    title = f"{machine['processor']}, {machine['threads']} threads, torch {machine['torch']}"
    plot(rows, bandwidth, title, picture)
    return [data, picture]
