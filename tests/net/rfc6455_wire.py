"""A client's side of RFC 6455, byte by byte, sharing no code with the server: frames, requests, and a connection that
looks closely at what the server sends."""

import base64
import hashlib
import socket
import struct
import time

TIMEOUT = 30
MASK = b"\x12\x34\x56\x78"
NAMES = {0: "continuation", 1: "text", 2: "binary", 8: "close", 9: "ping", 10: "pong"}


def masked(payload, mask=MASK):
    key = (mask * (len(payload) // 4 + 1))[: len(payload)]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")).to_bytes(len(payload), "big")


def header(opcode, length, fin=True, rsv=0, mask=MASK, width=None):
    """`width`: the bytes that the length is written in; by default the fewest. `mask`: None for none."""
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
    return head + (mask or b"")


def frame(opcode, payload=b"", fin=True, rsv=0, mask=MASK, width=None):
    return header(opcode, len(payload), fin, rsv, mask, width) + (masked(payload, mask) if mask else payload)


def text(payload, fin=True, mask=MASK):
    return frame(1, payload, fin, mask=mask)


def more(payload, fin=True):
    return frame(0, payload, fin)


def binary(payload, fin=True):
    return frame(2, payload, fin)


def ping(payload=b""):
    return frame(9, payload)


def close(code=None, reason=b""):
    return frame(8, b"" if code is None else struct.pack("!H", code) + reason)


def request(line="GET / HTTP/1.1", lines=(), end="\r\n", **changes):
    """Header names are written with underscores; None takes a header away. `lines` stand behind the others."""
    headers = {
        "Host": "127.0.0.1",
        "Upgrade": "websocket",
        "Connection": "Upgrade",
        "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ==",
        "Sec-WebSocket-Version": "13",
    }
    for name, value in changes.items():
        headers[name.replace("_", "-")] = value
    head = [line] + [f"{name}: {value}" for name, value in headers.items() if value is not None] + list(lines)
    return (end.join(head) + end + end).encode("latin-1")


def frame_ends(data):
    """Where reading may stop and begin again within frames: behind each byte of a header, in the middle of a payload, before
    its last byte, and between frames."""
    begin = 0
    while len(data) - begin >= 2:
        length, size = data[begin + 1] & 0x7F, 2
        if length >= 126:
            width = 2 if length == 126 else 8
            length = int.from_bytes(data[begin + 2:begin + 2 + width], "big")
            size += width
        size += 4 if data[begin + 1] & 0x80 else 0
        yield from range(begin + 1, begin + size + 1)
        yield from (begin + size + length // 2, begin + size + length - 1, begin + size + length)
        begin += size + length


class Unread:
    """Whether bytes wait in a socket of this machine, which the kernel tells anybody (sock_diag); None where it does not."""

    def __init__(self, local, remote):
        self.kernel = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 4)
        address = [socket.inet_aton(end[0]).ljust(16, b"\0") for end in (local, remote)]
        ask = struct.pack("=BBBxI", socket.AF_INET, socket.IPPROTO_TCP, 0, 0xFFFFFFFF)
        ask += struct.pack("!HH", local[1], remote[1]) + address[0] + address[1] + struct.pack("=IQ", 0, (1 << 64) - 1)
        self.request = struct.pack("=IHHII", 16 + len(ask), 20, 1, 0, 0) + ask

    def __call__(self):
        self.kernel.send(self.request)
        answer = self.kernel.recv(1 << 12)
        listening = 10  # is what is found when the socket is closed
        if struct.unpack_from("=H", answer, 4)[0] != 20 or answer[17] == listening:
            return None
        return struct.unpack_from("=I", answer, 72)[0] > 0

    def close(self):
        self.kernel.close()


class Client:
    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), TIMEOUT)
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.unread = Unread(self.socket.getpeername(), self.socket.getsockname())
        self.buffer = b""

    def close(self):
        self.unread.close()
        self.socket.close()

    def send(self, data):
        try:
            self.socket.sendall(data)
        except OSError:
            pass  # the server may have ended it on the first of several bytes; reading tells how

    def send_apart(self, pieces):
        """Each piece is read by the server before the next one is sent."""
        for piece in pieces:
            self.send(piece)
            late = time.monotonic() + TIMEOUT
            while self.unread():
                if time.monotonic() > late:
                    raise ValueError("the server does not read")

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

    def answer(self, key):
        """What became of the request: "101", another status, or what is wrong with the answer."""
        while b"\r\n\r\n" not in self.buffer:
            if not self.fill(len(self.buffer) + 1):
                return "nothing" if not self.buffer else "half an answer"
        lines = self.take(self.buffer.index(b"\r\n\r\n") + 4).decode("latin-1").split("\r\n")
        version, status, _ = lines[0].split(" ", 2)
        headers = dict(line.lower().split(": ", 1) for line in lines[1:] if line)
        if version != "HTTP/1.1":
            return f"a {version} answer"
        if status != "101":
            return status
        accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest()).decode()
        expected = {"upgrade": "websocket", "connection": "upgrade", "sec-websocket-accept": accept.lower()}
        right = headers == expected and any(line.endswith(": " + accept) for line in lines)
        return "101" if right else f"101 with {headers}"

    def frame(self):
        """(opcode, final, payload), or None at the end of the connection. Raises ValueError for a frame that a server must not
        send."""
        if not self.fill(2):
            return None
        first, length = self.buffer[0], self.buffer[1]
        if first & 0x70:
            raise ValueError("the server sets a reserved bit")
        if length & 0x80:
            raise ValueError("the server masks")
        size = 2
        if length in (126, 127):
            size = 4 if length == 126 else 10
            if not self.fill(size):
                return None
            shortest = 126 if length == 126 else 65536
            length = int.from_bytes(self.buffer[2:size], "big")
            if length < shortest:
                raise ValueError("the server writes a length in too many bytes")
        if not self.fill(size + length):
            return None
        self.take(size)
        opcode = first & 0x0F
        if opcode not in NAMES or opcode >= 8 and (length > 125 or not first & 0x80):
            raise ValueError("the server sends a control frame that is none")
        return opcode, bool(first & 0x80), self.take(length)
