"""Runs of test programs in which one call fails (tests/faults)."""

import concurrent.futures
import dataclasses
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import fault_sites

# A call that waits may be interrupted now and then, but not each time.
ONCE_ONLY = {"epoll_wait", "waitid", "waitpid", "nanosleep", "clock_nanosleep", "syscall"}
ALLOCATIONS = {"new", "new[]", "nothrow", "malloc", "calloc", "realloc", "strdup", "aligned_alloc", "posix_memalign"}
# What is not promised, by the call and a text in the site's description, and why (docs/limits.md).
EXCLUDED = (
    ("", "FrameLink::~FrameLink", "Asio allocates in the destructor of an io_context"),
    ("epoll_ctl", "guard::FrameLink", "Asio does not look whether it can be woken"),
    ("new", "guard::FindManifests", "the C++ library's walk through a folder has steps that may not throw"),
)
FAULTS = ("crash", "hang", "leak", "race")
OUTCOMES = ("passed", "refused", *FAULTS, "test", "unreached")
ENVIRONMENT = {
    "ASAN_OPTIONS": "exitcode=77:handle_abort=1:detect_stack_use_after_return=1:allocator_may_return_null=1",
    "UBSAN_OPTIONS": "print_stacktrace=1",
    "TSAN_OPTIONS": "exitcode=77:handle_abort=1:second_deadlock_stack=1",
}


@dataclasses.dataclass(eq=False)
class Site:
    program: pathlib.Path
    key: str
    call: str
    frames: tuple
    tests: list = dataclasses.field(default_factory=list)  # (seconds, test), quickest first

    def is_allocation(self):
        return self.call in ALLOCATIONS


@dataclasses.dataclass
class Result:
    site: Site
    always: bool
    test: str = ""
    outcome: str = "unreached"  # passed, refused, crash, hang, leak, race, test (its own fault)
    seconds: float = 0
    output: str = ""


def tests_of(program):
    listed = subprocess.run([program, "--gtest_list_tests"], capture_output=True, text=True, check=True, timeout=60)
    tests, suite = [], ""
    for line in listed.stdout.splitlines():
        name = line.partition("#")[0].strip()
        if not line.startswith(" "):
            suite = name if name.endswith(".") else suite
        elif not name.startswith("DISABLED_"):
            tests.append(suite + name)
    return tests


def run_test(program, code, test, folder, time_out, environment):
    """Runs one test; gives (status or None, seconds, output)."""
    begin = time.monotonic()
    temporary = folder / "t"
    temporary.mkdir(parents=True)
    temporary.chmod(0o1777)  # as the real one: some tests have another user make something there
    # A program that fails at all is to end soon: a failed expectation costs up to ten seconds each.
    process = subprocess.Popen(
        [program, f"--gtest_filter={test}", "--gtest_brief=1"], cwd=folder, start_new_session=True,
        stdout=open(folder / "output", "wb"), stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
        env=os.environ | ENVIRONMENT | {"TMPDIR": str(temporary), "TOLM_FAULTS_CODE": str(code),
                                        "TOLM_FAULTS_RECORD": str(folder / "record")} | environment)
    try:
        status = process.wait(time_out)
    except subprocess.TimeoutExpired:
        status = None
    try:
        os.killpg(process.pid, signal.SIGKILL)  # its children, too
    except ProcessLookupError:
        pass
    process.wait()
    output = (folder / "output").read_text(errors="replace")
    return status, time.monotonic() - begin, output


def blame(output):
    """Whether the tests' own code is to blame, by the stack of a sanitizer's report or an exception's way."""
    frames = re.findall(r"^\s+#\d+ (?:0x[0-9a-f]+ )?(?:in )?(.*)$", output, re.MULTILINE)
    places, ends = [], []  # whose code it is; and of destructors
    for frame in frames:
        place = re.search(r"(\S+):\d+(?::\d+)?$", frame) or re.search(r"(\S+):\d+", frame)
        path = fault_sites.own_path(place[1]) if place else None
        if path and fault_sites.owner(path) != fault_sites.OTHERS:
            places.append(fault_sites.owner(path))
            ends += [places[-1]] if re.match(r"(\S+::)?~", frame) else []
        if re.match(r"(main|start_thread)\b", frame) and places:
            break
    if not places:
        return "crash"
    # One that got as far as a destructor, which lets none pass.
    if "terminate called" in output and re.search(r"\b_Unwind_Resume\b", output) and ends:
        return "test" if ends[0] == fault_sites.TESTS else "crash"
    # An exception that nobody caught: whoever is outermost should have. Else whoever is innermost did it.
    thrown = "terminate called" in output and re.search(r"\b__cxa_(re)?throw\b", output)
    return "test" if places[-1 if thrown else 0] == fault_sites.TESTS else "crash"


