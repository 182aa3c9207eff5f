#!/usr/bin/env python3
"""Doxygen input filter: the project's headers document with plain // comments.

Doxygen reads its own comment forms only, so this shows it the headers as they mean:
- the header's opening block documents the file, and also the class named like the
  file (or named by the block's first word, "VKQVesk: ...") when that has no comment;
- a block of // lines right before declarations documents them; when one block stands
  over several declarations (a getter and its setter), it documents each of them;
- a // comment after a declaration on its line documents that declaration.
Section rules ("// ---- Starting ----") and closing-brace notes ("}  // namespace")
stay plain comments.
"""
import os
import re
import sys

RULE = re.compile(r"^\s*// (-{3,}|={3,})")
COMMENT = re.compile(r"^(\s*)//(?!/)(.*)$")
TRAILING = re.compile(r"^(?P<code>\s*[^\s/}#].*?[;,{])(?P<gap>\s+)//(?!/)(?P<text>.*)$")
CLASS = re.compile(r"^(class|struct) (\w+)\b[^;]*$")
ACCESS = re.compile(r"^\s*(public|protected|private):")


def is_comment(line):
    return bool(COMMENT.match(line))


def declarations_after(lines, start):
    """How many declarations follow lines[start:] up to a blank line, comment or access label."""
    count, depth = 0, 0
    for line in lines[start:]:
        text = line.strip()
        if not text or is_comment(line) or ACCESS.match(line) or text.startswith("#"):
            break
        if depth == 0 and (text == "};" or text == "}"):
            break
        depth += line.count("(") - line.count(")") + line.count("{") - line.count("}")
        if depth == 0 and (text.endswith(";") or text.endswith("}")):
            count += 1
    return count


def filtered(lines, path):
    out = []
    # The opening block.
    i = 0
    opening = []
    while i < len(lines) and is_comment(lines[i]) and not RULE.match(lines[i]):
        opening.append(COMMENT.match(lines[i]).group(2))
        i += 1
    if opening:
        out.append("/// \\file")
        out.extend("///" + text for text in opening)
    named = re.match(r"\s*(\w+):", opening[0]).group(1) if opening and re.match(r"\s*\w+:", opening[0]) else None
    main_classes = {os.path.splitext(os.path.basename(path))[0], named}

    while i < len(lines):
        line = lines[i]
        if RULE.match(line):
            out.append(line)
            i += 1
            continue
        if is_comment(line):
            block = []
            while i < len(lines) and is_comment(lines[i]) and not RULE.match(lines[i]):
                indent, text = COMMENT.match(lines[i]).groups()
                block.append(f"{indent}///{text}")
                i += 1
            grouped = declarations_after(lines, i) > 1
            out.extend(block)
            if grouped:
                indent = COMMENT.match(lines[i - 1]).group(1)
                out.append(f"{indent}///@{{")
                j = i
                while j < len(lines) and lines[j].strip() and not is_comment(lines[j]) and not ACCESS.match(lines[j]):
                    if lines[j].strip() in ("};", "}"):
                        break
                    j += 1
                out.extend(lines[i:j])
                out.append(f"{indent}///@}}")
                i = j
            continue
        match = CLASS.match(line)
        if match and match.group(2) in main_classes and opening and (not out or not out[-1].lstrip().startswith("///")):
            out.extend("///" + text for text in opening)
        match = TRAILING.match(line)
        if match:
            out.append(f"{match.group('code')}{match.group('gap')}///<{match.group('text')}")
        else:
            out.append(line)
        i += 1
    return out


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        lines = source.read().split("\n")
    sys.stdout.write("\n".join(filtered(lines, sys.argv[1])))
