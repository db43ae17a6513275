"""What scenarios are made of: a private device, the real daemon on it, clients with prepared frames,
processes that do something beside, and figures with their bounds. Everything ends with the scenario that
began it."""

import contextlib
import ctypes
import gc
import multiprocessing
import os
import pathlib
import plistlib
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "examples/python"))
import plugins  # noqa: E402 (it is found by the line above)

BUILD = ROOT / "build/release"
SERVICE = "com.veltra.ambrel.abd"
KIB, MIB = 1 << 10, 1 << 20
PATIENCE = 10  # seconds for what happens at once
LIBC = ctypes.CDLL(None, use_errno=True)
SCENARIOS = {}


class NotShown(Exception):
    """This machine cannot show it; the text says why."""


class Missed(Exception):
    """What has to hold without a figure does not."""


def scenario(name):
    """Registers `work(run)` as the scenario `name`; its docstring says what is done."""

    def register(work):
        SCENARIOS[name] = work
        return work

    return register


def end_with_parent():
    set_death_signal = 1
    LIBC.prctl(set_death_signal, signal.SIGKILL)


def eventually(condition, seconds=PATIENCE):
    """Waits until `condition()` is true; answers what it was last."""
    end = time.monotonic() + seconds
    while not (result := condition()) and time.monotonic() < end:
        time.sleep(0.005)
    return result


def percentile(samples, part):
    return sorted(samples)[min(len(samples) - 1, int(part * len(samples)))]


def median(samples):
    return percentile(samples, 0.5)


# --- Devices ---


def write_list(path, value):
    """Writes a property list as one replacement; the document type that plistlib gives it is left out."""
    lines = plistlib.dumps(value).splitlines(keepends=True)
    fresh = pathlib.Path(f"{path}.new")
    fresh.write_bytes(b"".join(line for line in lines if not line.startswith(b"<!")))
    fresh.rename(path)


def plug_in_info(identifier, version="1.0", point="org.example.soak", **attributes):
    names = {"BWBundleIdentifier": identifier, "BWBundleName": identifier, "BWBundleExecutable": "run"}
    plug_in = {"ZQExtensionAttributes": {"ZQExtensionPointName": point, **attributes}}
    return {**names, "BWBundleShortVersionString": version, "ZQExtension": plug_in}


def write_bundle(path, info):
    path.mkdir(parents=True)
    write_list(path / "Info.plist", info)
    (path / "run").write_text("#!/bin/sh\n")
    (path / "run").chmod(0o755)


class Device:
    """Directories as a user has them, all below one; this process's environment leads there."""

    def __init__(self):
        # Not /tmp: that may be memory, where syncing costs nothing.
        place = os.environ.get("TMPDIR", "/var/tmp")
        self.path = pathlib.Path(tempfile.mkdtemp(prefix="abdsoak-", dir=place))
        names = ("data", "share", "config", "device", "state", "run")
        for name in names:
            (self.path / name / "veltra").mkdir(parents=True, mode=0o700)
            (self.path / name).chmod(0o700)
        kinds = ("DATA_HOME", "DATA_DIRS", "CONFIG_HOME", "CONFIG_DIRS", "STATE_HOME", "RUNTIME_DIR")
        os.environ.update({f"XDG_{kind}": str(self.path / name) for kind, name in zip(kinds, names)})
        os.environ.update(HOME=str(self.path), ABD_LOG="stderr")
        self.applications = self.path / "data/veltra/Applications"
        self.applications.mkdir()
        self.state = self.path / "state/veltra"

    def remove(self):
        shutil.rmtree(self.path, ignore_errors=True)

    def install(self, name, infos):
        """Installs the application `name`.app with a plug-in for each Info dictionary, by one rename."""
        fresh = self.path / f"{name}.fresh"
        shutil.rmtree(fresh, ignore_errors=True)  # of an installation that was cut short
        write_bundle(fresh, {"BWBundleIdentifier": f"org.example.{name}", "BWBundleExecutable": "run"})
        for each in infos:
            write_bundle(fresh / "PlugIns" / f"{each['BWBundleIdentifier']}.appex", each)
        return fresh.rename(self.applications / f"{name}.app")

    def populate(self, count, **attributes):
        """Installs `count` plug-ins, ten to an application; every hundredth serves "org.example.narrow"."""
        for first in range(0, count, 10):
            points = [f"org.example.{'soak' if i % 100 else 'narrow'}" for i in range(first, first + 10)]
            names = [f"org.example.app{first // 10}.part{i}" for i in range(10)]
            infos = [plug_in_info(name, point=point, **attributes) for name, point in zip(names, points)]
            self.install(f"App{first // 10}", infos)


# --- The daemon ---


