"""Texts of every length and every byte in every string column: served whole or truncated, the agent alive."""

import re

import expected_tree
import mib
import pytest
import watch
from fake_daemon import GoodBehaviour

# Texts as they stand in the XML, bytes that are no UTF-8 as lone surrogates.
TEXTS = {
    "2559 bytes": "x" * 2559,
    "2560 bytes": "x" * 2560,
    "100,000 bytes": "y" * 100_000,
    "1280 characters of two bytes": "é" * 1280,
    "a character of three bytes over the end": "x" * 2558 + "€",
    "a character of four bytes over the end": "x" * 2557 + "\U0001F427",
    "100,000 characters of four bytes": "\U0001F427" * 100_000,
    "bytes that start nothing": "\udcff\udcfe\udc80" * 10,
    "an unfinished character": "abc\udce2\udc82",
    "3,000 bytes that start nothing": "\udcff" * 3000,
    "3,000 continuation bytes": "\udc80" * 3000,
    "2,600 starts of characters": "\udcf0" * 2600,
    "an overlong slash": "\udcc0\udcaf",
    "a lone surrogate's bytes": "\udced\udca0\udc80",
    "beyond Unicode": "\udcf4\udc90\udc80\udc80",
    "control characters": "".join(map(chr, range(1, 32))) + "\x7f",
    "terminal sequences": "\x1b[2J\x1b]0;title\x07\r\n",
    "C1 controls": "".join(map(chr, range(0x80, 0xa0))),
    "formats": "%s%n%d%x%%" * 20,
    "white space": " \t\n ",
    "a single space": " ",
    "nothing": "",
    "direction marks": "\u202eabc\u200f\ufeff",
}


def host_of(text):
    """A host with the text in every place that a string column shows."""
    device = {"type": "DeviceBackingInfo", "deviceName": text}
    info = {"label": text, "summary": text}
    devices = [
        {"type": "VirtualLsiLogicController", "key": "1", "deviceInfo": info, "busNumber": "0"},
        {"type": "VirtualDisk", "key": "2", "deviceInfo": info, "unitNumber": "0", "backing": device},
        {"type": "VirtualEthernetCard", "key": "4", "deviceInfo": info, "backing": device, "macAddress": text},
        {"type": "VirtualIDEController", "key": "5", "deviceInfo": info, "busNumber": "0"},
        {"type": "VirtualCdrom", "key": "6", "deviceInfo": info, "controllerKey": "5", "unitNumber": "0",
         "connectable": {"connected": "true"}, "backing": device},
        {"type": "VirtualFloppy", "key": "7", "deviceInfo": info, "unitNumber": "0",
         "connectable": {"connected": "false"}, "backing": device},
    ]
    return {
        "about": {"name": text, "version": text, "build": text},
        "hardware": {"cpuInfo": {"numCpuCores": "8"}},
        "serviceConsole": {"serviceConsoleReserved": "1048576", "unreserved": "1048576"},
        "datastores": [],
        "vms": [{"id": "16", "config": {"name": text, "guestFullName": text, "files": {"vmPathName": text},
                                        "hardware": {"numCPU": "1", "memoryMB": "1", "device": devices}},
                 "runtime": {"powerState": "poweredOn"}, "guest": {"guestState": text},
                 "stats": {f"disk.{name}": {text: "1"} for name in ("read", "write")}}],
    }


MARK = "mark"


def marked(host):
    """The instances whose text comes from the host; `host` has MARK in every place for a text."""
    return [i for i in expected_tree.tree(host) if i.value == MARK.encode()]


def truncations(text, most):
    """The first `most` bytes at most, not ending inside a character; what is no character stands for itself."""
    if len(text) <= most:
        return {text}
    # Inside well-formed text there is one right place. Elsewhere the last few bytes are the agent's choice.
    try:
        text.decode()
        return {text[:most].decode(errors="ignore").encode()}
    except UnicodeDecodeError:
        return {text[:length] for length in range(most - 3, most + 1)}


