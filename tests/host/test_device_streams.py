"""Streams, events and devices as torch.xpu shows them."""

import orrery_host  # noqa: F401
import pytest
import torch
from device_process import check_python


def test_presence():
    assert torch.xpu.is_available() and torch.xpu.is_initialized()
    assert torch.xpu.device_count() == 1 and torch.xpu.current_device() == 0
    assert torch.device("xpu").type == "xpu" and torch.ones(1, device="xpu").is_xpu
    torch.xpu.synchronize()
    torch.xpu.synchronize("xpu:0")


def test_properties():
    properties = torch.xpu.get_device_properties()
    assert properties.name == torch.xpu.get_device_name() == torch.xpu.get_device_name("xpu:0") != ""
    assert properties.max_work_group_size == 1024
    assert properties.has_fp64 and properties.has_fp16
    assert torch.xpu.get_device_capability()["max_work_group_size"] == 1024


def test_name_and_limit_come_from_the_environment():
    check_python(
        """
        import orrery_host, torch
        properties = torch.xpu.get_device_properties()
        assert properties.name == torch.xpu.get_device_name() == "Some Device 7", properties
        assert properties.max_work_group_size == 256
        """,
        ORRERY_HOST_DEVICE_NAME="Some Device 7",
        ORRERY_HOST_MAX_WORK_GROUP_SIZE="256",
    )


def test_the_default_name_classes_no_device():
    name = check_python("import orrery_host, torch; print(torch.xpu.get_device_name())")
    assert name.strip() and not any(word in name for word in ("Pike", "Vela", "GPU", "Graphics"))


def test_current_stream():
    default = torch.xpu.current_stream()
    assert default.stream_id == 0 and default.device == torch.device("xpu", 0)
    other = torch.xpu.Stream()
    assert other != default and other.sycl_queue != default.sycl_queue
    with torch.xpu.stream(other):
        assert torch.xpu.current_stream() == other
        x = torch.ones(5, device="xpu") + 1
    assert torch.xpu.current_stream() == default
    default.wait_stream(other)
    x.record_stream(default)
    assert x.sum().item() == 10 and other.query()
    other.synchronize()


def test_stream_is_a_torch_stream():
    stream = torch.xpu.Stream()
    assert isinstance(stream, torch.Stream) and stream == torch.xpu.Stream(
        stream_id=stream.stream_id, device_index=stream.device_index, device_type=stream.device_type
    )
    assert len({stream, torch.xpu.Stream(), torch.xpu.current_stream()}) == 3
    assert repr(stream).startswith("torch.xpu.Stream(device=xpu:0 sycl_queue=0x")


def test_priority_picks_another_queue():
    assert torch.xpu.Stream(priority=-1).stream_id > max(torch.xpu.Stream().stream_id for _ in range(32))


def test_events():
    start, end = torch.xpu.Event(enable_timing=True), torch.xpu.Event(enable_timing=True)
    assert repr(start) == "torch.xpu.Event(uninitialized)"
    start.record()
    torch.ones(500, 500, device="xpu") @ torch.ones(500, 500, device="xpu")
    end.record()
    end.synchronize()
    assert start.query() and end.query()
    assert 0 < start.elapsed_time(end) < 60_000
    assert start.elapsed_time(end) == -end.elapsed_time(start)
    start.wait(torch.xpu.Stream())
    torch.xpu.current_stream().wait_event(end)
    assert isinstance(torch.xpu.current_stream().record_event(), torch.Event)


def test_elapsed_time_needs_timed_and_recorded_events():
    plain, timed = torch.xpu.Event(), torch.xpu.Event(enable_timing=True)
    plain.record()
    with pytest.raises(ValueError, match="enable_timing=True"):
        timed.elapsed_time(plain)
    with pytest.raises(RuntimeError, match="must be recorded"):
        timed.elapsed_time(torch.xpu.Event(enable_timing=True))


def test_streams_are_current_for_a_thread():
    check_python(
        """
        import threading, orrery_host, torch
        seen = []
        with torch.xpu.stream(torch.xpu.Stream()):
            thread = threading.Thread(target=lambda: seen.append(torch.xpu.current_stream().stream_id))
            thread.start()
            thread.join()
            assert seen == [0] and torch.xpu.current_stream().stream_id != 0
        """
    )


def test_two_devices():
    check_python(
        """
        import orrery_host, torch
        assert torch.xpu.device_count() == 2 and torch.xpu.current_device() == 0
        x, y = torch.ones(4, device="xpu:0"), torch.ones(4, device="xpu:1")
        assert x.device != y.device and (y + 1).device == torch.device("xpu:1")
        assert torch.nonzero(y).device == torch.sort(y)[0].device == torch.randn_like(y).device == y.device
        assert torch.arange(5, device="xpu:1").device == torch.randperm(5, device="xpu:1").device == y.device
        assert y.clone().resize_(100).device == y.device
        try:
            x + y
        except RuntimeError as error:
            assert str(error).startswith("Expected all tensors to be on the same device, but found at least two "
                                         "devices, xpu:"), error
        else:
            raise AssertionError
        try:
            torch.cat([x, y])
        except RuntimeError as error:
            assert "xpu:0 and xpu:1" in str(error), error
        else:
            raise AssertionError
        assert torch.equal(x.to("xpu:1"), y) and y.to("xpu:0").device == x.device
        x.copy_(y * 3)
        assert x.tolist() == [3, 3, 3, 3]

        with torch.xpu.device(1):
            assert torch.xpu.current_device() == 1
            assert torch.empty(1, device="xpu").device == torch.device("xpu:1")
            assert torch.xpu.Stream().device == torch.xpu.current_stream().device == torch.device("xpu:1")
        assert torch.xpu.current_device() == 0
        torch.xpu.set_device(1)
        assert torch.ones(1).xpu().device == torch.device("xpu:1")
        torch.xpu.set_device("xpu:0")

        stream = torch.xpu.Stream("xpu:1")
        assert stream.device == torch.device("xpu:1")
        with torch.xpu.stream(stream):
            assert torch.xpu.current_stream() == stream and torch.xpu.current_device() == 1
        assert torch.xpu.current_device() == 0
        assert torch.xpu.current_stream("xpu:1").sycl_queue != torch.xpu.current_stream("xpu:0").sycl_queue

        before = torch.xpu.memory_allocated(0), torch.xpu.memory_allocated(1)
        more = torch.empty(1000, dtype=torch.uint8, device="xpu:1")
        assert (torch.xpu.memory_allocated(0), torch.xpu.memory_allocated(1)) == (before[0], before[1] + 1000)

        torch.xpu.manual_seed_all(3)
        first = [torch.rand(3, device=f"xpu:{i}").tolist() for i in range(2)]
        assert first[0] == first[1]
        torch.rand(3, device="xpu:1")
        assert torch.rand(3, device="xpu:0").tolist() != torch.rand(3, device="xpu:1").tolist()
        torch.xpu.synchronize(1)
        """,
        ORRERY_HOST_DEVICES="2",
    )


def test_a_device_that_is_not_there():
    text = r"^There is no device xpu:1; the number of xpu devices is 1\."
    for use in (
        lambda: torch.empty(1, device="xpu:1"),
        lambda: torch.ones(1).to("xpu:1"),
        lambda: torch.xpu.set_device(1),
        lambda: torch.xpu.synchronize(1),
        lambda: torch.xpu.current_stream(1),
        lambda: torch.xpu.memory_stats(1),
    ):
        with pytest.raises(RuntimeError, match=text):
            use()
