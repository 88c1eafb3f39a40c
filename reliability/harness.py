#!/usr/bin/env python3
"""Reliability harness for the citation-refresh command: hostile input, write faults, concurrent
writers and SIGKILL at random moments, each against a real git repository and the built command.

    harness.py --program PATH --shim PATH
               {hostile,numbers,faults,concurrent,crash,carrying,vanishing}
               [--rounds N]

Each mode prints its figures on one line and exits 1 with the failed checks listed."""

import argparse
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

GIT_ENV = {"GIT_AUTHOR_NAME": "t", "GIT_AUTHOR_EMAIL": "t@example.org",
           "GIT_COMMITTER_NAME": "t", "GIT_COMMITTER_EMAIL": "t@example.org",
           "GIT_CONFIG_NOSYSTEM": "1", "HOME": "/nonexistent"}
ARGS = None
FAILURES = []


def check(ok, what):
    if not ok:
        FAILURES.append(what)
    return ok


def git(root, *args):
    subprocess.run(["git", *args], cwd=root, check=True, capture_output=True,
                   env={**os.environ, **GIT_ENV})


def commit_and_anchor(root):
    """Commits the code and wiki as they stand, anchors them with one run, and commits that."""
    git(root, "add", "-A")
    git(root, "commit", "-q", "-m", "code and docs")
    assert run(root).returncode == 0
    git(root, "add", "-A")
    git(root, "commit", "-q", "-m", "anchors")


def readable_shim():
    """The shim copied where any user can load it: a checkout may sit in a directory only its
    owner can enter, and the dynamic loader of a command run as another user must read it."""
    global SHARED_SHIM
    if SHARED_SHIM is None:
        folder = tempfile.mkdtemp(prefix="reliability-shim-")
        os.chmod(folder, 0o755)
        SHARED_SHIM = shutil.copy(ARGS.shim, folder)
        os.chmod(SHARED_SHIM, 0o755)
    return SHARED_SHIM


SHARED_SHIM = None


def run(root, *args, env=None, timeout=120, user=None):
    """The command in `root`; as `user` (by setpriv) when given."""
    prefix = ["setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups"] if user else []
    env = {**os.environ, **(env or {})}
    if user and env.get("LD_PRELOAD") == ARGS.shim:
        env["LD_PRELOAD"] = readable_shim()
    return subprocess.run([*prefix, ARGS.program, "--quiet", *args], cwd=root,
                          capture_output=True, text=True, errors="replace", timeout=timeout,
                          env=env)


def unprivileged_user():
    """A user without root's right to read any file, when the harness runs as root and setpriv
    can switch to it; None otherwise (then the command runs as the harness does)."""
    if os.geteuid() != 0 or shutil.which("setpriv") is None:
        return None
    try:
        import pwd
        return pwd.getpwnam("nobody").pw_uid
    except (ImportError, KeyError):
        return None


def shim_env(root, **extra):
    env = {"LD_PRELOAD": ARGS.shim, "RELIABILITY_ROOT": str(root)}
    env.update({f"RELIABILITY_{k.upper()}": str(v) for k, v in extra.items()})
    return env


# ---- A generated repository where every citation moves -----------------------------------------

def source(k, shift):
    lines = [f"# module {k}"] + ["# moved"] * shift
    for f in range(4):
        lines += [f"def func_{k}_{f}(x):", f"    y = x + {f}", "    return y", ""]
    return "\n".join(lines) + "\n"


def func_lines(k, f, shift):
    start = 2 + shift + 4 * f
    return start, start + 2


def page(k, shift):
    text = [f"# Page {k}", ""]
    for f in range(4):
        a, b = func_lines(k, f, shift)
        text.append(f"`func_{k}_{f}` adds {f} [func_{k}_{f}](/src/mod_{k}.py#L{a}-L{b}).")
    return "\n".join(text) + "\n"


def digests(pages, shift):
    return {f"p{k}": {"summary": f"page {k}", "citations": [
        {"path": f"src/mod_{k}.py", "line_start": func_lines(k, f, shift)[0],
         "line_end": func_lines(k, f, shift)[1]} for f in range(4)]} for k in range(pages)}


def make_repo(base, pages=6):
    """A committed repository whose wiki is current, then code changed so every citation moves.
    Returns the root."""
    root = Path(base) / "repo"
    (root / "src").mkdir(parents=True)
    (root / "docs").mkdir()
    git(root, "init", "-q", "-b", "main")
    for k in range(pages):
        (root / f"src/mod_{k}.py").write_text(source(k, 0))
        (root / f"docs/p{k}.md").write_text(page(k, 0))
    (root / "docs/digests.json").write_text(json.dumps(digests(pages, 0), indent=2))
    commit_and_anchor(root)
    for k in range(pages):
        (root / f"src/mod_{k}.py").write_text(source(k, 3 + k))
    return root


