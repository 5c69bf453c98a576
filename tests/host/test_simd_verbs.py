"""The verbs of vectors: every instruction set that this build has gives the bits of the portable one."""

from __future__ import annotations

import numpy as np
import pytest
from sycl_settings import native

VERBS = native.verbs()  # verb: the sets that have it
SETS = ["portable", "avx2", "avx512", "avx512_bytes", "avx512_half"]
CASES = [(verb, name) for verb, names in VERBS.items() for name in names if name != "portable"]


def inputs(seed):
    """Bytes of every kind: random ones, and numbers among which are infinities, NaNs, subnormals and halfway cases."""
    rng = np.random.default_rng(seed)
    data = rng.integers(0, 256, 4096, np.uint8)
    words = data.view(np.float32)
    near = rng.standard_normal(words.size).astype(np.float32) * np.float32(10.0) ** rng.integers(-8, 6, words.size)
    special = np.array([0.0, -0.0, np.inf, -np.inf, np.nan, 65504, 65519.996, 65520, 6e-8, 2.98e-8, 1e-40], np.float32)
    words[:] = np.where(rng.random(words.size) < 0.6, near, words)
    at = rng.random(words.size) < 0.15
    words[at] = rng.choice(special, at.sum())
    return data.tobytes()


def test_the_machine_has_its_own_set():
    assert native.verbs_machine in SETS
    assert all("portable" in names for names in VERBS.values())
    verbs = {verb.split()[0] for verb, _ in CASES if _ == native.verbs_machine}
    if native.verbs_machine != "portable":
        assert {"lanes", "arithmetic", "compare", "memory", "permute", "part", "convert", "lookup_signed"} <= verbs
        assert {"transpose", "multiply_add"} <= verbs
    assert ("bytes dot" in {verb for verb, _ in CASES}) == (native.verbs_machine in SETS[3:])


@pytest.mark.parametrize("verb, name", CASES)
def test_same_bits_as_the_portable_set(verb, name):
    written = b""
    for seed in range(8):
        data = inputs(seed)
        expected, actual = native.verbs_run(verb, "portable", data), native.verbs_run(verb, name, data)
        assert actual == expected, seed
        written += actual
    assert any(written)


def test_wrong_use_is_named():
    with pytest.raises(ValueError, match="^no such verb: none$"):
        native.verbs_run("none", "portable", bytes(4096))
    with pytest.raises(ValueError, match="^a verb takes 4096 bytes$"):
        native.verbs_run("compare float x 1", "portable", bytes(4))
