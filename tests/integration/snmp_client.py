"""A manager that is not net-snmp: one socket, messages encoded by pysnmp."""

import itertools
import socket
import time

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api

from expected_tree import Instance
from mib import ENTERPRISE

V1, V2C = api.protoVersion1, api.protoVersion2c

# What an answer holds in place of a value.
NO_SUCH_OBJECT, NO_SUCH_INSTANCE, END_OF_VIEW = "noSuchObject", "noSuchInstance", "endOfMibView"

_EXCEPTIONS = {0x80: NO_SUCH_OBJECT, 0x81: NO_SUCH_INSTANCE, 0x82: END_OF_VIEW}
_TYPES = {0x02: "INTEGER", 0x04: "OCTET STRING", 0x06: "OBJECT IDENTIFIER", 0x46: "Counter64"}


class ErrorStatus(Exception):
    """The agent answered with an error status, for example "noSuchName" in version 1."""

    def __init__(self, status, index):
        super().__init__(f"{status} at variable {index}")
        self.status = status
        self.index = index


def _instance(oid, value):
    outer = value.tagSet[-1]
    tag = outer.tagClass | outer.tagId
    oid = tuple(oid)
    if tag in _EXCEPTIONS:
        return Instance(oid, _EXCEPTIONS[tag], None)
    kind = _TYPES.get(tag, f"tag {tag:#x}")
    if kind == "OCTET STRING":
        return Instance(oid, kind, bytes(value))
    if kind == "OBJECT IDENTIFIER":
        return Instance(oid, kind, tuple(value))
    return Instance(oid, kind, int(value) if kind in ("INTEGER", "Counter64") else value.prettyPrint())


class Client:
    """Sends requests to the agent at address; every call waits for its own answer, `timeout` seconds at most."""

    def __init__(self, address=("127.0.0.1", 161), community="public", timeout=10):
        self.community = community
        self.timeout = timeout
        self.ids = itertools.count(1)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(address)

    def close(self):
        self.socket.close()

    def _request(self, version, pdu, oids, prepare=None):
        module = api.protoModules[version]
        (prepare or module.apiPDU.setDefaults)(pdu)
        request_id = next(self.ids)
        module.apiPDU.setRequestID(pdu, request_id)
        module.apiPDU.setVarBinds(pdu, [(oid, module.Null("")) for oid in oids])
        message = module.Message()
        module.apiMessage.setDefaults(message)
        module.apiMessage.setCommunity(message, self.community)
        module.apiMessage.setPDU(message, pdu)
        self.socket.send(encoder.encode(message))
        deadline = time.monotonic() + self.timeout
        while True:
            self.socket.settimeout(max(0.001, deadline - time.monotonic()))
            answer, rest = decoder.decode(self.socket.recv(65535), asn1Spec=module.Message())
            assert not rest, "bytes after the message"
            answer_pdu = module.apiMessage.getPDU(answer)
            if int(module.apiPDU.getRequestID(answer_pdu)) == request_id:
                break
        status = module.apiPDU.getErrorStatus(answer_pdu)
        if int(status):
            raise ErrorStatus(status.prettyPrint(), int(module.apiPDU.getErrorIndex(answer_pdu)))
        return [_instance(oid, value) for oid, value in module.apiPDU.getVarBinds(answer_pdu)]

    def get(self, *oids, version=V2C):
        return self._request(version, api.protoModules[version].GetRequestPDU(), oids)

    def get_next(self, *oids, version=V2C):
        return self._request(version, api.protoModules[version].GetNextRequestPDU(), oids)

    def get_bulk(self, *oids, repetitions=10):
        module = api.protoModules[V2C]
        pdu = module.GetBulkRequestPDU()

        def prepare(pdu):
            module.apiBulkPDU.setDefaults(pdu)
            module.apiBulkPDU.setNonRepeaters(pdu, 0)
            module.apiBulkPDU.setMaxRepetitions(pdu, repetitions)

        return self._request(V2C, pdu, oids, prepare)

    def walk(self, root=ENTERPRISE, version=V2C, step=None):
        """All instances under root in the agent's order; a version 1 walk skips every Counter64."""
        step = step or (lambda oid: self.get_next(oid, version=version))
        found, at = [], root
        while True:
            try:
                answers = step(at)
            except ErrorStatus as error:
                if version == V1 and error.status == "noSuchName":
                    return found
                raise
            for answer in answers:
                if answer.type == END_OF_VIEW or answer.oid[:len(root)] != root:
                    return found
                assert answer.oid > at, f"the agent went back from {at} to {answer.oid}"
                found.append(answer)
                at = answer.oid

    def bulk_walk(self, root=ENTERPRISE, repetitions=25):
        return self.walk(root, step=lambda oid: self.get_bulk(oid, repetitions=repetitions))