def wiki_files(root):
    return {str(p.relative_to(root)): p.read_bytes() for p in sorted((root / "docs").rglob("*"))
            if p.is_file() and not p.name.startswith(".citation-refresh.lock")
            and ".tmp-" not in p.name}


def state(root):
    """What a finished run leaves: the wiki's files and what --check reports."""
    check_run = run(root, "--check", "--json")
    files = wiki_files(root)
    if ARGS.digests_may_lag:  # a known fault, see RELIABILITY.md; still checked to be JSON
        files.pop("docs/digests.json", None)
    return files, check_run.returncode, check_run.stdout


def differs(got, want):
    """Which parts of two states differ, for failure messages."""
    names = sorted(k for k in set(got[0]) | set(want[0]) if got[0].get(k) != want[0].get(k))
    return names + (["--check result"] if got[1:] != want[1:] else [])


def copy_tree(src, dst):
    if os.path.exists(dst):
        shutil.rmtree(dst)
    shutil.copytree(src, dst, symlinks=True)


def torn_pages(root, pages):
    """The page files that are neither wholly old nor wholly new, and whether digests.json and
    the anchors file still parse."""
    bad = []
    for k in range(pages):
        text = (root / f"docs/p{k}.md").read_text()
        if text not in (page(k, 0), page(k, 3 + k)):
            bad.append(f"p{k}.md")
    for name in ("digests.json", ".citation-anchors.json"):
        try:
            json.loads((root / "docs" / name).read_text())
        except ValueError:
            bad.append(name)
    leftovers = [p.name for p in (root / "docs").iterdir() if ".tmp-" in p.name]
    return bad, leftovers


# ---- Modes ------------------------------------------------------------------------------------

def mode_faults(base):
    """Fails each write, fsync and rename of one refresh in turn."""
    pages = 3
    pristine = Path(base) / "pristine"
    copy_tree(make_repo(base, pages), pristine)
    reference = Path(base) / "reference"
    copy_tree(pristine, reference)
    log = Path(base) / "ops.log"
    assert run(reference, env=shim_env(reference, log=log)).returncode == 0
    want = state(reference)
    ops = [line.split(" ", 2) for line in log.read_text().splitlines()]  # paths may hold spaces
    ops = [(kind, path) for kind, _, path in ops if kind in ("write", "fsync", "rename")]
    totals = {op: sum(kind == op for kind, _ in ops) for op in ("write", "fsync", "rename")}
    trials = 0
    for op, total in totals.items():
        paths = [path for kind, path in ops if kind == op]
        for n in range(1, total + 1):
            if ARGS.quick and "/docs/" not in paths[n - 1]:
                continue  # the store's own writes: the long run covers them
            for err in (("ENOSPC",) if ARGS.quick else ("ENOSPC", "EIO")):
                trials += 1
                work = Path(base) / "work"
                copy_tree(pristine, work)
                done = run(work, env=shim_env(work, fault=f"{op}:{n}:{err}"))
                lines = done.stderr.splitlines()
                label = f"{op} #{n} {err}"
                check(done.returncode in (0, 2), f"{label}: exit {done.returncode}")
                if done.returncode == 2:
                    check(len(lines) == 1 and lines[0].startswith("citation-refresh: error: "),
                          f"{label}: stderr {lines!r}")
                bad, leftovers = torn_pages(work, pages)
                check(not bad, f"{label}: torn {bad}")
                check(not leftovers, f"{label}: temporary files left {leftovers}")
                after = run(work)
                check(after.returncode == 0, f"{label}: next run {after.stderr.strip()}")
                got = state(work)
                check(got == want, f"{label}: next run differs from a clean run: "
                      f"{differs(got, want)}")
    print(f"faults: {trials} trials over {totals} counted operations, "
          f"{len(FAILURES)} failed checks")


