"""Requests to an agent that has only just started, so that its tables are as new as the daemon's."""

import time

import system

# More than one, because the host may be busy with other work.
ATTEMPTS = 10


def ask(directory, request):
    """Returns what request(client) returns, and the seconds that it took with the refresh of the tables.

    On a busy host a refresh for many VMs may exceed the agent's time budget; then another agent is started.
    """
    for _ in range(ATTEMPTS):
        agent = system.Agent(directory, timeout=30)
        agent.allow_log(*system.DATA_LOG)
        try:
            # The agent has logged in once it responds, and has not requested the VMs yet.
            begun = time.monotonic()
            result = request(agent.client)
            took = time.monotonic() - begun
            in_time = "no reply in time" not in agent.log_text()
            if not in_time:
                agent.allow_log(".*")
        finally:
            agent.stop()
            agent.log.unlink()
        if in_time:
            return result, took
    raise AssertionError(f"no refresh within the agent's time budget in {ATTEMPTS} attempts")
