"""The header of a GGUF file: its entries and its table of tensors.

Every count is compared with the bytes that are left before it is used. The reader of the package `gguf` trusts its
file: it goes through an array as often as the file says, up to 2^64 times, past the file's end. It also takes 20 times
as long, because it makes arrays of each piece of the vocabulary.
"""

from __future__ import annotations

import math
import os
import stat
import struct
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, BinaryIO

import numpy as np

from orrery import OrreryError

MAGIC = b"GGUF"
VERSIONS = (2, 3)
# Codes of a value's type. Texts and arrays begin with a length.
NUMBERS = {0: "u1", 1: "i1", 2: "<u2", 3: "<i2", 4: "<u4", 5: "<i4", 6: "<f4", 7: "?", 10: "<u8", 11: "<i8", 12: "<f8"}
TEXT, ARRAY = 8, 9
# A vocabulary of 256,000 tokens takes 15 MB. Without limits, a damaged length in a large file would read all of it.
MOST_BYTES = 1 << 26
MOST_ELEMENTS = 1 << 22
MOST_DIMENSIONS = 4


@dataclass(frozen=True)
class Stored:
    """Where a tensor is in the file; `shape` has the row length last."""

    kind: Any
    shape: tuple[int, ...]
    offset: int
    size: int


@dataclass
class Header:
    """The entries by key, as numbers, texts and lists, and the tensors by name."""

    entries: dict[str, Any] = field(default_factory=dict)
    tensors: dict[str, Stored] = field(default_factory=dict)


def check_magic(path: Path) -> None:
    """OrreryError if there is no GGUF file at `path`. A pipe or a device is not opened: it could wait for ever."""
    try:
        if not stat.S_ISREG(os.stat(path).st_mode) and not path.is_dir():
            raise OrreryError(f"the model file {path} is not a regular file")
        with open(path, "rb") as file:
            magic = file.read(len(MAGIC))
    except OSError as error:
        raise OrreryError(f"cannot read the model file {path}: {os.strerror(error.errno or 0)}") from error
    if magic != MAGIC:
        raise OrreryError(f"{path} is not a GGUF file")


def read(path: Path) -> Header:
    """The header of the file at `path`. OrreryError, one sentence, for a damaged one."""
    check_magic(path)
    with open(path, "rb") as file:
        try:
            return _Reader(file).header()
        except _Damaged as error:
            raise OrreryError(f"{path} is truncated or not a valid GGUF file: {error}") from error


class _Damaged(Exception):
    """What is wrong with a header."""


class _Reader:
    """Takes a header's pieces one after the other."""

    def __init__(self, file: BinaryIO) -> None:
        self._file = file
        self._size = os.fstat(file.fileno()).st_size
        self._limit = min(self._size, MOST_BYTES)
        self._position = 0

    def header(self) -> Header:
        """All of it, from the start of the file."""
        self._bytes(len(MAGIC))
        version = self._whole(4)
        if version not in VERSIONS:
            raise _Damaged(f"its version is {version}, not 2 or 3")
        tensors, entries = self._whole(8), self._whole(8)
        made = Header()
        for _ in range(self._count(entries, 12, "entries")):
            key = self._text()
            if key in made.entries:
                raise _Damaged(f"it has the entry {key!r} twice")
            made.entries[key] = self._value(self._whole(4))
        found = [self._tensor() for _ in range(self._count(tensors, 24, "tensors"))]
        start = _aligned(self._position, made.entries.get("general.alignment", 32))
        for name, kind, shape, offset, size in found:
            if name in made.tensors:
                raise _Damaged(f"it has the tensor {name!r} twice")
            if start + offset + size > self._size:
                raise _Damaged(f"the tensor {name!r} reaches over its end")
            made.tensors[name] = Stored(kind, shape, start + offset, size)
        return made

    def _bytes(self, count: int) -> bytes:
        if count > self._limit - self._position:
            raise _Damaged("its header is too long" if self._limit == MOST_BYTES else "it ends within its header")
        self._position += count
        return self._file.read(count)

    def _whole(self, size: int) -> int:
        return int.from_bytes(self._bytes(size), "little")

    def _count(self, count: int, least_bytes: int, what: str) -> int:
        """`count`, if that many things of at least so many bytes can follow."""
        if count > MOST_ELEMENTS or count * least_bytes > self._limit - self._position:
            raise _Damaged(f"its header says that {count} {what} follow")
        return count

    def _text(self) -> str:
        try:
            return self._bytes(self._whole(8)).decode()
        except UnicodeDecodeError:
            raise _Damaged("a text in its header is not UTF-8") from None

    def _value(self, kind: int) -> Any:
        if kind == TEXT:
            return self._text()
        if kind == ARRAY:
            return self._array(self._whole(4))
        return self._numbers(kind, 1)[0]

    def _array(self, kind: int) -> list:
        count = self._whole(8)
        if kind == TEXT:
            return [self._text() for _ in range(self._count(count, 8, "texts"))]
        return self._numbers(kind, self._count(count, 1, "numbers"))

    def _numbers(self, kind: int, count: int) -> list:
        if kind not in NUMBERS:  # an array of arrays, too, which no model of the Llama architecture has
            raise _Damaged(f"a value in its header is of the unknown type {kind}")
        dtype = np.dtype(NUMBERS[kind])
        return np.frombuffer(self._bytes(count * dtype.itemsize), dtype).tolist()

    def _tensor(self) -> tuple[str, Any, tuple[int, ...], int, int]:
        """Name, type, shape, offset in the data and bytes."""
        from gguf import GGML_QUANT_SIZES, GGMLQuantizationType

        name, dimensions = self._text(), self._whole(4)
        if not 1 <= dimensions <= MOST_DIMENSIONS:
            raise _Damaged(f"the tensor {name!r} has {dimensions} dimensions")
        shape = struct.unpack(f"<{dimensions}Q", self._bytes(8 * dimensions))[::-1]
        code, offset = self._whole(4), self._whole(8)
        try:
            kind = GGMLQuantizationType(code)
        except ValueError:
            raise _Damaged(f"the tensor {name!r} is of the unknown type {code}") from None
        elements, block_bytes = GGML_QUANT_SIZES[kind]
        if shape[-1] % elements:
            raise _Damaged(f"the tensor {name!r} has rows of {shape[-1]} elements, which blocks of {elements} do not "
                           "divide")
        return name, kind, shape, offset, math.prod(shape) // elements * block_bytes


def _aligned(position: int, alignment: Any) -> int:
    if not isinstance(alignment, int) or alignment < 1:
        raise _Damaged(f"its alignment is {alignment!r}")
    return -(-position // alignment) * alignment
