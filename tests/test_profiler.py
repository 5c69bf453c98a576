"""PyTorch's profilers show each launch under its kernel's name, with its time, on the thread that launched."""

from __future__ import annotations

import json
import os
import subprocess
import sys
import threading
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
import torch
from torch.profiler import ProfilerActivity, profile

import orrery_host
import orrery_ops
from function_calls import ARGUMENTS, call, real, weight
from orrery.formats import FORMATS
from torch_threads import threads

LINEAR = {
    "one row": ("q4_0", 1),
    "one row, input quantized": ("q2_k", 1),
    "pairs of rows": ("q4_0", 3),
    "dense weight by blocks": ("q4_0", 21),
    "dense weight by rows": ("q5_0", 2),
}
HOST_ONLY = "get_moe_indexes"


def forward(format: str, rows: int) -> torch.Tensor:
    return orrery_ops.forward_new(real(rows, 256), weight(format, 16, 256), FORMATS[format].code, 0)


def by_autograd() -> Any:
    return torch.autograd.profiler.profile()


def by_kineto() -> Any:
    return profile(activities=[ProfilerActivity.CPU])


def profiled(call_it: Callable[[], Any], profiler: Callable[[], Any] = by_kineto) -> tuple[list[Any], list[Any]]:
    """The launches of a call, and the profiler's events of their names in order of time."""
    with profiler() as profile, orrery_host.record_launches() as launches:
        call_it()
    kernels = {launch.kernel for launch in launches}
    seen = profile.function_events if profiler is by_autograd else profile.events()
    events = [event for event in seen if event.name in kernels]
    return launches, sorted(events, key=lambda event: event.time_range.start)


def assert_shown(launches: list[Any], events: list[Any]) -> None:
    assert launches and [event.name for event in events] == [launch.kernel for launch in launches]
    for event, launch in zip(events, launches):
        assert event.time_range.elapsed_us() >= 0.99 * launch.seconds * 1e6 - 1  # the launch lies within its scope


@pytest.mark.parametrize("profiler", [by_kineto, by_autograd])
@pytest.mark.parametrize("name", [name for name in ARGUMENTS if name != HOST_ONLY])
def test_every_function(name: str, profiler: Callable[[], Any]) -> None:
    assert_shown(*profiled(lambda: call(name), profiler))


@pytest.mark.parametrize("case", LINEAR)
def test_every_family_of_the_linear_layer(case: str) -> None:
    assert_shown(*profiled(lambda: forward(*LINEAR[case])))


def test_the_matrix_engine() -> None:
    code = """
import test_profiler as t
launches, events = t.profiled(lambda: t.forward("q8_0", 16))
t.assert_shown(launches, events)
print([event.name for event in events])
"""
    path = os.pathsep.join([str(Path(__file__).parent), *filter(None, [os.environ.get("PYTHONPATH")])])
    # The engine takes 16 outputs; explicit SIMD, which comes first, a multiple of 32.
    environment = os.environ | {"ORRERY_HOST_DEVICE_NAME": "Rack Compute Card Apex", "PYTHONPATH": path}
    done = subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    assert done.stdout.strip() == "['dotgrid_forward_kernel']"


def test_a_function_without_a_kernel_has_no_event() -> None:
    with by_kineto() as profile:
        call(HOST_ONLY)
    assert not [event for event in profile.events() if "kernel" in event.name]


def test_the_table_adds_up_types_and_the_trace_has_times(tmp_path: Path) -> None:
    with by_kineto() as profile:
        for dtype in (torch.float32, torch.float16, torch.float32):
            orrery_ops.rms_norm(real(64, dtype=dtype), real(2, 64, dtype=dtype), 1e-5)
    (row,) = [row for row in profile.key_averages() if row.key == "rms_norm_kernel"]
    assert row.count == 3 and row.cpu_time_total > 0
    assert "rms_norm_kernel" in profile.key_averages().table(sort_by="cpu_time_total")
    profile.export_chrome_trace(str(tmp_path / "trace.json"))
    events = json.loads((tmp_path / "trace.json").read_text())["traceEvents"]
    assert [event["dur"] > 0 for event in events if event.get("name") == "rms_norm_kernel"] == [True] * 3


def test_a_launch_lies_within_its_operation_s_scope() -> None:
    with by_kineto() as profile:
        call("forward_new")
    (scope,) = [event for event in profile.events() if event.name == "orrery_qlinear_forward"]
    assert "qlinear_xpu_kernel_q4_0_2x16" in [child.name for child in scope.cpu_children]


@pytest.mark.parametrize("count", [2, 3])
def test_shared_work_shows_once_on_the_thread_that_launched(count: int) -> None:
    rows, scale = real(4096, 256), real(256)
    with threads(count):
        orrery_ops.rms_norm(scale, rows, 1e-5)  # starts the workers
        launches, events = profiled(lambda: orrery_ops.rms_norm(scale, rows, 1e-5))
        with by_kineto() as profile:
            orrery_ops.rms_norm(scale, rows, 1e-5)
    assert_shown(launches, events)
    names = {event.name: event.thread for event in profile.events()}
    assert names["rms_norm_kernel"] == names["aten::empty"]


def test_threads_that_launch_at_once_show_their_own() -> None:
    together = threading.Barrier(3, timeout=60)

    def work(name: str) -> None:
        together.wait()
        for _ in range(20):
            call(name)

    # Otherwise PyTorch follows only the thread that profiles.
    all_threads = torch._C._profiler._ExperimentalConfig(profile_all_threads=True)
    with profile(activities=[ProfilerActivity.CPU], experimental_config=all_threads) as seen:
        workers = [threading.Thread(target=work, args=(name,)) for name in ("rms_norm", "sdp", "bmm")]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
    threads_of = {
        kernel: [event.thread for event in seen.events() if event.name == kernel]
        for kernel in ("rms_norm_kernel", "sdp_kernel", "MatrixMultiplication")
    }
    assert [(len(found), len(set(found))) for found in threads_of.values()] == [(20, 1)] * 3
    assert len({found[0] for found in threads_of.values()}) == 3


def test_an_empty_launch_is_shown_and_a_refused_one_is_not() -> None:
    assert_shown(*profiled(lambda: call("rms_norm", {1: real(0, 64)})))
    with by_kineto() as profile, pytest.raises(RuntimeError):
        call("sdp", {0: real(1, 2, 3, 80), 1: real(1, 1, 3, 80), 2: real(1, 1, 3, 80)})
    assert "sdp_kernel" not in {event.name for event in profile.events()}


def test_results_do_not_depend_on_a_profiler() -> None:
    arguments = ARGUMENTS["dequantize_rows"]()
    plain = orrery_ops.dequantize_rows(*arguments)
    with by_kineto():
        assert torch.equal(orrery_ops.dequantize_rows(*arguments), plain)
