"""What all tests share."""

from __future__ import annotations

import pytest


@pytest.fixture(scope="session")
def xpu():
    """The device that the operators run on."""
    import torch

    import orrery_host  # noqa: F401  Registers the device where no package is installed that would.

    return torch.device("xpu")
