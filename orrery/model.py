"""The Llama layers on `orrery_ops`: tokens in, rows of logits out.

Weights stay quantized on the device, once. A token passes a layer in these steps: `rms_norm`, one product for query, key
and value, rotary in place, key and value into the cache, `sdp` over the cache, the output product, and the gated MLP of
two products. Torch's own operators on the device do the rest: the two residual sums, SiLU times up, the cache row.

A prompt takes the same steps with all its tokens as rows, behind whatever the cache holds already. `sdp` then gets
blocks of rows, each with the keys up to its last row and a mask that hides the later ones from the rows before it.

Rotary takes float32 whatever the type, as the fused projections do: with frequencies in half a prompt's keys would stand
0.2 radians off at position 2000. With bfloat16 the products and norms run in bfloat16. Attention does not exist in that
type, so the cache holds float32 and the attention's result is rounded to bfloat16.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
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


# Tokens of a prompt that go through the layers together. More rows share one expansion of a weight to floats, fewer
# need less memory for activations.
PASS_ROWS = 512
# Query rows of one attention call. A row walks over all keys that the call is given, those hidden by the mask too: with
# 32 rows per call, a prompt of 256 tokens costs 36864 steps per head instead of 65536.
ATTENTION_ROWS = 32
# Rows of logits made together, each a whole vocabulary.
LOGIT_ROWS = 256


class Weight(NamedTuple):
    """A quantized matrix; `padding` zero elements are to be put behind each input row.

    `together` says whether several input rows may go through it at once.
    """

    data: torch.Tensor
    format: Format
    padding: int
    together: bool


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
        self._dtype = dtype
        self._attention_dtype = torch.float32 if dtype == torch.bfloat16 else dtype
        tensors = prepared.tensors
        device = self._device = tensors["norm"].device
        pairs = {f: _reads_blocks_in_pairs(f, dtype, device) for f in set(prepared.formats.values())}

        def weight(name: str, cols: int) -> Weight:
            fmt, data, padding = prepared.formats[name], tensors[name], 0
            if pairs[fmt] and cols // BLOCK % 2:
                data, padding = _padded(fmt, data, cols), BLOCK
            return Weight(data, fmt, padding, _takes_rows_together(fmt, data, cols + padding))

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
        self._embedding = embedding.format
        self._rows = [p.view(sizes.vocabulary, -1, p.shape[1]) for p in self._embedding.planes(embedding.data)]

        # Powers of one float, as in the fused projections. Each rounded on its own, they would differ from those by 4e-4
        # radians at position 8000.
        theta = torch.tensor(sizes.rope_base ** (-2 / sizes.head_dim), dtype=torch.float32)
        powers = theta.double() ** torch.arange(sizes.head_dim // 2)
        self._inv_freq = powers.float().to(device)
        self._positions = torch.arange(capacity).view(1, capacity).to(device)
        # Each head's rows are packed, so the first t rows of every head are one strided view that `sdp` takes as it is.
        cache = torch.empty(sizes.layers, 2 * sizes.kv_heads, capacity, sizes.head_dim, dtype=self._attention_dtype,
                            device=device)
        self._cache_rows = cache
        self._cache = cache.view(2 * sizes.layers, 1, sizes.kv_heads, capacity, sizes.head_dim)
        # One row of query, key and value heads and its views: a copy into it costs 1 us, making the views anew 6 us.
        all_heads = sizes.heads + 2 * sizes.kv_heads
        self._heads = torch.empty(1, all_heads * sizes.head_dim, dtype=torch.float32, device=device)
        heads = self._heads.view(1, all_heads, 1, sizes.head_dim)
        self._query, self._key = heads[:, : sizes.heads], heads[:, sizes.heads : sizes.heads + sizes.kv_heads]
        self._key_value = heads[0, sizes.heads :, 0]
        # Row i of a block of queries sees the keys before the block and i + 1 of its own; the columns in front of the
        # last ATTENTION_ROWS are as many of the keys before it as there are.
        hidden = torch.full((ATTENTION_ROWS, ATTENTION_ROWS), float("-inf")).triu(1)
        mask = torch.nn.functional.pad(hidden, (capacity, 0)).to(self._attention_dtype)
        self._mask = mask.view(1, 1, *mask.shape).to(device)

    def rewind(self, position: int) -> None:
        """Forgets all tokens from `position` on."""
        self.position = min(self.position, position)

    @torch.inference_mode()
    def step(self, token: int, logits: bool = True) -> torch.Tensor | None:
        """Takes the next token of the text; gives the logits [1, vocabulary] of the one that follows, if asked to."""
        self._check_room(1)
        eps = self.sizes.eps
        rms_norm, sdp, product = orrery_ops.rms_norm, orrery_ops.sdp, _product
        rotary, silu_ = orrery_ops.rotary_half_inplaced, torch._C._nn.silu_
        half, widened = self._dtype == torch.float16, self._attention_dtype != self._dtype

        t = self.position
        position = self._positions.narrow(1, t, 1)
        cache_rows = self._cache_rows.select(2, t).unbind(0)
        caches = self._cache.narrow(3, 0, t + 1).unbind(0)

        x = self._embed([token])
        for layer, cache_row, keys, values in zip(self._layers, cache_rows, caches[::2], caches[1::2]):
            self._heads.copy_(product(rms_norm(layer.attention_norm, x, eps), layer.qkv))
            rotary(self._inv_freq, position, self._query, self._key)
            cache_row.copy_(self._key_value)
            query = self._query.to(torch.float16) if half else self._query
            attention = sdp(query, keys, values, None).view(1, -1)
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

    @torch.inference_mode()
    def forward(self, tokens: Sequence[int]) -> torch.Tensor:
        """Takes the next tokens of the text together; gives the logits [1, vocabulary] of the one that follows."""
        for x in self._passes(tokens):
            last = x[-1:]
        return _product(orrery_ops.rms_norm(self._norm, last, self.sizes.eps), self._head)

    @torch.inference_mode()
    def logits(self, tokens: Sequence[int]) -> Iterator[torch.Tensor]:
        """Takes the next tokens of the text together; yields the logits behind each of them, some rows at a time."""
        for x in self._passes(tokens):
            for part in x.split(LOGIT_ROWS):
                yield _product(orrery_ops.rms_norm(self._norm, part.contiguous(), self.sizes.eps), self._head)

    def _check_room(self, tokens: int) -> None:
        if self.position + tokens > self.capacity:
            raise OrreryError(f"the context of {self.capacity} tokens is full")

    def _passes(self, tokens: Sequence[int]) -> Iterator[torch.Tensor]:
        """The rows behind the last layer, of PASS_ROWS tokens at a time."""
        self._check_room(len(tokens))
        for first in range(0, len(tokens), PASS_ROWS):
            yield self._pass(tokens[first : first + PASS_ROWS])

    def _pass(self, tokens: Sequence[int]) -> torch.Tensor:
        eps, n, t = self.sizes.eps, len(tokens), self.position
        half = self._dtype == torch.float16
        positions = self._positions.narrow(1, t, n)
        x = self._embed(tokens)
        for index, layer in enumerate(self._layers):
            qkv = _product(orrery_ops.rms_norm(layer.attention_norm, x, eps), layer.qkv).float()
            heads = qkv.view(1, n, -1, self.sizes.head_dim).transpose(1, 2)
            query, key, _ = heads.split((self.sizes.heads, self.sizes.kv_heads, self.sizes.kv_heads), 1)
            orrery_ops.rotary_half_inplaced(self._inv_freq, positions, query, key)
            self._cache_rows[index].narrow(1, t, n).copy_(heads[0, self.sizes.heads :])
            attention = self._attend(query.to(self._attention_dtype), self._cache[2 * index], self._cache[2 * index + 1])
            x.add_(_product(attention.to(self._dtype), layer.out))
            gate, up = _product(orrery_ops.rms_norm(layer.mlp_norm, x, eps), layer.gate_up).chunk(2, 1)
            if half:
                up.mul_(HALF_SCALE)
            change = _product(torch.nn.functional.silu(gate).mul_(up), layer.down)
            if half:
                change.mul_(1 / HALF_SCALE)
            x.add_(change)
        self.position = t + n
        return x

    def _attend(self, query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor) -> torch.Tensor:
        """Attention [n, heads * head size] of the tokens behind the cache's first `position`."""
        _, heads, n, size = query.shape
        result = torch.empty(1, n, heads, size, dtype=query.dtype, device=query.device)
        for first in range(0, n, ATTENTION_ROWS):
            rows = min(ATTENTION_ROWS, n - first)
            before = self.position + first
            seen = (t.narrow(2, 0, before + rows) for t in (keys, values))
            mask = self._mask[:, :, :rows].narrow(3, self.capacity - before, before + rows)
            part = orrery_ops.sdp(query.narrow(2, first, rows), *seen, mask)
            result.narrow(1, first, rows).copy_(part.transpose(1, 2))
        return result.view(n, -1)

    def _embed(self, tokens: Sequence[int]) -> torch.Tensor:
        """The tokens' rows of the quantized embedding as values; there is no second copy of that matrix."""
        if len(tokens) == 1:
            planes = [plane[tokens[0]] for plane in self._rows]
        else:
            index = torch.tensor(tokens, device=self._device)
            planes = [plane[index].flatten(0, 1) for plane in self._rows]
        rows = self._embedding.decode(*planes).view(len(tokens), -1)
        return rows[:, : self.sizes.hidden].to(self._dtype, copy=True, memory_format=torch.contiguous_format)


