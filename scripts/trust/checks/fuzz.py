"""Hostile bytes: each parser under a fuzzer, with the sanitizers on, and a live frame under sequences of bad peers."""

import fuzzing

ORDER = 10
LONG_SECONDS = 600


def run(run):
    fuzzing.run_all(run, LONG_SECONDS if run.long else fuzzing.SECONDS)
