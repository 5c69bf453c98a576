"""The split weight formats by themselves: the value rule against its definition, the readers against the rule."""

from __future__ import annotations

import numpy as np
import pytest
import torch  # noqa: F401  its libraries first

import linear_reference as ref
import orrery_native_tests as native
from test_linear_xpu_kernel import codes_of, dense_codes, scale_bytes

SCALES = [0.3712, -2.5, 0.0, -0.0, 2.0**-24, 65504.0, 1e-40, 3e38, np.inf, np.nan]


def stored(name: str, d: float) -> np.ndarray:
    with np.errstate(over="ignore"):
        return np.float32((ref.SPLIT[name].scale or np.float32)(d))


def dense_value(name: str, dtype: str, codes: list[int], d: float, m: float) -> np.ndarray:
    """One element's value in T. nf3 is a float product for every type; fp8_e5m2 has no scale."""
    a, values = ref.Arithmetic(dtype), ref.VALUES[name][codes]
    with np.errstate(all="ignore"):
        if name == "fp8_e5m2":
            return a.of(values)
        if name == "nf3":
            return a.of(values * stored(name, d))
        value = a.mul(a.of(values), a.of(stored(name, d)))
        return a.add(value, a.of(stored(name, m))) if name == "q4_1" else value


def same(got: list[float], expected: np.ndarray) -> None:
    """Equal numbers, signs of zeros included, or both NaN."""
    with np.errstate(invalid="ignore"):
        got, expected = np.array(got, np.float64), expected.astype(np.float64)
    np.testing.assert_array_equal(got, expected)
    number = ~np.isnan(expected)
    np.testing.assert_array_equal(np.signbit(got[number]), np.signbit(expected[number]))


@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.SPLIT)
def test_the_rule_for_every_code(name: str, dtype: str) -> None:
    codes = codes_of(name)
    for d in SCALES:
        got = [native.format_rule(name, dtype, code, stored(name, d), stored(name, 0.7)) for code in codes]
        same(got, dense_value(name, dtype, codes, d, 0.7))


@pytest.mark.parametrize("width", [1, 16, 32])
@pytest.mark.parametrize("dtype", ref.DTYPES)
@pytest.mark.parametrize("name", ref.SPLIT)
def test_the_reader_is_the_rule(name: str, dtype: str, width: int) -> None:
    """Whatever stands above a code."""
    codes = np.resize(codes_of(name), 256)
    bits = 8 if name == "fp6" else int(np.log2(len(ref.VALUES[name])))
    above = np.random.default_rng(1).integers(0, 2**32 >> bits, 256) << bits
    for d in SCALES:
        scales = scale_bytes(name, d, 0.7) * 8
        got = native.format_reader(name, dtype, width, (codes + above).tolist(), scales)
        rule = [native.format_rule(name, dtype, int(code), stored(name, d), stored(name, 0.7)) for code in codes]
        same(got, np.array(rule))


@pytest.mark.parametrize("name", ref.SPLIT)
def test_where_codes_lie(name: str) -> None:
    for seed in range(20):
        block = np.random.default_rng(seed).integers(0, 256, ref.SPLIT[name].quant_bytes).astype(np.uint8)
        expected = dense_codes(name, block, 1).ravel().tolist()
        assert native.format_codes(name, block.tobytes()) == expected
        if name in ("nf3", "fp6"):
            assert native.format_codes_at_once(name, block.tobytes()) == expected


@pytest.mark.parametrize("dtype", ref.DTYPES)
def test_fp8_e5m2_with_its_scale(dtype: str) -> None:
    """As the fused kernels read it: a code is the upper byte of a half whose lower one is 0, and the scale counts."""
    name, codes, a = "fp8_e5m2_scaled", np.arange(256), ref.Arithmetic(dtype)
    halves = (codes << 8).astype(np.uint16).view(np.float16).astype(np.float32)
    above = np.random.default_rng(1).integers(0, 2**24, 256) << 8
    for d in SCALES:
        d = np.float32(d)
        with np.errstate(all="ignore"):
            expected = a.mul(a.of(halves), a.of(d))
        same([native.format_rule(name, dtype, code, d, 0.0) for code in range(256)], expected)
        for width in (1, 16, 32):
            same(native.format_reader(name, dtype, width, (codes + above).tolist(), d.tobytes() * 8), expected)


def test_fp8_e5m2_as_a_half_keeps_its_bits() -> None:
    assert [native.format_half_bits_e5m2(c) for c in range(256)] == [c << 8 | 0x80 for c in range(256)]
