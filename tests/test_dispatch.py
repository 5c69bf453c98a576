"""The linear dispatch, asked for its decisions without a device, against a tree written out by hand here."""

from __future__ import annotations

import itertools
from typing import Any, Callable

import pytest

import orrery_dispatch as dispatch

HALF, FLOAT, DOUBLE, BFLOAT16 = "Half", "Float", "Double", "BFloat16"
TYPES = (HALF, FLOAT, DOUBLE, BFLOAT16)
CLASSES = range(6)

FORMATS = {
    2: "q4_0", 3: "q4_1", 6: "q5_0", 7: "q5_1", 8: "q8_0", 10: "nf4", 11: "nf3", 15: "fp8_e4m3", 16: "fp4",
    19: "fp8_e5m2", 21: "iq2_xxs", 23: "q2_k", 24: "iq1_s", 26: "q6_k", 27: "q4_k", 28: "q5_k", 29: "fp6",
}  # fmt: skip

SINGLE = {
    2: "qlinear_xpu_kernel_q4_0_2x16", 3: "qlinear_xpu_kernel_q4_1_2x16", 6: "qlinear_xpu_kernel_q5_0",
    7: "qlinear_xpu_kernel_q5_1", 8: "qlinear_xpu_kernel_q8_0_2x8", 10: "qlinear_xpu_kernel_nf4_2x16",
    11: "qlinear_xpu_kernel_nf3_2x16", 15: "qlinear_xpu_kernel_fp8_e4m3_2x8", 16: "qlinear_xpu_kernel_fp4_2x16",
    19: "qlinear_xpu_kernel_fp8_e5m2_2x8", 21: "qlinear_xpu_kernel_iq2_xxs_q8_1",
    23: "qlinear_xpu_kernel_q2_k_q8_1", 24: "qlinear_xpu_kernel_iq1_s_q8_1", 26: "qlinear_xpu_kernel_q6_k",
    27: "qlinear_xpu_kernel_q4_k", 28: "qlinear_xpu_kernel_q5_k", 29: "qlinear_xpu_kernel_fp6_2x16",
}  # fmt: skip

DEFAULTS = {"threshold": 50000, "low_memory": False, "tile_size": 4096, "disabled": False}


def scale_position(code: int, rows: int, state: int) -> int:
    """Byte position of the scales, in wrapping 32-bit arithmetic."""
    product = (rows * state) & 0xFFFFFFFF
    if code in (8, 15, 19):
        return product & ~63
    signed = product - (1 << 32) if product >> 31 else product
    blocks = abs(signed) // 64 * (-1 if signed < 0 else 1)
    return blocks * {11: 24, 29: 48}.get(code, 32) & 0xFFFFFFFF


def two_row_range(rows: int, sg: int, wg: int) -> int:
    return (rows * sg + sg) // wg * wg


