"""Collects the results of the benchmarks. script/bench calls it.

report.py page KEPT SVG PAGE ONE-CPU-RUNS ALL-CPUS-RUN JSON-RUN   writes KEPT, SVG and PAGE's tables
report.py check KEPT RUN...                                       fails where a ratio has grown
report.py instructions KEPT PROGRAM [--keep]                      the same for counted instructions
"""

import json
import os
import re
import statistics
import subprocess
import sys

PEERS = ["lldb-helper", "lldb-dap", "gdb"]
# Ratios of one machine differ by a few per cent from run to run, ratios of two machines by up to a quarter.
GROWTH_ALLOWED, SLACK = 1.3, 0.15
# Compilers and C libraries differ a little.
INSTRUCTIONS_ALLOWED = 1.1

SLOPES = [
    ("memory, per KiB", "memory 4 KiB", "memory 1 MiB", 1020),
    ("memory, per MiB", "memory 1 MiB", "memory 128 MiB", 127),
    ("call stack after a step, per frame", "call stack 1000, after a step", "call stack 10000, after a step", 9000),
    ("call stack again, per frame", "call stack 1000, again", "call stack 10000, again", 9000),
    ("modules, per library", "modules, 50 libraries", "modules, 200 libraries", 150),
    ("breakpoint hit, per thread", "breakpoint hit, 100 threads", "breakpoint hit, 1000 threads", 900),
]


def load(path):
    with open(path) as file:
        return json.load(file)


def merge(runs):
    """One row for each job: the medians of the runs' medians and of their ratios."""
    rows = []
    for first in runs[0]["rows"]:
        same = [row for run in runs for row in run["rows"] if row["job"] == first["job"]]
        row = {key: first[key] for key in ("job", "unit", "base", "requests") if key in first}
        for kind in ("median", "ratio"):
            row[kind] = {name: statistics.median(one[kind][name] for one in same)
                         for name in first.get(kind) or {}}
        rows.append(row)
    return limits(rows)


def amount(value, unit):
    if unit == "bytes":
        return f"{value / 2**20:.0f} MiB"
    if value < 1000:
        return f"{value:.3g} µs"
    return f"{value / 1000:.3g} ms" if value < 1e6 else f"{value / 1e6:.3g} s"


def limits(rows):
    """Adds to each row its limit: the floor and one raw echo for each request. No program behind a pipe can take less."""
    echo = next((row["median"]["raw echo"] for row in rows if row["base"] == "raw echo"), None)
    for row in rows:
        if row.get("requests") and echo:
            row["limit"] = row["median"]["floor"] + row["requests"] * echo
            row["of the limit"] = row["median"]["lldb-helper"] / row["limit"]
    return rows


def table(rows):
    lines = ["| job | floor | lldb-helper | of the floor | of the limit | lldb-dap | gdb |", "|---|---|---|---|---|---|---|"]
    for row in rows:
        base, unit = row["base"], row["unit"]
        name = row["job"] + ("" if base in ("floor", "lldb-helper") else f" (base: {base})")
        shown = dict(row["ratio"])
        if "output" in row["job"]:
            shown.pop("gdb", None)
        number = lambda value: "" if value is None else f"{value:.2f}"
        cells = [name, amount(row["median"][base], unit), amount(row["median"]["lldb-helper"], unit),
                 number(shown.get("lldb-helper")), number(row.get("of the limit")), number(shown.get("lldb-dap")), number(shown.get("gdb"))]
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


def slopes(rows):
    medians = {row["job"]: row["median"] for row in rows}
    lines = ["| cost | floor | lldb-helper | lldb-dap | gdb |", "|---|---|---|---|---|"]
    for name, small, large, steps in SLOPES:
        cells = [name]
        for subject in ["floor"] + PEERS:
            ends = [medians[job].get(subject) for job in (small, large)]
            cells.append("" if None in ends else amount((ends[1] - ends[0]) / steps, "us"))
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines)


def json_rows(run):
    speeds = {}
    for entry in run["benchmarks"]:
        job, library, text = entry["name"].split("/")
        speeds.setdefault(f"{job}, {text}", {})[library] = entry["bytes_per_second"] / 1e6
    return speeds


