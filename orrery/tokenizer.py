"""Byte-level BPE from a model file's own vocabulary, and the file's own chat template."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any

from orrery import chat_template

CONTROL, USER_DEFINED = 3, 4
END_TEXTS = ("<|im_end|>", "<|endoftext|>")
PLAIN_TEMPLATE = (
    "{% for m in messages %}<|im_start|>{{ m['role'] }}\n{{ m['content'] }}<|im_end|>\n{% endfor %}"
    "{% if add_generation_prompt %}<|im_start|>assistant\n{% endif %}"
)


@dataclass(frozen=True)
class Vocabulary:
    """What a tokenizer is made from, in a form that can be kept in a file."""

    serialized: str
    stop: tuple[int, ...]
    template: str

    @staticmethod
    def from_pieces(tokens: list[str], kinds: list[int], merges: list[str], end: int, template: str) -> "Vocabulary":
        """From the lists in a model file. Pre-tokenizer `smollm`: each digit alone, then byte-level."""
        from tokenizers import AddedToken, Tokenizer, decoders, models, pre_tokenizers

        pairs = [tuple(merge.split(" ", 1)) for merge in merges]
        tokenizer = Tokenizer(models.BPE({token: i for i, token in enumerate(tokens)}, pairs))
        tokenizer.pre_tokenizer = pre_tokenizers.Sequence([
            pre_tokenizers.Digits(individual_digits=True),
            pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=True),
        ])
        tokenizer.decoder = decoders.ByteLevel()
        special = [t for t, kind in zip(tokens, kinds) if kind == CONTROL]
        tokenizer.add_special_tokens([AddedToken(t, special=True, normalized=False) for t in special])
        tokenizer.add_tokens([AddedToken(t, normalized=False) for t, kind in zip(tokens, kinds) if kind == USER_DEFINED])
        stop = {end} | {tokens.index(t) for t in END_TEXTS if t in special}
        return Vocabulary(tokenizer.to_str(), tuple(sorted(stop)), template)


class ChatTokenizer:
    """Text to token numbers and back."""

    def __init__(self, vocabulary: Vocabulary) -> None:
        from tokenizers import Tokenizer

        self._tokenizer = Tokenizer.from_str(vocabulary.serialized)
        self._template = vocabulary.template or PLAIN_TEMPLATE
        self.stop = frozenset(vocabulary.stop)

    def encode(self, text: str) -> list[int]:
        """Token numbers; the texts of special tokens become those tokens."""
        return self._tokenizer.encode(text, add_special_tokens=False).ids

    def decode(self, tokens: Iterable[int]) -> str:
        """Text without special tokens."""
        return self._tokenizer.decode(list(tokens), skip_special_tokens=True)

    def stream(self) -> "TextStream":
        """A decoder that takes one token at a time."""
        return TextStream(self._tokenizer)

    def chat(self, messages: list[dict[str, str]]) -> list[int]:
        """Token numbers of a conversation up to the start of the assistant's next answer."""
        return self.encode(self.chat_text(messages))

    def chat_text(self, messages: list[dict[str, str]]) -> str:
        """The text of a conversation up to the start of the assistant's next answer, special tokens included."""
        return chat_template.render(self._template, messages=messages, add_generation_prompt=True)


class TextStream:
    """Holds back the bytes of a character until its last token has come."""

    def __init__(self, tokenizer: Any) -> None:
        from tokenizers.decoders import DecodeStream

        self._tokenizer = tokenizer
        self._stream = DecodeStream(skip_special_tokens=True)

    def push(self, token: int) -> str:
        """The text that this token completes, often one word, sometimes nothing."""
        return self._stream.step(self._tokenizer, token) or ""
