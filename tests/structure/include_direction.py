"""Includes never run upward: platform/ knows nothing of PfeNat/, chip/ or agent/, PfeNat/ and chip/ nothing of agent/ nor
of each other; what lies outside
of PfeNat/ includes its faces only; the rooms of agent/ include those below them; and each layer names no library but those
it may depend on.

An include is followed to the file it names, so neither "../" nor a second spelling gets past.
"""

import re

import _tree

STANDARD = set(
    """
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits
    clocale cmath compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint cstdio
    cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem format forward_list fstream
    functional future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
    memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
    semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string string_view
    strstream syncstream system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility
    valarray variant vector version
    """.split()
)
FLAT_CONTAINERS = re.compile(r"boost/(unordered|container_hash)/")
# The benchmarks' floor is written with the same bare containers that the framework uses.
BOOST = {
    "platform": FLAT_CONTAINERS,
    "chip": FLAT_CONTAINERS,
    "bench": FLAT_CONTAINERS,
    "agent": re.compile(r"boost/(json/|locale/utf\.hpp)"),
}
# The chip talks to the kernel, through its headers and the C library's, and through libbpf.
KERNEL = re.compile(r"(linux|bpf|net|sys|arpa)/\w+\.h|(fcntl|sched|unistd)\.h|EbpfPrograms\.skel\.h")
TEST_LIBRARIES = re.compile(r"(gtest|gmock|rapidcheck|benchmark)(/|\.h)")

# A layer may include itself and these.
MAY_INCLUDE = {
    "platform": {"platform"},
    "PfeNat": {"platform", "PfeNat"},
    "chip": {"platform", "chip"},
    "agent": {"platform", "PfeNat", "chip", "agent"},
    "tests": {"platform", "PfeNat", "chip", "agent", "tests", "examples"},
    # Measures the libraries; the tests' support is not compiled into it.
    "bench": {"platform", "PfeNat", "chip", "agent", "bench"},
}

# The rooms of agent/, each may include itself and those before it. The files that stand in agent/ itself may include all.
ROOMS = ["basics", "configuration", "chips", "host", "packets", "reports", "learning", "serving"]

INCLUDE = re.compile(r"^\s*#\s*include\b\s*(.*)$")
NAMED = re.compile(r'[<"]([^>"]+)[>"]')


def target_of(top, includer, name):
    """The project file that the compiler would find, relative to `top`; None for a header of somebody else."""
    for place in ((top / includer).parent, top, top / "platform"):
        path = (place / name).resolve()
        if path.is_file() and path.is_relative_to(top):
            return path.relative_to(top)
    return None


def fault_inside(includer, target):
    """What is wrong with `includer` naming the project's file `target`, or None."""
    layer, other = includer.parts[0], target.parts[0]
    if other not in MAY_INCLUDE[layer]:
        return f"{layer}/ must not include {other}/"
    if layer == other == "agent" and len(includer.parts) > 2:
        room, below = includer.parts[1], target.parts[1]
        if below not in ROOMS or ROOMS.index(below) > ROOMS.index(room):
            return f"agent/{room}/ must not include what stands in {'/'.join(target.parts[:-1])}/"
    if other != "PfeNat" or layer == "PfeNat" or includer.parts[:2] == ("tests", "unit"):
        return None
    if len(target.parts) == 2 and target.stem in _tree.UNITS:
        return None
    return "only the four faces of PfeNat/ may be included from outside of it"


def fault_outside(includer, name):
    """What is wrong with `includer` naming the foreign header `name`, or None."""
    layer = includer.parts[0]
    if name.startswith("boost/"):
        if layer in BOOST and BOOST[layer].match(name):
            return None
        return "of Boost only the flat containers are used, in platform/, chip/ and bench/, and JSON with UTF-8, in agent/"
    if layer in ("platform", "PfeNat") and name not in STANDARD:
        return f"neither found in the project nor a header of the standard library, which is all that {layer}/ may use"
    if layer == "chip" and name not in STANDARD and not KERNEL.fullmatch(name):
        return "chip/ may use the standard library, libbpf, and the headers of kernel and C library"
    if layer == "agent" and TEST_LIBRARIES.match(name):
        return "test libraries belong to tests/ and bench/"
    return None


def main():
    top = _tree.root()
    faults, looked_at = [], 0
    for includer in _tree.files(top, _tree.FOLDERS, {".h", ".cpp"}):
        for number, line in enumerate((top / includer).read_text().splitlines(), 1):
            include = INCLUDE.match(line)
            if not include:
                continue
            looked_at += 1
            named = NAMED.match(include.group(1))
            if not named:
                faults.append(f"{includer}:{number}: an include must name its file")
                continue
            target = target_of(top, includer, named.group(1))
            fault = fault_inside(includer, target) if target else fault_outside(includer, named.group(1))
            if fault:
                faults.append(f"{includer}:{number}: {named.group(1)}: {fault}")
    _tree.finish("include direction", faults, looked_at)


main()
