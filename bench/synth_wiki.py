"""A synthetic repository and wiki at a chosen scale, deterministic for a seed.

Source files in Python and C++ hold nested declarations (classes with methods, namespaces with
classes and free functions). Wiki pages are prose: sentences naming identifiers in backticks,
non-ASCII text, some very long lines, and citations: most of a declaration's lines, some one-line,
some to files that do not exist. A "code change" then inserts lines above and inside declarations,
renames some and deletes some.

    synth_wiki.py generate --scale small|medium|large [--seed N] --out DIR

writes, under DIR:

- repo/: a git repository (one commit) with src/ and a docs/ wiki whose citations are markdown
  links `[text](/path#Lx-Ly)` or `[text](/path#Lx)`, and docs/digests.json;
- repo.changed/: the same work tree after the code change (no .git; copied over repo/ to apply it);
- core/: the same wiki for the in-memory host (citations written `(path#Lx-Ly)`), with
  digests.json, and core.json: the index after the code change (line counts and declarations per
  file), the page rows (half of each page's citations stored anchored to the declaration they
  cited before the change, half legacy) and the wiki directory. bench/scale_driver reads it.
"""
import argparse
import json
import random
import shutil
import subprocess
from pathlib import Path

SCALES = {  # source files, pages, citations per page
    "small": (40, 20, 20),
    "medium": (1000, 2000, 20),
    "large": (5000, 10000, 20),
}
WORDS = ("state cache token buffer parser index record page span range reader writer store "
         "entry queue graph node edge frame stream block chunk").split()
VERBS = "load save parse merge split flush open close read write find build check".split()
PROSE = [
    "Die Funktion liest die Datei — 読み込み und prüft jede Zeile",
    "Cette méthode garde l'état entre deux appels, ce qui évite un second parcours",
    "这个函数把结果写回缓存 and returns the count",
    "It walks the list once; the cost is linear in its length 𝄞",
    "Η συνάρτηση επιστρέφει το αποτέλεσμα without copying the buffer",
    "The caller owns the result and may keep it beyond the call",
]


class Decl:
    """A declaration: a name, a body length and children (methods of a class)."""

    def __init__(self, name, body, children=()):
        self.name, self.body, self.children = name, body, list(children)
        self.inserted = 0  # lines inserted inside it by the code change


class SourceFile:
    def __init__(self, path, lang, decls, module):
        self.path, self.lang, self.decls, self.module = path, lang, decls, module
        self.top = 0  # lines inserted at the top by the code change

    def render(self):
        """The file's text and its declarations as (fqn, name, kind, start, end)."""
        out, symbols = [], []

        def line(text=""):
            out.append(text)
            return len(out)

        if self.lang == "py":
            line(f'"""The {self.module} module."""')
            for i in range(self.top):
                line(f"CONSTANT_{i} = {i}  # inserted")
            line("import os")
            line()
            for d in self.decls:
                line()
                if d.children:
                    start = line(f"class {d.name}:")
                    line(f'    """A {d.name}."""')
                    for i in range(d.inserted):
                        line(f"    field_{i} = {i}")
                    entries = []
                    for m in d.children:
                        line()
                        ms = line(f"    def {m.name}(self, value):")
                        for i in range(m.body):
                            line(f"        value = value + {i}  # {WORDS[i % len(WORDS)]}")
                        for i in range(m.inserted):
                            line(f"        value = value * {i + 2}  # inserted")
                        me = line("        return value")
                        entries.append((f"{self.module}.{d.name}.{m.name}", m.name, "member",
                                        ms, me))
                    symbols.append((f"{self.module}.{d.name}", d.name, "class", start, len(out)))
                    symbols.extend(entries)
                else:
                    start = line(f"def {d.name}(path, count=1):")
                    for i in range(d.body):
                        line(f"    count += len(path) * {i}  # {WORDS[i % len(WORDS)]}")
                    for i in range(d.inserted):
                        line(f"    count -= {i}  # inserted")
                    end = line("    return count")
                    symbols.append((f"{self.module}.{d.name}", d.name, "function", start, end))
        else:
            line("#include <string>")
            for i in range(self.top):
                line(f"// inserted line {i}")
            line()
            line(f"namespace {self.module} {{")
            for d in self.decls:
                line()
                if d.children:
                    start = line(f"class {d.name} {{")
                    line(" public:")
                    for i in range(d.inserted):
                        line(f"  int field_{i} = {i};")
                    entries = []
                    for m in d.children:
                        ms = line(f"  int {m.name}(int value) const {{")
                        for i in range(m.body):
                            line(f"    value += {i};  // {WORDS[i % len(WORDS)]}")
                        for i in range(m.inserted):
                            line(f"    value *= {i + 2};  // inserted")
                        line("    return value;")
                        me = line("  }")
                        entries.append((f"{self.module}::{d.name}::{m.name}(int) const", m.name,
                                        "function", ms, me))
                    end = line("};")
                    symbols.append((f"{self.module}::{d.name}", d.name, "class", start, end))
                    symbols.extend(entries)
                else:
                    start = line(f"int {d.name}(const std::string& path) {{")
                    line("  int count = 0;")
                    for i in range(d.body):
                        line(f"  count += static_cast<int>(path.size()) * {i};  // "
                             f"{WORDS[i % len(WORDS)]}")
                    for i in range(d.inserted):
                        line(f"  count -= {i};  // inserted")
                    line("  return count;")
                    end = line("}")
                    symbols.append((f"{self.module}::{d.name}(const std::string&)", d.name,
                                    "function", start, end))
            line()
            line(f"}}  // namespace {self.module}")
        return "\n".join(out) + "\n", symbols


