#!/usr/bin/env python3
"""Makes manual pages of section 3 from doxygen's XML: one for each function, and one for each header
with the conventions that hold for all of its functions.

man_pages.py FOLDER: reads FOLDER/xml, writes FOLDER/man3, and removes the XML.
"""
import os
import re
import shutil
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

VERSION = os.environ["ROVA_VERSION"]


def escaped(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
    return re.sub(r"^\.", r"\\&.", text, flags=re.MULTILINE)


def one_line(text):
    return re.sub(r"\s+", " ", text or "").strip()


def inline(node):
    """The text of an element: code and names in bold, everything else as it is."""
    pieces = [escaped(re.sub(r"\s+", " ", node.text or ""))]
    for child in node:
        text = inline(child)
        if child.tag in ("computeroutput", "ref", "bold"):
            text = f"\\fB{text}\\fP"
        pieces += [text, escaped(re.sub(r"\s+", " ", child.tail or ""))]
    return "".join(pieces)


def blocks(node):
    """The paragraphs and lists of an element, as lines."""
    lines, text = [], [escaped(re.sub(r"\s+", " ", node.text or ""))]

    def flush():
        paragraph = "".join(text).strip()
        if paragraph:
            lines.extend([".PP", paragraph])
        text.clear()

    for child in node:
        if child.tag in ("itemizedlist", "orderedlist"):
            flush()
            for item in child.findall("listitem"):
                body = [line for line in blocks(item) if line != ".PP"]
                lines.extend([".IP \\(bu 2", *body])
        elif child.tag == "simplesect" and child.get("kind") in ("par", "note"):
            flush()
            title = one_line(child.findtext("title")) or "Note"
            lines.extend([f".SS {escaped(title)}"])
            for paragraph in child.findall("para"):
                lines.extend(blocks(paragraph))
        elif child.tag == "para":
            flush()
            lines.extend(blocks(child))
        elif child.tag == "programlisting":
            flush()
            lines.extend([".PP", ".nf"])
            lines.extend(escaped("".join(line.itertext())) for line in child.findall("codeline"))
            lines.append(".fi")
        elif child.tag == "table":
            flush()
            for row in child.findall("row"):
                cells = [inline(cell).strip() for cell in row.findall("entry")]
                lines.extend([".PP", ": ".join(cells)])
        elif child.tag not in ("parameterlist", "simplesect"):
            piece = inline(child)
            text.append(f"\\fB{piece}\\fP" if child.tag in ("computeroutput", "ref") else piece)
        text.append(escaped(re.sub(r"\s+", " ", child.tail or "")))
    flush()
    return lines


def page(name, brief, sections):
    lines = [
        f'.TH "{name}" 3 "" "rova {VERSION}" "rova"',
        ".nh",
        ".SH NAME",
        f"{escaped(name)} \\- {brief}",
    ]
    for title, body in sections:
        if body:
            lines += [f".SH {title}", *body]
    return "\n".join(lines) + "\n"


def brief_of(node):
    return inline(node.find("briefdescription")).strip().rstrip(".")


def function_page(function, header, all_of_header):
    name = function.findtext("name")
    type_of_result = inline(function.find("type")).replace("\\fB", "").replace("\\fP", "").strip()
    arguments = []
    for parameter in function.findall("param"):
        kind = "".join(parameter.find("type").itertext()).strip()
        declared = parameter.findtext("declname", "")
        space = "" if kind.endswith("*") or not declared else " "
        arguments.append(escaped(kind.replace(" *", "*") if not declared else f"{kind}{space}{declared}"))
    synopsis = [
        ".nf",
        f".B #include <{header}>",
        ".PP",
        f"\\fB{type_of_result} {escaped(name)}(" + ",\n    ".join(arguments) + ");\\fP",
        ".fi",
    ]
    described = function.find("detaileddescription")
    parameters = []
    for item in described.iter("parameteritem"):
        names = ", ".join(one_line("".join(n.itertext())) for n in item.iter("parametername"))
        parameters += [".TP", f".I {escaped(names)}"]
        parameters += [line for line in blocks(item.find("parameterdescription")) if line != ".PP"]
    returned = []
    for section in described.iter("simplesect"):
        if section.get("kind") == "return":
            for paragraph in section.findall("para"):
                returned += blocks(paragraph)
    description = [".PP", inline(function.find("briefdescription")).strip()] + blocks(described)
    also = [f"\\fB{escaped(header)}\\fP(3)"]
    also += [f"\\fB{escaped(other)}\\fP(3)" for other in all_of_header if other != name]
    return page(
        name,
        brief_of(function),
        [
            ("SYNOPSIS", synopsis),
            ("DESCRIPTION", description),
            ("PARAMETERS", parameters),
            ("RETURN VALUE", returned),
            ("SEE ALSO", [",\n".join(also)]),
        ],
    )


def header_page(group, header, functions):
    constants = []
    for value in group.iter("enumvalue"):
        text = " ".join(
            filter(None, (inline(value.find(part)).strip()
                          for part in ("briefdescription", "detaileddescription"))))
        constants += [".TP", f".B {escaped(value.findtext('name'))}", text]
    listed = []
    for function in functions:
        listed += [".TP", f"\\fB{escaped(function.findtext('name'))}\\fP(3)", brief_of(function)]
    return page(
        header,
        escaped(re.sub(r" \(.*", "", group.findtext("title"))),
        [
            ("SYNOPSIS", [f".B #include <{header}>"]),
            ("DESCRIPTION", [".PP", inline(group.find("briefdescription")).strip()]
             + blocks(group.find("detaileddescription"))),
            ("FUNCTIONS", listed),
            ("CONSTANTS", constants),
        ],
    )


def main():
    folder = Path(sys.argv[1])
    pages = folder / "man3"
    pages.mkdir()
    for source in sorted((folder / "xml").glob("group__*.xml")):
        group = ElementTree.parse(source).getroot().find("compounddef")
        in_brackets = re.search(r"\((\w+\.h)\)", group.findtext("title"))
        if not in_brackets:
            continue
        header = in_brackets.group(1)
        functions = group.findall("sectiondef/memberdef[@kind='function']")
        names = [function.findtext("name") for function in functions]
        (pages / f"{header}.3").write_text(header_page(group, header, functions))
        for function in functions:
            path = pages / f"{function.findtext('name')}.3"
            path.write_text(function_page(function, header, names))
    shutil.rmtree(folder / "xml")


main()
