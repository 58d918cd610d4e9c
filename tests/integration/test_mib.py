"""The MIB file by itself, and against what the agent registers and serves."""

import re

import mib
import net_snmp
import pytest
import system
from mib import ENTERPRISE
from net_snmp import dotted, parse_oid

# The names of the agent's own table of registrations, indexed by where each is.
NS_MODULE_NAME = (1, 3, 6, 1, 4, 1, 8072, 1, 2, 1, 1, 4)

# What changes its unit while the agent runs.
OF_CHANGING_UNIT = {"memReserved", "memUnreserved"}

OBJECTS = mib.objects().values()
NUMBERS = [o for o in OBJECTS if o.type in ("INTEGER", "Counter64")]
ALL_UNITS = {o.units for o in NUMBERS} - {None}


def test_the_file_is_read_whole():
    """So that no test below passes because the parser was misunderstood."""
    defined = re.findall(r"^(\w+) OBJECT-TYPE\n(.*?)\n    ::= \{ (\w+) (\d+) \}", mib.FILE.read_text(), re.M | re.S)
    assert [name for name, clauses, *_ in defined if "not-accessible" not in clauses] == list(mib.objects())
    assert {name: int(number) for name, _, _, number in defined} == {name: mib.oids()[name][-1] for name, *_ in defined}
    entries = [mib.oids()[name] for name, *_ in defined if name.endswith("Entry")]
    assert [table.entry for table in mib.tables().values()] == entries
    assert sum(len(table.columns) for table in mib.tables().values()) + len(mib.scalars()) == len(mib.objects())


@pytest.mark.parametrize("declared", OBJECTS, ids=lambda o: o.name)
def test_object_is_current_read_only_and_described(declared):
    assert declared.access == "read-only"
    assert declared.status == "current"
    assert len(declared.description) > 10
    assert (declared.size is not None) == (declared.type == "OCTET STRING")


def first_sentence(declared):
    """What tools show that have room for no more."""
    return re.match(r".*?[.](?= |$)", declared.description)[0]


@pytest.mark.parametrize("number", NUMBERS, ids=lambda o: o.name)
def test_number_states_its_unit_at_once_or_why_it_has_none(number):
    if number.units:
        assert re.search(rf"\b{number.units}\b", first_sentence(number))
    else:
        assert ("has no fixed unit" if number.name in OF_CHANGING_UNIT else "has no unit") in number.description
        named = {unit for unit in ALL_UNITS if re.search(rf"\b{unit}\b", number.description)}
        assert named == set() or number.name in OF_CHANGING_UNIT


@pytest.mark.parametrize("declared", OBJECTS, ids=lambda o: o.name)
def test_description_says_what_an_unknown_value_reads_as_and_whether_a_number_wraps(declared):
    assert re.search("unknown|not known|always known|is not a number", declared.description)
    assert declared.type not in ("INTEGER", "Counter64") or re.search(r"\bwraps?\b", declared.description)


def test_the_page_about_the_file_lists_every_index_column_that_can_be_read():
    page = (net_snmp.ROOT / "docs/mib.md").read_text()
    section = re.search(r"^## Index columns that can be read$(.*?)^## ", page, re.M | re.S)[1]
    cells = re.findall(r"^\| `\w+` \|(.*?)\|", section, re.M)
    listed = [name for cell in cells for name in re.findall(r"`(\w+)`", cell)]
    assert listed == [name for table in mib.tables().values() for name in table.index]


@pytest.mark.parametrize("table", mib.tables().values(), ids=lambda t: t.name)
def test_columns_are_numbered_from_one_and_the_index_is_the_first_of_them(table):
    assert [column.oid for column in table.columns] == [table.entry + (n,) for n in range(1, len(table.columns) + 1)]
    assert tuple(column.name for column in table.columns[:len(table.index)]) == table.index
    assert table.entry == table.oid + (1,)


def test_the_file_defines_nothing_else_that_can_be_read():
    tree = mib.translate("-Tp", f"{mib.NAME}::tovric")
    assert re.findall(r"-- -R-- \S+\s+(\w+)\(\d+\)", tree) == list(mib.objects())
    assert "-W-" not in tree and "-RW" not in tree


def test_every_object_belongs_to_a_group_of_the_compliance_statement():
    text = mib.FILE.read_text()
    groups = dict(re.findall(r"^(\w+) OBJECT-GROUP\s+OBJECTS\s+\{(.*?)\}", text, re.M | re.S))
    grouped = [name for names in groups.values() for name in re.findall(r"\w+", names)]
    assert sorted(grouped) == sorted(mib.objects())
    mandatory = re.search(r"MANDATORY-GROUPS \{(.*?)\}", text, re.S)[1]
    assert sorted(re.findall(r"\w+", mandatory)) == sorted(groups)


@pytest.mark.parametrize("name", ["memShares", "cpuShares"])
def test_a_negative_index_can_be_named(name):
    oid = mib.oid(name, -1)
    assert oid[-1] == 4294967295
    assert parse_oid(mib.translate("-On", f"{mib.NAME}::{name}.4294967295")) == oid
    assert mib.translate(dotted(oid)).strip() == f"{mib.NAME}::{name}.4294967295"


def registered(agent):
    """The OIDs under the enterprise that the agent has a handler for, by its own table of registrations."""
    # Before the OID is the context's name, which is empty.
    rests = [i.oid[len(NS_MODULE_NAME) + 1:] for i in agent.client.walk(NS_MODULE_NAME)]
    oids = [rest[1:1 + rest[0]] for rest in rests]
    return [oid for oid in oids if oid[:len(ENTERPRISE)] == ENTERPRISE]


def test_the_agent_registers_and_serves_what_the_file_defines(start_daemon, start_agent):
    start_daemon(system.HOSTS / "every-device.yaml")
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG, *system.NO_DATASTORE_LOG)
    assert sorted(registered(agent)) == [o.oid for o in OBJECTS]
    walk = agent.client.walk()
    values = {instance.oid: instance.value for instance in walk}
    seen = set()
    for instance in walk:
        declared, = (o for o in OBJECTS if instance.oid[:len(o.oid)] == o.oid)
        assert instance.type == declared.type
        index = instance.oid[len(declared.oid):]
        if declared.table:
            # Each part of the index is the value of its INDEX column in the same row.
            parts = [values[mib.objects()[name].oid + index] for name in declared.table.index]
            assert [part & 0xffffffff for part in parts] == list(index)
        else:
            assert index == (0,)
        seen.add(declared.name)
    assert seen == set(mib.objects())
