#!/usr/bin/env python3
"""names_check.py ROOT DOCUMENT: whether all names in a document exist in the sources under ROOT: what stands in
backticks, and what looks like a name or a path in pictures."""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])
document = Path(sys.argv[2]).read_text()
sources = [path.read_text() for folder in ("abd", "Ambrel", "platform") for path in (root / folder).rglob("*")
           if path.suffix in (".h", ".cc")]
words = [set(re.findall(r"[A-Za-z_][\w-]*\w", text)) | set(re.findall(r"\w+", text)) for text in sources]
pictures = "".join(re.findall(r"^```\n(.*?)^```", document, flags=re.M | re.S))
names = set(re.findall(r"`([^`\n]+)`", re.sub(r"^```\n.*?^```", "", document, flags=re.M | re.S)))
names |= set(re.findall(r"\w+::\w+|\b\w*[a-z][A-Z]\w*\b|\b[A-Z]{2,}[a-z]\w*\b|\b\w+/[\w/.]*", pictures))
missing = []
for name in sorted(names):
    parts = {part for part in re.split(r"::|\(\)|[ =]", name) if part}
    if not any((root / place / name).exists() for place in (".", "abd")) and not any(parts <= each for each in words):
        missing.append(name)
print(f"{len(names)} names, missing: {missing}")
sys.exit(bool(missing) or len(names) < 50)
