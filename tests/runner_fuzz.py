"""Damages a model file or a prepared model and runs `generate` on it, again and again, in this one process.

`python runner_fuzz.py KIND SEED CASES FOLDER` prints how often each status came, as JSON. It ends with a case's number
if that case raises, takes more than SECONDS of CPU, says anything but sentences, or leaves with another status than 0
and 2.
"""

from __future__ import annotations

import contextlib
import io
import json
import os
import random
import resource
import signal
import struct
import sys
from collections import Counter
from pathlib import Path

import torch

import runner_files
from orrery import cli, formats, gguf_header, prepare
from sanitizers import SANITIZED

SECONDS = 20  # of CPU
MEMORY = 3 << 30  # above what the process has before the first case
NASTY = (0, 1, 2, 3, 7, 31, 127, 255, 2**15, 2**16 - 1, 2**24, 2**31 - 1, 2**31, 2**32 - 1, 2**40, 2**62, 2**63 - 1,
         2**63, 2**64 - 1)
FORMAT = "q8_0"


def nasty_number(data: bytearray, rng: random.Random, end: int) -> None:
    """A number of 4 or 8 bytes anywhere in the header, or right behind a key, where its type stands, and its value."""
    size = rng.choice((4, 8))
    at = rng.randrange(4, end)
    keys = rng.choice(((b"llama.", b"general."), (b"tokenizer.",), (b"blk.", b"token_embd", b"output_norm")))
    starts = [at for at in range(end) if data.startswith(keys, at)]
    if starts and rng.random() < 0.7:
        start = rng.choice(starts)
        length = struct.unpack_from("<Q", data, start - 8)[0]
        at = start + min(length, 80) + rng.choice((-length - 8, 0, 4, 4, 4, 8, 12, 16, 20, 24, 28))
    data[at : at + size] = (rng.choice(NASTY) % 256**size).to_bytes(size, "little")


def nasty_size(data: bytearray, rng: random.Random, end: int) -> None:
    """One of the model's own numbers, of 4 bytes behind its key and its type."""
    start = rng.choice([at for at in range(end) if data.startswith(b"llama.", at)])
    at = start + struct.unpack_from("<Q", data, start - 8)[0] + 4
    data[at : at + 4] = (rng.choice(NASTY) % 2**32).to_bytes(4, "little")


def random_bytes(data: bytearray, rng: random.Random, first: int, end: int) -> None:
    for _ in range(rng.choice((1, 1, 2, 8))):
        data[rng.randrange(first, end)] = rng.randrange(256)


def damaged_model(whole: bytes, rng: random.Random, end: int) -> bytes:
    data = bytearray(whole)
    way = rng.random()
    if way < 0.15:
        nasty_size(data, rng, end)
    elif way < 0.5:
        nasty_number(data, rng, end)
    elif way < 0.75:
        random_bytes(data, rng, 0, end)
    elif way < 0.85:
        del data[rng.randrange(len(data)) :]
    elif way < 0.9:
        at = rng.randrange(end)
        data[at:at] = rng.randbytes(rng.choice((1, 8, 64)))
    else:
        at = rng.randrange(end, len(data) - 64)
        value = rng.choice((1e38, float("nan"), 1e-42))
        data[at : at + 64] = rng.choice((rng.randbytes(64), struct.pack("<16f", *[value] * 16)))
    return bytes(data)


def damaged_cache(whole: bytes, rng: random.Random, end: int) -> bytes:
    data = bytearray(whole)
    way = rng.random()
    if way < 0.3:
        random_bytes(data, rng, 0, end)
    elif way < 0.6:
        random_bytes(data, rng, end, len(data))
    elif way < 0.8:
        data[8:16] = rng.choice(NASTY).to_bytes(8, "little")
    elif way < 0.9:
        del data[rng.randrange(len(data)) :]
    else:
        data += rng.randbytes(rng.choice((1, 100)))
    return bytes(data)


def run(model: Path, *arguments: str) -> tuple[int, str]:
    """Status of a run, and what it said on standard error. Raises if it was not as it should be."""
    said, errors = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(said), contextlib.redirect_stderr(errors):
        status = cli.main(["generate", "he", "--model", str(model), "--tokens", "2", "--format", FORMAT, *arguments])
    text = errors.getvalue()
    text = "".join(line + "\n" for line in text.splitlines() if line and not line.startswith("quantizing to"))
    if status not in (0, 2) or not all(line.startswith("orrery: ") for line in text.splitlines()):
        raise AssertionError(f"status {status}: {text}")
    if status == 2 and (said.getvalue() or text.count("\n") < 1):
        raise AssertionError(f"status 2, but {said.getvalue()!r} and {text!r}")
    return status, text


def hangs(*_: object) -> None:
    raise TimeoutError("it hangs")


def main(kind: str, seed: int, cases: int, folder: Path) -> None:
    os.environ["XDG_CACHE_HOME"] = str(folder / "cache")
    torch.set_num_threads(1)
    model = folder / "model.gguf"
    runner_files.write_tiny(model, hidden=64, feed_forward=64)
    stat, whole = model.stat(), model.read_bytes()
    run(model)  # All is imported now, and a prepared model is there.
    expected = run(model)
    end = min(tensor.offset for tensor in gguf_header.read(model).tensors.values())
    prepared = prepare.cache_file(model, formats.find(FORMAT))
    kept = prepared.read_bytes()
    end_of_cache = 20 + int.from_bytes(kept[8:16], "little")
    if not SANITIZED:
        size = int(Path("/proc/self/statm").read_text().split()[0]) * resource.getpagesize()
        resource.setrlimit(resource.RLIMIT_AS, (size + MEMORY, size + MEMORY))
    signal.signal(signal.SIGPROF, hangs)
    results: Counter[str] = Counter()
    for case in range(cases):
        rng = random.Random(f"{kind} {seed} {case}")
        signal.setitimer(signal.ITIMER_PROF, SECONDS)
        try:
            if kind == "model":
                model.write_bytes(damaged_model(whole, rng, end))
                status, text = run(model, "--no-cache")
            else:
                prepared.write_bytes(damaged_cache(kept, rng, end_of_cache))
                os.utime(model, ns=(stat.st_atime_ns, stat.st_mtime_ns))
                status, text = run(model)
                remade = f"orrery: the prepared model {prepared} is damaged and is made anew\n"
                if status or text not in (expected[1], remade) or prepared.read_bytes() != kept:
                    raise AssertionError(text)
                status = f"{status}, remade" if text == remade else status
        except BaseException as error:
            (folder / "case").write_bytes(model.read_bytes())
            raise SystemExit(f"{kind} {seed} case {case}: {type(error).__name__}: {error}") from error
        signal.setitimer(signal.ITIMER_PROF, 0)
        results[str(status)] += 1
        if status == 2 and "-v" in sys.argv:
            print(text.replace(str(model), "MODEL"), end="", file=sys.__stderr__)
    print(json.dumps(results))


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), Path(sys.argv[4]))
