"""What all tests share."""

from __future__ import annotations

import os

import pytest


@pytest.fixture(scope="session")
def xpu():
    """The device that the operators run on."""
    import torch

    import orrery_host  # noqa: F401  registers the device if no installed package has done so

    return torch.device("xpu")


@pytest.fixture(scope="session")
def prepared_models(tmp_path_factory):
    """A folder of prepared models, as XDG_CACHE_HOME, which all tests share: the real one takes seconds to quantize."""
    base = tmp_path_factory.getbasetemp()
    folder = (base.parent if "PYTEST_XDIST_WORKER" in os.environ else base) / "prepared"
    folder.mkdir(exist_ok=True)
    return folder


@pytest.fixture(scope="session")
def wide_file(tmp_path_factory):
    """A tiny model whose rows are whole blocks of every format."""
    import runner_files

    file = tmp_path_factory.mktemp("tiny") / "tiny.gguf"
    runner_files.write_tiny(file, hidden=256, feed_forward=512)
    return file
