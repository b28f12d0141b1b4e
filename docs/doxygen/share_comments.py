#!/usr/bin/env python3
"""Doxygen's input filter for our headers: writes out the comments that stand for more than one declaration.

In a header a comment holds for the declarations behind it up to the next blank line or comment, and what
every class has (identity, copies, an end) has none where there is nothing to say. Doxygen wants one each. The
comment at the head of a header becomes the text of its page.

usage: share_comments.py HEADER
"""
import re
import sys

USUAL = [
    (r"char\* getClassName\(\)", "As KP_Object::getClassName()."),
    (r"int queryInterface\(", "As KP_Object::queryInterface()."),
    (r"getClassID\(\)", "The identifier of the class."),
    (r"create\(\)", "A new object on which init() has run, or null when memory runs out."),
    (r"~KP_", "Ends the object."),
    (r"^KP_\w+\(\)", "A new object."),
    (r"operator=\(const KP_\w+&\)|operator=\(const KP_\w+& \w+\)", "As the copy constructor."),
    (r"KP_(\w+)\(const KP_\1(<T>)?&( \w+)?\)", "Copies the object."),
    (r"operator new|operator delete", "As KP_Object's."),
]
INTERNAL = "For the library's own classes."


def shared(lines):
    comment, is_new, section, depth = [], False, "public", 0
    in_head = True
    yield "/// @file\n"  # Without it what stands outside of classes has no page.
    for line in lines:
        text = line.strip()
        in_head = in_head and text.startswith("//")
        if in_head:
            yield "/" + line
            continue
        if depth == 0 and text.startswith("///"):
            if not is_new:
                comment = []
            comment.append(text)
            is_new = True
            yield line
            continue
        if match := re.match(r"(public|protected|private):", text):
            section = match.group(1)
        is_declaration = (depth == 0 and line.startswith("    ") and
                          text[:1] not in ("", "/", "#", "}", "*", ":") and
                          not re.match(r"(friend|template|struct|class|enum|public|protected|private)\b",
                                       text))
        if depth == 0 and re.match(r"(KP_API|inline|template) ", line):  # A function outside of classes.
            is_declaration, section = True, "public"
        if is_declaration and not is_new and section != "private" and "///<" not in text:
            usual = next((says for pattern, says in USUAL if re.search(pattern, text)), None)
            says = ([f"/// {usual}"] if usual else comment or
                    ([f"/// {INTERNAL}"] if section == "protected" else []))
            for each in says:
                yield re.match(" *", line).group() + each + "\n"
        if not text or re.match(r"(class|struct|public)\b.*\{$", text):  # A class's comment is its own.
            comment = []
        if text:
            is_new = False
        # Inside parentheses and function bodies nothing is declared; those of classes count from their indent.
        if depth > 0 or line.startswith("    "):
            plain = re.sub(r"//.*|'.'|\"[^\"]*\"", "", text)
            opens_class = re.match(r"(class|struct|enum|namespace|public)\b.*\{$", text)
            depth += plain.count("(") - plain.count(")")
            if not opens_class:
                depth += plain.count("{") - plain.count("}")
            if depth < 0 or text.startswith("};"):
                depth = 0
        yield line


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        sys.stdout.writelines(shared(header))
