# SPDX-License-Identifier: MIT
"""Packs a log for somebody else to look at, without the bytes that hosts and clients exchanged."""

import io
import json
import os
import platform
import re
import subprocess
import tarfile
import tempfile

from . import findings, reading, summary

_FOLDER = "usbhal-log"


def without_payload(record):
    """The line of a record as it may be given away. What is not known may be a payload."""
    if not record.head or record.kind is None:
        return record.head + _left_out(record.text)
    text = record.text
    if "payload" in record.fields:
        payload = record.fields["payload"]
        text = text.replace(payload, _left_out(payload), 1) if payload else text
    return record.head + reading.printable(text)


def _left_out(text):
    return f"<{len(text)} characters left out>"


def collect(files, target):
    """Writes a tar archive, gzip compressed: the files in their order, a summary, the system.

    Raises LogError when the archive cannot be written.
    """
    total = summary.Summary()
    try:
        with tarfile.open(target, "w:gz") as archive:
            for file in files:
                _add_file(archive, file, total)
            runs = [summary.as_data(run) for run in total.finish().runs]
            for run in runs:
                run["findings"] = [{"text": f.text, "page": f.link} for f in findings.findings_of(run)]
            _add_text(archive, "summary.json", json.dumps(runs, indent=2) + "\n")
            _add_text(archive, "system.txt", system_text())
    except OSError as error:
        raise reading.LogError(f"{target} cannot be written: {error.strerror}; name another file.") from error


# Through a file, as the archive wants to know the size first and a log may be larger than the memory.
def _add_file(archive, file, total):
    with tempfile.TemporaryFile() as copy:
        for record in reading.read_file(file):
            total.add(record)
            copy.write((without_payload(record) + "\n").encode("utf-8", "replace"))
        name = re.sub(r"\.(gz|xz|bz2)$", "", file.path.name, flags=re.IGNORECASE)
        info = tarfile.TarInfo(f"{_FOLDER}/{name}")
        info.size = copy.tell()
        info.mtime = int(os.stat(file.path).st_mtime)
        copy.seek(0)
        archive.addfile(info, copy)


def _add_text(archive, name, text):
    data = text.encode()
    info = tarfile.TarInfo(f"{_FOLDER}/{name}")
    info.size = len(data)
    archive.addfile(info, io.BytesIO(data))


def system_text():
    """What the one who helps will ask for first."""
    system = platform.uname()
    lines = [f"system: {system.system} {system.release} {system.machine}"]
    try:
        packages = subprocess.run(
            ["dpkg-query", "-W", "-f", "${Package} ${Version}\n", "libusbhal*", "usbhal*"],
            capture_output=True, text=True, check=False)
        lines += [line for line in packages.stdout.splitlines() if len(line.split()) == 2]
    except FileNotFoundError:
        lines.append("packages: no dpkg on this machine")
    return "\n".join(lines) + "\n"
