"""Memory of the device: slack behind each allocation, reuse, statistics."""

import ctypes
import gc

import orrery_host  # noqa: F401
import pytest
import torch

ROW_BYTES = 1 << 20  # the largest weight row that the slack is sized for
SLACK = 8 * ROW_BYTES


def writable_from(address: int) -> int:
    """Bytes that can be read and written from the address on."""
    end = address
    with open("/proc/self/maps") as maps:
        for line in maps:
            span, mode = line.split()[:2]
            low, high = (int(part, 16) for part in span.split("-"))
            if low <= end < high and mode.startswith("rw"):
                end = high
    return end - address


def resident_bytes() -> int:
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * 4096


def end_of(tensor: torch.Tensor) -> int:
    return tensor.data_ptr() + tensor.nbytes


@pytest.mark.parametrize("numbers", [1, 1023, 1024, 1025, 99 * 111, 1 << 19, (1 << 19) + 1, 5_000_001])
def test_slack_behind_each_allocation(numbers):
    tensor = torch.empty(numbers, device="xpu")
    assert tensor.data_ptr() % 64 == 0
    assert writable_from(tensor.data_ptr()) >= tensor.nbytes + SLACK


RESULTS = {
    "copy from the CPU": lambda x: torch.ones(7, 19).to("xpu"),
    "structured operator": lambda x: x + 1,
    "operator that allocates its result": lambda x: torch.nonzero(x),
    "one of several results": lambda x: torch.sort(x, dim=1)[1],
    "grown by out=": lambda x: torch.cumsum(x, 1, out=torch.empty(0, device="xpu")),
    "convolution": lambda x: torch.nn.functional.conv1d(x[None], torch.ones(3, 7, 3, device="xpu")),
    "resize_": lambda x: torch.empty(1, device="xpu").resize_(3001),
    "random": lambda x: torch.randperm(999, device="xpu"),
    "bfloat16 linear": lambda x: torch.nn.functional.linear(x.bfloat16(), x.bfloat16()),
    "attention": lambda x: torch.nn.functional.scaled_dot_product_attention(x[None], x[None], x[None]),
}


@pytest.mark.parametrize("name", RESULTS)
def test_slack_behind_results(name):
    tensor = RESULTS[name](torch.randn(7, 19, device="xpu"))
    assert tensor.device.type == "xpu"
    assert writable_from(tensor.data_ptr()) >= tensor.nbytes + SLACK


def test_a_write_into_the_slack_reaches_no_other_tensor():
    tensors = [torch.zeros(size, device="xpu") for size in (1, 5, 1024, 1 << 19) for _ in range(4)]
    for tensor in tensors:
        ctypes.memset(end_of(tensor), 0xFF, 64 * 1024)
    assert all(tensor.count_nonzero() == 0 for tensor in tensors)


def test_slack_is_committed_only_when_touched():
    before = resident_bytes()
    tensors = [torch.zeros(16, device="xpu") for _ in range(500)]
    assert resident_bytes() - before < 32 << 20  # 500 slacks are 4 GB
    assert len({tensor.data_ptr() for tensor in tensors}) == 500


def test_huge_tensor_commits_only_what_is_written():
    before = resident_bytes()
    tensor = torch.empty(1 << 28, device="xpu")  # 1 GiB
    tensor[:1000] = 1
    assert resident_bytes() - before < 16 << 20


def test_freed_memory_is_reused():
    first = torch.empty(3000, device="xpu")
    address = first.data_ptr()
    del first
    assert torch.empty(3001, device="xpu").data_ptr() == address


def test_empty_cache_gives_memory_back():
    torch.xpu.empty_cache()
    reserved = torch.xpu.memory_reserved()
    tensor = torch.ones(4 << 20, device="xpu")
    address = tensor.data_ptr()
    assert torch.xpu.memory_reserved() >= reserved + tensor.nbytes
    del tensor
    assert torch.xpu.memory_reserved() > reserved
    torch.xpu.empty_cache()
    assert torch.xpu.memory_reserved() == reserved
    assert writable_from(address) == 0


def test_free_memory_is_bounded():
    torch.xpu.empty_cache()
    in_use = torch.xpu.memory_reserved()
    for megabytes in range(1, 60):
        torch.empty(megabytes << 20, dtype=torch.uint8, device="xpu")
    assert torch.xpu.memory_reserved() - in_use <= 128 << 20


@pytest.mark.parametrize("shape", [(0,), (3, 0, 5)])
def test_tensor_without_elements(shape):
    tensor = torch.empty(shape, device="xpu")
    assert tensor.shape == shape and tensor.data_ptr() == 0
    assert (tensor + 1).sum().item() == 0
    assert tensor.cpu().shape == shape


def test_statistics():
    gc.collect()
    torch.xpu.reset_peak_memory_stats()
    before = torch.xpu.memory_allocated()
    tensor = torch.empty(12345, dtype=torch.uint8, device="xpu")
    assert torch.xpu.memory_allocated() - before == 12345
    stats = torch.xpu.memory_stats()
    assert stats["allocated_bytes.all.current"] == before + 12345
    assert stats["allocated_bytes.small_pool.current"] <= stats["allocated_bytes.all.current"]
    assert stats["reserved_bytes.all.current"] >= stats["allocated_bytes.all.current"]
    del tensor
    assert torch.xpu.memory_allocated() == before
    assert torch.xpu.max_memory_allocated() >= before + 12345
    torch.xpu.reset_peak_memory_stats()
    assert torch.xpu.max_memory_allocated() == before


def test_cpu_tensors_keep_their_own_memory():
    before = torch.xpu.memory_allocated()
    tensor = torch.ones(100_000) + torch.ones(100_000)
    assert torch.xpu.memory_allocated() == before and tensor.sum() == 200_000
