"""Memory, descriptors and uninterrupted system calls run short: the agent goes on, and the next rebuild is whole."""

import contextlib
import os
import re
import resource
import signal
import subprocess
import threading
import time

import pytest
import system
import watch
from recorded_session import Replaced, response
from rogue_daemon import TRICKLE

CONNECT = 1.0

# Every allocation of a rebuild and of the requests that the cache has no answer for (each with its connection and login) in
# turn, in four parts so that they run side by side; and samples where all later allocations fail too.
STARVATIONS = [(scenario, "once", first, 4) for scenario in ("rebuild", "scalars") for first in range(4)] + [
    ("rebuild", "on", 0, 17), ("scalars", "on", 0, 29)]


@pytest.mark.slow
@pytest.mark.parametrize("scenario, which, first, step", STARVATIONS, ids=lambda value: str(value))
@system.needs_plain_build
def test_any_allocation_may_fail(scenario, which, first, step, built, rogue, directory):
    """In a process that loads the module as the agent does and calls the handlers that it registered."""
    started = time.monotonic()
    result = subprocess.run([built("starved_module", program=True), system.MODULE, scenario, which, str(first), str(step)],
                            cwd=directory, capture_output=True, text=True, timeout=580)
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr[-1000:]
    made, tried, failed = map(int, re.fullmatch(r"(\d+) allocations, (\d+) tried, (\d+) failed", result.stdout.splitlines()[-1]).groups())
    assert made > 1000 and tried >= made // step and failed == 0
    watch.report(f"allocation n{' and all later ones' if which == 'on' else ''} of {made} fails in a {scenario}, n = {first}, {first + step}, …",
                 "logs, answers what it has or nothing, the next rebuild is whole", (time.monotonic() - started) / tried, faults=tried)


@system.needs_plain_build
def test_a_request_allocates_nothing(built, rogue, directory):
    result = subprocess.run([built("starved_module", program=True), system.MODULE, "request", "once", "0", "1"],
                            cwd=directory, capture_output=True, text=True, timeout=60)
    assert result.stdout == "0 allocations, 1 tried, 0 failed\n", result.stdout + result.stderr


@contextlib.contextmanager
def limit(agent, what, value):
    """The agent may have no more than that."""
    soft, hard = resource.prlimit(agent.pid, what)
    resource.prlimit(agent.pid, what, (value, hard))
    yield
    resource.prlimit(agent.pid, what, (soft, hard))


@system.needs_plain_build
def test_without_descriptors_the_rebuild_says_so(built, rogue, directory):
    """In a process of its own, as the agent itself answers nobody without one more descriptor (it reads /etc/hosts.allow)."""
    result = subprocess.run([built("starved_module", program=True), system.MODULE, "descriptors", "once", "0", "1"],
                            cwd=directory, capture_output=True, text=True, timeout=60)
    assert result.stdout == "4 allocations, 5 tried, 0 failed\n", result.stdout + result.stderr
    watch.report("0 to 4 descriptors are left", "says so, goes without connection or session, the next rebuild is whole", 0, faults=5)


@system.needs_plain_build
def test_without_memory_the_agent_answers_the_rest(agent, rogue, good, host):
    """Replies of 30 MB to an agent that may take 16 MB more than it has."""
    before = watch.descriptors(agent.pid)
    large = response("GetConfig", "<returnval><name>" + "n" * 30_000_000 + "</name><guestFullName>g</guestFullName></returnval>")
    spare = (watch.memory(agent.pid, "VmSize") + 16 * 1024) * 1024
    with watch.Prober() as prober, limit(agent, resource.RLIMIT_AS, spare):
        for method in ("GetConfig", "GetChildEntity", "AcquireLocalTicket"):
            rogue.behave(Replaced(good, **{method: large.replace(b"GetConfig", method.encode().ljust(9)[:9]) if method == "GetConfig" else large}))
            rogue.drop_connections()
            for _ in range(4):
                agent.refresh()
        rogue.behave(good)
        rogue.drop_connections()
        agent.recover(host)
    prober.check(CONNECT)
    assert watch.memory(agent.pid, "VmSize") * 1024 <= spare
    assert watch.descriptors(agent.pid) == before
    watch.report("a reply of 30 MB with 16 MB left", "says that memory is short, empties the tables", prober.figures()["max"], prober)


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
def test_interrupted_system_calls_change_nothing(agent, rogue, good, host):
    before = watch.descriptors(agent.pid)

    def in_pieces(stream, call):
        message = good.answer(call)
        for at in range(0, len(message), 100):
            stream.send(message[at:at + 100])
            stream.wait(0.002)

    rogue.behave(Replaced(good, GetConfig=in_pieces, QueryPerf=in_pieces, AcquireLocalTicket=in_pieces))
    with watch.Prober() as prober, storm(agent):
        for number in range(60):
            if number % 3 == 0:
                rogue.drop_connections()
                agent.refresh()
            assert agent.refresh()[1], "a rebuild came to nothing"
            agent.assert_right(host)
    prober.check(1)
    interruptions = agent.interruptions()
    assert interruptions > 500
    assert watch.descriptors(agent.pid) == before
    watch.report(f"{interruptions} signals in 60 rebuilds", "goes on", prober.figures()["max"], prober)


@pytest.mark.slow
@pytest.mark.parametrize("name, behaviour", [
    ("silent", lambda stream, call: stream.wait()),
    ("trickling", lambda stream, call: (setattr(stream, "interval", TRICKLE), stream.send(b"HTTP/1.1 200 OK\r\n"))),
])
def test_interrupted_waits_end_in_time(name, behaviour, agent, rogue, good, host):
    before = watch.descriptors(agent.pid)
    rogue.behave(Replaced(good, AcquireLocalTicket=behaviour))
    rogue.drop_connections()
    agent.refresh()
    with watch.Prober() as prober, storm(agent):
        held, _ = agent.refresh()
    assert CONNECT * 0.9 < held < CONNECT + watch.SLACK
    prober.check(CONNECT)
    rogue.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"signals while the daemon is {name}", "gives up in time", held, prober)
