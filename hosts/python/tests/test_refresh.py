"""A refresh through Python: host objects and errors pass the boundary unchanged."""
import copy
import hashlib
import json
import logging

import pytest

from tolbarrow.workers.wiki import citation_ranges, recorder
from tolbarrow.workers.wiki.types import _WikiBusy

BUSY_LINE = "wiki citation refresh: the wiki is being written; reporting only"


def services():
    return [name for name, _ in recorder.CALLS]


def test_road_of_one_citation(cr, road):
    citations_before = copy.deepcopy(road.repo.pages[0]["citations"])
    result = cr.refresh_citations_if_free(road.repo, "main", road.wiki_dir, road.repo_root)

    assert result == cr.CitationRefresh(repaired=1, pages_written=1)
    assert road.page.read_text() == "The `f` function loads it (src/a.py#L20-L22).\n"
    assert road.record == citations_before[0]  # the host's record is not changed in place
    (branch, page_id, update), = road.repo.updates
    assert (branch, page_id) == ("main", "p1")
    assert update["citations"] == [dict(road.record, line_start=20, line_end=22, symbol_start=18,
                                        symbol_end=30)]
    assert list(update["citations"][0]) == list(road.record)  # key order kept
    assert update["content_hash"] == hashlib.sha256(road.page.read_bytes()).hexdigest()
    assert json.loads(update["build_cache"]) == {"prose": "It loads (src/a.py#L20-L22).", "n": 1}
    assert update["rewrite"]("see (src/a.py#L10-L12)") == "see (src/a.py#L20-L22)"
    digests = json.loads((road.wiki_dir / "digests.json").read_text())
    assert digests["p1"]["citations"][0] == {"path": "src/a.py", "line_start": 20, "line_end": 22}
    # The caller's own wiki_dir and repo_root objects reach the lock and LineCounts.
    assert recorder.called("_acquire_write_lock") == [(road.wiki_dir,)]
    assert recorder.called("LineCounts")[0][0] is road.repo_root

    recorder.reset()
    again = cr.refresh_citations_if_free(road.repo, "main", road.wiki_dir, road.repo_root)
    assert again == cr.CitationRefresh()
    assert "_atomic_write" not in services() and "update_wiki_page_citations" not in services()


def test_host_objects_are_handed_back(cr, road, monkeypatch):
    count = int("1000000007")  # an int object of its own, not a shared small int
    monkeypatch.setattr(citation_ranges.LineCounts, "__call__", lambda self, path: count)
    cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root)

    (record, symbol), = recorder.called("anchored")
    assert symbol is road.symbol
    (_, key), = recorder.called("citation_key")
    assert [path for path, in recorder.called("get_file_by_path")] == [key.path]
    assert recorder.called("get_file_by_path")[0][0] is key.path
    for _, moves in recorder.called("rewrite_citations"):
        assert [k for k in moves] == [key] and next(iter(moves)) is key
    moves = road.repo.updates[0][2]["moves"]
    assert next(iter(moves)) is key and moves[key] == (20, 22)
    symbols = road.repo.symbols["src/a.py"]
    assert cr._find_again(symbols, road.record) is road.symbol
    (_, _, line_count), = recorder.called("fit_range")
    assert line_count is count
    assert cr._Files(road.repo, road.repo_root).line_count("src/a.py") is count


def test_legacy_citation_hands_back_the_symbol_list(cr, road):
    road.repo.pages[0]["citations"] = []  # cited in the text with no stored record
    cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
    (symbols, first, last), = recorder.called("anchor_symbol")
    assert symbols is road.repo.symbols["src/a.py"] and (first, last) == (10, 12)


@pytest.mark.parametrize("service", [
    "update_wiki_page_citations", "anchored", "_release_write_lock", "get_symbols_by_path",
    "rewrite_citations", "fit_range",
])
def test_host_error_reaches_caller_unchanged_and_lock_is_released(cr, road, service):
    error = recorder.FAIL[service] = LookupError(service)
    with pytest.raises(LookupError) as raised:
        cr.refresh_citations_if_free(road.repo, "main", road.wiki_dir, road.repo_root)
    assert raised.value is error
    assert services().count("_acquire_write_lock") == services().count("_release_write_lock") == 1


def test_busy_error_in_report_only_refresh_reaches_caller(cr, road):
    error = recorder.FAIL["get_wiki_pages"] = _WikiBusy("held elsewhere")
    with pytest.raises(_WikiBusy) as raised:
        cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
    assert raised.value is error


