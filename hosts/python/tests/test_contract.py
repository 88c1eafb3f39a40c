"""The conversation with the host: which services each operation calls, with which arguments, in
which order, and what a failure leaves written, updated and raised. Each sequence below is written
out by hand from the refresh's steps."""
import json
from pathlib import Path

import pytest

from tolbarrow.workers.wiki import recorder
from tolbarrow.workers.wiki.index import Symbol
from tolbarrow.workers.wiki.types import _WikiBusy

A, B, GONE = "src/a.py", "src/b.py", "src/gone.py"  # 40 lines, 10 lines, not indexed
INIT = Symbol("a.init", "init", "function", 1, 5)
LOAD = Symbol("a.load", "load", "function", 18, 30)
TAIL = Symbol("a.tail", "tail", "function", 45, 50)  # past the file's end
# Stored anchored to a.load when it stood at 8-20; it stands at 18-30 now.
ANCHORED = {"path": A, "line_start": 10, "line_end": 12, "note": "kept", "symbol": "a.load",
            "name": "load", "symbol_start": 8, "symbol_end": 20}
MOVED = dict(ANCHORED, line_start=20, line_end=22, symbol_start=18, symbol_end=30)


def placed(record, first, last):
    return dict(record, line_start=first, line_end=last)


def calls():
    """The recorded calls, each as (service, arguments) with the host's objects made readable."""
    out = []
    for name, args in recorder.CALLS:
        if name == "citation_key":
            out.append(("key", tuple(args[1])))
        elif name == "get_file_by_path":
            out.append(("indexed", args[0]))
        elif name == "get_symbols_by_path":
            out.append(("symbols", args[0]))
        elif name == "anchored":
            out.append(("anchored", args[0], args[1] and args[1].fqn))
        elif name == "anchor_symbol":
            out.append(("anchor_symbol", args[1], args[2]))
        elif name in ("prose_citations", "LineCounts", "get_wiki_pages"):
            out.append((name,))
        elif name in ("_atomic_write", "_acquire_write_lock", "_release_write_lock"):
            out.append((name, Path(args[0]).name))
        elif name in ("rewrite_citations", "_text_hash"):
            out.append((name,))
        else:
            out.append((name, *args))
    return out


@pytest.fixture
def host(repo, tmp_path):
    root = tmp_path / "repo"
    (root / "src").mkdir(parents=True)
    (root / A).write_text("x\n" * 40)
    (root / B).write_text("x\n" * 10)
    repo.files.update({A, B})
    repo.symbols[A] = [INIT, LOAD, TAIL]
    repo.root = root
    return repo


