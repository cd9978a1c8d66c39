"""The manual pages, as a build makes them."""

import os
import pathlib
import re
import subprocess

import pytest

PAGES = (
    "hear-sense-alarm.7",
    "hear-sense-loudness.7",
    "hear-sense-vamp.7",
    "hear-sense-voice.7",
    "hs-plugin.1",
    "hsctl.1",
)


@pytest.fixture(params=PAGES)
def page(request, build):
    path = build / "man" / request.param
    assert path.exists(), f"{path} has not been built"
    return path


def rendered(page):
    """Without the overstrikes that make letters bold on a printer."""
    result = subprocess.run(
        ["man", "--local-file", str(page)],
        env=dict(os.environ, MANWIDTH="100", LC_ALL="C.UTF-8"),
        capture_output=True,
        text=True,
        check=True,
    )
    return re.sub(".\x08", "", result.stdout)


def test_page_can_be_found_by_name_and_purpose(page):
    found = subprocess.run(["lexgrog", str(page)], capture_output=True, text=True, check=True).stdout
    name = page.name.rpartition(".")[0]
    assert f'"{name} - ' in found


def test_page_says_all_that_its_text_says(page):
    """Tables and examples too: what is left out by the way from one format to the other shows in the words."""
    text = rendered(page)
    name = page.name.rpartition(".")[0]
    plugin = name.removeprefix("hear-sense-")
    root = pathlib.Path(__file__).parents[2]
    source = root / (f"plugins/{plugin}/README.md" if plugin != name else f"docs/{name}.md")
    headings = [line.lstrip("# ") for line in source.read_text().splitlines() if line.startswith("## ")]
    assert headings
    for heading in headings:
        assert heading.upper() in text
    assert "NAME" in text and "DESCRIPTION" in text
    for line in source.read_text().splitlines():
        if line.startswith("    "):
            assert line.strip() in text.replace("‐", "-"), line
