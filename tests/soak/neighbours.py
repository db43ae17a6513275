"""What clients cost the daemon and the others: idle ones, fast ones, slow ones, and too many."""

import signal
import time

from harness import (KIB, MATCH_ALL, MATCH_FEW, MIB, PATIENCE, SMALLEST, accepts, ask, connect, eventually,
                     frame, latencies, median, percentile, receive, scenario)

UNSENT = 64 * MIB  # what a connection's untaken replies may hold


def stay_connected(count):
    connections = [connect() for _ in range(count)]
    for each in connections:
        ask(each, SMALLEST)
    yield count
    signal.pause()


def flood():
    """64 of the smallest request in flight: as many go out as replies came in."""
    frames = [frame("bulk", number) for number in range(32, 96)]
    with connect() as connection:
        size, window = len(ask(connection, frames[0])), b"".join(frames) * 2
        connection.sendall(window[: len(window) // 2])
        yield True
        at = left = 0
        while True:
            count, left = divmod(left + len(connection.recv(1 << 16)), size)
            connection.sendall(window[at * len(frames[0]) : (at + count) * len(frames[0])])
            at = (at + count) % 64


def match_much():
    """The largest answer and the largest question, again and again."""
    patterns = frame("match", rules={"BWBundleName": [f">w{i}" for i in range(16383)]}, flags=0)
    with connect() as connection:
        ask(connection, MATCH_ALL)
        yield True
        while True:
            ask(connection, MATCH_ALL)
            ask(connection, patterns)


def never_read(count):
    """Connections that ask for everything and take nothing."""
    connections = [connect() for _ in range(count)]
    for each in connections:
        each.sendall(MATCH_ALL * 200)
    yield count
    signal.pause()


def four_clients(seconds):
    """How long each of four clients with one request in flight waits for its replies."""
    connections, samples, end = [connect() for _ in range(4)], [], time.monotonic() + seconds
    while time.monotonic() < end:
        begun = []
        for each in connections:
            begun.append(time.perf_counter())
            each.sendall(SMALLEST)
        for each, begin in zip(connections, begun):
            receive(each)
            samples.append(time.perf_counter() - begin)
    return samples


def slices_p99(run):
    """The p99 of many short slices; calm() tells what they show."""
    return [percentile(latencies(MATCH_FEW, 0.1), 0.99) for _ in range(run.amount(12, 30))]


def calm(slices):
    """The best quarter's worst: what else the machine does for a moment does not count."""
    return percentile(slices, 0.25)


@scenario("idle")
def idle(run):
    """4,000 connections of 16 processes that asked once and stay, and a client that works beside them."""
    device = run.device()
    device.populate(1000)
    daemon = run.daemon(device)
    alone, beside, costs = [], [], []
    latencies(MATCH_FEW, 1)
    before = daemon.settled_memory(seconds=3)
    for _ in range(run.amount(3, 12)):
        alone += slices_p99(run)
        with run.children(stay_connected, 250, count=16) as holders:
            connections = sum(each.next() for each in holders)
            beside += slices_p99(run)
            costs.append((daemon.settled_memory(seconds=1) - before) / connections)
    run.at_most("memory of a connection, KiB", max(costs) / KIB, 4)
    run.at_most("an active client's p99, times what it was", calm(beside) / calm(alone), 1.3)


@scenario("flood")
def flooded(run):
    """Four small clients beside one with 64 small requests in flight, and one with the largest match."""
    device = run.device()
    device.populate(1000)
    run.daemon(device)
    alone, flooded, searched = [], [], []
    for _ in range(run.amount(8, 40)):
        alone.append(1 / len(four_clients(0.3)))
        with run.children(flood) as (child,):
            child.next()
            flooded.append(1 / len(four_clients(0.3)))
        with run.children(match_much) as (child,):
            child.next()
            searched.append(percentile(four_clients(0.3), 0.99))
    run.at_least("throughput beside 64 in flight, times what it was", calm(alone) / calm(flooded), 0.5)
    run.at_most("p99 beside the largest match, ms", 1000 * median(searched), 50)


@scenario("slow-readers")
def slow_readers(run):
    """8 clients that ask for answers of 10 MB and never read: while memory fills and when it is full."""
    device = run.device()
    device.populate(1000, Note="x" * 4000)
    daemon = run.daemon(device)
    with connect() as connection:
        answer = len(ask(connection, MATCH_ALL))
    alone, filling, full, peaks, backs, before = [], [], [], [], [], daemon.settled_memory(seconds=3)
    for _ in range(run.amount(2, 12)):
        alone += slices_p99(run)
        with run.children(never_read, 8) as (child,):
            child.next()
            while daemon.processor_share(0.5) > 0.05:
                filling.append(percentile(latencies(MATCH_FEW, 0.25), 0.99))
            full += slices_p99(run)
            peaks.append(daemon.memory() - before)
        # What the allocator notes of all it ever had stays, is used again, and is less than a 32nd of that.
        back, ended = before + MIB + max(peaks) / 32, time.monotonic()
        eventually(lambda: daemon.memory() <= back, 2 * PATIENCE)
        backs.append(time.monotonic() - ended)
    run.at_most("memory of all 8, MiB", max(peaks) / MIB, 8 * (UNSENT + answer) / MIB, "{:.0f}")
    run.at_most("another's p99 while it fills, ms", 1000 * median(filling), 50)
    run.at_most("another's p99 when it is full, times what it was", calm(full) / calm(alone), 2)
    run.at_most("until memory is back, s", max(backs), 10)


@scenario("descriptors")
def descriptors(run):
    """More clients than a limit of 64 descriptors lets in."""
    device = run.device()
    device.populate(10)
    daemon = run.daemon(device, open_files=64)
    waits, shares = [], []
    with connect() as served:
        ask(served, SMALLEST)
        for _ in range(run.amount(3, 20)):
            holders = [connect() for _ in range(100)]
            with connect() as waiting:
                waiting.sendall(SMALLEST)
                shares.append(daemon.processor_share(1))
                ask(served, SMALLEST)
                begin = time.monotonic()
                for each in holders:
                    each.close()
                receive(waiting)
                waits.append(time.monotonic() - begin)
    run.at_most("share of a core while none is free", max(shares), 0.05)
    run.at_most("until a waiting client is served, s", max(waits), 1)
    run.at_least("alive in the end", accepts(), 1, "{:.0f}")
