"""Repositories someone else controls: links out of the repository, files the command cannot
read, odd bytes in pages and in file names. Nothing is written outside the repository, no file of
the user's is replaced, and every byte not asked to change stays."""

import os
import sqlite3

import pytest

CODE = "def clamp(value, low, high):\n    return max(low, min(value, high))\n"
MOVED_CODE = "\n\n" + CODE
PAGE = "`clamp` bounds a value [clamp](/src/util.py#L1-L2).\n"
DIGESTS = '{\n  "page": {\n    "citations": [\n      {\n        "path": "src/util.py",\n' \
          '        "line_start": 1,\n        "line_end": 2\n      }\n    ]\n  }\n}'


def refreshed(repo, page=PAGE, digests=None, commit=True):
    """A repository whose page was refreshed once, then its code moved down two lines."""
    repo.write("src/util.py", CODE)
    repo.write("docs/page.md", page)
    if digests is not None:
        repo.write("docs/digests.json", digests)
    if commit:
        repo.commit()
    done = repo.run()
    assert done.returncode == 0, done.stderr
    if commit:
        repo.commit()
    repo.write("src/util.py", MOVED_CODE)


def error_line(done):
    lines = [line for line in done.stderr.splitlines() if "error:" in line]
    assert len(lines) == 1, done.stderr
    assert "json.exception" not in done.stderr and "what()" not in done.stderr
    return lines[0]


# ---- Links out of the repository, and links inside it ------------------------------------------

@pytest.mark.parametrize("case", ["old lock place", "wiki folder", "digests file", "journal",
                                  "anchors file"])
def test_no_write_follows_a_link_out(repo, tmp_path, case):
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "victim").write_text("keep me")
    repo.write("src/util.py", CODE)
    links = {"old lock place": "docs/.citation-refresh.lock", "digests file": "docs/digests.json",
             "journal": "docs/.digests-pending.json", "anchors file": "docs/.citation-anchors.json"}
    if case == "wiki folder":
        (outside / "page.md").write_text(PAGE)
        os.symlink(outside, repo.root / "docs")
    else:
        repo.write("docs/page.md", PAGE)
        repo.write("docs/digests.json", DIGESTS)
        (repo.root / links[case]).unlink(missing_ok=True)
        target = outside / ("victim" if case != "journal" else "created")
        os.symlink(target, repo.root / links[case])
    if case == "old lock place":
        assert repo.run().returncode == 0  # anchored where it stands
    repo.commit()
    repo.write("src/util.py", MOVED_CODE)
    done = repo.run("--no-follow-history")
    if case == "old lock place":  # the lock is not there any more: the run goes on
        assert done.returncode == 0, done.stderr
        assert "L3-L4" in repo.read("docs/page.md")
    else:
        assert done.returncode == 2
        line = error_line(done)
        assert ("docs: the wiki folder leads outside" if case == "wiki folder"
                else links[case] + ": a symbolic link to") in line, line
        assert "L1-L2" in (outside / "page.md" if case == "wiki folder"
                           else repo.root / "docs/page.md").read_text()
    assert sorted(p.name for p in outside.iterdir()) == sorted(
        ["victim"] + (["page.md"] if case == "wiki folder" else []))
    assert (outside / "victim").read_text() == "keep me"


def test_a_linked_page_is_refreshed_through_its_target_and_stays_a_link(repo):
    repo.write("src/util.py", CODE)
    repo.write("docs/page.md", PAGE)
    os.symlink("page.md", repo.root / "docs/alias.md")
    os.makedirs(repo.root / "docs/sub")
    os.symlink("../page.md", repo.root / "docs/sub/again.md")
    repo.commit()
    assert repo.run().returncode == 0
    repo.write("src/util.py", MOVED_CODE)
    done = repo.run("--no-follow-history", "--json")
    assert done.returncode == 0, done.stderr
    assert '"pages_written": 1' in done.stdout
    assert repo.read("docs/page.md") == PAGE.replace("L1-L2", "L3-L4")
    assert os.readlink(repo.root / "docs/alias.md") == "page.md"
    assert os.readlink(repo.root / "docs/sub/again.md") == "../page.md"


def test_the_write_lock_lives_in_the_git_directory(repo):
    refreshed(repo)
    assert repo.run().returncode == 0
    assert not any(".lock" in p.name for p in (repo.root / "docs").iterdir())
    assert (repo.root / ".git/citation-refresh/docs.lock").is_file()


def test_a_store_inside_the_wiki_is_refused(repo):
    refreshed(repo)
    done = repo.run("--db", "docs/store.db")
    assert done.returncode == 2
    assert "docs/store.db: the store would lie inside the wiki folder" in error_line(done)
    assert not (repo.root / "docs/store.db").exists()


# ---- Files the command cannot read ---------------------------------------------------------------

