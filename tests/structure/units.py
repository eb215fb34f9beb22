"""PfeNat/ holds one pair of files per unit and the one folder with the inside of the first, nothing else."""

import _tree


def main():
    top = _tree.root()
    faults = []
    present = sorted(path.name for path in (top / "PfeNat").glob("*"))
    allowed = {unit + suffix for unit in _tree.UNITS for suffix in (".h", ".cpp")} | {_tree.UNITS[0]}
    for name in present:
        if name not in allowed:
            faults.append(f"PfeNat/{name}: neither one of the pairs of files nor the folder {_tree.UNITS[0]}/")
    for unit in _tree.UNITS:
        if (unit + ".h" in present) != (unit + ".cpp" in present):
            faults.append(f"PfeNat/{unit}: one half of the pair is missing")
    if _tree.UNITS[0] in present and not (top / "PfeNat" / _tree.UNITS[0]).is_dir():
        faults.append(f"PfeNat/{_tree.UNITS[0]}: must be a folder")
    _tree.finish("units of PfeNat/", faults, len(present))


main()
