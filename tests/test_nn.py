"""Modules of quantized weights: one layer, and models whose layers become such ones."""

from __future__ import annotations

import copy
import io
import pickle

import pytest
import safetensors.torch
import torch
from torch import nn

import orrery
import orrery.nn
from orrery.formats import FORMATS
from orrery.nn import QuantizedLinear, dequantize_, quantize_, summary

# Products of the operators against those of PyTorch with the same values, both in float32. With more than a few rows
# some formats' kernels round the dequantized weights to half, each by a part in 4096 at most. Measured: 4e-4 behind
# three layers.
NEAR = 1e-3


def three_layers(seed: int = 0) -> nn.Sequential:
    torch.manual_seed(seed)
    return nn.Sequential(nn.Linear(100, 64), nn.GELU(), nn.Linear(64, 7, bias=False), nn.Linear(7, 3))


def distance(result: torch.Tensor, expected: torch.Tensor) -> float:
    result, expected = result.detach().cpu().double(), expected.detach().cpu().double()
    return float((result - expected).norm() / expected.norm())


@pytest.fixture
def model(xpu) -> nn.Sequential:
    return quantize_(three_layers()).to(xpu)


@pytest.fixture
def x(xpu) -> torch.Tensor:
    return torch.randn(2, 5, 100, generator=torch.Generator().manual_seed(1)).to(xpu)


# ---- One layer ----


@pytest.mark.parametrize("format", FORMATS)
def test_a_layer_computes_with_the_values_of_its_bytes(xpu, format) -> None:
    torch.manual_seed(2)
    layer = QuantizedLinear.from_linear(nn.Linear(256, 33).to(xpu), format)
    assert layer.format == layer.requested == format
    x = torch.randn(3, 2, 256).to(xpu)
    # iq2_xxs rounds the input to 8 bits, about a hundredth off.
    assert distance(layer(x), layer.to_linear()(x)) < (0.02 if format == "iq2_xxs" else NEAR)


@pytest.mark.parametrize("dtype, near", [(torch.float32, NEAR), (torch.float64, NEAR), (torch.float16, 4e-3),
                                         (torch.bfloat16, 3e-2)])
def test_every_type(xpu, x, dtype, near) -> None:
    """Half and bfloat16 round every sum: 100 terms in 11 and 8 bits."""
    layer = QuantizedLinear.from_linear(three_layers()[0]).to(xpu).to(dtype)
    result = layer(x.to(dtype))
    assert result.dtype == dtype and result.shape == (2, 5, 64)
    assert distance(result, layer.float().to_linear()(x)) < near


def test_casts_leave_the_bytes_alone(model) -> None:
    layer, before = model[0], model[0].data.clone()
    for cast in (nn.Module.half, nn.Module.bfloat16, nn.Module.double, lambda m: m.to(torch.float16),
                 lambda m: m.type(torch.float32)):
        cast(layer)
        assert layer.data.dtype == torch.uint8 and torch.equal(layer.data, before)
    assert layer.bias.dtype == torch.float32
    cast = layer.to("cpu", torch.float16)
    assert (cast.data.device.type, cast.data.dtype, cast.bias.dtype) == ("cpu", torch.uint8, torch.float16)


def test_weights_on_the_cpu_have_to_be_moved(x) -> None:
    layer = QuantizedLinear.from_linear(three_layers()[0])
    for given in (x, x.cpu()):
        with pytest.raises(ValueError) as error:
            layer(given)
        assert str(error.value) == 'the weight is on the CPU, which has no kernels for it: move the model by .to("xpu")'
    assert distance(layer.to_linear()(x.cpu()), layer.to("xpu")(x)) < NEAR


def test_a_layer_says_what_it_is() -> None:
    layers = nn.ModuleList([QuantizedLinear.from_linear(nn.Linear(576, 64, bias=False), "nf4"),
                            QuantizedLinear.from_linear(nn.Linear(576, 64), "q4_k")])
    assert [str(layer) for layer in layers] == [
        "QuantizedLinear(in_features=576, out_features=64, bias=False, format=nf4, 19,584 bytes)",
        "QuantizedLinear(in_features=576, out_features=64, bias=True, format=q5_1 (asked for as q4_k), 28,160 bytes)",
    ]
    assert repr(layers[0].weight).startswith("QuantizedWeight(64 x 576, nf4, 19,584 bytes")


