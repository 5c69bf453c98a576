"""The 17 weight formats: their table, and matrices to bytes and back.

A matrix is `rows * cols / elements` blocks in row order. In a split format each plane holds its bytes of all blocks,
one plane after the other; in a block array each block keeps its own bytes together.
"""

from __future__ import annotations

from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from functools import cached_property
from importlib import import_module
from typing import TYPE_CHECKING

from orrery import OrreryError

if TYPE_CHECKING:
    import torch  # The table alone needs no torch, so the command's help comes at once.

BLOCK = 64
# Elements handled at a time: the temporaries of a chunk stay in the second-level cache.
CHUNK = 32768


@dataclass(frozen=True)
class Format:
    """One row of the table. `plane_bytes` are a block's share of each plane; a block array has one plane.

    `family` names the module in `quantizers/` that has its encoder and decoder.
    """

    name: str
    code: int
    elements: int
    plane_bytes: tuple[int, ...]
    family: str
    # What rows take that no 256-element block divides: the nearest 64-element format in bits that keeps no larger an
    # error on the bundled model's matrices.
    substitute: str = ""
    # The name of a GGUF tensor type with the same bytes.
    gguf_type: str = ""
    # Whether steps take fused kernels for its planes. Those want query, key and value, and gate and up, each as a
    # matrix of its own, which no part of a joined matrix of several planes is.
    apart: bool = False

    @cached_property
    def encode(self) -> Callable[[torch.Tensor], tuple[torch.Tensor, ...]]:
        """Blocks [blocks, elements] of floats to their bytes, one tensor [blocks, bytes] a plane."""
        return self._function("encode")

    @cached_property
    def decode(self) -> Callable[..., torch.Tensor]:
        """The planes' bytes to blocks of floats."""
        return self._function("decode")

    def _function(self, way: str) -> Callable:
        return getattr(import_module(f"orrery.quantizers.{self.family}"), f"{way}_{self.name}")

    @property
    def split(self) -> bool:
        """Whether quants and scales stand in planes of their own."""
        return len(self.plane_bytes) > 1

    @property
    def block_bytes(self) -> int:
        """Bytes of one block over all planes."""
        return sum(self.plane_bytes)

    @property
    def bits(self) -> float:
        """Bits per element."""
        return 8 * self.block_bytes / self.elements

    def size(self, rows: int, cols: int) -> int:
        """Bytes of a matrix."""
        return rows * cols // self.elements * self.block_bytes

    def stored_size(self, rows: int, cols: int, any_device: bool = True) -> tuple[int, int]:
        """Rows and columns with the padding that makes every kernel right: on any device, or on the one in use.

        `orrery_ops` must have been imported.
        """
        import torch

        return torch.ops.orrery.stored_size(self.code, rows, cols, any_device)

    def planes(self, data: torch.Tensor) -> list[torch.Tensor]:
        """Views [blocks, bytes] of a matrix's bytes, one a plane."""
        blocks = data.numel() // self.block_bytes
        parts = data.split([blocks * size for size in self.plane_bytes])
        return [part.view(blocks, size) for part, size in zip(parts, self.plane_bytes)]

    def for_rows(self, cols: int) -> "Format":
        """This format, or its substitute for rows of `cols` elements that it does not divide."""
        return FORMATS[self.substitute] if self.substitute and cols % self.elements else self


