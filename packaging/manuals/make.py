#!/usr/bin/env python3
"""Makes a manual page of a document in docs/: what stands above it (NAME.SECTION.md beside this file), the document,
and the help of a program's commands. lowdown(1) does the typesetting; this fits headings, links and tables.

    make.py OUTPUT HEAD DOCUMENT VERSION DATE [PROGRAM]
"""
import re
import subprocess
import sys
from pathlib import Path

PAGES = {"abctl": "abctl(1)", "bundles": "abd-bundles(5)", "client": "libambrel(3)", "operating": "abd(8)",
         "protocol": "abd-protocol(7)"}
WIDTH = 71  # of tables on a terminal of 80 columns


def reference(document):
    return "**{}**({}".format(*PAGES[document].split("("))


def outside_code(text, change):
    """`change` of all of a document but its blocks of code."""
    parts = re.split(r"(^```.*?^```$)", text, flags=re.M | re.S)
    return "".join(part if index % 2 else change(part) for index, part in enumerate(parts))


def with_pages(text, own):
    """Links to documents become names of pages, other links text."""
    def page(match):
        words, document = match.group(1), match.group(2)
        if document not in PAGES or document == own:
            return words
        name = reference(document)
        return name if words.strip("`") in (document + ".md", PAGES[document].split("(")[0]) else f"{words} ({name})"
    return re.sub(r"\[([^]]+)\]\((?:docs/)?([a-z]*)(?:\.md)?(?:#[^)]*)?\)", page, text)


def commands(program, names=()):
    """The help of every command, each under a heading."""
    text = subprocess.run([program, *names, "--help"], check=True, capture_output=True, text=True).stdout
    below = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, flags=re.M)
    if below:
        found = re.findall(r"^  (\S+)", below.group(1), flags=re.M)
        return "".join(commands(program, (*names, each)) for each in found)
    text = text.split("\nOptions of every command")[0].rstrip()
    return f"## {' '.join(names)}\n\n```\n{text}\n```\n\n"


def plain_length(cell):
    """How many characters of it are seen."""
    return len(re.sub(r"\\\(..", "x", re.sub(r"\\f.|\\[:&]", "", cell)))


def table(match):
    """The widths of the columns by what is in them: short ones whole, the others share the rest; words fit."""
    body = match.group(1)
    # Long paths and names may break.
    for place in (r"(?<=[^\s/\\]{6}/)(?=[^\s/])", r"(?<=[^\s\\]{18}\.)(?=[a-z])"):
        body = re.sub(place, r"\\:", body)
    rows = [re.findall(r"T\{\n(.*?)\n?T\}", row, flags=re.S) for row in re.split(r"(?<=T\})\n", body)]
    columns = [[row[i] for row in rows if i < len(row)] for i in range(max(map(len, rows)))]
    wanted = [max(map(plain_length, cells)) for cells in columns]
    least = [max(plain_length(word) for cell in cells for word in re.split(r"\s|\\:", cell)) for cells in columns]
    left, widths = WIDTH - 3 * len(columns), {}
    for i in sorted(range(len(columns)), key=lambda each: wanted[each]):
        others = sum(least) - least[i] - sum(least[each] for each in widths)
        share = min(left // (len(columns) - len(widths)), left - others)
        widths[i] = max(least[i], min(wanted[i], share))
        left -= widths[i]
    layout = " ".join(f"lw({widths[i]}n)" for i in range(len(columns)))
    return f".TS\ntab(|) allbox;\n{layout.replace('lw', 'lbw')}\n{layout}.\n{body}\n.TE\n.sp\n"


def typeset(markdown, name, section, version, date):
    man = subprocess.run(["lowdown", "-s", "-Tman", "--nroff-nolinks", "--out-no-smart", "-M", "title=" + name],
                         input=markdown, check=True, capture_output=True, text=True).stdout
    man = man[man.index("\n.SH") + 1:].replace(r"\fC", r"\fB")
    man = re.sub(r"^\.(S[HS])\n(.*)\n(?:\.[LP]P\n)?", r".\1 \2\n", man, flags=re.M)
    man = re.sub(r"^(\.SH NAME\n\S+) -", r"\1 \\-", man)
    man = re.sub(r"^\.TS\n.*?\.\n(.*?)\n\.TE\n", table, man, flags=re.M | re.S)
    head = f'.TH "{name.upper()}" "{section}" "{date}" "abd {version}"\n'
    # tbl(1) is asked for; names are not hyphenated.
    return "'\\\" t\n.nr HY 0\n" + head + ".ad l\n" + man


def main():
    output, head, document, version, date, *program = sys.argv[1:]
    name, section = Path(head).name.split(".")[:2]
    own = Path(document).stem
    title, text = Path(document).read_text().split("\n", 1)
    assert title.startswith("# ")
    text = outside_code(text, lambda part: re.sub(r"^##", "#", with_pages(part, own), flags=re.M)).strip()
    if not text.startswith("#"):
        text = "# DESCRIPTION\n\n" + text
    text = Path(head).read_text() + "\n" + text + "\n\n"
    if program:
        text += "# COMMANDS\n\n" + commands(program[0])
    text += "# SEE ALSO\n\n" + ", ".join(reference(each) for each in PAGES if each != own) + "\n"
    Path(output).write_text(typeset(text, name, section, version, date))


main()
