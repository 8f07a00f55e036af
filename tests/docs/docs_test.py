#!/usr/bin/env python3
"""What documents say of the tree, against the tree.

docs_test.py paths                          files that are named are there
docs_test.py walks                          the way to a change leads through a layer once
docs_test.py architecture                   arrows between folders are those of the #include lines
docs_test.py porting NM CORE OSAL           functions of the contract, by headers and libraries
"""
import posixpath
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
failures = []


def expect_same(what, documented, real):
    for missing in sorted(real - documented):
        failures.append(f"{what}: not in the document: {missing}")
    for wrong in sorted(documented - real):
        failures.append(f"{what}: only in the document: {wrong}")


def text(path):
    return (ROOT / path).read_text()


def names(cell):
    return re.findall(r"`([^`]+)`", cell)


def tables(path):
    """The tables of a document by the first cell of their heads; rows of cells each."""
    found = {}
    rows = None
    for line in text(path).splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if not line.startswith("|"):
            rows = None
        elif rows is None:
            rows = found.setdefault(cells[0], [])
        elif not cells[0].startswith("---"):
            rows.append(cells)
    return found


# ---- Files ----------------------------------------------------------------------------------

FILE = re.compile(r"[\w.-]+(/[\w.-]+)+\.(?:cpp|c|h|md|sh|py|txt|svg|cmake|example)")


def named_files(document):
    words = text(document)
    folder = posixpath.dirname(document)
    for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", words):
        yield posixpath.normpath(posixpath.join(folder, link))
    for code in re.findall(r"`([^`\n]+)`", words):
        if FILE.fullmatch(code):
            yield code


def check_paths():
    documents = ["README.md", *sorted(str(p.relative_to(ROOT)) for p in ROOT.glob("docs/**/*.md"))]
    named = [(document, name) for document in documents for name in named_files(document)]
    if len(named) < 20:
        failures.append(f"only {len(named)} files found named")
    for document, name in named:
        if not (ROOT / name).exists():
            failures.append(f"{document} names {name}, which is not there")


# ---- Walks -----------------------------------------------------------------------------------


def check_walks():
    walks = re.split(r"^## ", text("docs/contributing.md"), flags=re.MULTILINE)[1:]
    if len(walks) != 5:
        failures.append(f"{len(walks)} walks, not five")
    for walk in walks:
        title = walk.splitlines()[0]
        rows = [[cell.strip() for cell in line.strip("|").split("|")]
                for line in walk.splitlines() if line.startswith("|")][2:]
        if len(rows) < 4 or len({row[0] for row in rows}) != len(rows):
            failures.append(f"{title}: not one file of each layer")
        for row in rows:
            if not FILE.fullmatch(row[1].strip("`")):
                failures.append(f"{title}: {row[1]} is not one file")


# ---- Arrows ---------------------------------------------------------------------------------


def resolve(source, include, headers):
    """The file of the tree that is included, or None for one that is generated."""
    beside = posixpath.normpath(posixpath.join(posixpath.dirname(source), include))
    for candidate in (beside, include):
        if candidate in headers:
            return candidate
    ends = [header for header in headers if header.endswith("/" + include)]
    if len(ends) != 1 and not include.endswith(".skel.h"):
        failures.append(f"{source} includes {include}: which of {ends}?")
    return ends[0] if ends else None


def includes(folders):
    """Pairs of files, the one that includes and the one that is included."""
    files = {str(path.relative_to(ROOT)) for folder in folders
             for path in (ROOT / folder).rglob("*") if path.suffix in (".h", ".c", ".cpp")}
    for source in files:
        for include in re.findall(r'^#\s*include "([^"]+)"', text(source), re.MULTILINE):
            header = resolve(source, include, files)
            if header:
                yield source, header


def arrows(pairs, place):
    found = {(place(source), place(header)) for source, header in pairs}
    return {(a, b) for a, b in found if a and b and a != b}


def check_diagram(kind, rows, drawn):
    """The table has the arrows of the tree, and the diagram has them point down."""
    documented = {(names(row[0])[0], below) for row in rows for below in names(row[2])}
    expect_same(f"{kind}: arrow", documented, drawn)
    block = re.search(rf"```{kind}\n(.*?)```", text("docs/architecture.md"), re.DOTALL).group(1)
    line = {name: n for n, names_ in enumerate(block.splitlines()) for name in names_.split()}
    expect_same(f"{kind}: name in the diagram", set(line), {names(row[0])[0] for row in rows})
    for above, below in drawn:
        if line.get(above, 0) >= line.get(below, sys.maxsize):
            failures.append(f"{kind}: the arrow from {above} to {below} does not point down")


def check_architecture():
    found = tables("docs/architecture.md")
    layers = [names(row[0])[0] for row in found["folder"]]
    pairs = list(includes(layers))
    if len(pairs) < 200:
        failures.append(f"only {len(pairs)} #include lines found")
    check_diagram("layers", found["folder"], arrows(
        pairs, lambda file: next(name for name in layers if file.startswith(name + "/"))))

    def room(file):
        if not file.startswith("platform/linux/"):
            return None
        rest = file.removeprefix("platform/linux/").split("/")
        return rest[0] if len(rest) > 1 else "top"

    check_diagram("rooms", found["room"], arrows(pairs, room))


# ---- The contract ---------------------------------------------------------------------------


def declared(header):
    """Functions that a header of the contract declares."""
    code = re.sub(r"/\*.*?\*/", "", text("platform/include/" + header), flags=re.DOTALL)
    return set(re.findall(r"^(?!static|typedef|return)\w[\w ]*[ *](\w+)\(", code, re.MULTILINE))


def symbols(nm, library, kinds):
    lines = subprocess.run([nm, library], check=True, capture_output=True, text=True).stdout
    return {words[-1] for words in map(str.split, lines.splitlines())
            if len(words) > 1 and words[-2] in kinds}


def check_porting(nm, core, osal):
    found = tables("docs/porting.md")
    rows = {names(row[0])[0]: row for row in found["function"]}
    expect_same("function", set(rows), declared("zynhwal.h") | declared("zynacl.h") | declared("zynif.h"))
    optional = {name for name, row in rows.items() if row[1] == "no"}
    expect_same("optional", optional, symbols(nm, core, "W") & set(rows))
    expect_same("needed", set(rows) - optional, {name for name, row in rows.items() if row[1] == "yes"})
    expect_same("said to be lost", {name for name, row in rows.items() if row[2]}, optional)
    of_os = {name for row in found["for"] for name in names(row[1])}
    expect_same("OS layer", of_os, declared("zynosal.h"))
    expect_same("OS layer's library", of_os, symbols(nm, osal, "TDBRVWu"))


CHECKS = {"paths": check_paths, "walks": check_walks, "architecture": check_architecture, "porting": check_porting}
CHECKS[sys.argv[1]](*sys.argv[2:])
print("\n".join(failures) or "all as documented")
sys.exit(1 if failures else 0)
