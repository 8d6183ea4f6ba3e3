"""Figures, and how checks come by them."""

import dataclasses
import json
import os
import pathlib
import signal
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


def kill_group(process):
    """Kills what runs in the session of `process`, which has one of its own."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def finished(command, time_out, **more):
    """Runs a command to its end, or to that of `time_out` seconds, when all that it started is killed; then, or
    when it cannot be started, raises Failed. Gives the process with its output."""
    command = [str(word) for word in command]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                          start_new_session=True, **more) as process:
        try:
            out, err = process.communicate(timeout=time_out)
        except subprocess.TimeoutExpired:
            kill_group(process)
            out, err = process.communicate()
            raise Failed(f"{' '.join(command)} took longer than {time_out} s:\n{out[-2000:]}{err[-2000:]}") from None
        except BaseException:
            kill_group(process)
            raise
    return subprocess.CompletedProcess(command, process.returncode, out, err)


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
        # A group of its own, so that what it has started does not outlive it.
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, cwd=ROOT, start_new_session=True,
                                   env=os.environ | (environment or {}))
        before = len(self.figures)
        reader = threading.Thread(target=self._take_lines, args=(process.stdout,), daemon=True)
        reader.start()
        over = False
        try:
            process.wait(time_out)
        except subprocess.TimeoutExpired:
            over = True
        finally:
            kill_group(process)
            status = process.wait()
            reader.join(10)
        name = pathlib.Path(command[0]).name
        if status != 0:
            why = f"took longer than {time_out} s" if over else f"ended with {status}"
            print(f"  {' '.join(command)} {why}")
            self.add(f"{name}.status", status, "status", "0", False)
        elif len(self.figures) == before:
            self.add(f"{name}.figures", 0, "figures", ">= 1", False)

    def _take_lines(self, stream):
        for line in stream:
            try:
                figure = Figure(**json.loads(line)) if line.startswith('{"name"') else None
            except (ValueError, TypeError):
                figure = None  # of a program that was killed in the middle of it
            if figure:
                self.add(**figure.fields())
            else:
                print(f"  {line}", end="", flush=True)
