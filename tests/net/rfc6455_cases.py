#!/usr/bin/env python3
"""RFC 6455 from a client's side: what the server makes of bytes, right and wrong.

usage: rfc6455_cases.py [--whole] NET_ECHO [ARGUMENT...]

Starts NET_ECHO with the arguments and plays each case of rfc6455_table.py against it, over connections of their own: in one
piece, byte by byte, and in two pieces for every place where reading may stop. Prints a table with a verdict for each case,
and a summary for each section. A case is wrong when one of its plays is. The exit status is 1 then. With --whole each case is
played in one piece only.
"""

import collections
import itertools
import struct
import subprocess
import sys

sys.dont_write_bytecode = True  # beside the sources

from rfc6455_table import CASES
from rfc6455_wire import NAMES, TIMEOUT, Client, frame_ends, ping

PROBE = b"still open?"
# Longer ones are not sent byte by byte, nor cut at places that no header has.
SHORT = 300


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


def key_of(upgrade):
    for line in upgrade.split(b"\r\n"):
        name, _, value = line.partition(b":")
        if name.lower() == b"sec-websocket-key":
            return value.strip()
    return b""


def describe(opcode, final, payload):
    if opcode == 10:
        return f"pong {len(payload)}"
    return f"sent {NAMES[opcode]}{'+' if final else '-'} {len(payload)}"


def closed(payload):
    if not payload:
        return "closed -"
    payload[2:].decode()  # a reason is UTF-8
    return f"closed {struct.unpack('!H', payload[:2])[0]}"


def listen(client, after):
    """What the server sends, and how the connection then stands."""
    seen = []
    while True:
        got = client.frame()
        if got is None:
            return seen + ["dropped"]
        if got[0] == 10 and got[2] == PROBE:
            return seen + ["open"]
        if got[0] == 8:
            break
        seen.append(describe(*got))
    seen.append(closed(got[2]))
    client.send(after)
    while got := client.frame():
        seen.append(describe(*got))
    return seen


def play(server, case, head, sent):
    """`head` and `sent`: the pieces of the request and of what follows."""
    client = Client(server.port)
    try:
        if len(head) > 1:
            client.send_apart(head)
        else:
            client.send(head[0])
        status = client.answer(key_of(case.upgrade))
        if status != "101":
            return f"http {status}"
        if len(sent) > 1:
            client.send_apart(sent)
        else:
            client.send(sent[0])
        if case.after is None:
            client.close()
            return ", ".join(server.events_of_one() + ["ended"])
        # What the server sends by itself may come behind its answer to a ping.
        seen = []
        while len(seen) < case.expected.count("sent ") and (got := client.frame()):
            seen.append(describe(*got))
        if not case.server_closes:
            client.send(ping(PROBE))
        seen += listen(client, case.after)
    finally:
        client.close()
    return ", ".join(server.events_of_one() + seen)


def halves(data, places):
    places = sorted({place for place in places if 0 < place < len(data)})
    return [(data[:place], data[place:]) for place in places]


def ways(case):
    """The pieces in which request and frames are sent."""
    yield "in one piece", [case.upgrade], [case.sent]
    if not case.after and case.after is not None:
        return  # the server waits for an answer that does not come, which takes its time
    if case.sent:
        if len(case.sent) <= SHORT:
            yield "byte by byte", [case.upgrade], [case.sent[i:i + 1] for i in range(len(case.sent))]
        places = range(len(case.sent)) if len(case.sent) <= 24 else frame_ends(case.sent)
        for first, second in halves(case.sent, places):
            yield f"in pieces of {len(first)} and {len(second)}", [case.upgrade], [first, second]
        return
    if len(case.upgrade) <= SHORT:
        yield "byte by byte", [case.upgrade[i:i + 1] for i in range(len(case.upgrade))], [b""]
    size, line = len(case.upgrade), case.upgrade.find(b"\r\n")
    places = (1, 3, 4, 5, line, line + 1, line + 2, line + 4, size // 2, size - 4, size - 3, size - 2, size - 1)
    for first, second in halves(case.upgrade, places):
        yield f"in pieces of {len(first)} and {len(second)}", [first, second], [b""]


def verdict(server, case, most):
    """(how many plays there were, what came of the last one)"""
    plays = 0
    for way, head, sent in itertools.islice(ways(case), most):
        plays += 1
        try:
            seen = play(server, case, head, sent)
        except (OSError, ValueError, IndexError) as error:
            seen = f"{type(error).__name__}: {error}"
        if seen != case.expected:
            return plays, f"{seen} ({way})"
    return plays, case.expected


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    whole = sys.argv[1] == "--whole"
    server = Server(sys.argv[2 if whole else 1:])
    sections = collections.defaultdict(lambda: [0, 0, 0])
    width = max(len(case.name) for case in CASES)
    print(f"{'':4}{'section':8} {'case':{width}} expected | seen")
    for case in CASES:
        plays, seen = verdict(server, case, 1 if whole else None)
        wrong = seen != case.expected
        for count, more in enumerate((1, plays, wrong)):
            sections[case.section][count] += more
        print(f"{'!!!' if wrong else '':4}{case.section:8} {case.name:{width}} {case.expected} | {seen if wrong else 'the same'}"
              f"{f'  [{case.why}]' if case.why else ''}", flush=True)
    status, rest = server.stop()
    wrong = sum(counts[2] for counts in sections.values())
    if status != 0 or rest:
        print(f"!!! the server ended with {status} and left {rest!r}")
        wrong += 1
    print(f"\n{'section':8} {'cases':>6} {'plays':>6} {'wrong':>6}")
    for section, counts in sorted(sections.items(), key=lambda one: [int(part) for part in one[0].split(".")]):
        print("{:8} {:6} {:6} {:6}".format(section, *counts))
    plays = sum(counts[1] for counts in sections.values())
    choices = sum(case.why != "" for case in CASES)
    print(f"{len(CASES)} cases in {plays} plays, {choices} with a remark, {wrong} wrong")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
