"""iq2_xxs and iq1_s: the tables and their generator, and the edges of the value rules."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import block_reference as ref
from test_super_block import block, values_of

ROOT = Path(__file__).resolve().parents[1]


def test_the_generator_reproduces_the_tables(tmp_path: Path) -> None:
    made = tmp_path / "grid_tables.h"
    subprocess.run([sys.executable, str(ROOT / "tools" / "make_grid_tables.py"), str(made)], check=True)
    assert made.read_text() == (ROOT / "formats" / "grid_tables.h").read_text()


def test_the_published_entries() -> None:
    big, small = ref.numbers("iq2xxs_grid"), ref.numbers("iq1s_grid")
    assert len(big) == 256 and len(small) == 2048
    assert big[:3] == [0x0808080808080808, 0x080808080808082B, 0x0808080808081919]
    assert big[-3:] == [0x2B2B190808192B08, 0x2B2B2B0819190808, 0x2B2B2B1908081908]
    assert small[:8] == [0, 2, 0x101, 0x200, 0x202, 0x10001, 0x10101, 0x20000] and small[-1] == 0x22222222
    assert set(ref.grid_magnitudes().ravel()) == {8, 25, 43} and set(ref.grid_digits().ravel()) == {0, 1, 2}


def test_every_entry_of_both_grids() -> None:
    for index, magnitudes in enumerate(ref.grid_magnitudes()):
        b = block("iq2_xxs", **{"at_2": bytes([index]), "at_66": b""})
        np.testing.assert_array_equal(values_of("iq2_xxs", b)[:8], magnitudes * 0.125)
    for index, digits in enumerate(ref.grid_digits()):
        b = block("iq1_s", at_2=index & 255, at_34=index >> 8)
        np.testing.assert_array_equal(values_of("iq1_s", b)[:8], digits - 0.875)


@pytest.mark.parametrize("index", range(128))
def test_the_eighth_sign_is_the_parity_of_seven(index: int) -> None:
    values = values_of("iq2_xxs", block("iq2_xxs", at_6=index))
    signs = [index >> j & 1 for j in range(7)]
    np.testing.assert_array_equal(values[:8] < 0, [*signs, sum(signs) % 2])
    assert (values[8:] == 1).all()


def test_iq2_xxs_scale_0_is_an_eighth() -> None:
    assert (values_of("iq2_xxs", block("iq2_xxs", d=4.0)) == 8 * 0.125 * 4).all()


def test_iq2_xxs_sign_index_1_turns_the_first_and_the_last() -> None:
    values = values_of("iq2_xxs", block("iq2_xxs", at_6=1))
    np.testing.assert_array_equal(np.flatnonzero(values < 0), [0, 7])


@pytest.mark.parametrize("scale", range(16))
def test_iq2_xxs_scales(scale: int) -> None:
    values = values_of("iq2_xxs", block("iq2_xxs", at_17=scale << 4))
    assert (values[32:64] == 8 * (scale + 0.5) * 0.25).all() and (values[:32] == 1).all()


def test_iq1_s_entry_0() -> None:
    assert (values_of("iq1_s", block("iq1_s", d=2.0)) == -1.75).all()


def test_iq1_s_delta_and_scale() -> None:
    b = block("iq1_s", at_2=bytes([255] * 32), at_34=np.full(8, 0x8FFF | 3 << 12, np.uint16).tobytes(), d=0.5)
    assert (values_of("iq1_s", b) == 0.5 * 7 * 0.875).all()  # the last entry is all 2


def test_iq1_s_last_group() -> None:
    values = values_of("iq1_s", block("iq1_s", at_33=255, at_48=(7 << 9).to_bytes(2, "little")))
    assert (values[248:] == 2 - 0.875).all() and (values[:248] == -0.875).all()
