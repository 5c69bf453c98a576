"""The Llama layers on `orrery_ops`: one token in, one row of logits out.

Weights stay quantized on the device, once. A token passes a layer in these steps: `rms_norm`, one product for query, key
and value, rotary in place, key and value into the cache, `sdp` over the cache, the output product, and the gated MLP of
two products. Torch's own operators on the device do the rest: the two residual sums, SiLU times up, the cache row.

With bfloat16 the products and norms run in bfloat16. Rotary and attention do not exist in that type, so query, key and
value are widened to float32 for them, the cache holds float32, and the attention's result is rounded to bfloat16.
"""

from __future__ import annotations

from typing import NamedTuple

import orrery_ops
import torch

from orrery import OrreryError
from orrery.formats import BLOCK, Format
from orrery.prepare import Prepared

# With float16 a product of 8 bits sums inputs times codes up to 127 before the block's scale is applied, in half. A model
# has single activations in the thousands in front of the down product, so the input is made smaller and the result larger.
HALF_SCALE = 1 / 64

DTYPES = {"float32": torch.float32, "float16": torch.float16, "bfloat16": torch.bfloat16}


class Weight(NamedTuple):
    """A quantized matrix; `padding` zero elements are to be put behind each input row."""

    data: torch.Tensor
    padding: int


class Layer(NamedTuple):
    attention_norm: torch.Tensor
    qkv: Weight
    out: Weight
    mlp_norm: torch.Tensor
    gate_up: Weight
    down: Weight


