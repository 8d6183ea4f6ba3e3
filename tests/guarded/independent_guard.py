#!/usr/bin/env python3
"""A guard that knows nothing of the frame but docs/wire/guard-messages.md.

It reads the port from the host's "LpcFrame.xml", connects, starts the plugins that it is told to start as
plugins/<id>/guarded_plugin beside that file, and prints one line for each thing that it sees or does. What
does not agree with the page is a line that begins with "wrong:". It ends with its connection, or with its
input.

Lines of its input make it do more than a guard does:

  ask METHOD [GUID]       a request
  burst COUNT METHOD      so many at once, with the guids burst-0, burst-1 and so on
  text TEXT               a text message, whatever it is; "empty" is one without a byte
  pad SIZE TEXT           the text, filled up with blanks to so many bytes
  nest DEPTH              so many arrays, one within the other
  deep DEPTH GUID         a request that also carries so many arrays, one within the other
  hex BYTES               a text message of these bytes
  frame BYTES             these bytes as they are
  split TEXT              a text message in two fragments
  binary TEXT             a binary message
  ping TEXT               a ping
  unmasked TEXT           a text message as only a server may send it
  half TEXT               the first half of a text message, and then the end of the connection
  upgrade NAME: VALUE     another connection, which only upgrades, with this header; no VALUE: without it
  get PATH                another connection, which asks for something else than an upgrade
  hang COUNT              so many connections that never finish their handshake
  reconnect               ends the connection and makes another
  kill ID                 kills a plugin
"""

import argparse
import base64
import ctypes
import hashlib
import json
import os
import select
import selectors
import signal
import socket
import struct
import subprocess
import time
import xml.etree.ElementTree

CONTINUATION, TEXT, BINARY, CLOSE, PING, PONG = 0, 1, 2, 8, 9, 10
ACCEPT_SUFFIX = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
PATIENCE_S = 30
MOST_RESTARTS = 10
PR_SET_PDEATHSIG = 1
LIBC = ctypes.CDLL(None)


def say(line):
    os.write(1, (line + "\n").encode())


class ConnectionEnded(Exception):
    """Holds how."""


class Refused(Exception):
    """Holds the status line of the answer to an upgrade."""


def read_port(config, element):
    return int(xml.etree.ElementTree.parse(config).getroot().findtext(element))


def upgrade_request(path, headers):
    lines = [f"GET {path} HTTP/1.1"] + [f"{name}: {value}" for name, value in headers.items() if value]
    return "\r\n".join(lines + ["", ""]).encode()


def upgrade_headers(port):
    return {
        "Host": f"127.0.0.1:{port}",
        "Upgrade": "websocket",
        "Connection": "Upgrade",
        "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(),
        "Sec-WebSocket-Version": "13",
    }


def read_head(peer):
    """The answer's head, and what came behind it."""
    received = b""
    while b"\r\n\r\n" not in received:
        chunk = peer.recv(4096)
        if not chunk:
            raise Refused("nothing" if not received else received.split(b"\r\n")[0].decode())
        received += chunk
    head, behind = received.split(b"\r\n\r\n", 1)
    return head.decode().split("\r\n"), behind


def upgrade(peer, port, path="/", changed=None, piecewise=False):
    """What came behind the handshake; raises when there was none."""
    headers = upgrade_headers(port)
    headers.update(changed or {})
    request = upgrade_request(path, headers)
    for piece in [request[i : i + 1] for i in range(len(request))] if piecewise else [request]:
        peer.sendall(piece)
    (status, *lines), behind = read_head(peer)
    if status.split(" ")[:2] != ["HTTP/1.1", "101"]:
        raise Refused(status)
    answer = {}
    for line in lines:
        name, _, value = line.partition(":")
        answer[name.strip().lower()] = value.strip()
    digest = hashlib.sha1(headers["Sec-WebSocket-Key"].encode() + ACCEPT_SUFFIX).digest()
    if answer.get("sec-websocket-accept") != base64.b64encode(digest).decode():
        say("wrong: Sec-WebSocket-Accept")
    if answer.get("upgrade", "").lower() != "websocket" or answer.get("connection", "").lower() != "upgrade":
        say("wrong: the handshake's answer upgrades nothing")
    for name in ("sec-websocket-protocol", "sec-websocket-extensions"):
        if name in answer:
            say(f"wrong: {name} in the handshake's answer")
    return behind


