"""The MIB file against what the module registers, as net-snmp's own parser reads the file."""

import os
import re
import subprocess

import pytest
import system
from expected_tree import ENTERPRISE

INTEGER, TEXT, IDENTIFIER, COUNTER = "Integer32", "OCTET STRING", "OBJECT IDENTIFIER", "Counter64"

# The names of the agent's own table of registrations, indexed by where each is.
NS_MODULE_NAME = (1, 3, 6, 1, 4, 1, 8072, 1, 2, 1, 1, 4)

# What the module registers: name, place under the enterprise, syntax.
SCALARS = [
    ("prodName", "1.1", TEXT), ("prodVersion", "1.2", TEXT), ("prodOID", "1.3", IDENTIFIER), ("prodBuild", "1.4", TEXT),
    ("numCpuCores", "3.1.1", INTEGER),
    ("memTotal", "3.2.1", INTEGER), ("memReserved", "3.2.2", INTEGER), ("memUnreserved", "3.2.3", INTEGER),
    ("kernelLoaded", "4.1.1.1", TEXT),
]

# Table, place of its entry, columns from 1 on, and the columns that it is indexed by.
TABLES = [
    ("vmTable", "2.1.1", ["vmIdx"], [
        ("vmIdx", INTEGER), ("vmDisplayName", TEXT), ("vmConfigFile", TEXT), ("vmGuestOS", TEXT), ("vmMemSize", INTEGER),
        ("vmState", TEXT), ("vmVMID", INTEGER), ("vmGuestState", TEXT)]),
    ("hbaTable", "2.2.1", ["hbaVmIdx", "hbaBus"], [
        ("hbaVmIdx", INTEGER), ("hbaBus", INTEGER), ("hbaLabel", TEXT), ("hbaType", TEXT)]),
    ("tgtTable", "2.3.1", ["tgtVmIdx", "tgtUnit"], [("tgtVmIdx", INTEGER), ("tgtUnit", INTEGER), ("tgtLabel", TEXT)]),
    ("nicTable", "2.4.1", ["nicVmIdx", "nicIdx"], [
        ("nicVmIdx", INTEGER), ("nicIdx", INTEGER), ("nicLabel", TEXT), ("nicNetwork", TEXT), ("nicDevice", TEXT)]),
    ("floppyTable", "2.5.1", ["fdVmIdx", "fdUnit"], [
        ("fdVmIdx", INTEGER), ("fdUnit", INTEGER), ("fdBacking", TEXT), ("fdConnected", TEXT)]),
    ("cdromTable", "2.6.1", ["cdVmIdx", "cdIdeIndex"], [
        ("cdVmIdx", INTEGER), ("cdIdeIndex", INTEGER), ("cdBacking", TEXT), ("cdConnected", TEXT)]),
    ("cpuTable", "3.1.2.1", ["cpuVMID"], [("cpuVMID", INTEGER), ("cpuShares", INTEGER), ("cpuUsedSec", INTEGER)]),
    ("memTable", "3.2.4.1", ["memVMID"], [
        ("memVMID", INTEGER), ("memShares", INTEGER), ("memConfiguredKB", INTEGER), ("memActive", INTEGER)]),
    ("diskTable", "3.3.1", ["diskIdx"], [
        ("diskIdx", INTEGER), ("diskName", TEXT), ("diskVMID", INTEGER), ("diskShares", INTEGER), ("diskNumRead", INTEGER),
        ("diskRead", INTEGER), ("diskNumWrite", INTEGER), ("diskWrite", INTEGER)]),
    ("netTable", "3.4.1", ["netIdx"], [
        ("netIdx", INTEGER), ("netName", TEXT), ("netVMID", INTEGER), ("netMac", TEXT), ("netSpare", INTEGER),
        ("netPktTx", INTEGER), ("netTx", INTEGER), ("netPktRx", INTEGER), ("netRx", INTEGER), ("netHCPktTx", COUNTER),
        ("netHCTx", COUNTER), ("netHCPktRx", COUNTER), ("netHCRx", COUNTER)]),
]

# What the figures count. Every other number is a position, an identifier, or changes its unit (memReserved, memUnreserved).
UNITS = {
    "numCpuCores": "cores", "cpuShares": "shares", "cpuUsedSec": "seconds",
    "vmMemSize": "megabytes", "memTotal": "kilobytes", "memShares": "shares", "memConfiguredKB": "kilobytes", "memActive": "kilobytes",
    "diskShares": "shares", "diskNumRead": "requests", "diskRead": "kilobytes", "diskNumWrite": "requests", "diskWrite": "kilobytes",
    "netPktTx": "packets", "netTx": "kilobytes", "netPktRx": "packets", "netRx": "kilobytes",
    "netHCPktTx": "packets", "netHCTx": "kilobytes", "netHCPktRx": "packets", "netHCRx": "kilobytes",
}

OBJECTS = SCALARS + [(name, f"{place}.{column}", syntax)
                     for _, place, _, columns in TABLES for column, (name, syntax) in enumerate(columns, 1)]


