"""`python -m orrery`: generate, chat, formats, cache, perplexity."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import NoReturn

from orrery import OrreryError, device_class, formats, optional

DTYPES = ("float32", "float16", "bfloat16")
CACHES = ("plain", "byte")
# Among which the device shares a launch. PyTorch takes any number, and crashes when it starts so many.
MOST_THREADS = 256
DEFAULT_PROMPT = "The three primary colors are"


class _Parser(argparse.ArgumentParser):
    """An argument parser whose complaints are one sentence."""

    def error(self, message: str) -> NoReturn:
        raise OrreryError(message)


def _whole(text: str) -> int:
    number = int(text)
    if number < 1:
        raise argparse.ArgumentTypeError(f"{text} is below 1")
    return number


def _threads(text: str) -> int:
    number = _whole(text)
    if number > MOST_THREADS:
        raise argparse.ArgumentTypeError(f"{text} is above {MOST_THREADS}")
    return number


def _share(text: str) -> float:
    number = float(text)
    if not 0 < number <= 1:
        raise argparse.ArgumentTypeError(f"{text} is not above 0 and at most 1")
    return number


def _temperature(text: str) -> float:
    number = float(text)
    if not 0 <= number < float("inf"):
        raise argparse.ArgumentTypeError(f"{text} is not a temperature")
    return number


def _format_list(text: str) -> list[formats.Format]:
    try:
        return [formats.find(name) for name in text.split(",")]
    except OrreryError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="orrery", description="Runs a language model in low-bit weights on the xpu device.")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    model = _Parser(add_help=False)
    group = model.add_argument_group("model")
    group.add_argument("--model", type=Path, metavar="FILE", help="GGUF file, Llama architecture (default: the bundled one)")
    group.add_argument("--dtype", default="float32", choices=DTYPES, help="type of the activations (default: float32)")
    group.add_argument("--threads", type=_threads, metavar="N", help="CPU threads (default: torch's choice)")
    device_class.add_option(group)
    group.add_argument("--no-cache", action="store_true", help="neither read nor write the quantized model's cache file")

    weights = _Parser(add_help=False)
    group = weights.add_argument_group("weights")
    group.add_argument("--format", default="q4_0", help=f"weight format: {', '.join(formats.FORMATS)} (default: q4_0). "
                       f"Rows that blocks of 256 do not divide take another one: {formats.substitutes()}")

    keys = _Parser(add_help=False)
    keys.add_argument("--cache", default="plain", choices=CACHES,
                      help="keys and values as they are, or in one byte per element (default: plain)")

    sampling = _Parser(add_help=False)
    group = sampling.add_argument_group("sampling")
    group.add_argument("--temperature", type=_temperature, default=0.0, metavar="T", help="0 is greedy (default: 0)")
    group.add_argument("--top-p", type=_share, default=1.0, metavar="P",
                       help="sample among the likeliest tokens that make up this share (default: 1)")
    group.add_argument("--seed", type=int, default=0, metavar="N", help="start of the random numbers (default: 0)")

    steps = _Parser(add_help=False)
    steps.add_argument("--verbose", action="store_true", help="tell which fused operations the answer's steps take")

    command = commands.add_parser("generate", parents=[model, weights, keys, sampling, steps], help="continue a text")
    command.add_argument("prompt", nargs="?", default=DEFAULT_PROMPT, help=f"text to continue (default: {DEFAULT_PROMPT!r})")
    command.add_argument("--tokens", type=_whole, default=128, metavar="N", help="most tokens to make (default: 128)")
    command.add_argument("--chat", action="store_true", help="put the prompt into the model's chat template")
    command.set_defaults(run=_generate)

    command = commands.add_parser("chat", parents=[model, weights, keys, sampling, steps],
                                  help="talk; reads lines from standard input")
    command.add_argument("--system", metavar="TEXT", help="system message")
    command.add_argument("--tokens", type=_whole, default=256, metavar="N", help="most tokens an answer (default: 256)")
    command.add_argument("--context", type=_whole, metavar="N",
                         help="most tokens of the conversation (default: the model's own context)")
    command.set_defaults(run=_chat)

    command = commands.add_parser("formats", parents=[model, keys], help="compare the weight formats on a model",
                                  description="Measures each format on a model: bits, error, perplexity, speed.")
    command.add_argument("--no-measure", action="store_true", help="only list the formats")
    command.add_argument("--formats", type=_format_list, metavar="A,B", help="measure only these")
    command.add_argument("--text", type=Path, metavar="FILE", help="text for the perplexity (default: a bundled one)")
    command.add_argument("--tokens", type=_whole, default=2048, metavar="N",
                         help="use only the first N tokens of the text (default: 2048)")
    command.add_argument("--window", type=_whole, default=512, metavar="N", help="tokens seen together (default: 512)")
    command.add_argument("--output", type=Path, default=Path("orrery-formats.png"), metavar="FILE",
                         help="where the plot goes (default: %(default)s)")
    command.set_defaults(run=_formats)

    command = commands.add_parser("cache", parents=[model, weights], help="compare both key/value caches on a model",
                                  description="Measures both kinds of key/value cache: bytes, perplexity, speed.")
    command.add_argument("--text", type=Path, metavar="FILE", help="text for the perplexity (default: a bundled one)")
    command.add_argument("--tokens", type=_whole, default=2048, metavar="N",
                         help="use only the first N tokens of the text (default: 2048)")
    command.add_argument("--window", type=_whole, default=2048, metavar="N",
                         help="tokens seen together (default: 2048)")
    command.set_defaults(run=_cache)

    command = commands.add_parser("perplexity", parents=[model, weights, keys],
                                  help="measure how well the model predicts a text")
    command.add_argument("file", type=Path, nargs="?", help="text file, UTF-8 (default: a bundled one)")
    command.add_argument("--window", type=_whole, default=512, metavar="N", help="tokens seen together (default: 512)")
    command.add_argument("--tokens", type=_whole, metavar="N", help="use only the first N tokens")
    command.set_defaults(run=_perplexity)
    return parser


def _model_file(args: argparse.Namespace) -> Path:
    """The model file, and torch ready to work on it. Heavy imports wait until the arguments are known to be right."""
    from orrery import gguf_model

    device_class.check(args.device_class)
    path = args.model or gguf_model.bundled_model()
    gguf_model.check_magic(path)
    import torch

    if args.threads:
        torch.set_num_threads(args.threads)
    import orrery_ops  # noqa: F401  A module without a device to run on says so before the model is read.

    return path


def _prepare(args: argparse.Namespace):
    """The prepared model and its tokenizer."""
    fmt = formats.find(args.format)
    path = _model_file(args)

    from orrery import prepare
    from orrery.tokenizer import ChatTokenizer

    prepared = prepare.load(path, fmt, cache=not args.no_cache)
    if prepared.remark:
        print(prepared.remark, file=sys.stderr)
    return prepared, ChatTokenizer(prepared.vocabulary)


def bundled_text() -> str:
    """The beginning of a novel, some 3000 tokens."""
    return (Path(__file__).parent / "data" / "pride_and_prejudice.txt").read_text(encoding="utf-8")


def _text(path: Path | None) -> str:
    """The text of a file, or the bundled one."""
    if path is None:
        return bundled_text()
    try:
        return path.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        reason = getattr(error, "strerror", None) or "not UTF-8"
        raise OrreryError(f"cannot read the text file {path}: {reason}") from error


def _model(args: argparse.Namespace, prepared, capacity: int):
    from orrery.model import DTYPES, Model

    model = Model(prepared, DTYPES[args.dtype], capacity, args.cache)
    if getattr(args, "verbose", False):
        for operation, refusal in model.refusals.items():
            print(refusal or f"{operation} is used", file=sys.stderr)
    return model


def _types(args: argparse.Namespace) -> str:
    """The activations' type and the kind of cache, for a measured line."""
    return f"{args.dtype}, byte cache" if args.cache == "byte" else args.dtype


