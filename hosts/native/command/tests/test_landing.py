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


ANON = "namespace {\nstruct S {\n  void f(int x) {\n    g(x);\n  }\n};\n}  // namespace\n"
CTOR = "class A {\n public:\n  A(int x)\n      : x_(x) {}\n  int x_;\n};\n"
PAIR = "void f(int x) {\n  g(x);\n}\n\nvoid f(double x) {\n  h(x);\n}\n"

# (what, code before, code after, cited lines, the link after, the reason a loss gives)
SIGNATURES = [
    ("an anonymous namespace added before the cited one, which the index names by number", ANON,
     "namespace {\nint k;\n}  // namespace\n\n" + ANON.replace("int x", "long x").replace("g(x)", "h(x + 1)"),
     "L3-L5",
     "L7-L9", None),
    ("a constructor's parameter type changed, its class moved down", CTOR,
     "#include <cstdint>\n\n" + CTOR.replace("A(int x)", "A(std::int64_t x)"), "L3-L4", "L5-L6",
     None),
    ("a one-line constructor's parameter type changed, its class moved down",
     CTOR.replace("(int x)\n     ", "(int x)"), "#include <cstdint>\n\n" + CTOR.replace(
         "A(int x)\n     ", "A(std::int64_t x)"), "L3", "L5", None),
    ("of two overloads the cited one deleted, the other's parameter type changed", PAIR,
     "void f(long x) {\n  h(x);\n}\n", "L1-L3", "L1-L3", "`f(int)` is gone; `f(long)` is at"),
]


@pytest.mark.parametrize("what,before,after,lines,moved,reason", SIGNATURES,
                         ids=[c[0] for c in SIGNATURES])
def test_a_declaration_whose_signature_changed_is_followed(repo, what, before, after, lines,
                                                           moved, reason):
    """A qualified name that changed only in its parameter types, or in the number the index gives
    an anonymous namespace, is the same declaration: its citations follow it. Not when another
    declaration of the name stood elsewhere when the citation was placed."""
    repo.write("src/a.cc", before)
    repo.write("docs/p.md", f"See [f](/src/a.cc#{lines}).\n")
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    repo.write("src/a.cc", after)
    check = repo.run("--check", "--json")
    written = repo.run("--json")
    assert written.returncode == 0, written.stderr
    for result in (json.loads(check.stdout), json.loads(written.stdout)):
        got = [x.get("reason", "") for x in result["lost"]]
        assert got == [] if reason is None else got[0].startswith(reason), result["lost"]
    assert repo.read("docs/p.md") == f"See [f](/src/a.cc#{moved}).\n"


def test_a_move_onto_the_lines_another_citation_keeps_is_held_back(repo):
    # `h` moves up onto the lines of `g`, which is gone: the two links would become one.
    repo.write("src/a.py", "def g():\n    return 1\n\n\ndef h():\n    return 2\n")
    page = "`g` [g](/src/a.py#L1-L2) and `h` [h](/src/a.py#L5-L6).\n"
    repo.write("docs/p.md", page)
    repo.commit()
    assert repo.run().returncode == 0
    repo.commit("anchors")
    repo.write("src/a.py", "def h():\n    return 2\n")
    for options in ((), ("--no-follow-history",)):
        check = repo.run("--check", "--json", *options)
        assert check.returncode == 1
        lost = {x["lines"]: x.get("reason") for x in json.loads(check.stdout)["lost"]}
        assert lost == {"L1-L2": None, "L5-L6": "its code is at src/a.py#L1-L2 now, lines that "
                        "another citation of this page cites; settle that one first"}, options
        # Its old lines are past the file's end now, yet it is lost (its code moved), not invalid.
        kinds = {x["lines"]["start"]: x["kind"] for x in json.loads(check.stdout)["findings"]}
        assert kinds == {1: "lost", 5: "lost"}, options
        assert repo.run(*options).returncode == 0
        assert repo.read("docs/p.md") == page
    repo.write("docs/p.md", page.replace("`g` [g](/src/a.py#L1-L2) and ", ""))
    assert repo.run().returncode == 0
    assert repo.read("docs/p.md") == "`h` [h](/src/a.py#L1-L2).\n"


MODULE = "import os\nLIMIT = 10\n\n\ndef run():\n    return LIMIT\n"


# A citation of lines no declaration holds: anchored where it stands, though its prose names a
# declaration nearby; carried across git's diff by its lines; lost when they change.
# (what, code after, the link after, the reason it is lost)
ALONE = [("lines added above", '"""Doc."""\nimport sys\n' + MODULE, "L4", None),
         ("its line changed", MODULE.replace("LIMIT = 10", "MAXIMUM = 99"), "L2",
          "the cited lines changed beyond recognition")]


@pytest.mark.parametrize("what,after,moved,reason", ALONE, ids=[c[0] for c in ALONE])
def test_a_citation_no_declaration_holds_follows_its_lines(repo, what, after, moved, reason):
    repo.write("src/a.py", MODULE)
    page = "The limit [limit](/src/a.py#L2), and `run` is below [it](/src/a.py#L3).\n"
    repo.write("docs/p.md", page)
    repo.commit()
    assert repo.run().returncode == 0
    assert repo.read("docs/p.md") == page  # first sight: in place, `run` notwithstanding
    repo.commit("anchors")
    repo.write("src/a.py", after)
    done = repo.run("--json")
    assert done.returncode == 0, done.stderr
    assert [x.get("reason") for x in json.loads(done.stdout)["lost"]] == (
        [reason] if reason else [])
    assert repo.read("docs/p.md").startswith(f"The limit [limit](/src/a.py#{moved}),")
