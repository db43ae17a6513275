"""The scenarios of ./soak: each runs against the real daemon (build/release) on a private device and shows
its figures and their bounds. Without names all are run, in their quick form."""

import argparse
import datetime
import os
import pathlib
import platform
import signal
import subprocess
import sys
import time

import harness

# Each registers its scenarios; the table has their order.
import neighbours  # noqa: F401
import hostile  # noqa: F401
import changes  # noqa: F401
import failures  # noqa: F401


def run(name, is_long):
    """The figures of a scenario, as rows."""
    scenario = harness.SCENARIOS[name]
    this = harness.Run(is_long)
    signal.alarm(1200 if is_long else 120)
    try:
        with this.stack:
            scenario(this)
    except harness.NotShown as reason:
        this.figures.append((str(reason), "-", "-", "not shown"))
    except (harness.Missed, OSError, RuntimeError, TimeoutError) as error:
        this.figures.append((f"{type(error).__name__}: {error}", "-", "-", "missed"))
    finally:
        signal.alarm(0)
    return [(name, *each) for each in this.figures]


def machine():
    """What the figures were measured on."""

    def first_line(*command):
        return subprocess.run(command, capture_output=True, text=True, cwd=harness.ROOT).stdout.split("\n")[0]

    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / (1 << 30)
    commit, compiler = first_line("git", "describe", "--always", "--dirty"), first_line("c++", "--version")
    return (("cores", os.cpu_count()), ("memory", f"{memory:.0f} GiB"), ("kernel", platform.release()),
            ("compiler", compiler), ("commit", commit), ("date", datetime.date.today().isoformat()))


HEADINGS = ("scenario", "measured", "figure", "bound", "verdict")


def text_table(rows):
    widths = [max(len(row[i]) for row in [HEADINGS, *rows]) for i in range(len(HEADINGS))]
    lines = ("  ".join(cell.ljust(width) for cell, width in zip(row, widths)) for row in [HEADINGS, *rows])
    return "\n".join(line.rstrip() for line in lines)


def markdown_table(rows):
    cells = [HEADINGS, ("---",) * len(HEADINGS), *rows]
    return "\n".join("| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |" for row in cells)


def document(rows, form):
    about = "\n".join(f"| {key} | {value} |" for key, value in machine())
    return f"| machine | |\n|---|---|\n{about}\n\nThe {form} form of `./soak`:\n\n{markdown_table(rows)}\n"


def stop(number, _):
    sys.exit(128 + number)  # what was begun is ended on the way out


def overdue(*_):
    raise TimeoutError("the scenario does not end")


def main():
    parser = argparse.ArgumentParser(prog="./soak", description=__doc__)
    parser.add_argument("--list", action="store_true", help="name the scenarios and what they do")
    parser.add_argument("--long", action="store_true", help="the long form: 30 minutes for all")
    parser.add_argument("--write", type=pathlib.Path, metavar="FILE", help="write the table as Markdown, too")
    parser.add_argument("names", nargs="*", metavar="NAME", help="a scenario")
    options = parser.parse_args()
    if options.list:
        for name, scenario in harness.SCENARIOS.items():
            print(f"{name:14} {' '.join(scenario.__doc__.split())}")
        return 0
    if unknown := [name for name in options.names if name not in harness.SCENARIOS]:
        parser.error(f"no such scenario: {' '.join(unknown)} (--list names them)")
    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGALRM, overdue)
    rows, begin = [], time.monotonic()
    for name in options.names or harness.SCENARIOS:
        print(f"{name} ...", end=" ", file=sys.stderr, flush=True)
        since = time.monotonic()
        found = run(name, options.long)
        if any(row[-1] == "missed" for row in found) and all(row[-2] != "-" for row in found):
            print("again ...", end=" ", file=sys.stderr, flush=True)  # somebody else may have had the machine
            found = run(name, options.long)
        rows += found
        print(f"{time.monotonic() - since:.0f} s", file=sys.stderr)
    print(text_table(rows))
    verdicts = [row[-1] for row in rows]
    counts = ", ".join(f"{verdicts.count(each)} {each}" for each in ("holds", "missed", "not shown"))
    print(f"\n{counts}; {time.monotonic() - begin:.0f} seconds.")
    if options.write:
        options.write.write_text(document(rows, "long" if options.long else "quick"))
    return 1 if "missed" in verdicts else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
