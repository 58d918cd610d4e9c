"""One fault after the other on a host with 100 VMs, and a refresh with a walk every 5 s: the agent lives, is whole at
the first refresh after each fault, and holds as much memory and as many descriptors at the end as before.

A described host, and one of a libvirtd of the test's own, where that can be started: its faults are among the others.

KELV_SOAK_SECONDS sets the duration (60 by default); KELV_SOAK_SEED repeats the faults of a run, which prints its seed.
"""

import collections
import os
import random
import re
import signal
import statistics
import time

import expected_tree
import fake_daemon
import libvirt_host
import mib
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
        self.host = self.make_host()
        self.random = random.Random(SEED)
        self.faults, self.effects = collections.Counter(), collections.Counter()
        self.slowest, self.delays = 0.0, watch.Delays()
        self.daemon = start_daemon(self.host)
        self.new_agent()
        self.begun = self.due = time.monotonic()

    def make_host(self):
        """What start_daemon() takes."""
        file = self.directory / "host.yaml"
        file.write_text(test_rebuilds.HOST)
        return file

    def elapsed(self):
        return time.monotonic() - self.begun

    def new_agent(self):
        self.agent = self.start_agent()
        self.agent.wait_for_rows()
        self.whole = self.whole_walk()
        self.descriptors = watch.descriptors(self.agent.pid)
        self.samples = []       # after each whole refresh: seconds since the start, kB resident, bytes of heap
        self.prober = watch.Prober().__enter__()

    def whole_walk(self):
        """The first walk of an agent, checked."""
        self.agent.assert_right(HOST)
        return self.walk()

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
            self.check(self.walk())
        return rows

    def check(self, walk):
        assert walk == self.whole

    def is_current(self):
        """Whether there are rows at the next refresh, which are current then."""
        return self.refresh()

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
        while not self.is_current():
            assert "no reply in time" in self.logged(fault_began), "empty after the fault, and nothing timed out"
            assert time.monotonic() < over + BACKOFF + WALK_INTERVAL + watch.SLACK, "the agent does not recover"
            self.effects["empty in a backoff after the fault"] += 1
        assert "SNMPRask: refreshing cache completed." in self.logged(start), "these are the rows of an old refresh"
        assert watch.descriptors(self.agent.pid) == self.descriptors
        self.samples.append((self.elapsed(), watch.memory(self.agent.pid), self.agent.heap()))

    # Faults. They end with a good daemon on the port.

    def faults_now(self):
        """A fault to choose from, as often as its weight."""
        faults = [self.rogue_daemon] * 4 + [self.daemon_restarts] * 2 + [
            self.daemon_hangs, self.daemon_reads_its_host_again, self.clock_is_set_forward, self.clock_is_set_back]
        if self.elapsed() < SECONDS * RESTARTS:
            faults.append(self.agent_restarts)
        return faults

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
        self.daemon = self.start_daemon(self.host)

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
        self.daemon = self.start_daemon(self.host)

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
            fault = self.random.choice(self.faults_now())
            name = fault.__name__.replace("_", " ")
            self.faults[name] += 1
            print(f"{self.elapsed():.0f} s: {name}", flush=True)
            began = self.log_length()
            fault()
            # A new agent has a new log.
            self.recover(min(began, self.log_length()))
            _, resident, heap = self.samples[-1]
            daemon = self.daemon.process.pid
            print(f"  {self.elapsed():.0f} s: whole; {resident} kB resident, {heap} bytes of heap, "
                  f"{len(self.descriptors)} descriptors (daemon: {watch.memory(daemon)} kB, "
                  f"{len(watch.descriptors(daemon))} descriptors), slowest refresh {self.slowest:.2f} s, "
                  f"{dict(self.effects)}")
            for _ in range(self.random.randint(0, 2)):
                self.recover(self.log_length())
        self.end_agent()

    def memory_is_level(self):
        """Compares the halves of the last agent's life by their medians. The process keeps some of the memory that its
        first faults take, which counts in short runs."""
        half = len(self.samples) // 2
        early, late = self.samples[:half], self.samples[-half:]
        for column, allowed in ((1, 1.05 if half > 20 else 1.1), (2, 1.01)):
            first, last = (statistics.median(sample[column] for sample in samples) for samples in (early, late))
            assert last <= first * allowed, self.samples


