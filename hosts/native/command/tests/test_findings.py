"""The findings a person and a CI act on: one per citation on its page, as compiler-style lines,
GitHub workflow annotations and JSON, each at the page line and column of its link."""

import json
import pathlib
import re

import pytest

from conftest import Repo

CODE = "def alpha():\n    return 1\n\n\ndef beta():\n    return 2\n"
# The citation is on lines 3 and 4, never at column 1, and twice, so that each place is told.
PAGE = "# Guide\n\nIntró: `{name}` is here {link}.\nAgain, said twice: {link}.\n"
README = pathlib.Path(__file__).resolve().parents[1] / "README.md"


def prepend(repo):
    repo.write("src/a.py", "import os\n\n" + CODE)


def drop_alpha(repo):
    repo.write("src/a.py", CODE.split("\n\n\n")[1])


def rename(repo):
    repo.git("mv", "src/a.py", "src/b.py")


def drop_beta(repo):
    repo.write("src/a.py", CODE.split("\n\n\n")[0] + "\n")


def rename_and_prepend(repo):
    rename(repo)
    repo.write("src/b.py", "import os\n\n" + CODE)


def forget_anchors(repo):
    (repo.root / "docs/.citation-anchors.json").unlink()


# name: (target, prose name, anchored first, change, args, kind, what the line says after the
# citation, new lines)
CASES = {
    "moved": ("/src/a.py#L1-L2", "alpha", True, prepend, ["--check", "--no-follow-history"],
              "moved", "src/a.py#L1-L2 -> #L3-L4 (would move)", (3, 4)),
    "moved, written": ("/src/a.py#L1-L2", "alpha", True, prepend, ["--no-follow-history"],
                       "moved", "src/a.py#L1-L2 -> #L3-L4 (moved)", (3, 4)),
    "carried": ("/src/a.py#L1-L2", "alpha", True, prepend, ["--check"],
                "carried", "src/a.py#L1-L2 -> #L3-L4 (would be carried)", (3, 4)),
    "renamed": ("/src/a.py#L1-L2", "alpha", True, rename, ["--check"], "renamed",
                "src/a.py#L1-L2 -> src/b.py#L1-L2 (would follow its renamed file)", (1, 2)),
    "lost": ("/src/a.py#L1-L2", "alpha", True, drop_alpha, ["--check"],
             "lost", "src/a.py#L1-L2 (lost: {reason})", None),
    # A citation carried and led to its file's new path is one finding, found by its written
    # relative link; one whose declaration went with the end of its file is lost, not invalid.
    "renamed and carried": ("../src/a.py#L1-L2", "alpha", True, rename_and_prepend, ["--check"],
                            "renamed",
                            "src/a.py#L1-L2 -> src/b.py#L3-L4 (would follow its renamed file)",
                            (3, 4)),
    "lost past the end": ("/src/a.py#L5-L6", "beta", True, drop_beta, ["--check"],
                          "lost", "src/a.py#L5-L6 (lost: {reason})", None),
    "missing": ("/src/nope.py#L1-L2", "alpha", True, None, ["--check"],
                "missing", "src/nope.py#L1-L2 (missing file)", None),
    "unanchored": ("/src/a.py#L5", "beta", True, forget_anchors, ["--check"],
                   "unanchored", "src/a.py#L5 (not anchored yet)", None),
    "misnamed": ("/src/a.py#L1-L2", "beta", False, None, [], "misnamed",
                 "src/a.py#L1-L2 (the prose names `beta`, at src/a.py#L5-L6, which does not "
                 "hold these lines; anchored as written)", None),
    "line 0": ("/src/a.py#L0", "alpha", False, None, [],
               "invalid", "src/a.py#L0 (invalid: line 0 is no line; lines count from 1)", None),
    "reversed": ("/src/a.py#L2-L1", "alpha", False, None, [], "invalid",
                 "src/a.py#L2-L1 (invalid: the range is reversed: L2 comes after L1)", None),
    "past the end": ("/src/a.py#L40-L41", "alpha", False, None, [], "invalid",
                     "src/a.py#L40-L41 (invalid: past the end of the file, which has 6 lines)",
                     None),
}


def arrange(repo, case):
    target, name, anchored, change, args, *_ = CASES[case]
    repo.write("src/a.py", CODE)
    repo.write("docs/guide.md", PAGE.format(name=name, link=f"[{name}]({target})"))
    repo.commit()
    if anchored:
        assert repo.run().returncode == 0
        repo.commit("anchors")
    if change:
        change(repo)
    return args


def places(text, link):
    """(line, column) of each place of `link` in `text`, 1-based."""
    return [(n, line.index(link) + 1) for n, line in enumerate(text.splitlines(), 1)
            if link in line]


