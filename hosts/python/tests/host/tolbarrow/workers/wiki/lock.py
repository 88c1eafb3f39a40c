from . import recorder


class WriteLockMixin:
    def _acquire_write_lock(self):
        recorder.enter("_acquire_write_lock", self.wiki_dir)
        self._held_lock_nonce = "held"

    def _release_write_lock(self):
        recorder.enter("_release_write_lock", self.wiki_dir)
        self._held_lock_nonce = None
