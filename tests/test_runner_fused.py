"""A step through the fused operations: when it is taken, that it says the same, and what it costs in calls."""

import collections
import json
import subprocess
import sys

import pytest
import torch
from torch.utils._python_dispatch import TorchDispatchMode

import orrery_host
import orrery_ops
import runner_files
from orrery import OrreryError, cli, device_class, fused, prepare
from orrery.formats import FORMATS
from orrery.model import Model

FUSED = ("q4_0", "fp4", "fp6")
TYPES = (torch.float32, torch.float16, torch.bfloat16)
# One by one: what a step falls back to.
SINGLE = {"forward_qkv": "asked for", "mlp_forward_xpu": "asked for"}
TOKENS = [(31 * i + 5) % 256 for i in range(40)]


def stepped(model, tokens):
    return torch.cat([model.step(token).float().cpu() for token in tokens])


def tiny(file, name, dtype=torch.float32, capacity=64, cache="plain"):
    return Model(prepare.load(file, FORMATS[name], cache=False), dtype, capacity, cache)


def kernels_of_a_step(model):
    with orrery_host.record_launches() as launches:
        model.step(7)
    return collections.Counter(launch.kernel for launch in launches)


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("name", FORMATS)
def test_which_way_a_step_takes(wide_file, name, dtype):
    model = tiny(wide_file, name, dtype)
    expected = {operation: f"{operation} has no kernel for {name}" for operation in model.refusals}
    if name == "iq2_xxs":
        expected["forward_qkv"] = "forward_qkv takes the value's weight in q2_k if the others are in iq2_xxs"
    if name == "fp8_e5m2":
        nearer = "reads a code of fp8_e5m2 half a step nearer to zero than a product does"
        expected = {operation: f"{operation} {nearer}" for operation in model.refusals}
    if name in FUSED:
        expected = {"forward_qkv": "", "mlp_forward_xpu": ""}
        if dtype == torch.bfloat16:
            expected["forward_qkv"] = "forward_qkv in bfloat16 would need attention in that type"
    assert model.refusals == expected
    kernels = kernels_of_a_step(model)
    layers = runner_files.LAYERS
    projected = sum(n for kernel, n in kernels.items() if kernel.endswith("_qkv"))
    assert projected == (0 if expected["forward_qkv"] else layers)
    assert kernels["rotary_half_inplaced_kernel"] == (layers if expected["forward_qkv"] else 0)
    gated = sum(n for kernel, n in kernels.items() if kernel.startswith("mlp_forward"))
    assert gated == (0 if expected["mlp_forward_xpu"] else layers)


@pytest.mark.parametrize("name", FORMATS)
def test_matrices_of_formats_with_fused_kernels_stay_apart(wide_file, name):
    """A joined matrix of several planes could not be given to them."""
    fmt = FORMATS[name]
    has_kernel = not fused.mlp_refusal(fmt, torch.float32, torch.device("xpu"))
    assert fmt.apart == (fmt.split and has_kernel)
    made = prepare.load(wide_file, fmt, cache=False)
    assert ("0.query" in made.formats, "0.qkv" in made.formats) == (fmt.apart, not fmt.apart)
    assert ("1.up" in made.formats, "1.gate_up" in made.formats) == (fmt.apart, not fmt.apart)


# The projections sum in the same order either way. With float32 sine, cosine and exp differ in the last bits; narrow
# types round the product of gate and up once instead of twice.
@pytest.mark.parametrize("dtype, bound", [(torch.float32, 2e-6), (torch.float16, 0.01), (torch.bfloat16, 0.07)])
@pytest.mark.parametrize("name", FUSED)
def test_fused_steps_say_the_same(wide_file, name, dtype, bound):
    model = tiny(wide_file, name, dtype)
    together = stepped(model, TOKENS)
    model.refusals = SINGLE
    model.rewind(0)
    single = stepped(model, TOKENS)
    assert together.isfinite().all()
    assert (together - single).abs().mean() < bound
    # Behind a prompt, whose keys were turned by the other operation, and up to the last place of the cache.
    model = tiny(wide_file, name, dtype, capacity=len(TOKENS))
    model.forward(TOKENS[:19])
    # The prompt's weights may have been rounded to half, 2^-12 each.
    assert (stepped(model, TOKENS[19:]) - single[19:]).abs().mean() < max(bound, 4e-3)
    with pytest.raises(OrreryError, match=f"^the context of {len(TOKENS)} tokens is full$"):
        model.step(7)


def counted(run, monkeypatch):
    """How often it calls each of our operators, and each of Torch's outside of them."""
    calls, inside = collections.Counter(), []

    def counting(name, function):
        def call(*arguments):
            calls[f"ours.{name}"] += 1
            inside.append(name)
            try:
                return function(*arguments)
            finally:
                inside.pop()
        return call

    class Torchs(TorchDispatchMode):
        def __torch_dispatch__(self, function, types, arguments=(), keywords=None):
            if not inside:
                calls[f"torch.{function.overloadpacket.__name__}"] += 1
            return function(*arguments, **(keywords or {}))

    with monkeypatch.context() as patch, Torchs():
        for name in dir(orrery_ops):
            if not name.startswith("_"):
                patch.setattr(orrery_ops, name, counting(name, getattr(orrery_ops, name)))
        run()
    return calls


def counted_step(model, monkeypatch):
    return counted(lambda: model.step(7), monkeypatch)


TOGETHER = {"ours.rms_norm": 2, "ours.forward_qkv": 1, "ours.sdp": 1, "ours.forward_new": 2, "ours.mlp_forward_xpu": 1,
            "torch.view": 1, "torch.add_": 2}
