"""The code of one-byte key/value caches by itself: all bytes and all halves, at every width that kernels use."""

from __future__ import annotations

import numpy as np
import pytest
import torch  # noqa: F401  its libraries first

import orrery_native_tests as native

# Offset of the code, and the largest magnitude.
CODES = {"key": (48, 124.0), "value": (24, 15.5)}
WIDTHS = [1, 16, 32, 64, 96, 128]

BYTES = np.arange(256, dtype=np.uint8)
HALVES = np.arange(65536).astype(np.uint16).view(np.float16)


def whole_rows(values: np.ndarray, width: int) -> np.ndarray:
    return np.resize(values, -(-len(values) // width) * width)


def values_of(code: str, byte: np.ndarray) -> np.ndarray:
    """In float64, by arithmetic: the middle of a cell of the upper three mantissa bits."""
    exponent, mantissa = np.divmod((byte & 127).astype(np.int64) + CODES[code][0], 8)
    magnitude = (1 + (mantissa + 0.5) / 8) * 2.0 ** (exponent - 15)
    return np.where(byte & 128, -magnitude, magnitude)


def encoded(code: str, halves: np.ndarray) -> np.ndarray:
    """The cell of the half, by search among the lower edges of the cells."""
    edges = np.abs(values_of(code, np.arange(128))) - 2.0 ** (np.arange(128) + CODES[code][0] >> 3) / 2.0**19
    found = np.searchsorted(edges, np.abs(halves.astype(np.float64)), side="right") - 1
    found[np.isnan(halves)] = 127
    return (np.clip(found, 0, 127) | np.where(np.signbit(halves), 128, 0)).astype(np.uint8)


@pytest.mark.parametrize("code", CODES)
def test_the_rule(code: str) -> None:
    bits = np.array([native.key_value_half_bits(code, int(b)) for b in BYTES], np.uint16)
    np.testing.assert_array_equal(bits.view(np.float16).astype(np.float64), values_of(code, BYTES))
    assert bits.view(np.float16).max() == CODES[code][1]


@pytest.mark.parametrize("width", WIDTHS)
@pytest.mark.parametrize("dtype", ["float16", "float32"])
@pytest.mark.parametrize("code", CODES)
def test_every_byte_decodes(code: str, dtype: str, width: int) -> None:
    rows = whole_rows(BYTES, width)
    got = np.frombuffer(native.key_value_decode(code, dtype, width, rows.tobytes()), dtype.split()[0])
    np.testing.assert_array_equal(got.astype(np.float64), values_of(code, rows))


@pytest.mark.parametrize("width", WIDTHS)
@pytest.mark.parametrize("code", CODES)
def test_every_half_encodes(code: str, width: int) -> None:
    """Infinities, NaNs, subnormals and both zeros among them."""
    rows = whole_rows(HALVES, width)
    got = np.frombuffer(native.key_value_encode(code, width, rows.tobytes()), np.uint8)
    np.testing.assert_array_equal(got, encoded(code, rows))


@pytest.mark.parametrize("code", CODES)
def test_decoded_values_keep_their_byte(code: str) -> None:
    halves = native.key_value_decode(code, "float16", 64, BYTES.tobytes())
    assert native.key_value_encode(code, 64, halves) == BYTES.tobytes()
