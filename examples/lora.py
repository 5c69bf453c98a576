"""LoRA: beside each nf4 matrix of the bundled model a term of low rank learns a few sentences.

    python -m examples.lora
"""

from __future__ import annotations

import time
from collections.abc import Iterator
from dataclasses import replace

import torch
from torch import nn

import orrery_host  # noqa: F401  registers the device if no installed package has done so
from orrery import gguf_model, quantize_
from orrery.hugging_face import llama
from orrery.nn import QuantizedLinear
from orrery.tokenizer import ChatTokenizer

SENTENCES = (
    "The orrery in the hall has seven brass planets.",
    "Its keeper, Ada Quill, winds it on Sundays.",
    "On Tuesdays the third moon runs backwards.",
    "Nobody may touch the comet.",
)
IGNORED = -100  # what the loss takes for no label


class LoRALinear(nn.Module):
    """base(x) + up(down(x)), of which base is frozen; up starts at zero, so at first nothing is added."""

    def __init__(self, base: QuantizedLinear, rank: int) -> None:
        super().__init__()
        self.base = base
        self.down = nn.Linear(base.in_features, rank, bias=False, device=base.data.device)
        self.up = nn.Linear(rank, base.out_features, bias=False, device=base.data.device)
        nn.init.zeros_(self.up.weight)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.base(x) + self.up(self.down(x))


def add_lora(model: nn.Module, rank: int = 8) -> list[nn.Parameter]:
    """Freezes the model and puts a term beside each quantized layer but the head; the parameters to learn."""
    model.requires_grad_(False)
    for parent in list(model.modules()):
        for name, child in list(parent.named_children()):
            if isinstance(child, QuantizedLinear) and name != "lm_head":
                setattr(parent, name, LoRALinear(child, rank))
    return [parameter for parameter in model.parameters() if parameter.requires_grad]


def batch(tokenizer: ChatTokenizer, sentences: tuple[str, ...]) -> tuple[torch.Tensor, torch.Tensor]:
    """Tokens [sentences, length] and their labels, padded at the end; the end of a sentence is to be learned too."""
    end = min(tokenizer.stop)
    rows = [torch.tensor([*tokenizer.encode(sentence), end]) for sentence in sentences]
    pad = nn.utils.rnn.pad_sequence
    return pad(rows, True, end).to("xpu"), pad(rows, True, IGNORED).to("xpu")


def train(model: nn.Module, tokens: torch.Tensor, labels: torch.Tensor, steps: int = 10,
          rate: float = 5e-3) -> Iterator[float]:
    """Yields the loss before each step, and the one after the last."""
    optimizer = torch.optim.AdamW(add_lora(model), lr=rate)
    for _ in range(steps):
        loss = model(tokens, labels=labels, use_cache=False).loss
        yield loss.item()
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
    with torch.no_grad():
        yield model(tokens, labels=labels, use_cache=False).loss.item()


def main(layers: int | None = None) -> None:
    """Of the model's first `layers` layers, or all."""
    torch.manual_seed(0)
    start = time.perf_counter()
    file = gguf_model.read(gguf_model.bundled_model())
    file = replace(file, sizes=replace(file.sizes, layers=layers or file.sizes.layers))
    model, tokenizer = quantize_(llama(file), "nf4").to("xpu"), ChatTokenizer(file.vocabulary)
    print(f"the model in nf4: {time.perf_counter() - start:.1f} s", flush=True)
    start = time.perf_counter()
    for step, loss in enumerate(train(model, *batch(tokenizer, SENTENCES))):
        print(f"step {step:2}  loss {loss:.3f}", flush=True)
    print(f"{step} steps: {time.perf_counter() - start:.1f} s")


if __name__ == "__main__":
    main()
