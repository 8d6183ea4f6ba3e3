"""The table: what a client may send, section by section of RFC 6455, and what the server then has to do.

An expectation names what the server hands on, frame by frame ("text+ 5": final, five bytes), what it sends, and how the
connection then stands:

  open          it still answers a ping
  closed 1002   it is closed with a close frame and that code ("closed -": without one), and nothing follows
  dropped       it is closed without a close frame
  http 403      the upgrade is refused

Where the RFC leaves a choice or the server differs from it, `why` says why.
"""

import base64
import dataclasses
import struct

from rfc6455_wire import binary, close, frame, header, masked, more, ping, request, text

LOOPBACK_ONLY = "10.2: only what addresses this machine's loopback interface is let in, and no browser"
PLAIN_HTTP = "a request for anything but a WebSocket is plain HTTP, and that is answered with 404"
STRICT_HTTP = "what a request holds that HTTP does not know is refused, where it might be read in two ways"
ONE_BY_ONE = "fragments are handed on one by one, and not put together"


@dataclasses.dataclass
class Case:
    section: str
    name: str
    expected: str
    sent: bytes
    upgrade: bytes
    after: bytes  # is sent when the server's close frame has come
    why: str
    server_closes: bool  # by itself: nothing is to be asked then


CASES = []


def case(section, name, expected, sent=b"", upgrade=request(), after=close(1000), why="", server_closes=False):
    CASES.append(Case(section, name, expected, sent, upgrade, after, why, server_closes))


def upgrades(section, status, rows, why=""):
    for name, upgrade in rows.items():
        case(section, name, status, upgrade=upgrade, why=why)


