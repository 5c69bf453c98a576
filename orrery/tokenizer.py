"""Text to tokens and back by a model file's own vocabulary, and the file's own chat template.

Two kinds of vocabulary: byte-level BPE, whose tokens spell bytes in an alphabet of 256 letters, and SentencePiece,
whose tokens are text with `▁` for a space and, for what that cannot spell, bytes by number.
"""

from __future__ import annotations

import codecs
import math
import re
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from functools import cache, cached_property
from typing import TYPE_CHECKING, Any, NamedTuple

from orrery import OrreryError, chat_template

if TYPE_CHECKING:
    from tokenizers import Tokenizer

# The kinds of token of a GGUF file that matter here.
NORMAL, UNKNOWN, CONTROL, USER_DEFINED = 1, 2, 3, 4
# Tokens that end an answer, whatever else the file names.
END_TEXTS = ("<|im_end|>", "<|endoftext|>", "<|eot_id|>", "<|eom_id|>", "<|end_of_text|>", "<|end|>", "</s>")
PLAIN_TEMPLATE = (
    "{% for m in messages %}<|im_start|>{{ m['role'] }}\n{{ m['content'] }}<|im_end|>\n{% endfor %}"
    "{% if add_generation_prompt %}<|im_start|>assistant\n{% endif %}"
)
SPACE = "\u2581"
_BYTE = re.compile("<0x([0-9A-F]{2})>")


class ByteLevel(NamedTuple):
    """What a pre-tokenizer does to a text before merges join the bytes of its words."""

    words: str = ""  # Pattern of a word. Without one: GPT-2's, which the library has.
    digits: bool = False  # Each digit is a word.
    compose: bool = False  # The text is brought to NFC first.
    whole: bool = False  # A word that is a token is that token, even where merges do not lead to it.
    add_bos: bool = False  # Whether a text begins with `bos` if the file does not say.


def _words(number: str) -> str:
    return (r"(?i:'s|'t|'re|'ve|'m|'ll|'d)|[^\r\n\p{L}\p{N}]?\p{L}+|" + number
            + r"| ?[^\s\p{L}\p{N}]+[\r\n]*|\s*[\r\n]+|\s+(?!\S)|\s+")


PRE_TOKENIZERS = {
    "default": ByteLevel(),
    "llama-bpe": ByteLevel(_words(r"\p{N}{1,3}"), whole=True, add_bos=True),
    "qwen2": ByteLevel(_words(r"\p{N}"), compose=True),
    "smollm": ByteLevel(digits=True),
}

# An entry of the file by its key; the default if it is missing, an OrreryError if there is none.
Entries = Callable[..., Any]


@dataclass(frozen=True)
class Vocabulary:
    """What a tokenizer is made from, in a form that can be kept in a file."""

    serialized: str
    stop: tuple[int, ...]
    template: str
    bos: int | None = None
    eos: int | None = None
    add_bos: bool = False  # A text begins with `bos`.
    squeeze: bool = False  # A run of spaces becomes one space, at the ends of a text none.

    @staticmethod
    def read(entry: Entries, rows: int) -> "Vocabulary":
        """From a model file's entries, for a model with `rows` rows of embedding.

        OrreryError if the file's tokenizer is not supported or its parts do not fit together.
        """
        model = entry("tokenizer.ggml.model")
        if model not in ("gpt2", "llama"):
            raise OrreryError(f"the tokenizer {model!r} is not supported, the runner supports 'gpt2' (byte-level BPE) "
                              "and 'llama' (SentencePiece)")
        pieces = _Pieces.read(entry, rows)
        tokenizer, add_bos = _byte_level(entry, pieces) if model == "gpt2" else _sentence_piece(entry, pieces)
        _add_whole_tokens(tokenizer, pieces)
        bos = pieces.special(entry, "bos")
        stop = {pieces.special(entry, name) for name in ("eos", "eot", "eom")}
        stop |= {pieces.numbers[t] for t in END_TEXTS if pieces.kind(t) in (CONTROL, USER_DEFINED)}
        return Vocabulary(
            serialized=tokenizer.to_str(),
            stop=tuple(sorted(stop - {None})),
            template=entry("tokenizer.chat_template", ""),
            bos=bos,
            eos=pieces.special(entry, "eos"),
            add_bos=bos is not None and bool(entry("tokenizer.ggml.add_bos_token", add_bos)),
            squeeze=model == "llama" and bool(entry("tokenizer.ggml.remove_extra_whitespaces", False)),
        )


