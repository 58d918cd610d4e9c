"""What an operator sees with net-snmp's own tools and our MIB."""

import re

import mib
import net_snmp
import pytest
import system
from net_snmp import V2C, auth_priv

V3 = auth_priv("kelv")


def tool(name, *arguments):
    result = net_snmp.run(name, *arguments)
    assert result.returncode == 0 and result.stderr == ""
    return result.stdout


@pytest.fixture
def agent(start_daemon, start_agent):
    start_daemon(system.HOSTS / "every-device.yaml")
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    return agent


@pytest.mark.parametrize("table", mib.tables().values(), ids=lambda t: t.name)
def test_snmptable_shows_every_column_under_its_name(agent, table):
    columns = [column.name for column in table.columns]
    lines = tool("snmptable", *V2C, "-Ci", "-Cf", "|", "127.0.0.1", f"{mib.NAME}::{table.name}").splitlines()
    assert lines[0] == f"SNMP table: {mib.NAME}::{table.name}"
    # Some columns of a table share a prefix that snmptable leaves out.
    header = lines[2].split("|")
    assert header[0] == "index"
    assert [name for name, shown in zip(columns, header[1:], strict=True) if name.endswith(shown)] == columns
    assert len(lines) > 3
    for row in lines[3:]:
        assert len(row.split("|")) == len(columns) + 1
        assert re.fullmatch(r"\d+" + r"\.\d+" * (len(table.index) - 1), row.split("|")[0])


def test_snmpget_names_the_units(agent):
    assert tool("snmpget", *V2C, "127.0.0.1", "TOVRIC-KELV-MIB::vmMemSize.0") == \
        "TOVRIC-KELV-MIB::vmMemSize.0 = INTEGER: 4096 megabytes\n"
    assert tool("snmpget", *V2C, "-Oqv", "127.0.0.1", "TOVRIC-KELV-MIB::prodOID.0") == \
        "TOVRIC-KELV-MIB::kelvServer.3.0.2\n"


def test_version_3_reads_what_version_2_reads(agent):
    two = tool("snmpbulkwalk", *V2C, "127.0.0.1", "TOVRIC-KELV-MIB::kelvMachines")
    three = tool("snmpbulkwalk", *V3, "127.0.0.1", "TOVRIC-KELV-MIB::kelvMachines")
    assert three == two
    assert len(two.splitlines()) > 100


def test_nothing_can_be_set(agent):
    result = net_snmp.run("snmpset", *V3, "127.0.0.1", f"{mib.NAME}::vmDisplayName.0", "s", "other")
    assert result.returncode != 0
    assert re.search("noAccess|notWritable|authorizationError", result.stderr)
