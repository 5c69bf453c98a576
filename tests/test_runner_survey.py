"""The table of formats and its plot, on a tiny model and on made-up results."""

import math

import pytest
import torch

import runner_files
from orrery import cli, formats, survey
from orrery.formats import FORMATS


def result(name, bits, perplexity):
    return survey.Result(name, bits, 1000, 0.1, 0.1, perplexity, 10.0, "")


def test_table_of_all_formats(wide_file, tmp_path, capsys):
    picture = tmp_path / "plot.png"
    command = ["formats", "--model", wide_file, "--output", picture, "--tokens", "60", "--window", "30", "--no-cache"]
    assert cli.main(list(map(str, command))) == 0
    header, *lines, last = capsys.readouterr().out.splitlines()
    assert header.split()[:2] == ["format", "bits"] and last == f"saved {picture}"
    assert picture.read_bytes().startswith(b"\x89PNG")
    rows = {line.split()[0]: line.split()[1:] for line in lines}
    assert list(rows) == list(FORMATS)
    for name, (bits, whole, _, mse, relative, perplexity, speed, substitute) in rows.items():
        assert float(bits) == float(whole) == pytest.approx(FORMATS[name].bits, abs=0.006)
        assert 100 < float(perplexity) < 3000 and float(speed) > 0 and substitute == "-"
        # The matrices are normal with a deviation of 0.1.
        assert float(mse) == pytest.approx(0.01 * (float(relative[:-1]) / 100) ** 2, rel=0.05)
    errors = {name: float(row[3]) for name, row in rows.items()}
    order = ("q8_0", "q6_k", "q5_k", "q5_0", "q4_k", "q4_0", "nf3", "q2_k", "iq2_xxs", "iq1_s")
    assert sorted(order, key=errors.get) == list(order)


def test_substitutes_are_marked_and_counted(tmp_path):
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    found, = survey.measure(tmp_path / "tiny.gguf", [FORMATS["q2_k"]], cli.bundled_text(), window=30, limit=40,
                            answer=4, cache=False)
    assert found.bits == FORMATS["nf3"].bits and "stored as nf3 instead of q2_k" in found.remark
    assert survey.line(found).endswith("  nf3")
    assert len(survey.line(found)) <= len(survey.HEADER)


def test_no_cache_file_is_left(tmp_path, monkeypatch):
    monkeypatch.setenv("XDG_CACHE_HOME", str(tmp_path / "cache"))
    runner_files.write_tiny(tmp_path / "tiny.gguf")
    list(survey.measure(tmp_path / "tiny.gguf", [FORMATS["q4_0"]], cli.bundled_text(), window=30, limit=40, answer=4))
    assert not (tmp_path / "cache").exists()


def test_error_of_a_sample(tmp_path):
    tensors = runner_files.write_tiny(tmp_path / "tiny.gguf")
    from orrery import gguf_model, prepare

    prepared = prepare.load(tmp_path / "tiny.gguf", FORMATS["q4_1"], cache=False)
    mse, relative = survey.Sample(gguf_model.read(tmp_path / "tiny.gguf")).error(prepared)
    # Two layers, of which a third and two thirds of the depth are the first and the second.
    matrices = [torch.from_numpy(t) for name, t in tensors.items() if t.ndim == 2]
    fmt = FORMATS["q4_1"]
    kept = [formats.dequantize(fmt, formats.quantize(fmt, m), m.shape[1]) for m in matrices]
    error = sum((k - m).square().sum().item() for k, m in zip(kept, matrices))
    assert mse == pytest.approx(error / sum(m.numel() for m in matrices), rel=1e-5)
    assert relative == pytest.approx(math.sqrt(error / sum(m.square().sum().item() for m in matrices)), rel=1e-5)


def test_names_in_the_plot_do_not_overlap(tmp_path, monkeypatch):
    from matplotlib import pyplot

    kept = []
    monkeypatch.setattr(pyplot, "close", kept.append)
    crowd = [result(name, 4.25 + 0.02 * (i % 5), 20 + 0.1 * i) for i, name in enumerate(FORMATS)]
    crowd[0] = result("q4_0", 8.5, 60)
    survey.plot([*crowd[:-1], result("none", 3, math.nan)], "title", tmp_path / "plot.png")
    kept[0].draw_without_rendering()  # The file was drawn in another resolution.
    axes = kept[0].axes[0]
    renderer = kept[0].canvas.get_renderer()
    from matplotlib.text import Text

    boxes = {text.get_text(): Text.get_window_extent(text, renderer) for text in axes.texts}
    assert list(boxes) == list(FORMATS)[:-1]
    names = list(boxes)
    for i, one in enumerate(names):
        assert not any(boxes[one].overlaps(boxes[other]) for other in names[:i]), one
        assert all(axes.get_window_extent().contains(*corner) for corner in (boxes[one].min, boxes[one].max)), one