ONE_BY_ONE = {"ours.rms_norm": 2, "ours.forward_new": 4, "ours.rotary_half_inplaced": 1, "ours.sdp": 1,
              "torch.copy_": 2, "torch.view": 1, "torch.add_": 2, "torch.chunk": 1, "torch.silu_": 1, "torch.mul_": 1}


def over_bytes(calls):
    """The same with one byte per element of the cache."""
    others = {name: n for name, n in calls.items() if name != "ours.sdp"}
    return {**others, "ours.sdp_fp8": 1, "ours.quantize_key_value": 1}


@pytest.mark.parametrize("name, dtype, cache, calls", [
    ("q4_0", torch.float32, "plain", TOGETHER),
    ("q4_0", torch.float16, "plain", {**TOGETHER, "torch.mul_": 1}),
    ("nf4", torch.float32, "plain", ONE_BY_ONE),
    ("q4_0", torch.float32, "byte", over_bytes(TOGETHER)),
    ("nf4", torch.float32, "byte", over_bytes({**ONE_BY_ONE, "torch.copy_": 1, "torch.chunk": 2})),
])
def test_calls_of_a_layer(wide_file, monkeypatch, name, dtype, cache, calls):
    model = tiny(wide_file, name, dtype, cache=cache)
    model.forward([1, 2, 3])
    model.step(4)
    two = counted_step(model, monkeypatch)
    model._layers.pop()
    assert two - counted_step(model, monkeypatch) == calls


def test_calls_of_steps_behind_each_other(wide_file, monkeypatch):
    """The second one takes the keys and values that the first one's `forward_qkv` has returned, and makes no views."""
    model = tiny(wide_file, "q4_0")
    model.forward([1, 2, 3])
    first, second = counted_step(model, monkeypatch), counted_step(model, monkeypatch)
    assert first - second == {"torch.narrow": 1, "torch.unbind": 1}
    layers = {name: n * runner_files.LAYERS for name, n in TOGETHER.items()}
    rest = second - collections.Counter(layers)
    # The position's view. All other calls of PyTorch's are those of the embedding's row.
    assert {name: n for name, n in rest.items() if "ours" in name} == {"ours.rms_norm": 1, "ours.forward_new": 1}
    assert rest["torch.narrow"] == 1 and "torch.unbind" not in rest


def test_calls_of_a_layer_of_a_prompt(wide_file, monkeypatch):
    """Of copies there are two: the values into the cache, and attention's result with a token's heads side by side."""
    model = tiny(wide_file, "q4_0")

    def prompt():
        model.rewind(0)
        model.forward(TOKENS)

    two = counted(prompt, monkeypatch)
    model._layers.pop()
    layer = two - counted(prompt, monkeypatch)
    views = ("torch.view", "torch.narrow", "torch.split", "torch.transpose", "torch.to")
    assert {name: n for name, n in layer.items() if name not in views} == {
        "ours.rms_norm": 2, "ours.forward_new": 7, "ours.apply_rotary_embedding_half_q_and_k_cache_freq": 1,
        "ours.sdp_causal": 1, "torch.empty": 1, "torch.copy_": 1, "torch.reshape": 1, "torch.silu_": 1,
        "torch.mul_": 1, "torch.add_": 2}


RUN = """
import json, sys
from orrery import device_class
device_class.choose(int(sys.argv[1]))
import torch, orrery_host
from pathlib import Path
from orrery import prepare
from orrery.formats import FORMATS
from orrery.model import Model
results = []
for name in ("q4_0", "fp4", "fp6", "iq2_xxs"):
    model = Model(prepare.load(Path(sys.argv[2]), FORMATS[name], cache=False), torch.float32, 64)
    refusals, logits = model.refusals, []
    with orrery_host.record_launches() as launches:
        logits.append(torch.cat([model.step(token) for token in range(30, 50)]))
    model.refusals = dict.fromkeys(refusals, "asked for")
    model.rewind(0)
    logits.append(torch.cat([model.step(token) for token in range(30, 50)]))
    kernels = sorted({launch.kernel for launch in launches if launch.kernel.startswith("mlp")})
    results.append([name, refusals, kernels, (logits[0] - logits[1]).abs().mean().item()])
print(json.dumps(results))
"""


@pytest.mark.parametrize("number", device_class.NAMES)
def test_on_each_kind_of_device(wide_file, number):
    done = subprocess.run([sys.executable, "-c", RUN, str(number), str(wide_file)], capture_output=True,
                          text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    for name, refusals, kernels, difference in json.loads(done.stdout):
        grid = name == "iq2_xxs"
        assert bool(refusals["forward_qkv"]) == grid
        assert bool(refusals["mlp_forward_xpu"]) == (grid and number not in (0, 5))
        assert kernels == ([] if refusals["mlp_forward_xpu"] else [f"mlp_forward_{name}_kernel"])
        # On classes 1 and 2 a product of one row of fp4 or fp6 takes the explicit-SIMD kernels, which sum in half.
        assert difference < (0.01 if number in (1, 2) and name in ("fp4", "fp6") else 1e-5), name


def test_verbose_tells_the_way(wide_file, tmp_path, monkeypatch, capsys):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path))
    said = {}
    for name, dtype in (("q4_0", "float32"), ("q4_0", "bfloat16"), ("nf4", "float32")):
        assert cli.main(["generate", "--model", str(wide_file), "ab", "--tokens", "3", "--format", name, "--verbose",
                         "--dtype", dtype]) == 0
        said[name, dtype] = capsys.readouterr().err
    assert said == {
        ("q4_0", "float32"): "forward_qkv is used\nmlp_forward_xpu is used\n",
        ("q4_0", "bfloat16"): "forward_qkv in bfloat16 would need attention in that type\nmlp_forward_xpu is used\n",
        ("nf4", "float32"): "forward_qkv has no kernel for nf4\nmlp_forward_xpu has no kernel for nf4\n",
    }
