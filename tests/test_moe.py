"""get_moe_indexes: for each expert, in which slots it was picked and by which tokens."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from kernel_reference import last_words
from torch.profiler import ProfilerActivity, profile

import orrery_host
import orrery_ops


def reference(selected: np.ndarray, experts: int) -> list[list[list[int]]]:
    picked = [np.argwhere(selected == e) for e in range(experts)]
    return [[one[:, 1].tolist() for one in picked], [one[:, 0].tolist() for one in picked]]


def indexes(rows: list[list[int]], experts: int) -> list[list[list[int]]]:
    return orrery_ops.get_moe_indexes(torch.tensor(rows, dtype=torch.int32), experts)


def test_slots_then_tokens():
    assert indexes([[1, 0], [1, 2]], 3) == [[[1], [0, 0], [1]], [[0], [0, 1], [1]]]
    assert indexes([[2, 0, 1]], 3) == [[[1], [2], [0]], [[0], [0], [0]]]
    assert indexes([[2], [0], [1]], 3) == [[[0], [0], [0]], [[1], [2], [0]]]


def test_the_same_expert_twice_by_one_token():
    """By token, then by slot."""
    assert indexes([[1, 1, 0], [1, 0, 1]], 2) == [[[2, 1], [0, 1, 0, 2]], [[0, 1], [0, 0, 1, 1]]]


def test_an_expert_that_nobody_picked_has_empty_lists():
    assert indexes([[3, 0]], 5) == [[[1], [], [], [0], []], [[0], [], [], [0], []]]


@pytest.mark.parametrize("tokens, top_k, experts", [(1, 1, 1), (19, 2, 8), (99, 8, 64), (1000, 3, 7), (7, 64, 200)])
def test_agrees_with_a_search(tokens, top_k, experts):
    g = np.random.default_rng(tokens)
    selected = g.integers(0, experts, (tokens, top_k)).astype(np.int32)
    result = orrery_ops.get_moe_indexes(torch.from_numpy(selected), experts)
    assert result == reference(selected, experts)
    assert type(result) is list and {type(one) for one in result} == {list}
    assert {type(one) for half in result for one in half} == {list}
    assert {type(number) for half in result for one in half for number in one} == {int}


def test_the_input_stays_as_it_is():
    selected = torch.tensor([[1, 0], [1, 2]], dtype=torch.int32)
    orrery_ops.get_moe_indexes(selected, 3)
    assert selected.tolist() == [[1, 0], [1, 2]]


@pytest.mark.parametrize("shape", [(0, 2), (0, 0), (3, 0)])
def test_nothing_selected(shape):
    for experts in (0, 1, 4):
        result = orrery_ops.get_moe_indexes(torch.empty(shape, dtype=torch.int32), experts)
        assert result == [[[] for _ in range(experts)] for _ in range(2)]


@pytest.mark.parametrize("experts", [-1, -(2**31)])
@pytest.mark.parametrize("tokens", [0, 2])
def test_a_negative_number_of_experts_is_no_length(experts, tokens):
    with pytest.raises(ValueError) as error:
        orrery_ops.get_moe_indexes(torch.zeros(tokens, 2, dtype=torch.int32), experts)
    assert str(error.value) == "cannot create std::vector larger than max_size()"


def test_a_part_of_a_storage():
    storage = torch.arange(-50, 50, dtype=torch.int32)
    selected = storage[52:58].view(3, 2)  # 2 to 7
    assert orrery_ops.get_moe_indexes(selected, 8) == reference(selected.numpy(), 8)


def test_neither_scope_nor_launch_nor_check_of_the_device():
    """What stands in the memory that the tensor names is read, and a tensor of this device is in host memory."""
    selected = torch.tensor([[1, 0], [1, 2]], dtype=torch.int32)
    with profile(activities=[ProfilerActivity.CPU]) as profiler, orrery_host.record_launches() as launches:
        for device in ("cpu", "xpu"):
            assert orrery_ops.get_moe_indexes(selected.to(device), 3)[0] == [[1], [0, 0], [1]]
    assert not launches
    assert not [event.name for event in profiler.events() if "orrery" in event.name or "moe" in event.name]


@pytest.mark.parametrize("dtype, name", [(torch.int64, "Long"), (torch.int16, "Short"), (torch.float32, "Float"),
                                         (torch.uint8, "Byte")])  # fmt: skip
def test_other_types_fail_at_the_pointer(dtype, name):
    with pytest.raises(RuntimeError) as error:
        orrery_ops.get_moe_indexes(torch.zeros(2, 2, dtype=dtype), 3)
    assert str(error.value) == f"expected scalar type Int but found {name}"


@pytest.mark.parametrize("shape", [(), (4,), (2, 2, 1), (0,)])
@pytest.mark.parametrize("dtype", [torch.int32, torch.int64])
def test_assertion_of_the_dimensions(shape, dtype):
    """Before the strides, and both before the type."""
    selected = torch.zeros(shape, dtype=dtype)
    if len(shape) == 3:
        selected = torch.zeros(2, 4, 2, dtype=dtype)[..., ::2]
    text = last_words(lambda: orrery_ops.get_moe_indexes(selected, 3))
    assert "Assertion `selected_experts.dim() == 2' failed." in text
    assert "linear_xpu.cpp:319:" in text and "get_moe_indexes" in text


@pytest.mark.parametrize("dtype", [torch.int32, torch.int64])
@pytest.mark.parametrize("experts", [3, -1])
def test_assertion_of_the_strides(dtype, experts):
    selected = torch.zeros(2, 3, dtype=dtype).t()
    text = last_words(lambda: orrery_ops.get_moe_indexes(selected, experts))
    assert "Assertion `selected_experts.is_contiguous()' failed." in text
    assert "linear_xpu.cpp:320:" in text and "get_moe_indexes" in text
