"""The number of threads that PyTorch, and with it the host device, works with."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import torch


@contextmanager
def threads(count: int) -> Iterator[None]:
    before = torch.get_num_threads()
    torch.set_num_threads(count)
    try:
        yield
    finally:
        torch.set_num_threads(before)
