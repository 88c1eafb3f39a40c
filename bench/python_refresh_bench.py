"""The refresh through the Python extension, against the same refresh through the C++ core alone.

Generates a wiki of PAGES pages with CITATIONS citations each (half anchored to their declaration,
half legacy, named in the sentence before them) over the small host of the Python tests, then a
code change that moves half the declarations and deletes 1%. In one run it times, through Python:
a report-only refresh, a writing refresh, and claim_identifiers for every citation; the time
spent inside the Python host's own services (each wrapped with a timer); and the same three
through the C++ core with the in-memory host (bench/refresh_driver, on the same data). The
module's own time per citation is the total less the host's services; its ratio to the C++-only
figure is what the bridge costs.

Usage: /usr/bin/python3 bench/python_refresh_bench.py [--build DIR] [--pages N] [--citations N]
       [--repeat N] [--smoke]
"""
import argparse
import functools
import json
import random
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DECLARATIONS = 20  # per source file
SPAN = 24  # lines per declaration
GAP = 6  # lines between declarations


class Timer:
    """Time spent inside wrapped host services, and how many calls they took."""

    def __init__(self):
        self.seconds = 0.0
        self.calls = 0
        self.overhead = 0.0

    def wrap(self, function, materialise=False):
        clock = time.perf_counter

        @functools.wraps(function)
        def timed(*args, **kwargs):
            self.calls += 1
            began = clock()
            try:
                result = function(*args, **kwargs)
                # Iterators are run inside the host's time: their matching is the host's work.
                return list(result) if materialise else result
            finally:
                self.seconds += clock() - began
        return timed

    def calibrate(self, rounds=200_000):
        """The cost of the wrapper itself outside its clock, per call: it is the host's, not the
        module's, so it is taken from the module's time."""
        def noop(value):
            return value

        timed = self.wrap(noop)
        best = float("inf")
        for _ in range(5):
            self.seconds = 0.0
            began = time.perf_counter()
            for i in range(rounds):
                noop(i)
            bare = time.perf_counter() - began
            began = time.perf_counter()
            for i in range(rounds):
                timed(i)
            wrapped = time.perf_counter() - began
            best = min(best, (wrapped - self.seconds - bare) / rounds)
        self.overhead = max(0.0, best)


