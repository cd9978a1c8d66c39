"""What docs/architecture.md says of the modules is what the sources include."""

import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ROOT / "src"
#: Made by the build.
GENERATED = {"limits"}
#: Headers that other headers may include, and the record that everyone from this layer on may reach.
SHARED_HEADERS = {"owned", "event"}
SHARED_RECORD, FIRST_TO_SHARE = "context", "hosting"


def table(page, heading):
    """The rows of the table with that first column, each a list of cells."""
    lines = iter(page.splitlines())
    for line in lines:
        if line.startswith(f"| {heading} |"):
            break
    next(lines)
    rows = []
    for line in lines:
        if not line.startswith("|"):
            return rows
        rows.append([cell.strip() for cell in line.strip("|").split("|")])
    return rows


def names(cell):
    return re.findall(r"`([^`]+)`", cell)


@pytest.fixture(scope="module")
def page():
    return (ROOT / "docs/architecture.md").read_text()


@pytest.fixture(scope="module")
def layers(page):
    """The modules of each layer, from the ground up."""
    return {row[0]: names(row[1]) for row in table(page, "Layer")}


def includes(pattern):
    """Pairs (module, included module) of all files of that pattern."""
    pairs = set()
    for path in SOURCES.glob(pattern):
        for included in re.findall(r'^#include "([\w-]+)\.hpp"', path.read_text(), re.M):
            if included != path.stem:
                pairs.add((path.stem, included))
    return pairs


def test_each_module_has_one_layer(layers):
    told = [module for modules in layers.values() for module in modules]
    assert len(told) == len(set(told))
    assert set(told) == {path.stem for path in SOURCES.glob("*.?pp")} | GENERATED


def test_headers_include_no_other_module():
    assert {included for _, included in includes("*.hpp")} == SHARED_HEADERS


def test_sources_reach_down_except_where_the_page_says(page, layers):
    order = list(layers)
    level = {module: order.index(layer) for layer, modules in layers.items() for module in modules}
    told = {(row[0].strip("`"), reached) for row in table(page, "Module") for reached in names(row[1])}
    against = {
        (module, reached)
        for module, reached in includes("*.cpp")
        if level[reached] > level[module]
    }
    sharing = {module for module, reached in against if reached == SHARED_RECORD}
    assert sharing and min(level[module] for module in sharing) >= order.index(FIRST_TO_SHARE)
    assert {pair for pair in against if pair[1] != SHARED_RECORD} == told


def test_layers_of_pure_modules_know_nothing_above(layers):
    pure = {module for layer in ("ground", "values") for module in layers[layer]}
    assert {reached for module, reached in includes("*.cpp") if module in pure} <= pure


def test_named_functions_and_places_are_there(page):
    """Functions and types in the text stand in the sources, and paths in the tree."""
    text = "".join(path.read_text() for path in SOURCES.glob("*.?pp"))
    for name in set(re.findall(r"\bhs_\w+", page)):
        assert re.search(rf"\b{name}\b", text), name
    for path in set(re.findall(r"`((?:src|tests|tools|data)/[\w/.-]*)`", page)):
        if "MODULE" not in path:
            assert (ROOT / path).exists(), path
