#!/usr/bin/env python3
"""The messages that the daemon can log, taken from its source.

    tests/messages.py             prints them: source as in the log line, format
    tests/messages.py check FILE  compares them with the rows of the document FILE, and checks its form
    tests/messages.py seen FILE   prints the calls and the formats that no line in FILE comes from: the log lines that
                                  the tests add to the file named by the environment variable DIAG_SEEN_MESSAGES
"""
import re
import sys
from pathlib import Path
from typing import NamedTuple

SOURCE = Path(__file__).resolve().parent.parent / "src"
LITERALS = r'(?:"(?:[^"\\\n]|\\.)*"\s*)+'
CALL = re.compile(r"log_(?:component_)?(?:error|failure)\(\s*(?:LUMLOG_\w+\s*,\s*)?(" + LITERALS + ")")
SHARED_CALL = re.compile(r"log_failure_at\(\s*caller\s*,\s*(" + LITERALS + ")")
SHARED_SOURCE = "any"  # of what is logged for the module that calls
# Messages of timers name the timer; a module gives its names in a constant.
TIMER_FORMATS = "timer.cpp"
TIMER_NAMES = re.compile(r'timer_names (\w+) = \{"([^"]+)", "([^"]+)"\}')
TIMER_CALLS = {"start": ["create", "arm", "add"], "arm": ["arm"], "take": ["clear"]}
# A format of these begins with a text out of a table in the same file.
VARIABLE = re.compile(r"%s(?: \(|$)")
LOG_SOURCE = re.compile(r'log_source = "([^"]+)"')
LOG_LINE = re.compile(r" - (?P<source>[\w/.]+):(?P<line>\d+) - (?P<text>.*)")
CONVERSION = re.compile(r"%[-+ 0#]*[*\d]*(?:\.[*\d]+)?(?:hh?|ll?|z)?[diuxXsc]")
LOGGED_BY_LUMLOG = ["invalid priority level: %d", "invalid component: %d", "[couldn't allocate message]"]
HEADER = "| message | source | cause | then | cure |"
EFFECTS = ("goes on", "refuses", "ends", "doesn't start")


class Row(NamedTuple):
    """What the document says of a message."""

    message: str
    source: str
    cause: str
    then: str
    cure: str

    def effects(self):
        """What the daemon may do next: each begins with one of EFFECTS, other texts say when."""
        return self.then.split("; ")


def joined(literals):
    text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', literals))
    return text.replace('\\"', '"')


def sources():
    """Pairs of source file, as in src/, and its text without comments."""
    for path in sorted([*SOURCE.rglob("*.cpp"), *SOURCE.rglob("*.h")]):
        yield str(path.relative_to(SOURCE)), re.sub(r"//[^\n]*", "", path.read_text(encoding="utf-8"))


def timer_messages(text, formats):
    """What the formats say of the timers that the source text starts, arms and takes."""
    for constant, timer, event in TIMER_NAMES.findall(text):
        for call, verbs in TIMER_CALLS.items():
            if re.search(rf"timer_{call}\([^;]*?\b{constant}\b", text):
                for form in formats:
                    if form.split()[1] in verbs:
                        yield form.replace("%s", event if form.endswith("event") else timer)


def messages():
    """Pairs of source, as in the log line, and format."""
    found = {(SHARED_SOURCE, text) for text in LOGGED_BY_LUMLOG}
    texts = dict(sources())
    timer_formats = {joined(match) for match in SHARED_CALL.findall(texts.pop(TIMER_FORMATS))}
    for text in texts.values():
        found |= {(SHARED_SOURCE, joined(match)) for match in SHARED_CALL.findall(text)}
        source_match = LOG_SOURCE.search(text)
        if not source_match:
            continue
        source = source_match[1]
        found |= {(source, form) for form in timer_messages(text, timer_formats)}
        formats = {joined(match) for match in CALL.findall(text)}
        variable = {form for form in formats if VARIABLE.match(form)}
        found |= {(source, form) for form in formats - variable}
        for form in variable:
            rest = form[2:]
            for literal in map(joined, re.findall(LITERALS, text)):
                if (
                    len(literal.split()) > 2
                    and not literal.startswith(" ")
                    and "%" not in literal
                    and literal not in formats
                ):
                    found.add((source, literal + rest))
    # What a module says with the words of all modules is one message.
    shared = {form for source, form in found if source == SHARED_SOURCE}
    return sorted(pair for pair in found if pair[0] == SHARED_SOURCE or pair[1] not in shared)


def rows(document):
    """The rows of the document's tables."""
    in_table = False
    for line in Path(document).read_text(encoding="utf-8").splitlines():
        in_table = line == HEADER or (in_table and line.startswith("|"))
        if in_table and line != HEADER and not line.startswith("|--"):
            message, *others = line.removeprefix("| ").removesuffix(" |").split(" | ")
            yield Row(message.strip("`"), *others)


def check(document):
    documented = list(rows(document))
    pairs = {(row.source, row.message) for row in documented}
    known = set(messages())
    faults = [f"not in {document}: {source}: {form}" for source, form in sorted(known - pairs)]
    faults += [f"no message of the daemon: {source}: {form}" for source, form in sorted(pairs - known)]
    if len(pairs) != len(documented):
        faults.append("a message has two rows")
    for row in documented:
        if not all(row):
            faults.append(f"an empty cell: {row.message}")
        if not all(effect.startswith(EFFECTS) for effect in row.effects()):
            faults.append(f"the effect begins with none of {EFFECTS}: {row.message}: {row.then}")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


def calls():
    """(file, its log source, first line, last line, format) of each call."""
    for name, text in sources():
        source = LOG_SOURCE.search(text)
        for match in CALL.finditer(text):
            depth, end = 1, match.end()
            while depth:
                depth += {"(": 1, ")": -1}.get(text[end], 0)
                end += 1
            first, last = (text.count("\n", 0, place) + 1 for place in (match.start(), end))
            yield name, source[1], first, last, joined(match[1])


def pattern(form):
    """Of the lines that come from a format."""
    return re.compile(".*".join(map(re.escape, CONVERSION.split(form))))


def seen(lines_file):
    """Both ways are needed: several calls share a format, and one call takes its texts out of a table. A call is known
    by its source, line and text, as the files of one source have the same lines."""
    with open(lines_file, encoding="utf-8", errors="replace") as lines:
        logged = {match.group("source", "line", "text") for match in map(LOG_LINE.search, lines) if match}
    texts = {text for _, _, text in logged}
    all_calls = list(calls())
    unseen = [
        f"src/{file}:{first}: never called: {form}"
        for file, source, first, last, form in all_calls
        if not any(
            line_source == source and first <= int(line) <= last and pattern(form).fullmatch(text)
            for line_source, line, text in logged
        )
    ]
    for source, form in messages():
        if not any(map(pattern(form).fullmatch, texts)):
            unseen.append(f"{source}: never logged: {form}")
    print("\n".join(unseen))
    print(
        f"{len(logged)} different lines, {len(all_calls)} calls, {len(messages())} messages, {len(unseen)} never seen"
    )


if __name__ == "__main__":
    if sys.argv[1:2] == ["check"]:
        sys.exit(check(sys.argv[2]))
    if sys.argv[1:2] == ["seen"]:
        seen(sys.argv[2])
        sys.exit()
    for source, form in messages():
        print(f"{source}\t{form}")
