"""The tokenizer against transformers' reading of the same file, and against its classes with the same vocabulary."""

import io
import json
import random
import re
import unicodedata
from types import SimpleNamespace

import pytest

import runner_files
import vocabularies
from orrery import OrreryError, cli, gguf_model
from orrery.tokenizer import ChatTokenizer, Vocabulary

NOVEL = cli.bundled_text()
LINES = vocabularies.mixed_lines()
# Those that come back as they were: without special tokens, the sign for a space, and a space in front, which
# transformers takes for the one that SentencePiece puts there.
PLAIN_LINES = [line for line in LINES if "<" not in line and vocabularies.SPACE not in line and line[:1] != " "]
BYTES = vocabularies.byte_level("default")
PIECES = vocabularies.sentence_piece()
BYTE_TOKENS, PIECE_TOKENS = BYTES["tokenizer.ggml.tokens"], PIECES["tokenizer.ggml.tokens"]


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


def test_mixed_lines_with_the_bundled_vocabulary(tokenizer, independent):
    """transformers does not know that `smollm` takes each digit alone, so the digits are cut out for it."""
    for line in LINES:
        parts = re.split("([0-9٠-٩０-９½²Ⅷ])", line)
        expected = sum((independent.encode(part, add_special_tokens=False) for part in parts), [])
        tokens = tokenizer.encode(line)
        assert tokens == expected, line
        # The vocabulary lacks the letters of some control characters, which are lost.
        assert tokenizer.decode(tokens) == independent.decode(tokens, skip_special_tokens=True), line


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


def made(entries, rows=10**6):
    """A tokenizer of a file's entries."""
    return ChatTokenizer(read(entries, rows))


def read(entries, rows=10**6):
    def entry(key, *default):
        if key not in entries and not default:
            raise OrreryError(f"the model file lacks the entry {key}")
        return entries.get(key, *default)

    return Vocabulary.read(entry, rows)


def of_file(folder, entries):
    """Our tokenizer and transformers' of one GGUF file."""
    from transformers import AutoTokenizer

    runner_files.write_tiny(folder / "tiny.gguf", tokenizer=entries)
    ours = ChatTokenizer(gguf_model.read(folder / "tiny.gguf").vocabulary)
    return ours, AutoTokenizer.from_pretrained(str(folder), gguf_file="tiny.gguf")


def of_class(entries, name, **options):
    """A tokenizer of a transformers class, of the same tokens and merges."""
    import transformers
    from transformers.tokenization_utils_base import generate_merges

    tokens = entries["tokenizer.ggml.tokens"]
    vocab = {token: i for i, token in enumerate(tokens)}
    if "tokenizer.ggml.merges" in entries:
        merges = [tuple(merge.split(" ")) for merge in entries["tokenizer.ggml.merges"]]
    else:
        merges = generate_merges(vocab, dict(zip(tokens, entries["tokenizer.ggml.scores"])))
    tokenizer = getattr(transformers, name)(vocab=vocab, merges=merges, **options)
    kinds = entries["tokenizer.ggml.token_type"]
    tokenizer.add_special_tokens({"additional_special_tokens": [t for t, kind in zip(tokens, kinds) if kind == 3]})
    tokenizer.add_tokens([t for t, kind in zip(tokens, kinds) if kind == 4])
    return tokenizer


def assert_same(ours, reference, lines=LINES, composed=False):
    """The same tokens and the same text again on every line; the line itself if it has no special tokens."""
    for line in lines:
        tokens = ours.encode(line)
        assert tokens == reference.encode(line, add_special_tokens=False), line
        text = ours.decode(tokens)
        assert text == reference.decode(tokens, skip_special_tokens=True), line
        if line in PLAIN_LINES:
            assert text == (unicodedata.normalize("NFC", line) if composed else line)


@pytest.mark.parametrize("pre", ["default", "llama-bpe"])
def test_byte_level_vocabulary(tmp_path, pre):
    assert_same(*of_file(tmp_path, vocabularies.byte_level(pre)))


