"""Citations in page text are written "(path#Lfirst-Llast)"."""
import re
from typing import NamedTuple

from . import recorder

_CITATION_RE = re.compile(r"\(([^()\s#]+)#L(-?\d+)-L(-?\d+)\)")


class CitationKey(NamedTuple):
    path: str
    start: int
    end: int


class _WikiBusy(RuntimeError):
    """Another writer holds the wiki's write lock."""


def key_of(match):
    return CitationKey(match.group(1), int(match.group(2)), int(match.group(3)))


def citation_key(match):
    key = key_of(match)
    recorder.enter("citation_key", match, key)
    return key
