"""A small management daemon that answers a described host well, and the pieces that bad replies are made of."""

import os
import secrets
from xml.sax.saxutils import escape, quoteattr

import expected_tree
import rogue_daemon

_ENVELOPE = ('<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"><s:Body>{}</s:Body></s:Envelope>')

# What the figures are counted under; the module asks for these and no others.
_KEYS = {name: key for key, name in enumerate(expected_tree.COUNTERS, 101)}


def envelope(content):
    return _ENVELOPE.format(content).encode(errors="surrogateescape")


def http_reply(body, status="200 OK"):
    return f"HTTP/1.1 {status}\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body


def response(method, content):
    """The HTTP reply to a call of `method`."""
    return http_reply(envelope(f'<{method}Response xmlns="urn:ordane">{content}</{method}Response>'))


def fault(type, text="no"):
    return http_reply(envelope(f'<s:Fault><faultcode>s:Server</faultcode><faultstring>{escape(text)}</faultstring>'
                               f'<detail><{type} xmlns="urn:ordane"><message>{escape(text)}</message></{type}></detail></s:Fault>'),
                      "500 Internal Server Error")


def element(name, value, attributes=""):
    """The value as elements of this name: a mapping has members, a list repeats, None is absent."""
    if value is None:
        return ""
    if isinstance(value, list):
        return "".join(element(name, item) for item in value)
    if isinstance(value, dict):
        members = dict(value)
        type = members.pop("type", None)
        if type:
            attributes = f" xsi:type={quoteattr(type)}"
        text = "".join(element(n, v, ' type="Datastore"' if n == "datastore" else "") for n, v in members.items())
    else:
        text = escape(value)
    return f"<{name}{attributes}>{text}</{name}>"


