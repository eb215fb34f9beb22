"""No source file outgrows 500 lines: past that, a room inside wants a door of its own."""

import _tree

MOST_LINES = 500


def main():
    top = _tree.root()
    faults, looked_at = [], 0
    for file in _tree.files(top, _tree.FOLDERS, {".h", ".cpp", ".py"}):
        looked_at += 1
        lines = len((top / file).read_text().splitlines())
        if lines > MOST_LINES:
            faults.append(f"{file}: {lines} lines, {MOST_LINES} at most")
    _tree.finish("file length", faults, looked_at)


main()
