"""Fixtures of the robustness tests: an agent whose wall clock can be moved, and a rogue daemon on its port."""

import contextlib
import itertools
import os
import pwd
import re
import subprocess
import time
import unittest.mock

import pytest

for helper in ("rogue_daemon", "recorded_session", "watch"):
    pytest.register_assert_rewrite(helper)

import expected_tree        # noqa: E402
import recorded_session     # noqa: E402
import rogue_daemon         # noqa: E402
import system               # noqa: E402
import watch                # noqa: E402

# The name of the first machine.
FIRST_NAME = expected_tree.ENTERPRISE + (2, 1, 1, 2, 0)


def pytest_collection_modifyitems(items):
    """Tests that mostly wait go first, so that the others run beside them."""
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.fixture(scope="session")
def built(tmp_path_factory):
    """built(name) makes a shared library of the C file of that name; program=True: a program with the agent's libraries."""
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
    """An agent whose cache ages when it is told to. Its log may hold anything but what `forbidden` names."""

    # Lines that no fault may cause: they mean that something escaped that has a place to be caught.
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
        # Without the threads' caches, whose content counts as in use, the heap's size is exact.
        with unittest.mock.patch.dict(os.environ, LD_PRELOAD=str(library), KELV_PROBE=str(self.shared),
                                      GLIBC_TUNABLES="glibc.malloc.tcache_count=0"):
            super().__init__(directory, user=user, **how)

    def age_cache(self):
        """Lets the wall clock run ahead by more than the cache lives."""
        self.shifted += system.REFRESH_INTERVAL + 2
        with self.shared.open("r+b") as stream:
            stream.write(self.shifted.to_bytes(8, "little"))

    def heap(self):
        """The bytes that the agent's heap holds."""
        self.answers()      # which it goes to sleep after
        time.sleep(0.05)
        return int.from_bytes(self.shared.read_bytes()[8:16], "little")

    def interruptions(self):
        """How many signals interrupted the agent."""
        return int.from_bytes(self.shared.read_bytes()[16:24], "little")

    def refresh(self):
        """Makes the agent rebuild its cache; answers the seconds that the request took and whether there are rows."""
        self.age_cache()
        started = time.monotonic()
        answer, = self.client.get(FIRST_NAME)   # one call of one handler; a GETNEXT would go on to other groups
        return time.monotonic() - started, answer.type == "OCTET STRING"

    def recover(self, host):
        """Waits until the agent answers everything right again. It may leave a daemon alone for 5 s that did not answer in
        time, and on a busy machine even a good one may not."""
        deadline = time.monotonic() + 5 + 2 * watch.SLACK
        # The first rebuild may find the broken connection, the second makes a new one.
        while not self.refresh()[1] and not self.refresh()[1]:
            assert time.monotonic() < deadline, "the agent does not recover"
            time.sleep(0.2)
        self.assert_right(host)

    def assert_right(self, host):
        self.client.get(expected_tree.ENTERPRISE + (3, 2, 1, 0))    # the reservation is in kilobytes from now on
        found = self.client.bulk_walk()
        expected = expected_tree.tree(host)
        assert [(i.oid, i.type, i.value) for i in found] == [(i.oid, i.type, i.value) for i in expected]

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
    return expected_tree.parse(recorded_session.HOST)


@pytest.fixture
def good(host, directory):
    return recorded_session.GoodDaemon(host, directory)


@pytest.fixture
def rogue(good):
    """The rogue daemon; it behaves well until it is told otherwise."""
    daemon = rogue_daemon.RogueDaemon(good)
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
def agent(rogue, shifted_agent, host):
    """An agent that has answered everything right once and is connected to the rogue daemon."""
    agent = shifted_agent()
    agent.recover(host)
    return agent
