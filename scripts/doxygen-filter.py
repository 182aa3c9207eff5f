#!/usr/bin/env python3
"""Doxygen input filter: the project's headers document with plain // comments.

Doxygen reads its own comment forms only, so this shows it the headers as they mean:
- the opening block documents the file, and also the class, enumeration or type alias
  named like the file (or by the block's first word, "VKQVesk: ...") when that has no
  comment of its own;
- a block of // lines documents the declaration right after it; when that declaration
  comes with its setter or overloads (or a run of constants) on the next lines, the
  block documents each of them;
- a // comment after a declaration on its line documents that declaration;
- a section rule ("// ---- Starting ----", "// --- Typed reads ...") opens a named
  group that runs to the next rule or the end of the scope; its text documents each
  member of the group that has no comment of its own.
Closing-brace notes ("}  // namespace") stay plain comments. Defaulted and deleted
special members are left out: they tell a reader of the reference nothing.
"""
import os
import re
import sys

RULE = re.compile(r"^(\s*)// (?:-{3,}|={3,}) ?(.*?)\s*[-=]*$")
COMMENT = re.compile(r"^(\s*)//(?!/)(.*)$")
TRAILING = re.compile(r"^(?P<code>\s*[^\s/}#].*?[;,{])(?P<gap>\s+)//(?!/)(?P<text>.*)$")
ACCESS = re.compile(r"^\s*(public|protected|private):")
DEFAULTED = re.compile(r"^\s*[^/]*\)\s*(const\s*)?=\s*(default|delete);")
# A definition the opening block may be about.
MAIN = re.compile(r"^\s*(?:(?:class|struct|enum class|enum) (\w+)\b[^;]*$|using (\w+) =)")
NAME = re.compile(r"(\w+)\s*(?:\(|=|;|\{)")


def indent_of(line):
    return len(line) - len(line.lstrip())


def is_comment(line):
    return bool(COMMENT.match(line)) and not RULE.match(line)


def declaration_name(line):
    """The declared name, less a "set" prefix, or None."""
    match = NAME.search(line.split("//")[0])
    if not match:
        return None
    name = match.group(1)
    if name.startswith("set") and len(name) > 3:
        name = name[3].lower() + name[4:]
    return name.lower()


def run_after(lines, start):
    """The indices of the declarations starting in lines[start:], up to a blank line,
    comment, rule, access label or the end of the scope."""
    starts, depth = [], 0
    for i in range(start, len(lines)):
        text = lines[i].strip()
        if not text or COMMENT.match(lines[i]) or ACCESS.match(lines[i]) or text.startswith("#"):
            break
        if depth == 0 and text.startswith("}"):
            break
        if depth == 0:
            starts.append(i)
        depth += lines[i].count("(") - lines[i].count(")") + lines[i].count("{") - lines[i].count("}")
        depth = max(depth, 0)
        if depth == 0 and not (text.endswith(";") or text.endswith("}")):
            depth = 1 if text.endswith(",") or text.endswith("(") else depth
    # A declaration spans its lines: keep those that begin a statement.
    result, open_statement = [], False
    for i in starts:
        if not open_statement:
            result.append(i)
        text = lines[i].rstrip()
        open_statement = not (text.endswith(";") or text.endswith("}"))
    return result


def shares_doc(lines, run):
    """Whether a comment over the first declaration of `run` documents all of them."""
    if len(run) < 2:
        return False
    if all(lines[i].lstrip().startswith("inline constexpr") for i in run):
        return True
    names = {declaration_name(lines[i]) for i in run}
    return len(names) == 1 and None not in names


def filtered(lines, path):
    out = []
    i = 0
    opening = []
    while i < len(lines) and is_comment(lines[i]):
        opening.append(COMMENT.match(lines[i]).group(2))
        i += 1
    if opening:
        out.append("/// \\file")
        out.extend("///" + text for text in opening)
    named = re.match(r"\s*(\w+):", opening[0]) if opening else None
    main_names = {os.path.splitext(os.path.basename(path))[0], named.group(1) if named else None}
    group_indent = None  # indentation of the members of the open named group
    group_doc = []       # its text, as a member's documentation
    statement_ended = True

    def close_group():
        nonlocal group_indent
        if group_indent is not None:
            out.append(" " * group_indent + "//@}")
            group_indent = None

    while i < len(lines):
        line = lines[i]
        text = line.strip()
        if group_indent is not None and text and not COMMENT.match(line) and not RULE.match(line):
            ends_scope = text.startswith("}") and (indent_of(line) < group_indent or "// namespace" in text)
            if ACCESS.match(line) or ends_scope:
                close_group()
        rule = RULE.match(line)
        if rule:
            close_group()
            indent, title = rule.group(1), rule.group(2).rstrip(".")
            out.append(f"{indent}/// @name {title}")
            start = i
            i += 1
            # A rule that does not close with dashes goes on in the comment lines under it.
            if not re.search(r"[-=]{3,}\s*$", line):
                while i < len(lines) and is_comment(lines[i]):
                    out.append(f"{indent}///{COMMENT.match(lines[i]).group(2)}")
                    i += 1
            out.append(f"{indent}//@{{")  # plain: a doc comment right after it would document the group
            group_indent = len(indent)
            group_doc = [f"{indent}/// {rule.group(2)}"] + [
                f"{indent}///{COMMENT.match(l).group(2)}" for l in lines[start + 1:i] if COMMENT.match(l)]
            if not group_doc[-1].endswith("."):
                group_doc[-1] += "."
            continue
        if is_comment(line):
            block = []
            while i < len(lines) and is_comment(lines[i]):
                indent, comment = COMMENT.match(lines[i]).groups()
                block.append(f"{indent}///{comment}")
                i += 1
            run = run_after(lines, i)
            if run and DEFAULTED.match(lines[run[0]]):
                out.extend(b.replace("///", "//", 1) for b in block)  # its declaration is left out
                continue
            out.extend(block)
            if shares_doc(lines, run):
                for k, start in enumerate(run):
                    end = run[k + 1] if k + 1 < len(run) else start + 1
                    while end < len(lines) and k + 1 == len(run) and not lines[end - 1].rstrip().endswith((";", "}")):
                        end += 1
                    if k > 0:
                        out.extend(block)
                    out.extend(lines[start:end])
                i = end
            continue
        if DEFAULTED.match(line):
            i += 1
            continue
        # A member of a named group without a comment of its own: the group's text. An
        # override inherits the documentation of what it overrides instead.
        if (group_indent is not None and indent_of(line) == group_indent and statement_ended
                and not out[-1].lstrip().startswith("///") and " override" not in line):
            out.extend(group_doc)
        match = MAIN.match(line)
        if match and (match.group(1) or match.group(2)) in main_names and opening and (
                not out or not out[-1].lstrip().startswith("///")):
            out.extend("///" + text for text in opening)
        match = TRAILING.match(line)
        if match:
            out.append(f"{match.group('code')}{match.group('gap')}///<{match.group('text')}")
        else:
            out.append(line)
        if text:
            statement_ended = text.endswith((";", "}", "{", ":"))
        i += 1
    close_group()
    return out


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as source:
        lines = source.read().split("\n")
    sys.stdout.write("\n".join(filtered(lines, sys.argv[1])))
