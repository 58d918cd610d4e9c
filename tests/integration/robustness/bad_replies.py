"""Replies that no daemon should send, as whole HTTP messages, made for the method that they pretend to reply to."""

import copy
import xml.etree.ElementTree as xml

from fake_daemon import fault, http_reply
from wire import BODY, XSI, envelope

FAULTS = ["MethodFault", "RuntimeFault", "SystemError", "HostCommunication", "InvalidResponse", "InvalidRequest",
          "ManagedObjectNotFound", "NotAuthenticated", "InvalidLogin", "InvalidArgument", "NoSuchFault", "VirtualDisk"]


def http(method):
    """Messages whose HTTP is wrong or odd, by name. The body, where it can be read at all, is a fault."""
    del method
    body = envelope("<s:Fault><faultcode>s:Server</faultcode><faultstring>no</faultstring></s:Fault>")
    length = len(body)

    def message(headers, content=body, status="HTTP/1.1 200 OK"):
        return f"{status}\r\n{headers}\r\n".encode("latin-1") + content

    chunk = f"{length:x}\r\n".encode() + body + b"\r\n"
    return {
        "content length huge": message("Content-Length: 99999999999999\r\n"),
        "content length 2^64": message("Content-Length: 18446744073709551616\r\n"),
        "content length 2^64 + right": message(f"Content-Length: {(1 << 64) + length}\r\n"),
        "content length just over the limit": message(f"Content-Length: {32 * 1024 * 1024 + 1}\r\n"),
        "content length negative": message("Content-Length: -1\r\n"),
        "content length no number": message("Content-Length: many\r\n"),
        "content length hexadecimal": message(f"Content-Length: 0x{length:x}\r\n"),
        "content length too short": message(f"Content-Length: {length - 7}\r\n"),
        "content length 0": message("Content-Length: 0\r\n", b""),
        "content length twice": message(f"Content-Length: {length}\r\nContent-Length: {length + 5}\r\n"),
        "content length twice in one": message(f"Content-Length: {length}, {length + 5}\r\n"),
        "content length and chunked": message(f"Content-Length: {length}\r\nTransfer-Encoding: chunked\r\n",
                                              chunk + b"0\r\n\r\n"),
        "chunk size no number": message("Transfer-Encoding: chunked\r\n", b"zz\r\nabc\r\n0\r\n\r\n"),
        "chunk size negative": message("Transfer-Encoding: chunked\r\n", b"-5\r\nabcde\r\n0\r\n\r\n"),
        "chunk size overflows": message("Transfer-Encoding: chunked\r\n", b"fffffffffffffffff\r\nabc\r\n0\r\n\r\n"),
        "chunk size 2^64-1": message("Transfer-Encoding: chunked\r\n", b"ffffffffffffffff\r\nabc\r\n0\r\n\r\n"),
        "chunk longer than its size": message("Transfer-Encoding: chunked\r\n", b"3\r\nabcdef\r\n0\r\n\r\n"),
        "chunk extension of 100 kB": message("Transfer-Encoding: chunked\r\n",
                                             b"3;" + b"e" * 100_000 + b"\r\nabc\r\n0\r\n\r\n"),
        "chunk trailers of 1 MB": message("Transfer-Encoding: chunked\r\n",
                                          chunk + b"0\r\n" + b"T: t\r\n" * 170_000 + b"\r\n"),
        "unknown transfer encoding": message(f"Transfer-Encoding: gzip\r\nContent-Length: {length}\r\n"),
        "endless headers": message("X-Header: value\r\n" * 600_000),
        "a header of 10 MB": message("X-Header: " + "v" * 10_000_000 + "\r\n"),
        "a header without a name": message(f": v\r\nContent-Length: {length}\r\n"),
        "a header with a NUL": message(f"X: a\0b\r\nContent-Length: {length}\r\n"),
        "a folded header": message(f"X: a\r\n b\r\nContent-Length: {length}\r\n"),
        "status 100": b"HTTP/1.1 100 Continue\r\n\r\n" * 3 + http_reply(body),
        "status 204": message("", b"", "HTTP/1.1 204 No Content"),
        "status 302": message("Location: /\r\nContent-Length: 0\r\n", b"", "HTTP/1.1 302 Found"),
        "status 401": message("Content-Length: 0\r\n", b"", "HTTP/1.1 401 Unauthorized"),
        "status 404": message(f"Content-Length: {length}\r\n", body, "HTTP/1.1 404 Not Found"),
        "status 0": message(f"Content-Length: {length}\r\n", body, "HTTP/1.1 0 OK"),
        "status of four digits": message(f"Content-Length: {length}\r\n", body, "HTTP/1.1 2000 OK"),
        "version 9.9": message(f"Content-Length: {length}\r\n", body, "HTTP/9.9 200 OK"),
        "a request": message(f"Content-Length: {length}\r\n", body, "POST / HTTP/1.1"),
        "no HTTP": bytes(range(256)) * 16,
        "line feeds": b"\n" * 10_000,
        "two replies at once": http_reply(body) * 2,
    }


