"""What changes under clients: what is installed, the daemon itself, the clock, and everything for long."""

import json
import os
import shutil
import signal
import subprocess
import time
import uuid

import neighbours
from harness import (BUILD, MIB, PATIENCE, SMALLEST, Missed, NotShown, ask, client, connect, eventually,
                     plug_in_info, scenario, write_bundle, write_list)
from hostile import send_hostile_frames

POINTS = 8


def churned(number, version):
    """The Info dictionary of a bundle that is changed; its end says the same as its beginning."""
    point = f"org.example.churn{number % POINTS}"
    return plug_in_info(f"org.example.churn.part{number}", version, point, Filler="x" * 3000, Last=version)


def found(connection, point):
    """Identifiers and versions of the plug-ins of a point; every record has to be of one piece."""
    result = {}
    for form in connection.request("match", rules={"ZQExtensionPointName": point}, flags=0)["matches"]:
        last = form["info"]["ZQExtensionAttributes"]["Last"]
        if last != form["version"] or last != form["bundleInfo"]["BWBundleShortVersionString"]:
            raise Missed(f"a half-read record: {form['version']} and {last}")
        result[form["identifier"]] = form["version"]
    return result


def match_forever(number):
    connection = client()
    yield True
    while True:
        found(connection, f"org.example.churn{number}")


def edit(path, number, version):
    """Replaces the Info file at once, or writes it in place in two pieces."""
    fresh = path.with_suffix(".other")
    write_list(fresh, churned(number, version))
    if number % 2:
        fresh.rename(path)
        return
    with open(path, "wb", buffering=0) as file:
        file.write(fresh.read_bytes()[:2000])
        file.write(fresh.read_bytes()[2000:])
    fresh.unlink()


def churn(device, numbers, kept=50):
    """Installs some, edits them `kept` later, removes them as much later again; what there is in the end."""
    there = {}
    for number in numbers:
        time.sleep(0.003)
        device.install(f"Churn{number}", [churned(number, "1.0")])
        there[f"org.example.churn.part{number}"] = "1.0"
        if (edited := number - kept) >= numbers[0]:
            identifier = f"org.example.churn.part{edited}"
            plug_ins = device.applications / f"Churn{edited}.app/PlugIns"
            edit(plug_ins / f"{identifier}.appex/Info.plist", edited, "2.0")
            there[identifier] = "2.0"
        if (removed := number - 2 * kept) >= numbers[0]:
            shutil.rmtree(device.applications / f"Churn{removed}.app")
            del there[f"org.example.churn.part{removed}"]
    return there


@scenario("churn")
def churning(run):
    """Bundles installed, edited and removed (500; 5,000 in the long form) while 8 clients match."""
    device = run.device()
    device.populate(100)
    run.daemon(device)
    watcher, converged, per_round = client(), [], 250
    matching = [run.child(match_forever, number) for number in range(POINTS)]
    for each in matching:
        each.next()

    def all_found():
        parts = [found(watcher, f"org.example.churn{i}") for i in range(POINTS)]
        return {key: version for part in parts for key, version in part.items()}

    for number in range(0, run.amount(500, 5000), per_round):
        wanted, begin = churn(device, range(number, number + per_round)), time.monotonic()
        if not eventually(lambda: all_found() == wanted, 3 * PATIENCE):
            raise Missed("what was changed is not found")
        converged.append(time.monotonic() - begin)
        for each in device.applications.glob("Churn*"):
            shutil.rmtree(each)
    failed = sum(not each.process.is_alive() for each in matching)
    run.at_most("from the last change until all is found, s", max(converged), 2)
    run.at_most("clients that read half a record, or failed", failed, 0, "{:.0f}")


@scenario("upgrade")
def upgrade(run):
    """The daemon replaced by another build (here: the same, copied) under 20 connected hosts."""
    device = run.device()
    device.populate(100)
    shutil.copy2(BUILD / "abd", device.path / "abd.other")
    write_bundle(device.path / "Loose.appex", plug_in_info("org.example.loose"))
    programs = [BUILD / "abd", device.path / "abd.other"]
    daemon, different = run.daemon(device), 0
    first = client()
    first.request("add", paths=[str(device.path / "Loose.appex")])

    def state(host):
        forms = host.request("match", rules={}, flags=0)["matches"]
        return {form["identifier"]: (form["uuid"], form["path"], form["annotations"]) for form in forms}

    def everything():
        """What a manager sees, bundles outside applications included, but for the tokens."""
        text = subprocess.check_output([BUILD / "abctl", "match", "--all", "--json"])
        return [{key: form[key] for key in form if key != "extensions"} for form in json.loads(text)]

    for number in range(run.amount(10, 50)):
        hosts = [client() for _ in range(20)]
        uuids = [uuid.UUID(each[0]) for each in list(state(first).values())[number : number + 2]]
        choice = {"election": number % 3, "extension": {"n": number}}
        hosts[0].request("annotate", uuids=uuids, annotations=choice)
        before, everything_before = state(hosts[1]), everything()
        daemon.stop(signal.SIGTERM)
        for each in hosts:
            if each.socket.recv(1):
                raise Missed("a host was not told of the daemon's end")
        daemon = run.daemon(device, program=programs[(number + 1) % 2])
        different += sum(state(client()) != before for _ in range(20)) + (everything() != everything_before)
        first = client()
    run.at_most("hosts that found something else", different, 0, "{:.0f}")
    run.at_least("plug-ins compared", len(everything()), 101, "{:.0f}")


