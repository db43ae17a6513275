"""What the daemon keeps through kills, failing calls, lack of memory and damage."""

import errno
import itertools
import mmap
import os
import pathlib
import plistlib
import random
import shutil
import signal
import sqlite3
import struct
import time
import uuid

from harness import BUILD, Missed, Run, client, eventually, plug_in_info, scenario, write_bundle, write_list

MATCH = {"rules": {}, "flags": 0}
UNSAVED = ("unable to save annotations:", "cannot save registrations to ")


def need(condition, text):
    if not condition:
        raise Missed(text)


class Kept:
    """A device whose plug-ins are annotated, added and removed, and what of that a daemon has to know."""

    def __init__(self, run, *options, with_faults=False):
        self.device = run.device()
        self.faults = Faults(self.device) if with_faults else None
        names = [f"org.example.part{i}" for i in range(8)]
        self.device.install("Whole", [plug_in_info(each) for each in names])
        away = self.device.path / "Away.app"  # where no scan looks
        write_bundle(away, {"BWBundleIdentifier": "org.example.away"})
        self.loose = {f"org.example.loose{i}": away / f"PlugIns/{i}.appex" for i in range(4)}
        for name, path in self.loose.items():
            write_bundle(path, plug_in_info(name))
        self.annotations = self.device.state / "com.veltra.ambrel/Annotations"
        self.registry = self.device.state / "Hollin/Registry.sqlite"
        self.daemon = run.daemon(self.device, *options, **(self.faults.daemon if with_faults else {}))
        self.client = client()
        self.uuids = {name: form["uuid"] for name, form in self.forms().items()}
        self.elections, self.added, self.count = {}, set(), 0

    def restart(self):
        self.daemon.start()
        self.client = client()

    def forms(self):
        return {form["identifier"]: form for form in self.client.request("match", **MATCH)["matches"]}

    def anything(self, kind=None):
        """A change: a request, its arguments, and what notes that it was made."""
        kind = kind or random.choice(["annotate", "annotate", "add", "remove"])
        self.count += 1
        if kind == "annotate":
            name, election = random.choice(list(self.uuids)), self.count
            plug_in = uuid.UUID(self.uuids[name])
            change = {"uuids": [plug_in], "annotations": {"election": election}}
            return kind, change, lambda: self.elections.update({name: election})
        choices = self.loose.keys() - self.added if kind == "add" else self.added
        if not choices:
            return self.anything("add" if kind == "remove" else "remove")
        name = random.choice(sorted(choices))
        note = self.added.add if kind == "add" else self.added.remove
        return kind, {"paths": [str(self.loose[name])]}, lambda: note(name)

    def change(self, kind=None):
        kind, arguments, note = self.anything(kind)
        self.client.request(kind, **arguments)
        note()

    def state(self):
        return dict(self.elections), set(self.added)

    def found(self):
        """The same as a daemon tells it."""
        forms = self.forms()
        need(all(forms[name]["uuid"] == each for name, each in self.uuids.items()), "a UUID is another one")
        elections = {name: form["annotations"]["election"] for name, form in forms.items() if form["annotations"]}
        return elections, self.loose.keys() & forms.keys()

    def stored(self):
        """The same as the files tell it, whatever state they are in: what is not whole is an error."""
        table = plistlib.loads(self.annotations.read_bytes())["data"] if self.annotations.exists() else {}
        copy = self.device.path / "copy.sqlite"
        for suffix in ("", "-journal"):
            pathlib.Path(f"{copy}{suffix}").unlink(missing_ok=True)
            if os.path.exists(f"{self.registry}{suffix}"):
                shutil.copy(f"{self.registry}{suffix}", f"{copy}{suffix}")
        with sqlite3.connect(copy) as database:
            need(database.execute("PRAGMA integrity_check").fetchone() == ("ok",), "the registry is damaged")
            rows = {bytes(row[0]).decode() for row in database.execute("SELECT path FROM bundle WHERE by_path")}
        database.close()
        added = {name for name, path in self.loose.items() if str(path) in rows}
        return {name: record["election"] for name, record in table.items()}, added


# --- Kills ---


