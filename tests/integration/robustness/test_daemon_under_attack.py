"""What another user of the host, a crowd of clients and a full disk do to the daemon, and what they cost the agent."""

import contextlib
import ctypes
import errno
import os
import pathlib
import resource
import socket
import subprocess
import threading
import time

import expected_tree
import pytest
import system
import watch
from system import DAEMON_ADDRESS
from wire import Connection, Fault, client_context, read_ticket

SMALL = system.HOSTS / "small.yaml"
HOST = expected_tree.load(SMALL)

# What the agent's requests may take meanwhile, in seconds.
SERVED = 1.0

NOBODY = 65534
CROWD = 2000

_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNS, _MS_PRIVATE, _MS_REC = 0x20000, 0x40000, 0x4000


@pytest.fixture
def served(start_daemon, shifted_agent):
    """served(options …) starts the daemon and an agent that has its tables; returns both."""
    def start(*options):
        daemon = start_daemon(SMALL, *options)
        agent = shifted_agent()
        agent.recover(HOST, daemon)
        return daemon, agent

    return start


@contextlib.contextmanager
def agent_stays_served(agent, daemon, fault, does):
    """sysUpTime is answered all the time, the tables are rebuilt in time, and nothing is left over at the end."""
    before = watch.descriptors(agent.pid)
    slowest = 0.0

    def rebuild():
        nonlocal slowest
        seconds, rows = agent.refresh()
        assert rows, "the tables are empty"
        slowest = max(slowest, seconds)
        assert seconds < SERVED + watch.SLACK

    with watch.Prober() as prober:
        yield rebuild
        rebuild()
    prober.check(SERVED)
    agent.assert_right(HOST, daemon)
    assert watch.descriptors(agent.pid) == before
    watch.report(fault, does, slowest, prober)


def as_nobody(action):
    """The result of the action in a process of a user without any rights: a text, or the error's number."""
    ranges = [line.split() for line in open("/proc/self/uid_map")]
    if os.geteuid() != 0 or not any(first == "0" and int(count) > NOBODY for first, _, count in ranges):
        pytest.skip("only root, outside a user namespace, can become another user")
    reader, writer = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups([])
            os.setresgid(NOBODY, NOBODY, NOBODY)
            os.setresuid(NOBODY, NOBODY, NOBODY)
            result = repr(action())
        except OSError as error:
            result = errno.errorcode[error.errno]
        finally:
            os.write(writer, result.encode())
            os._exit(0)
    os.close(writer)
    with open(reader, encoding="utf-8") as stream:
        result = stream.read()
    os.waitpid(child, 0)
    return result


@pytest.mark.slow
def test_another_user_can_neither_read_nor_make_nor_replay_a_ticket(served):
    daemon, agent = served()
    with agent_stays_served(agent, daemon, "another user goes for the tickets", "is not affected"), \
            Connection() as owner:
        path = owner.acquire_ticket()
        assert as_nobody(lambda: open(path).read()) == "EACCES"
        assert as_nobody(lambda: os.open(daemon.tickets / "ticket-mine", os.O_CREAT | os.O_WRONLY)) == "EACCES"
        assert as_nobody(lambda: os.symlink("/etc/passwd", daemon.tickets / "ticket-mine")) == "EACCES"
        assert as_nobody(lambda: os.rename(path, daemon.tickets / "ticket-mine")) == "EACCES"
        assert as_nobody(lambda: os.unlink(path)) == "EACCES"
        # The password is the owner's connection's, and works there once.
        secret = read_ticket(path)
        for _ in range(2):
            with Connection() as thief, pytest.raises(Fault) as refused:
                thief.login(secret)
            assert refused.value.type == "InvalidLogin"
        owner.login(secret)
        with pytest.raises(Fault):
            owner.login(secret)


@pytest.mark.slow
def test_of_many_uses_of_one_ticket_one_wins(served):
    daemon, agent = served()
    with agent_stays_served(agent, daemon, "one ticket is used by 24 clients at once, 20 times", "is not affected"):
        for _ in range(20):
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(Connection()) for _ in range(24)]
                secret = read_ticket(clients[0].acquire_ticket())
                won = []
                together = threading.Barrier(len(clients))

                def log_in(client):
                    together.wait()
                    try:
                        client.login(secret)
                        won.append(client)
                    except Fault as refused:
                        assert refused.type == "InvalidLogin"

                threads = [threading.Thread(target=log_in, args=(client,)) for client in clients]
                for thread in threads:
                    thread.start()
                for thread in threads:
                    thread.join()
                assert won == clients[:1]


