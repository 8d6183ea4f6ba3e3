#!/usr/bin/env python3
"""RFC 6455 from a client's side: what the server makes of bytes, right and wrong.

usage: rfc6455_cases.py NET_ECHO [ARGUMENT...]

Starts NET_ECHO with the arguments, plays each case against it over a connection of its own, and prints a table. A verdict is
what the server handed on, frame by frame ("text+ 5": final, five bytes), and how the connection then stood:

  open          it still answered a ping
  closed 1002   it was closed with a close frame and that code ("closed -": without one)
  dropped       it was closed without a close frame
  http 403      it was refused

The exit status is 1 when a verdict differs from what is expected.
"""

import socket
import struct
import subprocess
import sys

TIMEOUT = 20
MASK = b"\x12\x34\x56\x78"
PROBE = b"still open?"


def masked(payload):
    key = (MASK * (len(payload) // 4 + 1))[: len(payload)]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")).to_bytes(len(payload), "big")


def header(opcode, length, fin=True, rsv=0, mask=True, width=None):
    """`width`: the bytes that the length is written in; by default the fewest."""
    if width is None:
        width = 1 if length < 126 else 2 if length < 65536 else 8
    first = (0x80 if fin else 0) | rsv << 4 | opcode
    bit = 0x80 if mask else 0
    if width == 1:
        head = struct.pack("!BB", first, bit | length)
    elif width == 2:
        head = struct.pack("!BBH", first, bit | 126, length)
    else:
        head = struct.pack("!BBQ", first, bit | 127, length)
    return head + (MASK if mask else b"")


def frame(opcode, payload=b"", fin=True, rsv=0, mask=True, width=None):
    body = masked(payload) if mask else payload
    return header(opcode, len(payload), fin, rsv, mask, width) + body


def text(payload, fin=True):
    return frame(1, payload, fin)


def more(payload, fin=True):
    return frame(0, payload, fin)


def binary(payload, fin=True):
    return frame(2, payload, fin)


def ping(payload=b""):
    return frame(9, payload)


def close(code=None, reason=b""):
    return frame(8, b"" if code is None else struct.pack("!H", code) + reason)


def request(line="GET / HTTP/1.1", **changes):
    """Header names are written with underscores; None takes a header away."""
    headers = {
        "Host": "127.0.0.1",
        "Upgrade": "websocket",
        "Connection": "Upgrade",
        "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ==",
        "Sec-WebSocket-Version": "13",
    }
    for name, value in changes.items():
        headers[name.replace("_", "-")] = value
    lines = [line] + [f"{name}: {value}" for name, value in headers.items() if value is not None]
    return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


class Client:
    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), TIMEOUT)
        self.buffer = b""

    def send(self, data):
        try:
            self.socket.sendall(data)
        except OSError:
            pass  # the server may have ended it on the first of several bytes; reading tells how

    def fill(self, size):
        while len(self.buffer) < size:
            try:
                got = self.socket.recv(1 << 16)
            except ConnectionError:
                got = b""
            if not got:
                return False
            self.buffer += got
        return True

    def take(self, size):
        taken, self.buffer = self.buffer[:size], self.buffer[size:]
        return taken

    def head(self):
        while b"\r\n\r\n" not in self.buffer:
            if not self.fill(len(self.buffer) + 1):
                return self.take(len(self.buffer))
        return self.take(self.buffer.index(b"\r\n\r\n") + 4)

    def frame(self):
        """(opcode, payload), or None at the end of the connection."""
        if not self.fill(2):
            return None
        first, length = self.buffer[0], self.buffer[1]
        size = 2
        if length in (126, 127):
            size = 4 if length == 126 else 10
            if not self.fill(size):
                return None
            length = int.from_bytes(self.buffer[2:size], "big")
        if length & 0x80 and size == 2:
            raise ValueError("the server masks")
        if not self.fill(size + length):
            return None
        self.take(size)
        return first & 0x0F, self.take(length)


class Server:
    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline().split()[1])

    def events_of_one(self):
        """What is told of the one connection that there was, without its handshake and its close."""
        events = []
        while True:
            event = self.process.stdout.readline().split(maxsplit=1)[1].strip()
            if event == "close":
                return events
            if event != "handshake":
                events.append(event)

    def stop(self):
        self.process.stdin.close()
        rest = self.process.stdout.read()
        return self.process.wait(TIMEOUT), rest


