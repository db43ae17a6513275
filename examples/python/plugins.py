#!/usr/bin/env python3
"""Lists the plug-ins that abd offers, and follows them as they come and go: the protocol of docs/protocol.md in
one file, with nothing but the standard library.

    plugins.py ZQExtensionPointName=com.veltra.share-service      lists and ends
    plugins.py --follow                                           goes on until Ctrl-C
"""

import argparse
import ctypes
import datetime
import os
import socket
import struct
import sys
import uuid

NOTIFICATIONS = ("com.veltra.hollin.plugins-change", "com.veltra.ambrel.annotation-change")


def runtime_directory():
    """Where the daemon's sockets and notifications lie."""
    base = os.environ.get("XDG_RUNTIME_DIR") or f"/run/user/{os.getuid()}"
    return os.path.join(base if os.path.isdir(base) else f"/tmp/veltra-{os.getuid()}", "veltra")


# --- Values: as much of CBOR (RFC 8949) as the protocol has ---


def head(major, argument):
    if argument < 24:
        return bytes([major << 5 | argument])
    for code, size in enumerate("BHIQ"):
        if argument < 1 << 8 * struct.calcsize(size):
            return bytes([major << 5 | 24 + code]) + struct.pack(">" + size, argument)
    raise OverflowError("more than 64 bits")


def encode(value):
    if isinstance(value, bool):
        return b"\xf5" if value else b"\xf4"
    if isinstance(value, int):
        return head(0, value) if value >= 0 else head(1, -1 - value)
    if isinstance(value, float):
        return b"\xfb" + struct.pack(">d", value)
    if isinstance(value, bytes):
        return head(2, len(value)) + value
    if isinstance(value, str):
        return head(3, len(value.encode())) + value.encode()
    if isinstance(value, (list, tuple)):
        return head(4, len(value)) + b"".join(map(encode, value))
    if isinstance(value, dict):
        return head(5, len(value)) + b"".join(encode(key) + encode(each) for key, each in value.items())
    if isinstance(value, datetime.datetime):
        return head(6, 1) + encode(value.timestamp())
    if isinstance(value, uuid.UUID):
        return head(6, 37) + encode(value.bytes)
    raise TypeError(f"no message can carry {value!r}")


def decode(data, at=0):
    """The value that begins at `at`, and where it ends."""
    major, low = data[at] >> 5, data[at] & 31
    at += 1
    if low >= 24:
        size = 1 << low - 24
        argument, at = int.from_bytes(data[at : at + size], "big"), at + size
    else:
        argument = low
    if major == 0:
        return argument, at
    if major == 1:
        return -1 - argument, at
    if major in (2, 3):
        text = data[at : at + argument]
        return (bytes(text) if major == 2 else text.decode()), at + argument
    if major == 4:
        items = []
        for _ in range(argument):
            item, at = decode(data, at)
            items.append(item)
        return items, at
    if major == 5:
        entries = {}
        for _ in range(argument):
            key, at = decode(data, at)
            entries[key], at = decode(data, at)
        return entries, at
    if major == 6:
        value, at = decode(data, at)
        if argument == 37:
            return uuid.UUID(bytes=value), at
        if argument == 24:  # a property-list message value
            return decode(value)[0], at
        return datetime.datetime.fromtimestamp(value, datetime.timezone.utc), at
    if low == 27:
        return struct.unpack(">d", data[at - 8 : at])[0], at
    return {20: False, 21: True}[argument], at


# --- The connection ---


class Daemon:
    def __init__(self, service):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(os.path.join(runtime_directory(), service))
        self.requests = 0

    def receive(self, size):
        data = bytearray()
        while len(data) < size:
            part = self.socket.recv(size - len(data))
            if not part:
                raise ConnectionError("the daemon closed the connection")
            data += part
        return data

    def request(self, name, **arguments):
        """The reply's body; RuntimeError with the daemon's text when the request failed."""
        self.requests += 1
        frame = encode([1, self.requests, {"request": name, "version": 3, **arguments}])
        self.socket.sendall(struct.pack(">I", len(frame)) + frame)
        (size,) = struct.unpack(">I", self.receive(4))
        kind, number, body = decode(self.receive(size))[0]
        assert (kind, number) == (2, self.requests)
        if "errorcode" in body:
            raise RuntimeError(f"{body['error']} (code {body['errorcode']})")
        return body


class Changes:
    """Waits for posts of notifications: each appends to a file, whose directory inotify(7) watches."""

    def __init__(self):
        directory = os.path.join(runtime_directory(), "Notifications")
        os.makedirs(directory, 0o700, exist_ok=True)
        libc = ctypes.CDLL(None, use_errno=True)
        self.descriptor = libc.inotify_init1(os.O_CLOEXEC)
        in_modify, in_create = 0x2, 0x100
        if libc.inotify_add_watch(self.descriptor, directory.encode(), in_modify | in_create) < 0:
            raise OSError(ctypes.get_errno(), "cannot watch", directory)

    def wait(self):
        while True:
            events = os.read(self.descriptor, 65536)
            while events:
                length = struct.unpack_from("iIII", events)[3]
                if events[16 : 16 + length].rstrip(b"\0").decode() in NOTIFICATIONS:
                    return
                events = events[16 + length :]


# --- The program ---


def plug_ins(daemon, rules):
    """The plug-ins that match, by UUID; what is new in every answer, the tokens, left out."""
    forms = daemon.request("match", rules=rules, flags=0)["matches"]
    return {form["uuid"]: {key: form[key] for key in form if key != "extensions"} for form in forms}


def tell(mark, form):
    name = form.get("localizedDisplayName", form["identifier"])
    print(f"{mark} {form['identifier']}  {form.get('version', '')}  {name}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--follow", action="store_true", help="go on telling what comes, goes and changes")
    parser.add_argument("--service", default="com.veltra.ambrel.abd", metavar="NAME", help="of the daemon")
    parser.add_argument("rules", nargs="*", metavar="KEY=PATTERN", help="what plug-ins have to match")
    options = parser.parse_args()
    if not all("=" in rule for rule in options.rules):
        parser.error("a rule is KEY=PATTERN")
    rules = dict(rule.split("=", 1) for rule in options.rules)
    changes = Changes() if options.follow else None  # before the first search: nothing is missed in between
    daemon, known = Daemon(options.service), {}
    while True:
        found = plug_ins(daemon, rules)
        for key in known.keys() - found.keys():
            tell("-", known[key])
        for key, form in found.items():
            if key not in known:
                tell("+", form)
            elif form != known[key]:
                tell("~", form)
        known = found
        if changes is None:
            return
        changes.wait()


if __name__ == "__main__":
    try:
        main()
    except (OSError, RuntimeError) as error:
        sys.exit(f"plugins.py: {error}")
    except KeyboardInterrupt:
        pass
