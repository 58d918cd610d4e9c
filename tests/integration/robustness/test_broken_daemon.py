"""A rogue or broken daemon: whatever it does on the wire, the agent lives, answers other requests, and recovers."""

import dataclasses
import os
import random
import socket
import ssl
import time

import bad_replies
import fake_daemon
import mib
import pytest
import system
import watch
import wire
from fake_daemon import CLOSE_NOTIFY, END, RESET, TRICKLE, Replaced, http_reply, response

# How long the agent may wait, in seconds.
CONNECT, SILENCE, REFRESH = 1.0, 2.0, 5.0
# How long it does not connect after a timeout.
BACKOFF = 5.0

SCALARS = list(map(mib.oid, ("prodName", "numCpuCores", "memTotal")))

# Every call that the module makes.
CALLS = ["AcquireLocalTicket", "Login", "RetrieveContent", "GetChildEntity", "GetConfig", "GetPerfCounter", "QueryPerf",
         "GetRuntime", "GetGuest", "GetInfo", "GetHardware", "GetConsoleReservationInfo"]
# Those whose result the agent keeps for good once it fits its type, each with an instance that needs it.
KEPT = {"RetrieveContent": mib.oid("prodName"), "GetPerfCounter": mib.oid("vmDisplayName", 0),
        "GetHardware": mib.oid("numCpuCores"), "GetConsoleReservationInfo": mib.oid("memTotal")}


@dataclasses.dataclass(frozen=True)
class Fault:
    """name and what the agent does about it; make(good) is the behaviour that has it."""
    name: str
    does: str
    make: object
    budget: float = CONNECT
    times_out: bool = False
    reconnect: bool = True      # it shows on a new connection


def step(name, action):
    """A good daemon but for one step of the connection."""
    def make(good):
        behaviour = Replaced(good)
        setattr(behaviour, name, action)
        return behaviour
    return make


def reply(method, action):
    return lambda good: Replaced(good, **{method: action})


def shaped(method=None, **how):
    """A good daemon whose bytes come slowly, from the reply to `method` on; without a method, from the start."""
    def make(good):
        def begin(stream, call=None):
            for name, value in how.items():
                setattr(stream, name, value)
            if call:
                good.reply(stream, call)
            else:
                stream.handshake()
        behaviour = Replaced(good, **({method: begin} if method else {}))
        if not method:
            behaviour.greet = begin
        return behaviour
    return make


def trickle_after(count):
    """Trickles the reply to GetChildEntity from its byte `count` on."""
    def begin(stream, call, good):
        message = good.result(call)
        stream.send(message[:count])
        stream.interval = TRICKLE
        stream.send(message[count:])
    return lambda good: Replaced(good, GetChildEntity=lambda stream, call: begin(stream, call, good))


def flood(stream):
    while True:
        stream.send(b"x" * 65536)


def flood_raw(stream):
    while True:
        stream.send_raw(os.urandom(65536))


def preamble(line):
    def send(stream):
        stream.read_until(b"\r\n")
        stream.send(line)
        stream.wait(0.3)
    return step("preamble", send)


def old_tls(version):
    return step("greet", lambda stream: stream.handshake(fake_daemon.tls_context(version)))


def silent(stream, call=None):
    del call
    stream.wait()


TIMES_OUT = "times out, does not connect for 5 s, then retries"
REFUSES = "closes the connection, empties the tables, retries at the next rebuild"

