"""The workflow on more than one branch: what each citation was placed against travels with it,
so that any branch, any clone (a shallow one too) and any merge carries and checks it alike, and
the committed anchors file is the state."""

import json
import re
import subprocess

from conftest import Repo

HELPER = "def helper(x):\n    a = 1\n    b = 2\n    return a + b + x\n"
INSIDE = HELPER.replace("    a = 1\n", "    a = 1\n    z = 0\n")  # a line above the cited one
OTHER = "def other():\n    p = 1\n    q = 2\n    return p + q\n"


def links(repo, page):
    return re.findall(r"\]\(([^)]*)\)", repo.read(page))


def test_branches_carry_check_and_merge_alike(repo, tmp_path):
    repo.write("src/h.py", HELPER)
    repo.write("src/o.py", OTHER)
    repo.write("docs/h.md", "`helper` adds [b](/src/h.py#L3).\n")
    repo.write("docs/o.md", "`other` sums [q](/src/o.py#L3).\n")
    repo.commit()
    assert repo.run().returncode == 0
    anchors = json.loads(repo.read("docs/.citation-anchors.json"))
    assert "refreshed" not in anchors and anchors["version"] == 2
    assert all("blob" in r and "text" in r for rs in anchors["pages"].values() for r in rs)
    repo.commit("anchors")
    assert repo.run("--check").returncode == 0

    # A feature branch inserts a line inside the cited function, above the cited line.
    repo.git("switch", "-q", "-c", "feat")
    repo.write("src/h.py", INSIDE)
    repo.commit("inside")
    check = repo.run("--check")
    assert check.returncode == 1, check.stderr
    assert "docs/h.md:1:15: src/h.py#L3 -> #L4 (would be carried)" in check.stdout.splitlines()

    # A fresh shallow clone of the branch (no local store, no older blobs) tells the same.
    clone = Repo(tmp_path / "clone")
    subprocess.run(["git", "clone", "-q", "--depth", "1", "--branch", "feat",
                    f"file://{repo.root}", str(clone.root)], check=True)
    in_clone = clone.run("--check")
    assert in_clone.returncode == 1, in_clone.stderr
    assert in_clone.stdout == check.stdout

    written = repo.run()
    assert written.returncode == 0, written.stderr
    assert links(repo, "docs/h.md") == ["/src/h.py#L4"]
    repo.commit("carried")
    assert repo.run("--check").returncode == 0

    # main moves the other page's citation; the two branches' anchors files merge cleanly.
    repo.git("switch", "-q", "main")
    repo.write("src/o.py", "import os\n\n" + OTHER)
    assert repo.run().returncode == 0
    assert links(repo, "docs/o.md") == ["/src/o.py#L5"]
    repo.commit("other moved")
    repo.git("merge", "-q", "--no-edit", "feat")  # raises on a conflict
    assert links(repo, "docs/h.md") == ["/src/h.py#L4"]
    merged = repo.run("--check")
    assert (merged.returncode, merged.stdout) == (0, "all citations are current\n"), merged.stdout


def test_the_committed_anchors_file_rules_over_the_store(repo):
    repo.write("src/h.py", HELPER + "\n\n" + OTHER)
    repo.write("docs/h.md", "[b](/src/h.py#L3) [q](/src/h.py#L9)\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    file = repo.root / "docs/.citation-anchors.json"

    # A record edited by hand takes effect though the store holds the old one.
    file.write_text(file.read_text().replace('"symbol": "helper"', '"symbol": "gone"').replace(
        '"name": "helper"', '"name": "gone"'))
    edited = repo.run("--json")
    assert [x["name"] for x in json.loads(edited.stdout)["lost"]] == ["gone"], edited.stdout

    # The lost record removed by hand: the citation is not anchored yet, and a writing run
    # anchors it anew instead of taking the store's lost record back.
    pages = json.loads(file.read_text())
    pages["pages"]["h"] = [r for r in pages["pages"]["h"] if r["line_start"] != 3]
    file.write_text(json.dumps(pages))
    removed = repo.run("--check")
    assert removed.returncode == 1
    assert "docs/h.md:1:1: src/h.py#L3 (not anchored yet)" in removed.stdout.splitlines()
    anchored = repo.run("--json")
    assert json.loads(anchored.stdout)["lost"] == [], anchored.stdout
    assert repo.run("--check").returncode == 0
    assert '"symbol": "helper"' in file.read_text()


def test_an_anchors_file_of_the_first_format_is_carried_from_and_rewritten(repo):
    repo.write("src/h.py", HELPER)
    repo.write("docs/h.md", "[b](/src/h.py#L3)\n")
    repo.commit()
    assert repo.run().returncode == 0
    commit = subprocess.run(["git", "rev-parse", "HEAD"], cwd=repo.root, capture_output=True,
                            text=True, check=True).stdout.strip()
    file = repo.root / "docs/.citation-anchors.json"
    old = json.loads(file.read_text())
    for records in old["pages"].values():
        for record in records:
            del record["blob"], record["text"]
    old["version"] = 1
    old["refreshed"] = {"main": {"commit": commit, "clean": True}}
    file.write_text(json.dumps(old))
    repo.commit("anchors of the first format")
    (repo.root / ".git" / "citation-refresh.db").unlink()
    repo.write("src/h.py", INSIDE)
    assert repo.run().returncode == 0
    assert links(repo, "docs/h.md") == ["/src/h.py#L4"]  # carried from the old mark's commit
    assert json.loads(file.read_text())["version"] == 2
