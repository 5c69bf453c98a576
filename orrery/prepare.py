"""Prepared models: a model's matrices in a weight format, made from a GGUF file once and kept in a file.

A tensor that the GGUF file has in the very format that is asked for keeps its bytes. A matrix whose rows the format's
blocks do not divide takes the format's substitute. The layout of the file is in `prepared_files.py`.
"""

from __future__ import annotations

import math
import warnings
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass
from itertools import accumulate
from pathlib import Path
from typing import Any

import numpy as np
import torch

from orrery import formats, gguf_model, prepared_files
from orrery.formats import Format
from orrery.gguf_model import GGUFModel, Sizes
from orrery.tokenizer import Vocabulary

# Rows dequantized at a time: a large vocabulary never stands in memory as floats, and the progress shown moves.
ROWS = 2048
# The largest magnitude of a weight. Most scales are halves, up to 65504, and so are the values of some expanded
# weights; the code next to a weight may stand for more than the weight.
LARGEST = 32768.0
# fp6's codes stand for at most 0.0073, so its scale ends at a weight of 480.
LARGEST_OF = {"fp6": 256.0}
# Where a block that keeps the file's bytes has its scales, which are halves.
SCALES = {"iq2_xxs": (0,), "q2_k": (80, 82), "iq1_s": (0,), "q6_k": (208,), "q4_k": (0, 2), "q5_k": (0, 2)}
# Threads that read a prepared model.
READERS = 4


