from pathlib import Path

from . import recorder


class LineCounts:
    def __init__(self, repo_root):
        recorder.enter("LineCounts", repo_root)
        self.root = Path(repo_root)
        self.counts = {}  # each file is read once per refresh

    def __call__(self, path):
        recorder.enter("line_count", path)
        if path not in self.counts:
            file = self.root / path
            self.counts[path] = len(file.read_text().splitlines()) if file.is_file() else 0
        return self.counts[path]


def fit_range(first, last, line_count):
    recorder.enter("fit_range", first, last, line_count)
    if first > line_count or last < 1 or first > last:
        return None
    return max(first, 1), min(last, line_count)
