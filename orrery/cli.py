"""`python -m orrery`: generate, chat, formats, perplexity, compare-caches, cache.

Torch is imported only after the arguments have been checked, so that help comes at once and `--device-class` can name
the device.
"""

from __future__ import annotations

import argparse
import os
import sys
import warnings
from collections.abc import Sequence
from contextlib import suppress
from pathlib import Path
from typing import NoReturn

from orrery import OrreryError, device_class, formats, optional, precision, prepared_files

DTYPES = ("float32", "float16", "bfloat16")
CACHES = ("plain", "byte")
# The most that share a launch. PyTorch takes any number, and crashes when it starts too many.
MOST_THREADS = 256
# What PyTorch's generators take.
LARGEST_SEED = 2**64 - 1
# Characters of a line of a conversation, bytes of a text file: more is an endless device, or a mistake.
MOST_LINE, MOST_TEXT = 1 << 20, 1 << 28
DEFAULT_PROMPT = "The three primary colors are"


class _Parser(argparse.ArgumentParser):
    """An argument parser whose complaints are one sentence."""

    def error(self, message: str) -> NoReturn:
        raise OrreryError(message)


class _Version(argparse.Action):
    def __call__(self, *_: object) -> NoReturn:
        import orrery

        print(f"orrery {orrery.__version__}")
        raise SystemExit(0)


def _number(text: str, kind: type, least: float, most: float, beyond: str = "") -> float:
    """The number, if it is from `least` to `most`; `beyond` says what is wrong with one that is not."""
    try:
        number = kind(text)
    except ValueError:
        what = "whole number" if kind is int else "number"
        raise argparse.ArgumentTypeError(f"{text[:40]!r} is not a {what}") from None
    if not least <= number <= most:  # NaN is not
        side = f"below {least}" if number < least else f"above {most}"
        raise argparse.ArgumentTypeError(f"{text[:40]} is {beyond or side}")
    return number


def _whole(text: str) -> int:
    return _number(text, int, 1, float("inf"))


def _threads(text: str) -> int:
    return _number(text, int, 1, MOST_THREADS)


def _seed(text: str) -> int:
    return _number(text, int, 0, LARGEST_SEED)


def _count(text: str) -> int:
    return _number(text, int, 0, float("inf"))


def _share(text: str) -> float:
    return _number(text, float, 5e-324, 1, "not above 0 and at most 1")


def _part(text: str) -> float:
    return _number(text, float, 0, 1, "not from 0 to 1")


def _temperature(text: str) -> float:
    return _number(text, float, 0, sys.float_info.max, "not a temperature")


def _penalty(text: str) -> float:
    return _number(text, float, 1e-3, 1e3, "not from 0.001 to 1000")


def _utf8(text: str) -> str:
    """The text decoded as UTF-8, whatever the locale: unknown bytes come as surrogates."""
    try:
        return text.encode("utf-8", "surrogateescape").decode()
    except UnicodeError:
        raise argparse.ArgumentTypeError("the text is not UTF-8") from None