FAULTS = [
    Fault("accepts and stays silent", TIMES_OUT, step("greet", silent), times_out=True),
    Fault("one byte per half second in the handshake", TIMES_OUT, shaped(raw_interval=TRICKLE), times_out=True),
    Fault("one byte per half second in the preamble", TIMES_OUT, step("preamble", lambda stream: (
        setattr(stream, "interval", TRICKLE), stream.send(b"200 /connection/1\r\n"))), times_out=True),
    Fault("silent after the handshake", TIMES_OUT, step("preamble", silent), times_out=True),
    Fault("silent at the ticket", TIMES_OUT, reply("AcquireLocalTicket", silent), times_out=True),
    Fault("one byte per half second at the ticket", TIMES_OUT, shaped("AcquireLocalTicket", interval=TRICKLE),
          times_out=True),
    Fault("silent at the login", TIMES_OUT, reply("Login", silent), times_out=True),
    Fault("an endless preamble, slowly", TIMES_OUT, step("preamble", lambda stream: (
        setattr(stream, "interval", TRICKLE), flood(stream))), times_out=True),
    Fault("one byte per half second in the header", TIMES_OUT, trickle_after(0), REFRESH, times_out=True),
    Fault("one byte per half second in the body", TIMES_OUT, trickle_after(200), REFRESH, times_out=True),
    Fault("silent at the list", TIMES_OUT, reply("GetChildEntity", silent), SILENCE, times_out=True, reconnect=False),
    Fault("silent at a configuration", TIMES_OUT, reply("GetConfig", silent), SILENCE, times_out=True, reconnect=False),
    Fault("silent at a VM's state", TIMES_OUT, reply("GetRuntime", silent), SILENCE, times_out=True, reconnect=False),
    Fault("silent at a guest's state", TIMES_OUT, reply("GetGuest", silent), SILENCE, times_out=True, reconnect=False),
    Fault("silent at the statistics", TIMES_OUT, reply("QueryPerf", silent), SILENCE, times_out=True, reconnect=False),
    Fault("silent at a datastore", TIMES_OUT, reply("GetInfo", silent), SILENCE, times_out=True, reconnect=False),
    Fault("endless headers, slowly", TIMES_OUT, reply("GetConfig", lambda stream, call: (
        stream.send(b"HTTP/1.1 200 OK\r\n"), setattr(stream, "interval", TRICKLE), flood(stream))),
        REFRESH, times_out=True),
    Fault("random bytes for a handshake", REFUSES, step("greet", flood_raw)),
    Fault("plain HTTP for a handshake", REFUSES, step("greet", lambda stream: (
        stream.send_raw(http_reply(b"hello")), stream.wait()))),
    Fault("a TLS alert", REFUSES, step("greet", lambda stream: (
        stream.send_raw(b"\x15\x03\x03\x00\x02\x02\x28"), stream.wait()))),
    Fault("TLS records of 64 KiB", REFUSES, step("greet", lambda stream: (
        stream.send_raw(b"\x16\x03\x03\xff\xff" + b"\x02" * 65535), stream.wait()))),
    Fault("TLS 1.0 at most", REFUSES, old_tls(ssl.TLSVersion.TLSv1)),
    Fault("TLS 1.1 at most", REFUSES, old_tls(ssl.TLSVersion.TLSv1_1)),
    Fault("ends after the handshake", REFUSES, step("preamble", lambda stream: stream.end(END))),
    Fault("sends close_notify after the handshake", REFUSES, step("preamble", lambda stream: stream.end(CLOSE_NOTIFY))),
    Fault("resets after the handshake", REFUSES, step("preamble", lambda stream: stream.end(RESET))),
    Fault("refuses the stream", REFUSES, preamble(b"501 no\r\n")),
    Fault("a preamble without a status", REFUSES, preamble(b"hello\r\n")),
    Fault("a preamble without a path", REFUSES, preamble(b"200 \r\n")),
    Fault("a preamble of control characters", REFUSES, preamble(b"200 /\x01\x1b[2J\r\n")),
    Fault("a preamble of NULs", REFUSES, preamble(b"\0" * 600)),
    Fault("an endless preamble", REFUSES, step("preamble", flood)),
    Fault("a preamble that ends by a line feed alone", TIMES_OUT, step("preamble", lambda stream: (
        stream.read_until(b"\r\n"), stream.send(b"200 /connection/1\n"), stream.wait())), times_out=True),
    Fault("replies before a request", REFUSES, step("preamble", lambda stream: (
        stream.send(b"200 /connection/1\r\n"
                    + response("Login", wire.element("returnval", {"key": "k", "userName": "root"})) * 3)))),
    Fault("a new connection for every call", "makes a connection for every rebuild and gets no further than the ticket",
          lambda good: Replaced(good, **{
              name: lambda stream, call: (good.reply(stream, call), stream.end(END)) for name in CALLS})),
    Fault("an endless body", REFUSES, reply("GetChildEntity", lambda stream, call: (
        stream.send(b"HTTP/1.1 200 OK\r\n\r\n"), flood(stream))), REFRESH, reconnect=False),
    Fault("interim replies without end", REFUSES, reply("GetChildEntity", lambda stream, call: [
        stream.send(b"HTTP/1.1 100 Continue\r\n\r\n" * 1000) for _ in iter(int, 1)]), REFRESH, reconnect=False),
]