class LibvirtSoak(Soak):
    """On 100 VMs of libvirt's test driver within a libvirtd."""

    # While libvirtd does not respond, the last inventory serves so long; after that, everything is current so soon.
    KEPT, CURRENT = 60.0, 10.0
    # Of faults that last for a minute and more: they begin while so many seconds are left.
    LONG = 120

    STATISTICS = [net_snmp.dotted(mib.objects()[name].oid) for name in (
        "cpuUsedSec", "memActive", "diskNumRead", "diskRead", "diskNumWrite", "diskWrite", "netPktTx", "netTx",
        "netPktRx", "netRx", "netHCPktTx", "netHCTx", "netHCPktRx", "netHCRx")]
    STATISTIC = re.compile(rf"^((?:{'|'.join(map(re.escape, STATISTICS))})\.\S+ = \S+) (.*)$", re.MULTILINE)
    RECEIVED = re.compile(rf"^{re.escape(net_snmp.dotted(mib.objects()['netHCPktRx'].oid))}\.\S+ = Counter64: (\d+)$",
                          re.MULTILINE)
    MISSING = ("-1", str((1 << 64) - 1))

    def __init__(self, libvirtd, *arguments):
        self.libvirtd = libvirtd
        self.responds_since = 0.0       # by the wall clock
        super().__init__(*arguments)

    def make_host(self):
        file = self.directory / "host.xml"
        file.write_text(libvirt_host.host_file(test_rebuilds.VMS))
        return f"test+unix://{file}?socket={self.libvirtd.folder}/sock/libvirt-sock"

    def whole_walk(self):
        names = self.agent.client.bulk_walk(mib.objects()["vmDisplayName"].oid)
        assert {name.value.decode() for name in names} == {f"vm-{n + 1} größe & é" for n in range(test_rebuilds.VMS)}
        walk = self.walk()
        self.check_samples(walk)
        return self.without_values(walk)

    def without_values(self, walk):
        """Statistics that are there are all shown as 0."""
        return self.STATISTIC.sub(lambda found: found[0] if found[2] in self.MISSING else f"{found[1]} 0", walk)

    def without_statistics(self, walk):
        return self.STATISTIC.sub(r"\1", walk)

    def check_samples(self, walk):
        """The statistics are of the last 10 s, and later than what befell libvirtd."""
        # The cards of the test driver have received a packet in 100 us since 1970.
        sampled = [int(packets) / 10000 for packets in self.RECEIVED.findall(walk) if packets not in self.MISSING]
        assert len(sampled) > test_rebuilds.VMS / 2
        oldest, now = min(sampled), time.time()
        assert oldest > max(self.responds_since, now - self.CURRENT - watch.SLACK), (self.responds_since, oldest, now)

    def check(self, walk):
        """Also of what serves while libvirtd does not respond."""
        self.last = walk
        assert self.without_statistics(walk) == self.without_statistics(self.whole)

    def is_current(self):
        if not self.refresh():
            return False
        assert self.without_values(self.last) == self.whole
        self.check_samples(self.last)
        return True

    # Faults of libvirtd. They end when everything must be current.

    def faults_now(self):
        faults = super().faults_now() + [self.libvirtd_restarts, self.libvirtd_hangs] * 2 + [
            self.daemon_restarts_while_libvirtd_hangs]
        if self.elapsed() < SECONDS - self.LONG:
            faults += [self.libvirtd_hangs_for_long, self.libvirtd_is_down_for_long]
        return faults

    def last_inventory_serves(self, refreshes):
        for _ in range(refreshes):
            assert self.refresh(), "the last inventory does not serve"
            self.effects["of the last inventory"] += 1

    def libvirtd_responds(self):
        self.responds_since = time.time()
        end = time.monotonic() + self.CURRENT
        while time.monotonic() < end:
            self.refresh()

    def end_libvirtd(self):
        if self.random.random() < 0.5:
            self.libvirtd.process.terminate()
            self.libvirtd.process.wait(20)
        else:
            self.libvirtd.kill()

    def libvirtd_restarts(self):
        self.end_libvirtd()
        self.last_inventory_serves(self.random.randint(0, 3))
        self.libvirtd.start()
        self.libvirtd_responds()

    def hang_libvirtd(self, refreshes):
        self.libvirtd.process.send_signal(signal.SIGSTOP)
        self.last_inventory_serves(refreshes)
        self.libvirtd.process.send_signal(signal.SIGCONT)
        self.libvirtd_responds()

    def libvirtd_hangs(self):
        self.hang_libvirtd(self.random.randint(1, 3))

    def daemon_restarts_while_libvirtd_hangs(self):
        self.libvirtd.process.send_signal(signal.SIGSTOP)
        self.end_daemon()
        self.daemon = self.start_daemon(self.host)
        assert not self.refresh()
        self.libvirtd.process.send_signal(signal.SIGCONT)
        self.libvirtd_responds()

    def libvirtd_hangs_for_long(self):
        """Longer than the time after which a silent connection counts as broken."""
        self.hang_libvirtd(8)

    def libvirtd_is_down_for_long(self):
        """Until the tables are empty."""
        down = time.monotonic()
        self.end_libvirtd()
        while self.refresh():
            assert time.monotonic() < down + self.KEPT + 3 * WALK_INTERVAL + watch.SLACK, "the tables are not emptied"
        assert time.monotonic() > down + self.KEPT - 3 * WALK_INTERVAL, "the last inventory did not serve for 60 s"
        self.libvirtd.start()
        self.libvirtd_responds()