PAGES = {
    # name: (text, stored records, calls after prose_citations, moves, anchors, lost)
    "repeat handled once": (
        "The `x1` (src/a.py#L10-L12) and (src/a.py#L10-L12).", [ANCHORED],
        [("key", (A, 10, 12)), ("indexed", A), ("symbols", A), ("line_count", A),
         ("fit_range", 20, 22, 40), ("anchored", placed(ANCHORED, 20, 22), "a.load"),
         ("key", (A, 10, 12))],
        {(A, 10, 12): (20, 22)}, {(A, 10, 12): MOVED}, []),
    "line below 1 tested again": (
        "(src/a.py#L0-L3) (src/a.py#L0-L3)", [],
        [("key", (A, 0, 3)), ("key", (A, 0, 3))], {}, {}, []),
    "not indexed tested again": (
        "(src/gone.py#L1-L2) (src/gone.py#L1-L2)", [],
        [("key", (GONE, 1, 2)), ("indexed", GONE), ("key", (GONE, 1, 2)), ("indexed", GONE)],
        {}, {}, []),
    "no stored record, chosen by the host": (
        "See (src/a.py#L2-L3).", [],
        [("key", (A, 2, 3)), ("indexed", A), ("symbols", A), ("anchor_symbol", 2, 3),
         ("line_count", A), ("fit_range", 2, 3, 40),
         ("anchored", {"path": A, "line_start": 2, "line_end": 3}, "a.init")],
        {}, {}, []),
    "no stored record, named elsewhere": (
        "The `load` call (src/a.py#L2-L3).", [],
        [("key", (A, 2, 3)), ("indexed", A), ("symbols", A), ("line_count", A),
         ("fit_range", 18, 19, 40),
         ("anchored", {"path": A, "line_start": 18, "line_end": 19}, "a.load")],
        {(A, 2, 3): (18, 19)}, {}, []),
    "stored legacy gains its anchor": (
        "See (src/a.py#L2-L3).", [{"path": A, "line_start": 2, "line_end": 3}],
        [("key", (A, 2, 3)), ("indexed", A), ("symbols", A), ("anchor_symbol", 2, 3),
         ("line_count", A), ("fit_range", 2, 3, 40),
         ("anchored", {"path": A, "line_start": 2, "line_end": 3}, "a.init")],
        {}, {(A, 2, 3): {"path": A, "line_start": 2, "line_end": 3, "symbol": "a.init",
                         "name": "init", "symbol_start": 1, "symbol_end": 5}}, []),
    "stored and unchanged": (
        "(src/a.py#L20-L22)", [MOVED],
        [("key", (A, 20, 22)), ("indexed", A), ("symbols", A), ("line_count", A),
         ("fit_range", 20, 22, 40), ("anchored", MOVED, "a.load")],
        {}, {}, []),
    "symbol gone, lost by its name": (
        "(src/a.py#L10-L12)", [dict(ANCHORED, symbol="a.gone", name="gone")],
        [("key", (A, 10, 12)), ("indexed", A), ("symbols", A)],
        {}, {}, [((A, 10, 12), "gone")]),
    "symbol gone, no name: lost by its symbol": (
        "(src/a.py#L10-L12)", [dict(ANCHORED, symbol="a.gone", name="")],
        [("key", (A, 10, 12)), ("indexed", A), ("symbols", A)],
        {}, {}, [((A, 10, 12), "a.gone")]),
    "anchored, fit_range none": (
        "(src/a.py#L10-L12)", [dict(ANCHORED, symbol="a.tail", name="tail", symbol_start=10,
                                    symbol_end=15)],
        [("key", (A, 10, 12)), ("indexed", A), ("symbols", A), ("line_count", A),
         ("fit_range", 45, 47, 40)],
        {}, {}, [((A, 10, 12), "tail")]),
    "legacy, fit_range none, no declaration": (
        "(src/b.py#L12-L14)", [],
        [("key", (B, 12, 14)), ("indexed", B), ("symbols", B), ("anchor_symbol", 12, 14),
         ("line_count", B), ("fit_range", 12, 14, 10)],
        {}, {}, [((B, 12, 14), "")]),
    "a file's symbols asked once, its line count each time": (
        "(src/a.py#L2-L3) (src/a.py#L3-L4)", [],
        [("key", (A, 2, 3)), ("indexed", A), ("symbols", A), ("anchor_symbol", 2, 3),
         ("line_count", A), ("fit_range", 2, 3, 40),
         ("anchored", {"path": A, "line_start": 2, "line_end": 3}, "a.init"),
         ("key", (A, 3, 4)), ("indexed", A), ("anchor_symbol", 3, 4),
         ("line_count", A), ("fit_range", 3, 4, 40),
         ("anchored", {"path": A, "line_start": 3, "line_end": 4}, "a.init")],
        {}, {}, []),
}


@pytest.mark.parametrize("name", PAGES)
def test_refresh_page_calls(cr, host, name):
    text, stored, expected, moves, anchors, lost = PAGES[name]
    files = cr._Files(host, host.root)
    assert calls() == [("LineCounts",)]
    recorder.reset()
    page = cr._refresh_page(text, stored, files)
    assert calls() == [("prose_citations",)] + expected
    assert (page.moves, page.anchors, page.lost) == (moves, anchors, lost)


# Two pages whose citations move, and the digests of both.
P1_TEXT, P2_TEXT = "The `x1` (src/a.py#L10-L12).", "See (src/a.py#L10-L12) too."
P1_NEW, P2_NEW = "The `x1` (src/a.py#L20-L22).", "See (src/a.py#L20-L22) too."
DIGESTS = {"p1": {"citations": [{"path": A, "line_start": 10, "line_end": 12}]},
           "p2": {"citations": [{"path": A, "line_start": 10, "line_end": 12}]}}