@pytest.mark.slow
@pytest.mark.parametrize("fault", FAULTS, ids=lambda fault: fault.name.replace(" ", "-"))
def test_the_agent_waits_for_a_broken_wire_no_longer_than_its_limit(fault, agent, fake, good, host):
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober:
        fake.behave(fault.make(good))
        if fault.reconnect:
            fake.drop_connections()
        took, _ = agent.refresh()
        assert took < fault.budget + watch.SLACK
        if fault.times_out:
            assert took > fault.budget * 0.9, "the agent did not wait: the test is broken"
            seen, quiet_until = (fake.accepted, len(fake.calls)), time.monotonic() + BACKOFF * 0.8
            while time.monotonic() < quiet_until:
                again, rows = agent.refresh()
                assert not rows and again < fault.budget / 2
                time.sleep(0.2)
            assert (fake.accepted, len(fake.calls)) == seen, "the agent connected again during the backoff"
        else:
            for _ in range(5):
                again, _ = agent.refresh()
                assert again < fault.budget + watch.SLACK
                time.sleep(0.1)
    prober.check(fault.budget)
    fake.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(fault.name, fault.does, took, prober)


def seconds_of(request, *arguments):
    started = time.monotonic()
    request(*arguments)
    return time.monotonic() - started


@pytest.mark.slow
@pytest.mark.parametrize("method", KEPT)
def test_the_agent_waits_for_a_call_that_is_made_once_no_longer_than_its_limit(method, shifted_agent, fake, good, host):
    agent = shifted_agent()
    before = watch.descriptors(agent.pid)
    fake.behave(Replaced(good, **{method: silent}))
    with watch.Prober() as prober:
        took = seconds_of(agent.client.get, KEPT[method])
        assert SILENCE * 0.9 < took < SILENCE + watch.SLACK
        seen, quiet_until = (fake.accepted, len(fake.calls)), time.monotonic() + BACKOFF * 0.8
        while time.monotonic() < quiet_until:
            assert seconds_of(agent.client.get, *KEPT.values()) < CONNECT
            time.sleep(0.2)
        assert (fake.accepted, len(fake.calls)) == seen, "the agent connected again during the backoff"
    prober.check(SILENCE)
    fake.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"silent at {method}", TIMES_OUT, took, prober)


def test_a_closed_port_costs_nothing(agent, fake, host):
    before = watch.descriptors(agent.pid)
    fake.close_port()
    fake.drop_connections()
    with watch.Prober() as prober:
        agent.refresh()
        slowest = max(agent.refresh()[0] for _ in range(20))
        time.sleep(0.5)
    prober.check(0)
    assert len(watch.descriptors(agent.pid)) == len(before) - 1
    fake.listen()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("port closed", "serves empty tables at once, retries at the next rebuild", slowest, prober)


@pytest.mark.slow
def test_connecting_to_a_port_that_nobody_accepts_on_times_out_after_a_second(agent, fake, host):
    before = watch.descriptors(agent.pid)
    fake.close_port()
    fake.drop_connections()
    agent.refresh()
    with socket.create_server(system.DAEMON_ADDRESS, backlog=0) as listener:
        # The queue is filled up, so that the agent's connection is not even made.
        waiting = [socket.socket() for _ in range(3)]
        for connection in waiting:
            connection.setblocking(False)
            connection.connect_ex(listener.getsockname())
        with watch.Prober() as prober:
            took, _ = agent.refresh()
            assert CONNECT * 0.9 < took < CONNECT + watch.SLACK
            assert agent.refresh()[0] < CONNECT / 2
        for connection in waiting:
            connection.close()
    prober.check(CONNECT)
    fake.listen()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("nobody accepts", TIMES_OUT, took, prober)


