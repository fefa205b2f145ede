"""Collects the results of the benchmarks, and times LLDB's settings. script/bench calls it.

report.py page KEPT SVG PAGE TRACER-TABLE ONE-CPU-RUNS ALL-CPUS-RUN JSON-RUN
                                                                  writes KEPT, SVG and PAGE's tables
report.py check KEPT RUN...                                       fails where a ratio has grown
report.py instructions KEPT PROGRAM [--keep]                      the same for counted instructions
report.py settings HELPER PROGRAM       times a session's start with one of LLDB's settings that a host may set.
                                        PROGRAM has a symbol main, and runs at the addresses in its file
"""

import json
import os
import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

PEERS = ["lldb-helper", "lldb-dap", "gdb"]
LIBRARIES = ["ours", "nlohmann", "RapidJSON", "simdjson"]
# Ratios of one machine differ by a few per cent from run to run, ratios of two machines by up to a quarter.
GROWTH_ALLOWED, SLACK = 1.3, 0.15
# Compilers and C libraries differ a little.
INSTRUCTIONS_ALLOWED = 1.1

SLOPES = [
    ("memory, per KiB", "memory 4 KiB", "memory 1 MiB", 1020),
    ("memory, per MiB", "memory 1 MiB", "memory 128 MiB", 127),
    (
        "call stack after a step, per frame",
        "call stack 1000, after a step",
        "call stack 10000, after a step",
        9000,
    ),
    ("call stack again, per frame", "call stack 1000, again", "call stack 10000, again", 9000),
    ("modules, per library", "modules, 50 libraries", "modules, 200 libraries", 150),
    (
        "breakpoint hit, per thread",
        "breakpoint hit, 100 threads",
        "breakpoint hit, 1000 threads",
        900,
    ),
]

# The second helper with a cache finds it filled.
SETTINGS = [
    "",
    "symbols.enable-external-lookup false",
    "target.preload-symbols false",
    "symbols.enable-lldb-index-cache true",
    "symbols.enable-lldb-index-cache true",
]

# A job of each group, those where lldb-helper is slower than LLDB used plainly too.
PICTURE = [
    ("one stop", "one stop"),
    ("registers after a step", "registers"),
    ("call stack 100, after a step", "call stack\\nof 100"),
    ("instruction step", "step"),
    ("breakpoint hit", "breakpoint\\nhit"),
    ("memory 64 B", "memory\\n64 B"),
    ("memory 1 MiB", "memory\\n1 MiB"),
    ("modules, 50 libraries", "50 modules"),
    ("1 MB of output", "1 MB\\nof output"),
    ("launch to entry", "launch"),
]
# Bars: how many times the floor's time each takes.
PLOT = """
set terminal svg size 860,360 font "sans-serif,13"
set output "{path}"
set style data histogram; set style histogram clustered gap 1; set style fill solid noborder
set yrange [0:9]; set grid y; set bmargin 4; set key top center
set ylabel "time, LLDB used plainly = 1 (less is better)"
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2
$data << END
{data}
END
plot $data using 2:xtic(1) title "lldb-helper" lc rgb "#1b9f6a", \\
  "" using 3 title "lldb-dap" lc rgb "#7f9fd0", "" using 4 title "gdb" lc rgb "#d9a34c"
"""
# For pages with a dark background. The picture itself has none.
DARK_STYLE = """<style>
@media (prefers-color-scheme: dark) {
  [fill="black"] { fill: #e6edf3; }
  [stroke="black"] { stroke: #e6edf3; }
  [color="black"] { color: #e6edf3; }
}
</style>
"""


def load(path):
    return json.loads(Path(path).read_text())


def keep(path, value):
    Path(path).write_text(json.dumps(value, indent=1) + "\n")


