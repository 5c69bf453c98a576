"""A tiny Llama in a GGUF file, for tests that need a file and not a good one."""

from __future__ import annotations

from pathlib import Path

import numpy as np

LAYERS, HIDDEN, HEADS, KV_HEADS, FEED_FORWARD = 2, 128, 2, 1, 192
HEAD_DIM = HIDDEN // HEADS


def pieces() -> tuple[list[str], list[int], list[str]]:
    """Tokens, kinds and merges: three special tokens, all bytes, and one merge."""
    from tokenizers.pre_tokenizers import ByteLevel

    alphabet = sorted(ByteLevel.alphabet())
    tokens = ["<|endoftext|>", "<|im_start|>", "<|im_end|>", *alphabet, "he"]
    return tokens, [3, 3, 3] + [1] * (len(alphabet) + 1), ["h e"]


def shapes(vocabulary: int) -> dict[str, tuple[int, ...]]:
    kv = KV_HEADS * HEAD_DIM
    result: dict[str, tuple[int, ...]] = {"token_embd.weight": (vocabulary, HIDDEN), "output_norm.weight": (HIDDEN,)}
    for i in range(LAYERS):
        for name, shape in {
            "attn_norm": (HIDDEN,), "attn_q": (HIDDEN, HIDDEN), "attn_k": (kv, HIDDEN), "attn_v": (kv, HIDDEN),
            "attn_output": (HIDDEN, HIDDEN), "ffn_norm": (HIDDEN,), "ffn_gate": (FEED_FORWARD, HIDDEN),
            "ffn_up": (FEED_FORWARD, HIDDEN), "ffn_down": (HIDDEN, FEED_FORWARD),
        }.items():
            result[f"blk.{i}.{name}.weight"] = shape
    return result


def write_tiny(path: Path, *, architecture: str = "llama", context: int = 64, heads: int = HEADS, leave_out: str = "",
               extra: str = "", pre: str = "smollm", untied: bool = False) -> dict[str, np.ndarray]:
    """Writes the file; gives its tensors."""
    from gguf import GGUFWriter

    rng = np.random.default_rng(11)
    tokens, kinds, merges = pieces()
    writer = GGUFWriter(path, architecture)
    writer.add_block_count(LAYERS)
    writer.add_context_length(context)
    writer.add_embedding_length(HIDDEN)
    writer.add_feed_forward_length(FEED_FORWARD)
    writer.add_head_count(heads)
    writer.add_head_count_kv(KV_HEADS)
    writer.add_layer_norm_rms_eps(1e-5)
    writer.add_rope_freq_base(10000.0)
    writer.add_tokenizer_model("gpt2")
    writer.add_tokenizer_pre(pre)
    writer.add_token_list(tokens)
    writer.add_token_types(kinds)
    writer.add_token_merges(merges)
    writer.add_eos_token_id(2)
    tensors = {}
    wanted = shapes(len(tokens))
    if untied:
        wanted["output.weight"] = wanted["token_embd.weight"]
    if extra:
        wanted[extra] = (HIDDEN,)
    for name, shape in wanted.items():
        if name == leave_out:
            continue
        scale = 0.1 if len(shape) == 2 else 0.02
        tensor = rng.normal(0 if len(shape) == 2 else 1, scale, shape).astype(np.float32)
        tensors[name] = tensor
        writer.add_tensor(name, tensor)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()
    return tensors
