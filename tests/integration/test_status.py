"""kelv-status: what an operator is told of daemon, agent and module."""

import json
import os
import pwd
import re
import shutil
import signal
import socket
import subprocess
import time

import pytest
import system
from net_snmp import V2C, auth_priv

SMALL = system.HOSTS / "small.yaml"
PROGRAM = system.BUILD / "apps/status/kelv-status"

DAEMON = f"""\
ok    daemon: accepts connections, belongs to user root
ok    login: the daemon accepted a ticket
ok    source: described host {SMALL} is connected
ok    snapshot: 2 VMs, read N s ago
"""
NO_DAEMON = """\
FAIL  daemon: cannot connect to localhost:902: Connection refused
      systemctl start tovric-vessad.socket tovric-vessad; if that fails, journalctl -u tovric-vessad says why, and \
ss -lptn 'sport = :902' names another program on its port
?     source: unknown without a login
"""
NO_REPLY = """\
FAIL  daemon: localhost:902: no reply in time (TLS handshake)
      journalctl -u tovric-vessad says whether it ends at its start, and why; ss -lptn 'sport = :902' names another \
program on its port; where it hangs: systemctl restart tovric-vessad
?     source: unknown without a login
"""
NOT_LOADED = """\
FAIL  module: snmpd (process N, user root) has not loaded it
      check the line dlmod of the agent's configuration, that /etc/snmp/snmpd.conf has includeDir \
/etc/snmp/snmpd.conf.d, and what the agent's log says about SNMPKelv, then: systemctl restart snmpd
"""
ANSWERS = "ok    query: localhost answers prodName (Tovric Kelv Server) in N ms\n"
NOT_TESTED = """\
?     query: not tested
      give the options of snmpget, or as root: SNMPCONFPATH=/etc/snmp/kelv kelv-status
"""
SILENT = """\
FAIL  query: localhost does not answer within N ms
      systemctl status snmpd says whether the agent runs; it listens where agentaddress says, and ignores an unknown \
community and a wrong privacy passphrase
"""
RECIPES = """\
      put a recipe of /etc/snmp/snmpd.conf.d/kelv.conf into force for this user or community, then: systemctl restart \
snmpd
"""


def loaded(user="root"):
    return f"ok    module: snmpd (process N, user {user}) has loaded it\n"


def may_read(user="root"):
    return f"ok    ticket: snmpd (process N, user {user}) may read tickets\n"


def run(*arguments, program=PROGRAM, configuration="/nonexistent", **how):
    """Returns the exit code and the text, with N for numbers that differ from run to run.

    `configuration`: the folder of snmp.conf.
    """
    started = time.monotonic()
    result = subprocess.run([program, *arguments], capture_output=True, text=True, timeout=60,
                            env={**os.environ, "SNMPCONFPATH": str(configuration)}, **how)
    assert time.monotonic() - started < 8       # whatever hangs; a busy computer counts for some of it
    assert result.stderr == ""
    return result.returncode, re.sub(r"\d+(?= m?s\b)|(?<=process )\d+", "N", result.stdout)


def test_everything_works(start_daemon, start_agent):
    account = system.agent_account()
    daemon = start_daemon(SMALL, "--ticket-group", account.pw_name)
    start_agent(user=account.pw_name, background=True).allow_log(r"SNMP\w+: .*")
    local = DAEMON + loaded(account.pw_name) + may_read(account.pw_name)
    for options in (V2C, ["-v1", "-c", "public"], auth_priv("kelv")):
        assert run(*options) == (0, local + ANSWERS)
    assert run(*V2C, "127.0.0.1:161") == (0, local + ANSWERS.replace("localhost", "127.0.0.1:161"))
    for options in ([], ["-v2c"], ["-v3", "-l", "authPriv"]):
        assert run(*options) == (2, local + NOT_TESTED)
    assert daemon.log_text().count("logged out") >= 5


USER = """\
defSecurityName kelv
defAuthType SHA
defAuthPassphrase authentication
defPrivType AES
defPrivPassphrase encryption
"""


@pytest.mark.parametrize("configuration, options, result", [
    # As the Debian package makes it; the MIB is not needed, and is not read.
    ("defVersion 2c\ndefCommunity public\nmibdirs +/nonexistent\nmibs NO-SUCH-MIB\n", [], (0, ANSWERS)),
    (USER, ["-v", "3", "-l", "authPriv"], (0, ANSWERS)),
    (USER + "defVersion 3\ndefSecurityLevel authPriv\n", [], (0, ANSWERS)),
    ("defVersion 2c\ndefCommunity unknown\n", ["-c", "public"], (0, ANSWERS)),
    ("defVersion 2c\ndefCommunity unknown\n", [], (1, SILENT)),
    ("defVersion 2c\n", [], (2, NOT_TESTED)),
], ids=["community", "user", "all of version 3", "option", "unknown community", "version"])
def test_credentials_of_snmp_conf(start_daemon, start_agent, directory, configuration, options, result):
    start_daemon(SMALL)
    start_agent()
    folder = directory / "snmp"
    folder.mkdir()
    (folder / "snmp.conf").write_text(configuration)
    code, line = result
    assert run(*options, configuration=folder) == (code, DAEMON + loaded() + may_read() + line)


