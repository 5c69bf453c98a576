"""A model's matrices in one of our formats, made from a GGUF file once and kept in a cache file.

A tensor that the file has in the very format that is asked for keeps its bytes. A matrix whose rows the format's blocks
do not divide takes the format's substitute.

The cache file is a JSON header behind its length, then the tensors' bytes one after the other. It is written under
another name and moved into place, so a reader never sees half of one.
"""

from __future__ import annotations

import contextlib
import hashlib
import json
import math
import os
from collections.abc import Callable, Iterator, Sequence
from dataclasses import asdict, dataclass
from pathlib import Path

import torch

from orrery import formats, gguf_model
from orrery.formats import Format
from orrery.gguf_model import GGUFModel, Sizes
from orrery.tokenizer import Vocabulary

# The number changes with the quantizers and the order of rows: a cache of an older one is not found.
MAGIC = b"ORRERY03"
# Rows dequantized at a time: a large vocabulary never stands in memory as floats, and the progress shown moves.
ROWS = 2048


@dataclass(frozen=True)
class Prepared:
    """A model ready to run: byte tensors of quantized matrices and float32 norm weights, on one device.

    `formats` has the format of each matrix, which is `format` or its substitute.
    """

    format: Format
    sizes: Sizes
    vocabulary: Vocabulary
    tensors: dict[str, torch.Tensor]
    formats: dict[str, Format]

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
    """The model of a GGUF file in format `fmt`, from the cache if it is there; `keep` puts it there if it was not."""
    gguf_model.check_magic(path)
    file = cache_file(path, fmt)
    if cache:
        found = _read_cache(file, fmt, device)
        if found:
            return found
    model = gguf_model.read(path)
    chosen = matrix_formats(model, fmt)
    tensors = {name: tensor.to(device) for name, tensor in _quantized(model, fmt, chosen)}
    prepared = Prepared(fmt, model.sizes, model.vocabulary, tensors, chosen)
    if cache and keep:
        _write_cache(file, prepared)
    return prepared


# Our matrices of a layer and the tensors of the file whose rows they join. Rows are independent, so query, key and
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
    """Our norm weights and the file's."""
    names = {"norm": "output_norm.weight"}
    for i in range(sizes.layers):
        names[f"{i}.attention_norm"] = f"blk.{i}.attn_norm.weight"
        names[f"{i}.mlp_norm"] = f"blk.{i}.ffn_norm.weight"
    return names


def matrix_formats(model: GGUFModel, fmt: Format) -> dict[str, Format]:
    """The format of each of our matrices."""
    made = matrices(model.sizes, "output.weight" not in model.stored, fmt)
    return {name: fmt.for_rows(model.stored[sources[0]].shape[1]) for name, sources in made.items()}


def _quantized(model: GGUFModel, fmt: Format, chosen: dict[str, Format]) -> Iterator[tuple[str, torch.Tensor]]:
    from tqdm import tqdm

    for name, source in norms(model.sizes).items():
        yield name, model.rows(source).reshape(-1)
    made = matrices(model.sizes, "output.weight" not in model.stored, fmt)
    total = sum(math.prod(model.stored[source].shape) for sources in made.values() for source in sources)
    names = ", ".join(dict.fromkeys(f.name for f in chosen.values()))
    with tqdm(total=total, desc=f"quantizing to {names}", unit=" weights", unit_scale=True, delay=2,
              mininterval=0.5) as progress:
        for name, sources in made.items():
            yield name, quantized_rows(model, sources, chosen[name], progress.update)


def quantized_rows(model: GGUFModel, sources: Sequence[str], fmt: Format,
                   done: Callable[[int], object]) -> torch.Tensor:
    """The rows of several tensors of the file as one matrix in `fmt`."""
    rows, cols = sum(model.stored[source].shape[0] for source in sources), model.stored[sources[0]].shape[1]
    data = torch.empty(fmt.size(rows, cols), dtype=torch.uint8)
    row = 0
    for source in sources:
        as_stored = bool(fmt.gguf_type) and model.stored[source].kind.name == fmt.gguf_type
        height = model.stored[source].shape[0]
        for first in range(0, height, ROWS):
            count = min(ROWS, height - first)
            if as_stored:
                data.view(rows, -1)[row : row + count] = torch.from_numpy(model.raw_rows(source, first, count))
            else:
                formats.quantize_rows(fmt, model.rows(source, first, count), data, row)
            row += count
            done(count * cols)
    return data


def cache_file(path: Path, fmt: Format) -> Path:
    """Where the prepared model lies: named by the source file's place, size and time, and by the format."""
    stat = path.stat()
    key = f"{path.resolve()} {stat.st_size} {stat.st_mtime_ns} {fmt.name} {MAGIC.decode()}"
    root = Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache")
    return root / "orrery" / f"{hashlib.sha256(key.encode()).hexdigest()[:16]}-{fmt.name}.bin"


def _write_cache(file: Path, prepared: Prepared) -> None:
    """A cache that cannot be written is no failure: the next start is slower."""
    tensors = [{"name": n, "dtype": str(t.dtype).removeprefix("torch."), "numel": t.numel(),
                "format": prepared.formats[n].name if n in prepared.formats else ""}
               for n, t in prepared.tensors.items()]
    header = json.dumps({
        "sizes": asdict(prepared.sizes),
        "vocabulary": asdict(prepared.vocabulary),
        "tensors": tensors,
        "bytes": sum(t.nbytes for t in prepared.tensors.values()),
    }).encode()
    temporary = file.with_suffix(f".{os.getpid()}.tmp")
    try:
        file.parent.mkdir(parents=True, exist_ok=True)
        with open(temporary, "wb") as stream:
            stream.write(MAGIC + len(header).to_bytes(8, "little") + header)
            for tensor in prepared.tensors.values():
                stream.write(tensor.cpu().numpy().data)
        os.replace(temporary, file)
    except OSError:
        with contextlib.suppress(OSError):
            temporary.unlink()


def _read_cache(file: Path, fmt: Format, device: str) -> Prepared | None:
    try:
        with open(file, "rb") as stream:
            if stream.read(len(MAGIC)) != MAGIC:
                return None
            header = json.loads(stream.read(int.from_bytes(stream.read(8), "little")))
            if stream.tell() + header["bytes"] != os.fstat(stream.fileno()).st_size:
                return None
            tensors, chosen = {}, {}
            for entry in header["tensors"]:
                tensor = torch.empty(entry["numel"], dtype=getattr(torch, entry["dtype"]))
                stream.readinto(memoryview(tensor.numpy()).cast("B"))
                tensors[entry["name"]] = tensor.to(device)
                if entry["format"]:
                    chosen[entry["name"]] = formats.FORMATS[entry["format"]]
    except (OSError, ValueError, KeyError):
        return None
    vocabulary = header["vocabulary"]
    vocabulary["stop"] = tuple(vocabulary["stop"])
    return Prepared(fmt, Sizes(**header["sizes"]), Vocabulary(**vocabulary), tensors, chosen)
