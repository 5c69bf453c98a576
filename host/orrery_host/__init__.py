"""PyTorch's `xpu` device in host memory.

Importing the package registers the device. Where it is installed, `import torch` alone does so too, through the entry
point group `torch.backends`. A PyTorch that has an `xpu` device of its own keeps it.
"""

from __future__ import annotations

_importing = True


def _autoload() -> None:
    """What `import torch` calls; defined before the import of torch below, which may be that call's origin."""
    # Then the package registers the device itself, and an error is not wrapped in PyTorch's own about its plugins.
    if not _importing:
        _register.register()


import torch  # noqa: E402, F401

from orrery_host import _register  # noqa: E402
from orrery_host._launches import Launch, record_launches  # noqa: E402

_importing = False
_register.register()

__all__ = ["Launch", "record_launches"]
