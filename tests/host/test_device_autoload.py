"""`import torch` registers the device, so does `import orrery_host`, and an existing device is left alone."""

from device_process import check_python, run_python


def test_import_torch_is_enough():
    check_python(
        """
        import sys, torch
        assert torch.xpu.is_available() and torch.ones(2, device="xpu").sum().item() == 2
        assert "orrery_host" in sys.modules
        """
    )


def test_autoload_can_be_switched_off():
    check_python(
        """
        import sys, torch
        assert not torch.xpu.is_available() and "orrery_host" not in sys.modules
        import orrery_host
        assert torch.xpu.is_available() and torch.ones(2, device="xpu").sum().item() == 2
        """,
        TORCH_DEVICE_BACKEND_AUTOLOAD="0",
    )


def test_importing_again_changes_nothing():
    check_python(
        """
        import importlib
        import orrery_host, torch
        from orrery_host import _register
        x = torch.arange(3, device="xpu")
        stream = torch.xpu.current_stream()
        _register.register()
        orrery_host._autoload()
        importlib.reload(orrery_host)
        assert x.tolist() == [0, 1, 2] and torch.xpu.current_stream() == stream
        assert type(stream) is torch.xpu.Stream
        """
    )


def test_import_says_nothing():
    for module in ("torch", "orrery_host"):
        done = run_python(f"import {module}")
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_a_pytorch_with_its_own_device_keeps_it():
    check_python(
        """
        import torch
        torch._C._has_xpu = True  # what such a PyTorch says of itself
        import orrery_host
        from orrery_host import _C
        assert _C.device_count() == 0 and not hasattr(torch._C, "_xpu_getDeviceCount")
        """,
        TORCH_DEVICE_BACKEND_AUTOLOAD="0",
    )


def test_the_package_does_not_say_that_pytorch_was_built_with_xpu():
    check_python("import torch; assert not torch._C._has_xpu and torch.xpu.is_available()")
