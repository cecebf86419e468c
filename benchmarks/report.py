"""Combines the rounds of a benchmark run into a table and bench.json, and rewrites the figures of the documentation."""

import collections
import glob
import json
import os
import re
import statistics
import subprocess
import sys

# Subject, peer, benchmark, target ratio.
ROWS = [
    ("pool: take and return one buffer", "the bare work, same locks", "pool/threads:1", 2.0),
    ("manager: NV12 4000 x 3000 taken and freed", "fresh memory", "manager/4000/3000", 1 / 3000),
    ("pool with 2 threads on their own sizes", "the bare work, same locks", "pool/threads:2", 2.0),
    ("pool with 4 threads on their own sizes", "the bare work, same locks", "pool/threads:4", 2.0),
    ("pool with 8 threads on their own sizes", "the bare work, same locks", "pool/threads:8", 2.0),
    ("offline log, a line for the caller", "spdlog, asynchronous", "offline_caller", 1.0),
    ("offline log, a line until it is written", "open, append, close", "offline_writer", 1.0),
    ("copy of NV12 1920 x 1080", "libyuv CopyPlane", "copy_nv12/1920/1080", 1.0),
    ("copy of P010 4000 x 3000", "libyuv CopyPlane", "copy_p010/4000/3000", 1.0),
    ("dump of NV12 4000 x 3000", "one write", "dump/4000/3000", 1.15),
    ("thread pool, a task of four producers", "boost::asio::thread_pool", "tasks/4", 1.0),
    ("signal raised to task run", "boost::asio::post", "signal", 1.0),
    ("zytview, Bayer noise 4000 x 3000 to PNG", "ffmpeg", "view/noise", 0.35),
    ("zytview, smooth Bayer 4000 x 3000 to PNG", "ffmpeg", "view/smooth", 0.4),
    ("kit: plain image taken and given back", "the manager's two calls", "kit_plain", 1.1),
    ("kit: DMA-BUF image taken and given back", "the manager's two calls", "kit_dmabuf", 1.1),
    ("kit: gralloc image taken and given back", "the same calls by hand", "kit_gralloc", 1.1),
    ("kit: CPU access opened and closed", "the platform's two calls", "kit_access", 1.05),
    ("kit: rows of 640 x 480 in eight bands", "boost::asio::thread_pool, a latch", "kit_rows", 1.0),
    ("kit: RawMipi10 4000 x 3000 unpacked", "memcpy of as many bytes", "kit_unpack", 1.5),
    ("kit: RawMipi10 4000 x 3000 packed", "memcpy of as many bytes", "kit_pack", 2.5),
]
RUNS = "docs/performance/runs.json"  # ratios of earlier runs by subject, on this machine and others


def read_rounds(build):
    """Returns all times in ns by benchmark, side and round, the memory probe's output, and zytview's memory."""
    times = collections.defaultdict(lambda: {"ours": {}, "peer": {}})
    probes, views = [], []
    for path in sorted(glob.glob(f"{build}/round-*.json")):
        with open(path, encoding="utf-8") as file:
            data = json.load(file)
        if "before" in data:
            probes.append(data)
            continue
        if "view_memory" in data:
            views.append(data["view_memory"])
        round_number = re.search(r"round-([0-9]+)", path).group(1)
        scale = {"ns": 1, "us": 1e3, "ms": 1e6}
        for run in data["benchmarks"]:
            if run.get("error_occurred"):
                sys.exit(f"{run['name']}: {run['error_message']}")
            if run["run_type"] != "iteration":
                continue
            area, side, *rest = run["run_name"].split("/")
            rest = [part for part in rest if not re.match(r"(real_time|manual_time|iterations:.*)$", part)]
            rounds = times["/".join([area, *rest])][side]
            rounds.setdefault(round_number, []).append(run["real_time"] * scale[run["time_unit"]])
    return times, probes, views


def medians(times, name):
    """Returns the medians of both sides and of their ratio per round, in which a slowdown of a whole round cancels."""
    sides = times[name]
    if not sides["ours"] or sides["ours"].keys() != sides["peer"].keys():
        sys.exit(f"{name} was not run")
    rounds = {side: {number: statistics.median(values) for number, values in rounds.items()}
              for side, rounds in sides.items()}
    result = {side: statistics.median(values.values()) for side, values in rounds.items()}
    ratios = [rounds["ours"][number] / peer for number, peer in rounds["peer"].items()]
    result.update(ratio=statistics.median(ratios), lowest=min(ratios), highest=max(ratios))
    return result


def show_time(nanos):
    for unit, size in (("ms", 1e6), ("us", 1e3)):
        if nanos >= size:
            return f"{nanos / size:.1f} {unit}"
    return f"{nanos:.2f} ns" if nanos < 10 else f"{nanos:.0f} ns"


def show_ratio(ratio):
    return f"{ratio:.2f}" if ratio >= 0.01 else f"1/{1 / ratio:.0f}"


def show_range(lowest, highest):
    shown = show_ratio(lowest), show_ratio(highest)
    return shown[0] if shown[0] == shown[1] else "–".join(shown)