@dataclass(frozen=True)
class _Pieces:
    """The tokens of a file: their texts, kinds, and numbers by text."""

    tokens: list[str]
    kinds: list[int]
    numbers: dict[str, int]

    @staticmethod
    def read(entry: Entries, rows: int) -> "_Pieces":
        tokens, kinds = entry("tokenizer.ggml.tokens"), entry("tokenizer.ggml.token_type")
        if len(kinds) != len(tokens):
            raise OrreryError(f"the vocabulary has {len(tokens)} tokens, but types for {len(kinds)}")
        if len(tokens) > rows:
            raise OrreryError(f"the vocabulary has {len(tokens)} tokens and the embedding {rows} rows")
        numbers: dict[str, int] = {}
        for i, token in enumerate(tokens):
            if numbers.setdefault(token, i) != i:
                raise OrreryError(f"the vocabulary has the token {token!r} twice")
        return _Pieces(tokens, kinds, numbers)

    def kind(self, token: str) -> int | None:
        """A token's type; None if there is no such token."""
        return self.kinds[self.numbers[token]] if token in self.numbers else None

    def of(self, *kinds: int) -> list[str]:
        """The tokens of these types."""
        return [token for token, kind in zip(self.tokens, self.kinds) if kind in kinds]

    def special(self, entry: Entries, name: str) -> int | None:
        """The number under which the file names a special token; None if it does not."""
        key = f"tokenizer.ggml.{name}_token_id"
        number = entry(key, -1)
        if number == -1:
            return None
        if not 0 <= number < len(self.tokens):
            raise OrreryError(f"{key} is {number}, which is none of the vocabulary's {len(self.tokens)} tokens")
        return number


def _byte_level(entry: Entries, pieces: _Pieces) -> tuple[Tokenizer, bool]:
    """A byte-level BPE tokenizer without its whole tokens, and whether its texts usually begin with `bos`."""
    from tokenizers import Regex, Tokenizer, decoders, models, normalizers, pre_tokenizers

    name = entry("tokenizer.ggml.pre", "default")
    if name not in PRE_TOKENIZERS:
        served = ", ".join(map(repr, PRE_TOKENIZERS))
        raise OrreryError(f"the pre-tokenizer {name!r} is not supported, the runner supports {served}")
    if entry("tokenizer.ggml.add_space_prefix", False):
        raise OrreryError("a space prefix with the tokenizer 'gpt2' is not supported, the runner supports it with "
                          "'llama'")
    pre = PRE_TOKENIZERS[name]
    tokenizer = Tokenizer(models.BPE(pieces.numbers, _merges(entry, pieces), ignore_merges=pre.whole))
    if pre.compose:
        tokenizer.normalizer = normalizers.NFC()
    steps: list[Any] = [pre_tokenizers.Digits(individual_digits=True)] if pre.digits else []
    if pre.words:
        steps.append(pre_tokenizers.Split(Regex(pre.words), behavior="isolated"))
    steps.append(pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=not pre.words))
    tokenizer.pre_tokenizer = pre_tokenizers.Sequence(steps)
    tokenizer.decoder = decoders.ByteLevel()
    return tokenizer, pre.add_bos


def _sentence_piece(entry: Entries, pieces: _Pieces) -> tuple[Tokenizer, bool]:
    """A SentencePiece tokenizer without its whole tokens, and whether its texts usually begin with `bos`."""
    from tokenizers import Tokenizer, pre_tokenizers

    if len(entry("tokenizer.ggml.precompiled_charsmap", ())):
        raise OrreryError("a vocabulary with a precompiled map of characters is not supported, the runner supports "
                          "those without one")
    number = pieces.special(entry, "unknown")
    unknown = next(iter(pieces.of(UNKNOWN)), None) if number is None else pieces.tokens[number]
    if unknown is None and not all(f"<0x{byte:02X}>" in pieces.numbers for byte in range(256)):
        raise OrreryError("the vocabulary has neither a token for each byte nor an unknown token")
    tokenizer = Tokenizer(_piece_model(entry, pieces, unknown))
    tokenizer.pre_tokenizer = pre_tokenizers.Metaspace(
        SPACE, "first" if entry("tokenizer.ggml.add_space_prefix", True) else "never", split=False)
    return tokenizer, True


