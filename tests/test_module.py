"""The module itself: its 29 operations, their texts, and its errors where it cannot be imported."""

from __future__ import annotations

import ctypes
import os
import pydoc
import subprocess
import sys
import sysconfig
from pathlib import Path
from typing import Any

import pytest
import torch

import orrery_host  # noqa: F401  (the device comes first)
import orrery_ops

T = "torch.Tensor"
SIGNATURES: tuple[tuple[str, str, list[str], str], ...] = (
    ("forward_new", "Linear forward (XPU) new format", [T, T, "int", "int"], T),
    ("forward_qkv", "Linear forward (XPU) qkv format", [T] * 7 + ["int"] * 4 + ["float"], f"List[{T}]"),
    ("forward_qkv_bias", "Linear forward (XPU) qkv with bias", [T] * 10 + ["int"] * 4 + ["float"], f"List[{T}]"),
    ("forward_qk", "Linear forward (XPU) qk format", [T] * 5 + ["int"] * 3 + ["float"], f"List[{T}]"),
    ("dequant", "Dequantize weight (XPU)", [T, T, "int"], T),
    ("apply_rotary_embedding_half_q_and_k", "Apply rotary embedding to qk (XPU)", [T] * 5 + ["float"], "None"),
    ("apply_rotary_embedding_half_q_or_k", "Apply rotary embedding to q/k (XPU)", [T] * 3 + ["bool"], "None"),
    (
        "apply_rotary_embedding_half_q_and_k_cache_freq",
        "Apply rotary embedding to qk (XPU) using cached sin/cos",
        [T] * 6,
        "None",
    ),
    ("bmm", "SYCL-based batch matrix multiplication", [T] * 3, T),
    ("fused_rms_norm", "fused rms norm", [T, "Tuple[int, ...]"] + [f"Optional[{T}]"] * 2 + ["float"], T),
    ("fused_layer_norm", "fused layer norm", [T, "Tuple[int, ...]"] + [f"Optional[{T}]"] * 2 + ["float"], T),
    ("mlp_forward_xpu", "fused mlp", [T] * 3 + ["int"] * 5, T),
    ("quantize_key_value", "quantize key value", [T] * 4, "None"),
    ("dequantize_key_value", "dequantize key value", [T] * 4, "None"),
    ("query_key_fp8_matmul", "query key matmul", [T] * 2, T),
    ("attn_value_fp8_matmul", "attn value matmul", [T] * 2, T),
    ("batch_forward", "batch forward", [T] * 2 + ["int"] * 5, T),
    ("sdp", "sdp", [T] * 3 + [f"Optional[{T}]"], T),
    ("sdp_fp8", "fp8 sdp", [T] * 3 + [f"Optional[{T}]"], T),
    ("sdp_causal", "sdp causal", [T] * 3, T),
    ("sdp_fp8_causal", "sdp fp8 causal", [T] * 3, T),
    ("rms_norm", "new rms norm", [T] * 2 + ["float"], T),
    ("rotary_half_inplaced", "rotary half inplaced", [T] * 4, "None"),
    ("rotary_two_inplaced", "rotary two inplaced", [T] * 4, "None"),
    ("rwkv_linear_attention_v4", "rwkv v4 attention", [T] * 7, T),
    ("rwkv_linear_attention_v5", "rwkv v5 attention", [T] * 6, T),
    ("rwkv_time_shift", "rwkv time shift", [T] * 3, T),
    ("dequantize_rows", "Dequantize rows of weight", [T] * 2 + ["int"] * 2, T),
    ("get_moe_indexes", "get moe indexes", [T, "int"], "List[List[List[int]]]"),
)
NAMES = [row[0] for row in SIGNATURES]
BY_NAME = {row[0]: row for row in SIGNATURES}

QKV_NAMES = (
    "input", "weight_q", "weight_k", "weight_v", "position_ids", "cache_k", "cache_v",
    "src_0_qtype", "src_0_vtype", "kv_seq_len", "head_size", "rope_base",
)  # fmt: skip

def arguments(name: str, device: str = "xpu") -> list[Any]:
    """Values that fit the operation's signature."""
    values = {
        T: torch.zeros(2, 4, device=device),
        "int": 1,
        "float": 0.5,
        "bool": True,
        "Tuple[int, ...]": (4,),
        f"Optional[{T}]": None,
    }
    return [values[text] for text in BY_NAME[name][2]]


def test_29_functions_in_order_and_nothing_else() -> None:
    of_python = ("__name__", "__doc__", "__package__", "__loader__", "__spec__", "__file__", "__cached__")
    assert [name for name in vars(orrery_ops) if name not in of_python] == NAMES
    assert len(NAMES) == 29
    assert all(callable(getattr(orrery_ops, name)) for name in NAMES)


@pytest.mark.parametrize("name", NAMES)
def test_docstring_and_signature(name: str) -> None:
    _, doc, types, result = BY_NAME[name]
    words = QKV_NAMES if name == "forward_qkv" else [f"arg{i}" for i in range(len(types))]
    listed = ", ".join(f"{word}: {text}" for word, text in zip(words, types))
    default = " = 10000.0" if name == "forward_qkv" else ""
    assert getattr(orrery_ops, name).__doc__ == f"{name}({listed}{default}) -> {result}\n\n{doc}\n"


@pytest.mark.parametrize("name", NAMES)
def test_help(name: str) -> None:
    title, _, headline, *body = pydoc.plain(pydoc.render_doc(getattr(orrery_ops, name))).splitlines()
    assert title == f"Python Library Documentation: built-in function {name} in module orrery_ops"
    assert headline.startswith(f"{name}(...)")
    assert [line.strip() for line in body] == getattr(orrery_ops, name).__doc__.splitlines()


