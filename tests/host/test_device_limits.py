"""Available memory, of the machine and within control groups, and allocations that are refused."""

import orrery_host  # noqa: F401
import pytest
import torch
from device_process import check_python
from orrery_host import _C

GIB = 1 << 30
MEMINFO = f"""MemTotal:       {24 * GIB // 1024} kB
MemFree:         {2 * GIB // 1024} kB
MemAvailable:   {20 * GIB // 1024} kB
SwapTotal:       {4 * GIB // 1024} kB
SwapFree:        {GIB // 1024} kB
"""
MACHINE = (21 * GIB, 28 * GIB)

V1 = "sys/fs/cgroup/memory"
V2 = "sys/fs/cgroup"


def v1(folder: str, limit: int, usage: int, files: int) -> dict[str, str]:
    stat = f"cache 1\ninactive_file 1\ntotal_inactive_file {files // 2}\ntotal_active_file {files - files // 2}\n"
    return {
        f"{folder}/memory.limit_in_bytes": f"{limit}\n",
        f"{folder}/memory.usage_in_bytes": f"{usage}\n",
        f"{folder}/memory.stat": stat,
    }


def v2(folder: str, limit: int | str, usage: int, files: int) -> dict[str, str]:
    stat = f"anon 1\ninactive_file {files // 2}\nactive_file {files - files // 2}\n"
    return {
        f"{folder}/memory.max": f"{limit}\n",
        f"{folder}/memory.current": f"{usage}\n",
        f"{folder}/memory.stat": stat,
    }


CASES = {
    "no groups": ({}, MACHINE),
    "version 1": (
        {"proc/self/cgroup": "5:cpu:/x\n4:memory:/x\n0::/\n"} | v1(f"{V1}/x", 8 * GIB, 3 * GIB, GIB),
        (6 * GIB, 8 * GIB),
    ),
    "version 1 without a limit": (
        {"proc/self/cgroup": "4:memory:/x\n"} | v1(f"{V1}/x", (1 << 63) - 4096, 3 * GIB, GIB),
        MACHINE,
    ),
    "version 1 with other controllers": (
        {"proc/self/cgroup": "4:cpu,memory:/\n"} | v1(V1, 8 * GIB, 3 * GIB, GIB),
        (6 * GIB, 8 * GIB),
    ),
    "version 2": (
        {"proc/self/cgroup": "0::/a/b\n"} | v2(f"{V2}/a/b", 8 * GIB, 3 * GIB, GIB),
        (6 * GIB, 8 * GIB),
    ),
    "version 2 without a limit": ({"proc/self/cgroup": "0::/a\n"} | v2(f"{V2}/a", "max", 3 * GIB, GIB), MACHINE),
    "a group above": (
        {"proc/self/cgroup": "0::/a/b\n"}
        | v2(f"{V2}/a", 4 * GIB, 4 * GIB, GIB)
        | v2(f"{V2}/a/b", 8 * GIB, 3 * GIB, 0),
        (GIB, 4 * GIB),
    ),
    "a container that shows its own group as the root": (
        {"proc/self/cgroup": "4:memory:/docker/0123\n"} | v1(V1, 2 * GIB, GIB, 0),
        (GIB, 2 * GIB),
    ),
    "used up": ({"proc/self/cgroup": "0::/a\n"} | v2(f"{V2}/a", GIB, 2 * GIB, 0), (0, GIB)),
}


@pytest.mark.parametrize("name", CASES)
def test_measured(name, tmp_path):
    files, expected = CASES[name]
    for path, text in ({"proc/meminfo": MEMINFO} | files).items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    assert _C.measure_host_memory(str(tmp_path)) == expected


def test_where_nothing_is_known_nothing_is_refused(tmp_path):
    assert _C.measure_host_memory(str(tmp_path)) == ((1 << 64) - 1,) * 2


def test_free_memory_is_what_can_be_taken():
    free, total = torch.xpu.mem_get_info()
    assert 0 < free <= total
    tensor = torch.empty(total // 2, dtype=torch.uint8, device="xpu")  # nobody writes to it
    assert torch.xpu.mem_get_info()[0] <= total - tensor.nbytes
    assert torch.xpu.mem_get_info()[1] == total == torch.xpu.get_device_properties().total_memory


@pytest.mark.parametrize("wanted", [2 * torch.xpu.mem_get_info()[1], 1 << 60])
def test_more_than_there_is(wanted):
    before = torch.xpu.memory_stats()["num_ooms"]
    with pytest.raises(torch.OutOfMemoryError) as caught:
        torch.empty(wanted, dtype=torch.uint8, device="xpu")
    head, tail = str(caught.value).split("\n")[0].rsplit(", ", 1)
    assert head == f"xpu:0 is out of host memory: {wanted} bytes were asked for"
    assert tail.endswith(" are available.") and 0 < int(tail.split()[0]) <= wanted // 2
    assert torch.xpu.memory_stats()["num_ooms"] == before + 1
    assert torch.ones(3, device="xpu").sum().item() == 3


@pytest.mark.parametrize("megabytes", [1, 100])
def test_many_that_are_more_than_there_is(megabytes):
    # In blocks that nobody writes to, small ones too. In a process of its own: they cost address space.
    check_python(
        f"""
        import torch
        total = torch.xpu.mem_get_info()[1]
        size = max({megabytes} << 20, total // 20_000)
        held = []
        try:
            while sum(tensor.nbytes for tensor in held[-1:]) * len(held) < 2 * total:
                held.append(torch.empty(size, dtype=torch.uint8, device="xpu"))
        except torch.OutOfMemoryError:
            pass
        assert total // 2 < len(held) * size <= total + (64 << 20), len(held)
        held.clear()
        torch.xpu.empty_cache()
        assert torch.empty(total // 4, dtype=torch.uint8, device="xpu").numel()
        """
    )


def test_results_of_operators_are_counted_too():
    x = torch.zeros(1, device="xpu")
    with pytest.raises(torch.OutOfMemoryError, match="^xpu:0 is out of host memory: "):
        x.expand(2 * torch.xpu.mem_get_info()[1]).contiguous()
    with pytest.raises(torch.OutOfMemoryError, match="^xpu:0 is out of host memory: "):
        x.expand(2 * torch.xpu.mem_get_info()[1]) + 1
