"""The Llama layers on `orrery_ops`: tokens in, rows of logits out.

Weights stay quantized on the device, once. A token passes a layer in these steps: `rms_norm`; `forward_qkv`, which
makes query, key and value, turns the first two and puts the last two into the cache; `sdp` over the cache; the output
product; `rms_norm`; `mlp_forward_xpu`, which makes gate and up and multiplies them; the down product. Torch's own
operators add to the residual. Where a format or type has no such fused operation, its steps are taken one by one, in
Torch where there is no operator: `Model.refusals` says which and why.

A prompt takes the single steps with all its tokens as rows, behind whatever the cache holds already. `sdp` then gets
blocks of rows, each with the keys up to its last row and a mask that hides the later ones from the rows before it.

Rotary takes float32 whatever the type, as the fused projections do: with frequencies in half a prompt's keys would
stand 0.2 radians off at position 2000. With bfloat16 the products and norms run in bfloat16. Attention does not exist
in that type, so the cache holds float32 and the attention's result is rounded to bfloat16.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import NamedTuple

import orrery_ops
import torch

from orrery import OrreryError, fused
from orrery.formats import BLOCK, Format
from orrery.prepare import Prepared

# With float16 a product of 8 bits sums inputs times codes up to 127 before the block's scale is applied, in half. A
# model has single activations in the thousands in front of the down product (the bundled one 2400), so the input is
# made smaller and the result larger. The fused gated product rounds to half before that, which has room up to 65504.
HALF_DOWN_SCALE = 64
# The fused gated product's code for its activation.
SILU = 0

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
    """`qkv` is query, key and value or one matrix of all their rows, `gate_up` likewise."""

    attention_norm: torch.Tensor
    qkv: tuple[Weight, ...]
    out: Weight
    mlp_norm: torch.Tensor
    gate_up: tuple[Weight, ...]
    down: Weight

    def gate_and_up(self) -> Sequence[torch.Tensor]:
        """Both matrices by themselves. The rows of a joined block array can be taken apart without a copy."""
        return [w.data for w in self.gate_up] if len(self.gate_up) > 1 else self.gate_up[0].data.chunk(2)


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
        self._down_scale = HALF_DOWN_SCALE if dtype == torch.float16 else 1
        self._device = prepared.tensors["norm"].device
        self._read(prepared)
        fmt = self._layers[0].gate_up[0].format
        self.refusals = {
            "forward_qkv": fused.qkv_refusal(fmt, dtype, self._device),
            "mlp_forward_xpu": fused.mlp_refusal(fmt, dtype, self._device),
        }
        # Powers of one float, as in the fused projections. Each rounded on its own, they would differ from those by
        # 4e-4 radians at position 8000.
        theta = torch.tensor(sizes.rope_base ** (-2 / sizes.head_dim), dtype=torch.float32)
        powers = theta.double() ** torch.arange(sizes.head_dim // 2)
        self._inv_freq = powers.float().to(self._device)
        self._positions = torch.arange(capacity).view(1, capacity).to(self._device)
        self._allocate()

    def _read(self, prepared: Prepared) -> None:
        """The layers, the last norm, the output matrix and the embedding."""
        sizes, dtype, tensors = self.sizes, self._dtype, prepared.tensors
        pairs = {f: _reads_blocks_in_pairs(f, dtype, self._device) for f in set(prepared.formats.values())}
        query, key = sizes.heads * sizes.head_dim, sizes.kv_heads * sizes.head_dim
        self._qkv_rows, self._gate_up_rows = (query, key, key), (sizes.feed_forward, sizes.feed_forward)

        def weight(name: str, cols: int) -> Weight:
            fmt, data, padding = prepared.formats[name], tensors[name], 0
            if pairs[fmt] and cols // BLOCK % 2:
                data, padding = _padded(fmt, data, cols), BLOCK
            return Weight(data, fmt, padding, _takes_rows_together(fmt, data, cols + padding))

        def weights(layer: int, joined: str, *apart: str) -> tuple[Weight, ...]:
            names = apart if prepared.format.apart else (joined,)
            return tuple(weight(f"{layer}.{name}", sizes.hidden) for name in names)

        self._layers = [
            Layer(
                tensors[f"{i}.attention_norm"].to(dtype),
                weights(i, "qkv", "query", "key", "value"),
                weight(f"{i}.out", query),
                tensors[f"{i}.mlp_norm"].to(dtype),
                weights(i, "gate_up", "gate", "up"),
                weight(f"{i}.down", sizes.feed_forward),
            )
            for i in range(sizes.layers)
        ]
        self._norm = tensors["norm"].to(dtype)
        embedding = weight("embedding", sizes.hidden)
        self._head = weight("output", sizes.hidden) if "output" in tensors else embedding
        self._embedding = embedding.format
        self._rows = [p.view(sizes.vocabulary, -1, p.shape[1]) for p in self._embedding.planes(embedding.data)]

    def _allocate(self) -> None:
        """The cache, the row of heads of a step that is not fused, and the mask."""
        sizes, capacity, device = self.sizes, self.capacity, self._device
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
        eps, t = self.sizes.eps, self.position
        rms_norm, sdp, product = orrery_ops.rms_norm, orrery_ops.sdp, _product
        # The fused projections take the rows that are there and give the cache with one more.
        project, seen = (self._project, t + 1) if self.refusals["forward_qkv"] else (self._project_at_once, t)
        gate = self._gate if self.refusals["mlp_forward_xpu"] else self._gate_at_once
        widened, down_scale = self._attention_dtype != self._dtype, self._down_scale

        position = self._positions.narrow(1, t, 1)
        caches, rows = self._cache.narrow(3, 0, seen).unbind(0), self._cache_rows.select(2, t).unbind(0)

        x = self._embed([token])
        for layer, *cache in zip(self._layers, caches[::2], caches[1::2], rows):
            query, keys, values = project(layer, rms_norm(layer.attention_norm, x, eps), position, *cache)
            attention = sdp(query, keys, values, None).view(1, -1)
            if widened:
                attention = attention.to(self._dtype)
            x.add_(product(attention, layer.out))
            gated = gate(layer, rms_norm(layer.mlp_norm, x, eps))
            x.add_(product(gated, layer.down), alpha=down_scale)
        self.position = t + 1
        return product(rms_norm(self._norm, x, eps), self._head) if logits else None

    def _project_at_once(self, layer: Layer, x: torch.Tensor, position: torch.Tensor, keys: torch.Tensor,
                         values: torch.Tensor, row: torch.Tensor) -> Sequence[torch.Tensor]:
        """The query of one row, turned, and keys and values with their new row."""
        query, key, value = layer.qkv
        code = query.format.code
        return orrery_ops.forward_qkv(x, query.data, key.data, value.data, position, keys, values, code, code,
                                      self.position, self.sizes.head_dim, self.sizes.rope_base)

    def _project(self, layer: Layer, x: torch.Tensor, position: torch.Tensor, keys: torch.Tensor, values: torch.Tensor,
                 row: torch.Tensor) -> Sequence[torch.Tensor]:
        """The same one by one; the new key and value go into `row` of the cache."""
        self._heads.copy_(_joined(x, layer.qkv))
        orrery_ops.rotary_half_inplaced(self._inv_freq, position, self._query, self._key)
        row.copy_(self._key_value)
        query = self._query.half() if self._attention_dtype == torch.float16 else self._query
        return query, keys, values

    def _gate_at_once(self, layer: Layer, x: torch.Tensor) -> torch.Tensor:
        """SiLU(gate) times up of one row, divided by `_down_scale`."""
        gate, up = layer.gate_and_up()
        code, sizes = layer.gate_up[0].format.code, self.sizes
        gated = orrery_ops.mlp_forward_xpu(x, gate, up, 1, sizes.hidden, sizes.feed_forward, SILU, code)
        return gated if self._down_scale == 1 else gated.mul_(1 / self._down_scale)

    def _gate(self, layer: Layer, x: torch.Tensor) -> torch.Tensor:
        """The same one by one."""
        return self._gated(*_joined(x, layer.gate_up).chunk(2, 1))

    def _gated(self, gate: torch.Tensor, up: torch.Tensor) -> torch.Tensor:
        if self._down_scale != 1:
            up.mul_(1 / self._down_scale)
        return torch.nn.functional.silu(gate).mul_(up)

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
        eps, head_dim, n, t = self.sizes.eps, self.sizes.head_dim, len(tokens), self.position
        positions = self._positions.narrow(1, t, n)
        x = self._embed(tokens)
        for index, layer in enumerate(self._layers):
            qkv = _parts(orrery_ops.rms_norm(layer.attention_norm, x, eps), layer.qkv, self._qkv_rows)
            query, key, value = (part.float().view(1, n, -1, head_dim).transpose(1, 2) for part in qkv)
            orrery_ops.rotary_half_inplaced(self._inv_freq, positions, query, key)
            keys, values = self._cache[2 * index], self._cache[2 * index + 1]
            keys.narrow(2, t, n).copy_(key)
            values.narrow(2, t, n).copy_(value)
            attention = self._attend(query.to(self._attention_dtype), keys, values)
            x.add_(_product(attention.to(self._dtype), layer.out))
            gate_up = _parts(orrery_ops.rms_norm(layer.mlp_norm, x, eps), layer.gate_up, self._gate_up_rows)
            x.add_(_product(self._gated(*gate_up), layer.down), alpha=self._down_scale)
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


def _joined(x: torch.Tensor, weights: Sequence[Weight]) -> torch.Tensor:
    """The products with all weights side by side."""
    products = [_product(x, weight) for weight in weights]
    return products[0] if len(products) == 1 else torch.cat(products, 1)


def _parts(x: torch.Tensor, weights: Sequence[Weight], rows: tuple[int, ...]) -> Sequence[torch.Tensor]:
    """The products with each of the weights, or the parts of that with one that joins so many rows of each."""
    products = [_product(x, weight) for weight in weights]
    return products[0].split(rows, 1) if len(products) == 1 else products


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