def make_files(rng, count):
    files = []
    for f in range(count):
        lang = "py" if f % 2 == 0 else "cc"
        module = f"mod{f}"
        decls = []
        for c in range(rng.randrange(1, 4)):
            methods = [Decl(f"{rng.choice(VERBS)}_{WORDS[m]}", rng.randrange(3, 10))
                       for m in range(rng.randrange(2, 6))]
            decls.append(Decl(f"{WORDS[c].capitalize()}{rng.choice(WORDS).capitalize()}{f}", 0,
                              methods))
        for i in range(rng.randrange(2, 6)):
            decls.append(Decl(f"{rng.choice(VERBS)}_{rng.choice(WORDS)}_{i}", rng.randrange(3, 12)))
        ext = ".py" if lang == "py" else ".cc"
        files.append(SourceFile(f"src/pkg{f // 100}/{module}{ext}", lang, decls, module))
    return files


def change(rng, files):
    """Lines above and inside declarations, about 3% renamed and 2% deleted."""
    for sf in files:
        if rng.random() < 0.5:
            sf.top = rng.randrange(1, 6)
        for d in list(sf.decls):
            roll = rng.random()
            if roll < 0.02:
                sf.decls.remove(d)
                continue
            if roll < 0.05:
                d.name += "_renamed"
            if rng.random() < 0.3:
                d.inserted = rng.randrange(1, 4)
            for m in list(d.children):
                roll = rng.random()
                if roll < 0.02:
                    d.children.remove(m)
                elif roll < 0.05:
                    m.name += "_renamed"
                elif roll < 0.35:
                    m.inserted = rng.randrange(1, 4)


def sentence(rng, symbol, module):
    fqn, name = symbol[0], symbol[1]
    prose = rng.choice(PROSE)
    other = rng.choice(WORDS)
    return f"{prose}: `{name}` of `{module}` updates the `{other}` ({fqn.split('(')[0]})"


