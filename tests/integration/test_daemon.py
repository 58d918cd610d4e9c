"""The daemon as operators and attackers see it: command line, signals, log, tickets."""

import os
import re
import signal
import stat
import subprocess

import pytest
import system
from wire import Connection, Fault, logged_in, read_ticket

SMALL = system.HOSTS / "small.yaml"

# Each call that needs a login, but Logout.
GUARDED = [
    ("ServiceInstance", "ServiceInstance", "QueryStatus"),
    ("Folder", "ha-folder-vm", "GetChildEntity"), ("Folder", "ha-folder-vm", "RetrieveChanges"),
    ("VirtualMachine", "16", "GetConfig"), ("VirtualMachine", "16", "GetRuntime"),
    ("VirtualMachine", "16", "GetGuest"), ("Datastore", "ds-1", "GetInfo"), ("HostSystem", "ha-host", "GetHardware"),
    ("MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo"),
    ("PerformanceManager", "ha-perfmgr", "GetPerfCounter"), ("PerformanceManager", "ha-perfmgr", "QueryPerf"),
    ("PerformanceManager", "ha-perfmgr", "QueryLatest"),
]


def run(*arguments, cwd=None):
    return subprocess.run([system.DAEMON, *arguments], capture_output=True, text=True, timeout=20, cwd=cwd,
                          stdin=subprocess.DEVNULL)


# Tickets and login

def test_a_ticket_is_a_private_file_with_a_name_that_cannot_be_guessed(start_daemon):
    daemon = start_daemon(SMALL)
    connections = [Connection() for _ in range(3)]
    paths = [connection.acquire_ticket() for connection in connections]
    # 16 characters or more are random: those after what all names share.
    assert min(map(len, paths)) - len(os.path.commonprefix(paths)) >= 16
    for path in paths:
        assert os.path.dirname(path) == str(daemon.tickets)
        information = os.lstat(path)
        assert stat.S_ISREG(information.st_mode) and stat.S_IMODE(information.st_mode) == 0o600
        assert information.st_uid == os.geteuid() and information.st_nlink == 1
        assert 16 <= information.st_size < 1024
    assert len({read_ticket(path) for path in paths}) == 3
    for connection, path in zip(connections, paths):
        connection.close()
        system.wait_until(lambda: not os.path.exists(path), "the ticket of a closed connection to go")


def test_a_ticket_opens_one_session_and_its_file_goes(start_daemon):
    start_daemon(SMALL)
    with Connection() as connection, Connection() as other:
        path = connection.acquire_ticket()
        secret = read_ticket(path)
        connection.login(secret)
        assert not os.path.exists(path)
        assert connection.children() == ["16", "32"]
        with pytest.raises(Fault) as refused:
            other.login(secret)
        assert refused.value.type == "InvalidLogin"
        with pytest.raises(Fault) as refused:
            other.children()
        assert refused.value.type == "NotAuthenticated"


def test_unused_tickets_go_when_the_daemon_stops(start_daemon):
    daemon = start_daemon(SMALL)
    with Connection() as connection:
        path = connection.acquire_ticket()
        assert os.path.exists(path)
        assert daemon.stop() == 0
    assert not os.path.exists(path)


def test_a_wrong_password_is_refused(start_daemon):
    start_daemon(SMALL)
    with Connection() as connection:
        for spoil in (lambda s: "", lambda s: s[:-1], lambda s: s[1:] + s[0]):
            path = connection.acquire_ticket()
            secret = read_ticket(path)
            with pytest.raises(Fault) as refused:
                connection.login(spoil(secret))
            assert refused.value.type == "InvalidLogin"
            # One guess is all that a ticket allows.
            assert not os.path.exists(path)
            with pytest.raises(Fault):
                connection.login(secret)
        with pytest.raises(Fault) as refused:
            connection.children()
        assert refused.value.type == "NotAuthenticated"
    with Connection() as connection:
        with pytest.raises(Fault) as refused:
            connection.login(read_ticket(connection.acquire_ticket()), user="somebody")
        assert refused.value.type == "InvalidLogin"


