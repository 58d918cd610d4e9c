"""A daemon that names a file of its choice as the ticket: the agent neither waits for it nor sends its content."""

import copy
import grp
import os
import pathlib
import socket
import threading
import time

import fake_daemon
import mib
import pytest
import system
import watch
from fake_daemon import GoodBehaviour
from wire import element

SECRET = "do-not-send-this"
OTHER_USER = 12345

# What the agent may take for a ticket, and how long.
CONNECT = 1.0


def write(path, text=SECRET, mode=0o600, owner=None):
    path.write_text(text)
    path.chmod(mode)
    if owner is not None:
        os.chown(path, owner, owner)
    return path


def fifo(folder):
    os.mkfifo(folder / "fifo", 0o600)
    return folder / "fifo"


def fifo_with_writer(folder):
    path = fifo(folder)
    os.write(os.open(path, os.O_RDWR | os.O_NONBLOCK), SECRET.encode())
    return path


def device(folder):
    path = folder / "device"
    try:
        os.mknod(path, 0o600 | 0o020000, os.makedev(1, 5))      # zeroes without end
    except PermissionError:
        return pathlib.Path("/dev/zero")
    return path


def unix_socket(folder):
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(folder / "socket"))
    return folder / "socket"


def directory_as_file(folder):
    (folder / "folder").mkdir(mode=0o700)
    return folder / "folder"


def symbolic_link(folder):
    write(folder / "real")
    (folder / "link").symlink_to(folder / "real")
    return folder / "link"


def hard_link(folder):
    os.link(write(folder / "real"), folder / "other-name")
    return folder / "real"


def readable_by_others(folder):
    return write(folder / "open", mode=0o644)


def writable_by_the_group(folder):
    return write(folder / "open", mode=0o660)


def of_another_user(folder):
    try:
        return write(folder / "other", owner=OTHER_USER)
    except (PermissionError, OSError):
        pytest.skip("only root, outside a user namespace, can give files to others")


def old(folder):
    path = write(folder / "old")
    time.sleep(3)
    return path


def upwards(folder):
    write(folder / "real")
    (folder / "sub").mkdir()
    return f"{folder}/sub/../real"


def relative(folder):
    return os.path.relpath(write(folder / "real"), "/")


def too_long(folder):
    return str(folder) + "/" + "x" * 5000


def very_long(folder):
    return str(folder) + "/" + "y" * 1_000_000


def name_too_long(folder):
    return str(folder) + "/" + "z" * 300


def control_characters(folder):
    return str(folder) + "/\x1b[2J\nroot: all is well\r"


def missing(folder):
    return folder / "missing"


def several_lines(folder):
    return write(folder / "lines", f"first line\n{SECRET}\n")


def binary(folder):
    path = write(folder / "binary")
    path.write_bytes(b"\x7fELF" + SECRET.encode() + bytes(range(256)))
    return path


def large(folder):
    return write(folder / "large", SECRET * 500_000)


def empty(folder):
    return write(folder / "empty", "")


HOSTILE = {
    "a FIFO": fifo, "a FIFO with content": fifo_with_writer, "a device": device, "a socket": unix_socket,
    "a directory": directory_as_file,
    "a symbolic link": symbolic_link, "a hard link": hard_link, "a file that others can read": readable_by_others,
    "a file that the group can write": writable_by_the_group, "a file of another user": of_another_user,
    "an old file": old,
    "/etc/shadow": lambda _: "/etc/shadow", "/etc/passwd": lambda _: "/etc/passwd",
    "the agent's environment": lambda _: "/proc/self/environ",
    "the agent's memory": lambda _: "/proc/self/mem", "a serial number": lambda _: "/sys/class/dmi/id/product_uuid",
    "the terminal": lambda _: "/dev/tty", "a descriptor of the agent": lambda _: "/proc/self/fd/4",
    "a path with ..": upwards, "a relative path": relative, "a path longer than PATH_MAX": too_long,
    "a path of 1 MB": very_long, "a name too long": name_too_long,
    "a path of control characters": control_characters, "an empty path": lambda _: "", "the root": lambda _: "/",
    "a missing file": missing, "a text of several lines": several_lines, "a binary file": binary,
    "a file of 10 MB": large,
    "an empty file": empty,
}


class NamesFile(GoodBehaviour):
    """A daemon that names `path` as the ticket and takes any login."""

    def __init__(self, host, directory, path):
        super().__init__(host, directory)
        self.path = path

    def write_ticket(self, secret):
        del secret
        return self.path() if callable(self.path) else self.path

    def Login(self, call):
        return element("returnval", {"key": "session", "userName": call.parameters["userName"]})


def contents_of(path):
    """Lines that must not be sent."""
    try:
        if os.path.isfile(path) and not str(path).startswith(("/proc", "/sys")):
            with open(path, "rb") as stream:
                return [line for line in stream.read(4096).splitlines() if len(line) > 8]
    except OSError:
        pass
    return []


@pytest.mark.parametrize("name", HOSTILE)
def test_the_content_of_no_other_file_is_sent(name, directory, fake, good, host, shifted_agent):
    folder = directory / "hostile"
    folder.mkdir(mode=0o755)
    made = []

    def path():
        # Made anew for each ticket, so that its age is never why it is refused.
        if name != "an old file" or not made:
            for entry in folder.iterdir():
                entry.rename(directory / f"used-{len(list(directory.iterdir()))}")
            made.append(HOSTILE[name](folder))
        return made[-1]

    if name == "an old file":
        path()
    agent = shifted_agent()
    agent.refresh()
    before = watch.descriptors(agent.pid)
    logins = fake.count("Login")
    fake.behave(NamesFile(host, directory, path))
    received = len(fake.received)
    with watch.Prober() as prober:
        took = 0
        for _ in range(3):
            fake.drop_connections()
            took = max(took, agent.refresh()[0])
    assert fake.count("AcquireLocalTicket") >= 3 and made
    assert took < CONNECT + watch.SLACK
    prober.check(CONNECT)
    assert fake.count("Login") == logins, "the agent tried to log in with it"
    sent = bytes(fake.received[received:])
    assert SECRET.encode() not in sent
    for line in contents_of(made[-1]):
        assert line not in sent
    fake.behave(good)
    fake.drop_connections()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    assert "\x1b" not in agent.log_text()
    watch.report(f"the ticket is {name}", "does not open or does not send it, has no session", took, prober)


