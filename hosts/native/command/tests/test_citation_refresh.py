"""citation-refresh end to end: the built program over a real git repository and real ctags."""

import fcntl
import hashlib
import json
import re
import shutil
import sqlite3
import subprocess

import pytest

from conftest import PROGRAM, Repo

SHAPES = """\
import math


class Circle:
    def __init__(self, radius):
        self.radius = radius

    def area(self):
        return math.pi * self.radius ** 2


def total_area(shapes):
    return sum(shape.area() for shape in shapes)


def largest(shapes):
    return max(shapes, key=lambda shape: shape.area())
"""

COUNTER_H = """\
#pragma once

class Counter {
 public:
  void add(int n);
  int total() const { return total_; }

 private:
  int total_ = 0;
};
"""

COUNTER_CC = """\
#include "counter.h"

void Counter::add(int n) {
  if (n > 0) total_ += n;
}
"""

UTIL = """\
def clamp(value, low, high):
    return max(low, min(value, high))
"""

PAGES = {
    "docs/shapes.md": (
        "# Shapes\n\nA `Circle` keeps its radius [Circle](/src/shapes.py#L4-L9); its\n"
        "`area` returns it squared [area](/src/shapes.py#L9).\n\n"
        "`total_area` adds them up [total_area](/src/shapes.py#L12-L13), and `largest`\n"
        "picks one [largest](/src/shapes.py#L16-L17).\n\n"
        "```\n[Circle](/src/shapes.py#L4-L9)\n```\n"),
    "docs/guide/counter.md": (
        "# Counter\n\nThe `Counter` class [Counter](/src/counter.h#L3-L10) counts in `add`\n"
        "[add](/src/counter.cc#L3-L5); `total` reads it [total](/src/counter.h#L6).\n"),
    "docs/util.md": "# Util\n\n`clamp` bounds a value [clamp](/src/util.py#L1-L2).\n",
}

# Three lines above every declaration of shapes.py, total_area renamed, largest deleted; one line
# above Counter::add; util.py moved.
CHANGED_SHAPES = ("import math\nimport functools\n\nUNIT = 1.0\n" + SHAPES[len("import math\n"):]
                  ).replace("def total_area", "def sum_of_areas").replace(
    "\n\ndef largest(shapes):\n    return max(shapes, key=lambda shape: shape.area())\n", "\n")
CHANGED_COUNTER_CC = COUNTER_CC.replace('#include "counter.h"\n', '#include "counter.h"\n\n')

# The pages once the writing run moved what moved (util.py's citation follows the file git says
# it became): only these fragments change.
MOVED = {
    "docs/shapes.md": [("#L4-L9)", "#L7-L12)", 1), ("#L9)", "#L12)", 1)],
    "docs/guide/counter.md": [("counter.cc#L3-L5", "counter.cc#L4-L6", 1)],
    "docs/util.md": [("/src/util.py#", "/src/util2.py#", 1)],
}
LOST = [("shapes", "src/shapes.py", "L12-L13", "total_area"),
        ("shapes", "src/shapes.py", "L16-L17", "largest")]
MISSING = [{"page_id": "util", "path": "src/util.py", "lines": "L1-L2"}]
RENAMED = [{"page_id": "util", "from": "src/util.py", "to": "src/util2.py", "lines": "L1-L2"}]
# Lines inserted above the declarations: carried across git's diff before the refresh.
TRANSLATED = {"guide/counter": 1, "shapes": 2}


def make_repo(repo: Repo):
    repo.write("src/shapes.py", SHAPES)
    repo.write("src/counter.h", COUNTER_H)
    repo.write("src/counter.cc", COUNTER_CC)
    repo.write("src/util.py", UTIL)
    for rel, text in PAGES.items():
        repo.write(rel, text)
    repo.commit("code and docs")


def change_code(repo: Repo):
    repo.write("src/shapes.py", CHANGED_SHAPES)
    repo.write("src/counter.cc", CHANGED_COUNTER_CC)
    repo.git("mv", "src/util.py", "src/util2.py")


