"""The messages of a conversation and their tokens, within a model's context."""

from __future__ import annotations

from bisect import bisect_left
from collections.abc import Sequence
from typing import TYPE_CHECKING

from orrery import OrreryError

if TYPE_CHECKING:
    from orrery.tokenizer import ChatTokenizer


class Conversation:
    """Questions and answers after a system message, if there is one.

    `tokens` are those of the last question and all before it. An answer keeps the tokens that it was made of: its text
    could be divided in another way.
    """

    def __init__(self, tokenizer: ChatTokenizer, capacity: int, answer: int, system: str | None = None) -> None:
        """For a context of `capacity` tokens and answers of at most `answer` ones."""
        self._tokenizer, self._capacity = tokenizer, capacity
        self._least_room = min(answer, capacity // 4)
        self._system = [{"role": "system", "content": system}] if system else []
        self._turns: list[list[dict[str, str]]] = []
        self._said = ""
        self.tokens: list[int] = []

    def ask(self, question: str) -> int:
        """Adds a question; returns how many of the oldest turns were forgotten because there is no room for them.

        They are forgotten until half of the context is free: one by one, nearly every question would have to compute
        the whole conversation again. Raises OrreryError if the question alone is too long, and changes nothing then.
        """
        turns = [*self._turns, [{"role": "user", "content": question}]]
        dropped, (text, tokens) = 0, self._encode(turns)
        if len(tokens) - 1 + self._least_room > self._capacity and len(turns) > 1:
            dropped = 1 + bisect_left(range(1, len(turns) - 1), True,
                                      key=lambda n: len(self._encode(turns[n:])[1]) <= self._capacity // 2)
            text, tokens = self._encode(turns[dropped:])
        if len(tokens) > self._capacity:
            raise OrreryError(f"{len(tokens)} tokens of conversation do not fit into the context of {self._capacity}")
        self._before = self._turns, self._said, self.tokens
        self._turns, self._said, self.tokens = turns[dropped:], text, tokens
        return dropped

    def answered(self, answer: Sequence[int]) -> None:
        """Adds the answer to the last question, complete or not."""
        text = self._tokenizer.decode(answer)
        self._turns = [*self._turns[:-1], [*self._turns[-1], {"role": "assistant", "content": text}]]
        self._said += text
        self.tokens = [*self.tokens, *answer]

    def retract(self) -> None:
        """Forgets the last question, which got no answer."""
        self._turns, self._said, self.tokens = self._before

    def _encode(self, turns: Sequence[list[dict[str, str]]]) -> tuple[str, list[int]]:
        text = self._tokenizer.chat_text([*self._system, *(message for turn in turns for message in turn)])
        if self._said and text.startswith(self._said):
            return text, [*self.tokens, *self._tokenizer.encode(text[len(self._said) :], follows=True)]
        return text, self._tokenizer.encode(text)


def shared(first: Sequence[int], second: Sequence[int]) -> int:
    """How many tokens both begin with."""
    return next((i for i, (a, b) in enumerate(zip(first, second)) if a != b), min(len(first), len(second)))