def xml_texts(method):
    """Messages of good HTTP whose XML is wrong, by name."""
    open_, close = f'<{method}Response xmlns="urn:ordane">', f"</{method}Response>"

    def wrapped(content):
        return envelope(open_ + content + close)

    good = wrapped("")
    another = "GetInfo" if method != "GetInfo" else "GetConfig"
    texts = {
        "empty": b"",
        "no XML": b"hello",
        "white space": b" \r\n" * 100,
        "truncated": good[:-20],
        "no envelope": (open_ + close).encode(),
        "no body": b"<Envelope/>",
        "an empty body": envelope(""),
        "two results": envelope((open_ + close) * 2),
        "two bodies": good.replace(b"</s:Envelope>", b"<s:Body/></s:Envelope>"),
        "a document type": b'<!DOCTYPE a SYSTEM "file:///etc/shadow">' + good,
        "an entity": b'<!DOCTYPE a [<!ENTITY b "c">]>' + wrapped("&b;"),
        "entities of entities": b"<!DOCTYPE a [<!ENTITY a0 'ha'>" + b"".join(
            b"<!ENTITY a%d '%s'>" % (n, b"&a%d;" % (n - 1) * 10) for n in range(1, 10)) + b"]>" + wrapped("&a9;"),
        "an external entity": (b'<!DOCTYPE a [<!ENTITY b SYSTEM "file:///etc/shadow">]>'
                               + wrapped("<returnval>&b;</returnval>")),
        "nesting of 100,000": wrapped("<a>" * 100_000 + "</a>" * 100_000),
        "nesting of 100,000 without end": b"<a>" * 100_000,
        "a NUL": wrapped("<returnval>a\0b</returnval>"),
        "UTF-16": good.decode().encode("utf-16"),
        "invalid UTF-8": good.replace(b"Response xmlns", b"Response a='\xff\xfe' xmlns"),
        "a reply to another call": envelope(f'<{another}Response xmlns="urn:ordane"/>'),
        "the call itself": envelope(f'<{method} xmlns="urn:ordane"/>'),
        "comments and instructions": b"<!-- a --><?a b?>" + wrapped("<!-- a --><?a b?>"),
        "an unfinished CDATA": wrapped("<![CDATA[a"),
        "a fault without a detail": envelope("<s:Fault><faultcode>s:Server</faultcode></s:Fault>"),
        "an empty fault": envelope("<Fault/>"),
        "a fault that is ill-typed": envelope("<Fault><detail><ManagedObjectNotFound><obj>1</obj><obj>2</obj>"
                                              "</ManagedObjectNotFound></detail></Fault>"),
        "a text for an object": wrapped("<returnval>text</returnval>"),
        "100 results for one": wrapped("<returnval/>" * 100),
        "unknown elements": wrapped("<unknown><deep>1</deep></unknown>" * 100),
        "a type that is unknown": wrapped('<returnval xsi:type="NoSuchType"/>'),
        "a type that is another": wrapped('<returnval xsi:type="VirtualDisk"/>'),
        "a type that is a fault": wrapped('<returnval xsi:type="SystemError"/>'),
        "a reference for everything": wrapped('<returnval type="VirtualMachine">16</returnval>'),
    }
    return {name: http_reply(text) for name, text in texts.items()}