def test_only_ticket_login_and_service_content_are_served_before_login(start_daemon):
    start_daemon(SMALL)
    with Connection() as connection:
        content, = connection.call("ServiceInstance", "ServiceInstance", "RetrieveContent")
        assert content.findtext("{urn:ordane}about/{urn:ordane}name") == "Tovric Kelv Server"
        for call in GUARDED:
            with pytest.raises(Fault) as refused:
                connection.call(*call)
            assert refused.value.type == "NotAuthenticated", call
        connection.login(read_ticket(connection.acquire_ticket()))
        for call in GUARDED:
            connection.call(*call)
        connection.call("SessionManager", "ha-sessionmgr", "Logout")
        with pytest.raises(Fault) as refused:
            connection.children()
        assert refused.value.type == "NotAuthenticated"


def test_the_ticket_of_a_configured_group_can_be_read_by_it_alone(start_daemon):
    group = system.agent_account().pw_gid
    start_daemon(SMALL, "--ticket-group", "Debian-snmp")
    with Connection() as connection:
        information = os.lstat(connection.acquire_ticket())
    assert stat.S_IMODE(information.st_mode) == 0o640
    assert (information.st_uid, information.st_gid) == (os.geteuid(), group)


@pytest.mark.parametrize("preamble", ["GET / HTTP/1.1", 'OPEN 3 "" ""', "OPEN", 'OPEN 2 "" "" ""', "x" * 4000, ""])
def test_another_first_line_is_refused(start_daemon, preamble):
    start_daemon(SMALL)
    with Connection(preamble=preamble) as connection:
        assert connection.status != "200"
    with Connection() as connection:
        assert connection.status == "200"


@pytest.mark.parametrize("body", [
    "", "no xml", "<a/>", "<!DOCTYPE a [<!ENTITY b 'c'>]><a>&b;</a>", "<a>" * 10000,
    '<Envelope><Body>'
    '<NoSuchMethod xmlns="urn:ordane"><_this type="Folder">ha-folder-vm</_this></NoSuchMethod>'
    '</Body></Envelope>'])
def test_the_reply_to_a_message_that_is_no_call_is_an_error(start_daemon, body):
    start_daemon(SMALL)
    with Connection() as connection:
        status, _ = connection.post(body)
        assert status >= 400
    with logged_in() as connection:
        assert connection.children() == ["16", "32"]


def test_many_clients_are_served_at_once(start_daemon):
    start_daemon(SMALL)
    connections = [logged_in() for _ in range(20)]
    for connection in reversed(connections):
        assert connection.children() == ["16", "32"]
        connection.close()


def test_the_log_tells_what_happened_and_never_a_password(start_daemon):
    daemon = start_daemon(SMALL)
    with Connection() as connection:
        secret = read_ticket(connection.acquire_ticket())
        connection.login(secret)
    daemon.stop()
    log = daemon.log_text()
    assert "Listening on 127.0.0.1 port 902" in log and re.search(rf"Read {re.escape(str(SMALL))}: .*\b2\b", log)
    assert "root logged in" in log
    assert "SIGTERM received, stopping" in log
    assert secret not in log


# Signals

def vm_names(connection):
    names = []
    for id in connection.children():
        config = connection.call("VirtualMachine", id, "GetConfig")
        names += [c.findtext("{urn:ordane}name") for c in config]
    return names


def test_hangup_reads_the_description_again(start_daemon, directory):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text())
    daemon = start_daemon(path)
    with logged_in() as connection:
        assert vm_names(connection) == ["web-1", "backup"]
        path.write_text(SMALL.read_text().replace("name: backup", "name: restored"))
        daemon.signal(signal.SIGHUP)
        system.wait_until(lambda: vm_names(connection) == ["web-1", "restored"], "the new description")


