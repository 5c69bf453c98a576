"""forward_new with many rows: the dense weight at once and by tiles, for every format, type and device class."""

from __future__ import annotations

from functools import cache

import numpy as np
import pytest
import torch

import dense_reference as ref
import orrery_dispatch as dispatch
import orrery_host
import orrery_ops
from kernel_reference import assert_same_bits_in_any_order
from linear_reference import DEVICE_OF_CLASS, DTYPES, Arithmetic, differing, run_on_class

TYPE_NAMES = {"float32": "float", "float64": "double", "float16": "c10::Half", "bfloat16": "c10::BFloat16"}
FOUR_BIT = ("q4_0", "q4_1", "nf4", "fp4")
EIGHT_BIT = ("q8_0", "fp8_e4m3", "fp8_e5m2")
NO_WAIT = {
    "qlinear_xpu_dequantize_kernel_q4_0_1x4", "qlinear_xpu_tile_dequantize_kernel_q4_0_1x4",
    "qlinear_xpu_dequantize_kernel_q5_1", "qlinear_xpu_dequantize_kernel_q5_k", "dequantize_q4_0_kernel",
    "dequantize_q4_1_kernel", "dequantize_q8_0_kernel", "dequantize_fp4_kernel", "dequantize_fp8_e5m2_kernel",
}  # fmt: skip
GROUPS = {  # work-items of a row: the first whose multiple divides it
    "_1x4": ((1024, 256), (512, 128), (256, 64), (128, 32), (64, 16)),
    "_1x2": ((512, 256), (256, 128), (128, 64), (64, 32)),
    "_1x1": ((256, 256), (128, 128), (64, 64)),
}


def suffix_of(name: str, device_class: int, state: int) -> tuple[str, int]:
    """End of the kernel's name and work-items of a row, for formats with a work-group a row."""
    wide = device_class == 0
    if name in FOUR_BIT:
        suffix = cut = "_1x4" if wide else "_1x2"
    elif name in EIGHT_BIT:
        suffix = cut = "_1x2" if wide else "_1x1"
    else:
        suffix, cut = ("_new", "_1x1") if name == "nf3" else ("", "_1x2")
    return suffix, next(items for multiple, items in GROUPS[cut] if state % multiple == 0)


@cache
def seen_on(device_class: int) -> list[dict]:
    return run_on_class(device_class, ref.__file__, str(device_class))


def seen(what: str, device_class: int, name: str, dtype: str) -> list[dict]:
    return [c for c in seen_on(device_class) if (c["what"], c["format"], c["dtype"]) == (what, name, dtype)]


def ordinary_launch(name: str, dtype: str, rows: int, state: int, device_class: int) -> dict:
    if ref.BLOCK[name][0] == 256:
        items = 32 if name in ("iq2_xxs", "iq1_s", "q4_k") else 64
        kernel, groups = f"qlinear_xpu_dequantize_kernel_{name}", rows * state // 256
        sizes = {"instance": TYPE_NAMES[dtype]}
    else:
        suffix, items = suffix_of(name, device_class, state)
        kernel, groups = f"qlinear_xpu_dequantize_kernel_{name}{suffix}", rows
        sub_group = 32 if device_class == 0 else 16
        sizes = {"instance": f"{TYPE_NAMES[dtype]}, {sub_group}", "sub_group": sub_group}
    return sizes | {
        "kernel": kernel, "name": "gridrun_kernel", "global": groups * items, "local": items, "memory": 0,
        "waited": kernel not in NO_WAIT, "file": "linear_xpu_kernel",
    }  # fmt: skip


def explicit_launch(name: str, dtype: str, rows: int, state: int) -> dict:
    blocks, kernel = ref.EXPLICIT[name], f"dequantize_{name}_kernel"
    record = {"q4_1": "dequantize q4_0", "fp8_e5m2": "dequantize fp8 e5m2"}.get(name, f"dequantize {name}")
    return {
        "kernel": kernel, "instance": f"{TYPE_NAMES[dtype]}, {blocks}", "name": record, "sub_group": 1,
        "global": rows * state // 64 // blocks, "local": 1, "waited": kernel not in NO_WAIT, "memory": 0,
        "file": "dequantize",
    }  # fmt: skip


