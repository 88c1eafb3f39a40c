from . import recorder
from .types import _CITATION_RE, key_of

_SKIP_IDENT_EXTS = (".py", ".md")
_UNANCHORED_KINDS = frozenset({"module"})


def prose_citations(text):
    recorder.enter("prose_citations", text)
    return _CITATION_RE.finditer(text)


def anchored(record, symbol):
    recorder.enter("anchored", record, symbol)
    if symbol is None:
        return record
    out = dict(record)
    out.update(symbol=symbol.fqn, name=symbol.name, symbol_start=symbol.start_line,
               symbol_end=symbol.end_line)
    return out


def anchor_symbol(symbols, first, last):
    recorder.enter("anchor_symbol", symbols, first, last)
    return next((s for s in symbols if s.start_line <= first and last <= s.end_line), None)


def rewrite_citations(text, moves):
    recorder.enter("rewrite_citations", text, moves)

    def rewrite(match):
        new = moves.get(key_of(match))
        return match.group(0) if new is None else f"({match.group(1)}#L{new[0]}-L{new[1]})"

    return _CITATION_RE.sub(rewrite, text)
