"""Fixtures of the robustness tests: an agent whose wall clock can be moved, and a fake daemon on its port."""

import contextlib
import itertools
import os
import pwd
import re
import subprocess
import time
import unittest.mock

import pytest

for helper in ("fake_daemon", "watch"):
    pytest.register_assert_rewrite(helper)

import expected_tree        # noqa: E402
import fake_daemon          # noqa: E402
import mib                  # noqa: E402
import system               # noqa: E402
import watch                # noqa: E402

FIRST_NAME = mib.oid("vmDisplayName", 0)


@pytest.fixture(autouse=True)
def reported_faults(request):
    """Hands what the test reports to the run's report."""
    watch.reported.clear()
    yield
    request.node.user_properties += [("fault", {**line, "test": request.node.nodeid.rpartition("robustness/")[2]})
                                     for line in watch.reported]


@pytest.fixture(scope="session")
def built(tmp_path_factory):
    """built(name) makes a shared library of the C file `name`; program=True: a program with the agent's libraries."""
    folder = tmp_path_factory.mktemp("libraries")
    for parent in (folder, *folder.parents[:2]):
        parent.chmod(0o755)     # an agent of another user loads them

    def build(name, program=False):
        result = folder / (name if program else f"{name}.so")
        if not result.exists():
            source = os.path.join(os.path.dirname(__file__), f"{name}.c")
            kind = ["-lnetsnmpagent", "-lnetsnmp", "-ldl"] if program else ["-shared", "-fPIC"]
            subprocess.run(["cc", "-O1", "-Wall", "-Werror", "-o", result, source, *kind], check=True)
        return result

    return build


class ShiftedAgent(system.Agent):
    """An agent whose cache a test can age. Its log may hold anything but FORBIDDEN."""

    # Lines that no fault may cause: an exception that was caught nowhere but at the last place.
    FORBIDDEN = r"unknown exception|BUG|Assertion|SNMP_\w+: (?!std::bad_alloc)"

    def __init__(self, directory, library, user=None, **how):
        self.shared = directory / "probe"
        self.shared.write_bytes(bytes(24))
        self.shared.chmod(0o666)
        self.shifted = 0
        self.stopped = False
        if user:        # it opens its log again at SIGHUP
            log = directory / "snmpd.log"
            log.touch()
            os.chown(log, pwd.getpwnam(user).pw_uid, -1)
        # Without the threads' caches, whose content counts as in use, the heap's size is exact. With the usual
        # threshold fixed, the resident memory is, too: otherwise the C library keeps up to 64 MiB after freeing a large
        # reply.
        tunables = "glibc.malloc.tcache_count=0:glibc.malloc.trim_threshold=131072"
        with unittest.mock.patch.dict(os.environ, LD_PRELOAD=str(library), KELV_PROBE=str(self.shared),
                                      GLIBC_TUNABLES=tunables):
            super().__init__(directory, user=user, **how)

    def age_cache(self):
        """Lets the wall clock run ahead by more than the cache lives."""
        self.step_clock(system.REFRESH_INTERVAL + 2)

    def step_clock(self, seconds):
        """Sets the agent's wall clock forward, or back when negative."""
        self.shifted += seconds
        with self.shared.open("r+b") as stream:
            stream.write(self.shifted.to_bytes(8, "little", signed=True))

    def heap(self):
        """The bytes that the agent's heap holds."""
        self.answers()      # the agent sleeps after that, and writes the size
        time.sleep(0.05)
        return int.from_bytes(self.shared.read_bytes()[8:16], "little")

    def interruptions(self):
        """How many signals interrupted the agent."""
        return int.from_bytes(self.shared.read_bytes()[16:24], "little")

    def refresh(self):
        """Makes the agent rebuild its cache; returns the seconds that the request took and whether there are rows."""
        self.age_cache()
        started = time.monotonic()
        name, = self.client.get(FIRST_NAME)   # one call of one handler; a GETNEXT would go on to other groups
        return time.monotonic() - started, name.type == "OCTET STRING"

    def recover(self, host, daemon=None):
        """Waits until the agent serves the whole tree again. After a timeout it waits 5 s or more before it connects
        again, and on a busy computer even a good daemon may time out."""
        self.wait_for_rows()
        self.assert_right(host, daemon)

    def wait_for_rows(self):
        deadline = time.monotonic() + 10 + 2 * watch.SLACK
        while not self.refresh()[1]:
            assert time.monotonic() < deadline, "the agent does not recover"
            time.sleep(0.2)

    def assert_right(self, host, daemon=None):
        """The agent serves the host's whole tree; daemon: the one whose running statistics it has."""
        self.client.get(mib.oid("memTotal"))    # the reservation is in kilobytes from now on
        found = self.client.bulk_walk()
        expected_tree.assert_equal(found, expected_tree.tree(host, elapsed=daemon.elapsed() if daemon else 0))

    def stop(self):
        if self.stopped:
            return
        self.stopped = True
        super().stop()

    def surprises(self):
        with self.log.open(errors="replace") as log:
            return list(itertools.islice((line for line in log if re.search(self.FORBIDDEN, line)), 5))


@pytest.fixture
def host():
    return expected_tree.load(fake_daemon.HOST)


@pytest.fixture
def good(host, directory):
    return fake_daemon.GoodBehaviour(host, directory)


@pytest.fixture
def fake(good):
    """The fake daemon; it serves the host until a test changes its behaviour."""
    daemon = fake_daemon.FakeDaemon(good)
    yield daemon
    daemon.stop()


@pytest.fixture
def shifted_agent(directory, built):
    """shifted_agent(…) starts an agent; at the end it must be alive and stop."""
    with contextlib.ExitStack() as stack:
        def start(**how):
            agent = ShiftedAgent(directory, built("agent_probe"), **how)
            stack.callback(agent.stop)
            return agent

        yield start


@pytest.fixture
def agent(fake, shifted_agent, host):
    """An agent that has served the whole tree once and is connected to the fake daemon."""
    agent = shifted_agent()
    agent.recover(host)
    return agent
