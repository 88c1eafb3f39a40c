"""Every link form a page may cite with is refreshed across a rename and an edit in its own form."""

import json

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

![image](/src/h.py#L3) <!-- [comment](/src/h.py#L3) --> `[span](/src/h.py#L3)`

    [indented](/src/h.py#L3)

[o]: ../../src/h.py#L7-L11 "other"
"""
MOVED = """# Forms

From the root [root](/src/k.py#L4), from the page [rel](../../src/k.py#L8-L12),
with a dot [dot](./../../src/k.py#L4), in angle brackets with a title
[angle](<../../src/my lib/m.py#L5> "the m"), escaped [esc](../../src/my%20lib/m.py#L5),
with columns [cols](/src/k.py#L4C5-L4C9), and by reference: [the other][o] and [o].

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
