#!/usr/bin/python3
"""Relocation accuracy of citation-refresh on real history.

For each pair of commits (old, new) of a public repository cloned from a local bare copy, samples
citations at the old commit (declarations cited whole, and ranges of lines inside them), writes
them as markdown pages under docs/bench/ with a sentence naming the declaration before each, runs
the command once at the old commit to anchor them (a writing run that must change no page), then
moves the code to the new commit (keeping the docs), runs `--check` and a writing run, and scores
each citation against its truth at the new commit, next to `git diff -U0 -M` line translation.

    /usr/bin/python3 bench/accuracy/real_history.py [--quick] [--json] [--program PATH]
                                                     [--mirrors DIR] [--examples N]

Truth at the new commit, found by the cited lines' exact text in the file the old one became
(followed across a rename as `git diff -M` finds it), among the declarations of the same
qualified name (scope and name as ctags gives them; a test macro body also by its arguments):

- live: a declaration cited whole is at the lines of its namesake (several namesakes: the one
  whose text is the cited text, else the one with the same signature); a range is where its exact
  text occurs once inside a namesake;
- changed: a namesake lives but the range's text is not found once inside it (or the whole
  declaration cannot be told among several namesakes): scored apart, not in "exact";
- gone: no namesake (the file deleted, the declaration deleted or renamed): must be reported lost.

The mirrors are bare git directories named <owner>+<name>/repo under --mirrors (default
/work/.mirror); the script is not run in CI, which has no copies of them.
"""

import argparse
import collections
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from relocation_accuracy import diff_map, find_program, git  # noqa: E402

# Each repository: its mirror, the commit the pairs end at (pinned, so that a refetched mirror
# gives the same table), the files sampled, and the old ends of its pairs: commits back along the
# first-parent history, or days back from the tip.
# (leveldb's history is slow: a year back is two commits, so its pairs count commits.)
YEARS = [("50 commits", 50, None), ("1 year", None, 365), ("3 years", None, 3 * 365)]
# A lost report of a citation held back, with where its code is.
HELD = re.compile(r"its code is at ([^#]+)#L(\d+)(?:-L(\d+))? now, lines that another citation")

REPOS = [
    {"name": "attrs", "mirror": "python-attrs+attrs",
     "tip": "c1dc5dcba16ed827aa6dcad896b41a3afedb4e32", "ext": (".py",),
     "pairs": YEARS},
    {"name": "requests", "mirror": "psf+requests",
     "tip": "1f6589ec3a1ee910f9a65cc3ceac60b26677bc0e", "ext": (".py",), "pairs": YEARS},
    {"name": "leveldb", "mirror": "google+leveldb",
     "tip": "78a352f47ed6c1e9d750545e9b242289185b87e1", "ext": (".cc", ".h"),
     "pairs": [("50 commits", 50, None), ("150 commits", 150, None),
               ("300 commits", 300, None)]},
]
KINDS = {"class", "function", "member", "method", "struct"}
LINK = re.compile(r"\[([^\]]*)\]\(/([^#)\s]+)#L(\d+)(?:-L(\d+))?\)")
CTAGS = ["ctags", "--options=NONE", "--output-format=json", "--fields=+neKzSl", "--sort=no",
         "-f", "-", "-L", "-"]


def tags_of(root, paths):
    """ctags' declarations of `paths` (relative to root): path -> list of tag dicts."""
    out = collections.defaultdict(list)
    if not paths:
        return out
    done = subprocess.run(CTAGS, cwd=root, input="\n".join(paths) + "\n", capture_output=True,
                          text=True, check=True)
    for line in done.stdout.splitlines():
        tag = json.loads(line)
        if tag.get("_type") == "tag":
            out[tag["path"]].append(tag)
    return out


def macro(tag):
    """A test-framework macro body (`TEST(Suite, Name) {`): ctags names it after the macro."""
    return (tag["language"] in ("C", "C++") and "typeref" not in tag and tag.get("signature")
            and re.fullmatch(r"[A-Z_][A-Z0-9_]*", tag["name"]) is not None)