def _piece_model(entry: Entries, pieces: _Pieces, unknown: str | None) -> Any:
    """How SentencePiece divides a text. A file does not tell which of its two models it has, but the scores do."""
    from tokenizers import models

    options = {"unk_token": unknown, "fuse_unk": True, "byte_fallback": True}
    if entry("tokenizer.ggml.merges", ()):
        return models.BPE(pieces.numbers, _merges(entry, pieces), **options)
    scores = _scores(entry, pieces)
    if all(score % 1 == 0 for score in scores):  # The scores of BPE are ranks.
        return models.BPE(pieces.numbers, _merges_by_score(scores, pieces), **options)
    return _unigram(scores, pieces, unknown)  # Those of a unigram model are logarithms of probabilities.


def _merges(entry: Entries, pieces: _Pieces) -> list[tuple[str, str]]:
    merges = []
    for i, merge in enumerate(entry("tokenizer.ggml.merges")):
        left, _, right = merge.partition(" ")
        if not {left, right, left + right} <= pieces.numbers.keys():
            raise OrreryError(f"merge {i} of the vocabulary, {merge!r}, is not of two tokens that make a third")
        merges.append((left, right))
    return merges


def _scores(entry: Entries, pieces: _Pieces) -> list[float]:
    scores = entry("tokenizer.ggml.scores")
    if len(scores) != len(pieces.tokens):
        raise OrreryError(f"the vocabulary has {len(pieces.tokens)} tokens, but scores for {len(scores)}")
    if not all(map(math.isfinite, scores)):
        raise OrreryError("a score of the vocabulary is not a finite number")
    return scores


def _unigram(scores: list[float], pieces: _Pieces, unknown: str | None) -> Any:
    """The likeliest division of a text. Tokens that no text may have are less likely than any other division."""
    from tokenizers import models

    if unknown is None:
        raise OrreryError("the vocabulary has no unknown token, which a unigram model needs")
    parts = set(pieces.of(NORMAL, USER_DEFINED))
    never = 100 * min(scores)
    scored = [(token, score if token in parts else never) for token, score in zip(pieces.tokens, scores)]
    return models.Unigram(scored, pieces.numbers[unknown], byte_fallback=True)


def _merges_by_score(scores: list[float], pieces: _Pieces) -> list[tuple[str, str]]:
    """Every way to make a token of two others, the best token first.

    SentencePiece joins the neighbours that make the token of the highest score, whichever two they are.
    """
    parts = set(pieces.of(NORMAL, USER_DEFINED))
    merges = [(token[:i], token[i:]) for token in parts for i in range(1, len(token))
              if token[:i] in parts and token[i:] in parts]

    def rank(merge: tuple[str, str]) -> tuple[float, ...]:
        number = pieces.numbers[merge[0] + merge[1]]
        return -scores[number], -len(merge[0]), -len(merge[1]), number

    return sorted(merges, key=rank)


def _add_whole_tokens(tokenizer: Tokenizer, pieces: _Pieces) -> None:
    """Adds the tokens that are never divided: control tokens, which have no text, and the user-defined ones."""
    from tokenizers import AddedToken

    special = pieces.of(UNKNOWN, CONTROL)
    tokenizer.add_special_tokens([AddedToken(t, special=True, normalized=False) for t in special])
    tokenizer.add_tokens([AddedToken(t, normalized=False) for t in pieces.of(USER_DEFINED)])


@cache
def _letters() -> dict[str, int]:
    """The byte of each letter of a byte-level token: visible Latin-1 stands for itself, the rest lies from 256 on."""
    visible = [*range(0x21, 0x7F), *range(0xA1, 0xAD), *range(0xAE, 0x100)]
    rest = [byte for byte in range(256) if byte not in visible]
    return {chr(byte): byte for byte in visible} | {chr(256 + i): byte for i, byte in enumerate(rest)}