def make_rows(times, probes, views, build):
    keys = ("subject", "ours", "peer", "against", "ratio", "target", "met", "range", "value")
    rows = []
    for subject, against, name, limit in ROWS:
        point = medians(times, name)
        ratio = round(point["ratio"], 2) if limit >= 0.01 else point["ratio"]  # compare the digits shown
        rows.append((subject, show_time(point["ours"]), show_time(point["peer"]), against, show_ratio(ratio),
                     show_ratio(limit), ratio <= limit, show_range(point["lowest"], point["highest"]), point["ratio"]))
    point = medians(times, "log_site")
    above = point["ours"] - point["peer"]
    rows.append(("log site below both thresholds", show_time(point["ours"]), show_time(point["peer"]), "an empty loop",
                 f"+{above:.2f} ns", "+1 ns", above <= 1, "", None))
    if not probes:
        sys.exit("the memory probe was not run")
    before, after = (statistics.median(probe[key] for probe in probes) for key in ("before", "after"))
    rows.append(("resident after the first log call, off", f"{after:.0f} KiB", f"{before:.0f} KiB", "before it",
                 f"+{after - before:.0f} KiB", "+1024 KiB", after - before <= 1024, "", None))
    ours, peer = (statistics.median(view[side] for view in views) / 1024 for side in ("ours", "peer"))
    rows.append(("zytview's memory for these, with the file's 23 MiB", f"{ours:.0f} MiB", f"{peer:.0f} MiB", "ffmpeg",
                 show_ratio(ours / peer), show_ratio(0.1), ours / peer <= 0.1, "", None))
    size = os.path.getsize(f"{build}/libzyttools.stripped.so") / 1024
    rows.append(("stripped shared library", f"{size:.1f} KiB", "", "", "", "200 KiB", size <= 200, "", None))
    return [dict(zip(keys, row)) for row in rows]


def describe_machine():
    def ask(command):
        return subprocess.run(command, shell=True, capture_output=True, text=True, check=True).stdout.strip()

    return {
        "processors": ask("nproc") + " x " + ask("lscpu | sed -n 's/^Model name: *//p'"),
        "memory": ask("awk '/^MemTotal/ { printf \"%.0f GiB\", $2 / 2^20 }' /proc/meminfo"),
        "kernel": ask("uname -srm") + ask("grep -qw hypervisor /proc/cpuinfo && echo ', virtual machine' || true"),
        "system": ask('. /etc/os-release && echo "$PRETTY_NAME"'),
        "compiler": ask("c++ --version | head -n 1") + ", -O2",
        "file system": ask("df --output=fstype . | tail -n 1"),
        "heap": "/dev/dma_heap/system" if os.path.exists("/dev/dma_heap/system") else "memfd",
    }


def print_table(rows):
    heads = ("subject", "ours", "peer", "ratio", "range", "target", "")
    lines = [heads] + [(r["subject"], r["ours"], f"{r['peer']}  {r['against']}".strip(), r["ratio"], r["range"],
                        r["target"], "met" if r["met"] else "MISSED") for r in rows]
    widths = [max(len(line[column]) for line in lines) for column in range(len(heads))]
    for line in lines:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())
    missed = sum(not row["met"] for row in rows)
    print(f"\n{len(rows) - missed} targets met, {missed} missed")


def record_run(rows, machine):
    """Adds this run to the recorded ones and returns the ratios of all runs by subject."""
    with open(RUNS, encoding="utf-8") as file:
        runs = json.load(file)
    runs.append({"processors": machine["processors"],
                 "ratios": {r["subject"]: float(f"{r['value']:.4g}") for r in rows if r["value"] is not None}})
    with open(RUNS, "w", encoding="utf-8") as file:
        json.dump(runs, file, indent=1)
        file.write("\n")
    ratios = collections.defaultdict(list)
    for run in runs:
        for subject, ratio in run["ratios"].items():
            ratios[subject].append(ratio)
    return ratios


def markdown(rows, machine):
    """Returns the two generated sections, without absolute times, which mean nothing on another machine."""
    ratios = record_run(rows, machine)
    seen = {subject: show_range(min(values), max(values)) for subject, values in ratios.items() if len(values) > 1}
    yield "machine", [f"- {key}: {value}" for key, value in machine.items()]
    yield "table", ["| subject | peer | ratio | processes | runs | target | |", "|---|---|---|---|---|---|---|"] + [
        f"| {r['subject']} | {r['against']} | {r['ratio'] or r['ours']} | {r['range']} | {seen.get(r['subject'], '')} | "
        f"{r['target']} | {'met' if r['met'] else '**missed**'} |" for r in rows]


def update_docs(path, sections):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    for name, lines in sections:
        begin, end = f"<!-- {name} -->", f"<!-- end of {name} -->"
        text = "\n".join([text.split(begin)[0] + begin, *lines, end + text.split(end)[1]])
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def main():
    build, docs = sys.argv[1:]
    times, probes, views = read_rounds(build)
    rows, machine = make_rows(times, probes, views, build), describe_machine()
    with open(f"{build}/bench.json", "w", encoding="utf-8") as file:
        json.dump({"machine": machine, "rows": rows, "nanoseconds": times}, file, indent=1)
    print_table(rows)
    if docs == "yes":
        update_docs("docs/performance.md", markdown(rows, machine))


main()