@pytest.mark.parametrize("name", TEXTS)
def test_every_string_column_carries_every_text(name, shifted_agent, fake, directory):
    text = TEXTS[name]
    fake.behave(GoodBehaviour(host_of(text), directory))
    agent = shifted_agent()
    before = watch.descriptors(agent.pid)
    sent = text.encode(errors="surrogateescape")
    whole = expected_tree.tree(host_of(MARK))
    without_text = {i.oid: i.value for i in expected_tree.tree(host_of(""))}
    sizes = {i.oid: declared.size for i in whole for declared in mib.objects().values()
             if i.oid[:len(declared.oid)] == declared.oid}
    with watch.Prober() as prober:
        for _ in range(3):
            agent.refresh()
            for oid in (i.oid for i in marked(host_of(MARK))):
                found, = agent.client.get(oid)
                assert found.type == "OCTET STRING", (oid, found)
                allowed = truncations(sent or without_text[oid], sizes[oid])
                assert found.value in allowed, (oid, found.value[:80], len(found.value))
        walked = agent.client.walk()
        assert [i.oid for i in walked] == [i.oid for i in whole]
        assert [i.oid for i in agent.client.bulk_walk(repetitions=3)] == [i.oid for i in whole]
        from_host = {m.oid for m in marked(host_of(MARK))}
        assert [i for i in walked if i.type == "OCTET STRING" and i.oid not in from_host] == \
            [i for i in whole if i.type == "OCTET STRING" and i.value != MARK.encode()]
    prober.check(1)
    assert watch.descriptors(agent.pid) == before
    watch.report(f"every string is {name}",
                 "serves it, truncated to the size in the MIB before a character that does not fit",
                 prober.summary()["max"], prober)


# Members whose texts the API limits to a few.
ENUMERATIONS = {"type", "powerState", "connected"}


def with_one_text_marked(value):
    """Copies of a host, each with MARK in the place of one text."""
    if isinstance(value, str):
        yield MARK
        return
    for key, member in value.items() if isinstance(value, dict) else enumerate(value):
        if key not in ENUMERATIONS:
            for changed in with_one_text_marked(member):
                copy = value.copy()
                copy[key] = changed
                yield copy


def test_host_of_has_the_text_for_every_column_that_can_take_one(host):
    taken, found = {i.oid for i in marked(host_of(MARK))}, set()
    for changed in with_one_text_marked({key: host[key] for key in ("about", "vms", "datastores")}):
        try:
            found |= {i.oid for i in marked({**host, **changed})}
        except ValueError:      # the place was a number's
            pass
    assert taken and found == taken


FORGED = "\\nSNMPKelv: forged"
FORGING_HOST = f"""
about: {{name: Tovric, version: "3{FORGED}.0.2", build: "1"}}
vms:
  - id: "vm{FORGED} id"
    config:
      name: "name{FORGED} name"
      guestFullName: Debian
      hardware:
        numCPU: 1
        memoryMB: 512
        device:
          - {{type: VirtualDisk, key: 2000, deviceInfo: {{label: "disk{FORGED} label", summary: s}},
             backing: {{type: DeviceBackingInfo, deviceName: "disk{FORGED} name"}}}}
          - {{type: VirtualDisk, key: 2001, unitNumber: 1,
             deviceInfo: {{label: "disk{FORGED} without store", summary: s}},
             backing: {{type: FileBackingInfo, fileName: "[s] d", datastore: "ds{FORGED} datastore"}}}}
    runtime: {{powerState: poweredOn}}
    guest: {{guestState: running}}
"""


def test_no_text_of_a_host_can_forge_a_line_of_a_log(directory, start_daemon, shifted_agent):
    """Names and messages that hold a line end are escaped in the logs of both sides, and never begin a line there."""
    file = directory / "forging.yaml"
    file.write_text(FORGING_HOST)
    daemon = start_daemon(file, "--log-level", "debug")
    agent = shifted_agent()
    assert agent.refresh()[1]
    agent.client.bulk_walk()
    log = agent.log_text()
    for text in ("invalid VM Id: vm", "for disk disk", "stats for disk.numberRead.disk", "no datastore info for disk",
                 "invalid version: 3"):
        assert re.search(re.escape(text) + r".*\\x0aSNMPKelv: forged", log), text
    assert "\nSNMPKelv: forged" not in log
    assert "\nSNMPKelv: forged" not in daemon.log_text()
