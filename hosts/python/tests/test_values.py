"""Values crossing the boundary: texts and offsets, records, keys, symbols and digests."""
import copy
import enum

import pytest

from tolbarrow.workers.wiki import recorder
from tolbarrow.workers.wiki.index import Symbol
from tolbarrow.workers.wiki.types import CitationKey


@pytest.mark.parametrize("text, expected", [
    ("Der Wert `größe` 🎉 ruft `load_ß` (src/a.py#L1-L2)", ["größe", "load_ß"]),
    ("`old` 😀 (x.py#L1-L2) 😀😀 then `new` (src/a.py#L3-L4)", ["new"]),
    ("`early` " + "😀" * 200 + " `late` (src/a.py#L3-L4)", ["early", "late"]),
    ("`early` " + "😀" * 300 + " `late` (src/a.py#L3-L4)", ["late"]),
])
def test_claim_offsets_count_characters(cr, text, expected):
    assert cr.claim_identifiers(text, text.rindex("(src")) == expected


@pytest.mark.parametrize("position", [-1, 5])
def test_claim_position_outside_text(cr, position):
    with pytest.raises(IndexError, match="position"):
        cr.claim_identifiers("`ab`", position)


def test_page_refresh_and_apply_through_python(cr, road):
    files = cr._Files(road.repo, road.repo_root)
    assert files.repository is road.repo and files.repo_root is road.repo_root
    text = road.page.read_text()
    page = cr._refresh_page(text, [road.record], files)

    key = CitationKey("src/a.py", 10, 12)
    anchored = dict(road.record, line_start=20, line_end=22, symbol_start=18, symbol_end=30)
    assert page == cr._PageRefresh({key: (20, 22)}, {key: anchored}, [])
    assert type(next(iter(page.moves))) is CitationKey
    assert files.symbols("src/a.py") is road.repo.symbols["src/a.py"]
    assert len(recorder.called("get_symbols_by_path")) == 1
    # Keys coming back from Python may be plain tuples.
    tuple_keyed = cr._PageRefresh({}, {("src/a.py", 10, 12): anchored}, [])
    assert cr._apply([road.record, {"path": "x"}], tuple_keyed) == [anchored, {"path": "x"}]


def test_records_keep_values_and_key_order(cr):
    record = {"z": True, "path": "p", "big": 2**64 - 1, "low": -2**63, "f": 1.5, "none": None,
              "nested": {"b": [1, "ä", {"c": False}], "a": ()}}
    out, = cr._apply([record], cr._PageRefresh({}, {}, []))
    assert out == dict(record, nested={"b": [1, "ä", {"c": False}], "a": []})
    assert list(out) == list(record) and list(out["nested"]) == ["b", "a"]
    assert type(out["z"]) is bool and type(out["nested"]["b"][2]["c"]) is bool


@pytest.mark.parametrize("value, error, words", [
    (2**64, OverflowError, "out of range"),
    (object(), TypeError, "object"),
    ({1: 2}, TypeError, "keys must be str"),
    ({1, 2}, TypeError, "set"),
])
def test_values_a_record_cannot_hold(cr, value, error, words):
    with pytest.raises(error, match=words):
        cr._apply([{"path": "p", "x": value}], cr._PageRefresh({}, {}, []))


def test_digest_moves_in_place(cr):
    moved = {"path": "src/a.py", "line_start": "10", "line_end": 12, "extra": [1]}
    other = {"path": "src/b.py", "line_start": 10, "line_end": 12}
    digest = {"title": "t", "citations": [moved, other]}
    cr._move_digest_citations(digest, {("src/a.py", 10, 12): (20, 22)})
    assert digest["citations"][0] is moved and digest["citations"][1] is other
    assert moved == {"path": "src/a.py", "line_start": 20, "line_end": 22, "extra": [1]}
    assert other == {"path": "src/b.py", "line_start": 10, "line_end": 12}


@pytest.mark.parametrize("digest", [None, ["x"], {1, 2}, {"citations": []}, {"citations": None},
                                    {"summary": {1, 2}}])
def test_digest_without_citations_to_move_is_left_alone(cr, digest):
    before = copy.copy(digest)
    cr._move_digest_citations(digest, {("src/a.py", 10, 12): (20, 22)})
    assert digest == before


class StrKind(str, enum.Enum):
    MODULE = "module"
    FUNCTION = "function"


class ValueKind(enum.Enum):
    MODULE = "module"
    FUNCTION = "function"


@pytest.mark.parametrize("kind, unanchored", [
    ("module", True), (StrKind.MODULE, True), (ValueKind.MODULE, True),
    ("function", False), (StrKind.FUNCTION, False), (ValueKind.FUNCTION, False),
])
def test_symbol_kinds_compare_by_value(cr, kind, unanchored):
    symbol = Symbol("pkg.loader", "loader", kind, 1, 50)
    found, lines = cr._legacy_anchor([symbol], 10, 12, ["loader"])
    assert found is symbol and lines == (10, 12)
    # A named declaration of an unanchored kind is passed over for the host's anchor_symbol.
    assert bool(recorder.called("anchor_symbol")) == unanchored


@pytest.mark.parametrize("line", ["12\u3000", "\u00a012", "\u2003 12 "])
def test_line_text_with_unicode_white_space_reads_as_its_number(cr, line):
    citation = {"path": "p", "line_start": line, "line_end": 14, "symbol_start": line,
                "symbol_end": 20}
    assert cr.relocated_range(citation, Symbol("a.f", "f", "function", 22, 40)) == (22, 24)
    moved = dict(citation, line_start=22, line_end=24)
    assert cr._apply([citation], cr._PageRefresh({}, {("p", 12, 14): moved}, [])) == [moved]
