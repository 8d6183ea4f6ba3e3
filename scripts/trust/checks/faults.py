"""Every fallible call fails once: memory, files, sockets, threads, processes.

Each call in our own code that can fail is made to fail, one at a time, in the quickest test that comes by it: once,
and, where that can happen, each time from then on. The test itself may fail; a crash, a hang, a leak or a race may
not be. Allocations go on failing with --long only."""

import os

import fault_runs

ORDER = 80
PROGRAMS = ("unit_base", "unit_proto", "unit_os", "unit_lpc", "unit_net", "transport_test", "unit_process",
            "guard_core_test", "agent_test", "frame_test", "guard_test")

LEAST_SITES = {"asan": 1700, "tsan": 450}


def run(run):
    for preset in ("asan", "tsan"):
        folder = run.build(preset, *PROGRAMS)
        programs = fault_runs.Programs(folder, PROGRAMS, 4 * os.cpu_count())  # they mostly wait
        try:
            fail_all_of(run, preset, programs)
        finally:
            programs.close()


def fail_all_of(run, preset, programs):
    # A race is seen where threads meet, which they do around the system's calls; memory is short alike in both.
    allocations = run.long or preset == "asan"
    sites = programs.sites(lambda site: allocations or not site.is_allocation())

    def told(result):
        if result.outcome in fault_runs.FAULTS or result.outcome == "test":
            print(f"  {result.outcome}{' always' if result.always else ''}: {programs.describe(result.site)}"
                  f" in {result.test}", flush=True)

    results = programs.fail_all(sites, told, allocations_go_on=run.long)
    reached = {result.site for result in results if result.outcome != "unreached"}
    for site in sites:
        if site not in reached:
            print(f"  not reached again: {programs.describe(site)}", flush=True)

    def add(name, figure, bound, ok):
        run.add(f"faults.{preset}.{name}", figure, "count", bound, ok)

    # So many there were when this was written; a program that is not looked at takes hundreds away.
    least = LEAST_SITES[preset]
    add("sites", len(sites), f">= {least}", len(sites) >= least)
    for program in PROGRAMS:
        # Some ask the system for nothing but memory.
        if allocations and not any(site.program.name == program for site in sites):
            add(f"sites_of_{program}", 0, ">= 1", False)
    add("tests_not_recorded", programs.unrecorded, "0", programs.unrecorded == 0)
    add("failed_once", len(reached), f">= {len(sites) * 95 // 100}", len(reached) * 100 >= len(sites) * 95)
    add("runs", len(results), "none", True)
    for name, outcome in (("crashes", "crash"), ("hangs", "hang"), ("leaks", "leak"), ("races", "race")):
        count = sum(result.outcome == outcome for result in results)
        add(name, count, "0", count == 0)
    add("crashes_of_the_tests", sum(result.outcome == "test" for result in results), "none", True)
