"""Import binds the host's services in order and fails on a missing one; the module's surface."""
import json
import subprocess
import sys
import textwrap

import pytest

from tolbarrow.workers.wiki import recorder

BOUND = [
    ("citation_ranges", "LineCounts"), ("citation_ranges", "fit_range"),
    ("lock", "WriteLockMixin"),
    ("repo_facts", "_atomic_write"), ("repo_facts", "_text_hash"),
    ("types", "_CITATION_RE"), ("types", "CitationKey"), ("types", "_WikiBusy"),
    ("types", "citation_key"),
    ("verify", "_SKIP_IDENT_EXTS"), ("verify", "_UNANCHORED_KINDS"), ("verify", "anchor_symbol"),
    ("verify", "anchored"), ("verify", "prose_citations"), ("verify", "rewrite_citations"),
]

# Imports the extension in a fresh interpreter whose host modules record every name read from
# them; `breakage` removes a module or a name first. Prints what happened as JSON.
IMPORT_SCRIPT = textwrap.dedent("""
    import importlib, json, sys, types
    package = "tolbarrow.workers.wiki"
    read = []
    recording = False

    class Recording(types.ModuleType):
        def __getattribute__(self, name):
            if recording and not name.startswith("__"):
                read.append((object.__getattribute__(self, "__name__").rpartition(".")[2], name))
            return super().__getattribute__(name)

    for name in ("citation_ranges", "lock", "repo_facts", "types", "verify"):
        importlib.import_module(f"{package}.{name}").__class__ = Recording
    module, name = BREAKAGE
    if module and name:
        delattr(sys.modules[f"{package}.{module}"], name)
    elif module:
        sys.modules[f"{package}.{module}"] = None
    from tolbarrow.workers.wiki import recorder
    recording = True
    try:
        importlib.import_module(f"{package}.citation_refresh")
        error = None
    except Exception as exc:
        error = [[c.__name__ for c in type(exc).__mro__], str(exc)]
    recording = False
    print(json.dumps({"error": error, "read": read, "calls": recorder.CALLS,
                      "loaded": f"{package}.citation_refresh" in sys.modules}))
""")


@pytest.mark.parametrize("breakage, error, bound", [
    ((None, None), None, BOUND),
    (("lock", None), ["ImportError", "tolbarrow.workers.wiki.lock"], BOUND[:2]),
    (("types", "_WikiBusy"), ["AttributeError", "_WikiBusy"], BOUND[:8]),
    (("verify", "anchored"), ["AttributeError", "anchored"], BOUND[:13]),
])
def test_import_binds_host_names_in_order(breakage, error, bound):
    run = subprocess.run([sys.executable, "-c", IMPORT_SCRIPT.replace("BREAKAGE", repr(breakage))],
                         capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    outcome = json.loads(run.stdout)
    assert [tuple(r) for r in outcome["read"]] == bound
    assert outcome["calls"] == []  # no host service is called at import
    if error is None:
        assert outcome["error"] is None and outcome["loaded"]
    else:
        kind, missing = error
        assert kind in outcome["error"][0] and missing in outcome["error"][1]
        assert not outcome["loaded"]


def test_write_is_keyword_only(cr, road):
    with pytest.raises(TypeError):
        cr.refresh_citations(road.repo, "main", road.wiki_dir, road.repo_root, False)
    assert recorder.CALLS == []


def test_records_and_constants(cr):
    first, second = cr.CitationRefresh(), cr.CitationRefresh()
    assert first == second and first.lost is not second.lost and first.moved is not second.moved
    with pytest.raises(TypeError):
        hash(first)
    with pytest.raises(TypeError):
        cr._PageRefresh({}, {})
    assert cr._CLAIM_WINDOW == 260
    assert cr._CLAIM_IDENT_RE.findall("`ab` `a` `" + "x" * 81 + "`") == ["ab"]
    assert cr.logger.name == "tolbarrow.workers.wiki.citation_refresh"


def test_wiki_dir_lock_is_the_host_mixin(cr, tmp_path):
    from tolbarrow.workers.wiki.lock import WriteLockMixin
    lock = cr._WikiDirLock(tmp_path)
    assert isinstance(lock, WriteLockMixin)
    assert vars(lock) == {"wiki_dir": tmp_path, "_held_lock_nonce": None, "_lock_refreshed_at": 0.0}
    guard = lock.held()
    assert recorder.CALLS == []  # the lock is taken on entry, not by held()
    with pytest.raises(KeyError):
        with guard:
            assert lock._held_lock_nonce == "held"
            raise KeyError("block")
    assert [name for name, _ in recorder.CALLS] == ["_acquire_write_lock", "_release_write_lock"]
