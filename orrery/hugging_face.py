"""A Llama of a GGUF file as a model of `transformers`, and `orrery.attention` for its models."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import torch
from tqdm import tqdm

from orrery import functional, optional
from orrery.gguf_model import GGUFModel

if TYPE_CHECKING:
    from transformers import LlamaForCausalLM

# transformers' names of a layer's modules, by the ends of the GGUF file's names.
_MODULES = {
    "attn_norm": "input_layernorm",
    "attn_q": "self_attn.q_proj",
    "attn_k": "self_attn.k_proj",
    "attn_v": "self_attn.v_proj",
    "attn_output": "self_attn.o_proj",
    "ffn_norm": "post_attention_layernorm",
    "ffn_gate": "mlp.gate_proj",
    "ffn_up": "mlp.up_proj",
    "ffn_down": "mlp.down_proj",
}


def llama(file: GGUFModel) -> LlamaForCausalLM:
    """The model of a GGUF file in float32 on the CPU.

    transformers' own `from_pretrained(..., gguf_file=...)` needs the package accelerate.
    """
    with optional.extras():
        from transformers import LlamaConfig, LlamaForCausalLM
        from transformers.initialization import no_init_weights

    s, tied = file.sizes, "output.weight" not in file.stored
    config = LlamaConfig(
        vocab_size=s.vocabulary, hidden_size=s.hidden, intermediate_size=s.feed_forward, num_hidden_layers=s.layers,
        num_attention_heads=s.heads, num_key_value_heads=s.kv_heads, head_dim=s.head_dim,
        max_position_embeddings=s.context, rms_norm_eps=s.eps, tie_word_embeddings=tied,
        rope_parameters={"rope_type": "default", "rope_theta": s.rope_base},
        eos_token_id=list(file.vocabulary.stop), bos_token_id=None, pad_token_id=file.vocabulary.stop[0],
    )
    with no_init_weights():  # random numbers for every weight take longer than reading the file
        model = LlamaForCausalLM(config)
    model.tie_weights()
    names = {"token_embd": "model.embed_tokens", "output_norm": "model.norm", "output": "lm_head"}
    if tied:
        del names["output"]
    for layer in range(s.layers):
        names |= {f"blk.{layer}.{ours}": f"model.layers.{layer}.{theirs}" for ours, theirs in _MODULES.items()}
    with torch.no_grad():
        for ours, theirs in tqdm(names.items(), "reading the model", delay=2, mininterval=0.5):
            model.get_parameter(f"{theirs}.weight").copy_(file.rows(f"{ours}.weight"))
    return model.eval()


def register_attention(name: str = "orrery") -> None:
    """Makes `orrery.attention` an attention of transformers: `model.set_attn_implementation("orrery")` chooses it.

    It takes what `orrery.attention` takes, so heads of 64, 96 or 128 elements, and has no gradient.
    """
    with optional.extras():
        from transformers import AttentionInterface, AttentionMaskInterface
        from transformers.masking_utils import sdpa_mask

    AttentionInterface.register(name, _attention)
    AttentionMaskInterface.register(name, sdpa_mask)


def _attention(module: torch.nn.Module, query: torch.Tensor, key: torch.Tensor, value: torch.Tensor,
               attention_mask: torch.Tensor | None, scaling: float | None = None, dropout: float = 0.0,
               is_causal: bool | None = None, **others: Any) -> tuple[torch.Tensor, None]:
    """As transformers calls it: [batch, heads, rows, head size] to [batch, rows, heads, head size]."""
    wanted = [name for name in ("position_bias", "s_aux", "softcap") if others.get(name) is not None]
    if wanted or dropout:
        raise ValueError(f"orrery's attention has no {wanted[0] if wanted else 'dropout'}: choose 'sdpa' or 'eager'")
    rows, size = query.shape[2:]
    if is_causal is None:
        is_causal = getattr(module, "is_causal", True)
    causal = is_causal and attention_mask is None and rows > 1
    if causal and rows < key.shape[2]:
        # No mask: the rows are the first ones of a cache with room for more.
        key, value = key[:, :, :rows], value[:, :, :rows]
    if attention_mask is not None and attention_mask.dtype == torch.bool:
        # A row of padding sees no key. Its result would be NaN, which reaches the next layer's keys, so it sees all.
        attention_mask = attention_mask | ~attention_mask.any(-1, keepdim=True)
    if scaling is not None and scaling != size**-0.5:
        query = query * (scaling * size**0.5)
    result = functional.attention(query, key, value, attention_mask, causal)
    return result.transpose(1, 2), None
