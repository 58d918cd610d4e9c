"""The fake management daemon: a TLS server on the daemon's port that breaks any layer of the wire that a test names.

A connection runs through the steps of `Behaviour`: handshake, preamble, calls. `GoodBehaviour` serves a described host;
a test overrides the step that it breaks. A change of behaviour takes effect at the next step, of open connections too.
"""

import contextlib
import ctypes
import dataclasses
import functools
import os
import pathlib
import secrets
import socket
import ssl
import struct
import subprocess
import tempfile
import threading
import time
import xml.etree.ElementTree as xml
from xml.sax.saxutils import escape

import expected_tree
from system import DAEMON_ADDRESS
from wire import PREAMBLE, element, envelope, local_name

HOST = pathlib.Path(__file__).parent / "every_row.yaml"

# How a connection may end: TLS's orderly end, without it, by a TCP reset.
CLOSE_NOTIFY, END, RESET = "close_notify", "end", "reset"

# Between two bytes of a peer that trickles.
TRICKLE = 0.5


class Closed(Exception):
    """The agent, the test or a limit has ended the connection."""


@functools.lru_cache(None)
def tls_context(newest=None):
    """The server's context; newest: the newest TLS version that it offers, with every old cipher it still knows."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    with tempfile.TemporaryDirectory() as folder:
        key, certificate = os.path.join(folder, "key.pem"), os.path.join(folder, "certificate.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-days", "2", "-subj", "/CN=localhost", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        context.load_cert_chain(certificate, key)
    if newest is not None:
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version = ssl.TLSVersion.MINIMUM_SUPPORTED
        context.maximum_version = newest
    return context


# The keys of the counters; the module requests these and no others.
COUNTER_KEYS = {name: str(key) for key, name in enumerate(expected_tree.COUNTERS, 101)}


def http_reply(body, status="200 OK"):
    return f"HTTP/1.1 {status}\r\nContent-Length: {len(body)}\r\n\r\n".encode() + body


def response(method, content):
    """The HTTP reply to a call of `method`."""
    return http_reply(envelope(f'<{method}Response xmlns="urn:ordane">{content}</{method}Response>'))


def fault(type, text="no"):
    """The HTTP reply that is a fault."""
    text = escape(text)
    return http_reply(envelope(f'<s:Fault><faultcode>s:Server</faultcode><faultstring>{text}</faultstring>'
                               f'<detail><{type} xmlns="urn:ordane"><message>{text}</message></{type}></detail>'
                               '</s:Fault>'),
                      "500 Internal Server Error")


@dataclasses.dataclass(frozen=True)
class Call:
    """A call as it was received."""
    method: str
    type: str
    id: str
    parameters: dict


def parse_call(text):
    body = next(child for child in xml.fromstring(text) if local_name(child) == "Body")
    target = next(child for child in body[0] if local_name(child) == "_this")
    parameters = {local_name(child): child.text or "" for child in body[0] if child is not target}
    return Call(local_name(body[0]), target.get("type"), target.text, parameters)


class Stream:
    """One accepted connection, from the server's side. Every operation raises Closed when the connection has ended."""

    def __init__(self, daemon, plain):
        self.daemon = daemon
        self.plain = plain
        self.tls = None
        self.received = bytearray()     # plain text that waits to be read
        self.logged_in = False          # for the behaviour to set
        self.request = b""              # the last call's message
        self.sent = 0                   # bytes of plain text
        self.raw_sent = 0               # bytes on the socket
        self.limit = None               # so many bytes of plain text are sent, then the connection ends
        self.raw_limit = None           # the same for bytes on the socket
        self.ending = END               # how it ends at a limit
        self.raw_interval = 0           # seconds between two bytes on the socket
        self.interval = 0               # seconds between two bytes of plain text

    # The socket

    def _check(self):
        if self.daemon.stopping.is_set() or self.plain.fileno() < 0:
            raise Closed

    def send_raw(self, data):
        """Bytes outside of TLS."""
        pieces = [data[n:n + 1] for n in range(len(data))] if self.raw_interval else [data]
        for piece in pieces:
            self._check()
            end = self.raw_limit is not None and self.raw_sent + len(piece) >= self.raw_limit
            if end:
                piece = piece[:max(0, self.raw_limit - self.raw_sent)]
            try:
                self.plain.sendall(piece)
            except OSError as error:
                raise Closed from error
            self.raw_sent += len(piece)
            if end:
                self.end(self.ending)
            if self.raw_interval:
                self.wait(self.raw_interval)

    def _receive_raw(self):
        try:
            data = self.plain.recv(65536)
        except OSError as error:
            raise Closed from error
        if not data:
            raise Closed
        return data

    def wait(self, seconds=None):
        """Does nothing for so long; without a number, until the connection or the daemon ends."""
        until = None if seconds is None else time.monotonic() + seconds
        while until is None or time.monotonic() < until:
            self._check()
            left = 0.05 if until is None else min(0.05, until - time.monotonic())
            if left > 0 and self.daemon.stopping.wait(left):
                raise Closed
            if until is None:
                self._raise_if_peer_left()

    def _raise_if_peer_left(self):
        try:
            if self.plain.recv(1, socket.MSG_PEEK | socket.MSG_DONTWAIT) == b"":
                raise Closed
        except BlockingIOError:
            pass
        except OSError as error:
            raise Closed from error

    def end(self, how=END):
        """Ends the connection, and with it the behaviour that runs."""
        if how == CLOSE_NOTIFY and self.tls:
            with contextlib.suppress(ssl.SSLError, OSError):
                self.raw_limit, self.raw_interval = None, 0
                with contextlib.suppress(ssl.SSLWantReadError):
                    self.tls.unwrap()
                self.plain.sendall(self.outgoing.read())
        if how == RESET:
            self.plain.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.plain.close()
        raise Closed

    # TLS

    def handshake(self, context=None):
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = (context or tls_context()).wrap_bio(self.incoming, self.outgoing, server_side=True)
        self._drive(self.tls.do_handshake)

    def _drive(self, operation, *arguments):
        while True:
            try:
                result = operation(*arguments)
            except ssl.SSLWantReadError:
                self._flush()
                self.incoming.write(self._receive_raw())
                continue
            except ssl.SSLError as error:
                with contextlib.suppress(Closed):
                    self._flush()
                raise Closed from error
            self._flush()
            return result

    def _flush(self):
        if self.outgoing.pending:
            self.send_raw(self.outgoing.read())

    def send(self, data):
        """Plain text, in records of its own; long texts a piece at a time, so that the connection's end is noticed."""
        step = 1 if self.interval else 1 << 18
        for at in range(0, len(data), step):
            piece = data[at:at + step]
            self._check()
            end = self.limit is not None and self.sent + len(piece) >= self.limit
            if end:
                piece = piece[:max(0, self.limit - self.sent)]
            # Before it goes out: as soon as the agent has the last piece, the test may end the recording.
            self.daemon.sent += piece if self.daemon.recording else b""
            if piece:
                self._drive(self.tls.write, piece)
            self.sent += len(piece)
            if end:
                self.end(self.ending)
            if self.interval:
                self.wait(self.interval)

    def _fill(self):
        data = self._drive(self.tls.read, 65536)
        if not data:
            raise Closed
        self.received += data
        self.daemon.received += data

    def read_until(self, mark):
        while mark not in self.received:
            self._fill()
        at = self.received.index(mark) + len(mark)
        result = bytes(self.received[:at])
        del self.received[:at]
        return result

    def read_exactly(self, count):
        while len(self.received) < count:
            self._fill()
        result = bytes(self.received[:count])
        del self.received[:count]
        return result

    def read_call(self):
        head = self.read_until(b"\r\n\r\n").decode()
        length = next(int(line.partition(":")[2]) for line in head.splitlines()
                      if line.lower().startswith("content-length:"))
        body = self.read_exactly(length)
        self.request = head.encode() + body
        call = parse_call(body)
        self.daemon.calls.append(call)
        return call


