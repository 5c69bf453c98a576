"""Where the time of a token goes: its kernels, the calls around them, and what the runner does between the calls."""

from __future__ import annotations

import time
from collections import defaultdict
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from statistics import median
from types import ModuleType
from typing import Callable
from unittest import mock

import torch

from . import llama
from .measure import elapsed
from .report import Bar, Row

# Tokens behind the measured ones, as in the middle of a short answer.
_BEFORE = 64
_OPERATIONS = ("rms_norm", "forward_qkv", "sdp", "forward_new", "mlp_forward_xpu")
_TOKEN, _CHOICE = "token", "choice of the next token"
# Seconds by what is measured.
Times = dict[str, float]
Timer = Callable[[Callable[[], object]], float]


def _name(operation: str, arguments: tuple, result: object) -> str:
    """A product's name tells its size, as a token has several."""
    if operation != "forward_new":
        return operation
    assert isinstance(result, torch.Tensor)
    return f"{operation} {result.size(1)}x{arguments[0].size(1)}"


@contextmanager
def _timed(ops: ModuleType, timer: Timer, samples: dict[str, list[float]]) -> Iterator[None]:
    """While it is open, each call of an operation adds its seconds to `samples`."""

    def replacement(operation: str) -> Callable[..., object]:
        function = getattr(ops, operation)

        def call(*arguments: object) -> object:
            result: list[object] = []
            seconds = timer(lambda: result.append(function(*arguments)))
            samples[_name(operation, arguments, result[0])].append(seconds)
            return result[0]

        return call

    with mock.patch.multiple(ops, **{operation: replacement(operation) for operation in _OPERATIONS}):
        yield


class _Step:
    """A step of the runner with the model in q4_0, always at the same position."""

    def __init__(self, ops: ModuleType, model: Path) -> None:
        from orrery import formats, prepare
        from orrery.generate import Sampling, choose
        from orrery.model import Model

        self._ops = ops
        self._model = Model(prepare.load(model, formats.find("q4_0")), torch.float32, _BEFORE + 1)
        self._model.forward(list(range(_BEFORE)))
        self._choose = lambda logits: choose(logits, Sampling(), Sampling().generator())
        self.calls: dict[str, int] = {}

    def __call__(self) -> torch.Tensor:
        self._model.rewind(_BEFORE)
        logits = self._model.step(0)
        assert logits is not None
        return logits

    def whole(self) -> Times:
        """The step, and the choice behind it."""
        start = time.perf_counter()
        logits = self()
        end = time.perf_counter()
        self._choose(logits)
        return {_TOKEN: end - start, _CHOICE: time.perf_counter() - end}

    def of_calls(self, timer: Timer) -> Times:
        """Of each kind of call, all of a step together."""
        samples: dict[str, list[float]] = defaultdict(list)
        with _timed(self._ops, timer, samples):
            self()
        self.calls = {name: len(times) for name, times in samples.items()}
        return {name: sum(times) for name, times in samples.items()}


def _measured(step: _Step, threads: int, runs: int) -> tuple[Times, Times, Times]:
    """Medians over steps: of whole ones, of their calls, of the kernels in these."""
    from .cases import kernel_seconds

    torch.set_num_threads(threads)
    ways = (step.whole, lambda: step.of_calls(elapsed), lambda: step.of_calls(kernel_seconds))
    step()  # wakes the threads
    made = [[way() for way in ways] for _ in range(runs)]
    whole, calls, kernels = ({name: median(run[name] for run in way) for name in way[0]} for way in zip(*made))
    return whole, calls, kernels


def rows(ops: ModuleType, threads: int, runs: int, model: Path | None) -> list[Row]:
    """Each part of a token with all threads, against the same with one."""
    step = _Step(ops, model or llama.shipped_model())
    turns = 5
    taken: dict[int, list[tuple[Times, Times, Times]]] = {threads: [], 1: []}
    for _ in range(turns):
        for count, results in taken.items():
            results.append(_measured(step, count, max(1, runs // turns)))
    torch.set_num_threads(threads)
    parts = {count: _parts(step.calls, *map(_middle, zip(*results))) for count, results in taken.items()}
    return [
        Row(name, seconds, parts[1][name], "1 thread", bars=[Bar("speed", 1.85)] if name == _TOKEN else [])
        for name, seconds in parts[threads].items()
    ]


def _middle(turns: tuple[Times, ...]) -> Times:
    return {name: median(turn[name] for turn in turns) for name in turns[0]}


def _parts(count: dict[str, int], whole: Times, calls: Times, kernels: Times) -> Times:
    """Seconds per token by the names of the rows."""
    parts = {_TOKEN: whole[_TOKEN]}
    for name, calls_together in count.items():
        parts[f"{_TOKEN}: {calls_together} x {name}, kernels"] = kernels[name]
    for name, calls_together in count.items():
        parts[f"{_TOKEN}: {calls_together} x {name}, around the kernels"] = calls[name] - kernels[name]
    parts[f"{_TOKEN}: all kernels"] = sum(kernels.values())
    parts[f"{_TOKEN}: around all kernels"] = sum(calls.values()) - sum(kernels.values())
    parts[f"{_TOKEN}: between the calls"] = whole[_TOKEN] - sum(calls.values())
    parts[_CHOICE] = whole[_CHOICE]
    return parts
