"""Memory and descriptors run out, system calls are interrupted: the agent goes on, and the next rebuild is whole."""

import contextlib
import os
import re
import resource
import signal
import subprocess
import threading
import time

import mib
import net_snmp
import pytest
import system
import watch
from fake_daemon import TRICKLE, Replaced, response

CONNECT = 1.0

# Every allocation of a rebuild and of the scalars (each with its connection and login) in turn, in four parts so that
# they run side by side; and samples where all later allocations fail too.
STARVATIONS = [(scenario, "once", first, 4) for scenario in ("rebuild", "scalars") for first in range(4)] + [
    ("rebuild", "on", 0, 17), ("scalars", "on", 0, 29)]


def starve(built, directory, scenario, which, first, step, timeout=60):
    """Runs a scenario in a process that loads the module as the agent does and calls the handlers it registered."""
    column, *scalars = (net_snmp.dotted(declared.oid) for declared in (mib.objects()["vmDisplayName"], *mib.scalars()))
    program = built("starved_module", program=True)
    return subprocess.run([program, system.MODULE, scenario, which, str(first), str(step), column, *scalars],
                          cwd=directory, capture_output=True, text=True, timeout=timeout)


@pytest.mark.slow
@pytest.mark.parametrize("scenario, which, first, step", STARVATIONS, ids=lambda value: str(value))
@system.needs_plain_build
def test_any_allocation_may_fail(scenario, which, first, step, built, fake, directory):
    started = time.monotonic()
    result = starve(built, directory, scenario, which, first, step, timeout=580)
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr[-1000:]
    last = result.stdout.splitlines()[-1]
    counts = re.fullmatch(r"(\d+) allocations, (\d+) tried, (\d+) failed", last)
    made, tried, failed = map(int, counts.groups())
    assert made > 1000 and tried >= made // step and failed == 0
    later = " and all later ones" if which == "on" else ""
    watch.report(f"allocation n{later} of {made} fails in a {scenario}, n = {first}, {first + step}, …",
                 "logs it, serves what it has or nothing, the next rebuild is whole",
                 (time.monotonic() - started) / tried, faults=tried)


@system.needs_plain_build
def test_a_request_allocates_nothing(built, fake, directory):
    result = starve(built, directory, "request", "once", 0, 1)
    assert result.stdout == "0 allocations, 1 tried, 0 failed\n", result.stdout + result.stderr


@contextlib.contextmanager
def limit(agent, what, value):
    """The agent may have no more than that."""
    soft, hard = resource.prlimit(agent.pid, what)
    resource.prlimit(agent.pid, what, (value, hard))
    yield
    resource.prlimit(agent.pid, what, (soft, hard))


@system.needs_plain_build
def test_without_descriptors_the_rebuild_logs_it(built, fake, directory):
    """In a process of its own, as the agent needs one more descriptor to serve anybody, for /etc/hosts.allow."""
    result = starve(built, directory, "descriptors", "once", 0, 1)
    assert result.stdout == "4 allocations, 5 tried, 0 failed\n", result.stdout + result.stderr
    watch.report("0 to 4 descriptors are left",
                 "logs it, has no connection or no session, the next rebuild is whole", 0, faults=5)


@system.needs_plain_build
def test_without_memory_the_agent_answers_the_rest(agent, fake, good, host):
    """Replies of 30 MB to an agent that may take 16 MB more than it has."""
    before = watch.descriptors(agent.pid)
    large = response(
        "GetConfig", "<returnval><name>" + "n" * 30_000_000 + "</name><guestFullName>g</guestFullName></returnval>")
    spare = (watch.memory(agent.pid, "VmSize") + 16 * 1024) * 1024
    with watch.Prober() as prober, limit(agent, resource.RLIMIT_AS, spare):
        for method in ("GetConfig", "GetChildEntity", "AcquireLocalTicket"):
            fake.behave(Replaced(good, **{method: large}))
            fake.drop_connections()
            for _ in range(4):
                agent.refresh()
        fake.behave(good)
        fake.drop_connections()
        agent.recover(host)
    prober.check(CONNECT)
    assert watch.memory(agent.pid, "VmSize") * 1024 <= spare
    assert watch.descriptors(agent.pid) == before
    watch.report("a reply of 30 MB with 16 MB left", "logs that memory is short, empties the tables",
                 prober.summary()["max"], prober)


@contextlib.contextmanager
def storm(agent):
    """Signals that interrupt system calls, as fast as they can be sent."""
    stopping = threading.Event()

    def send():
        while not stopping.is_set():
            os.kill(agent.pid, signal.SIGRTMIN)
            time.sleep(0.0002)

    thread = threading.Thread(target=send, daemon=True)
    thread.start()
    yield
    stopping.set()
    thread.join()


@pytest.mark.slow
def test_interrupted_system_calls_change_nothing(agent, fake, good, host):
    before = watch.descriptors(agent.pid)

    def in_pieces(stream, call):
        message = good.result(call)
        for at in range(0, len(message), 100):
            stream.send(message[at:at + 100])
            stream.wait(0.002)

    fake.behave(Replaced(good, GetConfig=in_pieces, QueryPerf=in_pieces, AcquireLocalTicket=in_pieces))
    with watch.Prober() as prober, storm(agent):
        for number in range(60):
            if number % 3 == 0:
                fake.drop_connections()
            assert agent.refresh()[1], "a rebuild came to nothing"
            agent.assert_right(host)
    prober.check(1)
    interruptions = agent.interruptions()
    assert interruptions > 500
    assert watch.descriptors(agent.pid) == before
    watch.report(f"{interruptions} signals in 60 rebuilds", "goes on", prober.summary()["max"], prober)


@pytest.mark.slow
@pytest.mark.parametrize("name, behaviour", [
    ("silent", lambda stream, call: stream.wait()),
    ("trickling", lambda stream, call: (setattr(stream, "interval", TRICKLE), stream.send(b"HTTP/1.1 200 OK\r\n"))),
])
def test_interrupted_waits_end_in_time(name, behaviour, agent, fake, good, host):
    before = watch.descriptors(agent.pid)
    fake.behave(Replaced(good, AcquireLocalTicket=behaviour))
    fake.drop_connections()
    with watch.Prober() as prober, storm(agent):
        took, _ = agent.refresh()
    assert CONNECT * 0.9 < took < CONNECT + watch.SLACK
    prober.check(CONNECT)
    fake.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"signals while the daemon is {name}", "times out in time", took, prober)