def translate(*arguments, module="TOVRIC-KELV-MIB"):
    """snmptranslate with our folders only; it must have nothing to complain of."""
    folders = f"{system.ROOT}/mibs:{system.ROOT}/mibs/smi"
    result = subprocess.run(["snmptranslate", "-M", folders, "-m", module, "-Pw", *arguments],
                            capture_output=True, text=True, env={**os.environ, "SNMPCONFPATH": "/nonexistent"})
    complaints = [line for line in result.stderr.splitlines() if "MACRO (lines" not in line]
    assert not complaints and result.returncode == 0
    return result.stdout


@pytest.mark.parametrize("name, place, syntax", OBJECTS, ids=[o[0] for o in OBJECTS])
def test_object_is_defined_as_it_is_registered(name, place, syntax):
    details = translate("-Td", f"TOVRIC-KELV-MIB::{name}")
    assert translate("-On", f"TOVRIC-KELV-MIB::{name}").split() == [f".1.3.6.1.4.1.32473.{place}"]
    assert re.search(r"^  SYNTAX\s+([A-Za-z0-9]+(?: STRING| IDENTIFIER)?)", details, re.M)[1] == syntax
    assert re.search(r"^  MAX-ACCESS\s+(\S+)$", details, re.M)[1] == "read-only"
    assert re.search(r"^  STATUS\s+(\S+)$", details, re.M)[1] == "current"
    assert len(re.search(r'^  DESCRIPTION\s+"(.*?)"', details, re.M | re.S)[1]) > 10


@pytest.mark.parametrize("name", [name for name, _, syntax in OBJECTS if syntax in (INTEGER, COUNTER)])
def test_a_figure_states_its_unit(name):
    described = translate("-Td", f"TOVRIC-KELV-MIB::{name}")
    units = re.findall(r'^\s*UNITS\s+"(\w+)"$', described, re.MULTILINE)
    assert units == ([UNITS[name]] if name in UNITS else [])


@pytest.mark.parametrize("table, place, index, columns", TABLES, ids=[t[0] for t in TABLES])
def test_table_is_indexed_as_its_instances_are_formed(table, place, index, columns):
    entry = translate("-Td", f".1.3.6.1.4.1.32473.{place}")
    assert re.search(r"INDEX\s+\{ (.*?) \}", entry)[1].split(", ") == index
    assert translate("-On", f"TOVRIC-KELV-MIB::{table}").strip() == f".1.3.6.1.4.1.32473.{place[:-2]}"


def test_the_file_defines_nothing_else_that_can_be_read():
    tree = translate("-Tp", "TOVRIC-KELV-MIB::tovric")
    assert sorted(re.findall(r"-- -R-- \S+\s+(\w+)\(\d+\)", tree)) == sorted(name for name, *_ in OBJECTS)


def test_every_object_belongs_to_a_group_of_the_compliance_statement():
    text = (system.ROOT / "mibs/TOVRIC-KELV-MIB.txt").read_text()
    groups = dict(re.findall(r"^(\w+) OBJECT-GROUP\s+OBJECTS\s+\{(.*?)\}", text, re.M | re.S))
    grouped = [name for names in groups.values() for name in re.findall(r"\w+", names)]
    assert sorted(grouped) == sorted(name for name, *_ in OBJECTS)
    mandatory = re.search(r"MANDATORY-GROUPS \{(.*?)\}", text, re.S)[1]
    assert sorted(re.findall(r"\w+", mandatory)) == sorted(groups)


def test_a_negative_index_can_be_named():
    assert translate("-On", "TOVRIC-KELV-MIB::memShares.4294967295").strip() == ".1.3.6.1.4.1.32473.3.2.4.1.2.4294967295"
    assert translate(".1.3.6.1.4.1.32473.3.1.2.1.2.4294967295").strip() == "TOVRIC-KELV-MIB::cpuShares.4294967295"


def registered(agent):
    """The places under the enterprise that the agent has a handler for, by its own table of registrations."""
    rests = [i.oid[len(NS_MODULE_NAME) + 1:] for i in agent.client.walk(NS_MODULE_NAME)]     # the context's name is empty
    names = [rest[1:1 + rest[0]] for rest in rests]
    return {".".join(map(str, name[len(ENTERPRISE):])) for name in names if name[:len(ENTERPRISE)] == ENTERPRISE}


def test_the_agent_registers_and_answers_what_the_file_defines(start_daemon, start_agent):
    start_daemon(system.HOSTS / "every-device.yaml")
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG, *system.NO_DATASTORE_LOG)
    types = {INTEGER: "INTEGER", TEXT: "OCTET STRING", IDENTIFIER: "OBJECT IDENTIFIER", COUNTER: "Counter64"}
    arity = {f"{place}.{column}": len(index) for _, place, index, columns in TABLES for column in range(1, len(columns) + 1)}
    places = {place: (types[syntax], arity.get(place)) for _, place, syntax in OBJECTS}
    assert registered(agent) == set(places)
    seen = set()
    for instance in agent.client.walk():
        rest = instance.oid[len(ENTERPRISE):]
        place = next(p for p in (".".join(map(str, rest[:n])) for n in range(1, len(rest))) if p in places)
        kind, width = places[place]
        assert instance.type == kind
        part = rest[place.count(".") + 1:]
        assert part == (0,) if width is None else len(part) == width
        seen.add(place)
    assert seen == set(places)