def test_qwen2_vocabulary():
    """transformers' class composes characters, as the models' own tokenizers do; its reader of GGUF files does not."""
    entries = vocabularies.byte_level("qwen2")
    assert_same(made(entries), of_class(entries, "Qwen2TokenizerFast"), composed=True)


def test_no_pre_tokenizer_is_the_default():
    named = made(BYTES)
    unnamed = made({key: entry for key, entry in BYTES.items() if key != "tokenizer.ggml.pre"})
    assert [unnamed.encode(line) for line in LINES] == [named.encode(line) for line in LINES]


def test_pre_tokenizers_differ():
    """So that the tests above would see one taken for another."""
    names = ("default", "llama-bpe", "qwen2", "smollm")
    tokenizers = [made(vocabularies.byte_level(name)) for name in names]
    seen = {str([tokenizer.encode(line) for line in LINES]) for tokenizer in tokenizers}
    assert len(seen) == len(names)


def test_llama_bpe_takes_a_word_that_is_a_token_whole():
    """Even if no merges lead to it."""
    from transformers import PreTrainedTokenizerFast
    from transformers.convert_slow_tokenizer import TikTokenConverter, bytes_to_unicode

    entries = vocabularies.byte_level("llama-bpe")
    letters = {letter: byte for byte, letter in bytes_to_unicode().items()}
    tokens = entries["tokenizer.ggml.tokens"][len(vocabularies.SPECIAL) : -1] + ["ĠzQzQzQ"]
    ranks = {bytes(letters[letter] for letter in token): i for i, token in enumerate(tokens)}

    class Converter(TikTokenConverter):
        @staticmethod
        def load_tiktoken_bpe(_):
            return ranks

    converter = Converter()
    _, merges = converter.extract_vocab_merges_from_model("")
    entries |= {"tokenizer.ggml.tokens": tokens, "tokenizer.ggml.token_type": [1] * len(tokens),
                "tokenizer.ggml.merges": [" ".join(merge) for merge in merges]}
    lines = [line for line in LINES if "<" not in line] + ["a zQzQzQ b"]
    assert_same(made(entries), PreTrainedTokenizerFast(tokenizer_object=converter.converted()), lines)
    whole = len(tokens) - 1
    assert whole in made(entries).encode("a zQzQzQ b")
    assert whole not in made(entries | {"tokenizer.ggml.pre": "default"}).encode("a zQzQzQ b")


def test_sentence_piece_vocabulary(tmp_path):
    assert_same(*of_file(tmp_path, vocabularies.sentence_piece()))


def test_sentence_piece_without_a_space_prefix():
    entries = vocabularies.sentence_piece(add_space_prefix=False)
    assert_same(made(entries), of_class(entries, "LlamaTokenizerFast", add_prefix_space=False))


def test_sentence_piece_with_scores_all_alike():
    """Which some converters write."""
    scores = [-1000.0 if kind == 1 else 0.0 for kind in PIECES["tokenizer.ggml.token_type"]]
    entries = PIECES | {"tokenizer.ggml.scores": scores}
    assert_same(made(entries), of_class(entries, "LlamaTokenizerFast"))


def test_the_text_of_a_bytes_token_is_text():
    """Even if there are tokens that could be joined to it."""
    joined = ["<0x41"[:length] for length in range(1, 6)]
    entries = PIECES | {
        "tokenizer.ggml.tokens": PIECE_TOKENS + joined,
        "tokenizer.ggml.scores": PIECES["tokenizer.ggml.scores"] + [float(length) for length in range(5)],
        "tokenizer.ggml.token_type": PIECES["tokenizer.ggml.token_type"] + [1] * 5,
    }
    ours = made(entries)
    tokens = ours.encode("<0x41>")
    assert ours.decode(tokens) == "<0x41>" and len(PIECE_TOKENS) + 4 in tokens


