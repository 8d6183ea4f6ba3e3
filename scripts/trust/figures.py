"""Figures, and how checks come by them."""

import dataclasses
import json
import os
import pathlib
import subprocess
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Failed(Exception):
    """The message is for the user."""


@dataclasses.dataclass
class Figure:
    name: str
    figure: float
    unit: str
    bound: str  # as people read it: "<= 1.5", ">= 300", "none"
    ok: bool

    def fields(self):
        return dataclasses.asdict(self)

    def line(self):
        shown = f"{self.figure:,.6g}" if isinstance(self.figure, float) else f"{self.figure:,}"
        return f"{self.name:<58} {shown:>12} {self.unit:<9} {self.bound:<12} {'ok' if self.ok else 'MISSED'}"


class Run:
    """What a check is given: what was asked for, and where its figures go."""

    def __init__(self, long):
        self.long = long
        self.figures = []

    def add(self, name, figure, unit, bound, ok):
        self.figures.append(Figure(name, figure, unit, bound, bool(ok)))
        print(self.figures[-1].line(), flush=True)

    def build(self, preset, *targets):
        """Builds the targets; gives the folder of the programs."""
        # Another preset's compiler flags are none of this build's business.
        quiet = {"capture_output": True, "text": True, "cwd": ROOT}
        configured = subprocess.run(["cmake", "--preset", preset], **quiet)
        if configured.returncode != 0:
            raise Failed(f"configuring '{preset}' failed:\n{configured.stdout}{configured.stderr}")
        built = subprocess.run(["cmake", "--build", f"build/{preset}", "--target", *targets], **quiet)
        if built.returncode != 0:
            raise Failed(f"building '{preset}' failed:\n{built.stdout[-4000:]}{built.stderr}")
        return ROOT / "build" / preset / "bin"

    def program(self, command, time_out, environment=None):
        """Runs a program that prints a figure a line, as a JSON object; its other lines are shown as they are.

        A program that fails, or that takes longer than `time_out` seconds, misses a figure of its own name.
        """
        command = [str(word) for word in command]
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, cwd=ROOT,
                                   env=os.environ | (environment or {}))
        late = threading.Timer(time_out, process.kill)
        late.start()
        try:
            for line in process.stdout:
                if line.startswith('{"name"'):
                    self.add(**json.loads(line))
                else:
                    print(f"  {line}", end="", flush=True)
        finally:
            over = not late.is_alive()
            late.cancel()
            process.kill()
            status = process.wait()
        if status != 0:
            why = f"took longer than {time_out} s" if over else f"ended with {status}"
            print(f"  {' '.join(command)} {why}")
            self.add(f"{pathlib.Path(command[0]).name}.status", status, "status", "0", False)
