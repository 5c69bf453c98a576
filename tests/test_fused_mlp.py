"""mlp_forward_xpu: every instance, its sums to the bit and its activations in bounds; rows of groups, refusals."""

from __future__ import annotations

import re
from dataclasses import replace

import numpy as np
import pytest
import torch
from torch.profiler import ProfilerActivity, profile

import fused_reference as fused
import linear_reference as ref
import orrery_host
import orrery_ops
from fused_reference import Mlp
from kernel_reference import assert_dies_with, assert_same_bits_in_any_order

HOST_CLASS = 3  # that of the host's own name
UNIT = "mlp_xpu_kernel"
QUANTIZER = "quantize_xpu_kernel_q8_1"

types = pytest.mark.parametrize("dtype", ref.DTYPES)
split_formats = pytest.mark.parametrize("name", fused.LAYOUT)
INSTANCES = [(c, n) for c in ref.DEVICE_OF_CLASS for n in fused.FORMATS if n != "iq2_xxs" or c in (0, 5)]


def assert_in_bounds(c: Mlp) -> np.ndarray:
    y, _ = fused.call_mlp(c)
    assert fused.outside(y, *fused.expected_mlp(c, HOST_CLASS)) == 0, c
    return y


# --- Instances ------------------------------------------------------------------------------------------------------


def seen_of(c: Mlp, device_class: int) -> tuple[np.ndarray, list[dict]]:
    seen = fused.seen_on_class(device_class)[repr(c)]
    (y,) = fused.results_of(seen, [fused.expected_mlp(c, device_class)[0]])
    return y, seen["launches"]


@types
@pytest.mark.parametrize("device_class, name", INSTANCES)
def test_every_class_launches_its_instance_and_keeps_the_bounds(device_class: int, name: str, dtype: str) -> None:
    for c in fused.mlp_cases(name, dtype):
        y, (*before, launch) = seen_of(c, device_class)
        low, high = fused.expected_mlp(c, device_class)
        assert fused.outside(y, low, high) == 0, c
        assert np.isfinite(low).all() and np.isfinite(high).all()
        assert launch == fused.launch_of_mlp(c, device_class)
        assert [one["kernel"] for one in before] == ([QUANTIZER] if name == "iq2_xxs" else [])


@types
@pytest.mark.parametrize("device_class, name", INSTANCES)
def test_large_gates_show_the_sums_to_the_bit(device_class: int, name: str, dtype: str) -> None:
    """From 25 on 1 + exp(-g) is 1, and the result is the product of the sums, rounded to float and to the type."""
    a, seen = ref.Arithmetic(dtype), 0
    for c in (c for c in fused.mlp_cases(name, dtype) if c.gain > 1):
        y, _ = seen_of(c, device_class)
        g, u = fused.sums_of_mlp(c, device_class)
        large = g > 25
        g, u = g[large].astype(np.float32), u[large]
        with np.errstate(over="ignore"):
            want = g * u if dtype == "float64" else a.of(g * u.astype(np.float32))
        assert ref.differing(y[0, large], want) == 0, c
        seen += len(g)
    assert seen >= 10


def test_there_are_44_instances() -> None:
    assert len(fused.instances_seen(UNIT)) == 44


# --- Activations ----------------------------------------------------------------------------------------------------


def rows_with_sums(sums: list[float], dtype: str) -> torch.Tensor:
    """A q4_0 weight whose rows times the input 1, 0, 0, ... are 7 times these halves."""
    scales = np.array(sums, np.float16)
    quants = np.full((len(sums), 32), 0x8F, np.uint8)  # element j has 7, element j + 32 has 0
    return torch.from_numpy(np.concatenate([quants.ravel(), scales.view(np.uint8)])).to("xpu")


