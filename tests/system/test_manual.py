"""The manual pages are well-formed, and the paths, names and keys in them exist."""

import json
import pathlib
import re
import shutil
import subprocess

import pytest
from sandbox import clips, wait_until
from sandbox.shell import PROGRAM

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "man").glob("*.[0-9]"))


def read_tree(*folders):
    return "\n".join(path.read_text() for folder in folders
                     for path in sorted((ROOT / folder).rglob("*")) if path.is_file())


def read_macros(page, macro):
    """Returns the arguments of all lines of this macro, also after the macro "It"."""
    lines = re.findall(rf"^\.(?:It )?{macro} (.*)$", page.read_text(), re.MULTILINE)
    return [word for line in lines for word in line.split() if word not in ",.;()"]


@pytest.fixture(scope="module")
def sources():
    return read_tree("src", "include", "data", "tools/mqtt")


@pytest.fixture(scope="module")
def installation_plan(build_dir):
    """The source and destination of each installed file."""
    answer = subprocess.run(["meson", "introspect", "--installed", build_dir], check=True,
                            capture_output=True, text=True, timeout=60)
    return json.loads(answer.stdout)


@pytest.fixture(scope="module")
def installed(installation_plan):
    """The paths of all installed files and of the folders above them."""
    files = [pathlib.Path(path) for path in installation_plan.values()]
    return {str(path) for file in files for path in (file, *file.parents)}


@pytest.fixture(params=PAGES, ids=lambda path: path.name)
def page(request):
    return request.param


def test_there_are_pages_that_name_files():
    assert len(PAGES) >= 3
    assert "/etc/vesk/access.conf" in read_macros(ROOT / "man/sonobrik.8", "Pa")


def test_a_page_is_well_formed(page):
    result = subprocess.run(["mandoc", "-Tlint", "-W", "warning", page], check=False,
                            capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stdout + result.stderr) == (0, "")


def test_the_paths_on_a_page_are_in_the_sources_or_the_installation(page, sources,
                                                                             installed):
    paths = [path for path in read_macros(page, "Pa") if path.startswith("/")]
    paths += [path for path in read_macros(page, "Nm") if path.startswith("/")]
    assert [path for path in paths if path not in sources and path not in installed] == []


def test_the_bus_names_on_a_page_are_in_the_sources(page, sources):
    names = [name for name in read_macros(page, "Dv") if name.startswith("com.")]
    # The sources build this name from a prefix and the name of the producer.
    assert [name for name in names if name not in sources
            and name != "com.vesk.Events1.SonoBrikEvents"] == []


def read_shipped(plan, name):
    """Returns the content of the installed file /etc/vesk/NAME.conf."""
    source, = [source for source, path in plan.items() if path == f"/etc/vesk/{name}.conf"]
    return pathlib.Path(source).read_text()


@pytest.mark.parametrize("name", ["access", "parameters"])
def test_the_documented_keys_are_read_and_shipped(name, installation_plan):
    page = ROOT / f"man/vesk-{name}.conf.5"
    keys = read_macros(page, "Ic")
    shipped = read_shipped(installation_plan, name)
    assert keys
    for key in keys:
        assert re.search(rf'"{re.escape(key)}"', read_tree("src")), key
        assert re.search(rf"^{re.escape(key)}=", shipped, re.MULTILINE), key


def test_the_example_on_a_page_is_the_shipped_file(installation_plan):
    for name in ("access", "parameters"):
        shipped = [line for line in read_shipped(installation_plan, name).splitlines()
                   if line and not line.startswith("#")]
        assert "\n".join(shipped) in (ROOT / f"man/vesk-{name}.conf.5").read_text()


def test_the_documented_keys_of_the_bridge_are_read_and_shipped(installation_plan):
    keys = set(read_macros(ROOT / "man/vesk-mqtt.conf.5", "Ic"))
    read = set(re.findall(r'\.name = "([a-z-]+)"', read_tree("tools/mqtt")))
    shipped = set(re.findall(r"^#([a-z-]+)=", read_shipped(installation_plan, "mqtt"),
                             re.MULTILINE))
    assert keys == read == shipped


def test_the_documented_exit_statuses_are_those_of_the_program():
    text = (ROOT / "man/sonobrik.8").read_text()
    statuses = re.findall(r"^\.It (\d+)$", text.partition(".Sh EXIT STATUS")[2], re.MULTILINE)
    changed = re.search(r"EXIT_DEVICES_CHANGED = (\d+);", read_tree("src/dbus")).group(1)
    assert statuses == ["0", "1", changed]


def read_examples(page):
    """Returns the pairs of a command and its output in the examples of a page."""
    section = (ROOT / "man" / page).read_text().partition(".Sh EXAMPLES\n")[2]
    text = section.partition("\n.Sh ")[0].replace(r"\(aq", "'").replace(r"\e", "\\")
    lines = [line for block in re.findall(r"^\.Bd [^\n]*\n(.*?)^\.Ed", text, re.MULTILINE | re.DOTALL)
             for line in block.splitlines(keepends=True)]
    examples = []
    for line in lines:
        if line.startswith("$ "):
            examples.append([line[2:].strip(), ""])
        else:
            examples[-1][1] += line
    return examples


@pytest.mark.skipif(not shutil.which("jq"), reason="needs jq")
def test_the_examples_of_the_client_print_what_the_page_shows(sandbox, shell, player):
    clips.write_wav(sandbox.folder / "run/home/door.wav", clips.tone(440, 1.2))
    examples = [pair for pair in read_examples("sonobrikctl.1") if "root@" not in pair[0]]
    assert len(examples) == 9
    for command, output in examples:
        player.fence()
        first = len(player.events)
        result = sandbox.run(["sh", "-c", f"cd /run/home; {command}"], check=False,
                             env={"PATH": f"{pathlib.Path(PROGRAM).parent}:/usr/bin:/bin"})
        # The virtual sound card has no name.
        shown = [line.split() for line in output.replace("USB Audio DAC", "-").splitlines()]
        assert [line.split() for line in result.stdout.splitlines()] == shown, command
        assert result.stderr == "", command
        if "--repeat forever" in command:
            wait_until(lambda: any(event[0] == "CurrentlyPlaying" for event in player.events[first:]),
                       20, "a clip is playing")
