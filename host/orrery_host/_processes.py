"""Refuses to send tensors of the device to another process, since their memory belongs to one."""

from __future__ import annotations

import functools
from multiprocessing import context, reduction

import torch

SENTENCE = "An xpu tensor can't be sent to another process; send a CPU tensor and move it to xpu there."


def _raise(sentence: str) -> None:
    raise RuntimeError(sentence)


def _refusing(reduce):
    @functools.wraps(reduce)
    def reduce_or_refuse(value):
        if value.device.type != "xpu":
            return reduce(value)
        if context.get_spawning_popen() is not None:  # an argument of a process that is being started
            _raise(SENTENCE)
        # A queue's own thread would swallow an error, and the receiver would wait forever. So the receiver raises.
        return _raise, (SENTENCE,)

    return reduce_or_refuse


def _refusing_to_share(share_memory_):
    @functools.wraps(share_memory_)
    def share_or_refuse(self, *arguments, **keywords):
        if self.device.type == "xpu":  # PyTorch would put CPU memory into the storage
            _raise(SENTENCE)
        return share_memory_(self, *arguments, **keywords)

    return share_or_refuse


def refuse_to_send() -> None:
    """Wraps PyTorch's reducers for multiprocessing in the refusal; `pickle` and `torch.save` don't use those."""
    for kind in (torch.Tensor, torch.nn.Parameter, torch.UntypedStorage):
        reduction.register(kind, _refusing(reduction.ForkingPickler._extra_reducers[kind]))
    torch.UntypedStorage.share_memory_ = _refusing_to_share(torch.UntypedStorage.share_memory_)