def merge(runs):
    """One row for each job: the medians of the runs' medians and of their ratios. Each row has its limit: the floor
    and one raw echo for each request. No program behind a pipe can take less."""
    rows = []
    for first in runs[0]["rows"]:
        same = [row for run in runs for row in run["rows"] if row["job"] == first["job"]]
        row = {key: first[key] for key in ("job", "unit", "base", "requests") if key in first}
        for kind in ("median", "ratio"):
            row[kind] = {
                name: statistics.median(one[kind][name] for one in same)
                for name in first.get(kind) or {}
            }
        rows.append(row)
    echo = next((row["median"]["raw echo"] for row in rows if row["base"] == "raw echo"), None)
    for row in rows:
        if row.get("requests") and echo:
            row["limit"] = row["median"]["floor"] + row["requests"] * echo
            row["of the limit"] = row["median"]["lldb-helper"] / row["limit"]
    return rows


def amount(value, unit):
    if unit == "bytes":
        return f"{value / 2**20:.0f} MiB"
    if value < 1000:
        return f"{value:.3g} µs"
    return f"{value / 1000:.3g} ms" if value < 1e6 else f"{value / 1e6:.3g} s"


def markdown(heads, rows):
    lines = ["| " + " | ".join(cells) + " |" for cells in [heads, *rows]]
    return "\n".join([lines[0], "|---" * len(heads) + "|", *lines[1:]])


def table(rows):
    lines = []
    for row in rows:
        name = row["job"] + (
            "" if row["base"] in ("floor", "lldb-helper") else f" (base: {row['base']})"
        )
        ratios = {**row["ratio"], "limit": row.get("of the limit")}
        if "output" in row["job"]:
            ratios["gdb"] = None
        numbers = [ratios.get(key) for key in ("lldb-helper", "limit", "lldb-dap", "gdb")]
        lines.append(
            [
                name,
                *(
                    amount(row["median"][subject], row["unit"])
                    for subject in (row["base"], "lldb-helper")
                ),
                *("" if number is None else f"{number:.2f}" for number in numbers),
            ]
        )
    return markdown(
        ["job", "floor", "lldb-helper", "of the floor", "of the limit", "lldb-dap", "gdb"], lines
    )


def slopes(rows):
    medians = {row["job"]: row["median"] for row in rows}

    def cell(subject, small, large, steps):
        ends = [medians[job].get(subject) for job in (small, large)]
        return "" if None in ends else amount((ends[1] - ends[0]) / steps, "us")

    subjects = ["floor", *PEERS]
    return markdown(
        ["cost", *subjects],
        [[name, *(cell(subject, *ends) for subject in subjects)] for name, *ends in SLOPES],
    )


def json_speeds(run):
    speeds = {}
    for entry in run["benchmarks"]:
        job, library, text = entry["name"].split("/")
        speeds.setdefault(f"{job}, {text}", {})[library] = entry["bytes_per_second"] / 1e6
    return speeds


def json_table(speeds):
    return markdown(
        ["job, text", *LIBRARIES],
        [
            [job, *(f"{speed[library]:,.0f}" if library in speed else "" for library in LIBRARIES)]
            for job, speed in speeds.items()
        ],
    )


def picture(svg_path, rows):
    ratios = {row["job"]: row["ratio"] for row in rows}
    data = "\n".join(
        " ".join([f'"{name}"', *(str(ratios[job].get(peer, "NaN")) for peer in PEERS)])
        for job, name in PICTURE
    )
    subprocess.run(["gnuplot"], input=PLOT.format(path=svg_path, data=data), text=True, check=True)
    svg = Path(svg_path).read_text()
    Path(svg_path).write_text(svg.replace("<title>", DARK_STYLE + "<title>", 1))


def page(kept_path, svg_path, page_path, tracer_path, *run_paths):
    *runs, all_cpus, json_run = map(load, run_paths)
    rows, free_rows, speeds = merge(runs), merge([all_cpus]), json_speeds(json_run)
    processor = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())[1]
    keep(
        kept_path,
        {
            "processor": processor,
            "processors": os.cpu_count(),
            "lldb": runs[0]["lldb"],
            "one processor": rows,
            "all processors": free_rows,
            "Json, MB/s": speeds,
        },
    )
    picture(svg_path, rows)
    text = Path(page_path).read_text()
    machine = f"{processor}, {os.cpu_count()} processors, {runs[0]['lldb'].splitlines()[0]}."
    for name, content in [
        ("machine", machine),
        ("one processor", table(rows)),
        ("slopes", slopes(rows)),
        ("all processors", table(free_rows)),
        ("json", json_table(speeds)),
        ("tracer", Path(tracer_path).read_text().rstrip()),
    ]:
        text, count = re.subn(
            rf"(?s)(<!-- {name} -->\n).*?(<!-- end -->)",
            lambda found: f"{found[1]}{content}\n{found[2]}",
            text,
        )
        if count != 1:
            sys.exit(f"the page has no place for {name}")
    Path(page_path).write_text(text)