def mode_crash(base, rounds):
    """SIGKILL at random moments, and just before each write, fsync and rename."""
    pages = 8
    pristine = Path(base) / "pristine"
    copy_tree(make_repo(base, pages), pristine)
    reference = Path(base) / "reference"
    copy_tree(pristine, reference)
    log = Path(base) / "ops.log"
    started = time.monotonic()
    assert run(reference, env=shim_env(reference, log=log)).returncode == 0
    span = time.monotonic() - started
    want = state(reference)
    ops = [line.split()[0] for line in log.read_text().splitlines()]
    points = [(op, n) for op in ("write", "fsync", "rename")
              for n in range(1, ops.count(op) + 1)]
    rng = random.Random(ARGS.seed)
    killed = 0
    for trial in range(rounds):
        work = Path(base) / "work"
        copy_tree(pristine, work)
        if trial % 2 == 0:  # a random moment of the run
            proc = subprocess.Popen([ARGS.program, "--quiet"], cwd=work,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0, span * 1.1))
            proc.kill()
            killed += proc.wait() == -9
            label = f"trial {trial} (random moment)"
        else:  # just before a chosen write, fsync or rename
            op, n = rng.choice(points)
            done = run(work, env=shim_env(work, fault=f"{op}:{n}:kill"))
            killed += done.returncode == -9
            label = f"trial {trial} (before {op} #{n})"
        bad, _ = torn_pages(work, pages)
        check(not bad, f"{label}: torn or broken {bad}")
        after = run(work)
        _, leftovers = torn_pages(work, pages)
        check(not leftovers, f"{label}: temporary files left after the next run {leftovers}")
        check(after.returncode == 0, f"{label}: next run {after.stderr.strip()}")
        got = state(work)
        check(got == want, f"{label}: next run differs from an uninterrupted run: "
              f"{differs(got, want)}")
    print(f"crash: {rounds} trials, {killed} killed mid-run, {len(points)} crash points known, "
          f"{len(FAILURES)} failed checks")


def inner_source(k, shift, inner):
    lines = [f"# module {k}"] + ["# moved"] * shift
    for f in range(4):
        lines += [f"def func_{k}_{f}(x):", *["    x = x * 1"] * inner, f"    y = x + {f}",
                  "    return y", ""]
    return "\n".join(lines) + "\n"


def make_inner_repo(base, pages):
    """As make_repo, but each page cites the line `y = ...` of each function, and the change
    inserts a line inside each function above it as well as lines above the functions: the refresh keeps
    a citation's distance from its declaration's first line, so only the carrying across git's
    diff places these, and carrying twice would show. Module 0 is also renamed (git mv)."""
    root = Path(base) / "repo"
    (root / "src").mkdir(parents=True)
    (root / "docs").mkdir()
    git(root, "init", "-q", "-b", "main")
    cited = {k: [3 + 4 * f for f in range(4)] for k in range(pages)}
    for k in range(pages):
        (root / f"src/mod_{k}.py").write_text(inner_source(k, 0, 0))
        (root / f"docs/p{k}.md").write_text(f"# Page {k}\n\n" + "".join(
            f"`func_{k}_{f}` returns [it](/src/mod_{k}.py#L{n}-L{n}).\n"
            for f, n in enumerate(cited[k])))
    (root / "docs/digests.json").write_text(json.dumps({f"p{k}": {"citations": [
        {"path": f"src/mod_{k}.py", "line_start": n, "line_end": n} for n in cited[k]]}
        for k in range(pages)}, indent=2))
    commit_and_anchor(root)
    for k in range(pages):
        (root / f"src/mod_{k}.py").write_text(inner_source(k, 3 + k, 1))
    (root / "src/lib").mkdir()
    git(root, "mv", "src/mod_0.py", "src/lib/mod_0.py")
    return root


def mode_carrying(base):
    """SIGKILL just before each write, fsync and rename of a run that carries citations across
    git's diff and a rename: every one of its hold of the wiki's lock, in which the pages are
    synced, the records carried are stored, the pages and digests.json rewritten, the refresh
    runs and the anchors file is written."""
    pages = 2 if ARGS.quick else 4
    pristine = Path(base) / "pristine"
    root = make_inner_repo(base, pages)
    copy_tree(root, pristine)
    reference = Path(base) / "reference"
    copy_tree(pristine, reference)
    log = Path(base) / "ops.log"
    assert run(reference, env=shim_env(reference, log=log)).returncode == 0
    want = state(reference)
    # The carrying placed every citation: on its function's line `y = ...`, in its new file.
    for k in range(pages):
        path = "src/lib/mod_0.py" if k == 0 else f"src/mod_{k}.py"
        for f in range(4):
            n = 4 + 3 + k + 5 * f
            check(f"[it](/{path}#L{n})".encode() in want[0][f"docs/p{k}.md"],
                  f"the reference run did not place func_{k}_{f} on line {n} of {path}")
    counts = {"write": 0, "fsync": 0, "rename": 0}
    holds, points = 0, []
    for line in log.read_text().splitlines():
        kind = line.split()[0]
        holds += kind == "acquire"
        if kind in counts:
            counts[kind] += 1
            if holds == 1:
                points.append((kind, counts[kind]))
        if kind == "release" and holds == 1:
            break
    killed = 0
    for op, n in points:
        work = Path(base) / "work"
        copy_tree(pristine, work)
        done = run(work, env=shim_env(work, fault=f"{op}:{n}:kill"))
        killed += done.returncode == -9
        label = f"before {op} #{n}"
        for name, text in wiki_files(work).items():
            if name.endswith(".md"):
                check(text in (wiki_files(pristine)[name], want[0][name]), f"{label}: torn {name}")
        after = run(work)
        check(after.returncode == 0, f"{label}: next run {after.stderr.strip()}")
        got = state(work)
        check(got == want, f"{label}: next run differs from an uninterrupted run: "
              f"{differs(got, want)}")
    check(killed == len(points), f"{len(points) - killed} of {len(points)} runs were not killed")
    print(f"carrying: {len(points)} crash points of the carrying, {killed} killed, "
          f"{len(FAILURES)} failed checks")


