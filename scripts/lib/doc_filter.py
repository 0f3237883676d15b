"""Reads a public header as people do: a comment speaks for all declarations below it, up to the next
blank line or comment, and that of a plain struct for its fields. Each declaration is given it, on its
own line, so that line numbers stay.

    python3 scripts/lib/doc_filter.py HEADER
"""

import re
import sys


def filtered(lines):
    comment, open_comment, depth, comment_depth, inside = [], False, 0, 0, False
    for line in lines:
        text = line.strip()
        code = re.sub(r'"(?:[^"\\]|\\.)*"|//.*', "", text).strip()
        if text.startswith("///"):
            if not open_comment:
                comment, comment_depth = [], depth
            comment.append(text[3:].strip())
            open_comment = True
        elif not text or text.startswith(("#", "//", "public:", "private:", "protected:")):
            comment = comment if open_comment and text.startswith("#") else []
            open_comment = False
        else:
            starts = not inside and depth == comment_depth and not code.startswith("}")
            if starts and comment and not open_comment and "///<" not in text:
                of_one_type = re.fullmatch(r"(\w+) (\w+(?:, \w+)+);", text)
                each = [f"{of_one_type[1]} {n};" for n in of_one_type[2].split(", ")] if of_one_type else [text]
                line = " ".join(f"/** {' '.join(comment)} */ {one}" for one in each) + "\n"
            open_comment = False
            depth += code.count("{") - code.count("}")
            if re.match(r"(typedef )?struct \w+ {$", code) and starts:
                comment_depth = depth
            inside = not code.endswith((";", "{", "}"))
        yield line


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        sys.stdout.writelines(filtered(header))