def test_hangup_with_a_bad_description_keeps_the_old_one(start_daemon, directory):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text())
    daemon = start_daemon(path)
    with logged_in() as connection:
        path.write_text(SMALL.read_text().replace("numCPU: 1", "numCPU: one"))
        line = next(n for n, text in enumerate(path.read_text().splitlines(), 1) if "numCPU: one" in text)
        daemon.signal(signal.SIGHUP)
        complaint = system.wait_until(
            lambda: re.search(rf"{re.escape(str(path))}:{line}:\d+: .*expected.*", daemon.log_text()), "a log line")
        assert "number" in complaint[0]
        assert vm_names(connection) == ["web-1", "backup"]
        path.unlink()
        before = len(daemon.log_text())
        daemon.signal(signal.SIGHUP)
        system.wait_until(lambda: str(path) in daemon.log_text()[before:], "a log line about the missing file")
        assert vm_names(connection) == ["web-1", "backup"]


def test_counters_keep_counting_over_a_hangup(start_daemon, directory):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text().replace("perSecond: 90", "perSecond: 100000"))
    daemon = start_daemon(path)
    with logged_in() as connection:
        catalogue = connection.call("PerformanceManager", "ha-perfmgr", "GetPerfCounter")
        name = "{urn:ordane}groupInfo/{urn:ordane}key", "{urn:ordane}nameInfo/{urn:ordane}key"
        key, = (counter.findtext("{urn:ordane}key") for counter in catalogue
                if (counter.findtext(name[0]), counter.findtext(name[1])) == ("net", "packetsTx"))

        def read():
            metric, = connection.call("PerformanceManager", "ha-perfmgr", "QueryPerf", querySpec={
                "entity": "16", "metricId": {"counterId": key, "instance": "*"}, "intervalId": "0"})
            return int(metric.findtext("{urn:ordane}value/{urn:ordane}value"))

        system.wait_until(lambda: read() > 4294967301 + 50000, "the counter to run")
        before = read()
        daemon.signal(signal.SIGHUP)
        system.wait_until(lambda: daemon.log_text().count(str(path)) > 1, "the reload in the log")
        assert read() >= before


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_the_daemon_stops_cleanly_when_told_to(start_daemon, number):
    daemon = start_daemon(SMALL)
    with logged_in():
        daemon.signal(number)
        assert daemon.process.wait(5) == 0
    with pytest.raises(ConnectionRefusedError):
        Connection()


# Command line and mistakes

MISTAKES = {
    "no such member": ("powerState: poweredOn", "powerStat: poweredOn", "powerStat"),
    "no number": ("memoryMB: 512", "memoryMB: much", "memoryMB: much"),
    "too large": ("memoryMB: 512", "memoryMB: 99999999999", "memoryMB: 99999999999"),
    "no such type": ("type: VirtualFloppy", "type: VirtualToaster", "VirtualToaster"),
    "no such state": ("powerState: poweredOn", "powerState: sleeping", "sleeping"),
    "no such roll-up": ("vms:\n", "counters: [{key: 1, group: a, name: b, rollup: often}]\nvms:\n", "often"),
    "missing member": ("busNumber: 0}", "}", "VirtualLsiLogicController"),
    "no truth value": ("connected: true", "connected: maybe", "maybe"),
    "list instead of a map": ("hardware: {cpuInfo: {numCpuCores: 8}}", "hardware: [1]", "hardware: [1]"),
    "rate without a start": ("{start: 181000, perSecond: 350}", "{perSecond: 350}", "{perSecond: 350}"),
    "two VMs of one id": ('- id: "32"', '- id: "16"', None),
    "no YAML": ("vms:\n", "vms: [\n", None),
}


@pytest.mark.parametrize("old, new, line", MISTAKES.values(), ids=MISTAKES.keys())
def test_a_mistake_in_the_description_is_logged_with_its_place(directory, old, new, line):
    text = SMALL.read_text().replace(old, new, 1)
    assert text != SMALL.read_text()
    path = directory / "mistaken.yaml"
    path.write_text(text)
    result = run("--host", path, "--listen", "127.0.0.1:902", "--ticket-dir", directory, "--state-dir", directory,
                 "--foreground")
    assert result.returncode > 0
    output = result.stdout + result.stderr
    place = re.search(rf"{re.escape(str(path))}:(\d+):(\d+): (.*)", output)
    assert place, output
    if line:
        assert "expected" in place[3]
        assert line in text.splitlines()[int(place[1]) - 1], output


