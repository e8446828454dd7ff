"""Faults drawn at random from token changes across the product code, for `scripts/mutants
--sample N`: a flipped comparison, a swapped logical operator, a flipped boolean, a number off by
one, a changed string, a dropped call. Each is one line of a file changed in one place; the line
must occur once in its file, so that the fault can be planted and put back like a listed one.

The draw is seeded: the same seed over the same tree gives the same faults."""

import random
import re

# Folders of the product code: what players and studios run. Tests, benchmarks and the demo game
# are not sampled.
PRODUCT = ("update", "launcher", "paths", "helper", "tools/publish")

# (kind, pattern, replacement) applied at one match of a line. A comparison needs blanks on both
# sides, so that template brackets are left alone.
TOKEN_CHANGES = [
    ("lt-le", r"(?<=\s)<(?=\s)", "<="),
    ("le-lt", r"<=", "<"),
    ("gt-ge", r"(?<=\s)>(?=\s)", ">="),
    ("ge-gt", r">=", ">"),
    ("eq-ne", r"==", "!="),
    ("ne-eq", r"!=", "=="),
    ("and-or", r"&&", "||"),
    ("or-and", r"\|\|", "&&"),
    ("true-false", r"\btrue\b", "false"),
    ("false-true", r"\bfalse\b", "true"),
    ("number-plus-one", r"(?<![\w.])([0-9]+)(?![\w.x])", None),
]

CALL = re.compile(r"^\s*(?:[A-Za-z_][\w:]*(?:\.|->))*[A-Za-z_][\w:]*\(.*\);\s*$")
STRING = re.compile(r'"([^"\\]{3,})"')


def _outside_strings(line, position):
    return line[:position].count('"') % 2 == 0


def _skipped(line):
    text = line.strip()
    return (not text or text.startswith(("//", "#", "*", "/*")) or "static_assert" in text
            or text.startswith("namespace"))


def _changes(line):
    """Every token change of one line: (kind, changed line)."""
    for kind, pattern, replacement in TOKEN_CHANGES:
        for match in re.finditer(pattern, line):
            if not _outside_strings(line, match.start()):
                continue
            new = replacement if replacement is not None else str(int(match.group(1)) + 1)
            yield kind, line[:match.start()] + new + line[match.end():]
    if CALL.match(line) and not line.strip().startswith("return"):
        yield "call-dropped", ""
    for match in STRING.finditer(line):
        text = match.group(1)
        yield "string-changed", line[:match.end() - 2] + "#" + line[match.end() - 1:]


def candidates(root):
    """Every fault the sampler may draw, as (id, file, find, replace, desc) tuples."""
    found = []
    for folder in PRODUCT:
        for path in sorted([*(root / folder).rglob("*.cpp"), *(root / folder).rglob("*.h")]):
            relative = path.relative_to(root).as_posix()
            text = path.read_text()
            for number, line in enumerate(text.splitlines(), 1):
                if _skipped(line) or text.count(line) != 1:
                    continue
                for index, (kind, changed) in enumerate(_changes(line)):
                    fault_id = f"sampled-{relative.replace('/', '.')}-{number}-{kind}-{index}"
                    desc = f"{kind} at {relative}:{number}"
                    found.append((fault_id, relative, line, changed, desc))
    return found


def draw(root, count, seed):
    pool = candidates(root)
    return random.Random(seed).sample(pool, min(count, len(pool)))
