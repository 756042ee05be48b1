"""The fault of a wrong companion or device: the first argument of its program."""
import sys

NAME = sys.argv[1] if len(sys.argv) > 1 else "right"


def wrong(*names):
    return NAME in names