def key_of(tag):
    """A declaration's qualified name as the truth finds it: scope and name (and a macro body's
    arguments). ctags numbers anonymous namespaces: the number is left out."""
    scope = re.sub(r"__anon[0-9a-f]+", "__anon", tag.get("scope", ""))
    # A test stays the test when TEST becomes TEST_F, and so does what it declares.
    scope = re.sub(r"\b(TYPED_|GTEST_)?TEST(_F|_P)?\b", "TEST", scope)
    if not macro(tag):
        return (scope, tag["name"])
    # A test stays the test when TEST becomes TEST_F: suite and name are its identity.
    name = "TEST" if re.fullmatch(r"(TYPED_|GTEST_)?TEST(_F|_P)?", tag["name"]) else tag["name"]
    return (scope, name, re.sub(r"\s+", "", tag["signature"]))


def checker_only(tag, lines):
    """Whether a Python declaration is one only type checkers see: an @overload stub, or inside
    an `if TYPE_CHECKING:` branch. The truth tells these from the implementation."""
    if tag["language"] != "Python":
        return False
    at = tag["line"] - 2
    while at >= 0 and lines[at].strip()[:1] in ("@", "#"):
        if re.match(r"@(\w+\.)?overload\b", lines[at].strip()):
            return True
        at -= 1
    depth = len(lines[tag["line"] - 1]) - len(lines[tag["line"] - 1].lstrip())
    for i in range(tag["line"] - 2, -1, -1):
        text = lines[i].split("#")[0].rstrip()
        if not text.strip():
            continue
        indent = len(text) - len(text.lstrip())
        if indent < depth:
            if re.fullmatch(r"if (typing\.)?TYPE_CHECKING:", text.strip()):
                return True
            depth = indent
        if indent == 0:
            break
    return False


def prose_name(tag, rng):
    """The name a writer would give the declaration in the sentence before its citation."""
    name, scope = tag["name"], tag.get("scope", "")
    if macro(tag):
        return f"{name}{tag['signature']}"
    if tag["language"] in ("C", "C++"):
        parts = [p for p in scope.split("::")
                 if p and not p.startswith("__anon") and not re.fullmatch(r"[A-Z_0-9]+", p)]
        if parts and tag.get("scopeKind") in ("class", "struct") and parts[-1] == scope.split(
                "::")[-1]:
            return f"{parts[-1]}::{name}"
        if parts and rng.random() < 0.3:
            return f"{parts[-1]}::{name}()"
        return f"{name}()" if tag["kind"] == "function" else name
    if scope:
        return f"{scope}.{name}"
    return f"{name}()" if tag["kind"] == "function" and rng.random() < 0.5 else name


class Cite:
    def __init__(self, path, tag, a, b, whole, prose):
        self.path, self.tag, self.a, self.b, self.whole, self.prose = path, tag, a, b, whole, prose
        self.page = self.page_line = None
        self.text = None  # the cited lines at the old commit
        self.truth = None  # ("live", (a, b)) / ("changed", None) / ("gone", None)
        self.truth_path = None
        self.span = None  # its declaration's lines at the new commit
        self.by_file = False  # the truth was found in the file, outside any namesake


def sample(root, files, count, rng):
    """`count` declarations of `files` cited whole, each also by a range of lines inside it."""
    tags = tags_of(root, files)
    texts = {p: (root / p).read_text(errors="replace").split("\n") for p in tags}
    decls = [(p, t) for p in sorted(tags) for t in tags[p]
             if t["kind"] in KINDS and t.get("end", t["line"]) > t["line"]]
    rng.shuffle(decls)
    cites, seen = [], set()
    for path, tag in decls[:count]:
        lines = texts[path]
        s, e = tag["line"], tag["end"]
        prose = prose_name(tag, rng)
        if (path, s, e) not in seen:
            seen.add((path, s, e))
            cites.append(Cite(path, tag, s, e, True, prose))
        # A range inside it: 1 to 5 lines below its first, starting and ending on code, its text
        # found once in the declaration.
        body = lines[s - 1:e]
        for _ in range(8):
            a = rng.randint(s + 1, e)
            b = min(e, a + rng.choice([0, 0, 1, 2, 3, 4]))
            if not lines[a - 1].strip() or not lines[b - 1].strip() or (path, a, b) in seen:
                continue
            want = lines[a - 1:b]
            hits = [i for i in range(len(body) - len(want) + 1) if body[i:i + len(want)] == want]
            if len(hits) == 1:
                seen.add((path, a, b))
                cites.append(Cite(path, tag, a, b, False, prose))
                break
    for c in cites:
        c.text = texts[c.path][c.a - 1:c.b]
        c.checker = checker_only(c.tag, texts[c.path])
    return cites


