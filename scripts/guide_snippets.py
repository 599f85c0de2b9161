#!/usr/bin/env python3
"""Keeps the code blocks of a Markdown guide equal to marked regions of compiled example sources.

A source region runs from a line `// snippet: NAME` to the next `// end snippet`. In the guide, a line
`<!-- snippet: PATH NAME -->` (PATH relative to the repository's root) is followed by a ```cpp block
that must hold that region, dedented. Without --update any difference is an error; with --update the
blocks are rewritten from the sources.
Usage: scripts/guide_snippets.py [--update] GUIDE.md
"""
import re
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MARK = re.compile(r"^<!-- snippet: (\S+) (\S+) -->$")
BEGIN = re.compile(r"^\s*// snippet: (\S+)\s*$")
END = re.compile(r"^\s*// end snippet\s*$")


def regions(path):
    found, name, lines = {}, None, []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if name is None:
            m = BEGIN.match(line)
            if m:
                name, lines = m.group(1), []
        elif END.match(line):
            found[name] = textwrap.dedent("\n".join(lines)).strip("\n")
            name = None
        else:
            lines.append(line)
    if name is not None:
        raise SystemExit(f"{path}: snippet '{name}' has no end")
    return found


def main(argv):
    update = "--update" in argv
    args = [a for a in argv if a != "--update"]
    if len(args) != 1:
        raise SystemExit(__doc__)
    guide = Path(args[0])
    lines = guide.read_text().splitlines()
    out, errors, used, i = [], [], 0, 0
    while i < len(lines):
        out.append(lines[i])
        m = MARK.match(lines[i])
        i += 1
        if not m:
            continue
        source, name = ROOT / m.group(1), m.group(2)
        if not source.is_file():
            errors.append(f"{guide}: no source {m.group(1)}")
            continue
        wanted = regions(source).get(name)
        if wanted is None:
            errors.append(f"{guide}: {m.group(1)} has no snippet '{name}'")
            continue
        if i >= len(lines) or lines[i] != "```cpp":
            if update:
                out.extend(["```cpp", *wanted.split("\n"), "```"])
                used += 1
                continue
            errors.append(f"{guide}:{i}: snippet '{name}' is not followed by a ```cpp block")
            continue
        end = i + 1
        while end < len(lines) and lines[end] != "```":
            end += 1
        have = "\n".join(lines[i + 1:end])
        if have != wanted:
            errors.append(f"{guide}:{i + 1}: snippet '{name}' differs from {m.group(1)}")
        out.extend(["```cpp", *wanted.split("\n"), "```"])
        used += 1
        i = end + 1
    if update:
        guide.write_text("\n".join(out) + "\n")
        print(f"{guide}: {used} snippets written from the sources")
        return 0
    for e in errors:
        print(e, file=sys.stderr)
    if errors:
        print("run scripts/guide_snippets.py --update " + str(guide) + " after changing the sources",
              file=sys.stderr)
        return 1
    print(f"{guide}: {used} snippets equal to the compiled sources")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
