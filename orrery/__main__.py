import sys

from orrery.device_class import name_device

name_device(sys.argv[1:])  # the next import brings torch, and torch the device

from orrery.cli import main  # noqa: E402

sys.exit(main())
