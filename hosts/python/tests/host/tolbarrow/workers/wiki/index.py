"""The test host's declarations, as its index lists them."""
from dataclasses import dataclass


@dataclass(frozen=True)
class Symbol:
    fqn: str
    name: str
    kind: object
    start_line: int
    end_line: int
