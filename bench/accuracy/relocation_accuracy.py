#!/usr/bin/python3
"""Relocation accuracy of citation-refresh on scripted histories.

Builds a temporary git repository whose files are made of declaration blocks, cites declarations
(whole, and one line inside) from a markdown page, then replays a scripted history: GoogleTest
bodies added above and between others, C++ overloads added and removed, @overload stubs added above
Python functions, TYPE_CHECKING twins that grow, declarations moved within a file and deleted.
After every commit the built command refreshes the page, and each citation is scored against the
truth that the history knows (where each block now is), next to `git diff` line translation on the
same history.

    /usr/bin/python3 bench/accuracy/relocation_accuracy.py [--smoke] [--program PATH]

The program is --program, else $CITATION_REFRESH, else build*/hosts/native/command/citation-refresh.
Exit status 1 when the command misses one of its goals: every citation of a live declaration
exact, every deleted declaration lost, no live one lost, nothing dropped.
"""

import argparse
import glob
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import tempfile

GIT_ENV = {"GIT_AUTHOR_NAME": "b", "GIT_AUTHOR_EMAIL": "b@example.org",
           "GIT_COMMITTER_NAME": "b", "GIT_COMMITTER_EMAIL": "b@example.org",
           "GIT_CONFIG_NOSYSTEM": "1", "HOME": "/nonexistent"}
LINK = re.compile(r"\[(c\d+)\]\(/([^#)]+)#L(\d+)(?:-L(\d+))?\)")
HELD = re.compile(r"its code is at ([^#]+)#L(\d+)(?:-L(\d+))? now, lines that another citation")


class Block:
    """Lines of a file; the declaration it holds spans lines decl[0]..decl[1] of it (0-based).
    origin[i]: the line of the block's first form that line i is (None: a line added since)."""

    def __init__(self, lines, decl=None, origin=None):
        self.lines = lines
        self.decl = decl if decl is not None else (0, len(lines) - 1)
        self.origin = origin if origin is not None else list(range(len(lines)))


def grown(block, at, new_lines):
    """`block` with `new_lines` inserted before its line `at`, inside its declaration."""
    lines = block.lines[:at] + new_lines + block.lines[at:]
    origin = block.origin[:at] + [None] * len(new_lines) + block.origin[at:]
    return Block(lines, (block.decl[0], block.decl[1] + len(new_lines)), origin)


def gtest(macro, suite, name, k):
    v = f"{name.lower()}_{k}"
    return Block([f"{macro}({suite}, {name}) {{", f"  int {v} = {k};", f"  EXPECT_EQ({v}, {k});",
                  "}"])


def cc_fn(name, params, k):
    return Block([f"int {name}({params}) {{", f"  int r = {k};", "  return r;", "}"])


def py_fn(name, k, indent=""):
    return Block([f"{indent}def {name}(x):", f"{indent}    y = x + {k}", f"{indent}    return y"])


def py_stub(name, typ, indent=""):
    return Block([f"{indent}@overload", f"{indent}def {name}(x: {typ}) -> {typ}: ..."])


class Scenario:
    """One file's history: versions are lists of block ids; `cited` are the cited block ids;
    `informational` ones are scored apart (the module's simple-name fallback decides them)."""

    def __init__(self, name, path, head, blocks, versions, cited, informational=(), tail=(),
                 paths=None):
        self.name, self.path, self.head, self.tail = name, path, head, list(tail)
        self.blocks, self.versions = blocks, versions
        self.cited, self.informational = cited, set(informational)
        self.paths = paths or [path]  # the file's path at each step (renamed: another one)

    def path_at(self, step):
        return self.paths[min(step, len(self.paths) - 1)]

    def render(self, step):
        """The file's text at `step`, and for each block (by its first form's id, the part of a
        version's id before '@') its first line (1-based) and its form."""
        version = self.versions[min(step, len(self.versions) - 1)]
        lines, starts = list(self.head), {}
        for vid in version:
            if lines:
                lines.append("")
            starts[vid.split("@")[0]] = (len(lines) + 1, self.blocks[vid])
            lines.extend(self.blocks[vid].lines)
        lines.extend(self.tail)
        return "\n".join(lines) + "\n", starts


