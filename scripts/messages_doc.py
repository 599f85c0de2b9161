#!/usr/bin/env python3
"""Writes the table of sensor-simd's messages into docs/simulator.md from their declarations in
sim/include/sensor_sim/internal/messages.h (between the <!-- messages --> markers), so the documentation
cannot drift from the code. With --check it only says whether the table is current (exit 1 if not)."""
import re
import sys
from pathlib import Path

root = Path(__file__).resolve().parent.parent
header = (root / "sim/include/sensor_sim/internal/messages.h").read_text()
doc_path = root / "docs/simulator.md"

structs = {}
for m in re.finditer(r"((?://[^\n]*\n)*)struct (\w+) \{(.*?)\n\};", header, re.S):
    comment, name, body = m.groups()
    fields = re.search(r"SENSOR_SIM_FIELDS\(([^)]*)\)", body)
    answer = re.search(r"using Answer = (\w+);", body)
    types = {}
    for decl in re.finditer(r"^\s+([\w:<>, ]+?) (\w+)(?: = [^;]*|\{\})?;", body, re.M):
        types[decl.group(2)] = decl.group(1).replace("std::", "").replace("streams::", "")
    names = [f.strip() for f in fields.group(1).split(",") if f.strip()] if fields else []
    structs[name] = {
        "fields": ", ".join(f"{n} ({types.get(n, '?')})" for n in names) or "none",
        "answer": answer.group(1) if answer else None,
        "fd": "kCarriesFd = true" in body,
        "note": " ".join(l.strip("/ ").strip() for l in comment.strip().splitlines()),
    }

def listed(variant):
    body = re.search(rf"using {variant} = std::variant<(.*?)>;", header, re.S).group(1)
    names = [n.strip() for n in re.sub(r"SENSOR_SIM_VEHICLE_CALLS\(\w+\)", "", body).split(",") if n.strip()]
    if variant == "Request":
        calls = re.search(r"#define SENSOR_SIM_VEHICLE_CALLS\(X\)(.*?)\n\n", header, re.S).group(1)
        names += re.findall(r"X\((\w+)\)", calls)
    return names

rows = ["| Type | Request | Fields, in wire order | Answer |", "|---|---|---|---|"]
for i, name in enumerate(listed("Request")):
    s = structs[name]
    rows.append(f"| {1 + i} | `{name}` | {s['fields']} | {('`' + s['answer'] + '`') if s['answer'] else 'none'} |")
rows += ["", "| Type | Answer | Fields, in wire order |", "|---|---|---|"]
for i, name in enumerate(listed("Answer")):
    s = structs[name]
    rows.append(f"| {128 + i} | `{name}`{' + descriptor' if s['fd'] else ''} | {s['fields']} |")
table = "\n".join(rows)

doc = doc_path.read_text()
new = re.sub(r"(<!-- messages -->\n)(?:.*?\n)?(<!-- /messages -->)", lambda m: m.group(1) + table + "\n" + m.group(2),
             doc, flags=re.S)
if "--check" in sys.argv:
    if new != doc:
        print("docs/simulator.md: the table of messages is out of date; run scripts/messages_doc.py",
              file=sys.stderr)
        sys.exit(1)
else:
    doc_path.write_text(new)