class Daemon:
    """The daemon on a device; `open_files`: its limit of descriptors, `preload`: libraries loaded into it."""

    def __init__(self, device, *options, program=BUILD / "abd", environment=(), preload=(), open_files=None):
        self.log_path, self.command = device.path / "abd.log", [str(program), *options]
        self.environment = dict(environment)
        if preload:
            self.environment["LD_PRELOAD"] = ":".join(map(str, preload))
        self.open_files, self.process = open_files, None

    def _prepare(self):
        end_with_parent()
        if self.open_files:
            resource.setrlimit(resource.RLIMIT_NOFILE, (self.open_files, self.open_files))

    def start(self):
        """Starts it, waits until it accepts connections."""
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            env={**os.environ, **self.environment}, preexec_fn=self._prepare)
        if not eventually(accepts):
            raise Missed(f"the daemon does not start: {self.log()[-500:]}")
        return self

    @property
    def pid(self):
        return self.process.pid

    def send_signal(self, number):
        self.process.send_signal(number)

    def stop(self, number=signal.SIGTERM):
        """Ends it and waits; a daemon that had ended by itself is a fault."""
        if (ended := self.process.poll()) is not None:
            raise Missed(f"the daemon ended by itself with {ended}: {self.log()[-500:]}")
        self.send_signal(number)
        self.send_signal(signal.SIGCONT)
        self.process.wait(PATIENCE)

    def end(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def log(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def memory(self):
        """Anonymous memory, in bytes."""
        for line in pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text().splitlines():
            if line.startswith("Anonymous:"):
                return int(line.split()[1]) * KIB
        raise NotShown("the system does not tell of a process's anonymous memory")

    def settled_memory(self, wanted=0, seconds=PATIENCE):
        """Anonymous memory when it is `wanted` or less, the least of `seconds` otherwise: what is freed goes
        back some seconds later."""
        least = self.memory()
        end = time.monotonic() + seconds
        while least > wanted and time.monotonic() < end:
            time.sleep(0.25)
            least = min(least, self.memory())
        return least

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def watches(self):
        """How many inotify watches it has."""
        texts = [each.read_text() for each in pathlib.Path(f"/proc/{self.pid}/fdinfo").iterdir()]
        return sum(text.count("inotify wd:") for text in texts)

    def processor_share(self, seconds):
        """Of one core, what it uses in the next `seconds`."""
        before, begin = self._processor_time(), time.monotonic()
        time.sleep(seconds)
        return (self._processor_time() - before) / (time.monotonic() - begin)

    def _processor_time(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


# --- Clients ---


def connect():
    """A connection for prepared frames; `client()` is the convenient one."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(60)
    connection.connect(os.path.join(plugins.runtime_directory(), SERVICE))
    return connection


def accepts():
    try:
        connect().close()
        return True
    except OSError:
        return False


def client():
    """A client of examples/python; its request() answers the reply's body or raises RuntimeError."""
    return plugins.Daemon(SERVICE)


def frame(name, number=1, **arguments):
    """A request, encoded once and sent as often as wanted, one at a time."""
    body = plugins.encode([1, number, {"request": name, "version": 3, **arguments}])
    return struct.pack(">I", len(body)) + body


SMALLEST = frame("bulk")
MATCH_ALL = frame("match", rules={}, flags=0)
MATCH_FEW = frame("match", rules={"ZQExtensionPointName": "org.example.narrow"}, flags=0)


def receive(connection):
    """The next reply, its length field included."""
    data = connection.recv(1 << 16)
    while not data or len(data) < 4 or len(data) < 4 + int.from_bytes(data[:4], "big"):
        part = connection.recv(1 << 20)
        if not part:
            raise ConnectionError("the daemon closed the connection")
        data += part
    return data


def ask(connection, request):
    connection.sendall(request)
    return receive(connection)


def body_of(reply):
    return plugins.decode(reply, 4)[0][2]


def latencies(request, seconds, pause=0.0):
    """How long one client waits for its replies, in seconds, one request after the other."""
    with connect() as connection:
        ask(connection, request)
        samples, end = [], time.monotonic() + seconds
        gc.disable()
        while (begin := time.perf_counter()) and time.monotonic() < end:
            ask(connection, request)
            samples.append(time.perf_counter() - begin)
            if pause:
                time.sleep(pause)
        gc.enable()
        return samples


class Child:
    """A process that runs the generator `work`; next() answers what it yields, in order."""

    def __init__(self, work, *arguments):
        context = multiprocessing.get_context("fork")
        self.results, ours = context.Pipe(duplex=False)
        self.process = context.Process(target=self._run, args=(ours, work, arguments), daemon=True)
        self.process.start()
        ours.close()

    @staticmethod
    def _run(pipe, work, arguments):
        end_with_parent()
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, signal.SIG_DFL)
        for each in work(*arguments):
            pipe.send(each)

    def next(self):
        try:
            return self.results.recv()
        except EOFError:
            raise Missed("a client of the scenario failed") from None

    def end(self):
        self.process.kill()
        self.process.join()
        self.results.close()


# --- A run ---


class Run:
    """One scenario's run, in its long or quick form: what it began, what it found."""

    def __init__(self, is_long):
        self.is_long, self.figures, self.stack = is_long, [], contextlib.ExitStack()

    def amount(self, quick, long):
        return long if self.is_long else quick

    def device(self):
        device = Device()
        self.stack.callback(device.remove)
        return device

    def daemon(self, device, *options, **more):
        """A started daemon; see Daemon."""
        daemon = Daemon(device, *options, **more)
        self.stack.callback(daemon.end)
        return daemon.start()

    def child(self, work, *arguments):
        child = Child(work, *arguments)
        self.stack.callback(child.end)
        return child

    @contextlib.contextmanager
    def children(self, work, *arguments, count=1):
        """Processes for the time of a block."""
        all_of_them = [self.child(work, *arguments) for _ in range(count)]
        try:
            yield all_of_them
        finally:
            for each in all_of_them:
                each.end()

    def at_most(self, what, figure, bound, show="{:.2f}"):
        """Notes a figure that holds when it does not exceed `bound`; `show` prints both."""
        self._note(what, figure <= bound, figure, "<= ", bound, show)

    def at_least(self, what, figure, bound, show="{:.2f}"):
        self._note(what, figure >= bound, figure, ">= ", bound, show)

    def _note(self, what, holds, figure, sign, bound, show):
        verdict = "holds" if holds else "missed"
        self.figures.append((what, show.format(figure), sign + show.format(bound), verdict))
