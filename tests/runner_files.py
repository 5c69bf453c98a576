"""A tiny Llama in a GGUF file, for tests that need a file and not a good one."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np
import torch

from orrery.formats import FORMATS, dequantize, quantize

# The special tokens, of which the first and the last end an answer.
SPECIAL = (0, 1, 2)
LAYERS, HIDDEN, KV_HEADS, HEAD_DIM, FEED_FORWARD = 2, 128, 1, 64, 192


def pieces() -> tuple[list[str], list[int], list[str]]:
    """Tokens, kinds and merges: three special tokens, all bytes, and one merge."""
    from tokenizers.pre_tokenizers import ByteLevel

    alphabet = sorted(ByteLevel.alphabet())
    tokens = ["<|endoftext|>", "<|im_start|>", "<|im_end|>", *alphabet, "he"]
    return tokens, [3, 3, 3] + [1] * (len(alphabet) + 1), ["h e"]


def byte_level_entries(more_tokens: int = 0, pre: str = "smollm") -> dict[str, Any]:
    """A file's entries about the vocabulary of `pieces`."""
    tokens, kinds, merges = pieces()
    return {
        "tokenizer.ggml.model": "gpt2",
        "tokenizer.ggml.pre": pre,
        "tokenizer.ggml.tokens": tokens + [f"more{i}" for i in range(more_tokens)],
        "tokenizer.ggml.token_type": kinds + [1] * more_tokens,
        "tokenizer.ggml.merges": merges,
        "tokenizer.ggml.eos_token_id": 2,
    }


def shapes(vocabulary: int, hidden: int = HIDDEN, feed_forward: int = FEED_FORWARD) -> dict[str, tuple[int, ...]]:
    kv = KV_HEADS * HEAD_DIM
    result: dict[str, tuple[int, ...]] = {"token_embd.weight": (vocabulary, hidden), "output_norm.weight": (hidden,)}
    for i in range(LAYERS):
        for name, shape in {
            "attn_norm": (hidden,), "attn_q": (hidden, hidden), "attn_k": (kv, hidden), "attn_v": (kv, hidden),
            "attn_output": (hidden, hidden), "ffn_norm": (hidden,), "ffn_gate": (feed_forward, hidden),
            "ffn_up": (feed_forward, hidden), "ffn_down": (hidden, feed_forward),
        }.items():
            result[f"blk.{i}.{name}.weight"] = shape
    return result


def write_tiny(path: Path, *, architecture: str = "llama", context: int = 64, hidden: int = HIDDEN,
               feed_forward: int = FEED_FORWARD, heads: int = 0, more_tokens: int = 0, leave_out: str = "", extra: str = "",
               pre: str = "smollm", untied: bool = False, silent: Sequence[int] = (),
               stored: dict[str, str] | None = None,
               tokenizer: dict[str, Any] | None = None) -> dict[str, np.ndarray]:
    """Writes the file; gives its tensors, as values.

    The logits of the tokens `silent` are 0, so a greedy answer never has them.

    `tokenizer` has the file's entries about its vocabulary, in place of those that it has otherwise.

    `stored` names the format of ours, of a GGUF type's bytes, in which tensors with such an ending of their name lie.
    """
    from gguf import GGMLQuantizationType, GGUFWriter

    rng = np.random.default_rng(11)
    entries = tokenizer or byte_level_entries(more_tokens, pre)
    writer = GGUFWriter(path, architecture)
    writer.add_block_count(LAYERS)
    writer.add_context_length(context)
    writer.add_embedding_length(hidden)
    writer.add_feed_forward_length(feed_forward)
    writer.add_head_count(heads or hidden // HEAD_DIM)
    writer.add_head_count_kv(KV_HEADS)
    writer.add_layer_norm_rms_eps(1e-5)
    writer.add_rope_freq_base(10000.0)
    for key, entry in entries.items():
        add = {str: writer.add_string, bool: writer.add_bool, int: writer.add_uint32, list: writer.add_array}
        add[type(entry)](key, entry)
    tensors = {}
    wanted = shapes(len(entries["tokenizer.ggml.tokens"]), hidden, feed_forward)
    if untied or silent:
        wanted["output.weight"] = wanted["token_embd.weight"]
    if extra:
        wanted[extra] = (hidden,)
    for name, shape in wanted.items():
        if name == leave_out:
            continue
        scale = 0.1 if len(shape) == 2 else 0.02
        tensor = rng.normal(0 if len(shape) == 2 else 1, scale, shape).astype(np.float32)
        if name == "output.weight":
            tensor[list(silent)] = 0
        kept = next((fmt for ending, fmt in (stored or {}).items() if name.endswith(ending)), "")
        if kept:
            fmt = FORMATS[kept]
            data = quantize(fmt, torch.from_numpy(tensor))
            tensor = dequantize(fmt, data, shape[1]).numpy()
            writer.add_tensor(name, data.view(shape[0], -1).numpy(), raw_dtype=GGMLQuantizationType[fmt.gguf_type])
        else:
            writer.add_tensor(name, tensor)
        tensors[name] = tensor
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return tensors
