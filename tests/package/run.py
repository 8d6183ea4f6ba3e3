"""Runs what was built with a package, and the programs that are in it."""

import contextlib
import os
import pathlib
import queue
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

from contents import HOST_FOLDER
from fault import Fault, require

PATIENCE = 120  # seconds; reached when something hangs only


class Runner:
    """How programs below a folder are started: as they are, or under Wine. What they start ends with them."""

    def __init__(self, root, work, windows):
        self.work = work
        self.windows = windows
        self.before = [root / "scripts/wine"] if windows else []
        self.runtime = tempfile.mkdtemp(prefix="tolm-package-")
        self.programs = []

    def __enter__(self):
        if self.windows:
            # Wine's server goes soon after its last program, and who comes in that moment is turned away: this one stays.
            self.programs.append(Program([*self.before, "cmd"], dict(os.environ)))
        return self

    def __exit__(self, *_):
        for program in self.programs:
            program.end()
        for process in processes_below(self.work):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        shutil.rmtree(self.runtime, ignore_errors=True)

    def start(self, path, *arguments, libraries=None):
        environment = dict(os.environ, XDG_RUNTIME_DIR=self.runtime)
        environment.pop("LD_LIBRARY_PATH", None)
        if libraries:
            environment["LD_LIBRARY_PATH"] = str(libraries)
        if self.windows:
            path = path.with_name(path.name if path.suffix == ".exe" else path.name + ".exe")
        program = Program([*self.before, path, *arguments], environment)
        self.programs.append(program)
        return program


def processes_below(folder):
    """Those whose executable lies there. Wine's have its loader as theirs, and the path as their first word."""
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            first_word = (entry / "cmdline").read_bytes().split(b"\0")[0].decode(errors="replace")
            names = [os.readlink(entry / "exe"), first_word]
            if any(f"{folder}/" in name.replace("\\", "/") for name in names):
                found.append(int(entry.name))
    return found


def wait_for_nobody(folder):
    deadline = time.monotonic() + PATIENCE
    while left := processes_below(folder):
        require(time.monotonic() < deadline, f"processes of {folder} do not end: {left}")
        select.select([], [], [], 0.05)


class Program:
    def __init__(self, command, environment):
        self.name = command[-1] if len(command) == 1 else " ".join(str(word) for word in command)
        self.lines = queue.Queue()
        self.said = []
        self.process = subprocess.Popen(command, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, errors="replace")
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip())
        self.lines.put(None)

    def type(self, line):
        try:
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        except OSError:
            raise Fault(f"{self.name} takes no input: it has ended\n{self.text()}") from None

    def wait_for(self, pattern):
        """The first line not seen yet with the pattern."""
        deadline = time.monotonic() + PATIENCE
        while True:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise Fault(f"{self.name} does not say \"{pattern}\" within {PATIENCE} s:\n{self.text()}") from None
            if line is None:
                self.lines.put(None)
                raise Fault(f"{self.name} has ended and not said \"{pattern}\":\n{self.text()}")
            self.said.append(line)
            if re.search(pattern, line):
                return line

    def wait_end(self):
        try:
            status = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            raise Fault(f"{self.name} does not end within {PATIENCE} s:\n{self.text()}") from None
        require(status == 0, f"{self.name} ends with status {status}:\n{self.text()}")

    def text(self):
        while not self.lines.empty() and (line := self.lines.get()) is not None:
            self.said.append(line)
        return "\n".join(self.said)

    def end(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdin.close()


def run_examples(runner, folder, libraries=None):
    clock = runner.start(folder / "example_clock_plugin", "--endpoint", "example")
    relay = runner.start(folder / "example_relay_plugin", "--endpoint", "example")
    host = runner.start(folder / "example_host", "example", "/relay/now", "clock", "relay", libraries=libraries)
    host.wait_for(r"relay answers: the clock says \d+")
    for program in (host, relay, clock):
        program.wait_end()


def run_consumer(runner, folder, functions):
    host = runner.start(folder / "host_headers")
    host.wait_for(rf"^{functions} functions of cJSON \d")
    host.wait_end()
    both = runner.start(folder / "both_sides")
    both.wait_for("both sides work")
    both.wait_end()


def run_host_with_guard(runner, prefix, clock, folder):
    """A copy of the ready-made folder, with a plugin in it that its guard starts."""
    shutil.copytree(prefix / HOST_FOLDER, folder)
    if not runner.windows:
        # The copy lies elsewhere than the library; on Windows the library is in it.
        for file in (prefix / "lib").glob("libTolmLPCFrame.so.*"):
            shutil.copy(file, folder)
    use_free_port(folder / "LpcFrame.xml")
    name = "clock.exe" if runner.windows else "clock"
    plugin = folder / "plugins/clock"
    plugin.mkdir(parents=True)
    shutil.copy(clock.with_name(clock.name + ".exe") if runner.windows else clock, plugin / name)
    (plugin / "plugin.json").write_text(f'{{ "program": "{name}" }}\n')
    try:
        talk_to_host(runner.start(folder / "tolm_host", "--endpoint", "packaged", "--frame-type", "1"))
        wait_for_nobody(folder)
    except Fault as fault:
        logs = sorted((folder / "TolmAgent/log").glob("*.log"))
        texts = [f"{log.name}:\n{log.read_text(errors='replace')}" for log in logs]
        raise Fault("\n".join([str(fault), *texts])) from None


def use_free_port(file):
    """Another host on this machine may have started from the same file."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    text, replaced = re.subn(r"<ClientPort>\d+</ClientPort>", f"<ClientPort>{port}</ClientPort>", file.read_text())
    require(replaced == 1, f"LpcFrame.xml has no port to start from: {text}")
    file.write_text(text)


def talk_to_host(host):
    host.wait_for('the frame listens as "packaged" for 1 plugins')
    host.type("announce --endpoint packaged")
    host.wait_for("plugin clock: initialised")
    host.type("call /clock/now")
    host.wait_for(r"answer from clock: \d+")
    host.type("stop")
    host.wait_for("the frame has stopped")
    host.wait_end()


def check_version(runner, prefix, version):
    host = runner.start(prefix / HOST_FOLDER / "tolm_host", "--version")
    host.wait_for(f"^{re.escape(version)}$")
    host.wait_end()