def build_pages(rng, files, before, pages, per_page):
    """Page texts in both syntaxes and each page's stored records (in the core's terms)."""
    out = []
    for p in range(pages):
        md = [f"# Page {p} — Übersicht 概要\n\n"]
        core = [f"# Page {p} — Übersicht 概要\n\n"]
        records = []
        long_line = rng.random() < 0.2
        for c in range(per_page):
            sf = files[rng.randrange(len(files))]
            symbols = before[sf.path]
            symbol = rng.choice(symbols)
            fqn, name, kind, start, end = symbol
            path = sf.path
            if kind != "class" and end - start >= 2:
                first = start + rng.randrange(0, 2)
                last = max(first, end - rng.randrange(0, 2))
            else:
                first, last = start, end
            roll = rng.random()
            if roll < 0.02:
                path = path.replace("src/", "src/gone/")  # a file that does not exist
            one_line = roll > 0.9
            if one_line:
                last = first
            text = sentence(rng, symbol, sf.module)
            fragment = f"#L{first}" if one_line else f"#L{first}-L{last}"
            md.append(f"{text} [{name}](/{path}{fragment})")
            core.append(f"{text} ({path}#L{first}-L{last})")
            sep = " " if long_line and c % 10 != 9 else ".\n"
            md.append(sep)
            core.append(sep)
            if c % 5 == 4:
                md.append("\n")
                core.append("\n")
            record = {"path": path, "line_start": first, "line_end": last}
            if c % 2 == 0 and path == sf.path:
                record.update(symbol=fqn, name=name, symbol_start=start, symbol_end=end)
            records.append(record)
        md.append("\nSee also `index` and the ```fenced``` notes.\n")
        core.append("\nSee also `index` and the ```fenced``` notes.\n")
        out.append(("".join(md), "".join(core), records))
    return out


def write_tree(root, files):
    for sf in files:
        text, _ = sf.render()
        target = root / sf.path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(text, encoding="utf-8")


def generate(scale, seed, out):
    n_files, n_pages, per_page = SCALES[scale]
    rng = random.Random(seed)
    out = Path(out)
    if out.exists():
        shutil.rmtree(out)
    repo, changed, core = out / "repo", out / "repo.changed", out / "core"
    files = make_files(rng, n_files)
    before = {sf.path: sf.render()[1] for sf in files}
    write_tree(repo, files)
    pages = build_pages(rng, files, before, n_pages, per_page)
    docs = repo / "docs"
    (core / "wiki").mkdir(parents=True)
    rows, digests = [], {}
    for p, (md, core_text, records) in enumerate(pages):
        rel = f"area{p // 500}/page{p}.md"
        (docs / rel).parent.mkdir(parents=True, exist_ok=True)
        (docs / rel).write_text(md, encoding="utf-8")
        (core / "wiki" / rel).parent.mkdir(parents=True, exist_ok=True)
        (core / "wiki" / rel).write_text(core_text, encoding="utf-8")
        rows.append({"page_id": f"p{p}", "rel_path": rel, "citations": records,
                     "build_cache": {}, "content_hash": "h"})
        digests[f"p{p}"] = {"citations": [dict(r) for r in records[:3]]}
    (core / "wiki" / "digests.json").write_text(json.dumps(digests, indent=2))
    (docs / "digests.json").write_text(json.dumps(digests, indent=2))
    (repo / ".gitignore").write_text("docs/.citation-refresh.lock\n")
    git = ["git", "-C", str(repo), "-c", "user.name=bench", "-c", "user.email=bench@example.com"]
    subprocess.run(["git", "init", "-q", "-b", "main", str(repo)], check=True)
    subprocess.run(git + ["add", "-A"], check=True)
    subprocess.run(git + ["commit", "-q", "-m", "generated"], check=True)

    change(rng, files)
    after, counts = {}, {}
    for sf in files:
        text, symbols = sf.render()
        after[sf.path] = [list(s) for s in symbols]
        counts[sf.path] = text.count("\n")
    write_tree(changed, files)
    (core / "core.json").write_text(json.dumps({
        "files": counts, "symbols": after, "pages": rows, "wiki_dir": str(core / "wiki"),
        "repo_root": str(repo)}))
    print(f"{scale}: {n_files} source files, {n_pages} pages, {n_pages * per_page} citations "
          f"-> {out}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    sub = parser.add_subparsers(dest="command", required=True)
    gen = sub.add_parser("generate")
    gen.add_argument("--scale", choices=SCALES, default="small")
    gen.add_argument("--seed", type=int, default=7)
    gen.add_argument("--out", type=Path, required=True)
    args = parser.parse_args()
    generate(args.scale, args.seed, args.out)


if __name__ == "__main__":
    main()