@scenario("kill")
def kill(run):
    """SIGKILL at any moment of annotating, adding and removing; each new daemon knows what the one before
    acknowledged."""
    kept = Kept(run)
    kills = run.amount(250, 1000)
    for _ in range(kills):
        for _ in range(random.randrange(3)):
            kept.change()
        kind, arguments, note = kept.anything()
        before, killer = kept.state(), os.fork()
        if killer == 0:
            time.sleep(random.uniform(0, 0.006))
            os.kill(kept.daemon.pid, signal.SIGKILL)
            os._exit(0)
        is_acknowledged = True
        try:
            kept.client.request(kind, **arguments)
        except OSError:
            is_acknowledged = False
        note()
        os.waitpid(killer, 0)
        kept.daemon.process.wait()
        kept.restart()
        found = kept.found()
        is_kept = found == kept.state() or (not is_acknowledged and found == before)
        need(is_kept, f"{kind} was lost: {kept.state()} became {found}")
        kept.elections, kept.added = found
    kept.stored()
    need("damaged" not in kept.daemon.log() and "unable to" not in kept.daemon.log(), "a file was damaged")
    run.at_least("kills without a lost change or a damaged file", kills, kills, "{}")


# --- Calls of the system ---


class Faults:
    """Chooses what fails in a daemon; see faults_preload.cc."""

    SYSTEM_CALLS, ALLOCATIONS = 1, 2

    def __init__(self, device):
        path = device.path / "control"
        path.write_bytes(bytes(40) + os.fsencode(device.state).ljust(4096 - 40, b"\0"))
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), 4096)
        self.daemon = {"environment": {"ABD_FAULTS": str(path)}, "preload": [BUILD / "tests/faults_preload.so"]}

    def arm(self, kind, countdown, error=0):
        """The call that is number `countdown` from now fails; a write with error 0 writes half."""
        struct.pack_into("4q", self.page, 0, 0, countdown, error, 0)
        struct.pack_into("q", self.page, 0, kind)

    def disarm(self):
        """How many calls there were since arm()."""
        struct.pack_into("q", self.page, 0, 0)
        return struct.unpack_from("q", self.page, 24)[0]

    def live(self):
        """Allocations that were not freed."""
        return struct.unpack_from("q", self.page, 32)[0]


def each_call(faults, make, check):
    """Makes a change with none of its calls failing, then with each failing once in each way."""
    faults.arm(Faults.SYSTEM_CALLS, -1, errno.EIO)
    make()
    calls, done = faults.disarm(), 0
    check("no call")
    for error in (errno.ENOSPC, errno.EIO, errno.EINTR, errno.EDQUOT, 0):
        for number in range(1, calls + 2):
            faults.arm(Faults.SYSTEM_CALLS, number, error)
            make()
            done += faults.disarm() >= number
            check(f"call {number} failing with {error}")
    return done


@scenario("faults")
def faults(run):
    """Every call of saving annotations and registrations fails once in turn: the files stay whole, the log tells,
    and the next save brings what is missing."""
    kept, seen = Kept(run, with_faults=True), {}

    def check(about):
        need(kept.daemon.process.poll() is None, f"the daemon ended: {about}")
        need(not list(kept.annotations.parent.glob(".*.tmp-*")), f"a temporary file is left: {about}")
        stored, log = kept.stored(), kept.daemon.log()
        is_told = any(log.count(text) > seen["log"].count(text) for text in UNSAVED)
        need(stored == kept.state() or (is_told and stored == seen["state"]), f"the file is another one: {about}")
        for kind in ("annotate", "add", "remove"):
            kept.change(kind)
        need(kept.stored() == kept.state() == kept.found(), f"a change was not saved later: {about}")
        seen.update(log=kept.daemon.log(), state=kept.state())

    total = 0
    for kind in ("annotate", "add", "remove"):
        seen.update(log=kept.daemon.log(), state=kept.state())
        total += each_call(kept.faults, lambda: kept.change(kind), check)
    run.at_least("failing calls", total, 150, "{}")


# --- Memory ---


