"""Hostile work trees: symbolic-link loops and links that lead outside the repository."""

import os
import signal
import time

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


def ctags_children(pid):
    """The ctags processes whose parent is `pid`."""
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/status") as status:
                fields = dict(line.split(":", 1) for line in status if ":" in line)
        except OSError:
            continue
        if fields["Name"].strip() == "ctags" and fields["PPid"].strip() == str(pid):
            found.append(int(entry))
    return found


def running(pid):
    try:
        with open(f"/proc/{pid}/stat") as stat:
            return stat.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


@pytest.mark.parametrize("sig", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT],
                         ids=lambda s: s.name)
def test_a_killed_run_leaves_no_ctags_running(repo, sig):
    # ctags takes seconds on this file and writes nothing until it is done with it.
    repo.write("src/big.py", "".join(f"def f{i}(x):\n    return x + {i}\n\n"
                                     for i in range(300000)))
    repo.write("docs/page.md", PAGE)
    repo.commit()
    proc = repo.start("-q")
    deadline = time.monotonic() + 60
    while not (children := ctags_children(proc.pid)):
        assert proc.poll() is None and time.monotonic() < deadline, "ctags never ran"
        time.sleep(0.02)
    time.sleep(0.5)  # past ctags' first lines on stderr, which would end it by SIGPIPE
    proc.send_signal(sig)
    proc.communicate()
    deadline = time.monotonic() + 2
    while any(map(running, children)) and time.monotonic() < deadline:
        time.sleep(0.05)
    left = [pid for pid in children if running(pid)]
    for pid in left:
        os.kill(pid, signal.SIGKILL)
    assert not left, f"ctags {left} outlived the command ({sig.name})"