@pytest.mark.parametrize("busy_in", ["_acquire_write_lock", "get_wiki_pages"])
def test_busy_wiki_only_reports(cr, road, caplog, busy_in):
    recorder.FAIL[busy_in] = _WikiBusy("the generator holds it")
    text = road.page.read_text()
    with caplog.at_level(logging.INFO, logger="tolbarrow.workers.wiki.citation_refresh"):
        result = cr.refresh_citations_if_free(road.repo, "main", road.wiki_dir, road.repo_root)
    assert result == cr.CitationRefresh(moved={"p1": 1})
    assert [(r.name, r.levelno, r.getMessage()) for r in caplog.records] == [
        ("tolbarrow.workers.wiki.citation_refresh", logging.INFO, BUSY_LINE)]
    assert road.page.read_text() == text
    assert services().count("_release_write_lock") == (busy_in != "_acquire_write_lock")


def _page_not_utf8(road):
    road.page.write_bytes(b"bad \xff (src/a.py#L10-L12)")


def _lost_without_page_id(road):
    del road.repo.pages[0]["page_id"]
    road.repo.symbols["src/a.py"] = []


def _line_start(value):
    def arrange(road):
        road.repo.pages[0]["citations"][0]["line_start"] = value
    return arrange


@pytest.mark.parametrize("arrange, error, check", [
    (_page_not_utf8, UnicodeDecodeError, lambda e: e.start == 4 and "page.md" in str(e)),
    (_lost_without_page_id, KeyError, lambda e: e.args == ("page_id",)),
    (_line_start("ten"), ValueError, lambda e: "line_start" in str(e)),
    (_line_start(None), TypeError, lambda e: "line_start" in str(e)),
])
def test_core_errors_map_to_python_errors(cr, road, arrange, error, check):
    arrange(road)
    with pytest.raises(error) as raised:
        cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root)
    assert check(raised.value), raised.value


LOST = {"page_id": "p1", "path": "src/a.py", "lines": "L10-L12"}


@pytest.mark.parametrize("fields, moved, lost", [
    # false and 0 are a stored declaration: the citation follows a.f (found by name).
    ({"symbol": False}, {"p1": 1}, []),
    ({"symbol": 0}, {"p1": 1}, []),
    # A declaration that is gone is reported by its name, or its symbol, as JSON text.
    ({"symbol": "a.gone", "name": 0}, {}, [dict(LOST, name="0")]),
    ({"symbol": "a.gone", "name": False}, {}, [dict(LOST, name="false")]),
    ({"symbol": 0, "name": ""}, {}, [dict(LOST, name="0")]),
])
def test_false_and_zero_declarations_are_present(cr, road, fields, moved, lost):
    road.record.update(fields)
    result = cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
    assert result == cr.CitationRefresh(unrepairable=len(lost), lost=lost, moved=moved)


def test_unchanged_page_text_keeps_the_rows_own_hash(cr, road):
    # Anchored where it stands, with a stale declaration end: the record changes, the text not.
    road.page.write_text("The `f` function loads it (src/a.py#L20-L22).\n")
    road.record.update(line_start=20, line_end=22, symbol_start=18, symbol_end=25)
    own_hash = road.repo.pages[0]["content_hash"] = object()
    result = cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root)
    assert result == cr.CitationRefresh()
    (_, _, update), = road.repo.updates
    assert update["content_hash"] is own_hash and update["moves"] == {}
    assert update["citations"] == [dict(road.record, symbol_end=30)]
    assert "_text_hash" not in services()


@pytest.mark.parametrize("fields", [
    {"extra": {1, 2}}, {"extra": object()}, {"extra": 2**70}, {7: "not a str key"},
])
def test_report_only_leaves_members_it_never_reads_unconverted(cr, road, fields):
    road.record.update(fields)
    result = cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
    assert result == cr.CitationRefresh(moved={"p1": 1})


@pytest.mark.parametrize("fields, error, words", [
    ({"symbol_start": {1, 2}}, TypeError, "set"),
    ({"symbol_end": object()}, TypeError, "object"),
    ({"line_start": 2**70}, OverflowError, "out of range"),
    ({"path": [{1: 2}]}, TypeError, "keys must be str"),
])
@pytest.mark.parametrize("write", [False, True])
def test_a_member_that_is_read_fails_before_the_page_is_searched(cr, road, fields, error, words,
                                                                 write):
    road.record.update(fields)
    with pytest.raises(error, match=words):
        cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=write)
    assert "prose_citations" not in services()


@pytest.mark.parametrize("citations, moved", [
    # No stored records: the citation stands as a legacy one, which a.f no longer holds.
    (None, {}), ("", {}), ({}, {}), ("tuple", {"p1": 1}),
    ("records", TypeError), ({"path": "src/a.py"}, TypeError), ([7], TypeError),
])
def test_report_only_reads_a_citation_list_of_any_form(cr, road, citations, moved):
    row = road.repo.pages[0]
    row["citations"] = tuple(row["citations"]) if citations == "tuple" else citations
    if moved is TypeError:
        with pytest.raises(TypeError):
            cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
        return
    result = cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, write=False)
    assert result == cr.CitationRefresh(moved=moved)