def frame(opcode, payload, final=True, masked=True):
    size = len(payload)
    head = bytes([opcode | (0x80 if final else 0)])
    mask_bit = 0x80 if masked else 0
    if size < 126:
        head += bytes([mask_bit | size])
    elif size < 65536:
        head += struct.pack(">BH", mask_bit | 126, size)
    else:
        head += struct.pack(">BQ", mask_bit | 127, size)
    if not masked:
        return head + payload
    key = os.urandom(4)
    # As one number: byte by byte would take a minute for the largest text.
    pattern = (key * (size // 4 + 1))[:size]
    mixed = int.from_bytes(payload, "little") ^ int.from_bytes(pattern, "little")
    return head + key + mixed.to_bytes(size, "little")


class Connection:
    """One upgraded connection. Sending only queues."""

    def __init__(self, peer, received):
        self.peer = peer
        self.peer.setblocking(False)
        self.received = bytearray(received)
        self.queued = bytearray()
        self.close_when_sent = False

    def send(self, data):
        self.queued += data

    def pump_out(self):
        try:
            sent = self.peer.send(memoryview(self.queued)[: 1 << 20])
        except BlockingIOError:
            return
        except OSError as error:
            raise ConnectionEnded(error.strerror) from None
        del self.queued[:sent]
        if not self.queued and self.close_when_sent:
            raise ConnectionEnded("closed here")

    def pump_in(self):
        try:
            chunk = self.peer.recv(1 << 16)
        except BlockingIOError:
            return
        except OSError as error:
            raise ConnectionEnded(error.strerror) from None
        if not chunk:
            raise ConnectionEnded("end of file")
        self.received += chunk

    def next_frame(self):
        """(opcode, payload), or nothing as long as it is not complete."""
        data = self.received
        if len(data) < 2:
            return None
        begin, size = 2, data[1] & 0x7F
        if size >= 126:
            width = 2 if size == 126 else 8
            begin += width
            if len(data) < begin:
                return None
            size = int.from_bytes(data[2:begin], "big")
        if len(data) < begin + size:
            return None
        if data[0] & 0xF0 != 0x80 or data[1] & 0x80:
            say(f"wrong: a frame that begins with {data[0]:02x} {data[1]:02x}")
        opcode, payload = data[0] & 0x0F, bytes(data[begin : begin + size])
        del data[: begin + size]
        return opcode, payload


class Plugins:
    """The processes that this guard has started, and which of them it starts again."""

    def __init__(self, folder, selector, on_end, on_restart):
        self.folder = folder
        self.selector = selector
        self.on_end = on_end
        self.on_restart = on_restart
        self.running = {}
        self.unwatched = set()
        self.restarts = {}
        self.cmdline = ""

    def start(self, name):
        if name in self.running:
            say(f"running already {name}")
            return
        place = os.path.join(self.folder, "plugins", name)
        program = os.path.join(place, "guarded_plugin")
        try:
            # It goes with this guard, however that ends.
            process = subprocess.Popen(
                [program] + self.cmdline.split(),
                cwd=place,
                stdin=subprocess.DEVNULL,
                preexec_fn=lambda: LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL),
            )
        except OSError as error:
            say(f"cannot start {name}: {error.strerror}")
            return
        self.running[name] = process
        say(f"started {name}")
        end = os.pidfd_open(process.pid)
        self.selector.register(end, selectors.EVENT_READ, lambda: self.ended(name, end))

    def ended(self, name, end):
        self.selector.unregister(end)
        os.close(end)
        process = self.running.pop(name)
        process.wait()
        say(f"ended {name}")
        if name in self.unwatched:
            self.on_end(name)
            return
        self.restarts[name] = self.restarts.get(name, 0) + 1
        if self.restarts[name] > MOST_RESTARTS:
            say(f"given up {name}")
            self.on_end(name)
        else:
            self.on_restart(name)

    def stop(self, name):
        self.unwatched.add(name)
        process = self.running.get(name)
        if process is None:
            return
        process.terminate()
        try:
            process.wait(2)
        except subprocess.TimeoutExpired:
            process.kill()

    def stop_all(self):
        for name in list(self.running):
            self.stop(name)


class Guard:
    def __init__(self, options):
        self.options = options
        self.selector = selectors.DefaultSelector()
        folder = os.path.dirname(options.config)
        self.plugins = Plugins(folder, self.selector, self.tell_end, self.restart)
        self.connection = None
        self.mute = {}
        for word in options.mute:
            name, _, times = word.partition(":")
            self.mute[name] = int(times or 1 << 30)
        self.guids = 0
        self.asked = {}  # guid of each question that has no answer yet: its method
        self.restarting = {}  # guid of a question: the plugin that is started when the answer allows it
        self.told = set()  # plugins that wait for the frame to note their ends
        self.seen = set()  # guids that the frame has used
        self.input = b""
        self.hanging = []
        self.running = True

    # The connection

    def connect(self):
        deadline = time.monotonic() + PATIENCE_S
        while True:
            try:
                # Each time anew: the frame may have written another port.
                self.port = read_port(self.options.config, self.options.element)
                peer = socket.create_connection(("127.0.0.1", self.port), PATIENCE_S)
                break
            except (OSError, TypeError, ValueError, xml.etree.ElementTree.ParseError) as error:
                if time.monotonic() > deadline:
                    raise ConnectionEnded(f"never made: {error}") from None
                select.select([], [], [], 0.02)
        peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            behind = upgrade(peer, self.port, self.options.path, piecewise=self.options.slow_handshake)
        except OSError as error:
            raise ConnectionEnded(f"in the handshake: {error}") from None
        self.connection = Connection(peer, behind)
        self.selector.register(peer, selectors.EVENT_READ, None)
        say("connected")

    def disconnect(self):
        self.selector.unregister(self.connection.peer)
        self.connection.peer.close()
        self.asked.clear()
        self.restarting.clear()
        self.told.clear()

    def send_text(self, text):
        self.connection.send(frame(TEXT, text.encode()))

    # What the frame says

    def receive(self, payload):
        try:
            message = json.loads(payload.decode())
            guid = message["guid"]
            if not isinstance(guid, str):
                raise TypeError("guid")
            if "responseData" in message:
                self.receive_answer(guid, message)
            else:
                self.receive_request(guid, message["requestData"])
        except (ValueError, KeyError, TypeError, AssertionError) as fault:
            say(f"wrong: {type(fault).__name__} {fault} in {payload[:500]!r}")

    def receive_answer(self, guid, message):
        assert message["code"] == "0" and message["msg"] == "", "code and msg"
        assert "requestData" not in message, "requestData in an answer"
        method = self.asked.pop(guid, None)
        data = message["responseData"]
        if method == "GetMianProcessPath":
            content = data["mainProcessPath"]
        elif method == "GetProcessInitStateList":
            states = data.get("initInfoList", [])
            names = [state["processName"] for state in states]
            assert ("initInfoList" in data) == bool(states), "an empty initInfoList"
            assert data["total"] == len(states), "total"
            assert names == sorted(names), "the order of the names"
            for state in states:
                assert type(state["initState"]) is int and state["initState"] in (0, 1), "initState"
            content = " ".join(f"{state['processName']}={state['initState']}" for state in states)
        else:
            say(f"unasked answer {guid}")
            return
        say(f"answer {method} {guid}: {content or 'none'}")
        if guid in self.restarting:
            name = self.restarting.pop(guid)
            listed = {state["processName"]: state["initState"] for state in data.get("initInfoList", [])}
            if listed.get(name, 1) == 1 and name not in self.told:
                self.told.add(name)
                self.tell_end(name)
            if listed.get(name) == 1:
                self.restart(name)
            else:
                self.told.discard(name)
                if name not in self.plugins.unwatched:
                    self.plugins.start(name)

    def receive_request(self, guid, data):
        method = data["method"]
        assert guid not in self.seen, "a guid is used twice"
        self.seen.add(guid)
        if method in ("NotifyLPCFrameInit", "SetProcessGuardStateList"):
            say(f"asked {method}")
            if method == "SetProcessGuardStateList":
                self.watch(data)
            self.reply(guid, method)
        elif method == "NotifyFrameInitState":
            self.start_all(data)
        elif method in ("StartProcess", "StopProcess"):
            say(f"told {method} {data['processName']}")
            if method == "StartProcess":
                self.plugins.unwatched.discard(data["processName"])
                self.plugins.start(data["processName"])
            else:
                self.plugins.stop(data["processName"])
        elif method == "NotifyState":
            say(f"told NotifyState {data['type']}")
            self.ask("GetProcessInitStateList")
        elif method == "NotifyFrameUninit":
            say("told NotifyFrameUninit")
            self.plugins.stop_all()
        else:
            raise ValueError(f"method {method}")

    def watch(self, data):
        watched = data.get("guardInfoList", [])
        names = [entry["processName"] for entry in watched]
        assert ("guardInfoList" in data) == bool(watched), "an empty guardInfoList"
        assert data["total"] == len(watched), "total"
        assert names == sorted(names), "the order of the names"
        for entry in watched:
            name, kind = entry["processName"], entry["type"]
            assert type(kind) is int and kind in (0, 1), "type"
            if kind == 1:
                self.plugins.unwatched.discard(name)
            else:
                self.plugins.unwatched.add(name)
        content = " ".join(f"{entry['processName']}={entry['type']}" for entry in watched)
        say(f"watching {content or 'none'}")

    def start_all(self, data):
        names = data.get("PluginList", [])
        assert type(data["initState"]) is int and data["initState"] == 1, "initState"
        assert ("PluginList" in data) == bool(names), "an empty PluginList"
        assert data.get("cmdline", "some") != "", "an empty cmdline"
        assert len(names) == len(set(names)), "a name twice"
        self.plugins.cmdline = data.get("cmdline", "")
        say(f"told to start {' '.join(sorted(names)) or 'none'} with {self.plugins.cmdline or 'nothing'}")
        for name in names if not self.options.start_nothing else []:
            self.plugins.unwatched.discard(name)
            self.plugins.start(name)

    # What this guard says

    def reply(self, guid, method):
        if self.mute.get(method, 0) > 0:
            self.mute[method] -= 1
            return
        for _ in range(2 if self.options.two_answers else 1):
            self.send_text(json.dumps({"guid": guid, "requestData": {"method": method}}))

    def ask(self, method, guid=None):
        self.guids += 1
        guid = guid or f"question-{self.guids}"
        self.asked[guid] = method
        self.send_text(json.dumps({"guid": guid, "requestData": {"method": method}}, ensure_ascii=False))
        return guid

    def tell_end(self, name):
        self.guids += 1
        data = {"method": "NotifyProcessState", "state": 0, "processId": name}
        self.send_text(json.dumps({"guid": f"end-{self.guids}", "requestData": data}))

    def restart(self, name):
        """Starts it when the frame counts it as ended, and is told so only while it does not: it would take late
        news for the successor's end."""
        self.restarting[self.ask("GetProcessInitStateList")] = name

    # What is typed

    def obey(self, line):
        verb, _, rest = line.partition(" ")
        first, _, behind = rest.partition(" ")
        send = self.connection.send
        if verb == "ask":
            self.ask(first, behind or None)
        elif verb == "burst":
            for i in range(int(first)):
                self.ask(behind, f"burst-{i}")
        elif verb in ("text", "pad"):
            text = {"text": rest, "pad": behind}[verb].encode()
            self.remember(text)
            send(frame(TEXT, text.ljust(int(first)) if verb == "pad" else text))
        elif verb == "empty":
            send(frame(TEXT, b""))
        elif verb == "nest":
            send(frame(TEXT, b"[" * int(first) + b"]" * int(first)))
        elif verb == "deep":
            question = json.dumps({"guid": behind, "requestData": {"method": "GetMianProcessPath"}})
            self.asked[behind] = "GetMianProcessPath"
            arrays = "[" * int(first) + "]" * int(first)
            self.send_text(question[:-1] + f', "extra": {arrays}' + "}")
        elif verb == "hex":
            send(frame(TEXT, bytes.fromhex(rest)))
        elif verb == "frame":
            send(bytes.fromhex(rest))
        elif verb == "split":
            text, middle = rest.encode(), len(rest) // 2
            send(frame(TEXT, text[:middle], final=False) + frame(CONTINUATION, text[middle:]))
        elif verb == "binary":
            send(frame(BINARY, rest.encode()))
        elif verb == "ping":
            send(frame(PING, rest.encode()))
        elif verb == "unmasked":
            send(frame(TEXT, rest.encode(), masked=False))
        elif verb == "half":
            whole = frame(TEXT, rest.encode())
            send(whole[: len(whole) // 2])
            self.connection.close_when_sent = True
        elif verb in ("upgrade", "get"):
            say(f"{line}: {self.knock(verb, rest)}")
        elif verb == "hang":
            self.hang(int(first))
        elif verb == "reconnect":
            self.disconnect()
            self.connect()
        elif verb == "kill":
            self.plugins.running[first].kill()
        else:
            say(f"wrong: no such command: {line}")

    def remember(self, text):
        """So that the answer to a typed question is known as one."""
        try:
            message = json.loads(text)
            self.asked[message["guid"]] = message["requestData"]["method"]
        except (ValueError, KeyError, TypeError):
            pass  # Not a question; nothing is expected.

    def knock(self, verb, rest):
        with socket.create_connection(("127.0.0.1", self.port), PATIENCE_S) as peer:
            try:
                if verb == "get":
                    headers = {"Host": f"127.0.0.1:{self.port}"}
                    peer.sendall(upgrade_request(rest, headers))
                    raise Refused(read_head(peer)[0][0])
                name, _, value = rest.partition(":")
                upgrade(peer, self.port, changed={name: value.strip()})
            except Refused as refusal:
                return str(refusal).removeprefix("HTTP/1.1 ")
            except OSError as error:
                return str(error)
        return "101"

    def hang(self, count):
        for _ in range(count):
            peer = socket.create_connection(("127.0.0.1", self.port), PATIENCE_S)
            peer.sendall(upgrade_request("/", upgrade_headers(self.port))[:-2])
            self.hanging.append(peer)
        say(f"{count} handshakes hang")

    # The loop

    def read_input(self):
        chunk = os.read(0, 1 << 16)
        if not chunk:
            self.running = False
            return
        *lines, self.input = (self.input + chunk).split(b"\n")
        for line in lines:
            self.obey(line.decode())

    def handle_frames(self):
        while (arrived := self.connection.next_frame()) is not None:
            opcode, payload = arrived
            if opcode == TEXT:
                self.receive(payload)
            elif opcode == PING:
                self.connection.send(frame(PONG, payload))
            elif opcode == PONG:
                say(f"pong {payload.decode()}")
            elif opcode == CLOSE:
                raise ConnectionEnded(f"close {int.from_bytes(payload[:2], 'big')}")
            else:
                say(f"wrong: opcode {opcode}")

    def run(self):
        os.set_blocking(0, False)
        try:
            self.connect()
            self.selector.register(0, selectors.EVENT_READ, None)
            if not self.options.silent:
                self.ask("GetMianProcessPath")
                self.ask("GetProcessInitStateList")
            while self.running:
                self.turn()
        except Refused as refusal:
            say(f"refused: {refusal}")
        except ConnectionEnded as end:
            say(f"connection ended: {end}")
        finally:
            self.plugins.stop_all()

    def turn(self):
        # What came with the handshake is there before anything is readable.
        self.handle_frames()
        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if self.connection.queued else 0)
        self.selector.modify(self.connection.peer, events, None)
        for key, ready in self.selector.select():
            if key.data is not None:
                key.data()
            elif key.fd == 0:
                self.read_input()
            elif key.fileobj is self.connection.peer:
                if ready & selectors.EVENT_WRITE:
                    self.connection.pump_out()
                if ready & selectors.EVENT_READ:
                    self.connection.pump_in()


def main():
    as_it_stands = argparse.RawDescriptionHelpFormatter
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=as_it_stands)
    parser.add_argument("--config", required=True, metavar="FILE", help="the host's LpcFrame.xml")
    parser.add_argument("--element", required=True, choices=("ServerPort", "ClientPort"))
    parser.add_argument("--path", default="/", help="of the upgrade")
    parser.add_argument("--slow-handshake", action="store_true", help="send the upgrade byte by byte")
    parser.add_argument("--silent", action="store_true", help="ask nothing at the start")
    parser.add_argument(
        "--start-nothing", action="store_true", help="only print which plugins are to be started"
    )
    parser.add_argument(
        "--mute",
        action="append",
        default=[],
        metavar="METHOD[:TIMES]",
        help="do not reply to this request, the first TIMES times or never",
    )
    parser.add_argument("--two-answers", action="store_true", help="reply twice to everything")
    options = parser.parse_args()
    options.config = os.path.abspath(options.config)
    Guard(options).run()


if __name__ == "__main__":
    main()