class Model:
    """A model with a key/value cache of `capacity` tokens."""

    def __init__(self, prepared: Prepared, dtype: torch.dtype, capacity: int) -> None:
        sizes = self.sizes = prepared.sizes
        if capacity > sizes.context:
            raise OrreryError(f"{capacity} tokens do not fit into the model's context of {sizes.context}")
        self.capacity = capacity
        self.position = 0
        self._format = prepared.format
        self._dtype = dtype
        self._attention_dtype = torch.float32 if dtype == torch.bfloat16 else dtype
        tensors = prepared.tensors
        device = tensors["norm"].device
        even = _reads_blocks_in_pairs(prepared.format, dtype, device)

        def weight(name: str, cols: int) -> Weight:
            return _padded(prepared.format, tensors[name], cols) if even and cols // BLOCK % 2 else Weight(tensors[name], 0)

        query = sizes.heads * sizes.head_dim
        self._layers = [
            Layer(
                tensors[f"{i}.attention_norm"].to(dtype),
                weight(f"{i}.qkv", sizes.hidden),
                weight(f"{i}.out", query),
                tensors[f"{i}.mlp_norm"].to(dtype),
                weight(f"{i}.gate_up", sizes.hidden),
                weight(f"{i}.down", sizes.feed_forward),
            )
            for i in range(sizes.layers)
        ]
        self._norm = tensors["norm"].to(dtype)
        embedding = weight("embedding", sizes.hidden)
        self._head = weight("output", sizes.hidden) if "output" in tensors else embedding
        blocks = (sizes.hidden + embedding.padding) // BLOCK
        self._rows = [plane.view(sizes.vocabulary, blocks, plane.shape[1]) for plane in self._format.planes(embedding.data)]

        exponents = torch.arange(0, sizes.head_dim, 2, dtype=torch.float64) / sizes.head_dim
        self._inv_freq = (sizes.rope_base**-exponents).to(self._attention_dtype).to(device)
        self._positions = torch.arange(capacity).view(1, capacity).to(device)
        # Each head's rows are packed, so the first t rows of every head are one strided view that `sdp` takes as it is.
        cache = torch.empty(sizes.layers, 2 * sizes.kv_heads, capacity, sizes.head_dim, dtype=self._attention_dtype,
                            device=device)
        self._cache_rows = cache
        self._cache = cache.view(2 * sizes.layers, 1, sizes.kv_heads, capacity, sizes.head_dim)
        # One row of query, key and value heads and its views: a copy into it costs 1 us, making the views anew 6 us.
        all_heads = sizes.heads + 2 * sizes.kv_heads
        self._heads = torch.empty(1, all_heads * sizes.head_dim, dtype=self._attention_dtype, device=device)
        heads = self._heads.view(1, all_heads, 1, sizes.head_dim)
        self._query, self._key = heads[:, : sizes.heads], heads[:, sizes.heads : sizes.heads + sizes.kv_heads]
        self._key_value = heads[0, sizes.heads :, 0]

    def rewind(self, position: int) -> None:
        """Forgets all tokens from `position` on."""
        self.position = min(self.position, position)

    @torch.inference_mode()
    def step(self, token: int, logits: bool = True) -> torch.Tensor | None:
        """Takes the next token of the text; gives the logits [1, vocabulary] of the one that follows, if asked to."""
        if self.position >= self.capacity:
            raise OrreryError(f"the context of {self.capacity} tokens is full")
        code, eps = self._format.code, self.sizes.eps
        forward_new, rms_norm, sdp = orrery_ops.forward_new, orrery_ops.rms_norm, orrery_ops.sdp
        rotary, silu_ = orrery_ops.rotary_two_inplaced, torch._C._nn.silu_
        half, widened = self._dtype == torch.float16, self._attention_dtype != self._dtype

        t = self.position
        position = self._positions.narrow(1, t, 1)
        cache_rows = self._cache_rows.select(2, t).unbind(0)
        caches = self._cache.narrow(3, 0, t + 1).unbind(0)

        def product(x: torch.Tensor, weight: Weight) -> torch.Tensor:
            if weight.padding:
                x = torch.nn.functional.pad(x, (0, weight.padding))
            return forward_new(x, weight.data, code, 1)

        x = self._embed(token)
        for layer, cache_row, keys, values in zip(self._layers, cache_rows, caches[::2], caches[1::2]):
            self._heads.copy_(product(rms_norm(layer.attention_norm, x, eps), layer.qkv))
            rotary(self._inv_freq, position, self._query, self._key)
            cache_row.copy_(self._key_value)
            attention = sdp(self._query, keys, values, None).view(1, -1)
            if widened:
                attention = attention.to(self._dtype)
            x.add_(product(attention, layer.out))
            gate, up = product(rms_norm(layer.mlp_norm, x, eps), layer.gate_up).chunk(2, 1)
            if half:
                up.mul_(HALF_SCALE)
            change = product(silu_(gate).mul_(up), layer.down)
            if half:
                change.mul_(1 / HALF_SCALE)
            x.add_(change)
        self.position = t + 1
        return product(rms_norm(self._norm, x, eps), self._head) if logits else None

    def _embed(self, token: int) -> torch.Tensor:
        """The token's row of the quantized embedding as values; there is no second copy of that matrix."""
        quants, scales = self._rows
        row = self._format.decode(quants[token], scales[token]).view(1, -1)
        return row[:, : self.sizes.hidden].to(self._dtype, copy=True)


def _padded(fmt: Format, data: torch.Tensor, cols: int) -> Weight:
    row_bytes = cols // BLOCK * fmt.block_bytes
    rows = torch.nn.functional.pad(data.view(-1, row_bytes), (0, fmt.block_bytes))
    return Weight(rows.view(-1), BLOCK)


def _reads_blocks_in_pairs(fmt: Format, dtype: torch.dtype, device: torch.device) -> bool:
    """Whether this device's kernel of a block-array format takes two blocks of a row at a time, without a tail.

    Such a kernel adds the next row's first block to a row of an odd number of blocks, so those rows need a zero block
    behind them. Which kernel runs depends on the kind of device, so it is tried: row 0 is zeros, row 1 is not.
    """
    if fmt.split:
        return False
    weight = torch.zeros(2, 3, fmt.block_bytes, dtype=torch.uint8)
    weight[1] = fmt.encode(torch.ones(3, BLOCK))[0]
    ones = torch.ones(1, 4 * BLOCK, dtype=dtype, device=device)
    result = orrery_ops.forward_new(ones[:, : 3 * BLOCK], weight.view(-1).to(device), fmt.code, 1)
    return result.float().cpu()[0, 0].item() != 0
