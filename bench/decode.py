"""Tokens per second of the real model, over prompts and over an answer: our runner and llama.cpp, alternately."""

from __future__ import annotations

import time
from collections import defaultdict
from collections.abc import Sequence
from functools import partial
from pathlib import Path
from statistics import median
from typing import Callable

from . import llama
from .measure import busy_loops
from .report import Bar, Row

# Seconds after which no further run starts. On a busy machine the peer's barriers spin for whole time slices.
_LIMIT = 60.0
_PROMPT = "The history of astronomy begins with"
# Tokens of the long prompts.
_PROMPTS = (256, 1024)
# The runner's type and the precision of a prompt's products, by what a row calls them, and the targets of prompts: so
# many times the peer's speed. With the first one the answer is made, which has a target of its own.
_WAYS = {"float32": ("float32", "float32"), "float32, products in bfloat16": ("float32", "bfloat16"),
         "bfloat16": ("bfloat16", "float32")}
_OF_PROMPTS = {"float32": 1.1, "float32, products in bfloat16": 1.5}
_OF_ANSWER = 1.1
_PEER = "xllamacpp Q4_0"
_MOST_TOKENS = 128
# For the peer beside busy loops, where it decodes about 2 tokens per second.
_FEW_TOKENS = 8
# Targets of an answer, by number of busy loops: fractions of the speed without them, and of one thread's speed beside
# them.
_OF_QUIET = {1: 0.5, 2: 0.35}
_OF_ONE_THREAD = {1: 0.9}

Speeds = Callable[[], dict[str, float]]


def _long_prompts(model: Path) -> dict[str, tuple[list[int], str]]:
    """By what a row calls each: the first tokens of the bundled text, and their text."""
    from orrery import cli, gguf_model
    from orrery.tokenizer import ChatTokenizer

    tokenizer = ChatTokenizer(gguf_model.read(model).vocabulary)
    tokens = tokenizer.encode(cli.bundled_text())
    return {f"prompt of {count}": (tokens[:count], tokenizer.decode(tokens[:count])) for count in _PROMPTS}


class _Ours:
    """Our runner with the model in q4_0."""

    def __init__(self, model: Path, capacity: int, dtype: str = "float32", prompt_precision: str = "float32") -> None:
        from orrery import formats, prepare
        from orrery.model import DTYPES, Model
        from orrery.tokenizer import ChatTokenizer

        prepared = prepare.load(model, formats.find("q4_0"))
        self.bytes = prepared.quantized_bytes  # read per token
        self._prompt = ChatTokenizer(prepared.vocabulary).encode(_PROMPT)
        self._model = Model(prepared, DTYPES[dtype], max(capacity, len(self._prompt) + _MOST_TOKENS),
                            prompt_precision=prompt_precision)

    def answer(self, tokens: int) -> float:
        """Tokens per second of a greedy answer."""
        from orrery.generate import Sampling, Timing, generate

        self._model.rewind(0)
        timing = Timing()
        for _ in generate(self._model, self._prompt, tokens, frozenset(), Sampling(), timing):
            pass
        return timing.steps / timing.seconds

    def prompt(self, tokens: list[int]) -> float:
        """Tokens per second of a prompt."""
        self._model.rewind(0)
        start = time.perf_counter()
        self._model.forward(tokens)
        return len(tokens) / (time.perf_counter() - start)


def rows(with_ours: bool, threads: int, quick: bool, model: Path | None) -> list[Row]:
    """Our q4_0 against llama.cpp's Q4_0 of the same model."""
    source = model or llama.shipped_model()
    tokens, turns = (64, 3) if quick else (_MOST_TOKENS, 9)
    prompts = _long_prompts(source)
    with llama.Peer(llama.q4_0_model(source), threads) as peer:

        def theirs() -> dict[str, float]:
            speeds = {kind: peer.run(text, 1)["prompt"] for kind, (_, text) in prompts.items()}
            return {"answer": peer.run(_PROMPT, tokens)["answer"], **speeds}

        runners: dict[str, Speeds] = {"peer": theirs}
        size = 0
        if with_ours:
            ours = {way: _Ours(source, max(_PROMPTS), *types) for way, types in _WAYS.items()}
            size = ours["float32"].bytes

            def measured(way: str) -> dict[str, float]:
                answer = {"answer": ours[way].answer(tokens)} if way == "float32" else {}
                return answer | {kind: ours[way].prompt(prompt) for kind, (prompt, _) in prompts.items()}

            runners |= {way: partial(measured, way) for way in _WAYS}
        for run in runners.values():
            run()
        speeds: dict[str, list[dict[str, float]]] = {name: [] for name in runners}
        start = time.perf_counter()
        for _ in range(turns):
            if time.perf_counter() - start > _LIMIT and speeds["peer"]:
                break
            for name, run in runners.items():
                speeds[name].append(run())

    def middle(side: str, kind: str) -> float | None:
        return median(turn[kind] for turn in speeds[side]) if side in speeds else None

    name = source.stem.rsplit(".", 1)[0]
    made = [
        Row(f"decode {name} q4_0", middle("float32", "answer"), middle("peer", "answer"), _PEER, bytes=size,
            per_second="tokens", bars=[Bar("speed", _OF_ANSWER)]),
    ]
    for way in _WAYS:
        bars = [Bar("speed", _OF_PROMPTS[way])] if way in _OF_PROMPTS else []
        made += [Row(f"{kind} {name} q4_0 {way}", middle(way, kind), middle("peer", kind), _PEER, per_second="tokens",
                     bars=bars) for kind in prompts]
    return made


def crowded_rows(threads: int, loads: Sequence[int], quick: bool, model: Path | None) -> list[Row]:
    """An answer of our q4_0 with one thread and with all, alone on the machine and beside busy loops, alternately."""
    import torch

    source = model or llama.shipped_model()
    tokens, turns = (48, 3) if quick else (96, 5)
    ours = _Ours(source, 0)
    ours.answer(tokens)
    speeds: dict[tuple[str, int], list[float]] = defaultdict(list)
    with llama.Peer(llama.q4_0_model(source), threads) as peer:
        for _ in range(turns):
            for load in (0, *loads):
                with busy_loops(load):
                    for name, count in ("all", threads), ("one", 1):
                        torch.set_num_threads(count)
                        speeds[name, load].append(ours.answer(tokens))
                    torch.set_num_threads(threads)
                    speeds["peer", load].append(peer.run(_PROMPT, _FEW_TOKENS if load else tokens)["answer"])
    middle = {key: median(samples) for key, samples in speeds.items()}

    def row(name: str, load: int, peer: tuple[str, int], peer_name: str, limit: float | None = None) -> Row:
        bars = [] if limit is None else [Bar("speed", limit)]
        return Row(name, middle["all", load], middle[peer], peer_name, per_second="tokens", bars=bars)

    made = [
        row(f"decode, {threads} threads", 0, ("one", 0), "1 thread", 1.85),
        row("decode", 0, ("peer", 0), _PEER),
    ]
    for load in loads:
        name = f"decode, {load} busy loop{'s' * (load > 1)}"
        made += [
            row(name, load, ("all", 0), "no busy loop", _OF_QUIET.get(load)),
            row(name, load, ("one", load), "1 thread, same load", _OF_ONE_THREAD.get(load)),
            row(name, load, ("peer", load), f"{_PEER}, same load"),
        ]
    return made
