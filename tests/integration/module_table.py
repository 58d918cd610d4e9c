"""The agent's table of loaded modules, which loads one at run time."""

import net_snmp

# Lets change_module() and add_module() write it.
WRITABLE = "rwcommunity private 127.0.0.1"

# The table: name, path, error and status of each.
DLMOD = ".1.3.6.1.4.1.2021.13.14.2.1."
LOADED, UNLOADED, LOAD, UNLOAD, CREATE = 1, 2, 4, 5, 6


def _set(*bindings):
    """Sets columns: (column, index, type, value) each."""
    arguments = [part for column, index, kind, value in bindings for part in (f"{DLMOD}{column}.{index}", kind, value)]
    result = net_snmp.run("snmpset", "-v2c", "-c", "private", "-On", "-t", "10", "-r", "0", "127.0.0.1", *arguments,
                          mibs="")
    assert result.returncode == 0, result.stderr


def change_module(index, status):
    """Lets the agent load or unload a module of the table."""
    _set((5, index, "i", status))


def add_module(index, path, name="SNMPKelv"):
    """Adds a module that is not loaded yet."""
    change_module(index, CREATE)
    _set((2, index, "s", name), (3, index, "s", path))


def load(index, path):
    add_module(index, path)
    change_module(index, LOAD)


def status(agent, index):
    return agent.client.get(net_snmp.parse_oid(DLMOD) + (5, index))[0].value