def assert_launch(launch: dict, want: dict) -> None:
    assert {key: launch[key] for key in want} == want


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
@pytest.mark.parametrize("device_class", DEVICE_OF_CLASS)
def test_whole_weights_of_every_class(device_class: int, name: str, dtype: str) -> None:
    cases = seen("whole", device_class, name, dtype)
    if name == "fp6" and dtype in ("float64", "bfloat16"):
        assert not cases
        return
    assert len(cases) == len(ref.SHAPES[ref.BLOCK[name][0]])
    explicit = name in ref.EXPLICIT and dtype in ("float32", "float16")
    for c in cases:
        assert c["differing"] == 0 and c["product"], c
        (launch,) = c["launches"]
        rows, state = c["size"]
        if explicit:
            assert_launch(launch, explicit_launch(name, dtype, rows, state))
        else:
            assert_launch(launch, ordinary_launch(name, dtype, rows, state, device_class))


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.DEQUANT)
@pytest.mark.parametrize("device_class", DEVICE_OF_CLASS)
def test_dequant_on_every_class(device_class: int, name: str, dtype: str) -> None:
    cases = seen("dequant", device_class, name, dtype)
    assert len(cases) == len(ref.SHAPES[ref.BLOCK[name][0]])
    for c in cases:
        assert c["differing"] == 0, c
        (launch,) = c["launches"]
        assert_launch(launch, ordinary_launch(name, dtype, *c["size"], device_class))


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.TILED)
@pytest.mark.parametrize("device_class", DEVICE_OF_CLASS)
def test_tiles(device_class: int, name: str, dtype: str) -> None:
    cases = seen("tile", device_class, name, dtype)
    if name != "q4_0" and device_class != 1:
        assert not cases
        return
    assert len(cases) == len(ref.TILES) * len(ref.TILE_SIZES)
    suffix = "1x1" if name != "q4_0" else "1x4" if device_class == 0 else "1x2"
    kernel = f"qlinear_xpu_tile_dequantize_kernel_{name}_{suffix}"
    for c in cases:
        assert c["differing"] == 0, c
        rows, state = c["size"]
        items = next(items for multiple, items in GROUPS["_" + suffix] if state % multiple == 0)
        starts = range(0, rows, c["tile"])
        sizes = [min(c["tile"], rows - start) for start in starts]
        assert [launch["global"] for launch in c["launches"]] == [size * items for size in sizes]
        for launch in c["launches"]:
            sub_group = 32 if device_class == 0 else 16
            want = {
                "kernel": kernel, "instance": f"{TYPE_NAMES[dtype]}, {sub_group}", "local": items, "memory": 0,
                "sub_group": sub_group, "name": "gridrun_kernel", "waited": kernel not in NO_WAIT,
                "file": "linear_xpu_kernel",
            }  # fmt: skip
            assert_launch(launch, want)


# --- the product ----------------------------------------------------------------------------------------------------


def error_bound(dtype: str, x: np.ndarray, dense: np.ndarray) -> np.ndarray:
    """How far a dot product may lie from the exact one: PyTorch adds in the type itself for float and double, and in
    float for the narrow types, in an order of its own, so n roundings of at most the sum of the magnitudes each; then
    the result is rounded to the type, half an ulp of it."""
    unit = {"float32": 2.0**-24, "float64": 2.0**-53, "float16": 2.0**-24, "bfloat16": 2.0**-24}[dtype]
    last = {"float32": 0, "float64": 0, "float16": 2.0**-11, "bfloat16": 2.0**-8}[dtype]
    return x.shape[1] * unit * (np.abs(x) @ np.abs(dense).T) + last * np.abs(x @ dense.T) + 1e-7 * (last > 0)


