"""What an operator does to the agent: reload, unload, load twice, another user, a stop in the middle of a rebuild."""

import os
import shutil
import signal
import statistics
import subprocess
import threading
import time

import expected_tree
import mib
import pytest
import system
import watch
from fake_daemon import Replaced, response
from module_table import LOAD, LOADED, UNLOAD, UNLOADED, WRITABLE, change_module, load, status
from snmp_client import Client

# What one cycle may leave in the heap beyond what it leaves without the module, in bytes.
LEAK = 16


class Walker:
    """A manager that walks the whole tree over and over; every walk must be right, or empty where that is allowed."""

    def __init__(self, host, may_be_empty=False):
        self.expected = [i.oid for i in expected_tree.tree(host)]
        self.may_be_empty = may_be_empty
        self.walks = 0
        self.wrong = None

    def __enter__(self):
        self.client = Client(timeout=20)
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self._walk, daemon=True)
        self.thread.start()
        return self

    def _walk(self):
        try:
            while not self.stopping.is_set() and self.wrong is None:
                found = [i.oid for i in self.client.bulk_walk(repetitions=5)]
                expected = set(self.expected)
                if found != self.expected and not (self.may_be_empty and expected.issuperset(found)):
                    self.wrong = found
                self.walks += 1
        except Exception as error:
            self.wrong = error

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join()
        self.client.close()
        assert self.wrong is None, self.wrong
        assert self.walks > 0


def hang_up(agent, times):
    """Lets the agent read its configuration again so many times, one after the other."""
    position = agent.log.stat().st_size
    for _ in range(times):
        os.kill(agent.pid, signal.SIGHUP)
        deadline = time.monotonic() + 10
        while True:
            with agent.log.open("rb") as log:
                log.seek(position)
                text = log.read()
            if b" restarted" in text:
                position += text.rindex(b" restarted") + 10
                break
            assert agent.is_alive() and time.monotonic() < deadline
            time.sleep(0.001)