def _sampling(args: argparse.Namespace):
    from orrery.generate import Sampling

    return Sampling(args.temperature, args.top_p, args.seed)


def _say(tokens, tokenizer) -> list[int]:
    """Prints the text of tokens as they come; gives them all."""
    stream, said = tokenizer.stream(), []
    for token in tokens:
        said.append(token)
        print(stream.push(token), end="", flush=True)
    print(flush=True)
    return said


def _generate(args: argparse.Namespace) -> None:
    prepared, tokenizer = _prepare(args)
    from orrery.generate import Timing, check_fit, generate

    prompt = tokenizer.chat([{"role": "user", "content": args.prompt}]) if args.chat else tokenizer.encode(args.prompt)
    check_fit(len(prompt), args.tokens, prepared.sizes.context)
    model = _model(args, prepared, len(prompt) + args.tokens - 1)
    timing = Timing()
    if not args.chat:
        print(args.prompt, end="", flush=True)
    _say(generate(model, prompt, args.tokens, tokenizer.stop, _sampling(args), timing), tokenizer)
    print(f"[{args.format}, {_types(args)}; {timing}]", flush=True)


def _chat(args: argparse.Namespace) -> None:
    prepared, tokenizer = _prepare(args)
    from orrery.generate import Timing, generate, room

    own = prepared.sizes.context
    model = _model(args, prepared, min(args.context or own, own))
    messages = [{"role": "system", "content": args.system}] if args.system else []
    seen, said = [], ""  # Tokens of the conversation so far, and its text.
    prompt_mark = "> " if sys.stdin.isatty() else ""
    while True:
        try:
            line = input(prompt_mark)
        except EOFError:
            return
        if not line.strip():
            continue
        messages.append({"role": "user", "content": line})
        text = tokenizer.chat_text(messages)
        # What the cache already holds of the conversation is not computed again. An answer keeps the tokens that it was
        # made of: its text could be divided in another way.
        fits = said and text.startswith(said)
        tokens = seen + tokenizer.encode(text[len(said) :], follows=True) if fits else tokenizer.encode(text)
        model.rewind(len(seen) if fits else 0)
        most = room(len(tokens), model.capacity)
        if most < 1:
            raise OrreryError(f"{len(tokens)} tokens of conversation do not fit into the context of {model.capacity}")
        timing = Timing()
        limit = min(args.tokens, most)
        said_now = generate(model, tokens[model.position :], limit, tokenizer.stop, _sampling(args), timing)
        answer = _say(said_now, tokenizer)
        print(f"[{timing}]", file=sys.stderr, flush=True)
        if len(answer) == most:
            raise OrreryError(f"the context of {model.capacity} tokens is full")
        messages.append({"role": "assistant", "content": tokenizer.decode(answer)})
        seen, said = tokens + answer, text + messages[-1]["content"]