def joined_by_score(text, entries):
    """SentencePiece's rule: of all neighbours that make a token, those of the highest score join, leftmost first."""
    tokens = entries["tokenizer.ggml.tokens"]
    number = {t: i for i, t in enumerate(tokens)}
    score = {t: s for t, s, kind in zip(tokens, entries["tokenizer.ggml.scores"], entries["tokenizer.ggml.token_type"])
             if kind == 1}
    parts = list((" " + text).replace(" ", vocabularies.SPACE)) if text else []
    while True:
        pairs = [(score[a + b], -i) for i, (a, b) in enumerate(zip(parts, parts[1:])) if a + b in score]
        if not pairs:
            break
        i = -max(pairs)[1]
        parts[i : i + 2] = [parts[i] + parts[i + 1]]
    return sum(([number[p]] if p in number else [number[f"<0x{b:02X}>"] for b in p.encode()] for p in parts), [])


def test_sentence_piece_by_its_own_rule():
    entries = vocabularies.sentence_piece()
    ours = made(entries)
    for line in PLAIN_LINES:
        if len(line) < 60:
            assert ours.encode(line) == joined_by_score(line, entries), line


def test_unigram_vocabulary():
    """Scores that are no whole numbers are logarithms of probabilities."""
    from tokenizers import Tokenizer, models, pre_tokenizers, trainers
    from transformers import PreTrainedTokenizerFast
    from transformers.convert_slow_tokenizer import SpmConverter

    trained = Tokenizer(models.Unigram())
    trained.pre_tokenizer = pre_tokenizers.Metaspace(vocabularies.SPACE, "never")
    trainer = trainers.UnigramTrainer(vocab_size=600, unk_token="<unk>", special_tokens=["<unk>"], show_progress=False)
    trained.train_from_iterator(PLAIN_LINES[:300] + ["< > 0 x 4 1"], trainer)
    learned = [(token, score) for token, score in json.loads(trained.to_str())["model"]["vocab"] if token != "<unk>"]
    entries = vocabularies.sentence_piece(add_space_prefix=False)
    special = entries["tokenizer.ggml.tokens"][:259]
    entries |= {
        "tokenizer.ggml.tokens": special + [token for token, _ in learned],
        "tokenizer.ggml.scores": [0.0] * 259 + [score for _, score in learned],
        "tokenizer.ggml.token_type": entries["tokenizer.ggml.token_type"][:259] + [1] * len(learned),
    }
    proto = SimpleNamespace(trainer_spec=SimpleNamespace(byte_fallback=True, unk_piece="<unk>", unk_id=0),
                            normalizer_spec=SimpleNamespace(precompiled_charsmap=b""))
    scored = list(zip(entries["tokenizer.ggml.tokens"], entries["tokenizer.ggml.scores"]))
    reference = PreTrainedTokenizerFast(tokenizer_object=SpmConverter.build_tokenizer_from_spm_proto(proto, scored))
    assert_same(made(entries), reference, [line for line in LINES if "<" not in line] + ["a ☃ꙮ", "☃"])
    # The text of a byte's token is text.
    assert made(entries).decode(made(entries).encode("<0x41>")) == "<0x41>"


def test_extra_spaces_are_removed_if_the_file_says_so():
    for prefix in (True, False):
        plain = made(vocabularies.sentence_piece(add_space_prefix=prefix))
        ours = made(vocabularies.sentence_piece(add_space_prefix=prefix, remove_extra_whitespaces=True))
        for text, kept in (("  two   words  ", "two words"), ("a\n  b", "a\n b"), ("   ", ""), ("", "")):
            assert ours.encode(text) == plain.encode(kept)
            assert ours.decode(ours.encode(text)) == kept
        assert ours.encode("  after   it ", follows=True) == plain.encode(" after it", follows=True)


