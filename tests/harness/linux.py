"""What only Linux has. A test that calls this needs the mark "linux", and fails without it."""

import os
import re
import shutil
import tempfile

import psutil

from harness.machine import BUILD, need_linux, read


def mappings(pid):
    """(start, end, file) of each mapping, as the kernel shows it. A stack's file is "[stack]"."""
    for mapping in psutil.Process(pid).memory_maps(grouped=False):
        start, end = (int(address, 16) for address in mapping.addr.split("-"))
        yield start, end, mapping.path


def image_base(pid, path):
    return min(start for start, _, file in mappings(pid) if file == path)


def peek(pid, address, size):
    """Memory as the kernel shows it."""
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        memory.seek(address)
        return memory.read(size)


def status_figure(pid, name):
    """A number of /proc/PID/status; sizes are in KiB."""
    return int(re.search(rf"^{name}:\s*(\d+)", read(f"/proc/{pid}/status"), re.M)[1])


def are_ptys_non_blocking(pid):
    """Whether a write to any pty whose master side the process has returns at once."""
    folder = f"/proc/{pid}"
    numbers = os.listdir(f"{folder}/fd")
    ptys = [number for number in numbers if os.readlink(f"{folder}/fd/{number}").endswith("ptmx")]
    infos = [read(f"{folder}/fdinfo/{number}") for number in ptys]
    flags = [int(re.search(r"^flags:\s*(\d+)", info, re.M)[1], 8) for info in infos]
    return ptys and all(flag & os.O_NONBLOCK for flag in flags)


def preload(library, name, **variables):
    """An environment that loads this library, under this name, into every program."""
    need_linux("LD_PRELOAD")
    # LD_PRELOAD separates names by spaces, so a folder must have none.
    copy = shutil.copy(library, f"{tempfile.mkdtemp()}/{name}")
    sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
    return os.environ | variables | {"LD_PRELOAD": copy, "ASAN_OPTIONS": sanitizers}


def shim(**variables):
    """An environment with tests/tools/shim.cpp, which delays LLDB's events and records the log."""
    return preload(f"{BUILD}/tests/tools/libshim.so", "shim.so", **variables)