def once_in(lines, text):
    """The lines (first, last) where `text` occurs once in `lines`, else None. Text too plain to
    tell one place from another (fewer than 20 letters and digits: a `}`, a `return;`) is
    found nowhere."""
    if sum(ch.isalnum() for line in text for ch in line) < 20:
        return None
    hits = [i + 1 for i in range(len(lines) - len(text) + 1) if lines[i:i + len(text)] == text]
    return (hits[0], hits[0] + len(text) - 1) if len(hits) == 1 else None


def find_truth(cites, root, renames, gone_files):
    """Each citation's truth at the new commit (the work tree of `root`)."""
    paths = sorted({renames.get(c.path, c.path) for c in cites} - gone_files)
    tags = tags_of(root, [p for p in paths if (root / p).is_file()])
    texts = {p: (root / p).read_text(errors="replace").split("\n") for p in tags}
    for c in cites:
        path = renames.get(c.path, c.path)
        c.truth_path = path
        lines = texts.get(path)
        namesakes = [t for t in tags.get(path, []) if key_of(t) == key_of(c.tag)
                     and (t["kind"] == c.tag["kind"] or macro(t))
                     and checker_only(t, lines) == c.checker]
        if not namesakes:
            # No namesake (its scope renamed, say): the cited text found once in the file is the
            # truth, else the declaration is gone.
            where = once_in(lines, c.text) if lines is not None else None
            c.truth = ("live", where) if where else ("gone", None)
            c.span, c.by_file = where, where is not None
            continue
        if c.whole:
            pick = namesakes if len(namesakes) == 1 else (
                [t for t in namesakes if lines[t["line"] - 1:t.get("end", t["line"])] == c.text]
                or [t for t in namesakes if t.get("signature") == c.tag.get("signature")])
            if len(pick) == 1:
                t = pick[0]
                c.span = (t["line"], t.get("end", t["line"]))
                c.truth = ("live", c.span)
            else:
                c.truth = ("changed", None)
            continue
        hits = []
        for t in namesakes:
            s, e = t["line"], t.get("end", t["line"])
            for i in range(s, e - len(c.text) + 2):
                if lines[i - 1:i - 1 + len(c.text)] == c.text:
                    hits.append((i, i + len(c.text) - 1, (s, e)))
        hits = sorted(set(hits))
        if len(hits) == 1:
            c.truth = ("live", hits[0][:2])
            c.span = hits[0][2]
        elif not hits and once_in(lines, c.text):
            # Moved out of its declaration: found once elsewhere in the file.
            c.truth = ("live", once_in(lines, c.text))
            c.span, c.by_file = c.truth[1], True
        else:
            c.truth = ("changed", None)
            if len(namesakes) == 1:
                c.span = (namesakes[0]["line"], namesakes[0].get("end", namesakes[0]["line"]))


