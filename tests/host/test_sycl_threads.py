"""How threads share a launch."""

import threading
import time

import pytest
import torch
from bench.measure import busy_loops
from device_process import check_python
from sanitizers import THREADS_SANITIZED
from sycl_settings import SCHEDULES, host_settings, native, threads

COUNTS = [1, 2, 3, 7, 16]  # the last two are more than most machines for tests have cores
forks_with_workers = pytest.mark.skipif(
    THREADS_SANITIZED, reason="ThreadSanitizer ends a child whose new thread has the address of one left behind"
)


@pytest.mark.parametrize("schedule", SCHEDULES)
@pytest.mark.parametrize("count", COUNTS)
def test_each_group_runs_once_before_the_launch_returns(count, schedule):
    with host_settings(**schedule), threads(count):
        for groups in [0, 1, 2, 31, 33, 34, 99, 111, 989, 4096]:
            for pause in [0, 20]:  # microseconds in each eighth group: the last ones end at different times
                assert native.groups_run(groups, pause, 20) == [20] * groups


def test_each_group_runs_once_beside_busy_loops():
    with busy_loops(2), threads(2):
        for _ in range(20):
            assert native.groups_run(500, 5, 20) == [20] * 500


@pytest.mark.parametrize("count", COUNTS)
def test_no_more_threads_than_asked_for(count):
    with threads(count):
        for _ in range(20):
            assert 1 <= native.threads_of_a_launch(400) <= count


def test_one_thread_is_the_caller():
    with threads(1):
        assert native.threads_of_a_launch(400) == 1
    with threads(2):
        assert native.threads_of_a_launch(8) == 1  # too few groups to be worth another


@pytest.mark.parametrize("share", ["first", "last"])
@pytest.mark.parametrize("count", [2, 3, 7])
def test_others_take_what_a_thread_in_a_long_piece_has_left(count, share):
    # One group ends only when all groups but those of its own piece, the first third of a share, have run.
    groups, piece = 64 * count, 22
    with threads(count):
        assert native.one_group_waits(groups=groups, at=0 if share == "first" else groups - 64, others=groups - piece)


def test_a_second_launch_does_not_wait_for_the_first():
    results = []

    def second():
        torch.set_num_threads(2)
        assert native.is_held()
        results.append(native.groups_run(100, 0, 1))
        native.let_go()

    helper = threading.Thread(target=second)
    with threads(2):
        helper.start()
        assert native.hold(64)  # each group waits until the launch of the other thread has returned
        helper.join(60)
    assert results == [[1] * 100]


def test_threads_that_launch_at_once():
    together = threading.Barrier(4, timeout=60)
    results = {}

    def work(name):
        torch.set_num_threads(3)
        together.wait()
        results[name] = [native.groups_run(200, 0, 1) == [1] * 200 for _ in range(200)]

    workers = [threading.Thread(target=work, args=(i,)) for i in range(4)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join(120)
    assert results == {i: [True] * 200 for i in range(4)}


@pytest.mark.parametrize("count", COUNTS)
def test_an_exception_on_any_thread_reaches_the_caller(count):
    with threads(count):
        for at in [0, 63, 255]:
            error, _ = native.kernel_throws("no barriers", "it broke", 256, 1, at)
            assert error == "kernel: A kernel failed: it broke"


def test_after_a_sleep():
    with threads(2):
        for seconds in [0.0001, 0.0005, 0.002, 0.05]:
            for _ in range(5):
                time.sleep(seconds)
                assert native.groups_run(300, 0, 1) == [1] * 300


def test_subnormals_are_kept_where_the_caller_flushes_its_own():
    with threads(3):
        if not torch.set_flush_denormal(True):
            pytest.skip("this CPU can't flush subnormals")
        try:
            assert native.smallest_halved(300) == [0x00400000] * 300
            assert (torch.tensor(1.2e-38) / 2).item() == 0  # the caller's own setting is still there
        finally:
            torch.set_flush_denormal(False)


LAUNCHES = """
    import os, threading, time
    import torch
    import orrery_native_tests as native
    from forked import in_child, repeating

    def launches(count):
        torch.set_num_threads(count)
        return native.groups_run(300, 5, 10) == [10] * 300
    """


@forks_with_workers
def test_a_child_of_fork_launches():
    check_python(LAUNCHES + """
    assert launches(3)
    for _ in range(50):
        assert in_child(lambda: launches(3))
        assert launches(3)
    """)


@forks_with_workers
def test_a_child_forked_amid_a_launch_of_another_thread_launches():
    check_python(LAUNCHES + """
    with repeating(lambda: launches(2)):
        for _ in range(100):
            assert in_child(lambda: launches(2))
    """)


@forks_with_workers
def test_a_child_forked_amid_the_first_launch_of_another_thread_launches():
    check_python(LAUNCHES + """
    def forks_amid_its_first_launch(seconds):
        threading.Thread(target=launches, args=(2,), daemon=True).start()
        time.sleep(seconds)
        return in_child(lambda: launches(2))

    failed = [us for us in range(0, 2000, 50) if not in_child(lambda: forks_amid_its_first_launch(us * 1e-6))]
    assert not failed, failed
    """)


def test_openmp_threads_sleep_soon_after_a_parallel_region():
    # Processor time that passes while nobody works: OpenMP's own default spends 3 ms of each of its threads.
    source = """
        import os, sys, time
        import torch
        import orrery_native_tests as native

        torch.set_num_threads(2)
        native.groups_run(300, 0, 1)
        x = torch.ones(1 << 20)
        spent = []
        for _ in range(40):
            x.add_(1)
            before = time.process_time()
            time.sleep(0.01)
            spent.append(time.process_time() - before)
        assert sorted(spent)[20] < 0.001, sorted(spent)
        """
    check_python(source)


def test_openmp_manages_more_threads_than_there_are_processors():
    # The launch's own worker, the thread that keeps OpenMP's team, and the team's others.
    check_python("""
        import os, pathlib
        import torch
        import orrery_native_tests as native

        torch.set_num_threads(2)
        before = len(list(pathlib.Path("/proc/self/task").iterdir()))
        native.groups_run(300, 0, 1)
        more = len(list(pathlib.Path("/proc/self/task").iterdir())) - before
        assert more == 2 + len(os.sched_getaffinity(0)), more
        """)


def test_settings_of_openmp_are_left_alone():
    count = """
        import pathlib
        import torch
        import orrery_native_tests as native

        torch.set_num_threads(1)
        native.groups_run(300, 0, 1)
        alone = len(list(pathlib.Path("/proc/self/task").iterdir()))
        torch.set_num_threads(2)
        native.groups_run(300, 0, 1)
        more = len(list(pathlib.Path("/proc/self/task").iterdir())) - alone
        assert more == 1, more
        """
    check_python(count, OMP_WAIT_POLICY="active")
    check_python(count, GOMP_SPINCOUNT="1000")
