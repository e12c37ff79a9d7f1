#!/usr/bin/env python3
"""The messages that the daemon can log, taken from its source.

    tests/messages.py             prints them: source, format
    tests/messages.py check FILE  compares them with the document FILE, which names each in a code span
"""
import re
import sys
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent / "src"
LITERALS = r'(?:"(?:[^"\\\n]|\\.)*"\s*)+'
CALL = re.compile(r"log_(?:component_)?error\(\s*(?:LUMLOG_\w+\s*,\s*)?(" + LITERALS + ")")
# A format of these begins with a text out of a table in the same file.
VARIABLE = re.compile(r"%s(?: \(|$)")
LOGGED_BY_LUMLOG = ["invalid priority level: %d", "invalid component: %d", "[couldn't allocate message]"]


def joined(literals):
    text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', literals))
    return text.replace('\\"', '"')


def messages():
    """Pairs of source file, as in src/, and format."""
    found = {("common/lumlog.cpp", text) for text in LOGGED_BY_LUMLOG}
    for path in sorted(SOURCE.rglob("*.cpp")):
        text = re.sub(r"//[^\n]*", "", path.read_text(encoding="utf-8"))
        name = str(path.relative_to(SOURCE))
        formats = {joined(match) for match in CALL.findall(text)}
        variable = {form for form in formats if VARIABLE.match(form)}
        found |= {(name, form) for form in formats - variable}
        for form in variable:
            rest = form[2:]
            for literal in map(joined, re.findall(LITERALS, text)):
                if len(literal.split()) > 2 and not literal.startswith(" ") and "%" not in literal and literal not in formats:
                    found.add((name, literal + rest))
    return sorted(found)


def check(document):
    text = Path(document).read_text(encoding="utf-8")
    documented = set(re.findall(r"`([^`\n]+)`", text))
    in_tables = {
        span
        for line in text.splitlines()
        if line.startswith("| `")
        for span in re.findall(r"`([^`\n]+)`", line.split(" | ")[0])
    }
    known = {form for _, form in messages()}
    missing = sorted(known - documented)
    stale = sorted(in_tables - known)
    for form in missing:
        print(f"not in {document}: {form}")
    for form in stale:
        print(f"no message of the daemon: {form}")
    return 1 if missing or stale else 0


if __name__ == "__main__":
    if sys.argv[1:2] == ["check"]:
        sys.exit(check(sys.argv[2]))
    for source, form in messages():
        print(f"{source}\t{form}")
