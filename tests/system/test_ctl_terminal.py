"""sonobrikctl on a terminal: the progress bar, Ctrl-C, the confirmation, colour."""

import re

import pytest
from sandbox import clips, wait_until
from sandbox.shell import PROGRAM
from sandbox.store import Store, write_record

INTERRUPT = "\x03"
END_OF_INPUT = "\x04"

BAR = re.compile(r"\r\[(=*)>? *\] (\d+:\d\d\.\d) / (\d+:\d\d\.\d)  ([^\x1b]*)\x1b\[K")


@pytest.fixture
def door(sandbox, shell, player):
    clip = sandbox.write_clip("door.wav", clips.noise(48000))
    shell.ok("add", clip.path)
    return clip


def test_a_bar_shows_the_progress_of_the_clip(shell, door):
    output, status = shell.on_terminal("play", "--wait", "door")
    bars = BAR.findall(output)
    assert status == 0
    assert [bar[2:] for bar in bars] == [("0:01.0", "door")] * len(bars)
    assert [len(bar[0]) for bar in bars] == sorted(len(bar[0]) for bar in bars)
    assert bars[-1][:2] == ("=" * 40, "0:01.0")
    assert output.endswith("\x1b[K\r\n")
    assert BAR.sub("", output) == "\r\n"


def test_the_bar_covers_all_repeats(shell, door):
    output, _ = shell.on_terminal("play", "--wait", "door", "--repeat", "1")
    assert {bar[2] for bar in BAR.findall(output)} == {"0:02.0"}


@pytest.mark.parametrize("columns", [1, 12, 30, 37, 200])
def test_the_bar_fits_on_one_line(shell, door, columns):
    shell.ok("rename", "0", "鈴" * 50)
    output, status = shell.on_terminal("play", "--wait", "0", columns=columns)
    assert status == 0
    for line in output.removesuffix("\r\n").split("\r")[1:]:
        text = line.removesuffix("\x1b[K")
        assert len(text) + text.count("鈴") < max(columns, 17)


@pytest.mark.parametrize("words", [["/etc/audioclips/door.wav"], ["door", "--repeat", "forever"]])
def test_without_a_known_length_only_the_time_is_shown_and_ctrl_c_stops(shell, sandbox, player, door, words):
    # The second text is a later redraw. Its tenths depend on the load of the machine.
    output, status = shell.on_terminal("play", "--wait", *words,
                                       steps=[("0:0", ""), ("0:0", INTERRUPT)])
    assert status == 130
    assert re.match(r"\r0:\d\d\.\d  (/etc/audioclips/door.wav|door)\x1b\[K\r0:", output)
    assert "[" not in output.replace("\x1b[K", "")
    player.fence()
    assert ("Playing", 1, 0, 0, False) in player.events


@pytest.mark.parametrize("env", [{"TERM": "dumb"}, {"TERM": ""}])
def test_a_dumb_terminal_gets_no_bar_and_no_colour(shell, door, env):
    assert shell.on_terminal("play", "--wait", "door", env=env) == ("", 0)
    assert "\x1b" not in shell.on_terminal("list", env=env)[0]


def test_table_headings_are_bold(shell, door):
    for words in (["list"], ["outputs"]):
        output, status = shell.on_terminal(*words)
        assert status == 0
        assert re.match(r"\x1b\[1m[A-Z -]*\x1b\[0m\r\n[^\x1b]*$", output)


def test_no_color_disables_colour_and_keeps_the_bar(shell, door):
    assert "\x1b" not in shell.on_terminal("list", env={"NO_COLOR": "1"})[0]
    assert "\x1b[1m" in shell.on_terminal("list", env={"NO_COLOR": ""})[0]
    assert BAR.search(shell.on_terminal("play", "--wait", "door", env={"NO_COLOR": "1"})[0])


# The confirmation


@pytest.mark.parametrize("answer", ["n\n", "\n", "yesterday\n", "yes, do it, and more words\n",
                                    END_OF_INPUT])
