"""The Python definitions of tolbarrow.workers.wiki.citation_refresh: its records and its lock class.

The build compiles this source into the extension, which runs it once at import in a namespace of
its own, where `WriteLockMixin` is the host's (tolbarrow.workers.wiki.lock.WriteLockMixin) and
`__name__` is the extension module's name.
"""
import contextlib
import dataclasses


@dataclasses.dataclass
class CitationRefresh:
    """What one refresh of a branch's wiki found and, when it may write, did."""

    repaired: int = 0
    unrepairable: int = 0
    pages_written: int = 0
    lost: list = dataclasses.field(default_factory=list)
    moved: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class _PageRefresh:
    """One page's new citation ranges, new anchored records and lost citations."""

    moves: dict
    anchors: dict
    lost: list


class _WikiDirLock(WriteLockMixin):  # noqa: F821 (given by the extension)
    """The write lock of one wiki directory; the locking itself is the host mixin's."""

    def __init__(self, wiki_dir):
        self.wiki_dir = wiki_dir
        self._held_lock_nonce = None
        self._lock_refreshed_at = 0.0

    @contextlib.contextmanager
    def held(self):
        """Holds the wiki's write lock for the block, giving it up once however the block ends."""
        self._acquire_write_lock()
        try:
            yield
        finally:
            self._release_write_lock()
