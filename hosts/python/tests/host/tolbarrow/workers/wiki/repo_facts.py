import hashlib
import os

from . import recorder


def _atomic_write(path, content):
    recorder.enter("_atomic_write", path, content)
    tmp = f"{path}.tmp"
    with open(tmp, "w", encoding="utf-8") as out:
        out.write(content)
    os.replace(tmp, path)


def _text_hash(text):
    recorder.enter("_text_hash", text)
    return hashlib.sha256(text.encode()).hexdigest()
