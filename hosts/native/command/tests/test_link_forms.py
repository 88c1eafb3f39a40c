"""Every link form a page may cite with is refreshed across a rename and an edit in its own form."""

import json
import subprocess

import pytest

HELPER = "def helper(x):\n    a = 1\n    b = 2\n    return a + b + x\n\n\n" \
         "def other():\n    p = 1\n    q = 2\n    r = 3\n    return p + q + r\n"
M = "def m():\n    x = 1\n    y = 2\n    return x + y\n"

# A page a folder below the wiki directory: each citation, then what is no citation (left as it is).
FORMS = """# Forms

From the root [root](/src/h.py#L3), from the page [rel](../../src/h.py#L7-L11),
with a dot [dot](./../../src/h.py#L3), in angle brackets with a title
[angle](<../../src/my lib/m.py#L3> "the m"), escaped [esc](../../src/my%20lib/m.py#L3),
with columns [cols](/src/h.py#L3C5-L3C9), and by reference: [the other][o] and [o].
On the forge [gh](https://github.com/o/r/blob/main/src/h.py?plain=1#L3) and
[gl](https://github.com/o/r/-/blob/main/src/h.py#L7-11); a permalink stays
[perma](https://github.com/o/r/blob/0123456/src/h.py#L3).

![image](/src/h.py#L3) <!-- [comment](/src/h.py#L3) --> `[span](/src/h.py#L3)`

    [indented](/src/h.py#L3)

[o]: ../../src/h.py#L7-L11 "other"
"""
MOVED = """# Forms

From the root [root](/src/k.py#L4), from the page [rel](../../src/k.py#L8-L12),
with a dot [dot](./../../src/k.py#L4), in angle brackets with a title
[angle](<../../src/my lib/m.py#L5> "the m"), escaped [esc](../../src/my%20lib/m.py#L5),
with columns [cols](/src/k.py#L4C5-L4C9), and by reference: [the other][o] and [o].
On the forge [gh](https://github.com/o/r/blob/main/src/k.py?plain=1#L4) and
[gl](https://github.com/o/r/-/blob/main/src/k.py#L8-12); a permalink stays
[perma](https://github.com/o/r/blob/0123456/src/h.py#L3).

![image](/src/h.py#L3) <!-- [comment](/src/h.py#L3) --> `[span](/src/h.py#L3)`

    [indented](/src/h.py#L3)

[o]: ../../src/k.py#L8-L12 "other"
"""
PAGES = {
    "docs/guide/forms.md": (FORMS, MOVED),
    "docs/other.markdown": ("[b](../src/h.py#L3)\n", "[b](../src/k.py#L4)\n"),
    "docs/x.mdx": ("[b](./../src/my%20lib/m.py#L2-L3)\n", "[b](./../src/my%20lib/m.py#L4-L5)\n"),
}


def rename_and_edit(repo):
    repo.git("mv", "src/h.py", "src/k.py")
    repo.write("src/k.py", "import os\n" + HELPER)


def edit(repo):
    repo.write("src/h.py", "import os\n" + HELPER)


# (what, the change to src/h.py, options): carried across git's diff before the refresh, or
# followed by the refresh alone from each citation's declaration.
CHANGES = [("renamed and edited, history followed", rename_and_edit, (), "k.py"),
           ("edited, declarations followed", edit, ("--no-follow-history",), "h.py")]


@pytest.mark.parametrize("what,change,options,name", CHANGES, ids=[c[0] for c in CHANGES])
def test_each_form_is_rewritten_in_its_own_form(repo, what, change, options, name):
    repo.git("remote", "add", "origin", "https://github.com/o/r.git")
    repo.write("src/h.py", HELPER)
    repo.write("src/my lib/m.py", M)
    for rel, (text, _) in PAGES.items():
        repo.write(rel, text)
    repo.commit()
    first = repo.run("--json")
    assert first.returncode == 0, first.stderr
    assert not json.loads(first.stdout)["missing"]
    repo.commit("anchors")

    change(repo)
    repo.write("src/my lib/m.py", "import sys\n\n" + M)
    check = repo.run("--check", *options)
    assert check.returncode == 1, check.stderr
    done = repo.run("--json", *options)
    assert done.returncode == 0, done.stderr
    result = json.loads(done.stdout)
    assert not result["lost"] and not result["missing"]
    assert {rel: repo.read(rel) for rel in PAGES} == {
        rel: moved.replace("k.py", name) for rel, (_, moved) in PAGES.items()}
    assert repo.run("--check", *options).returncode == 0