def large(method):
    """Messages that cost much to parse, by name."""
    open_, close = f'<{method}Response xmlns="urn:ordane">', f"</{method}Response>"

    def wrapped(content):
        return http_reply(envelope(open_ + content + close))

    chunk = b"100000\r\n" + b"a" * 0x100000 + b"\r\n"
    return {
        "1,000,000 attributes": wrapped("<a " + " ".join(f'a{n}=""' for n in range(1_000_000)) + "/>"),
        "490,000 attributes": wrapped("<returnval " + " ".join(f'a{n}=""' for n in range(490_000)) + "/>"),
        "1,000,000 elements": wrapped("<a/>" * 1_000_000),
        "2,100,000 elements": wrapped("<a/>" * 2_100_000),
        "490,000 results": wrapped("<returnval></returnval>" * 490_000),
        "a text of 31 MB": wrapped("<returnval>" + "t" * 31_000_000 + "</returnval>"),
        "31 MB of entities": wrapped("<returnval>" + "&amp;" * 6_200_000 + "</returnval>"),
        "100 MB with a content length": http_reply(b"a" * 100_000_000),
        "100 MB in chunks": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk * 100 + b"0\r\n\r\n",
        "100 MB until the end": b"HTTP/1.1 200 OK\r\n\r\n" + b"a" * 100_000_000,
        "8 MB in chunks of one byte": (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                       + b"1\r\na\r\n" * 1_400_000 + b"0\r\n\r\n"),
    }


def faults(method):
    """Every kind of fault, by name; with the HTTP status of one, and of none."""
    del method
    found = {f"fault {name}": fault(name) for name in FAULTS}
    found["fault with status 200"] = fault("SystemError").replace(b"500 Internal Server Error", b"200 OK")
    return found


def mutations(method, content):
    """The good result `content` with one thing changed, for every element of it: pairs of name and message."""
    # This parser writes the text with prefixes of its own for all but the type's.
    xml.register_namespace("xsi", XSI[1:-1])
    root = xml.fromstring(envelope(f'<{method}Response>{content}</{method}Response>'))
    result = root.find(BODY)[0]

    def message(changed):
        new = copy.deepcopy(root)
        body = new.find(BODY)
        body[:] = [changed]
        return http_reply(xml.tostring(new))

    def at(tree, path):
        for index in path:
            tree = tree[index]
        return tree

    def paths(element, prefix=()):
        for index, child in enumerate(element):
            yield prefix + (index,)
            yield from paths(child, prefix + (index,))

    texts = ["", "x", "-1", "99999999999999999999", "2147483648", " 1", "true", "[", "\t\n"]
    types = ["NoSuchType", "VirtualDisk", "VmConfigInfo", "s:", "", "FileBackingInfo"]
    for path in paths(result):
        where = f"element {path} ({at(result, path).tag})"

        def changed(change):
            copied = copy.deepcopy(result)
            change(at(copied, path[:-1]), at(copied, path), path[-1])
            return message(copied)

        yield f"{where} absent", changed(lambda parent, element, index: parent.remove(element))
        yield f"{where} twice", changed(lambda parent, element, index: parent.insert(index, copy.deepcopy(element)))
        yield f"{where} renamed", changed(lambda parent, element, index: setattr(element, "tag", "unknown"))
        yield f"{where} without attributes", changed(lambda parent, element, index: element.attrib.clear())
        yield f"{where} emptied", changed(lambda parent, element, index: element.__delitem__(slice(None)))
        yield f"{where} within itself", changed(lambda parent, element, index: element.append(copy.deepcopy(element)))
        for text in texts:
            yield f"{where} = {text!r}", changed(lambda parent, element, index, t=text: setattr(element, "text", t))
        for type in types:
            for attribute, how in ((XSI + "type", "of type"), ("type", "referring to")):
                yield f"{where} {how} {type!r}", changed(
                    lambda parent, element, index, a=attribute, t=type: element.set(a, t))
