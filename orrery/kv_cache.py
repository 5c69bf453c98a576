"""The keys and values of the tokens so far, for all layers: as they are, or in one byte per element.

A layer's keys and values are [1, key/value heads, capacity, head size] each. A head's rows are packed, so the first
rows of every head are a view that attention takes as it is.

A step adds one row to each layer. `places` makes the views of all layers at once, which one by one would take longer
than a kernel. `target` is what `forward_qkv` writes into; `keep` takes what it returns, and `put` a row that was made
without it. Both return the keys and values to attend over. A prompt's rows come together, by `store`; `room_for` says
where its keys can be put beforehand.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple

import orrery_ops
import torch

from orrery.gguf_model import Sizes

Pair = tuple[torch.Tensor, torch.Tensor]


class Place(NamedTuple):
    """A layer's keys and values up to its new row or, if `forward_qkv` writes into them, up to the row before it.

    `new` is where the row goes otherwise.
    """

    keys: torch.Tensor
    values: torch.Tensor
    new: Sequence[torch.Tensor] = ()


class KeyValueCache:
    """What both kinds have in common: a tensor [2 * layers, 1, heads, capacity, head size], keys and values in turn."""

    def __init__(self, sizes: Sizes, capacity: int, dtype: torch.dtype, device: torch.device) -> None:
        self.data = torch.empty(2 * sizes.layers, 1, sizes.kv_heads, capacity, sizes.head_dim, dtype=dtype,
                                device=device)
        self._keys_and_values = self.data.unbind(0)

    def rows(self, layer: int, first: int, count: int) -> Pair:
        """Keys and values of `count` tokens from `first` on."""
        keys, values = self._keys_and_values[2 * layer : 2 * layer + 2]
        return keys.narrow(2, first, count), values.narrow(2, first, count)

    def room_for(self, layer: int, position: int, key: torch.Tensor) -> torch.Tensor:
        """Where `key` can be rotated to before `store`: the rows themselves if they have its type, else its own place."""
        return self.rows(layer, position, key.shape[2])[0] if self.data.dtype == key.dtype else key

    def _rows_of_layers(self, first: int, count: int) -> list[Pair]:
        tensors = self.data.narrow(3, first, count).unbind(0)
        return list(zip(tensors[::2], tensors[1::2]))


class PlainCache(KeyValueCache):
    """Keys and values in the type of attention."""

    def __init__(self, sizes: Sizes, capacity: int, dtype: torch.dtype, device: torch.device) -> None:
        super().__init__(sizes, capacity, dtype, device)
        # The heads of a layer's keys and values side by side: one copy puts a row of both.
        self._heads = self.data.view(sizes.layers, 1, 2 * sizes.kv_heads, capacity, sizes.head_dim)
        # Places of the next step: keys and values with `_grown_rows` rows, as `forward_qkv` has returned them.
        self._grown: list[Place] = []
        self._grown_rows = 0

    def places(self, position: int, at_once: bool) -> list[Place]:
        """A place in each layer for the row of `position`; `at_once` says that `forward_qkv` writes it."""
        if not at_once:
            new = self._heads.narrow(3, position, 1).unbind(0)
            return [Place(*pair, (row,)) for pair, row in zip(self._rows_of_layers(0, position + 1), new)]
        grown, self._grown = self._grown, []
        # A step that was interrupted has left places of some layers only.
        if position != self._grown_rows or 2 * len(grown) != len(self.data):
            grown = [Place(*pair) for pair in self._rows_of_layers(0, position)]
        self._grown_rows = position + 1
        return grown

    def target(self, place: Place, position: int) -> tuple[torch.Tensor, torch.Tensor, int]:
        """Keys and values that `forward_qkv` adds a row to, and how many rows they have."""
        return place.keys, place.values, position

    def keep(self, place: Place, key: torch.Tensor, value: torch.Tensor) -> Pair:
        """`forward_qkv` has put the row into the cache and returned all rows."""
        self._grown.append(Place(key, value))
        return key, value

    def put(self, place: Place, key_value: torch.Tensor) -> Pair:
        """Adds a row [1, 2 * heads, 1, head size], the keys' heads first."""
        place.new[0].copy_(key_value)
        return place.keys, place.values

    def store(self, layer: int, position: int, key: torch.Tensor, value: torch.Tensor) -> None:
        """Puts rows [1, heads, rows, head size] after the first `position` ones."""
        for to, rows in zip(self.rows(layer, position, key.shape[2]), (key, value)):
            if to.data_ptr() != rows.data_ptr():
                to.copy_(rows)

    def attend(self, query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor,
               mask: torch.Tensor | None = None) -> torch.Tensor:
        """Attention over some of the cache's rows."""
        return orrery_ops.sdp(query, keys, values, mask)

    def attend_causally(self, query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor) -> torch.Tensor:
        """The same of as many queries as keys, each over the keys up to its own."""
        return orrery_ops.sdp_causal(query, keys, values)


class ByteCache(KeyValueCache):
    """Keys and values in the code of `quantize_key_value`, a quarter of the bytes of float32."""

    def __init__(self, sizes: Sizes, capacity: int, dtype: torch.dtype, device: torch.device) -> None:
        super().__init__(sizes, capacity, torch.uint8, device)
        # `forward_qkv` writes a row in here, as if into caches without rows so far. Launches are in order, so all
        # layers share it.
        staging = torch.empty(2, 1, sizes.kv_heads, 1, sizes.head_dim, dtype=dtype, device=device)
        self._staging = staging.narrow(3, 0, 0).unbind(0)

    def places(self, position: int, at_once: bool) -> list[Place]:
        """As in `PlainCache`; with and without `forward_qkv`, the row is written after it is made."""
        new = self._rows_of_layers(position, 1)
        return [Place(*pair, row) for pair, row in zip(self._rows_of_layers(0, position + 1), new)]

    def target(self, place: Place, position: int) -> tuple[torch.Tensor, torch.Tensor, int]:
        """As in `PlainCache`."""
        key, value = self._staging
        return key, value, 0

    def keep(self, place: Place, key: torch.Tensor, value: torch.Tensor) -> Pair:
        """Takes the staged row into the cache."""
        orrery_ops.quantize_key_value(key, value, *place.new)
        return place.keys, place.values

    def put(self, place: Place, key_value: torch.Tensor) -> Pair:
        """As in `PlainCache`."""
        return self.keep(place, *key_value.chunk(2, 1))

    def store(self, layer: int, position: int, key: torch.Tensor, value: torch.Tensor) -> None:
        """As in `PlainCache`."""
        orrery_ops.quantize_key_value(key, value, *self.rows(layer, position, key.shape[2]))

    def attend(self, query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor,
               mask: torch.Tensor | None = None) -> torch.Tensor:
        """As in `PlainCache`."""
        return orrery_ops.sdp_fp8(query, keys, values, mask)

    def attend_causally(self, query: torch.Tensor, keys: torch.Tensor, values: torch.Tensor) -> torch.Tensor:
        """As in `PlainCache`."""
        return orrery_ops.sdp_fp8_causal(query, keys, values)


KINDS = {"plain": PlainCache, "byte": ByteCache}
