from pathlib import Path

from . import recorder


class LineCounts:
    def __init__(self, repo_root):
        recorder.enter("LineCounts", repo_root)
        self.root = Path(repo_root)

    def __call__(self, path):
        file = self.root / path
        return len(file.read_text().splitlines()) if file.is_file() else 0


def fit_range(first, last, line_count):
    recorder.enter("fit_range", first, last, line_count)
    if first > line_count or last < 1 or first > last:
        return None
    return max(first, 1), min(last, line_count)
