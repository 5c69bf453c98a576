"""The tokenizer against transformers' reading of the same file."""

import pytest

import runner_files
from orrery import cli, gguf_model
from orrery.tokenizer import ChatTokenizer, Vocabulary

NOVEL = cli.bundled_text()


@pytest.fixture(scope="module")
def tokenizer():
    return ChatTokenizer(gguf_model.read(gguf_model.bundled_model()).vocabulary)


@pytest.fixture(scope="module")
def independent():
    from transformers import AutoTokenizer

    path = gguf_model.bundled_model()
    return AutoTokenizer.from_pretrained(str(path.parent), gguf_file=path.name)


@pytest.mark.parametrize("text", [
    NOVEL, "", " ", "a", " leading and trailing ", "1234567890 3.14159 x86_64", "tabs\tand\n\n\nlines\r\n",
    "don't I'LL we've they're", "naïve café – “quotes” €", "日本語のテキスト", "🙂👩‍👩‍👧 mixed 🙂", "def f(x):\n    return x ** 2\n",
    "<|im_start|>user\nhi<|im_end|>\n<|im_start|>assistant\n", "\u00a0\u2003 odd spaces \ufeff", "a" * 300,
])
def test_same_tokens_as_transformers(tokenizer, independent, text):
    tokens = tokenizer.encode(text)
    assert tokens == independent.encode(text, add_special_tokens=False)
    if "<|" not in text:
        assert tokenizer.decode(tokens) == text


def test_novel_is_long_enough(tokenizer):
    assert len(tokenizer.encode(NOVEL)) >= 2500


def test_each_digit_is_a_token(tokenizer):
    assert len(tokenizer.encode("20240519")) == 8


def test_stream_gives_the_text_of_decode(tokenizer):
    tokens = tokenizer.encode("naïve 🙂👩‍👩‍👧 日本語, and 12 more.")
    stream = tokenizer.stream()
    parts = [stream.push(token) for token in tokens]
    assert "".join(parts) == tokenizer.decode(tokens)
    assert "\ufffd" not in "".join(parts) and "" in parts


def test_chat_follows_the_files_template(tokenizer):
    text = ("<|im_start|>system\nBe brief.<|im_end|>\n<|im_start|>user\nHi<|im_end|>\n<|im_start|>assistant\n"
            "Hello<|im_end|>\n<|im_start|>user\nBye<|im_end|>\n<|im_start|>assistant\n")
    messages = [{"role": "system", "content": "Be brief."}, {"role": "user", "content": "Hi"},
                {"role": "assistant", "content": "Hello"}, {"role": "user", "content": "Bye"}]
    assert tokenizer.chat(messages) == tokenizer.encode(text)


def test_stop_tokens(tokenizer):
    assert tokenizer.stop == {tokenizer.encode("<|im_end|>")[0], tokenizer.encode("<|endoftext|>")[0]}


def test_file_without_a_template():
    tokens, kinds, merges = runner_files.pieces()
    tokenizer = ChatTokenizer(Vocabulary.from_pieces(tokens, kinds, merges, 2, ""))
    expected = "<|im_start|>user\nhe<|im_end|>\n<|im_start|>assistant\n"
    assert tokenizer.chat([{"role": "user", "content": "he"}]) == tokenizer.encode(expected)
    assert tokenizer.encode("he")[0] == len(tokens) - 1
    assert tokenizer.stop == {0, 2}
