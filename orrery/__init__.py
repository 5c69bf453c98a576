"""Language models in low-bit weights on the operators of `orrery_ops`: a checked layer over them, and a model runner.

The names in `__all__` are imported at their first use, so that `import orrery` alone does not bring PyTorch.
"""

from importlib import import_module
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from orrery.functional import (attention, dequantize_key_value, linear, quantize_key_value,  # noqa: F401
                                   rms_norm, rotary_)
    from orrery.nn import QuantizedLinear, quantize_  # noqa: F401
    from orrery.weight import QuantizedWeight, quantize  # noqa: F401


class OrreryError(Exception):
    """A failure that the user can act on; its text is one sentence."""


_HOMES = {
    "QuantizedWeight": "weight",
    "quantize": "weight",
    "attention": "functional",
    "dequantize_key_value": "functional",
    "linear": "functional",
    "quantize_key_value": "functional",
    "rms_norm": "functional",
    "rotary_": "functional",
    "QuantizedLinear": "nn",
    "quantize_": "nn",
}

__all__ = ["OrreryError", "__version__", *_HOMES]


def __getattr__(name: str):
    if name == "__version__":
        from importlib.metadata import version

        return version("orrery_ops")
    if name not in _HOMES:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    value = getattr(import_module(f"{__name__}.{_HOMES[name]}"), name)
    globals()[name] = value  # found without this function from now on
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