def generate(root, pages, citations, seed):
    """Writes the repository and the wiki; returns the page rows, the index before and after."""
    rng = random.Random(seed)
    files = max(1, pages * citations // 100)
    repo_root, wiki_dir = root / "repo", root / "wiki"
    (repo_root / "src").mkdir(parents=True)
    wiki_dir.mkdir()
    before, after, line_counts = {}, {}, {}
    for f in range(files):
        path = f"src/mod{f}.py"
        old, new, shift = [], [], 0
        for d in range(DECLARATIONS):
            start = 10 + d * (SPAN + GAP)
            symbol = (f"mod{f}.func{d}", f"func{d}", "function", start, start + SPAN - 1)
            old.append(symbol)
            if rng.random() < 0.01:
                continue  # deleted
            if rng.random() < 0.5:
                shift += 3  # lines inserted above it
            new.append((symbol[0], symbol[1], symbol[2], start + shift, start + shift + SPAN - 1))
        before[path], after[path] = old, new
        lines = 10 + DECLARATIONS * (SPAN + GAP) + shift + 10
        line_counts[path] = lines
        (repo_root / path).write_text("".join(f"line {n}\n" for n in range(1, lines + 1)))

    rows = []
    for p in range(pages):
        text, records = [f"# Page {p}\n\nÜbersicht — 概要.\n\n"], []
        for c in range(citations):
            path = f"src/mod{rng.randrange(files)}.py"
            fqn, name, _, start, end = rng.choice(before[path])
            first = start + rng.randrange(SPAN - 4)
            last = first + rng.randrange(4)
            text.append(f"The `{name}` function of `{fqn.split('.')[0]}` keeps the state "
                        f"({path}#L{first}-L{last}).\n")
            record = {"path": path, "line_start": first, "line_end": last}
            if c % 2 == 0:
                record.update(symbol=fqn, name=name, symbol_start=start, symbol_end=end)
            records.append(record)
        rel = f"page{p}.md"
        (wiki_dir / rel).write_text("".join(text), encoding="utf-8")
        rows.append({"page_id": f"p{p}", "rel_path": rel, "citations": records,
                     "build_cache": {"prose": "Cached."}, "content_hash": "h"})
    digests = {row["page_id"]: {"citations": [dict(r) for r in row["citations"][:3]]} for row in rows}
    (wiki_dir / "digests.json").write_text(json.dumps(digests, indent=2))
    shutil.copytree(wiki_dir, root / "wiki.pristine")
    return repo_root, wiki_dir, rows, after, line_counts


def host_modules(timer):
    """Imports the test host, silences its call recorder and times each of its services."""
    from tolbarrow.workers.wiki import (citation_ranges, lock, recorder, repo_facts, types,
                                        verify)
    recorder.enter = lambda *args: None
    for module, name, materialise in [
            (citation_ranges, "fit_range", False), (repo_facts, "_atomic_write", False),
            (repo_facts, "_text_hash", False), (types, "citation_key", False),
            (verify, "anchor_symbol", False), (verify, "anchored", False),
            (verify, "prose_citations", True), (verify, "rewrite_citations", False)]:
        setattr(module, name, timer.wrap(getattr(module, name), materialise))
    counts = citation_ranges.LineCounts
    citation_ranges.LineCounts = lambda root: timer.wrap(counts(root))
    pattern = types._CITATION_RE

    class TimedPattern:
        finditer = staticmethod(timer.wrap(pattern.finditer, materialise=True))

    types._CITATION_RE = TimedPattern()
    return pattern


class Repository:
    """The index after the code change and a page store that keeps what it is given."""

    def __init__(self, timer, rows, symbols, index_cls):
        self.rows = rows
        self.symbols = {path: [index_cls(*s) for s in found] for path, found in symbols.items()}
        self.get_symbols_by_path = timer.wrap(lambda path: self.symbols.get(path, []))
        self.get_file_by_path = timer.wrap(lambda path: path if path in self.symbols else None)
        self.get_wiki_pages = timer.wrap(lambda branch: list(self.rows))
        self.update_wiki_page_citations = timer.wrap(self._update)

    def _update(self, branch, page_id, *, citations, content_hash, build_cache, rewrite, moves):
        pass  # the pages are restored before each run


def cpp_figure(driver, data_file, mode, repeat):
    out = subprocess.run([str(driver), str(data_file), mode, str(repeat)], check=True,
                         capture_output=True, text=True).stdout
    figure = json.loads(out)
    return figure["seconds"], figure["citations"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=Path, default=ROOT / "build",
                        help="the CMake build directory whose python/ and bench/ to use")
    parser.add_argument("--extension", type=Path,
                        help="another build's python/ directory, to time its extension instead")
    parser.add_argument("--pages", type=int, default=1000)
    parser.add_argument("--citations", type=int, default=20)
    parser.add_argument("--repeat", type=int, default=3, help="best of this many runs")
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--smoke", action="store_true", help="a tiny run that checks it works")
    args = parser.parse_args()
    if args.smoke:
        args.pages, args.citations, args.repeat = 5, 4, 1

    extension = args.extension or args.build / "python"
    sys.path[:0] = [str(extension), str(ROOT / "hosts" / "python" / "tests" / "host")]
    timer = Timer()
    timer.calibrate()
    pattern = host_modules(timer)
    from tolbarrow.workers.wiki import citation_refresh
    from tolbarrow.workers.wiki.index import Symbol
    driver = args.build / "bench" / "refresh_driver"

    with tempfile.TemporaryDirectory() as scratch:
        root = Path(scratch)
        repo_root, wiki_dir, rows, after, line_counts = generate(
            root, args.pages, args.citations, args.seed)
        data_file = root / "data.json"
        data_file.write_text(json.dumps({
            "files": line_counts, "symbols": after, "pages": rows,
            "wiki_dir": str(wiki_dir), "repo_root": str(repo_root)}))
        total_citations = args.pages * args.citations

        def python_run(mode):
            best_total, best_host = float("inf"), 0.0
            for _ in range(args.repeat):
                shutil.rmtree(wiki_dir)
                shutil.copytree(root / "wiki.pristine", wiki_dir)
                repo = Repository(timer, rows, after, Symbol)
                timer.seconds, timer.calls = 0.0, 0
                began = time.perf_counter()
                if mode == "claims":
                    for row in rows:
                        text = (wiki_dir / row["rel_path"]).read_text(encoding="utf-8")
                        for start in [m.start() for m in pattern.finditer(text)]:
                            citation_refresh.claim_identifiers(text, start)
                else:
                    citation_refresh.refresh_citations(repo, "main", wiki_dir, repo_root,
                                                       write=mode == "write")
                total = time.perf_counter() - began
                host = timer.seconds + timer.calls * timer.overhead
                if total < best_total:
                    best_total, best_host = total, host
            return best_total, best_host

        goals = {"report": 1.5, "write": 2.0, "claims": 2.0}
        print(f"{args.pages} pages x {args.citations} citations ({total_citations} citations); "
              f"microseconds per citation, best of {args.repeat}; timing wrapper "
              f"{timer.overhead * 1e9:.0f} ns per host call, counted as the host's")
        print(f"{'refresh':<14}{'total':>9}{'host':>9}{'module':>9}{'C++ only':>10}"
              f"{'ratio':>8}{'goal':>7}  met")
        for mode in ("report", "write", "claims"):
            total, host = python_run(mode)
            cpp_seconds, _ = cpp_figure(driver, data_file, mode, args.repeat)
            per = lambda seconds: seconds / total_citations * 1e6  # noqa: E731
            module = total - host
            ratio = module / cpp_seconds if cpp_seconds > 0 else float("inf")
            print(f"{mode:<14}{per(total):9.2f}{per(host):9.2f}{per(module):9.2f}"
                  f"{per(cpp_seconds):10.2f}{ratio:8.2f}{goals[mode]:7.1f}  "
                  f"{'yes' if ratio <= goals[mode] else 'no'}")


if __name__ == "__main__":
    main()
