"""Frames that no client should send."""

import errno
import random
import socket
import struct

from harness import MIB, SMALLEST, Missed, ask, connect, frame, scenario

LAST = b"\x83\x02\x18\x63\xa0"  # how the reply to the closing request ends
CLOSING = frame("bulk", 99)
REQUESTS = [SMALLEST] + [
    frame(name, 7, **arguments)
    for name, arguments in (
        ("match", {"rules": {"ZQExtensionPointName": "org.example.narrow"}, "flags": 0x200}),
        ("ready", {"uuids": [b"short", 1, "text"]}),
        ("annotate", {"uuids": [], "annotations": {"election": "text"}}),
        ("lock", {"paths": ["relative", ""], "flags": 3}),
        ("add", {"paths": ["/nowhere", "relative", "/" + "x" * 5000]}),
        ("no such request", {"uuids": {}, "paths": 1}),
    )
]


def hostile_frame(chance):
    """A request with bytes changed, cut out, doubled or in another order; whether the length is its own."""
    data = chance.choice(REQUESTS)[4:]
    for _ in range(chance.choice((0, 0, 0, 0, 1, 3))):
        a, b = sorted(chance.randrange(len(data) + 1) for _ in range(2))
        deep = b"\x81" * chance.randrange(2000)
        middle = chance.choice((b"", 2 * data[a:b], chance.randbytes(b - a), deep))
        data = chance.choice((data[:a] + middle + data[b:], data[b:] + data[a:b] + data[:a])) or b"\xff"
    length = chance.choice([len(data)] * 15 + [chance.getrandbits(chance.choice((10, 32)))])
    return struct.pack(">I", length) + data, length == len(data)


def talk(connection, data, is_whole):
    """Sends frames; what is answered until the last one is or the connection is closed."""
    received = b""
    try:
        connection.sendall(data + CLOSING)
        if not is_whole:  # perhaps the daemon waits for the rest of a frame
            connection.shutdown(socket.SHUT_WR)
        while part := connection.recv(1 << 16):
            received = (received + part)[-64:]
            if is_whole and received.endswith(LAST):
                break
    except TimeoutError:
        raise Missed("a connection was neither answered nor closed") from None
    except OSError as error:  # it was closed meanwhile, with something unread
        if error.errno not in (errno.EPIPE, errno.ECONNRESET, errno.ENOTCONN):
            raise
    return received.endswith(LAST)


def hostile_round(chance, count):
    """Four frames to each of `count` connections, which are all open; how many were answered to the last."""
    connections, answered = [connect() for _ in range(count)], 0
    for each in connections:
        frames, lengths = zip(*(hostile_frame(chance) for _ in range(4)))
        answered += talk(each, b"".join(frames), all(lengths))
    for each in connections:
        each.close()
    return answered


def send_hostile_frames(seed):
    chance = random.Random(seed)
    yield True
    while True:
        hostile_round(chance, 16)


@scenario("hostile")
def hostile(run):
    """100,000 malformed, truncated, oversized and reordered frames over 25,000 connections."""
    device = run.device()
    device.populate(100)
    daemon = run.daemon(device)
    chance, answered = random.Random(run.amount(1, 2)), 0
    with connect() as other:
        ask(other, REQUESTS[1])
        hostile_round(chance, 64)
        before = daemon.settled_memory(seconds=3)
        for _ in range(400):
            answered += hostile_round(chance, 64)
            ask(other, REQUESTS[1])
    more = daemon.settled_memory(before + MIB) - before
    run.at_least("connections answered to the last frame", answered, 1000, "{:.0f}")
    run.at_most("memory above before, MiB", more / MIB, 1)