def test_a_good_file_is_sent(fake, directory, host, shifted_agent):
    """What the other tests rely on: the agent does log in with a good file."""
    fake.behave(NamesFile(host, directory, lambda: write(directory / f"ticket-{len(fake.calls)}")))
    shifted_agent()
    assert fake.calls[-1].parameters["password"] == SECRET


def test_an_unreadable_file_is_no_ticket_for_an_unprivileged_agent(fake, good, directory, host, shifted_agent):
    account = system.agent_account()
    tickets = []

    def ticket(mode, owner, group):
        def make():
            path = write(directory / f"file-{len(tickets)}", mode=mode)
            os.chown(path, owner, group)
            tickets.append(path)
            return path
        return make

    fake.behave(NamesFile(host, directory, ticket(0o640, 0, account.pw_gid)))
    agent = shifted_agent(user="Debian-snmp")
    # The agent was root when it connected first.
    fake.drop_connections()
    agent.refresh()
    agent.refresh()
    assert fake.count("Login") == 2 and fake.calls[-1].method != "Login"
    before = watch.descriptors(agent.pid)
    with watch.Prober() as prober:
        refused = [(0o600, 0, 0), (0o000, account.pw_uid, account.pw_gid), (0o640, 0, grp.getgrnam("shadow").gr_gid)]
        for mode, owner, group in refused:
            fake.behave(NamesFile(host, directory, ticket(mode, owner, group)))
            fake.drop_connections()
            took, rows = agent.refresh()
            assert took < CONNECT + watch.SLACK and not rows
    prober.check(CONNECT)
    assert fake.count("Login") == 2
    assert len(tickets) == 5
    fake.behave(NamesFile(host, directory, ticket(0o640, 0, account.pw_gid)))
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("the ticket cannot be read by the agent's account", "has no session", took, prober, faults=3)


def test_a_file_that_changes_while_it_is_checked_is_not_sent(fake, good, directory, host, agent):
    """The name is a good file and a link to another by turns, as fast as the test can."""
    before = watch.descriptors(agent.pid)
    folder = directory / "hostile"
    folder.mkdir()
    secret = write(folder / "secret", SECRET, mode=0o600, owner=None)
    os.link(secret, folder / "second-name")
    stopping = threading.Event()

    def juggle():
        number = 0
        while not stopping.is_set():
            number += 1
            other = folder / f"fit-{number}"
            write(other, "fit")
            os.replace(other, folder / "name")
            (folder / "link").symlink_to(secret)
            os.replace(folder / "link", folder / "name")

    juggler = threading.Thread(target=juggle, daemon=True)
    juggler.start()
    fake.behave(NamesFile(host, directory, folder / "name"))
    slowest = 0
    try:
        with watch.Prober() as prober:
            for _ in range(300):
                fake.drop_connections()
                took, _ = agent.refresh()
                assert took < CONNECT + watch.SLACK
                slowest = max(slowest, took)
    finally:
        stopping.set()
        juggler.join()
    prober.check(CONNECT)
    assert SECRET.encode() not in bytes(fake.received)
    fake.behave(good)
    fake.drop_connections()
    agent.recover(host)
    assert watch.descriptors(agent.pid) == before
    watch.report("the ticket's name is another file at each of 300 logins", "sends a good file's content or nothing",
                 slowest, prober, faults=300)


def test_another_user_on_the_port_is_told_nothing(fake, host, shifted_agent):
    other = system.agent_account().pw_uid
    fake.owner = other
    fake.close_port()
    fake.listen()
    agent = shifted_agent()
    with watch.Prober() as prober:
        took, rows = agent.refresh()
    assert not rows and fake.accepted >= 2 and not fake.received
    assert f"localhost:902 belongs to user {other}, who does not run the daemon" in agent.log_text()
    prober.check(CONNECT)
    fake.owner = 0
    fake.close_port()
    fake.listen()
    agent.recover(host)
    watch.report("the port belongs to another user", "closes the connection without a byte of its own", took, prober)


class Forger(GoodBehaviour):
    """Serves everything without a login, for which it gives no ticket."""

    BEFORE_LOGIN = GoodBehaviour.BEFORE_LOGIN + ("GetChildEntity", "GetHardware", "GetConsoleReservationInfo")

    def result(self, call):
        return fake_daemon.fault("SystemError") if call.method == "AcquireLocalTicket" else super().result(call)


def test_nothing_is_asked_or_kept_without_a_session(fake, good, directory, host, shifted_agent):
    forged = copy.deepcopy(host)
    forged["about"]["name"] = "forged"
    fake.behave(Forger(forged, directory))
    agent = shifted_agent()
    product, cores, memory = agent.client.get(*map(mib.oid, ("prodName", "numCpuCores", "memTotal")))
    assert (product.value, cores.value, memory.value) == (b"forged", 0, 0)
    assert not agent.refresh()[1]
    assert {call.method for call in fake.calls} == {"AcquireLocalTicket", "RetrieveContent"}
    fake.behave(good)
    agent.recover(host)
