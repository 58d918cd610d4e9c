"""One fault after the other on a host with 100 VMs, and a refresh with a walk every 5 s: the agent lives, is whole at
the first refresh after each fault, and holds as much memory and as many descriptors at the end as before.

KELV_SOAK_SECONDS sets the duration (60 by default); KELV_SOAK_SEED repeats the faults of a run, which prints its seed.
"""

import collections
import os
import random
import signal
import statistics
import time

import expected_tree
import fake_daemon
import net_snmp
import pytest
import system
import test_broken_daemon
import test_rebuilds
import watch

SECONDS = float(os.environ.get("KELV_SOAK_SECONDS", "60"))
SEED = int(os.environ.get("KELV_SOAK_SEED", random.randrange(1 << 32)))
WALK_INTERVAL = 5.0
# The longest wait of a request, and the longest backoff after a timeout.
WAIT, BACKOFF = 5.0, 20.0
# The agent is restarted in this part of the run only; its memory is compared over the rest.
RESTARTS = 0.25

HOST = expected_tree.parse(test_rebuilds.HOST)
# Those that show on a host without datastores.
ROGUES = [fault for fault in test_broken_daemon.FAULTS if fault.name != "silent at a datastore"]


class Soak:
    def __init__(self, directory, start_daemon, start_agent):
        self.directory, self.start_daemon, self.start_agent = directory, start_daemon, start_agent
        self.file = directory / "host.yaml"
        self.file.write_text(test_rebuilds.HOST)
        self.random = random.Random(SEED)
        self.faults, self.effects = collections.Counter(), collections.Counter()
        self.slowest, self.delays = 0.0, watch.Delays()
        self.daemon = start_daemon(self.file)
        self.new_agent()
        self.begun = self.due = time.monotonic()

    def elapsed(self):
        return time.monotonic() - self.begun

    def new_agent(self):
        self.agent = self.start_agent()
        self.agent.recover(HOST)
        self.whole = self.walk()
        self.descriptors = watch.descriptors(self.agent.pid)
        self.samples = []       # after each whole refresh: seconds since the start, kB resident, bytes of heap
        self.prober = watch.Prober().__enter__()

    def end_agent(self):
        """Every request of this agent's life was answered, and in time."""
        self.prober.__exit__()
        self.prober.check(WAIT)
        self.delays.add(self.prober)
        self.agent.stop()

    def walk(self):
        run = net_snmp.run("snmpbulkwalk", *net_snmp.V2C, "-On", "-Cr50", "-t", "20", "-r", "0", "127.0.0.1",
                           net_snmp.dotted(expected_tree.ENTERPRISE), mibs="")
        assert run.returncode == 0, run.stderr
        return run.stdout

    def refresh(self):
        """At the next multiple of 5 s; returns whether the tables have rows, which are right then."""
        self.due = max(self.due + WALK_INTERVAL, time.monotonic())
        time.sleep(max(0, self.due - time.monotonic()))
        seconds, rows = self.agent.refresh()
        self.slowest = max(self.slowest, seconds)
        self.effects["whole" if rows else "empty"] += 1
        if rows:
            assert self.walk() == self.whole
        return rows

    def log_length(self):
        return self.agent.log.stat().st_size

    def logged(self, since):
        with self.agent.log.open(errors="replace") as log:
            log.seek(since)
            return log.read()

    def recover(self, fault_began):
        """The first refresh is whole; after a timeout the first one that the backoff allows."""
        over = time.monotonic()
        start = self.log_length()
        while not self.refresh():
            assert "no reply in time" in self.logged(fault_began), "empty after the fault, and nothing timed out"
            assert time.monotonic() < over + BACKOFF + WALK_INTERVAL + watch.SLACK, "the agent does not recover"
            self.effects["empty in a backoff after the fault"] += 1
        assert "SNMPRask: refreshing cache completed." in self.logged(start), "these are the rows of an old refresh"
        assert watch.descriptors(self.agent.pid) == self.descriptors
        self.samples.append((self.elapsed(), watch.memory(self.agent.pid), self.agent.heap()))

    # Faults. They end with a good daemon on the port.

    def end_daemon(self):
        if self.random.random() < 0.5:
            assert self.daemon.stop() == 0
        else:
            self.daemon.process.kill()
            self.daemon.stop()

    def daemon_restarts(self):
        self.end_daemon()
        if self.random.random() < 0.5:
            assert not self.refresh()
        self.daemon = self.start_daemon(self.file)

    def daemon_hangs(self):
        self.daemon.signal(signal.SIGSTOP)
        for _ in range(self.random.randint(1, 3)):
            assert not self.refresh()
        self.daemon.signal(signal.SIGCONT)

    def daemon_reads_its_host_again(self):
        self.daemon.signal(signal.SIGHUP)

    def rogue_daemon(self):
        fault = self.random.choice(ROGUES)
        print(f"  {fault.name}", flush=True)
        self.end_daemon()
        folder = self.directory / "rogue"
        folder.mkdir(exist_ok=True)
        fake = fake_daemon.FakeDaemon(fault.make(fake_daemon.GoodBehaviour(HOST, folder)))
        for _ in range(self.random.randint(1, 2)):
            assert not self.refresh()
        fake.stop()
        self.daemon = self.start_daemon(self.file)

    def agent_restarts(self):
        self.end_agent()
        self.new_agent()

    def clock_is_set_forward(self):
        self.agent.step_clock(self.random.randint(1, 100 * 24 * 3600))

    def clock_is_set_back(self):
        """Until it is as late again, the rows stay as they are."""
        seconds = self.random.randint(60, 3600)
        self.agent.step_clock(-seconds)
        assert self.refresh()
        self.agent.step_clock(seconds)

    def run(self):
        while self.elapsed() < SECONDS:
            faults = [self.rogue_daemon] * 4 + [self.daemon_restarts] * 2 + [
                self.daemon_hangs, self.daemon_reads_its_host_again, self.clock_is_set_forward, self.clock_is_set_back]
            if self.elapsed() < SECONDS * RESTARTS:
                faults.append(self.agent_restarts)
            fault = self.random.choice(faults)
            name = fault.__name__.replace("_", " ")
            self.faults[name] += 1
            print(f"{self.elapsed():.0f} s: {name}", flush=True)
            began = self.log_length()
            fault()
            # A new agent has a new log.
            self.recover(min(began, self.log_length()))
            _, resident, heap = self.samples[-1]
            print(f"  {self.elapsed():.0f} s: whole; {resident} kB resident, {heap} bytes of heap, "
                  f"{len(self.descriptors)} descriptors, slowest refresh {self.slowest:.2f} s, {dict(self.effects)}")
            for _ in range(self.random.randint(0, 2)):
                self.recover(self.log_length())
        self.end_agent()

    def memory_is_level(self):
        """Compares the halves of the last agent's life by their medians."""
        half = len(self.samples) // 2
        early, late = self.samples[:half], self.samples[-half:]
        for column, allowed in ((1, 1.05), (2, 1.01)):
            first, last = (statistics.median(sample[column] for sample in samples) for samples in (early, late))
            assert last <= first * allowed, self.samples


@pytest.mark.slow
def test_faults_leave_the_agent_as_it_was(directory, start_daemon, shifted_agent):
    print(f"KELV_SOAK_SEED={SEED}")
    soak = Soak(directory, start_daemon, shifted_agent)
    soak.run()
    shown = [soak.samples[0], soak.samples[len(soak.samples) // 2], soak.samples[-1]]
    print(f"{dict(soak.faults)}; refreshes: {dict(soak.effects)}; slowest refresh {soak.slowest:.2f} s; "
          f"sysUpTime {soak.delays.summary()}; {len(soak.descriptors)} descriptors; "
          f"(s, kB resident, bytes of heap) {shown}", flush=True)
    if not system.sanitizer_libraries():
        soak.memory_is_level()
    watch.report(f"{soak.faults.total()} faults of {len(soak.faults)} kinds in {SECONDS:.0f} s, seed {SEED}",
                 f"{soak.effects['whole']} refreshes whole, {soak.effects['empty']} empty", soak.slowest, soak.delays,
                 faults=soak.faults.total(), resident_kilobytes=[sample[1] for sample in soak.samples],
                 heap_bytes=[sample[2] for sample in soak.samples])