def head(repo):
    return subprocess.run(["git", "rev-parse", "HEAD"], cwd=repo.root, check=True,
                          capture_output=True, text=True).stdout.strip()


GH = "https://github.com/o/r/blob"


def test_forge_links_follow_their_ref_and_permalinks_are_told_then_updated(repo):
    repo.git("remote", "add", "origin", "git@github.com:o/r.git")
    repo.write("src/h.py", HELPER)
    repo.write("src/my lib/m.py", M)
    repo.write("docs/x.md", "x\n")
    repo.commit()
    repo.git("branch", "feature/x")
    old = head(repo)
    page = (f"[b]({GH}/main/src/h.py#L3) [f](https://GitHub.com/o/r/blob/feature/x/src/h.py#L7-L11)\n"
            f"[p]({GH}/{old}/src/h.py#L7-L11) [q]({GH}/{old[:7]}/src/h.py?plain=1#L3)\n"
            f"[gone]({GH}/deadbeefcafe/src/h.py#L3) [else](https://github.com/x/y/blob/main/a.py#L1)\n"
            f"[same]({GH}/{old}/src/my%20lib/m.py#L2)\n")  # its code stands where it says
    repo.write("docs/guide.md", page)
    assert repo.run().returncode == 0
    repo.commit("docs")

    rename_and_edit(repo)
    repo.commit("moved")
    check = repo.run("--check", "--format", "github")
    assert check.returncode == 1, check.stderr
    warnings = [line for line in check.stdout.splitlines() if "title=citation permalink" in line]
    assert warnings == [
        "::warning file=docs/guide.md,line=2,col=1,title=citation permalink::src/h.py#L7-L11: "
        f"permalink to {old[:7]}; the code is at src/k.py#L8-L12 at HEAD",
        "::warning file=docs/guide.md,line=2,col=91,title=citation permalink::src/h.py#L3: "
        f"permalink to {old[:7]}; the code is at src/k.py#L4 at HEAD",
        "::warning file=docs/guide.md,line=3,col=1,title=citation permalink::src/h.py#L3: "
        "permalink to deadbee; a commit this clone does not have"], check.stdout

    assert repo.run().returncode == 0
    followed = page.replace("main/src/h.py#L3", "main/src/k.py#L4").replace(
        "feature/x/src/h.py#L7-L11", "feature/x/src/k.py#L8-L12")
    assert repo.read("docs/guide.md") == followed
    assert repo.run("--check").returncode == 0  # permalinks are frozen: told, not stale

    assert repo.run("--check", "--update-permalinks").returncode == 1
    done = repo.run("--update-permalinks", "--json")
    assert done.returncode == 0, done.stderr
    result = json.loads(done.stdout)
    now = head(repo)
    assert [(f["kind"], f["line"], f["commit"], f["new_commit"], f["new_path"], f["new_lines"])
            for f in result["findings"]] == [
        ("permalink", 2, old, now, "src/k.py", {"start": 8, "end": 12}),
        ("permalink", 2, old, now[:7], "src/k.py", {"start": 4, "end": 4}),
        ("permalink", 3, "deadbeefcafe", None, None, None)]
    assert result["pages_written"] == 1
    assert repo.read("docs/guide.md") == followed.replace(
        f"{old}/src/h.py#L7-L11", f"{now}/src/k.py#L8-L12").replace(
        f"{old[:7]}/src/h.py?plain=1#L3", f"{now[:7]}/src/k.py?plain=1#L4")
    assert repo.run("--check", "--update-permalinks").returncode == 0


def test_gitlab_links_by_forge_url(repo):
    repo.write("src/h.py", HELPER)
    repo.commit()
    base = "https://gitlab.example.com/g/sub/r/-/blob/main/src/h.py"
    repo.write("docs/g.md", f"[a]({base}#L7-11) [b]({base}#L3)\n")
    url = ("--forge-url", "https://gitlab.example.com/g/sub/r")
    assert repo.run(*url).returncode == 0
    edit(repo)
    assert repo.run(*url).returncode == 0
    assert repo.read("docs/g.md") == f"[a]({base}#L8-12) [b]({base}#L4)\n"
    bad = repo.run("--forge-url", "nowhere")
    assert bad.returncode == 2 and "--forge-url: nowhere names no host" in bad.stderr