@pytest.mark.parametrize("entries", [vocabularies.byte_level("llama-bpe"), PIECES], ids=["llama-bpe", "llama"])
def test_a_text_begins_with_its_token(entries):
    plain, begin = made(entries), entries["tokenizer.ggml.bos_token_id"]
    entries = {key: entry for key, entry in entries.items() if key != "tokenizer.ggml.add_bos_token"}
    for ours in (made(entries), made(entries | {"tokenizer.ggml.add_bos_token": True})):
        assert ours.encode("the end") == [begin, *plain.encode("the end")]
        assert ours.encode("") == [begin]
        # Not twice, and not within a text.
        name = entries["tokenizer.ggml.tokens"][begin]
        assert ours.encode(name + "the end") == plain.encode(name + "the end")
        assert ours.encode("the end", follows=True) == plain.encode("the end", follows=True)
    del entries["tokenizer.ggml.bos_token_id"]
    assert made(entries).encode("the end") == plain.encode("the end")


def test_the_beginning_of_a_llama_text_in_transformers():
    entries = vocabularies.sentence_piece(add_bos_token=True)
    ours, reference = made(entries), of_class(entries, "LlamaTokenizerFast", add_bos_token=True)
    for line in LINES:
        if not line.startswith("<s>"):  # transformers writes it twice.
            assert ours.encode(line) == reference.encode(line)


def test_a_text_that_follows_has_no_space_in_front():
    ours = made(vocabularies.sentence_piece())
    said, more = "I don't", " return, of the"
    assert ours.decode(ours.encode(said) + ours.encode(more, follows=True)) == said + more
    assert ours.encode("of", follows=True) == made(vocabularies.sentence_piece(add_space_prefix=False)).encode("of")


def test_stream_of_bytes():
    """What is no character yet is held back, what can be none is replaced; the text around it stays."""
    entries = vocabularies.sentence_piece()
    ours, number = made(entries), entries["tokenizer.ggml.tokens"].index
    bytes_, a = [number(f"<0x{b:02X}>") for b in (0xE2, 0x82, 0xAC, 0xFF)], number("a")
    stream = ours.stream()
    assert [stream.push(token) for token in [*bytes_, a]] == ["", "", "€", "\ufffd", "a"]
    stream = ours.stream()
    tokens = [*bytes_[:2], a, 1, number("<think>")]
    assert [stream.push(token) for token in tokens] == ["", "", "\ufffda", "", "<think>"]
    assert ours.decode([*bytes_, a]) == "€\ufffda"


@pytest.mark.parametrize("entries", [BYTES, PIECES], ids=["gpt2", "llama"])
def test_stream_of_lines(entries):
    """A stream follows a prompt, so it keeps the first space."""
    ours = made(entries)
    for line in LINES:
        tokens = ours.encode(line)
        stream = ours.stream()
        text = "".join(map(stream.push, tokens))
        assert ours.decode(tokens) == (text.removeprefix(" ") if entries is PIECES else text)


def test_any_tokens_as_text(tmp_path):
    ours, reference = of_file(tmp_path, BYTES)
    rng, count = random.Random(5), len(BYTES["tokenizer.ggml.tokens"])
    for _ in range(300):
        tokens = [rng.randrange(count) for _ in range(20)]
        assert ours.decode(tokens) == reference.decode(tokens, skip_special_tokens=True)


def test_a_users_token_is_written_as_it_is():
    """Not in the letters for bytes, even if it could be read so."""
    ours = made(BYTES | {"tokenizer.ggml.tokens": [*BYTES["tokenizer.ggml.tokens"][:-1], "éx"]})
    tokens = ours.encode("uéx")
    assert tokens[-1] == 1204 and ours.decode(tokens) == "uéx"
    assert ours.decode(ours.encode("é")) == "é"


@pytest.mark.parametrize("token", [-1, 1160, 10**9])
def test_no_such_token(token):
    ours = made(vocabularies.sentence_piece())
    message = f"^there is no token {token}, the vocabulary has 1160$"
    with pytest.raises(OrreryError, match=message):
        ours.decode([token])
    with pytest.raises(OrreryError, match=message):
        ours.stream().push(token)


