"""A real git repository with Python and C++ sources and a small wiki, and the built command."""

import os
import pathlib
import subprocess

import pytest

PROGRAM = os.environ.get("CITATION_REFRESH", "citation-refresh")
GIT_ENV = {
    "GIT_AUTHOR_NAME": "t", "GIT_AUTHOR_EMAIL": "t@example.org",
    "GIT_COMMITTER_NAME": "t", "GIT_COMMITTER_EMAIL": "t@example.org",
    "GIT_CONFIG_NOSYSTEM": "1", "HOME": "/nonexistent",
}


class Repo:
    def __init__(self, root: pathlib.Path):
        self.root = root

    def write(self, rel, text):
        path = self.root / rel
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text.encode() if isinstance(text, str) else text)

    def read(self, rel):
        return (self.root / rel).read_text()

    def git(self, *args):
        subprocess.run(["git", *args], cwd=self.root, check=True, capture_output=True,
                       env={**os.environ, **GIT_ENV})

    def commit(self, message="change"):
        self.git("add", "-A")
        self.git("commit", "-q", "-m", message)

    def run(self, *args, env=None):
        """The command (which follows history by default: renames, git's diff)."""
        return subprocess.run([PROGRAM, *args], cwd=self.root, capture_output=True, text=True,
                              env={**os.environ, **(env or {})})

    def start(self, *args):
        return subprocess.Popen([PROGRAM, *args], cwd=self.root, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def snapshot(self):
        """Bytes and mtime of every file of the work tree and of the local store."""
        files = [p for p in self.root.rglob("*") if p.is_file() and ".git" not in p.parts]
        files += list((self.root / ".git").glob("citation-refresh.db*"))
        return {str(p.relative_to(self.root)): (p.read_bytes(), p.stat().st_mtime_ns)
                for p in files}


@pytest.fixture
def repo(tmp_path):
    r = Repo(tmp_path / "repo")
    r.root.mkdir()
    r.git("init", "-q", "-b", "main")
    return r