def test_a_clip_is_kept_unless_the_answer_is_yes(shell, door, answer):
    output, status = shell.on_terminal("remove", "door", steps=[("[y/N] ", answer)])
    assert status == 1
    assert output.startswith("Remove clip 0 'door'? The file '/etc/audioclips/door.wav' is kept. ")
    assert output.endswith("sonobrikctl: clip not removed\r\n")
    assert shell.ok("list", "--names") == "door\n"


@pytest.mark.parametrize("answer", ["y\n", "YES\n"])
def test_a_clip_is_removed_if_the_answer_is_yes(shell, door, answer):
    assert shell.on_terminal("remove", "0", steps=[("[y/N] ", answer)])[1] == 0
    assert shell.ok("list", "--names") == ""
    assert door.file.exists()


def test_ctrl_c_at_the_confirmation_removes_nothing(shell, door):
    assert shell.on_terminal("remove", "0", steps=[("[y/N] ", INTERRUPT)])[1] == 130
    assert shell.ok("list", "--names") == "door\n"


def test_yes_skips_the_confirmation(shell, door):
    assert shell.on_terminal("remove", "--yes", "door") == ("", 0)


def test_the_confirmation_escapes_control_characters(shell, sandbox):
    Store(sandbox).write("M0.json", write_record("/etc/audioclips/\x1b[2J", "a\rb\x9b", "audio"))
    sandbox.start_daemon()
    output, _ = shell.on_terminal("remove", "0", steps=[("[y/N] ", "n\n")])
    assert output.startswith("Remove clip 0 'a\\x0db\\u009b'? The file "
                             "'/etc/audioclips/\\x1b[2J' is kept. [y/N] ")


def test_the_question_names_the_file_that_would_be_deleted(shell, door):
    output, status = shell.on_terminal("remove", "--file", "0", steps=[("[y/N] ", "n\n")])
    assert status == 1
    assert output.startswith("Remove clip 0 'door' and its file '/etc/audioclips/door.wav'? ")
    assert door.file.exists()
    assert shell.on_terminal("remove", "--file", "0", steps=[("[y/N] ", "y\n")])[1] == 0
    assert not door.file.exists()


@pytest.mark.parametrize("words, refusal", [
    (["add", "/etc/audioclips/door.wav"],
     "'/etc/audioclips/door.wav' not added; to give it another name: --name"),
    (["rename", "1", "door"], "clip not renamed")])
def test_a_name_that_is_taken_is_asked_about(shell, door, words, refusal):
    question = ("Clip 0 is already named 'door'. Then only the number tells them apart. "
                "Use the name anyway? [y/N] ")
    shell.ok("add", door.path, "--name", "other")
    output, status = shell.on_terminal(*words, steps=[("[y/N] ", "n\n")])
    assert status == 1
    assert output.startswith(question)
    assert output.endswith(f"sonobrikctl: {refusal}\r\n")
    assert "door\n" in shell.ok("list", "--names")
    assert shell.on_terminal(*words, steps=[("[y/N] ", "y\n")])[1] == 0
    assert "door\n" not in shell.ok("list", "--names")  # now two clips have the name


def test_two_files_of_one_name_are_asked_about(shell, sandbox, daemon):
    for name in ("bell.au", "bell.wav"):
        sandbox.write_clip(f"set/{name}", clips.noise(480))
    output, status = shell.on_terminal("add", "/etc/audioclips/set", steps=[("[y/N] ", "n\n")])
    assert status == 1
    assert output.startswith("0 bell\r\nClip 0 is already named 'bell'. ")
    assert shell.ok("list", "--names") == "bell\n"


# What others change during the question


def replace_clip(sandbox, name):
    """Returns commands that remove clip 0 and store another file, which gets its number."""
    other = sandbox.write_clip("other.wav", clips.noise(480))
    return [[PROGRAM, "remove", "--yes", "0"], [PROGRAM, "add", other.path, "--name", name]]


CHANGED = "sonobrikctl: clip 0 was changed or removed during the question; nothing was done\r\n"


@pytest.mark.parametrize("options", [[], ["--file"]])
@pytest.mark.parametrize("name", ["alarm", "door"])
def test_no_other_clip_is_removed_than_the_one_in_the_question(shell, sandbox, door, options, name):
    output, status = shell.on_terminal(
        "remove", "0", *options, steps=[("[y/N] ", "y\n", replace_clip(sandbox, name))])
    assert (status, output.endswith(CHANGED)) == (1, True), output
    assert shell.ok("list", "--names") == f"{name}\n"
    assert door.file.exists()