def test_stop_tokens_by_number_and_by_text():
    entries = vocabularies.byte_level("qwen2")
    assert made(entries).stop == {0, 2}
    assert made(entries | {"tokenizer.ggml.eos_token_id": 1}).stop == {0, 1, 2}
    assert made(entries | {"tokenizer.ggml.eot_token_id": 1, "tokenizer.ggml.eom_token_id": 3}).stop == {0, 1, 2, 3}
    # An ordinary token of the same text ends nothing.
    kinds = [1, 1, 1, 1, *entries["tokenizer.ggml.token_type"][4:]]
    assert made(entries | {"tokenizer.ggml.token_type": kinds, "tokenizer.ggml.eos_token_id": 1}).stop == {1}
    assert made(vocabularies.sentence_piece()).stop == {2}


# Nothing is of the type of an unknown token, and nothing is named as one.
KNOWN = {"unknown_token_id": None, "token_type": [3, *PIECES["tokenizer.ggml.token_type"][1:]]}


@pytest.mark.parametrize("entries, changes, message", [
    (BYTES, {"model": "t5"},
     "the tokenizer 't5' is not supported, the runner supports 'gpt2' (byte-level BPE) and 'llama' (SentencePiece)"),
    (BYTES, {"pre": "tekken"},
     "the pre-tokenizer 'tekken' is not supported, the runner supports 'default', 'llama-bpe', 'qwen2', 'smollm'"),
    (BYTES, {"add_space_prefix": True},
     "a space prefix with the tokenizer 'gpt2' is not supported, the runner supports it with 'llama'"),
    (PIECES, {"precompiled_charsmap": [1, 2]},
     "a vocabulary with a precompiled map of characters is not supported, the runner supports those without one"),
    (BYTES, {"model": None}, "the model file lacks the entry tokenizer.ggml.model"),
    (BYTES, {"token_type": None}, "the model file lacks the entry tokenizer.ggml.token_type"),
    (BYTES, {"merges": None}, "the model file lacks the entry tokenizer.ggml.merges"),
    (PIECES, {"scores": None}, "the model file lacks the entry tokenizer.ggml.scores"),
    (BYTES, {"tokens": [*BYTE_TOKENS[:-1], "a"]}, "the vocabulary has the token 'a' twice"),
    (BYTES, {"tokens": BYTE_TOKENS[:-1]}, "the vocabulary has 1204 tokens, but types for 1205"),
    (PIECES, {"scores": [0.0] * 7}, "the vocabulary has 1160 tokens, but scores for 7"),
    (PIECES, {"scores": [float("nan")] * 1160}, "a score of the vocabulary is not a finite number"),
    (PIECES, {"scores": [-1.5] * 1160} | KNOWN,
     "the vocabulary has no unknown token, which a unigram model needs"),
    (PIECES, {"tokens": [token.replace("<0x61>", "<0x6161>") for token in PIECE_TOKENS]} | KNOWN,
     "the vocabulary has neither a token for each byte nor an unknown token"),
    *((BYTES, {f"{name}_token_id": 1205},
       f"tokenizer.ggml.{name}_token_id is 1205, which is none of the vocabulary's 1205 tokens")
      for name in ("bos", "eos", "eot", "eom")),
    (PIECES, {"unknown_token_id": 2**32 - 1},
     "tokenizer.ggml.unknown_token_id is 4294967295, which is none of the vocabulary's 1160 tokens"),
    *((BYTES, {"merges": [BYTES["tokenizer.ggml.merges"][0], merge]},
       f"merge 1 of the vocabulary, {merge!r}, is not of two tokens that make a third")
      for merge in ("a nosuch", "nosuch a", "Z Q", "a", "", "a ", "a b c")),
    (PIECES, {"merges": ["no such"]}, "merge 0 of the vocabulary, 'no such', is not of two tokens that make a third"),
])
def test_vocabularies_that_are_not_served(entries, changes, message):
    entries = entries | {f"tokenizer.ggml.{key}": entry for key, entry in changes.items()}
    with pytest.raises(OrreryError, match=f"^{re.escape(message)}$"):
        read({key: entry for key, entry in entries.items() if entry is not None})


