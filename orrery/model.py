"""The Llama layers on `orrery_ops`: tokens in, rows of logits out.

Weights stay quantized on the device, once. A token passes a layer in these steps: `rms_norm`; `forward_qkv`, which
makes query, key and value, rotates the first two and puts the last two into the cache; `sdp` over the cache; the output
product; `rms_norm`; `mlp_forward_xpu`, which makes gate and up and multiplies them; the down product. Torch's own
operators add to the residual. Where a format or type has no such fused operation, its steps are taken one by one, in
Torch where there is no operator: `Model.refusals` says which and why.

A prompt takes the single steps with all its tokens as rows. `sdp_causal` attends over the first tokens of a text.
Tokens after others go to `sdp` in blocks of rows, each with the keys up to its last row and a mask that hides the
later ones from the rows before it. Attention reads what the cache holds, so with one byte per element steps and prompts
see the same keys and values.

Rotary takes float32 whatever the type, as the fused projections do: with frequencies in half a prompt's keys would
stand 0.2 radians off at position 2000. With bfloat16 the products and norms run in bfloat16. Attention does not exist
in that type, so the cache holds float32 and the attention's result is rounded to bfloat16.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from typing import NamedTuple

import orrery_ops
import torch

from orrery import OrreryError, fused, kv_cache, precision
from orrery.formats import Format
from orrery.kv_cache import Place
from orrery.prepare import Prepared

# With float16 a product of 8 bits sums inputs times codes up to 127 before the block's scale is applied, in half. A
# model has single activations in the thousands in front of the down product (the bundled one 2400), so the input is
# made smaller and the result larger. The fused gated product rounds to half before that, which has room up to 65504.
HALF_DOWN_SCALE = 64
# The fused gated product's code for its activation.
SILU = 0

DTYPES = {"float32": torch.float32, "float16": torch.float16, "bfloat16": torch.bfloat16}

# Rows of a prompt in one product. More rows share one expansion of a weight to floats, fewer need less memory.
PRODUCT_ROWS = 1024
# Query rows of one attention call with a mask. A row walks over all keys that the call is given, those hidden by the
# mask too: with 32 rows per call, 256 tokens cost 36864 steps per head instead of 65536.
ATTENTION_ROWS = 32
# Rows of logits made together, each a whole vocabulary.
LOGIT_ROWS = 256


class Weight(NamedTuple):
    """A quantized matrix; `padding` zero elements are to be added after each input row.

    `together` says whether several input rows may go through it at once: the bytes have no padding of rows, which
    some kernels for several rows need.
    """

    data: torch.Tensor
    format: Format
    padding: int
    together: bool


class Layer(NamedTuple):
    """`qkv` is query, key and value or one matrix of all their rows, `gate_up` likewise.

    `qkv_bytes` are those of `qkv`. `gate_and_up` are the bytes of both matrices by themselves: the rows of a joined
    block array can be taken apart without a copy.
    """

    attention_norm: torch.Tensor
    qkv: tuple[Weight, ...]
    qkv_bytes: Sequence[torch.Tensor]
    out: Weight
    mlp_norm: torch.Tensor
    gate_up: tuple[Weight, ...]
    gate_and_up: Sequence[torch.Tensor]
    down: Weight


class Model:
    """A model with a key/value cache of `capacity` tokens, of the kind that `kv_cache.KINDS` has under that name.

    `prompt_precision` is one of `precision.PRECISIONS`. It counts where several tokens go through a weight together and
    PyTorch multiplies them.
    """

    def __init__(self, prepared: Prepared, dtype: torch.dtype, capacity: int, cache: str = "plain",
                 prompt_precision: str = "float32") -> None:
        sizes = self.sizes = prepared.sizes
        precision.check(prompt_precision, str(dtype).removeprefix("torch."))
        if capacity > sizes.context:
            raise OrreryError(f"{capacity} tokens do not fit into the model's context of {sizes.context}")
        self.capacity = capacity
        self.position = 0
        self._dtype, self._prompt_precision = dtype, prompt_precision
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
        self._cosines, self._sines = self._angles()
        self.cache = kv_cache.KINDS[cache](sizes, capacity, self._attention_dtype, self._device)
        self._allocate()

    def _read(self, prepared: Prepared) -> None:
        """The layers, the last norm, the output matrix and the embedding."""
        sizes, dtype, tensors = self.sizes, self._dtype, prepared.tensors
        query, key = sizes.heads * sizes.head_dim, sizes.kv_heads * sizes.head_dim
        self._qkv_rows, self._gate_up_rows = (query, key, key), (sizes.feed_forward, sizes.feed_forward)

        def weight(name: str, cols: int) -> Weight:
            fmt, data = prepared.formats[name], tensors[name]
            rows = data.numel() // fmt.size(1, cols)
            stored = fmt.stored_size(rows, cols, any_device=False)
            padding = stored[1] - cols
            if padding:
                data = _padded(fmt, data, cols, padding)
            return Weight(data, fmt, padding, stored[0] == rows)

        def weights(layer: int, joined: str, *apart: str) -> tuple[Weight, ...]:
            names = apart if prepared.format.apart else (joined,)
            return tuple(weight(f"{layer}.{name}", sizes.hidden) for name in names)

        def layer(i: int) -> Layer:
            qkv, gate_up = weights(i, "qkv", "query", "key", "value"), weights(i, "gate_up", "gate", "up")
            return Layer(
                tensors[f"{i}.attention_norm"].to(dtype),
                qkv,
                [w.data for w in qkv],
                weight(f"{i}.out", query),
                tensors[f"{i}.mlp_norm"].to(dtype),
                gate_up,
                [w.data for w in gate_up] if len(gate_up) > 1 else gate_up[0].data.chunk(2),
                weight(f"{i}.down", sizes.feed_forward),
            )

        self._layers = [layer(i) for i in range(sizes.layers)]
        self._norm = tensors["norm"].to(dtype)
        embedding = weight("embedding", sizes.hidden)
        self._head = weight("output", sizes.hidden) if "output" in tensors else embedding
        self._embedding = embedding.format
        self._rows = [p.view(sizes.vocabulary, -1, p.shape[1]) for p in self._embedding.planes(embedding.data)]

    def _allocate(self) -> None:
        """The row of heads of a step that is not fused, and the mask."""
        sizes, capacity, device = self.sizes, self.capacity, self._device
        # One row of query, key and value heads and its views: a copy into it costs 1 us, making the views anew 6 us.
        all_heads = sizes.heads + 2 * sizes.kv_heads
        self._heads = torch.empty(1, all_heads * sizes.head_dim, dtype=torch.float32, device=device)
        heads = self._heads.view(1, all_heads, 1, sizes.head_dim)
        self._query, self._key = heads[:, : sizes.heads], heads[:, sizes.heads : sizes.heads + sizes.kv_heads]
        self._key_value = heads[:, sizes.heads :]
        # Row i of a block of queries sees the keys before the block and i + 1 of its own; the columns in front of the
        # last ATTENTION_ROWS are as many of the keys before it as there are.
        hidden = torch.full((ATTENTION_ROWS, ATTENTION_ROWS), float("-inf")).triu(1)
        mask = torch.nn.functional.pad(hidden, (capacity, 0)).to(self._attention_dtype)
        self._mask = mask.view(1, 1, *mask.shape).to(device)

    def _angles(self) -> tuple[torch.Tensor, torch.Tensor]:
        """Cosines and sines of all positions, in the first half of each row; the second one is never read.

        They are those of `rotary_half_inplaced`, which turns (1, 0) into (cosine, sine). Made anew in every layer and
        head they took a prompt of 256 tokens 10 ms, and reading them takes 2.
        """
        capacity, size = self.capacity, self.sizes.head_dim
        rows = torch.zeros(1, 1, capacity + 1, size, dtype=torch.float32, device=self._device)
        rows[..., : size // 2] = 1
        ones = rows.narrow(2, 0, capacity)
        orrery_ops.rotary_half_inplaced(self._inv_freq, self._positions, ones, ones[:, :0])
        return ones, rows.view(-1).narrow(0, size // 2, capacity * size).view_as(ones)

    def rewind(self, position: int) -> None:
        """Forgets all tokens from `position` on."""
        self.position = min(self.position, position)

    @torch.inference_mode()
    def step(self, token: int, logits: bool = True) -> torch.Tensor | None:
        """Takes the next token of the text; gives the logits [1, vocabulary] of the one that follows, if asked to."""
        self._check_room(1)
        eps, t = self.sizes.eps, self.position
        rms_norm, attend, product = orrery_ops.rms_norm, self.cache.attend, _row_product
        at_once = not self.refusals["forward_qkv"]
        project = self._project_at_once if at_once else self._project
        gate = self._gate if self.refusals["mlp_forward_xpu"] else self._gate_at_once
        widened, down_scale = self._attention_dtype != self._dtype, self._down_scale

        position = self._positions.narrow(1, t, 1)
        x = self._embed([token])
        for layer, place in zip(self._layers, self.cache.places(t, at_once)):
            query, keys, values = project(layer, rms_norm(layer.attention_norm, x, eps), position, place)
            attention = attend(query, keys, values).view(1, -1)
            if widened:
                attention = attention.to(self._dtype)
            x.add_(product(attention, layer.out))
            gated = gate(layer, rms_norm(layer.mlp_norm, x, eps))
            x.add_(product(gated, layer.down), alpha=down_scale)
        self.position = t + 1
        return product(rms_norm(self._norm, x, eps), self._head) if logits else None

    def _project_at_once(self, layer: Layer, x: torch.Tensor, position: torch.Tensor,
                         place: Place) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """The query of one row, rotated, and keys and values with their new row."""
        code, sizes = layer.qkv[0].format.code, self.sizes
        keys, values, rows = self.cache.target(place, self.position)
        query, key, value = orrery_ops.forward_qkv(x, *layer.qkv_bytes, position, keys, values, code, code, rows,
                                                   sizes.head_dim, sizes.rope_base)
        return query, *self.cache.keep(place, key, value)

    def _project(self, layer: Layer, x: torch.Tensor, position: torch.Tensor,
                 place: Place) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """The same one by one."""
        self._heads.copy_(_row_joined(x, layer.qkv))
        orrery_ops.rotary_half_inplaced(self._inv_freq, position, self._query, self._key)
        query = self._query.half() if self._attention_dtype == torch.float16 else self._query
        return query, *self.cache.put(place, self._key_value)

    def _gate_at_once(self, layer: Layer, x: torch.Tensor) -> torch.Tensor:
        """SiLU(gate) times up of one row, divided by `_down_scale`."""
        code, sizes = layer.gate_up[0].format.code, self.sizes
        gated = orrery_ops.mlp_forward_xpu(x, *layer.gate_and_up, 1, sizes.hidden, sizes.feed_forward, SILU, code)
        return gated if self._down_scale == 1 else gated.mul_(1 / self._down_scale)

    def _gate(self, layer: Layer, x: torch.Tensor) -> torch.Tensor:
        """The same one by one."""
        return self._gated(*_row_joined(x, layer.gate_up).chunk(2, 1))

    def _gated(self, gate: torch.Tensor, up: torch.Tensor) -> torch.Tensor:
        """SiLU(gate) times up, divided by `_down_scale`; contiguous. Both may be overwritten."""
        if self._down_scale != 1:
            up.mul_(1 / self._down_scale)
        return torch.nn.functional.silu(gate, inplace=gate.is_contiguous()).mul_(up)

    @torch.inference_mode()
    def forward(self, tokens: Sequence[int]) -> torch.Tensor:
        """Takes the next tokens of the text together; gives the logits [1, vocabulary] of the one that follows."""
        last = self._pass(tokens, last_only=True)
        return _row_product(orrery_ops.rms_norm(self._norm, last, self.sizes.eps), self._head)

    @torch.inference_mode()
    def logits(self, tokens: Sequence[int]) -> Iterator[torch.Tensor]:
        """Takes the next tokens of the text together; yields the logits after each of them, some rows at a time."""
        for part in self._pass(tokens).split(LOGIT_ROWS):
            yield self._product(orrery_ops.rms_norm(self._norm, part, self.sizes.eps), self._head)

    def _check_room(self, tokens: int) -> None:
        if self.position + tokens > self.capacity:
            raise OrreryError(f"the context of {self.capacity} tokens is full")

    def _pass(self, tokens: Sequence[int], last_only: bool = False) -> torch.Tensor:
        """The rows after the last layer, or only the last one.

        Attention takes all tokens together, products PRODUCT_ROWS at a time.
        """
        self._check_room(len(tokens))
        eps, x = self.sizes.eps, self._embed(tokens)
        for index, layer in enumerate(self._layers):
            attention = self._attend(index, self._queries(index, layer, x))
            if last_only and layer is self._layers[-1]:
                x, attention = x[-1:], attention[-1:]
            for first, part in _in_parts(x):
                attended = attention.narrow(0, first, len(part)).to(self._dtype)
                part.add_(self._product(attended, layer.out))
                normed = orrery_ops.rms_norm(layer.mlp_norm, part, eps)
                gated = self._gated(*self._products(normed, layer.gate_up, self._gate_up_rows))
                part.add_(self._product(gated, layer.down), alpha=self._down_scale)
        self.position += len(tokens)
        return x

    def _queries(self, index: int, layer: Layer, x: torch.Tensor) -> torch.Tensor:
        """The rotated queries [1, heads, rows, head size] of a pass. Keys and values go into the cache."""
        sizes = self.sizes
        queries = torch.empty(1, sizes.heads, len(x), sizes.head_dim, dtype=torch.float32, device=self._device)
        for first, part in _in_parts(x):
            n, position = len(part), self.position + first
            qkv = self._products(orrery_ops.rms_norm(layer.attention_norm, part, sizes.eps), layer.qkv, self._qkv_rows)
            query, key, value = (rows.float().view(1, n, -1, sizes.head_dim).transpose(1, 2) for rows in qkv)
            sines, cosines = (angles.narrow(2, position, n) for angles in (self._sines, self._cosines))
            turned = self.cache.room_for(index, position, key)
            orrery_ops.apply_rotary_embedding_half_q_and_k_cache_freq(
                query, key, sines, cosines, queries.narrow(2, first, n), turned)
            self.cache.store(index, position, turned, value)
        return queries.to(self._attention_dtype)

    def _products(self, x: torch.Tensor, weights: Sequence[Weight], rows: tuple[int, ...]) -> Sequence[torch.Tensor]:
        """The products with each of the weights, or the parts of that with one that joins so many rows of each."""
        products = [self._product(x, weight) for weight in weights]
        return products[0].split(rows, 1) if len(products) == 1 else products

    def _product(self, x: torch.Tensor, weight: Weight) -> torch.Tensor:
        """The product of any number of rows."""
        rows = x.shape[0]
        if rows == 1:
            return _row_product(x, weight)
        if not weight.together:
            return torch.cat([_row_product(row, weight) for row in x.split(1)])
        if weight.padding:
            x = torch.nn.functional.pad(x, (0, weight.padding))
        # For several rows fp6 exists in half and float only.
        given = x.float() if weight.format.name == "fp6" and x.dtype == torch.bfloat16 else x
        with precision.products_in(self._prompt_precision):
            return orrery_ops.forward_new(given, weight.data, weight.format.code, rows).to(x.dtype)

    def _attend(self, index: int, query: torch.Tensor) -> torch.Tensor:
        """Attention [n, heads * head size] of the n tokens after the cache's first `position`."""
        _, heads, n, size = query.shape
        if self.position == 0:
            result = self.cache.attend_causally(query, *self.cache.rows(index, 0, n))
            return result.transpose(1, 2).reshape(n, -1)
        result = torch.empty(1, n, heads, size, dtype=query.dtype, device=query.device)
        for first in range(0, n, ATTENTION_ROWS):
            rows = min(ATTENTION_ROWS, n - first)
            before = self.position + first
            mask = self._mask[:, :, :rows].narrow(3, self.capacity - before, before + rows)
            part = self.cache.attend(query.narrow(2, first, rows), *self.cache.rows(index, 0, before + rows), mask)
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


def _in_parts(x: torch.Tensor) -> Iterator[tuple[int, torch.Tensor]]:
    """The rows in parts of PRODUCT_ROWS, each with the number of its first one in front."""
    return zip(range(0, len(x), PRODUCT_ROWS), x.split(PRODUCT_ROWS))


def _row_product(x: torch.Tensor, weight: Weight) -> torch.Tensor:
    """The product of one row."""
    if weight.padding:
        x = torch.nn.functional.pad(x, (0, weight.padding))
    return orrery_ops.forward_new(x, weight.data, weight.format.code, 1)


def _row_joined(x: torch.Tensor, weights: Sequence[Weight]) -> torch.Tensor:
    """The products of one row with all weights, side by side."""
    products = [_row_product(x, weight) for weight in weights]
    return products[0] if len(products) == 1 else torch.cat(products, 1)


def _padded(fmt: Format, data: torch.Tensor, cols: int, padding: int) -> torch.Tensor:
    """A block array with zero blocks after each row."""
    return torch.nn.functional.pad(data.view(-1, fmt.size(1, cols)), (0, fmt.size(1, padding))).view(-1)
