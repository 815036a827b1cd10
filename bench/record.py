#!/usr/bin/env python3
"""Writes one section of bench/RESULTS.md from hyperfine JSON exports.

record.py TITLE RESULTS_DIR FILE.json...: each file holds two commands measured
side by side; the section lists their medians and the ratio first/second.
The section replaces an earlier one of the same title.
"""
import json
import os
import platform
import subprocess
import sys

title, results_dir, files = sys.argv[1], sys.argv[2], sys.argv[3:]
here = os.path.dirname(os.path.abspath(__file__))
out_path = os.path.join(here, "RESULTS.md")


def cpu_name():
    try:
        for line in open("/proc/cpuinfo"):
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


lines = [f"## {title}", "",
         f"Machine: {cpu_name()}, {os.cpu_count()} cores, {platform.system()} {platform.release()}; "
         f"run {subprocess.run(['date', '-u', '+%Y-%m-%d'], capture_output=True, text=True).stdout.strip()}.",
         "", "| measurement | first command | median | second command | median | ratio |",
         "| --- | --- | --- | --- | --- | --- |"]
for name in files:
    data = json.load(open(os.path.join(results_dir, name)))["results"]
    a, b = data[0], data[1]
    ratio = a["median"] / b["median"] if b["median"] else float("inf")
    short = lambda c: c["command"].replace(here, "bench").replace(os.path.dirname(here) + "/", "")[:70]
    lines.append(f"| {name[:-5]} | `{short(a)}` | {a['median']*1000:.1f} ms | `{short(b)}` | "
                 f"{b['median']*1000:.1f} ms | {ratio:.2f} |")
lines.append("")
section = "\n".join(lines) + "\n"

text = open(out_path).read() if os.path.exists(out_path) else "# Benchmark results\n\n"
start = text.find(f"## {title}\n")
if start >= 0:
    end = text.find("\n## ", start + 1)
    text = text[:start] + section + (text[end + 1:] if end >= 0 else "")
else:
    text = text.rstrip("\n") + "\n\n" + section
open(out_path, "w").write(text)
print(section)