class Behaviour:
    """What the daemon does at each step of a connection."""

    def greet(self, stream):
        stream.handshake()

    def preamble(self, stream):
        assert stream.read_until(b"\r\n") == f"{PREAMBLE}\r\n".encode()
        stream.send(b"200 /connection/1\r\n")

    def reply(self, stream, call):
        raise NotImplementedError


class GoodBehaviour(Behaviour):
    """Serves a host (as expected_tree.load returns it); tickets are files in the directory."""

    def __init__(self, host, directory):
        self.host = host
        self.directory = directory
        self.secret = None
        self.vms = {vm["id"]: vm for vm in host["vms"]}

    # Calls that need no login.
    BEFORE_LOGIN = ("RetrieveContent", "AcquireLocalTicket", "Login")

    def reply(self, stream, call):
        if call.method not in self.BEFORE_LOGIN and not stream.logged_in:
            stream.send(fault("NotAuthenticated"))
            stream.end()        # tovric-vessad does so when the time for the login is over
        message = self.result(call)
        if call.method == "Login":
            stream.logged_in = b"LoginResponse" in message
        stream.send(message)

    def result(self, call):
        """The bytes of the HTTP reply."""
        if call.type == "VirtualMachine" and call.id not in self.vms:
            return fault("ManagedObjectNotFound")
        if not hasattr(self, call.method):
            return fault("InvalidRequest")      # as a daemon does that knows the calls below only
        content = getattr(self, call.method)(call)
        return fault("InvalidLogin") if content is None else response(call.method, content)

    def RetrieveContent(self, _):
        return element("returnval", {"about": self.host["about"]}).replace(
            "</returnval>", '<sessionManager type="SessionManager">ha-sessionmgr</sessionManager>'
                            '<perfManager type="PerformanceManager">ha-perfmgr</perfManager></returnval>')

    def AcquireLocalTicket(self, call):
        self.secret = secrets.token_urlsafe(24)
        path = self.write_ticket(self.secret)
        return element("returnval", {"userName": call.parameters["userName"], "passwordFilePath": str(path)})

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
            element("returnval", {"key": key, "nameInfo": named(name.partition(".")[2]),
                                  "groupInfo": named(name.partition(".")[0]), "rollupType": "none"})
            for name, key in COUNTER_KEYS.items())

    def QueryPerf(self, _):
        return element("returnval", [
            {"type": "PerfEntityMetric", "entity": id, "value": [
                {"type": "PerfMetricIntSeries", "id": {"counterId": COUNTER_KEYS[name], "instance": instance},
                 "value": [sample]}
                for name, series in (vm.get("stats") or {}).items() for instance, sample in series.items()]}
            for id, vm in self.vms.items()])


