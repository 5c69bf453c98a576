"""`python -m orrery`: generate, chat, formats, perplexity."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path
from typing import NoReturn

from orrery import OrreryError, formats

DTYPES = ("float32", "float16", "bfloat16")
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


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="orrery", description="Runs a language model in low-bit weights on the xpu device.")
    commands = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    model = _Parser(add_help=False)
    group = model.add_argument_group("model")
    group.add_argument("--model", type=Path, metavar="FILE", help="GGUF file, Llama architecture (default: the bundled one)")
    group.add_argument("--format", default="q4_0", help=f"weight format: {', '.join(formats.FORMATS)} (default: q4_0)")
    group.add_argument("--dtype", default="float32", choices=DTYPES, help="type of the activations (default: float32)")
    group.add_argument("--threads", type=_whole, metavar="N", help="CPU threads (default: torch's choice)")
    group.add_argument("--no-cache", action="store_true", help="neither read nor write the quantized model's cache file")

    sampling = _Parser(add_help=False)
    group = sampling.add_argument_group("sampling")
    group.add_argument("--temperature", type=_temperature, default=0.0, metavar="T", help="0 is greedy (default: 0)")
    group.add_argument("--top-p", type=_share, default=1.0, metavar="P",
                       help="sample among the likeliest tokens that make up this share (default: 1)")
    group.add_argument("--seed", type=int, default=0, metavar="N", help="start of the random numbers (default: 0)")

    command = commands.add_parser("generate", parents=[model, sampling], help="continue a text")
    command.add_argument("prompt", nargs="?", default=DEFAULT_PROMPT, help=f"text to continue (default: {DEFAULT_PROMPT!r})")
    command.add_argument("--tokens", type=_whole, default=128, metavar="N", help="most tokens to make (default: 128)")
    command.add_argument("--chat", action="store_true", help="put the prompt into the model's chat template")
    command.set_defaults(run=_generate)

    command = commands.add_parser("chat", parents=[model, sampling], help="talk; reads lines from standard input")
    command.add_argument("--system", metavar="TEXT", help="system message")
    command.add_argument("--tokens", type=_whole, default=256, metavar="N", help="most tokens an answer (default: 256)")
    command.add_argument("--context", type=_whole, default=2048, metavar="N",
                         help="most tokens of the conversation (default: 2048)")
    command.set_defaults(run=_chat)

    command = commands.add_parser("formats", help="list the weight formats")
    command.set_defaults(run=lambda args: print(formats.table()))

    command = commands.add_parser("perplexity", parents=[model], help="measure how well the model predicts a text file")
    command.add_argument("file", type=Path, help="text file, UTF-8")
    command.add_argument("--window", type=_whole, default=512, metavar="N", help="tokens seen together (default: 512)")
    command.add_argument("--tokens", type=_whole, metavar="N", help="use only the first N tokens")
    command.set_defaults(run=_perplexity)
    return parser


def _prepare(args: argparse.Namespace):
    """The prepared model and its tokenizer. The heavy imports wait until the arguments are known to be right."""
    fmt = formats.find(args.format)
    from orrery import gguf_model

    path = args.model or gguf_model.bundled_model()
    gguf_model.check_magic(path)
    import torch

    if args.threads:
        torch.set_num_threads(args.threads)
    import orrery_ops  # noqa: F401  A module without a device to run on says so before the model is read.

    from orrery import prepare
    from orrery.tokenizer import ChatTokenizer

    prepared = prepare.load(path, fmt, cache=not args.no_cache)
    return prepared, ChatTokenizer(prepared.vocabulary)


def _model(args: argparse.Namespace, prepared, capacity: int):
    from orrery.model import DTYPES, Model

    return Model(prepared, DTYPES[args.dtype], capacity)


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
    from orrery.generate import Timing, generate

    prompt = tokenizer.chat([{"role": "user", "content": args.prompt}]) if args.chat else tokenizer.encode(args.prompt)
    if len(prompt) + args.tokens > prepared.sizes.context:
        raise OrreryError(f"{len(prompt)} tokens of prompt and {args.tokens} of answer do not fit into the context of "
                          f"{prepared.sizes.context}")
    model = _model(args, prepared, len(prompt) + args.tokens)
    timing = Timing()
    if not args.chat:
        print(args.prompt, end="", flush=True)
    _say(generate(model, prompt, args.tokens, tokenizer.stop, _sampling(args), timing), tokenizer)
    print(f"[{args.format}, {args.dtype}; {timing}]", flush=True)


def _chat(args: argparse.Namespace) -> None:
    prepared, tokenizer = _prepare(args)
    from orrery.generate import Timing, generate

    model = _model(args, prepared, min(args.context, prepared.sizes.context))
    messages = [{"role": "system", "content": args.system}] if args.system else []
    seen: list[int] = []
    prompt_mark = "> " if sys.stdin.isatty() else ""
    while True:
        try:
            line = input(prompt_mark)
        except EOFError:
            return
        if not line.strip():
            continue
        messages.append({"role": "user", "content": line})
        tokens = tokenizer.chat(messages)
        # What the cache already holds of the conversation is not computed again.
        common = next((i for i, (a, b) in enumerate(zip(seen, tokens)) if a != b), min(len(seen), len(tokens) - 1))
        model.rewind(common)
        timing = Timing()
        answer = _say(generate(model, tokens[model.position :], args.tokens, tokenizer.stop, _sampling(args), timing),
                      tokenizer)
        print(f"[{timing}]", file=sys.stderr, flush=True)
        seen = tokens + answer
        messages.append({"role": "assistant", "content": tokenizer.decode(answer)})


def _perplexity(args: argparse.Namespace) -> None:
    try:
        text = args.file.read_text(encoding="utf-8")
    except (OSError, UnicodeDecodeError) as error:
        raise OrreryError(f"cannot read the text file {args.file}: {getattr(error, 'strerror', None) or 'not UTF-8'}") from error
    prepared, tokenizer = _prepare(args)
    from orrery.generate import perplexity

    tokens = tokenizer.encode(text)[: args.tokens]
    model = _model(args, prepared, min(args.window, prepared.sizes.context))
    print(f"perplexity {perplexity(model, tokens, args.window):.4f} over {len(tokens)} tokens "
          f"[{args.format}, {args.dtype}, windows of {args.window}]")


def main(argv: Sequence[str] | None = None) -> int:
    """Runs a command; a failure that the user can act on is one sentence on standard error and status 2."""
    try:
        args = _parser().parse_args(argv)
        args.run(args)
    except (OrreryError, ImportError) as error:
        print(f"orrery: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print(file=sys.stderr)
        return 130
    return 0
