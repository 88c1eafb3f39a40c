"""Time per citation of claim_identifiers, called from Python on a page of 1,000 and 5,000 citations.

The page is one str with non-ASCII prose; every citation's claim is read once, as a page refresh
does. The time per citation should stay flat as the page grows: each call reads a bounded window
before its citation, and the page is not converted again for every call.

Usage: /usr/bin/python3 bench/claim_identifiers_bench.py [BUILD_DIR]
BUILD_DIR is the CMake build directory (default: build-py, else build, under the repository root).
The test host of hosts/python/tests/host provides the host services the extension binds at import.
"""
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def build_dir():
    if len(sys.argv) > 1:
        return Path(sys.argv[1])
    for name in ("build-py", "build"):
        if any((ROOT / name / "python" / "tolbarrow" / "workers" / "wiki").glob("citation_refresh*.so")):
            return ROOT / name
    sys.exit("no built extension found; pass the build directory")


def page(citations):
    parts = []
    for n in range(citations):
        parts.append(f"Größe {n}: `load_{n}` calls `Store.save_{n}()` on the cache ")
        parts.append(f"(src/mod_{n % 50}.py#L{n + 1}-L{n + 3}). ")
    return "".join(parts)


def main():
    sys.path[:0] = [str(build_dir() / "python"), str(ROOT / "hosts" / "python" / "tests" / "host")]
    from tolbarrow.workers.wiki import citation_refresh
    from tolbarrow.workers.wiki.types import _CITATION_RE

    for citations in (1_000, 5_000):
        text = page(citations)
        starts = [m.start() for m in _CITATION_RE.finditer(text)]
        best = float("inf")
        for _ in range(5):  # the best of five runs
            began = time.perf_counter()
            for start in starts:
                citation_refresh.claim_identifiers(text, start)
            best = min(best, time.perf_counter() - began)
        print(f"{citations:>5} citations ({len(text):>7} characters): "
              f"{best / citations * 1e6:6.2f} us per citation")


if __name__ == "__main__":
    main()
