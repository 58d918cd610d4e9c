"""The agent with the module in it: start, restart, users, and what it serves without the daemon."""

import os
import signal
import time

import expected_tree
import mib
import net_snmp
import pytest
import system
from mib import ENTERPRISE

SMALL = system.HOSTS / "small.yaml"
PRODUCT = ["prodName", "prodVersion", "prodOID", "prodBuild"]
MEMORY = ["memTotal", "memReserved", "memUnreserved"]
VERSION_OID = mib.oids()["kelvServer"]


def values(agent, *names):
    """The values of scalars, read in one request."""
    return [instance.value for instance in agent.client.get(*map(mib.oid, names))]


def value(agent, name, *index):
    return agent.client.get(mib.oid(name, *index))[0].value


def oids(host, root=ENTERPRISE):
    return [i.oid for i in expected_tree.tree(host) if i.oid[:len(root)] == root]


def assert_tables(agent, host):
    """Every table has the host's rows; host None: no table has any."""
    for table in mib.tables().values():
        assert [i.oid for i in agent.client.walk(table.oid)] == (oids(host, table.oid) if host else [])


def test_the_reservation_is_in_bytes_once_and_in_kilobytes_ever_after(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    assert [value(agent, "memReserved") for _ in range(3)] == [285212672, 278528, 278528]


def test_the_first_unreserved_value_takes_bytes_from_kilobytes(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    total = (285212672 + 1862270976) // 1024
    assert [value(agent, "memUnreserved") for _ in range(2)] == [total - 285212672, total - 278528]


def test_total_reserved_and_unreserved_of_one_request_belong_together(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    value(agent, "memTotal")
    assert values(agent, *MEMORY) == [2097152, 278528, 2097152 - 278528]


@pytest.mark.parametrize("version, identifier, message", [
    ("3.0", (0, 0, 0), "SNMPSystemGetProdInfo: product version 3.0 not in major.minor.revision format."),
    ("3.0.2.1", (0, 0, 0), "SNMPSystemGetProdInfo: product version 3.0.2.1 not in major.minor.revision format."),
    ("3.x.2", (3, 0, 2), "Get Product Version: invalid version: x"),
])
def test_a_version_of_another_shape(start_daemon, start_agent, directory, version, identifier, message):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text().replace("version: 3.0.2", f'version: "{version}"'))
    start_daemon(path)
    agent = start_agent()
    agent.allow_log(message)
    for _ in range(3):
        assert values(agent, *PRODUCT) == [b"Tovric Kelv Server", version.encode(), VERSION_OID + identifier, b"13638"]
    # A shape that does not fit is logged at every request, a part that is no number once.
    assert (agent.log_text().count(message) > 2) == (identifier == (0, 0, 0))


def test_the_kernel_is_not_loaded_on_a_host_without_it(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    assert not os.path.exists("/proc/tovric/vm")
    assert value(agent, "kernelLoaded") == b"no"


def test_one_rebuild_serves_twenty_seconds_of_requests(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    for _ in range(3):
        agent.client.walk()
    assert agent.log_text().count("SNMPRask: start refreshing cache...") == 1


def allow_absence(agent):
    """The lines of an agent that does not reach its daemon."""
    agent.allow_log("OrdaneClient::Init: :.*", "Could not init ordane client to tovric-vessad.", *system.BACKTRACE_LOG,
                    ".*Could not acquire ordane client to tovric-vessad.",
                    "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad.",
                    "SNMPRaskRefreshCache: no VM found.", ".*: connection to tovric-vessad is broken.",
                    "Disconnect: not connected.",
                    "Connection to the daemon is lost: .*", system.OUTAGE_LOG)


@pytest.mark.slow
def test_the_daemon_may_come_after_the_agent(start_daemon, start_agent):
    agent = start_agent()
    allow_absence(agent)
    assert value(agent, "prodName") == b""
    assert value(agent, "prodOID") == VERSION_OID + (0, 0, 0)
    assert value(agent, "numCpuCores") == 0
    assert values(agent, *MEMORY) == [0, 0, 0]
    assert_tables(agent, None)
    failed = time.monotonic()
    assert "Could not init ordane client to tovric-vessad." in agent.log_text()
    assert "SNMPRAskRefreshCache: Could not acquire ordane client to tovric-vessad." in agent.log_text()
    start_daemon(SMALL)
    # The scalars ask again at once, the tables when their 20 s are over.
    assert value(agent, "prodName") == b"Tovric Kelv Server"
    assert value(agent, "numCpuCores") == 8
    time.sleep(max(0, failed + system.REFRESH_INTERVAL + 2 - time.monotonic()))
    assert_tables(agent, expected_tree.load(SMALL))


@pytest.mark.slow
@pytest.mark.parametrize("kill", [signal.SIGTERM, signal.SIGKILL])
def test_a_restart_of_the_daemon_empties_no_table(kill, start_daemon, start_agent):
    """A refresh sees that its connection has ended before it uses it."""
    daemon = start_daemon(SMALL)
    agent = start_agent()
    allow_absence(agent)
    host = expected_tree.load(SMALL)
    assert_tables(agent, host)
    filled = time.monotonic()
    daemon.signal(kill)
    daemon.process.wait(10)
    start_daemon(SMALL)
    time.sleep(max(0, filled + system.REFRESH_INTERVAL + 2 - time.monotonic()))
    refreshes = agent.log_text().count("SNMPRask: refreshing cache completed.")
    assert_tables(agent, host)
    assert agent.log_text().count("SNMPRask: refreshing cache completed.") == refreshes + 1
    assert "SNMPRask: tables are empty" not in agent.log_text()


@pytest.mark.slow
def test_a_new_description_is_seen_after_twenty_seconds(start_daemon, start_agent, directory):
    path = directory / "host.yaml"
    path.write_text(SMALL.read_text())
    daemon = start_daemon(path)
    agent = start_agent()
    assert value(agent, "vmDisplayName", 0) == b"web-1"
    read = time.monotonic()
    path.write_text(SMALL.read_text().replace("name: web-1", "name: web-2"))
    daemon.signal(signal.SIGHUP)
    system.wait_until(lambda: daemon.log_text().count(str(path)) > 1, "the reload in the log")
    assert value(agent, "vmDisplayName", 0) == b"web-1"
    time.sleep(max(0, read + system.REFRESH_INTERVAL + 2 - time.monotonic()))
    assert value(agent, "vmDisplayName", 0) == b"web-2"


@pytest.mark.slow
def test_the_tables_survive_the_daemon_until_the_next_refresh(start_daemon, start_agent):
    daemon = start_daemon(SMALL)
    agent = start_agent()
    allow_absence(agent)
    assert_tables(agent, expected_tree.load(SMALL))
    filled = time.monotonic()
    daemon.stop()
    assert_tables(agent, expected_tree.load(SMALL))
    assert value(agent, "prodName") == b"Tovric Kelv Server"
    time.sleep(max(0, filled + system.REFRESH_INTERVAL + 2 - time.monotonic()))
    assert_tables(agent, None)


@pytest.mark.parametrize("background", [False, True], ids=["in the foreground", "in the background"])
@pytest.mark.parametrize("unprivileged", [False, True], ids=["as root", "as its own user"])
def test_the_agent_serves_the_host(start_daemon, start_agent, unprivileged, background):
    """The module is initialised as root before the agent forks and drops its privileges."""
    account = system.agent_account() if unprivileged else None
    user = account and account.pw_name
    start_daemon(SMALL, *(["--ticket-group", "Debian-snmp"] if user else []))
    agent = start_agent(user=user, background=background)
    if background:
        # The parent's connection is not the child's: the child makes its own.
        agent.allow_log(r"SNMP\w+: .*")
    assert [i.oid for i in agent.client.walk()] == oids(expected_tree.load(SMALL))
    assert os.stat(f"/proc/{agent.pid}").st_uid == (account.pw_uid if account else os.geteuid())


def test_an_agent_that_cannot_read_the_ticket_serves_empty_tables(start_daemon, start_agent):
    account = system.agent_account()
    start_daemon(SMALL)
    agent = start_agent(user=account.pw_name, background=True)
    allow_absence(agent)
    agent.allow_log("Failed to acquire local ticket: .*", "OrdaneClient::.*", r".*Permission denied.*",
                    system.OUTAGE_LOG)
    assert_tables(agent, None)
    assert "Failed to acquire local ticket: " in agent.log_text()
    assert value(agent, "prodName") in (b"", b"Tovric Kelv Server")


def test_hangup_makes_the_agent_load_the_module_anew(start_daemon, start_agent):
    start_daemon(SMALL)
    agent = start_agent()
    agent.allow_log(r"Reconfiguring daemon.*", "NET-SNMP version .* restarted",
                    "duplicate registration: MIB modules ipAddressTable .*")
    host = expected_tree.load(SMALL)
    for _ in range(3):
        assert [i.oid for i in agent.client.walk()] == oids(host)
        before = agent.log_text().count("restarted")
        os.kill(agent.pid, signal.SIGHUP)
        system.wait_until(lambda: agent.log_text().count("restarted") > before,
                          "the agent to read its configuration again")
        system.wait_until(agent.answers, "the agent to answer")
    assert [i.oid for i in agent.client.walk()] == oids(host)


# The public community of Debian's agent, which everybody may read who has an account on the host.
DEBIAN_ACCESS = "view systemonly included .1.3.6.1.2.1.1\nrocommunity public 127.0.0.1 -V systemonly"


@pytest.mark.parametrize("version_2c", [True, False], ids=["version 2c", "version 3"])
def test_the_packaged_snippet_opens_the_host_to_those_of_its_recipe_only(start_daemon, start_agent, version_2c):
    start_daemon(SMALL)
    snippet = (system.ROOT / "packaging/snmpd-kelv.conf").read_text()
    recipe = "#rocommunity COMMUNITY 192.0.2.1 -V kelv" if version_2c else "#rouser manager priv -V kelv"
    assert recipe in snippet
    used = recipe[1:].replace("COMMUNITY 192.0.2.1", "secret 127.0.0.1")
    user = '\ncreateUser manager SHA-256 "authentication" AES "privacy phrase"'
    agent = start_agent(module=None, access=DEBIAN_ACCESS, configuration=snippet.replace(recipe, used) + user)
    assert [i.oid for i in agent.client.walk()] == []
    phrases = ["-a", "SHA-256", "-A", "authentication", "-x", "AES", "-X", "privacy phrase"]
    access = ["-v2c", "-c", "secret"] if version_2c else ["-v3", "-l", "authPriv", "-u", "manager", *phrases]
    result = net_snmp.run("snmpget", *access, "-Oqv", "127.0.0.1", "TOVRIC-KELV-MIB::vmDisplayName.0")
    assert (result.returncode, result.stdout.strip().strip('"')) == (0, "web-1")
    if not version_2c:
        weaker = net_snmp.run("snmpget", "-v3", "-l", "noAuthNoPriv", "-u", "manager", "127.0.0.1",
                              "TOVRIC-KELV-MIB::vmDisplayName.0")
        assert weaker.returncode != 0
