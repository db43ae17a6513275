#!/usr/bin/env python3
"""Stands in for a user's service manager where none runs: makes the socket and hands it to a daemon.

    hand_over.py PROGRAM      SIGHUP ends the daemon and hands the same socket to the next one, SIGTERM ends all
"""

import os
import signal
import socket
import sys

SIGNALS = {signal.SIGHUP, signal.SIGTERM}


def start(program):
    daemon = os.fork()
    if daemon == 0:
        os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
        signal.pthread_sigmask(signal.SIG_UNBLOCK, SIGNALS)
        os.execv(program, [program])
    return daemon


def main():
    signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
    os.umask(0o077)
    place = os.environ["XDG_RUNTIME_DIR"] + "/veltra"
    os.makedirs(place, exist_ok=True)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(place + "/com.veltra.ambrel.abd")
    listener.listen(128)
    os.dup2(listener.fileno(), 3)
    os.set_inheritable(3, True)
    going_on = True
    while going_on:
        daemon = start(sys.argv[1])
        going_on = signal.sigwait(SIGNALS) == signal.SIGHUP
        os.kill(daemon, signal.SIGTERM)
        os.waitpid(daemon, 0)


main()