def judge(status, output):
    if status is None:
        return "hang"
    if "LeakSanitizer: detected memory leaks" in output:
        return "leak"
    if "WARNING: ThreadSanitizer" in output:
        return "race"
    if status < 0 or status >= 77 or "AddressSanitizer" in output or "runtime error:" in output:
        return blame(output)
    return "passed" if status == 0 else "refused"


class Programs:
    """Test programs of one preset, and what is known of their sites."""

    def __init__(self, folder, names, jobs):
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="tf-"))
        self.scratch.chmod(0o711)  # that other user has to get there
        self.programs = [folder / name for name in names]
        self.jobs = jobs
        self.codes, self.names, self.count = {}, {}, 0
        self.unrecorded = 0  # tests that fail although nothing else does, so that their sites are not known
        for program in self.programs:
            self.codes[program] = self.scratch / f"{program.name}.code"
            fault_sites.write_code(program, self.codes[program])
            self.names[program] = fault_sites.Names(program)

    def close(self):
        shutil.rmtree(self.scratch, ignore_errors=True)

    def _run(self, program, test, time_out, environment):
        self.count += 1
        folder = self.scratch / str(self.count)
        try:
            status, seconds, output = run_test(program, self.codes[program], test, folder, time_out, environment)
            record = folder / "record"
            return status, seconds, output, record.read_text() if record.exists() else ""
        finally:
            shutil.rmtree(folder, ignore_errors=True)

    def sites(self, wanted):
        """All sites that some test comes by; `wanted(site)` says which are of interest."""
        found = {}
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            tests = [(program, test) for program in self.programs for test in tests_of(program)]
            runs = pool.map(lambda each: self._run(*each, 180, {}), tests)
            for (program, test), (status, seconds, output, record) in zip(tests, runs):
                if status != 0:
                    self.unrecorded += 1
                    print(f"  {program.name} {test} ends with {status} though nothing fails\n{output[-2000:]}")
                    continue
                for line in record.splitlines():
                    _, key, *call, _, a, b, c = line.split()
                    site = Site(program, key, call[-1], tuple(int(frame, 16) for frame in (a, b, c)))
                    if wanted(site):
                        found.setdefault((program, key), site).tests.append((seconds, test))
        for program in self.programs:
            self.names[program].look_up(frame for site in found.values() if site.program == program
                                        for frame in site.frames)
        # The same place in another program is the same site: the quickest has it.
        places, excluded = {}, set()
        for site in found.values():
            site.tests.sort()
            place = (site.call, self.names[site.program].of(site.frames))
            if any(call in ("", site.call) and text in place[1] for call, text, _ in EXCLUDED):
                excluded.add(place)
                continue
            if place not in places or site.tests[0] < places[place].tests[0]:
                places[place] = site
        print(f"  {len(places)} sites; left out as not promised: {len(excluded)}")
        return list(places.values())

    def describe(self, site):
        return f"{site.program.name} {site.call}: {self.names[site.program].of(site.frames)}"

    def fail(self, site, always):
        """Lets the site fail in the quickest test that comes by."""
        result = Result(site, always)
        for seconds, test in site.tests[:3]:
            environment = {"TOLM_FAULTS_FAIL": site.key} | ({"TOLM_FAULTS_ALWAYS": "1"} if always else {})
            status, took, output, record = self._run(site.program, test, 120 + 10 * seconds, environment)
            result = Result(site, always, test, judge(status, output), took, output)
            if "failed" in record:
                return result
        result.outcome = "unreached" if result.outcome in ("passed", "refused") else result.outcome
        return result

    def fail_all(self, sites, told, allocations_go_on=True):
        """Each site once, and each that can go on failing from then on; `told(result)` hears of every run."""
        runs = [(site, always) for site in sites for always in (False, True)
                if not always or (site.call not in ONCE_ONLY and (allocations_go_on or not site.is_allocation()))]
        results = []
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            for result in pool.map(lambda each: self.fail(*each), runs):
                results.append(result)
                told(result)
        return results
