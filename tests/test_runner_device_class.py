"""`--device-class`: the bundled model on the kernels of each kind of device, in a process of its own for each."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from functools import cache
from pathlib import Path
from typing import Any

import pytest
import torch

import orrery_dispatch as dispatch
from orrery import OrreryError, device_class
from sanitizers import SANITIZED

TOKENS = 12  # rows of the prompt: both families for several rows take as many
RUN = """
import json, sys
from orrery import device_class
device_class.choose(int(sys.argv[1]))
import torch, orrery_host
from orrery import gguf_model, prepare
from orrery.formats import FORMATS
from orrery.model import Model
from orrery.tokenizer import ChatTokenizer
prepared = prepare.load(gguf_model.bundled_model(), FORMATS[sys.argv[2]])
prompt = ChatTokenizer(prepared.vocabulary).encode("The three primary colors are red, yellow and blue. The sky is")
model = Model(prepared, torch.float32, int(sys.argv[3]))
with orrery_host.record_launches() as launches:
    logits = model.forward(prompt[:int(sys.argv[3])])
print(json.dumps({"kernels": sorted({launch.kernel for launch in launches}), "logits": logits[0].cpu().tolist()}))
"""
# How the model's products of several rows are made: rows of 576 elements have no whole spans of 256, those of 1536 have.
FAMILIES = {
    0: {"dotgrid_forward_kernel", "vector_forward_kernel_q4_0"},
    1: {"dotgrid_forward_kernel", "vector_forward_kernel_q4_0"},
    2: {"dotgrid_forward_kernel", "vector_forward_kernel_q4_0"},
    3: {"qlinear_xpu_kernel_q4_0_2x16_batch"},
    4: {"qlinear_xpu_kernel_q4_0_2x16_batch", "vector_forward_kernel_q4_0"},
    5: {"qlinear_xpu_kernel_q4_0_2x16_batch"},
}


@cache
def prompt_on(number: int, folder: Path) -> dict[str, Any]:
    arguments = [str(number), "q4_0", str(TOKENS)]
    done = subprocess.run([sys.executable, "-c", RUN, *arguments], capture_output=True, text=True, timeout=300,
                          env=os.environ | {"XDG_CACHE_HOME": str(folder)})
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def test_names_are_of_their_classes() -> None:
    assert {dispatch.device_class_of(name): name for name in device_class.NAMES.values()} == device_class.NAMES


@pytest.mark.skipif(SANITIZED, reason="a sanitizer makes the real model too slow")
@pytest.mark.parametrize("number", FAMILIES)
def test_the_prompt_goes_through_the_families_of_the_class(number: int, prepared_models: Path) -> None:
    several = ("dotgrid", "vector_forward", "_batch")
    kernels = prompt_on(number, prepared_models)["kernels"]
    kernels = {kernel for kernel in kernels if any(part in kernel for part in several)}
    assert kernels == FAMILIES[number]


@pytest.mark.skipif(SANITIZED, reason="a sanitizer makes the real model too slow")
@pytest.mark.parametrize("number", [0, 1, 2, 4, 5])
def test_the_answer_is_that_of_the_default_class(number: int, prepared_models: Path) -> None:
    """Half sums over 1536 products: some 1e-3 of each output, and logits of a standard deviation of some 3."""
    got, want = (torch.tensor(prompt_on(n, prepared_models)["logits"]) for n in (number, 3))
    assert got.argmax() == want.argmax()
    assert (got - want).abs().mean() < 0.05
    assert number == 5 or not torch.equal(got, want)


def test_a_class_that_comes_too_late_is_refused(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.delenv(device_class.VARIABLE, raising=False)
    with pytest.raises(OrreryError) as caught:
        device_class.choose(1)
    text = "--device-class comes too late: name the device by ORRERY_HOST_DEVICE_NAME before torch is imported"
    assert str(caught.value) == text
    device_class.choose(None)
