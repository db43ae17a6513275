"""What clients cost the daemon and the others: idle ones, fast ones, slow ones."""

import signal

from harness import KIB, MATCH_FEW, SMALLEST, ask, connect, latencies, median, percentile, scenario


def stay_connected(count):
    connections = [connect() for _ in range(count)]
    for each in connections:
        ask(each, SMALLEST)
    yield count
    signal.pause()


def slices_p99(run, request=MATCH_FEW):
    """The p99 of short slices: the median of them is not moved by what else the machine does for a moment."""
    return [percentile(latencies(request, 0.25), 0.99) for _ in range(run.amount(6, 12))]


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
    run.at_most("an active client's p99, times what it was", median(beside) / median(alone), 1.3)
