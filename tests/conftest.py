"""What all tests share."""

from __future__ import annotations

import pytest


@pytest.fixture(scope="session")
def xpu():
    """The device that the operators run on."""
    import torch

    import orrery_host  # noqa: F401  registers the device if no installed package has done so

    return torch.device("xpu")