def one_row(code: int, state: int, rows: int, cls: int) -> dict[str, Any]:
    sg, wg = (32, 64) if cls == 0 else (16, 32)
    out: dict[str, Any] = {"family": "one_row", "kernel": SINGLE[code], "record": "gridrun_kernel"}
    if code == 2 and cls == 5:
        out |= {"global": ((rows * 4 + 28) // 32 * 32,), "local": (32,), "sub_group": 16, "rows": 8}
    elif code in (6, 7):
        out |= {"global": (rows * wg,), "local": (wg,), "sub_group": sg, "rows": 1}
    elif code in (23, 24, 26):
        out |= {"global": (rows * 32,), "local": (32,), "rows": 1}
    elif code in (27, 28):
        out |= {"global": ((rows + 1) // 2 * 32,), "local": (32,), "sub_group": 8, "rows": 2}
    elif code == 21:
        out |= {"global": (rows * 16 + 16 & ~31, 2), "local": (32, 2), "sub_group": 32}
    else:
        out |= {"global": (two_row_range(rows, sg, wg),), "local": (wg,), "sub_group": sg, "rows": 2}
    out["row_multiple"] = 8 if code in (8, 15, 19) else 16 if code in (2, 3, 10, 11, 16, 29) else 0
    takes_scale = code in (2, 3, 8, 10, 11, 15, 16, 29)
    out["scale_offset"] = scale_position(code, rows, state) if takes_scale else 0
    out["quantizes_input"] = out["waits"] = code in (21, 23, 24)
    return out


def row_pairs(code: int, n: int, state: int, rows: int, cls: int) -> dict[str, Any] | None:
    sg, wg = (32, 64) if cls == 0 else (16, 32)
    if code == 2 and cls != 0 and n <= 7:
        kernel, style = "qlinear_xpu_kernel_q4_0_2x16_by_batch", "B"
    elif code == 2 and cls != 0 and n <= 20:
        kernel, style = "qlinear_xpu_kernel_q4_0_2x16_batch", "A"
    elif code == 3 and n <= 20:
        kernel, style = "qlinear_xpu_kernel_q4_1_2x16_batch", "A"
    elif code == 8 and n <= 7:
        kernel, style, sg, wg = "qlinear_xpu_kernel_q8_0_2x8_batch", "B", 16, 32
    elif code == 10 and n <= 14:
        kernel, style = "qlinear_xpu_kernel_nf4_2x16_batch", "A"
    elif code == 16 and cls != 0 and n <= 7:
        kernel, style = "qlinear_xpu_kernel_fp4_2x16_batch", "B"
    elif code == 19 and n <= 7:
        kernel, style = "qlinear_xpu_kernel_fp8_e5m2_2x8_batch", "B"
    else:
        return None
    first = rows // 2 * wg if style == "A" else (rows + 1) // 2 * wg
    pairs = (n + 1) // 2
    return {
        "family": "row_pairs",
        "kernel": kernel,
        "record": "gridrun_kernel",
        "global": (first,) if pairs == 1 else (first, pairs),
        "local": (wg,),
        "sub_group": sg,
        "row_multiple": 8 if code in (8, 19) else 16,
        "scale_offset": 0 if code == 19 else scale_position(code, rows, state),
        "waits": False,
    }


def row_group(suffix: str, state: int) -> int:
    """Work-items that share one dense row."""
    sizes = {
        "1x4": ((1024, 256), (512, 128), (256, 64), (128, 32), (1, 16)),
        "1x2": ((512, 256), (256, 128), (128, 64), (1, 32)),
        "1x1": ((256, 256), (128, 128), (1, 64)),
    }
    return next(size for multiple, size in sizes[suffix] if state % multiple == 0)


def whole(code: int, type_: str, state: int, rows: int, cls: int) -> dict[str, Any]:
    name = FORMATS[code]
    if code == 29 or (code in (2, 3, 8, 16, 19) and type_ in (HALF, FLOAT)):
        blocks = 4 if code in (8, 19) else 8
        record = {3: "dequantize q4_0", 19: "dequantize fp8 e5m2"}.get(code, f"dequantize {name}")
        return {
            "family": "whole",
            "kernel": f"dequantize_{name}_kernel",
            "record": record,
            "global": (rows * state // 64 // blocks,),
            "local": (1,),
            "sub_group": 1,
            "waits": code == 29,
            "row_multiple": 0,
            "scale_offset": 0,
        }
    out: dict[str, Any] = {"family": "whole", "record": "gridrun_kernel", "row_multiple": 64}
    kernel = f"qlinear_xpu_dequantize_kernel_{name}"
    if code in (2, 3, 10, 16, 8, 15, 19):
        four_bit = code in (2, 3, 10, 16)
        suffix = ("1x4" if four_bit else "1x2") if cls == 0 else ("1x2" if four_bit else "1x1")
        size = row_group(suffix, state)
        out |= {"kernel": f"{kernel}_{suffix}", "global": (rows * size,), "local": (size,)}
        out["sub_group"] = 32 if cls == 0 else 16
        out["waits"] = (code, suffix) != (2, "1x4")
    elif code in (21, 24, 27, 23, 26, 28):
        size = 32 if code in (21, 24, 27) else 64
        out |= {"kernel": kernel, "global": (rows * state // 256 * size,), "local": (size,), "waits": code != 28}
    else:
        size = row_group("1x1" if code == 11 else "1x2", state)
        out |= {"kernel": kernel + ("_new" if code == 11 else ""), "global": (rows * size,), "local": (size,)}
        out["sub_group"] = 32 if cls == 0 else 16
        out["waits"] = code != 7
    return out


def tile(code: int, state: int, rows: int, cls: int, tile_size: int) -> dict[str, Any]:
    suffix = ("1x4" if cls == 0 else "1x2") if code == 2 else "1x1"
    size = row_group(suffix, state)
    first = min(tile_size, rows)
    return {
        "family": "tile",
        "kernel": f"qlinear_xpu_tile_dequantize_kernel_{FORMATS[code]}_{suffix}",
        "record": "gridrun_kernel",
        "global": (first * size,),
        "local": (size,),
        "tile_rows": first,
        "tiles": -(-rows // tile_size),
        "row_multiple": 64,
        "scale_offset": scale_position(code, rows, state),
        "waits": suffix != "1x4",
    }


def explicit_simd(code: int, n: int, state: int, rows: int, cls: int) -> dict[str, Any]:
    slim = cls == 4 and n <= 8
    if not slim:
        group = 16 if cls == 0 else 32
    elif code in (2, 3):
        group = 8 if n <= 4 else 16
    else:
        group = 8 if n <= 2 else 16 if n <= 4 else 32
    return {
        "family": "explicit_simd",
        "kernel": f"vector_forward_kernel_{FORMATS[code]}" + ("_slim" if slim else ""),
        "record": "batch forward kernel",
        "global": (rows,),
        "local": (group,),
        "sub_group": 1,
        "waits": code == 29 and not slim,
        "tail": n if slim else (n % 8 or 8),
    }


def expected(code: int, type_: str, n: int, state: int, rows: int, hint: int, cls: int, env: dict) -> dict[str, Any]:
    """The whole tree, in its order."""
    if (
        state % 256 == 0 and rows % 32 == 0 and type_ in (HALF, FLOAT) and code in (2, 3, 8, 16, 19, 29)
        and n <= 64 and cls in (0, 1, 2, 4) and (n >= 2 or (cls in (1, 2) and code in (8, 16)))
    ):  # fmt: skip
        return explicit_simd(code, n, state, rows, cls)
    if not env["disabled"] and n >= 2 and rows % 16 == 0 and code in (2, 8, 15, 19):
        lowest = 2 if code == 15 else 7
        if (cls == 0 and n <= 16) or (cls in (1, 2) and lowest <= n <= 64):
            columns, tiles = (16 if cls == 0 else 8), (n + 7) // 8
            first = rows // columns * 8
            return {
                "family": "matrix_engine", "kernel": "dotgrid_forward_kernel", "record": "gridrun_kernel",
                "global": (first,) if tiles == 1 else (first, tiles), "local": (8,), "sub_group": 1,
                "tail": n % 8 or 8, "waits": False, "scale_offset": scale_position(code, rows, state),
            }  # fmt: skip
    if n == 1:
        return one_row(code, state, rows, cls)
    if (few := row_pairs(code, n, state, rows, cls)) is not None:
        return few
    tiled = False
    if code == 2:
        tiled = (cls == 4 or env["low_memory"]) and env["threshold"] < rows and hint >= 129
    elif code in (8, 19):
        tiled = cls == 1 and env["threshold"] <= rows
    return tile(code, state, rows, cls, env["tile_size"]) if tiled else whole(code, type_, state, rows, cls)


def assert_same(code: int, got: dict[str, Any], want: dict[str, Any], where: Any) -> None:
    assert {key: got[key] for key in want} == want, (FORMATS[code], where)


ENVIRONMENTS: tuple[tuple[dict[str, str], dict], ...] = (
    ({}, DEFAULTS),
    ({"ORRERY_LLM_DOTGRID_DISABLED": "1"}, DEFAULTS | {"disabled": True}),
    (
        {"TILE_THRESHOLD": "33", "KELPIE_LLM_LOW_MEM": "1", "TILE_SIZE": "17", "ORRERY_LLM_DOTGRID_DISABLED": "1"},
        {"threshold": 33, "low_memory": True, "tile_size": 17, "disabled": True},
    ),
)
SIZES = ((64, 1), (64, 33), (192, 35), (256, 32), (576, 48), (1024, 96), (1088, 3), (4096, 4096), (4096, 50000))
ROWS = (1, 2, 3, 6, 7, 8, 9, 14, 15, 16, 17, 20, 21, 63, 64, 65, 200)


@pytest.mark.parametrize("code", FORMATS, ids=FORMATS.values())
@pytest.mark.parametrize("cls", CLASSES)
def test_every_decision(code: int, cls: int) -> None:
    for (state, rows), n, type_, (variables, env) in itertools.product(SIZES, ROWS, TYPES, ENVIRONMENTS):
        for hint in (0, 128, 129):
            got = dispatch.decide(code, type_, n, state, rows, hint, cls, variables)
            want = expected(code, type_, n, state, rows, hint, cls, env)
            assert_same(code, got, want, (state, rows, n, type_, hint, cls, variables))


def decide(code: int, n: int, cls: int, type_: str = HALF, state: int = 4096, rows: int = 4096, hint: int = 0,
           **variables: str) -> dict[str, Any]:  # fmt: skip
    return dispatch.decide(code, type_, n, state, rows, hint, cls, variables)


def test_one_row_of_q4_0_on_class_1_stays_narrow() -> None:
    got = decide(2, 1, 1)
    assert (got["family"], got["kernel"]) == ("one_row", "qlinear_xpu_kernel_q4_0_2x16")
    assert (got["sub_group"], got["work_group"], got["rows"]) == (16, 32, 2)
    assert got["global"] == (4096 * 16,)


def test_one_row_of_q8_0_on_class_1_takes_the_vector_kernel() -> None:
    assert decide(8, 1, 1)["kernel"] == "vector_forward_kernel_q8_0"
    assert decide(8, 1, 2)["family"] == "explicit_simd"
    assert decide(8, 1, 0)["family"] == "one_row"
    assert decide(8, 1, 4)["family"] == "one_row"


def test_eight_rows_of_fp8_e5m2_on_class_3_go_whole() -> None:
    assert decide(19, 8, 3)["family"] == "whole"


def test_both_families_for_several_rows_end_at_64() -> None:
    assert decide(2, 64, 1)["family"] == "explicit_simd"
    assert decide(2, 64, 1, BFLOAT16)["family"] == "matrix_engine"
    assert decide(2, 65, 1)["family"] == "whole"
    assert decide(2, 65, 1, BFLOAT16)["family"] == "whole"


@pytest.mark.parametrize("value, on", [("0", True), ("", True), ("true", True), ("1 ", True), ("1", False)])
def test_only_a_1_disables_the_matrix_engine(value: str, on: bool) -> None:
    got = decide(15, 8, 1, ORRERY_LLM_DOTGRID_DISABLED=value)
    assert (got["family"] == "matrix_engine") is on


@pytest.mark.parametrize(
    "code, n, cls, engine",
    [(2, 6, 1, False), (2, 7, 1, True), (15, 2, 2, True), (8, 16, 0, True), (8, 17, 0, False), (8, 8, 3, False),
     (8, 8, 4, False), (8, 8, 5, False), (3, 8, 1, False)],
)  # fmt: skip
def test_limits_of_the_matrix_engine(code: int, n: int, cls: int, engine: bool) -> None:
    assert (decide(code, n, cls, BFLOAT16)["family"] == "matrix_engine") is engine


def test_threshold_at_equality_differs_between_formats() -> None:
    equal = {"TILE_THRESHOLD": "4096", "ORRERY_LLM_DOTGRID_DISABLED": "1"}
    assert decide(8, 8, 1, DOUBLE, **equal)["family"] == "tile"
    assert decide(2, 21, 1, DOUBLE, hint=129, KELPIE_LLM_LOW_MEM="1", **equal)["family"] == "whole"
    below = equal | {"TILE_THRESHOLD": "4095"}
    assert decide(2, 21, 1, DOUBLE, hint=129, KELPIE_LLM_LOW_MEM="1", **below)["family"] == "tile"
    assert decide(2, 21, 1, DOUBLE, hint=128, KELPIE_LLM_LOW_MEM="1", **below)["family"] == "whole"
    assert decide(2, 21, 4, DOUBLE, hint=129, **below)["family"] == "tile"


@pytest.mark.parametrize("value, low", [("1", True), (" 1", True), ("1x", True), ("0", False), ("2", False)])
def test_low_memory_is_on_only_at_exactly_1(value: str, low: bool) -> None:
    got = decide(2, 21, 3, hint=129, KELPIE_LLM_LOW_MEM=value, TILE_THRESHOLD="10")
    assert got["family"] == ("tile" if low else "whole")


def test_tiles_cover_all_rows_and_the_last_may_be_short() -> None:
    variables = {"TILE_THRESHOLD": "10", "KELPIE_LLM_LOW_MEM": "1"}
    for size, turns, first in ((4096, 1, 4096), (4097, 1, 4096), (4095, 2, 4095), (1024, 4, 1024), (1000, 5, 1000)):
        got = decide(2, 30, 3, hint=200, TILE_SIZE=str(size), **variables)
        assert (got["tiles"], got["tile_rows"]) == (turns, first)
    with pytest.raises(RuntimeError, match="^orrery_ops: TILE_SIZE must not be 0$"):
        decide(2, 30, 3, hint=200, TILE_SIZE="0", **variables)


def test_a_limit_lies_where_the_format_has_it() -> None:
    last = {2: 20, 3: 20, 8: 7, 10: 14, 16: 7, 19: 7}
    for code in FORMATS:
        by_pairs = [n for n in range(2, 70) if decide(code, n, 5)["family"] == "row_pairs"]
        assert by_pairs == list(range(2, last.get(code, 1) + 1)), FORMATS[code]


def test_class_0_never_takes_the_pairs_of_q4_0_and_fp4() -> None:
    for code, n in itertools.product((2, 16), range(2, 70)):
        assert decide(code, n, 0, DOUBLE, rows=4095)["family"] == "whole"


def test_no_rows_of_input_take_no_kernel_that_a_format_lacks() -> None:
    for code, cls in itertools.product(FORMATS, CLASSES):
        got = decide(code, 0, cls, DOUBLE, rows=4095)
        by_pairs = code in (2, 3, 8, 10, 16, 19) and not (cls == 0 and code in (2, 16))
        assert got["family"] == ("row_pairs" if by_pairs else "whole"), (FORMATS[code], cls)


def test_an_odd_row_is_dropped_in_one_style_and_kept_in_the_other() -> None:
    assert decide(2, 8, 5, rows=5)["global"] == (2 * 32, 4)
    assert decide(2, 7, 5, rows=5)["global"] == (3 * 32, 4)


READS = ["ORRERY_LLM_DOTGRID_DISABLED", "TILE_THRESHOLD", "KELPIE_LLM_LOW_MEM", "TILE_SIZE"]


@pytest.mark.parametrize(
    "code, n, cls, read",
    [
        (2, 1, 3, READS),
        (8, 1, 3, [READS[0], READS[1], READS[3]]),
        (19, 1, 3, [READS[0], READS[1], READS[3]]),
        (3, 1, 3, READS[:1]),
        (15, 8, 1, READS[:1]),  # the matrix engine has no tiles
        (8, 1, 1, []),  # nor has the vector family, which does not even ask for the engine
    ],
)
def test_what_is_read_and_in_which_order(code: int, n: int, cls: int, read: list[str]) -> None:
    assert decide(code, n, cls)["read"] == read


@pytest.mark.parametrize(
    "variable, value, error, text",
    [
        ("TILE_SIZE", "many", ValueError, "invalid stoull argument"),
        ("TILE_SIZE", "", ValueError, "invalid stoull argument"),
        ("TILE_SIZE", str(1 << 64), IndexError, "stoull argument out of range"),
        ("TILE_THRESHOLD", "x1", ValueError, "invalid stoll argument"),
        ("TILE_THRESHOLD", str(1 << 63), IndexError, "stoll argument out of range"),
        ("KELPIE_LLM_LOW_MEM", "yes", ValueError, "invalid stoll argument"),
        ("KELPIE_LLM_LOW_MEM", str(-(1 << 63) - 1), IndexError, "stoll argument out of range"),
    ],
)
def test_a_malformed_number_fails_one_row_too(variable: str, value: str, error: type, text: str) -> None:
    with pytest.raises(error) as caught:
        decide(2, 1, 3, **{variable: value})
    assert type(caught.value) is error and str(caught.value) == text


def test_the_first_malformed_number_in_reading_order_is_told() -> None:
    with pytest.raises(ValueError, match="^invalid stoll argument$"):
        decide(2, 1, 3, TILE_SIZE="x", TILE_THRESHOLD="x")
    with pytest.raises(IndexError, match="^stoll argument out of range$"):
        decide(2, 1, 3, TILE_SIZE="x", TILE_THRESHOLD=str(1 << 70))


def test_numbers_that_a_way_does_not_read_may_be_malformed() -> None:
    assert decide(8, 1, 3, KELPIE_LLM_LOW_MEM="x")["family"] == "one_row"
    assert decide(3, 1, 3, TILE_SIZE="x", TILE_THRESHOLD="x")["family"] == "one_row"
    assert decide(8, 1, 1, TILE_SIZE="x")["family"] == "explicit_simd"
    assert decide(15, 8, 1, TILE_SIZE="x")["family"] == "matrix_engine"


@pytest.mark.parametrize("code", [-1, 0, 1, 4, 9, 12, 22, 25, 30, 1000])
def test_a_code_without_a_reader_is_refused(code: int) -> None:
    for cls, n in itertools.product(CLASSES, (1, 8)):
        with pytest.raises(RuntimeError, match=f"^unsupported qtype: {code}$"):
            decide(code, n, cls)


CLASS_OF: tuple[tuple[str, int], ...] = (
    ("Rack Compute Card Apex 1550", 0),
    ("Pike(TM) A770 Graphics", 1),
    ("Rack Compute Card Span 170", 2),
    ("any processor", 3),
    ("", 3),
    ("Pike(TM) B580 Graphics", 4),
    ("Pike(TM)", 4),
    ("Pike(TM)A770", 4),
    ("Vela Graphics", 5),
    ("Vela Pike(TM) A770", 1),
    ("Vela Pike(TM) B", 4),
    ("Rack Compute Card Apex with Pike(TM) A", 0),
    ("Rack Compute Card Span and Vela", 5),
    ("pike(tm) a", 3),
)


@pytest.mark.parametrize("name, cls", CLASS_OF)
def test_class_by_device_name(name: str, cls: int) -> None:
    assert dispatch.device_class_of(name) == cls


BLOCKS = {
    2: (64, 34), 3: (64, 36), 6: (64, 44), 7: (64, 44), 8: (64, 68), 9: (32, 36), 10: (64, 34), 11: (64, 26),
    15: (64, 68), 16: (64, 34), 19: (64, 68), 21: (256, 66), 22: (256, 74), 23: (256, 84), 24: (256, 50),
    25: (256, 56), 26: (256, 210), 27: (256, 144), 28: (256, 176), 29: (64, 50),
}  # fmt: skip


def test_block_tables() -> None:
    assert list(dispatch.block_elems) == [BLOCKS.get(code, (0, 0))[0] for code in range(30)]
    assert list(dispatch.block_bytes) == [BLOCKS.get(code, (0, 0))[1] for code in range(30)]
    assert {code: dispatch.format_name(code) for code in range(-1, 31) if dispatch.format_name(code)} == FORMATS


@pytest.mark.parametrize(
    "code, size, state, rows",
    [(2, 34, 64, 1), (2, 68, 64, 2), (2, 35, 64, 1), (2, 33, 64, 0), (11, 52, 64, 2), (8, 68, 64, 1),
     (27, 144 * 3, 256, 3), (2, 34 * 3, 128, 1), (9, 72, 64, 1)],
)  # fmt: skip
def test_rows_from_bytes_drop_the_remainder(code: int, size: int, state: int, rows: int) -> None:
    assert dispatch.rows_of_weight(code, size, state) == rows


@pytest.mark.parametrize(
    "code, rows, state, offset",
    [
        (11, 2, 64, 48),
        (8, 1, 64, 64),
        (2, 1, 64, 32),
        (29, 3, 128, 6 * 48),
        (27, 5, 256, 0),
        (6, 5, 64, 0),
        (19, 3, 64, 192),
        (2, 1 << 16, 1 << 15, (1 << 32) - (1 << 30)),  # the product is -2^31
        (8, 1 << 16, 1 << 15, 1 << 31),
        (2, 1 << 16, (1 << 16) + 64, (1 << 16) * 32),  # the product wraps
    ],
)
def test_scale_plane_in_32_bits(code: int, rows: int, state: int, offset: int) -> None:
    assert dispatch.scale_offset(code, rows, state) == offset


@pytest.mark.parametrize("rows, state", [(3, 128), (1 << 17, 1 << 16)])  # the second has 2^33 elements
def test_planes_of_the_explicit_simd_kernels_in_64_bits(rows: int, state: int) -> None:
    blocks = rows * state // 64
    assert dispatch.planes(2, rows, state) == (32 * blocks, None)
    assert dispatch.planes(8, rows, state) == (64 * blocks, None)
    assert dispatch.planes(19, rows, state) == (None, None)
    assert dispatch.planes(29, rows, state) == (48 * blocks, 32 * blocks)


def test_nf3_ends_behind_its_two_scales() -> None:
    assert dispatch.scale_offset(11, 2, 64) + 2 * 2 == 2 * BLOCKS[11][1] == 52


def test_version_text() -> None:
    for version in ("3.10.13 (main) [GCC]", "3.10.4", "3.10", "3.10a"):
        assert dispatch.version_fits(version)
    for version in ("3.11.0 (main)", "3.100.1", "3.1", "3.9.18", "13.10"):
        with pytest.raises(ImportError) as caught:
            dispatch.version_fits(version)
        assert str(caught.value) == (
            "Python version mismatch: module was compiled for Python 3.10, "
            f"but the interpreter version is incompatible: {version}."
        )


def test_the_tree_of_this_file_is_not_blind() -> None:
    """A wrong limit, a wrong comparison and a wrong range are each seen by the comparison above."""
    changes: list[tuple[int, int, int, Callable[[dict], dict]]] = [
        (2, 7, 3, lambda d: d | {"kernel": "qlinear_xpu_kernel_q4_0_2x16_batch"}),
        (2, 1, 5, lambda d: d | {"rows": 2}),
        (8, 1, 0, lambda d: d | {"global": (d["global"][0] + 64,)}),
    ]
    for code, n, cls, change in changes:
        want = expected(code, HALF, n, 4096, 4096, 0, cls, DEFAULTS)
        with pytest.raises(AssertionError):
            assert_same(code, change(decide(code, n, cls)), want, None)
