"""The precision of a prompt's products: that of float32, or of bfloat16 by PyTorch's own setting.

With "bfloat16" PyTorch multiplies two float32 matrices as if they had been rounded to bfloat16 first, and sums in
float32. oneDNN does so on processors with a matrix unit for bfloat16 and makes the float32 product on others.
"""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

from orrery import OrreryError

PRECISIONS = ("float32", "bfloat16")
# What PyTorch calls it, and calls a setting that is inherited from a wider one.
_BFLOAT16, _INHERITED = "bf16", "none"


def check(precision: str, dtype: str) -> None:
    """OrreryError if prompts of a model in `dtype` cannot have that precision."""
    if precision not in PRECISIONS:
        raise OrreryError(f"unknown precision {precision!r} of prompts, there are {' and '.join(PRECISIONS)}")
    if precision != "float32" and dtype != "float32":
        raise OrreryError(f"a prompt precision of {precision} is for activations in float32, not in {dtype}")


@contextmanager
def products_in(precision: str) -> Iterator[None]:
    """Products of float32 matrices within are made in `precision`; "float32" leaves PyTorch's setting as it is."""
    if precision == "float32":
        yield
        return
    import torch

    setting = torch.backends.mkldnn.matmul
    before = setting.fp32_precision
    # As PyTorch's own context managers of settings do: a program may have forbidden lasting changes.
    bracketed = getattr(torch.backends, "__allow_nonbracketed_mutation")
    with bracketed():
        setting.fp32_precision = _BFLOAT16
    try:
        yield
    finally:
        with bracketed():
            setting.fp32_precision = _INHERITED
            if setting.fp32_precision != before:
                setting.fp32_precision = before
