"""Hostile work trees: symbolic-link loops and links that lead outside the repository."""

import os

import pytest

from conftest import Repo

CODE = "def clamp(value, low, high):\n    return max(low, min(value, high))\n"
PAGE = "`clamp` bounds a value [clamp](/src/util.py#L1-L2).\n"


@pytest.mark.parametrize("in_git", [True, False], ids=["git", "plain directory"])
def test_links_that_loop_or_leave_are_skipped(repo, tmp_path, in_git):
    if not in_git:
        repo = Repo(tmp_path / "plain")
        repo.root.mkdir()
    (tmp_path / "outside").mkdir()
    (tmp_path / "outside/secret.md").write_text("[s](/src/util.py#L1)\n")
    repo.write("src/util.py", CODE)
    repo.write("docs/page.md", PAGE)
    for link, target in [("docs/loop.md", "b"), ("docs/b", "loop.md"), ("docs/self", "."),
                         ("src/cycle.py", "cycle.py"),
                         ("docs/out.md", str(tmp_path / "outside/secret.md"))]:
        os.symlink(target, repo.root / link)
    args = [] if in_git else ["--repo", ".", "--wiki", "docs", "--branch", "b"]
    if in_git:
        repo.commit()
    assert repo.run(*args).returncode == 0
    repo.write("src/util.py", "\n\n" + CODE)

    done = repo.run(*args)
    assert done.returncode == 0, done.stderr
    assert repo.read("docs/page.md") == PAGE.replace("#L1-L2", "#L3-L4")
    skipped = sorted(line for line in done.stderr.splitlines() if "skipped" in line)
    assert len(skipped) == 2, done.stderr
    assert "docs/loop.md: Too many levels of symbolic links" in skipped[0]
    assert "docs/out.md: a symbolic link to" in skipped[1]
    assert (tmp_path / "outside/secret.md").read_text() == "[s](/src/util.py#L1)\n"
