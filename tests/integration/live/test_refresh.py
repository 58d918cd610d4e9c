"""What a refresh of the agent costs on a live host, against the same VMs as a described host."""

import concurrent.futures
import contextlib
import os
import statistics
import time

import described_copy
import fresh_agent
import libvirt_host
import network
import pytest
import system
import wire
from expected_tree import ENTERPRISE

pytestmark = pytest.mark.xdist_group("computes")

VMS = 1000
ROUNDS = int(os.environ.get("KELV_REFRESH_ROUNDS", "3"))
# A refresh of the live host may take this many times as long.
MOST = 2

CONFIGURATION = ENTERPRISE + (2,)
FIRST_NAME = CONFIGURATION + (1, 1, 2, 0)


class Side:
    """A daemon in a network of its own. Everything is done in one thread, which lives in that network."""

    def __init__(self, directory, stack):
        directory.mkdir(mode=0o755)
        self.directory = directory
        self.thread = stack.enter_context(concurrent.futures.ThreadPoolExecutor(1))
        self.run(network.enter_new)

    def run(self, function, *arguments):
        return self.thread.submit(function, *arguments).result()

    def start(self, daemon, stack):
        self.daemon = self.run(daemon)
        stack.callback(self.daemon.stop)

    def describe(self):
        self.daemon.wait_for_vms(VMS)
        with wire.logged_in(timeout=60) as connection:
            return described_copy.describe(connection)

    def refresh(self, then=lambda client: None):
        """Seconds that the first response from a table takes, and what then(client) returns afterwards."""
        def request(client):
            begun = time.monotonic()
            name = client.get(FIRST_NAME)[0].value
            took = time.monotonic() - begun
            assert name.startswith(b"vm-"), name
            return took, then(client)

        return fresh_agent.ask(self.directory, request)[0]


def configuration(client):
    return client.bulk_walk(CONFIGURATION, repetitions=50)


def test_a_refresh_takes_at_most_twice_as_long_as_that_of_a_described_host(directory, record_property):
    file = directory / "host.xml"
    file.write_text(libvirt_host.host_file(VMS))
    with contextlib.ExitStack() as stack:
        live, described = (Side(directory / name, stack) for name in ("live", "described"))
        live.start(lambda: libvirt_host.Daemon(f"test://{file}", live.directory), stack)
        description = directory / "host.yaml"
        description.write_text(live.run(live.describe))
        described.start(lambda: system.Daemon(description, described.directory), stack)

        times, shown = {live: [], described: []}, {}
        for number in range(ROUNDS):
            for side in (live, described) if number % 2 else (described, live):
                if number == 0:
                    took, shown[side] = side.run(side.refresh, configuration)
                else:
                    took, _ = side.run(side.refresh)
                times[side].append(took)
        assert sum(instance.oid[:-1] == FIRST_NAME[:-1] for instance in shown[live]) == VMS
        assert shown[live] == shown[described], "these are not the same VMs"
    medians = [statistics.median(times[side]) for side in (live, described)]
    ratio = medians[0] / medians[1]
    result = (f"{VMS} VMs, median of {ROUNDS}: {medians[0]:.3f} s live, {medians[1]:.3f} s described, "
              f"ratio {ratio:.2f}")
    record_property("refresh", result)
    print(result)
    assert ratio <= MOST, result
