"""The files of prepared models: paths, headers, listing and removal. `prepare.py` reads the tensors.

A file is MAGIC, the length of its header in 8 bytes, the header's checksum in 4, the header as JSON, then the tensors'
bytes one after the other. The header has a checksum for each tensor. All of them are CRC-32: it finds damage of
a few bytes, and at 2.4 GB a second it hardly delays the start (SHA-256 takes twice as long, BLAKE2 three times). A file
is written under another name and moved into place, so a reader never sees half of one.
"""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
import re
import time
import zlib
from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from orrery import OrreryError

# The number changes with the layout of the file, the quantizers and the order of rows.
MAGIC = b"ORRERY04"
NAME = re.compile(r"([0-9a-f]{16})-(\w+)\.(bin|\d+\.tmp)")


def folder() -> Path:
    """The folder of the files."""
    return Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "orrery"


def file_for(model: Path, format_name: str) -> Path:
    """The file of a model in a format: named by the source file's path, size and time, the format and MAGIC."""
    source = _source(model)
    key = f"{source['path']} {source['size']} {source['mtime_ns']} {format_name} {MAGIC.decode()}"
    return folder() / f"{hashlib.sha256(os.fsencode(key)).hexdigest()[:16]}-{format_name}.bin"


def _source(model: Path) -> dict[str, Any]:
    stat = model.stat()
    return {"path": str(model.resolve()), "size": stat.st_size, "mtime_ns": stat.st_mtime_ns}


def checksum(data: Any) -> int:
    """Of bytes or of an array."""
    return zlib.crc32(data)


def write(file: Path, model: Path, header: dict[str, Any], tensors: Iterable[Any]) -> None:
    """Writes header and arrays. A file that cannot be written is no failure: the next start is slower."""
    text = json.dumps({"source": _source(model), **header}).encode()
    temporary = file.with_suffix(f".{os.getpid()}.tmp")
    try:
        file.parent.mkdir(parents=True, exist_ok=True)
        with open(temporary, "wb") as stream:
            stream.write(MAGIC + len(text).to_bytes(8, "little") + checksum(text).to_bytes(4, "little") + text)
            for data in tensors:
                stream.write(data)
        os.replace(temporary, file)
    except OSError:
        with contextlib.suppress(OSError):
            temporary.unlink()


def read_header(file: Path) -> tuple[dict[str, Any], int]:
    """The header and where the tensors begin. ValueError for a damaged one or one of another version."""
    with open(file, "rb") as stream:
        if stream.read(len(MAGIC)) != MAGIC:
            raise ValueError("another version")
        size, expected = (int.from_bytes(stream.read(count), "little") for count in (8, 4))
        if size > os.fstat(stream.fileno()).st_size:
            raise ValueError("cut off")
        text = stream.read(size)
        if checksum(text) != expected:
            raise ValueError("a damaged header")
        return json.loads(text), stream.tell()


@dataclass(frozen=True)
class Entry:
    """One of the files. `stale` says why nothing will read it again, or is empty."""

    file: Path
    name: str
    format: str
    size: int
    made: float
    model: str
    stale: str

    @property
    def names(self) -> set[str]:
        """What a user may call it by."""
        return {self.name, self.file.name, self.model, os.path.basename(self.model)} - {""}


def entries() -> list[Entry]:
    """The prepared models in the folder, the newest first. Other files are left alone."""
    found = []
    with contextlib.suppress(OSError):  # no folder
        for file in folder().iterdir():
            match = NAME.fullmatch(file.name)
            if match and file.is_file() and not file.is_symlink():
                model, stale = _state(file) if match[3] == "bin" else ("", "left by an interrupted run")
                stat = file.stat()
                found.append(Entry(file, match[1][:8], match[2], stat.st_size, stat.st_mtime, model, stale))
    return sorted(found, key=lambda entry: -entry.made)


def _state(file: Path) -> tuple[str, str]:
    """The model's path, and why the file is stale."""
    try:
        source = read_header(file)[0]["source"]
        model = source["path"]
    except (OSError, ValueError, KeyError, TypeError):
        return "", "of another version, or damaged"
    try:
        return model, "" if _source(Path(model)) == source else "the model has changed"
    except OSError:
        return model, "the model is gone"


def table() -> str:
    """The files as text, with their sum."""
    found, now = entries(), time.time()
    lines = [f"{'name':10}{'format':10}{'MB':>8}  {'made':16}model"]
    for entry in found:
        told = f"{entry.model} ({entry.stale})" if entry.stale else entry.model
        lines.append(f"{entry.name:10}{entry.format:10}{entry.size / 1e6:>8.1f}  {_age(now - entry.made):16}"
                     f"{told.strip()}")
    return "\n".join([*lines, f"{_sum(found)} in {folder()}"]) if found else f"no prepared models in {folder()}"


def _sum(found: Sequence[Entry]) -> str:
    return f"{len(found)} file{'s' * (len(found) != 1)}, {sum(entry.size for entry in found) / 1e6:.1f} MB"


def _age(seconds: float) -> str:
    for size, name in (86400, "day"), (3600, "hour"), (60, "minute"):
        if seconds >= size:
            count = int(seconds // size)
            return f"{count} {name}{'s' * (count != 1)} ago"
    return "just now"


def chosen(names: Sequence[str], every: bool, stale: bool) -> list[Entry]:
    """The files with one of these names, or of a model with such a path or file name; or all; or the stale ones."""
    if not (names or every or stale):
        raise OrreryError("name what to clear, or give --stale or --all")
    found = entries()
    for name in names:
        if not any(name in entry.names for entry in found):
            raise OrreryError(f"there is no prepared model {name!r}")
    return [entry for entry in found if every or stale and entry.stale or not entry.names.isdisjoint(names)]


def remove(found: Sequence[Entry]) -> str:
    """Removes the files; returns a line on how many there were."""
    for entry in found:
        try:
            entry.file.unlink(missing_ok=True)
        except OSError as error:
            raise OrreryError(f"cannot remove {entry.file}: {error.strerror}") from error
    return f"removed {_sum(found)}"