def requests_to_fail(kept, count):
    """What has frames, messages and property lists decoded: functions of a number, which send one request."""
    text = {f"key{i}": ["value", b"data", i, 0.5, {"a": "b"}] * 2 for i in range(count)}
    refused, settings = kept.device.path / "Refused.appex", kept.device.path / "config/veltra/Restrictions.plist"
    plug_in = uuid.UUID(kept.uuids["org.example.part0"])
    refused.mkdir()

    def refuse(_):
        try:
            kept.client.request("add", paths=[str(refused)])
        except RuntimeError as error:
            need("(code 2)" in str(error) or "out of memory" in str(error), str(error))

    def match_with_settings(number):
        write_list(settings, {"maximumAppsRating": 1000, "more": {**text, "number": number}})
        need(kept.client.request("match", **MATCH)["matches"], "nothing matches")

    for number, form in enumerate((plistlib.FMT_XML, plistlib.FMT_BINARY)):
        kept_text = plistlib.dumps(text, fmt=form).replace(b"<!DOCTYPE", b"<?ignored").replace(b'dtd">', b'dtd"?>')
        (refused / "Info.plist").write_bytes(kept_text)
        yield f"a bundle of form {number}", refuse
    extension = {"election": 1, "extension": text}
    yield "annotate", lambda _: kept.client.request("annotate", uuids=[plug_in], annotations=extension)
    yield "match", lambda _: kept.client.request("match", rules={"key": ["a", "b"], "x": text}, flags=0)
    yield "settings", match_with_settings


@scenario("memory faults")
def memory_faults(run):
    """Every allocation of the main thread while it decodes frames, messages and property lists fails once in turn:
    the request is refused or the connection closed, nobody else notices, nothing leaks."""
    kept = Kept(run, "-c", "1", with_faults=True)
    kept.change("annotate")
    beside, failed, leaked = client(), 0, 0
    expected = len(beside.request("match", **MATCH)["matches"])
    for name, request in requests_to_fail(kept, run.amount(10, 60)):
        live = []
        for _ in range(4):
            number = due = 1
            while due >= number:
                number += 1
                kept.faults.arm(Faults.ALLOCATIONS, number)
                try:
                    request(number)
                except RuntimeError as error:
                    need("out of memory" in str(error), f"{name}: {error}")
                except ConnectionError:
                    kept.client = None
                due = kept.faults.disarm()
                failed += due >= number
                answer = beside.request("match", **MATCH)["matches"]
                need(len(answer) == expected, f"allocation {number} of {name} changes another's answer")
                try:
                    (kept.client or client()).request("bulk")  # it is accepted
                except ConnectionError:  # closed behind the reply
                    kept.client = None
                kept.client = kept.client or client()
            live.append(kept.faults.live())
        # What the daemon keeps for later comes and goes; a leak is in every pass.
        leaked += max(0, min(after - before for before, after in itertools.pairwise(live)))
    run.at_least("failing allocations", failed, 500, "{}")
    run.at_most("of them leaked in each pass", leaked, 0, "{}")


# --- Damage ---


def damaged(data):
    """A copy with a bit flipped, or cut short; and whether that cannot go unnoticed."""
    if random.random() < 0.5:
        cut = random.randrange(1, len(data))
        return data[:cut], cut < len(data.rstrip())
    place, bit = random.randrange(len(data)), random.randrange(8)
    return data[:place] + bytes([data[place] ^ 1 << bit]) + data[place + 1 :], False


