"""The daemon's wire: SOAP messages, and a client. A preamble line each way on TLS, then SOAP over HTTP."""

import http.client
import pathlib
import socket
import ssl
import xml.etree.ElementTree as xml
from xml.sax.saxutils import escape, quoteattr

from system import DAEMON_ADDRESS

API_PATH = "/tesk/api/ordane/"
PREAMBLE = 'OPEN 2 "" ""'

_ENVELOPE = ('<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"><s:Body>{}</s:Body></s:Envelope>')
XSI = "{http://www.w3.org/2001/XMLSchema-instance}"
BODY = "{http://schemas.xmlsoap.org/soap/envelope/}Body"

# Members that refer to a managed object, and its type.
_REFERENCES = {"datastore": "Datastore", "entity": "VirtualMachine"}


class Fault(Exception):
    """The reply to a call was a fault; `type` is the fault's."""

    def __init__(self, type, text):
        super().__init__(f"{type}: {text}")
        self.type = type


def envelope(content):
    """A whole message as bytes; lone surrogates stand for bytes that are no UTF-8."""
    return _ENVELOPE.format(content).encode(errors="surrogateescape")


def element(name, value, attributes=""):
    """The value as XML elements of this name: a mapping has members, a list repeats, None is absent."""
    if value is None:
        return ""
    if isinstance(value, list):
        return "".join(element(name, item, attributes) for item in value)
    if isinstance(value, dict):
        members = dict(value)
        type = members.pop("type", None)
        if type:
            attributes = f" xsi:type={quoteattr(type)}"
        references = {member: f' type="{_REFERENCES[member]}"' for member in members if member in _REFERENCES}
        text = "".join(element(member, content, references.get(member, "")) for member, content in members.items())
    else:
        text = escape(value)
    return f"<{name}{attributes}>{text}</{name}>"


def local_name(element):
    return element.tag.rpartition("}")[2]


def client_context():
    """A client's TLS context that takes any certificate, as the daemon has one of its own making."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def read_ticket(path):
    return pathlib.Path(path).read_text(encoding="ascii")


class Connection:
    """One stream to the management API; the session of a login belongs to it."""

    def __init__(self, address=DAEMON_ADDRESS, preamble=PREAMBLE, timeout=10):
        plain = socket.create_connection(address, timeout)
        # Head and body of a request are sent one after the other; the second must not wait for the first's ACK.
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.stream = client_context().wrap_socket(plain)
        self.stream.sendall(preamble.encode() + b"\r\n")
        self.status, _, self.path = self._line().partition(" ")

    def _line(self):
        line = b""
        while not line.endswith(b"\r\n"):
            byte = self.stream.recv(1)
            if not byte:
                break
            line += byte
        return line.decode().rstrip("\r\n")

    def close(self):
        self.stream.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def post(self, body, path=API_PATH):
        """Sends a message, bytes or text, as it is; returns the HTTP status and the reply's text."""
        http_connection = http.client.HTTPConnection("localhost")
        http_connection.auto_open = 0
        http_connection.sock = self.stream
        http_connection.request("POST", path, body.encode() if isinstance(body, str) else body,
                                {"Content-Type": "text/xml; charset=utf-8", "SOAPAction": '""'})
        response = http_connection.getresponse()
        return response.status, response.read().decode()

    def call(self, type, id, method, **parameters):
        """Calls a method of an object; returns the elements of the reply. Raises Fault."""
        target = element("_this", id, f" type={quoteattr(type)}")
        arguments = "".join(element(name, value) for name, value in parameters.items())
        status, text = self.post(envelope(f'<{method} xmlns="urn:ordane">{target}{arguments}</{method}>'))
        content = xml.fromstring(text).find(BODY)[0]
        if local_name(content) == "Fault":
            raise Fault(local_name(content.find("detail")[0]), content.findtext("faultstring"))
        assert status == 200 and local_name(content) == method + "Response", text
        return list(content)

    def acquire_ticket(self, user="root"):
        """Requests a one-time ticket; returns the path of its file."""
        ticket, = self.call("SessionManager", "ha-sessionmgr", "AcquireLocalTicket", userName=user)
        return ticket.findtext("{urn:ordane}passwordFilePath")

    def login(self, password, user="root"):
        return self.call("SessionManager", "ha-sessionmgr", "Login", userName=user, password=password, locale="en")

    def children(self):
        """The ids of the VMs."""
        return [child.text for child in self.call("Folder", "ha-folder-vm", "GetChildEntity")]


def logged_in(**how):
    """A connection with a session."""
    connection = Connection(**how)
    connection.login(read_ticket(connection.acquire_ticket()))
    return connection
