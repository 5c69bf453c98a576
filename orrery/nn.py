"""PyTorch modules over quantized weights: one layer, and any model's layers replaced by it."""

from __future__ import annotations

import json
from collections.abc import Callable, Mapping

import torch
from torch import Tensor, nn
from tqdm import tqdm

import orrery_ops  # noqa: F401  registers torch.ops.orrery
from orrery.weight import QuantizedWeight, checked_matrix, find_format, quantize, type_name

_linear = torch.ops.orrery.linear.default
# What a layer's extra state says of its bytes.
_FIELDS = ("format", "requested", "rows", "columns")


class QuantizedLinear(nn.Module):
    """x W^T + bias with W in one of the 17 weight formats: what `nn.Linear` is for a dense W.

    weight: the matrix [out_features, in_features]; its bytes become the buffer `data`
    bias:   [out_features] or None; a parameter stays one, another tensor becomes a buffer

    `forward` takes x [..., in_features] of float32, float16, bfloat16 or float64 on `xpu`, and returns
    [..., out_features] in that type, which must be the bias's too unless autocast is on. It has gradients with respect
    to x and the bias; W has none. There are no kernels for the CPU: there a layer can be made, saved and loaded, and
    `to_linear` gives a dense one that computes.

    Casts (`.half()`, `.to(torch.bfloat16)`) change the bias and never the bytes. A state dict has `data`, `bias` and
    `_extra_state`, which are all tensors, so that safetensors can keep it. `load_state_dict` takes bytes of any format
    for a matrix of the same size: the layer then has that format.
    """

    in_features: int
    out_features: int
    format: str
    requested: str
    data: Tensor
    bias: Tensor | None

    def __init__(self, weight: QuantizedWeight, bias: Tensor | None = None) -> None:
        super().__init__()
        if not isinstance(weight, QuantizedWeight):
            raise TypeError(f"weight must be a QuantizedWeight, not {type(weight).__name__}; from_linear makes one")
        if bias is not None and bias.shape != (weight.rows,):
            raise ValueError(f"bias must be [{weight.rows}], not {list(bias.shape)}")
        self.register_buffer("data", weight.data)
        self._describe(weight)
        if bias is None or isinstance(bias, nn.Parameter):
            self.register_parameter("bias", bias)
        else:
            self.register_buffer("bias", bias)

    @classmethod
    def from_linear(cls, linear: nn.Linear, format: str = "q4_0", progress: bool = True) -> "QuantizedLinear":
        """A layer with the weight of `linear` in that format and the same bias tensor, on its device.

        On the meta device it has no bytes yet: `load_state_dict(..., assign=True)` brings them. Raises what
        `orrery.quantize` raises.
        """
        return cls(quantize(linear.weight, format, progress=progress), linear.bias).train(linear.training)

    @property
    def weight(self) -> QuantizedWeight:
        """The matrix; its bytes are the layer's own."""
        return QuantizedWeight(self.data, self.format, self.out_features, self.in_features, self.requested)

    def to_linear(self, dtype: torch.dtype = torch.float32) -> nn.Linear:
        """A dense layer of the values that the bytes stand for, on their device."""
        linear = nn.Linear(self.in_features, self.out_features, self.bias is not None, device="meta")
        linear.weight = nn.Parameter(self.weight.dequantize(dtype))
        if self.bias is not None:
            linear.bias = nn.Parameter(self.bias.detach().to(dtype, copy=True))
        return linear.train(self.training)

    def forward(self, x: Tensor) -> Tensor:
        if self.data.device.type == "cpu":
            raise ValueError('the weight is on the CPU, which has no kernels for it: move the model by .to("xpu")')
        bias = self.bias
        if bias is not None and bias.dtype != x.dtype and torch.is_autocast_enabled("xpu"):
            bias = bias.to(x.dtype)
        return _linear(x, self.data, self._code, self.out_features, self.in_features, bias)

    def extra_repr(self) -> str:
        asked = f" (asked for as {self.requested})" if self.requested != self.format else ""
        return (f"in_features={self.in_features}, out_features={self.out_features}, bias={self.bias is not None}, "
                f"format={self.format}{asked}, {self.data.numel():,} bytes")

    def register_parameter(self, name: str, param: nn.Parameter | None) -> None:
        if name == "weight":  # what ties a head to an embedding assigns one
            raise TypeError("a quantized layer takes no dense weight, so it cannot be tied to another one's")
        super().register_parameter(name, param)

    def _describe(self, weight: QuantizedWeight) -> None:
        self.out_features, self.in_features = weight.shape
        self.format, self.requested, self._code = weight.format, weight.requested, weight.code

    def _apply(self, fn: Callable[[Tensor], Tensor], recurse: bool = True) -> "QuantizedLinear":
        def apply(tensor: Tensor) -> Tensor:
            # `.type()` casts integers too.
            result = fn(tensor)
            return tensor.to(result.device) if tensor is self.data and result.dtype != torch.uint8 else result

        return super()._apply(apply, recurse)

    def get_extra_state(self) -> Tensor:
        """Format and sizes as JSON in a byte tensor: safetensors keeps nothing but tensors."""
        fields = (self.format, self.requested, self.out_features, self.in_features)
        return torch.tensor(list(json.dumps(dict(zip(_FIELDS, fields))).encode()), dtype=torch.uint8)

    def set_extra_state(self, state: Tensor) -> None:
        """Does nothing: the bytes can only be loaded when the format is known, so it is read before them."""

    def _load_from_state_dict(self, state: dict, prefix: str, metadata: dict, strict: bool, missing: list[str],
                              unexpected: list[str], errors: list[str]) -> None:  # fmt: skip
        try:
            loaded = self._from_state(state, prefix)
        except (TypeError, ValueError) as error:
            errors.append(f"{prefix.removesuffix('.') or 'the layer'}: {error}.")
            return
        if loaded is not None:
            self._describe(loaded)
            if loaded.data.shape != self.data.shape:
                self.data = torch.empty_like(loaded.data, device=self.data.device)
        super()._load_from_state_dict(state, prefix, metadata, strict, missing, unexpected, errors)

    def _from_state(self, state: dict, prefix: str) -> QuantizedWeight | None:
        """The weight in a state dict, or None if it has none; TypeError or ValueError if it does not fit this layer."""
        if f"{prefix}weight" in state:
            raise ValueError("the state dict has a dense weight: load it before the layer is quantized")
        data, extra = state.get(f"{prefix}data"), state.get(f"{prefix}_extra_state")
        if data is None:
            return None
        if extra is None:
            raise ValueError("the state dict has the bytes of a weight without their format")
        fields = _read_extra_state(extra)
        if (fields["rows"], fields["columns"]) != (self.out_features, self.in_features):
            raise ValueError(f"the state dict has a weight of {fields['rows']} x {fields['columns']}, "
                             f"the layer one of {self.out_features} x {self.in_features}")
        return QuantizedWeight(data, **fields)


