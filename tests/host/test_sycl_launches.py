"""What a command group may contain, and where a launch may come from."""

import pytest
from sycl_settings import SCHEDULES, host_settings, native, threads

INSIDE = "invalid: A kernel may not launch another kernel."
TWO = "invalid: A command group may have one kernel only."


@pytest.mark.parametrize("count", [1, 2, 7])
@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("lanes, local", [(1, 1), (1, 8), (1, 64), (16, 16), (16, 64)])
@pytest.mark.parametrize("groups", [1, 50])
def test_a_launch_from_inside_a_kernel(groups, lanes, local, schedule, count):
    with host_settings(**schedule), threads(count):
        assert native.launch_from_kernel(lanes, groups, local) == (INSIDE, False)


@pytest.mark.parametrize("count", [0, 1])
def test_a_command_group_with_at_most_one_kernel(count):
    assert native.kernels_in_a_group(count) == ("", count)


@pytest.mark.parametrize("count", [2, 3])
def test_a_command_group_with_more_kernels(count):
    assert native.kernels_in_a_group(count) == (TWO, 1)


def beyond(bytes):
    return (
        f"memory_allocation: A command group's {bytes} bytes of local memory are beyond the device's limit of "
        f"{native.local_mem_size()}."
    )


def test_local_memory_up_to_the_limit():
    ints = native.local_mem_size() // 4
    assert native.local_memory_error([[ints]]) == ""
    assert native.local_memory_error([[ints - 17], [16], [1]]) == ""
    assert native.local_memory_error([[ints // 8, 8]]) == ""


def test_local_memory_beyond_the_limit():
    limit = native.local_mem_size()
    ints = limit // 4
    assert native.local_memory_error([[ints + 1]]) == beyond(limit + 4)
    assert native.local_memory_error([[ints - 16], [16], [1]]) == beyond(limit + 4)
    assert native.local_memory_error([[ints // 8, 8], [3]]) == beyond(limit + 12)


@pytest.mark.parametrize("size", [[2**62], [2**32, 2**32], [2**20, 2**22, 2**22]])
def test_local_memory_beyond_every_number(size):
    assert native.local_memory_error([size]) == beyond(2**64 - 1)
    assert native.local_memory_error([[5], size, [5]]) == beyond(2**64 - 1)
