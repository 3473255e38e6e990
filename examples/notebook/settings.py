"""What the command line changes: other modules set attributes of this one."""

import os

verbose = False
folder = os.environ.get("NOTEBOOK", os.path.expanduser("~/notes"))


def describe(short=True):
    if short:
        return folder
    return {name: value for name, value in globals().items() if not name.startswith("_")}
