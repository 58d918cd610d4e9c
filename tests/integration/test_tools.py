"""What an operator sees with net-snmp's own tools and our MIB."""

import os
import re
import subprocess

import pytest
import system
from test_mib import TABLES

V2C = ["-v", "2c", "-c", "public"]
V3 = ["-v", "3", "-u", "kelv", "-l", "authPriv", "-a", "SHA", "-A", "authentication", "-x", "AES", "-X", "encryption"]


def tool(name, *arguments):
    folders = f"{system.ROOT}/mibs:{system.ROOT}/mibs/smi"
    result = subprocess.run([name, "-M", folders, "-m", "TOVRIC-KELV-MIB", *arguments], capture_output=True, text=True,
                            env={**os.environ, "SNMPCONFPATH": "/nonexistent"})
    assert result.returncode == 0 and result.stderr == ""
    return result.stdout


@pytest.fixture
def agent(start_daemon, start_agent):
    start_daemon(system.HOSTS / "every-device.yaml")
    agent = start_agent()
    agent.allow_log(*system.DATA_LOG)
    return agent


@pytest.mark.parametrize("table, index, columns", [(t, i, [c for c, _ in cs]) for t, _, i, cs in TABLES], ids=[t[0] for t in TABLES])
def test_snmptable_shows_every_column_under_its_name(agent, table, index, columns):
    lines = tool("snmptable", *V2C, "-Ci", "-Cf", "|", "127.0.0.1", f"TOVRIC-KELV-MIB::{table}").splitlines()
    assert lines[0] == f"SNMP table: TOVRIC-KELV-MIB::{table}"
    # Some columns of a table share a prefix that snmptable leaves out.
    header = lines[2].split("|")
    assert header[0] == "index"
    assert [name for name in columns if name.endswith(header[1 + columns.index(name)])] == columns
    assert len(lines) > 3
    for row in lines[3:]:
        assert len(row.split("|")) == len(columns) + 1
        assert re.fullmatch(r"\d+" + r"\.\d+" * (len(index) - 1), row.split("|")[0])


def test_snmpget_names_the_units(agent):
    assert tool("snmpget", *V2C, "127.0.0.1", "TOVRIC-KELV-MIB::vmMemSize.0") == \
        "TOVRIC-KELV-MIB::vmMemSize.0 = INTEGER: 4096 megabytes\n"
    assert tool("snmpget", *V2C, "-Oqv", "127.0.0.1", "TOVRIC-KELV-MIB::prodOID.0") == "TOVRIC-KELV-MIB::kelvServer.3.0.2\n"


def test_version_3_reads_what_version_2_reads(agent):
    two = tool("snmpbulkwalk", *V2C, "127.0.0.1", "TOVRIC-KELV-MIB::kelvMachines")
    three = tool("snmpbulkwalk", *V3, "127.0.0.1", "TOVRIC-KELV-MIB::kelvMachines")
    assert three == two
    assert len(two.splitlines()) > 100


def test_nothing_can_be_set(agent):
    result = subprocess.run(["snmpset", *V3, "-M", "", "-m", "", "127.0.0.1", ".1.3.6.1.4.1.32473.2.1.1.2.0", "s", "other"],
                            capture_output=True, text=True)
    assert result.returncode != 0
    assert re.search("noAccess|notWritable|authorizationError", result.stderr)
