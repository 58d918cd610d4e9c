"""The real daemon behind a relay that breaks its sessions at any byte: the agent recovers."""

import signal
import time

import expected_tree
import fake_daemon
import mib
import pytest
import system
import watch
from wire import Connection

SMALL = system.HOSTS / "small.yaml"
HOST = expected_tree.load(SMALL)
BEHIND = ("127.0.0.2", 902)     # where the daemon listens; the relay has the usual address
CONNECT = 1.0
STEP = 23


class Relay(fake_daemon.Behaviour):
    """Relays everything to the daemon and back; the connection to the agent ends after `limit` bytes."""

    def __init__(self, limit=None, ending=fake_daemon.END):
        self.limit, self.ending = limit, ending

    def greet(self, stream):
        stream.limit, stream.ending = self.limit, self.ending
        stream.handshake()

    def preamble(self, stream):
        line = stream.read_until(b"\r\n").decode().rstrip()
        stream.upstream = Connection(BEHIND, preamble=line)
        stream.send(f"{stream.upstream.status} {stream.upstream.path}\r\n".encode())

    def reply(self, stream, call):
        del call
        upstream = stream.upstream.stream
        upstream.sendall(stream.request)
        message = b""
        while b"\r\n\r\n" not in message:
            message += self._receive(upstream)
        head, _, body = message.partition(b"\r\n\r\n")
        length = next(int(line.partition(b":")[2]) for line in head.splitlines()
                      if line.lower().startswith(b"content-length:"))
        while len(body) < length:
            body += self._receive(upstream)
        stream.send(head + b"\r\n\r\n" + body)

    @staticmethod
    def _receive(upstream):
        data = upstream.recv(65536)
        if not data:
            raise fake_daemon.Closed
        return data


@pytest.fixture
def relayed(start_daemon, monkeypatch):
    monkeypatch.setattr(system, "DAEMON_ADDRESS", BEHIND)
    daemon = start_daemon(SMALL)
    relay = fake_daemon.FakeDaemon(Relay())
    yield relay, daemon
    relay.stop()


@pytest.mark.slow
def test_a_session_with_the_daemon_may_break_at_any_byte(relayed, shifted_agent):
    relay, daemon = relayed
    agent = shifted_agent()
    agent.recover(HOST, daemon)
    before = watch.descriptors(agent.pid)
    relay.recording = True
    relay.drop_connections()
    agent.refresh()
    relay.recording = False
    length = len(relay.sent)
    offsets = range(0, length, STEP)
    started = time.monotonic()
    with watch.Prober() as prober:
        for offset in offsets:
            relay.behave(Relay(offset, fake_daemon.RESET if offset % 2 else fake_daemon.END))
            relay.drop_connections()
            assert agent.refresh()[0] < CONNECT + watch.SLACK
    prober.check(CONNECT)
    seconds = (time.monotonic() - started) / len(offsets)
    relay.behave(Relay())
    relay.drop_connections()
    agent.recover(HOST, daemon)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"connection ends at every {STEP}th of {length} bytes of a session with tovric-vessad",
                 "closes the connection, empties the tables, retries at the next rebuild", seconds, prober,
                 faults=len(offsets))


@pytest.mark.slow
def test_a_daemon_that_is_killed_and_started_again_is_found_again(start_daemon, shifted_agent):
    daemon = start_daemon(SMALL)
    agent = shifted_agent()
    agent.recover(HOST, daemon)
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober:
        for _ in range(5):
            daemon.process.kill()
            daemon.process.wait()
            assert agent.refresh()[0] < CONNECT + watch.SLACK
            for ticket in daemon.tickets.iterdir():
                ticket.unlink()
            daemon = start_daemon(SMALL)
            agent.recover(HOST, daemon)
    prober.check(CONNECT)
    assert watch.descriptors(agent.pid) == before
    watch.report("tovric-vessad is killed and started again, 5 times", "empty tables once, then as before",
                 prober.summary()["max"], prober, faults=5)


@pytest.mark.slow
def test_a_daemon_that_hangs_holds_the_agent_for_five_seconds_a_minute(start_daemon, start_agent, directory):
    # Without a reservation the memory is asked for again each time, by a second manager every 5 s.
    file = directory / "host.yaml"
    file.write_text(SMALL.read_text().replace("serviceConsoleReserved: 285212672", "serviceConsoleReserved: 0"))
    daemon = start_daemon(file)
    agent = start_agent()
    agent.allow_log(".*")
    name, memory = mib.oid("vmDisplayName", 0), mib.oid("memTotal")
    assert agent.client.get(name)[0].value
    waits, recoveries, next_memory = [], [], 0

    def poll():
        nonlocal next_memory
        started = time.monotonic()
        cell = agent.client.get(name)[0]
        if started > next_memory:
            agent.client.get(memory)
            next_memory = started + 5
        waits.append((started, time.monotonic() - started))
        time.sleep(0.1)
        return cell.type == "OCTET STRING"

    with watch.Prober() as prober:
        for seconds in (80, 33):
            daemon.signal(signal.SIGSTOP)
            over = time.monotonic() + seconds
            while time.monotonic() < over:
                poll()
            daemon.signal(signal.SIGCONT)
            while not poll():
                assert time.monotonic() < over + 35
            recoveries.append(time.monotonic() - over)
    worst = max(sum(wait for at, wait in waits if begin <= at < begin + 60 and wait > 0.2) for begin, _ in waits)
    longest = max(wait for _, wait in waits)
    prober.check(2.3)
    assert longest < 2.3 + watch.SLACK / 3
    assert 2 < worst < 5 + watch.SLACK / 3
    watch.report("tovric-vessad is stopped for 80 and 33 s",
                 f"whole after {recoveries[0]:.0f} and {recoveries[1]:.0f} s, waits {worst:.1f} s in the worst minute",
                 longest, prober)
