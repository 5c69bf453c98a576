"""Shared by the tests of kernels: orders of additions in numpy, bit comparison, processes that abort, schedules."""

from __future__ import annotations

import faulthandler
import hashlib
import os
import resource
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import numpy as np
import torch

import orrery_host  # noqa: F401  (the device comes first)
from bench.measure import busy_loops
from torch_threads import threads

THREADS = sorted({1, 2, 3, 7, (os.cpu_count() or 1) + 1})


def fold(x: np.ndarray) -> np.ndarray:
    """The halving tree over the last axis, each sum rounded to the type of x."""
    if x.shape[-1] == 96:
        x = (x[..., :32] + x[..., 32:64]) + x[..., 64:]
    while x.shape[-1] > 1:
        half = x.shape[-1] // 2
        x = x[..., :half] + x[..., half:]
    return x[..., 0]


def split(count: int, parts: int = 32) -> list[tuple[int, int]]:
    """Runs of `count` things for each of `parts`, in order, the first ones longer by one."""
    sizes = [count // parts + (i < count % parts) for i in range(parts)]
    ends = np.cumsum(sizes)
    return [(int(end - size), int(end)) for size, end in zip(sizes, ends, strict=True)]


def random(
    generator: np.random.Generator, shape: tuple[int, ...], dtype: torch.dtype, scale: float = 1.0
) -> torch.Tensor:
    return torch.from_numpy((generator.standard_normal(shape) * scale).astype(np.float32)).to(dtype)


def rows_apart(x: torch.Tensor, pad: int) -> torch.Tensor:
    """The same values on the device, where `pad` NaN elements follow each row; the last dimension has unit stride."""
    room = torch.full((*x.shape[:-1], x.shape[-1] + pad), float("nan"), dtype=x.dtype, device="xpu")
    view = room[..., : x.shape[-1]]
    view.copy_(x)
    return view


def leave_nan_behind(shape: tuple[int, ...], dtype: torch.dtype) -> None:
    """Frees a NaN tensor of the result's size, so that a result not written in full shows it."""
    torch.full(shape, float("nan"), dtype=dtype, device="xpu")


def between_nan(x: torch.Tensor, elements: int = 64) -> torch.Tensor:
    """The same values on the device, contiguous, with NaN before and behind them; 64 elements keep the alignment."""
    room = torch.full((x.numel() + 2 * elements,), float("nan"), dtype=x.dtype, device="xpu")
    view = room[elements : elements + x.numel()].view(x.shape)
    view.copy_(x)
    return view


def assert_same_bits(result: torch.Tensor, expected: np.ndarray) -> None:
    """Equal shape, type and bits; one NaN is as good as another. A bfloat16 result is compared as float32."""
    result = result.cpu().contiguous()
    got = (result.float() if result.dtype == torch.bfloat16 else result).numpy()
    assert got.shape == expected.shape and got.dtype == expected.dtype
    integer = {2: np.uint16, 4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    different = (got.view(integer) != expected.view(integer)) & ~(np.isnan(got) & np.isnan(expected))
    where = np.argwhere(different)
    assert not len(where), f"{len(where)} of {got.size} differ, first at {where[0]}: " + str(
        (got[tuple(where[0])], expected[tuple(where[0])])
    )


def last_words(call: Callable[[], object]) -> str:
    """What the process prints that dies by SIGABRT in `call`."""
    read, write = os.pipe()
    pid = os.fork()
    if pid == 0:
        faulthandler.disable()
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        os.dup2(write, 2)
        try:
            call()
        finally:
            os._exit(0)
    os.close(write)
    with os.fdopen(read) as pipe:
        text = pipe.read()
    _, status = os.waitpid(pid, 0)
    assert os.WIFSIGNALED(status) and os.WTERMSIG(status) == 6, (status, text)
    return text


def assert_dies_with(expression: str, unit: str, call: Callable[[], object]) -> None:
    text = last_words(call)
    assert f"Assertion `{expression}' failed." in text
    assert f"{unit}.cpp:" in text


def digest(results: list[torch.Tensor]) -> str:
    sums = hashlib.sha256()
    for result in results:
        sums.update(result.cpu().contiguous().view(torch.uint8).numpy().tobytes())
    return sums.hexdigest()


def assert_same_bits_in_any_order(module: str, results: Callable[[], list[torch.Tensor]]) -> None:
    """`module.results()` with few threads and more than cores: here, beside a busy loop, and with shuffled work-groups and
    strands."""
    found = set()
    for loops in (0, 1):
        with busy_loops(loops):
            for count in THREADS:
                with threads(count):
                    found.add(digest(results()))
    assert len(found) == 1
    script = (
        f"import {module} as m, kernel_reference as k\n"
        f"for count in {THREADS}:\n"
        f"    with k.threads(count): print(k.digest(m.{results.__name__}()))\n"
    )
    here = str(Path(__file__).parent)
    path = os.pathsep.join([here, *filter(None, [os.environ.get("PYTHONPATH")])])
    for schedule in ("shuffle:7", "shuffle:8"):
        run = subprocess.run(
            [sys.executable, "-c", script],
            env={**os.environ, "ORRERY_HOST_SCHEDULE": schedule, "PYTHONPATH": path},
            capture_output=True,
            text=True,
            check=False,
        )
        assert run.returncode == 0, run.stderr
        assert set(run.stdout.split()) == found, schedule
