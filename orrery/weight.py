"""A quantized matrix: how it is made, kept in files, and read back."""

from __future__ import annotations

import os
from collections.abc import Callable, Mapping
from typing import NoReturn

import safetensors
import safetensors.torch
import torch

import orrery_ops  # noqa: F401  registers torch.ops.orrery
from orrery import OrreryError, formats
from orrery.formats import FORMATS, Format

_TYPES = (torch.float32, torch.float16, torch.bfloat16, torch.float64)
# What a file's metadata says beside the fields of a weight.
_KIND = "orrery quantized weight 1"


class QuantizedWeight:
    """A matrix [rows, columns] in a weight format.

    data:      uint8 [bytes], the rows and columns of the matrix and after them the padding of `stored`
    format:    the name of the format that the bytes are in
    requested: the name of the format that was asked for; not `format` if its blocks do not divide the columns
    rows, columns: of the matrix itself
    stored:    (rows, columns) with the zeros that some kernels need after the rows and columns
    code:      the format's code, which the operators take as `qtype`
    """

    def __init__(self, data: torch.Tensor, format: str, rows: int, columns: int, requested: str | None = None) -> None:
        fmt = find_format(format)
        self.stored = fmt.stored_size(rows, columns)
        size = fmt.size(*self.stored)
        if not isinstance(data, torch.Tensor) or data.dtype != torch.uint8:
            raise TypeError(f"data must be a tensor of uint8, not {_kind(data)}")
        if data.shape != (size,) or not data.is_contiguous():
            raise ValueError(f"data of {rows} x {columns} elements in {fmt.name} must be {size} contiguous bytes, "
                             f"not {_shape(data)}")
        self.data = data
        self.format = fmt.name
        self.requested = find_format(requested).name if requested else fmt.name
        self.rows = rows
        self.columns = columns
        self.code = fmt.code

    @property
    def shape(self) -> tuple[int, int]:
        """(rows, columns)."""
        return self.rows, self.columns

    @property
    def device(self) -> torch.device:
        """Where the bytes are."""
        return self.data.device

    @property
    def nbytes(self) -> int:
        """Bytes of the matrix with its padding."""
        return self.data.numel()

    def dequantize(self, dtype: torch.dtype = torch.float32) -> torch.Tensor:
        """The values [rows, columns] that the bytes stand for, on the same device, rounded from float32 to `dtype`."""
        dense = formats.dequantize(FORMATS[self.format], self.data, self.stored[1])
        return dense[: self.rows, : self.columns].to(dtype, memory_format=torch.contiguous_format)

    def to(self, device: torch.device | str) -> "QuantizedWeight":
        """The same weight with its bytes on that device; itself if they are there already."""
        data = self.data.to(device)
        if data is self.data:
            return self
        return QuantizedWeight(data, self.format, self.rows, self.columns, self.requested)

    @classmethod
    def __torch_function__(cls, function: Callable, types: object, given: tuple = (), named: object = None) -> NoReturn:
        """PyTorch asks here when one of its functions is given a weight, and takes no fused path that would read it."""
        raise TypeError(f"{function.__name__} of PyTorch takes no quantized weight: use orrery.linear, or dequantize()")

    def save(self, path: str | os.PathLike) -> None:
        """Writes a safetensors file with the bytes as `data`, and the format and sizes in its metadata."""
        fields = {"kind": _KIND, "format": self.format, "requested": self.requested}
        sizes = {"rows": str(self.rows), "columns": str(self.columns)}
        safetensors.torch.save_file({"data": self.data.cpu()}, path, metadata=fields | sizes)

    @classmethod
    def load(cls, path: str | os.PathLike, device: torch.device | str = "cpu") -> "QuantizedWeight":
        """The weight in a file that `save` wrote.

        Raises OrreryError for a file that is damaged or something else, and OSError for one that cannot be read.
        """
        os.stat(path)  # safetensors reports a missing file as one of its own errors in some versions
        try:
            with safetensors.safe_open(path, framework="pt", device="cpu") as file:
                fields = file.metadata() or {}
                data = file.get_tensor("data") if "data" in file.keys() else None
        except safetensors.SafetensorError as error:
            raise OrreryError(f"{path} is no safetensors file, or a damaged one: {error}") from None
        if fields.get("kind") != _KIND or data is None:
            raise OrreryError(f"{path} holds no weight that QuantizedWeight.save wrote")
        try:
            return _from_fields(data.to(device), fields)
        except (KeyError, TypeError, ValueError) as error:
            raise OrreryError(f"{path} is damaged: {error}") from None

    def __repr__(self) -> str:
        asked = f", asked for as {self.requested}" if self.requested != self.format else ""
        padded = "" if self.stored == self.shape else f", stored as {self.stored[0]} x {self.stored[1]}"
        return (f"QuantizedWeight({self.rows} x {self.columns}, {self.format}{asked}{padded}, {self.nbytes:,} bytes "
                f"on {self.device})")


