"""Generated wikis refreshed by the extension and by the plain reading in reference.py: results,
errors, host calls in order, files written and store updates must all agree.

The quick form runs a few hundred scenarios; TOLBARROW_DIFFERENTIAL_SCENARIOS=N runs N (and
TOLBARROW_DIFFERENTIAL_SEED picks the first seed)."""
import json
import os
import random
import shutil
from pathlib import Path

import pytest

import reference
from tolbarrow.workers.wiki import recorder
from tolbarrow.workers.wiki.index import Symbol

SCENARIOS = int(os.environ.get("TOLBARROW_DIFFERENTIAL_SCENARIOS", "300"))
SEED = int(os.environ.get("TOLBARROW_DIFFERENTIAL_SEED", "0"))
NAMES = ["load", "save", "init", "run", "parse", "emit"]


class Repository:
    """The index and page store of one generated scenario; each run gets its own copy."""

    def __init__(self, symbols, files, pages):
        self.symbols, self.files, self.pages = symbols, files, pages
        self.updates = []

    def get_symbols_by_path(self, path):
        recorder.enter("get_symbols_by_path", path)
        return self.symbols.get(path, [])

    def get_file_by_path(self, path):
        recorder.enter("get_file_by_path", path)
        return {"path": path} if path in self.files else None

    def get_wiki_pages(self, branch):
        recorder.enter("get_wiki_pages", branch)
        return list(self.pages)

    def update_wiki_page_citations(self, branch, page_id, *, citations, content_hash,
                                   build_cache, rewrite, moves):
        recorder.enter("update_wiki_page_citations", branch, page_id)
        self.updates.append((branch, page_id, citations, content_hash, build_cache,
                             rewrite("x (src/m0.py#L3-L4) y"), dict(moves)))


def generate(rng, root):
    """Files of the repository under `root`, the index, the wiki's pages, rows and digests."""
    paths = [f"src/m{i}.py" for i in range(rng.randint(1, 4))]
    symbols, lengths = {}, {}
    for path in paths:
        lengths[path] = rng.randint(0, 60)
        listed = []
        for n in range(rng.randint(0, 5)):
            start = rng.randint(-2, 70)
            name = rng.choice(NAMES)
            listed.append(Symbol(f"m.{name}{n % 2}", name, rng.choice(["function", "module"]),
                                 start, start + rng.randint(-1, 20)))
        symbols[path] = listed
    files = {p for p in paths if rng.random() < 0.85}
    cited = paths + ["src/none.py"]

    def citation():
        start = rng.randint(-1, 65)
        return rng.choice(cited), start, start + rng.randint(-1, 6)

    def record(path, start, end):
        out = {"path": path, "line_start": start, "line_end": end}
        if rng.random() < 0.5 and symbols.get(path):
            s = rng.choice(symbols[path]) if rng.random() < 0.8 else None
            out.update(symbol=s.fqn if s else "m.gone", name=s.name if s else rng.choice(["", "gone"]),
                       symbol_start=(s.start_line if s else 5) + rng.randint(-5, 5),
                       symbol_end=(s.end_line if s else 9) + rng.randint(-5, 5))
        if rng.random() < 0.1:
            out["line_start"] = str(start)
        if rng.random() < 0.3:
            out["note"] = rng.choice(["kept", 1, None])  # a member the refresh never reads
        return out

    pages, texts, digests = [], {}, {}
    for p in range(rng.randint(0, 5)):
        keys = [citation() for _ in range(rng.randint(0, 6))]
        keys += rng.sample(keys, min(len(keys), rng.randint(0, 2)))  # repeats
        words = []
        for path, start, end in keys:
            claim = " ".join(f"`{rng.choice(NAMES)}`" for _ in range(rng.randint(0, 2)))
            words.append(f"{claim} says ({path}#L{start}-L{end}).")
        text = "\n".join(words) + ("\r\n" if rng.random() < 0.1 else "\n")
        stored = [record(*k) for k in keys if rng.random() < 0.6]
        row = {"page_id": f"p{p}", "rel_path": f"p{p}.md", "citations": stored,
               "content_hash": "h"}
        if rng.random() < 0.4:
            row["build_cache"] = {"prose": text, "n": p} if rng.random() < 0.7 else {"n": p}
        fault = rng.random()
        if fault < 0.05:
            del row["page_id"]
        elif fault < 0.1:
            row["rel_path"] = rng.choice([0, None, "", "missing.md"])
        pages.append(row)
        texts[row.get("rel_path") or f"p{p}.md"] = text
        digest = [dict(path=k[0], line_start=k[1], line_end=k[2]) for k in keys[:3]]
        if rng.random() < 0.2 and digest:
            digest.insert(rng.randrange(len(digest)), rng.choice([7, {"line_start": "x"}]))
        digests[f"p{p}"] = {"title": p, "citations": digest}
    return dict(symbols=symbols, files=files, pages=pages, texts=texts, lengths=lengths,
                digests=digests if rng.random() < 0.9 else None)


