"""The precision of a prompt's products: where the setting is in effect, that it goes back, and what it does to logits."""

import pytest
import torch

import orrery_ops
from orrery import OrreryError, cli, precision, prepare
from orrery.formats import FORMATS
from orrery.model import Model

SETTING = torch.backends.mkldnn.matmul
# Where PyTorch keeps whether settings may be changed for good.
FLAGS, CHANGEABLE = torch.backends.disable_global_flags.__globals__, "__allow_nonbracketed_mutation_flag"
TOKENS = [(31 * i + 5) % 256 for i in range(40)]


@pytest.fixture(autouse=True)
def settings_may_change(monkeypatch):
    """PyTorch's own test tools, which other tests use, forbid lasting changes of settings in the process."""
    monkeypatch.setitem(FLAGS, CHANGEABLE, True)
    yield
    torch.backends.fp32_precision = "none"
    SETTING.fp32_precision = "none"


@pytest.fixture
def products(monkeypatch):
    """(rows, setting) of each product since the list was last cleared."""
    found, product = [], orrery_ops.forward_new

    def noting(x, *rest):
        found.append((x.shape[0], SETTING.fp32_precision))
        return product(x, *rest)

    monkeypatch.setattr(orrery_ops, "forward_new", noting)
    return found


def tiny(file, chosen, name="q8_0", dtype=torch.float32):
    return Model(prepare.load(file, FORMATS[name], cache=False), dtype, 64, prompt_precision=chosen)


def passed(model, tokens):
    return torch.cat([rows.float().cpu() for rows in model.logits(tokens)])


def test_where_lasting_changes_are_forbidden(wide_file, products, monkeypatch):
    model = tiny(wide_file, "bfloat16")
    monkeypatch.setitem(FLAGS, CHANGEABLE, False)
    model.forward(TOKENS)
    assert ("bf16" in {setting for rows, setting in products if rows > 1}) and SETTING.fp32_precision == "none"
    monkeypatch.setitem(FLAGS, CHANGEABLE, True)


@pytest.mark.parametrize("name", ["q4_0", "q8_0"])
def test_only_products_of_several_rows_are_narrow(wide_file, products, name):
    model = tiny(wide_file, "bfloat16", name)
    for run in (lambda: model.forward(TOKENS[:30]), lambda: model.forward([7]), lambda: model.step(8),
                lambda: passed(model, TOKENS[:10])):
        run()
        assert SETTING.fp32_precision == "none"
    assert {rows for rows, _ in products} == {1, 10, 30}
    assert all(setting == ("none" if rows == 1 else "bf16") for rows, setting in products)


def test_between_two_parts_of_the_logits_the_setting_is_as_before(wide_file, products, monkeypatch):
    monkeypatch.setattr("orrery.model.LOGIT_ROWS", 4)
    for rows in tiny(wide_file, "bfloat16").logits(TOKENS[:12]):
        assert len(rows) == 4 and SETTING.fp32_precision == "none"
    assert products[-3:] == [(4, "bf16")] * 3


@pytest.mark.parametrize("chosen, within", [("float32", None), ("bfloat16", "bf16")])
@pytest.mark.parametrize("before", ["none", "ieee", "tf32", "bf16"])
def test_a_setting_of_the_callers_own(before, chosen, within):
    SETTING.fp32_precision = before
    with precision.products_in(chosen):
        assert SETTING.fp32_precision == (within or before)
    assert SETTING.fp32_precision == before
    with pytest.raises(KeyboardInterrupt), precision.products_in(chosen):
        raise KeyboardInterrupt
    assert SETTING.fp32_precision == before


def test_an_inherited_setting_stays_inherited():
    torch.backends.fp32_precision = "tf32"
    with precision.products_in("bfloat16"):
        assert SETTING.fp32_precision == "bf16"
    assert SETTING.fp32_precision == "tf32"
    torch.backends.fp32_precision = "ieee"
    assert SETTING.fp32_precision == "ieee"


def test_a_product_that_fails(wide_file, monkeypatch):
    model = tiny(wide_file, "bfloat16")

    def fail(*_):
        raise RuntimeError(SETTING.fp32_precision)

    monkeypatch.setattr(orrery_ops, "forward_new", fail)
    with pytest.raises(RuntimeError, match="^bf16$"):
        model.forward(TOKENS)
    assert SETTING.fp32_precision == "none"


def test_logits_stay_close(wide_file):
    """Inputs and weights carry 8 bits; the logits' spread is 1.6. Steps do without."""
    exact, narrow = (tiny(wide_file, chosen) for chosen in precision.PRECISIONS)
    expected, found = passed(exact, TOKENS), passed(narrow, TOKENS)
    distance = (found - expected).abs().mean()
    assert distance < 0.03
    # Other processors make a float32 product, with another order of additions.
    assert (distance > 1e-4) == torch.cpu._is_amx_tile_supported()
    for model in (exact, narrow):
        model.rewind(0)
    assert torch.equal(exact.step(3), narrow.step(3))


def test_refusals(wide_file):
    for name in ("float16", "bfloat16"):
        message = f"^a prompt precision of bfloat16 is for activations in float32, not in {name}$"
        with pytest.raises(OrreryError, match=message):
            tiny(wide_file, "bfloat16", dtype=getattr(torch, name))
    with pytest.raises(OrreryError, match="^unknown precision 'half' of prompts, there are float32 and bfloat16$"):
        tiny(wide_file, "half")


def test_commands_take_it(wide_file, products, capsys, tmp_path):
    model = ["--model", str(wide_file), "--no-cache", "--prompt-precision", "bfloat16"]
    for command in (["generate", "a" * 30, "--tokens", "2", "--format", "q8_0"], ["perplexity", "--tokens", "40"],
                    ["formats", "--formats", "q8_0", "--tokens", "40", "--output", str(tmp_path / "plot.png")],
                    ["compare-caches", "--tokens", "40", "--window", "40"]):
        products.clear()
        assert cli.main([*command, *model]) == 0
        assert {setting for rows, setting in products if rows > 1} == {"bf16"}, command
        said = capsys.readouterr()
        assert ("float32, prompts in bfloat16" in said.out) == (command[0] in ("generate", "perplexity"))
    assert cli.main(["generate", *model, "--dtype", "float16"]) == 2
    assert capsys.readouterr().err == "orrery: a prompt precision of bfloat16 is for activations in float32, not in float16\n"