def activation(dtype: str, act: int, g: list[float], u: list[float]) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Results, and the sums that they come of."""
    a = ref.Arithmetic(dtype)
    x = torch.zeros(1, 64, dtype=ref.DTYPES[dtype], device="xpu")
    x[0, 0] = 1
    y = orrery_ops.mlp_forward_xpu(x, rows_with_sums(g, dtype), rows_with_sums(u, dtype), 1, 64, len(g), act, 2)
    with np.errstate(all="ignore"):
        return ref.numbers(y)[0], *(a.mul(a.of(7.0), a.of(np.array(s, np.float16))) for s in (g, u))


def formula(act: int, g: np.ndarray, u: np.ndarray) -> np.ndarray:
    """In float64, as it is told."""
    g, u = g.astype(np.float64), u.astype(np.float64)
    if act == 0:
        return g * u / (1 + np.exp(-g))
    return 0.5 * g * (1 + np.tanh(0.7978845834732056 * g + 0.044714998453855515 * g**3)) * u


@types
@pytest.mark.parametrize("act", [0, 1])
def test_the_activation_over_its_range(act: int, dtype: str) -> None:
    """A second opinion. The bounds of the reference hold, and to a ten-thousandth the formula does."""
    g = np.concatenate([np.linspace(-12, 12, 97), [0.0, 1e-3, -1e-3, 2.0**-20]])
    g = [*g, 0][: len(g) // 2 * 2]
    u = list(np.random.default_rng(1).standard_normal(len(g)))
    y, gate, up = activation(dtype, act, g, u)
    assert fused.outside(y, *fused.activated(dtype, act, gate, up)) == 0
    if dtype in ("float32", "float64"):
        np.testing.assert_allclose(y, formula(act, gate, up), rtol=1e-4, atol=1e-4)


def test_the_cubic_term_stands_outside_the_first_factor() -> None:
    """The usual form has it inside, which is another 1e-2 at g = 1."""
    y, g, u = activation("float32", 1, [1 / 7, 1 / 7], [1 / 7, 1 / 7])
    usual = 0.5 * g * (1 + np.tanh(0.7978845834732056 * (g + 0.044714998453855515 * g**3))) * u
    assert (np.abs(y - formula(1, g, u)) < 1e-6).all() and (np.abs(y - usual) > 1e-3).all()


@types
def test_any_other_code_is_the_second_activation(dtype: str) -> None:
    c = Mlp("q4_0", dtype)
    one, *others = (fused.call_mlp(replace(c, act=act))[0] for act in (1, 2, -1, 2**31 - 1))
    assert all(ref.differing(one, other) == 0 for other in others)
    assert ref.differing(one, fused.call_mlp(c)[0]) > 12


@types
def test_large_negative_gates_give_zero(dtype: str) -> None:
    """exp(-g) is infinite as a float; a finite quotient by it is 0. The tanh form has 1 + -1."""
    g, u = [-100.0, -14.0, -1000.0, -90.0], [1.0, -3.0, 0.5, 7.0]
    for act in (0, 1):
        y, _, _ = activation(dtype, act, g, u)
        assert (y == 0).all()


def test_infinite_gates() -> None:
    y, g, _ = activation("float16", 0, [20000.0, 20000.0, -20000.0, -20000.0], [1.0, -1.0, 1.0, 0.0])
    assert np.isinf(g).all() and y[0] == np.inf and y[1] == -np.inf and np.isnan(y[2:]).all()


def test_double_has_a_gate_of_float() -> None:
    """The factor is a float, the other sum keeps its digits."""
    g, u = [8.0, 9.0], [1 / 3, 1 / 3]
    x = torch.zeros(1, 64, dtype=torch.float64, device="xpu")
    x[0, 0] = 1 + 2.0**-40
    y = orrery_ops.mlp_forward_xpu(x, rows_with_sums(g, "float64"), rows_with_sums(u, "float64"), 1, 64, 2, 0, 2)
    up = (1 + 2.0**-40) * 7 * np.float64(np.float16(1 / 3))
    assert (ref.numbers(y)[0] == np.array([56.0, 63.0]) * up).all()


# --- Formats and rows -----------------------------------------------------------------------------------------------


def test_fp4_code_0_is_no_zero() -> None:
    quants, scales = np.zeros(64, np.uint8), np.array([8, 8], np.float16)
    weight = torch.from_numpy(np.concatenate([quants, scales.view(np.uint8)])).to("xpu")
    x = torch.full((1, 64), 16.0, device="xpu")
    y = orrery_ops.mlp_forward_xpu(x, weight, weight, 1, 64, 2, 0, 16)
    assert (ref.numbers(y) == 256.0**2).all()  # 64 * 0.03125 * 8 * 16 squared


def test_fp8_e5m2_has_its_scale_and_no_bit_below_the_code() -> None:
    weight = np.concatenate([np.full(128, 0x3C, np.uint8), np.array([2, 3], np.float32).view(np.uint8)])
    weight = torch.from_numpy(weight).to("xpu")
    y = orrery_ops.mlp_forward_xpu(torch.ones(1, 64, device="xpu"), weight, weight, 1, 64, 2, 0, 19)
    assert ref.numbers(y).tolist() == [[128.0**2, 192.0**2]]


@types
@split_formats
def test_every_code(name: str, dtype: str) -> None:
    """A row for each code; the gate is large, so that the result is the value times it."""
    codes = [c for c in range(len(fused.VALUES[name])) if name != "fp6" or c & 0x60 == 0]
    a, rows, layout = ref.Arithmetic(dtype), len(codes), fused.LAYOUT[name]
    one = {"q4_0": 9, "fp4": 2, "fp6": 0x1C, "fp8_e5m2": 0x3C}[name]
    up_scale = 2.0 if name != "fp6" else 512.0
    gate, up = ([one] * rows, 32 / float(fused.VALUES[name][one])), (codes, up_scale)
    x = torch.zeros(1, 64, dtype=ref.DTYPES[dtype], device="xpu")
    x[0, 37] = 1
    weights = [weight_of_codes(name, c, np.full(rows, scale, layout.scale)) for c, scale in (gate, up)]
    y = orrery_ops.mlp_forward_xpu(x, *weights, 1, 64, rows, 0, fused.CODES[name])
    with np.errstate(all="ignore"):
        values = a.mul(a.of(fused.VALUES[name][codes]), a.of(up_scale))
        values[~np.isfinite(fused.VALUES[name][codes])] = np.nan  # 0 times it, for the other elements
        g = np.float32(a.mul(a.of(fused.VALUES[name][one]), a.of(layout.scale(gate[1]))))
        assert g > 25
        want = g * values if dtype == "float64" else a.of(g * values.astype(np.float32))
    assert ref.differing(ref.numbers(y)[0] + 0, want + 0) == 0


def weight_of_codes(name: str, codes: list[int], scales: np.ndarray) -> torch.Tensor:
    """A row of one block for each code, all elements alike."""
    codes = np.array(codes)[:, None]
    if name == "fp6":
        top = codes >> 7 << 1 | codes >> 4 & 1
        planes = [np.repeat((codes & 15) * 0x11, 32, 1), np.repeat(top * 0x55, 16, 1)]
    else:
        planes = [np.repeat(codes, 64, 1)] if name == "fp8_e5m2" else [np.repeat(codes * 17, 32, 1)]
    planes = [p.astype(np.uint8).ravel() for p in planes]
    return torch.from_numpy(np.concatenate([*planes, scales.view(np.uint8)])).to("xpu")


@types
@pytest.mark.parametrize("name", ["q4_0", "fp4"])
def test_rows_beyond_the_last_whole_group_are_not_written(name: str, dtype: str) -> None:
    c = Mlp(name, dtype, rows=7)
    y = assert_in_bounds(c)
    assert np.isfinite(y[0, :6]).all() and np.isnan(y[0, 6])


@pytest.mark.parametrize("rows", [7, 8, 15, 17])
def test_groups_of_eight_lose_up_to_seven_rows(rows: int) -> None:
    c = Mlp("q4_0", "float16", rows=rows)
    y, (launch,) = seen_of(c, 5)
    assert fused.outside(y, *fused.expected_mlp(c, 5)) == 0
    assert np.isnan(y[0]).sum() == rows % 8 and launch["global"] == [rows // 8 * 32]


@types
@pytest.mark.parametrize("rows", [1, 2, 7, 19])
def test_iq2_xxs_serves_an_odd_number_of_rows(rows: int, dtype: str) -> None:
    for device_class in (0, 5):
        c = Mlp("iq2_xxs", dtype, 512, rows)
        y, (_, launch) = seen_of(c, device_class)
        assert fused.outside(y, *fused.expected_mlp(c, device_class)) == 0 and np.isfinite(y).all()
        assert launch["global"] == [(rows * 16 + 16) // 32 * 32, 2] and launch["local"] == [32, 2]


@pytest.mark.parametrize("name", ["q4_0", "fp6"])
def test_a_row_that_is_no_block_of_64_begins_in_its_block(name: str) -> None:
    """Nothing refuses it; a group's rows are then counted from the block of its first one."""
    for state in (16, 80, 208):
        for device_class in (3, 5):
            c = Mlp(name, "float32", state, 24)
            y, _ = seen_of(c, device_class)
            assert fused.outside(y, *fused.expected_mlp(c, device_class)) == 0, (c, device_class)


