#!/usr/bin/python3
# Debian's own, which has python3-matplotlib.
"""Shows what nxbench measured: report.py RESULTS prints the tables; report.py RESULTS --page writes
bench/results/latest.json, docs/benchmarks.md and its plots. RESULTS may be a latest.json."""
import json
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PACKAGES = ["libasio-dev", "libuv1-dev", "libevent-dev", "libev-dev", "libspdlog-dev",
            "libgoogle-glog-dev", "liburing-dev", "redis-server", "nginx-light"]
FAMILIES = {
    "post":
        "Work handed to another thread as fast as it goes: time from the first post to the "
        "last job run, for each job. `raw` is a list under a lock with a condition, and "
        "allocates a node for each job, as nxbase and Asio do; libuv and libevent wake a "
        "thread and carry nothing, so the jobs go by value into a vector under a lock, and "
        "only the first one of a batch wakes.",
    "call":
        "Work that another thread does while the caller waits: time of a call, both threads "
        "on one processor. nxbase sends an event; for the others it is a post and an "
        "answer.",
    "wake":
        "Threads that wake each other, all on one processor: time of a post and its answer, "
        "and of a hop of a token that the threads of a ring hand on.",
    "timers":
        "One of many pending timers cancelled and scheduled anew, and 100,000 that are due "
        "fired in one pass: time for each timer. `raw` is a hashed wheel of milliseconds. "
        "With libevent's common time-outs all timers have the same interval. libev and "
        "libuv take the time from their loop, the others ask the clock.",
    "trace":
        "Lines of about 110 bytes to a file, each with date, time, process and thread in "
        "front of its text, and lines of a level that is switched off. `raw` formats the "
        "same line and calls write(2), or loads two switches.",
    "echo":
        "A server that sends back what it receives, one message under way on each "
        "connection: processor time of the server for a message. `raw` is an edge-triggered "
        "epoll loop that receives until the call would block; `raw, one receive` stops at "
        "one that comes back short, the least there is, and so does nxbase's handler. "
        "Server and client have a processor each, a single connection has one for both.",
    "memory":
        "A server with 10,000 connections, each of which has got one message of 64 bytes back "
        "and now waits for its next one, until a time-out: private memory of its process for "
        "each more of them, in bytes, without what the kernel has. `raw` has an array of "
        "times; libuv's connections share one buffer, Asio's have 1 KiB each, as in its "
        "examples.",
    "broadcast":
        "One payload of 1 KiB sent to every connection: processor time of the server for each. "
        "`raw` calls send(2) in a loop; nxbase shares a chain, Asio a buffer, libevent an "
        "evbuffer, libuv has a request for each.",
    "block":
        "Bytes in memory. `raw` is std::string, and std::shared_ptr for sharing.",
    "kv":
        "A whole server: kv_server of the examples beside redis-server without persistence, "
        "under redis-benchmark with 50 connections and values of 64 bytes: processor time "
        "of the server for a request. `raw` is one thread with an epoll loop and a hash "
        "table that knows these two commands. The ratios are to redis-server.",
    "http":
        "http_server of the examples beside nginx with one worker, sendfile and no log, both "
        "serving the same file to wrk over 50 connections that stay: processor time of the "
        "server for a request. The ratios are to nginx.",
}
RED, ORANGE, BLACK, GREY, SILVER = "#d62728", "#ff7f0e", "#000000", "#777777", "#aaaaaa"
BLUE, GREEN, PURPLE, LILAC, CYAN = "#1f77b4", "#2ca02c", "#9467bd", "#c5b0d5", "#17becf"
COLORS = {
    "raw": BLACK, "raw, no allocation": GREY, "raw epoll": SILVER,
    "raw, one receive": GREY, "raw io_uring": SILVER,
    "nxbase": RED, "nxbase task": RED, "nxbase reactor": ORANGE, "nxbase heap": RED,
    "nxbase calendar": ORANGE, "nxbase kv_server": RED, "nxbase connection": ORANGE,
    "Asio": BLUE, "libuv": GREEN, "libevent": PURPLE, "libevent common": LILAC,
    "libevent buffered": LILAC, "libev": CYAN, "spdlog": BLUE, "glog": GREEN, "redis-server": GREEN,
    "nginx": GREEN, "nxbase http_server": RED,
}