def read_everything(agent):
    """A rebuild on an open connection, and the scalars that have calls of their own; returns the seconds they took."""
    took, rows = agent.refresh()
    if not rows:
        took = max(took, agent.refresh()[0])         # the first has only found the connection broken
    started = time.monotonic()
    agent.client.get(*SCALARS)
    return max(took, time.monotonic() - started)


class Trial:
    """Sends bad replies to one call, one after the other, to an agent that must live through them all.

    Where a result is kept for good, the agent is replaced after each that it took, so that the call is made again.
    """

    def __init__(self, method, fake, good, start_agent, reconnect):
        self.method, self.fake, self.good, self.start_agent, self.reconnect = method, fake, good, start_agent, reconnect
        self.agent = None
        self.tried = 0
        self.slowest = 0
        self.delays = watch.Delays()

    def give(self, name, message):
        agent = self.agent or self._start()
        calls_before = self.fake.count(self.method)

        def send(stream, call):
            del call
            stream.send(message)
            if self.reconnect:
                stream.end(END)

        self.fake.behave(Replaced(self.good, **{self.method: send}))
        if self.reconnect:
            self.fake.drop_connections()
        took = read_everything(agent)
        deadline = time.monotonic() + BACKOFF + 2 * watch.SLACK
        while self.fake.count(self.method) == calls_before:
            # On a busy computer the agent may have timed out, and backs off.
            assert time.monotonic() < deadline, f"{name}: {self.method} was not called: the test is broken"
            time.sleep(0.5)
            took = max(took, read_everything(agent))
        assert took < CONNECT + watch.SLACK, name
        self.tried += 1
        self.slowest = max(self.slowest, took)
        if self.method in KEPT:
            calls_before = self.fake.count(self.method)
            self.fake.drop_connections()
            read_everything(agent)
            if self.fake.count(self.method) == calls_before:
                self.check()

    def _start(self):
        self.fake.behave(self.good)
        logins = self.fake.count("Login")
        self.agent = self.start_agent()
        while self.fake.count("Login") == logins:      # on a busy computer it may time out
            self.agent.stop()
            self.agent = self.start_agent()
        self.before = watch.descriptors(self.agent.pid)
        self.prober = watch.Prober().__enter__()
        return self.agent

    def check(self):
        """The agent lives and has as much open as before; the next reply goes to a new one."""
        agent = self._end()
        assert read_everything(agent) < CONNECT + watch.SLACK
        assert watch.descriptors(agent.pid) == self.before
        agent.stop()

    def _end(self):
        agent, self.agent = self.agent, None
        self.prober.__exit__()
        self.prober.check(CONNECT)
        self.delays.add(self.prober)
        self.fake.behave(self.good)
        self.fake.drop_connections()
        return agent

    def check_recovery(self, host):
        if not self.agent:
            self._start()
        agent = self._end()
        agent.recover(host)
        assert watch.descriptors(agent.pid) == self.before


@pytest.fixture
def trial(fake, good, shifted_agent):
    return lambda method, reconnect: Trial(method, fake, good, shifted_agent, reconnect)


@pytest.mark.parametrize("method", CALLS)
def test_no_bad_reply_to_any_call_does_harm(method, trial, host):
    replies = {**bad_replies.http(method), **bad_replies.xml_texts(method), **bad_replies.faults(method)}
    calls = trial(method, reconnect=True)
    for name, message in replies.items():
        calls.give(name, message)
    calls.check_recovery(host)
    watch.report(f"{calls.tried} bad replies to {method}", REFUSES, calls.slowest, calls.delays, faults=calls.tried)