def _format_list(text: str) -> list[formats.Format]:
    try:
        return [formats.find(name) for name in text.split(",")]
    except OrreryError as error:
        raise argparse.ArgumentTypeError(str(error)) from error


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="orrery", description="Runs a language model in low-bit weights on the xpu device.")
    parser.add_argument("--version", action=_Version, nargs=0, help="show the version and exit")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    model = _Parser(add_help=False)
    group = model.add_argument_group("model")
    group.add_argument("--model", type=Path, metavar="FILE", help="GGUF file, Llama architecture (default: the bundled one)")
    group.add_argument("--dtype", default="float32", choices=DTYPES, help="type of the activations (default: float32)")
    group.add_argument("--prompt-precision", default="float32", choices=precision.PRECISIONS,
                       help="precision of a prompt's products: with bfloat16 faster and less exact (default: float32)")
    group.add_argument("--threads", type=_threads, metavar="N", help="CPU threads (default: torch's choice)")
    device_class.add_option(group)
    group.add_argument("--no-cache", action="store_true", help="neither read nor write the prepared model on disk")

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
    group.add_argument("--top-k", type=_count, default=0, metavar="K",
                       help="sample among the K likeliest (default: 0, all)")
    group.add_argument("--min-p", type=_part, default=0.0, metavar="P",
                       help="sample among those with at least P times the probability of the likeliest (default: 0)")
    group.add_argument("--repetition-penalty", type=_penalty, default=1.0, metavar="F",
                       help="divide positive logits of tokens seen before by F, multiply negative ones (default: 1)")
    group.add_argument("--seed", type=_seed, default=0, metavar="N", help="start of the random numbers (default: 0)")

    steps = _Parser(add_help=False)
    steps.add_argument("--verbose", action="store_true", help="tell which fused operations the answer's steps take")

    command = commands.add_parser("generate", parents=[model, weights, keys, sampling, steps], help="continue a text")
    command.add_argument("prompt", type=_utf8, nargs="?", default=DEFAULT_PROMPT,
                         help=f"text to continue (default: {DEFAULT_PROMPT!r})")
    command.add_argument("--tokens", type=_whole, default=128, metavar="N", help="most tokens to make (default: 128)")
    command.add_argument("--chat", action="store_true", help="put the prompt into the model's chat template")
    command.set_defaults(run=_generate)

    command = commands.add_parser("chat", parents=[model, weights, keys, sampling, steps],
                                  help="talk; reads lines from standard input")
    command.add_argument("--system", type=_utf8, metavar="TEXT", help="system message")
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

    command = commands.add_parser("compare-caches", parents=[model, weights],
                                  help="compare both key/value caches on a model",
                                  description="Measures both kinds of key/value cache: bytes, perplexity, speed.")
    command.add_argument("--text", type=Path, metavar="FILE", help="text for the perplexity (default: a bundled one)")
    command.add_argument("--tokens", type=_whole, default=2048, metavar="N",
                         help="use only the first N tokens of the text (default: 2048)")
    command.add_argument("--window", type=_whole, default=2048, metavar="N",
                         help="tokens seen together (default: 2048)")
    command.set_defaults(run=_compare_caches)

    command = commands.add_parser("perplexity", parents=[model, weights, keys],
                                  help="measure how well the model predicts a text")
    command.add_argument("file", type=Path, nargs="?", help="text file, UTF-8 (default: a bundled one)")
    command.add_argument("--window", type=_whole, default=512, metavar="N", help="tokens seen together (default: 512)")
    command.add_argument("--tokens", type=_whole, metavar="N", help="use only the first N tokens")
    command.set_defaults(run=_perplexity)

    command = commands.add_parser("cache", help="list or clear the prepared models",
                                  description="The files in which prepared models are kept for the next start.")
    command.set_defaults(run=_list_cache)
    actions = command.add_subparsers(metavar="ACTION")
    action = actions.add_parser("list", help="names, formats, sizes, ages and models (what `cache` alone does, too)")
    action.set_defaults(run=_list_cache)
    action = actions.add_parser("clear", help="remove some of them; they are made anew when they are needed")
    action.add_argument("names", nargs="*", metavar="NAME", help="name of one in the list, or of a model")
    action.add_argument("--stale", action="store_true",
                        help="those that nothing will read again: their model has changed or is gone, or they are of "
                             "another version")
    action.add_argument("--all", action="store_true", help="all of them")
    action.set_defaults(run=_clear_cache)
    return parser


def _model_file(args: argparse.Namespace) -> Path:
    """The model file, and torch ready to work on it."""
    precision.check(args.prompt_precision, args.dtype)
    device_class.choose(args.device_class)
    from orrery import gguf_model

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
        with open(path, "rb") as file:
            data = file.read(MOST_TEXT + 1)
        if len(data) > MOST_TEXT:
            raise OrreryError(f"the text file {path} has more than {MOST_TEXT} bytes")
        return data.decode()
    except (OSError, UnicodeDecodeError) as error:
        reason = getattr(error, "strerror", None) or "not UTF-8"
        raise OrreryError(f"cannot read the text file {path}: {reason}") from error


def _model(args: argparse.Namespace, prepared, capacity: int):
    from orrery.model import DTYPES, Model

    fitting = _fitting(args, prepared.sizes)
    if capacity > fitting:
        raise OrreryError(f"a context of {capacity} tokens does not fit into the free memory, {fitting} tokens do")
    model = Model(prepared, DTYPES[args.dtype], capacity, args.cache, args.prompt_precision)
    if getattr(args, "verbose", False):
        for operation, refusal in model.refusals.items():
            print(refusal or f"{operation} is used", file=sys.stderr)
    return model


