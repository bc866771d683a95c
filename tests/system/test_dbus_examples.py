"""The examples in docs/dbus.md, in each language, as they are printed there."""

import pathlib
import re
import subprocess
import textwrap

import pytest
from sandbox import Player, Sandbox, Store, clips, wait_until

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/dbus.md"

LANGUAGES = ("python dbus", "python gdbus", "c")


def read_examples():
    """Returns the code of each example: by task, then by language."""
    section = PAGE.read_text().partition("\n## From Python and C\n")[2].partition("\n## ")[0]
    tasks = re.split(r"^### (.*)$", section, flags=re.MULTILINE)[1:]
    return {task: dict(re.findall(r"^```([^\n]+)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL))
            for task, text in zip(tasks[::2], tasks[1::2])}


EXAMPLES = read_examples()


def test_every_task_is_shown_in_every_language():
    assert len(EXAMPLES) == 11
    for task, codes in EXAMPLES.items():
        assert tuple(codes) == LANGUAGES, task


@pytest.fixture(scope="module", params=LANGUAGES)
def language(request):
    if request.param == "python dbus":
        pytest.importorskip("dbus")
    return request.param


@pytest.fixture(scope="module")
def box(tmp_path_factory, build_dir, cache):
    with Sandbox(tmp_path_factory.mktemp("examples") / "sandbox", build_dir, cache) as box:
        box.start_bus()
        box.write_clip("door.wav", clips.noise(9600))
        Store(box).start()
        yield box


@pytest.fixture
def make(box, language):
    """Returns a function that writes the program of a task and returns its command."""
    def write(task):
        connect, code = EXAMPLES["Connect"][language], EXAMPLES[task][language]
        if language != "c":
            return ["/usr/bin/python3", "-c", f"{connect}\n{code}"]
        source = box.folder / "tmp/example.c"
        source.write_text(connect.replace("    /* the example */", textwrap.indent(code, "    ")))
        flags = subprocess.run(["pkg-config", "--cflags", "--libs", "libsystemd"], check=True,
                               capture_output=True, text=True).stdout.split()
        subprocess.run(["cc", "-Wall", "-Wextra", "-Werror", "-o", box.folder / "tmp/example",
                        source, *flags], check=True)
        return ["/tmp/example"]
    return write


@pytest.fixture
def run(box, make):
    """Returns a function that runs the example of a task and returns its output."""
    return lambda task: box.run(make(task)).stdout


def test_the_examples_store_list_rename_and_remove_a_clip(box, run):
    assert run("Find out whether a file can be played") == "yes\n"
    assert run("Store a clip") == "0\n"
    assert run("List the clips") == "0 Door /etc/audioclips/door.wav\n"
    text = run("Read formats, sizes and lengths")
    assert "audio/x-wav" in text and "200" in text
    assert run("Rename a clip") == ""
    assert run("List the clips") == "0 Front door /etc/audioclips/door.wav\n"
    assert run("Remove a clip") == ""
    assert Store(box).list() == []


def test_the_examples_play_and_stop(box, run):
    frames = box.card(0).frames
    assert run("Play a clip and wait until it ends") == ""
    assert box.card(0).frames >= frames + 9600
    assert run("Play a clip") == ""
    assert run("Stop") == ""


def test_the_example_follows_what_is_playing(box, make):
    seen = box.folder / "tmp/seen"
    seen.write_text("")
    command = make("Follow what is playing")
    follower = box.spawn(["sh", "-c", 'exec "$0" "$@" >/tmp/seen', *command])

    def plays():
        assert Player(box.bus).call("PlayClip", "location=/etc/audioclips/door.wav") == "OK"
        return seen.read_text()

    text = wait_until(plays, 30, "the example prints a file")
    assert set(text.splitlines()) == {"/etc/audioclips/door.wav"}
    follower.kill(15)
    follower.wait_exit()