@pytest.mark.parametrize("folder", ["etc", "home/.snmp"])
def test_snmp_conf_in_its_usual_places_and_nothing_written(start_daemon, start_agent, directory, folder):
    start_daemon(SMALL)
    start_agent()
    host = directory / "host"
    (host / folder).mkdir(parents=True)
    (host / folder / "snmp.conf").write_text("defVersion 2c\ndefCommunity public\n")
    (host / "etc").mkdir(exist_ok=True)
    before = sorted(host.rglob("*"))
    environment = {name: value for name, value in os.environ.items() if not name.startswith("SNMP")}
    # In a mount namespace of its own, where nothing of this computer's is read or written.
    result = subprocess.run(
        ["unshare", "--mount", "sh", "-ec",
         'mount --bind "$1/etc" /etc/snmp; mount --bind "$1" /var/lib/snmp; exec "$2"', "sh", host, PROGRAM],
        capture_output=True, text=True, timeout=60, env={**environment, "HOME": str(host / "home")})
    assert (result.returncode, result.stderr) == (0, "")
    assert sorted(host.rglob("*")) == before


def test_the_same_as_json(start_daemon, start_agent):
    start_daemon(SMALL)
    start_agent()
    code, text = run("--json", *V2C)
    report = json.loads(text)
    checks = report.pop("checks")
    time_ = report.pop("queryTime")
    assert report.pop("snapshotAge") in range(60)
    assert code == 0 and time_ in range(8000)
    assert report == {"exitCode": 0, "source": f"described host {SMALL}", "connected": True, "vms": 2}
    assert [(check["check"], check["result"]) for check in checks] == [
        (name, "ok") for name in ("daemon", "login", "source", "snapshot", "module", "ticket", "query")]
    assert run("--json")[0] == 2
    code, text = run(*V2C, "--json")
    assert code == 0 and json.loads(text)["vms"] == 2


def test_the_version_is_that_of_the_daemon():
    daemon = subprocess.run([system.DAEMON, "--version"], capture_output=True, text=True, check=True).stdout
    assert run("--version") == (0, daemon.replace("tovric-vessad", "kelv-status"))


def test_neither_daemon_nor_agent():
    assert run(*V2C) == (1, NO_DAEMON + "FAIL  module: no snmpd runs in this network\n"
                         "      systemctl status snmpd\n" + SILENT)


def test_an_agent_without_the_module_and_no_daemon(start_agent):
    start_agent(module=None)
    assert run(*V2C) == (1, NO_DAEMON + NOT_LOADED +
                         "?     ticket: whether snmpd (process N, user root) may read tickets is unknown without one\n"
                         "FAIL  query: localhost shows no prodName: the module is not loaded\n"
                         "      see the remedy of module\n")


def test_a_port_that_systemd_holds_for_a_daemon_that_ends_at_its_start():
    with socket.create_server(system.DAEMON_ADDRESS):
        assert run(*V2C) == (1, NO_REPLY + "FAIL  module: no snmpd runs in this network\n"
                             "      systemctl status snmpd\n" + SILENT)


def test_programs_that_hang(start_daemon, start_agent):
    daemon = start_daemon(SMALL)
    agent = start_agent()
    assert run(*V2C) == (0, DAEMON + loaded() + may_read() + ANSWERS)
    for pid in (daemon.process.pid, agent.pid):
        os.kill(pid, signal.SIGSTOP)
    try:
        hangs = run(*V2C)
    finally:
        for pid in (daemon.process.pid, agent.pid):
            os.kill(pid, signal.SIGCONT)
    assert hangs == (1, NO_REPLY + loaded() +
                     "?     ticket: whether snmpd (process N, user root) may read tickets is unknown without one\n" +
                     SILENT)


def test_a_module_that_was_replaced(start_daemon, start_agent, directory):
    start_daemon(SMALL)
    module = directory / "SNMPKelv.so"
    shutil.copy(system.MODULE, module)
    start_agent(module=module)
    shutil.copy(system.MODULE, directory / "new")
    (directory / "new").rename(module)
    assert run(*V2C) == (1, DAEMON + "FAIL  module: snmpd (process N, user root) runs one whose file was replaced "
                         "since\n      systemctl restart snmpd\n" + may_read() + ANSWERS)


def test_a_ticket_that_the_agent_may_not_read(start_daemon, start_agent):
    account = system.agent_account()
    start_daemon(SMALL)
    agent = start_agent(user=account.pw_name)       # logs in before it drops its rights
    agent.allow_log(r"SNMP\w+: .*")
    user = account.pw_name
    assert run(*V2C) == (1, DAEMON + loaded(user) +
                         f"FAIL  ticket: snmpd (process N, user {user}) may not read tickets (user root, group root, "
                         f"mode 0600)\n      usermod --append --groups {user} tovric-vessad, and TICKET_GROUP={user} "
                         "in /etc/default/tovric-vessad (option --ticket-group), then: systemctl restart "
                         "tovric-vessad\n" + ANSWERS)