def test_the_bias_stays_what_it_was() -> None:
    dense = nn.Linear(64, 8)
    assert QuantizedLinear.from_linear(dense).bias is dense.bias
    layer = QuantizedLinear(orrery.quantize(dense.weight), torch.ones(8))
    assert dict(layer.named_parameters()) == {} and set(dict(layer.named_buffers())) == {"data", "bias"}


def test_wrong_parts_of_a_layer() -> None:
    weight = orrery.quantize(torch.ones(8, 64))
    with pytest.raises(TypeError) as error:
        QuantizedLinear(torch.ones(8, 64))
    assert str(error.value) == "weight must be a QuantizedWeight, not Tensor; from_linear makes one"
    with pytest.raises(ValueError) as error:
        QuantizedLinear(weight, torch.ones(1, 8))
    assert str(error.value) == "bias must be [8], not [1, 8]"
    with pytest.raises(TypeError) as error:
        QuantizedLinear(weight).weight = nn.Parameter(torch.ones(8, 64))
    assert str(error.value) == "a quantized layer takes no dense weight, so it cannot be tied to another one's"


def test_gradients(xpu, x) -> None:
    layer = QuantizedLinear.from_linear(three_layers()[0], "nf4").to(xpu)
    dense = layer.to_linear()
    ours, theirs = x.clone().requires_grad_(), x.clone().requires_grad_()
    layer(ours).square().sum().backward()
    dense(theirs).square().sum().backward()
    assert distance(ours.grad, theirs.grad) < NEAR
    assert distance(layer.bias.grad, dense.bias.grad) < NEAR


def test_autocast(xpu, x) -> None:
    """What comes from a dense layer is bfloat16 then, and the bias follows."""
    model = nn.Sequential(nn.Linear(100, 64), QuantizedLinear.from_linear(nn.Linear(64, 7))).to(xpu)
    with pytest.raises(TypeError, match="^bias must be bfloat16 as x is, not float32$"):
        model[1](model[0](x).bfloat16())
    with torch.autocast("xpu", dtype=torch.bfloat16):
        result = model(x)
        assert result.dtype == torch.bfloat16
    assert distance(result, model(x)) < 3e-2
    result.sum().backward()
    assert model[1].bias.grad.dtype == torch.float32


# ---- State ----


def through_torch(state: dict) -> dict:
    file = io.BytesIO()
    torch.save(state, file)
    file.seek(0)
    return torch.load(file, weights_only=True)


def through_safetensors(state: dict) -> dict:
    return safetensors.torch.load(safetensors.torch.save(state))


@pytest.mark.parametrize("through", [dict, through_torch, through_safetensors])
@pytest.mark.parametrize("format", ["q4_0", "nf4", "q8_0", "q5_1"])  # nf4 has as many bytes as q4_0
def test_a_state_dict_brings_its_format(model, x, through, format) -> None:
    """The model that loads has other weights, in another format unless `format` is that of the first one."""
    other = quantize_(three_layers(seed=9), format).to("xpu")
    assert other.load_state_dict(through(model.state_dict())) == ([], [])
    assert [other[i].format for i in (0, 2, 3)] == ["q4_0"] * 3
    assert torch.equal(other(x), model(x))
    assert torch.equal(orrery.linear(x, other[0].weight, other[0].bias), model[0](x))


def test_a_substitute_keeps_what_was_asked_for(xpu) -> None:
    asked, other = (quantize_(nn.Sequential(nn.Linear(64, 8)), format) for format in ("q4_k", "q4_0"))
    other.load_state_dict(asked.state_dict())
    assert (other[0].format, other[0].requested) == ("q5_1", "q4_k")