def expected_pages():
    pages = dict(PAGES)
    for rel, edits in MOVED.items():
        for old, new, count in edits:
            assert pages[rel].count(old) >= count
            pages[rel] = pages[rel].replace(old, new, count)
    return pages


def lost_of(result):
    return [(x["page_id"], x["path"], x["lines"], x["name"]) for x in result["lost"]]


def wiki_state(repo: Repo):
    """The wiki's files, bytes and mtimes."""
    return {k: v for k, v in repo.snapshot().items() if k.startswith("docs/")}


def test_workflow_moves_reports_and_settles(repo, tmp_path):
    make_repo(repo)
    first = repo.run("--json")
    assert first.returncode == 0, first.stderr
    assert json.loads(first.stdout) == {"version": 1, "stale": False, "written": True,
                                        "busy": False, "findings": [],
                                        "repaired": 0, "unrepairable": 0, "pages_written": 0,
                                        "lost": [], "moved": {}, "missing": [], "renamed": [],
                                        "translated": {}, "misnamed": []}
    assert {rel: repo.read(rel) for rel in PAGES} == PAGES  # nothing moved yet: no byte changes
    anchors = repo.read("docs/.citation-anchors.json")
    assert '"symbol": "Circle.area"' in anchors and '"symbol": "Counter::add(int)"' in anchors
    repo.commit("anchors")

    change_code(repo)
    before = repo.snapshot()
    check = repo.run("--check", "--json")
    assert check.returncode == 1, check.stderr
    assert repo.snapshot() == before  # no page, store, digest or anchors write
    reported = json.loads(check.stdout)
    assert reported["moved"] == {} and reported["translated"] == TRANSLATED
    assert lost_of(reported) == LOST and reported["missing"] == []
    assert reported["renamed"] == RENAMED
    assert reported["repaired"] == reported["pages_written"] == 0

    # CI: a shallow clone without a local store knows the anchors from the committed file, but
    # not the commit they were refreshed at: it says so once, and the refresh alone decides.
    repo.commit("code change")
    clone = Repo(tmp_path / "clone")
    subprocess.run(["git", "clone", "-q", "--depth", "1", f"file://{repo.root}", str(clone.root)],
                   check=True)
    in_clone = clone.run("--check", "--json")
    assert in_clone.returncode == 1, in_clone.stderr
    assert in_clone.stderr.count("not in this repository (a shallow clone") == 1
    cloned = json.loads(in_clone.stdout)
    assert cloned == {**reported, "moved": TRANSLATED, "missing": MISSING, "renamed": [],
                      "translated": {}, "misnamed": [], "findings": cloned["findings"]}
    # The same citations at the same places; the clone moves what history carried.
    assert [(f["page"], f["line"], f["column"]) for f in cloned["findings"]] == [
        (f["page"], f["line"], f["column"]) for f in reported["findings"]]
    assert not (clone.root / ".git" / "citation-refresh.db").exists()

    second = repo.run("--json")
    assert second.returncode == 0, second.stderr
    written = json.loads(second.stdout)
    assert {k: written[k] for k in ("lost", "missing", "renamed", "translated")} == {
        k: reported[k] for k in ("lost", "missing", "renamed", "translated")}
    # Carried citations are counted once, as carried or renamed, and their pages as written.
    carried_pages = {r["page_id"] for r in written["renamed"]} | set(written["translated"])
    assert written["repaired"] == 0 and written["pages_written"] == len(carried_pages) > 0
    assert {rel: repo.read(rel) for rel in PAGES} == expected_pages()  # lost ones kept as written

    settled = wiki_state(repo)
    third = repo.run()
    assert third.returncode == 0, third.stderr
    assert third.stdout.splitlines() == [
        "docs/shapes.md:6:27: src/shapes.py#L12-L13 (lost: `total_area` is gone)",
        "docs/shapes.md:7:11: src/shapes.py#L16-L17 (lost: `largest` is gone)",
        "0 citations repaired, 0 pages written, 2 lost",
        "fix these citations by hand: give each link the path and lines it should cite now"]
    assert wiki_state(repo) == settled  # bytes and mtimes

    # --check passes only once nothing is lost or missing.
    assert repo.run("--check").returncode == 1
    repo.write("docs/shapes.md", re.sub(r" \[(total_area|largest)\]\([^)]*\)", "",
                                        repo.read("docs/shapes.md")))
    repo.write("docs/util.md", repo.read("docs/util.md").replace("util2.py", "nowhere.py"))
    assert repo.run("--check").returncode == 1  # the missing file's citation
    repo.write("docs/util.md", repo.read("docs/util.md").replace("nowhere.py", "util2.py"))
    quiet = repo.run("--check", "--quiet")
    assert (quiet.returncode, quiet.stdout, quiet.stderr) == (0, "", "")


