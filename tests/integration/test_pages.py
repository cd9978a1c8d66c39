"""The manual pages, as a build makes them."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
MANUAL = ROOT / "man"

#: Pages whose text is also something else's; all others are in the folder of the manual.
SHARED = {
    "hear-sense-alarm.7": ROOT / "plugins/alarm/README.md",
    "hear-sense-loudness.7": ROOT / "plugins/loudness/README.md",
    "hear-sense-vamp.7": ROOT / "plugins/vamp/README.md",
    "hear-sense-voice.7": ROOT / "plugins/voice/README.md",
    "hs-plugin.1": ROOT / "docs/hs-plugin.md",
    "hsctl.1": ROOT / "docs/hsctl.md",
}
SOURCES = SHARED | {path.name.removesuffix(".md"): path for path in MANUAL.rglob("*.[0-9].md")}

#: The page of each program.
PROGRAMS = {
    "hear-sense.8": "src/hear-sense",
    "hs-plugin.1": "tools/hs-plugin/hs-plugin",
    "hsctl.1": "tools/hsctl/hsctl",
}

OPTION = r"(?<![\w/-])--?[A-Za-z][\w-]*"


@pytest.fixture(params=sorted(SOURCES))
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
    """Examples too: what is left out by the way from one format to the other shows in the words."""
    text = rendered(page)
    source = SOURCES[page.name].read_text(encoding="utf-8")
    headings = [line.lstrip("# ") for line in source.splitlines() if line.startswith("## ")]
    assert headings
    for heading in headings:
        assert heading.upper() in text
    assert "NAME" in text and ("DESCRIPTION" in text or "SYNOPSIS" in text)
    code = re.findall(r"^```.*\n(.*?)^```$", source, re.S | re.M)
    if page.name in SHARED:
        code += re.findall(r"(?:^    .*\n)+", source, re.M)
    shown = " ".join(text.split())
    for line in "".join(code).splitlines():
        assert " ".join(line.split()) in shown, line


def test_page_has_no_fault_that_mandoc_warns_of(page):
    if not shutil.which("mandoc"):
        pytest.skip("mandoc is not installed")
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True, check=False)
    assert done.stdout + done.stderr == ""
    assert done.returncode == 0


def test_commands_can_be_copied_from_a_page(page):
    """A hyphen or a quotation mark of typography in a command is no command any more."""
    for example in re.findall(r"^\.EX\n(.*?)^\.EE$", page.read_text(encoding="utf-8"), re.S | re.M):
        assert not re.search(r"(?<!\\)-|[‘’“”]", example)


def test_pages_that_a_page_names_exist(page):
    text = page.read_text(encoding="utf-8")
    for name, section in re.findall(r"\\fB\\%([\w.\\-]+)\\fR\((\d)\)", text):
        assert f"{name.replace(chr(92), '')}.{section}" in SOURCES


def help_of(*argv):
    return subprocess.run([*argv, "--help"], capture_output=True, text=True, check=True).stdout


def test_interfaces_of_triggers_are_found_on_the_page_of_their_event(build, tmp_path):
    """As man finds them where they are installed."""
    (tmp_path / "man5").symlink_to(build / "man")
    aliases = sorted(path.name for path in (build / "man").glob("*.Methods.5"))
    assert len(aliases) > 1
    for alias in aliases:
        shown = subprocess.run(
            ["man", "5", alias.removesuffix(".5")],
            env=dict(os.environ, MANPATH=str(tmp_path), MANWIDTH="200", LC_ALL="C.UTF-8"),
            capture_output=True,
            text=True,
            check=True,
        ).stdout
        assert f"Interface {alias.removesuffix('.5')}:" in re.sub(".\x08", "", shown)


def options_of(program):
    """Those that it tells of itself and of each of its sub-commands."""
    text = help_of(program)
    for command in re.findall(r"^  (\w+) {3}", text.partition("Subcommands:")[2], re.M):
        text += help_of(program, command)
    return set(re.findall(rf"^ *({OPTION})", text, re.M)) | set(re.findall(rf"^ *-\w, ?({OPTION})", text, re.M))


@pytest.mark.parametrize("name", PROGRAMS)
def test_options_of_a_program_are_those_of_its_page(build, name):
    if not (build / PROGRAMS[name]).exists():
        pytest.skip(f"{name} has not been built")
    text = SOURCES[name].read_text(encoding="utf-8")
    spans = re.findall(r"`([^`\n]+)`", text)
    told = {option for span in spans if re.match(OPTION, span) for option in re.findall(OPTION, span)}
    for_meson = {option for option in told if option.startswith("-D")}
    assert told - for_meson == options_of(build / PROGRAMS[name])
    defined = re.findall(r"option\('(\w+)'", (ROOT / "meson_options.txt").read_text(encoding="utf-8"))
    assert for_meson <= {f"-D{option}" for option in defined}


@pytest.mark.parametrize("name", PROGRAMS)
def test_commands_of_all_pages_have_options_that_there_are(build, name):
    program = build / PROGRAMS[name]
    if not program.exists():
        pytest.skip(f"{name} has not been built")
    known = options_of(program)
    n_commands = 0
    for path in SOURCES.values():
        shown = re.findall(rf"(?:`|\$ |^ *){program.name} ([^`|;&\n#]*)", path.read_text(encoding="utf-8"), re.M)
        for command in shown:
            n_commands += 1
            assert set(re.findall(OPTION, command)) <= known, (path, command)
    assert n_commands > 0