def _formats(args: argparse.Namespace) -> None:
    if args.no_measure:
        print(formats.table())
        return
    text = _text(args.text)
    if not args.output.parent.is_dir():
        raise OrreryError(f"there is no folder {args.output.parent} for the plot")
    path = _model_file(args)
    from orrery import survey
    from orrery.model import DTYPES

    print(survey.HEADER, flush=True)
    results = []
    for result in survey.measure(path, args.formats or list(formats.FORMATS.values()), text, dtype=DTYPES[args.dtype],
                                 window=args.window, limit=args.tokens, cache=not args.no_cache,
                                 kv_cache=args.cache):
        results.append(result)
        print(survey.line(result), flush=True)
    survey.plot(results, f"{path.stem}, {_types(args)}", args.output)
    print(f"saved {args.output}")


def _cache(args: argparse.Namespace) -> None:
    fmt, text = formats.find(args.format), _text(args.text)
    path = _model_file(args)
    from orrery import cache_survey
    from orrery.model import DTYPES

    print(cache_survey.HEADER, flush=True)
    remarks: list[str] = []
    for result in cache_survey.measure(path, fmt, text, dtype=DTYPES[args.dtype], window=args.window,
                                       limit=args.tokens, cache=not args.no_cache):
        print(cache_survey.line(result), flush=True)
        remarks += map(str, result.clamped)
    print(*remarks, sep="\n")


def _perplexity(args: argparse.Namespace) -> None:
    text = _text(args.file)
    prepared, tokenizer = _prepare(args)
    from orrery.generate import perplexity

    tokens = tokenizer.encode(text)[: args.tokens]
    model = _model(args, prepared, min(args.window, prepared.sizes.context))
    print(f"perplexity {perplexity(model, tokens, args.window):.4f} over {len(tokens)} tokens "
          f"[{args.format}, {_types(args)}, windows of {args.window}]")


def main(argv: Sequence[str] | None = None) -> int:
    """Runs a command; a failure that the user can act on is one sentence on standard error and status 2."""
    try:
        args = _parser().parse_args(argv)
        with optional.extras():
            args.run(args)
    except (OrreryError, ImportError) as error:
        print(f"orrery: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(file=sys.stderr)
        return 130
    return 0
