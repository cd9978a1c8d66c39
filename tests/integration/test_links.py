"""Links from page to page of the tree."""

import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILT = re.compile(r"build[\w-]*/")


def pages():
    found = sorted(path.relative_to(ROOT) for path in ROOT.rglob("*.md"))
    return [str(path) for path in found if not BUILT.match(str(path)) and not str(path).startswith(".")]


def without_code(text):
    return re.sub(r"`[^`\n]*`", "", re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S))


def anchors(path):
    """Of the headings, as code hosts make them."""
    text = re.sub(r"^```.*?^```$", "", path.read_text(), flags=re.M | re.S)
    titles = re.findall(r"^#+ (.*)$", text, re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


@pytest.mark.parametrize("page", pages())
def test_links_lead_somewhere(page):
    path = ROOT / page
    for target in re.findall(r"\]\(([^)\s]+)\)", without_code(path.read_text())):
        if re.match(r"[a-z]+:", target):
            continue
        file, _, anchor = target.partition("#")
        linked = (path.parent / file).resolve() if file else path
        assert linked.exists(), f"{page} links to {target}"
        assert linked.is_relative_to(ROOT), f"{page} links out of the tree: {target}"
        if anchor:
            assert anchor in anchors(linked), f"{page} links to {target}"


def test_pages_are_found():
    assert {"README.md", "docs/architecture.md", "docs/client-examples/README.md"} <= set(pages())
