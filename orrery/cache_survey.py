"""Both kinds of key/value cache on one model: bytes, perplexity, speed, and how much the byte code clamps."""

from __future__ import annotations

import time
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import orrery_ops
import torch

from orrery import kv_cache, prepare
from orrery.formats import Format
from orrery.generate import perplexity
from orrery.kv_cache import KeyValueCache
from orrery.model import Model
from orrery.tokenizer import ChatTokenizer

LARGEST_CODE = 127


@dataclass(frozen=True)
class Clamped:
    """How many of a cache's keys or values the byte code moves to its smallest or largest magnitude."""

    name: str
    elements: int
    smallest: float
    below: int
    largest: float
    above: int

    def __str__(self) -> str:
        return (f"{self.name}: of {self.elements} elements {self.above} ({self.above / self.elements:.3%}) are above "
                f"{self.largest:g} and {self.below} ({self.below / self.elements:.3%}) below {self.smallest:.6f}")


@dataclass(frozen=True)
class Result:
    """What was measured with a kind of cache of `capacity` tokens. `clamped` is counted in the plain one."""

    name: str
    capacity: int
    size: int
    perplexity: float
    tokens_per_second: float
    clamped: tuple[Clamped, ...]


def measure(path: Path, fmt: Format, text: str, *, dtype: torch.dtype = torch.float32, window: int = 2048,
            limit: int | None = None, steps: int = 32, cache: bool = True,
            prompt_precision: str = "float32") -> Iterator[Result]:
    """Measures both on the model at `path`: the perplexity on the first `limit` tokens of `text`, and the speed of the
    last `steps` tokens of a window."""
    prepared = prepare.load(path, fmt, cache=cache)
    tokens = ChatTokenizer(prepared.vocabulary).encode(text)[:limit]
    window = min(window, len(tokens), prepared.sizes.context)
    for name in kv_cache.KINDS:
        model = Model(prepared, dtype, window, name, prompt_precision)
        value = perplexity(model, tokens, window)
        clamped = clamped_by_bytes(model.cache, model.position) if model.cache.data.is_floating_point() else ()
        yield Result(name, window, model.cache.data.nbytes, value, _speed(model, tokens, steps), clamped)


def clamped_by_bytes(cache: KeyValueCache, count: int) -> tuple[Clamped, Clamped]:
    """What `quantize_key_value` would clamp of the first `count` rows of a plain cache."""
    limits = _limits(cache.data.shape[-1], cache.data.device)
    found = []
    for name, (smallest, largest), data in zip(("keys", "values"), limits, (cache.data[::2], cache.data[1::2])):
        sizes = data.narrow(3, 0, count).abs()
        found.append(Clamped(name, sizes.numel(), smallest, int((sizes < smallest).sum()), largest,
                             int((sizes > largest).sum())))
    return found[0], found[1]


def _limits(head_dim: int, device: torch.device) -> list[list[float]]:
    """The smallest and the largest magnitude of a key and of a value, by the code itself."""
    codes = torch.tensor([[0], [LARGEST_CODE]], dtype=torch.uint8, device=device).repeat(1, 1, 1, head_dim)
    keys, values = torch.empty(2, *codes.shape, device=device)
    orrery_ops.dequantize_key_value(codes, codes, keys, values)
    return [rows[0, 0, :, 0].tolist() for rows in (keys, values)]


def _speed(model: Model, tokens: list[int], steps: int) -> float:
    """Tokens per second of steps that end where the cache's rows do."""
    steps = min(steps, model.position)
    model.rewind(model.position - steps)
    start = time.perf_counter()
    for token in tokens[:steps]:
        model.step(token)
    return steps / (time.perf_counter() - start)


HEADER = f"{'cache':8}{'tokens':>8}{'bytes/token':>13}{'MB':>8}{'perplexity':>12}{'tokens/s':>10}"


def line(result: Result) -> str:
    """A row of the table under HEADER."""
    return (f"{result.name:8}{result.capacity:>8}{result.size // result.capacity:>13}{result.size / 1e6:>8.1f}"
            f"{result.perplexity:>12.3f}{result.tokens_per_second:>10.1f}")
