"""An independent Llama: transformers' own, in float32 on the CPU, fed with any matrices under the file's names."""

from __future__ import annotations

import math
from collections.abc import Callable
from pathlib import Path

import numpy as np
import torch


def halves(matrix: torch.Tensor, heads: int) -> torch.Tensor:
    """Rows of a query or key matrix from even-odd pairs, as in a GGUF file, to two halves a head."""
    rows, cols = matrix.shape
    return matrix.view(heads, rows // heads // 2, 2, cols).transpose(1, 2).reshape(rows, cols)


def byte_code(x: torch.Tensor, offset: int) -> np.ndarray:
    """What a one-byte cache keeps of float32 values, in its bytes: the sign, and the exponent and the upper three
    mantissa bits of a half, less an offset, which is 48 for keys and 24 for values."""
    with np.errstate(over="ignore"):
        bits = x.numpy().astype(np.float16).view(np.uint16)
    code = np.clip((bits & 0x7FFF) >> 7, offset, offset + 127) - offset
    return (bits >> 8 & 128 | code).astype(np.uint8)


def byte_value(code: np.ndarray, offset: int) -> torch.Tensor:
    """The value of a byte, in the middle of what is coded by it."""
    bits = (code & 128).astype(np.uint16) << 8 | (code & 127).astype(np.uint16) + offset << 7 | 0x40
    return torch.from_numpy(bits.view(np.float16).astype(np.float32))


def one_byte_cache():
    """A cache for `ReferenceLlama` that keeps a byte per element."""
    from transformers import DynamicCache

    class OneByteCache(DynamicCache):
        def update(self, key, value, *rest, **others):
            key, value = (byte_value(byte_code(x, offset), offset) for x, offset in ((key, 48), (value, 24)))
            return super().update(key, value, *rest, **others)

    return OneByteCache()


class ReferenceLlama:
    """Give it matrices with `load` or `load_file`, then ask for logits."""

    def __init__(self, sizes) -> None:
        from transformers import LlamaConfig, LlamaForCausalLM

        self.sizes = sizes
        config = LlamaConfig(
            vocab_size=sizes.vocabulary, hidden_size=sizes.hidden, intermediate_size=sizes.feed_forward,
            num_hidden_layers=sizes.layers, num_attention_heads=sizes.heads, num_key_value_heads=sizes.kv_heads,
            head_dim=sizes.head_dim, max_position_embeddings=sizes.context, rms_norm_eps=sizes.eps,
            rope_parameters={"rope_type": "default", "rope_theta": sizes.rope_base}, tie_word_embeddings=True,
            attention_bias=False, mlp_bias=False,
        )
        self.model = LlamaForCausalLM(config).eval().float()

    def load(self, matrix: Callable[[str], torch.Tensor]) -> None:
        """Takes every tensor from `matrix`, called with its name in the GGUF file; query and key in two halves a head."""
        s = self.sizes
        state = {"model.embed_tokens.weight": matrix("token_embd.weight"), "model.norm.weight": matrix("output_norm.weight")}
        for i in range(s.layers):
            ours, theirs = f"blk.{i}.", f"model.layers.{i}."
            state |= {
                theirs + "input_layernorm.weight": matrix(ours + "attn_norm.weight"),
                theirs + "self_attn.q_proj.weight": matrix(ours + "attn_q.weight"),
                theirs + "self_attn.k_proj.weight": matrix(ours + "attn_k.weight"),
                theirs + "self_attn.v_proj.weight": matrix(ours + "attn_v.weight"),
                theirs + "self_attn.o_proj.weight": matrix(ours + "attn_output.weight"),
                theirs + "post_attention_layernorm.weight": matrix(ours + "ffn_norm.weight"),
                theirs + "mlp.gate_proj.weight": matrix(ours + "ffn_gate.weight"),
                theirs + "mlp.up_proj.weight": matrix(ours + "ffn_up.weight"),
                theirs + "mlp.down_proj.weight": matrix(ours + "ffn_down.weight"),
            }
        missing, unexpected = self.model.load_state_dict(state, strict=False)
        assert not unexpected and set(missing) <= {"lm_head.weight"}, (missing, unexpected)

    def load_file(self, path: Path) -> None:
        """Takes the tensors of a GGUF file, read with the gguf package alone."""
        from gguf import GGUFReader
        from gguf.quants import dequantize

        tensors = {tensor.name: tensor for tensor in GGUFReader(path).tensors}
        heads = {"attn_q": self.sizes.heads, "attn_k": self.sizes.kv_heads}

        def matrix(name: str) -> torch.Tensor:
            tensor = tensors[name]
            values = dequantize(tensor.data, tensor.tensor_type).astype(np.float32)
            values = torch.from_numpy(values).view(*map(int, reversed(tensor.shape)))
            rotated = heads.get(name.split(".")[-2])
            return halves(values, rotated) if rotated else values

        self.load(matrix)

    @torch.inference_mode()
    def logits(self, tokens: list[int], cache=None) -> torch.Tensor:
        """Logits [len(tokens), vocabulary]. What attention sees goes through `cache` if there is one."""
        given = {} if cache is None else {"past_key_values": cache}
        return self.model(torch.tensor([tokens]), use_cache=cache is not None, **given).logits[0]

    def perplexity(self, tokens: list[int], window: int) -> float:
        """Over the same windows as the runner's."""
        loss, count = 0.0, 0
        for first in range(0, len(tokens), window):
            part = tokens[first : first + window]
            if len(part) > 1:
                loss += torch.nn.functional.cross_entropy(self.logits(part[:-1]), torch.tensor(part[1:]), reduction="sum").item()
                count += len(part) - 1
        return math.exp(loss / count)
