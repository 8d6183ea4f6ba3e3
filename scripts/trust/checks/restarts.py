"""What a process holds more with each restart of the frame, of the transport and of the WebSocket server.

Slopes behind the first 20 restarts: threads, descriptors, resident memory and what is allocated, after the allocator has
given back what it can.
"""

ORDER = 50
MINUTES = 60


def run(run):
    programs = run.build("release", "trust_restarts")
    times = 10 if run.long else 1
    run.program([programs / "trust_restarts", "--restarts", 200 * times, "--parts", 2000 * times],
                20 * MINUTES * times)