def opening():
    key = base64.b64encode(bytes(range(240, 256))).decode()
    upgrades("4.1", "open", {
        "the RFC's own example's key": request(),
        "another key": request(Sec_WebSocket_Key=key),
        "blanks around the key": request(Sec_WebSocket_Key=f" \t{key} \t"),
        "a key whose last bits are not zero": request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub25jZR=="),
        "values in other cases": request(Upgrade="WebSocket", Connection="uPGRADE"),
        "names in other cases": request(Upgrade=None, UPGRADE="websocket", Connection=None, connection="Upgrade"),
        "Connection with other tokens": request(Connection="keep-alive, Upgrade"),
        "Connection with empty tokens": request(Connection=", ,Upgrade,"),
        "Connection twice": request(Connection="keep-alive", lines=["Connection: Upgrade"]),
        "Upgrade with other tokens": request(Upgrade="h2c, websocket"),
        "no blank behind the colons": request().replace(b": ", b":"),
        "a path and a query": request("GET /a/b?c=d HTTP/1.1"),
        "an absolute address": request("GET http://127.0.0.1/ HTTP/1.1"),
        "subprotocols, of which none is chosen": request(Sec_WebSocket_Protocol="a, b"),
        "extensions, of which none is chosen": request(Sec_WebSocket_Extensions="permessage-deflate; x=1, y"),
        "cookies, and letters that are not ASCII": request(Cookie="a=b; c=\xe4", lines=["X-Y: \xff"]),
        "a body of nothing": request(lines=["Content-Length: 0"]),
        "a header without a value": request(lines=["X:"]),
        "a later HTTP of the same kind": request("GET / HTTP/1.2"),
        "Host with a port": request(Host="127.0.0.1:80"),
        "Host localhost": request(Host="LocalHost:8080"),
        "Host of version 6": request(Host="[::1]:8080"),
        "a head of almost 16 KiB": request(X="x" * 16000),
    })
    upgrades("4.2.1", "http 400", {
        "POST": request("POST / HTTP/1.1"),
        "HEAD": request("HEAD / HTTP/1.1"),
        "get": request("get / HTTP/1.1"),
        "HTTP/1.0": request("GET / HTTP/1.0"),
        "HTTP/0.9": request("GET / HTTP/0.9"),
        "HTTP/2.0": request("GET / HTTP/2.0"),
        "HTTP/1.": request("GET / HTTP/1."),
        "HTTP/1.10": request("GET / HTTP/1.10"),
        "http/1.1": request("GET / http/1.1"),
        "no version": request("GET /"),
        "no target": request("GET  HTTP/1.1"),
        "a blank too many": request("GET / x HTTP/1.1"),
        "no Connection": request(Connection=None),
        "Connection: close": request(Connection="close"),
        "Connection: Upgraded": request(Connection="Upgraded"),
        "no key": request(Sec_WebSocket_Key=None),
        "an empty key": request(Sec_WebSocket_Key=""),
        "two keys": request(lines=["Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="]),
        "a key of 15 bytes": request(Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAA"),
        "a key of 17 bytes": request(Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAAAAA="),
        "a key of 18 bytes": request(Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAAAAAA"),
        "a key that is not Base64": request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub25j*Q=="),
        "a key with padding within": request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub2=jZQ=="),
        "a key without padding": request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub25jZQ"),
        "a key in the other alphabet": request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub2-_ZQ=="),
    })
    upgrades("4.2.1", "http 400", {
        "an empty line first": b"\r\n" + request(),
        "a body, which would be read as frames": request(lines=["Content-Length: 5"]) + b"hello",
        "a body in chunks": request(lines=["Transfer-Encoding: chunked"]),
        "a line that goes on": request(lines=["X: a", " b"]),
        "a blank before a colon": request(lines=["X : a"]),
        "no colon": request(lines=["X"]),
        "a name that is none": request(lines=["(X): a"]),
        "an empty name": request(lines=[": a"]),
        "a NUL": request(lines=["X: a\0b"]),
        "a line feed alone": request(lines=["X: a\nY: b"]),
        "a carriage return alone": request(lines=["X: a\rY: b"]),
        "a NUL in the target": request("GET /\0 HTTP/1.1"),
        "another protocol's greeting": b"\x16\x03\x01\x00\xf4\x01\r\n\r\n",
        "a frame": text(b"hello") + b"\r\n\r\n",
    }, STRICT_HTTP)
    upgrades("4.2.1", "http 404", {
        "no Upgrade": request(Upgrade=None),
        "Upgrade to something else": request(Upgrade="h2c"),
        "Upgrade to websocket2": request(Upgrade="websocket2"),
        "plain GET": b"GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
        "plain GET of HTTP/1.0": b"GET / HTTP/1.0\r\n\r\n",
        "plain POST": b"POST / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n\r\n",
    }, PLAIN_HTTP)
    upgrades("4.2.1", "http 403", {"no Host": request(Host=None), "two Hosts": request(lines=["Host: 127.0.0.1"])},
             LOOPBACK_ONLY)
    upgrades("4.4", "http 426", {
        f"version {version}": request(Sec_WebSocket_Version=version)
        for version in ("0", "7", "8", "12", "14", "13, 8", "013", "+13", "13.0", "x", "")
    } | {
        "no version": request(Sec_WebSocket_Version=None),
    })
    upgrades("4.4", "http 400", {"the version twice": request(lines=["Sec-WebSocket-Version: 13"])})
    case("4.2.2", "a frame in the request's piece", "text+ 3, open", upgrade=request() + text(b"now"))
    case("4.2.2", "half a frame in the request's piece", "text+ 3, open", text(b"now")[4:], request() + text(b"now")[:4])


def masking():
    for opcode, name in ((1, "text"), (2, "binary"), (8, "close"), (9, "ping"), (10, "pong")):
        case("5.1", f"{name} without a mask", "closed 1002", frame(opcode, mask=None))
    case("5.1", "text of 200 without a mask", "closed 1002", frame(1, b"x" * 200, mask=None))
    case("5.1", "text of 65536 without a mask", "closed 1002", frame(1, b"x" * 65536, mask=None))
    case("5.1", "a good frame, then one without a mask", "text+ 1, closed 1002", text(b"1") + frame(1, b"2", mask=None))
    case("5.1", "continuation without a mask", "text- 1, closed 1002", text(b"1", False) + frame(0, b"2", mask=None))
    for mask in (b"\0\0\0\0", b"\xff\xff\xff\xff", b"\0\0\0\x01", b"\x80\0\0\0", b"\x81\x85\x81\x85"):
        case("5.3", f"mask {mask.hex()}", "text+ 12, open", text("b\u00e4\u20ac 12345".encode(), mask=mask))
    case("5.3", "a mask for each frame", "text+ 2, text+ 3, open",
         text(b"ab", mask=b"abcd") + text(b"cde", mask=b"\xf0\x0f\xf0\x0f"))
    case("5.3", "a mask that begins anew in each fragment", "text- 3, continuation+ 3, open",
         text(b"abc", False, b"\x01\x02\x03\x04") + frame(0, b"def", mask=b"\x05\x06\x07\x08"), why=ONE_BY_ONE)
    case("5.3", "what looks like a close frame when it is masked", "text+ 6, open",
         text(b"abcdef", mask=bytes(a ^ b for a, b in zip(b"\x88\x80\0\0", b"abcd"))))


def framing():
    for size in (0, 1, 2, 125, 126, 127, 128, 65535, 65536, 65537, 1 << 20):
        case("5.2", f"text of {size}", f"text+ {size}, open", text(b"x" * size))
        case("5.2", f"binary of {size}", f"binary+ {size}, open", binary(b"\xfe" * size))
    for size, width in ((0, 2), (1, 2), (125, 2), (0, 8), (125, 8), (126, 8), (65535, 8)):
        case("5.2", f"length {size} in {width} bytes", "closed 1002", frame(1, b"x" * size, width=width))
    case("5.2", "length with the highest bit", "closed 1002", header(2, 1 << 63))
    case("5.2", "the greatest length", "closed 1002", header(2, (1 << 64) - 1))
    case("5.2", "three frames", "text+ 1, binary+ 2, text+ 0, open", text(b"1") + binary(b"22") + text(b""))
    for rsv in range(1, 8):
        case("5.2", f"reserved bits {rsv:03b} on text", "closed 1002", frame(1, b"x", rsv=rsv))
    for opcode, name in ((2, "binary"), (8, "close"), (9, "ping"), (10, "pong")):
        for rsv in (1, 2, 4):
            case("5.2", f"reserved bit {rsv:03b} on {name}", "closed 1002", frame(opcode, rsv=rsv))
    case("5.2", "a reserved bit on a continuation", "text- 1, closed 1002", text(b"x", False) + frame(0, b"y", rsv=4))
    for opcode in (3, 4, 5, 6, 7, 11, 12, 13, 14, 15):
        case("5.2", f"opcode {opcode}", "closed 1002", frame(opcode, b"x"))
        case("5.2", f"opcode {opcode}, empty, behind text", "text+ 1, closed 1002", text(b"1") + frame(opcode))


def fragments():
    def row(name, expected, sent):
        case("5.4", name, expected, sent, why=ONE_BY_ONE if "continuation" in expected else "")

    row("two fragments", "text- 2, continuation+ 3, open", text(b"ab", False) + more(b"cde"))
    row("five fragments", "binary- 1, " + "continuation- 1, " * 3 + "continuation+ 1, open",
        binary(b"1", False) + more(b"2", False) * 3 + more(b"3"))
    row("empty fragments", "text- 0, continuation- 0, continuation+ 0, open",
        text(b"", False) + more(b"", False) + more(b""))
    row("message behind a fragmented one", "text- 1, continuation+ 1, text+ 1, open",
        text(b"a", False) + more(b"b") + text(b"c"))
    row("two fragmented messages", "text- 1, continuation+ 1, binary- 1, continuation+ 1, open",
        text(b"a", False) + more(b"b") + binary(b"c", False) + more(b"d"))
    row("fragments of 126 and 65536", "text- 126, continuation+ 65536, open",
        text(b"a" * 126, False) + more(b"b" * 65536))
    row("continuation of nothing", "closed 1002", more(b"x"))
    row("continuation of nothing, empty", "closed 1002", more(b""))
    row("continuation of nothing, not final", "closed 1002", more(b"x", False))
    row("continuation behind a whole message", "text+ 1, closed 1002", text(b"x") + more(b"y"))
    row("continuation behind the last one", "text- 1, continuation+ 1, closed 1002",
        text(b"x", False) + more(b"y") + more(b"z"))
    for second, name in ((text(b"y"), "text"), (binary(b"y"), "binary"), (text(b"y", False), "begin of text"),
                         (text(b""), "empty text")):
        row(f"{name} within a message", "text- 1, closed 1002", text(b"x", False) + second)
    row("ping between fragments", "text- 1, continuation+ 1, pong 4, open",
        text(b"a", False) + ping(b"ping") + more(b"b"))
    row("three pings between fragments", "text- 1, continuation- 1, continuation+ 1, " + "pong 1, " * 3 + "open",
        text(b"a", False) + ping(b"1") + ping(b"2") + more(b"b", False) + ping(b"3") + more(b"c"))
    row("pong between fragments", "text- 1, continuation+ 1, open", text(b"a", False) + frame(10, b"pong") + more(b"b"))
    row("close between fragments", "text- 1, closed 1000", text(b"a", False) + close(1000) + more(b"b"))


def control():
    codes = {8: b"\x03\xe8", 9: b"", 10: b""}
    for opcode, name in ((8, "close"), (9, "ping"), (10, "pong")):
        begin = codes[opcode]
        for size in (126, 127, 65535, 65536):
            case("5.5", f"{name} of {size}", "closed 1002", frame(opcode, begin + b"x" * (size - len(begin))))
        case("5.5", f"{name} of 125 written in two bytes", "closed 1002",
             frame(opcode, begin + b"x" * (125 - len(begin)), width=2))
        case("5.5", f"{name} of 2 written in eight bytes", "closed 1002", frame(opcode, begin or b"xy", width=8))
        case("5.5", f"{name} that is not final", "closed 1002", frame(opcode, begin, fin=False))
        case("5.5", f"{name} that is not final, within a message", "text- 1, closed 1002",
             text(b"a", False) + frame(opcode, begin, fin=False), why=ONE_BY_ONE)
    for size in (0, 1, 124, 125):
        case("5.5.2", f"ping of {size}", f"pong {size}, open", ping(b"\xff" * size))
    case("5.5.2", "ten pings", "pong 3, " * 10 + "open", ping(b"abc") * 10)
    case("5.5.2", "ping between texts", "text+ 1, text+ 1, pong 1, open", text(b"a") + ping(b"p") + text(b"b"))
    case("5.5.2", "ping when the server has closed", "text+ 6, closed 1000, pong 4", text(b"!close"), server_closes=True,
         after=ping(b"late") + close(1000))
    case("5.5.3", "pong that nobody asked for", "open", frame(10, b"x"))
    case("5.5.3", "pong of 0", "open", frame(10))
    case("5.5.3", "pong of 125", "open", frame(10, b"x" * 125))


def sending():
    """What the server sends; that it is well formed is looked at with every frame."""
    for size in (0, 1, 125, 126, 127, 65535, 65536, 1 << 20):
        case("5.6", f"the server's text of {size}", f"text+ {6 + len(str(size))}, sent text+ {size}, open",
             text(f"!text {size}".encode()))
    case("5.6", "the server's binary of 300", "text+ 11, sent binary+ 300, open", text(b"!binary 300"))
    case("5.4", "the server's fragments", "text+ 10, sent text- 2, sent continuation- 0, sent continuation+ 1, open",
         text(b"!fragments"))
    for name, expected in (("overlong", "refused 2"), ("surrogate", "refused 2"), ("short", "refused 2")):
        case("5.6", f"the server's text that is not UTF-8: {name}", f"text+ {1 + len(name)}, {expected}, open",
             text(b"!" + name.encode()))


def closing():
    case("5.5.1", "close without a code", "closed -", close())
    case("5.5.1", "close with half a code", "closed 1002", frame(8, b"\x03"))
    case("5.5.1", "close with a reason", "closed 1000", close(1000, b"bye"))
    case("5.5.1", "close with the longest reason", "closed 1000", close(1000, b"x" * 123))
    case("5.5.1", "close with a reason of several bytes a character", "closed 1000", close(1000, "κόσμε".encode()))
    case("5.5.1", "text behind a close", "closed 1000", close(1000) + text(b"late"))
    case("5.5.1", "fragments behind a close", "closed 1000", close(1000) + text(b"late", False) + more(b"r"))
    case("5.5.1", "what is wrong behind a close", "closed 1000", close(1000) + b"\xff\xff\xff\xff")
    case("5.5.1", "two closes", "closed 1000", close(1000) + close(1001))
    case("5.5.1", "ping behind a close", "closed 1001", close(1001) + ping(b"late"))
    case("5.5.1", "close behind text", "text+ 1, closed 1000", text(b"a") + close(1000))
    case("7.1.1", "the server closes, and is answered", "text+ 6, closed 1000", text(b"!close"), server_closes=True)
    case("7.1.1", "the server closes, and is answered without a code", "text+ 6, closed 1000", text(b"!close"), server_closes=True, after=close())
    case("7.1.1", "the server closes, and is answered with another code", "text+ 6, closed 1000", text(b"!close"), server_closes=True,
         after=close(3000, b"x"))
    case("7.1.1", "the server closes, and is not answered", "text+ 6, closed 1000", text(b"!close"), server_closes=True, after=b"")
    case("7.1.1", "the server closes, and is answered wrongly", "text+ 6, closed 1000", text(b"!close"), server_closes=True, after=b"\xff\xff",
         why="what is wrong when the server has closed ends the connection, and no second close frame is sent")
    case("5.5.1", "text when the server has closed", "text+ 6, closed 1000", text(b"!close"), server_closes=True, after=text(b"late") + close(1000),
         why="who has closed a connection is told of nothing but its end")
    case("7.1.5", "the end instead of a close", "text+ 1, ended", text(b"a"), after=None)
    case("7.1.5", "the end within a message", "text- 1, ended", text(b"a", False), after=None, why=ONE_BY_ONE)
    case("7.1.5", "the end within a frame", "ended", header(1, 100) + b"abc", after=None)
    case("7.1.5", "the end within a header", "ended", b"\x81", after=None)
    good = [*range(1000, 1004), *range(1007, 1015), 3000, 3001, 3500, 3999, 4000, 4001, 4500, 4999]
    bad = [0, 1, 500, 999, 1004, 1005, 1006, *range(1015, 1019), 1100, 1999, 2000, 2500, 2999, 5000, 5001, 10000, 32768, 65535]
    for code in good:
        case("7.4", f"close code {code}", f"closed {code}", close(code))
    for code in bad:
        case("7.4", f"close code {code}", "closed 1002", close(code))
    case("7.4", "a code that may not be sent, with a reason", "closed 1002", close(1005, b"x"))


def utf8():
    valid = {
        "U+007F": "\x7f", "U+0080": "\x80", "U+07FF": "\u07ff", "U+0800": "\u0800", "U+0FFF": "\u0fff", "U+1000": "\u1000",
        "U+CFFF": "\ucfff", "U+D000": "\ud000", "U+D7FF": "\ud7ff", "U+E000": "\ue000", "U+FEFF": "\ufeff",
        "U+FFFD": "\ufffd", "U+FFFE": "\ufffe", "U+FFFF": "\uffff", "U+10000": "\U00010000", "U+3FFFF": "\U0003ffff",
        "U+40000": "\U00040000", "U+FFFFF": "\U000fffff", "U+100000": "\U00100000", "U+10FFFF": "\U0010ffff",
        "Greek": "κόσμε", "NUL": "\0", "ASCII and others": "plain text, then \u00e4\u20ac\U0001f600 and plain text again",
    }
    for name, characters in valid.items():
        payload = characters.encode()
        case("8.1", f"{name}", f"text+ {len(payload)}, open", text(payload))
    invalid = {
        "continuation byte alone": b"\x80", "last continuation byte alone": b"\xbf", "second continuation byte": b"\xc2\x80\x80",
        "two bytes for one (C0)": b"\xc0\x80", "two bytes for one (C1)": b"\xc1\xbf",
        "three bytes for one": b"\xe0\x80\x80", "three bytes for two": b"\xe0\x9f\xbf",
        "four bytes for one": b"\xf0\x80\x80\x80", "four bytes for three": b"\xf0\x8f\xbf\xbf",
        "first surrogate": b"\xed\xa0\x80", "last surrogate": b"\xed\xbf\xbf",
        "pair of surrogates": b"\xed\xa0\x80\xed\xb0\x80", "U+110000": b"\xf4\x90\x80\x80",
        "F5": b"\xf5\x80\x80\x80", "F7": b"\xf7\xbf\xbf\xbf", "five bytes": b"\xf8\x88\x80\x80\x80",
        "six bytes": b"\xfc\x84\x80\x80\x80\x80", "FE": b"\xfe", "FF": b"\xff",
        "two bytes cut short": b"\xc3", "three bytes cut short": b"\xe2\x82", "three bytes cut shorter": b"\xe2",
        "four bytes cut short": b"\xf0\x9f\x98", "four bytes cut shorter": b"\xf0\x9f", "four bytes cut shortest": b"\xf0",
        "cut short within the text": b"abc\xe2\x82def", "wrong behind much ASCII": b"x" * 4099 + b"\xff" + b"x" * 100,
    }
    for name, payload in invalid.items():
        case("8.1", name, "closed 1007", text(payload))
    for payload in (b"\x80", b"\xc3", b"\xc0\x80", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xce\xba\xe1\xbd"):
        case("8.1", f"close with the reason {payload.hex()}", "closed 1007", close(1000, payload))
    case("8.1", "character over two fragments", "text- 1, continuation+ 1, open", text(b"\xc3", False) + more(b"\xa4"),
         why=ONE_BY_ONE)
    case("8.1", "character over four fragments with a ping within",
         "text- 1, continuation- 1, continuation- 0, continuation- 1, continuation+ 1, pong 1, open",
         text(b"\xf0", False) + more(b"\x9f", False) + ping(b"\xff") + more(b"", False) +
         more(b"\x98", False) + more(b"\x80"), why=ONE_BY_ONE)
    case("8.1", "message that ends in a character's middle", "text- 1, continuation- 1, closed 1007",
         text(b"a", False) + more(b"\xe2", False) + more(b"\x82"), why=ONE_BY_ONE)
    case("8.1", "wrong continuation in the second fragment", "text- 1, closed 1007",
         text(b"\xe2", False) + more(b"\x28\xa1"), why=ONE_BY_ONE)
    case("8.1", "empty last fragment within a character", "text- 1, closed 1007", text(b"\xe2", False) + more(b""),
         why=ONE_BY_ONE)
    case("8.1", "wrong byte of a frame that has not ended", "closed 1007", header(1, 100) + masked(b"ab\xff"))
    case("8.1", "binary that is not UTF-8", "binary+ 2, open", binary(b"\xff\xfe"))
    case("8.1", "binary in fragments that is not UTF-8", "binary- 1, continuation+ 1, open",
         binary(b"\xff", False) + more(b"\xfe"), why=ONE_BY_ONE)
    case("8.1", "text behind binary that is not UTF-8", "binary+ 1, text+ 1, open", binary(b"\xe2") + text(b"a"))


def extensions():
    asked = request(Sec_WebSocket_Extensions="permessage-deflate")
    case("9.1", "permessage-deflate is declined", "open", upgrade=asked)
    case("9.1", "what it would mean is an error then", "closed 1002", frame(1, b"x", rsv=4), asked)


def security():
    for origin in ("http://localhost", "http://127.0.0.1", "https://example.org", "null", "file://", ""):
        case("10.2", f"Origin: {origin}", "http 403", upgrade=request(Origin=origin), why=LOOPBACK_ONLY)
    for host in ("example.org", "127.0.0.1.example.org", "localhost.example.org", "127.0.0.2", "0.0.0.0", "127.1", "[::2]",
                 "::1", "", "localhost:x", "localhost:", "a@localhost"):
        case("10.2", f"Host: {host}", "http 403", upgrade=request(Host=host), why=LOOPBACK_ONLY)
    case("10.4", "length of 64 MiB and one", "closed 1009", header(2, (64 << 20) + 1))
    case("10.4", "length of 2^62", "closed 1009", header(1, 1 << 62))
    case("10.4", "a continuation of 64 MiB and one", "text- 1, closed 1009",
         text(b"x", False) + header(0, (64 << 20) + 1), why=ONE_BY_ONE)
    case("10.4", "a head of 100 KiB", "http 431", upgrade=request(X="x" * 100000))
    case("10.4", "a head of 10,000 lines", "http 431", upgrade=request(lines=["X: y"] * 10000))
    case("10.7", "a head that never ends", "http 431", upgrade=b"x" * 20000)
    case("10.7", "bytes at random", "http 400", upgrade=struct.pack("<8Q", *[pow(7, n, 1 << 61) for n in range(9, 17)]) + b"\r\n\r\n")


for rows in (opening, framing, masking, fragments, control, sending, closing, utf8, extensions, security):
    rows()
