"""A quantized matrix on the device, as the examples use it."""

from __future__ import annotations

from dataclasses import dataclass

import torch

import orrery_ops
from orrery.formats import FORMATS, quantize


@dataclass(frozen=True)
class Matrix:
    """The bytes of a matrix [rows, columns]."""

    data: torch.Tensor
    format: str
    columns: int

    @classmethod
    def quantized(cls, dense: torch.Tensor, format: str) -> "Matrix":
        """From float32 on the CPU; columns must divide into the format's blocks."""
        return cls(quantize(FORMATS[format], dense).to("xpu"), format, dense.shape[1])

    @classmethod
    def random(cls, rows: int, columns: int, format: str, generator: torch.Generator) -> "Matrix":
        """Values that keep the size of what they are multiplied by."""
        return cls.quantized(torch.randn(rows, columns, generator=generator) / columns**0.5, format)

    def __call__(self, x: torch.Tensor) -> torch.Tensor:
        """x W^T, of x [..., columns] on the device."""
        rows = x.reshape(-1, self.columns)
        code = FORMATS[self.format].code
        return orrery_ops.forward_new(rows, self.data, code, rows.shape[0]).view(*x.shape[:-1], -1)