def quantize(matrix: torch.Tensor, format: str = "q4_0", *, progress: bool = True) -> QuantizedWeight:
    """A matrix [rows, columns] in a weight format.

    matrix:   float32, float16, bfloat16 or float64 on any device, all values finite; computed in float32 on the CPU
    format:   a name of `orrery.formats.FORMATS`. One with blocks of 256 elements is replaced by its substitute of 64
              where 256 does not divide the columns: `requested` and `format` of the result then differ.
    progress: show a bar if it takes longer than two seconds

    The bytes of the result are on the device of the matrix; on the meta device it has a size and no bytes. Raises
    TypeError and ValueError for anything else.
    """
    fmt, values = checked_matrix(matrix, format)
    rows, columns = matrix.shape
    stored = fmt.stored_size(rows, columns)
    if matrix.is_meta:
        data = torch.empty(fmt.size(*stored), dtype=torch.uint8, device="meta")
        return QuantizedWeight(data, fmt.name, rows, columns, format)
    if stored != (rows, columns):
        values = torch.nn.functional.pad(values, (0, stored[1] - columns, 0, stored[0] - rows))
    data = torch.empty(fmt.size(*stored), dtype=torch.uint8)
    formats.quantize_rows(fmt, values, data, progress=progress)
    return QuantizedWeight(data.to(matrix.device), fmt.name, rows, columns, format)


def checked_matrix(matrix: torch.Tensor, format: str) -> tuple[Format, torch.Tensor]:
    """The format for the rows of a matrix, and the matrix in float32 on the CPU; raises what `quantize` raises."""
    fmt = find_format(format)
    if not isinstance(matrix, torch.Tensor) or matrix.dtype not in _TYPES:
        raise TypeError(f"matrix must be a tensor of {_names(_TYPES)}, not {_kind(matrix)}")
    if matrix.dim() != 2 or matrix.numel() == 0:
        raise ValueError(f"matrix must be [rows, columns] with at least one of each, not {_shape(matrix)}")
    fmt = fmt.for_rows(matrix.shape[1])
    if matrix.is_meta:
        return fmt, matrix
    values = matrix.detach().to("cpu", torch.float32).contiguous()
    _check_values(fmt, values)
    return fmt, values


def _check_values(fmt: Format, values: torch.Tensor) -> None:
    """Refuses values that are not finite, or that the format cannot hold: most scales and dense weights are halves."""
    if (wrong := values.numel() - int(values.isfinite().sum())) > 0:
        raise ValueError(f"matrix holds {wrong} values that are not finite")
    largest = values.flatten()[values.abs().argmax()]
    block = largest.expand(1, fmt.elements).contiguous()
    held = formats.dequantize(fmt, formats.quantize(fmt, block), fmt.elements).half().float()
    if not held.isfinite().all() or held.abs().max() < 0.75 * largest.abs():
        raise ValueError(f"matrix holds {largest.item():g}, which is too large for {fmt.name}")


def _from_fields(data: torch.Tensor, fields: Mapping[str, str]) -> QuantizedWeight:
    sizes = [int(fields[name]) for name in ("rows", "columns")]
    if not all(0 < size < 2**31 for size in sizes):
        raise ValueError(f"it says {sizes[0]} rows and {sizes[1]} columns")
    return QuantizedWeight(data, fields["format"], *sizes, fields["requested"])


def find_format(name: str) -> Format:
    try:
        return formats.find(name)
    except OrreryError as error:
        raise ValueError(str(error)) from None


def type_name(dtype: torch.dtype) -> str:
    """float32, float16, ..."""
    return str(dtype).removeprefix("torch.")


def _names(types: tuple[torch.dtype, ...]) -> str:
    names = [type_name(t) for t in types]
    return f"{', '.join(names[:-1])} or {names[-1]}"


def _kind(value: object) -> str:
    return type_name(value.dtype) if isinstance(value, torch.Tensor) else type(value).__name__


def _shape(tensor: torch.Tensor) -> str:
    return str(list(tensor.shape))
