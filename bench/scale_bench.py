"""The core and the citation-refresh command at scale, each figure beside a floor from the same run.

Generates (once, cached under DATA) a synthetic repository and wiki with bench/synth_wiki.py, then:

- the core with the in-memory host (bench/scale_driver): a report-only and a writing refresh of
  the wiki after the code change, against reading and scanning every page (and writing it once);
  claim_identifiers per citation on pages of 100, 1,000 and 10,000 legacy citations (every size
  claims the same 10,000 citations of prose, the sizes alternating); and, against the same floors,
  the work that any refresh of this wiki does however it is laid out (a lower bound);
- the command (hosts/native/command/citation-refresh) on a copy of the generated git repository:
  the first run (index and anchor), a run after the code change, the run after that (the pages
  the writing run rewrote are new to the index) and a run with nothing changed (best of REPEAT),
  each against a process that reads and SHA-256-hashes every file of the work tree, pages
  included; and the peak resident memory of each run (the child's own, from wait4).

Prints one table: figure, floor, ratio, goal, met. The core's refresh rows are CPU time (steadier
than the wall clock on a shared machine), best of REPEAT; the command's times are wall-clock (best
of REPEAT where a run can be repeated); claim_identifiers is microseconds per citation, its floor
the 100-citation page's.

Usage: python3 bench/scale_bench.py [--build DIR] [--scale small|medium|large] [--seed N]
       [--data DIR] [--repeat N] [--no-command] [--markdown]
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
GENERATOR = ROOT / "bench" / "synth_wiki.py"
MIB = 1024 * 1024


def generated(data, scale, seed):
    """The generated data's directory, generating it unless a copy made by this generator, at
    this scale and seed, is there."""
    out = data / f"{scale}-seed{seed}"
    stamp = out / "stamp"
    want = f"{scale} {seed} {os.stat(GENERATOR).st_mtime_ns}"
    if stamp.exists() and stamp.read_text() == want:
        return out
    began = time.perf_counter()
    subprocess.run([sys.executable, str(GENERATOR), "generate", "--scale", scale, "--seed",
                    str(seed), "--out", str(out)], check=True, stdout=sys.stderr)
    stamp.write_text(want)
    print(f"generated in {time.perf_counter() - began:.1f} s", file=sys.stderr)
    return out


def run_child(argv):
    """Runs argv to its end; returns (wall seconds, its own peak resident bytes, stdout)."""
    began = time.perf_counter()
    process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    # Read the pipes to their end, then reap the child with wait4 for its own rusage.
    out = process.stdout.read()
    err = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.perf_counter() - began
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"{argv[0]} failed ({process.returncode}): {err.decode()[-2000:]}")
    return seconds, usage.ru_maxrss * 1024, out.decode()


class Table:
    def __init__(self):
        self.rows = []

    def add(self, name, figure, floor, goal, unit="s", met=None):
        ratio = figure / floor if floor else None
        if met is None and goal is not None:
            met = ratio <= goal
        self.rows.append((name, figure, floor, ratio, goal, met, unit))

    def print(self, markdown):
        header = ("benchmark", "figure", "floor", "ratio", "goal", "met")
        lines = []
        for name, figure, floor, ratio, goal, met, unit in self.rows:
            if unit == "B":
                fmt = lambda v: f"{v / MIB:.0f} MiB"  # noqa: E731
            elif unit == "us":
                fmt = lambda v: f"{v:.2f} µs"  # noqa: E731
            else:
                fmt = lambda v: f"{v:.2f} s" if v >= 1 else f"{v * 1e3:.1f} ms"  # noqa: E731
            goal_text = "-" if goal is None else (
                f"≤ {goal / MIB:.0f} MiB" if unit == "B" else f"≤ {goal:g}")
            lines.append((name, fmt(figure), fmt(floor) if floor else "-",
                          f"{ratio:.2f}" if ratio is not None else "-", goal_text,
                          "-" if met is None else ("yes" if met else "no")))
        if markdown:
            print("| " + " | ".join(header) + " |")
            print("|" + "---|" * len(header))
            for line in lines:
                print("| " + " | ".join(line) + " |")
        else:
            widths = [max(len(r[i]) for r in [header] + lines) for i in range(len(header))]
            for line in [header] + lines:
                print("  ".join(v.ljust(w) for v, w in zip(line, widths)).rstrip())


def core_rows(table, driver, core, repeat):
    _, _, out = run_child([driver, "refresh", core, str(repeat)])
    r = json.loads(out)
    cpu = r["cpu"]
    print(f"core: {r['pages']} pages, {r['citations']} citations; after the change "
          f"{r['moved']} move, {r['lost']} are lost", file=sys.stderr)
    table.add("core report-only refresh", cpu["report"], cpu["read_floor"], 1.5)
    table.add("core writing refresh", cpu["write"], cpu["write_floor"], 2.0)
    # What the claims of the legacy citations alone add to the read floor: a report-only refresh
    # within 1.5 times the floor leaves them at most half of it.
    claims = max(0.0, cpu["read_floor_legacy_claims"] - cpu["read_floor"])
    table.add("core legacy claims alone", claims, cpu["read_floor"], None)
    # A lower bound of each refresh: the floor plus the host calls, record reads and claims that
    # any refresh of this wiki makes, without matching or deciding anything (scale_driver's
    # required_work). A goal below this ratio cannot be met by the refresh, only by its host.
    table.add("core required work, report-only (lower bound)", cpu["required_work"],
              cpu["read_floor"], None)
    table.add("core required work, writing (lower bound)", cpu["required_write_work"],
              cpu["write_floor"], None)
    _, _, out = run_child([driver, "claims", core, str(repeat)])
    c = json.loads(out)
    for size in ("100", "1000", "10000"):
        table.add(f"claim_identifiers, page of {size}", c[size] * 1e6, c["100"] * 1e6,
                  1.3 if size == "10000" else None, unit="us")


def command_rows(table, data, driver, command, repeat):
    scratch = data / "scratch"
    if scratch.exists():
        shutil.rmtree(scratch)
    shutil.copytree(data / "repo", scratch, symlinks=True)
    argv = [command, "--repo", str(scratch), "--json", "--quiet"]
    floor_argv = [driver, "hash-floor", str(scratch)]

    def floor():
        return min(run_child(floor_argv)[0] for _ in range(repeat))

    first, first_peak, _ = run_child(argv)
    first_floor = floor()
    shutil.copytree(data / "repo.changed", scratch, dirs_exist_ok=True)
    changed, changed_peak, out = run_child(argv)
    result = json.loads(out)
    print(f"command after the change: {result['repaired']} repaired, "
          f"{result['unrepairable']} lost, {len(result.get('missing', []))} missing, "
          f"{result['pages_written']} pages written", file=sys.stderr)
    changed_floor = floor()
    # The run after a writing run: the pages that run rewrote are new to the index.
    following, following_peak, _ = run_child(argv)
    following_floor = floor()
    best, none_peak = float("inf"), 0
    for _ in range(repeat):
        seconds, peak, _ = run_child(argv)
        best, none_peak = min(best, seconds), max(none_peak, peak)
    none_floor = floor()
    table.add("command, first run (index + anchor)", first, first_floor, None)
    table.add("command, after the code change", changed, changed_floor, None)
    table.add("command, next run (pages just written)", following, following_floor, 2.0)
    table.add("command, nothing changed", best, none_floor, 2.0)
    for name, peak in (("first run", first_peak), ("after the change", changed_peak),
                       ("next run", following_peak), ("nothing changed", none_peak)):
        table.add(f"command peak memory, {name}", peak, None, 512 * MIB, unit="B",
                  met=peak <= 512 * MIB)
    shutil.rmtree(scratch)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=ROOT / "build-bench")
    parser.add_argument("--scale", default="large", choices=("small", "medium", "large"))
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--data", type=Path, help="where generated data is cached "
                        "(default: BUILD/bench-data)")
    parser.add_argument("--repeat", type=int, default=3, help="best of this many runs")
    parser.add_argument("--no-command", action="store_true", help="the core only")
    parser.add_argument("--markdown", action="store_true", help="print the table as markdown")
    args = parser.parse_args()
    data = generated(args.data or args.build / "bench-data", args.scale, args.seed)
    driver = str(args.build / "bench" / "scale_driver")
    command = str(args.build / "hosts" / "native" / "command" / "citation-refresh")
    table = Table()
    core_rows(table, driver, str(data / "core" / "core.json"), args.repeat)
    if not args.no_command:
        command_rows(table, data, driver, command, args.repeat)
    table.print(args.markdown)


if __name__ == "__main__":
    main()