@pytest.mark.parametrize("method", CALLS)
def test_no_change_of_a_good_reply_does_harm(method, fake, good, trial, shifted_agent, host):
    """Elements of the result are left out, doubled, renamed, ill-typed and so on, one at a time."""
    results = []

    def remember(stream, call):
        results.append(getattr(good, method)(call))
        stream.send(response(method, results[-1]))

    fake.behave(Replaced(good, **{method: remember}))
    teacher = shifted_agent()
    read_everything(teacher)
    teacher.stop()
    changed = list(bad_replies.mutations(method, results[0]))
    if method in KEPT and len(changed) > 100:
        changed = changed[:400:13]       # an agent that keeps a result is replaced, which takes time
    calls = trial(method, reconnect=method in ("AcquireLocalTicket", "Login"))
    for name, message in changed:
        calls.give(name, message)
    calls.check_recovery(host)
    watch.report(f"{calls.tried} changes of a good reply to {method}", "takes what fits its type, refuses the rest",
                 calls.slowest, calls.delays, faults=calls.tried)


@pytest.mark.parametrize("method", ["AcquireLocalTicket", "GetChildEntity", "GetConfig", "QueryPerf"])
def test_a_large_reply_costs_neither_the_time_nor_the_memory_of_the_agent(method, agent, fake, good, host):
    before = watch.descriptors(agent.pid)
    for name, message in bad_replies.large(method).items():
        fake.behave(Replaced(good, **{method: lambda stream, call, m=message: (stream.send(m), stream.end(END))}))
        fake.drop_connections()
        used = watch.processor_seconds(agent.pid)
        with watch.Prober() as prober:
            took = read_everything(agent)
        # Parsing is work, not waiting: how long it takes depends on what else runs.
        used = watch.processor_seconds(agent.pid) - used
        assert used < CONNECT + watch.SLACK, name
        prober.check(REFRESH + watch.SLACK)
        fake.behave(good)
        fake.drop_connections()
        agent.recover(host)
        peak = watch.memory(agent.pid, "VmHWM") // 1024
        assert peak < 1024, f"{name}: {peak} MB"
        watch.report(f"{name}, in reply to {method}", REFUSES, took, prober, megabytes=peak, processor=used)
    assert watch.descriptors(agent.pid) == before


def attempt(agent, fake):
    """A rebuild on a connection of its own."""
    fake.drop_connections()
    agent.refresh()
    return agent.refresh()


def ending_at(offset):
    """How the connection ends there: in each way near every byte."""
    return (END, RESET, CLOSE_NOTIFY)[offset % 3]


@pytest.mark.slow
@pytest.mark.parametrize("part", range(2))
def test_the_connection_may_break_at_every_byte_of_a_session(part, agent, fake, good, host):
    """From the preamble's reply to the last statistic; in two parts that run side by side."""
    before = watch.descriptors(agent.pid)
    fake.recording = True
    assert attempt(agent, fake)[1]
    fake.recording = False
    length = len(fake.sent)
    assert fake.calls[-1].method == "GetInfo", "the session is not recorded to its end"
    complete = 0

    def cut_at(offset):
        def greet(stream):
            stream.limit, stream.ending = offset, ending_at(offset)
            stream.handshake()
        return step("greet", greet)(good)

    offsets = range(part, length, 2)
    started = time.monotonic()
    with watch.Prober() as prober:
        for offset in offsets:
            fake.behave(cut_at(offset))
            took, rows = attempt(agent, fake)
            assert took < CONNECT + watch.SLACK, offset
            complete += rows
    seconds = (time.monotonic() - started) / len(offsets)
    prober.check(CONNECT)
    # What is lost at the end of the session concerns single cells of the last VM; before that there are no rows.
    assert complete < len(offsets) / 2
    fake.behave(good)
    fake.drop_connections()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"connection ends at {len(offsets)} of {length} bytes of a session", REFUSES, seconds, prober,
                 faults=len(offsets))


