"""A language model in quantized weights, run on the operators of `orrery_ops`."""


class OrreryError(Exception):
    """A failure that the user can act on; its text is one sentence."""
