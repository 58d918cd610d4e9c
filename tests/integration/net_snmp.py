"""net-snmp's command-line tools, with this repository's MIB files and without any configuration of the user's."""

import os
import pathlib
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]

V2C = ["-v", "2c", "-c", "public"]


def auth_priv(user):
    """Version 3 as a user of system.Agent's, authenticated and encrypted."""
    return ["-v", "3", "-u", user, "-l", "authPriv",
            "-a", "SHA", "-A", "authentication", "-x", "AES", "-X", "encryption"]


def run(tool, *arguments, mibs="TOVRIC-KELV-MIB"):
    """Runs a tool to its end; returns its exit code and what it printed. `mibs` may be empty if OIDs are numeric."""
    command = [tool, "-M", f"{ROOT}/mibs:{ROOT}/mibs/smi", "-m", mibs, *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True,
                          env={**os.environ, "SNMPCONFPATH": "/nonexistent"})


def dotted(oid):
    return "." + ".".join(map(str, oid))


def parse_oid(text):
    return tuple(map(int, text.strip().strip(".").split(".")))
