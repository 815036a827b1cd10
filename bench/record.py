#!/usr/bin/env python3
"""Writes one section of bench/RESULTS.md from hyperfine JSON exports.

record.py TITLE RESULTS_DIR FILE.json...: each file holds two commands measured
side by side; the section lists their medians and the ratio first/second,
and the ratio of their CPU times (user + system), which a busy machine
blurs less than wall-clock times.
A third command in a file is the first one run by a baseline binary
(BASELINE=... in the bench scripts): its median and ratio to the second are
listed as "before". Lines of RESULTS_DIR/notes.md, if any, follow the table.
The section replaces an earlier one of the same title.

record.py --section TITLE FILE: the same for a section written elsewhere
(FILE holds it, from its "## TITLE" line on).
"""
import json
import os
import platform
import subprocess
import sys

here = os.path.dirname(os.path.abspath(__file__))
out_path = os.path.join(here, "RESULTS.md")


def write_section(title, section):
    text = open(out_path).read() if os.path.exists(out_path) else "# Benchmark results\n\n"
    start = text.find(f"## {title}\n")
    if start >= 0:
        end = text.find("\n## ", start + 1)
        text = text[:start] + section + (text[end + 1:] if end >= 0 else "")
    else:
        text = text.rstrip("\n") + "\n\n" + section
    open(out_path, "w").write(text)
    print(section)


if sys.argv[1] == "--section":
    write_section(sys.argv[2], open(sys.argv[3]).read())
    sys.exit(0)

title, results_dir, files = sys.argv[1], sys.argv[2], sys.argv[3:]


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
         "", "| measurement | first command | median | second command | median | ratio | CPU ratio | before | ratio before |",
         "| --- | --- | --- | --- | --- | --- | --- | --- | --- |"]
for name in files:
    data = json.load(open(os.path.join(results_dir, name)))["results"]
    a, b = data[0], data[1]
    ratio = a["median"] / b["median"] if b["median"] else float("inf")
    short = lambda c: c["command"].replace(here, "bench").replace(os.path.dirname(here) + "/", "")[:70]
    cpu = lambda c: c["user"] + c["system"]
    cpu_ratio = cpu(a) / cpu(b) if cpu(b) else float("inf")
    before = " | |"
    if len(data) > 2:
        c = data[2]
        before = (f" {c['median']*1000:.1f} ms | {c['median'] / b['median']:.2f} "
                  f"(CPU {cpu(c) / cpu(b):.2f}) |")
    lines.append(f"| {name[:-5]} | `{short(a)}` | {a['median']*1000:.1f} ms | `{short(b)}` | "
                 f"{b['median']*1000:.1f} ms | {ratio:.2f} | {cpu_ratio:.2f} |{before}")
lines.append("")
notes = os.path.join(results_dir, "notes.md")
if os.path.exists(notes):
    lines += open(notes).read().rstrip("\n").split("\n") + [""]
write_section(title, "\n".join(lines) + "\n")
