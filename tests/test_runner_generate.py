"""Choice of tokens, stopping and counting, on a model that is a table."""

import itertools
import math

import numpy as np
import pytest
import torch

from orrery import OrreryError
from orrery.generate import Sampling, Timing, candidates, choose, generate, perplexity, room

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


def shares(logits, sampling, seen):
    """The candidates by the definitions, one token and one filter after the other."""
    factor = sampling.repetition_penalty
    logits = [x if i not in seen else x / factor if x > 0 else x * factor for i, x in enumerate(logits)]
    weights = {i: math.exp((x - max(logits)) / sampling.temperature) for i, x in enumerate(logits)}

    def parts(kept):
        return {i: weights[i] / sum(weights[j] for j in kept) for i in kept}

    kept = sorted(weights, key=lambda i: -weights[i])
    if sampling.top_k:
        kept = kept[: sampling.top_k]
    left, mass = [], 0.0
    for i in kept:  # until the tokens that are taken reach the share
        if mass < sampling.top_p:
            left.append(i)
        mass += parts(kept)[i]
    likeliest = parts(left)[left[0]]
    return parts([i for i in left if parts(left)[i] >= sampling.min_p * likeliest])


@pytest.mark.parametrize("penalty", [1.0, 1.7, 0.5])
def test_candidates_are_those_of_the_definitions(penalty):
    rng = np.random.default_rng(5)
    logits, seen = rng.normal(0, 2, 30).astype(np.float32), {0, 3, 11, 29}
    for settings in itertools.product((0.3, 1.0, 4.0), (1.0, 0.9, 0.5), (0,), (0, 1, 5, 40), (0.0, 0.1, 1.0)):
        sampling = Sampling(*settings, penalty)
        expected = shares(logits.astype(float).tolist(), sampling, seen)
        tokens, probabilities = candidates(torch.from_numpy(logits).view(1, -1), sampling, seen)
        assert tokens.tolist() == list(expected), sampling
        found = (probabilities / probabilities.sum()).tolist()
        assert found == pytest.approx(list(expected.values()), rel=1e-9), sampling


def test_filters_see_what_the_ones_before_have_left():
    logits = torch.log(torch.tensor([[0.4, 0.3, 0.2, 0.1]]))

    def kept(**settings):
        return candidates(logits, Sampling(1.0, **settings))[0].tolist()

    assert kept(top_p=0.5) == [0, 1]
    # 0.4 of 0.7 is above one half.
    assert kept(top_p=0.5, top_k=2) == [0]
    assert kept(min_p=0.49) == [0, 1, 2] and kept(min_p=0.51) == [0, 1]
    # Temperature comes before min-p: 0.4^2 and 0.2^2 are further apart.
    assert candidates(logits, Sampling(0.5, min_p=0.49))[0].tolist() == [0, 1]


def test_penalty_counts_for_greedy_answers_too():
    """The table would repeat 1, 2, 0 for ever; a token of the prompt or of the answer gets a tenth of its logit."""

    class Cycle(Successor):
        def logits(self, tokens):
            for rows in super().logits([token % 3 if token % 3 else 0 for token in tokens]):
                yield rows + torch.linspace(2, 1, VOCABULARY)

    def answer(penalty, before=()):
        return list(generate(Cycle(), [0], 6, frozenset(), Sampling(repetition_penalty=penalty), before=before))

    assert answer(1.0) == [1, 2, 3, 1, 2, 3]
    assert answer(10.0) == [1, 2, 3, 4, 5, 6]
    assert answer(10.0, before=[1, 5]) == [2, 3, 4, 6, 7, 8]


@pytest.mark.parametrize("temperature", [1e-30, 5e-324, 1e-7])
def test_a_tiny_temperature_is_greedy(temperature):
    logits = torch.tensor([[1.0, 3.0, 3.0 - 1e-3, -5.0]])
    assert set(draws(Sampling(temperature), logits, 20)) == {1}
    assert set(draws(Sampling(1e308), logits)) == {0, 1, 2, 3}


@pytest.mark.parametrize("temperature", [0.0, 1e-30, 1.0])
def test_logits_that_are_no_numbers(temperature):
    nan, inf = math.nan, math.inf
    everything = {0, 1, 2, 3}
    for row, allowed in (([nan, 1, 2, nan], {1, 2}), ([1, inf, 2, -inf], {1}), ([nan] * 4, everything),
                         ([-inf] * 4, everything)):
        logits = torch.tensor([row], dtype=torch.float32)
        for penalty in (1.0, 1e-3, 1e3):
            sampling = Sampling(temperature, 0.99, 7, 3, 0.01, penalty)
            generator = sampling.generator()
            assert {choose(logits, sampling, generator, {0, 1, 3}) for _ in range(20)} <= allowed, (row, penalty)


def test_logits_are_left_as_they_are():
    logits = torch.tensor([[1.0, -2.0, 3.0]], dtype=torch.double)
    candidates(logits, Sampling(1.0, repetition_penalty=2.0), {0, 1})
    assert logits.tolist() == [[1.0, -2.0, 3.0]]


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


def test_perplexity_beyond_what_a_number_holds():
    assert perplexity(Successor(sure=9000.0), [0, 5, 1], 100) == math.inf
