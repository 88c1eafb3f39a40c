"""A citation is given new lines only where they hold text like what it cited: a landing that
holds other code is reported lost with the reason, and the link stays as written."""

import json

import pytest

LONG = "class Long:\n    def run(self):\n        a = 1\n        return a\n\n\n"
SHORT = "class Short:\n    def run(self):\n        return 2\n"
BODY = "".join(f"    v{i} = {i}\n" for i in range(8))
FUNC = "def work():\n" + BODY + "    return v0\n"  # L1-L10

# (what, code before, code after, cited lines, the link after ("" when unchanged), the reason)
CASES = [
    ("a method deleted, a same-named one in another class", LONG + SHORT,
     "class Long:\n    pass\n\n\n" + SHORT, "L2-L4", "",
     "`Long.run` is gone; `Short.run` is at src/a.py#L6-L7"),
    ("the cited lines rewritten, the range clamped", FUNC,
     "def work():\n    return 0\n", "L4-L9", "", "the cited lines changed beyond recognition"),
    ("a whole declaration moved with its body edited", FUNC,
     "import os\n\n" + FUNC.replace("v3 = 3", "v3 = 33"), "L1-L10", "L3-L12", None),
    ("lines inside moved, one of four edited", FUNC,
     "import os\n\n" + FUNC.replace("v3 = 3", "v3 = 33"), "L3-L6", "L5-L8", None),
    ("lines inside moved, three of four edited", FUNC,
     "import os\n\n" + FUNC.replace("= 2", "= 22").replace("= 3", "= 33").replace("= 4", "= 44"),
     "L3-L6", "", "the cited lines changed beyond recognition"),
]


@pytest.mark.parametrize("what,before,after,lines,moved,reason", CASES, ids=[c[0] for c in CASES])
def test_a_landing_is_taken_only_on_text_like_the_cited(repo, what, before, after, lines, moved,
                                                        reason):
    start, end = lines[1:].split("-L")
    link = f"/src/a.py#L{start}-L{end}"
    repo.write("src/a.py", before)
    repo.write("docs/p.md", f"See [it]({link}).\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    repo.write("src/a.py", after)
    check = repo.run("--check", "--json", "--no-follow-history")
    written = repo.run("--json", "--no-follow-history")
    assert written.returncode == 0, written.stderr
    for result in (json.loads(check.stdout), json.loads(written.stdout)):
        assert [x.get("reason") for x in result["lost"]] == ([reason] if reason else [])
    want = f"/src/a.py#L{moved[1:].replace('-L', '-L')}" if moved else link
    assert repo.read("docs/p.md") == f"See [it]({want}).\n"
    if reason:
        again = repo.run("--json", "--no-follow-history")  # lost stays lost
        assert [x.get("reason") for x in json.loads(again.stdout)["lost"]] == [reason]


def test_a_gone_declaration_is_not_lent_an_alike_namesake(repo):
    """Another class's method of the same name and text that stood elsewhere when the citation
    was placed is another declaration: following history, the citation is lost."""
    twins = "class A:\n    def run(self):\n        return 1\n\n\nclass B:\n    def run(self):\n        return 1\n"
    repo.write("src/a.py", twins)
    repo.write("docs/p.md", "See [it](/src/a.py#L2-L3).\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    repo.write("src/a.py", twins[twins.index("class B"):])
    written = repo.run("--json")
    assert [x.get("reason") for x in json.loads(written.stdout)["lost"]] == [
        "`A.run` is gone; `B.run` is at src/a.py#L2-L3"], written.stdout
    assert repo.read("docs/p.md") == "See [it](/src/a.py#L2-L3).\n"
