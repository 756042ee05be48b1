import sys

from guilink.cli import main

sys.exit(main())