def test_no_rows() -> None:
    weight = torch.zeros(0, dtype=torch.uint8, device="xpu")
    with orrery_host.record_launches() as launches:
        y = orrery_ops.mlp_forward_xpu(torch.ones(1, 64, device="xpu"), weight, weight, 1, 64, 0, 0, 2)
    assert y.shape == (1, 0) and [launch.global_size for launch in launches] == [(0,)]


def test_the_first_weight_is_the_gate() -> None:
    c = Mlp("q4_0", "float32")
    x, gate, up = fused.operands(c)
    y = ref.numbers(orrery_ops.mlp_forward_xpu(x, up, gate, 1, c.state, c.rows, 0, 2))
    g, u = fused.sums_of_mlp(c, HOST_CLASS)
    assert fused.outside(y[0], *fused.activated(c.dtype, 0, u, g)) == 0
    assert fused.outside(y[0], *fused.activated(c.dtype, 0, g, u)) > 12


# --- How it is called -----------------------------------------------------------------------------------------------


def call(dtype: torch.dtype = torch.float32, state: int = 64, code: int = 2, batch: int = 1) -> torch.Tensor:
    weight = torch.zeros(8 * state, dtype=torch.uint8, device="xpu")
    x = torch.ones(1, state, dtype=dtype, device="xpu")
    return orrery_ops.mlp_forward_xpu(x, weight, weight, batch, state, 2, 0, code)