def mode_concurrent(base, rounds, writers=8):
    pages = 6
    pristine = Path(base) / "pristine"
    copy_tree(make_repo(base, pages), pristine)
    reference = Path(base) / "reference"
    copy_tree(pristine, reference)
    assert run(reference).returncode == 0
    want = state(reference)
    busy_runs = 0
    for r in range(rounds):
        work = Path(base) / "work"
        copy_tree(pristine, work)
        log = Path(base) / f"locks.log"
        if log.exists():
            log.unlink()
        env = {**os.environ, **shim_env(work, log=log)}
        procs = [subprocess.Popen([ARGS.program, "--json"], cwd=work, env=env, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                 for _ in range(writers)]
        outs = [(p.wait(timeout=300), *p.communicate()) for p in procs]
        for code, out, err in outs:
            busy = "being written" in err
            # A run that found another writer wrote nothing and says so by its exit code, 3.
            check(code == (3 if busy else 0), f"round {r}: exit {code}: {err.strip()}")
            busy_runs += busy
            extra = [l for l in err.splitlines() if "being written" not in l]
            check(not extra, f"round {r}: stderr {extra}")
        holder = None
        for line in log.read_text().splitlines():
            kind, pid, path = line.split(" ", 2)
            if kind == "acquire":
                check(holder is None, f"round {r}: {pid} acquired while {holder} held the lock")
                holder = pid
            elif kind == "release":
                check(holder == pid, f"round {r}: {pid} released a lock held by {holder}")
                holder = None
            elif kind == "rename" and "/docs/" in path:
                check(holder == pid, f"round {r}: {pid} replaced {path} without the lock")
        bad, leftovers = torn_pages(work, pages)
        check(not bad and not leftovers, f"round {r}: {bad} {leftovers}")
        got = state(work)
        check(got == want, f"round {r}: final state differs from one serial run: "
              f"{differs(got, want)}")
    print(f"concurrent: {rounds} rounds of {writers} writers, {busy_runs} busy runs reported, "
          f"{len(FAILURES)} failed checks")


def mode_vanishing(base, rounds, writers=4):
    """Concurrent writing runs (and one --check) after a cited file was moved with a plain `mv`,
    while files of the work tree appear and vanish all through them: every run ends well."""
    import threading
    pages = 6
    root = make_repo(base, pages)
    os.rename(root / "src/mod_0.py", root / "src/renamed_0.py")  # not git mv: untracked
    pristine = Path(base) / "pristine"
    copy_tree(root, pristine)
    reference = Path(base) / "reference"
    copy_tree(pristine, reference)
    assert run(reference).returncode == 0
    want = state(reference)
    churned = 0
    for r in range(rounds):
        work = Path(base) / "work"
        copy_tree(pristine, work)
        stop = threading.Event()

        def churn():
            nonlocal churned
            i = 0
            while not stop.is_set():
                folder = work / "src" / f"churn_{i % 7}"
                folder.mkdir(exist_ok=True)
                for j in range(5):
                    (folder / f"f{j}.py").write_text(f"def f{j}():\n    return {i}\n")
                    (work / f"src/gone_{j}.py").write_text("x = 1\n")
                for j in range(5):
                    (work / f"src/gone_{j}.py").unlink()
                shutil.rmtree(folder)
                churned += 10
                i += 1

        churner = threading.Thread(target=churn)
        churner.start()
        procs = [subprocess.Popen([ARGS.program, "--quiet", *args], cwd=work, text=True,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                 for args in [[]] * writers + [["--check"]]]
        outs = [(p.wait(timeout=300), p.stderr.read()) for p in procs]
        stop.set()
        churner.join()
        for i, (code, err) in enumerate(outs):
            # A writer that found another one writing only reported: exit 3.
            check(code in ((1, 0) if i == writers else (0, 3)),
                  f"round {r}: run {i} exit {code}: {err.strip()[:300]}")
        # p0 cites the moved file, so its new text is the reference run's, not page(0, 3).
        _, leftovers = torn_pages(work, pages)
        bad = [f"p{k}.md" for k in range(pages)
               if (work / f"docs/p{k}.md").read_bytes() not in
               ((pristine / f"docs/p{k}.md").read_bytes(), (reference / f"docs/p{k}.md").read_bytes())]
        check(not bad and not leftovers, f"round {r}: {bad} {leftovers}")
        after = run(work)
        check(after.returncode == 0, f"round {r}: next run {after.stderr.strip()}")
        got = state(work)
        check(got == want, f"round {r}: final state differs from one serial run: "
              f"{differs(got, want)}")
    print(f"vanishing: {rounds} rounds of {writers} writers and a --check, {churned} files made "
          f"and removed meanwhile, {len(FAILURES)} failed checks")


def mode_numbers(base):
    """Numbers in digests.json that a double cannot carry must not change silently."""
    pages = 2
    root = make_repo(base, pages)
    texts = ["123456789012345678901234567890", "0.1000000000000000055511151231257827",
             "18446744073709551616", "-9223372036854775809", "1e400"]
    d = json.loads((root / "docs/digests.json").read_text())
    raw = json.dumps(d, indent=2)
    for i, t in enumerate(texts):
        raw = raw.replace('"summary": "page 0"', f'"n{i}": {t}, "summary": "page 0"', 1)
    (root / "docs/digests.json").write_text(raw)
    done = run(root)
    after = (root / "docs/digests.json").read_text()
    for t in texts:
        kept = t in after
        untouched = after == raw
        check(kept or (untouched and done.stderr.strip()),
              f"digests.json number {t} changed silently (exit {done.returncode})")
    print(f"numbers: {len(texts)} inexact numbers, {len(FAILURES)} changed silently")


LAST_TOOK = [0.0]  # seconds of the last hostile run
# How the C++ and JSON libraries word their exceptions: an error shows none of it.
LIBRARY_WORDING = ("filesystem error:", "[json.exception", "basic_string", "what():")


def mode_hostile(base):
    """Each hostile input gives exit 0 (reported) or exit 2 with one line; nothing outside the
    repository is read; the rest of the wiki is unharmed. Some inputs must end one way: a link
    in the wiki that loops or leads out is skipped and the refresh goes on; an unreadable page
    (as a user that root's rights do not cover) stops the run with an error naming it."""
    pages = 2
    pristine = Path(base) / "pristine"
    copy_tree(make_repo(base, pages), pristine)
    secret = Path(base) / "outside.py"
    secret.write_text("def secret():\n    return 1\n")
    (Path(base) / "outside-dir").mkdir()
    (Path(base) / "outside-dir/deep.md").write_text("[s](/src/mod_0.py#L2-L4)\n")
    (Path(base) / "outside.md").write_text("[s](/src/mod_0.py#L2-L4)\n")
    big = "x" * 1024 + "\n"
    user = unprivileged_user()

    def page_file(text):
        return lambda r: (r / "docs/h.md").write_bytes(text if isinstance(text, bytes)
                                                       else text.encode())

    def link_out(r):
        os.symlink(secret, r / "src/out.py")
        page_file(f"`secret` [s](/src/out.py#L1-L2)\n")(r)

    def link_loop(r):
        os.symlink("b", r / "docs/a.md")
        os.symlink("a.md", r / "docs/b")
        os.symlink(".", r / "docs/self")

    def links_out(r):  # a page and a folder of the wiki that lead outside the repository
        os.symlink(Path(base) / "outside.md", r / "docs/out.md")
        os.symlink(Path(base) / "outside-dir", r / "docs/ext")

    def digests_out(r):  # "digests.json" a link to a file outside the repository
        outside = Path(base) / "outside-digests.json"
        outside.write_text(json.dumps(digests(pages, 0)))
        (r / "docs/digests.json").unlink()
        os.symlink(outside, r / "docs/digests.json")

    def fifo(r):
        os.mkfifo(r / "docs/fifo.md")

    def unreadable(r):
        page_file("text\n")(r)
        os.chmod(r / "docs/h.md", 0)

    def huge_page(r):
        with open(r / "docs/h.md", "w") as out:
            for _ in range((1 if ARGS.quick else 100) * 1024):
                out.write(big)
            out.write("[f](/src/mod_0.py#L2-L4)\n")

    def digest(text):
        return lambda r: (r / "docs/digests.json").write_text(text)

    def bad_db(text):
        def arrange(r):
            (r / ".git/citation-refresh.db").write_bytes(text)
        return arrange

    holders = []

    def locked_db(r):  # another process holds the database's write lock throughout
        holder = subprocess.Popen([sys.executable, "-c", (
            "import sqlite3, sys, time\n"
            "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
            "db.execute('BEGIN EXCLUSIVE'); print('held', flush=True); time.sleep(600)"),
            str(r / ".git/citation-refresh.db")], stdout=subprocess.PIPE, text=True)
        holder.stdout.readline()
        holders.append(holder)

    def goes_on(done, args, work=None):  # the input is skipped and the rest of the wiki refreshed
        return done.returncode != 2

    def names(part):  # an error naming `part`, nothing written
        return lambda done, args, work=None: done.returncode == 2 and part in done.stderr

    # Links out of the repository, and inside the wiki.
    victim = Path(base) / "outside-victim"

    def old_lock_linked_out(r):  # where the lock used to be, a link to a file outside
        victim.write_text("keep me")
        os.symlink(victim, r / "docs/.citation-refresh.lock")

    def wiki_linked_out(r):  # the whole wiki folder a link to a folder outside
        away = Path(base) / "outside-wiki"
        if away.exists():
            shutil.rmtree(away)
        shutil.move(r / "docs", away)
        os.symlink(away, r / "docs")

    def journal_linked_out(r):  # the digest journal a dangling link to outside
        os.symlink(Path(base) / "outside-journal", r / "docs/.digests-pending.json")

    def page_linked_in(r):
        os.symlink("p0.md", r / "docs/alias.md")

    def kept_link(done, args, work):
        return done.returncode != 2 and os.readlink(work / "docs/alias.md") == "p0.md"

    def kept_victim(done, args, work):
        return done.returncode != 2 and victim.read_text() == "keep me"

    # Bytes nobody asked to change: page p1 written otherwise, whose citations all move.
    def mixed_ends(text):
        lines = text.split("\n")[:-1]
        ends = ["\r\n", "\n", "\r"]
        return "".join(line + ends[i % 3] for i, line in enumerate(lines))[:-1]

    odd_pages = {
        "CRLF page": lambda text: text.replace("\n", "\r\n"),
        "mixed line ends, no last newline": mixed_ends,
        "byte-order mark, tab, trailing spaces":
            lambda text: "\ufeff\t" + text.replace("\n", "  \t\n"),
    }

    def odd_page(odd):
        def arrange(r):
            (r / "docs/p1.md").write_bytes(odd(page(1, 0)).encode())
        return arrange

    def kept_bytes(odd):
        def expect(done, args, work):
            now = (work / "docs/p1.md").read_bytes()
            want = odd(page(1, 0) if "--check" in args else page(1, 4)).encode()
            return done.returncode != 2 and now == want
        return expect

    def bad_name(r):
        with open(os.path.join(os.fsencode(r), b"docs/caf\xe9.md"), "wb") as out:
            out.write(b"[f](/src/mod_0.py#L2-L4)\n")

    # Pages made to be slow, each about as large as the plain page they are timed against: lines
    # like this one in paragraphs of ten.
    plain_line = "Plain prose, `code` and [a link](/x.py#L1).\n"
    slow_size = (1 if ARGS.quick else 4) * 1024 * 1024 + 512 * 1024
    timings = {}

    def sized(piece):
        def arrange(r):
            text, i = [], 1
            size = 0
            while size < slow_size:
                part = piece(i)
                text.append(part)
                size += len(part)
                i += 1
            (r / "docs/h.md").write_text("".join(text) + "\n[f](/src/mod_0.py#L2-L4)\n")
        return arrange

    def timed(name):
        def expect(done, args, work):
            timings[(name, tuple(args))] = LAST_TOOK[0]
            return done.returncode != 2
        return expect

    def as_fast_as_plain(done, args, work):
        plain = timings.get(("plain", tuple(args)))
        return done.returncode != 2 and plain is not None and LAST_TOOK[0] < 3 * plain + 2

    cases = [
        ("locked database", locked_db),
        ("absolute path", page_file(f"[s]({secret}#L1-L2)\n")),
        ("dot-dot path", page_file("[s](/src/../../outside.py#L1-L2)\n")),
        ("dot-dot path 2", page_file("[s](/../outside.py#L1-L2)\n")),
        ("symbolic link out", link_out),
        ("symbolic link loops", link_loop, goes_on),
        ("page and folder linked from outside", links_out, goes_on),
        # Refused with an error naming it, rather than read or replaced; --check tells the same.
        ("digests.json linked from outside", digests_out, names("docs/digests.json")),
        ("page is a directory", lambda r: (r / "docs/dir.md").mkdir(), goes_on),
        ("page is a FIFO", fifo, goes_on),
        ("page unreadable" + ("" if user is None else " (as nobody)"), unreadable,
         names("docs/h.md") if user is not None or os.geteuid() != 0 else goes_on),
        ("invalid UTF-8", page_file(b"ok\n\xff\xfe\n")),
        ("overlong encoding", page_file(b"ok \xc0\xaf \xe0\x80\xaf\n")),
        ("surrogate encoding", page_file(b"ok \xed\xa0\x80\n")),
        ("100 MB page (1 MB with --quick)", huge_page, goes_on),
        ("line 0", page_file("[f](/src/mod_0.py#L0)\n")),
        ("backwards range", page_file("[f](/src/mod_0.py#L5-L2)\n")),
        ("line beyond 64 bits", page_file("[f](/src/mod_0.py#L99999999999999999999)\n")),
        ("line beyond 64 bits end", page_file("[f](/src/mod_0.py#L2-L99999999999999999999)\n")),
        ("line 2^63", page_file("[f](/src/mod_0.py#L9223372036854775807-L9223372036854775808)\n")),
        ("digests huge", digest("{\"a\": [" + ",".join(["1"] * (3 if ARGS.quick else 30) * 10**5)
                                 + "]}")),
        ("digests nested 10,000", digest("[" * 10000 + "]" * 10000)),
        ("digests nested objects", digest('{"a":' * 10000 + "1" + "}" * 10000)),
        ("digests not an object", digest("[1, 2, 3]"), names("docs/digests.json: line 1")),
        ("digests not JSON", digest("{\"p0\": "), names("docs/digests.json: line 1, column 8")),
        ("digests with a byte-order mark", digest("\ufeff{}"), names("docs/digests.json: line 1")),
        ("anchors file with a merge conflict",
         lambda r: (r / "docs/.citation-anchors.json").write_text("<<<<<<< HEAD\n{}\n"),
         names("docs/.citation-anchors.json: line 1, column 1")),
        ("corrupt database", bad_db(b"SQLite format 3\x00" + b"\xff" * 4096), goes_on),
        ("garbage database", bad_db(b"not a database at all\n" * 100), goes_on),
        ("old lock place linked outside", old_lock_linked_out, kept_victim),
        ("wiki folder linked outside", wiki_linked_out, names("docs: the wiki folder leads outside")),
        ("digest journal a dangling link outside", journal_linked_out,
         names("docs/.digests-pending.json: a symbolic link")),
        ("page linked to a page of the wiki", page_linked_in, kept_link),
        *[(name, odd_page(odd), kept_bytes(odd)) for name, odd in odd_pages.items()],
        ("page name not UTF-8", bad_name, goes_on),
        ("plain page", sized(lambda i: plain_line + ("" if i % 10 else "\n")), timed("plain")),
        ("one paragraph, a link on each line", sized(lambda i: plain_line), as_fast_as_plain),
        ("the same in a block quote", sized(lambda i: "> " + plain_line), as_fast_as_plain),
        ("the same in a list item", sized(lambda i: ("- " if i == 1 else "  ") + plain_line),
         as_fast_as_plain),
        ("the same, each line ending in a quote", sized(lambda i: plain_line[:-1] + ' "\n'),
         as_fast_as_plain),
        ("reference links far below their definition",
         sized(lambda i: "[r]: /src/mod_0.py#L1\n" if i == 1 else "see [r] and [s](/x) x)\n"),
         as_fast_as_plain),
        ("backtick runs of each length", sized(lambda i: "`" * i + "x"), as_fast_as_plain),
        ("backtick runs never closed", sized(lambda i: "`` a ` b " * 8), as_fast_as_plain),
        ("brackets never closed", sized(lambda i: "[[a]" * 16), as_fast_as_plain),
        ("link openers never closed", sized(lambda i: "[a](/src/mod_0.py#L1-" * 4),
         as_fast_as_plain),
    ]
    if user is None and os.geteuid() == 0:
        print("hostile: no setpriv or no user nobody: the unreadable page is read as root")
    tried = 0
    slowest = (0.0, "")
    opens = Path(base) / "opens.log"
    opens.touch(mode=0o666)
    os.chmod(opens, 0o666)
    os.chmod(base, 0o755)  # for the unprivileged user
    for name, arrange, *expect in cases:
        for args in ([], ["--check"]):
            tried += 1
            work = Path(base) / "work"
            if work.exists():
                subprocess.run(["chmod", "-R", "u+rwx", str(work)], check=False)
            copy_tree(pristine, work)
            as_user = user if arrange is unreadable else None
            if as_user is not None:
                subprocess.run(["chown", "-R", f"{as_user}:{as_user}", str(work)], check=True)
            arrange(work)
            started = time.monotonic()
            try:
                done = run(work, *args, "--json", timeout=900, user=as_user,
                           env={"LD_PRELOAD": ARGS.shim, "RELIABILITY_OPENS": str(opens)})
            except subprocess.TimeoutExpired:
                check(False, f"{name} {args}: timed out")
                continue
            finally:
                for holder in holders:
                    holder.kill()
                    holder.wait()
                holders.clear()
            took = time.monotonic() - started
            LAST_TOOK[0] = took
            lines = done.stderr.splitlines()
            label = f"{name} {args}"
            slowest = max(slowest, (took, label))
            if ARGS.verbose:
                print(f"  {label}: exit {done.returncode} in {took:.1f} s {lines[:1]}")
            if expect:
                check(expect[0](done, args, work),
                      f"{label}: ended otherwise than expected: exit {done.returncode} "
                      f"{lines[:2]}")
            if done.returncode == 2:
                check(len(lines) == 1 and lines[0].startswith("citation-refresh: error: "),
                      f"{label}: error not one line: {lines[:3]!r}")
                check(not any(t in done.stderr for t in LIBRARY_WORDING),
                      f"{label}: a library's own wording reached the user: {lines[:1]!r}")
            else:
                check(done.returncode in (0, 1), f"{label}: exit {done.returncode}: {lines[:3]}")
                check(done.returncode == 0 or "--check" in args, f"{label}: exit 1 writing")
            others = [k for k in range(pages) if not (k == 1 and name in odd_pages)]
            for k in others:  # the untouched pages are wholly old or wholly moved
                text = (work / f"docs/p{k}.md").read_text()
                check(text in (page(k, 0), page(k, 3 + k)), f"{label}: page p{k} harmed")
            if done.returncode == 0 and not args:
                moved = all((work / f"docs/p{k}.md").read_text() == page(k, 3 + k)
                            for k in others)
                check(moved, f"{label}: exit 0 yet the other pages were not refreshed")
    outside = [line for line in opens.read_text(errors="replace").splitlines()
               if line.startswith(str(Path(base) / "outside"))]
    check(not outside, f"a file outside the repository was opened: {outside[:3]}")
    if ARGS.verbose:
        for (name, args), took in sorted(timings.items()):
            print(f"  {name} {list(args)}: {took:.2f} s")
    print(f"hostile: {len(cases)} inputs, {tried} runs, {len(FAILURES)} failed checks; "
          f"slowest run {slowest[0]:.1f} s ({slowest[1]})")


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--shim", required=True)
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--digests-may-lag", action="store_true",
                        help="leave digests.json out of the final-state comparison (known fault)")
    parser.add_argument("--quick", action="store_true",
                        help="a few seconds: faults on the wiki's files only, ENOSPC only")
    parser.add_argument("mode", choices=["hostile", "numbers", "faults", "concurrent", "crash",
                                         "carrying", "vanishing"])
    ARGS = parser.parse_args()
    ARGS.program = os.path.abspath(ARGS.program)
    ARGS.shim = os.path.abspath(ARGS.shim)
    with tempfile.TemporaryDirectory(prefix="reliability-") as base:
        if ARGS.mode == "hostile":
            mode_hostile(base)
        elif ARGS.mode == "numbers":
            mode_numbers(base)
        elif ARGS.mode == "faults":
            mode_faults(base)
        elif ARGS.mode == "concurrent":
            mode_concurrent(base, ARGS.rounds)
        elif ARGS.mode == "carrying":
            mode_carrying(base)
        elif ARGS.mode == "vanishing":
            mode_vanishing(base, ARGS.rounds)
        else:
            mode_crash(base, ARGS.rounds)
        subprocess.run(["chmod", "-R", "u+rwx", base], check=False)
    for failure in FAILURES[:200]:
        print("FAIL", failure, file=sys.stderr)
    sys.exit(1 if FAILURES else 0)


if __name__ == "__main__":
    main()