class Replaced(Behaviour):
    """A good daemon but for the calls named in `replies`, each a reply's bytes or a function of stream and call."""

    def __init__(self, good, **replies):
        self.good = good
        self.replies = replies

    def reply(self, stream, call):
        replacement = self.replies.get(call.method)
        if replacement is None:
            self.good.reply(stream, call)
        elif callable(replacement):
            replacement(stream, call)
        else:
            stream.send(replacement)


class FakeDaemon:
    """The server. `behave` changes what it does from the next step of any connection on."""

    def __init__(self, behaviour):
        self.behaviour = behaviour
        self.calls = []                 # of all connections, in order
        self.received = bytearray()     # all plain text
        self.sent = bytearray()         # all plain text while recording
        self.recording = False
        self.accepted = 0
        self.errors = []                # what went wrong in the server itself
        self.stopping = threading.Event()
        self.streams = []
        self.lock = threading.Lock()
        self.listener = None
        self.owner = 0                  # the user who accepts connections
        self.listen()

    def listen(self):
        self.listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(DAEMON_ADDRESS)
        self.listener.listen(64)
        self.thread = threading.Thread(target=self._accept, args=(self.listener,), daemon=True)
        self.thread.start()

    def close_port(self):
        """From now on connecting is refused."""
        listener, self.listener = self.listener, None
        if listener:
            listener.shutdown(socket.SHUT_RDWR)
            self.thread.join()
            listener.close()

    def _accept(self, listener):
        while True:
            ctypes.CDLL(None).setfsuid(self.owner)      # of this thread only
            try:
                plain, _ = listener.accept()
            except OSError:
                return
            plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.accepted += 1
            stream = Stream(self, plain)
            with self.lock:
                self.streams = [s for s in self.streams if s.plain.fileno() >= 0] + [stream]
            threading.Thread(target=self._serve, args=(stream,), daemon=True).start()

    def _serve(self, stream):
        try:
            self.behaviour.greet(stream)
            self.behaviour.preamble(stream)
            while True:
                call = stream.read_call()
                self.behaviour.reply(stream, call)
        except Closed:
            pass
        except Exception as error:      # a mistake of the test, reported at its end
            if not self.stopping.is_set():
                self.errors.append(error)
        finally:
            stream.plain.close()

    def behave(self, behaviour):
        self.behaviour = behaviour

    def drop_connections(self):
        with self.lock:
            streams, self.streams = self.streams, []
        for stream in streams:
            with contextlib.suppress(OSError):
                stream.plain.shutdown(socket.SHUT_RDWR)

    def count(self, method):
        return sum(call.method == method for call in self.calls)

    def stop(self):
        self.stopping.set()
        self.close_port()
        self.drop_connections()
        assert not self.errors, self.errors
