import sys

from orrery.cli import main

sys.exit(main())
