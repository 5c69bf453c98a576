"""Tokens per second of the real model: our runner and llama.cpp, in turns."""

from __future__ import annotations

import time
from pathlib import Path
from statistics import median
from typing import Callable

from . import llama
from .report import Bar, Row

# Seconds after which no further turn starts. On a busy machine both sides' barriers spin through whole time slices.
_LIMIT = 60.0
_PROMPT = "The history of astronomy begins with"


def _ours(model: Path, tokens: int) -> tuple[Callable[[], float], int]:
    """A call that decodes `tokens` tokens greedily and gives tokens per second; the bytes that a token reads."""
    import torch

    from orrery import formats, prepare
    from orrery.generate import Sampling, Timing, generate
    from orrery.model import Model
    from orrery.tokenizer import ChatTokenizer

    prepared = prepare.load(model, formats.find("q4_0"))
    prompt = ChatTokenizer(prepared.vocabulary).encode(_PROMPT)
    runner = Model(prepared, torch.float32, len(prompt) + tokens)

    def run() -> float:
        runner.rewind(0)
        timing = Timing()
        for _ in generate(runner, prompt, tokens, frozenset(), Sampling(), timing):
            pass
        return timing.steps / timing.seconds

    return run, prepared.quantized_bytes


def rows(with_ours: bool, threads: int, quick: bool, model: Path | None) -> list[Row]:
    """One row: our q4_0 against llama.cpp's Q4_0 of the same model."""
    source = model or llama.shipped_model()
    tokens, turns = (64, 3) if quick else (128, 9)
    with llama.Peer(llama.q4_0_model(source), threads) as peer:
        runners = {"peer": lambda: peer.run(_PROMPT, tokens)}
        size = 0
        if with_ours:
            runners["ours"], size = _ours(source, tokens)
        for run in runners.values():
            run()
        speeds: dict[str, list[float]] = {name: [] for name in runners}
        start = time.perf_counter()
        for _ in range(turns):
            if time.perf_counter() - start > _LIMIT and speeds["peer"]:
                break
            for name, run in runners.items():
                speeds[name].append(run())
    medians = {name: median(values) for name, values in speeds.items()}
    return [
        Row(
            f"decode {source.stem.rsplit('.', 1)[0]} q4_0",
            medians.get("ours"),
            medians.get("peer"),
            "xllamacpp Q4_0",
            bytes=size,
            per_second="tokens",
            bars=[Bar("speed", 0.5)],
        )
    ]
