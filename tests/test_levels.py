"""Operators for several instruction-set levels: what the loader takes, what the libraries show, and equal bits.

On the build of `make levels`, whose operators are those of the lowest level.
"""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from orrery_host import _instructions

ROOT = Path(__file__).parent.parent
BUILT = ROOT / "build" / "levels" / "python"
LOWEST = "x86-64-v3"
MODULE = "orrery_ops.cpython-310-x86_64-linux-gnu.so"
ABOVE = ("AVX512F", "AVX512BW", "AVX512CD", "AVX512DQ", "AVX512VL")

pytestmark = pytest.mark.skipif(not (BUILT / MODULE).exists(), reason="make levels has not built the levels")
needs_nm = pytest.mark.skipif(not shutil.which("nm"), reason="nm is missing")


def library(tree: Path, level: str) -> Path:
    return tree / "orrery_host" / "levels" / f"orrery_ops-{level}.so"


@pytest.fixture(scope="module")
def tree(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """An importable tree of two levels; the upper one has the lower one's operators, in a file of its own."""
    copy = shutil.copytree(BUILT, tmp_path_factory.mktemp("levels") / "python")
    shutil.copy(library(copy, LOWEST), library(copy, "x86-64-v4"))
    code = "from orrery_host._built_for import LEVELS; print(repr(LEVELS))"
    lowest = eval(python(copy, code).stdout)[LOWEST]  # noqa: S307  (what the build wrote)
    levels = {LOWEST: lowest, "x86-64-v4": (*lowest, *ABOVE)}
    (copy / "orrery_host" / "_built_for.py").write_text(f"LEVELS = {levels!r}\n")
    return copy


def run(tree: Path, *command: str | Path, **environment: str) -> subprocess.CompletedProcess:
    """Without what the run of the tests itself was given: other libraries, a sanitizer, settings of the device."""
    given = ("LD_PRELOAD", "PYTHONPATH", "ORRERY_")
    settings = {name: value for name, value in os.environ.items() if not name.startswith(given)}
    settings["PYTHONPATH"] = str(tree)
    return subprocess.run(command, env=settings | environment, capture_output=True, text=True, timeout=600)


def python(tree: Path, code: str, **environment: str) -> subprocess.CompletedProcess:
    return run(tree, sys.executable, "-c", code, **environment)


def loaded(tree: Path, **environment: str) -> str:
    """The file of the operators in a process that has imported them."""
    code = "import orrery_ops; print(*{l.split()[-1] for l in open('/proc/self/maps') if '/levels/' in l})"
    done = python(tree, code, **environment)
    assert done.returncode == 0, done.stderr
    return done.stdout.strip()


# --- Which level is loaded ------------------------------------------------------------------------------------------


@pytest.mark.parametrize("level", [LOWEST, "x86-64-v4"])
def test_the_variable_forces_a_level(tree: Path, level: str) -> None:
    import torch

    if level != LOWEST and _instructions.missing(ABOVE, torch.cpu.get_capabilities()):
        pytest.skip("this CPU has no AVX-512")
    assert loaded(tree, ORRERY_ISA=level) == str(library(tree, level))


def test_without_the_variable_it_is_the_highest_of_this_cpu(tree: Path) -> None:
    import torch

    highest = LOWEST if _instructions.missing(ABOVE, torch.cpu.get_capabilities()) else "x86-64-v4"
    assert loaded(tree) == str(library(tree, highest))


def test_a_level_that_is_not_there_is_refused_in_one_sentence(tree: Path) -> None:
    sentence = "ORRERY_ISA must be x86-64-v3 or x86-64-v4, not 'avx512-fp16'."
    code = """
import torch
try:
    torch.ones(1, device="xpu")
except RuntimeError as error:
    print(error)
import orrery_ops
"""
    done = python(tree, code, ORRERY_ISA="avx512-fp16")
    assert done.stdout == sentence + "\n"
    assert done.stderr.splitlines()[-1] == f"ImportError: orrery_ops needs an xpu device: {sentence}"


def test_a_missing_library_is_named(tree: Path, tmp_path: Path) -> None:
    copy = shutil.copytree(tree, tmp_path / "python")
    library(copy, LOWEST).unlink()
    done = python(copy, "import orrery_ops", ORRERY_ISA=LOWEST)
    last = done.stderr.splitlines()[-1]
    assert last.startswith("ImportError: orrery_ops can't load its operators: ") and str(library(copy, LOWEST)) in last


def test_the_module_behaves_as_a_single_library(tree: Path) -> None:
    """Its 29 operations, the refusal of another interpreter, and its errors without a device or with a bad setting."""
    presence = f"{ROOT}/tests/host/test_device_presence.py::test_the_operators"
    tests = [ROOT / "tests" / "test_module.py", f"{presence}_say_it_too", f"{presence}_may_be_imported_first"]
    done = run(tree, sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", *tests)
    assert done.returncode == 0, done.stdout


# --- What the libraries show ----------------------------------------------------------------------------------------


def symbols(file: Path, *which: str) -> dict[str, str]:
    """Dynamic symbols with their kinds."""
    made = subprocess.run(["nm", "-D", "--format=posix", *which, file], capture_output=True, text=True, check=True)
    return {line.split()[0].partition("@")[0]: line.split()[1] for line in made.stdout.splitlines()}


@needs_nm
@pytest.mark.parametrize("file", [MODULE, f"orrery_host/levels/orrery_ops-{LOWEST}.so"])
def test_a_library_shows_its_entry_point_alone(file: str) -> None:
    assert set(symbols(BUILT / file, "--defined-only")) == {"PyInit_orrery_ops"}


@needs_nm
def test_no_inline_function_of_the_devices_library_is_used_by_a_level() -> None:
    """Those of the device's library are compiled for the lowest level; a level has its own."""
    inline = {name for name, kind in symbols(BUILT / "orrery_host" / "liborrery_sycl.so").items() if kind in "WVu"}
    used = set(symbols(library(BUILT, LOWEST), "--undefined-only"))
    assert len(inline) > 10 and not {name for name in inline & used if name.startswith("_Z")}


@pytest.mark.skipif(not shutil.which("readelf"), reason="readelf is missing")
def test_boost_is_inside() -> None:
    file = BUILT / "orrery_host" / "liborrery_sycl.so"
    needed = subprocess.run(["readelf", "-d", file], capture_output=True, text=True, check=True).stdout
    assert "libtorch_cpu.so" in needed and "boost" not in needed


# --- Equal bits -----------------------------------------------------------------------------------------------------


def bits(done: subprocess.CompletedProcess) -> tuple[str, dict[str, str]]:
    assert done.returncode == 0, done.stderr
    made = json.loads(done.stdout)
    return made["level"], made["kernels"]


@pytest.fixture(scope="module")
def own_bits() -> dict[str, str]:
    """Those of the operators that all other tests run."""
    file = Path(__file__).with_name("kernel_bits.py")
    return bits(subprocess.run([sys.executable, file], capture_output=True, text=True, timeout=600))[1]


def test_the_lowest_level_gives_the_same_bits(tree: Path, own_bits: dict[str, str]) -> None:
    level, kernels = bits(run(tree, sys.executable, ROOT / "tests" / "kernel_bits.py", ORRERY_ISA=LOWEST))
    assert level == LOWEST and len(kernels) > 100 and kernels == own_bits


@pytest.mark.skipif(not shutil.which("qemu-x86_64"), reason="qemu-x86_64 (package qemu-user) is missing")
def test_a_cpu_without_avx512_gives_the_same_bits(tree: Path, own_bits: dict[str, str]) -> None:
    """Under emulation, where an instruction that such a CPU lacks ends the process."""
    emulated = ("qemu-x86_64", "-cpu", "Haswell", sys.executable)
    level, kernels = bits(run(tree, *emulated, ROOT / "tests" / "kernel_bits.py"))
    assert level == LOWEST and kernels == own_bits
