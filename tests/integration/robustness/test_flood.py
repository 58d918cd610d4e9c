"""Several local users keep as many connections to the daemon as they can, and open a new one for each that it closes.

KELV_FLOOD_SECONDS sets how long the agent's session is watched (5 by default), KELV_FLOOD_LOGINS how many agents log in
(3 by default).
"""

import contextlib
import errno
import os
import resource
import select
import signal
import socket
import ssl
import time
import traceback

import expected_tree
import pytest
import system
import watch
from system import DAEMON_ADDRESS
from wire import PREAMBLE, client_context

SMALL = system.HOSTS / "small.yaml"
HOST = expected_tree.load(SMALL)
SECONDS = float(os.environ.get("KELV_FLOOD_SECONDS", "5"))
LOGINS = int(os.environ.get("KELV_FLOOD_LOGINS", "3"))

# What the agent's requests may take meanwhile, and a new agent until it has its tables, in seconds. The second has time
# for one backoff.
SERVED, LOGIN = 1.0, 10.0

# Of each user. In all they are more than the daemon serves and its listening socket holds.
CONNECTIONS = 3000
FIRST_USER = 20001


def client_hello():
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        client_context().wrap_bio(incoming, outgoing).do_handshake()
    return outgoing.read()


class Idle:
    """Connects and stays silent."""
    first = b""

    def __init__(self, context):
        del context

    def advance(self, plain):
        """Returns whether the connection is still open."""
        return bool(plain.recv(65536))


class HalfHandshake(Idle):
    """Makes the daemon answer a ClientHello, and stays silent."""
    first = client_hello()


class Slow:
    """Takes the last step before a login, and sends its request one byte at a time."""

    def __init__(self, context):
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = context.wrap_bio(self.incoming, self.outgoing)
        self.secure = False
        with contextlib.suppress(ssl.SSLWantReadError):
            self.tls.do_handshake()
        self.first = self.outgoing.read()

    def advance(self, plain):
        data = plain.recv(65536)
        self.incoming.write(data)
        with contextlib.suppress(ssl.SSLWantReadError):
            if not self.secure:
                self.tls.do_handshake()
                self.secure = True
                self.tls.write(PREAMBLE.encode() + b"\r\nP")
            else:
                self.tls.read(65536)
                self.tls.write(b"O")
        if self.outgoing.pending:
            plain.send(self.outgoing.read())
        return bool(data)


def flood(kind, ready, counts, number):
    """Never returns. Writes a byte to `ready` when it has begun, and keeps how many connections it made in `counts`."""
    context, poll, clients = client_context(), select.epoll(), {}
    begun, connected = time.monotonic(), 0
    while True:
        for _ in range(min(50, CONNECTIONS - len(clients))):
            plain = socket.socket(socket.AF_INET, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
            status = plain.connect_ex(DAEMON_ADDRESS)
            assert status in (0, errno.EINPROGRESS), os.strerror(status)
            clients[plain.fileno()] = [plain, kind(context), False]
            poll.register(plain, select.EPOLLIN | select.EPOLLOUT)
        for file, _ in poll.poll(0.1 if len(clients) == CONNECTIONS else 0):
            plain, client, is_connected = clients[file]
            try:
                if is_connected:
                    is_open = client.advance(plain)
                else:
                    clients[file][2] = is_open = True
                    connected += 1
                    poll.modify(plain, select.EPOLLIN)
                    plain.send(client.first)
            except OSError:     # TLS errors too
                is_open = False
            if not is_open:
                del clients[file]
                plain.close()
        os.pwrite(counts, f"{connected:12}".encode(), 12 * number)
        if ready is not None and time.monotonic() > begun + 1:
            os.write(ready, b".")
            ready = None


@contextlib.contextmanager
def flooded(kinds):
    """One user for each of the kinds; yields a function that returns how many connections they have made."""
    ranges = [tuple(map(int, line.split())) for line in open("/proc/self/uid_map", encoding="ascii")]
    if os.geteuid() != 0 or not any(first <= FIRST_USER < first + count - len(kinds) for first, _, count in ranges):
        pytest.skip("only root, outside a user namespace, can become another user")
    counts = os.memfd_create("counts")
    reader, writer = os.pipe()
    children = []
    try:
        for number, kind in enumerate(kinds):
            child = os.fork()
            if child == 0:
                try:
                    resource.setrlimit(resource.RLIMIT_NOFILE, (CONNECTIONS + 100, CONNECTIONS + 100))
                    os.setgroups([])
                    os.setresgid(*3 * [FIRST_USER + number])
                    os.setresuid(*3 * [FIRST_USER + number])
                    flood(kind, writer, counts, number)
                finally:
                    traceback.print_exc()
                    os._exit(1)
            children.append(child)
        os.close(writer)
        for _ in kinds:
            assert os.read(reader, 1), "a flooding process ended"
        yield lambda: sum(int(os.pread(counts, 12, 12 * number)) for number in range(len(kinds)))
        assert all(os.waitpid(child, os.WNOHANG) == (0, 0) for child in children), "a flooding process ended"
    finally:
        for child in children:
            os.kill(child, signal.SIGKILL)
            with contextlib.suppress(ChildProcessError):
                os.waitpid(child, 0)
        os.close(reader)
        os.close(counts)


FLOODS = {
    "4 idle users": [Idle] * 4, "4 users that begin handshakes": [HalfHandshake] * 4,
    "4 users that send bytes slowly": [Slow] * 4, "4 users of all kinds": [Idle, HalfHandshake, HalfHandshake, Slow],
}


@pytest.mark.slow
@pytest.mark.parametrize("kinds", FLOODS)
def test_a_flood_leaves_a_session_alone_and_lets_a_login_through(kinds, start_daemon, shifted_agent):
    daemon = start_daemon(SMALL)
    agent = shifted_agent()
    agent.recover(HOST, daemon)
    before = watch.descriptors(agent.pid)
    with flooded(FLOODS[kinds]) as connections:
        begun, first = time.monotonic(), connections()
        slowest = 0
        with watch.Prober() as prober:
            while time.monotonic() < begun + SECONDS:
                seconds, rows = agent.refresh()
                assert rows, "the session is lost"
                slowest = max(slowest, seconds)
                time.sleep(0.5)
            agent.assert_right(HOST, daemon)
        rate = (connections() - first) / (time.monotonic() - begun)
        prober.check(SERVED)
        assert slowest < SERVED + watch.SLACK
        assert watch.descriptors(agent.pid) == before
        agent.stop()
        logins = []
        for _ in range(LOGINS):
            begun = time.monotonic()
            agent = shifted_agent()
            while not agent.refresh()[1]:
                assert time.monotonic() < begun + LOGIN + watch.SLACK, f"no login, after {logins}"
                time.sleep(0.1)
            logins.append(time.monotonic() - begun)
            agent.stop()
    print(f"{kinds}: {rate:.0f} connections/s, slowest refresh {slowest:.2f} s, new agents have tables after "
          f"{sorted(round(login, 1) for login in logins)} s")
    watch.report(f"{kinds}, {len(FLOODS[kinds]) * CONNECTIONS} connections, {rate:.0f} new ones per second",
                 f"is not affected; a new agent has its tables after {max(logins):.1f} s at most", slowest, prober)