@pytest.mark.parametrize("case", CASES)
@pytest.mark.parametrize("form", ["text", "github", "json"])
def test_each_finding_at_each_place_of_its_link(repo, case, form):
    target, name, _, _, _, kind, said, new_lines = CASES[case]
    args = arrange(repo, case)
    link = f"[{name}]({target})"
    where = places(repo.read("docs/guide.md"), link)
    assert len(where) == 2
    done = repo.run(*args, *(["--json"] if form == "json" else ["--format", form]))
    checking = "--check" in args
    assert done.returncode == (1 if checking else 0), done.stderr
    if not checking and kind == "invalid":  # never rewritten
        assert link in repo.read("docs/guide.md")

    if form == "json":
        result = json.loads(done.stdout)
        assert result["version"] == 1 and result["stale"] is (kind != "moved" or checking)
        assert [(f["line"], f["column"]) for f in result["findings"]] == where
        for f in result["findings"]:
            assert (f["page"], f["page_id"], f["kind"]) == ("docs/guide.md", "guide", kind)
            # As written; as the run wrote it.
            assert f["link"] == (link.replace("#L1-L2", "#L3-L4") if kind == "moved" and
                                 not checking else link)
            first, last = re.search(r"#L(\d+)(?:-L(\d+))?", target).groups()
            assert f["lines"] == {"start": int(first), "end": int(last or first)}
            assert f["new_lines"] == (
                {"start": new_lines[0], "end": new_lines[1]} if new_lines else None)
            assert f["new_path"] == ("src/b.py" if kind == "renamed" else None)
            assert f["action"] is (kind != "moved" or checking)
        return

    reason = ""
    if kind == "lost":
        reason = json.loads(repo.run(*args, "--json").stdout)["findings"][0]["reason"]
        assert f"`{name}`" in reason
    said = said.format(reason=reason)
    lines = done.stdout.splitlines()
    if form == "text":
        assert lines[:2] == [f"docs/guide.md:{line}:{col}: {said}" for line, col in where]
    else:
        level = "warning" if kind == "moved" and not checking else "error"
        for got, (line, col) in zip(lines[:2], where):
            head = f"::{level} file=docs/guide.md,line={line},col={col},title=citation {kind}::"
            assert got.startswith(head), got
            assert got[len(head):].startswith(said.split(" ")[0] + ": "), got
    # Then the summary, and what to do, if anything.
    assert len(lines) == (3 if kind == "moved" and not checking else 4), lines
    assert not lines[2].startswith(("docs/", "::"))
    assert len(lines) == 3 or re.search(r"run citation-refresh|by hand", lines[3]), lines


def test_github_escapes_page_and_message(repo):
    repo.write("src/a.py", CODE)
    repo.write("docs/x,y:z.md", "Odd [p](/src/50%25.py#L1).\n")
    repo.commit()
    done = repo.run("--check", "--format", "github", "--quiet")
    assert done.returncode == 1, done.stderr
    assert done.stdout == ("::error file=docs/x%2Cy%3Az.md,line=1,col=5,title=citation missing"
                           "::src/50%25.py#L1: src/50%25.py is not in the repository\n")


def test_no_findings_is_current_and_not_stale(repo):
    arrange(repo, "moved")
    assert repo.run().returncode == 0
    check = repo.run("--check")
    assert (check.returncode, check.stdout) == (0, "all citations are current\n")
    result = json.loads(repo.run("--check", "--json").stdout)
    assert (result["stale"], result["findings"]) == (False, [])


def test_repo_that_is_no_git_work_tree_says_so(tmp_path):
    plain = Repo(tmp_path / "plain")
    plain.write("docs/page.md", "[a](/a.py#L1)\n")
    done = plain.run("--repo", str(plain.root))
    assert done.returncode == 2
    assert done.stderr.splitlines() == [
        f"citation-refresh: error: {plain.root}: not a git work tree (--repo); pass --branch "
        "NAME to refresh it without git"]


def documented(table):
    """The members and types a README table documents: {name: type}."""
    text = README.read_text()
    body = text[text.index(table):].split("\n\n")[1]
    return {m[1]: m[2] for m in re.finditer(r"^\| `(\w+)` \| ([\w ,|]+?) \|", body, re.M)}


TYPES = {"integer": int, "boolean": bool, "string": str, "list": list, "object": dict,
         "lines": dict, "null": type(None)}


def has_type(value, declared):
    kinds = [TYPES[t.strip()] for t in declared.replace(" or ", "|").split("|")]
    if isinstance(value, bool) and bool not in kinds:
        return False
    return isinstance(value, tuple(kinds)) and (
        not isinstance(value, dict) or "lines" not in declared or
        (set(value) == {"start", "end"} and all(type(v) is int for v in value.values())))


@pytest.mark.parametrize("case", ["moved", "renamed", "lost", "line 0"])
def test_json_has_each_documented_member_of_its_documented_type(repo, case):
    args = arrange(repo, case)
    result = json.loads(repo.run(*args, "--json").stdout)
    top, finding = documented("JSON members"), documented("Finding members")
    assert {"version", "stale", "findings"} <= set(top) and {"line", "column"} <= set(finding)
    assert set(result) - {"unanchored"} == set(top) - {"unanchored"}
    for name, declared in top.items():
        if name in result:
            assert has_type(result[name], declared), (name, result[name])
    assert result["findings"]
    for f in result["findings"]:
        assert list(f) == list(finding)
        for name, declared in finding.items():
            assert has_type(f[name], declared), (name, f[name])