class Damage:
    """A device whose files are damaged, all at once; what is said of each is counted."""

    def __init__(self, run):
        self.kept = kept = Kept(run)
        veltra, host = kept.device.path / "config/veltra", pathlib.Path("/etc/machine-id").read_text().split()[0]
        preferences = veltra / f"Preferences/ByHost/com.veltra.ambrel.userprefs.{host}.plist"
        preferences.parent.mkdir(parents=True)
        (kept.device.path / "data/veltra/SDKs").mkdir()
        keyboard = "com.veltra.keyboard-service"
        write_list(kept.device.path / f"data/veltra/SDKs/{keyboard}.plist", {"ZQExtension": {}})
        info = plug_in_info("org.example.keys", RequestsOpenAccess=True)
        info["ZQExtension"]["ZQExtensionPointIdentifier"] = keyboard
        kept.device.install("Keys", [info])
        write_list(veltra / "Consent.plist", {"org.example.Keys": {"kQSVServiceKeyboardNetwork": True}})
        write_list(veltra / "Restrictions.plist", {"maximumAppsRating": 100000})
        write_list(preferences, {"exclusions": [{"ZQExtensionIdentifier": "org.example.nobody"}]})
        need(eventually(lambda: "org.example.keys" in kept.forms()), "an application is not noticed")
        kept.uuids["org.example.keys"] = kept.forms()["org.example.keys"]["uuid"]
        for kind in 8 * ["annotate"] + 2 * ["add"]:
            kept.change(kind)
        kept.client.request("access", uuids=[uuid.UUID(kept.uuids["org.example.part0"])])
        kept.daemon.stop(signal.SIGKILL)
        settings = (veltra / "Consent.plist", veltra / "Restrictions.plist", preferences)
        self.settings = {path: path.read_bytes() for path in settings}
        self.key = kept.device.state / "Sandbox.key"
        stored = (kept.annotations, kept.registry, self.key)
        self.whole = {**{path: path.read_bytes() for path in stored}, **self.settings}
        self.noticed = 0

    def once(self):
        kept, log = self.kept, self.kept.daemon.log_path
        log.unlink()
        for path, data in self.whole.items():
            for aside in path.parent.glob(f"{path.name}?*"):
                aside.unlink()
            path.write_bytes(data)
        now = {path: damaged(data) for path, data in self.whole.items()}
        for path, (data, _) in now.items():
            path.write_bytes(data)
        kept.restart()
        kept.forms()
        for path in reversed(self.settings):  # mending them needs no restart; that of consent is read to launch
            need(path.read_bytes() == now[path][0], f"{path.name} was changed")
            if path.name == "Consent.plist" and "org.example.keys" in (forms := kept.forms()):
                kept.client.request("ready", uuids=[uuid.UUID(forms["org.example.keys"]["uuid"])])
            path.write_bytes(self.whole[path])
        any_plug_in = uuid.UUID(next(iter(forms.values()))["uuid"])  # a bit may have hit any one
        try:
            kept.client.request("access", uuids=[any_plug_in])
        except RuntimeError:
            need("Sandbox.key cannot be used" in kept.daemon.log(), "there are no tokens")
        self.compare(forms)
        kept.client.request("annotate", uuids=[any_plug_in], annotations={"election": 5})
        for path, (data, is_plain) in now.items():
            told = [line for line in kept.daemon.log().splitlines() if str(path) in line]
            is_read = path.name != "Consent.plist" or "org.example.keys" in forms
            need(told or not is_plain or not is_read, f"nothing is said of {path.name}, cut to {len(data)} bytes")
            self.noticed += bool(told)
            if told and path in (kept.annotations, kept.registry):
                asides = [each.read_bytes() for each in path.parent.glob(f"{path.name}.damaged-*")]
                need(data in asides, f"{path.name} was not kept: {told}")
        kept.daemon.stop(signal.SIGKILL)

    def compare(self, forms):
        """A bit that nothing tells of may turn a name into another's: then two are hit."""
        told = self.kept.daemon.log()
        if "unable to load" not in told:
            elections = {name: form["annotations"].get("election") for name, form in forms.items()}
            lost = sum(elections.get(name) != each for name, each in self.kept.elections.items())
            need(lost <= 2, f"{lost} elections differ, and nothing was said")
        if "is damaged" not in told:
            lost = sum(name not in forms or forms[name]["uuid"] != each for name, each in self.kept.uuids.items())
            lost += len(self.kept.added - forms.keys())
            need(lost <= 2, f"{lost} registrations differ, and nothing was said")


def keep_damaging(count):
    random.seed(os.getpid())
    run = Run(False)
    with run.stack:
        try:
            damage = Damage(run)
            for _ in range(count):
                damage.once()
                yield 6, damage.noticed
        except Missed as error:
            yield str(error), 0


@scenario("damage")
def damage(run):
    """Bits of all files that a start reads are flipped, or the files cut short: the daemon starts, says so where it
    can be known, keeps what is damaged, and loses no more than was hit."""
    done = noticed = 0
    with run.children(keep_damaging, run.amount(50, 2500), count=2) as workers:
        for worker in workers:
            for _ in range(run.amount(50, 2500)):
                files, told = worker.next()
                need(files == 6, files)
                done += files
            noticed += told
    run.at_least("damaged files, six at each start", done, done, "{}")
    run.at_least("of them noticed as damaged", noticed, done // 3, "{}")
