#!/usr/bin/python3
"""Has every call of every named input of the corpus fail, one a run, and compares what the daemon logs and does with
docs/troubleshooting.md: a failure that changes anything is logged, with its errno where the message has one, and the
effect is what the document says of the last message.

    fuzz/failures.py PROGRAM      the program "failures" of a build; prints every run that is not so, and what was seen
"""
import collections
import errno
import os
import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests"))
import messages  # noqa: E402

ENDS = ("ends", "doesn't start")
DOCUMENT = HERE.parent / "docs/troubleshooting.md"


class Document:
    """Finds the row of a line of the log."""

    def __init__(self):
        self.rows = [(messages.pattern(row.message), row) for row in messages.rows(DOCUMENT)]
        self.known = {}

    def find(self, line):
        match = messages.LOG_LINE.search(line)
        source, text = match["source"], match["text"]
        if (source, text) not in self.known:
            found = [
                row
                for pattern, row in self.rows
                if row.source in (source, messages.SHARED_SOURCE) and pattern.fullmatch(text)
            ]
            # Where two formats fit, the one with more words of its own is meant.
            self.known[source, text] = max(found, key=lambda row: len(row.message), default=None)
        return self.known[source, text]


def allows(documented, effect):
    """Of an effect in the document, and what the daemon has done."""
    if documented.startswith("goes on ending"):
        return effect in ("goes on ending", "goes on, ends")
    return documented.startswith(tuple(effect.removesuffix(" ending").split(", ")))


def find_problem(document, error, effect, wrong, lines):
    if wrong:
        return wrong
    rows = [document.find(line) for line in lines]
    if None in rows:
        return "a line that the document does not know"
    # What an end logs on its way says nothing of why.
    while rows and effect in ENDS and any(each.startswith("goes on ending") for each in rows[-1].effects()):
        rows.pop()
    # The first line that can name the error does: errno, or the client library's word for it.
    for row, line in zip(rows, lines):
        if "(errno %d)" in row.message or "(%s)" in row.message:
            if f"(errno {error})" not in line and f"({os.strerror(error)})" not in line:
                return "another error in the log"
            break
    # An interrupted call has no line of its own.
    if rows and rows[0].cause.startswith("*follows another line*") and error != errno.EINTR:
        return "a line that follows another comes first"
    if rows and not any(allows(each, effect) for each in rows[-1].effects()):
        return f"the document says: {rows[-1].then}"
    return None


def main(program):
    document = Document()
    runs = 0
    played = number = error = "none"
    seen = set()
    logged = set()
    problems = collections.defaultdict(list)
    command = [program, str(HERE / "corpus")]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True, errors="replace") as process:
        for output in process.stdout:
            if not output.endswith("\n"):
                break
            played, number, call, error, effect, wrong, *lines = output.rstrip("\n").split("\t")
            runs += 1
            problem = find_problem(document, int(error), effect, wrong, lines)
            if problem:
                problems[call, error, effect, problem, *lines[-1:]].append((played, number, lines))
            seen |= {document.find(line) for line in lines}
            logged.update(lines)
    if "DIAG_SEEN_MESSAGES" in os.environ:
        with open(os.environ["DIAG_SEEN_MESSAGES"], "a", encoding="utf-8") as gathered:
            gathered.writelines(f"{line}\n" for line in logged)
    for (call, error, effect, problem, *_), places in problems.items():
        played, number, lines = places[0]
        print(
            f"{problem}\n    {len(places)} times, first in {played}, call {number}: {call} fails with {error}, {effect}"
        )
        print("".join(f"    {line}\n" for line in lines), end="")
    if process.returncode != 0:
        print(f"{program} ends with {process.returncode} after {played}, call {number}, error {error}")
    print(f"{runs} failures, {len(seen - {None})} of {len(document.rows)} messages, {len(problems)} problems")
    return 1 if problems or process.returncode != 0 or runs == 0 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
