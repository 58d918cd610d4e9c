"""Watches an agent while something goes wrong: is it the same process, does it keep its descriptors, how soon does it answer."""

import contextlib
import json
import math
import os
import pathlib
import re
import socket
import threading
import time

import system

# Faults, times and delays are appended to this file, one JSON object a line; fault_table.py prints it.
REPORT = os.environ.get("KELV_FAULT_REPORT")

# What a shared machine, or a sanitizer, may add to a budget, in seconds.
SLACK = 10.0 if system.sanitizer_libraries() else 3.0

_UPTIME = bytes.fromhex("300e300c06082b060102010103000500")


def _request(number):
    """GET sysUpTime.0 in version 2c."""
    pdu = b"\x02\x04" + number.to_bytes(4, "big") + bytes.fromhex("020100020100") + _UPTIME
    body = b"\x02\x01\x01\x04\x06public\xa0" + bytes([len(pdu)]) + pdu
    return b"\x30" + bytes([len(body)]) + body


class Delays:
    """How long answers took, in seconds."""

    def __init__(self):
        self.seconds = []

    def add(self, prober):
        self.seconds += prober.delays.values()

    def percentile(self, percent):
        ordered = sorted(self.seconds)
        return ordered[max(0, math.ceil(len(ordered) * percent / 100) - 1)]

    def figures(self):
        return {"p50": self.percentile(50), "p99": self.percentile(99), "max": self.percentile(100), "requests": len(self.seconds)}


class Prober:
    """Asks for sysUpTime at a steady pace, whether answers come or not, and notes how long each one took."""

    FIRST = 0x10000000
    INTERVAL = 0.03

    def __init__(self, address=("127.0.0.1", 161)):
        self.address = address
        self.asked, self.delays = {}, {}

    def __enter__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(self.address)
        self.socket.settimeout(0.2)
        self.stopping = threading.Event()
        self.threads = [threading.Thread(target=loop, daemon=True) for loop in (self._ask, self._listen)]
        for thread in self.threads:
            thread.start()
        return self

    def _ask(self):
        number = self.FIRST
        due = time.monotonic()
        while not self.stopping.is_set():
            self.asked[number] = due
            try:
                self.socket.send(_request(number))
            except ConnectionRefusedError:
                return          # the agent is gone; check() tells
            number += 1
            due += self.INTERVAL
            self.stopping.wait(max(0, due - time.monotonic()))

    def _listen(self):
        while not self.stopping.is_set() or len(self.delays) < len(self.asked):
            try:
                answer = self.socket.recv(65535)
            except TimeoutError:
                if self.stopping.is_set() and time.monotonic() > self.last + 10:
                    return
                continue
            except ConnectionRefusedError:
                return
            now = time.monotonic()
            at = answer.index(b"\xa2") + 2
            assert answer[at:at + 2] == b"\x02\x04", answer
            number = int.from_bytes(answer[at + 2:at + 6], "big")
            self.delays[number] = now - self.asked[number]

    def __exit__(self, *_):
        self.last = time.monotonic()
        self.stopping.set()
        for thread in self.threads:
            thread.join()
        self.socket.close()

    def check(self, budget):
        """Every request was answered, each within the budget and the slack."""
        assert self.delays, "sysUpTime was never answered"
        lost = len(self.asked) - len(self.delays)
        assert lost == 0, f"{lost} of {len(self.asked)} requests for sysUpTime were never answered"
        assert max(self.delays.values()) < budget + SLACK

    def figures(self):
        delays = Delays()
        delays.add(self)
        return delays.figures()


@contextlib.contextmanager
def unharmed(agent, budget):
    """Meanwhile the agent answers requests for sysUpTime within the budget; at the end it is the same process, with as much
    open as before."""
    before = descriptors(agent.pid)
    with Prober() as prober:
        yield prober
    prober.check(budget)
    assert agent.is_alive(), "the agent ended"
    assert descriptors(agent.pid) == before


def report(fault, does, seconds, delays=None, **more):
    """Notes a fault, what the agent does, how long that took, and the delays (of a Prober, or Delays) meanwhile."""
    if REPORT:
        test = os.environ["PYTEST_CURRENT_TEST"].rpartition(" ")[0].removeprefix("tests/integration/robustness/")
        line = {"fault": fault, "does": does, "seconds": seconds, "test": test, **(delays.figures() if delays else {}), **more}
        with open(REPORT, "a", encoding="utf-8") as stream:
            stream.write(json.dumps(line) + "\n")


def descriptors(pid):
    """What a process has open, as a sorted list of kinds and paths."""
    found = []
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        try:
            found.append(re.sub(r"\[\d+\]", "", os.readlink(entry)))
        except FileNotFoundError:
            pass
    return sorted(found)


def processor_seconds(pid):
    """The processor time that a process has used."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def memory(pid, key="VmRSS"):
    """A figure of a process's memory in kilobytes."""
    return int(re.search(rf"^{key}:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)[1])