def _fitting(args: argparse.Namespace, sizes) -> int:
    """Tokens of context for which there is memory."""
    import torch

    element = 1 if args.cache == "byte" else 2 if args.dtype == "float16" else 4
    # Beside its keys and values, a token has its position, sines and cosines, and a column of the mask.
    each = 2 * sizes.layers * sizes.kv_heads * sizes.head_dim * element + 4 * sizes.head_dim + 256
    return torch.xpu.mem_get_info()[0] // each


def _types(args: argparse.Namespace) -> str:
    """The activations' type, what differs from it in a prompt, and the kind of cache, for a measured line."""
    prompts = ["prompts in bfloat16"] if args.prompt_precision == "bfloat16" else []
    return ", ".join([args.dtype, *prompts, *(["byte cache"] if args.cache == "byte" else [])])


def _sampling(args: argparse.Namespace):
    from orrery.generate import Sampling

    return Sampling(args.temperature, args.top_p, args.seed, args.top_k, args.min_p, args.repetition_penalty)


def _tell(text: object) -> None:
    """A line on standard error, where it does not mix with the answer."""
    print(text, file=sys.stderr, flush=True)


def _say(tokens, tokenizer, said: list[int]) -> None:
    """Prints the text of tokens as they come, and adds them to `said`."""
    stream = tokenizer.stream()
    for token in tokens:
        said.append(token)
        print(stream.push(token), end="", flush=True)
    print(flush=True)


def _generate(args: argparse.Namespace) -> None:
    prepared, tokenizer = _prepare(args)
    from orrery.generate import Timing, check_fit, generate

    prompt = tokenizer.chat([{"role": "user", "content": args.prompt}]) if args.chat else tokenizer.encode(args.prompt)
    check_fit(len(prompt), args.tokens, prepared.sizes.context)
    model = _model(args, prepared, len(prompt) + args.tokens - 1)
    timing = Timing()
    if not args.chat:
        print(args.prompt, end="", flush=True)
    _say(generate(model, prompt, args.tokens, tokenizer.stop, _sampling(args), timing), tokenizer, [])
    print(f"[{args.format}, {_types(args)}; {timing}]", flush=True)


def _chat(args: argparse.Namespace) -> int:
    prepared, tokenizer = _prepare(args)
    from orrery.conversation import Conversation

    model = _model(args, prepared, _context(args, prepared.sizes))
    conversation = Conversation(tokenizer, model.capacity, args.tokens, args.system)
    status = 0
    held: list[int] = []  # tokens whose keys and values the model has
    while (line := _line()) is not None:
        if not line.strip():
            continue
        try:
            forgotten = conversation.ask(line)
        except OrreryError as error:
            status = _complain(error)
            continue
        if forgotten:
            turns = "turn is" if forgotten == 1 else f"{forgotten} turns are"
            _tell(f"the context of {model.capacity} tokens is full: the oldest {turns} forgotten")
        held = _answer(args, model, tokenizer, conversation, held)
    return status


def _answer(args: argparse.Namespace, model, tokenizer, conversation, held: list[int]) -> list[int]:
    """Answers the last question; Ctrl-C ends the answer where it is. Returns the tokens that the model has then."""
    from orrery.conversation import shared
    from orrery.generate import Timing, generate, room

    tokens, timing = conversation.tokens, Timing()
    most = room(len(tokens), model.capacity)
    # What the cache holds of the conversation is not computed again; the last token gives the answer's first one.
    model.rewind(min(shared(held, tokens), len(tokens) - 1))
    answer: list[int] = []
    try:
        _say(generate(model, tokens[model.position :], min(args.tokens, most), tokenizer.stop, _sampling(args), timing,
                      tokens[: model.position]), tokenizer, answer)
    except KeyboardInterrupt:
        print(flush=True)
    # A token that was interrupted during its step has no row in the cache.
    held = [*tokens, *answer][: model.position]
    if answer or timing.prompt_seconds:
        conversation.answered(answer)
    else:
        conversation.retract()
    _tell(f"[{timing}]")
    if len(answer) == most:
        _tell(f"the context of {model.capacity} tokens is full: the answer is cut")
    return held


def _context(args: argparse.Namespace, sizes) -> int:
    """Tokens of a conversation: as many as are asked for, or all that the model and the memory have room for."""
    if args.context:
        return min(args.context, sizes.context)
    fitting = _fitting(args, sizes) // 2
    if sizes.context > fitting:
        _tell(f"the context has {fitting} tokens instead of {sizes.context}: more would not fit into the free memory")
    return min(fitting, sizes.context)


