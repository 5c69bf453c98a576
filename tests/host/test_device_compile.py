"""torch.compile, torch.export and fake tensors, on CPU tensors as without the device, and on xpu tensors."""

import pytest
from device_process import check_python

MODEL = """
    import torch
    torch.manual_seed(5)
    model, x = torch.nn.Sequential(torch.nn.Linear(17, 9), torch.nn.GELU()), torch.randn(33, 17)
    expected = model(x)
    def close(a, b):
        torch.testing.assert_close(a.cpu(), b, rtol=1e-5, atol=1e-6)  # inductor fuses: other roundings in float
"""


@pytest.mark.parametrize("backend", ["eager", "aot_eager"])
def test_compile(backend):
    check_python(
        MODEL
        + f"""
    for device in ("cpu", "xpu"):
        torch._dynamo.reset()
        model, x = model.to(device), x.detach().to(device).requires_grad_()
        y = torch.compile(model, backend="{backend}", fullgraph=True)(x)
        close(y, expected)
        y.sum().backward()
        assert y.device.type == x.grad.device.type == device and x.grad.count_nonzero() > 0
    """
    )


def test_inductor_compiles_for_the_cpu(tmp_path):
    check_python(
        MODEL
        + """
    close(torch.compile(model)(x), expected)
    """,
        TORCHINDUCTOR_CACHE_DIR=str(tmp_path),
    )


def test_questions_about_the_device_are_compiled():
    check_python(
        """
        import torch
        @torch.compile(backend="eager", fullgraph=True)
        def f(x):
            return x + 1 if torch.xpu.is_available() else x
        assert f(torch.zeros(2, device="xpu")).tolist() == [1, 1]
        """
    )


def test_export():
    check_python(
        MODEL
        + """
    for device in ("cpu", "xpu"):
        model, x = model.to(device), x.to(device)
        exported = torch.export.export(model, (x,)).module()(x)
        close(exported, expected)
        assert exported.device.type == device
    """
    )


def test_fake_tensors():
    check_python(
        """
        import torch
        from torch._subclasses import FakeTensorMode
        with FakeTensorMode() as mode:
            cpu, xpu = torch.ones(2) + 1, torch.empty(3, 4, device="xpu")
            product = xpu @ xpu.t()
        assert cpu.device.type == "cpu" and product.shape == (3, 3) and product.device == torch.device("xpu:0")
        assert mode.from_tensor(torch.ones(2, device="xpu")).device == product.device
        """
    )


def test_pytorch_is_not_said_to_be_compiled_with_xpu():
    check_python(
        """
        import torch
        assert not torch.xpu._is_compiled() and not torch._C._has_xpu
        assert torch.xpu.is_available() and torch.xpu.device_count() == 2 and torch.xpu.is_initialized()
        """,
        ORRERY_HOST_DEVICES="2",
    )
