"""Schedules: linear by default, drawn from a seed on request; more strands and groups than threads."""

import pytest
from sycl_settings import SCHEDULES, host_settings, native, threads


def test_linear_order():
    with host_settings(shuffle=False), threads(1):
        assert native.strand_order(6, 3) == list(range(6)) * 3
        assert native.group_order(40) == list(range(40))


def test_shuffled_order_of_strands_changes_at_each_barrier():
    with host_settings(shuffle=True, seed=11):
        order = native.strand_order(32, 4)
    rounds = [order[i : i + 32] for i in range(0, 128, 32)]
    assert all(sorted(r) == list(range(32)) for r in rounds)
    assert len({tuple(r) for r in rounds + [list(range(32))]}) == 5


def test_shuffled_order_of_groups_depends_on_the_seed():
    orders = []
    for seed in (1, 2):
        with host_settings(shuffle=True, seed=seed * 1000003), threads(1):
            orders.append(native.group_order(64))
    assert all(sorted(o) == list(range(64)) for o in orders)
    assert orders[0] != orders[1] and list(range(64)) not in orders


@pytest.mark.parametrize("count", [1, 2, 3, 7])
def test_values_made_once_per_launch_and_thread(count):
    with threads(count):
        for _ in range(3):
            made, right = native.shared_once(200)
            assert right and 1 <= made <= count


@pytest.mark.parametrize("count", [1, 2, 3])
@pytest.mark.parametrize("columns, at_once", [(1, 1), (40, 1), (40, 7), (41, 1000)])
def test_a_kernel_that_takes_groups_gets_each_of_them_once(columns, at_once, count):
    groups = 3 * columns
    with host_settings(shuffle=False), threads(count):
        assert native.groups_taken(columns, at_once) == ([0] * groups, [1] * groups)
    with host_settings(shuffle=True, seed=5), threads(count):
        assert native.groups_taken(columns, at_once) == ([1] * groups, [0] * groups)


TAKEN = "kernel: A kernel may call shared_by_launch in one place only, and there for one count."


@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("groups", [1, 3, 100])
def test_a_kernel_makes_the_values_of_its_launch_in_one_place(groups, schedule):
    with host_settings(**schedule), threads(2):
        assert native.shared_from("again", groups) == ""
        assert native.shared_from("count", groups) == TAKEN
        assert native.shared_from("place", groups) == TAKEN


def test_groups_that_make_different_values_of_their_launch():
    with threads(1):
        assert native.shared_from("group", 1) == ""
        assert native.shared_from("group", 2) == TAKEN
