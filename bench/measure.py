"""Clocks: medians of interleaved runs with cold caches, and the machine's read bandwidth."""

from __future__ import annotations

import os
import platform
import subprocess
import sys
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from statistics import median
from types import ModuleType
from typing import Callable, Hashable, Mapping, TypeVar

import torch

Call = Callable[[], object]
Key = TypeVar("Key", bound=Hashable)
_MIB = 1 << 20


def last_level_cache() -> int:
    """Bytes of the largest cache that the system reports, or 32 MiB if it reports none."""
    sizes = []
    for entry in Path("/sys/devices/system/cpu/cpu0/cache").glob("index*/size"):
        text = entry.read_text().strip()
        sizes.append(int(text.rstrip("KMG")) * {"K": 1 << 10, "M": _MIB, "G": 1 << 30}.get(text[-1], 1))
    return max(sizes, default=32 * _MIB)


# Seconds within which all threads of a pool wake up; on a virtual machine one can be 0.5 ms late.
_WAKING = 2e-3


def shared_launch(ops: ModuleType) -> Call:
    """A small launch that all of the device's threads take part in."""
    weight, rows = torch.ones(64, device="xpu"), torch.ones(64, 64, device="xpu")
    return lambda: ops.rms_norm(weight, rows, 1e-6)


class Flush:
    """Evicts every cache by writing, then reading, twice the last level's size.

    Both passes run on PyTorch's threads. Then `launch` is called for a while, which wakes the device's threads. So both
    pools are as awake before a measured call as they are between the operations of a model.
    """

    def __init__(self, launch: Call | None = None) -> None:
        self._buffer = torch.zeros(2 * last_level_cache() // 4)
        self._launch = launch

    def __call__(self) -> None:
        self._buffer.add_(1.0)
        self._buffer.max()
        if self._launch is not None:
            end = time.perf_counter() + _WAKING
            while time.perf_counter() < end:
                self._launch()


# Ends with the process that started it, even if that is killed.
_BUSY_LOOP = """
import os
parent = os.getppid()
while os.getppid() == parent:
    for _ in range(1_000_000):
        pass
"""


@contextmanager
def busy_loops(count: int) -> Iterator[None]:
    """Other processes, each of which keeps one processor busy all the time."""
    loops = [subprocess.Popen([sys.executable, "-S", "-c", _BUSY_LOOP]) for _ in range(count)]
    try:
        if loops:
            time.sleep(0.3)  # until they have started and the system has placed them
        yield
    finally:
        for loop in loops:
            loop.kill()
            loop.wait()


def elapsed(call: Call) -> float:
    """Seconds of a call."""
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


@torch.inference_mode()
def interleaved(
    calls: Mapping[Key, Call], runs: int, before: Call = lambda: None, seconds: Callable[[Call], float] = elapsed
) -> dict[Key, float]:
    """Median seconds of each call. A run times each call once, one after another, with `before` before each."""
    times: dict[Key, list[float]] = {name: [] for name in calls}
    for call in calls.values():
        call()
    for _ in range(runs):
        for name, call in calls.items():
            before()
            times[name].append(seconds(call))
    return {name: median(samples) for name, samples in times.items()}


def copy_rate(source: torch.Tensor, runs: int, before: Call) -> float:
    """Bytes per second that `copy_` reads and writes."""
    target = torch.empty_like(source)
    return 2 * source.nbytes / interleaved({"copy": lambda: target.copy_(source)}, runs, before)["copy"]


def type_name(dtype: torch.dtype) -> str:
    """float32, float16, ..."""
    return str(dtype).removeprefix("torch.")


def call_cost(calls: Mapping[str, Call], runs: int, batch: int = 1000) -> dict[str, float]:
    """Median seconds of one call among many in a row: what is left when the work itself is nothing."""

    def repeat(call: Call) -> Call:
        def loop() -> None:
            for _ in range(batch):
                call()

        return loop

    loops = {name: repeat(call) for name, call in calls.items()}
    return {name: seconds / batch for name, seconds in interleaved(loops, runs).items()}


def read_bandwidth(runs: int = 9, size: int | None = None) -> float:
    """Bytes per second that the current number of threads reads from memory.

    The buffer is eight times the last-level cache. Several reductions are tried, since which of them saturates the
    memory depends on the vector units, and the best median counts.
    """
    buffer = torch.ones((size or 8 * last_level_cache()) // 4)
    rows = buffer.view(-1, 16384)
    readers = {
        "sum": lambda: buffer.sum(),
        "max": lambda: buffer.max(),
        "aminmax": lambda: torch.aminmax(buffer),
        "rows": lambda: rows.sum(1),
    }
    return buffer.numel() * 4 / min(interleaved(readers, runs).values())


def processor_name() -> str:
    try:
        for line in Path("/proc/cpuinfo").read_text().splitlines():
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or platform.machine()


def usable_cores() -> int:
    return len(os.sched_getaffinity(0)) if hasattr(os, "sched_getaffinity") else os.cpu_count() or 1


def machine(threads: int) -> dict[str, object]:
    """What a reader needs to know to compare these numbers with others."""
    return {
        "processor": processor_name(),
        "cores": usable_cores(),
        "threads": threads,
        "last_level_cache_mib": last_level_cache() // _MIB,
        "memory_gib": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30, 1),
        "vector_units": torch.backends.cpu.get_cpu_capability(),
        "system": f"{platform.system()} {platform.release()}",
        "python": platform.python_version(),
        "torch": str(torch.__version__),
        "load_average": round(os.getloadavg()[0], 2),
    }
