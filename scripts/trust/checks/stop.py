"""The frame, its pools and its connections are stopped in the middle of everything, and called where they call.

`stop.*`: the frame is stopped by its host and by its callbacks while calls, forwards, events, a guard's texts and
registrations are under way, in one process, whose clocks for the long waits go a thousand times faster.
`stop.syncsend_from_callbacks.*`: waiting calls from every kind of callback.
`stop.own_thread.*`: each end is stopped by its own threads.
"""

ORDER = 40
MINUTES = 60


def run(run):
    programs = run.build("release", "trust_stop", "trust_calls_from_callbacks", "trust_own_threads")
    times = 10 if run.long else 1
    run.program([programs / "trust_stop", "--rounds", 2000 * times], 20 * MINUTES * times)
    run.program([programs / "trust_calls_from_callbacks", "--calls", 2000 * times], 10 * MINUTES * times)
    run.program([programs / "trust_own_threads", "--rounds", 2000 * times], 20 * MINUTES * times)
