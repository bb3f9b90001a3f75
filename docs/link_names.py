#!/usr/bin/env python3
"""A header on its way into the reference: what its comments name becomes a link.

Doxygen links functions only where parentheses follow, and constants only behind a number sign. The
headers do without either, for those who read them as they are. Functions that may still change say
so in their declaration; here each of them says so in its description.
"""
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
COMMENT = re.compile(r"/\*\*.*?\*/", re.DOTALL)
EXPERIMENTAL = re.compile(r"(/\*\*(?:(?!\*/).)*?)\s*\*/(\s*ROVA_EXPERIMENTAL\b)", re.DOTALL)


def declared_names():
    """The functions and the constants of all headers in C."""
    functions, constants = set(), set()
    for folder in ROOT / "libs", ROOT / "platform":
        for header in folder.rglob("*.h"):
            code = COMMENT.sub("", header.read_text())
            functions.update(re.findall(r"\b((?:priv_)?rova_\w+)\(", code))
            constants.update(re.findall(r"^ +(ROVA_[A-Z0-9_]+)\b", code, re.MULTILINE))
    return functions, constants


def with_links(comment, functions, constants):
    def link(match):
        name = match.group("name")
        if name in functions:
            return f"{name}()"
        return f"#{name}" if name in constants else match.group(0)

    # What is a link already, a part of something longer, or the word before a bracket is left.
    return re.sub(
        r"(?<![\w#\"/.])(?<!@ref )(?P<quote>`?)(?P<name>(?:priv_rova|rova|ROVA)_\w+)(?P=quote)"
        r"(?![\w(*])(?!\.h)",
        link,
        comment,
    )


def main():
    text = Path(sys.argv[1]).read_text()
    functions, constants = declared_names()
    text = EXPERIMENTAL.sub(
        r"\1\n *\n * @note Experimental: its form may change in any minor version.\n */\2", text
    )
    print(COMMENT.sub(lambda match: with_links(match.group(0), functions, constants), text), end="")


main()