def _read_extra_state(extra: Tensor) -> dict:
    try:
        fields = json.loads(bytes(extra.tolist()))
        return {name: fields[name] for name in _FIELDS}
    except (AttributeError, KeyError, TypeError, ValueError):
        raise ValueError("the state dict's format and sizes of a weight are damaged") from None


def quantize_(model: nn.Module, format: str = "q4_0", filter_fn: Callable[[nn.Module, str], bool] | None = None,
              progress: bool = True) -> nn.Module:
    """Replaces a model's `nn.Linear` layers by `QuantizedLinear` ones, in place, and returns the model.

    filter_fn: called with each linear layer and its name, for example `lambda layer, name: name != "lm_head"`; default:
               all of them
    progress:  show a bar if it takes longer than two seconds

    Subclasses of `nn.Linear` stay as they are, since their `forward` may be another. A layer that is used in several
    places stays one layer. A weight that other modules use too, such as an embedding that is also a language model's
    head, stays dense there. A replaced layer's hooks are lost. Raises TypeError or ValueError, which name the layer, if
    one of them cannot be quantized; the model is then unchanged.
    """
    if type(model) is nn.Linear:
        raise TypeError("the model is itself a linear layer: QuantizedLinear.from_linear makes a quantized one of it")
    layers = {layer: name for name, layer in model.named_modules()
              if type(layer) is nn.Linear and (filter_fn is None or filter_fn(layer, name))}
    if not layers:
        raise ValueError(f"the model has no linear layer{' that filter_fn chooses' if filter_fn else ''}")
    find_format(format)
    dense: dict[Tensor, str] = {}  # a weight that several layers share is checked and quantized once
    for layer, name in layers.items():
        dense.setdefault(layer.weight, name)
    for weight, name in dense.items():
        try:
            checked_matrix(weight, format)
        except (TypeError, ValueError) as error:
            raise type(error)(f"{name}: {error}") from None
    weights = {}
    with tqdm(total=sum(weight.numel() for weight in dense), desc=f"quantizing to {format}", unit=" weights",
              unit_scale=True, delay=2, mininterval=0.5, disable=not progress) as bar:
        for weight in dense:
            weights[weight] = quantize(weight, format, progress=False)
            bar.update(weight.numel())
    made = {layer: QuantizedLinear(weights[layer.weight], layer.bias).train(layer.training) for layer in layers}
    _replace(model, made)
    return model


def dequantize_(model: nn.Module, dtype: torch.dtype = torch.float32) -> nn.Module:
    """Replaces a model's `QuantizedLinear` layers by dense ones of their values, in place, and returns the model."""
    layers = [layer for layer in model.modules() if isinstance(layer, QuantizedLinear)]
    _replace(model, {layer: layer.to_linear(dtype) for layer in layers})
    return model


def _replace(model: nn.Module, by: Mapping[nn.Module, nn.Module]) -> None:
    for parent in list(model.modules()):
        for name, child in parent._modules.items():
            if child in by:
                parent._modules[name] = by[child]


def summary(model: nn.Module) -> str:
    """A table of a model's parameters and buffers by format or type: how many, elements, bytes, bits an element."""
    rows: dict[str, list[int]] = {}
    seen = set()
    for module in model.modules():
        for tensor in (*module.parameters(recurse=False), *module.buffers(recurse=False)):
            if tensor in seen:
                continue
            seen.add(tensor)
            quantized = isinstance(module, QuantizedLinear) and tensor is module.data
            name = module.format if quantized else type_name(tensor.dtype)
            elements = module.in_features * module.out_features if quantized else tensor.numel()
            row = rows.setdefault(name, [0, 0, 0])
            for i, more in enumerate((1, elements, tensor.nbytes)):
                row[i] += more
    rows["in all"] = [sum(column) for column in zip(*rows.values())] or [0, 0, 0]
    lines = [f"{'':10}{'tensors':>8}{'elements':>16}{'bytes':>16}{'bits':>7}"]
    for name, (tensors, elements, size) in rows.items():
        lines.append(f"{name:10}{tensors:>8,}{elements:>16,}{size:>16,}{8 * size / max(elements, 1):>7.2f}")
    return "\n".join(lines)
