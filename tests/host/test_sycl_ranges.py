"""Ranges and ids in one to three dimensions: the last dimension runs fastest, as SYCL has it."""

import numpy as np
import pytest
from sycl_settings import SCHEDULES, host_settings, native, threads

SHAPES = [
    ([24], [8]),
    ([57], [19]),
    ([6, 10], [3, 5]),
    ([4, 4], [4, 1]),
    ([4, 6, 10], [2, 3, 5]),
    ([3, 1, 64], [1, 1, 32]),
]


def expected_ids(global_size, local_size):
    groups = [g // l for g, l in zip(global_size, local_size)]
    rows = []
    for linear in range(int(np.prod(global_size))):
        at = [int(i) for i in np.unravel_index(linear, global_size)]
        group = [i // l for i, l in zip(at, local_size)]
        local = [i % l for i, l in zip(at, local_size)]
        linear_ids = [int(np.ravel_multi_index(local, local_size)), int(np.ravel_multi_index(group, groups)), linear]
        rows.append(group + local + at + linear_ids + groups + local_size)
    return rows


@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("count", [1, 2, 3, 7])
@pytest.mark.parametrize("global_size, local_size", SHAPES)
def test_ids_of_work_items(global_size, local_size, count, schedule):
    with host_settings(**schedule), threads(count):
        assert native.item_ids(global_size, local_size) == expected_ids(global_size, local_size)


@pytest.mark.parametrize("size", [[7], [3, 5], [2, 3, 4]])
def test_ids_of_a_plain_range(size):
    assert native.range_ids(size) == [list(at) for at in np.ndindex(*size)]


@pytest.mark.parametrize("lanes", [1, 8, 16, 32])
@pytest.mark.parametrize("global_size, local_size", [([192], [64]), ([4, 64], [2, 32]), ([2, 4, 64], [1, 2, 32])])
def test_lane_items_start_at_each_strands_first_work_item(lanes, global_size, local_size):
    groups = [g // l for g, l in zip(global_size, local_size)]
    expected = []
    for group in np.ndindex(*groups):
        for first in range(0, int(np.prod(local_size)), lanes):
            expected.append(list(group) + [int(i) for i in np.unravel_index(first, local_size)] + [first])
    with threads(2):
        assert native.lane_ids(lanes, global_size, local_size) == expected


def test_no_work_items():
    assert native.item_ids([0], [4]) == []
    assert native.range_ids([3, 0]) == []


def test_local_range_beyond_the_limit():
    with host_settings(max_work_group_size=64):
        assert native.range_error([64], [64], 1) == ""
        assert native.range_error([8, 16], [8, 8], 1) == ""
        for global_size, local_size in [([128], [128]), ([32, 32], [8, 16]), ([4, 8, 4], [4, 8, 4])]:
            assert native.range_error(global_size, local_size, 1) == (
                "nd_range: A work-group of 128 work-items is beyond the device's limit of 64."
            )


@pytest.mark.parametrize(
    "global_size, local_size, text",
    [
        ([10], [4], "The global range 10 of dimension 0 is no multiple of its local range 4."),
        ([8, 9], [2, 2], "The global range 9 of dimension 1 is no multiple of its local range 2."),
        ([8], [0], "The global range 8 of dimension 0 is no multiple of its local range 0."),
    ],
)
def test_local_range_that_does_not_divide(global_size, local_size, text):
    assert native.range_error(global_size, local_size, 1) == "nd_range: " + text


def test_work_group_that_is_no_whole_number_of_sub_groups():
    assert native.range_error([48], [24], 16) == (
        "nd_range: A work-group of 24 work-items is no whole number of sub-groups of 16."
    )
