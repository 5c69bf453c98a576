"""Tokens per second of the real model, over a prompt and over an answer: our runner and llama.cpp, in turns."""

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
_PROMPT_TOKENS = 256

Speeds = Callable[[], dict[str, float]]


def _long_prompt(model: Path) -> tuple[list[int], str]:
    """The first tokens of the bundled text, and their text."""
    from orrery import cli, gguf_model
    from orrery.tokenizer import ChatTokenizer

    tokenizer = ChatTokenizer(gguf_model.read(model).vocabulary)
    tokens = tokenizer.encode(cli.bundled_text())[:_PROMPT_TOKENS]
    return tokens, tokenizer.decode(tokens)


def _ours(model: Path, tokens: int, long: list[int]) -> tuple[Speeds, int]:
    """A call that decodes `tokens` tokens greedily and takes a long prompt; the bytes that a token reads."""
    import torch

    from orrery import formats, prepare
    from orrery.generate import Sampling, Timing, generate
    from orrery.model import Model
    from orrery.tokenizer import ChatTokenizer

    prepared = prepare.load(model, formats.find("q4_0"))
    prompt = ChatTokenizer(prepared.vocabulary).encode(_PROMPT)
    runner = Model(prepared, torch.float32, max(len(long), len(prompt) + tokens))

    def run() -> dict[str, float]:
        runner.rewind(0)
        start = time.perf_counter()
        runner.forward(long)
        prompt_seconds = time.perf_counter() - start
        runner.rewind(0)
        timing = Timing()
        for _ in generate(runner, prompt, tokens, frozenset(), Sampling(), timing):
            pass
        return {"prompt": len(long) / prompt_seconds, "answer": timing.steps / timing.seconds}

    return run, prepared.quantized_bytes


def rows(with_ours: bool, threads: int, quick: bool, model: Path | None) -> list[Row]:
    """Our q4_0 against llama.cpp's Q4_0 of the same model."""
    source = model or llama.shipped_model()
    tokens, turns = (64, 3) if quick else (128, 9)
    long, long_text = _long_prompt(source)
    with llama.Peer(llama.q4_0_model(source), threads) as peer:

        def theirs() -> dict[str, float]:
            return {"prompt": peer.run(long_text, 1)["prompt"], "answer": peer.run(_PROMPT, tokens)["answer"]}

        runners: dict[str, Speeds] = {"peer": theirs}
        size = 0
        if with_ours:
            runners["ours"], size = _ours(source, tokens, long)
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
    peer_name = "xllamacpp Q4_0"
    return [
        Row(f"decode {name} q4_0", middle("ours", "answer"), middle("peer", "answer"), peer_name, bytes=size,
            per_second="tokens", bars=[Bar("speed", 0.5)]),
        Row(f"prompt of {len(long)} {name} q4_0", middle("ours", "prompt"), middle("peer", "prompt"), peer_name,
            per_second="tokens"),
    ]
