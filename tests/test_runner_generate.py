"""Choice of tokens, stopping and counting, on a model that is a table."""

import math

import pytest
import torch

from orrery import OrreryError
from orrery.generate import Sampling, Timing, choose, generate, perplexity, room

VOCABULARY = 11


class Successor:
    """Says that the token after t is t + 1, with `sure` as its logit above the others' 0."""

    def __init__(self, capacity=40, sure=9.0):
        self.capacity, self.sure, self.position, self.taken = capacity, sure, 0, []

    def rewind(self, position):
        self.position = min(self.position, position)

    def step(self, token):
        return torch.cat(list(self.logits([token])))

    def forward(self, tokens):
        return torch.cat(list(self.logits(tokens)))[-1:]

    def logits(self, tokens):
        assert self.position + len(tokens) <= self.capacity
        self.position += len(tokens)
        self.taken.append(list(tokens))
        rows = torch.zeros(len(tokens), VOCABULARY)
        rows[range(len(tokens)), (torch.tensor(tokens) + 1) % VOCABULARY] = self.sure
        yield from rows.split(3)


def test_greedy_up_to_the_limit():
    model, timing = Successor(), Timing()
    assert list(generate(model, [7, 3], 5, frozenset(), Sampling(), timing)) == [4, 5, 6, 7, 8]
    # The prompt goes in one pass, and the last answer is not fed back.
    assert model.taken == [[7, 3], [4], [5], [6], [7]]
    assert (timing.prompt_tokens, timing.tokens, timing.steps) == (2, 5, 4)


def test_stop_token_ends_the_text_and_is_not_part_of_it():
    assert list(generate(Successor(), [1], 30, frozenset({6, 9}), Sampling())) == [2, 3, 4, 5]
    assert list(generate(Successor(), [5], 30, frozenset({6}), Sampling())) == []


def test_context_overrun():
    model = Successor(capacity=10)
    with pytest.raises(OrreryError, match="^4 tokens of prompt and 8 of answer do not fit into the context of 10$"):
        next(generate(model, [1, 2, 3, 4], 8, frozenset(), Sampling()))
    assert model.taken == []
    # The answer's last token is no input.
    assert len(list(generate(model, [1, 2, 3, 4], 7, frozenset(), Sampling()))) == 7
    assert model.position == 10
    model.position = 4
    with pytest.raises(OrreryError, match="^7 tokens of prompt and 5 of answer do not fit into the context of 10$"):
        next(generate(model, [5, 6, 7], 5, frozenset(), Sampling()))
    assert len(list(generate(Successor(capacity=3), [1, 2, 3], room(3, 3), frozenset(), Sampling()))) == 1


def test_empty_prompt():
    with pytest.raises(OrreryError, match="^the prompt is empty$"):
        next(generate(Successor(), [], 7, frozenset(), Sampling()))


def draws(sampling, logits, count=400):
    generator = sampling.generator()
    return [choose(logits, sampling, generator) for _ in range(count)]


def test_same_seed_same_tokens():
    logits = torch.linspace(0, 2, VOCABULARY).view(1, -1)
    first = draws(Sampling(1.0, 0.9, 17), logits)
    assert first == draws(Sampling(1.0, 0.9, 17), logits)
    assert first != draws(Sampling(1.0, 0.9, 18), logits)


def test_temperature_sharpens():
    logits = torch.tensor([[0.0, 1.0]])
    hot, cold = draws(Sampling(5.0), logits), draws(Sampling(0.2), logits)
    # Shares of token 1 are 1 / (1 + exp(-1 / T)): 0.55 and 0.993; 400 draws deviate by 0.025 and 0.004.
    assert 0.45 < sum(hot) / 400 < 0.65
    assert sum(cold) / 400 > 0.97
    assert set(draws(Sampling(0.0), logits)) == {1}


def test_top_p_keeps_the_likeliest():
    logits = torch.log(torch.tensor([[0.1, 0.4, 0.2, 0.3]]))
    assert set(draws(Sampling(1.0, 1.0), logits)) == {0, 1, 2, 3}
    assert set(draws(Sampling(1.0, 0.85), logits)) == {1, 2, 3}
    assert set(draws(Sampling(1.0, 0.65), logits)) == {1, 3}
    assert set(draws(Sampling(1.0, 0.01), logits)) == {1}


def test_perplexity_of_a_known_model():
    # Each following token has probability e^9 / (e^9 + 10) if it is the successor, else 1 / (e^9 + 10).
    tokens = [0, 1, 2, 3, 4, 9, 10, 0, 1]
    total = math.exp(9) + VOCABULARY - 1
    hit, miss = math.log(total) - 9, math.log(total)
    assert perplexity(Successor(), tokens, 100) == pytest.approx(math.exp((7 * hit + miss) / 8), rel=1e-5)
    # Windows of 5 split the text before token 9, so nothing predicts that one.
    assert perplexity(Successor(), tokens, 5) == pytest.approx(math.exp(hit), rel=1e-5)
    with pytest.raises(OrreryError, match="at least two tokens"):
        perplexity(Successor(), [3], 5)