def moved(order, bid, to):
    order = [b for b in order if b != bid]
    order.insert(to if to >= 0 else len(order) + 1 + to, bid)
    return order


def churn(order, fresh, rng, rounds, deletable):
    """`rounds` more versions of `order`: each adds two new blocks at random places, moves one
    block elsewhere and deletes one of `deletable`."""
    versions = []
    for _ in range(rounds):
        order = list(order)
        for _ in range(2):
            order.insert(rng.randrange(len(order) + 1), next(fresh))
        order = moved(order, rng.choice(order), rng.randrange(len(order)))
        alive = [b for b in order if b in deletable]
        if alive:
            order.remove(rng.choice(alive))
        versions.append(order)
    return versions


def scenarios(n, rounds):
    rng = random.Random(7)
    out = []
    # GoogleTest: bodies that ctags all names TEST / TEST_F.
    blocks, order = {}, []
    for i in range(n):
        macro, suite = ("TEST_F", "FixtureTest") if i % 3 == 2 else ("TEST", "BuildTest")
        bid = f"t{i}"
        blocks[bid] = gtest(macro, suite, f"Case{i}", i)
        order.append(bid)
    blocks["t0"] = gtest("TEST", "BuildTest", "NoWork", 0)
    for j in range(n + 2 * rounds):
        blocks[f"a{j}"] = gtest("TEST", f"AddedTest{j}", "NoWork" if j == 0 else f"New{j}", 100 + j)
    v1 = ["a0", "a1", "a2"] + order
    v2 = list(v1)
    for j in range(3, 3 + max(2, n // 4)):
        v2.insert(4 + 2 * (j - 3) * 2, f"a{j}")
    gone = f"t{n // 2}"
    v3 = [b for b in v2 if b != gone]
    v4 = moved(v3, "t1", -1)
    fresh = iter([f"a{j}" for j in range(3 + max(2, n // 4), n + 2 * rounds)])
    later = churn(v4, fresh, rng, rounds, set(order) - {"t0"})
    out.append(Scenario("gtest bodies", "tests/build_test.cc", ["#include <gtest/gtest.h>"],
                        blocks, [order, v1, v2, v3, v4, *later], list(order)))
    # C++ overloads in a namespace, added and removed.
    blocks = {"f_int": cc_fn("f", "int value", 1), "f_str": cc_fn("f", "const std::string& s", 2),
              "g_int": cc_fn("g", "int value", 3), "g_dbl": cc_fn("g", "double value", 4),
              "h_int": cc_fn("h", "int value", 5), "h_dbl": cc_fn("h", "double value", 6),
              "k_one": cc_fn("k", "long a", 7), "k_two": cc_fn("k", "long a, long b", 8)}
    v0 = ["f_int", "g_int", "h_int", "h_dbl", "k_one", "k_two"]
    v1 = ["f_str", "f_int", "g_int", "g_dbl", "h_int", "h_dbl", "k_one", "k_two"]
    v2 = ["f_int", "g_dbl", "g_int", "h_int", "h_dbl", "k_two", "k_one"]
    v3 = ["f_str", "f_int", "g_dbl", "g_int", "h_dbl", "k_two", "k_one"]
    out.append(Scenario("C++ overloads", "src/overloads.cc",
                        ["#include <string>", "", "namespace ns {"], blocks, [v0, v1, v2, v3],
                        ["f_int", "g_int", "h_int", "h_dbl", "k_one", "k_two"],
                        informational=["h_int"], tail=["", "}  // namespace ns"]))
    # Python @overload stubs added above functions and methods.
    blocks = {"parse": py_fn("parse", 1), "render": py_fn("render", 2),
              "cls": Block(["class Loader:", "    kind = 1"]),
              "load": py_fn("load", 3, "    "), "save": py_fn("save", 4, "    "),
              "s1": py_stub("parse", "int"), "s2": py_stub("parse", "str"),
              "s3": py_stub("load", "int", "    "), "s4": py_stub("render", "bytes")}
    v0 = ["parse", "render", "cls", "load", "save"]
    v1 = ["s1", "s2", "parse", "render", "cls", "s3", "load", "save"]
    v2 = ["s1", "s2", "parse", "s4", "render", "cls", "s3", "load", "save"]
    out.append(Scenario("@overload stubs", "pkg/stubs.py",
                        ["from typing import overload"], blocks, [v0, v1, v2],
                        ["parse", "render", "load", "save"]))
    # Cited @overload stubs (their `def` line, the lines ctags declares): another stub added
    # above them, two swapped, the implementation edited below.
    def stub(name, typ, indent=""):
        block = py_stub(name, typ, indent)
        return Block(block.lines, (1, 1))
    blocks = {"s1": stub("parse", "int"), "s2": stub("parse", "str"),
              "s0": stub("parse", "bytes"), "parse": py_fn("parse", 1),
              "parse@1": grown(py_fn("parse", 1), 1, ["    x = x or 0"]),
              "cls": Block(["class Loader:", "    kind = 1"]),
              "s3": stub("load", "int", "    "), "s4": stub("load", "str", "    "),
              "load": py_fn("load", 3, "    ")}
    out.append(Scenario("cited @overload stubs", "pkg/cited_stubs.py",
                        ["from typing import overload"], blocks,
                        [["s1", "s2", "parse", "cls", "s3", "load"],
                         ["s0", "s1", "s2", "parse", "cls", "s4", "s3", "load"],
                         ["s0", "s2", "s1", "parse@1", "cls", "s4", "s3", "load"]],
                        ["s1", "s2", "parse", "s3", "load"]))
    # TYPE_CHECKING twins: the checker's class grows above the real one.
    blocks = {"if_small": Block(["if TYPE_CHECKING:", "    class Config:", "        name: str"]),
              "if_big": Block(["if TYPE_CHECKING:", "    class Config:", "        name: str",
                               "        size: int", "        path: str", "        mode: int"]),
              "else": Block(["else:", "    class Config:", "        def __init__(self):",
                             "            self.name = 'x'"], decl=(1, 3)),
              "pad": Block(["LIMIT = 1", "OTHER = 2", "THIRD = 3"]),
              "use": py_fn("use_config", 5)}
    out.append(Scenario("TYPE_CHECKING twins", "pkg/typed.py",
                        ["from typing import TYPE_CHECKING"], blocks,
                        [["if_small", "else", "use"], ["pad", "if_big", "else", "use"]],
                        ["else", "use"]))
    # Declarations moved within a file.
    names = [f"fn_{i}" for i in range(max(6, n // 2))]
    blocks = {m: py_fn(m, i) for i, m in enumerate(names)}
    extra = [f"new_{i}" for i in range(2 * rounds)]
    blocks.update({m: py_fn(m, 100 + i) for i, m in enumerate(extra)})
    v1 = moved(names, names[0], -1)
    v2 = moved(v1, names[3], 1)
    later = churn(v2, iter(extra), rng, rounds, set())
    out.append(Scenario("moved in file", "pkg/moves.py", ["import os"], blocks,
                        [names, v1, v2, *later], list(names)))
    # Declarations deleted (and one of a C++ pair).
    blocks = {m: py_fn(m, i) for i, m in enumerate(["keep_a", "drop_b", "keep_c", "drop_d"])}
    out.append(Scenario("deleted", "pkg/gone.py", ["import os"], blocks,
                        [["keep_a", "drop_b", "keep_c", "drop_d"], ["keep_a", "keep_c", "drop_d"],
                         ["keep_c", "keep_a"]], ["keep_a", "drop_b", "keep_c", "drop_d"]))

    # Files renamed (git sees a rename), then renamed again with declarations added above.
    names = [f"ren_{i}" for i in range(max(4, n // 4))]
    blocks = {m: py_fn(m, i) for i, m in enumerate(names)}
    blocks.update({f"top_{i}": py_fn(f"top_{i}", 50 + i) for i in range(2)})
    out.append(Scenario("renamed (git mv)", "pkg/old_name.py", ["import os"], blocks,
                        [names, names, ["top_0"] + names, ["top_1", "top_0"] + names], list(names),
                        paths=["pkg/old_name.py", "pkg/new_name.py", "lib/moved/new_name.py"]))
    # A C++ file moved while its functions gain lines above the cited ones.
    fns = [f"m{i}" for i in range(max(4, n // 4))]
    blocks = {f: cc_fn(f, "int v", i) for i, f in enumerate(fns)}
    blocks.update({f"{f}@1": grown(blocks[f], 1, ["  int extra = v;", "  (void)extra;"])
                   for f in fns})
    v1 = [f"{f}@1" if i % 2 else f for i, f in enumerate(fns)]
    out.append(Scenario("moved with edits", "src/engine.cc", ["#include <cstdio>"], blocks,
                        [fns, v1], fns, paths=["src/engine.cc", "src/core/engine.cc"]))
    # Lines inserted and removed inside declarations, above the cited lines.
    fns = [f"body_{i}" for i in range(max(6, n // 2))]
    blocks = {f: py_fn(f, i) for i, f in enumerate(fns)}
    for i, f in enumerate(fns):
        doc = ['    """Says what it does.', "", '    More of it."""']
        blocks[f"{f}@1"] = grown(blocks[f], 1, doc)
        blocks[f"{f}@2"] = grown(blocks[f"{f}@1"], 4, ["    z = x * 2", "    y = z"])
        blocks[f"{f}@3"] = grown(blocks[f], 1, ["    z = x * 2"])
    versions = [fns]
    for k in (1, 2, 3):
        versions.append([f"{f}@{k}" if (i + k) % 3 else f for i, f in enumerate(fns)])
    out.append(Scenario("lines inside declarations", "pkg/bodies.py", ["import os"], blocks,
                        versions, fns))
    # Declarations moved within the file and edited at once.
    fns = [f"mv_{i}" for i in range(max(6, n // 2))]
    blocks = {f: py_fn(f, i) for i, f in enumerate(fns)}
    blocks.update({f"{f}@1": grown(blocks[f], 1, ["    z = 0"]) for f in fns})
    v1 = moved([f"{f}@1" if i % 2 else f for i, f in enumerate(fns)], f"{fns[1]}@1", -1)
    v2 = moved(v1, f"{fns[3]}@1", 0)
    out.append(Scenario("moved in file and edited", "pkg/shuffle.py", ["import os"], blocks,
                        [fns, v1, v2], fns))
    return out


def git(root, *args):
    return subprocess.run(["git", *args], cwd=root, check=True, capture_output=True, text=True,
                          env={**os.environ, **GIT_ENV}).stdout


def diff_map(root, old, new, old_path, new_path):
    """Old line -> new line by `git diff -U0` of the file, followed across a rename (None: the
    line was removed or changed)."""
    hunks = []
    paths = [old_path] if old_path == new_path else [old_path, new_path]
    for line in git(root, "diff", "-M", "-U0", old, new, "--", *paths).splitlines():
        m = re.match(r"@@ -(\d+)(?:,(\d+))? \+(\d+)(?:,(\d+))? @@", line)
        if m:
            a, b = int(m[1]), int(m[2] if m[2] is not None else 1)
            c, d = int(m[3]), int(m[4] if m[4] is not None else 1)
            hunks.append((a, b, c, d))

    def translate(n):
        delta = 0
        for a, b, c, d in hunks:
            first = a if b else a + 1  # a pure insertion's old line is the one before it
            if b and a <= n < a + b:
                return None
            if n >= first:
                delta += d - b
        return n + delta
    return translate


class Score:
    KEYS = ("live", "exact", "inside", "misplaced", "live_lost", "gone", "gone_lost",
            "gone_kept", "dropped", "unfollowed")

    def __init__(self):
        self.n = dict.fromkeys(self.KEYS, 0)

    def add(self, other):
        for k in self.KEYS:
            self.n[k] += other.n[k]

    def judge(self, truth, span, got, lost, dropped, unfollowed=False):
        """truth: the cited lines now (None: the declaration is gone); span: its lines now;
        unfollowed: the citation still names a file's old path."""
        n = self.n
        if dropped:
            n["dropped"] += 1
        if unfollowed:
            n["unfollowed"] += 1
            got = None
        if truth is None:
            n["gone"] += 1
            n["gone_lost" if lost else "gone_kept"] += 1
        else:
            n["live"] += 1
            if lost:
                n["live_lost"] += 1
            elif got == truth:
                n["exact"] += 1
            elif got is not None and span[0] <= got[0] and got[1] <= span[1]:
                n["inside"] += 1
            else:
                n["misplaced"] += 1

    def row(self):
        n = self.n
        reported = n["gone_lost"] + n["live_lost"]
        pct = lambda a, b: f"{100 * a / b:5.1f}%" if b else "    -"
        return [str(n["live"]), pct(n["exact"], n["live"]),
                pct(n["exact"] + n["inside"], n["live"]), str(n["misplaced"]), str(n["gone"]),
                pct(n["gone_lost"], n["gone"]), pct(n["gone_lost"], reported), str(n["dropped"]),
                str(n["unfollowed"])]


def find_program(arg):
    if arg:
        return arg
    if os.environ.get("CITATION_REFRESH"):
        return os.environ["CITATION_REFRESH"]
    here = pathlib.Path(__file__).resolve().parents[2]
    found = sorted(glob.glob(str(here / "build*/hosts/native/command/citation-refresh")),
                   key=os.path.getmtime)
    if not found:
        sys.exit("no citation-refresh: build it, or give --program or $CITATION_REFRESH")
    return found[-1]

# Options given to every run of the command: ["--no-follow-history"] (--no-carrying) scores the
# refresh alone, without renamed files followed or citations carried across git's diff.
FOLLOW = []


def run(program, smoke):
    plan = scenarios(6, 0) if smoke else scenarios(121, 12)
    with tempfile.TemporaryDirectory() as tmp:
        root = pathlib.Path(tmp)
        git(root, "init", "-q", "-b", "main")
        (root / ".gitignore").write_text("docs/.citation-refresh.lock\n")
        # Citations: the whole declaration, and for every other one a line inside it.
        cites = []  # (id, scenario, block id, first offset, last offset)
        for s in plan:
            for i, bid in enumerate(s.cited):
                d0, d1 = s.blocks[bid].decl
                cites.append((f"c{len(cites)}", s, bid, d0, d1))
                if i % 2 and d1 > d0:
                    cites.append((f"c{len(cites)}", s, bid, d0 + 1, d0 + 1))
        steps = max(len(s.versions) for s in plan)

        def write(step):
            starts = {}
            for s in plan:
                text, starts[s.name] = s.render(step)
                path, before = root / s.path_at(step), root / s.path_at(step - 1)
                path.parent.mkdir(parents=True, exist_ok=True)
                if step and path != before:
                    git(root, "mv", s.path_at(step - 1), s.path_at(step))
                path.write_text(text)
            return starts

        def lines_of(starts, s, bid, a, b):
            """Where lines a..b of block `bid`'s first form are now; the whole declaration when
            they are its declaration."""
            if bid not in starts[s.name]:
                return None
            base, block = starts[s.name][bid]
            if (a, b) == s.blocks[bid].decl:
                return (base + block.decl[0], base + block.decl[1])
            return (base + block.origin.index(a), base + block.origin.index(b))

        starts = write(0)
        page = ["# Cited code", ""]
        for cid, s, bid, a, b in cites:
            first, last = lines_of(starts, s, bid, a, b)
            frag = f"#L{first}" if first == last else f"#L{first}-L{last}"
            page.append(f"See [{cid}](/{s.path_at(0)}{frag}).")
        (root / "docs").mkdir()
        (root / "docs/cites.md").write_text("\n".join(page) + "\n")
        git(root, "add", "-A")
        git(root, "commit", "-q", "-m", "v0")
        first_run = subprocess.run([program, *FOLLOW, "--json", "--quiet"], cwd=root, capture_output=True,
                                   text=True)
        if first_run.returncode != 0:
            sys.exit(f"citation-refresh failed: {first_run.stderr}")
        git(root, "add", "-A")
        git(root, "commit", "-q", "-m", "v0 docs")
        # The name each citation was anchored to: lost citations are reported by path, lines and
        # name, and a live citation may come to stand on a lost one's lines.
        records = json.loads((root / "docs/.citation-anchors.json").read_text())["pages"]["cites"]
        by_lines = {(r["path"], r["line_start"], r["line_end"]): r.get("name") for r in records}
        anchored = {cid: by_lines.get((s.path_at(0), *lines_of(starts, s, bid, a, b)))
                    for cid, s, bid, a, b in cites}

        command = {s.name: Score() for s in plan}
        baseline = {s.name: Score() for s in plan}
        info_cmd, info_base = Score(), Score()
        base_at = {cid: lines_of(starts, s, bid, a, b) for cid, s, bid, a, b in cites}
        done = set()  # citations of a declaration already gone, or reported lost: scored once
        fixed = set()  # citations reported lost: taken off the page
        shared = set()  # live citations that came to share a lost one's lines
        shared_cmd = Score()
        disagreements = []  # steps where --check did not tell what the writing run did
        for step in range(1, steps):
            starts = write(step)
            git(root, "add", "-A")
            git(root, "commit", "-q", "-m", f"v{step}")
            check = subprocess.run([program, *FOLLOW, "--check", "--json", "--quiet"], cwd=root,
                                   capture_output=True, text=True)
            result = subprocess.run([program, *FOLLOW, "--json", "--quiet"], cwd=root, capture_output=True,
                                    text=True)
            if result.returncode != 0 or check.returncode not in (0, 1):
                sys.exit(f"citation-refresh failed: {result.stderr}{check.stderr}")
            # --check must tell exactly what the writing run then does.
            said, done_ = json.loads(check.stdout), json.loads(result.stdout)
            same = ("lost", "missing", "renamed", "translated")
            if ({k: said[k] for k in same} != {k: done_[k] for k in same}
                    or sum(said["moved"].values()) != done_["repaired"]):
                disagreements.append(step)
            lost = {(x["path"], x["lines"], x["name"]) for x in done_["lost"]}
            # Held back: a citation whose code moved onto the lines that a lost one of its page
            # keeps stays as written, lost, with where its code is; it moves once that one is
            # settled (taken off the page below).
            held = {}
            for x in done_["lost"]:
                m = HELD.match(x.get("reason") or "")
                if m:
                    held[(x["path"], x["lines"])] = (m[1], int(m[2]), int(m[3] or m[2]))
            links = {m[1]: (m[2], int(m[3]), int(m[4] or m[3]))
                     for m in LINK.finditer((root / "docs/cites.md").read_text())}
            git(root, "add", "-A")
            git(root, "commit", "-q", "--allow-empty", "-m", f"v{step} docs")
            maps = {s.name: diff_map(root, "HEAD~2", "HEAD~1", s.path_at(step - 1), s.path_at(step))
                    for s in plan}
            for cid, s, bid, a, b in cites:
                if cid in done:
                    continue
                truth = lines_of(starts, s, bid, a, b)
                d0, d1 = s.blocks[bid].decl
                span = lines_of(starts, s, bid, d0, d1)
                link = links.get(cid)
                got = (link[1], link[2]) if link else None
                if link is not None and (link[0], f"L{got[0]}-L{got[1]}") in held:
                    where = held[(link[0], f"L{got[0]}-L{got[1]}")]
                    shared_cmd.judge(truth, span, where[1:], False, False,
                                     where[0] != s.path_at(step))
                    continue
                was_lost = link is not None and (link[0], f"L{got[0]}-L{got[1]}",
                                                 anchored[cid]) in lost
                # A live citation moved onto the lines of one reported lost shares its key (the
                # module names a citation by path and lines): scored apart from then on.
                if not was_lost and link is not None and any(
                        (p, ln) == (link[0], f"L{got[0]}-L{got[1]}") for p, ln, _ in lost):
                    shared.add(cid)
                info = bid in s.informational
                unfollowed = link is not None and link[0] != s.path_at(step)
                (shared_cmd if cid in shared else info_cmd if info else command[s.name]).judge(
                    truth, span, got, was_lost, link is None, unfollowed)
                # git diff: translate the lines the citation had; a removed line loses it.
                old = base_at[cid]
                new = None
                if old is not None:
                    f, l = maps[s.name](old[0]), maps[s.name](old[1])
                    new = (f, l) if f is not None and l is not None else None
                (info_base if info else baseline[s.name]).judge(truth, span, new, new is None,
                                                                False)
                base_at[cid] = new
                if truth is None or was_lost:
                    done.add(cid)
                if was_lost:
                    fixed.add(cid)
            # What a writer does with a reported citation: takes it off the page. (Left there, a
            # live citation that later moves onto its lines would share its key.)
            page_file = root / "docs/cites.md"
            page_file.write_text("".join(
                line for line in page_file.read_text().splitlines(keepends=True)
                if not any(f"[{cid}]" in line for cid in fixed)))
    return (plan, command, baseline, info_cmd, info_base, shared_cmd, len(cites), steps - 1,
            disagreements)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--smoke", action="store_true", help="small files, a few seconds")
    parser.add_argument("--program", help="the citation-refresh program")
    parser.add_argument("--no-carrying", action="store_true",
                        help="run the command with --no-follow-history: the refresh alone")
    args = parser.parse_args()
    if args.no_carrying:
        FOLLOW.append("--no-follow-history")
    program = find_program(args.program)
    if os.sep in program:
        program = os.path.abspath(program)
    (plan, command, baseline, info_cmd, info_base, shared_cmd, n_cites, n_steps,
     disagreements) = run(program, args.smoke)

    head = ["scenario", "by", "live", "exact", "in decl", "misplaced", "gone", "lost recall",
            "lost prec.", "dropped", "unfollowed"]
    rows = []
    total_cmd, total_base = Score(), Score()
    for s in plan:
        rows.append([s.name, "command", *command[s.name].row()])
        rows.append(["", "git diff", *baseline[s.name].row()])
        total_cmd.add(command[s.name])
        total_base.add(baseline[s.name])
    rows.append(["all", "command", *total_cmd.row()])
    rows.append(["", "git diff", *total_base.row()])
    rows.append(["deleted overload, sibling lives", "command", *info_cmd.row()])
    rows.append(["  (scored apart)", "git diff", *info_base.row()])
    # Citations whose code moved onto a lost one's lines: held back, scored by the place told.
    rows.append(["held back, told where", "command", *shared_cmd.row()])
    widths = [max(len(str(r[i])) for r in [head] + rows) for i in range(len(head))]
    fmt = lambda r: "  ".join(str(c).ljust(w) if i < 2 else str(c).rjust(w)
                              for i, (c, w) in enumerate(zip(r, widths)))
    print(f"{n_cites} citations, {n_steps} commits; each citation scored after every commit")
    print(fmt(head))
    print("  ".join("-" * w for w in widths))
    for r in rows:
        print(fmt(r))
    print(f"--check told what the writing run did after {n_steps - len(disagreements)} of "
          f"{n_steps} commits" + (f" (not after {disagreements})" if disagreements else ""))
    ok = not disagreements
    for s in plan:
        n, b = command[s.name].n, baseline[s.name].n
        # Shares, not counts: a citation moved onto a lost one's lines is scored apart for the
        # command only.
        ok = ok and (n["exact"] * b["live"] >= b["exact"] * n["live"]
                     and n["gone_lost"] == n["gone"]
                     and n["live_lost"] == 0 and n["dropped"] == 0 and n["unfollowed"] == 0
                     and n["exact"] == n["live"])
    print("goal met" if ok else "goal NOT met")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
