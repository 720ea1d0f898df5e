# SPDX-License-Identifier: MIT
"""The version, which stands in the project's CMakeLists.txt and nowhere else."""

import pathlib
import re

_HERE = pathlib.Path(__file__).resolve().parent


def version():
    """That of the installed program, in the tree that of the sources."""
    installed = _HERE.parent / "version"
    if installed.exists():
        return installed.read_text(encoding="utf-8").strip()
    sources = (_HERE.parents[2] / "CMakeLists.txt").read_text(encoding="utf-8")
    return re.search(r"^project\(UsbHal VERSION ([0-9.]+)", sources, re.MULTILINE)[1]
