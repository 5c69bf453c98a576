"""What tests do differently under AddressSanitizer and ThreadSanitizer."""

import os

# The runtime has to be loaded before everything else, so it stands in this variable.
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
THREADS_SANITIZED = "libtsan" in os.environ.get("LD_PRELOAD", "")