class Cell:
    """A row of a case: the ratio to the case's first row within each round; bytes stand for
    themselves, as they are the same everywhere."""

    def __init__(self, values, base, unit):
        ratios = [a / b for a, b in zip(values, base)] if unit == "ns" else values
        self.unit = unit
        self.value = statistics.median(values)
        self.ratio = statistics.median(ratios)
        self.low, self.high = min(ratios), max(ratios)

    def short(self):
        return f"{self.ratio:.2f}" if self.unit == "ns" else f"{self.ratio:,.0f}"

    def __str__(self):
        if self.unit == "bytes":
            return f"{self.value:,.0f} B"
        return f"{self.ratio:.2f} ({self.low:.2f}-{self.high:.2f})"


def group(results):
    """{family: {(name, x): {row: Cell}}}, in the order of the measurements."""
    families = {}
    for case in results["cases"]:
        rows = families.setdefault(case["family"], {}).setdefault((case["name"], case["x"]), {})
        rows[case["row"]] = case
    for cases in families.values():
        for rows in cases.values():
            base = next(iter(rows.values()))["values"]
            rows.update({row: Cell(case["values"], base, case["unit"])
                         for row, case in rows.items()})
    return families


def label(name, x):
    return name.replace("{}", f"{x:,}")


def show_first(cell):
    if cell.unit == "bytes":
        return str(cell)
    return f"{cell.value / 1000:.2f} us" if cell.value >= 1000 else f"{cell.value:.1f} ns"


def is_ours(row):
    return row.startswith("nxbase")


def is_peer(row):
    return not is_ours(row) and not row.startswith("raw")


def rows_of(cases):
    return list(dict.fromkeys(row for rows in cases.values() for row in rows))


def table(cases):
    rows = rows_of(cases)
    lines = ["| | " + " | ".join(f"**{row}**" if is_ours(row) else row for row in rows) + " |",
             "|---" * (len(rows) + 1) + "|"]
    for (name, x), cells in cases.items():
        shown = [show_first(next(iter(cells.values())))]
        shown += [str(cells[row]) if row in cells else "" for row in rows[1:]]
        lines.append(f"| {label(name, x)} | " + " | ".join(shown) + " |")
    return "\n".join(lines)


def peers_ahead(families):
    """A line for each case and row of ours in which a peer takes less."""
    lines = []
    for family, cases in families.items():
        for (name, x), cells in cases.items():
            for ours in filter(is_ours, cells):
                ahead = {row: cells[ours].ratio / cell.ratio for row, cell in cells.items()
                         if is_peer(row) and cell.ratio < cells[ours].ratio}
                if ahead:
                    shown = ", ".join(f"{row} {factor:.2f}" for row, factor in
                                      sorted(ahead.items(), key=lambda item: -item[1]))
                    lines.append(f"| {family} | {label(name, x)} | {ours} | {shown} |")
    return lines


def draw_curve(axes, name, cases):
    curve = {x: cells for (of, x), cells in cases.items() if of == name}
    for row in rows_of(cases):
        points = [x for x in curve if row in curve[x]]
        cells = [curve[x][row] for x in points]
        axes.plot(points, [cell.ratio for cell in cells], marker="o", markersize=3, label=row,
                  color=COLORS.get(row), linewidth=2 if is_ours(row) else 1)
        axes.fill_between(points, [cell.low for cell in cells], [cell.high for cell in cells],
                          color=COLORS.get(row), alpha=0.12, linewidth=0)
    axes.set_xscale("log")
    axes.set_xticks(list(curve), [f"{x:,}" for x in curve])
    axes.set_xticks([], minor=True)
    if axes.get_ylim()[1] > 8:
        axes.set_yscale("log")
    else:
        axes.set_ylim(bottom=0)
    axes.set_xlabel(name.replace("{}", "...").removesuffix(": ..."), fontsize=9)


def draw_bars(axes, cases):
    rows = rows_of(cases)
    width = 0.8 / len(rows)
    for i, row in enumerate(rows):
        places = [n + i * width for n, cells in enumerate(cases.values()) if row in cells]
        cells = [cells[row] for cells in cases.values() if row in cells]
        heights = [cell.ratio for cell in cells]
        spread = [[cell.ratio - cell.low for cell in cells],
                  [cell.high - cell.ratio for cell in cells]]
        bars = axes.bar(places, heights, width * 0.95, yerr=spread, label=row,
                        color=COLORS.get(row), error_kw={"elinewidth": 0.7, "ecolor": "#444444"})
        axes.bar_label(bars, [cell.short() for cell in cells], fontsize=6, padding=2)
    axes.set_xticks([n + 0.4 - width / 2 for n in range(len(cases))],
                    [label(*key).replace(", ", ",\n") for key in cases], fontsize=8)