@pytest.mark.parametrize("change", [["rename", "0", "gate"], ["remove", "--yes", "0"]])
def test_a_clip_that_was_changed_during_the_question_is_not_removed(shell, door, change):
    output, status = shell.on_terminal(
        "remove", "0", steps=[("[y/N] ", "y\n", [[PROGRAM, *change]])])
    assert (status, output.endswith(CHANGED)) == (1, True), output
    assert shell.ok("list", "--names") == ("gate\n" if change[0] == "rename" else "")


def test_a_file_that_another_clip_got_during_the_question_is_kept(shell, door):
    output, status = shell.on_terminal(
        "remove", "--file", "0",
        steps=[("[y/N] ", "y\n", [[PROGRAM, "add", door.path, "--name", "new"]])])
    assert status == 1
    assert "clip 1 has the same file, '/etc/audioclips/door.wav'" in output
    assert shell.ok("list", "--names") == "door\nnew\n"
    assert door.file.exists()


def test_no_other_clip_is_renamed_than_the_one_that_was_named(shell, sandbox, door):
    shell.ok("add", door.path, "--name", "taken")
    output, status = shell.on_terminal(
        "rename", "0", "taken", steps=[("[y/N] ", "y\n", replace_clip(sandbox, "alarm"))])
    assert (status, output.endswith(CHANGED)) == (1, True), output
    assert shell.ok("list", "--names") == "alarm\ntaken\n"


# Tables


@pytest.mark.parametrize("columns", [50, 60, 79, 80, 120])
def test_a_table_fits_on_the_terminal(shell, sandbox, door, columns):
    sandbox.write_clip("a-long-folder-name/and-a-long-file-name.wav", clips.noise(480))
    shell.ok("add", "/etc/audioclips/a-long-folder-name/and-a-long-file-name.wav", "--name",
             "A name of more characters than fit, 鈴鈴鈴")
    lines = shell.on_terminal("list", columns=columns, env={"NO_COLOR": "1"})[0].splitlines()
    assert max(len(line) + line.count("鈴") for line in lines) <= columns
    assert any("…" in line for line in lines) == (columns < 120)
    assert "…" not in shell.ok("list")
    assert "and-a-long-file-name.wav" in shell.ok("list")


# The status


def test_the_watch_shows_the_position_on_one_line(shell, sandbox, door):
    shell.ok("play", "door", "--repeat", "forever")
    output, _ = shell.on_terminal("status", "--watch", steps=[("0:00.", ""), ("0:00.", INTERRUPT)])
    assert re.search(r"\r0:00\.\d / 0:01\.0  door  on output 0\x1b\[K", output)
    assert "\n" not in output.removesuffix("\n")
    shell.ok("stop")


def test_the_watch_fits_on_one_line(shell, sandbox, door):
    shell.ok("rename", "0", "鈴" * 50)
    shell.ok("play", "0", "--repeat", "forever")
    output, _ = shell.on_terminal("status", "--watch", columns=30,
                                  steps=[("0:00.", ""), ("0:00.", INTERRUPT)])
    for line in output.removesuffix("^C").split("\r")[1:]:
        text = line.removesuffix("\x1b[K")
        assert len(text) + text.count("鈴") < 30
    shell.ok("stop")


# The monitor


def test_ctrl_c_ends_the_monitor(shell, daemon):
    _, status = shell.on_terminal("monitor", steps=[("watching; press Ctrl-C to quit", INTERRUPT)])
    assert status == 130


def test_an_error_is_printed_without_a_bar(shell, sandbox, player):
    clip = sandbox.write_clip("long.wav", clips.noise(48000) * 60)
    shell.ok("play", clip.path)
    wait_until(lambda: sandbox.card(0).frames > 0, 20, "the clip is playing")
    output, status = shell.on_terminal("play", "--wait", clip.path)
    assert status == 1
    assert output.startswith("sonobrikctl: A clip is already playing.\r\n")
