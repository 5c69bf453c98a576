"""`import torch` succeeds even if the device cannot be registered; its first use raises the reason in one sentence."""

import importlib.util
import shutil
import subprocess

import orrery_host
import pytest
import torch
from device_process import check_python, last_line, run_python
from orrery_host import _built_for, _instructions

BAD = {"ORRERY_HOST_SCHEDULE": "backwards"}
BAD_SENTENCE = "ORRERY_HOST_SCHEDULE must be linear or shuffle:SEED, not 'backwards'."

# What a build for another CPU leaves behind; the instructions are those of an accelerator card of 2016.
FOREIGN = """
    import sys, types
    sys.modules["orrery_host._built_for"] = types.SimpleNamespace(LEVELS={"one": ("AVX2", "AVX512_4VNNIW")})
"""
FOREIGN_SENTENCE = (
    "orrery_host was built for a CPU with AVX512_4VNNIW, which this one lacks; "
    "build it on this machine, or with MARCH=x86-64-v3 for most machines."
)

LEVEL = {"ORRERY_ISA": "z80"}
*OTHERS, LAST = _built_for.LEVELS
BUILT_LEVELS = f"{', '.join(OTHERS)} or {LAST}" if OTHERS else f"{LAST}, for which the operators were built"
LEVEL_SENTENCE = f"ORRERY_ISA must be {BUILT_LEVELS}, not 'z80'."

FIRST_USES = [
    "torch.empty(1, device='xpu')",
    "torch.ones(1).to('xpu')",
    "torch.ones(1).xpu()",
    "torch.xpu.current_device()",
    "torch.xpu.get_rng_state()",
    "torch.xpu.init()",
]

needs_operators = pytest.mark.skipif(importlib.util.find_spec("orrery_ops") is None, reason="orrery_ops is not built")


@pytest.mark.parametrize(
    "setup, environment, sentence",
    [("", BAD, BAD_SENTENCE), ("", LEVEL, LEVEL_SENTENCE), (FOREIGN, {}, FOREIGN_SENTENCE)],
    ids=["variable", "level", "CPU"],
)
def test_without_the_device_pytorch_works_and_xpu_says_why(setup, environment, sentence):
    said = check_python(
        setup
        + f"""
    import torch
    assert not torch.xpu.is_available() and torch.xpu.device_count() == 0
    torch.manual_seed(1)
    assert (torch.ones(2) + 1).tolist() == [2, 2]
    for first_use in {FIRST_USES}:
        try:
            eval(first_use)
        except RuntimeError as error:
            print(error)
    """,
        **environment,
    )
    assert said.splitlines() == [sentence] * len(FIRST_USES)


@pytest.mark.parametrize("before", ["", "import torch"])
@pytest.mark.parametrize(
    "setup, environment, error",
    [
        ("", BAD, f"RuntimeError: {BAD_SENTENCE}"),
        ("", LEVEL, f"RuntimeError: {LEVEL_SENTENCE}"),
        (FOREIGN, {}, f"ImportError: {FOREIGN_SENTENCE}"),
    ],
    ids=["variable", "level", "CPU"],
)
def test_an_import_by_name_raises(setup, environment, error, before):
    done = run_python(f"{setup}\n    {before}\n    import orrery_host", **environment)
    assert done.returncode == 1 and last_line(done) == error and "During handling" not in done.stderr


@needs_operators
@pytest.mark.parametrize("before", ["", "import torch"])
@pytest.mark.parametrize(
    "setup, environment, sentence",
    [("", BAD, BAD_SENTENCE), ("", LEVEL, LEVEL_SENTENCE), (FOREIGN, {}, FOREIGN_SENTENCE)],
    ids=["variable", "level", "CPU"],
)
def test_the_operators_say_it_too(setup, environment, sentence, before):
    done = run_python(f"{setup}\n    {before}\n    import orrery_ops", **environment)
    assert done.returncode == 1 and last_line(done) == f"ImportError: orrery_ops needs an xpu device: {sentence}"


