"""Whether the tests run under AddressSanitizer or ThreadSanitizer."""

import os

# The runtime has to be loaded before everything else, so this variable names it.
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
THREADS_SANITIZED = "libtsan" in os.environ.get("LD_PRELOAD", "")
