"""Each row of the tables of gaps in docs/functions.md, run: what ends the process, what raises, what is silent."""

from __future__ import annotations

import faulthandler
import os
import re
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

import pytest
import torch

import orrery_host  # noqa: F401  (the device comes first)
import orrery_ops
from function_calls import ARGUMENTS, cache, call, codes, positions, real, weight
from kernel_reference import last_words
from orrery.formats import FORMATS
from sanitizers import SANITIZED

ROOT = Path(__file__).resolve().parents[1]
PAGE = (ROOT / "docs" / "functions.md").read_text()
ENDS, RAISES, SILENT, UNDEFINED = "ends the process", "raises", "silent", "undefined"
Row = tuple[str, str, str, str]  # functions, call, outcome, what happens


def rows() -> list[Row]:
    lines = [re.split(r"(?<!\\)\|", line)[1:-1] for line in PAGE.splitlines() if line.startswith("| `")]
    cells = [[cell.strip().replace("\\|", "|") for cell in line] for line in lines]
    return [tuple(row) for row in cells if len(row) == 4]  # type: ignore[misc]


def names(row: Row) -> list[str]:
    return re.findall(r"`(\w+)`", row[0])


NAN, INF = float("nan"), float("inf")
HALF, BFLOAT, DOUBLE = torch.float16, torch.bfloat16, torch.float64


def written(result: torch.Tensor) -> torch.Tensor:
    return ~torch.isnan(result.cpu())


def over_nan(name: str, changes: dict[int, Any], shape: tuple[int, ...], dtype: torch.dtype = torch.float32) -> Any:
    """A call's result, made where a NaN tensor of its size lay, so that what is not written is NaN."""
    values = ARGUMENTS[name]()
    for place, value in changes.items():
        values[place] = value
    torch.full(shape, NAN, dtype=dtype, device="xpu")
    result = getattr(orrery_ops, name)(*values)
    assert result.shape == shape
    return result


def differs(a: torch.Tensor, b: torch.Tensor) -> bool:
    return not torch.allclose(a, b, rtol=0.01, atol=0.01)


def q4_0_codes(rows: int, columns: int) -> torch.Tensor:
    """A weight of random codes, all scales 1."""
    generator = torch.Generator().manual_seed(5)
    blocks = rows * columns // 64
    quants = torch.randint(0, 256, (blocks * 32,), generator=generator, dtype=torch.uint8)
    return torch.cat([quants, torch.ones(blocks, dtype=HALF).view(torch.uint8)]).to("xpu")


def forward(format: str, x: torch.Tensor, rows: int, columns: int | None = None) -> Any:
    return call("forward_new", {0: x, 1: weight(format, rows, columns or x.shape[1]), 2: FORMATS[format].code})


def with_setting(settings: dict[str, str], call_it: Callable[[], Any]) -> Any:
    with pytest.MonkeyPatch.context() as patch:
        for name, value in settings.items():
            patch.setenv(name, value)
        return call_it()


# --- Silent: each checks what the row says ----------------------------------------------------------------------------


def cpu_tensors(name: str) -> None:
    if SANITIZED:
        pytest.skip("kernels may read behind a row, and CPU tensors have no slack there")
    call(name, {place: value.cpu() for place, value in enumerate(ARGUMENTS[name]()) if torch.is_tensor(value)})


def odd_outputs(_: str) -> None:
    for format, rows in (("q4_0", 8), ("q4_1", 2), ("nf4", 14)):
        w, code = weight(format, 5, 64), FORMATS[format].code
        y = over_nan("forward_new", {0: real(rows, 64), 1: w, 2: code}, (rows, 5))
        assert written(y)[:, :4].all() and not written(y)[:, 4].any()


def rows_inside_blocks(_: str) -> None:
    for columns, right in ((128, True), (96, False)):
        w, x = q4_0_codes(2, columns), real(1, columns)
        true = x @ call("dequant", {1: w}).view(2, columns).T
        assert differs(call("forward_new", {0: x, 1: w}), true) != right


def behind_the_row(_: str) -> None:
    for format in ("q5_0", "q5_1"):
        room = real(1, 128)
        one = forward(format, room[:, :96], 2)
        room[:, 96:] = 100
        assert differs(forward(format, room[:, :96], 2), one)


def cut_super_blocks(_: str) -> None:
    for format in ("q4_k", "q5_k", "q6_k"):
        x = real(1, 320)
        changed = x.clone()
        changed[:, 256:] = 100
        assert forward(format, x, 4).shape == (1, 4)
        assert torch.equal(forward(format, x, 4), forward(format, changed, 4))