def test_a_busy_wiki_is_only_reported(repo):
    make_repo(repo)
    assert repo.run().returncode == 0
    change_code(repo)
    # The lock lives in the git directory, as git keeps its own.
    (repo.root / ".git/citation-refresh").mkdir(exist_ok=True)
    with open(repo.root / ".git/citation-refresh/docs.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        before = repo.snapshot()
        busy = repo.run("--json")
        # Its own exit code: a script tells a run that wrote nothing from one that wrote.
        assert busy.returncode == 3 and "being written; reporting only" in busy.stderr
        reported = json.loads(busy.stdout)
        assert reported["translated"] == TRANSLATED and reported["busy"] and reported["stale"]
        assert not reported["written"]
        assert repo.snapshot() == before
    assert json.loads(repo.run("--json").stdout)["translated"] == TRANSLATED


def test_two_runs_at_once_leave_the_wiki_consistent(repo):
    make_repo(repo)
    assert repo.run().returncode == 0
    change_code(repo)
    runs = [repo.start("--json"), repo.start("--json"), repo.start("--check", "--json")]
    results = [(p.wait(), json.loads(p.stdout.read())) for p in runs]
    assert [code for code, _ in results] in ([0, 0, 1], [0, 3, 1], [3, 0, 1])
    # One writer carried the three citations. The other found them carried (0), or the wiki busy:
    # then it reported what it read, which may be some pages before the writer's changes and some
    # after. Carried twice, the pages would be wrong.
    counts = [(code, sum(r["translated"].values()) + r["repaired"]) for code, r in results[:2]]
    assert sorted(n for code, n in counts if code == 0) in ([0, 3], [3]), results
    assert all(n <= 3 for code, n in counts if code == 3), results
    assert {rel: repo.read(rel) for rel in PAGES} == expected_pages()
    after = json.loads(repo.run("--check", "--json").stdout)
    assert after["moved"] == {} and lost_of(after) == LOST
    anchors = json.loads(repo.read("docs/.citation-anchors.json"))["pages"]
    assert [r["line_start"] for r in anchors["guide/counter"]] == [3, 4, 6]


def newer_store(repo):
    assert repo.run().returncode == 0
    with sqlite3.connect(repo.root / ".git" / "citation-refresh.db") as db:
        db.execute("PRAGMA user_version = 99")


def test_errors_exit_2_with_one_line(repo):
    cases = [  # (arrange, arguments, words the one error line holds)
        (lambda r: r.write("docs/bad.md", b"# Bad\n\xff\xfe\n"), [],
         ["docs/bad.md", "not valid UTF-8 at byte 6"]),
        (lambda r: r.write("docs/bad.md", b"ok\n\xc3("), ["--check"], ["docs/bad.md", "byte 3"]),
        (lambda r: r.write("docs/.citation-anchors.json", "<<<<<<< HEAD\n"), ["--check"],
         [".citation-anchors.json", "not valid JSON"]),
        (newer_store, [], ["citation-refresh.db", "schema version 99", "newer"]),
        (newer_store, ["--check"], ["citation-refresh.db", "newer"]),
        (lambda r: None, ["--wiki", "nowhere"], ["nowhere", "no such wiki directory"]),
        (lambda r: None, ["--bogus"], ["--bogus"]),
    ]
    make_repo(repo)
    change_code(repo)
    for arrange, args, words in cases:
        repo.git("reset", "-q", "--hard")
        repo.git("clean", "-qfdx")
        for stored in (repo.root / ".git").glob("citation-refresh.db*"):
            stored.unlink()
        change_code(repo)
        arrange(repo)
        before = wiki_state(repo)
        done = repo.run(*args, "--quiet")
        assert done.returncode == 2, (args, words, done.stderr)
        lines = done.stderr.splitlines()
        assert len(lines) == 1 and lines[0].startswith("citation-refresh: error: "), lines
        assert all(w in lines[0] for w in words), (words, lines[0])
        assert wiki_state(repo) == before


def test_outside_git_and_without_anchors(tmp_path):
    outside = Repo(tmp_path)
    no_repo = outside.run()
    assert no_repo.returncode == 2 and "not inside a git work tree" in no_repo.stderr
    outside.write("w/page.md", "See [clamp](/util.py#L1-L2).\n")
    outside.write("util.py", UTIL)
    told = outside.run("--repo", ".", "--wiki", "w", "--branch", "b", "--check")
    # Without an anchors file nothing is anchored yet: --check says so, and what to run.
    assert told.returncode == 1 and "anchoring citations from their prose" in told.stderr
    assert told.stdout.splitlines()[0] == "w/page.md:1:5: util.py#L1-L2 (not anchored yet)"
    quiet = outside.run("--repo", ".", "--wiki", "w", "--branch", "b", "--check", "-q")
    assert quiet.stderr == "" and quiet.returncode == 1
    assert not (tmp_path / ".citation-refresh.db").exists()
    assert outside.run("--repo", ".", "--wiki", "w", "--branch", "b").returncode == 0
    assert outside.run("--repo", ".", "--wiki", "w", "--branch", "b", "--check").returncode == 0



def gtest(suite, name, macro="TEST"):
    return f"{macro}({suite}, {name}) {{\n  EXPECT_EQ(1, 1);\n}}\n"


OVERLOAD_INT = "int f(int value) {\n  return value;\n}\n"
OVERLOAD_STR = "int f(const std::string& s) {\n  return 1;\n}\n"
PARSE = "def parse(x):\n    return x\n"
STUBS = "@overload\ndef parse(x: int) -> int: ...\n@typing.overload\ndef parse(x: str) -> str: ...\n"
CONFIG = ("if TYPE_CHECKING:\n    class Config:\n{}        name: str\nelse:\n    class Config:\n"
          "        def __init__(self):\n            self.name = 'x'\n")

# (what, file, before, after, cited lines before, the lines they must have after; None: lost)
ALIKE = [
    ("a test body given a fixture, tests added above and between", "t_test.cc",
     gtest("BuildTest", "NoWork") + gtest("BuildTest", "Rebuild"),
     "".join(gtest(suite, name, "TEST_F") for suite, name in [
         ("AddedTest", "NoWork"), ("BuildTest", "NoWork"), ("MidTest", "X"),
         ("BuildTest", "Rebuild")]), "L4-L6", "L10-L12"),
    ("an overload added above", "o.cc", OVERLOAD_INT, OVERLOAD_STR + OVERLOAD_INT, "L1-L3",
     "L4-L6"),
    ("@overload stubs added above", "p.py", "import typing\n" + PARSE,
     "import typing\nfrom typing import overload\n" + STUBS + PARSE, "L2-L3", "L7-L8"),
    ("the TYPE_CHECKING twin grown above", "c.py",
     "from typing import TYPE_CHECKING\n" + CONFIG.format(""),
     "from typing import TYPE_CHECKING\n" + CONFIG.format("        a: int\n" * 4), "L6-L8",
     "L10-L12"),
    ("a declaration moved within its file", "m.py", "def a():\n    pass\n" + PARSE,
     PARSE + "def a():\n    pass\n", "L1-L2", "L3-L4"),
    ("a declaration deleted", "d.py", "def a():\n    pass\n" + PARSE, PARSE, "L1-L2", None),
]


def test_alike_named_declarations_are_followed_exactly(repo):
    page = "".join(f"See [{what}](/src/{file}#{lines}).\n"
                   for what, file, _, _, lines, _ in ALIKE)
    for _, file, before, _, _, _ in ALIKE:
        repo.write(f"src/{file}", before)
    repo.write("docs/alike.md", page)
    repo.commit()
    assert repo.run().returncode == 0
    for _, file, _, after, _, _ in ALIKE:
        repo.write(f"src/{file}", after)
    done = repo.run("--json")
    assert done.returncode == 0, done.stderr
    text = repo.read("docs/alike.md")
    for what, file, _, _, lines, moved_to in ALIKE:
        assert f"[{what}](/src/{file}#{moved_to or lines})" in text, (what, text)
    assert [x["path"] for x in json.loads(done.stdout)["lost"]] == ["src/d.py"]


def test_a_store_of_the_previous_index_format_is_reindexed(repo):
    make_repo(repo)
    assert repo.run().returncode == 0
    with sqlite3.connect(repo.root / ".git" / "citation-refresh.db") as db:
        db.execute("DROP TABLE meta")  # as the previous format left it: no format, plain fqns
        db.execute("UPDATE symbols SET fqn = 'Counter::add' WHERE fqn = 'Counter::add(int)'")
    anchors = repo.read("docs/.citation-anchors.json")
    repo.write("docs/.citation-anchors.json", anchors.replace("Counter::add(int)", "Counter::add"))
    change_code(repo)
    done = repo.run("--json")
    assert done.returncode == 0, done.stderr
    assert lost_of(json.loads(done.stdout)) == LOST
    assert {rel: repo.read(rel) for rel in PAGES} == expected_pages()
    assert '"symbol": "Counter::add(int)"' in repo.read("docs/.citation-anchors.json")


OTHER = "def other():\n    p = 1\n    q = 2\n    r = 3\n    return p + q + r\n"
HELPER = "def helper(x):\n    a = 1\n    b = 2\n    return a + b + x\n\n\n" + OTHER
INSIDE = HELPER.replace("    a = 1\n", "    a = 1\n    z = 0\n")  # a line above the cited one


def refresh_dirty_then_edit(repo):
    repo.write("src/h.py", "import os\n" + HELPER)
    assert repo.run().returncode == 0  # refreshed with the change not yet committed
    repo.commit("import")
    repo.write("src/h.py", "import os\n" + INSIDE)


# (what, the change after the first refresh, the page's citations after it; the first cites the
# line `b = 2` inside `helper`, the second all of `other`)
HISTORIES = [
    ("lines inserted inside the declaration above the cited line",
     lambda r: r.write("src/h.py", INSIDE), "/src/h.py#L4) /src/h.py#L8-L12)"),
    ("renamed with git mv and edited", lambda r: (r.git("mv", "src/h.py", "src/k.py"),
                                                  r.write("src/k.py", "import os\n" + HELPER)),
     "/src/k.py#L4) /src/k.py#L8-L12)"),
    ("moved with a plain mv, not added, and edited inside",
     lambda r: ((r.root / "src/h.py").rename(r.root / "src/k.py"), r.write("src/k.py", INSIDE)),
     "/src/k.py#L4) /src/k.py#L8-L12)"),
    ("moved with a plain mv right after a refresh at the same commit",
     lambda r: (r.run(), (r.root / "src/h.py").rename(r.root / "src/k.py")),
     "/src/k.py#L3) /src/k.py#L7-L11)"),
    ("refreshed before a commit, edited after it", refresh_dirty_then_edit,
     "/src/h.py#L5) /src/h.py#L9-L13)"),
    ("moved below a longer declaration and edited inside at once",
     lambda r: r.write("src/h.py", OTHER + "\n\n" + INSIDE[:INSIDE.index("\n\n\ndef other")] + "\n"),
     "/src/h.py#L11) /src/h.py#L1-L5)"),
]


@pytest.mark.parametrize("what,change,expected", HISTORIES, ids=[h[0] for h in HISTORIES])
def test_history_is_carried_and_check_agrees_with_write(repo, what, change, expected):
    repo.write("src/h.py", HELPER)
    repo.write("docs/h.md", "[b](/src/h.py#L3) [other](/src/h.py#L7-L11)\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    change(repo)
    before = repo.snapshot()
    check = repo.run("--check", "--json")
    assert check.returncode == 1, check.stderr
    assert repo.snapshot() == before
    write = repo.run("--json")
    assert write.returncode == 0, write.stderr
    checked, written = json.loads(check.stdout), json.loads(write.stdout)
    assert {k: checked[k] for k in ("lost", "missing", "renamed", "translated")} == {
        k: written[k] for k in ("lost", "missing", "renamed", "translated")}
    assert sum(checked["moved"].values()) == written["repaired"]
    assert re.findall(r"\(([^)]*)\)", repo.read("docs/h.md")) == [
        x.rstrip(")") for x in expected.split()]
    assert not written["lost"] and not written["missing"]
    assert ("k.py" in expected) == bool(written["renamed"])
    assert repo.run("--check").returncode == 0


def test_history_is_not_followed_when_turned_off(repo):
    repo.write("src/h.py", HELPER)
    repo.write("docs/h.md", "[b](/src/h.py#L3)\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    repo.git("mv", "src/h.py", "src/k.py")
    done = repo.run("--no-follow-history", "--json")
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout)["missing"] == [
        {"page_id": "h", "path": "src/h.py", "lines": "L3-L3"}]
    assert repo.read("docs/h.md") == "[b](/src/h.py#L3)\n"
    assert repo.run("--json").returncode == 0  # on by default
    assert repo.read("docs/h.md") == "[b](/src/k.py#L3)\n"


def module(shift):
    """Four functions four lines apart: a shift of 4 makes each one's new lines the next one's old
    lines."""
    lines = ["# moved"] * shift
    for f in range(4):
        lines += [f"def func_{f}(x):", f"    y = x + {f}", "    return y", ""]
    return "\n".join(lines) + "\n"


def cites(shift):
    return "# Funcs\n\n" + "".join(
        f"`func_{f}` adds {f} [func_{f}](/src/mod.py#L{1 + shift + 4 * f}-L{3 + shift + 4 * f}).\n"
        for f in range(4))


@pytest.mark.parametrize("page_written", [True, False])
def test_a_run_stopped_after_storing_its_pages_is_finished_without_moving_twice(repo, page_written):
    repo.write("src/mod.py", module(0))
    repo.write("docs/funcs.md", cites(0))
    assert repo.run().returncode == 0
    repo.commit("anchored")
    repo.write("src/mod.py", module(4))
    assert repo.run().returncode == 0
    assert repo.read("docs/funcs.md") == cites(4)
    finished = {rel: repo.read(rel) for rel in ("docs/funcs.md", "docs/.citation-anchors.json")}

    # What a run leaves that stopped before writing the anchors file (and before writing the
    # page whose new records it stored): the store still knows the committed anchors file.
    repo.git("checkout", "--", "docs/.citation-anchors.json")
    if not page_written:
        repo.git("checkout", "--", "docs/funcs.md")
    anchors = hashlib.sha256((repo.root / "docs/.citation-anchors.json").read_bytes()).hexdigest()
    with sqlite3.connect(repo.root / ".git" / "citation-refresh.db") as db:
        db.execute("UPDATE anchors_files SET seeded = ?, written = NULL", (anchors,))
    done = repo.run()
    assert done.returncode == 0, done.stderr
    assert {rel: repo.read(rel) for rel in finished} == finished


# Between a writing run that changed nothing (and kept its result) and a --check: one input of
# the refresh changes, or none ("nothing", where the kept result is taken).
KEPT_CHANGES = {
    "nothing": lambda r: None,
    "declaration moved": lambda r: r.write("src/counter.cc", CHANGED_COUNTER_CC),
    "declaration renamed": lambda r: r.write(
        "src/shapes.py", SHAPES.replace("def total_area", "def sum_of_areas")),
    "page edited": lambda r: r.write("docs/util.md", PAGES["docs/util.md"].replace("#L1-L2", "#L2")),
    "page removed": lambda r: (r.root / "docs" / "util.md").unlink(),
    "records replaced": lambda r: r.write(
        "docs/.citation-anchors.json",
        r.read("docs/.citation-anchors.json").replace('"symbol": "Counter::add(int)"',
                                                      '"symbol": "Counter::gone(int)"')),
    "program": None,  # another build: the program copied to a new file
}


@pytest.mark.parametrize("what", KEPT_CHANGES)
def test_a_kept_result_stands_only_for_the_same_inputs(repo, what):
    make_repo(repo)
    program = PROGRAM

    def plain(*args):  # no history carried: the refresh alone decides
        return subprocess.run([program, *args], cwd=repo.root, capture_output=True, text=True)

    assert plain().returncode == 0 and plain().returncode == 0
    db = repo.root / ".git" / "citation-refresh.db"
    sentinel = {"page_id": "util", "path": "src/util.py", "lines": "L1-L2", "name": "sentinel"}
    with sqlite3.connect(db) as con:
        assert con.execute("UPDATE kept_refreshes SET result = ?",
                           (json.dumps({"unrepairable": 1, "lost": [sentinel]}),)).rowcount == 1
    if KEPT_CHANGES[what]:
        KEPT_CHANGES[what](repo)
    else:
        program = str(shutil.copy2(shutil.which(PROGRAM) or PROGRAM, repo.root.parent / "copy"))
    got = plain("--check", "--json")
    if what == "nothing":  # a writing run takes it too
        assert json.loads(plain("--json").stdout)["lost"] == [sentinel]
    with sqlite3.connect(db) as con:
        con.execute("DELETE FROM kept_refreshes")
    fresh = plain("--check", "--json")
    if what == "nothing":
        assert json.loads(got.stdout)["lost"] == [sentinel]
        assert json.loads(fresh.stdout)["lost"] == []
    else:
        assert (got.returncode, got.stdout) == (fresh.returncode, fresh.stdout)


PRINTER_CC = """\
#include "printer.h"

StatusPrinter::StatusPrinter(int width) : width_(width) {}

void StatusPrinter::BuildEdgeStarted(int edge) {
  started_ += edge;
}
"""


def test_first_sight_anchors_in_place_and_reports_prose_naming_other_code(repo):
    repo.write("src/printer.cc", PRINTER_CC)
    page = ("`StatusPrinter::BuildEdgeStarted` counts it [start](/src/printer.cc#L6).\n"
            "\n"
            "Unlike `StatusPrinter::StatusPrinter`, this counts [count](/src/printer.cc#L6-L7).\n")
    repo.write("docs/printer.md", page)
    repo.commit()
    check = repo.run("--check", "--json")
    assert check.returncode == 1, check.stderr
    misnamed = [{"page_id": "printer", "page_line": 3,
                 "link": "[count](/src/printer.cc#L6-L7)",
                 "named": "StatusPrinter::StatusPrinter", "named_at": "src/printer.cc#L3-L3"}]
    assert json.loads(check.stdout)["misnamed"] == misnamed
    done = repo.run("--json")
    assert done.returncode == 0, done.stderr
    assert json.loads(done.stdout)["misnamed"] == misnamed
    assert repo.read("docs/printer.md") == page  # correct citations are not moved
    # Anchored as written: the method, followed when lines come above it.
    repo.write("src/printer.cc", PRINTER_CC.replace("\nvoid", "\nint unused = 0;\n\nvoid"))
    assert repo.run().returncode == 0
    assert "[start](/src/printer.cc#L8)" in repo.read("docs/printer.md")
    assert "[count](/src/printer.cc#L8-L9)" in repo.read("docs/printer.md")
