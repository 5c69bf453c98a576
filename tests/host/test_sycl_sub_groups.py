"""Sub-group shuffles in the standard's form, in sub-groups of 16 whose last one may be smaller."""

import numpy as np
import pytest
from sycl_settings import SCHEDULES, host_settings, native, threads

SHUFFLED = {"float": native.shuffled_float, "double": native.shuffled_double, "int": native.shuffled_int}


def by_sub_group(values, local, f):
    out = []
    for group in range(0, len(values), local):
        for first in range(0, local, 16):
            out += f(values[group + first : group + min(first + 16, local)])
    return out


@pytest.mark.parametrize("kind", SHUFFLED)
@pytest.mark.parametrize("bits", [1, 2, 5, 8, 15])
@pytest.mark.parametrize("schedule", SCHEDULES)
def test_permute_by_xor(kind, bits, schedule):
    values = [3 * i + 1 for i in range(96)]
    expected = by_sub_group(values, 32, lambda v: [v[i ^ bits] for i in range(len(v))])
    with host_settings(**schedule):
        assert SHUFFLED[kind]("xor", 32, values, bits) == expected


@pytest.mark.parametrize("local", [1, 7, 16, 40])
@pytest.mark.parametrize("shift", [0, 1, 11])
@pytest.mark.parametrize("schedule", SCHEDULES)
def test_select(local, shift, schedule):
    values = [5.0 * i for i in range(3 * local)]
    expected = by_sub_group(values, local, lambda v: [v[(i + shift) % len(v)] for i in range(len(v))])
    with host_settings(**schedule), threads(3):
        assert native.shuffled_float("select", local, values, shift) == expected


@pytest.mark.parametrize("local", [1, 16, 40])
@pytest.mark.parametrize("delta", [0, 1, 4, 15])
@pytest.mark.parametrize("schedule", SCHEDULES)
def test_shift_left(local, delta, schedule):
    """Lanes without one above keep their value, for which the standard names none."""
    values = [5.0 * i for i in range(3 * local)]
    expected = by_sub_group(values, local, lambda v: v[delta:] + v[-delta:] if 0 < delta < len(v) else v)
    with host_settings(**schedule), threads(3):
        assert native.shuffled_float("left", local, values, delta) == expected


@pytest.mark.parametrize("local", [1, 7, 32, 40, 256])
@pytest.mark.parametrize("schedule", SCHEDULES)
def test_sum_of_a_group(local, schedule):
    """Columns of 32 in order, then halves."""
    values = np.random.default_rng(local).standard_normal((3, local)).astype(np.float32)
    sums = np.zeros((3, 32), np.float32)
    for first in range(0, local, 32):
        part = values[:, first : first + 32]
        sums[:, : part.shape[1]] += part
    while sums.shape[1] > 1:
        sums = sums[:, : sums.shape[1] // 2] + sums[:, sums.shape[1] // 2 :]
    with host_settings(**schedule), threads(3):
        assert native.group_sums(values.ravel().tolist(), local) == sums.repeat(2 * local).tolist()


def test_sizes_of_sub_groups():
    assert native.shuffled_int("size", 40, [0] * 80, 0) == ([16] * 32 + [8] * 8) * 2


@pytest.mark.parametrize("schedule", SCHEDULES)
def test_butterfly_sum(schedule):
    values = np.random.default_rng(5).standard_normal(64).astype(np.float32)

    def butterfly(v):
        for bits in (8, 4, 2, 1):
            v = v + v[np.arange(16) ^ bits]
        return v.tolist()

    with host_settings(**schedule):
        assert native.shuffled_float("butterfly", 64, values.tolist(), 0) == by_sub_group(values, 64, butterfly)


@pytest.mark.parametrize("schedule", SCHEDULES)
def test_sub_groups_exchange_values_of_different_types_at_once(schedule):
    rounds, local = 7, 64
    expected = [float(l // 16 * 16 + (l + rounds) % 16) for l in range(local)]
    with host_settings(**schedule):
        assert native.shuffle_two_types(local, rounds) == expected


def test_a_lane_that_is_not_there():
    with host_settings(shuffle=False), pytest.raises(RuntimeError) as error:
        native.shuffled_float("xor", 24, [0.0] * 24, 8)
    assert str(error.value) == "A shuffle reads lane 8 of a sub-group of 8."


@pytest.mark.parametrize("local, bits, lane, size", [(1, 8, 8, 1), (8, 8, 8, 8), (40, 8, 8, 8), (24, 12, 12, 8)])
def test_a_lane_that_is_not_there_in_a_kernel_generic_over_its_item(local, bits, lane, size):
    with host_settings(shuffle=False):
        assert native.xor_lane_error(local, bits) == f"kernel: A shuffle reads lane {lane} of a sub-group of {size}."
    assert native.xor_lane_error(16 * local, bits) == ""