@pytest.mark.slow
@pytest.mark.parametrize("method", KEPT)
def test_a_reply_that_breaks_at_any_byte_is_not_kept(method, shifted_agent, fake, good, host):
    """For the calls that are not made in the session above, as their results are known by then."""
    agent = shifted_agent()
    before = watch.descriptors(agent.pid)
    offset, length, tried = 0, 1, 0
    step = 13 if method == "GetPerfCounter" else 1     # it is long, made of ten like pieces, and takes a whole rebuild

    def break_off(stream, call):
        nonlocal length
        message = good.result(call)
        length = len(message)
        stream.send(message[:offset])
        stream.end(ending_at(offset))

    fake.behave(Replaced(good, **{method: break_off}))
    slowest = 0
    with watch.Prober() as prober:
        while offset < length:
            calls_before, deadline = fake.count(method), time.monotonic() + BACKOFF + 2 * watch.SLACK
            while fake.count(method) == calls_before:     # at once, or when the agent has found the connection broken
                assert time.monotonic() < deadline, f"the reply was kept though it broke at byte {offset} of {length}"
                agent.age_cache()
                slowest = max(slowest, seconds_of(agent.client.get, KEPT[method]))
            offset += step
            tried += 1
    assert slowest < CONNECT + watch.SLACK
    prober.check(CONNECT)
    fake.behave(good)
    fake.drop_connections()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"connection ends at {tried} of {length} bytes of the reply to {method}", REFUSES, slowest, prober,
                 faults=tried)


def test_the_connection_may_break_at_every_byte_of_the_handshake(agent, fake, good, host):
    before = watch.descriptors(agent.pid)
    lengths = []

    def cut_at(offset):
        def greet(stream):
            stream.raw_limit, stream.ending = offset, RESET if offset % 2 else END
            stream.handshake()
            lengths.append(stream.raw_sent)
            stream.raw_limit = None
        return step("greet", greet)(good)

    fake.behave(cut_at(1 << 30))
    attempt(agent, fake)
    started = time.monotonic()
    with watch.Prober() as prober:
        for offset in range(lengths[0]):
            fake.behave(cut_at(offset))
            assert attempt(agent, fake)[0] < CONNECT + watch.SLACK, offset
    seconds = (time.monotonic() - started) / lengths[0]
    prober.check(CONNECT)
    fake.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"connection ends at each of {lengths[0]} bytes of the handshake", REFUSES, seconds, prober,
                 faults=lengths[0])


def test_a_handshake_with_any_byte_changed_is_refused(agent, fake, good, host):
    before = watch.descriptors(agent.pid)
    dice = random.Random(902)
    tries = 300

    def damaged(number):
        def greet(stream):
            send_raw = stream.send_raw

            def damage(data):
                if stream.raw_sent <= number < stream.raw_sent + len(data):
                    at = number - stream.raw_sent
                    data = data[:at] + bytes([data[at] ^ dice.randrange(1, 256)]) + data[at + 1:]
                send_raw(data)
            stream.send_raw = damage
            # A changed length makes each side wait for the other: the server stops here.
            stream.plain.settimeout(0.1)
            stream.handshake()
        return step("greet", greet)(good)

    with watch.Prober() as prober:
        for number in range(tries):
            accepted = fake.accepted
            fake.behave(damaged(dice.randrange(900)))
            assert attempt(agent, fake)[0] < CONNECT + watch.SLACK, number
            assert fake.accepted > accepted
    prober.check(CONNECT)
    fake.behave(good)
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"{tries} handshakes with a changed byte", REFUSES, 0, prober, faults=tries)


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1])
def test_the_fake_daemon_does_speak_old_tls(version, fake):
    """So that the agent refuses it, and not the server."""
    fake.behave(old_tls(version)(fake.behaviour))
    context = wire.client_context()
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = ssl.TLSVersion.MINIMUM_SUPPORTED
    with context.wrap_socket(socket.create_connection(system.DAEMON_ADDRESS, 5)) as stream:
        assert stream.version() == {ssl.TLSVersion.TLSv1: "TLSv1", ssl.TLSVersion.TLSv1_1: "TLSv1.1"}[version]