def play(server, sent, upgrade):
    client = Client(server.port)
    client.send(upgrade)
    status = client.head().split(b" ")[1:2]
    if status != [b"101"]:
        client.socket.close()
        return "http " + (status[0].decode() if status else "nothing")
    for piece in sent:
        client.send(piece)
    client.send(ping(PROBE))
    pongs = []
    state = "dropped"
    while True:
        seen = client.frame()
        if seen is None:
            break
        opcode, payload = seen
        if opcode == 8:
            state = f"closed {struct.unpack('!H', payload[:2])[0]}" if len(payload) >= 2 else "closed -"
        elif opcode == 10 and payload == PROBE:
            state = "open"
            break
        elif opcode == 10:
            pongs.append(f"pong {len(payload)}")
        else:
            pongs.append(f"sent {opcode}")
    client.socket.close()
    return ", ".join(server.events_of_one() + pongs + [state])


CASES = []


def case(section, name, expected, *sent, upgrade=request()):
    CASES.append((section, name, expected, sent, upgrade))


def lengths():
    for size in (0, 1, 125, 126, 127, 128, 65535, 65536, 65537, 1 << 20):
        case("5.2", f"text of {size}", f"text+ {size}, open", text(b"x" * size))
        case("5.2", f"binary of {size}", f"binary+ {size}, open", binary(b"\xfe" * size))
    for size, width in ((0, 2), (125, 2), (0, 8), (125, 8), (126, 8), (65535, 8)):
        case("5.2", f"length {size} in {width} bytes", "closed 1002", frame(1, b"x" * size, width=width))
    case("5.2", "length with the highest bit", "closed 1002", header(2, 1 << 63))
    case("5.2", "length of 64 MiB and one", "closed 1009", header(2, (64 << 20) + 1))
    case("5.2", "length of 2^62", "closed 1009", header(1, 1 << 62))
    case("5.2", "frame in single bytes", "text+ 130, open",
         *[bytes([byte]) for byte in text(b"y" * 130)])
    case("5.2", "three frames in one piece", "text+ 1, binary+ 2, text+ 0, open",
         text(b"1") + binary(b"22") + text(b""))


def masking():
    for opcode, name in ((1, "text"), (2, "binary"), (8, "close"), (9, "ping"), (10, "pong")):
        case("5.1", f"{name} without a mask", "closed 1002", frame(opcode, b"", mask=False))
    case("5.1", "text of 200 without a mask", "closed 1002", frame(1, b"x" * 200, mask=False))
    case("5.1", "a good frame, then one without a mask", "text+ 1, closed 1002",
         text(b"1") + frame(1, b"2", mask=False))
    case("5.1", "continuation without a mask", "text- 1, closed 1002",
         text(b"1", False) + frame(0, b"2", mask=False))
    case("5.3", "a mask of zeros", "text+ 3, open", b"\x81\x83\0\0\0\0abc")


def reserved():
    for rsv in range(1, 8):
        case("5.2", f"reserved bits {rsv:03b} on text", "closed 1002", frame(1, b"x", rsv=rsv))
    for opcode, name in ((2, "binary"), (8, "close"), (9, "ping"), (10, "pong")):
        case("5.2", f"a reserved bit on {name}", "closed 1002", frame(opcode, rsv=4))
    case("5.2", "a reserved bit on a continuation", "text- 1, closed 1002",
         text(b"x", False) + frame(0, b"y", rsv=4))
    for opcode in (3, 4, 5, 6, 7, 11, 12, 13, 14, 15):
        case("5.2", f"opcode {opcode}", "closed 1002", frame(opcode, b"x"))
        case("5.2", f"opcode {opcode}, empty, behind text", "text+ 1, closed 1002",
             text(b"1") + frame(opcode))


def fragments():
    case("5.4", "two fragments", "text- 2, continuation+ 3, open", text(b"ab", False) + more(b"cde"))
    case("5.4", "five fragments", "binary- 1, " + "continuation- 1, " * 3 + "continuation+ 1, open",
         binary(b"1", False) + more(b"2", False) * 3 + more(b"3"))
    case("5.4", "empty fragments", "text- 0, continuation- 0, continuation+ 0, open",
         text(b"", False) + more(b"", False) + more(b""))
    case("5.4", "message behind a fragmented one", "text- 1, continuation+ 1, text+ 1, open",
         text(b"a", False) + more(b"b") + text(b"c"))
    case("5.4", "continuation of nothing", "closed 1002", more(b"x"))
    case("5.4", "continuation of nothing, not final", "closed 1002", more(b"x", False))
    case("5.4", "continuation behind a whole message", "text+ 1, closed 1002", text(b"x") + more(b"y"))
    case("5.4", "continuation behind the last one", "text- 1, continuation+ 1, closed 1002",
         text(b"x", False) + more(b"y") + more(b"z"))
    for second, name in ((text(b"y"), "text"), (binary(b"y"), "binary"), (text(b"y", False), "begin of text")):
        case("5.4", f"{name} within a message", "text- 1, closed 1002", text(b"x", False) + second)
    case("5.4", "ping between fragments", "text- 1, continuation+ 1, pong 4, open",
         text(b"a", False) + ping(b"ping") + more(b"b"))
    case("5.4", "pong between fragments", "text- 1, continuation+ 1, open",
         text(b"a", False) + frame(10, b"pong") + more(b"b"))
    case("5.4", "close between fragments", "text- 1, closed 1000",
         text(b"a", False) + close(1000) + more(b"b"))