def next_row_s_block(_: str) -> None:
    code = """
import torch, function_calls as f, orrery_ops
for format in ("q5_0", "q5_1"):
    w, room, code = f.weight(format, 2, 192), f.real(1, 256), f.FORMATS[format].code
    x = room[:, :192]
    one, two = (orrery_ops.forward_new(rows, w, code, 0) for rows in (x, torch.cat([x, x])))
    print(torch.allclose(one[0], two[0], rtol=0.01))
"""
    path = os.pathsep.join([str(ROOT / "tests"), *filter(None, [os.environ.get("PYTHONPATH")])])
    environment = os.environ | {"PYTHONPATH": path, "ORRERY_HOST_DEVICE_NAME": "Rack Compute Card Apex"}
    done = subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True, text=True, timeout=120)
    assert done.stdout == "False\nFalse\n", done.stderr


def dropped_bytes(_: str) -> None:
    w, more = weight("q4_0", 1, 64), weight("q4_0", 2, 64)[:67]
    more[:34] = w
    assert torch.equal(call("forward_new", {1: w}), call("forward_new", {1: more[:40].clone()}))
    assert call("forward_new", {1: more.clone()}).shape == (1, 1)


def other_columns(_: str) -> None:
    assert call("forward_new", {1: weight("q4_0", 3, 128)}).shape == (1, 6)
    assert call("forward_new", {1: weight("q8_0", 3, 64)}).shape == (1, 6)


def no_bytes(_: str) -> None:
    w = weight("q4_0", 4, 64)
    assert call("forward_new", {1: w.view(HALF)}).shape == (1, 2)


def third_dimension(_: str) -> None:
    x = real(1, 64, 2)
    assert torch.equal(call("forward_new", {0: x}), call("forward_new", {0: x.view(-1)[:64].view(1, 64)}))


