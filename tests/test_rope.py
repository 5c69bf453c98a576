"""The in-place rotary operations: bit for bit against numpy, and memory between the rows stays as it was."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from kernel_reference import (
    assert_dies_with,
    assert_same_bits,
    assert_same_bits_in_any_order,
    random,
)
from linear_reference import float32_of

import orrery_host
import orrery_ops

FLOAT, HALF = torch.float32, torch.float16
CPP = {FLOAT: "float", HALF: "c10::Half"}
NAMES = {"rotary_half_inplaced": "rotary half", "rotary_two_inplaced": "rotary every two"}
EVERY = pytest.mark.parametrize("operation", list(NAMES))


@np.errstate(all="ignore")
def reference(operation: str, inv_freq: torch.Tensor, positions: torch.Tensor, x: torch.Tensor) -> np.ndarray:
    x = x.cpu().numpy()
    dtype, half = x.dtype, x.shape[3] // 2
    angle = inv_freq.cpu().numpy().astype(np.float32) * positions.cpu().numpy().astype(np.float32)[:, None, :, None]
    c, n = (float32_of(f, angle).astype(dtype) for f in (np.cos, np.sin))
    first, second = slice(0, None, 2), slice(1, None, 2)
    if operation == "rotary_half_inplaced":
        first, second = slice(0, half), slice(half, None)
    x1, x2 = x[..., first], x[..., second]
    y = np.empty_like(x)
    y[..., first] = x1 * c - x2 * n
    y[..., second] = x2 * c + x1 * n
    return y


def room(x: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    """Storage [batch, position, head, element + 3] of NaN, and x in it seen as [batch, head, position, element]."""
    bsz, heads, seq, head_dim = x.shape
    storage = torch.full((bsz, seq, heads, head_dim + 3), float("nan"), dtype=x.dtype, device="xpu")
    view = storage[..., :head_dim].transpose(1, 2)
    view.copy_(x)
    return storage, view


def case(seed: int, dtype: torch.dtype, bsz: int, heads: tuple[int, int], seq: int, head_dim: int, positions=None):
    g = np.random.default_rng(seed)
    inv_freq = (10000.0 ** -(torch.arange(0, head_dim, 2) / head_dim)).to(dtype).to("xpu")
    if positions is None:
        positions = torch.from_numpy(g.integers(-3000, 9000, (bsz, seq)))
    query, key = (random(g, (bsz, h, seq, head_dim), dtype) for h in heads)
    return inv_freq, positions.to("xpu"), query, key


def check(operation, inv_freq, positions, query, key) -> None:
    (query_room, query_view), (key_room, key_view) = room(query), room(key)
    assert getattr(orrery_ops, operation)(inv_freq, positions, query_view, key_view) is None
    assert_same_bits(query_view, reference(operation, inv_freq, positions, query))
    assert_same_bits(key_view, reference(operation, inv_freq, positions, key))
    head_dim = query.shape[3]
    assert query_room[..., head_dim:].isnan().all() and key_room[..., head_dim:].isnan().all()


@EVERY
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("head_dim", [64, 96, 128])
@pytest.mark.parametrize("bsz, heads, seq", [(1, (9, 3), 1), (2, (4, 4), 5), (3, (1, 6), 19)])
def test_is_bit_exact(operation, dtype, head_dim, bsz, heads, seq):
    check(operation, *case(head_dim + seq, dtype, bsz, heads, seq, head_dim))


@EVERY
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
def test_positions(operation, dtype):
    """0, negative ones, and those that float cannot hold: 2^24 + 1 becomes 2^24."""
    positions = torch.tensor([[0, -1, -4097, 2**24 - 1, 2**24, 2**24 + 1, 2**24 + 3, -(2**40) - 12345, 2**62 + 1]])
    check(operation, *case(1, dtype, 1, (3, 2), positions.shape[1], 64, positions))


@EVERY
def test_position_beyond_float_acts_as_its_float(operation):
    inv_freq, _, query, key = case(2, FLOAT, 1, (1, 1), 2, 64)
    query[:, :, 1] = query[:, :, 0]
    q, k = query.to("xpu"), key.to("xpu")
    getattr(orrery_ops, operation)(inv_freq, torch.tensor([[2**24, 2**24 + 1]], device="xpu"), q, k)
    assert torch.equal(q[:, :, 0], q[:, :, 1])


@EVERY
def test_turns_each_pair_by_its_angle(operation):
    """A second opinion in complex float64. Float angles up to 9000 are off by at most 2^-11, which moves a pair of
    length below 6 by less than 3e-3."""
    inv_freq, positions, query, key = case(3, FLOAT, 2, (3, 1), 7, 64)
    q, k = query.to("xpu"), key.to("xpu")
    getattr(orrery_ops, operation)(inv_freq, positions, q, k)
    turn = torch.exp(1j * inv_freq.cpu().double() * positions.cpu().double()[:, None, :, None])

    def pairs(x: torch.Tensor) -> torch.Tensor:
        x = x.cpu().double()
        if "half" in operation:
            return torch.complex(x[..., :32].contiguous(), x[..., 32:].contiguous())
        return torch.complex(x[..., ::2].contiguous(), x[..., 1::2].contiguous())

    for before, after in ((query, q), (key, k)):
        assert (pairs(before) * turn - pairs(after)).abs().max() < 3e-3


def test_half_rounds_sine_and_cosine_first():
    """Not the float computation rounded once."""
    args = case(4, HALF, 1, (4, 1), 9, 64)
    in_float = reference("rotary_half_inplaced", args[0].float(), args[1], args[2].float()).astype(np.float16)
    q, k = args[2].to("xpu"), args[3].to("xpu")
    orrery_ops.rotary_half_inplaced(args[0], args[1], q, k)
    assert (q.cpu().numpy() != in_float).mean() > 0.05


@EVERY
@pytest.mark.parametrize("bsz, seq", [(0, 3), (2, 0)])
def test_empty_sizes(operation, bsz, seq):
    inv_freq, positions, query, key = case(5, FLOAT, bsz, (3, 1), seq, 64)
    q, k = query.to("xpu"), key.to("xpu")
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(inv_freq, positions, q, k)
    (launch,) = launches
    assert (launch.name, launch.global_size) == (NAMES[operation], (bsz, 4, seq))


@EVERY
@pytest.mark.parametrize("dtype", [FLOAT, HALF])
@pytest.mark.parametrize("head_dim", [64, 96, 128])
def test_launch(operation, dtype, head_dim):
    inv_freq, positions, query, key = case(6, dtype, 2, (5, 3), 7, head_dim)
    q, k = query.to("xpu"), key.to("xpu")
    with orrery_host.record_launches() as launches:
        getattr(orrery_ops, operation)(inv_freq, positions, q, k)
    (launch,) = launches
    assert (launch.name, launch.kernel) == (NAMES[operation], operation + "_kernel")
    assert launch.instance == f"{CPP[dtype]}, {head_dim}"
    assert (launch.file, launch.function, launch.line, launch.column) == ("utils", "submit_kernel", 12, 29)
    assert (launch.global_size, launch.local_size) == ((2, 8, 7), (1, 1, 1))
    assert (launch.sub_group_size, launch.local_memory, launch.waited) == (1, 0, False)


def arguments(dtype: torch.dtype = FLOAT, head_dim: int = 64) -> list[torch.Tensor]:
    return [
        torch.ones(head_dim // 2, dtype=dtype, device="xpu"),
        torch.zeros(2, 3, dtype=torch.int64, device="xpu"),
        torch.ones(2, 4, 3, head_dim, dtype=dtype, device="xpu"),
        torch.ones(2, 1, 3, head_dim, dtype=dtype, device="xpu"),
    ]


@EVERY
@pytest.mark.parametrize("dtype", [FLOAT, torch.float64])
@pytest.mark.parametrize("head_dim", [32, 80, 256])
def test_unsupported_head_dim(operation, dtype, head_dim):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*arguments(dtype, head_dim))
    assert str(error.value) == "unsupported head_dim, only 128, 96 and 64 are supported"


@EVERY
@pytest.mark.parametrize("dtype", [torch.float64, torch.bfloat16])
def test_unsupported_type(operation, dtype):
    with pytest.raises(RuntimeError) as error:
        getattr(orrery_ops, operation)(*arguments(dtype))
    assert str(error.value) == "unsupported dtype, only fp32 and fp16 are supported"


@EVERY
def test_positions_of_another_type(operation):
    args = arguments()
    args[1] = args[1].int()
    with pytest.raises(RuntimeError, match="expected scalar type Long but found Int"):
        getattr(orrery_ops, operation)(*args)


TYPES = "inv_freq.scalar_type() == query.scalar_type() && inv_freq.scalar_type() == key.scalar_type()"


@EVERY
@pytest.mark.parametrize(
    "expression, change",
    [
        ("inv_freq.device().is_xpu()", {0: lambda x: x.cpu(), 1: lambda x: x.cpu()}),
        ("position_ids.device().is_xpu()", {0: lambda x: x.half(), 1: lambda x: x.cpu()}),
        (TYPES, {0: lambda x: x.half().repeat(2)[::2]}),
        (TYPES, {2: lambda x: x.half()}),
        (TYPES, {3: lambda x: x.half()}),
        ("inv_freq.is_contiguous()", {0: lambda x: x.repeat(2)[::2], 1: lambda x: x.t()}),
        ("position_ids.is_contiguous()", {0: lambda x: x[:7], 1: lambda x: x.t()}),
        ("inv_freq.numel() == head_dim / 2", {0: lambda x: x[:31]}),
        ("inv_freq.numel() == head_dim / 2", {2: lambda x: x[..., :62]}),
    ],
)
def test_assertions(operation, expression, change):
    args = [change.get(i, lambda x: x)(x) for i, x in enumerate(arguments())]
    assert_dies_with(expression, "rope", lambda: getattr(orrery_ops, operation)(*args))


def results() -> list[torch.Tensor]:
    out = []
    for i, operation in enumerate(NAMES):
        for dtype in (FLOAT, HALF):
            inv_freq, positions, query, key = case(20 + i, dtype, 2, (5, 2), 9, 96)
            q, k = query.to("xpu"), key.to("xpu")
            getattr(orrery_ops, operation)(inv_freq, positions, q, k)
            out += [q, k]
    return out


def test_bits_do_not_depend_on_threads_or_schedule():
    assert_same_bits_in_any_order("test_rope", results)
