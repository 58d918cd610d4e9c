"""The objects of TOVRIC-KELV-MIB as net-snmp's own parser reads them: names, OIDs, types, columns, indexes."""

import dataclasses
import functools
import re

import net_snmp
from net_snmp import parse_oid

NAME = "TOVRIC-KELV-MIB"
FILE = net_snmp.ROOT / f"mibs/{NAME}.txt"

# The type on the wire of each syntax.
TYPES = {"Integer32": "INTEGER", "OCTET STRING": "OCTET STRING", "OBJECT IDENTIFIER": "OBJECT IDENTIFIER",
         "Counter64": "Counter64"}


@dataclasses.dataclass(frozen=True)
class Object:
    """A scalar or a column."""
    name: str
    oid: tuple
    table: "Table | None"       # None: a scalar
    type: str                   # one of TYPES' values
    size: "int | None"          # the most bytes of an OCTET STRING
    units: "str | None"
    access: str
    status: str
    description: str


@dataclasses.dataclass(frozen=True)
class Table:
    name: str
    oid: tuple
    entry: tuple                # the OID of its rows' entry
    index: tuple                # the names of its INDEX columns

    @property
    def columns(self):
        """In the order of their numbers."""
        return [column for column in objects().values() if column.table == self]


def translate(*arguments):
    """What snmptranslate prints; it must find nothing wrong with the file."""
    result = net_snmp.run("snmptranslate", "-Pw", *arguments)
    complaints = [line for line in result.stderr.splitlines()
                  if "MACRO (lines" not in line and "Created directory" not in line]
    assert not complaints and result.returncode == 0, result.stderr
    return result.stdout


@functools.cache
def oids():
    """The OID of every name that the file defines below the enterprise."""
    every = {name: parse_oid(oid) for name, oid in re.findall(r'^"(\w+)"\s+"([\d.]+)"$', translate("-Tz"), re.M)}
    root = every["tovric"]
    return {name: oid for name, oid in sorted(every.items(), key=lambda item: item[1]) if oid[:len(root)] == root}


@functools.cache
def _details():
    """The definition of every name, as the parser prints it."""
    printed = translate("-Td", *(f"{NAME}::{name}" for name in oids()))
    return {name: text for name, text in re.findall(rf"^{NAME}::(\w+)\n(.*?)^::= ", printed, re.M | re.S)}


def _clause(name, pattern, otherwise=None):
    found = re.search(pattern, _details()[name], re.M | re.S)
    return found[1] if found else otherwise


@functools.cache
def tables():
    """The tables by name, in the order of their OIDs."""
    by_entry = {}
    for name, oid in oids().items():
        index = _clause(name, r"^  INDEX\s+\{ (.*?) \}")
        if index:
            by_entry[oid] = tuple(index.split(", "))
    by_oid = {oid: name for name, oid in oids().items()}
    return {by_oid[entry[:-1]]: Table(by_oid[entry[:-1]], entry[:-1], entry, index)
            for entry, index in by_entry.items()}


@functools.cache
def objects():
    """The scalars and columns by name, in the order of their OIDs."""
    by_entry = {table.entry: table for table in tables().values()}
    found = {}
    for name, oid in oids().items():
        syntax = _clause(name, r"^  SYNTAX\s+(OCTET STRING|OBJECT IDENTIFIER|\w+)")
        if syntax is None:
            continue
        size = _clause(name, r"^  SYNTAX\s+OCTET STRING \(\d+\.\.(\d+)\)")
        found[name] = Object(name, oid, by_entry.get(oid[:-1]), TYPES[syntax], size and int(size),
                             _clause(name, r'^  UNITS\s+"(.*?)"$'),
                             _clause(name, r"^  MAX-ACCESS\s+(\S+)$"), _clause(name, r"^  STATUS\s+(\S+)$"),
                             " ".join(_clause(name, r'^  DESCRIPTION\s+"(.*?)"', "").split()))
    return found


def scalars():
    return [scalar for scalar in objects().values() if scalar.table is None]


def oid(name, *index):
    """The OID of a scalar's instance or, with an index, of a column's."""
    found = objects()[name]
    assert len(index) == (len(found.table.index) if found.table else 0), f"{name} has another index"
    return found.oid + (tuple(number & 0xffffffff for number in index) if found.table else (0,))


# Everything that the module serves is below this.
ENTERPRISE = oids()["tovric"]
