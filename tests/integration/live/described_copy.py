"""A host that a daemon serves, written down as a described host: the same machines, devices, datastores and figures."""

import json
import re
import xml.etree.ElementTree as xml

_TYPE = "{http://www.w3.org/2001/XMLSchema-instance}type"
_LISTS = {"device", "datastoreUrl", "extent"}
_MAYBE_WITHOUT_MEMBERS = {"files"}
_QUERY = ('<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/"><soapenv:Body>'
          '<QueryPerf xmlns="urn:ordane"><_this type="PerformanceManager">ha-perfmgr</_this>{}</QueryPerf>'
          '</soapenv:Body></soapenv:Envelope>')


def _name(element):
    return element.tag.rpartition("}")[2]


def _value(element):
    """An object's members under their names of the wire, which are those of a description; a leaf's value."""
    if len(element) == 0 and _TYPE not in element.attrib and _name(element) not in _MAYBE_WITHOUT_MEMBERS:
        text = element.text or ""
        return int(text) if re.fullmatch(r"-?\d+", text) else {"true": True, "false": False}.get(text, text)
    members = {}
    if _TYPE in element.attrib:
        members["type"] = element.get(_TYPE).rpartition(":")[2]
    for child in element:
        if _name(child) in _LISTS:
            members.setdefault(_name(child), []).append(_value(child))
        else:
            members[_name(child)] = _value(child)
    return members


def _figures(connection, ids):
    """Machine → "group.counter" → instance → value."""
    catalogue = {}
    for counter in connection.call("PerformanceManager", "ha-perfmgr", "GetPerfCounter"):
        value = _value(counter)
        catalogue[value["key"]] = f"{value['groupInfo']['key']}.{value['nameInfo']['key']}"
    metrics = "".join(f"<metricId><counterId>{key}</counterId><instance>*</instance></metricId>" for key in catalogue)
    specs = "".join(f'<querySpec><entity type="VirtualMachine">{id}</entity>{metrics}<intervalId>0</intervalId></querySpec>'
                    for id in ids)
    status, text = connection.post(_QUERY.format(specs))
    assert status == 200, text
    found = {id: {} for id in ids}
    for entity in xml.fromstring(text).iter("{urn:ordane}returnval"):
        for series in entity.findall("{urn:ordane}value"):
            counter = catalogue[int(series.findtext("{urn:ordane}id/{urn:ordane}counterId"))]
            instance = series.findtext("{urn:ordane}id/{urn:ordane}instance") or ""
            found[entity.findtext("{urn:ordane}entity")].setdefault(counter, {})[instance] = int(
                series.findtext("{urn:ordane}value"))
    return found


def describe(connection):
    """The description of the host behind a connection that is logged in."""
    ids = connection.children()
    figures = _figures(connection, ids)
    about = connection.call("ServiceInstance", "ServiceInstance", "RetrieveContent")[0]
    host = {"about": _value(about.find("{urn:ordane}about")),
            "hardware": _value(connection.call("HostSystem", "ha-host", "GetHardware")[0]),
            "serviceConsole": _value(
                connection.call("MemoryManagerSystem", "memoryManagerSystem", "GetConsoleReservationInfo")[0]),
            "datastores": [], "vms": []}
    datastores = set()
    for id in ids:
        machine = {"id": id}
        for member, method in (("config", "GetConfig"), ("runtime", "GetRuntime"), ("guest", "GetGuest")):
            machine[member] = _value(connection.call("VirtualMachine", id, method)[0])
        machine["stats"] = figures[id]
        datastores |= {device["backing"]["datastore"] for device in machine["config"]["hardware"]["device"]
                       if "datastore" in device.get("backing", {})}
        host["vms"].append(machine)
    for id in sorted(datastores):
        host["datastores"].append({"id": id, **_value(connection.call("Datastore", id, "GetInfo")[0])})
    return json.dumps(host, ensure_ascii=False)    # which is YAML too