def unread_scales(name: str) -> None:
    rows, columns = (32, 256) if name == "batch_forward" else (1, 64)
    place = 5 if name == "batch_forward" else 2
    quants = torch.arange(rows * columns, dtype=torch.int32).remainder(0x7C).to(torch.uint8)
    scales = [torch.full((rows * columns // 64,), scale).view(torch.uint8) for scale in (1.0, NAN)]
    weights = [torch.cat([quants, of_blocks]).to("xpu") for of_blocks in scales]
    assert torch.equal(*(call(name, {1: w, place: 19}) for w in weights))
    zeros = torch.zeros(68, dtype=torch.uint8, device="xpu")
    assert (call("dequant", {1: zeros, 2: 19}) == 2.0**-17).all()


def dequant_without_values(_: str) -> None:
    for format in ("q5_0", "q5_1", "nf3", "q2_k", "iq1_s", "q6_k", "q4_k", "q5_k", "fp6"):
        x, w = real(1, 256), weight(format, 2, 256)
        assert not written(over_nan("dequant", {0: x, 1: w, 2: FORMATS[format].code}, (2, 256))).any()


def dequant_cut_block(_: str) -> None:
    y = over_nan("dequant", {0: real(1, 320), 1: weight("iq2_xxs", 4, 256), 2: 21}, (3, 320))
    assert written(y).view(-1)[:768].all() and not written(y).view(-1)[768:].any()


def rows_without_values(_: str) -> None:
    assert not written(over_nan("dequantize_rows", {1: weight("q6_k", 3, 256), 2: 26}, (1, 2, 256))).any()


def rows_of_whole_blocks(_: str) -> None:
    y = over_nan("dequantize_rows", {3: 320}, (1, 2, 320))
    assert written(y).view(-1)[:512].all() and not written(y).view(-1)[512:].any()


def row_behind_the_weight(_: str) -> None:
    w, behind = weight("q4_k", 4, 256), torch.tensor([[3]], device="xpu")
    assert torch.equal(*(call("dequantize_rows", {0: behind, 1: w[:size]}) for size in (144 * 4, 144 * 3)))


def rows_behind_the_input(_: str) -> None:
    x = real(4, 256)
    assert torch.equal(*(call("batch_forward", {0: x[:rows], 2: 4}) for rows in (4, 2)))


def unknown_class(_: str) -> None:
    assert torch.equal(call("batch_forward"), call("batch_forward", {6: 99}))


def small_c(_: str) -> None:
    room = torch.full((2, 3, 5), NAN, device="xpu")
    call("bmm", {2: room[:1]})
    assert written(room).all()


def qkv_on_cpu(name: str) -> None:
    keys, values = torch.zeros(2, 1, 1, 7, 64)[..., :3, :]
    query, *_ = call(name, {4: torch.zeros(1, 1, dtype=torch.int64), 5: keys, 6: values})
    assert torch.equal(query, call(name)[0]) and query.device.type == "xpu"


def next_head_s_row(name: str) -> None:
    room = torch.zeros(7 * 64, device="xpu")
    keys = room[: 6 * 64].view(1, 2, 3, 64)
    call(name, {2: weight("q4_0", 128, 64), 5: keys})
    assert (keys[0, 1, 0] != 0).all()


def beyond_the_cache(name: str) -> None:
    room = torch.zeros(1, 1, 8, 64, device="xpu")
    (_, keys, _) = call(name, {5: room[:, :, :3], 9: 6})
    assert (room[0, 0, 6] != 0).all() and keys.shape == (1, 1, 4, 64)


def more_heads_than_the_cache(name: str) -> None:
    room = torch.zeros(1, 2, 8, 64, device="xpu")
    call(name, {2: weight("q4_0", 128, 64), 5: room[:, :1, :3]})
    assert (room[0, 1, 3] != 0).all()


def partial_head(name: str) -> None:
    assert call(name, {5: cache(1, 3, 48), 6: cache(2, 3, 48), 10: 48})[0].shape == (1, 1, 1, 48)


def many_positions(name: str) -> None:
    assert torch.equal(call(name)[0], call(name, {4: positions(1, 7)})[0])


def short_bias(name: str) -> None:
    room = real(64)
    assert torch.equal(call(name, {4: room[:32]})[0], call(name, {4: room})[0])


def rows_of_the_gate(name: str) -> None:
    x = real(3, 64)
    assert torch.equal(call(name, {0: x}), call(name, {0: x[:1]}))


def lost_outputs(name: str) -> None:
    for format in ("q4_0", "fp4"):
        w = weight(format, 8, 64)
        y = over_nan(name, {1: w, 2: w, 5: 7, 7: FORMATS[format].code}, (1, 7))
        assert written(y)[0, :6].all() and not written(y)[0, 6]


def strided_input(name: str) -> None:
    x = real(1, 128)
    assert torch.equal(call(name, {0: x[:, ::2]}), call(name, {0: x[:, :64].clone()}))


def larger_sizes(name: str) -> None:
    x, w = real(1, 128), weight("q4_0", 8, 128)
    assert torch.equal(*(call(name, {0: x[:, :size], 1: w, 2: w, 4: 128}) for size in (64, 128)))


def packed(name: str, place: int, room: torch.Tensor, view: torch.Tensor) -> None:
    """The view is read as if its elements lay one behind the other."""
    same = room.flatten()[: view.numel()].view(view.shape).clone()
    assert torch.equal(call(name, {place: view}), call(name, {place: same}))


def packed_caches(name: str) -> None:
    room = codes(1, 1, 3, 128) if "fp8" in name else real(1, 1, 3, 128)
    for place in (1, 2) if name.startswith("sdp") else (1,):
        packed(name, place, room, room[..., :64])


def packed_query(name: str) -> None:
    room, packed_rows = real(1, 1, 1, 128), real(1, 1, 1, 128)[..., :64].clone()
    one = {1: real(1, 1, 1, 64), 2: real(1, 1, 1, 64)}
    assert torch.equal(call(name, {0: room[..., ::2], **one}), call(name, {0: packed_rows, **one}))


def packed_mask(name: str) -> None:
    room = real(1, 1, 1, 6)
    one = {0: real(1, 1, 1, 64)}
    assert torch.equal(call(name, {3: room[..., ::2], **one}), call(name, {3: room[..., :3].clone(), **one}))


def no_weight_in_a_row(name: str) -> None:
    mask = torch.zeros(1, 1, 3, 3, device="xpu")
    mask[:, :, 1] = -INF
    y = call(name, {3: mask})
    assert not written(y)[:, :, 1].any() and written(y)[:, :, 0].all()
    none = {place: ARGUMENTS[name]()[place][:, :, :0] for place in (1, 2)}
    assert not written(call(name, none)).any()


def large_logits(name: str) -> None:
    y = call(name, {0: real(1, 2, 3, 64) * 1000}).cpu()
    assert (torch.isnan(y) | (y == 0)).all()


def small_logits(name: str) -> None:
    assert not written(call(name, {0: real(1, 2, 3, 64) * -1000})).any()


def clamped(name: str) -> None:
    for number, key, value in ((0.0, 0.0020751953125, 0.0002593994140625), (INF, 124, 15.5), (-1e6, -124, -15.5)):
        arguments = ARGUMENTS[name]()
        arguments[0].fill_(number), arguments[1].fill_(number)
        orrery_ops.quantize_key_value(*arguments)
        back = [real(1, 1, 3, 64), real(1, 1, 3, 64)]
        orrery_ops.dequantize_key_value(*arguments[2:], *back)
        assert (back[0] == key).all() and (back[1] == value).all()


def packed_key(name: str) -> None:
    room, out = real(1, 1, 1, 128), [codes(1, 1, 1, 64) for _ in range(4)]
    call(name, {0: room[..., ::2], 1: room[..., :64], 2: out[0], 3: out[1]})
    call(name, {0: room[..., :64], 1: room[..., :64], 2: out[2], 3: out[3]})
    assert torch.equal(out[0], out[2])


def half_products(name: str) -> None:
    keys = torch.full((1, 1, 3, 64), 127, dtype=torch.uint8, device="xpu")
    assert (call(name, {0: real(1, 2, 1, 64) * 100, 1: keys}) == INF).all()


def packed_rows(name: str) -> None:
    room = real(2, 128)
    packed(name, 1, room, room[:, :64])


def bfloat_beyond_half(name: str) -> None:
    assert not torch.isfinite(call(name, {0: real(64).to(BFLOAT), 1: (real(2, 64) * 1e6).to(BFLOAT)})).any()


def zero_row(name: str) -> None:
    assert not written(call(name, {1: torch.zeros(2, 64, device="xpu"), 2: 0.0})).any()


LARGEST = 1024  # work-group


def too_long(name: str) -> None:
    for dtype, most in ((HALF, 16), (BFLOAT, 16), (torch.float32, 8), (DOUBLE, 4)):
        y = call(name, {0: real(1, most * LARGEST + 1, dtype=dtype), 2: None, 3: None})
        assert (y.shape, y.device.type) == ((0,), "cpu")


def no_whole_vectors(name: str) -> None:
    for dtype in (HALF, torch.float32, DOUBLE):
        length = LARGEST + 1
        y = over_nan(name, {0: real(1, length, dtype=dtype), 2: None, 3: None}, (1, length), dtype)
        assert not written(y).any()


def unaligned(name: str) -> None:
    length = LARGEST + 2
    x = real(length + 1)[1:].view(1, length)
    assert not written(over_nan(name, {0: x, 2: None, 3: None}, (1, length))).any()
    assert written(over_nan(name, {0: x.clone(), 2: None, 3: None}, (1, length))).all()


def short_layer_rows(name: str) -> None:
    x = real(2, 16)
    y = call(name, {0: x, 2: None, 3: None, 4: 0.25})
    assert torch.equal(y, x * 2)  # 1 / sqrt(0.25)
    assert differs(call(name, {0: real(2, 17), 2: None, 3: None, 4: 0.25}), real(2, 17) * 2)


def other_shape(name: str) -> None:
    assert torch.equal(call(name), call(name, {1: (7,)}))


def short_scale(name: str) -> None:
    room = real(64)
    assert torch.equal(*(call(name, {2: room[:size]}) for size in (32, 64)))


def small_eps(name: str) -> None:
    zeros = torch.zeros(2, 64, dtype=HALF, device="xpu")
    for eps, zero in ((2e-8, False), (1e-7, True)):
        assert written(call(name, {0: zeros, 2: None, 4: eps})).all() == zero


def short_key(name: str) -> None:
    room = real(1, 1, 3, 64)
    call(name, {3: room[:, :, :2]})
    assert differs(room[0, 0, 2], real(1, 1, 3, 64)[0, 0, 2])


def turned(name: str, changes: dict[int, Any] | None = None) -> torch.Tensor:
    arguments = ARGUMENTS[name]()
    for place, value in (changes or {}).items():
        arguments[place] = value
    getattr(orrery_ops, name)(*arguments)
    return arguments[2]


def short_positions(name: str) -> None:
    assert torch.equal(turned(name), turned(name, {1: positions(1, 3)[:, :2]}))


def one_tensor_twice(name: str) -> None:
    once, both = turned(name), real(1, 2, 3, 64)
    twice = turned(name, {2: once.clone()})
    turned(name, {2: both, 3: both})
    assert torch.equal(both, twice) and differs(both, once)


def large_positions(name: str) -> None:
    at = [torch.full((1, 3), number, device="xpu") for number in (1 << 24, (1 << 24) + 1)]
    assert torch.equal(*(turned(name, {1: number}) for number in at))


def second_halves(name: str) -> None:
    sines = real(1, 1, 3, 64)
    sines[..., 32:] = NAN
    outputs = []
    for table in (sines, real(1, 1, 3, 64)):
        arguments = ARGUMENTS[name]()
        arguments[2] = arguments[3] = table
        getattr(orrery_ops, name)(*arguments)
        outputs.append(arguments[4])
    assert torch.equal(*outputs)


def packed_time(name: str) -> None:
    room = real(1, 2, 64)
    packed(name, 2, room, room[..., :32])


def small_states(name: str) -> None:
    room = torch.zeros(2, 32, device="xpu")
    call(name, {2: real(2, 2, 32), 3: real(2, 2, 32), 4: room[:1], 5: real(2, 32), 6: real(2, 32)})
    assert (room[1] != 0).all()


def strides_of_the_key(name: str) -> None:
    room = real(1, 2, 3, 128)
    packed(name, 4, room, room[..., :64])


def rows_of_mix(name: str) -> None:
    mix = real(2, 2, 64)
    assert torch.equal(call(name, {2: mix}), call(name, {2: mix.view(4, 1, 64)[:2]}))


def experts_on_the_device(name: str) -> None:
    assert call(name, {0: ARGUMENTS[name]()[0].to("xpu")}) == call(name)


# --- All rows: a call that fails as the page says, or a check, or the test that has it --------------------------------

Case = Callable[[str], Any] | dict[int, Any] | str


def byte_key(name: str, *sizes: int) -> torch.Tensor:
    return codes(*sizes) if "fp8" in name else real(*sizes)


def attention_with(query: tuple[int, ...] = (1, 2, 3, 64), key: tuple[int, ...] = (1, 1, 3, 64),
                   value: tuple[int, ...] | None = None) -> Callable[[str], Any]:  # fmt: skip
    return lambda name: call(name, {0: real(*query), 1: byte_key(name, *key), 2: byte_key(name, *(value or key))})


def of_type(dtype: torch.dtype) -> Callable[[str], Any]:
    """All real tensors of another type."""
    return lambda name: call(
        name, {i: v.to(dtype) for i, v in enumerate(ARGUMENTS[name]()) if torch.is_tensor(v) and v.is_floating_point()}
    )


def dimensions(name: str, to: Callable[[torch.Tensor], torch.Tensor]) -> Any:
    return call(name, {i: to(v) for i, v in enumerate(ARGUMENTS[name]()) if torch.is_tensor(v)})


def with_argument(name: str, change: Callable[[torch.Tensor], torch.Tensor], place: int) -> Any:
    return call(name, {place: change(ARGUMENTS[name]()[place])})


def rotary_of(size: int, name: str) -> Any:
    if name.endswith("freq"):
        return call(name, {i: real(1, 1, 3, size) for i in range(6)})
    shapes = [0, 1, 3, 4] if name.endswith("q_and_k") else [0, 2]
    return call(name, {i: real(1, 1, 3, size) for i in shapes})


def place_of_positions(name: str) -> int:
    return 2 if name.endswith("q_and_k") else 1


def place_of_output(name: str) -> int:
    return {"q_and_k": 3, "q_or_k": 2, "freq": 4}[re.search("q_and_k$|q_or_k$|freq$", name)[0]]  # type: ignore[index]


CASES: dict[str, Case] = {
    # All functions
    "an argument of another type, or one too few": lambda name: getattr(orrery_ops, name)(1, 2),
    "a keyword": lambda name: getattr(orrery_ops, name)(real(64), real(2, 64), eps=1e-5),
    "tensors on the CPU": cpu_tensors,
    # Linear layer
    "`input` on the CPU": {0: torch.ones(1, 64)},
    "`weight` on the CPU": {1: torch.ones(34, dtype=torch.uint8)},
    "forward_new: `input` not contiguous": {0: real(1, 128)[:, ::2]},
    "forward_new: a code without a kernel": {2: 22},
    "no columns": {0: real(1, 0)},
    "forward_new: integers as `input`": {0: real(1, 64).long()},
    "forward_new: `input` of one dimension": {0: real(64)},
    "columns that are no multiple of 16 (8-bit formats: of 8)": {0: real(1, 1000)},
    "q5_0 and others, many rows, columns that are no multiple of 64": lambda _: forward("q5_0", real(21, 48), 4),
    "iq2_xxs, q2_k, iq1_s, one row, columns that are no multiple of 256": lambda _: forward("q2_k", real(1, 320), 4),
    "fp6, several rows of float64 or bfloat16": lambda _: forward("fp6", real(2, 64, dtype=BFLOAT), 4),
    "`TILE_SIZE` is no number": lambda name: with_setting({"TILE_SIZE": "x"}, lambda: call(name)),
    "`TILE_SIZE` is too large a number": lambda name: with_setting({"TILE_SIZE": "9" * 30}, lambda: call(name)),
    "`TILE_SIZE` is 0 where a weight is dequantized in bands": lambda name: with_setting(
        {"TILE_SIZE": "0", "TILE_THRESHOLD": "0", "KELPIE_LLM_LOW_MEM": "1"},
        lambda: call(name, {0: real(21, 64), 1: weight("q4_0", 8, 64), 3: 129}),
    ),
    "q4_0, q4_1, q8_0, fp4, fp6, fp8_e5m2, many rows of float16 or float32, blocks that are no multiple of 8 "
    "(q8_0, fp8_e5m2: of 4)": {0: real(21, 64)},
    "the matrix engine (device classes 0 to 2, q4_0, q8_0, fp8, outputs a multiple of 16), float64":
        "test_dotgrid.py::test_another_type_ends_the_process",
    "the matrix engine, columns that are no multiple of 64":
        "test_dotgrid.py::test_sizes_that_no_tile_divides_end_the_process",
    "q4_0 (8 to 20 rows), q4_1 (2 to 20), nf4 (2 to 14), an odd number of outputs": odd_outputs,
    "columns that are a multiple of 16 but not of the block's 64": rows_inside_blocks,
    "q5_0, q5_1, one row, columns that are no multiple of 64": behind_the_row,
    "q4_k, q5_k, q6_k, one row, columns that are no multiple of 256": cut_super_blocks,
    "super-block and grid formats, many rows, columns that are a multiple of 64 but not of 256":
        "test_linear_dense.py::test_the_last_part_of_a_block_is_not_written",
    "q5_0, q5_1, one row, device class 0, columns that are an odd multiple of 64": next_row_s_block,
    "bytes that make no whole block or row": dropped_bytes,
    "a weight of other columns, or of another format": other_columns,
    "a weight that is no byte tensor": no_bytes,
    "forward_new: `input` of three dimensions": third_dimension,
    "float16 sums beyond 65504": "test_linear_xpu_kernel.py::test_a_half_row_overflows_inside_the_sum",
    "2^31 elements or more in a format with a scale plane": "test_dispatch.py::test_scale_plane_in_32_bits",
    "fp8_e5m2 with scales": unread_scales,
    "a code that is no format": {2: 5},
    "columns that are no multiple of 64": {0: real(1, 48)},
    "q5_0, q5_1, nf3, and all formats from 22 on": dequant_without_values,
    "iq2_xxs, columns that are a multiple of 64 but not of 256": dequant_cut_block,
    "numbers of rows in int32": {0: positions(1, 2).int()},
    "a row size that is no multiple of 64": {3: 100},
    "formats other than q2_k and q4_k": rows_without_values,
    "a row size that is a multiple of 64 but not of 256": rows_of_whole_blocks,
    "a number beyond the last row": row_behind_the_weight,
    "batch_forward: a format without a kernel": {5: 10},
    "batch_forward: float64": {0: real(2, 256).double()},
    "no rows on device class 4": {2: 0, 6: 4},
    "columns that are no multiple of 256": {3: 64},
    "outputs that are no multiple of the group, 8 to 32": {4: 20},
    "more than 64 rows": {2: 65},
    "more rows than `input` has": rows_behind_the_input,
    "a device class that does not exist": unknown_class,
    "`A` or `B` not of three dimensions": {0: real(3, 4)},
    "`A` and `B` that do not fit": {1: real(2, 5, 6)},
    "another type than float32": of_type(HALF),
    "`C` that is too small": small_c,
    # Fused layers
    "more than one row": lambda name: with_argument(name, lambda t: t.repeat(*[1] * (t.dim() - 2), 2, 1), 0),
    "forward_qkv: a format without a kernel": {7: 8, 8: 8},
    "a value's code that is no format": {8: 5},
    "forward_qkv: columns that are no multiple of 16 (fp8_e5m2: of 8)": {0: real(1, 88)},
    "forward_qkv: integers as `input`": {0: real(1, 64).long()},
    "a head size below 2": {10: 1},
    "a cache of three dimensions": {5: real(1, 3, 64)},
    "a cache of another type": {5: real(1, 1, 8, 64, dtype=HALF)[:, :, :3]},
    "a cache without room for one more row": {5: real(1, 1, 3, 64)},
    "forward_qkv: positions in int32": {4: positions(1, 1).int()},
    "a bias of another type": {4: real(64, dtype=HALF)},
    "positions and caches on the CPU": qkv_on_cpu,
    "a cache with room behind its last head only": next_head_s_row,
    "`kv_seq_len` beyond the cache": beyond_the_cache,
    "more key rows than the cache has heads": more_heads_than_the_cache,
    "a head size that does not divide the rows": partial_head,
    "an odd head size": lambda name: rotary_of(63, name)
        if name.startswith("apply")
        else existing("test_fused_qkv.py::test_the_last_element_of_an_odd_head_is_not_written"),
    "several positions": many_positions,
    "a bias that is too short": short_bias,
    "biases with iq2_xxs": "test_fused_qkv.py::test_a_bias_of_iq2_xxs_is_dropped",
    "iq2_xxs with a value weight other than q2_k":
        "test_fused_qkv.py::test_the_value_weight_of_iq2_xxs_is_q2_k_whatever_its_code_says",
    "a `batch_size` other than 1": {3: 2},
    "mlp_forward_xpu: a format without a kernel": {7: 8},
    "iq2_xxs on device classes 1 to 4": {7: 21},
    "mlp_forward_xpu: columns that are no multiple of 16 (fp8_e5m2: of 8)": {4: 40},
    "mlp_forward_xpu: integers as `input`": {0: real(1, 64).int()},
    "q4_0, fp4, an odd number of outputs (class 5, q4_0: no multiple of 8)": lost_outputs,
    "`input` of several rows": rows_of_the_gate,
    "mlp_forward_xpu: `input` not contiguous": strided_input,
    "sizes larger than the tensors": larger_sizes,
    # Attention
    "batches that differ": lambda name: call(name, {0: real(2, 2, 1, 64)})
        if name == "query_key_fp8_matmul" else attention_with(query=(2, 2, 3, 64))(name),
    "head sizes that differ": lambda name: call(name, {5: real(1, 1, 3, 32)})
        if name.startswith("apply") else attention_with(query=(1, 2, 3, 128))(name),
    "heads that are no multiple of the key heads": attention_with(key=(1, 3, 3, 64)),
    "keys and values of different lengths": attention_with(value=(1, 1, 4, 64)),
    "types that differ": lambda name: with_argument(name, lambda t: t.half(), 0),
    "another number of keys than rows": attention_with(key=(1, 1, 4, 64)),
    "a mask of another batch": {3: real(2, 1, 3, 3)},
    "a mask of another number of heads": {3: real(1, 3, 3, 3)},
    "a mask of another number of rows": {3: real(1, 1, 2, 3)},
    "a mask of another length": {3: real(1, 1, 3, 2)},
    "a head size other than 64, 96, 128": lambda name: any_head_size(name),
    "bfloat16 or float64": of_type(BFLOAT),
    "a mask of integers or Booleans": {3: torch.ones(1, 1, 3, 3, dtype=torch.bool, device="xpu")},
    "caches that are not uint8": lambda name: with_argument(name, lambda t: t.float(), 1),
    "three dimensions": lambda name: with_argument(name, lambda t: t[0], 0),
    "keys and values with a row stride of their own": packed_caches,
    "a query without unit stride in a row": packed_query,
    "a mask without unit stride in a row": packed_mask,
    "a row that is masked in full, or no keys": no_weight_in_a_row,
    "logits above 88.7": large_logits,
    "logits far below -88 in a whole row": small_logits,
    "`key` and `value` of different types": {1: real(1, 1, 3, 64, dtype=HALF)},
    "outputs of different types": {3: real(1, 1, 3, 64, dtype=HALF)},
    "tensors of different lengths": lambda name: with_argument(name, lambda t: t[:, :, :2], 1),
    "bfloat16": lambda name: call(name, {i: real(*s, dtype=BFLOAT) for i, s in enumerate([(32,), 0, (1, 2, 3, 64),
                                  (1, 1, 3, 64)]) if s}) if "rotary" in name else of_type(BFLOAT)(name),
    "an output that is not uint8": {2: real(1, 1, 3, 64)},
    "numbers out of range, and 0": clamped,
    "a key without unit stride in a row": packed_key,
    "heads that are no multiple of the cache's": {1: codes(1, 3, 3, 64)},
    "another number of weights than values": {0: real(1, 2, 1, 4)},
    "a cache with a row stride of its own": packed_caches,
    "float32 products beyond 65504": half_products,
    # Normalization
    "columns that are no multiple of 32": {0: real(65), 1: real(2, 65)},
    "more than 8192 columns": {0: real(8224), 1: real(2, 8224)},
    "`weight` of two dimensions": {0: real(1, 64)},
    "rms_norm: `input` of three dimensions": {1: real(2, 64, 1)},
    "`weight` of another length": {0: real(32)},
    "rms_norm: float64": of_type(DOUBLE),
    "rms_norm: `input` of one dimension": {1: real(64)},
    "rows that are not packed": packed_rows,
    "bfloat16 beyond 65504": bfloat_beyond_half,
    "a row of zeros with `eps` 0": zero_row,
    "rows that are too long": too_long,
    "rows longer than the largest work-group, no multiple of the vector (2, 4 or 8)": no_whole_vectors,
    "such rows at an address that is no multiple of the vector": unaligned,
    "rows of fewer than 17 elements": short_layer_rows,
    "a `normalized_shape` with other sizes": other_shape,
    "a weight that is too short": short_scale,
    "float16, an `eps` below 6e-8": small_eps,
    "integers": of_type(torch.int32),
    "a weight of another type": {2: real(64, dtype=HALF)},
    # Rotary embedding
    "`inv_freq` on the CPU": {0: torch.ones(32)},
    "`position_ids` on the CPU": {1: torch.zeros(1, 3, dtype=torch.int64)},
    "`inv_freq` not contiguous": {0: real(64)[::2]},
    "`position_ids` not contiguous": {1: positions(1, 6)[:, ::2]},
    "another number of frequencies than half a head": {0: real(64)},
    "positions in int32": lambda name: with_argument(name, lambda t: t.int(), place_of_positions(name)),
    "a key of fewer positions than the query": short_key,
    "fewer positions than rows": short_positions,
    "one tensor as query and key": one_tensor_twice,
    "positions above 2^24": large_positions,
    "tensors that have not 4 dimensions": lambda name: with_argument(name, lambda t: t[0], 0),
    "positions that have not 2 dimensions": lambda name: with_argument(name, lambda t: t[0], place_of_positions(name)),
    "no positions": lambda name: with_argument(name, lambda t: t[:, :0], place_of_positions(name)),
    "an output of another type": lambda name: with_argument(name, lambda t: t.half(), place_of_output(name)),
    "tensors of different numbers of dimensions": {2: real(1, 3, 64)},
    "second halves of sines and cosines that differ from the first": second_halves,
    "positions of another number than the rows": "test_rope_xpu.py::test_the_sequence_is_as_long_as_the_positions_say",
    "apply_rotary_embedding_half_q_and_k: float64": "test_rope_xpu.py::test_double_turns_in_float",
    # RWKV and experts
    "rwkv_linear_attention_v4: `time_decay` of two dimensions": {0: real(1, 32)},
    "`key` of two dimensions": {2: real(2, 32)},
    "rwkv_linear_attention_v4: a state of three dimensions": {4: real(1, 1, 32)},
    "`time_decay` of another type": {0: real(32, dtype=HALF)},
    "channels that are no multiple of 32": {0: real(40), 1: real(40), 2: real(1, 2, 40), 3: real(1, 2, 40)},
    "a state or a value of another type": {3: real(1, 2, 32, dtype=HALF)},
    "tensors that are not packed": packed_time,
    "states of a smaller batch": small_states,
    "`time_decay` of one dimension": {0: real(64)},
    "rwkv_linear_attention_v5: a state of three dimensions": {5: real(2, 64, 64)},
    "a state that is not contiguous": {5: real(1, 2, 64, 64).transpose(2, 3)},
    "a head size other than 64": {2: real(1, 2, 3, 32), 3: real(1, 2, 3, 32), 4: real(1, 2, 3, 32)},
    "values with strides of their own": strides_of_the_key,
    "two dimensions": {0: real(3, 64)},
    "channels that differ": {1: real(1, 3, 128)},
    "tensors that are not contiguous": {1: real(1, 3, 128)[..., ::2]},
    "channels that are no multiple of 64": {0: real(1, 3, 80), 1: real(1, 3, 80), 2: real(2, 1, 80)},
    "several rows per mix vector": rows_of_mix,
    "one dimension": {0: torch.zeros(3, dtype=torch.int32)},
    "experts that are not contiguous": {0: torch.zeros(2, 3, dtype=torch.int32).T},
    "experts in int64": {0: torch.zeros(2, 2, dtype=torch.int64)},
    "a negative number of experts": {1: -1},
    "experts on the device": experts_on_the_device,
    "an expert number that is not from 0 to `num_experts` - 1": {0: torch.full((1, 1), 1 << 30, dtype=torch.int32)},
}  # fmt: skip


def any_head_size(name: str) -> Any:
    if name.startswith("rotary"):
        return call(name, {0: real(40), 2: real(1, 2, 3, 80), 3: real(1, 1, 3, 80)})
    if name.endswith("key_value"):
        return dimensions(name, lambda t: t[..., :32])
    return attention_with((1, 2, 3, 80), (1, 1, 3, 80))(name)


def existing(test: str) -> None:
    file, function = test.split("::")
    assert f"def {function}(" in (ROOT / "tests" / file).read_text(), test


def case_of(row: Row) -> Case:
    return CASES.get(f"{names(row)[0]}: {row[1]}") or CASES[row[1]]


def run(row: Row, name: str) -> Any:
    case = case_of(row)
    return call(name, case) if isinstance(case, dict) else case(name)  # type: ignore[operator]


def check_ends(row: Row, name: str) -> None:
    text = last_words(lambda: run(row, name))
    assert f"Assertion `{row[3].strip('`')}' failed." in text


def check_raises(row: Row, name: str) -> None:
    kind, text = re.fullmatch(r"`(\w+)`: `(.*)`", row[3]).groups()  # type: ignore[union-attr]
    with pytest.raises(Exception) as caught:
        run(row, name)
    got = str(caught.value).replace("\n", " ")
    if text.endswith("..."):
        got = got[: len(text) - 3] + "..."
    assert (type(caught.value).__name__, got) == (kind, text)


def check_undefined(row: Row, name: str) -> None:
    pid = os.fork()
    if pid == 0:
        faulthandler.disable()
        os.dup2(os.open(os.devnull, os.O_WRONLY), 2)
        run(row, name)
        os._exit(0)
    assert os.WIFSIGNALED(os.waitpid(pid, 0)[1])  # in this case


CHECKS = {ENDS: check_ends, RAISES: check_raises, SILENT: run, UNDEFINED: check_undefined}
ALL = [(row, name) for row in rows() for name in names(row)]


@pytest.mark.parametrize("row, name", ALL, ids=[f"{name}: {row[1]}" for row, name in ALL])
def test_a_row(row: Row, name: str) -> None:
    case = case_of(row)
    if isinstance(case, str):
        existing(case)
    else:
        CHECKS[row[2]](row, name)


def test_every_case_is_a_row_and_every_function_has_one() -> None:
    keys = {row[1] for row in rows()} | {f"{names(row)[0]}: {row[1]}" for row in rows()}
    assert not set(CASES) - keys
    assert {name for row in rows() for name in names(row)} == set(ARGUMENTS)
    assert len(rows()) > 150
