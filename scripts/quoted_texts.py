#!/usr/bin/env python3
"""Lists the double-quoted texts of a requirements document that the product's sources do not carry.

usage: scripts/quoted_texts.py DOCUMENT [--trace FILE]... [--all] [--heading PREFIX]

A text counts as carried when it stands in a string literal of the product (adjacent literals joined,
escapes decoded), for a failing-expression text in the code itself as the preprocessor would stringise
it (each run of white space read as one blank), or in one of
the given trace files (a verbose trace of a session carries the qualified names the compiler makes). "..." in a
quoted text stands for any run of characters. Texts are counted once per section whose heading starts
with PREFIX (default "# "), so a text quoted by two sections counts twice.
"""
import argparse
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PRODUCT_FOLDERS = ["module", "mft_core", "product", "user_space_frameworks", "autoexposure", "platform"]


def read_sources():
    code, literals = [], []
    for folder in PRODUCT_FOLDERS:
        for base, _, files in os.walk(os.path.join(ROOT, folder)):
            for name in sorted(files):
                if not name.endswith((".cpp", ".h", ".rc", ".def")):
                    continue
                with open(os.path.join(base, name), encoding="utf-8", errors="replace") as f:
                    text = f.read()
                text = re.sub(r"//[^\n]*", "", text)  # comments do not reach a trace
                code.append(text)
                literals.extend(joined_literals(text))
    return "\n".join(code), literals


# A quoted text; \" inside one is a quote of a quoted code expression (L\"Both\"), a trailing \ a path's.
QUOTED = re.compile(r'"((?:[^"\\\n]|\\[^"\n]|\\"(?=\w)|(?<=\w)\\"(?=\))|\\(?="))+)"')
LITERAL = re.compile(r'(?:u8|L|u|U)?"((?:[^"\\\n]|\\.)*)"')


def joined_literals(text):
    """String literals, adjacent ones ("a" "b", across lines) joined, escapes decoded."""
    out, current, end = [], None, -1
    for match in LITERAL.finditer(text):
        between = text[end:match.start()] if end >= 0 else None
        value = decode(match.group(1))
        if current is not None and between is not None and between.strip() == "":
            current += value
        else:
            if current is not None:
                out.append(current)
            current = value
        end = match.end()
    if current is not None:
        out.append(current)
    return out


def decode(body):
    return re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t", "0": "\0"}.get(m.group(1), m.group(1)), body)


def pattern(text):
    return re.compile(".*?".join(re.escape(p) for p in text.split("...")), re.S)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("document")
    parser.add_argument("--all", action="store_true", help="list the found texts too")
    parser.add_argument("--heading", default="# ")
    parser.add_argument("--trace", action="append", default=[])
    args = parser.parse_args()
    with open(args.document, encoding="utf-8") as f:
        document = f.read()
    code, literals = read_sources()
    stringised_code = re.sub(r"\s+", " ", code)
    literal_text = "\n\x00".join(literals)
    for path in args.trace:
        with open(path, encoding="utf-8", errors="replace") as f:
            literal_text += "\n\x00" + f.read()

    sections = re.split(r"^(# .*)$", document, flags=re.M)
    found = total = 0
    for i in range(1, len(sections), 2):
        heading, body = sections[i], sections[i + 1]
        if not heading.startswith(args.heading):
            continue
        seen = set()
        for quoted in re.findall(QUOTED, body):
            text = quoted.replace('\\"', '"')
            if text in seen:
                continue
            seen.add(text)
            total += 1
            ok = pattern(text).search(literal_text) or pattern(text).search(stringised_code)
            found += bool(ok)
            if args.all or not ok:
                print(("found   " if ok else "MISSING ") + heading.split(":")[0][2:] + ": \"" + quoted + "\"")
    print(f"{found} of {total} quoted texts found")
    return 0 if found == total else 1


if __name__ == "__main__":
    sys.exit(main())
