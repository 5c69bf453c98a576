"""The wrappers in front of the operators: their checks in order, their trace scopes, and what they leave unchecked."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from typing import Any

import pytest
import torch
from torch.profiler import ProfilerActivity, profile

import orrery_host  # noqa: F401  (the device comes first)
import orrery_ops

# Operation: host function, its checked tensors (place, word, line), how many arguments of which kind follow.
CHECKED: dict[str, tuple[str, list[tuple[int, str, int]], list[Any]]] = {
    "forward_new": ("linear_forward_new", [(0, "input", 140), (1, "weights", 141)], ["x", "x", 2, 0]),
    "dequant": ("dequant", [(0, "input", 191), (1, "weight", 192)], ["x", "x", 2]),
    "bmm": ("bmm", [(0, "A", 202), (1, "B", 203), (2, "C", 204)], ["x", "x", "x"]),
    "forward_qkv": (
        "linear_xpu_qkv",
        [(0, "input", 225), (1, "weight_q", 226), (2, "weight_k", 227), (3, "weight_v", 228)],
        ["x"] * 7 + [2, 2, 1, 64, 10000.0],
    ),
    "forward_qkv_bias": (
        "linear_xpu_qkv_bias",
        [(0, "input", 256), (1, "weight_q", 257), (2, "weight_k", 258), (3, "weight_v", 259)],
        ["x"] * 10 + [2, 2, 1, 64, 10000.0],
    ),
    "forward_qk": (
        "linear_xpu_qk",
        [(0, "input", 283), (1, "weight_q", 284), (2, "weight_k", 285)],
        ["x"] * 5 + [2, 1, 64, 10000.0],
    ),
    "dequantize_rows": ("dequantize_rows", [(0, "input", 300), (1, "weight", 301)], ["x", "x", 27, 256]),
}
PLACES = [(name, place, word) for name, (_, checks, _) in CHECKED.items() for place, word, _ in checks]


def good() -> torch.Tensor:
    return torch.zeros(2, 3, 4, device="xpu")


def on_cpu() -> torch.Tensor:
    return torch.zeros(2, 3, 4)


def transposed() -> torch.Tensor:
    return torch.zeros(2, 4, 3, device="xpu").transpose(1, 2)


def call(name: str, tensors: dict[int, torch.Tensor], otherwise: torch.Tensor | None = None) -> Any:
    """Calls an operation with the given tensors at their places and good ones elsewhere."""
    kinds = CHECKED[name][2]
    values = [
        tensors.get(place, good() if otherwise is None else otherwise) if kind == "x" else kind
        for place, kind in enumerate(kinds)
    ]
    return getattr(orrery_ops, name)(*values)


def message(name: str, tensors: dict[int, torch.Tensor], otherwise: torch.Tensor | None = None) -> str:
    with pytest.raises(RuntimeError) as caught:
        call(name, tensors, otherwise)
    assert type(caught.value) is RuntimeError
    return str(caught.value)


@pytest.mark.parametrize("name, place, word", PLACES)
def test_each_check_has_its_message(name: str, place: int, word: str) -> None:
    assert message(name, {place: on_cpu()}) == f"{word} must be a XPU tensor"
    assert message(name, {place: transposed()}) == f"{word} must be contiguous"
    assert message(name, {place: on_cpu().transpose(0, 1)}) == f"{word} must be a XPU tensor"


@pytest.mark.parametrize("name", CHECKED)
def test_only_the_first_failing_check_is_told(name: str) -> None:
    checks = CHECKED[name][1]
    for first in range(len(checks)):
        bad = {place: on_cpu() for place, _, _ in checks[first:]}
        assert message(name, bad) == f"{checks[first][1]} must be a XPU tensor"
        bad[checks[first][0]] = transposed()
        assert message(name, bad) == f"{checks[first][1]} must be contiguous"
    assert message(name, {}, otherwise=on_cpu()) == f"{checks[0][1]} must be a XPU tensor"


@pytest.mark.parametrize(
    "name, from_behind",
    [
        ("forward_qkv", "orrery_ops: a cache must have 4 dimensions, not 3"),
        ("forward_qkv_bias", "orrery_ops: a cache must have 4 dimensions, not 3"),
        ("forward_qk", "orrery_ops: forward_qk has no kernel for q4_0"),
    ],
)
def test_positions_caches_and_biases_are_not_checked(name: str, from_behind: str) -> None:
    checked = {place for place, _, _ in CHECKED[name][1]}
    kinds = CHECKED[name][2]
    for stray in (on_cpu(), transposed()):
        others = {place: stray for place, kind in enumerate(kinds) if kind == "x" and place not in checked}
        assert message(name, {0: shaped(1, 64)} | others) == from_behind


def test_function_file_and_line_of_each_check() -> None:
    code = """