def _product(x: torch.Tensor, weight: Weight) -> torch.Tensor:
    if weight.padding:
        x = torch.nn.functional.pad(x, (0, weight.padding))
    if x.shape[0] == 1:
        return orrery_ops.forward_new(x, weight.data, weight.format.code, 1)
    return _rows_product(x, weight)


def _rows_product(x: torch.Tensor, weight: Weight) -> torch.Tensor:
    code, rows = weight.format.code, x.shape[0]
    if weight.together:
        # For several rows fp6 exists in half and float only.
        given = x.float() if weight.format.name == "fp6" and x.dtype == torch.bfloat16 else x
        return orrery_ops.forward_new(given, weight.data, code, rows).to(x.dtype)
    return torch.cat([orrery_ops.forward_new(row, weight.data, code, 1) for row in x.split(1)])


def _takes_rows_together(fmt: Format, data: torch.Tensor, cols: int) -> bool:
    """Whether all kernels for several input rows are right for this matrix.

    Some take the rows of a matrix in pairs and leave out a last single one. Some expand eight blocks at a time, and end
    the process where blocks are left over.
    """
    blocks = data.numel() // fmt.block_bytes
    rows = blocks * fmt.elements // cols
    return rows % 2 == 0 and (blocks % 8 == 0 or fmt.elements != BLOCK)


def _padded(fmt: Format, data: torch.Tensor, cols: int) -> torch.Tensor:
    """A block array with a zero block behind each row."""
    row_bytes = cols // BLOCK * fmt.block_bytes
    return torch.nn.functional.pad(data.view(-1, row_bytes), (0, fmt.block_bytes)).view(-1)


def _reads_blocks_in_pairs(fmt: Format, dtype: torch.dtype, device: torch.device) -> bool:
    """Whether this device's kernel of a block-array format takes two blocks of a row at a time, without a tail.

    Such a kernel adds the next row's first block to a row of an odd number of blocks, so those rows need a zero block
    behind them. Which kernel runs depends on the kind of device, so it is tried: row 0 is zeros, row 1 is not.
    """
    if fmt.split or fmt.elements != BLOCK:
        return False
    weight = torch.zeros(2, 3, fmt.block_bytes, dtype=torch.uint8)
    weight[1] = fmt.encode(torch.ones(3, BLOCK))[0]
    ones = torch.ones(1, 4 * BLOCK, dtype=dtype, device=device)
    result = orrery_ops.forward_new(ones[:, : 3 * BLOCK], weight.view(-1).to(device), fmt.code, 1)
    return result.float().cpu()[0, 0].item() != 0