@pytest.mark.parametrize("dtype", DTYPES)
@pytest.mark.parametrize("name", ref.CODES)
@pytest.mark.parametrize("n", [23, 512])
def test_products(name: str, dtype: str, n: int) -> None:
    if name == "fp6" and dtype in ("float64", "bfloat16"):
        return
    rows, state = 24, 768
    w = ref.weight(name, rows, state)
    if name == "fp8_e5m2":
        w &= 0xBF  # no NaN, no large numbers
    explicit = name in ref.EXPLICIT and dtype in ("float32", "float16")
    dense = (ref.explicit_values if explicit else ref.values)(name, dtype, w, rows, state).astype(np.float64)
    x = Arithmetic(dtype).of(np.random.default_rng(n).standard_normal((n, state)) / 16)
    torch.full((n, rows), float("nan"), dtype=DTYPES[dtype], device="xpu")
    y = orrery_ops.forward_new(ref.to_device(x, dtype), ref.to_device(w), ref.CODES[name], 1)
    assert y.shape == (n, rows) and y.dtype == DTYPES[dtype] and y.device.type == "xpu"
    got, x = ref.numbers(y).astype(np.float64), x.astype(np.float64)
    bound = error_bound(dtype, x, dense)
    assert (np.abs(got - x @ dense.T) <= bound).all()
    # The bound is narrow enough to see two neighbouring columns exchanged.
    swapped = dense.copy()
    swapped[:, [0, 1]] = swapped[:, [1, 0]]
    assert (np.abs(got - x @ swapped.T) > bound).any()


def test_one_and_many_rows_agree() -> None:
    """The single-row kernel and the dense way, on the same weight: float sums of 768 numbers near 1."""
    w = ref.to_device(ref.weight("q8_0", 40, 768))
    x = torch.randn(30, 768, generator=torch.Generator().manual_seed(5)).to("xpu")
    many = orrery_ops.forward_new(x, w, 8, 1)
    one = torch.cat([orrery_ops.forward_new(x[i : i + 1], w, 8, 1) for i in range(30)])
    largest = one.abs().max().item()
    assert (many - one).abs().max().item() < largest * 2.0**-10  # halves in the dense weight, floats in the other


def tiles_of(seq_hint: int, **environment: str) -> list[orrery_host.Launch]:
    with ref.variables(**environment), orrery_host.record_launches() as launches:
        w = ref.to_device(ref.weight("q4_0", 16, 64))
        orrery_ops.forward_new(torch.zeros(30, 64, device="xpu"), w, 2, seq_hint)
    return launches


def test_tiles_by_threshold_and_hint() -> None:
    low = {"KELPIE_LLM_LOW_MEM": "1", "TILE_SIZE": "8"}
    assert len(tiles_of(129, TILE_THRESHOLD="15", **low)) == 2
    assert len(tiles_of(129, TILE_THRESHOLD="16", **low)) == 1
    assert len(tiles_of(128, TILE_THRESHOLD="15", **low)) == 1
    (whole,) = tiles_of(129, TILE_THRESHOLD="15", TILE_SIZE="8")
    assert whole.kernel == "dequantize_q4_0_kernel"
    (tile,) = tiles_of(129, TILE_THRESHOLD="15", KELPIE_LLM_LOW_MEM="1", TILE_SIZE="16")
    assert tile.kernel == "qlinear_xpu_tile_dequantize_kernel_q4_0_1x2"


def test_tiles_of_an_empty_weight_launch_nothing_and_test_nothing() -> None:
    with ref.variables(TILE_THRESHOLD="-1", KELPIE_LLM_LOW_MEM="1"), orrery_host.record_launches() as launches:
        weight = torch.zeros(0, dtype=torch.uint8, device="xpu")
        assert orrery_ops.forward_new(torch.zeros(30, 64, device="xpu"), weight, 2, 200).shape == (30, 0)
        x = torch.zeros(30, 100, dtype=torch.int32, device="xpu")
        assert orrery_ops.forward_new(x, weight, 2, 200).shape == (30, 0)
    assert launches == []


def test_tiles_refuse_types_and_rows() -> None:
    weight = torch.zeros(34 * 100, dtype=torch.uint8, device="xpu")
    with ref.variables(TILE_THRESHOLD="1", KELPIE_LLM_LOW_MEM="1"):
        for x, text in (
            (torch.zeros(30, 100, dtype=torch.int32), "\"qlinear_forward_xpu\" not implemented for 'Int'"),
            (torch.zeros(30, 100), "%d must be a multiple of 64100"),
        ):
            with pytest.raises(RuntimeError) as caught:
                orrery_ops.forward_new(x.to("xpu"), weight, 2, 200)
            assert str(caught.value).splitlines()[0] == text


