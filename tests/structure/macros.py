"""Two macros in the whole project, assertion and trace; and no assertion whose printed text depends on a line break.

The text of an assertion is its condition as the compiler sees it, where a line break counts as a blank: a condition
broken before "->" or "." prints a blank that the reader of the source does not expect.
"""

import re

import _tree

DEFINED = {"VEXA_ASSERT": "platform/Vexa/Assert.h", "TRACE": "platform/Trace/Trace.h"}

DEFINE = re.compile(r"^\s*#\s*define\s+(\w+)")
BROKEN_CONDITION = re.compile(r"\bVEXA_ASSERT\([^;]*?\n\s*(->|\.)")


def main():
    top = _tree.root()
    faults, looked_at = [], 0
    for file in _tree.files(top, _tree.FOLDERS, {".h", ".cpp"}):
        looked_at += 1
        text = (top / file).read_text()
        for number, line in enumerate(text.splitlines(), 1):
            define = DEFINE.match(line)
            if define and DEFINED.get(define.group(1)) != file.as_posix():
                faults.append(f"{file}:{number}: macro {define.group(1)}; the project has {' and '.join(DEFINED)} only")
        for broken in BROKEN_CONDITION.finditer(text):
            number = text.count("\n", 0, broken.start()) + 1
            faults.append(f"{file}:{number}: the condition is broken before \"{broken.group(1)}\", name a part of it first")
        if file.suffix == ".h" and "#pragma once" not in text.splitlines():
            faults.append(f"{file}: no #pragma once")
    _tree.finish("macros", faults, looked_at)


main()
