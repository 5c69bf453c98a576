"""`record_launches` shows each kernel that the queues of the device's streams run."""

import dataclasses

import orrery_host
import orrery_ops
import pytest
import torch
from device_process import check_python

FIELDS = {
    "name": str,
    "kernel": str,
    "instance": str,
    "file": str,
    "function": str,
    "line": int,
    "column": int,
    "global_size": tuple,
    "local_size": tuple,
    "sub_group_size": int,
    "local_memory": int,
    "waited": bool,
    "device": int,
    "seconds": float,
}


def launch(device="xpu"):
    return orrery_ops.rms_norm(torch.ones(64, device=device), torch.ones(3, 64, device=device), 1e-6)


def test_fields():
    with orrery_host.record_launches() as launches:
        launch()
    (one,) = launches
    assert [field.name for field in dataclasses.fields(one)] == list(FIELDS)
    assert {name: type(getattr(one, name)) for name in FIELDS} == FIELDS
    assert (one.name, one.device, one.waited) == ("rms norm", 0, False)
    assert 0 < one.seconds < 10 and all(size > 0 for size in one.global_size + one.local_size)
    with pytest.raises(dataclasses.FrozenInstanceError):
        one.name = "another"


def test_only_launches_inside_the_block():
    launch()
    with orrery_host.record_launches() as launches:
        torch.ones(3, device="xpu") + 1  # no kernel of a queue
    launch()
    assert launches == []


def test_blocks_nest():
    with orrery_host.record_launches() as outer:
        launch()
        with orrery_host.record_launches() as inner:
            launch()
        launch()
    assert (len(outer), len(inner)) == (3, 1) and outer[1] == inner[0]


def test_a_block_that_fails_keeps_what_it_saw():
    launches = []
    with pytest.raises(ZeroDivisionError):
        with orrery_host.record_launches() as launches:
            launch()
            raise ZeroDivisionError
    assert len(launches) == 1
    with orrery_host.record_launches() as after:
        pass
    assert after == []


def test_streams_and_devices():
    check_python(
        """
        import orrery_host, orrery_ops, torch
        def launch(device):
            return orrery_ops.rms_norm(torch.ones(64, device=device), torch.ones(3, 64, device=device), 1e-6)
        with orrery_host.record_launches() as launches:
            launch("xpu:1")
            launch("xpu:0")
            with torch.xpu.stream(torch.xpu.Stream("xpu:1")):
                launch("xpu:1")
        assert [one.device for one in launches] == [1, 0, 1], launches
        """,
        ORRERY_HOST_DEVICES="2",
    )
