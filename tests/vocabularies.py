"""Vocabularies as the entries of a GGUF file, trained here, and texts to cut."""

from __future__ import annotations

import json
import random
from functools import cache
from typing import Any

# The first ends a text.
SPECIAL = ("<|endoftext|>", "<|im_start|>", "<|im_end|>", "<|begin|>")
USERS = "<think>"
SPACE = "\u2581"

ALPHABETS = (
    "abcdefghijklmnopqrstuvwxyz", "ABCDEFGHIJKLMNOPQRSTUVWXYZ", "äöüßéèñçãøåæœ", "абвгдежзиклмнопрсту", "αβγδεζηθικλμν",
    "日本語漢字仮名交文", "ひらがなカタカナ", "한국어글자조합", "मानकहिन्दीक्षत्र", "ไทยภาษา", "עבריתשלום", "العربيةمرحبا",
    "0123456789", "٠١٢٣٤٥٦٧٨٩", "０１２½²Ⅷ", "🙂👩\u200d👩\u200d👧🏽🇩🇪❤\ufe0f", "\u0301\u0308\u0327\u20d7",
    "\u200b\u200d\u200e\u202e\ufeff\u00ad", "\x00\x01\x07\x08\x0b\x1b\x1f\x7f\x85", "!?.,;:'\"()[]{}<>|/\\@#$%^&*-_=+~",
    "\u00a0\u2003\u3000\u2028", "𝒜𝔅𐍈\U0010ffff\ue000",
)
WORDS = ("the of and I'll don't WE'VE they're he'D def return self x_1 == != -> </s> <think> <|im_end|> \u2581 __ 3.14 "
         "1,000,000 http://a.b/c?d=e e\u0301 Å ﬁ 'ſ naïve if(x){y++;} 2024-05-19").split(" ")
GAPS = (" ", " ", " ", " ", "  ", "   ", "        ", "\t", "\n", "\n\n", "\r\n", " \n ", "")
NASTY = (
    "", " ", "  ", "\n", "\t", "\r", SPACE, SPACE * 2 + " " + SPACE, "a ", " a", "   a   b   ", "\n\n\n\n", " \n \n ",
    "\r\n\r\n", "'s", " 'S", "a" * 200, " " * 100, "0" * 50, "1234567890", " 1", "\u0301", "e\u0301\u0301", "🏽",
    "\u200d", "\ufffd", "\U0010ffff", "\x00", "x\x00y", "<0x41>", "<s>", "<think>  <think>",
    "<|im_start|>user\nhi<|im_end|>\n",
)


@cache
def mixed_lines(count: int = 1000) -> list[str]:
    """Texts of many scripts, code, emoji, digits, runs of spaces, line ends, control characters, combining marks."""
    rng = random.Random(13)
    lines = list(NASTY)
    while len(lines) < count:
        parts = []
        for _ in range(rng.randrange(1, 14)):
            letters = rng.choice(ALPHABETS)
            made = "".join(rng.choice(letters) for _ in range(rng.randrange(1, 7)))
            parts += [rng.choice(WORDS) if rng.random() < 0.45 else made, rng.choice(GAPS)]
        line = "".join(parts)
        lines.append(line if rng.random() < 0.5 else line.strip())
    return lines


@cache
def _trained(byte_level: bool, count: int) -> tuple[list[str], list[list[str]]]:
    """Tokens and merges of the mixed lines, learned over the borders of words: then each cut of a text shows."""
    from tokenizers import Tokenizer, models, pre_tokenizers, trainers

    tokenizer = Tokenizer(models.BPE())
    tokenizer.pre_tokenizer = (pre_tokenizers.ByteLevel(add_prefix_space=False, use_regex=False) if byte_level
                               else pre_tokenizers.Metaspace(SPACE, "never", split=False))
    alphabet = pre_tokenizers.ByteLevel.alphabet() if byte_level else []
    # Of 200 characters, so that some lines need the tokens of bytes.
    trainer = trainers.BpeTrainer(vocab_size=count, initial_alphabet=alphabet, limit_alphabet=len(alphabet) or 200,
                                  max_token_length=8, show_progress=False)
    # Not those with special tokens, which would be learned.
    tokenizer.train_from_iterator([line for line in mixed_lines() if "<" not in line], trainer)
    model = json.loads(tokenizer.to_str())["model"]
    return sorted(model["vocab"], key=model["vocab"].get), model["merges"]


def byte_level(pre: str, count: int = 1200, **more: Any) -> dict[str, Any]:
    """A byte-level vocabulary: special tokens, the alphabet and what merges make, one token of the user's."""
    tokens, merges = _trained(True, count)
    return {
        "tokenizer.ggml.model": "gpt2",
        "tokenizer.ggml.pre": pre,
        "tokenizer.ggml.tokens": [*SPECIAL, *tokens, USERS],
        "tokenizer.ggml.token_type": [3] * len(SPECIAL) + [1] * len(tokens) + [4],
        "tokenizer.ggml.merges": [" ".join(merge) for merge in merges],
        "tokenizer.ggml.bos_token_id": 3,
        "tokenizer.ggml.eos_token_id": 0,
        "tokenizer.ggml.add_bos_token": False,
    } | {f"tokenizer.ggml.{key}": value for key, value in more.items()}


def sentence_piece(count: int = 900, **more: Any) -> dict[str, Any]:
    """A SentencePiece vocabulary: three special tokens, all bytes, tokens in the order of their merges, characters."""
    tokens, _ = _trained(False, count)
    pieces = [t for t in tokens if len(t) > 1] + [t for t in tokens if len(t) == 1]
    size = len(pieces)
    return {
        "tokenizer.ggml.model": "llama",
        "tokenizer.ggml.tokens": ["<unk>", "<s>", "</s>", *(f"<0x{byte:02X}>" for byte in range(256)), *pieces, USERS],
        "tokenizer.ggml.scores": [0.0] * 259 + [-float(rank) for rank in range(size)] + [0.0],
        "tokenizer.ggml.token_type": [2, 3, 3] + [6] * 256 + [1] * size + [4],
        "tokenizer.ggml.bos_token_id": 1,
        "tokenizer.ggml.eos_token_id": 2,
        "tokenizer.ggml.unknown_token_id": 0,
        "tokenizer.ggml.add_bos_token": False,
    } | {f"tokenizer.ggml.{key}": value for key, value in more.items()}
