"""A wiki page whose cited function moved, refreshed through the Python extension.

Run with the built extension and a host package on the path, e.g.
    PYTHONPATH=build/python:hosts/python/tests/host /usr/bin/python3 examples/road_of_one_citation.py
The host here is the small one the Python tests use; a real host passes its own Repository.
"""
import json
import tempfile
from pathlib import Path

from tolbarrow.workers.wiki import citation_refresh
from tolbarrow.workers.wiki.index import Symbol


class Repository:
    """One file with one declaration, and a page store that keeps what it is given."""

    def __init__(self, page_row):
        self.pages = [page_row]

    def get_symbols_by_path(self, path):
        # The index now has a.f at lines 18 to 30; it stood at 8 to 20 when the page was written.
        return [Symbol("a.f", "f", "function", 18, 30)] if path == "src/a.py" else []

    def get_file_by_path(self, path):
        return {"path": path} if path == "src/a.py" else None

    def get_wiki_pages(self, branch):
        return list(self.pages)

    def update_wiki_page_citations(self, branch, page_id, *, citations, content_hash,
                                   build_cache, rewrite, moves):
        row = self.pages[0]
        self.pages[0] = dict(row, citations=citations, content_hash=content_hash,
                             build_cache=json.loads(build_cache) if build_cache else None)


def main():
    with tempfile.TemporaryDirectory() as tmp:
        root, wiki = Path(tmp, "repo"), Path(tmp, "wiki")
        (root / "src").mkdir(parents=True)
        (root / "src" / "a.py").write_text("".join(f"line {n}\n" for n in range(1, 41)))
        wiki.mkdir()
        page = wiki / "page.md"
        page.write_text("The `f` function reads the file (src/a.py#L10-L12).\n")
        repository = Repository({
            "page_id": "p1", "rel_path": "page.md",
            "citations": [{"path": "src/a.py", "line_start": 10, "line_end": 12, "symbol": "a.f",
                           "name": "f", "symbol_start": 8, "symbol_end": 20}]})

        print("page before:  ", page.read_text(), end="")
        first = citation_refresh.refresh_citations_if_free(repository, "main", wiki, root)
        print("page after:   ", page.read_text(), end="")
        print("first refresh:", first)
        second = citation_refresh.refresh_citations_if_free(repository, "main", wiki, root)
        print("second refresh:", second)
        if (first.repaired, first.pages_written, second.pages_written) != (1, 1, 0):
            raise SystemExit("the example did not refresh as expected")


if __name__ == "__main__":
    main()
