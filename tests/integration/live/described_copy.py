"""A host that a daemon serves, written down as a described host: the same VMs, devices, datastores and statistics."""

import json
import re

from wire import XSI, local_name

_TYPE = XSI + "type"
_LISTS = {"device", "datastoreUrl", "extent"}
_MAYBE_WITHOUT_MEMBERS = {"files"}


def _value(element):
    """An object's members under their names of the wire, which are those of a description; a leaf's value."""
    if len(element) == 0 and _TYPE not in element.attrib and local_name(element) not in _MAYBE_WITHOUT_MEMBERS:
        text = element.text or ""
        return int(text) if re.fullmatch(r"-?\d+", text) else {"true": True, "false": False}.get(text, text)
    members = {}
    if _TYPE in element.attrib:
        members["type"] = element.get(_TYPE).rpartition(":")[2]
    for child in element:
        if local_name(child) in _LISTS:
            members.setdefault(local_name(child), []).append(_value(child))
        else:
            members[local_name(child)] = _value(child)
    return members


def _statistics(connection, ids):
    """VM id → "group.counter" → instance → value."""
    catalogue = {}
    for counter in connection.call("PerformanceManager", "ha-perfmgr", "GetPerfCounter"):
        value = _value(counter)
        catalogue[value["key"]] = f"{value['groupInfo']['key']}.{value['nameInfo']['key']}"
    metrics = [{"counterId": str(key), "instance": "*"} for key in catalogue]
    specs = [{"entity": id, "metricId": metrics, "intervalId": "0"} for id in ids]
    found = {id: {} for id in ids}
    for entity in connection.call("PerformanceManager", "ha-perfmgr", "QueryPerf", querySpec=specs):
        for series in entity.findall("{urn:ordane}value"):
            counter = catalogue[int(series.findtext("{urn:ordane}id/{urn:ordane}counterId"))]
            instance = series.findtext("{urn:ordane}id/{urn:ordane}instance") or ""
            found[entity.findtext("{urn:ordane}entity")].setdefault(counter, {})[instance] = int(
                series.findtext("{urn:ordane}value"))
    return found


def describe(connection):
    """The description of the host behind a connection that is logged in."""
    ids = connection.children()
    statistics = _statistics(connection, ids)
    about = connection.call("ServiceInstance", "ServiceInstance", "RetrieveContent")[0]
    host = {"about": _value(about.find("{urn:ordane}about")),
            "hardware": _value(connection.call("HostSystem", "ha-host", "GetHardware")[0]),
            "serviceConsole": _value(
                connection.call("MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo")[0]),
            "datastores": [], "vms": []}
    datastores = set()
    for id in ids:
        vm = {"id": id}
        for member, method in (("config", "GetConfig"), ("runtime", "GetRuntime"), ("guest", "GetGuest")):
            vm[member] = _value(connection.call("VirtualMachine", id, method)[0])
        vm["stats"] = statistics[id]
        datastores |= {device["backing"]["datastore"] for device in vm["config"]["hardware"]["device"]
                       if "datastore" in device.get("backing", {})}
        host["vms"].append(vm)
    for id in sorted(datastores):
        host["datastores"].append({"id": id, **_value(connection.call("Datastore", id, "GetInfo")[0])})
    return json.dumps(host, ensure_ascii=False)    # which is YAML too