@pytest.mark.slow
def test_wrong_passwords_delay_their_sender_and_nobody_else(served):
    daemon, agent = served()
    took = []
    with agent_stays_served(agent, daemon, "32 clients send wrong passwords for 5 s", "is not affected") as rebuild:
        end = time.monotonic() + 5

        def guess():
            with Connection(timeout=30) as client:
                while time.monotonic() < end:
                    client.acquire_ticket()
                    started = time.monotonic()
                    with pytest.raises(Fault):
                        client.login("0" * 64)
                    took.append(time.monotonic() - started)

        threads = [threading.Thread(target=guess) for _ in range(32)]
        for thread in threads:
            thread.start()
        while time.monotonic() < end:
            # A client with the right password logs in meanwhile, without delay.
            with Connection() as client:
                secret = read_ticket(client.acquire_ticket())
                started = time.monotonic()
                client.login(secret)
                assert time.monotonic() - started < 1 + watch.SLACK
            rebuild()
        for thread in threads:
            thread.join()
    assert len(took) >= 32 and min(took) >= 1.0


def crowd_of_silent(stack):
    for _ in range(CROWD):
        stack.enter_context(socket.create_connection(DAEMON_ADDRESS, timeout=20))


def crowd_of_slow(stack):
    context = client_context()
    slow = 0
    for _ in range(CROWD):
        # The daemon may drop it for newer ones at any moment.
        with contextlib.suppress(OSError):
            plain = stack.enter_context(socket.create_connection(DAEMON_ADDRESS, timeout=20))
            stream = stack.enter_context(context.wrap_socket(plain))
            stream.sendall(b'OPEN 2 "" ""\r\n')
            stream.sendall(b"P")
            slow += 1
    assert slow > CROWD * 0.9, f"only {slow} connections came as far as their first request"


@pytest.mark.slow
@pytest.mark.parametrize("name, crowd", [
    ("2,000 half-open connections", crowd_of_silent), ("2,000 slow connections", crowd_of_slow)])
def test_a_crowd_leaves_the_agent_served(name, crowd, served):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 3 * CROWD), hard))
    try:
        daemon, agent = served()
        with contextlib.ExitStack() as stack, agent_stays_served(agent, daemon, name, "is not affected") as rebuild:
            crowd(stack)
            for _ in range(10):
                rebuild()
            # A new client can log in as well.
            with Connection() as client:
                started = time.monotonic()
                client.login(read_ticket(client.acquire_ticket()))
                assert client.children()
                assert time.monotonic() - started < SERVED + watch.SLACK
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def headers(length):
    return f"POST /tesk/api/ordane/ HTTP/1.1\r\nHost: localhost\r\nContent-Length: {length}\r\n\r\n".encode()


def deep(count):
    return b'<Envelope><Body>' + b"<x>" * count + b"</x>" * count + b"</Body></Envelope>"


def many(count):
    return b"<Envelope><Body><x>" + b"<y/>" * count + b"</x></Body></Envelope>"


OVERSIZED = {
    "100 MB": lambda: (headers(100_000_000), b"x" * 1_000_000, 100),
    "endless chunks": lambda: (b"POST /tesk/api/ordane/ HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n",
                               b"f4240\r\n" + b"x" * 1_000_000 + b"\r\n", 100),
    "endless headers": lambda: (b"POST /tesk/api/ordane/ HTTP/1.1\r\n", b"X: " + b"x" * 1000 + b"\r\n", 10_000),
    "nested 1,000,000 deep": lambda: (headers(len(deep(1_000_000))), deep(1_000_000), 1),
    "1,900,000 elements": lambda: (headers(len(many(1_900_000))), many(1_900_000), 1),
}


@pytest.mark.slow
@pytest.mark.parametrize("logged_in", [False, True], ids=["before the login", "after the login"])
@pytest.mark.parametrize("name", OVERSIZED)
@system.needs_plain_build
def test_oversized_requests_cost_constant_memory(name, logged_in, served):
    daemon, agent = served()
    head, piece, times = OVERSIZED[name]()

    def send():
        with Connection() as client:
            if logged_in:
                client.login(read_ticket(client.acquire_ticket()))
            # The daemon closes the connection before it has received all, or replies.
            with contextlib.suppress(OSError):
                client.stream.sendall(head)
                for _ in range(times):
                    client.stream.sendall(piece)
                client.stream.recv(1)

    fault = f"requests of {name} {'after' if logged_in else 'before'} the login"
    with agent_stays_served(agent, daemon, fault, "is not affected"):
        for _ in range(4):
            send()
        early = watch.memory(daemon.process.pid, "VmHWM")
        for _ in range(16):
            send()
    # One request's worth of memory is kept for each thread at most.
    assert watch.memory(daemon.process.pid, "VmHWM") <= early + 40_000


