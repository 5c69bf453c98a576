"""A few input rows on the matrix engine, which only some device classes use: measured in a process of such a class.

Run as a program it prints the rows as JSON.
"""

from __future__ import annotations

import json
import os
import subprocess
import sys
from dataclasses import asdict
from functools import partial
from pathlib import Path
from typing import TYPE_CHECKING

import torch
import torch.nn.functional as F

from orrery import device_class
from orrery.formats import FORMATS

from .measure import Call, Flush, interleaved, shared_launch, type_name
from .report import Bar, Row

if TYPE_CHECKING:
    from .cases import Setting

_CLASS = 1
# Type, rows of the weight, and the tolerance of our result against the float32 product: operands and the eight slices'
# sums are rounded to half or bfloat16. In float, 4096 rows would be dispatched to another family.
_TYPES = ((torch.float32, 4112, 2e-3), (torch.bfloat16, 4096, 2e-2))
_COLUMNS = 4096
_FORMATS = ("q4_0", "q8_0")
_COUNTS = (8, 64)
# Input rows with which the peer reaches its full rate, and our target as a fraction of that rate.
_FULL, _PART = 512, 0.5


def in_own_process(threads: int, quick: bool) -> list[Row]:
    """The rows that a process on a device of that class measures."""
    done = subprocess.run(
        [sys.executable, "-m", "bench.engine", str(threads), str(int(quick))],
        env={**os.environ, device_class.VARIABLE: device_class.NAMES[_CLASS]},
        cwd=Path(__file__).parents[1],
        capture_output=True,
        text=True,
        check=False,
    )
    if done.returncode != 0:
        raise RuntimeError(f"the process on a device of class {_CLASS} failed: {done.stderr.strip()[-500:]}")
    return [Row(**{**row, "bars": [Bar(**bar) for bar in row["bars"]]}) for row in json.loads(done.stdout)]


def rows_of(setting: Setting, dtype: torch.dtype, weight_rows: int, limit: float) -> list[Row]:
    import orrery_host

    from .cases import random_weight

    generator = torch.Generator().manual_seed(1)
    calls: dict[tuple[str, int], Call] = {}
    sizes = {}
    for format_name in _FORMATS:
        fmt = FORMATS[format_name]
        data, dense = random_weight(fmt, weight_rows, _COLUMNS)
        weight = data.to("xpu")
        sizes[format_name] = data.numel()
        for n in _COUNTS:
            x = torch.randn(n, _COLUMNS, generator=generator).to(dtype)
            ours = partial(setting.ops.forward_new, x.to("xpu"), weight, fmt.code, n)
            with orrery_host.record_launches() as launches:
                setting.check(f"{format_name}, {n} rows", ours, x.float() @ dense.T, limit)
            assert [launch.kernel for launch in launches] == ["dotgrid_forward_kernel"]
            calls[format_name, n] = ours
    for n in (_COUNTS[0], _FULL):
        calls["peer", n] = partial(F.linear, torch.randn(n, _COLUMNS, generator=generator), dense)
    seconds = interleaved(calls, setting.runs(16), setting.flush)

    made = []
    for format_name in _FORMATS:
        for n in _COUNTS:
            name = f"forward_new {format_name} {weight_rows}x{_COLUMNS} {type_name(dtype)}, class {_CLASS}, {n} rows"
            row = partial(Row, name, seconds[format_name, n], bytes=sizes[format_name])
            at_rate = seconds["peer", _FULL] * n / _FULL
            peer_name = f"torch linear float32 at {_FULL} rows' rate"
            made.append(row(peer=at_rate, peer_name=peer_name, bars=[Bar("speed", _PART)]))
            if ("peer", n) in calls:
                made.append(row(peer=seconds["peer", n], peer_name="torch linear float32", bars=[Bar("speed", 1.0)]))
    return made


def main() -> None:
    import orrery_host  # noqa: F401  registers the device
    import orrery_ops

    from .cases import Setting

    threads, quick = int(sys.argv[1]), bool(int(sys.argv[2]))
    torch.set_num_threads(threads)
    setting = Setting(orrery_ops, threads, quick, Flush(shared_launch(orrery_ops)), None)
    rows = [row for each in _TYPES for row in rows_of(setting, *each)]
    print(json.dumps([asdict(row) for row in rows]))


if __name__ == "__main__":
    main()
