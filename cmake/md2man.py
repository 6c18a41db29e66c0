#!/usr/bin/python3
"""md2man: a manual page (roff) made from sections of a Markdown guide, so
that the guide and the page are one text.

    md2man.py -o OUT[.gz] --name NAME --section N --what TEXT
              [--synopsis LINE]... GUIDE.md HEADING...

Each HEADING names a "## " section of GUIDE.md; it becomes a .SH section of
the page, its "### " subsections .SS. Understood: paragraphs, code blocks
(indented or fenced), tables (a row becomes a tagged paragraph: the first
cell is the tag, the others follow with their column names), "- " and "1. "
lists, `code`, **bold**, *emphasis* and [links](...) (their text). Pictures
are left out. OUT ending in .gz is compressed as Debian wants (gzip -9n).
"""

import argparse
import gzip
import re
import sys


def escape(text):
    """Text safe in roff: backslashes and hyphens of code escaped."""
    return text.replace("\\", "\\e")


def inline(text):
    """Markdown inline markup as roff fonts, outside and inside `code`."""
    parts = re.split(r"(`[^`]*`)", text)
    out = []
    for part in parts:
        if len(part) >= 2 and part.startswith("`") and part.endswith("`"):
            out.append("\\fB" + escape(part[1:-1]).replace("-", "\\-") + "\\fR")
            continue
        part = escape(part)
        part = re.sub(r"!\[[^\]]*\]\([^)]*\)", "", part)
        part = re.sub(r"\[([^\]]+)\]\([^)]*\)", r"\1", part)
        part = re.sub(r"\*\*([^*]+)\*\*", r"\\fB\1\\fR", part)
        part = re.sub(r"(?<![\w*])\*([^*\s][^*]*)\*(?![\w*])", r"\\fI\1\\fR", part)
        out.append(part)
    return "".join(out)


def line_out(text):
    """A text line that roff does not take for a request."""
    text = text.strip()
    return "\\&" + text if text[:1] in (".", "'") else text


def cells(row):
    return [c.strip() for c in row.strip().strip("|").split("|")]


def convert_block(lines):
    """The roff of a section's body lines."""
    out = []
    i = 0
    while i < len(lines):
        line = lines[i]
        if not line.strip():
            i += 1
            continue
        if line.startswith("### "):
            out.append('.SS "%s"' % inline(line[4:].strip()).replace('"', "'"))
            i += 1
        elif line.startswith("```"):
            j = i + 1
            while j < len(lines) and not lines[j].startswith("```"):
                j += 1
            out += code(lines[i + 1:j])
            i = j + 1
        elif line.startswith("    "):
            j = i
            while j < len(lines) and (lines[j].startswith("    ") or not lines[j].strip()):
                j += 1
            block = [l[4:] for l in lines[i:j]]
            while block and not block[-1].strip():
                block.pop()
            out += code(block)
            i = j
        elif line.startswith("|"):
            j = i
            while j < len(lines) and lines[j].startswith("|"):
                j += 1
            out += table(lines[i:j])
            i = j
        elif re.match(r"(- |\d+\. )", line):
            j = i + 1
            while j < len(lines) and lines[j].startswith("  ") and lines[j].strip():
                j += 1
            mark = line.split(" ", 1)
            tag = "\\(bu" if mark[0] == "-" else mark[0]
            out.append(".IP %s 4" % tag)
            out += text_lines([mark[1]] + lines[i + 1:j])
            i = j
        elif re.match(r"!\[", line):
            i += 1
        else:
            j = i
            while j < len(lines) and lines[j].strip() and not re.match(r"(#|    |\||```|- |\d+\. )",
                                                                        lines[j]):
                j += 1
            out.append(".PP")
            out += text_lines(lines[i:j])
            i = j
    return out


def text_lines(lines):
    """A paragraph's lines as roff: the markup is read over the whole
    paragraph, since a `code` span may run on to the next line."""
    text = inline("\n".join(l.strip() for l in lines))
    return [line_out(l) for l in text.split("\n")]


def code(block):
    out = [".PP", ".RS 4", ".nf"]
    for l in block:
        out.append("\\&" + escape(l).replace("-", "\\-"))
    return out + [".fi", ".RE"]


def table(rows):
    head = cells(rows[0])
    body = [cells(r) for r in rows[1:] if not re.fullmatch(r"[\s|:-]+", r)]
    out = []
    for row in body:
        out.append(".TP")
        out.append(line_out(inline(row[0]) or "\\&"))
        rest = row[1:]
        if len(rest) == 1:
            out.append(line_out(inline(rest[0])))
        else:
            out.append(line_out("; ".join("%s: %s" % (inline(h), inline(c))
                                          for h, c in zip(head[1:], rest))))
    return out


def sections(text, headings):
    """{heading: body lines} of the wanted "## " sections."""
    found = {}
    current = None
    for line in text.splitlines():
        if line.startswith("## "):
            current = line[3:].strip()
            if current in headings:
                found[current] = []
            continue
        if line.startswith("# "):
            current = None
        if current in found:
            found[current].append(line)
    missing = [h for h in headings if h not in found]
    if missing:
        sys.exit("md2man: no section %s in the guide" % ", ".join(repr(h) for h in missing))
    return found


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("-o", dest="out", required=True)
    p.add_argument("--name", required=True)
    p.add_argument("--section", required=True)
    p.add_argument("--what", required=True)
    p.add_argument("--synopsis", action="append", default=[])
    p.add_argument("guide")
    p.add_argument("headings", nargs="+")
    args = p.parse_args()
    with open(args.guide) as f:
        found = sections(f.read(), args.headings)

    page = ['.TH "%s" "%s" "" "Ostrel Relay" "Ostrel Relay"' % (args.name.upper(), args.section),
            ".SH NAME", "%s \\- %s" % (escape(args.name).replace("-", "\\-"), escape(args.what))]
    if args.synopsis:
        page += [".SH SYNOPSIS", ".nf"]
        page += ["\\&" + escape(s).replace("-", "\\-") for s in args.synopsis]
        page.append(".fi")
    for heading in args.headings:
        page.append('.SH "%s"' % heading.upper())
        page += convert_block(found[heading])
    page += [".SH SEE ALSO", "The guides in /usr/share/doc/ostrel/."]
    data = ("\n".join(page) + "\n").encode()
    if args.out.endswith(".gz"):
        with open(args.out, "wb") as f:
            with gzip.GzipFile(filename="", mode="wb", compresslevel=9, fileobj=f, mtime=0) as z:
                z.write(data)
    else:
        with open(args.out, "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
