"""Asking an agent that has only just started, so that its tables are as new as the daemon's."""

import time

import system

# On a machine that is busy with other things.
ATTEMPTS = 10


def ask(directory, question):
    """What `question` answers of such an agent's client, and the seconds that it took with the refresh of the tables.

    A busy machine may not refresh those of many machines within the agent's time budget; then another agent tries.
    """
    for _ in range(ATTEMPTS):
        agent = system.Agent(directory, timeout=30)
        agent.allow_log(*system.DATA_LOG)
        try:
            # The agent has logged in when it answers, and has not asked for the machines yet.
            begun = time.monotonic()
            answer = question(agent.client)
            took = time.monotonic() - begun
            in_time = "no reply in time" not in agent.log_text()
            if not in_time:
                agent.allow_log(".*")
        finally:
            agent.stop()
            agent.log.unlink()
        if in_time:
            return answer, took
    raise AssertionError(f"no refresh within the agent's time budget in {ATTEMPTS} attempts")
