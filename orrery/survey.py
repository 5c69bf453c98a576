"""The formats side by side on one model: size, error, perplexity and speed, as a table and as a plot."""

from __future__ import annotations

import math
import time
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from pathlib import Path

import matplotlib
import torch

from orrery import formats, gguf_model, prepare
from orrery.formats import Format
from orrery.generate import Sampling, Timing, generate, perplexity
from orrery.gguf_model import GGUFModel
from orrery.model import Model
from orrery.prepare import Prepared
from orrery.tokenizer import ChatTokenizer

PROMPT = "The history of astronomy begins with"
# The error is taken over these shares of the layers, and over so many rows of the embedding.
DEPTHS = (0.0, 1 / 3, 2 / 3)
EMBEDDING_ROWS = 2048
# Where the plot tries to put a name, seen from its point.
ANGLES = tuple(map(math.radians, (0, 30, -30, 180, 150, -150, 60, -60)))


@dataclass(frozen=True)
class Result:
    """What was measured of a format. `bits` and `size` are those of the whole model, substitutes included."""

    name: str
    bits: float
    size: int
    mse: float
    relative_error: float
    perplexity: float
    tokens_per_second: float
    remark: str


class Sample:
    """Some matrices of a model file, as floats, to compare with what a format keeps of them."""

    def __init__(self, model: GGUFModel) -> None:
        layers = sorted({int(depth * model.sizes.layers) for depth in DEPTHS})
        names = [name for name, tensor in model.stored.items() if len(tensor.shape) > 1 and name.startswith("blk.")
                 and int(name.split(".")[1]) in layers]
        self._matrices = {name: model.rows(name) for name in names}
        self._matrices["token_embd.weight"] = model.rows("token_embd.weight", 0, EMBEDDING_ROWS)

    def error(self, prepared: Prepared) -> tuple[float, float]:
        """Mean squared error, and its root as a part of the weights' own root mean square."""
        error, power, count = 0.0, 0.0, 0
        for name, sources in prepared.sources.items():
            if sources[0] not in self._matrices:
                continue
            matrix = torch.cat([self._matrices[source] for source in sources])
            kept = formats.dequantize_rows(prepared.formats[name], prepared.tensors[name].cpu(), *matrix.shape)
            error += (kept - matrix).square().sum(dtype=torch.double).item()
            power += matrix.square().sum(dtype=torch.double).item()
            count += matrix.numel()
        return error / count, math.sqrt(error / power)


def measure(path: Path, chosen: Sequence[Format], text: str, *, dtype: torch.dtype = torch.float32, window: int = 512,
            limit: int | None = None, answer: int = 48, cache: bool = True, kv_cache: str = "plain",
            prompt_precision: str = "float32") -> Iterator[Result]:
    """Measures one format after the other on the model at `path`: its perplexity on the first `limit` tokens of `text`,
    and its speed over `answer` greedy tokens."""
    source = gguf_model.read(path)
    sample = Sample(source)
    tokenizer = ChatTokenizer(source.vocabulary)
    tokens, prompt = tokenizer.encode(text)[:limit], tokenizer.encode(PROMPT)
    capacity = min(source.sizes.context, max(window, len(prompt) + answer))
    answer = min(answer, capacity - len(prompt))
    for fmt in chosen:
        # All formats together would take a dozen times the model's own file.
        prepared = prepare.load(path, fmt, cache=cache, keep=False)
        model = Model(prepared, dtype, capacity, kv_cache, prompt_precision)
        mse, relative = sample.error(prepared)
        value = perplexity(model, tokens, window)
        yield Result(fmt.name, 8 * prepared.quantized_bytes / prepared.weights, prepared.quantized_bytes, mse, relative,
                     value, _speed(model, prompt, answer), prepared.remark)


def _speed(model: Model, prompt: list[int], answer: int) -> float:
    timing = Timing()
    model.rewind(0)
    for _ in generate(model, prompt, answer, frozenset(), Sampling(), timing):
        pass
    return timing.steps / timing.seconds if timing.seconds else 0.0


HEADER = f"{'format':10}{'bits':>7}{'in the model':>14}{'MB':>8}{'mean sq. error':>16}{'relative':>10}" \
         f"{'perplexity':>12}{'tokens/s':>10}  substitute"


def line(result: Result) -> str:
    """A row of the table under HEADER."""
    fmt = formats.FORMATS[result.name]
    return (f"{result.name:10}{fmt.bits:>7.2f}{result.bits:>14.2f}{result.size / 1e6:>8.1f}{result.mse:>16.3e}"
            f"{result.relative_error:>10.2%}{result.perplexity:>12.3f}{result.tokens_per_second:>10.1f}"
            f"  {fmt.substitute if result.remark else '-'}")


def plot(results: Sequence[Result], title: str, path: Path) -> None:
    """Bits per weight against perplexity, each point with its format's name."""
    matplotlib.use("Agg")
    from matplotlib import pyplot, ticker

    figure, axes = pyplot.subplots(figsize=(10, 6.5), layout="constrained")
    shown = [r for r in results if math.isfinite(r.perplexity)]
    axes.scatter([r.bits for r in shown], [r.perplexity for r in shown], color="#4878a8", zorder=3)
    axes.set_yscale("log")
    axes.yaxis.set_major_locator(ticker.LogLocator(subs=(1, 1.5, 2, 3, 5, 7)))
    axes.yaxis.set_major_formatter(ticker.StrMethodFormatter("{x:g}"))
    axes.yaxis.set_minor_formatter(ticker.NullFormatter())
    axes.margins(0.08)
    axes.grid(color="#dddddd", linewidth=0.6)
    axes.set_xlabel("bits per weight of the whole model")
    axes.set_ylabel("perplexity")
    axes.set_title(title, fontsize=10)
    figure.draw_without_rendering()
    _label(axes, shown)
    figure.savefig(path, dpi=130, format="png")
    pyplot.close(figure)


def _label(axes, results: Sequence[Result]) -> None:
    """Writes each name as near its point as other names and points allow, with a line where it had to go far."""
    from matplotlib.transforms import Bbox

    figure = axes.figure
    renderer, pixels, frame = figure.canvas.get_renderer(), figure.dpi / 72, axes.get_window_extent()
    points = [axes.transData.transform((r.bits, r.perplexity)) for r in results]
    taken = [Bbox.from_bounds(x - 4 * pixels, y - 4 * pixels, 8 * pixels, 8 * pixels) for x, y in points]
    for result, (x, y) in zip(results, points):
        probe = axes.text(0, 0, result.name, fontsize=9)
        size = probe.get_window_extent(renderer)
        probe.remove()
        width, height = size.width / pixels, size.height / pixels
        places = [(distance * math.cos(angle) + math.copysign(width / 2, math.cos(angle)), distance * math.sin(angle))
                  for distance in (7, 16, 26, 38, 52, 68) for angle in ANGLES]
        boxes = [Bbox.from_bounds(x + (dx - width / 2) * pixels, y + (dy - height / 2) * pixels, size.width, size.height)
                 for dx, dy in places]
        best = next((i for i, box in enumerate(boxes) if frame.contains(*box.min) and frame.contains(*box.max)
                     and not any(box.overlaps(other) for other in taken)), 0)
        taken.append(boxes[best])
        arrow = {"arrowstyle": "-", "color": "#999999", "linewidth": 0.6} if best >= len(ANGLES) else None
        axes.annotate(result.name, (result.bits, result.perplexity), xytext=places[best], textcoords="offset points",
                      fontsize=9, ha="center", va="center", arrowprops=arrow)