def test_more_tokens_than_rows():
    assert read(BYTES, 1205).eos == 0
    with pytest.raises(OrreryError, match="^the vocabulary has 1205 tokens and the embedding 1204 rows$"):
        read(BYTES, 1204)


def test_file_without_a_template():
    entries = runner_files.byte_level_entries()
    tokens = entries["tokenizer.ggml.tokens"]
    tokenizer = made(entries)
    expected = "<|im_start|>user\nhe<|im_end|>\n<|im_start|>assistant\n"
    assert tokenizer.chat([{"role": "user", "content": "he"}]) == tokenizer.encode(expected)
    assert tokenizer.encode("he")[0] == len(tokens) - 1
    assert tokenizer.stop == {0, 2}
    with pytest.raises(OrreryError, match="^the model file has no chat template and its vocabulary no token "
                                          r"<\|im_start\|>$"):
        made(PIECES).chat([{"role": "user", "content": "he"}])


def test_a_template_knows_the_ends_of_a_text():
    template = "{{ bos_token }}{% for m in messages %}[{{ m.content }}]{{ eos_token }}{% endfor %}"
    ours = made(PIECES | {"tokenizer.chat_template": template, "tokenizer.ggml.add_bos_token": True})
    messages = [{"role": "user", "content": "the of"}]
    assert ours.chat_text(messages) == "<s>[the of]</s>"
    tokens = ours.chat(messages)
    assert (tokens[0], tokens[-1], tokens.count(1)) == (1, 2, 1)


@pytest.mark.parametrize("name", ["default", "llama-bpe", "qwen2", "llama"])
def test_generate_with_each_kind_of_vocabulary(xpu, tmp_path, capsys, name):
    entries = vocabularies.sentence_piece() if name == "llama" else vocabularies.byte_level(name)
    del entries["tokenizer.ggml.add_bos_token"]
    runner_files.write_tiny(tmp_path / "tiny.gguf", tokenizer=entries, silent=range(4))
    prompt = "naïve return, of the 🙂"
    arguments = ["generate", prompt, "--model", str(tmp_path / "tiny.gguf"), "--tokens", "8", "--no-cache"]
    assert cli.main(arguments) == 0
    text, told = capsys.readouterr().out.rstrip("\n").rsplit("\n", 1)
    assert text.startswith(prompt) and len(text) > len(prompt)
    tokens = len(made(entries).encode(prompt))
    assert f"prompt: {tokens} tokens" in told and "answer: 8 tokens" in told


def test_a_later_turn_does_not_begin_again(xpu, tmp_path, capsys, monkeypatch):
    """A question behind an answer has neither the beginning of a text nor the space before it."""
    template = "{{ bos_token }}{% for m in messages %}[{{ m.content }}]{% endfor %}["
    entries = PIECES | {"tokenizer.ggml.add_bos_token": True, "tokenizer.chat_template": template}
    runner_files.write_tiny(tmp_path / "tiny.gguf", tokenizer=entries, silent=range(259))
    monkeypatch.setattr("sys.stdin", io.StringIO("of the\nreturn\n"))
    assert cli.main(["chat", "--model", str(tmp_path / "tiny.gguf"), "--tokens", "5", "--no-cache"]) == 0
    ours = made(entries)
    questions = len(ours.encode("<s>[of the][")), 1 + len(ours.encode("][return][", follows=True))
    told = re.findall(r"prompt: (\d+) tokens.*answer: 5 tokens", capsys.readouterr().err)
    assert tuple(map(int, told)) == questions
    assert questions[1] != 1 + len(ours.encode("][return]["))
