# SPDX-License-Identifier: MIT
"""What programs count and measure, and on which machine."""

import json
import pathlib
import platform
import re
import subprocess


def recorded(path):
    """(name, value) of each figure in a file of them, as Campaign.h tells; none where no file is."""
    lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
    return [(figure["figure"], figure["value"]) for figure in map(json.loads, lines)]


def record(path, name, value):
    """Adds one as the programs do."""
    with path.open("a", encoding="utf-8") as file:
        file.write(json.dumps({"figure": name, "value": value}) + "\n")


def output_of(*command):
    """The standard output of a command that succeeds."""
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def first_line_of(*command):
    """The first line of that."""
    return output_of(*command).splitlines()[0]


def machine():
    """Processor, processors and kernel."""
    cpu = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8"),
                    re.MULTILINE)
    return (f"{cpu.group(1) if cpu else platform.machine()}, {output_of('nproc')} processors, "
            f"Linux {platform.release()}")