def write_pages(root, cites):
    """One page per cited file under docs/bench/, a paragraph per citation. Returns page texts."""
    by_file = collections.defaultdict(list)
    for c in cites:
        by_file[c.path].append(c)
    pages = {}
    for n, path in enumerate(sorted(by_file)):
        out = [f"# {path}", ""]
        for c in sorted(by_file[path], key=lambda c: (c.a, -c.b)):
            frag = f"#L{c.a}" if c.a == c.b else f"#L{c.a}-L{c.b}"
            label = re.sub(r"[][]", "", c.tag["name"]) or "code"
            link = f"[{label}](/{c.path}{frag})"
            if c.whole:
                out.append(f"`{c.prose}` is defined here: {link}.")
            else:
                out.append(f"Inside `{c.prose}`, these lines do the work: {link}.")
            c.page, c.page_line = f"bench/p{n:03d}", len(out) - 1
            out.append("")
        pages[f"bench/p{n:03d}"] = "\n".join(out)
        (root / "docs/bench").mkdir(parents=True, exist_ok=True)
        (root / f"docs/bench/p{n:03d}.md").write_text(pages[f"bench/p{n:03d}"])
    return pages


def read_links(root, cites):
    """Each citation's link now: (path, first, last), None when gone from its page line."""
    cache = {}
    out = {}
    for c in cites:
        if c.page not in cache:
            cache[c.page] = (root / f"docs/{c.page}.md").read_text().split("\n")
        lines = cache[c.page]
        m = LINK.search(lines[c.page_line]) if c.page_line < len(lines) else None
        out[c] = (m[2], int(m[3]), int(m[4] or m[3])) if m else None
    return out


def run_json(program, root, *args):
    done = subprocess.run([program, "--json", "--quiet", *args], cwd=root, capture_output=True,
                          text=True)
    if done.returncode not in (0, 1) or not done.stdout.strip():
        sys.exit(f"citation-refresh {' '.join(args)} failed in {root}: {done.stderr}")
    return json.loads(done.stdout), done.returncode


class Score:
    KEYS = ("cites", "live", "by_file", "by_file_exact", "exact", "in_decl", "misplaced",
            "live_lost", "changed",
            "changed_lost", "changed_in_decl", "gone", "gone_lost", "gone_placed", "dropped")

    def __init__(self):
        self.n = dict.fromkeys(self.KEYS, 0)

    def add(self, other):
        for k in self.KEYS:
            self.n[k] += other.n[k]

    def judge(self, c, got, lost, dropped):
        """got: (path, first, last) the citation has now; lost: reported lost."""
        n = self.n
        n["cites"] += 1
        if dropped:
            n["dropped"] += 1
            got = None
        kind, where = c.truth
        inside = (got is not None and c.span is not None and got[0] == c.truth_path
                  and c.span[0] <= got[1] and got[2] <= c.span[1])
        if kind == "gone":
            n["gone"] += 1
            n["gone_lost" if lost else "gone_placed"] += 1
            return "gone lost" if lost else "gone, placed without a word"
        if kind == "changed":
            n["changed"] += 1
            if lost:
                n["changed_lost"] += 1
                return "changed, lost"
            n["changed_in_decl"] += inside
            return "changed, in its declaration" if inside else "changed, elsewhere"
        n["live"] += 1
        n["by_file"] += c.by_file
        if lost:
            n["live_lost"] += 1
            return "live, reported lost"
        if got is not None and got[0] == c.truth_path and (got[1], got[2]) == where:
            n["exact"] += 1
            n["by_file_exact"] += c.by_file
            return "exact"
        if inside:
            n["in_decl"] += 1
            return "live, misplaced inside its declaration"
        n["misplaced"] += 1
        return "live, misplaced elsewhere"

    def values(self):
        n = self.n
        reported = n["gone_lost"] + n["live_lost"] + n["changed_lost"]
        return {**n,
                "exact_pct": 100 * n["exact"] / n["live"] if n["live"] else None,
                "lost_recall_pct": 100 * n["gone_lost"] / n["gone"] if n["gone"] else None,
                # A loss reported on a changed range is no false alarm: its lines are gone.
                "lost_precision_pct": (100 * (n["gone_lost"] + n["changed_lost"]) / reported
                                       if reported else None)}

    def row(self):
        v = self.values()
        pct = lambda x: f"{x:.1f}%" if x is not None else "-"
        return [str(v["cites"]), str(v["live"]), pct(v["exact_pct"]), str(v["in_decl"]),
                str(v["misplaced"]), str(v["live_lost"]),
                f"{v['changed']} ({v['changed_lost']} lost)", str(v["gone"]),
                pct(v["lost_recall_pct"]), pct(v["lost_precision_pct"]), str(v["gone_placed"]),
                str(v["dropped"])]