def control():
    for size in (0, 1, 124, 125):
        case("5.5.2", f"ping of {size}", f"pong {size}, open", ping(b"\xff" * size))
    for opcode, name in ((8, "close"), (9, "ping"), (10, "pong")):
        case("5.5", f"{name} of 126", "closed 1002", frame(opcode, b"\x03\xe8" + b"x" * 124))
        case("5.5", f"{name} of 125 written in two bytes", "closed 1002",
             frame(opcode, b"\x03\xe8" + b"x" * 123, width=2))
        case("5.5", f"{name} of 65536", "closed 1002", frame(opcode, b"x" * 65536))
        case("5.5", f"{name} in fragments", "closed 1002", frame(opcode, b"", fin=False))
    case("5.5.2", "ten pings", "pong 3, " * 10 + "open", ping(b"abc") * 10)
    case("5.5.3", "pong that nobody asked for", "open", frame(10, b"x"))
    case("5.5.3", "pong of 125", "open", frame(10, b"x" * 125))


def closing():
    case("5.5.1", "close without a code", "closed -", close())
    case("5.5.1", "close with half a code", "closed 1002", frame(8, b"\x03"))
    case("5.5.1", "close with a reason", "closed 1000", close(1000, b"bye"))
    case("5.5.1", "close with the longest reason", "closed 1000", close(1000, b"x" * 123))
    case("5.5.1", "close with a reason of several bytes a character", "closed 1000",
         close(1000, "κόσμε".encode()))
    case("5.5.1", "close with a reason that is not UTF-8", "closed 1007", close(1000, b"\xce\xba\xe1\xbd"))
    case("5.5.1", "text behind a close", "closed 1000", close(1000) + text(b"late"))
    case("5.5.1", "two closes", "closed 1000", close(1000) + close(1001))
    case("5.5.1", "ping behind a close", "closed 1001", close(1001) + ping(b"late"))
    good = list(range(1000, 1004)) + list(range(1007, 1015)) + [3000, 3001, 3999, 4000, 4001, 4999]
    bad = [0, 1, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 5001, 65535]
    for code in good:
        case("7.4", f"close code {code}", f"closed {code}", close(code))
    for code in bad:
        case("7.4", f"close code {code}", "closed 1002", close(code))


def utf8():
    valid = {
        "U+007F": "\x7f", "U+0080": "\x80", "U+07FF": "\u07ff", "U+0800": "\u0800", "U+D7FF": "\ud7ff",
        "U+E000": "\ue000", "U+FEFF": "\ufeff", "U+FFFD": "\ufffd", "U+FFFF": "\uffff",
        "U+10000": "\U00010000", "U+10FFFF": "\U0010ffff", "Greek": "κόσμε", "NUL": "\0",
        "ASCII and others": "plain text, then \u00e4\u20ac\U0001f600 and plain text again",
    }
    for name, characters in valid.items():
        payload = characters.encode()
        case("8.1", f"{name}", f"text+ {len(payload)}, open", text(payload))
    invalid = {
        "continuation byte alone": b"\x80", "second continuation byte": b"\xc2\x80\x80",
        "two bytes for one (C0)": b"\xc0\x80", "two bytes for one (C1)": b"\xc1\xbf",
        "three bytes for two": b"\xe0\x9f\xbf", "four bytes for three": b"\xf0\x8f\xbf\xbf",
        "first surrogate": b"\xed\xa0\x80", "last surrogate": b"\xed\xbf\xbf",
        "pair of surrogates": b"\xed\xa0\x80\xed\xb0\x80", "U+110000": b"\xf4\x90\x80\x80",
        "F5": b"\xf5\x80\x80\x80", "five bytes": b"\xf8\x88\x80\x80\x80",
        "six bytes": b"\xfc\x84\x80\x80\x80\x80", "FE": b"\xfe", "FF": b"\xff",
        "two bytes cut short": b"\xc3", "three bytes cut short": b"\xe2\x82",
        "four bytes cut short": b"\xf0\x9f\x98", "cut short within the text": b"abc\xe2\x82def",
        "wrong behind much ASCII": b"x" * 4099 + b"\xff" + b"x" * 100,
    }
    for name, payload in invalid.items():
        case("8.1", name, "closed 1007", text(payload))
    case("8.1", "character over two fragments", "text- 1, continuation+ 1, open",
         text(b"\xc3", False) + more(b"\xa4"))
    case("8.1", "character over four fragments with a ping within",
         "text- 1, continuation- 1, continuation- 0, continuation- 1, continuation+ 1, pong 1, open",
         text(b"\xf0", False) + more(b"\x9f", False) + ping(b"\xff") + more(b"", False) +
         more(b"\x98", False) + more(b"\x80"))
    case("8.1", "message that ends in a character's middle", "text- 1, continuation- 1, closed 1007",
         text(b"a", False) + more(b"\xe2", False) + more(b"\x82"))
    case("8.1", "wrong continuation in the second fragment", "text- 1, closed 1007",
         text(b"\xe2", False) + more(b"\x28\xa1"))
    case("8.1", "empty last fragment within a character", "text- 1, closed 1007",
         text(b"\xe2", False) + more(b""))
    case("8.1", "wrong byte of a frame that has not ended", "closed 1007",
         header(1, 100) + masked(b"ab\xff"))
    case("8.1", "binary that is not UTF-8", "binary+ 2, open", binary(b"\xff\xfe"))
    case("8.1", "binary in fragments that is not UTF-8", "binary- 1, continuation+ 1, open",
         binary(b"\xff", False) + more(b"\xfe"))
    case("8.1", "text behind binary that is not UTF-8", "binary+ 1, text+ 1, open",
         binary(b"\xe2") + text(b"a"))