@pytest.mark.parametrize("file,text,where", [
    ("digests.json", DIGESTS[:40], "line 4, column 8: not valid JSON"),
    ("digests.json", "{\n  \"page\": {,}\n}", "line 2, column 12: not valid JSON"),
    ("digests.json", "\ufeff" + DIGESTS, "line 1, column 1: a byte-order mark"),
    ("digests.json", b"{\"p\xe9ge\": {}}", "line 1, column 4: not UTF-8"),
    ("digests.json", "[]\n", "line 1, column 1: not a JSON object"),
    (".citation-anchors.json", "{\n<<<<<<< HEAD\n}\n", "line 2, column 1: not valid JSON"),
], ids=["truncated", "comma", "bom", "latin-1", "list", "conflict"])
@pytest.mark.parametrize("mode", [[], ["--check"]], ids=["write", "check"])
def test_an_unreadable_state_file_stops_the_run_before_any_write(repo, file, text, where, mode):
    refreshed(repo, digests=DIGESTS)
    repo.write("docs/" + file, text)
    before = repo.snapshot()
    done = repo.run(*mode)
    assert done.returncode == 2
    assert f"docs/{file}: {where}" in error_line(done)
    assert repo.snapshot() == before


def test_no_digest_file_is_made_where_there_was_none(repo):
    refreshed(repo)
    for args in [["--no-follow-history"], []]:
        repo.write("src/util.py", CODE)
        assert repo.run().returncode == 0
        repo.write("src/util.py", MOVED_CODE)
        done = repo.run(*args)
        assert done.returncode == 0, done.stderr
        assert "L3-L4" in repo.read("docs/page.md")
        assert not (repo.root / "docs/digests.json").exists()


@pytest.mark.parametrize("damage", ["garbage", "truncated"])
@pytest.mark.parametrize("mode", [[], ["--check"]], ids=["write", "check"])
def test_an_unreadable_store_is_set_aside_and_rebuilt(repo, damage, mode):
    refreshed(repo)
    db = repo.root / ".git/citation-refresh.db"
    sqlite3.connect(db).execute("PRAGMA wal_checkpoint(TRUNCATE)").close()
    data = db.read_bytes()
    db.write_bytes(b"not a database at all " * 100 if damage == "garbage" else data[:1500])
    done = repo.run(*mode)
    assert done.returncode == (1 if mode else 0), done.stderr
    assert "not a readable database" in done.stderr
    if mode:
        assert "L1-L2" in repo.read("docs/page.md")
    else:
        assert "set aside as" in done.stderr
        assert "L3-L4" in repo.read("docs/page.md")
        assert (repo.root / ".git/citation-refresh.db.unreadable").exists()
        assert repo.run("--check").returncode == 0


# ---- Bytes nobody asked to change ----------------------------------------------------------------

PAGES = {
    "crlf": "`clamp` bounds\r\na value [clamp](/src/util.py#L1-L2).\r\n\r\nmore\r\n",
    "mixed": "`clamp`\r\nbounds\na value [clamp](/src/util.py#L1-L2).\rmore\r\nend\n",
    "bom": "\ufeff`clamp` bounds a value [clamp](/src/util.py#L1-L2).\n",
    "no final newline": "`clamp` bounds\na value [clamp](/src/util.py#L1-L2).",
    "crlf, no final": "`clamp` bounds\r\na value [clamp](/src/util.py#L1-L2).",
    "tabs and spaces": "\t`clamp` bounds  \t\n a value [clamp](/src/util.py#L1-L2).   \n\t\n",
}


@pytest.mark.parametrize("path", ["refresh", "carrying", "rename"])
@pytest.mark.parametrize("name", list(PAGES))
def test_every_byte_not_asked_for_stays(repo, name, path):
    page = PAGES[name].encode()
    refreshed(repo, page=page)
    args = []
    if path == "refresh":
        args = ["--no-follow-history"]
    elif path == "rename":
        repo.write("src/util.py", CODE)
        repo.git("mv", "src/util.py", "src/tools.py")
    done = repo.run(*args)
    assert done.returncode == 0, done.stderr
    want = page.replace(b"#L1-L2", b"#L3-L4") if path != "rename" else \
        page.replace(b"/src/util.py", b"/src/tools.py")
    assert (repo.root / "docs/page.md").read_bytes() == want


# ---- File names -----------------------------------------------------------------------------------

@pytest.mark.parametrize("mode", [[], ["--check"]], ids=["write", "check"])
def test_a_page_name_that_is_not_utf8_is_named_by_its_bytes(repo, mode):
    refreshed(repo)
    bad = os.path.join(os.fsencode(repo.root), b"docs/caf\xe9.md")
    with open(bad, "wb") as f:
        f.write(PAGE.encode())
    done = repo.run(*mode)
    assert done.returncode == (1 if mode else 0), done.stderr
    assert "docs/caf\\xe9.md: the file name is not UTF-8" in done.stderr
    assert "json.exception" not in done.stderr
    assert ("L1-L2" if mode else "L3-L4") in repo.read("docs/page.md")
    with open(bad, "rb") as f:
        assert f.read() == PAGE.encode()
