"""Errors in one sentence: mixed devices, bad settings."""

import orrery_host  # noqa: F401
import pytest
import torch
from device_process import run_python

X = torch.ones(3, 4)
STRAY = {
    "add": lambda xpu, cpu: xpu + cpu,
    "add, CPU first": lambda xpu, cpu: cpu + xpu,
    "in place": lambda xpu, cpu: xpu.mul_(cpu),
    "in place on the CPU": lambda xpu, cpu: cpu.mul_(xpu),
    "linear": lambda xpu, cpu: torch.nn.functional.linear(xpu, cpu),
    "matmul": lambda xpu, cpu: xpu @ cpu.t(),
    "cat": lambda xpu, cpu: torch.cat([xpu, cpu]),
    "where": lambda xpu, cpu: torch.where(xpu > 0, cpu, xpu),
    "embedding": lambda xpu, cpu: torch.nn.functional.embedding(torch.tensor([1]), xpu),
    "gather": lambda xpu, cpu: xpu.gather(1, torch.zeros(3, 1, dtype=torch.int64)),
    "out": lambda xpu, cpu: torch.add(xpu, xpu, out=cpu),
    "attention": lambda xpu, cpu: torch.nn.functional.scaled_dot_product_attention(xpu[None], cpu[None], cpu[None]),
    "convolution": lambda xpu, cpu: torch.nn.functional.conv1d(xpu[None], cpu[None]),
    "equal": lambda xpu, cpu: torch.equal(xpu, cpu),
}


@pytest.mark.parametrize("name", STRAY)
def test_a_stray_cpu_tensor(name):
    with pytest.raises(RuntimeError, match="Expected all tensors to be on the same device"):
        STRAY[name](X.to("xpu"), X.clone())


def test_a_cpu_scalar_is_taken():
    xpu = X.to("xpu")
    assert (xpu + torch.tensor(2.0)).sum().item() == 36
    assert (torch.tensor(2.0) * xpu).device.type == "xpu"
    assert xpu.add_(torch.tensor(1)).sum().item() == 24
    # the type of a scalar with dimensions 0 does not widen the result
    assert (xpu.half() * torch.tensor(2.0)).dtype == torch.float16


def test_no_numpy_of_device_memory():
    with pytest.raises(TypeError, match="can't convert xpu:0 device type tensor to numpy"):
        X.to("xpu").numpy()


def test_errors_of_a_kernel_pass_through():
    with pytest.raises(RuntimeError, match="mat1 and mat2 shapes cannot be multiplied"):
        X.to("xpu") @ X.to("xpu")
    with pytest.raises(IndexError, match="index 5 is out of bounds"):
        X.to("xpu")[5]
    assert X.to("xpu").sum().item() == 12


BAD_SETTINGS = {
    "ORRERY_HOST_DEVICES": ["0", "-1", "many", "1.5", "1000000"],
    "ORRERY_HOST_MAX_WORK_GROUP_SIZE": ["0", "-8", "big"],
    "ORRERY_HOST_SCHEDULE": ["random", "shuffle", "shuffle:", "shuffle:x"],
}


@pytest.mark.parametrize("name, value", [(name, value) for name, values in BAD_SETTINGS.items() for value in values])
def test_a_bad_setting(name, value):
    done = run_python("import orrery_host", **{name: value})
    assert done.returncode == 1
    last = done.stderr.strip().split("\n")[-1]
    assert last.startswith("RuntimeError: ") and name in last and last.endswith("."), done.stderr
    assert "During handling" not in done.stderr and "terminate" not in done.stderr


def test_a_good_setting():
    done = run_python("import orrery_host", ORRERY_HOST_SCHEDULE="shuffle:17", ORRERY_HOST_DEVICES="3")
    assert (done.returncode, done.stderr) == (0, "")


def test_a_compiled_part_that_does_not_load():
    done = run_python("import sys; sys.modules['orrery_host._C'] = None; import orrery_host",
                      TORCH_DEVICE_BACKEND_AUTOLOAD="0")  # fmt: skip
    last = done.stderr.strip().split("\n")[-1]
    assert done.returncode == 1, done.stderr
    assert last.startswith("ImportError: orrery_host can't load its compiled part"), done.stderr
