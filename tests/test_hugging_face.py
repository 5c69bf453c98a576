"""Models of transformers with quantized layers, made from a configuration or a GGUF file."""

from __future__ import annotations

import copy

import pytest
import safetensors.torch
import torch

import orrery_host
import runner_files
from orrery import gguf_model, hugging_face, quantize_
from orrery.nn import QuantizedLinear, dequantize_

# Logits against those of the same model with dense matrices of the same values. One token, or a few, goes through
# kernels in float32 (measured: 1e-6). More rows meet weights that were rounded to half: a part in 4096 at most for each
# weight, of random sign (measured: 2e-4).
FEW_ROWS, MANY_ROWS = 1e-5, 2e-3


def tiny_llama(**settings):
    from transformers import LlamaConfig, LlamaForCausalLM

    torch.manual_seed(5)
    sizes = dict(vocab_size=300, hidden_size=256, intermediate_size=320, num_hidden_layers=2, num_attention_heads=4,
                 num_key_value_heads=2, max_position_embeddings=128, eos_token_id=None, pad_token_id=0,
                 initializer_range=0.1)
    return LlamaForCausalLM(LlamaConfig(**sizes | settings)).eval()


def distance(result: torch.Tensor, expected: torch.Tensor) -> float:
    result, expected = result.cpu().double(), expected.cpu().double()
    return float((result - expected).norm() / expected.norm())


@pytest.fixture(scope="module")
def model(xpu):
    return quantize_(tiny_llama()).to(xpu)


@pytest.fixture(scope="module")
def dense(model):
    return dequantize_(copy.deepcopy(model))


def tokens(rows: int) -> torch.Tensor:
    return torch.randint(300, (1, rows), generator=torch.Generator().manual_seed(6)).to("xpu")


@pytest.mark.parametrize("rows, near", [(1, FEW_ROWS), (6, FEW_ROWS), (40, MANY_ROWS)])
@torch.inference_mode()
def test_logits(model, dense, rows, near) -> None:
    with orrery_host.record_launches() as launches:
        result = model(tokens(rows)).logits
    assert sum("q4_0" in launch.kernel for launch in launches) >= 2 * 7 + 1
    assert distance(result, dense(tokens(rows)).logits) < near


def test_twenty_tokens(model, dense) -> None:
    """The same ones as of the dense model, and in a batch with padding in front."""
    given = tokens(5)
    answer = model.generate(given, max_new_tokens=20, do_sample=False)
    assert answer.shape == (1, 25)
    assert torch.equal(answer, dense.generate(given, max_new_tokens=20, do_sample=False))
    shorter = torch.cat([torch.zeros_like(given[:, :2]), given[:, 2:]], 1)
    mask = torch.ones(2, 5, dtype=torch.int64, device="xpu")
    mask[1, :2] = 0
    both = model.generate(torch.cat([given, shorter]), attention_mask=mask, max_new_tokens=20, do_sample=False)
    assert torch.equal(both[0], answer[0])
    alone = model.generate(given[:, 2:], max_new_tokens=20, do_sample=False)
    assert torch.equal(both[1, 2:], alone[0])


def test_a_saved_dense_model(model, tmp_path) -> None:
    """The way of most users: a folder that transformers reads, quantized and moved."""
    from transformers import AutoModelForCausalLM

    tiny_llama().save_pretrained(tmp_path)
    ours = quantize_(AutoModelForCausalLM.from_pretrained(tmp_path, dtype=torch.bfloat16), "q8_0").to("xpu")
    answer = ours.generate(tokens(5), max_new_tokens=20, do_sample=False)
    assert answer.shape == (1, 25) and ours(tokens(5)).logits.dtype == torch.bfloat16
    # bfloat16 keeps 8 bits of the weights, and rounds behind every operation of both layers.
    assert distance(ours(tokens(5)).logits.float(), tiny_llama()(tokens(5).cpu()).logits) < 0.1


def test_sampling_and_a_static_cache(model) -> None:
    torch.manual_seed(7)
    drawn = [model.generate(tokens(5), max_new_tokens=20, do_sample=True, top_k=50) for _ in range(2)]
    assert not torch.equal(*drawn)
    static = {"cache_implementation": "static", "disable_compile": True}
    ways = [model.generate(tokens(5), max_new_tokens=20, do_sample=False, **more) for more in ({}, static)]
    assert torch.equal(*ways)
    assert model.generate(tokens(5), max_new_tokens=20, num_beams=3).shape == (1, 25)


def test_a_tied_head_is_quantized_and_the_embedding_is_not(xpu) -> None:
    model = tiny_llama(tie_word_embeddings=True)
    assert model.lm_head.weight is model.model.embed_tokens.weight
    quantize_(model)
    assert isinstance(model.lm_head, QuantizedLinear)
    assert isinstance(model.model.embed_tokens.weight, torch.nn.Parameter)
    with pytest.raises(TypeError) as error:
        model.tie_weights()
    assert str(error.value) == "a quantized layer takes no dense weight, so it cannot be tied to another one's"