FORMATS = {
    f.name: f
    for f in (
        Format("q4_0", 2, 64, (32, 2), "linear", apart=True),
        Format("q4_1", 3, 64, (32, 4), "linear"),
        Format("q5_0", 6, 64, (44,), "linear"),
        Format("q5_1", 7, 64, (44,), "linear"),
        Format("q8_0", 8, 64, (64, 4), "linear"),
        Format("nf4", 10, 64, (32, 2), "codebook"),
        Format("nf3", 11, 64, (24, 2), "codebook"),
        Format("fp8_e4m3", 15, 64, (64, 4), "codebook"),
        Format("fp4", 16, 64, (32, 2), "codebook", apart=True),
        Format("fp8_e5m2", 19, 64, (64, 4), "codebook"),
        Format("iq2_xxs", 21, 256, (66,), "grid", "nf3", "IQ2_XXS"),
        Format("q2_k", 23, 256, (84,), "superblock", "nf3", "Q2_K"),
        Format("iq1_s", 24, 256, (50,), "grid", "nf3", "IQ1_S"),
        Format("q6_k", 26, 256, (210,), "superblock", "q8_0", "Q6_K"),
        Format("q4_k", 27, 256, (144,), "superblock", "q5_1", "Q4_K"),
        Format("q5_k", 28, 256, (176,), "superblock", "q8_0", "Q5_K"),
        Format("fp6", 29, 64, (32, 16, 2), "codebook", apart=True),
    )
}


def find(name: str) -> Format:
    """The format of that name."""
    if name not in FORMATS:
        raise OrreryError(f"unknown format {name!r}, the formats are {', '.join(FORMATS)}")
    return FORMATS[name]


def substitutes() -> str:
    """What stands in for each format of 256-element blocks, as text."""
    return ", ".join(f"{f.substitute} for {f.name}" for f in FORMATS.values() if f.substitute)


def quantize_rows(fmt: Format, matrix: torch.Tensor, data: torch.Tensor, first_row: int = 0,
                  progress: bool = False) -> None:
    """Writes the float32 rows of `matrix` into `data`, the bytes of a whole CPU matrix, from row `first_row` on.

    With `progress`, a bar is shown after the first two seconds.
    """
    import torch
    from tqdm import tqdm

    if matrix.shape[1] % fmt.elements:
        raise OrreryError(f"rows of {matrix.shape[1]} elements do not divide into blocks of {fmt.elements}")
    planes = fmt.planes(data)
    blocks = matrix.reshape(-1, fmt.elements)
    start = first_row * matrix.shape[1] // fmt.elements
    step = CHUNK // fmt.elements

    def encode(first: int) -> None:
        chunk = blocks[first : first + step]
        for plane, part in zip(planes, fmt.encode(chunk)):
            plane[start + first : start + first + chunk.shape[0]] = part

    # Each thread takes whole chunks and runs torch's operators alone. Were they to share each operator, they would meet
    # at its end, which is 40 times slower when other programs keep the cores busy.
    threads = torch.get_num_threads()
    try:
        with ThreadPoolExecutor(threads, initializer=torch.set_num_threads, initargs=(1,)) as pool:
            starts = range(0, blocks.shape[0], step)
            for _ in tqdm(pool.map(encode, starts), f"to {fmt.name}", len(starts), delay=2, leave=False,
                          disable=None if progress else True):
                pass
    finally:
        torch.set_num_threads(threads)


def quantize(fmt: Format, matrix: torch.Tensor) -> torch.Tensor:
    """The bytes of a float32 matrix, on the CPU."""
    import torch

    data = torch.empty(fmt.size(*matrix.shape), dtype=torch.uint8)
    quantize_rows(fmt, matrix, data)
    return data


def dequantize(fmt: Format, data: torch.Tensor, cols: int) -> torch.Tensor:
    """The float32 matrix of these bytes."""
    return fmt.decode(*fmt.planes(data)).view(-1, cols)


def dequantize_rows(fmt: Format, data: torch.Tensor, rows: int, cols: int) -> torch.Tensor:
    """The first `rows` rows of a matrix as floats."""
    blocks = rows * cols // fmt.elements
    return fmt.decode(*(plane[:blocks] for plane in fmt.planes(data))).view(rows, cols)


def table() -> str:
    """The formats as text."""
    lines = [f"{'format':10}{'code':>6}{'elements':>10}{'bytes':>7}{'bits':>7}  {'layout':13}rows of other lengths"]
    for f in FORMATS.values():
        layout = "split" if f.split else "block array"
        lines.append(f"{f.name:10}{f.code:>6}{f.elements:>10}{f.block_bytes:>7}{f.bits:>7.2f}  {layout:13}"
                     f"{f.substitute or '-'}")
    return "\n".join(lines)
