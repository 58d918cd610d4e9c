"""A small client of the daemon's wire: TLS, the authd preamble, then SOAP over HTTP on the same stream."""

import http.client
import socket
import ssl
import xml.etree.ElementTree as xml
from xml.sax.saxutils import escape

from system import DAEMON_ADDRESS

API_PATH = "/tesk/api/ordane/"
_ENVELOPE = ('<soapenv:Envelope xmlns:soapenv="http://schemas.xmlsoap.org/soap/envelope/" '
             'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance"><soapenv:Body>{}</soapenv:Body></soapenv:Envelope>')


class Fault(Exception):
    """The call was answered with a fault; `type` is the fault's."""

    def __init__(self, type, text):
        super().__init__(f"{type}: {text}")
        self.type = type


def _local(tag):
    return tag.rpartition("}")[2]


class Connection:
    """One stream to the management API; the session of a login belongs to it."""

    def __init__(self, address=DAEMON_ADDRESS, preamble='OPEN 2 "" ""', timeout=10):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        plain = socket.create_connection(address, timeout)
        # Head and body of a request go out one after the other; the second must not wait for the first to be confirmed.
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.stream = context.wrap_socket(plain)
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
        """Sends a message as it is; answers the HTTP status and the text."""
        http_connection = http.client.HTTPConnection("localhost")
        http_connection.auto_open = 0
        http_connection.sock = self.stream
        http_connection.request("POST", path, body.encode(), {"Content-Type": "text/xml; charset=utf-8", "SOAPAction": '""'})
        response = http_connection.getresponse()
        return response.status, response.read().decode()

    def call(self, type, id, method, **parameters):
        """Calls a method of an object; answers the elements of the answer. Raises Fault."""
        arguments = "".join(f"<{name}>{escape(value)}</{name}>" for name, value in parameters.items())
        status, text = self.post(_ENVELOPE.format(
            f'<{method} xmlns="urn:ordane"><_this type="{type}">{escape(id)}</_this>{arguments}</{method}>'))
        content = xml.fromstring(text).find("{http://schemas.xmlsoap.org/soap/envelope/}Body")[0]
        if _local(content.tag) == "Fault":
            detail = content.find("detail")
            raise Fault(_local(detail[0].tag), content.findtext("faultstring"))
        assert status == 200 and _local(content.tag) == method + "Response", text
        return list(content)

    def acquire_ticket(self, user="root"):
        """Asks for a one-time ticket; answers the path of its file."""
        ticket, = self.call("SessionManager", "ha-sessionmgr", "AcquireLocalTicket", userName=user)
        return ticket.findtext("{urn:ordane}passwordFilePath")

    def login(self, password, user="root"):
        return self.call("SessionManager", "ha-sessionmgr", "Login", userName=user, password=password, locale="en")

    def children(self):
        """The ids of the machines."""
        return [child.text for child in self.call("Folder", "ha-folder-vm", "GetChildEntity")]


def logged_in(**how):
    """A connection that may ask for everything."""
    connection = Connection(**how)
    with open(connection.acquire_ticket(), encoding="ascii") as file:
        connection.login(file.read())
    return connection