@dataclass(frozen=True)
class Prepared:
    """A model ready to run: byte tensors of quantized matrices and float32 norm weights, on one device.

    `formats` has the format of each matrix, which is `format` or its substitute; `unusable` counts the file's weights
    that were taken as 0.
    """

    format: Format
    sizes: Sizes
    vocabulary: Vocabulary
    tensors: dict[str, torch.Tensor]
    formats: dict[str, Format]
    unusable: int = 0

    @property
    def sources(self) -> dict[str, tuple[str, ...]]:
        """For each matrix the tensors of the file whose rows it joins."""
        return matrices(self.sizes, "output" not in self.tensors, self.format)

    @property
    def quantized_bytes(self) -> int:
        """Bytes of all quantized matrices."""
        return sum(self.tensors[name].numel() for name in self.formats)

    @property
    def weights(self) -> int:
        """Elements of all quantized matrices."""
        return sum(self.tensors[name].numel() // f.block_bytes * f.elements for name, f in self.formats.items())

    @property
    def remark(self) -> str:
        """A sentence on matrices that could not take the format; empty if all did."""
        others = sum(f != self.format for f in self.formats.values())
        if not others:
            return ""
        return (f"{others} of {len(self.formats)} matrices have rows that blocks of {self.format.elements} do not "
                f"divide and are stored as {self.format.substitute} instead of {self.format.name}")


def load(path: Path, fmt: Format, device: str = "xpu", cache: bool = True, keep: bool = True) -> Prepared:
    """The model of a GGUF file in format `fmt`. With `cache`, from its file if there is one; else `keep` writes that.

    Warns of weights that are NaN, infinite or too large, and of a damaged file, which is made anew.
    """
    gguf_model.check_magic(path)
    file = cache_file(path, fmt)
    prepared = _read_cache(file, fmt, device) if cache else None
    if not prepared:
        prepared = _made(path, fmt, device)
        if cache and keep:
            _write_cache(file, path, prepared)
    if prepared.unusable:
        warnings.warn(f"{prepared.unusable} weights of {path} are NaN, infinite or above {largest(fmt):.0f} in "
                      "magnitude and are taken as 0", RuntimeWarning, stacklevel=2)
    return prepared


def _made(path: Path, fmt: Format, device: str) -> Prepared:
    model, count = gguf_model.read(path), Count()
    chosen = matrix_formats(model, fmt)
    tensors = {name: tensor.to(device) for name, tensor in _quantized(model, fmt, chosen, count)}
    return Prepared(fmt, model.sizes, model.vocabulary, tensors, chosen, count.unusable)


def largest(fmt: Format) -> float:
    """The largest magnitude of a weight in that format."""
    return LARGEST_OF.get(fmt.name, LARGEST)


@dataclass
class Count:
    """How many weights could not be used."""

    unusable: int = 0

    def clean(self, values: torch.Tensor, limit: float = LARGEST) -> torch.Tensor:
        """The same tensor, with 0 for weights that are not within the limit: one would spread to every logit."""
        least, most = values.aminmax()
        if not (-limit <= least and most <= limit):  # so it is for NaN
            bad = ~(values.abs() <= limit)
            self.unusable += int(bad.sum())
            values[bad] = 0
        return values


# A layer's matrices here and the tensors of the file whose rows they join. Rows are independent, so query, key and
# value are one product, and so are gate and up.
JOINED = {
    "qkv": ("attn_q", "attn_k", "attn_v"),
    "out": ("attn_output",),
    "gate_up": ("ffn_gate", "ffn_up"),
    "down": ("ffn_down",),
}
APART = {"query": ("attn_q",), "key": ("attn_k",), "value": ("attn_v",), "out": ("attn_output",), "gate": ("ffn_gate",),
         "up": ("ffn_up",), "down": ("ffn_down",)}


def matrices(sizes: Sizes, tied: bool, fmt: Format) -> dict[str, tuple[str, ...]]:
    """The matrices of a model in `fmt` and the tensors of the file whose rows they join."""
    result: dict[str, tuple[str, ...]] = {"embedding": ("token_embd.weight",)}
    if not tied:
        result["output"] = ("output.weight",)
    for i in range(sizes.layers):
        for name, parts in (APART if fmt.apart else JOINED).items():
            result[f"{i}.{name}"] = tuple(f"blk.{i}.{part}.weight" for part in parts)
    return result


def norms(sizes: Sizes) -> dict[str, str]:
    """The names of the norm weights here and in the file."""
    names = {"norm": "output_norm.weight"}
    for i in range(sizes.layers):
        names[f"{i}.attention_norm"] = f"blk.{i}.attn_norm.weight"
        names[f"{i}.mlp_norm"] = f"blk.{i}.ffn_norm.weight"
    return names


def matrix_formats(model: GGUFModel, fmt: Format) -> dict[str, Format]:
    """The format of each matrix of `matrices`."""
    made = matrices(model.sizes, "output.weight" not in model.stored, fmt)
    return {name: fmt.for_rows(model.stored[sources[0]].shape[1]) for name, sources in made.items()}


def _quantized(model: GGUFModel, fmt: Format, chosen: dict[str, Format],
               count: Count) -> Iterator[tuple[str, torch.Tensor]]:
    from tqdm import tqdm

    for name, source in norms(model.sizes).items():
        yield name, count.clean(model.rows(source)).reshape(-1)
    made = matrices(model.sizes, "output.weight" not in model.stored, fmt)
    total = sum(math.prod(model.stored[source].shape) for sources in made.values() for source in sources)
    names = ", ".join(dict.fromkeys(f.name for f in chosen.values()))
    with tqdm(total=total, desc=f"quantizing to {names}", unit=" weights", unit_scale=True, delay=2,
              mininterval=0.5) as progress:
        for name, sources in made.items():
            yield name, quantized_rows(model, sources, chosen[name], progress.update, count)


def quantized_rows(model: GGUFModel, sources: Sequence[str], fmt: Format, done: Callable[[int], object],
                   count: Count) -> torch.Tensor:
    """The rows of several tensors of the file as one matrix in `fmt`."""
    rows, cols = sum(model.stored[source].shape[0] for source in sources), model.stored[sources[0]].shape[1]
    data = torch.empty(fmt.size(rows, cols), dtype=torch.uint8)
    row = 0
    for source in sources:
        as_stored = bool(fmt.gguf_type) and model.stored[source].kind.name == fmt.gguf_type
        height = model.stored[source].shape[0]
        for first in range(0, height, ROWS):
            now = min(ROWS, height - first)
            raw = torch.from_numpy(model.raw_rows(source, first, now)) if as_stored else None
            if raw is not None and _has_finite_scales(raw, fmt):
                data.view(rows, -1)[row : row + now] = raw
            else:
                formats.quantize_rows(fmt, count.clean(model.rows(source, first, now), largest(fmt)), data, row)
            row += now
            done(now * cols)
    return data


def _has_finite_scales(raw: torch.Tensor, fmt: Format) -> bool:
    """Whether no block's scale is infinite or NaN: a half with all bits of its exponent set."""
    blocks = raw.view(-1, fmt.block_bytes)
    return all(bool((blocks[:, at + 1] & 0x7C).ne(0x7C).all()) for at in SCALES[fmt.name])


def cache_file(path: Path, fmt: Format) -> Path:
    """The file of the prepared model."""
    return prepared_files.file_for(path, fmt.name)


def _write_cache(file: Path, path: Path, prepared: Prepared) -> None:
    def arrays() -> Iterator[np.ndarray]:  # twice, one at a time: together they would take the model's memory again
        return (tensor.cpu().numpy() for tensor in prepared.tensors.values())

    tensors = [{"name": name, "dtype": str(array.dtype), "numel": array.size,
                "format": prepared.formats[name].name if name in prepared.formats else "",
                "checksum": prepared_files.checksum(array)} for name, array in zip(prepared.tensors, arrays())]
    header = {
        "sizes": asdict(prepared.sizes),
        "vocabulary": asdict(prepared.vocabulary),
        "tensors": tensors,
        "unusable": prepared.unusable,
    }
    prepared_files.write(file, path, header, arrays())


def _read_cache(file: Path, fmt: Format, device: str) -> Prepared | None:
    """What is in the file; None where there is none, or a damaged one."""
    try:
        header, offset = prepared_files.read_header(file)
        tensors = _read_tensors(file, offset, header["tensors"], device)
    except OSError:
        return None
    except ValueError:
        warnings.warn(f"the prepared model {file} is damaged and is made anew", RuntimeWarning, stacklevel=3)
        return None
    chosen = {entry["name"]: formats.FORMATS[entry["format"]] for entry in header["tensors"] if entry["format"]}
    vocabulary = header["vocabulary"]
    vocabulary["stop"] = tuple(vocabulary["stop"])
    return Prepared(fmt, Sizes(**header["sizes"]), Vocabulary(**vocabulary), tensors, chosen, header["unusable"])


def _read_tensors(file: Path, offset: int, entries: list[dict[str, Any]], device: str) -> dict[str, torch.Tensor]:
    """ValueError if the bytes are not those that were written."""
    sizes = [entry["numel"] * np.dtype(entry["dtype"]).itemsize for entry in entries]
    offsets = list(accumulate(sizes, initial=offset))
    if offsets.pop() != file.stat().st_size:
        raise ValueError("cut off")

    def read(entry: dict[str, Any], at: int) -> tuple[str, torch.Tensor]:
        array = np.empty(entry["numel"], entry["dtype"])
        with open(file, "rb") as stream:
            stream.seek(at)
            if stream.readinto(array) != array.nbytes or prepared_files.checksum(array) != entry["checksum"]:
                raise ValueError(f"a damaged tensor {entry['name']}")
        return entry["name"], torch.from_numpy(array).to(device)

    with ThreadPoolExecutor(READERS) as pool:
        return dict(pool.map(read, entries, offsets))
