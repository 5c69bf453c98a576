"""From a prompt to text, token by token, and the perplexity of a text."""

from __future__ import annotations

import math
import time
from collections.abc import Collection, Iterator, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING

import numpy as np
import torch

from orrery import OrreryError

if TYPE_CHECKING:
    from orrery.model import Model


@dataclass(frozen=True)
class Sampling:
    """How the next token is chosen; temperature 0 is greedy.

    The steps are taken in this order: repetition penalty, temperature, top-k (0: all), top-p, min-p. Each filter sees
    the probabilities that the ones before it have left, divided by their sum.
    """

    temperature: float = 0.0
    top_p: float = 1.0
    seed: int = 0
    top_k: int = 0
    min_p: float = 0.0
    repetition_penalty: float = 1.0

    def generator(self) -> torch.Generator:
        """A source of random numbers started from the seed."""
        return torch.Generator().manual_seed(self.seed)


@dataclass
class Timing:
    """Tokens and seconds of the prompt and of the answer."""

    prompt_tokens: int = 0
    prompt_seconds: float = 0.0
    tokens: int = 0
    seconds: float = 0.0
    steps: int = field(default=0, repr=False)

    def __str__(self) -> str:
        prompt = self.prompt_tokens / self.prompt_seconds if self.prompt_seconds else 0.0
        answer = self.steps / self.seconds if self.seconds else 0.0
        return (f"prompt: {self.prompt_tokens} tokens, {prompt:.1f} tokens per second; "
                f"answer: {self.tokens} tokens, {answer:.1f} tokens per second")


# What a logit that is NaN or infinite counts as. Differences of two of them are finite.
FAR = 1e300


def choose(logits: torch.Tensor, sampling: Sampling, generator: torch.Generator, seen: Collection[int] = ()) -> int:
    """The token that follows `seen`, drawn among the candidates."""
    tokens, probabilities = candidates(logits, sampling, seen)
    if len(tokens) == 1:
        return int(tokens[0])
    return int(tokens[torch.multinomial(torch.from_numpy(probabilities), 1, generator=generator)])


def candidates(logits: torch.Tensor, sampling: Sampling, seen: Collection[int] = ()) -> tuple[np.ndarray, np.ndarray]:
    """The tokens that may follow `seen`, the likeliest first, and their shares, by the logits [1, vocabulary].

    The penalty divides positive logits of tokens in `seen` and multiplies negative ones. Top-k keeps the k likeliest
    tokens, top-p the likeliest whose probabilities reach `top_p` together, min-p those that have at least `min_p` times
    the probability of the likeliest. A logit that is NaN counts as the smallest.
    """
    narrow = logits.view(-1).cpu().float().numpy()
    penalized = sampling.repetition_penalty != 1 and seen
    if sampling.temperature <= 0 and not penalized:
        # Of 49,152 logits in 20 us, by way of doubles in 110. A NaN would be taken for the largest.
        best = narrow.argmax(keepdims=True)
        if not np.isnan(narrow[best]):
            return best, np.ones(1)
    values = narrow.astype(np.float64)
    with np.errstate(all="ignore"):
        if penalized:
            index, penalty = list(seen), sampling.repetition_penalty
            values[index] *= np.where(values[index] > 0, 1 / penalty, penalty)
        values = np.nan_to_num(values, nan=-FAR, posinf=FAR, neginf=-FAR)
        if sampling.temperature <= 0:
            return values.argmax(keepdims=True), np.ones(1)
        # The largest is 0 before the division, so a tiny temperature makes the others -inf and no NaN.
        probabilities = np.exp((values - values.max()) / sampling.temperature)
    order = _likeliest(probabilities, sampling.top_k or len(probabilities))
    probabilities = probabilities[order] / probabilities[order].sum()
    if sampling.top_p < 1:  # rounding would cut the last ones otherwise
        probabilities = probabilities[probabilities.cumsum() - probabilities < sampling.top_p]
    probabilities = probabilities[probabilities >= sampling.min_p * probabilities[0]]
    return order[: len(probabilities)], probabilities


def _likeliest(probabilities: np.ndarray, count: int) -> np.ndarray:
    """The numbers of the `count` likeliest tokens, the likeliest first."""
    if count < len(probabilities):  # 49,152 of them are sorted in 8 ms, partitioned in 0.5
        among = np.argpartition(probabilities, -count)[-count:]
        return among[np.argsort(-probabilities[among], kind="stable")]
    return np.argsort(-probabilities, kind="stable")


def room(tokens: int, context: int) -> int:
    """The most tokens of an answer to `tokens` ones. An answer's last token is no input and takes no place."""
    return context - tokens + 1


def check_fit(prompt: int, answer: int, context: int) -> None:
    """OrreryError if there is no room for so many tokens of an answer after those of a prompt."""
    if answer > room(prompt, context):
        raise OrreryError(f"{prompt} tokens of prompt and {answer} of answer do not fit into the context of {context}")


def generate(model: Model, prompt: list[int], limit: int, stop: frozenset[int], sampling: Sampling,
             timing: Timing | None = None, before: Sequence[int] = ()) -> Iterator[int]:
    """Yields at most `limit` tokens that continue the model's text and `prompt`, up to a stop token, not included.

    `before` are the tokens of the model's text so far; they, the prompt and the answer get the repetition penalty.
    """
    if not prompt:
        raise OrreryError("the prompt is empty")
    check_fit(model.position + len(prompt), limit, model.capacity)
    timing = timing or Timing()
    generator, seen = sampling.generator(), {*before, *prompt}
    start = time.perf_counter()
    logits = model.forward(prompt)
    timing.prompt_tokens += len(prompt)
    timing.prompt_seconds += time.perf_counter() - start
    for count in range(1, limit + 1):
        start = time.perf_counter()
        token = choose(logits, sampling, generator, seen)
        timing.seconds += time.perf_counter() - start
        if token in stop:
            return
        timing.tokens += 1
        seen.add(token)
        yield token
        if count == limit:
            return
        start = time.perf_counter()
        logits = model.step(token)
        timing.steps += 1
        timing.seconds += time.perf_counter() - start


def perplexity(model: Model, tokens: list[int], window: int = 512) -> float:
    """exp of the mean negative log probability of each token after the ones before it in its window."""
    from tqdm import tqdm

    window = min(window, model.capacity)
    if window < 2 or len(tokens) < 2:
        raise OrreryError("a perplexity needs a text and a window of at least two tokens")
    loss, count = 0.0, 0
    with tqdm(total=len(tokens), desc="perplexity", unit=" tokens", delay=2, mininterval=0.5) as progress:
        for first in range(0, len(tokens), window):
            part = tokens[first : first + window]
            model.rewind(0)
            done = 0
            for logits in model.logits(part[:-1]):
                logits = logits.float()
                following = torch.tensor(part[done + 1 : done + 1 + len(logits)], device=logits.device)
                loss += torch.nn.functional.cross_entropy(logits, following, reduction="sum").item()
                done += len(logits)
                progress.update(len(logits))
            count += done
            progress.update(len(part) - done)
    try:
        return math.exp(loss / count)
    except OverflowError:
        return math.inf