@pytest.fixture
def libvirtd(directory):
    reason = libvirt_host.why_not()
    if reason:
        pytest.skip(f"no libvirt host: {reason}")
    folder = directory / "libvirt"
    folder.mkdir()
    libvirtd = libvirt_host.Libvirtd(folder)
    yield libvirtd
    libvirtd.process.send_signal(signal.SIGCONT)    # a test that failed may have left it hanging
    libvirtd.stop()


def run(soak, host):
    print(f"KELV_SOAK_SEED={SEED}")
    soak.run()
    shown = [soak.samples[0], soak.samples[len(soak.samples) // 2], soak.samples[-1]]
    print(f"{dict(soak.faults)}; refreshes: {dict(soak.effects)}; slowest refresh {soak.slowest:.2f} s; "
          f"sysUpTime {soak.delays.summary()}; {len(soak.descriptors)} descriptors; "
          f"(s, kB resident, bytes of heap) {shown}", flush=True)
    if not system.sanitizer_libraries():
        soak.memory_is_level()
    watch.report(f"{soak.faults.total()} faults of {len(soak.faults)} kinds on {host} in {SECONDS:.0f} s, seed {SEED}",
                 f"{soak.effects['whole']} refreshes whole, {soak.effects['empty']} empty", soak.slowest, soak.delays,
                 faults=soak.faults.total(), resident_kilobytes=[sample[1] for sample in soak.samples],
                 heap_bytes=[sample[2] for sample in soak.samples])


@pytest.mark.slow
def test_faults_leave_the_agent_as_it_was(directory, start_daemon, shifted_agent):
    run(Soak(directory, start_daemon, shifted_agent), "a described host")


@pytest.mark.slow
def test_faults_of_a_libvirt_host_leave_the_agent_as_it_was(libvirtd, directory, start_libvirt_daemon, shifted_agent):
    run(LibvirtSoak(libvirtd, directory, start_libvirt_daemon, shifted_agent), "a libvirt host")