@needs_operators
def test_the_operators_may_be_imported_first():
    said = check_python(
        """
        import sys
        import orrery_ops
        assert "torch" in sys.modules
        import torch
        print(len([name for name in dir(orrery_ops) if not name.startswith("_")]))
        weight = torch.zeros(34 * 64, dtype=torch.uint8, device="xpu")
        print(orrery_ops.dequant(torch.empty(1, 64, device="xpu"), weight, 2).count_nonzero().item())
        """
    )
    assert said == "29\n0\n"


def test_a_device_can_come_after_a_refusal():
    check_python(
        """
        import os, torch
        del os.environ["ORRERY_HOST_SCHEDULE"]
        import orrery_host
        assert torch.xpu.is_available() and torch.ones(2, device="xpu").sum().item() == 2
        torch.xpu.get_rng_state()
        """,
        **BAD,
    )


def test_missing_instructions():
    capabilities = {"avx2": True, "avx512_f": False, "avx512_bf16": False, "fma3": True, "sse4_1": True, "l2_size": 0}
    missing = _instructions.missing
    assert missing(["AVX2", "FMA", "SSE4_1"], capabilities) == []
    assert missing(["AVX2", "AVX512F", "AVX512BF16"], capabilities) == ["AVX512F", "AVX512BF16"]
    assert missing(["FMA"], {"fma3": False}) == ["FMA"]
    assert missing(["MOVBE"], capabilities) == []  # the CPU is not asked for it


LEVELS = {"low": ("AVX2",), "middle": ("AVX2", "AVX512F"), "high": ("AVX2", "AVX512F", "AVX512FP16")}
WITHOUT_HALF = {"avx2": True, "avx512_f": True, "avx512_fp16": False}


def test_the_highest_level_that_the_cpu_has():
    choose = _instructions.choose
    assert choose(LEVELS, WITHOUT_HALF | {"avx512_fp16": True}, None) == "high"
    assert choose(LEVELS, WITHOUT_HALF, None) == choose(LEVELS, WITHOUT_HALF, "") == "middle"
    assert choose(LEVELS, WITHOUT_HALF | {"avx512_f": False}, None) == "low"


def test_a_wanted_level():
    assert [_instructions.choose(LEVELS, WITHOUT_HALF, name) for name in ("low", "middle")] == ["low", "middle"]


@pytest.mark.parametrize(
    "levels, wanted, sentence",
    [
        (LEVELS, "highest", "ORRERY_ISA must be low, middle or high, not 'highest'."),
        (LEVELS, "high", "ORRERY_ISA is high, for a CPU with AVX512FP16, which this one lacks."),
        ({"native": ()}, "low", "ORRERY_ISA must be native, for which the operators were built, not 'low'."),
    ],
)
def test_a_level_that_is_not_to_be_had(levels, wanted, sentence):
    with pytest.raises(RuntimeError) as raised:
        _instructions.choose(levels, WITHOUT_HALF, wanted)
    assert str(raised.value) == sentence


def test_this_build_fits_this_cpu():
    assert _instructions.level() in _built_for.LEVELS


@pytest.mark.skipif(shutil.which("readelf") is None, reason="readelf is missing")
def test_the_loader_is_told_the_level():
    instructions = next(iter(_built_for.LEVELS.values()))
    if "AVX2" not in instructions:
        pytest.skip("built for the least level")
    level = "x86-64-v4" if "AVX512VL" in instructions else "x86-64-v3"
    folder = next(iter(orrery_host.__path__))
    for library in (f"{folder}/liborrery_sycl.so", importlib.util.find_spec("orrery_host._C").origin):
        notes = subprocess.run(["readelf", "-n", library], capture_output=True, text=True, check=True).stdout
        assert f"x86 ISA needed: {level}" in notes