def check(kept_path, *paths):
    """Holds each row's ratio to the floor, and where a row has one, to the limit."""
    kept = {row["job"]: row for row in load(kept_path)["one processor"]}
    slower = False
    for row in merge([load(path) for path in paths]):
        before = kept.get(row["job"], {})
        pairs = [
            (
                f"times {row['base']}",
                before.get("ratio", {}).get("lldb-helper"),
                row["ratio"].get("lldb-helper"),
            ),
            ("times the limit", before.get("of the limit"), row.get("of the limit")),
        ]
        for what, then, now in pairs:
            if then is None or now is None:
                continue
            bound = then * GROWTH_ALLOWED + SLACK
            slower |= now > bound
            print(
                f"{'SLOWER' if now > bound else 'ok':6} {row['job']:40} {now:.2f} {what}, kept {then:.2f}, bound {bound:.2f}"
            )
    sys.exit(slower)


def instructions(kept_path, program, *options):
    """Counts the instructions of Json's work under callgrind."""
    run = lambda *command: subprocess.check_output(command, stderr=subprocess.STDOUT, text=True)
    # Compilers make copies of the function measured, with longer names.
    callgrind = [
        "valgrind",
        "--tool=callgrind",
        "--toggle-collect=measured*",
        "--callgrind-out-file=/dev/null",
    ]
    counts = {
        name: int(re.search(r"Collected : (\d+)", run(*callgrind, program, "--count", name))[1])
        for name in run(program, "--count").splitlines()
    }
    if "--keep" in options:
        return keep(kept_path, counts)
    kept, more = load(kept_path), False
    for name, count in counts.items():
        bound = int(kept[name] * INSTRUCTIONS_ALLOWED)
        wrong = count == 0 or count > bound
        more |= wrong
        print(
            f"{'MORE' if wrong else 'ok':4} {name:26} {count:12,} instructions, kept {kept[name]:,}, bound {bound:,}"
        )
    sys.exit(more)


def session(helper, program, main):
    """Milliseconds from the launch to the entry, from there to main, and for the first call stack."""

    def timed(command, stops):
        start = time.perf_counter()
        helper.ask(command)
        while stops and helper.next_event().get("state_desc") != "eStateStopped":
            pass
        return 1000 * (time.perf_counter() - start)

    helper.ask("prepareExecutable", path=program, triple="", args="--version")
    entry = timed("createProcess", True)
    helper.ask("setBreakpointAtVirtualAddress", address=main)
    times = [entry, timed("continueExecution", True)]
    helper.ask("selectThreadID", tid=helper.ask("getThreadIDList")["threads"][0]["thread-id"])
    times.append(timed("getCallstack", False))
    helper.ask("deleteProcess")
    return ", ".join(f"{number:.0f}" if number >= 10 else f"{number:.1f}" for number in times)


def settings(program_of_helper, program):
    sys.path.insert(0, str(Path(__file__).parents[1] / "examples"))
    from host import Helper

    symbols = subprocess.check_output(["nm", "-D", program], text=True)
    address = int(re.search(r"^(\w+) T main$", symbols, re.M)[1], 16)
    print("milliseconds: launch to entry, entry to main, call stack")
    for setting in SETTINGS:
        helper = Helper(program_of_helper)
        if setting:
            helper.ask("executeCommand", cli=f"settings set {setting}")
        first, second = (session(helper, program, address) for _ in range(2))
        print(f"{setting or 'default'}: first session {first}; second {second}")
        helper.close()


if __name__ == "__main__":
    verbs = {verb.__name__: verb for verb in (page, check, instructions, settings)}
    if len(sys.argv) < 2 or sys.argv[1] not in verbs:
        sys.exit(__doc__)
    verbs[sys.argv[1]](*sys.argv[2:])
