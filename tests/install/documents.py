#!/usr/bin/env python3
"""Checks that what the documents point to exists: sources named in code spans, and relative links.

documents.py SOURCE_DIR
"""
import pathlib
import re
import sys

source_dir = pathlib.Path(sys.argv[1])
folders = ["bin", "platform", "wire", "client", "gst", "tests", "fuzz", "bench", "docs", "scripts", "cmake",
           "examples", "packaging"]
files = {"/" + str(path.relative_to(source_dir)) for folder in folders
         for path in (source_dir / folder).rglob("*") if path.is_file()}
documents = sorted(source_dir.glob("*.md")) + sorted((source_dir / "docs").rglob("*.md"))

faults = []
checked = 0
for document in documents:
    text = document.read_text(encoding="utf-8")
    name = document.relative_to(source_dir)
    for source in re.findall(r"`([\w./-]+\.(?:cpp|h|hpp))`", text):
        checked += 1
        if not any(file.endswith("/" + source) for file in files):
            faults.append(f"{name}: there is no {source}")
    for link in re.findall(r"\]\(([^)#:\s]+)(?:#[^)]*)?\)", text):
        checked += 1
        if not (document.parent / link).exists():
            faults.append(f"{name}: the link to {link} leads nowhere")

print("\n".join(faults))
if checked < 100:
    faults.append(f"only {checked} names and links found: is this the source tree?")
    print(faults[-1])
sys.exit(1 if faults else 0)