def test_layers_without_bytes_take_those_of_a_state_dict(model, x) -> None:
    with torch.device("meta"):
        empty = quantize_(three_layers(), "nf4")
    assert empty[0].data.is_meta
    empty.load_state_dict(model.state_dict(), assign=True)
    assert torch.equal(empty(x), model(x))


def test_copies(model, x) -> None:
    file = io.BytesIO()
    torch.save(model, file)
    file.seek(0)
    for twin in (copy.deepcopy(model), pickle.loads(pickle.dumps(model)), torch.load(file, weights_only=False)):
        assert torch.equal(twin(x), model(x))
        twin[0].data.zero_()
    assert not torch.equal(twin(x), model(x))


def without(state: dict, name: str) -> dict:
    return {key: value for key, value in state.items() if key != name}


@pytest.mark.parametrize("change, text", [
    (lambda state: three_layers().state_dict(),
     "0: the state dict has a dense weight: load it before the layer is quantized."),
    (lambda state: quantize_(nn.Sequential(nn.Linear(64, 64))).state_dict(),
     "0: the state dict has a weight of 64 x 64, the layer one of 64 x 100."),
    (lambda state: without(state, "0._extra_state"),
     "0: the state dict has the bytes of a weight without their format."),
    (lambda state: state | {"0._extra_state": torch.zeros(3, dtype=torch.uint8)},
     "0: the state dict's format and sizes of a weight are damaged."),
    (lambda state: state | {"0._extra_state": state["0._extra_state"].roll(1)},
     "0: the state dict's format and sizes of a weight are damaged."),
    (lambda state: state | {"0.data": state["0.data"][:-1]},
     "0: data of 64 x 100 elements in q4_0 must be 4352 contiguous bytes, not [4351]."),
    (lambda state: without(state, "0.data"), 'Missing key(s) in state_dict: "0.data". '),
])  # fmt: skip
def test_state_dicts_that_do_not_fit(model, x, change, text) -> None:
    before = model(x)
    with pytest.raises(RuntimeError) as error:
        model.load_state_dict(change(model.state_dict()))
    assert text in str(error.value).split("\n\t")
    assert torch.equal(model(x), before)


# ---- Whole models ----


def test_quantize_replaces_the_linear_layers_in_place(xpu, x) -> None:
    model = three_layers().to(xpu)
    bias = model[0].bias
    assert quantize_(model, "q8_0") is model
    assert [type(layer) for layer in model] == [QuantizedLinear, nn.GELU, QuantizedLinear, QuantizedLinear]
    assert model[0].bias is bias and model[0].data.device.type == "xpu"
    result = model(x)
    assert distance(result, three_layers()(x.cpu())) < 0.02  # q8_0: half a step of 1/127 of a block's largest weight
    assert distance(dequantize_(model)(x), result) < NEAR
    assert [type(layer) for layer in model] == [nn.Linear, nn.GELU, nn.Linear, nn.Linear]


def test_a_filter_chooses(xpu) -> None:
    asked = []

    def chosen(layer: nn.Linear, name: str) -> bool:
        asked.append((layer.in_features, name))
        return name != "2"

    model = quantize_(three_layers(), filter_fn=chosen)
    assert asked == [(100, "0"), (64, "2"), (7, "3")]
    assert [type(layer) for layer in model] == [QuantizedLinear, nn.GELU, nn.Linear, QuantizedLinear]


class Language(nn.Module):
    """A tied head, one layer in two places, and two layers that share a weight."""

    def __init__(self) -> None:
        super().__init__()
        self.embedding, self.head = nn.Embedding(50, 64), nn.Linear(64, 50, bias=False)
        self.head.weight = self.embedding.weight
        self.first = nn.Linear(64, 64)
        self.second = self.first
        self.third = nn.Linear(64, 64, bias=False)
        self.third.weight = self.first.weight

    def forward(self, tokens: torch.Tensor) -> torch.Tensor:
        return self.head(self.third(self.second(self.first(self.embedding(tokens)))))


