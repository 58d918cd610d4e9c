"""The two programs under test, as real processes: the management daemon and the agent with the module in it."""

import ctypes
import os
import pathlib
import pwd
import re
import shutil
import signal
import socket
import subprocess
import time

import pytest
from snmp_client import Client

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("KELV_BUILD", ROOT / "build/release")).resolve()
MODULE = BUILD / "apps/snmp/SNMPKelv.so"
DAEMON = BUILD / "apps/vessad/tovric-vessad"
HOSTS = ROOT / "hosts"
DAEMON_ADDRESS = ("127.0.0.1", 902)

SNMPD = shutil.which("snmpd", path=os.environ["PATH"] + ":/usr/sbin:/sbin")

# How often the agent's cache may be rebuilt, in seconds.
REFRESH_INTERVAL = 20

# What the agent's log may hold in any test: net-snmp's own start and stop, and the module's progress.
_USUAL_LOG = [
    r"NET-SNMP version .*", r"Created directory: .*", r"Received TERM .*shutting down.*", r"", r"Turning on AgentX.*",
    r"SNMP\w+: Initialized\.?", r"SNMPRask: start refreshing cache\.\.\.", r"SNMPRask: refreshing cache completed\.",
    r"SNMPRaskRefreshCache: Examining \d+ VMs found\.",
]

# The backtrace of an exception: where it was thrown, then its frames.
BACKTRACE_LOG = [r"\S+:\d+ .*", r".*\[0x[0-9a-f]+\]"]

# A disk on a datastore that the host does not know.
NO_DATASTORE_LOG = [r"OrdaneClient::GetDatastoreInfo: :.*", *BACKTRACE_LOG]

# What the module logs about a described host that leaves things out.
DATA_LOG = [
    r"SetVMInfo: invalid VM Id: .*", r"SetNicInfo: Null device backing\.",
    r"SetStorageInfo: cannot find unit number for disk .*",
    r"SetCdromInfo:  No unit number for cdrom\.", r"SetCdromInfo:  No controller key for cdrom\.",
    r"SetCdromInfo:  No IDE controller with key \d+ exists", r"SetCdromInfo:  No ConnectInfo found for cdrom \d+",
    r"SetCdromInfo: Found (cdrom|floppy) of unknown backing\.", r"SetFloppyInfo: No unit number for floppy\.",
    r"SetFloppyInfo:  Null ConnectInfo for floppy\.",
    r"SetDiskResource: skipped disk not backed by drell .*", r"SetDiskResource: no datastore info for .*",
    r"SetDiskResource: found vdisk of unknown backing\.", r"OrdaneClient::RetrieveStats: couldn't find stats for .*",
]

# Of an agent whose tables are empty because it cannot reach its daemon, or were.
OUTAGE_LOG = r"SNMPRask: tables (are empty until tovric-vessad delivers the VMs|have been empty for \d+ s" \
             r"|are filled again after \d+ s)\."


def sanitizer_libraries():
    """The sanitizers that the module was built with: a program built without them must preload them."""
    listed = subprocess.run(["ldd", MODULE], capture_output=True, text=True).stdout
    return re.findall(r"=> (\S*/lib(?:asan|ubsan)\.so\S*)", listed)


# For tests of how little memory is used, or of what happens without any.
needs_plain_build = pytest.mark.skipif(bool(sanitizer_libraries()), reason="the sanitizers use memory of their own")


def wait_until(condition, what, timeout=15.0):
    """Returns the first true result of condition; fails after `timeout` seconds with `what` in the message."""
    deadline = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"{what}: not within {timeout} s"
        time.sleep(0.02)


def _die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def is_alive(pid):
    """Whether a process that is not our child runs."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except FileNotFoundError:
        return False


def accepts_connections():
    """Whether something listens on the daemon's port."""
    try:
        socket.create_connection(DAEMON_ADDRESS, timeout=1).close()
        return True
    except ConnectionRefusedError:
        return False


def agent_account():
    """The account that Debian runs the agent as; skips the test where this process cannot become it."""
    try:
        account = pwd.getpwnam("Debian-snmp")
    except KeyError:
        pytest.skip("there is no user Debian-snmp")
    # A user namespace maps the one user who made it and nobody else.
    ranges = [tuple(map(int, line.split())) for line in open("/proc/self/uid_map", encoding="ascii")]
    if os.geteuid() != 0 or not any(first <= account.pw_uid < first + count for first, _, count in ranges):
        pytest.skip("only root, outside a user namespace, can become another user")
    return account