def json_table(speeds):
    libraries = ["ours", "nlohmann", "RapidJSON", "simdjson"]
    lines = ["| job, text | " + " | ".join(libraries) + " |", "|---" * (len(libraries) + 1) + "|"]
    for job, speed in speeds.items():
        cells = [f"{speed[library]:,.0f}" if library in speed else "" for library in libraries]
        lines.append(f"| {job} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def fill(page, name, text):
    pattern = re.compile(f"(<!-- {name} -->\n).*?(<!-- end -->)", re.DOTALL)
    filled, count = pattern.subn(lambda found: found[1] + text + "\n" + found[2], page)
    if count != 1:
        sys.exit(f"the page has no place for {name}")
    return filled


PICTURE = [("one stop", "one stop"), ("registers after a step", "registers"), ("call stack 100, after a step", "call stack\\nof 100"),
           ("breakpoint hit", "breakpoint\\nhit"), ("memory 4 KiB", "memory\\n4 KiB"), ("launch to entry", "launch")]


def plot(rows, path):
    """Bars: how many times the floor's time each takes."""
    ratios = {row["job"]: row["ratio"] for row in rows}
    data = "".join('"%s" %s\n' % (name, " ".join(str(ratios[job].get(peer, "NaN")) for peer in PEERS)) for job, name in PICTURE)
    commands = f"""
set terminal svg size 860,360 font "sans-serif,13" background "white"
set output "{path}"
set style data histogram
set style histogram clustered gap 1
set style fill solid noborder
set yrange [0:6]
set grid y
set bmargin 4
set key top right
set ylabel "time, LLDB used plainly = 1"
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2
$data << END
{data}END
plot $data using 2:xtic(1) title "lldb-helper" lc rgb "#1b7f5a", \\
  "" using 3 title "lldb-dap" lc rgb "#8fa8c8", "" using 4 title "gdb" lc rgb "#d9b36c"
"""
    subprocess.run(["gnuplot"], input=commands, text=True, check=True)


def write_page(kept_path, svg_path, page_path, one_cpu, all_cpus, json_run):
    runs = [load(path) for path in one_cpu]
    rows, free_rows, speeds = merge(runs), merge([load(all_cpus)]), json_rows(load(json_run))
    with open("/proc/cpuinfo") as file:
        processor = re.search(r"model name\s*: (.*)", file.read())[1]
    kept = {"processor": processor, "processors": os.cpu_count(), "lldb": runs[0]["lldb"],
            "one processor": rows, "all processors": free_rows, "Json, MB/s": speeds}
    with open(kept_path, "w") as file:
        json.dump(kept, file, indent=1)
        file.write("\n")
    plot(rows, svg_path)
    with open(page_path) as file:
        page = file.read()
    machine = f"{processor}, {os.cpu_count()} processors, {runs[0]['lldb'].splitlines()[0]}."
    for name, text in [("machine", machine), ("one processor", table(rows)), ("slopes", slopes(rows)),
                       ("all processors", table(free_rows)), ("json", json_table(speeds))]:
        page = fill(page, name, text)
    with open(page_path, "w") as file:
        file.write(page)


def check(kept_path, paths):
    """Holds each row's ratio to the floor, and where a row has one, to the limit."""
    kept = {row["job"]: row for row in load(kept_path)["one processor"]}
    slower = False
    for row in merge([load(path) for path in paths]):
        before = kept.get(row["job"], {})
        pairs = [(f"times {row['base']}", before.get("ratio", {}).get("lldb-helper"), row["ratio"].get("lldb-helper")),
                 ("times the limit", before.get("of the limit"), row.get("of the limit"))]
        for what, then, now in pairs:
            if then is None or now is None:
                continue
            bound = then * GROWTH_ALLOWED + SLACK
            slower |= now > bound
            print(f"{'SLOWER' if now > bound else 'ok':6} {row['job']:40} {now:.2f} {what}, kept {then:.2f}, bound {bound:.2f}")
    sys.exit(slower)


def instructions(kept_path, program, keep):
    """Counts the instructions of Json's work under callgrind."""
    names = subprocess.run([program], text=True, capture_output=True, check=True).stdout.splitlines()
    counts = {}
    for name in names:
        # Compilers make copies of the function, with longer names.
        found = subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=measured*", "--callgrind-out-file=/dev/null",
             program, name], text=True, capture_output=True, check=True).stderr
        counts[name] = int(re.search(r"Collected : (\d+)", found)[1])
    if keep:
        with open(kept_path, "w") as file:
            json.dump(counts, file, indent=1)
            file.write("\n")
        return
    kept, more = load(kept_path), False
    for name, count in counts.items():
        bound = int(kept[name] * INSTRUCTIONS_ALLOWED)
        wrong = count == 0 or count > bound
        more |= wrong
        print(f"{'MORE' if wrong else 'ok':4} {name:24} {count:12,} instructions, kept {kept[name]:,}, bound {bound:,}")
    sys.exit(more)


def main(verb, *arguments):
    if verb == "page":
        kept, svg, page, *one_cpu, all_cpus, json_run = arguments
        write_page(kept, svg, page, one_cpu, all_cpus, json_run)
    elif verb == "check":
        check(arguments[0], arguments[1:])
    elif verb == "instructions":
        instructions(arguments[0], arguments[1], "--keep" in arguments)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(*sys.argv[1:])