def draw(family, cases, path):
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "nxbase", "svg.fonttype": "none"})
    from matplotlib import pyplot
    from matplotlib.ticker import FuncFormatter

    points = {key: cells for key, cells in cases.items() if key[1] == 0}
    curves = list(dict.fromkeys(name for name, x in cases if x != 0))
    panels = len(curves) + (1 if points else 0)
    width = max(7, 5 * panels, 1.3 * len(points))
    figure, axes = pyplot.subplots(1, panels, figsize=(width, 4.2), squeeze=False)
    for place, name in enumerate(curves):
        draw_curve(axes[0][place], name, cases)
        axes[0][place].yaxis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
    if points:
        draw_bars(axes[0][-1], points)
    for one in axes[0]:
        one.axhline(1, color="black", linewidth=0.6, linestyle=":")
        one.spines[["top", "right"]].set_visible(False)
    unit = next(iter(next(iter(cases.values())).values())).unit
    axes[0][0].set_ylabel("time, ratio to " + rows_of(cases)[0] if unit == "ns" else unit)
    handles = {text: handle for one in axes[0]
               for handle, text in zip(*one.get_legend_handles_labels())}
    figure.legend(handles.values(), handles.keys(), loc="lower center", fontsize=8, frameon=False,
                  ncol=min(len(handles), 4 + 2 * panels))
    figure.suptitle(f"{family}: less is better")
    figure.tight_layout(rect=(0, 0.1, 1, 1))
    path.parent.mkdir(exist_ok=True)
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def output_of(*command):
    run = subprocess.run(command, capture_output=True, text=True, check=False, cwd=ROOT)
    return run.stdout.strip()


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    system = re.search(r'PRETTY_NAME="(.*)"', pathlib.Path("/etc/os-release").read_text())
    installed = output_of("dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *PACKAGES)
    return {
        "date": time.strftime("%Y-%m-%d"),
        "commit": output_of("git", "describe", "--always", "--dirty", "--exclude", "*"),
        "processors": f"{output_of('nproc')} x {cpu.group(1) if cpu else platform.machine()}",
        "virtual": output_of("systemd-detect-virt", "--vm") or "not told",
        "system": f"{system.group(1) if system else platform.system()}, Linux {platform.release()}",
        "packages": installed.splitlines(),
    }


def page(results):
    families = group(results)
    about = results["machine"]
    disturbed = sum(case["disturbed"] for case in results["cases"])
    measured = sum(len(case["values"]) for case in results["cases"])
    parts = [
        "# Benchmarks",
        "nxbase beside what one would write by hand (`raw`) and beside other libraries. Times are "
        "ratios to the first column, the time of which is given; less is better, and below 1 is "
        "faster than that. Bytes are bytes. Each figure is the median of the ratios within "
        f"{results['rounds']} rounds, with the lowest and the highest of them in brackets. "
        "[bench/README.md](../bench/README.md) says how it is measured.",
        "    scripts/bench    # measures, and writes this page and its plots anew",
        f"- machine: {about['processors']}; virtualisation: {about['virtual']}\n"
        f"- system: {about['system']}\n"
        f"- compiler: {results['compiler']}, CMake's Release flags\n"
        f"- peers, Debian's packages: {', '.join(about['packages'])}\n"
        f"- measured on {about['date']} at commit {about['commit']}, in "
        f"{results['seconds']:.0f} s; in {disturbed} of {measured} measurements others used the "
        "processors, though they were repeated",
        "## Where a peer is ahead",
    ]
    ahead = peers_ahead(families)
    heading = ("Medians; the number is how many times as much as the peer nxbase takes.\n\n"
               "| family | case | of nxbase | peers ahead |\n|---|---|---|---|\n")
    parts.append(heading + "\n".join(ahead) if ahead else "Nowhere.")
    for family, cases in families.items():
        parts += [f"## {family}", FAMILIES[family], f"![{family}](benchmarks/{family}.svg)",
                  table(cases)]
        draw(family, cases, ROOT / "docs/benchmarks" / f"{family}.svg")
    (ROOT / "docs/benchmarks.md").write_text("\n\n".join(parts) + "\n")


def main():
    results = json.loads(pathlib.Path(sys.argv[1]).read_text())
    if sys.argv[2:] == ["--page"]:
        results.setdefault("machine", machine())
        latest = ROOT / "bench/results/latest.json"
        latest.parent.mkdir(exist_ok=True)
        latest.write_text(json.dumps(results).replace('{"family"', '\n{"family"') + "\n")
        page(results)
        return
    for family, cases in group(results).items():
        print(f"\n{family}\n\n{table(cases)}")


main()
