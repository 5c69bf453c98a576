"""Which fused operations a decoding step can take, and a sentence on why not where it cannot."""

from __future__ import annotations

from collections.abc import Callable

import orrery_ops
import torch

from orrery.formats import Format

_HALF_A_STEP = "{} reads a code of fp8_e5m2 half a step nearer to zero than a product does"
# Why a step does without an operation that has a kernel for its format.
UNFIT = {
    ("forward_qkv", "iq2_xxs"): "forward_qkv takes the value's weight in q2_k if the others are in iq2_xxs",
    ("forward_qkv", "fp8_e5m2"): _HALF_A_STEP.format("forward_qkv"),
    ("mlp_forward_xpu", "fp8_e5m2"): _HALF_A_STEP.format("mlp_forward_xpu"),
}


def qkv_refusal(fmt: Format, dtype: torch.dtype, device: torch.device) -> str:
    """Why `forward_qkv` does not serve query, key and value in this format and type; empty if it does."""
    if ("forward_qkv", fmt.name) in UNFIT:
        return UNFIT["forward_qkv", fmt.name]
    size, code = fmt.elements, fmt.code
    x, weight, caches = _row(size, dtype, device), _matrix(fmt, device), _row(2 * size, dtype, device)
    keys, values = caches.view(2, 1, 1, 1, size).narrow(3, 0, 0)
    position = torch.zeros(1, dtype=torch.int64, device=device)
    refusal = _refusal(
        lambda: orrery_ops.forward_qkv(x, weight, weight, weight, position, keys, values, code, code, 0, size))
    # It writes its own type into the cache, which for this one holds float32.
    return refusal or ("forward_qkv in bfloat16 would need attention in that type" if dtype == torch.bfloat16 else "")


def mlp_refusal(fmt: Format, dtype: torch.dtype, device: torch.device) -> str:
    """Why `mlp_forward_xpu` does not serve gate and up in this format and type; empty if it does."""
    if ("mlp_forward_xpu", fmt.name) in UNFIT:
        return UNFIT["mlp_forward_xpu", fmt.name]
    size = fmt.elements
    x, weight = _row(size, dtype, device), _matrix(fmt, device)
    return _refusal(lambda: orrery_ops.mlp_forward_xpu(x, weight, weight, 1, size, size, 0, fmt.code))


def _row(size: int, dtype: torch.dtype, device: torch.device) -> torch.Tensor:
    return torch.zeros(1, size, dtype=dtype, device=device)


def _matrix(fmt: Format, device: torch.device) -> torch.Tensor:
    return torch.zeros(fmt.size(fmt.elements, fmt.elements), dtype=torch.uint8, device=device)


def _refusal(call: Callable[[], object]) -> str:
    """The sentence that a call fails with. Which kernels there are depends on the kind of device, so it is tried."""
    try:
        call()
    except RuntimeError as error:
        return str(error).removeprefix("orrery_ops: ")
    return ""