def test_a_tile_size_of_nothing_is_refused() -> None:
    weight = torch.zeros(34 * 100, dtype=torch.uint8, device="xpu")
    with ref.variables(TILE_THRESHOLD="1", KELPIE_LLM_LOW_MEM="1", TILE_SIZE="0"):
        with pytest.raises(RuntimeError, match="^orrery_ops: TILE_SIZE must not be 0$"):
            orrery_ops.forward_new(torch.zeros(30, 64, device="xpu"), weight, 2, 200)


@pytest.mark.parametrize("name", ref.CODES)
def test_no_weight_rows_and_no_input_rows(name: str) -> None:
    state = ref.BLOCK[name][0] * 8
    x = torch.zeros(30, state, device="xpu")
    with orrery_host.record_launches() as launches:
        y = orrery_ops.forward_new(x, torch.zeros(0, dtype=torch.uint8, device="xpu"), ref.CODES[name], 1)
    assert y.shape == (30, 0) and [launch.global_size for launch in launches] == [(0,)]
    w = ref.to_device(ref.weight(name, 3, state))
    assert orrery_ops.forward_new(x[:0], w, ref.CODES[name], 1).shape == (0, 3)


@pytest.mark.parametrize("name", [n for n in ref.CODES if ref.BLOCK[n][0] == 256])
def test_the_last_part_of_a_block_is_not_written(name: str) -> None:
    """Rows of 320 pass the test of 64; 3 of them hold 3 whole blocks of 256 and some that stays as it was."""
    w = ref.weight(name, 4, 256)
    _, _, got, (launch,) = ref.dense_scratch(name, "float32", w, 3, 320, 70)
    got = got.reshape(-1)
    assert differing(got[:768], ref.values(name, "float32", w, 4, 256).reshape(-1)[:768]) == 0
    assert np.isnan(got[768:]).all() and launch.global_size[0] == 3 * launch.local_size[0]


def test_the_dense_weight_goes_back_to_the_allocator() -> None:
    w, x = ref.to_device(ref.weight("q4_0", 64, 1024)), torch.zeros(30, 1024, device="xpu")
    orrery_ops.forward_new(x, w, 2, 1)
    before = torch.xpu.memory_stats()["active_bytes.all.current"]
    y = orrery_ops.forward_new(x, w, 2, 1)
    assert torch.xpu.memory_stats()["active_bytes.all.current"] - before <= y.numel() * 4


def test_the_decision_says_what_is_launched() -> None:
    for name, code in ref.CODES.items():
        for dtype, type_ in (("float64", "Double"), ("float16", "Half")):
            if name == "fp6" and dtype == "float64":
                continue
            rows, state = 8, 768
            with orrery_host.record_launches() as launches:
                x = torch.zeros(70, state, dtype=DTYPES[dtype], device="xpu")
                orrery_ops.forward_new(x, ref.to_device(ref.weight(name, rows, state)), code, 1)
            want = dispatch.decide(code, type_, 70, state, rows)
            (launch,) = launches
            assert (launch.kernel, launch.name) == (want["kernel"], want["record"])
            assert (launch.global_size, launch.local_size) == (want["global"], want["local"])
            assert launch.waited == want["waits"]


def all_products() -> list[torch.Tensor]:
    """By tiles and at once; PyTorch's own product has one thread's bits for few rows only."""
    results = []
    for dtype in DTYPES:
        one = torch.eye(192, dtype=DTYPES[dtype], device="xpu")
        w = ref.to_device(ref.weight("q4_0", 24, 192))
        results.append(orrery_ops.forward_new(one, w, 2, 1))
        with ref.variables(TILE_THRESHOLD="1", TILE_SIZE="7", KELPIE_LLM_LOW_MEM="1"):
            results.append(orrery_ops.forward_new(one, w, 2, 129))
    return results


def test_neither_schedule_nor_threads_show() -> None:
    assert_same_bits_in_any_order("test_linear_dense", all_products)