class GoodDaemon(rogue_daemon.Behaviour):
    """Serves a host (as expected_tree.load gives it); tickets are files in the directory."""

    def __init__(self, host, directory):
        self.host = host
        self.directory = directory
        self.secret = None
        self.vms = {vm["id"]: vm for vm in host["vms"]}

    # What is answered without a login.
    BEFORE_LOGIN = ("RetrieveContent", "AcquireLocalTicket", "Login")

    def reply(self, stream, call):
        if call.method not in self.BEFORE_LOGIN and not stream.logged_in:
            stream.send(fault("NotAuthenticated"))
            stream.end()        # at once what tovric-vessad does when the time for the login is over
        message = self.answer(call)
        if call.method == "Login":
            stream.logged_in = b"LoginResponse" in message
        stream.send(message)

    def answer(self, call):
        if call.type == "VirtualMachine" and call.id not in self.vms:
            return fault("ManagedObjectNotFound")
        content = getattr(self, call.method)(call)
        return fault("InvalidLogin") if content is None else response(call.method, content)

    def RetrieveContent(self, _):
        return element("returnval", {"about": self.host["about"]}).replace(
            "</returnval>", '<sessionManager type="SessionManager">ha-sessionmgr</sessionManager>'
                            '<perfManager type="PerformanceManager">ha-perfmgr</perfManager></returnval>')

    def AcquireLocalTicket(self, call):
        self.secret = secrets.token_urlsafe(24)
        return element("returnval", {"userName": call.parameters["userName"], "passwordFilePath": str(self.write_ticket(self.secret))})

    def write_ticket(self, secret):
        path = self.directory / f"ticket-{secrets.token_hex(8)}"
        with os.fdopen(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as stream:
            stream.write(secret)
        return path

    def Login(self, call):
        right, self.secret = call.parameters["password"] == self.secret, None
        for path in self.directory.glob("ticket-*"):
            path.unlink(missing_ok=True)
        return element("returnval", {"key": "session", "userName": "root", "locale": "en"}) if right else None

    def Logout(self, _):
        return ""

    def GetChildEntity(self, _):
        return "".join(element("returnval", vm["id"], ' type="VirtualMachine"') for vm in self.host["vms"])

    def GetConfig(self, call):
        return element("returnval", self.vms[call.id].get("config"))

    def GetRuntime(self, call):
        return element("returnval", self.vms[call.id].get("runtime"))

    def GetGuest(self, call):
        return element("returnval", self.vms[call.id].get("guest"))

    def GetInfo(self, call):
        return "".join(element("returnval", {k: v for k, v in store.items() if k != "id"})
                       for store in self.host["datastores"] if store["id"] == call.id)

    def GetHardware(self, _):
        return element("returnval", self.host["hardware"])

    def GetConsoleReservationInfo(self, _):
        return element("returnval", self.host["serviceConsole"])

    def GetPerfCounter(self, _):
        def named(name):
            return {"label": name, "summary": name, "key": name}
        return "".join(
            element("returnval", {"key": str(key), "nameInfo": named(name.partition(".")[2]), "groupInfo": named(name.partition(".")[0]),
                                  "rollupType": "none"}) for name, key in _KEYS.items())

    def QueryPerf(self, _):
        metrics = ""
        for id, vm in self.vms.items():
            series = "".join(
                element("value", {"type": "PerfMetricIntSeries", "id": {"counterId": str(_KEYS[name]), "instance": instance}, "value": [figure]})
                for name, figures in (vm.get("stats") or {}).items() for instance, figure in figures.items())
            metrics += f'<returnval xsi:type="PerfEntityMetric"><entity type="VirtualMachine">{escape(id)}</entity>{series}</returnval>'
        return metrics


class Replaced(rogue_daemon.Behaviour):
    """A good daemon but for the calls named in `answers`: each is answered by bytes, or by a function of stream and call."""

    def __init__(self, good, **answers):
        self.good = good
        self.answers = answers

    def reply(self, stream, call):
        replacement = self.answers.get(call.method)
        if replacement is None:
            self.good.reply(stream, call)
        elif callable(replacement):
            replacement(stream, call)
        else:
            stream.send(replacement)


# A host with every kind of row, small enough for its session to be cut at every byte.
HOST = """
about: {name: Tovric Kelv Server, version: 3.0.2, build: "13638"}
hardware: {cpuInfo: {numCpuCores: 8}}
serviceConsole: {serviceConsoleReserved: 285212672, unreserved: 1862270976}
datastores:
  - {id: ds-1, type: DrellDatastoreInfo, drell: {extent: [{diskName: d0}]}}
vms:
  - id: "16"
    config:
      name: web
      guestFullName: Debian
      files: {vmPathName: "[s] web.cfg"}
      datastoreUrl: [{name: s, url: /v/}]
      cpuAllocation: {shares: {shares: 2000}}
      memoryAllocation: {shares: {shares: 5120}}
      hardware:
        numCPU: 1
        memoryMB: 512
        device:
          - {type: VirtualLsiLogicController, key: 1, deviceInfo: {label: S, summary: S}, busNumber: 0}
          - {type: VirtualDisk, key: 2, deviceInfo: {label: D, summary: D}, unitNumber: 0, shares: {shares: 9}, backing: {type: FileBackingInfo, fileName: f, datastore: ds-1}}
          - {type: VirtualEthernetCard, key: 4, deviceInfo: {label: N, summary: Net}, backing: {type: DeviceBackingInfo, deviceName: VM}, macAddress: "00:16:3e:00:00:01"}
          - {type: VirtualIDEController, key: 5, deviceInfo: {label: I, summary: I}, busNumber: 0}
          - {type: VirtualCdrom, key: 6, deviceInfo: {label: C, summary: C}, controllerKey: 5, unitNumber: 0, connectable: {connected: true}, backing: {type: RemoteDeviceBackingInfo, deviceName: ""}}
          - {type: VirtualFloppy, key: 7, deviceInfo: {label: F, summary: F}, unitNumber: 0, connectable: {connected: false}, backing: {type: FileBackingInfo, fileName: g}}
    runtime: {powerState: poweredOn}
    guest: {guestState: running}
    stats:
      cpu.used: {"0": 181000}
      mem.active: {"": 131072}
      disk.numberRead: {d0: 51}
      disk.read: {d0: 40}
      disk.numberWrite: {d0: 20}
      disk.write: {d0: 16}
      net.packetsTx: {"4": 4294967301}
      net.transmitted: {"4": 8589934592}
      net.packetsRx: {"4": 7340032}
      net.received: {"4": 1048576}
"""