WRITING = [
    ("LineCounts",), ("get_wiki_pages",),
    # p1
    ("prose_citations",), ("key", (A, 10, 12)), ("indexed", A), ("symbols", A),
    ("line_count", A), ("fit_range", 20, 22, 40), ("anchored", placed(ANCHORED, 20, 22), "a.load"),
    ("rewrite_citations",), ("_atomic_write", "p1.md"), ("_text_hash",),
    ("update_wiki_page_citations", "main", "p1"),
    # p2: its file's symbols are known
    ("prose_citations",), ("key", (A, 10, 12)), ("indexed", A),
    ("line_count", A), ("fit_range", 20, 22, 40), ("anchored", placed(ANCHORED, 20, 22), "a.load"),
    ("rewrite_citations",), ("_atomic_write", "p2.md"), ("_text_hash",),
    ("update_wiki_page_citations", "main", "p2"),
    # after the last page
    ("_atomic_write", "digests.json"),
]


@pytest.fixture
def wiki(host, tmp_path):
    wiki_dir = tmp_path / "wiki"
    wiki_dir.mkdir()
    (wiki_dir / "p1.md").write_text(P1_TEXT)
    (wiki_dir / "p2.md").write_text(P2_TEXT)
    (wiki_dir / "digests.json").write_text(json.dumps(DIGESTS))
    host.pages += [{"page_id": "p1", "rel_path": "p1.md", "citations": [ANCHORED]},
                   {"page_id": "p2", "rel_path": "p2.md", "citations": [ANCHORED]}]
    host.wiki_dir = wiki_dir
    return host


def test_writing_refresh_calls(cr, wiki):
    result = cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert calls() == WRITING
    assert result == cr.CitationRefresh(repaired=2, pages_written=2)


def test_report_only_calls(cr, wiki):
    result = cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root, write=False)
    assert calls() == [c for c in WRITING[:9] + WRITING[13:19]]
    assert result == cr.CitationRefresh(moved={"p1": 1, "p2": 1})


@pytest.mark.parametrize("at", range(len(WRITING)))
def test_host_error_at_each_call(cr, wiki, at):
    """The call `at` raises: the calls before it were made, nothing after; the pages written and
    the records updated before it stay so, and "digests.json" is written only as the last step."""
    error = RuntimeError(f"call {at} fails")
    recorder.FAIL_AT[at] = error
    with pytest.raises(RuntimeError) as raised:
        cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert raised.value is error
    assert calls() == WRITING[:at + 1]
    made = WRITING[:at]  # the calls that succeeded
    assert (wiki.wiki_dir / "p1.md").read_text() == (
        P1_NEW if ("_atomic_write", "p1.md") in made else P1_TEXT)
    assert (wiki.wiki_dir / "p2.md").read_text() == (
        P2_NEW if ("_atomic_write", "p2.md") in made else P2_TEXT)
    assert [page_id for _, page_id, _ in wiki.updates] == [
        c[2] for c in made if c[0] == "update_wiki_page_citations"]
    assert json.loads((wiki.wiki_dir / "digests.json").read_text()) == DIGESTS
    assert sorted(p.name for p in wiki.wiki_dir.iterdir()) == ["digests.json", "p1.md", "p2.md"]


# A row of the second page that fails: the first page stays written and updated.
FAILING_ROWS = {
    "no page_id": ({"rel_path": "p2.md", "citations": [ANCHORED]}, KeyError),
    "malformed digest": ({"page_id": "p2", "rel_path": "p2.md", "citations": [ANCHORED]},
                         TypeError),
    "citations not a list": ({"page_id": "p2", "rel_path": "p2.md", "citations": 5}, TypeError),
}


@pytest.mark.parametrize("name", FAILING_ROWS)
def test_failing_second_row(cr, wiki, name):
    row, error = FAILING_ROWS[name]
    wiki.pages[1] = row
    digests = json.loads(json.dumps(DIGESTS))
    digests["p2"]["citations"].append(7)
    (wiki.wiki_dir / "digests.json").write_text(json.dumps(digests))
    with pytest.raises(error):
        cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert (wiki.wiki_dir / "p1.md").read_text() == P1_NEW
    assert json.loads((wiki.wiki_dir / "digests.json").read_text()) == digests
    # The row that fails has its page written and its record updated when its failure comes
    # after them: the digest is moved last.
    assert [page_id for _, page_id, _ in wiki.updates] == (
        ["p1", "p2"] if name == "malformed digest" else ["p1"])
    assert (wiki.wiki_dir / "p2.md").read_text() == (P2_TEXT if name == "citations not a list"
                                                      else P2_NEW)
    assert sorted(p.name for p in wiki.wiki_dir.iterdir()) == ["digests.json", "p1.md", "p2.md"]


