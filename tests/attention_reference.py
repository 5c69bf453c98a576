"""Attention and the one-byte code of its caches in numpy, in the kernels' order of additions, and tensors to try them on."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np
import torch
from kernel_reference import fold, random, rows_apart, split
from linear_reference import float32_of

import orrery_host

FLOAT, HALF = torch.float32, torch.float16
CPP = {FLOAT: "float", HALF: "c10::Half"}
HEAD_DIMS = [64, 96, 128]
LOG2_E = np.uint32(0x3FB8AA3B).view(np.float32)
UNSUPPORTED_HEAD_DIM = "unsupported head_dim, only 128, 96 and 64 are supported"
UNSUPPORTED_TYPE = "unsupported dtype, only fp32 and fp16 are supported"

# The assertions of all four operations.
ROWS = "input_size == context_length"
SIZES = "query.size(0) == key.size(0) && key.size(0) == value.size(0)"
ELEMENTS = "query.size(3) == key.size(3) && key.size(3) == value.size(3)"
HEADS = "query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)"
LENGTHS = "key.size(2) == value.size(2)"
TYPES = "query.scalar_type() == key.scalar_type() && query.scalar_type() == value.scalar_type()"


# --- the code ---------------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Code:
    """Sign, and 7 bits of exponent and mantissa of a half, less an offset. `bottom` and `top` are magnitudes in the
    bits of a half."""

    offset: int
    bottom: int
    top: int

    def encode(self, x: np.ndarray) -> np.ndarray:
        with np.errstate(all="ignore"):
            half = x.astype(np.float16)
        bottom, top = (np.uint16(bits).view(np.float16) for bits in (self.bottom, self.top))
        magnitude = np.maximum(np.minimum(np.abs(half), top), bottom)
        code = (magnitude.view(np.uint16).astype(np.int32) >> 7) - self.offset
        sign = half.view(np.uint16).astype(np.int32) >> 15
        return (code | sign << 7).astype(np.uint8)

    def decode(self, byte: np.ndarray) -> np.ndarray:
        code, sign = byte.astype(np.int32) & 127, byte.astype(np.int32) >> 7
        return (sign << 15 | (code + self.offset) << 7 | 0x40).astype(np.uint16).view(np.float16)


KEY = Code(48, 0x1840, 0x57C0)
VALUE = Code(24, 0x0C40, 0x4BC0)


# --- attention: query [b, h, r, d], key and value [b, kv, c, d], mask [b, h or 1, r, c], all in numpy -------------------


def scale(head_dim: int) -> np.float32:
    """1 / sqrt(head_dim), to the nearest float."""
    return np.uint32({64: 0x3E000000, 96: 0x3DD105EC, 128: 0x3DB504F3}[head_dim]).view(np.float32)


def log_bias(rows: int) -> np.float32:
    """The logarithm of the number of rows squared, which is first rounded to float."""
    return float32_of(np.log, np.float32(rows * rows))


def per_query_head(x: np.ndarray, heads: int) -> np.ndarray:
    return np.repeat(x, heads // x.shape[1], axis=1)


def weight(x: np.ndarray) -> np.ndarray:
    """No maximum is subtracted."""
    return float32_of(np.exp2, x * LOG2_E)


@np.errstate(all="ignore")
def attend(query: np.ndarray, key: np.ndarray, value: np.ndarray, mask: np.ndarray | None = None) -> np.ndarray:
    """Products and their tree in the type of query and key; the rest, and the result, in float."""
    assert query.dtype == key.dtype
    heads, head_dim = query.shape[1], query.shape[3]
    key, value = per_query_head(key, heads), per_query_head(value, heads).astype(np.float32)
    x = fold(query[:, :, :, None] * key[:, :, None]).astype(np.float32) * scale(head_dim)
    if mask is not None:
        x = x + mask.astype(np.float32)
    e = weight(x)
    acc, total = np.zeros((*query.shape, 32), np.float32), np.zeros((*query.shape[:3], 32), np.float32)
    for item, (first, last) in enumerate(split(key.shape[2])):
        for t in range(first, last):
            acc[..., item] = acc[..., item] + value[:, :, None, t] * e[..., t, None]
            total[..., item] = total[..., item] + e[..., t]
    return fold(acc) / fold(total)[..., None]


@np.errstate(all="ignore")
def attend_causal(query: np.ndarray, key: np.ndarray, value: np.ndarray) -> np.ndarray:
    """As attend, row r over the keys up to r, in order."""
    assert query.dtype == key.dtype
    heads, rows, head_dim = query.shape[1:]
    key, value = per_query_head(key, heads), per_query_head(value, heads).astype(np.float32)
    shift = log_bias(rows) if rows else np.float32(0)
    acc, total = np.zeros(query.shape, np.float32), np.zeros(query.shape[:3], np.float32)
    for t in range(rows):
        product = fold(query[:, :, t:] * key[:, :, None, t]).astype(np.float32)
        e = weight(product * scale(head_dim) - shift)
        acc[:, :, t:] = acc[:, :, t:] + value[:, :, None, t] * e[..., None]
        total[:, :, t:] = total[:, :, t:] + e
    return acc / total[..., None]


def arrays(*tensors: torch.Tensor | None) -> list[np.ndarray | None]:
    return [None if x is None else x.cpu().numpy() for x in tensors]


@np.errstate(all="ignore")
def sdp(query, key, value, mask=None) -> np.ndarray:
    q, k, v, m = arrays(query, key, value, mask)
    return attend(q, k, v, m).astype(q.dtype)


@np.errstate(all="ignore")
def sdp_causal(query, key, value) -> np.ndarray:
    q, k, v = arrays(query, key, value)
    return attend_causal(q, k, v).astype(q.dtype)


@np.errstate(all="ignore")
def sdp_fp8(query, key, value, mask=None) -> np.ndarray:
    """Products in half, whatever the type."""
    q, k, v, m = arrays(query, key, value, mask)
    return attend(q.astype(np.float16), KEY.decode(k), VALUE.decode(v), m).astype(q.dtype)


@np.errstate(all="ignore")
def sdp_fp8_causal(query, key, value) -> np.ndarray:
    """Products in the type of the query."""
    q, k, v = arrays(query, key, value)
    return attend_causal(q, KEY.decode(k).astype(q.dtype), VALUE.decode(v)).astype(q.dtype)


@np.errstate(all="ignore")
def query_key_fp8_matmul(query, key) -> np.ndarray:
    """All in half."""
    q, k = arrays(query, key)
    products = q.astype(np.float16) * per_query_head(KEY.decode(k), q.shape[1])
    return fold(products)[:, :, None].astype(q.dtype)


@np.errstate(all="ignore")
def attn_value_fp8_matmul(attn, value) -> np.ndarray:
    """All in half."""
    a, v = arrays(attn, value)
    half, rows = a.astype(np.float16), per_query_head(VALUE.decode(v), a.shape[1])
    acc = np.zeros((*a.shape[:2], v.shape[3], 32), np.float16)
    for item, (first, last) in enumerate(split(v.shape[2])):
        for t in range(first, last):
            acc[..., item] = acc[..., item] + half[:, :, 0, t, None] * rows[:, :, t]
    return fold(acc)[:, :, None].astype(a.dtype)


# --- tensors on the device, none of them contiguous ---------------------------------------------------------------------

Shape = tuple[int, int, int, int]


def queries(g: np.random.Generator, shape: Shape, dtype: torch.dtype) -> torch.Tensor:
    """Stored [batch, row, head, element], as projections leave them."""
    bsz, heads, rows, head_dim = shape
    return rows_apart(random(g, (bsz, rows, heads, head_dim), dtype), 3).transpose(1, 2)


def in_cache(x: torch.Tensor, behind: float | int) -> torch.Tensor:
    """The same rows on the device, with room for seven more behind those of each head, filled with `behind`."""
    bsz, heads, rows, head_dim = x.shape
    cache = torch.full((bsz, heads, rows + 7, head_dim), behind, dtype=x.dtype, device="xpu")
    cache[:, :, :rows] = x.to("xpu")
    return cache[:, :, :rows]


def caches(g: np.random.Generator, shape: Shape, dtype: torch.dtype) -> list[torch.Tensor]:
    return [in_cache(random(g, shape, dtype), float("nan")) for _ in range(2)]


def byte_caches(g: np.random.Generator, shape: Shape) -> list[torch.Tensor]:
    """Codes of normal numbers; behind them the largest ones."""
    return [in_cache(torch.from_numpy(code.encode(g.standard_normal(shape))), 0x7F) for code in (KEY, VALUE)]


def mask(g: np.random.Generator, shape: Shape, dtype: torch.dtype) -> torch.Tensor:
    """A tenth of it is minus infinity."""
    m = random(g, shape, dtype, 3.0)
    m[torch.from_numpy(g.random(shape) < 0.1)] = -torch.inf
    return rows_apart(m, 5)


def zeros(*shape: int, dtype: torch.dtype = FLOAT) -> torch.Tensor:
    return torch.zeros(shape, dtype=dtype, device="xpu")


def exact_logits(bias: np.float32 = np.float32(0), scale: np.float32 = np.float32(1)) -> dict[int, float]:
    """For whole numbers n near 0, floats x such that (x * scale - bias) * log2(e) rounds to n, so that the exponential
    is exact on every device. Some n have none."""
    found = {}
    for n in range(-12, 13):
        x = (np.float32(n) / LOG2_E + bias) / scale
        near = x + np.spacing(x) * np.arange(-8, 9, dtype=np.float32)
        exact = near[(near * scale - bias) * LOG2_E == n]
        if len(exact):
            found[n] = float(exact[0])
    return found


def check_launch(
    launch: orrery_host.Launch, name: str, types: Sequence[torch.dtype | None], head_dim: int, group: int,
    global_size: tuple[int, int, int], local_memory: int,
) -> None:  # fmt: skip
    """A launch of the kernel that is recorded as `name`; `types` and the size of its groups are its instance."""
    instance = [*(CPP[t] for t in types if t is not None), str(group), str(head_dim)]
    assert (launch.name, launch.kernel) == (name, name.replace(" ", "_") + "_kernel")
    assert launch.instance == ", ".join(instance)
    assert (launch.file, launch.function, launch.line, launch.column) == ("utils", "submit_kernel", 12, 29)
    assert (launch.global_size, launch.local_size) == (global_size, (1, 1, group))
    assert (launch.sub_group_size, launch.local_memory) == (1, local_memory)
    assert not launch.waited