def test_shared_weights(xpu) -> None:
    torch.manual_seed(3)
    model = Language()
    embedding = model.embedding.weight.clone()
    quantize_(model)
    assert torch.equal(model.embedding.weight, embedding)
    assert isinstance(model.head, QuantizedLinear) and model.first is model.second
    assert model.third.data is model.first.data and model.third.bias is None
    tokens = torch.arange(50).to(xpu)
    model.to(xpu)
    dense = dequantize_(copy.deepcopy(model))
    assert dense.head.weight is not dense.embedding.weight
    assert distance(model(tokens), dense(tokens)) < NEAR


def test_attention_of_torch_keeps_its_projections(xpu) -> None:
    """`nn.MultiheadAttention` reads the weight of its output layer, which is a subclass of `nn.Linear`, by itself."""
    torch.manual_seed(4)
    model = quantize_(nn.TransformerEncoderLayer(64, 2, 128, batch_first=True)).eval().to(xpu)
    assert isinstance(model.linear1, QuantizedLinear) and isinstance(model.self_attn.out_proj, nn.Linear)
    x = torch.randn(2, 5, 64).to(xpu)
    with torch.inference_mode():
        assert distance(model(x), dequantize_(copy.deepcopy(model))(x)) < NEAR


def with_nan(model: nn.Sequential) -> nn.Sequential:
    model[3].weight.data[1, 2] = float("nan")
    return model


@pytest.mark.parametrize("make, given, kind, text", [
    (lambda: with_nan(three_layers()), {}, ValueError, "3: matrix holds 1 values that are not finite"),
    (lambda: nn.Sequential(nn.Linear(64, 8), nn.Linear(8, 8, dtype=torch.complex64)), {}, TypeError,
     "1: matrix must be a tensor of float32, float16, bfloat16 or float64, not complex64"),
    (three_layers, {"format": "q9"}, ValueError, f"unknown format 'q9', the formats are {', '.join(FORMATS)}"),
    (three_layers, {"filter_fn": lambda layer, name: False}, ValueError,
     "the model has no linear layer that filter_fn chooses"),
    (nn.GELU, {}, ValueError, "the model has no linear layer"),
    (lambda: nn.Linear(3, 3), {}, TypeError,
     "the model is itself a linear layer: QuantizedLinear.from_linear makes a quantized one of it"),
])  # fmt: skip
def test_what_cannot_be_quantized_leaves_the_model_as_it_was(make, given, kind, text) -> None:
    model = make()
    before = str(model)
    with pytest.raises(kind) as error:
        quantize_(model, **given)
    assert (type(error.value), str(error.value)) == (kind, text)
    assert str(model) == before


def test_all_layers_are_checked_before_the_first_is_quantized(monkeypatch) -> None:
    monkeypatch.setattr(orrery.nn, "quantize", lambda *given, **more: pytest.fail("a layer was quantized"))
    with pytest.raises(ValueError, match="^3: "):
        quantize_(with_nan(three_layers()))


def test_progress(monkeypatch, capsys) -> None:
    bars = []

    def bar(*given, **more):
        bars.append(more)
        return tqdm(*given, **more | {"delay": 0})

    tqdm = orrery.nn.tqdm
    monkeypatch.setattr(orrery.nn, "tqdm", bar)
    quantize_(three_layers())
    shown = capsys.readouterr().err
    assert "quantizing to q4_0" in shown and "6.87k/6.87k" in shown and bars[0]["delay"] == 2
    quantize_(three_layers(), progress=False)
    assert capsys.readouterr().err == ""


def test_summary() -> None:
    model = three_layers()
    assert summary(model).split("\n")[1:] == [
        "float32          5           6,936          27,744  32.00",
        "in all           5           6,936          27,744  32.00",
    ]
    assert summary(quantize_(model)).split("\n") == [
        "           tensors        elements           bytes   bits",
        "float32          2              67             268  32.00",
        "q4_0             3           6,869           4,896   5.70",
        "in all           5           6,936           5,164   5.96",
    ]


def test_a_model_compiles_without_a_break(model, x) -> None:
    compiled = torch.compile(model, backend="aot_eager", fullgraph=True)
    assert torch.equal(compiled(x), model(x))
    assert torch.equal(compiled(x[:1, :3]), model(x[:1, :3]))