def test_module_definition() -> None:
    """No docstring, and the state size of a module that is made in one phase."""

    class Definition(ctypes.Structure):
        _fields_ = [
            ("head", ctypes.c_byte * (2 * ctypes.sizeof(ctypes.c_void_p))),
            ("init", ctypes.c_void_p),
            ("index", ctypes.c_ssize_t),
            ("copy", ctypes.c_void_p),
            ("name", ctypes.c_char_p),
            ("doc", ctypes.c_char_p),
            ("size", ctypes.c_ssize_t),
            ("methods", ctypes.c_void_p),
            ("slots", ctypes.c_void_p),
        ]

    get_definition = ctypes.pythonapi.PyModule_GetDef
    get_definition.restype, get_definition.argtypes = ctypes.POINTER(Definition), [ctypes.py_object]
    definition = get_definition(orrery_ops).contents
    assert (definition.name, definition.doc, definition.size) == (b"orrery_ops", None, -1)
    assert not definition.slots
    assert orrery_ops.__doc__ is None


@pytest.mark.parametrize("name", [name for name in NAMES if name != "forward_qkv"])
def test_no_other_operation_takes_keywords(name: str) -> None:
    values = arguments(name)
    for word in ("arg%d" % (len(values) - 1), "input", "qtype"):
        with pytest.raises(TypeError, match="incompatible function arguments"):
            getattr(orrery_ops, name)(*values[:-1], **{word: values[-1]})


def test_forward_qkv_takes_its_names_and_has_one_default() -> None:
    named = dict(zip(QKV_NAMES, arguments("forward_qkv")))
    from_behind = "^unsupported qtype: 1$"  # the arguments have been taken
    with pytest.raises(RuntimeError, match=from_behind):
        orrery_ops.forward_qkv(**named)
    del named["rope_base"]
    with pytest.raises(RuntimeError, match=from_behind):
        orrery_ops.forward_qkv(**named)
    for word in QKV_NAMES[:-1]:
        with pytest.raises(TypeError, match="incompatible function arguments"):
            orrery_ops.forward_qkv(**{key: value for key, value in named.items() if key != word})


@pytest.mark.parametrize("name", NAMES)
def test_arguments_that_do_not_fit(name: str) -> None:
    function, values = getattr(orrery_ops, name), arguments(name)
    with pytest.raises(TypeError, match="incompatible function arguments"):
        function(*values, 1)
    if name != "forward_qkv":
        with pytest.raises(TypeError, match="incompatible function arguments"):
            function(*values[:-1])
    for place, text in enumerate(BY_NAME[name][2]):
        with pytest.raises(TypeError, match="incompatible function arguments"):
            function(*values[:place], "text", *values[place + 1 :])
        if not text.startswith("Optional") and text != "bool":
            with pytest.raises(TypeError, match="incompatible function arguments"):
                function(*values[:place], None, *values[place + 1 :])


def test_codes_have_32_bits_and_sizes_64() -> None:
    x = torch.zeros(1, 64, device="xpu")
    w = torch.zeros(34, dtype=torch.uint8, device="xpu")
    with pytest.raises(TypeError, match="incompatible function arguments"):
        orrery_ops.forward_new(x, w, 1 << 31, 0)
    assert orrery_ops.forward_new(x, w, 2, 1 << 40).shape == (1, 1)


def python(code: str, **environment: str) -> subprocess.CompletedProcess:
    """Runs code in an interpreter of its own."""
    return subprocess.run(
        [sys.executable, "-c", code], capture_output=True, text=True, env=os.environ | environment, timeout=120
    )


def test_without_a_device_the_import_fails_in_one_sentence() -> None:
    code = """
import sys, torch
for attempt in range(2):
    try:
        import orrery_ops
    except ImportError as error:
        print(type(error).__name__, error, "orrery_ops" in sys.modules)
"""
    done = python(code, TORCH_DEVICE_BACKEND_AUTOLOAD="0")
    assert done.returncode == 0, done.stderr
    sentence = "orrery_ops needs an xpu device: PyTorch is not linked with support for xpu devices"
    assert done.stdout.splitlines() == [f"ImportError {sentence} False"] * 2
    assert "Traceback" not in done.stderr


@pytest.mark.skipif(
    not sysconfig.get_config_var("Py_ENABLE_SHARED"),
    reason="the version's text can only be replaced where the interpreter is a shared library",
)
def test_another_interpreter_is_refused_before_anything_else(tmp_path: Path) -> None:
    source, library = tmp_path / "version.c", tmp_path / "libversion.so"
    source.write_text('const char* Py_GetVersion(void) { return "3.11.0 (fake) [C]"; }')
    subprocess.run(["cc", "-shared", "-fPIC", "-o", library, source], check=True)
    code = """
import sys, torch
try:
    import orrery_ops
except ImportError as error:
    print(error)
print("orrery_ops" in sys.modules)
"""
    # No device either: the version is tested first.
    # Behind what the run itself preloads: a sanitizer has to come first.
    preload = f"{os.environ.get('LD_PRELOAD', '')} {library}".strip()
    done = python(code, LD_PRELOAD=preload, TORCH_DEVICE_BACKEND_AUTOLOAD="0")
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines() == [
        "Python version mismatch: module was compiled for Python 3.10, "
        "but the interpreter version is incompatible: 3.11.0 (fake) [C].",
        "False",
    ]
