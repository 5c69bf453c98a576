"""The time of rounded operations: the lower bound of a kernel that rounds every product and sum."""

from __future__ import annotations

import ctypes
import os
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import torch

from .measure import type_name

_ROOT = Path(__file__).resolve().parents[1]
_LANES = 32


class RoundedOperations:
    """Runs a number of products and as many sums of halves or floats on all threads, as the kernels' vectors compute
    them."""

    def __init__(self, threads: int, dtype: torch.dtype = torch.float16) -> None:
        self._threads = threads
        self._pool = ThreadPoolExecutor(threads)
        with tempfile.TemporaryDirectory() as folder:
            library = Path(folder) / "rounding.so"
            folders = [_ROOT, _ROOT / "includes", _ROOT / "host" / "sycl" / "include"]
            includes = [*(f"-I{path}" for path in folders), "-isystem", f"{Path(torch.__file__).parent}/include"]
            options = ["-std=c++20", "-O3", "-march=native", "-ffp-contract=off", "-shared", "-fPIC", *includes]
            source = Path(__file__).with_name("rounding.cpp")
            subprocess.run([os.environ.get("CXX", "c++"), *options, source, "-o", library], check=True)
            name = f"multiply_and_add_{type_name(dtype)}"
            self._loop = getattr(ctypes.CDLL(str(library)), name)
        self._loop.argtypes, self._loop.restype = [ctypes.c_uint64], ctypes.c_float

    def __call__(self, products: int) -> None:
        share = products // _LANES // self._threads
        list(self._pool.map(self._loop, [share] * self._threads))