class Daemon:
    """tovric-vessad on the loopback port that the module connects to; host None is the built-in one."""

    def __init__(self, host, directory, *options, ready=True, program=DAEMON):
        self.tickets = directory / "tickets"
        self.state = directory / "state"
        for folder in (self.tickets, self.state):
            folder.mkdir(exist_ok=True)
            folder.chmod(0o755)
        self.log = directory / "vessad.log"
        self.output = self.log.open("ab")
        self.started = time.monotonic()
        self.process = subprocess.Popen(
            [program, *(["--host", host] if host else []), "--listen", "{}:{}".format(*DAEMON_ADDRESS),
             "--ticket-dir", self.tickets, "--state-dir", self.state, "--foreground", *options],
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=subprocess.STDOUT, preexec_fn=_die_with_parent)
        if ready:
            wait_until(self.is_listening, "the daemon to listen")

    def is_listening(self):
        assert self.process.poll() is None, f"the daemon ended with {self.process.returncode}: {self.log_text()}"
        return accepts_connections()

    def elapsed(self):
        """More seconds than the daemon has counted since it started."""
        return time.monotonic() - self.started + 1

    def log_text(self):
        return self.log.read_text(errors="replace")

    def signal(self, number):
        self.process.send_signal(number)

    def stop(self):
        """Ends the daemon as an operator would; returns its exit code."""
        if self.process.poll() is None:
            self.process.terminate()
        try:
            return self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise
        finally:
            self.output.close()


class Agent:
    """snmpd with the module loaded by dlmod, as root or as `user`; background: it forks, as it does by default.

    `module`: another file to load in its place, or None; `access`: who may read what; `configuration`: further lines of
    its configuration file; `under`: a command that runs it.
    """

    def __init__(self, directory, user=None, background=False, timeout=10, module=MODULE,
                 access="rocommunity public 127.0.0.1", configuration="", under=(), port=161):
        self.log = directory / "snmpd.log"
        self.allowed = []
        persistent = directory / "persistent"
        persistent.mkdir(exist_ok=True)
        configuration_file = directory / "snmpd.conf"
        configuration_file.write_text(f"""
agentaddress udp:127.0.0.1:{port}
dontLogTCPWrappersConnects yes
{access}
createUser kelv SHA authentication AES encryption
rouser kelv priv
{f"dlmod SNMPKelv {module}" if module else ""}
{configuration}
""")
        self.pid_file = directory / "snmpd.pid"
        self.pid_file.unlink(missing_ok=True)
        command = [*under, SNMPD, "-C", "-c", configuration_file, "-Lf", self.log, "-r", "-p", self.pid_file]
        if user:
            entry = pwd.getpwnam(user)
            os.chown(persistent, entry.pw_uid, entry.pw_gid)
            command += ["-u", user, "-g", str(entry.pw_gid)]
        if not background:
            command += ["-f"]
        # A sanitizer's report ends the agent. What the agent itself leaks at its end is its own affair.
        self.reports = directory / "sanitizer"
        options = f"log_path={self.reports}:detect_leaks=0:print_stacktrace=1"
        preloaded = [*sanitizer_libraries(), *filter(None, [os.environ.get("LD_PRELOAD")])]
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env={**os.environ, "SNMP_PERSISTENT_DIR": str(persistent), "SNMPCONFPATH": str(directory), "MIBS": "",
                 "SNMPDLMODPATH": str(MODULE.parent), "LD_PRELOAD": ":".join(preloaded), "ASAN_OPTIONS": options,
                 "UBSAN_OPTIONS": options},
            preexec_fn=None if background else _die_with_parent)
        if background:
            assert self.process.wait(timeout) == 0

            def pid():
                return self.pid_file.exists() and self.pid_file.read_text().strip()

            self.pid = int(wait_until(pid, "the agent's pid"))
        else:
            self.pid = self.process.pid
        self.client = Client(("127.0.0.1", port), timeout=timeout)
        wait_until(self.answers, "the agent to answer", timeout)

    def answers(self):
        assert self.is_alive(), f"the agent ended: {self.log_text()}"
        try:
            return self.client.get((1, 3, 6, 1, 2, 1, 1, 3, 0))
        except ConnectionRefusedError:
            return None

    def is_alive(self):
        return is_alive(self.pid)

    def log_text(self):
        texts = [self.log, *self.reports.parent.glob(self.reports.name + ".*")]
        return "".join(text.read_text(errors="replace") for text in texts if text.exists())

    def allow_log(self, *patterns):
        """Lines that this test may find in the agent's log besides the usual ones."""
        self.allowed += patterns

    def surprises(self):
        """The lines of the log that are not expected."""
        expected = [re.compile(pattern) for pattern in _USUAL_LOG + self.allowed]
        return [line for line in self.log_text().splitlines() if not any(p.fullmatch(line) for p in expected)]

    def stop(self):
        """Ends the agent; it must have run until now and must end on SIGTERM."""
        self.client.close()
        alive = self.is_alive()
        if alive:
            os.kill(self.pid, signal.SIGTERM)
        try:
            if self.pid == self.process.pid:
                code = self.process.wait(10)
            else:
                wait_until(lambda: not self.is_alive(), "the agent to end", 10)
                code = 0
        except (subprocess.TimeoutExpired, AssertionError):
            os.kill(self.pid, signal.SIGKILL)
            raise
        assert alive, f"the agent died: {self.log_text()}"
        assert code == 0, f"the agent ended with {code}"
        surprises = self.surprises()
        assert not surprises, "unexpected lines in the agent's log"
