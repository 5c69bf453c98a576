"""PyTorch's `xpu` device in host memory.

Importing the package registers the device. Where it is installed, `import torch` alone does so too, through the entry
point group `torch.backends`. A PyTorch that has an `xpu` device of its own keeps it.

Raises ImportError for a compiled part that does not fit the CPU or PyTorch, and RuntimeError for a bad value in one of
the variables `ORRERY_HOST_*` or `ORRERY_ISA`. `import torch` never fails for these: the first use of `xpu` raises the error then.
"""

from __future__ import annotations

import sys

_importing = True


def _autoload() -> None:
    """Called by `import torch`; defined before the import of torch below, since that import may make the call."""
    if _importing:
        return  # the package registers the device itself
    try:
        _register.register()
    except Exception as error:
        _register.refuse(str(error))
        # So that an explicit import of the package runs again and raises.
        del sys.modules[__name__]


_torch = sys.modules.get("torch")
_loaded_by_torch = _torch is not None and getattr(_torch.__spec__, "_initializing", False)

import torch  # noqa: E402, F401

from orrery_host import _register  # noqa: E402
from orrery_host._launches import Launch, record_launches  # noqa: E402

_importing = False
if not _loaded_by_torch:
    _register.register()

__all__ = ["Launch", "record_launches"]