@scenario("time")
def moved_clock(run):
    """The wall clock moved to and fro by a day, then the daemon suspended for a minute (long form)."""
    device, day = run.device(), 86400
    device.populate(10)
    clock = device.path / "clock"  # as clock_preload.cc reads it
    clock.touch()
    preload, environment = BUILD / "tests/clock_preload.so", {"SOAK_CLOCK": str(clock)}
    daemon = run.daemon(device, preload=[preload], environment=environment)
    shares, errors = [], []
    with connect() as begun, connect() as suspended:
        begun.sendall(SMALLEST[:-1])
        since = time.monotonic()
        for number, shift in enumerate((day, -day, 0, day)):
            os.truncate(clock, abs(shift))
            clock.chmod(0o700 if shift < 0 else 0o600)
            moved = time.monotonic()
            device.install(f"Moved{number}", [plug_in_info(f"org.example.moved{number}")])
            rules = {"ZQExtensionIdentifier": f"org.example.moved{number}"}
            forms = eventually(lambda: client().request("match", rules=rules, flags=0)["matches"])
            if not forms:
                raise Missed("what was installed is not found when the clock was moved")
            errors.append(time.monotonic() - moved)
            if abs(forms[0]["lastmodified"] - time.time() - shift) > 60:
                raise NotShown("the clock of the daemon cannot be moved here")
            shares.append(daemon.processor_share(1))
        begun.recv(1)
        limit = time.monotonic() - since
        suspended.sendall(SMALLEST[:-1])
        daemon.send_signal(signal.SIGSTOP)
        time.sleep(run.amount(11, 60))
        suspended.sendall(SMALLEST[-1:])
        daemon.send_signal(signal.SIGCONT)
        resumed = time.monotonic()
        ask(suspended, SMALLEST)
        errors.append(time.monotonic() - resumed)
        shares.append(daemon.processor_share(1))
    run.at_most("share of a core afterwards", max(shares), 0.05)
    run.at_most("until a change or an answer is there, s", max(errors), 2)
    run.at_most("a begun frame's 10 s, off by s", abs(limit - 10), 1)


def annotate_forever():
    connection = client()
    forms = connection.request("match", rules={}, flags=0)["matches"]
    uuids = [uuid.UUID(form["uuid"]) for form in forms[:3]]
    yield True
    while True:
        connection.request("annotate", uuids=uuids, annotations={"election": 1})


def churn_forever(device):
    yield True
    while True:
        churn(device, range(20), 10)
        for each in device.applications.glob("Churn*"):
            shutil.rmtree(each)


def mix_forever(device, number):
    """Adds, readies, reads, holds and removes a bundle; every other hold ends with its client."""
    application = device.path / f"Mixed{number}.app"  # where no scan looks
    bundle = application / "PlugIns/Mixed.appex"
    if not bundle.exists():  # since the last round
        write_bundle(application, {"BWBundleIdentifier": f"org.example.mixing{number}"})
        write_bundle(bundle, plug_in_info(f"org.example.mixed{number}"))
    paths, rules = [str(bundle)], {"ZQExtensionIdentifier": f"org.example.mixed{number}"}
    yield True
    while True:
        for dies in (True, False):
            connection = client()
            connection.request("add", paths=paths)
            # It is hidden until the last client's hold has gone after it.
            forms = eventually(lambda: connection.request("match", rules=rules, flags=0)["matches"])
            uuids = [uuid.UUID(forms[0]["uuid"])]
            connection.request("ready", uuids=uuids)
            connection.request("access", uuids=uuids)
            token = connection.request("lock", paths=paths, flags=2)["uuids"]
            if not dies:
                connection.request("lock", uuids=[token])
                connection.request("remove", paths=paths)
            connection.socket.close()


@scenario("long")
def everything_at_once(run):
    """All of it at once, every request among it, in rounds with a pause behind each, for 10 minutes (long form)."""
    device = run.device()
    device.populate(300)
    daemon = run.daemon(device)
    loads = ((neighbours.flood,), (neighbours.match_much,), (annotate_forever,),
             (neighbours.never_read, run.amount(1, 4)), (neighbours.stay_connected, 200),
             (send_hostile_frames, 1), (churn_forever, device), (match_forever, 0),
             *((mix_forever, device, number) for number in range(2)))
    samples = []
    for _ in range(run.amount(5, 20)):
        children = [run.child(*load) for load in loads]
        for each in children:
            each.next()
        time.sleep(run.amount(2, 24))
        if failed := [load[0].__name__ for load, each in zip(loads, children) if not each.process.is_alive()]:
            raise Missed(f"clients that failed: {failed}")
        for each in children:
            each.end()
        for each in device.applications.glob("Churn*"):
            shutil.rmtree(each)
        for name in ("add", "remove"):  # whether or not their clients came to that
            client().request(name, paths=[str(each) for each in device.path.glob("Mixed*.app/PlugIns/*")])
        eventually(lambda: daemon.processor_share(0.5) < 0.02)
        memory = daemon.settled_memory(seconds=6) / MIB
        samples.append((memory, daemon.descriptors(), daemon.watches()))
    warm, late = samples[1 : (len(samples) + 2) // 2], samples[(len(samples) + 2) // 2 :]
    status = json.loads(subprocess.check_output([BUILD / "abctl", "status", "--json"]))
    used = [each["name"] for each in status["requests"] if each["count"] > each["failed"]]
    run.at_least("kinds of requests that were served", len(used), 8, "{}")
    for i, (what, bound) in enumerate((("memory, MiB", 1), ("descriptors", 0), ("watches", 0))):
        growth = min(each[i] for each in late) - min(each[i] for each in warm)
        run.at_most(f"growth after warm-up: {what}", growth, bound)