def refused(error: type = RuntimeError, **arguments) -> str:
    """The first line of the message; nothing was launched."""
    with pytest.raises(error) as caught, orrery_host.record_launches() as launches:
        call(**arguments)
    assert type(caught.value) is error and launches == []
    return str(caught.value).splitlines()[0]


@pytest.mark.parametrize("batch", [0, 2, -1])
@pytest.mark.parametrize("name", fused.LAYOUT)
def test_another_number_of_rows_than_one_ends_the_process(name: str, batch: int) -> None:
    """Before anything else is looked at."""
    for dtype, state in ((torch.float32, 64), (torch.int32, 1001)):
        code = fused.CODES[name]
        assert_dies_with("batch_size == 1", UNIT, lambda: call(dtype, state, code, batch))


@split_formats
def test_a_row_that_is_no_whole_number_of_runs_is_refused(name: str) -> None:
    run = fused.LAYOUT[name].run
    for state in (run // 2, 1024 + run // 2, 1000 if run == 16 else 1004):
        assert refused(state=state, code=fused.CODES[name]) == f"%d must be a multiple of %d{state}{run}"


OTHER_TYPES = {torch.int64: "Long", torch.int32: "Int", torch.uint8: "Byte", torch.bool: "Bool"}


@pytest.mark.parametrize("dtype", OTHER_TYPES)
@split_formats
def test_a_type_without_arithmetic_is_refused(name: str, dtype: torch.dtype) -> None:
    text = f"\"mlp_forward_{name}_xpu_t\" not implemented for '{OTHER_TYPES[dtype]}'"
    for state in (64, 1004):  # the type is tested before the row
        assert refused(NotImplementedError, dtype=dtype, state=state, code=fused.CODES[name]) == text


def test_a_format_without_a_kernel_is_named() -> None:
    others = [name for name in fused.CODES if name not in fused.LAYOUT]
    assert len(others) == 13
    for name in others:  # iq2_xxs among them: the host's class has no kernel for it
        assert refused(state=256, code=fused.CODES[name]) == f"orrery_ops: mlp_forward_xpu has no kernel for {name}"
    for code in (-1, 0, 1, 4, 5, 9, 12, 20, 22, 25, 30, 12345):
        assert refused(state=256, code=code) == f"unsupported qtype: {code}"


@pytest.mark.parametrize("device_class", ref.DEVICE_OF_CLASS)
def test_what_each_class_refuses_of_iq2_xxs(device_class: int) -> None:
    texts = fused.seen_on_class(device_class)["refusals of iq2_xxs"]["texts"]
    if device_class in (0, 5):
        quantized = "orrery_ops: an input that is quantized first must have a multiple of 256 columns, not 320"
        assert texts == ["\"qlinear_forward_xpu\" not implemented for 'Int'", quantized]
    else:
        assert texts == ["orrery_ops: mlp_forward_xpu has no kernel for iq2_xxs"] * 2


def scopes(work) -> list[str]:
    with profile(activities=[ProfilerActivity.CPU]) as profiler:
        try:
            work()
        except RuntimeError:
            pass
    names = [event.name for event in profiler.events() if not event.name.endswith("_kernel")]  # no launches
    return [name for name in names if re.match("mlp_|orrery_|fused_", name)]


def test_the_trace_scope() -> None:
    assert scopes(call) == ["mlp_forward"]
    assert scopes(lambda: call(state=1000)) == ["mlp_forward"]  # closed, although the call behind it fails


def test_a_scope_holds_the_work_behind_it() -> None:
    with profile(activities=[ProfilerActivity.CPU]) as profiler:
        call()
    events = list(profiler.events())
    scope = next(event for event in events if event.name == "mlp_forward")
    inside = [
        event
        for event in events
        if event.name == "aten::empty" and scope.time_range.start <= event.time_range.start <= scope.time_range.end
    ]
    assert inside


def results() -> list[torch.Tensor]:
    out = []
    for name in fused.LAYOUT:
        for dtype in ref.DTYPES:
            for act in (0, 1):
                y, _ = fused.call_mlp(Mlp(name, dtype, 1088, 24, act))
                out.append(torch.from_numpy(y))
    return out


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_fused_mlp", results)