def growth(agent, cycle, warm_up, times, windows=5):
    """The bytes that one cycle adds to the agent's heap: the median of several windows, as some things grow once."""
    cycle(warm_up)
    found = []
    for _ in range(windows):
        before = agent.heap()
        cycle(times // windows)
        found.append((agent.heap() - before) / (times // windows))
    return statistics.median(found)


@pytest.mark.slow
def test_two_hundred_hangups_under_a_walk_change_nothing(agent, host):
    before = watch.descriptors(agent.pid)
    started = time.monotonic()
    with watch.Prober() as prober, Walker(host) as walker:
        hang_up(agent, 200)
    prober.check(1)
    agent.assert_right(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("200 SIGHUPs under a walk", "reloads the module, serves what it did before",
                 (time.monotonic() - started) / 200, prober, walks=walker.walks)


@pytest.mark.slow
def test_a_hangup_leaks_no_more_than_the_agent_does(shifted_agent, built, fake, host):
    bytes_per_cycle = []
    for module in (built("empty_module"), system.MODULE):
        agent = shifted_agent(module=module)

        def cycle(times):
            for _ in range(times):
                hang_up(agent, 1)
                agent.refresh()

        bytes_per_cycle.append(growth(agent, cycle, 20, 100))
        agent.stop()
    without, with_module = bytes_per_cycle
    print(f"bytes per hangup: {without} without, {with_module} with the module")
    assert with_module <= without + LEAK
    watch.report("leak per SIGHUP and rebuild, in bytes",
                 f"{with_module - without:.0f} beyond the agent's own {without:.0f}", 0)


@pytest.mark.slow
def test_a_hundred_unloads_and_loads_under_a_walk_change_nothing(shifted_agent, fake, host):
    agent = shifted_agent(configuration=WRITABLE)
    agent.refresh()
    agent.assert_right(host)
    before = watch.descriptors(agent.pid)
    started = time.monotonic()
    with watch.Prober() as prober, Walker(host, may_be_empty=True) as walker:
        for _ in range(100):
            change_module(1, UNLOAD)
            change_module(1, LOAD)
    prober.check(1)
    assert status(agent, 1) == LOADED
    agent.refresh()
    agent.assert_right(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("100 unloads and loads by SET under a walk",
                 "serves nothing while unloaded, what it did before when loaded",
                 (time.monotonic() - started) / 100, prober, walks=walker.walks)


def test_an_unloaded_module_serves_nothing(shifted_agent, fake, host):
    agent = shifted_agent(configuration=WRITABLE)
    agent.refresh()
    agent.assert_right(host)
    with watch.unharmed(agent, 1):
        change_module(1, UNLOAD)
        assert status(agent, 1) == UNLOADED
        assert agent.client.bulk_walk() == []
        change_module(1, LOAD)
        agent.refresh()
        agent.assert_right(host)


@pytest.mark.slow
def test_unloading_and_loading_leaks_no_more_than_the_agent_does(shifted_agent, built, fake, host):
    bytes_per_cycle = []
    for module in (built("empty_module"), system.MODULE):
        agent = shifted_agent(module=module, configuration=WRITABLE)

        def cycle(times):
            for _ in range(times):
                change_module(1, UNLOAD)
                change_module(1, LOAD)
                agent.refresh()

        bytes_per_cycle.append(growth(agent, cycle, 20, 100))
        agent.stop()
    without, with_module = bytes_per_cycle
    print(f"bytes per unload and load: {without} without, {with_module} with the module")
    assert with_module <= without + LEAK
    watch.report("leak per unload, load and rebuild, in bytes",
                 f"{with_module - without:.0f} beyond the agent's own {without:.0f}", 0)


@pytest.mark.slow
def test_rebuilds_and_reconnects_leak_nothing(agent, fake, host):
    def rebuild(times):
        for _ in range(times):
            agent.refresh()

    def reconnect(times):
        for _ in range(times):
            fake.drop_connections()
            agent.refresh()
            agent.refresh()

    rebuilding, reconnecting = growth(agent, rebuild, 50, 500), growth(agent, reconnect, 20, 200)
    print(f"bytes per rebuild: {rebuilding}, per reconnect: {reconnecting}")
    assert rebuilding <= LEAK and reconnecting <= LEAK
    watch.report("leak per rebuild and per reconnect, in bytes", f"{rebuilding:.0f} and {reconnecting:.0f}", 0)


@pytest.fixture
def group_tickets(good):
    """A daemon whose tickets the agent's own account can read."""
    account = system.agent_account()
    write_ticket = good.write_ticket

    def write(secret):
        path = write_ticket(secret)
        os.chown(path, 0, account.pw_gid)
        path.chmod(0o640)
        return path

    good.write_ticket = write
    return account


@pytest.mark.parametrize("background", [False, True])
def test_an_agent_that_drops_its_privileges_goes_on_as_before(background, group_tickets, shifted_agent, fake, host):
    agent = shifted_agent(user="Debian-snmp", background=background)
    with open(f"/proc/{agent.pid}/status", encoding="ascii") as stream:
        assert f"Uid:\t{group_tickets.pw_uid}\t{group_tickets.pw_uid}" in stream.read()
    agent.refresh()
    agent.assert_right(host)
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober, Walker(host):
        hang_up(agent, 10)
    prober.check(1)
    fake.drop_connections()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"privileges dropped, {'daemonising' if background else 'in the foreground'}",
                 "goes on, logs in again as its account", 0, prober)


def test_a_daemonising_agent_makes_its_own_connection(shifted_agent, fake, host):
    agent = shifted_agent(background=True)
    assert agent.pid != agent.process.pid
    with watch.unharmed(agent, 1) as prober:    # the parent's connection is open in the child until it makes its own
        agent.refresh()
        agent.assert_right(host)
    assert fake.accepted == 2 and fake.count("Login") == 2
    assert fake.count("Logout") == 0, "the child logged out on its parent's connection"
    connected = subprocess.run(["ss", "-Htnp", "dport = :902"], capture_output=True, text=True, check=True).stdout
    assert connected.count(f"pid={agent.pid},") == 1, connected
    watch.report("daemonising start", "the child makes a connection of its own and sends nothing on its parent's", 0,
                 prober)


def test_a_second_load_changes_nothing(shifted_agent, fake, host, directory):
    copy = directory / "Copy.so"
    shutil.copy(system.MODULE, copy)
    agent = shifted_agent(configuration=WRITABLE)
    agent.refresh()
    agent.assert_right(host)
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober, Walker(host):
        load(2, copy)               # another image, every subtree is taken
        assert status(agent, 2) == LOADED
        load(3, system.MODULE)      # the same image again
        assert status(agent, 3) == LOADED
        change_module(2, UNLOAD)
        change_module(3, UNLOAD)
    prober.check(1)
    # An image keeps its client, and with it one connection, for the life of the process.
    assert watch.descriptors(agent.pid) == sorted([*before, "socket:"])
    agent.refresh()
    agent.assert_right(host)
    # The other order: what the first load registered goes with the last unload.
    load(4, system.MODULE)
    change_module(1, UNLOAD)
    agent.assert_right(host)
    change_module(4, UNLOAD)
    assert agent.client.bulk_walk() == []
    change_module(1, LOAD)
    agent.refresh()
    agent.assert_right(host)
    watch.report("a second load, of a copy and of the same file", "registers nothing, serves what it did before", 0,
                 prober)


def test_a_copy_takes_over_when_it_is_loaded_anew(shifted_agent, fake, host, directory):
    copy = directory / "Copy.so"
    shutil.copy(system.MODULE, copy)
    agent = shifted_agent(configuration=WRITABLE)
    load(2, copy)
    with watch.unharmed(agent, 1):
        for index, change in ((1, UNLOAD), (2, UNLOAD), (2, LOAD)):
            change_module(index, change)
        agent.refresh()
        agent.assert_right(host)
        # The first is loaded over the copy and unloaded again: the copy's subtrees stay.
        for change in (LOAD, UNLOAD):
            change_module(1, change)
            agent.assert_right(host)


@pytest.mark.parametrize("keep", [None, 0, 3, 64])
def test_a_missing_or_truncated_module_leaves_the_agent_alone(keep, shifted_agent, fake, host, directory):
    broken = directory / "Broken.so"
    if keep is not None:
        broken.write_bytes(system.MODULE.read_bytes()[:keep])
    agent = shifted_agent(module=broken, configuration=WRITABLE)
    with watch.unharmed(agent, 1) as prober:
        assert agent.client.bulk_walk() == []
        assert f"dlopen({broken}) failed" in agent.log_text()
        hang_up(agent, 1)
    load(2, system.MODULE)
    agent.refresh()
    agent.assert_right(host)
    watch.report("module missing" if keep is None else f"module truncated to {keep} bytes",
                 "the agent logs it and serves the rest", 0, prober)


@pytest.mark.parametrize("change", ["removed", "truncated", "rewritten"])
def test_a_running_agent_outlives_changes_of_the_module_on_disk(change, shifted_agent, fake, host, directory):
    """Files are replaced as package managers do it: by renaming. What is loaded stays loaded."""
    installed = directory / "Installed.so"
    shutil.copy(system.MODULE, installed)
    agent = shifted_agent(module=installed)
    agent.refresh()
    agent.assert_right(host)
    if change == "removed":
        installed.unlink()
    else:
        new = directory / "New.so"
        whole = system.MODULE.read_bytes()
        new.write_bytes(whole[:4096] if change == "truncated" else whole)
        new.rename(installed)
    with watch.unharmed(agent, 1) as prober:
        for _ in range(3):
            hang_up(agent, 1)
            agent.refresh()
            agent.assert_right(host)
    watch.report(f"module {change} on disk, then SIGHUP", "goes on with what is loaded", 0, prober)


@pytest.mark.parametrize("method", ["AcquireLocalTicket", "GetChildEntity", "GetConfig", "QueryPerf"])
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_agent_ends_within_two_seconds_of_a_signal_in_a_rebuild(number, method, shifted_agent, fake, good):
    agent = shifted_agent()
    waiting = threading.Event()

    def stay_silent(stream, call):
        del call
        waiting.set()
        stream.wait()

    fake.behave(Replaced(good, **{method: stay_silent}))
    if method == "AcquireLocalTicket":
        fake.drop_connections()
    agent.age_cache()
    client = Client(timeout=0.1)
    with pytest.raises(TimeoutError):
        client.get(mib.oid("vmDisplayName", 0))
    client.close()
    assert waiting.wait(5)
    started = time.monotonic()
    os.kill(agent.pid, number)
    code = agent.process.wait(20)
    took = time.monotonic() - started
    assert code == 0
    assert took < 2
    agent.stopped = True
    watch.report(f"{number.name} while waiting for {method}", "ends the wait, shuts down", took)


def test_the_agent_ends_within_two_seconds_of_a_signal_in_a_busy_rebuild(shifted_agent, fake, good):
    """A hundred thousand VMs whose replies come at once: the signal seldom comes while the agent waits."""
    vms = "".join(f'<returnval type="VirtualMachine">{n}</returnval>' for n in range(100_000))
    agent = shifted_agent()
    fake.behave(Replaced(good, GetChildEntity=response("GetChildEntity", vms), GetConfig=response("GetConfig", "")))
    agent.age_cache()
    client = Client(timeout=0.1)
    with pytest.raises(TimeoutError):
        client.get(mib.oid("vmDisplayName", 0))
    client.close()
    system.wait_until(lambda: fake.count("GetConfig") > 100, "the rebuild to be under way")
    started = time.monotonic()
    os.kill(agent.pid, signal.SIGTERM)
    assert agent.process.wait(20) == 0
    took = time.monotonic() - started
    assert took < 2
    agent.stopped = True
    watch.report("SIGTERM in a busy rebuild", "ends the rebuild, shuts down", took)
