"""Tensors behind which nothing can be read: a kernel that reads on ends its process."""

from __future__ import annotations

import ctypes
import mmap
import os
import signal
import traceback
from collections.abc import Callable, Sequence

import torch

PAGE = mmap.PAGESIZE
_NO_ACCESS = 0  # PROT_NONE
_libc = ctypes.CDLL(None, use_errno=True)


def before_a_guard_page(x: torch.Tensor) -> torch.Tensor:
    """x on the device, contiguous, directly before a page that cannot be read. The page stays so: for a process that is
    about to end."""
    size = x.numel() * x.element_size()
    room = torch.empty(size + 2 * PAGE, dtype=torch.uint8, device="xpu")
    start = room.data_ptr()
    guard = (start + size + PAGE - 1) // PAGE * PAGE
    view = room[guard - size - start : guard - start].view(x.dtype).view(x.shape)
    view.copy_(x)
    if _libc.mprotect(ctypes.c_void_p(guard), ctypes.c_size_t(PAGE), _NO_ACCESS) != 0:
        raise OSError(ctypes.get_errno(), "mprotect")
    return view


def assert_reads_nothing_behind(
    arguments: Sequence[torch.Tensor | None], call: Callable[..., torch.Tensor], seconds: int = 60
) -> None:
    """`call` gives the same result with every argument directly before a page that cannot be read."""
    expected = call(*(None if x is None else x.to("xpu") for x in arguments)).cpu()
    pid = os.fork()
    if pid == 0:
        signal.alarm(seconds)
        same = False
        try:
            result = call(*(None if x is None else before_a_guard_page(x) for x in arguments))
            same = torch.equal(result.cpu(), expected)
        except BaseException:
            traceback.print_exc()
        finally:
            os._exit(0 if same else 1)
    _, status = os.waitpid(pid, 0)
    assert not os.WIFSIGNALED(status), f"read behind its arguments: {signal.Signals(os.WTERMSIG(status)).name}"
    assert os.WEXITSTATUS(status) == 0
