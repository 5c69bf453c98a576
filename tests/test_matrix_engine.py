"""The matrix engine by itself: its operation in registers and element by element, and how it gets a format's codes."""

from __future__ import annotations

import numpy as np
import pytest
import torch  # noqa: F401  its libraries first

import linear_reference as ref
import orrery_native_tests as native
from dotgrid_reference import BLOCK, FORMATS, values_of, weight_of

U = 2.0**-24


def operands(rows: int, columns: int, blocks: int, seed: int) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Halves, and scales as floats: A [blocks, rows, 64], B [blocks, 64, columns], [blocks, columns]."""
    generator = np.random.default_rng([rows, columns, seed])

    def halves(*shape: int) -> np.ndarray:
        return (generator.standard_normal(shape) * 8).astype(np.float16).astype(np.float32)

    return (
        halves(blocks, rows, BLOCK),
        halves(blocks, BLOCK, columns),
        generator.standard_normal((blocks, columns)).astype(np.float32),
    )


def in_units(b: np.ndarray) -> np.ndarray:
    """[blocks, 64, columns] in the engine's order: steps by twos, behind each other for each column."""
    blocks, _, columns = b.shape
    return b.reshape(blocks, BLOCK // 2, 2, columns).swapaxes(2, 3)


KINDS = {"tile of 8": 8, "tile of 16": 16, "16 columns": 16, "32 columns": 32}  # and their columns


def engine(kind: str, a: np.ndarray, b: np.ndarray, scales: np.ndarray) -> np.ndarray:
    rows = a.shape[1]
    flat = [list(map(float, t.reshape(-1))) for t in (a, in_units(b) if "tile" in kind else b, scales)]
    return np.array(native.engine_product(kind, rows, *flat), np.float32).reshape(rows, KINDS[kind])


@pytest.mark.parametrize("rows", range(1, 9))
def test_tiles_and_columns_give_the_same_bits_near_the_product(rows: int) -> None:
    a, b, d = operands(rows, 32, 3, 0)
    got = engine("32 columns", a, b, d)
    for kind, columns in KINDS.items():
        part = engine(kind, a, np.ascontiguousarray(b[:, :, :columns]), np.ascontiguousarray(d[:, :columns]))
        assert np.array_equal(part.view(np.uint32), np.ascontiguousarray(got[:, :columns]).view(np.uint32)), kind
    a, b, d = (t.astype(np.float64) for t in (a, b, d))
    size = np.einsum("brk,bkn,bn->rn", np.abs(a), np.abs(b), np.abs(d))
    # 64 terms and three additions between operations, a product with the scale, three sums of blocks.
    assert (np.abs(got - np.einsum("brk,bkn,bn->rn", a, b, d)) <= 72 * U * size).all()


@pytest.mark.parametrize("kind", KINDS)
def test_each_element_meets_its_own(kind: str) -> None:
    # A row of A with a single 1 picks one step of each column.
    columns = KINDS[kind]
    b = np.arange(BLOCK * columns, dtype=np.float32).reshape(1, BLOCK, columns)
    for step in range(0, BLOCK, 8):
        a = np.eye(8, BLOCK, step, dtype=np.float32)[None]
        assert np.array_equal(engine(kind, a, b, np.ones((1, columns), np.float32)), b[0, step : step + 8])


@pytest.mark.parametrize("kind", KINDS)
def test_an_operation_ends_before_the_next_begins(kind: str) -> None:
    # In any order the first operation gives 0 and the second 2^-10: sums across operations would lose it in 2^21.
    columns = KINDS[kind]
    for i, j in ((0, 1), (0, 2), (3, 14), (0, 15)):
        a, b = np.zeros((1, 8, BLOCK), np.float32), np.ones((1, BLOCK, columns), np.float32)
        a[0, :, i], a[0, :, j], a[0, :, 16 + i] = 2.0**15, -(2.0**15), 2.0**-10
        b[0, :16] = 64
        got = engine(kind, a, b, np.ones((1, columns), np.float32))
        assert np.array_equal(got, np.full((8, columns), 2.0**-10))


@pytest.mark.parametrize("kind", KINDS)
def test_the_scale_is_a_product_and_a_sum(kind: str) -> None:
    # A product with 4097 that a float rounds, and the rounded one taken off: nothing is left. Fused, the rest would be.
    d = np.float32(1 + 2**-23)
    a = np.zeros((2, 8, BLOCK), np.float32)
    a[0, :, 0], a[1, :, 0], a[1, :, 1] = -1, 2048, 1
    b = np.ones((2, BLOCK, KINDS[kind]), np.float32)
    b[1, 0] = 2
    assert np.float64(d) * 4097 != np.float32(d * np.float32(4097))
    scales = np.stack([np.full(KINDS[kind], d * np.float32(4097)), np.full(KINDS[kind], d)]).astype(np.float32)
    assert np.array_equal(engine(kind, a, b, scales), np.zeros((8, KINDS[kind])))


@pytest.mark.parametrize("way", ["tile of 8", "tile of 16", "columns"])
@pytest.mark.parametrize("dtype", ["float16", "bfloat16"])
@pytest.mark.parametrize("name", FORMATS)
def test_every_code_comes_where_it_belongs(name: str, dtype: str, way: str) -> None:
    columns = KINDS.get(way, 32)
    generator = np.random.default_rng(columns)
    rows = 2 * columns  # twice, for each row has a block of its own behind the one that is read
    codes = generator.permuted(np.resize(np.arange(16 if name == "q4_0" else 256), (rows, BLOCK)), axis=1)
    w = weight_of(name, codes, np.ones((rows, 1)))
    values, _ = values_of(name, w, rows, BLOCK)
    row_bytes = ref.SPLIT[name].quant_bytes
    for first in range(2):
        b = np.ascontiguousarray(values[first::2, 0].T)
        if way == "columns":
            got = native.engine_columns(ref.CODES[name], dtype, w.tobytes(), 2, first)
        else:
            got = native.engine_units(ref.CODES[name], dtype, columns, w[first * row_bytes :].tobytes(), 2)
            b = in_units(b[None])
        want = ref.Arithmetic(dtype).of(b.reshape(-1)).astype(np.float32)
        assert ref.differing(np.array(got, np.float32), want) == 0  # the sign of zero too
