"""Host, agent, guard and plugins are killed: at random under load, in a crowd, and at chosen moments."""

ORDER = 30

KILLS = 1000
LONG_KILLS = 10000
ROUNDS = 20


def run(run):
    programs = run.build("release", "trust_death")
    death = programs / "trust_death"
    kills = LONG_KILLS if run.long else KILLS
    run.program([death, "kills", "--kills", kills], 3 * kills)
    run.program([death, "crowd", "--rounds", ROUNDS], 60 * ROUNDS)
    run.program([death, "moments", "--rounds", ROUNDS], 300 * ROUNDS)
