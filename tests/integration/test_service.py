"""The packaged service: how confined it is, and a daemon and an agent that are two users, neither of them root."""

import pathlib
import shutil
import socket
import subprocess

import expected_tree
import pytest
import system
from mib import ENTERPRISE

SMALL = system.HOSTS / "small.yaml"
UNIT = system.ROOT / "packaging/tovric-vessad.service"
DAEMON_USER = 64902     # has no entry in the system's database
NETLINK_SOCK_DIAG = 4
# Prints how many of 40 connections the daemon closes within a second.
CONNECT_40_TIMES = """
import select, socket, time
clients = [socket.create_connection(("127.0.0.1", 902)) for _ in range(40)]
time.sleep(1)
print(len(select.select(clients, [], [], 0)[0]))
"""


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="needs systemd-analyze")
def test_the_unit_is_confined():
    """At most 1.5 of systemd's 10."""
    checked = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", UNIT],
                             capture_output=True, text=True)
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_the_unit_is_started_again_however_often_it_fails():
    assert {"Restart=on-failure", "RestartSec=5", "StartLimitIntervalSec=0",
            "WatchdogSec=60"} <= set(UNIT.read_text().splitlines())


@pytest.fixture
def own_run():
    """A command that runs others where /run is new and has the service's directory, as systemd makes it."""
    script = (f"mount -t tmpfs -o mode=755 tmpfs /run && install -d -m 755 -o {DAEMON_USER} -g {DAEMON_USER} "
              "/run/tovric-vessad && echo ready && exec sleep infinity")
    holder = subprocess.Popen(["unshare", "--mount", "--propagation", "private", "sh", "-c", script],
                              stdout=subprocess.PIPE, text=True)
    assert holder.stdout.readline() == "ready\n"
    yield ["nsenter", f"--mount=/proc/{holder.pid}/ns/mnt"]
    holder.kill()
    holder.wait()
    holder.stdout.close()


@pytest.fixture
def confined_daemon(directory, own_run):
    """The daemon as a user of its own without capabilities and network, in the ticket group, with passed sockets."""
    group = system.agent_account().pw_gid
    shutil.copy(system.DAEMON, directory)           # the build may be where only root can go
    shutil.copy(SMALL, directory)
    with socket.create_server(system.DAEMON_ADDRESS) as listener, (directory / "vessad.log").open("ab") as log, \
            socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_SOCK_DIAG) as diagnostics:
        passed = [listener.fileno(), diagnostics.fileno()]
        start = (f"exec 13<&{passed[0]} 14<&{passed[1]}; exec 3<&13 4<&14; LISTEN_PID=$$ LISTEN_FDS=2 "
                 f"exec unshare --net setpriv --reuid={DAEMON_USER} "
                 f"--regid={DAEMON_USER} --groups={group} --inh-caps=-all --bounding-set=-all --no-new-privs "
                 f"{directory}/{system.DAEMON.name} --host {directory}/small.yaml --ticket-group Debian-snmp "
                 "--foreground")
        process = subprocess.Popen([*own_run, "bash", "-c", start], pass_fds=passed, stdout=log, stderr=log,
                                   stdin=subprocess.DEVNULL)
        yield process
        process.terminate()
        assert process.wait(10) == 0


def status(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return dict(line.split(":\t", 1) for line in lines)


def test_an_agent_reads_the_rows_of_a_daemon_of_another_user(directory, confined_daemon, start_agent, own_run):
    account = system.agent_account()
    system.wait_until(lambda: "Listening on" in (directory / "vessad.log").read_text(), "the daemon to listen")
    # Its child logs in as its user, because the connection that it made as root is its parent's.
    agent = start_agent(user=account.pw_name, background=True, under=own_run)
    agent.allow_log(r"SNMP\w+: .*")
    expected = [i.oid for i in expected_tree.tree(expected_tree.load(SMALL)) if i.oid[:len(ENTERPRISE)] == ENTERPRISE]
    assert [i.oid for i in agent.client.walk()] == expected
    assert "Connection 2: root logged in" in (directory / "vessad.log").read_text()
    assert status(agent.pid)["Uid"].split() == 4 * [str(account.pw_uid)]
    assert status(confined_daemon.pid)["Uid"].split() == 4 * [str(DAEMON_USER)]
    assert int(status(confined_daemon.pid)["CapEff"], 16) == 0


@pytest.mark.parametrize("user, closed", [("Debian-snmp", 0), ("nobody", 8)])
def test_users_outside_the_ticket_group_have_32_connections(user, closed, directory, confined_daemon):
    system.wait_until(lambda: "Listening on" in (directory / "vessad.log").read_text(), "the daemon to listen")
    run = subprocess.run(["setpriv", "--reuid", user, "--regid", user if closed == 0 else "nogroup", "--init-groups",
                          "/usr/bin/python3", "-c", CONNECT_40_TIMES], capture_output=True, text=True)
    assert (run.returncode, run.stdout) == (0, f"{closed}\n"), run.stderr
