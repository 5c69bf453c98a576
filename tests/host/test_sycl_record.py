"""The record of launches."""

import threading

import pytest
from device_process import check_python
from sycl_settings import host_settings, native


@pytest.fixture
def recorded():
    native.recording_begin()
    yield lambda: native.recording_end()


def test_fields(recorded):
    event = native.launch(device=2, global_size=[6, 32], local_size=[3, 8], local_bytes=100)
    native.record("a name", event)
    (launch,) = recorded()
    seconds = launch.pop("seconds")
    assert 0 < seconds < 10
    assert launch == {
        "name": "a name",
        "kernel": "named_kernel",
        "instance": "c10::Half, 16",
        "file": "unit",
        "function": "function",
        "line": 31,
        "column": 7,
        "global_size": [6, 32],
        "local_size": [3, 8],
        "sub_group_size": 8,
        "local_memory": 100,
        "waited": False,
        "device": 2,
    }


def test_kernel_inside_a_template(recorded):
    native.launch(nested_name=True)
    (launch,) = recorded()
    assert (launch["kernel"], launch["instance"]) == ("plain_kernel", "")


def test_waited_before_the_record_after_it_and_not_recorded(recorded):
    before, after, never = (native.launch() for _ in range(3))
    before.wait()
    native.record("before", before)
    native.record("after", after)
    after.wait()
    never.wait()
    assert [(l["name"], l["waited"]) for l in recorded()] == [("before", True), ("after", False), (None, True)]


def test_a_launch_of_no_work_items_is_recorded(recorded):
    native.launch(global_size=[0], local_size=[8])
    assert [l["global_size"] for l in recorded()] == [[0]]


def test_a_launch_that_fails_is_not(recorded):
    with pytest.raises(RuntimeError):
        native.launch(global_size=[9], local_size=[8])
    assert recorded() == []


def test_recordings_nest():
    native.recording_begin()
    first = native.launch()
    native.recording_begin()
    native.record("second", native.launch())
    native.record("first", first)
    inner = native.recording_end()
    native.record("third", native.launch())
    outer = native.recording_end()
    assert [l["name"] for l in inner] == ["second"]
    assert [l["name"] for l in outer] == ["first", "second", "third"]


def test_nothing_is_kept_without_a_recording():
    early = native.launch()
    native.recording_begin()
    early.wait()
    native.record("early", early)
    assert native.recording_end() == []


def test_no_recording_to_end():
    with pytest.raises(RuntimeError) as error:
        native.recording_end()
    assert str(error.value) == "This thread collects no launches."


def test_threads_record_their_own_launches():
    together = threading.Barrier(4, timeout=60)
    seen = {}

    def work(columns):
        together.wait()
        native.recording_begin()
        for _ in range(200):
            native.record(f"of {columns}", native.launch(global_size=[columns]))
        together.wait()
        seen[columns] = native.recording_end()

    workers = [threading.Thread(target=work, args=(columns,)) for columns in (8, 16, 24, 32)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    for columns, launches in seen.items():
        assert [(l["global_size"], l["name"]) for l in launches] == [([columns], f"of {columns}")] * 200
    assert len(seen) == 4


def on_another_thread(work):
    results = []
    thread = threading.Thread(target=lambda: results.append(work()))
    thread.start()
    thread.join()
    return results[0]


def test_launches_waits_and_records_of_another_thread_are_not_seen(recorded):
    mine = native.launch()
    on_another_thread(native.launch)
    on_another_thread(mine.wait)
    on_another_thread(lambda: native.record("from elsewhere", mine))
    assert [(l["name"], l["waited"]) for l in recorded()] == [(None, False)]


def test_an_event_finds_no_other_threads_record():
    def launch(elsewhere=None):
        native.recording_begin()
        event = [native.launch() for _ in range(3)][1]
        if elsewhere:
            native.record("from elsewhere", elsewhere)
        return event, native.recording_end()

    # Two new threads, which would both count from 1.
    event, _ = on_another_thread(launch)
    _, launches = on_another_thread(lambda: launch(event))
    assert [l["name"] for l in launches] == [None] * 3


def test_a_fork_amid_the_launches_of_another_thread():
    check_python("""
        import torch
        import orrery_native_tests as native
        from forked import in_child, repeating

        def work():
            native.recording_begin()
            for _ in range(50):
                native.launch()
            native.recording_end()

        def child():
            native.recording_begin()
            native.launch(global_size=[24])
            native.record("in the child", native.launch(global_size=[16]))
            return [l["name"] for l in native.recording_end()] == [None, "in the child"]

        with repeating(work):
            for _ in range(300):
                assert in_child(child)
        """)


def test_order_and_seconds_under_a_shuffled_schedule():
    with host_settings(shuffle=True, seed=4):
        native.recording_begin()
        for columns in (8, 16, 24):
            native.launch(global_size=[columns])
        assert [l["global_size"] for l in native.recording_end()] == [[8], [16], [24]]
