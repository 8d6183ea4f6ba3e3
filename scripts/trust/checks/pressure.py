"""Slow readers, floods and shortages: what they cost, and that nobody else pays.

A program of a release build, one case in each run: a plugin that reads nothing, a million notifications both ways,
bodies near the limit of one message, a host with 64 descriptors, a stop under a hundred callers, memory that is refused.
"""

ORDER = 60

# A run takes a few seconds to two minutes on an idle machine.
SECONDS = 600


def run(run):
    program = run.build("release", "trust_pressure") / "trust_pressure"
    for case in ("stalled", "flood", "full_start", "large_body", "nofile", "stop_in_the_middle", "no_memory"):
        run.program([program, case], SECONDS)
