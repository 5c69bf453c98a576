"""Registers the device with PyTorch, in C++ and in `torch.xpu`."""

from __future__ import annotations

import atexit
import contextlib
import importlib
import pathlib
import types

import torch

from orrery_host import _instructions, _processes

_own_lazy_init = torch.xpu._lazy_init


def register() -> None:
    """Registers the device once; does nothing if PyTorch has an `xpu` device of its own.

    Raises ImportError or RuntimeError with one sentence.
    """
    if torch._C._has_xpu:
        return
    _instructions.level()
    try:
        from orrery_host import _C
    except ImportError as error:
        raise ImportError(f"orrery_host can't load its compiled part (built for another PyTorch?): {error}") from None
    try:
        registered = _C.register_device()
    except ValueError as error:
        raise RuntimeError(str(error)) from None
    if registered:
        _fill_torch_xpu(_C)
        _processes.refuse_to_send()
        atexit.register(_settle_autograd, _C)


def refuse(sentence: str) -> None:
    """Leaves PyTorch without the device; the first use of `xpu` raises the sentence."""

    def lazy_init() -> None:
        raise RuntimeError(sentence)

    _replace("_lazy_init", lazy_init)


def _replace(name: str, function) -> None:
    """Replaces a function in `torch.xpu` and in those of its modules that imported it by name."""
    for module in (torch.xpu, torch.xpu.memory, torch.xpu.random):
        if hasattr(module, name):
            setattr(module, name, function)


def _settle_autograd(native) -> None:
    # Autograd's threads start with the first backward pass; if there was none, do not start them now.
    with contextlib.suppress(OSError):  # a thread that ended meanwhile
        names = pathlib.Path("/proc/self/task").glob("*/comm")
        if any(name.read_text().startswith("pt_autograd") for name in names):
            native.settle_autograd()


def _index(device: int | None) -> int:
    return -1 if device is None else device


class _StreamBase(torch.Stream):
    """The base class of `torch.xpu.Stream`."""

    def __new__(cls, priority=0, stream_id=None, device_index=None, device_type=None, **_):
        if stream_id is not None:
            return super().__new__(cls, stream_id=stream_id, device_index=device_index, device_type=device_type)
        return super().__new__(cls, device=torch.device("xpu", torch._C._xpu_getDevice()), priority=priority)

    @property
    def sycl_queue(self) -> int:
        """Address of the `sycl::queue` behind the stream."""
        from orrery_host import _C

        return _C.queue_address(self.stream_id, self.device_index, self.device_type)

    @staticmethod
    def priority_range() -> tuple[int, int]:
        """The lowest and the highest priority."""
        return 0, -1


class _EventBase(torch.Event):
    """The base class of `torch.xpu.Event`."""

    def __new__(cls, enable_timing=False):
        event = super().__new__(cls, device="xpu", enable_timing=enable_timing)
        event.enable_timing = enable_timing
        return event

    @property
    def sycl_event(self) -> int:
        """A handle, 0 before the event is recorded."""
        return self.event_id

    def elapsed_time(self, end_event: torch.Event) -> float:
        """Milliseconds between the two records; torch.Event's own method refuses subclasses."""
        if not (self.enable_timing and end_event.enable_timing):
            raise ValueError("Both events must be created with argument 'enable_timing=True'.")
        from orrery_host import _C

        return _C.elapsed_milliseconds(self.event_id, end_event.event_id)


def _device_properties(native):
    """Builds the function behind `torch.xpu.get_device_properties`."""

    def get(device: int | None):
        return types.SimpleNamespace(
            **native.properties(_index(device)),
            platform_name="host",
            vendor="",
            device_id=0,
            driver_version="",
            version="",
            gpu_eu_count=0,
            gpu_subslice_count=0,
            max_num_sub_groups=64,
            memory_clock_rate=0,
            memory_bus_width=64,
            sub_group_sizes=[1, 8, 16, 32],
            last_level_cache_size=0,
            has_fp16=True,
            has_fp64=True,
            has_atomic64=True,
            has_bfloat16_conversions=True,
            has_subgroup_matrix_multiply_accumulate=False,
            has_subgroup_matrix_multiply_accumulate_tensor_float32=False,
            has_subgroup_2d_block_io=False,
            is_integrated_gpu=True,
            architecture=0,
            type="cpu",
        )

    return get


def _device_count() -> int:
    """Returns the number of xpu devices."""
    return torch._C._xpu_getDeviceCount()


def _fill_torch_xpu(native) -> None:
    generators = tuple(native.default_generator(i) for i in range(native.device_count()))

    def init() -> None:
        torch.xpu.default_generators = generators

    functions = {
        "_xpu_init": init,
        "_xpu_getDeviceCount": native.device_count,
        "_xpu_getDevice": native.current_device,
        "_xpu_setDevice": native.set_device,
        "_xpu_exchangeDevice": native.exchange_device,
        "_xpu_maybeExchangeDevice": native.exchange_device,
        "_xpu_getArchFlags": lambda: None,
        "_xpu_canDeviceAccessPeer": lambda device, peer: True,
        "_xpu_synchronize": lambda device: native.synchronize(_index(device)),
        "_xpu_getCurrentStream": lambda device: native.current_stream(_index(device)),
        "_xpu_getCurrentRawStream": lambda device: native.current_queue_address(_index(device)),
        "_xpu_setStream": native.set_stream,
        "_xpu_emptyCache": native.empty_cache,
        "_xpu_memoryStats": lambda device: native.memory_stats(_index(device)),
        "_xpu_resetPeakMemoryStats": lambda device: native.reset_peak_memory_stats(_index(device)),
        "_xpu_resetAccumulatedMemoryStats": lambda device: native.reset_accumulated_memory_stats(_index(device)),
        "_xpu_getMemoryInfo": lambda device: native.memory_info(_index(device)),
        "_XpuStreamBase": _StreamBase,
        "_XpuEventBase": _EventBase,
        "_XpuDeviceProperties": types.SimpleNamespace,
    }
    for name, value in functions.items():
        setattr(torch._C, name, value)

    # This module chose placeholders for a missing device when it was imported.
    streams = importlib.reload(torch.xpu.streams)
    torch.xpu.Stream, torch.xpu.Event = streams.Stream, streams.Event
    torch.xpu._exchange_device = native.exchange_device
    torch.xpu._maybe_exchange_device = native.exchange_device
    torch.xpu._get_device_properties = _device_properties(native)
    torch.xpu._XpuDeviceProperties = types.SimpleNamespace
    _replace("device_count", _device_count)
    _replace("_lazy_init", _own_lazy_init)
    # To PyTorch, compiled with xpu means compiled without CUDA: fake tensors, and so torch.compile, refuse a PyTorch
    # that claims both. Only `init` needs True.
    is_compiled = torch.xpu._is_compiled
    torch.xpu._is_compiled = lambda: True
    try:
        torch.xpu.init()
    finally:
        torch.xpu._is_compiled = is_compiled
