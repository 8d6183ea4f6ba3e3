"""The tables in docs/reliability.md."""

import datetime
import os
import pathlib
import platform
import re

from figures import ROOT, Failed

PAGE = ROOT / "docs/reliability.md"


def machine():
    processor = re.search(r"^model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    memory = re.search(r"^MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text(), re.MULTILINE)
    system = platform.freedesktop_os_release().get("PRETTY_NAME", "Linux")
    return (f"{os.cpu_count()} cores of {processor[1] if processor else platform.machine()}, "
            f"{round(int(memory[1]) / (1 << 20))} GiB, {system}, Linux {platform.release()}")


def shown(figure):
    return f"{figure.figure:,.4g}" if isinstance(figure.figure, float) else f"{figure.figure:,}"


def record(name, figures, long):
    """Replaces the table of the check `name`."""
    command = f"./dev trust --only {name}{' --long' if long else ''}"
    lines = [f"{datetime.date.today().isoformat()}, `{command}`, {machine()}:", "",
             "| figure | measured | unit | bound | kept |", "|---|---|---|---|---|"]
    lines += [f"| `{figure.name}` | {shown(figure)} | {figure.unit} | {figure.bound} | {'yes' if figure.ok else '**no**'} |"
              for figure in figures]
    begin, end = f"<!-- figures of {name} -->\n", "<!-- end of figures -->\n"
    page = PAGE.read_text()
    before, found, rest = page.partition(begin)
    old, closed, after = rest.partition(end)
    if not found or not closed:
        raise Failed(f"{PAGE} has no place for the figures of {name}")
    PAGE.write_text(before + begin + "\n" + "\n".join(lines) + "\n\n" + end + after)