@pytest.mark.parametrize("rel_path, written", [(0, False), (None, False), ("", False),
                                               (Path("p1.md"), True)])
def test_rel_path_not_text(cr, wiki, rel_path, written):
    wiki.pages[0]["rel_path"] = rel_path
    result = cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert result.pages_written == 1 + written
    assert ((wiki.wiki_dir / "p1.md").read_text() == P1_NEW) == written


def test_store_gets_the_rows_own_page_id(cr, wiki):
    wiki.pages[0]["page_id"] = 41
    cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert [page_id for _, page_id, _ in wiki.updates] == [41, "p2"]


def test_rel_path_that_cannot_be_joined(cr, wiki):
    wiki.pages[0]["rel_path"] = 5
    with pytest.raises(TypeError, match="rel_path"):
        cr.refresh_citations(wiki, "main", wiki.wiki_dir, wiki.root)
    assert calls() == [("LineCounts",), ("get_wiki_pages",)]


def test_guarded_refresh_calls(cr, wiki):
    cr.refresh_citations_if_free(wiki, "main", wiki.wiki_dir, wiki.root)
    assert calls() == [("_acquire_write_lock", "wiki")] + WRITING + [
        ("_release_write_lock", "wiki")]
    recorder.reset()
    recorder.FAIL["_acquire_write_lock"] = _WikiBusy("busy")
    cr.refresh_citations_if_free(wiki, "main", wiki.wiki_dir, wiki.root)
    # Reporting only, without the lock: the pages are current now.
    assert calls()[0] == ("_acquire_write_lock", "wiki")
    assert ("_release_write_lock", "wiki") not in calls()
    assert not any(c[0] in ("_atomic_write", "update_wiki_page_citations") for c in calls())


# A digest's citations with a bad element at each position: the ones before it move, the ones
# after it do not, and the error is raised.
GOOD = {"path": A, "line_start": 10, "line_end": 12}
BAD = {"not an object": (7, TypeError), "line_start not an integer":
       ({"path": A, "line_start": "ten", "line_end": 12}, ValueError),
       "line_end null": ({"path": A, "line_start": 10, "line_end": None}, TypeError)}


@pytest.mark.parametrize("position", range(3))
@pytest.mark.parametrize("bad", BAD)
def test_malformed_digest_at_each_position(cr, position, bad):
    element, error = BAD[bad]
    citations = [dict(GOOD) for _ in range(3)]
    citations[position] = element
    digest = {"title": "t", "citations": citations}
    with pytest.raises(error):
        cr._move_digest_citations(digest, {(A, 10, 12): (20, 22)})
    assert digest["citations"][position] is element
    for i, citation in enumerate(digest["citations"]):
        if i != position:
            assert (citation["line_start"], citation["line_end"]) == (
                (20, 22) if i < position else (10, 12))


@pytest.mark.parametrize("content, expected", [
    (None, {}), ("[1]", {}), ('"text"', {}), ("3", {}), ("{", {}),
    ('\ufeff{"p": {}}', {}), ('{"p": {"citations": []}}', {"p": {"citations": []}})])
def test_read_digests(cr, tmp_path, content, expected):
    path = tmp_path / "digests.json"
    if content is not None:
        path.write_text(content, encoding="utf-8")
    assert cr._read_digests(path) == expected
    assert recorder.CALLS == []


@pytest.mark.parametrize("names, expected", [
    (["load"], []),  # named: the index's choice is not asked
    ([], [("anchor_symbol", 2, 3)]),
    (["nothing"], [("anchor_symbol", 2, 3)])])
def test_legacy_anchor_calls(cr, names, expected):
    cr._legacy_anchor([INIT, LOAD], 2, 3, names)
    assert calls() == expected


def test_pure_operations_call_nothing(cr):
    assert cr._find_again([INIT, LOAD], ANCHORED) is LOAD
    assert cr.relocated_range(ANCHORED, LOAD) == (20, 22)
    assert cr.claim_identifiers("The `load` call (src/a.py#L2-L3).", 16) == ["load"]
    assert recorder.CALLS == []
