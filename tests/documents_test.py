"""Tests the documents: their links, the files that they name, the names of the code in docs/architecture.md, and the
README's figures. Each figure must stand in docs/performance.md or docs/reliability.md, word for word, with the command
that measures it."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")])
MADE = ("build", ".git", "guilink-artifacts")  # folders that a checkout does not have at first
FOLDERS = "|".join(path.name for path in ROOT.iterdir() if path.is_dir() and path.name not in MADE)


def anchors(path):
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```", "", path.read_text("utf-8"), flags=re.S | re.M), re.M)
    return [re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings]


def faults(path):
    text = path.read_text("utf-8")
    for target in re.findall(r"\]\(([^()\s]+)\)", text):
        file, _, anchor = target.partition("#")
        other = path.parent / file if file else path
        if "://" in target:
            continue
        if not other.exists():
            yield f"link to {target}, which does not exist"
        elif anchor and anchor not in anchors(other):
            yield f"link to {target}, but {other.name} has no such heading"
    for name in set(re.findall(rf"(?<![\w/.-])(?:{FOLDERS})/[\w./*-]*[\w*]", text)):
        if not any(ROOT.glob(name)):
            yield f"{name} does not exist"


def unknown_names(text):
    """Yields each identifier in the text that occurs nowhere in the C++ sources."""
    words = set()
    for pattern in "*/*.h", "*/*.cpp", "devkit/*/*.h", "devkit/*/*.cpp":
        for source in ROOT.glob(pattern):
            words.update(re.findall(r"\w+", source.read_text("utf-8")))
    for name in set(re.findall(r"`([A-Za-z_][\w:]*)`", text) + re.findall(r"\w+::\w+", text)):
        if not words.issuperset(re.findall(r"\w+", name)):
            yield f"{name} does not occur in the sources"


def unsupported(readme):
    """Yields each figure of the README that no row of the two documents repeats together with a command."""
    rows = [line for name in ("performance", "reliability")
            for line in (ROOT / f"docs/{name}.md").read_text("utf-8").splitlines()]
    lines = (ROOT / "docs/examples/minimal_companion.py").read_text("utf-8").split("\n")
    if f"[{len([line for line in lines if line.strip()])} lines of Python]" not in readme:
        yield "another number of lines than minimal_companion.py has"
    figures = re.findall(r"^\| \*\*.*\|$", readme, re.M)
    if not figures:
        yield "no figures"
    attacks = re.search(r"^## Attacks and faults$.*?(?=^## )", "\n".join(rows), re.S | re.M).group()
    if f"each of {len(re.findall(r' s [|]$', attacks, re.M))} attacks and faults" not in readme:
        yield "another number of attacks than reliability.md lists"
    for figure in figures:
        if not any(re.fullmatch(re.escape(figure) + " `.+` \\|", row) for row in rows):
            yield f"neither performance.md nor reliability.md has this figure, with a command: {figure}"


found = [f"{path.relative_to(ROOT)}: {fault}" for path in DOCUMENTS for fault in faults(path)]
found += [f"docs/architecture.md: {fault}"
          for fault in unknown_names((ROOT / "docs/architecture.md").read_text("utf-8"))]
found += [f"README.md: {fault}" for fault in unsupported((ROOT / "README.md").read_text("utf-8"))]
sys.exit("\n".join(found) or 0)