@pytest.mark.parametrize("arguments, word", [
    (["--host", SMALL, "--libvirt", "test:///default"], "--libvirt"), (["--nonsense"], "--nonsense"),
    (["--host", "/nonexistent/host.yaml"], "/nonexistent/host.yaml"),
    (["--host", SMALL, "--listen", "nowhere"], "nowhere"),
    (["--host", SMALL, "--listen", "127.0.0.1:99999"], "99999"),
    (["--host", SMALL, "--ticket-group", "no-such-group"], "no-such-group")])
def test_a_wrong_command_line_is_explained(directory, arguments, word):
    tickets = [] if "--ticket-dir" in arguments else ["--ticket-dir", directory]
    result = run(*arguments, "--state-dir", directory, "--foreground", *tickets)
    assert result.returncode > 0
    assert word in result.stdout + result.stderr


def test_help_names_every_option():
    result = run("--help")
    assert result.returncode == 0
    for option in ("--host", "--libvirt", "--listen", "--ticket-dir", "--ticket-group", "--state-dir", "--forget-after",
                   "--foreground"):
        assert option in result.stdout


SUMMARY = """\
VMs: 2, powered on: 1
virtual CPUs: 3
disks: 2
network cards: 2
CD-ROM drives: 1
floppy drives: 1
other devices: 3
statistics: 11
datastores: 1
counters: 10
"""


@pytest.mark.parametrize("changes, code, output, errors", [
    ({}, 0, SUMMARY, ""),
    ({"web-1\n": "web-1\n      colour: red\n", "datastore: ds-1}}": "datastore: ds-2}}", "numCPU: 1": "numCPU: one"},
     1, "", """\
host.yaml:11:7: vms[0].config: expected one of name, guestFullName, files, datastoreUrl, hardware, cpuAllocation, \
memoryAllocation, found colour
host.yaml:23:122: vms[0].config.hardware.device[1].backing.datastore: expected the id of a datastore (one of ds-1), \
found the text "ds-2"
host.yaml:53:17: vms[1].config.hardware.numCPU: expected a whole number from -2147483648 to 2147483647, found the \
text "one"
""")], ids=["good", "mistaken"])
def test_a_description_can_be_checked(directory, changes, code, output, errors):
    text = SMALL.read_text()
    for old, new in changes.items():
        assert old in text
        text = text.replace(old, new, 1)
    (directory / "host.yaml").write_text(text)
    result = run("--check", "host.yaml", cwd=directory)
    assert (result.returncode, result.stdout, result.stderr) == (code, output, errors)


def test_a_file_that_cannot_be_checked_is_explained(directory):
    result = run("--check", "missing.yaml", cwd=directory)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == "missing.yaml: cannot read it: No such file or directory\n"


def test_the_version_names_the_commit():
    result = run("--version")
    assert (result.returncode, result.stderr) == (0, "")
    commit = "[0-9a-f]{7,40}(-dirty)?" + ("" if (system.ROOT / ".git").exists() else "|unknown")
    assert re.fullmatch(rf"tovric-vessad \d+\.\d+\.\d+ \(commit ({commit})\)\n", result.stdout), \
        "git describe fails where another user owns the tree"


def test_a_port_that_is_taken_is_logged(start_daemon, directory):
    start_daemon(SMALL)
    result = run("--host", SMALL, "--listen", "127.0.0.1:902", "--ticket-dir", directory, "--state-dir", directory,
                 "--foreground")
    assert result.returncode > 0
    assert re.search(r"127\.0\.0\.1.*902.*Address already in use", result.stdout + result.stderr)


def test_only_this_host_is_served(start_daemon):
    """The daemon listens on loopback alone, whatever other addresses the host has."""
    start_daemon(SMALL)
    listening = subprocess.run(["ss", "-Hltn"], capture_output=True, text=True, check=True).stdout
    assert re.findall(r"(\S+):902\s", listening) == ["127.0.0.1"]