def first_parent(root, tip):
    out = []
    for line in git(root, "log", "--first-parent", "--format=%H %ct", tip).splitlines():
        h, t = line.split()
        out.append((h, int(t)))
    return out


def run_pair(program, mirror, repo, label, back, days, count, seed, tmp):
    root = pathlib.Path(tmp) / f"{repo['name']}-{label.replace(' ', '-')}"
    subprocess.run(["git", "clone", "-q", "--no-checkout", str(mirror), str(root)], check=True)
    tip = repo["tip"]
    if subprocess.run(["git", "cat-file", "-e", tip + "^{commit}"], cwd=root).returncode:
        print(f"note: {repo['name']}: pinned tip {tip[:12]} not in the mirror; using HEAD",
              file=sys.stderr)
        tip = git(root, "rev-parse", "HEAD").strip()
    history = first_parent(root, tip)
    if back is not None:
        old = history[min(back, len(history) - 1)][0]
    else:
        limit = history[0][1] - days * 86400
        old = next((h for h, t in history if t <= limit), history[-1][0])
    new = tip
    (root / ".git/info/exclude").write_text("docs/.citation-refresh.lock\n")
    git(root, "checkout", "-q", "-b", "bench", old)
    rng = random.Random(f"{seed}:{repo['name']}:{label}")
    files = [p for p in git(root, "ls-files").splitlines()
             if p.endswith(repo["ext"]) and not p.startswith("docs/")]
    cites = sample(root, files, count, rng)
    pages = write_pages(root, cites)

    # Anchoring at the old commit: the pages are correct, so nothing may change.
    first, _ = run_json(program, root)
    now = {p: (root / f"docs/{p}.md").read_text() for p in pages}
    first_changed = [p for p in pages if now[p] != pages[p]]
    before = {c: (c.path, c.a, c.b) for c in cites}
    first_moved = [c for c, got in read_links(root, cites).items() if got != before[c]]
    git(root, "add", "-A", "docs")
    git(root, "commit", "-q", "-m", "bench docs")
    docs = git(root, "rev-parse", "HEAD").strip()
    written = git(root, "diff", "--name-only", old, docs).split()

    # The code moves on to the new commit; the docs stay.
    git(root, "reset", "-q", "--hard", new)
    git(root, "checkout", docs, "--", *written)
    git(root, "commit", "-q", "-m", "bench docs")
    renames, gone_files = {}, set()
    for line in git(root, "diff", "-M", "--name-status", old, new).splitlines():
        f = line.split("\t")
        if f[0].startswith("R"):
            renames[f[1]] = f[2]
        elif f[0] == "D":
            gone_files.add(f[1])
    find_truth(cites, root, renames, gone_files)

    t0 = time.monotonic()
    check, check_exit = run_json(program, root, "--check")
    result, _ = run_json(program, root)
    seconds = time.monotonic() - t0
    same = ("lost", "missing", "renamed", "translated")
    agrees = ({k: check.get(k) for k in same} == {k: result.get(k) for k in same}
              and sum(check.get("moved", {}).values()) == result.get("repaired"))
    # A citation of a file no longer there is reported as missing: a report all the same.
    lost = collections.defaultdict(list)  # (page, lines) -> the names the reports give
    for x in result["lost"] + result["missing"]:
        lost[(x["page_id"], x["lines"])].append(x.get("name", ""))
    # Held back: a citation whose code moved onto the lines another, lost, citation of its page
    # keeps stays as written and is reported lost with where its code is: scored by that place.
    held = {}
    for x in result["lost"]:
        m = HELD.match(x.get("reason") or "")
        if m:
            held[(x["page_id"], x["lines"])] = (m[1], int(m[2]), int(m[3] or m[2]))
    links = read_links(root, cites)
    sharing = collections.Counter((c.page, links[c]) for c in cites if links[c])

    def reported(c, got):
        """Whether the citation `c`, whose link is `got` now, was reported lost. A report gives
        the page and the lines; where several citations of the page now have those lines (one
        moved onto the lines another, lost, keeps), the name it gives tells whose it is."""
        names = got is not None and lost.get((c.page, f"L{got[1]}-L{got[2]}"))
        if not names:
            return False
        if sharing[(c.page, got)] == 1:
            return True
        # Its own name: the last of the prose's (`Cache::~Cache` is `~Cache`, not `Cache`).
        own = {c.tag["name"], *re.findall(r"[~\w]+", c.prose)[-1:]}
        return any(n in own for n in names)

    cmd, base = Score(), Score()
    outcomes = collections.defaultdict(list)
    maps = {}
    for c in cites:
        got = links[c]
        told = got and held.get((c.page, f"L{got[1]}-L{got[2]}"))
        if told:
            verdict = "held back, told: " + cmd.judge(c, told, False, False)
        else:
            verdict = cmd.judge(c, got, reported(c, got), got is None)
        if got is None:
            verdict = "dropped from the page"
        outcomes[verdict].append({
            "page": f"docs/{c.page}.md", "page_line": c.page_line + 1, "prose": c.prose,
            "cited": f"{c.path}#L{c.a}-L{c.b}", "whole": c.whole,
            "now": f"{got[0]}#L{got[1]}-L{got[2]}" if got else None,
            "truth": (f"{c.truth_path}#L{c.truth[1][0]}-L{c.truth[1][1]}"
                      if c.truth[0] == "live" else c.truth[0]),
            "text": c.text[:3]})
        path = c.path
        if path not in maps:
            maps[path] = None if path in gone_files else diff_map(
                root, old, new, path, renames.get(path, path))
        tr = maps[path]
        f, l = (tr(c.a), tr(c.b)) if tr else (None, None)
        moved = (renames.get(path, path), f, l) if f is not None and l is not None else None
        base.judge(c, moved, moved is None, False)
    return {"repo": repo["name"], "pair": label, "old": old, "new": new, "held_back": len(held),
            "commits": len(history) - 1 - next(i for i, (h, _) in enumerate(reversed(history))
                                               if h == old),
            "cites": len(cites), "first_run_pages_changed": len(first_changed),
            "first_run_citations_moved": len(first_moved),
            "first_run_moved_examples": [f"docs/{c.page}.md:{c.page_line + 1} `{c.prose}` "
                                         f"{c.path}#L{c.a}-L{c.b}" for c in first_moved[:20]],
            "first_run_lost": len(first["lost"]),
            # Prose naming other code on correct pages: false alarms.
            "first_run_misnamed": len(first.get("misnamed", [])),
            # Links that another citation of the same page has too after the run.
            "shared_links": sum(n for n in sharing.values() if n > 1),
            "check_agrees": agrees, "check_exit": check_exit, "seconds": round(seconds, 1),
            "command": cmd, "git_diff": base, "outcomes": outcomes}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true",
                        help="one pair per repository, few citations: a minute or two")
    parser.add_argument("--program", help="the citation-refresh program")
    parser.add_argument("--mirrors", default="/work/.mirror",
                        help="directory of bare copies, <owner>+<name>/repo")
    parser.add_argument("--count", type=int, help="declarations sampled per pair")
    parser.add_argument("--seed", default="24", help="sampling seed")
    parser.add_argument("--json", action="store_true", help="print the results as JSON")
    parser.add_argument("--examples", type=int, default=0,
                        help="print up to N citations of each outcome other than exact")
    args = parser.parse_args()
    program = find_program(args.program)
    if os.sep in program:
        program = os.path.abspath(program)
    count = args.count or (150 if args.quick else 1000)
    results = []
    with tempfile.TemporaryDirectory() as tmp:
        for repo in REPOS:
            mirror = pathlib.Path(args.mirrors) / repo["mirror"] / "repo"
            if not mirror.is_dir():
                sys.exit(f"{mirror}: no such mirror (a bare git directory)")
            for label, back, days in repo["pairs"][:1] if args.quick else repo["pairs"]:
                print(f"{repo['name']} {label} ...", file=sys.stderr)
                results.append(run_pair(program, mirror, repo, label, back, days, count,
                                        args.seed, tmp))
    total_cmd, total_base = Score(), Score()
    for r in results:
        total_cmd.add(r["command"])
        total_base.add(r["git_diff"])
    below = [f"{r['repo']} {r['pair']}" for r in results
             if (r["command"].values()["exact_pct"] or 0) < (r["git_diff"].values()["exact_pct"]
                                                            or 0)]
    tv = total_cmd.values()
    first_changed = sum(r["first_run_pages_changed"] for r in results)
    ok = (tv["exact_pct"] is not None and tv["exact_pct"] >= 99.5 and not below
          and (tv["lost_recall_pct"] or 100) >= 90 and (tv["lost_precision_pct"] or 100) >= 98
          and tv["dropped"] == 0 and first_changed == 0)
    if args.json:
        out = [{**{k: v for k, v in r.items() if k not in ("command", "git_diff", "outcomes")},
                "command": r["command"].values(), "git_diff": r["git_diff"].values(),
                "examples": {k: v[:args.examples] for k, v in r["outcomes"].items()
                             if k != "exact"} if args.examples else {}}
               for r in results]
        print(json.dumps({"pairs": out, "all": {"command": tv, "git_diff": total_base.values()},
                          "below_git_diff": below, "goal_met": ok}, indent=1))
        return 0 if ok else 1
    head = ["repository", "pair", "by", "cites", "live", "exact", "in decl", "misplaced",
            "live lost", "changed", "gone", "lost recall", "lost prec.", "gone placed",
            "dropped"]
    rows = []
    for r in results:
        pair = f"{r['pair']} ({r['old'][:7]}..{r['new'][:7]}, {r['commits']} commits)"
        rows.append([r["repo"], pair, "command", *r["command"].row()])
        rows.append(["", "", "git diff", *r["git_diff"].row()])
    rows.append(["all", "", "command", *total_cmd.row()])
    rows.append(["", "", "git diff", *total_base.row()])
    widths = [max(len(str(r[i])) for r in [head] + rows) for i in range(len(head))]
    fmt = lambda r: "  ".join(str(c).ljust(w) if i < 3 else str(c).rjust(w)
                              for i, (c, w) in enumerate(zip(r, widths)))
    print(fmt(head))
    print("  ".join("-" * w for w in widths))
    for r in rows:
        print(fmt(r))
    print()
    for r in results:
        print(f"{r['repo']} {r['pair']}: first writing run at the old commit changed "
              f"{r['first_run_pages_changed']} of the pages ({r['first_run_citations_moved']} "
              f"citations moved, {r['first_run_lost']} reported lost, "
              f"{r['first_run_misnamed']} said to name other code); "
              f"{r['command'].n['by_file']} live citations found outside a namesake "
              f"({r['command'].n['by_file_exact']} exact, git diff "
              f"{r['git_diff'].n['by_file_exact']}); --check "
              f"{'told' if r['check_agrees'] else 'did NOT tell'} what the writing run did; "
              f"{r['shared_links']} citations share their link with another of the page, "
              f"{r['held_back']} held back (their code moved onto a lost one's lines); "
              f"{r['seconds']} s")
        for e in r["first_run_moved_examples"][:args.examples]:
            print(f"    moved on first sight: {e}")
    if below:
        print("below git diff on: " + ", ".join(below))
    if args.examples:
        for r in results:
            for verdict, items in sorted(r["outcomes"].items()):
                if verdict == "exact":
                    continue
                print(f"\n{r['repo']} {r['pair']}: {verdict} ({len(items)})")
                for e in items[:args.examples]:
                    print(f"  {e['page']}:{e['page_line']} `{e['prose']}` {e['cited']} -> "
                          f"{e['now']} (truth {e['truth']}) {e['text'][0].strip()[:60]!r}")
    print("goal met" if ok else "goal NOT met")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