class ChatTokenizer:
    """Text to token numbers and back."""

    def __init__(self, vocabulary: Vocabulary) -> None:
        from tokenizers import Tokenizer, pre_tokenizers

        self._vocabulary = vocabulary
        self._tokenizer = Tokenizer.from_str(vocabulary.serialized)
        self._whole = {i: t.special for i, t in self._tokenizer.get_added_tokens_decoder().items()}
        split = self._tokenizer.pre_tokenizer
        self._pieces = isinstance(split, pre_tokenizers.Metaspace)
        self._prefix = self._pieces and split.prepend_scheme == "first"
        self._size = self._tokenizer.get_vocab_size()
        plain = PLAIN_TEMPLATE if self._tokenizer.token_to_id("<|im_start|>") is not None else ""
        self._template = vocabulary.template or plain
        self.stop = frozenset(vocabulary.stop)

    def encode(self, text: str, follows: bool = False) -> list[int]:
        """Token numbers; the texts of special tokens become those tokens.

        The `bos` token or space that begins a text is left out if `text` follows another.
        """
        if self._vocabulary.squeeze:
            text = re.sub(" {2,}", " ", text if follows else text.lstrip(" ")).rstrip(" " + SPACE)
        tokens = (self._inner if follows else self._tokenizer).encode(text, add_special_tokens=False).ids
        bos = self._vocabulary.bos
        # A chat template may have written it.
        if self._vocabulary.add_bos and not follows and tokens[:1] != [bos]:
            tokens.insert(0, bos)
        return tokens

    @cached_property
    def _inner(self) -> Tokenizer:
        """The tokenizer of a text that follows another."""
        from tokenizers import Tokenizer, pre_tokenizers

        if not self._prefix:
            return self._tokenizer
        inner = Tokenizer.from_str(self._vocabulary.serialized)
        inner.pre_tokenizer = pre_tokenizers.Metaspace(SPACE, "never", split=False)
        return inner

    def bytes_of(self, token: int) -> bytes:
        """The bytes of text that a token stands for, none for a special one. OrreryError if there is no such token."""
        if not 0 <= token < self._size:
            raise OrreryError(f"there is no token {token}, the vocabulary has {self._size}")
        if self._whole.get(token, False):
            return b""
        text = self._tokenizer.id_to_token(token)
        if self._pieces:
            byte = _BYTE.fullmatch(text)
            return bytes([int(byte[1], 16)]) if byte else text.replace(SPACE, " ").encode()
        if token in self._whole or not set(text) <= _letters().keys():  # Not spelled in letters for bytes.
            return text.encode()
        return bytes(_letters()[letter] for letter in text)

    def decode(self, tokens: Iterable[int]) -> str:
        """Text without special tokens, nor the space that `encode` puts before a text."""
        text = b"".join(map(self.bytes_of, tokens)).decode(errors="replace")
        return text.removeprefix(" ") if self._prefix else text

    def stream(self) -> "TextStream":
        """A decoder that takes one token at a time."""
        return TextStream(self.bytes_of)

    def chat(self, messages: list[dict[str, str]]) -> list[int]:
        """Token numbers of a conversation up to the start of the assistant's next answer."""
        return self.encode(self.chat_text(messages))

    def chat_text(self, messages: list[dict[str, str]]) -> str:
        """The text of a conversation up to the start of the assistant's next answer, special tokens included.

        OrreryError if there is no template for it, or if it does not render.
        """
        if not self._template:
            raise OrreryError("the model file has no chat template and its vocabulary no token <|im_start|>")
        names = {"bos_token": self._name(self._vocabulary.bos), "eos_token": self._name(self._vocabulary.eos)}
        return chat_template.render(self._template, messages=messages, add_generation_prompt=True, **names)

    def _name(self, token: int | None) -> str:
        return "" if token is None else self._tokenizer.id_to_token(token)


class TextStream:
    """Text that follows another, token by token. Holds back the bytes of a character until its last one has come.

    The library's own stream decodes again and compares: SentencePiece's bytes that are no character change the text
    before them, and it raises.
    """

    def __init__(self, bytes_of: Callable[[int], bytes]) -> None:
        self._bytes_of = bytes_of
        self._decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")

    def push(self, token: int) -> str:
        """The text that this token completes, often one word, sometimes nothing."""
        return self._decoder.decode(self._bytes_of(token))