def test_a_model_comes_back_from_a_file(model, tmp_path) -> None:
    safetensors.torch.save_file(model.state_dict(), tmp_path / "model.safetensors")
    other = quantize_(tiny_llama(initializer_range=0.2), "q8_0").to("xpu")
    other.load_state_dict(safetensors.torch.load_file(tmp_path / "model.safetensors"))
    assert torch.equal(other(tokens(3)).logits, model(tokens(3)).logits)


# ---- Our attention ----


@pytest.fixture
def ours(model):
    hugging_face.register_attention()
    model.set_attn_implementation("orrery")
    yield model
    model.set_attn_implementation("sdpa")


@torch.inference_mode()
def test_attention_of_a_prompt_and_of_steps(ours, dense) -> None:
    with orrery_host.record_launches() as launches:
        result = ours(tokens(6)).logits
    assert sum("sdp" in launch.kernel for launch in launches) == 2
    assert distance(result, dense(tokens(6)).logits) < FEW_ROWS
    given = tokens(5)
    answer = dense.generate(given, max_new_tokens=20, do_sample=False)
    assert torch.equal(ours.generate(given, max_new_tokens=20, do_sample=False), answer)
    static = {"cache_implementation": "static", "disable_compile": True}
    assert torch.equal(ours.generate(given, max_new_tokens=20, do_sample=False, **static), answer)


def test_attention_of_padded_rows(ours) -> None:
    given = tokens(5)
    padded = torch.cat([torch.zeros_like(given[:, :3]), given], 1)
    mask = (torch.arange(8) >= 3).long().view(1, 8).to("xpu")
    answer = ours.generate(padded, attention_mask=mask, max_new_tokens=8, do_sample=False)
    assert torch.equal(answer[:, 8:], ours.generate(given, max_new_tokens=8, do_sample=False)[:, 5:])


def test_attention_that_is_not_ours(ours) -> None:
    layer = ours.model.layers[0].self_attn
    q = torch.ones(1, 4, 3, 64, device="xpu")
    for more, name in (({"dropout": 0.1}, "dropout"), ({"softcap": 30.0}, "softcap")):
        with pytest.raises(ValueError) as error:
            hugging_face._attention(layer, q, q[:, :2], q[:, :2], None, **more)
        assert str(error.value) == f"orrery's attention has no {name}: choose 'sdpa' or 'eager'"


def test_attention_with_another_scale_and_without_causality(xpu) -> None:
    generator = torch.Generator().manual_seed(8)
    q, k, v = (torch.randn(2, heads, 5, 64, generator=generator).to(xpu) for heads in (4, 2, 2))
    expected = torch.nn.functional.scaled_dot_product_attention(q, k, v, scale=0.3, enable_gqa=True)
    result, _ = hugging_face._attention(torch.nn.Module(), q, k, v, None, scaling=0.3, is_causal=False)
    assert distance(result.transpose(1, 2), expected) < FEW_ROWS


# ---- Other architectures ----


def test_other_architectures(xpu) -> None:
    from transformers import BertConfig, BertModel, T5Config, T5ForConditionalGeneration

    torch.manual_seed(9)
    given = tokens(6)
    bert = BertModel(BertConfig(vocab_size=300, hidden_size=64, num_hidden_layers=1, num_attention_heads=2,
                                intermediate_size=96)).eval()
    t5 = T5ForConditionalGeneration(T5Config(vocab_size=300, d_model=64, d_kv=32, d_ff=96, num_layers=1,
                                             num_heads=2)).eval()
    for model, more in ((bert, {}), (t5, {"decoder_input_ids": given})):
        quantize_(model, "q8_0").to(xpu)
        with torch.inference_mode():
            result, expected = (each(given, **more)[0] for each in (model, dequantize_(copy.deepcopy(model))))
        assert distance(result, expected) < MANY_ROWS


# ---- GGUF files ----


@pytest.mark.parametrize("untied", [False, True])
@torch.inference_mode()
def test_a_gguf_file(xpu, tmp_path, untied) -> None:
    """Against an independent reading of the same file."""
    from reference_llama import ReferenceLlama

    path = tmp_path / "tiny.gguf"
    values = runner_files.write_tiny(path, untied=untied)
    file = gguf_model.read(path)
    model = hugging_face.llama(file)
    assert (model.lm_head.weight is model.model.embed_tokens.weight) is not untied
    assert not model.training and model.config.eos_token_id == list(file.vocabulary.stop)
    reference = ReferenceLlama(file.sizes)
    reference.load_file(path)
    if untied:
        head = torch.from_numpy(values["output.weight"])
        reference.model.lm_head.weight = torch.nn.Parameter(head)
    assert torch.equal(model(tokens(9).cpu() % 250).logits[0], reference.logits((tokens(9)[0] % 250).tolist()))
