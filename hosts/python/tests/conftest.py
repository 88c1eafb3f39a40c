"""Fixtures over the test host of host/tolbarrow/workers/wiki (on PYTHONPATH beside the build)."""
import json
from types import SimpleNamespace

import pytest

from tolbarrow.workers.wiki import recorder
from tolbarrow.workers.wiki.index import Symbol


class Repository:
    """An index and wiki page store that keeps what it is given; its calls go to the recorder."""

    def __init__(self):
        self.symbols = {}  # path -> list of Symbol
        self.files = set()
        self.pages = []  # page rows (dicts)
        self.updates = []  # (branch, page_id, keyword arguments)

    def get_symbols_by_path(self, path):
        recorder.enter("get_symbols_by_path", path)
        return self.symbols.get(path, [])

    def get_file_by_path(self, path):
        recorder.enter("get_file_by_path", path)
        return {"path": path} if path in self.files else None

    def get_wiki_pages(self, branch):
        recorder.enter("get_wiki_pages", branch)
        return list(self.pages)

    def update_wiki_page_citations(self, branch, page_id, *, citations, content_hash,
                                   build_cache, rewrite, moves):
        recorder.enter("update_wiki_page_citations", branch, page_id)
        self.updates.append((branch, page_id, dict(citations=citations, content_hash=content_hash,
                                                   build_cache=build_cache, rewrite=rewrite,
                                                   moves=moves)))
        for i, row in enumerate(self.pages):
            if row.get("page_id") == page_id:
                self.pages[i] = dict(row, citations=citations, content_hash=content_hash,
                                     build_cache=json.loads(build_cache) if build_cache else None)


@pytest.fixture
def cr():
    from tolbarrow.workers.wiki import citation_refresh
    return citation_refresh


@pytest.fixture(autouse=True)
def _fresh_recorder():
    recorder.reset()
    yield
    recorder.reset()


@pytest.fixture
def repo():
    return Repository()


@pytest.fixture
def road(repo, tmp_path):
    """One page citing lines 10-12 of src/a.py, stored anchored to a.f at 8-20; a.f is at 18-30 now."""
    wiki_dir, repo_root = tmp_path / "wiki", tmp_path / "repo"
    (repo_root / "src").mkdir(parents=True)
    (repo_root / "src" / "a.py").write_text("".join(f"line {n}\n" for n in range(1, 41)))
    wiki_dir.mkdir()
    page = wiki_dir / "page.md"
    page.write_text("The `f` function loads it (src/a.py#L10-L12).\n")
    (wiki_dir / "digests.json").write_text(json.dumps(
        {"p1": {"title": "Page", "citations": [{"path": "src/a.py", "line_start": 10, "line_end": 12}]}}))
    record = {"path": "src/a.py", "line_start": 10, "line_end": 12, "note": "kept",
              "symbol": "a.f", "name": "f", "symbol_start": 8, "symbol_end": 20}
    symbol = Symbol("a.f", "f", "function", 18, 30)
    repo.files.add("src/a.py")
    repo.symbols["src/a.py"] = [Symbol("a.g", "g", "function", 1, 5), symbol]
    repo.pages.append({"page_id": "p1", "rel_path": "page.md", "citations": [record],
                       "build_cache": {"prose": "It loads (src/a.py#L10-L12).", "n": 1},
                       "content_hash": "old-hash"})
    return SimpleNamespace(repo=repo, wiki_dir=wiki_dir, repo_root=repo_root, page=page,
                           record=record, symbol=symbol)
