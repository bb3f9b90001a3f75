#!/usr/bin/env python3
"""Adds up what gcov counted in all programs of a build folder, and prints it for gcovr to show.

gcovr 5 reads what gcov prints for people, which tells the edges that exceptions take from others
only where they ran, and most of them never do. gcov's JSON always tells. Left out are

- calls, which either return or throw: whether they were made, their line says;
- decisions that were never made: each hangs on another one that counts, or on an exception;
- whether a dynamic_cast is given a null pointer;
- what the line below a comment "Not tested: REASON" decides, and what did not run in its block.
"""
import json
import subprocess
import sys
from collections import Counter, defaultdict
from pathlib import Path


class source_file:
    def __init__(self, name):
        self.text = Path(name).read_text().splitlines()
        self.counts = Counter()  # of lines
        self.edges = defaultdict(Counter)  # of lines: how often each was taken
        self.throwing = set()  # edges
        self.functions = Counter()  # of names and first lines

    def add(self, measured):
        """The same line may be in many programs, and many times in each."""
        for function in measured["functions"]:
            key = function["demangled_name"], function["start_line"]
            self.functions[key] += function["execution_count"]
        for line in measured["lines"]:
            number = line["line_number"]
            self.counts[number] += line["count"]
            for edge, branch in enumerate(line["branches"]):
                self.edges[number][edge] += branch["count"]
                if branch["throw"]:
                    self.throwing.add((number, edge))

    def decisions(self, number):
        """The edges that count, in pairs: gcov puts those that exclude each other side by side."""
        taken = self.edges[number]
        first = 2 if "dynamic_cast<" in self.text[number - 1] else 0
        for edge in range(first, len(taken), 2):
            pair = [each for each in (edge, edge + 1) if each in taken]
            throws = any((number, each) in self.throwing for each in pair)
            if not throws and any(taken[each] for each in pair):
                yield from (taken[each] for each in pair)

    def lines(self):
        untested = untested_block = False
        for number, text in enumerate(self.text, 1):
            code = text.strip()
            untested_block = untested or (untested_block and not code.startswith("}"))
            counts = [] if untested or code == "}" else self.decisions(number)
            untested = code.startswith("// Not tested: ")
            if number not in self.counts or (untested_block and self.counts[number] == 0):
                continue
            yield {
                "line_number": number,
                "count": self.counts[number],
                "branches": [{"count": c, "fallthrough": False, "throw": False} for c in counts],
                "gcovr/noncode": False,
                "gcovr/excluded": False,
            }

    def report(self, name):
        return {
            "file": name,
            "lines": list(self.lines()),
            "functions": [
                {"name": function, "lineno": line, "execution_count": count}
                for (function, line), count in self.functions.items()
            ],
        }


def measured_files(build):
    for counts in sorted(build.rglob("*.gcda")):
        command = ["gcov", "--json-format", "--stdout", "--branch-probabilities", counts]
        output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
        for document in output.splitlines():
            yield from json.loads(document)["files"]


def main():
    files = {}
    for measured in measured_files(Path(sys.argv[1])):
        name = measured["file"]
        if not name.startswith("/"):  # files of the repository are named from its root
            files.setdefault(name, source_file(name)).add(measured)
    reports = [file.report(name) for name, file in sorted(files.items())]
    json.dump({"gcovr/format_version": "0.3", "files": reports}, sys.stdout)


main()
