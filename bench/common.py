"""What the benchmarks share: a described host's daemon, agents whose time is moved, and figures with their bars."""

import os
import pathlib
import sys
import tempfile
import time
import unittest.mock

BENCH = pathlib.Path(__file__).resolve().parent
sys.path += [str(BENCH.parent / "tests/integration"), str(BENCH.parent / "tests/integration/robustness")]

import host         # noqa: E402
import mib          # noqa: E402
import network      # noqa: E402
import system       # noqa: E402

PROGRAMS = system.BUILD / "bench"
YARDSTICK = PROGRAMS / "yardstick.so"
FIRST_NAME = mib.oid("vmDisplayName", 0)
STEP = system.REFRESH_INTERVAL + 10     # seconds


class NotServed(Exception):
    """The agent has no VM to show; the message is the last line of its log."""

    def __init__(self, agent):
        super().__init__(agent.log_text().strip().rpartition("\n")[2])


class Clock:
    """The wall clock of agents: it stands still, so that their tables are rebuilt when the benchmark wants it."""

    def __init__(self, directory):
        self.file = directory / "clock"
        self.now = int(time.time())
        self._write()

    def _write(self):
        # In place: agents have mapped the file.
        with self.file.open("r+b" if self.file.exists() else "wb") as stream:
            stream.write(self.now.to_bytes(8, "little"))

    def advance(self):
        """By more than the interval of refreshes."""
        self.now += STEP
        self._write()


class Figures:
    """Prints figures with their bars, and remembers whether one is past its own."""

    def __init__(self):
        self.good = True

    def judge(self, what, figure, most, more="", digits=2):
        """`figure`: None when it could not be measured."""
        shown = "not served" if figure is None else f"{figure:.{digits}f}"
        self.good = self.good and figure is not None and float(shown) <= most
        print(f"{what}: {shown} (at most {most}){more}", flush=True)

    def exit_code(self):
        return 0 if self.good else 1


def new_directory(stack):
    """A folder that goes with `stack`; every user can enter it."""
    directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="kelv-bench-")))
    directory.chmod(0o755)
    return directory


def start_daemon(vms, directory, stack, **how):
    """In a network of its own, which this thread enters: a daemon with a described host. It goes with `stack`."""
    network.enter_new()
    described = directory / "host.yaml"
    with described.open("w") as file:
        host.write(vms, file)
    daemon = system.Daemon(described, directory, ready=False, **how)
    stack.callback(daemon.stop)
    system.wait_until(daemon.is_listening, "the daemon to listen", 120)
    return daemon


def start_agent(directory, stack, clock=None, **how):
    """In this thread's network. Its log may hold anything. It goes with `stack`."""
    moved = {}
    if clock:
        moved = {"LD_PRELOAD": str(YARDSTICK), "KELV_BENCH_CLOCK": str(clock.file),
                 "KELV_BENCH_MODULE": str(system.MODULE)}
    with unittest.mock.patch.dict(os.environ, moved):
        agent = system.Agent(directory, timeout=30, **how)
    agent.allow_log(".*")
    stack.callback(agent.stop)
    return agent


def first_name(agent):
    """Requests it; returns the seconds that the response took, with the refresh when one is due. Throws NotServed."""
    started = time.monotonic()
    name, = agent.client.get(FIRST_NAME)
    took = time.monotonic() - started
    if name.type != "OCTET STRING":
        raise NotServed(agent)
    return took


def refresh(agent, clock):
    """Makes the agent rebuild its tables; as first_name()."""
    clock.advance()
    return first_name(agent)
