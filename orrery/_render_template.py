"""Renders a chat template in a process of its own: standard input has the template and its names as JSON.

A template is a program from a foreign file. The sandbox keeps it from the files, the limits from the machine: loops
within loops, powers of huge numbers and texts of gigabytes end with this process.
"""

import datetime
import json
import resource
import sys

CPU_SECONDS = 2
MEMORY = 1 << 29
MOST_CHARACTERS = 1 << 24


def _refuse(text: str) -> None:
    from jinja2 import TemplateError

    raise TemplateError(text)


def render(template: str, names: dict) -> str:
    """The text. Any exception at all may come out of it."""
    from jinja2.sandbox import ImmutableSandboxedEnvironment

    environment = ImmutableSandboxedEnvironment(
        trim_blocks=True, lstrip_blocks=True, extensions=["jinja2.ext.loopcontrols"])
    environment.globals["raise_exception"] = _refuse
    environment.globals["strftime_now"] = lambda form: datetime.datetime.now().strftime(form)
    text = environment.from_string(template).render(**names)
    if len(text) > MOST_CHARACTERS:
        raise OverflowError(f"it makes {len(text)} characters")
    text.encode()  # a surrogate is no text
    return text


def main() -> None:
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    try:
        answer = {"text": render(**json.load(sys.stdin))}
    except Exception as error:
        answer = {"error": " ".join(f"{error}".split())[:200] or type(error).__name__}
    json.dump(answer, sys.stdout)


if __name__ == "__main__":
    main()
