"""The kernels compile as they would off the host: standard SYCL, vectors as plain arrays, the device's native functions.

A syntax check by the compiler against this project's own SYCL headers, with what is added to the standard left out."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
import sysconfig
from importlib.util import find_spec
from pathlib import Path

import pytest

ROOT = Path(__file__).parent.parent
TORCH = Path(find_spec("torch").submodule_search_locations[0]) / "include"
COMPILERS = [name for name in dict.fromkeys([os.environ.get("CXX", "c++"), "clang++"]) if shutil.which(name)]
# One unit of each kind of kernel.
UNITS = [
    "norm.cpp",
    "rope.cpp",
    "rope_xpu.cpp",
    "rwkv.cpp",
    "sdp.cpp",
    "bmm_xpu_kernel.cpp",
    "linear/one_row/nf.cpp",
    "linear/one_row/q8_1.cpp",
    "linear/one_row/quantize_q8_1.cpp",
    "linear/one_row/super_block.cpp",
    "linear/row_pairs/codebook.cpp",
    "linear/dense/odd.cpp",
    "linear/dense/super_blocks.cpp",
    "batch/int4.cpp",
    "dotgrid_xpu_kernel.cpp",
    "norms/half.cpp",
    "norms/double.cpp",
    "fused/q4_0.cpp",
    "fused/iq2_xxs.cpp",
]


def compile_plain(compiler, source, *flags, text=None):
    includes = [ROOT, ROOT / "includes", ROOT / "host/sycl/include"]
    system = [TORCH, TORCH / "torch/csrc/api/include", sysconfig.get_path("include")]
    command = [compiler, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-Wno-attributes"]
    command += ["-Wno-unknown-attributes"] if "clang" in compiler else []
    command += [f"-I{folder}" for folder in includes] + [f"-isystem{folder}" for folder in system]
    command += ["-DORRERY_PLAIN_SYCL", *flags, str(source)]
    return subprocess.run(command, input=text, capture_output=True, text=True, timeout=300)


@pytest.mark.parametrize("unit", UNITS)
@pytest.mark.parametrize("compiler", COMPILERS)
def test_unit_compiles(compiler, unit):
    done = compile_plain(compiler, ROOT / unit)
    assert done.returncode == 0, done.stderr[-4000:]


@pytest.mark.parametrize("compiler", COMPILERS)
def test_vectors_are_plain_arrays(compiler):
    """Whatever the instruction set."""
    text = """
        #include "includes/simd.h"
        #ifdef SYCL_EXT_ORRERY_HOST
        #error "not plain"
        #endif
        static_assert(std::is_same_v<orrery::machine, orrery::portable>);
        static_assert(std::is_same_v<orrery::byte_machine, orrery::portable>);
    """
    done = compile_plain(compiler, "-", "-xc++", "-march=native", text=text)
    assert done.returncode == 0, done.stderr[-4000:]


def test_intrinsics_stand_in_one_folder():
    """Nor do kernels, formats and host functions look into the vectors of a simd."""
    inside = re.compile(r"\b_mm\w*_|\b__m\d+|\b__mmask|\basm\b|\b__builtin_(?!LINE)|\bvector_size\b|\.v\b|::chunks?\b")
    folders = ["", "formats", "includes", "linear/*", "batch", "fused", "norms", "attention"]
    files = [f for folder in folders for end in ("cpp", "h") for f in ROOT.glob(f"{folder}/*.{end}".lstrip("/"))]
    files += ROOT.glob("linear/*.*")
    assert len(files) > 30
    found = [f"{f.name}: {line}" for f in files for line in f.read_text().splitlines() if inside.search(line.split("//")[0])]
    assert not found