@contextlib.contextmanager
def small_disk(folder, size):
    """A disk of so many bytes in the place of the folder, seen by this thread's processes only."""
    if _libc.unshare(_CLONE_NEWNS) != 0 or _libc.mount(b"none", b"/", None, _MS_REC | _MS_PRIVATE, None) != 0:
        pytest.skip("a small disk takes a mount namespace, which this user or this root folder does not allow")
    if _libc.mount(b"tmpfs", os.fsencode(folder), b"tmpfs", 0, f"size={size},mode=755".encode()) != 0:
        pytest.skip(f"a small disk takes a mount, which is refused: {os.strerror(ctypes.get_errno())}")
    try:
        yield
    finally:
        _libc.umount2(os.fsencode(folder), 2)   # MNT_DETACH


@pytest.mark.slow
def test_no_ticket_is_written_on_a_full_disk_and_one_when_there_is_room(directory, start_daemon, shifted_agent):
    tickets = directory / "tickets"
    tickets.mkdir()
    with small_disk(tickets, 64 * 1024):
        daemon = start_daemon(SMALL)
        agent = shifted_agent()
        agent.recover(HOST, daemon)
        before = watch.descriptors(agent.pid)
        filler = tickets / "filler"
        with filler.open("wb", buffering=0) as stream, contextlib.suppress(OSError):
            while True:
                stream.write(b"x" * 4096)
        with watch.Prober() as prober:
            with Connection() as client:
                for _ in range(20):
                    with pytest.raises(Fault):
                        client.acquire_ticket()
                    assert list(tickets.iterdir()) == [filler]
            # An agent that must log in again has no rows.
            daemon.process.kill()
            daemon.process.wait()
            daemon = start_daemon(SMALL)
            for _ in range(3):
                assert not agent.refresh()[1]
                assert list(tickets.iterdir()) == [filler]
        prober.check(SERVED)
        filler.unlink()
        agent.recover(HOST, daemon)
        assert watch.descriptors(agent.pid) == before
        watch.report("the disk is full when tovric-vessad writes a ticket",
                     "empty tables, and as before when there is room", 0, prober)
        assert daemon.stop() == 0


@pytest.mark.slow
def test_a_killed_daemon_leaves_nothing_usable(served, start_daemon):
    daemon, agent = served()
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober:
        for _ in range(10):
            with contextlib.ExitStack() as stack:
                clients = [stack.enter_context(Connection()) for _ in range(8)]
                # Killed while it writes some of these tickets.
                threads = [threading.Thread(target=lambda c=client: swallow(c.acquire_ticket))
                           for client in clients[1:]]
                left = [clients[0].acquire_ticket()]
                for thread in threads:
                    thread.start()
                daemon.process.kill()
                for thread in threads:
                    thread.join()
            daemon.process.wait()
            secrets = {path.read_text() for path in daemon.tickets.iterdir()}
            assert read_ticket(left[0]) in secrets
            daemon = start_daemon(SMALL)
            # It accepts connections a moment before it serves them, and has removed the tickets by then.
            system.wait_until(lambda: not list(daemon.tickets.iterdir()), "the tickets of the killed daemon to go")
            for secret in secrets:
                with Connection() as client:
                    client.acquire_ticket()
                    with pytest.raises(Fault):
                        client.login(secret)
    prober.check(SERVED)
    agent.recover(HOST, daemon)
    assert watch.descriptors(agent.pid) == before
    watch.report("tovric-vessad is killed while it writes tickets, 10 times", "empty tables, then as before", 0, prober,
                 faults=10)


def swallow(call):
    with contextlib.suppress(Exception):
        call()


@pytest.mark.slow
def test_the_daemon_needs_no_privilege_but_its_port(directory, shifted_agent):
    account = system.agent_account()
    with small_disk("/run", 1024 * 1024):
        tickets = pathlib.Path("/run/tovric-vessad")
        tickets.mkdir()
        tickets.chmod(0o711)
        os.chown(tickets, account.pw_uid, account.pw_gid)
        with (directory / "vessad.log").open("wb") as log:
            daemon = subprocess.Popen(
                ["setpriv", "--reuid", str(account.pw_uid), "--regid", str(account.pw_gid),
                 "--clear-groups", "--no-new-privs", "--inh-caps", "-all,+net_bind_service",
                 "--ambient-caps", "-all,+net_bind_service", "--bounding-set", "-all,+net_bind_service",
                 system.DAEMON, "--host", SMALL, "--ticket-dir", tickets, "--foreground"], stdout=log, stderr=log)
        try:
            system.wait_until(system.accepts_connections, "the daemon to listen")
            status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
            assert f"Uid:\t{account.pw_uid}\t" in status and "CapEff:\t0000000000000400\n" in status
            agent = shifted_agent()
            with watch.unharmed(agent, SERVED):
                system.wait_until(lambda: agent.refresh()[1], "the tables")
                found = [i.oid for i in agent.client.bulk_walk()]
                assert found == [i.oid for i in expected_tree.tree(HOST)]
            agent.stop()
        finally:
            daemon.terminate()
            assert daemon.wait(10) == 0