def _line() -> str | None:
    """The next line of standard input without its end; None after the last."""
    if sys.stdin is None:
        return None
    try:
        if sys.stdin.isatty():
            return _utf8(input("> "))
        line = sys.stdin.readline(MOST_LINE + 1)
        if len(line) > MOST_LINE:
            raise OrreryError(f"a line of standard input has more than {MOST_LINE} characters")
        return _utf8(line.rstrip("\n")) if line else None
    except EOFError:
        return None
    except (UnicodeDecodeError, argparse.ArgumentTypeError):
        raise OrreryError("standard input is not UTF-8") from None


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
                                 kv_cache=args.cache, prompt_precision=args.prompt_precision):
        results.append(result)
        print(survey.line(result), flush=True)
    title = path.stem.encode(errors="replace").decode()
    survey.plot(results, f"{title}, {_types(args)}", args.output)
    print(f"saved {args.output}")


def _compare_caches(args: argparse.Namespace) -> None:
    fmt, text = formats.find(args.format), _text(args.text)
    path = _model_file(args)
    from orrery import cache_survey
    from orrery.model import DTYPES

    print(cache_survey.HEADER, flush=True)
    remarks: list[str] = []
    for result in cache_survey.measure(path, fmt, text, dtype=DTYPES[args.dtype], window=args.window,
                                       limit=args.tokens, cache=not args.no_cache,
                                       prompt_precision=args.prompt_precision):
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


def _list_cache(args: argparse.Namespace) -> None:
    print(prepared_files.table())


def _clear_cache(args: argparse.Namespace) -> None:
    print(prepared_files.remove(prepared_files.chosen(args.names, args.all, args.stale)))


def main(argv: Sequence[str] | None = None) -> int:
    """Runs a command. A failure that the user can act on is one sentence on standard error and status 2; a reader of
    the output that goes away is no failure, but status 141, as in other tools."""
    with warnings.catch_warnings():
        warnings.showwarning = lambda message, *_: _tell(f"orrery: {message}")
        try:
            _make_streams_fit()
            args = _parser().parse_args(argv)
            with optional.extras():
                status = args.run(args) or 0
            sys.stdout.flush()
            return status
        except SystemExit as end:  # of --help and --version
            return _flushed(end.code)
        except KeyboardInterrupt:
            with suppress(OSError):
                print(file=sys.stderr)
            return 130
        except Exception as error:
            return _failed(error)


def _flushed(code: object) -> int:
    try:
        sys.stdout.flush()
    except OSError as error:
        return _failed(error)
    return int(code or 0)


def _failed(error: Exception) -> int:
    """The status of a failure, after the sentence. Raises an error that is a bug."""
    if isinstance(error, OSError) and not error.filename:
        _drop_output()
        if isinstance(error, BrokenPipeError):
            return 141
        return _complain(f"cannot write the output: {error.strerror or error}")
    if isinstance(error, OSError):
        return _complain(f"{os.fsdecode(error.filename)}: {error.strerror}")
    if isinstance(error, MemoryError) or type(error).__name__ == "OutOfMemoryError":
        return _complain(str(error).splitlines()[0] if str(error) else "out of memory")
    if isinstance(error, (OrreryError, ImportError)):
        return _complain(error)
    raise error


def _complain(error: object) -> int:
    with suppress(OSError):
        _tell(f"orrery: {error}")
    return 2


def _make_streams_fit() -> None:
    """A character that the terminal does not have becomes a question mark; one that was closed discards all."""
    for name in ("stdout", "stderr"):
        stream = getattr(sys, name)
        if stream is None:
            setattr(sys, name, open(os.devnull, "w"))
        elif hasattr(stream, "reconfigure"):
            stream.reconfigure(errors="replace" if name == "stdout" else "backslashreplace")


def _drop_output() -> None:
    """Discards what is still to be written: the interpreter would try once more at its end, and complain."""
    with suppress(OSError, ValueError):
        nowhere = os.open(os.devnull, os.O_WRONLY)
        for stream in (sys.stdout, sys.stderr):
            with suppress(OSError, ValueError):
                stream.flush()
                continue
            os.dup2(nowhere, stream.fileno())
