"""Every kind of traffic at a time, for a long time: memory, descriptors and threads stay flat.

A quarter of an hour, with --long eight hours, of a release build.
"""

ORDER = 65


def run(run):
    program = run.build("release", "trust_soak") / "trust_soak"
    seconds = 8 * 3600 if run.long else 15 * 60
    run.program([program, "--seconds", seconds], seconds + 400)
