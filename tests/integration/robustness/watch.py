"""Watches an agent during a fault: that the process and its descriptors stay, and how soon it answers sysUpTime."""

import contextlib
import math
import os
import pathlib
import re
import socket
import threading
import time

import system

# What the running test has reported.
reported = []

# What a shared computer, or a sanitizer, may add to a budget, in seconds.
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

    def summary(self):
        return {"p50": self.percentile(50), "p99": self.percentile(99), "max": self.percentile(100),
                "requests": len(self.seconds)}


class Prober:
    """Requests sysUpTime at a steady pace, with at most WAITING requests unanswered, and measures the delay of each
    answer from the time when its request was due."""

    FIRST = 0x10000000
    INTERVAL = 0.03
    # A socket with Linux's default buffer of 212,992 bytes holds 256 of them and drops what comes then.
    WAITING = 200

    def __init__(self, address=("127.0.0.1", 161)):
        self.address = address
        self.sent, self.delays = {}, {}

    def __enter__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(self.address)
        self.socket.settimeout(0.2)
        self.stopping, self.asked = threading.Event(), threading.Event()
        self.threads = [threading.Thread(target=loop, daemon=True) for loop in (self._ask, self._listen)]
        for thread in self.threads:
            thread.start()
        return self

    def _ask(self):
        number = self.FIRST
        due = time.monotonic()
        while not self.stopping.is_set():
            if len(self.sent) - len(self.delays) >= self.WAITING:
                self.stopping.wait(self.INTERVAL)
                continue
            self.sent[number] = due
            try:
                self.socket.send(_request(number))
            except ConnectionRefusedError:
                return          # the agent has ended; check() fails
            number += 1
            due += self.INTERVAL
            self.stopping.wait(max(0, due - time.monotonic()))

    def _listen(self):
        while not self.asked.is_set() or len(self.delays) < len(self.sent):
            try:
                answer = self.socket.recv(65535)
            except TimeoutError:
                if self.asked.is_set() and time.monotonic() > self.last + 10 + SLACK:
                    return
                continue
            except ConnectionRefusedError:
                return
            now = time.monotonic()
            at = answer.index(b"\xa2") + 2
            assert answer[at:at + 2] == b"\x02\x04", answer
            number = int.from_bytes(answer[at + 2:at + 6], "big")
            self.delays[number] = now - self.sent[number]

    def __exit__(self, *_):
        asking, listening = self.threads
        self.stopping.set()
        asking.join()       # may still send one
        self.last = time.monotonic()
        self.asked.set()
        listening.join()
        self.socket.close()

    def check(self, budget):
        """Every request was answered, each within the budget and the slack."""
        assert self.delays, "sysUpTime was never answered"
        start = self.sent[self.FIRST]
        lost = [round(self.sent[number] - start, 2) for number in self.sent if number not in self.delays]
        assert not lost, (f"{len(lost)} of {len(self.sent)} requests for sysUpTime were never answered, "
                          f"at {lost[:20]} s; the slowest answer took {max(self.delays.values()):.2f} s")
        assert max(self.delays.values()) < budget + SLACK

    def summary(self):
        delays = Delays()
        delays.add(self)
        return delays.summary()


@contextlib.contextmanager
def unharmed(agent, budget):
    """Meanwhile the agent answers requests for sysUpTime within the budget; at the end it is the same process, with as
    much open as before."""
    before = descriptors(agent.pid)
    with Prober() as prober:
        yield prober
    prober.check(budget)
    assert agent.is_alive(), "the agent ended"
    assert descriptors(agent.pid) == before


def report(fault, does, seconds, delays=None, **more):
    """Adds a line to the report: fault, effect, duration in seconds, and the delays (a Prober, or Delays) meanwhile."""
    reported.append({"fault": fault, "does": does, "seconds": seconds, **(delays.summary() if delays else {}), **more})


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
    """A line of a process's status: memory in kilobytes."""
    return int(re.search(rf"^{key}:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)[1])