def test_a_daemon_that_is_not_in_the_group_of_the_tickets(start_daemon, start_agent, directory):
    account = system.agent_account()
    program = directory / "daemon"
    program.write_text(f'#!/bin/sh\nexec setpriv --bounding-set=-chown {system.DAEMON} "$@"\n')
    program.chmod(0o755)
    start_daemon(SMALL, "--ticket-group", account.pw_name, program=program)
    start_agent().allow_log(r".*")
    code, text = run(*V2C)
    assert code == 1 and (
        "FAIL  login: the daemon issued no ticket: cannot set the group of a ticket file: Operation not permitted\n"
        "      set TICKET_GROUP in /etc/default/tovric-vessad to the agent's group; if it already is, usermod --append "
        "--groups GROUP tovric-vessad with that group; then: systemctl restart tovric-vessad\n") in text


@pytest.mark.parametrize("options, line", [
    (V2C, "FAIL  query: localhost shows no prodName: the view of this user or community excludes it\n" + RECIPES),
    (["-v1", "-c", "public"],
     "FAIL  query: localhost shows no prodName: the view of this user or community excludes it\n" + RECIPES),
    (["-v2c", "-c", "unknown"], SILENT),
    (["-v3", "-l", "noAuthNoPriv", "-u", "kelv"],
     "FAIL  query: localhost gives this user or community no access\n" + RECIPES),
    (["-v3", "-l", "noAuthNoPriv", "-u", "unknown"],
     "FAIL  query: localhost refuses it: Unknown user name\n"
     "      check the name of the agent, the user, the level and the passphrases\n"),
    ([option.replace("authentication", "another phrase") for option in auth_priv("kelv")],
     "FAIL  query: localhost refuses it: Authentication failure (incorrect password, community or key)\n"
     "      check the name of the agent, the user, the level and the passphrases\n"),
    ([option.replace("encryption", "another phrase") for option in auth_priv("kelv")], SILENT),
], ids=["view", "view of version 1", "community", "level", "user", "passphrase", "privacy passphrase"])
def test_who_may_not_query(start_daemon, start_agent, options, line):
    start_daemon(SMALL)
    agent = start_agent(access="view systemonly included .1.3.6.1.2.1.1\nrocommunity public 127.0.0.1 -V systemonly")
    agent.allow_log("Authentication failed for kelv", "security service 3 error parsing ScopedPDU")
    assert run(*options) == (1, DAEMON + loaded() + may_read() + line)


def test_the_built_in_host_is_not_taken_for_this_one(start_daemon):
    start_daemon(None)
    assert re.search(r"^ok    source: the built-in sample host: its VMs do not exist\n      name the source", run()[1],
                     re.MULTILINE)


def test_a_description_that_cannot_be_read_again(start_daemon, start_agent, directory):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text())
    daemon = start_daemon(path)
    start_agent()
    path.write_text("vms: 7")
    daemon.signal(signal.SIGHUP)
    system.wait_until(lambda: "Reload failed" in daemon.log_text(), "the reload in the log")
    code, text = run(*V2C)
    assert code == 1
    assert re.search(r"^FAIL  source: described host (\S+) cannot be read: \1:1:6: .*\n"
                     r"      correct the file, which the user tovric-vessad must be able to read, then: systemctl "
                     r"reload tovric-vessad\n"
                     r"ok    snapshot: 2 VMs, read N s ago and still served$", text, re.MULTILINE)


def test_what_an_outsider_is_told(start_daemon, start_agent, directory):
    system.agent_account()      # root can become another user
    nobody = pwd.getpwnam("nobody")
    start_daemon(SMALL)
    agent = start_agent()
    program = directory / "kelv-status"     # the build may be where only root can go
    shutil.copy(PROGRAM, program)
    result = subprocess.run([program], capture_output=True, text=True, timeout=60, user=nobody.pw_uid,
                            group=nobody.pw_gid, extra_groups=[], env={**os.environ, "SNMPCONFPATH": "/nonexistent"})
    # Nor is an outsider told whether other agents are in this network.
    ours = re.sub(rf".* snmpd \(process (?!{agent.pid},).*\n(?:  .*\n)?", "", result.stdout)
    assert result.returncode == 2 or (result.returncode == 1 and ours != result.stdout)
    assert ours == (
        "ok    daemon: accepts connections, belongs to user root\n"
        "?     login: user nobody may not read tickets (user root, group root, mode 0600)\n"
        "      run kelv-status as root\n"
        "?     source: unknown without a login\n"
        f"?     module: snmpd (process {agent.pid}, user root) does not show what it has loaded\n"
        "      run kelv-status as root\n" + may_read().replace("N", str(agent.pid)) + NOT_TESTED)


@pytest.mark.parametrize("arguments", [["-v9"], ["-v2c", "-c"], [*V2C, "localhost", "more"]])
def test_wrong_arguments(arguments):
    result = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=20,
                            env={**os.environ, "SNMPCONFPATH": "/nonexistent"})
    assert (result.returncode, result.stdout) == (2, "")
    assert "kelv-status [" in result.stderr