def handshake():
    case("4.2.1", "proper", "open")
    case("4.2.1", "names and values in other cases", "open",
         upgrade=request(Upgrade="WebSocket", Connection="keep-alive, upgrade"))
    case("4.2.1", "with a path and a query", "open", upgrade=request("GET /a/b?c=d HTTP/1.1"))
    case("4.2.1", "with subprotocols", "open", upgrade=request(Sec_WebSocket_Protocol="a, b"))
    case("9.1", "with permessage-deflate, which is declined", "closed 1002",
         frame(1, b"x", rsv=4), upgrade=request(Sec_WebSocket_Extensions="permessage-deflate"))
    case("4.2.1", "POST", "http 400", upgrade=request("POST / HTTP/1.1"))
    case("4.2.1", "HTTP/1.0", "http 400", upgrade=request("GET / HTTP/1.0"))
    case("4.2.1", "without Connection", "http 400", upgrade=request(Connection=None))
    case("4.2.1", "Connection that does not say Upgrade", "http 400", upgrade=request(Connection="close"))
    case("4.2.1", "without Upgrade", "http 404", upgrade=request(Upgrade=None))
    case("4.2.1", "Upgrade to something else", "http 404", upgrade=request(Upgrade="h2c"))
    case("4.2.1", "without a key", "http 400", upgrade=request(Sec_WebSocket_Key=None))
    case("4.2.1", "key of 15 bytes", "http 400", upgrade=request(Sec_WebSocket_Key="AAAAAAAAAAAAAAAAAAAA"))
    case("4.2.1", "key that is not Base64", "http 400",
         upgrade=request(Sec_WebSocket_Key="dGhlIHNhbXBsZSBub25j*Q=="))
    case("4.2.2", "without a version", "http 426", upgrade=request(Sec_WebSocket_Version=None))
    for version in ("0", "7", "8", "12", "14", "013", "x"):
        case("4.2.2", f"version {version}", "http 426", upgrade=request(Sec_WebSocket_Version=version))
    case("4.2.1", "without Host", "http 403", upgrade=request(Host=None))
    case("10.2", "with an Origin", "http 403", upgrade=request(Origin="http://localhost"))
    case("10.2", "a foreign Host", "http 403", upgrade=request(Host="example.org"))


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    for rows in (handshake, lengths, masking, reserved, fragments, control, closing, utf8):
        rows()
    server = Server(sys.argv[1:])
    differing = 0
    width = max(len(name) for _, name, *_ in CASES)
    print(f"{'':4}{'section':8} {'case':{width}} expected | seen")
    for section, name, expected, sent, upgrade in CASES:
        try:
            seen = play(server, sent, upgrade)
        except (OSError, ValueError, IndexError) as error:
            seen = f"{type(error).__name__}: {error}"
        same = seen == expected
        differing += not same
        print(f"{'' if same else '!!!':4}{section:8} {name:{width}} {expected} | {seen}", flush=True)
    status, rest = server.stop()
    if status != 0 or rest:
        print(f"!!! the server ended with {status} and left {rest!r}")
        differing += 1
    print(f"{len(CASES)} cases, {differing} differ")
    sys.exit(1 if differing else 0)


if __name__ == "__main__":
    main()