def materialise(scenario, where):
    root, wiki = where / "repo", where / "wiki"
    (root / "src").mkdir(parents=True)
    for path, length in scenario["lengths"].items():
        (root / path).write_text("x\n" * length)
    wiki.mkdir()
    for name, text in scenario["texts"].items():
        if isinstance(name, str) and name and name != "missing.md":
            (wiki / name).write_bytes(text.encode())
    if scenario["digests"] is not None:
        (wiki / "digests.json").write_text(json.dumps(scenario["digests"], indent=4))
    repo = Repository(scenario["symbols"], scenario["files"],
                      json.loads(json.dumps(scenario["pages"])))
    return repo, wiki, root


def observed(run, where, scenario, write, fail_at):
    """Everything a host can see of one run: its result or error, its calls, files and store."""
    repo, wiki, root = materialise(scenario, where)
    recorder.reset()
    error = RuntimeError("injected")
    if fail_at is not None:
        recorder.FAIL_AT[fail_at] = error
    try:
        result = run(repo, "main", wiki, root, write=write)
        outcome = ("result", result.repaired, result.unrepairable, result.pages_written,
                   result.lost, result.moved)
    except Exception as raised:  # noqa: BLE001 (the kind of error is what is compared)
        outcome = ("injected",) if raised is error else ("error", type(raised).__name__)
    calls = []
    for name, args in recorder.CALLS:
        args = tuple(str(a).replace(str(where), "<dir>") if isinstance(a, Path) else a
                     for a in args)
        if name == "citation_key":
            args = (args[0].span(), tuple(args[1]))
        calls.append((name, args))
    files = {p.name: p.read_bytes() for p in sorted(wiki.iterdir())}
    return outcome, calls, files, repo.updates


def run_scenario(cr, tmp_path, seed):
    rng = random.Random(seed)
    scenario = generate(rng, tmp_path)
    write = rng.random() < 0.7
    fail_at = rng.randint(0, 40) if rng.random() < 0.25 else None
    sides = []
    for name, run in (("extension", cr.refresh_citations),
                      ("reference", lambda *a, **k: reference.refresh_citations(cr, *a, **k))):
        where = tmp_path / name
        sides.append(observed(run, where, scenario, write, fail_at))
        shutil.rmtree(where)
    ext, ref = sides
    for what, a, b in zip(("outcome", "calls", "files", "updates"), ext, ref):
        assert a == b, f"seed {seed} (write={write}, fail_at={fail_at}): {what} differ"

    # Each generated digest moved by the moves of a random page of it, in place.
    for digest in (scenario["digests"] or {}).values():
        moves = {(c["path"], c["line_start"], c["line_end"]): (rng.randint(1, 9), rng.randint(1, 9))
                 for c in digest["citations"] if isinstance(c, dict) and "path" in c
                 and rng.random() < 0.7}
        outcomes = []
        for move in (cr._move_digest_citations,
                     reference.move_digest_citations):
            copy = json.loads(json.dumps(digest))
            try:
                move(copy, moves)
                outcomes.append(("moved", copy))
            except Exception as raised:  # noqa: BLE001
                outcomes.append((type(raised).__name__, copy))
        assert outcomes[0] == outcomes[1], f"seed {seed}: digest {digest} by {moves}"


def test_differential(cr, tmp_path):
    for seed in range(SEED, SEED + SCENARIOS):
        run_scenario(cr, tmp_path, seed)
