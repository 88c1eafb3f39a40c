"""A plain Python reading of the refresh, for comparing the extension with.

It walks the steps one by one, calling the host's services as the module's contract names them:
which service, with which arguments, in which order, and what a failure leaves behind. The
relocation and anchoring of single citations (`_find_again`, `relocated_range`,
`claim_identifiers`, `_legacy_anchor`) are taken from the extension itself: their own tables
check them, and here only their place among the host calls matters.
"""
import json
from pathlib import Path

from tolbarrow.workers.wiki import citation_ranges, repo_facts, types, verify


def _path_text(value):
    # A path that is no str becomes its JSON text, so it never equals a real file path.
    return value if isinstance(value, str) else json.dumps(value)


def _line(value):
    if isinstance(value, bool) or isinstance(value, int):
        return int(value)
    if isinstance(value, float):
        return int(value)
    if isinstance(value, str):
        return int(value.strip())
    raise TypeError(f"line: expected a number, got {type(value).__name__}")


def stored_key(record):
    if not isinstance(record, dict):
        raise TypeError(f"citation record: expected a dict, got {type(record).__name__}")
    return (_path_text(record.get("path", "")), _line(record.get("line_start", 0)),
            _line(record.get("line_end", 0)))


class PageRefresh:
    def __init__(self):
        self.moves, self.anchors, self.lost = {}, {}, []


class Files:
    def __init__(self, repository, repo_root):
        self.repository = repository
        self.repo_root = repo_root
        self._symbols = {}
        self.line_count = citation_ranges.LineCounts(repo_root)

    def symbols(self, path):
        if path not in self._symbols:
            self._symbols[path] = self.repository.get_symbols_by_path(path)
        return self._symbols[path]

    def indexed(self, path):
        return self.repository.get_file_by_path(path) is not None


def refresh_page(cr, text, citations, files):
    stored = {}
    for record in citations:
        stored[stored_key(record)] = record
    result, seen = PageRefresh(), set()
    for match in verify.prose_citations(text):
        key = types.citation_key(match)
        path, start, end = key
        if key in seen or start < 1 or not files.indexed(path):
            continue
        seen.add(key)
        symbols = files.symbols(path)
        cite = stored.get(key)
        if cite is None:
            cite = {"path": path, "line_start": start, "line_end": end}
        if cite.get("symbol"):
            found = cr._find_again(symbols, cite)
            if found is None:
                result.lost.append((key, str(cite.get("name") or cite.get("symbol"))))
                continue
            new = cr.relocated_range(cite, found)
        else:
            names = cr.claim_identifiers(text, match.start())
            found, new = cr._legacy_anchor(symbols, start, end, names)
        fitted = citation_ranges.fit_range(new[0], new[1], files.line_count(path))
        if fitted is None:
            result.lost.append((key, found.name if found is not None else ""))
            continue
        if tuple(fitted) != (start, end):
            result.moves[key] = fitted
        updated = verify.anchored(dict(cite, line_start=fitted[0], line_end=fitted[1]), found)
        if key in stored and updated != cite:
            result.anchors[key] = updated
    return result


def apply(citations, page):
    return [page.anchors.get(stored_key(c), c) for c in citations]


def read_digests(path):
    try:
        value = json.loads(Path(path).read_text(encoding="utf-8"))
    except (OSError, ValueError):
        return {}
    return value if isinstance(value, dict) else {}


def move_digest_citations(digest, moves):
    if not isinstance(digest, dict):
        return
    citations = digest.get("citations")
    if not citations:
        return
    if not isinstance(citations, list):
        raise TypeError("digest citations: expected a list")
    for citation in citations:
        new = moves.get(stored_key(citation))
        if new is not None:
            citation["line_start"] = new[0]
            citation["line_end"] = new[1]


class Result:
    def __init__(self):
        self.repaired = self.unrepairable = self.pages_written = 0
        self.lost, self.moved = [], {}


def refresh_citations(cr, repository, branch, wiki_dir, repo_root, *, write=True):
    result = Result()
    files = Files(repository, repo_root)
    digests_path = Path(wiki_dir) / "digests.json"
    digests = None
    for row in repository.get_wiki_pages(branch):
        page_file = Path(wiki_dir) / (row.get("rel_path") or "")
        if not row.get("rel_path") or not page_file.is_file():
            continue
        text = page_file.read_text(encoding="utf-8")  # universal newlines: CR LF and CR as LF
        citations = row.get("citations") or []
        page = refresh_page(cr, text, citations, files)
        result.unrepairable += len(page.lost)
        for (path, start, end), name in page.lost:
            result.lost.append({"page_id": row["page_id"], "path": path,
                                "lines": f"L{start}-L{end}", "name": name})
        if not write:
            if page.moves:
                result.moved[row["page_id"]] = len(page.moves)
            continue
        if not page.moves and not page.anchors:
            continue
        result.repaired += len(page.moves)
        new_text = verify.rewrite_citations(text, page.moves)
        if new_text != text:
            repo_facts._atomic_write(page_file, new_text)
            result.pages_written += 1
        cache = dict(row.get("build_cache") or {})
        if isinstance(cache.get("prose"), str):
            cache["prose"] = verify.rewrite_citations(cache["prose"], page.moves)
        moves = page.moves
        repository.update_wiki_page_citations(
            branch, row["page_id"],
            citations=apply(citations, page),
            content_hash=(repo_facts._text_hash(new_text) if new_text != text
                          else row.get("content_hash")),
            build_cache=json.dumps(cache, ensure_ascii=False) if cache else None,
            rewrite=lambda t: verify.rewrite_citations(t, moves=moves),
            moves=page.moves)
        if page.moves:
            if digests is None:
                digests = read_digests(digests_path)
            move_digest_citations(digests.get(row["page_id"]), page.moves)
    if digests is not None:
        repo_facts._atomic_write(digests_path, json.dumps(digests, indent=2, ensure_ascii=False))
    return result
