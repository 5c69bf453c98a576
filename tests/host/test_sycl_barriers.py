"""Barriers, local memory, and strands that end or throw."""

import pytest
from sycl_settings import SCHEDULES, host_settings, native, threads

STUCK = "A strand of a work-group ended, or met elsewhere, while others wait for it at a barrier."


@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("count", [1, 2, 3, 7])
@pytest.mark.parametrize("groups, local", [(1, 1), (1, 2), (5, 19), (40, 8), (3, 256), (2, 1024)])
def test_values_pass_around_a_group(groups, local, count, schedule):
    rounds = 5
    with host_settings(**schedule), threads(count):
        out = native.pass_around(groups, local, rounds)
    assert out == [g * local + (l + rounds) % local + rounds for g in range(groups) for l in range(local)]


def test_local_memory_of_several_accessors():
    assert native.local_memory_places() == [True, True, True]


def test_a_shuffled_schedule_spoils_what_the_last_group_left_in_local_memory():
    with threads(1):
        with host_settings(shuffle=False):
            assert set(native.local_memory_before(3, 70)[70:]) == {1}
        with host_settings(shuffle=True, seed=3):
            assert set(native.local_memory_before(3, 70)) == {255}


@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("away", [[0], [3], [0, 1, 2], [7]])
def test_a_strand_that_ends_while_others_wait(away, schedule):
    gone = [i in away for i in range(8)]
    with host_settings(**schedule), pytest.raises(RuntimeError) as error:
        native.some_end(8, gone)
    assert str(error.value) == STUCK


def test_all_strands_of_a_group_may_end_before_its_barrier():
    gone = [False] * 8 + [True] * 8 + [False] * 8
    assert native.some_end(8, gone) == [1] * 8 + [0] * 8 + [1] * 8


@pytest.mark.parametrize("count", [1, 2, 7])
@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("form", ["before", "after", "no barriers"])
@pytest.mark.parametrize("local, at", [(1, 40), (8, 0), (8, 61), (64, 63)])
def test_a_kernel_that_throws(form, local, at, schedule, count):
    with host_settings(**schedule), threads(count):
        text, reached = native.kernel_throws(form, "out of ideas", 64, local, at)
    assert text == "kernel: A kernel failed: out of ideas"
    if local > 1 and form != "no barriers":
        group = reached[at // local * local : (at // local + 1) * local]
        assert 2 not in group, "a work-item went on although its group had failed"


def test_a_kernel_that_throws_before_others_start_does_not_start_them():
    with host_settings(shuffle=False):
        text, reached = native.kernel_throws("before", "first", 8, 8, 2)
    assert (text, reached) == ("kernel: A kernel failed: first", [1, 1, 1, 0, 0, 0, 0, 0])


def test_a_kernel_that_throws_no_exception_object():
    assert native.kernel_throws("before", "number", 8, 8, 2)[0] == "kernel: A kernel failed."


def test_a_barrier_in_a_kernel_that_declares_none():
    assert native.kernel_throws("lying", "", 8, 8, 0)[0] == "kernel: A kernel that declares no barriers met one."