import json, sys, torch, orrery_host, orrery_ops
good, bad = torch.zeros(2, 3, device="xpu"), torch.zeros(2, 3)
out = []
for name, kinds, place in json.loads(sys.argv[1]):
    values = [(bad if i == place else good) if kind == "x" else kind for i, kind in enumerate(kinds)]
    try:
        getattr(orrery_ops, name)(*values)
    except RuntimeError as error:
        out.append(str(error).splitlines()[1].split(" (most")[0])
print(json.dumps(out))
"""
    asked = [(name, CHECKED[name][2], place) for name, place, _ in PLACES]
    environment = os.environ | {"TORCH_SHOW_CPP_STACKTRACES": "1", "TORCH_SYMBOLIZE_MODE": "dladdr"}
    done = subprocess.run(
        [sys.executable, "-c", code, json.dumps(asked)], capture_output=True, text=True, env=environment, timeout=300
    )
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout) == [
        f"Exception raised from {function} at linear_xpu:{line}"
        for function, checks, _ in CHECKED.values()
        for _, _, line in checks
    ]


def traced(call_it: Any) -> list[tuple[str, list[list[int]], int]]:
    """Name, input shapes and sequence number of each trace scope of a call that the wrappers opened."""
    with profile(activities=[ProfilerActivity.CPU], record_shapes=True) as profiler:
        try:
            call_it()
        except RuntimeError:
            pass
    ours = ("orrery_", "fused_rms_norm", "fast_layer_norm", "add_")
    return [
        (event.name, event.input_shapes, event.sequence_nr)
        for event in profiler.events()
        if event.name.startswith(ours)
    ]


def shaped(*sizes: int) -> torch.Tensor:
    return torch.zeros(*sizes, device="xpu")


@pytest.mark.parametrize(
    "name, trace, recorded",
    [
        ("forward_new", "orrery_qlinear_forward", 0),
        ("dequant", "orrery_xpu_dequant", 1),
        ("bmm", "orrery_bmm", 0),
        ("forward_qkv", "orrery_qkv_forward", 0),
        ("forward_qkv_bias", "orrery_qkv_bias_forward", 0),
        ("forward_qk", "orrery_qk_forward", 0),
        ("dequantize_rows", "orrery_dequantize_rows", 0),
    ],
)
def test_trace_scope_of_the_linear_wrappers(name: str, trace: str, recorded: int) -> None:
    tensors = {place: shaped(1, place + 5, 2) for place, kind in enumerate(CHECKED[name][2]) if kind == "x"}
    # One entry, the recorded tensor; the scope is closed although the call behind it fails.
    assert traced(lambda: call(name, tensors)) == [(trace, [[1, recorded + 5, 2]], -1)]


NOT_FOUR = "The dimensions of all tensor should be 4"
NO_NORM = "\"LayerNormKernelImpl\" not implemented for 'Int'"


@pytest.mark.parametrize(
    "name, arguments, trace, from_behind",
    [
        ("apply_rotary_embedding_half_q_and_k", (0, 1, 2, 3, 4, 10000.0), "orrery_rope_forward", NOT_FOUR),
        ("apply_rotary_embedding_half_q_or_k", (0, 1, 2, False), "orrery_rope_forward", NOT_FOUR),
        ("apply_rotary_embedding_half_q_or_k", (0, 1, 2, True), "orrery_rope_backward", NOT_FOUR),
        (
            "apply_rotary_embedding_half_q_and_k_cache_freq",
            (0, 1, 2, 3, 4, 5),
            "orrery_rope_forward",
            "The problem size of all tensor should be equal",
        ),
        ("fused_rms_norm", (0, (4,), None, None, 1e-5), "fused_rms_norm", NO_NORM),
        ("fused_layer_norm", (0, (4,), None, None, 1e-5), "fast_layer_norm", NO_NORM),
    ],
)
def test_trace_scope_of_the_unchecked_wrappers(name: str, arguments: tuple, trace: str, from_behind: str) -> None:
    values = [shaped(1, value + 5) if type(value) is int else value for value in arguments]
    assert traced(lambda: getattr(orrery_ops, name)(*values)) == [(trace, [[1, 5]], -1)]
    # No checks: a tensor of the host gets as far as the operation behind the wrapper.
    with pytest.raises(RuntimeError) as caught:
        getattr(orrery_ops, name)(*[value.cpu().int() if torch.is_tensor(value) else value for value in values])
    assert str(caught.value) == from_behind


@pytest.mark.parametrize("name", CHECKED)
def test_a_failed_check_opens_no_scope(name: str) -> None:
    assert traced(lambda: call(name, {CHECKED[name][1][-1][0]: on_cpu()})) == []


def test_a_scope_holds_the_work_behind_it() -> None:
    x, w = shaped(1, 64), torch.zeros(34, dtype=torch.uint8, device="xpu")
    with profile(activities=[ProfilerActivity.CPU]) as profiler:
        orrery_ops.forward_new(x, w, 2, 0)
    scope = next(event for event in profiler.events() if event.name == "orrery_qlinear_forward")
    inside = [event for event in profiler.events() if event.name == "aten::empty"]
    assert inside and all(scope.time_range.start <= event.time_range.start for event in inside)
    assert all(event.time_range.end <= scope.time_range.end for event in inside)


# --- forward_new behind its wrapper ---------------------------------------------------------------------------------


def weight(size: int) -> torch.Tensor:
    return torch.zeros(size, dtype=torch.uint8, device="xpu")


def refused(*arguments: Any) -> str:
    with pytest.raises(RuntimeError) as caught:
        orrery_ops.forward_new(*arguments)
    return str(caught.value)


@pytest.mark.parametrize("code", [-1, 0, 1, 4, 5, 9, 12, 20, 22, 25, 30, 12345])
def test_a_code_without_a_reader(code: int) -> None:
    assert refused(shaped(1, 64), weight(272), code, 0) == f"unsupported qtype: {code}"
    assert refused(shaped(8, 64), weight(272), code, 0) == f"unsupported qtype: {code}"


def test_rows_without_columns() -> None:
    assert refused(shaped(1, 0), weight(34), 2, 0) == "orrery_ops: input must have at least one column"


@pytest.mark.parametrize(
    "dtype, name",
    [(torch.int64, "Long"), (torch.int32, "Int"), (torch.uint8, "Byte"), (torch.bool, "Bool"),
     (torch.complex64, "ComplexFloat")],
)  # fmt: skip
@pytest.mark.parametrize("rows", [1, 2, 8, 30])
def test_a_type_without_arithmetic(dtype: torch.dtype, name: str, rows: int) -> None:
    x = torch.zeros(rows, 64, dtype=dtype, device="xpu")
    assert refused(x, weight(34), 2, 0) == f"\"qlinear_forward_xpu\" not implemented for '{name}'"


ROW_MULTIPLE = {2: 16, 3: 16, 8: 8, 10: 16, 11: 16, 15: 8, 16: 16, 19: 8, 29: 16}


@pytest.mark.parametrize("code, multiple", ROW_MULTIPLE.items())
def test_a_row_that_no_lane_can_divide(code: int, multiple: int) -> None:
    state = 1024 + multiple // 2
    assert refused(shaped(1, state), weight(68), code, 0) == f"%d must be a multiple of %d{state}{multiple}"


def test_the_text_of_1000_columns() -> None:
    assert refused(shaped(1, 1000), weight(34), 2, 0) == "%d must be a multiple of %d100016"
    wrong_type = torch.zeros(1, 1000, dtype=torch.int64, device="xpu")
    assert "not implemented for 'Long'" in refused(wrong_type, weight(34), 2, 0)  # the type is tested before the row


@pytest.mark.parametrize("code", [6, 7, 10, 11, 21, 23, 24, 26, 27, 28])
def test_a_dense_row_that_no_block_divides(code: int) -> None:
    assert refused(shaped(30, 1000), weight(34), code, 0) == "%d must be a multiple of 641000"


def test_fp6_has_no_dense_weight_in_other_types() -> None:
    text = "unsupported dtype, only fp32 and fp16 are supported"
    for dtype in (torch.float64, torch.bfloat16, torch.int64):
        assert refused(torch.zeros(2, 64, dtype=dtype, device="xpu"), weight(50), 29, 0) == text



@pytest.mark.parametrize(
    "variable, value, error, text",
    [
        ("TILE_SIZE", "x", ValueError, "invalid stoull argument"),
        ("TILE_SIZE", "99999999999999999999", IndexError, "stoull argument out of range"),
        ("TILE_THRESHOLD", "", ValueError, "invalid stoll argument"),
        ("KELPIE_LLM_LOW_MEM", "99999999999999999999", IndexError, "stoll argument out of range"),
    ],
)
def test_a_malformed_variable_fails_one_row(
    monkeypatch: pytest.MonkeyPatch, variable: str, value: str, error: type, text: str
) -> None:
    monkeypatch.setenv(variable, value)
    with pytest.raises(error) as caught:
        orrery_ops.forward_new(shaped(1, 64), weight(34), 2, 0)
    assert type(caught.value) is error and str(caught.value) == text
    # Nothing is cached: the next call reads again.
    monkeypatch.delenv(variable)
    assert orrery_ops.forward_new(shaped(1, 64), weight(34), 2, 0).shape == (1, 1)


@pytest.mark.parametrize("dtype", [torch.float16, torch.float32, torch.float64, torch.bfloat16])
def test_the_result_has_the_input_s_type_and_rows_from_the_bytes(dtype: torch.dtype) -> None:
    x = torch.zeros(1, 64, dtype=dtype, device="xpu")
    for size, rows in ((34, 1), (35, 1), (68, 2), (34 * 7 + 33, 7), (33, 0)):
        y = orrery_ops.forward_new(x, weight(size), 2, 0)
        assert (y.shape, y.dtype, y.device.type) == ((1, rows), dtype, "xpu")
