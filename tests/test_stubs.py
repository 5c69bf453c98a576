"""The stubs of `orrery_ops` say what the module says, and the reference in the documents is made from them."""

from __future__ import annotations

import ast
import importlib.util
from pathlib import Path
from types import ModuleType

import pytest

from test_module import BY_NAME, NAMES, QKV_NAMES

ROOT = Path(__file__).resolve().parents[1]
# The type in a docstring's signature: its annotation.
ANNOTATION = {
    "torch.Tensor": "Tensor",
    "Optional[torch.Tensor]": "Tensor | None",
    "Tuple[int, ...]": "tuple[int, ...] | list[int]",
    "List[torch.Tensor]": "list[Tensor]",
    "List[List[List[int]]]": "list[list[list[int]]]",
}


def generator() -> ModuleType:
    spec = importlib.util.spec_from_file_location("generator", ROOT / "tools" / "make_function_reference.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


reference = generator()
STUBS = {function.name: function for function in reference.functions()}


def test_the_functions_in_their_order() -> None:
    assert list(STUBS) == NAMES


@pytest.mark.parametrize("name", NAMES)
def test_types_of_arguments_and_result(name: str) -> None:
    _, _, types, result = BY_NAME[name]  # test_module.py compares them with the module
    stub = STUBS[name]
    annotations = [ast.unparse(argument.annotation) for argument in reference.arguments(stub)]
    assert annotations == [ANNOTATION.get(text, text) for text in types]
    assert ast.unparse(stub.returns) == ANNOTATION.get(result, result)


@pytest.mark.parametrize("name", NAMES)
def test_only_forward_qkv_has_keywords_and_a_default(name: str) -> None:
    arguments = STUBS[name].args
    assert not (arguments.kwonlyargs or arguments.vararg or arguments.kwarg)
    if name == "forward_qkv":
        assert [argument.arg for argument in arguments.args] == list(QKV_NAMES) and not arguments.posonlyargs
        assert [ast.literal_eval(default) for default in arguments.defaults] == [10000.0]
    else:
        assert not (arguments.args or arguments.defaults)


@pytest.mark.parametrize("name", NAMES)
def test_each_argument_the_result_and_the_errors_are_told(name: str) -> None:
    texts, stub = reference.paragraphs(STUBS[name]), STUBS[name]
    told = reference.items(texts["Args"])
    assert [word for word, _ in told] == [argument.arg for argument in reference.arguments(stub)]
    assert all(meaning.endswith(".") for _, meaning in [*told, *reference.items(texts["Raises"])])
    assert ("Returns" in texts) == (ast.unparse(stub.returns) != "None")
    assert texts[""].endswith(".")


def test_the_reference_is_made_from_the_stubs() -> None:
    assert (ROOT / "docs" / "functions.md").read_text() == reference.text()


def test_the_wheel_has_the_stubs_and_the_marks_of_typed_packages() -> None:
    packages = (ROOT / "pyproject.toml").read_text().split("wheel.packages = [")[1].split("]")[0]
    assert '"orrery_ops-stubs"' in packages
    assert (ROOT / "orrery" / "py.typed").is_file() and (ROOT / "host" / "orrery_host" / "py.typed").is_file()
