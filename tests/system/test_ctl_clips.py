"""sonobrikctl: the commands for stored clips, in a pipe."""

import json
import os
import signal
import stat

import pytest
from sandbox import clips, wait_until
from sandbox.controls import Controls, Monitor
from sandbox.shell import PROGRAM
from sandbox.store import Store, write_record

DOOR = "/etc/audioclips/door.wav"


@pytest.fixture
def door(sandbox, daemon):
    """A playable file of one second that is not stored as a clip."""
    return sandbox.write_clip("door.wav", clips.noise(48000))


@pytest.fixture
def elsewhere(sandbox, daemon):
    """A file outside the clip folder that only its owner can read."""
    path = sandbox.folder / "tmp/chime.wav"
    clips.write_wav(path, clips.noise(4800))
    path.chmod(0o600)
    return "/tmp/chime.wav"


@pytest.fixture
def huge(sandbox):
    """A file outside the clip folder that takes a while to copy and cannot be played."""
    with open(sandbox.folder / "tmp/huge.wav", "wb") as file:
        file.truncate(1 << 26)
    return "/tmp/huge.wav"


def list_json(shell):
    return json.loads(shell.ok("list", "--json"))


def test_an_empty_list_says_how_to_add_a_clip(shell, daemon):
    result = shell.run("list")
    assert (result.returncode, result.stdout) == (0, "")
    assert result.stderr == "sonobrikctl: no clips yet; to add one: sonobrikctl add --copy FILE\n"
    assert list_json(shell) == []


def test_a_clip_is_added_listed_renamed_and_removed(shell, door):
    assert shell.ok("add", DOOR) == "0\n"
    assert shell.ok("list") == (
        "NUMBER  NAME  FILE      FORMAT  LENGTH    SIZE\n"
        "     0  door  door.wav  wav     0:01.0  94 KiB\n")
    assert shell.ok("rename", "door", "Front door") == ""
    assert shell.ok("list", "--names") == "Front door\n"
    assert list_json(shell) == [{
        "number": 0, "name": "Front door", "location": DOOR, "mediaTypes": ["audio/x-wav"],
        "sizeKiB": 94, "durationMs": 1000}]
    assert shell.ok("remove", "--yes", "Front door") == ""
    assert list_json(shell) == []
    assert door.file.exists()


def test_columns_are_aligned_by_display_width(shell, sandbox, daemon):
    for name in ("door.wav", "bell/bell.opus"):
        sandbox.write_clip(name, clips.noise(24000))
    shell.ok("add", DOOR, "--name", "Tür")
    shell.ok("add", "/etc/audioclips/bell/bell.opus", "--name=鈴")
    assert [line.split()[:4] for line in shell.ok("list").splitlines()[1:]] == [
        ["0", "Tür", "door.wav", "wav"], ["1", "鈴", "bell/bell.opus", "ogg/opus"]]
    head, first, second = shell.ok("list").splitlines()
    assert head.index("FILE") == first.index("door.wav") == second.index("bell/") + 1


def test_names_cannot_control_the_terminal(shell, sandbox, door):
    name = "a\x1b[2Jb\nc‮d\x9be\\"
    assert shell.ok("add", DOOR, "--name", name) == "0\n"
    table = shell.ok("list")
    assert "a\\x1b[2Jb\\x0ac\\u202ed\\u009be\\ " in table
    assert len(table.splitlines()) == 2
    assert list_json(shell)[0]["name"] == name
    assert shell.ok("list", "--json").replace("\n", "").isprintable()
    assert shell.ok("list", "--json").isascii()
    assert shell.ok("list", "--names") == ""
    shell.ok("rename", name, "plain")
    assert shell.ok("list", "--names") == "plain\n"


def test_a_name_that_does_not_identify_a_clip_is_not_listed_and_refused(shell, sandbox, door):
    for name in ("same", "same", "1", ""):
        shell.ok("add", DOOR, "--name", name)
    assert shell.ok("list", "--names") == ""
    assert shell.fail(5, "remove", "--yes", "same") == [
        "several clips are named 'same': 0, 1; use the number",
        "to list all clips: sonobrikctl list"]
    shell.ok("remove", "--yes", "1")
    assert [clip["number"] for clip in list_json(shell)] == [0, 2, 3]
    assert shell.ok("list", "--names") == "same\n1\n"


def test_a_clip_without_a_file_is_listed(shell, sandbox):
    store = Store(sandbox)
    store.write("M3.json", write_record("/etc/audioclips/gone.wav", "Gone", "audio"))
    store.write("M4.json", write_record("", "", ""))
    store.start()
    assert list_json(shell)[0] == {
        "number": 3, "name": "Gone", "location": "/etc/audioclips/gone.wav", "mediaTypes": None,
        "sizeKiB": None, "durationMs": None}
    assert [line.split() for line in shell.ok("list").splitlines()[1:]] == [
        ["3", "Gone", "gone.wav", "no", "file", "-", "-"], ["4", "no", "file", "-", "-"]]


# add


def test_a_file_outside_the_clip_folder_is_refused_with_advice(shell, elsewhere):
    assert shell.fail(2, "add", elsewhere) == [
        "'/tmp/chime.wav' is not under /etc/audioclips",
        "move it there, or let sonobrikctl copy it: sonobrikctl add --copy FILE"]
    assert list_json(shell) == []


def test_a_folder_with_the_same_prefix_is_outside_the_clip_folder(shell, sandbox, daemon):
    (sandbox.etc / "audioclipsX").mkdir()
    clips.write_wav(sandbox.etc / "audioclipsX/a.wav", clips.noise(480))
    assert "not under" in shell.fail(2, "add", "/etc/audioclipsX/a.wav")[0]
    assert "not under" in shell.fail(2, "add", "/etc/audioclips/../audioclipsX/a.wav")[0]


def test_the_location_is_the_same_for_every_path_to_a_file(shell, sandbox, door):
    (sandbox.etc / "way").symlink_to("/etc/audioclips")
    shell.ok("add", "/etc/way/../audioclips/./door.wav")
    shell.ok("add", "/etc/way/door.wav")
    shell.ok("add", "etc/audioclips/door.wav")  # the current folder is /
    assert {clip["location"] for clip in list_json(shell)} == {DOOR}


def test_a_copy_is_readable_by_the_daemon_with_any_umask(shell, sandbox, elsewhere):
    result = sandbox.run(["sh", "-c", 'umask 077; exec "$0" "$@"', PROGRAM, "add", "--copy",
                          elsewhere])
    assert result.stdout == "0\n"
    copy = sandbox.etc / "audioclips/chime.wav"
    assert stat.S_IMODE(copy.stat().st_mode) == 0o644
    assert copy.read_bytes() == (sandbox.folder / "tmp/chime.wav").read_bytes()
    assert list_json(shell)[0]["location"] == "/etc/audioclips/chime.wav"


def test_a_copy_does_not_overwrite_a_file(shell, sandbox, elsewhere):
    sandbox.write_file("chime.wav", b"precious")
    assert shell.fail(1, "add", "--copy", elsewhere) == [
        "'/etc/audioclips/chime.wav' already exists and was not overwritten; rename your file, "
        "or replace that one with --replace"]
    assert (sandbox.etc / "audioclips/chime.wav").read_bytes() == b"precious"


def test_the_copy_is_removed_if_the_clip_cannot_be_stored(shell, sandbox, elsewhere):
    sandbox.set_access({"com.vesk.Sonobrik": {"users": "*"},
                        "com.vesk.Sonobrik.AddClip": {"users": "nobody"}})
    shell.fail(4, "add", "--copy", elsewhere)
    sandbox.set_access({"com.vesk.Sonobrik": {"users": "*"}})
    (sandbox.folder / "tmp/notes.txt").write_text("no clip")
    assert shell.fail(1, "add", "--copy", "/tmp/notes.txt") == [
        "Could not determine the media format of file: '/tmp/notes.txt'",
        "if it plays elsewhere, convert it to WAV, MP3, Vorbis or Opus, for example: "
        "ffmpeg -i 'notes.txt' 'notes.wav'"]
    assert os.listdir(sandbox.etc / "audioclips") == []
    assert list_json(shell) == []


def test_ctrl_c_leaves_no_incomplete_copy(sandbox, daemon, huge):
    copy = sandbox.etc / "audioclips/huge.wav"
    adding = sandbox.spawn([PROGRAM, "add", "--copy", huge])
    wait_until(lambda: copy.exists() or not adding.is_running, 20, "copying has started")
    adding.kill(signal.SIGINT)
    adding.wait_exit()
    assert os.listdir(sandbox.etc / "audioclips") == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
@pytest.mark.parametrize("options", [[], ["--replace"]])
def test_a_signal_while_the_daemon_checks_the_copy_removes_it(
        shell, sandbox, daemon, huge, number, options):
    folder = sandbox.etc / "audioclips"
    if options:
        sandbox.write_file("huge.wav", b"precious")
    before = os.listdir(folder)
    calls = Monitor(sandbox, "member=SupportedFile")
    adding = sandbox.spawn([PROGRAM, "add", "--copy", *options, huge])
    wait_until(lambda: os.listdir(folder) != before or not adding.is_running, 20,
               "copying has started")
    daemon.pause()
    calls.wait(1)
    adding.kill(number)
    # 1 if the daemon replied just before it was paused.
    assert adding.wait_exit() in (1, 128 + number)
    daemon.go_on()
    assert os.listdir(folder) == before


def test_an_error_that_nobody_reads_leaves_no_copy(sandbox, daemon):
    (sandbox.folder / "tmp/bad.wav").write_bytes(b"no sound")
    # The reader closes the pipe first.
    sandbox.run(["sh", "-c", """
        mkfifo /tmp/closed
        { read _ </tmp/closed; exec "$0" add --copy /tmp/bad.wav; } 2>&1 | { exec <&-; echo >/tmp/closed; }
        """, PROGRAM])
    assert os.listdir(sandbox.etc / "audioclips") == []


def test_the_copy_is_removed_if_the_daemon_exits_while_it_checks_it(sandbox, daemon, elsewhere):
    calls = Monitor(sandbox, "member=SupportedFile")
    daemon.pause()
    adding = sandbox.spawn([PROGRAM, "add", "--copy", elsewhere])
    calls.wait(1)
    daemon.kill()
    assert adding.wait_exit() == 3
    assert os.listdir(sandbox.etc / "audioclips") == []


def test_an_ignored_ctrl_c_stays_ignored_while_copying(shell, sandbox, daemon, elsewhere):
    calls = Monitor(sandbox, "member=SupportedFile")
    daemon.pause()
    adding = sandbox.spawn(["sh", "-c", "trap '' INT; exec \"$0\" \"$@\"", PROGRAM, "add", "--copy",
                            elsewhere])
    calls.wait(1)
    adding.kill(signal.SIGINT)
    daemon.go_on()
    assert adding.wait_exit() == 0
    assert [clip["name"] for clip in list_json(shell)] == ["chime"]


def test_missing_files_folders_and_pipes_are_not_added(shell, sandbox, daemon):
    assert shell.fail(5, "add", "/etc/audioclips/no.wav") == [
        "cannot add '/etc/audioclips/no.wav': No such file or directory"]
    assert shell.fail(5, "add", "/etc/audioclips") == ["there are no files in '/etc/audioclips'"]
    os.mkfifo(sandbox.folder / "tmp/pipe")
    assert shell.fail(1, "add", "--copy", "/tmp/pipe") == ["'/tmp/pipe' is not a regular file"]


@pytest.mark.parametrize("parameters", [
    "root.SonoBrik.MaxGroups=1\n",
    "\t root.SonoBrik.MaxGroups \t= 1 \r\n",
    "root.SonoBrik.MaxGroups=2\n root.SonoBrik.MaxGroups = 1\n# root.SonoBrik.MaxGroups=3\nMaxGroups=4\n",
])
def test_a_full_list_is_explained(shell, sandbox, parameters):
    sandbox.set_parameters(parameters)
    sandbox.write_clip("door.wav", clips.noise(480))
    sandbox.start_daemon()
    shell.ok("add", DOOR)
    assert shell.fail(1, "add", DOOR) == [
        "the list is full: it has 1 clips, the limit is 1",
        "remove a clip, or raise root.SonoBrik.MaxGroups in /etc/vesk/parameters.conf and restart "
        "the daemon: systemctl restart sonobrik"]


def test_a_limit_that_is_not_a_number_is_not_shown(shell, sandbox):
    sandbox.set_parameters("root.SonoBrik.MaxGroups=1\n")
    sandbox.write_clip("door.wav", clips.noise(480))
    sandbox.start_daemon()
    shell.ok("add", DOOR)
    sandbox.set_parameters("root.SonoBrik.MaxGroups=1\nroot.SonoBrik.MaxGroups=1 clip\n")
    assert shell.fail(1, "add", DOOR) == ["NOK", "for details: journalctl -t sonobrik"]


def test_another_failure_to_store_refers_to_the_log(shell, sandbox, door):
    sandbox.run(["chmod", "000", "/etc/dynamic/sonobrik/clip_data"])
    (sandbox.etc / "dynamic/sonobrik/clip_data").rename(sandbox.etc / "dynamic/sonobrik/away")
    assert shell.fail(1, "add", DOOR) == ["NOK", "for details: journalctl -t sonobrik"]


def test_several_files_and_a_folder_are_added(shell, sandbox, door):
    for name in ("set/b.wav", "set/a.wav", "set/deeper/c.wav", "set/.hidden.wav"):
        sandbox.write_clip(name, clips.noise(480))
    assert shell.ok("add", DOOR, "/etc/audioclips/set") == "0 door\n1 a\n2 b\n"
    assert [clip["location"] for clip in list_json(shell)] == [
        DOOR, "/etc/audioclips/set/a.wav", "/etc/audioclips/set/b.wav"]


def test_a_file_that_cannot_be_played_does_not_stop_the_others(shell, sandbox, door):
    sandbox.write_file("a.txt", b"text")
    result = shell.run("add", "/etc/audioclips/a.txt", DOOR)
    assert (result.returncode, result.stdout) == (1, "1 door\n".replace("1", "0"))
    assert "/etc/audioclips/a.txt" in result.stderr


def test_nothing_is_added_if_a_file_is_missing(shell, door):
    shell.fail(5, "add", DOOR, "/etc/audioclips/no.wav")
    assert shell.fail(2, "add", DOOR, DOOR, "--name", "x") == ["--name is for one file, not for 2"]
    assert list_json(shell) == []


def test_several_copies_are_added(shell, sandbox, elsewhere):
    (sandbox.folder / "tmp/set").mkdir()
    for name in ("x.wav", "y.wav"):
        clips.write_wav(sandbox.folder / f"tmp/set/{name}", clips.noise(480))
    assert shell.ok("add", "--copy", elsewhere, "/tmp/set") == "0 chime\n1 x\n2 y\n"
    assert sorted(os.listdir(sandbox.etc / "audioclips")) == ["chime.wav", "x.wav", "y.wav"]


def test_a_recording_is_replaced_and_its_length_is_read_again(shell, sandbox, elsewhere):
    shell.ok("add", "--copy", elsewhere)
    shell.ok("rename", "0", "Bell")
    assert list_json(shell)[0]["durationMs"] == 100
    clips.write_wav(sandbox.folder / "tmp/chime.wav", clips.noise(48000))
    assert shell.ok("add", "--copy", "--replace", elsewhere) == "0\n"
    assert [(clip["number"], clip["name"], clip["durationMs"]) for clip in list_json(shell)] == [
        (0, "Bell", 1000)]
    copy = sandbox.etc / "audioclips/chime.wav"
    assert copy.read_bytes() == (sandbox.folder / "tmp/chime.wav").read_bytes()
    assert stat.S_IMODE(copy.stat().st_mode) == 0o644
    assert os.listdir(sandbox.etc / "audioclips") == ["chime.wav"]


def test_a_recording_that_cannot_be_played_replaces_nothing(shell, sandbox, elsewhere):
    shell.ok("add", "--copy", elsewhere)
    before = (sandbox.etc / "audioclips/chime.wav").read_bytes()
    (sandbox.folder / "tmp/chime.wav").write_text("no clip")
    assert shell.fail(1, "add", "--copy", "--replace", elsewhere)[0] == (
        "Could not determine the media format of file: '/tmp/chime.wav'")
    assert (sandbox.etc / "audioclips/chime.wav").read_bytes() == before
    assert os.listdir(sandbox.etc / "audioclips") == ["chime.wav"]
    assert len(list_json(shell)) == 1


def test_no_recording_of_one_command_replaces_another_one(shell, sandbox, elsewhere):
    for name in ("x/gong.wav", "y/gong.wav"):
        (sandbox.folder / "tmp" / name).parent.mkdir()
        clips.write_wav(sandbox.folder / "tmp" / name, clips.noise(480))
    assert shell.fail(2, "add", "--copy", "--replace", "/tmp/x/gong.wav", "/tmp/y/gong.wav") == [
        "'/tmp/x/gong.wav' and '/tmp/y/gong.wav' would both become '/etc/audioclips/gong.wav'; "
        "rename one of them"]
    assert os.listdir(sandbox.etc / "audioclips") == []
    stored = sandbox.write_clip("gong.wav", clips.noise(4800)).path
    for files in ([stored, "/tmp/x/gong.wav"], ["/tmp/x/gong.wav", stored]):
        assert "would both become" in shell.fail(2, "add", "--copy", "--replace", *files)[0]
    assert list_json(shell) == []


def test_a_clip_keeps_its_number_rather_than_its_length(shell, sandbox, door):
    for name in ("a", "b"):
        shell.ok("add", DOOR, "--name", name)
    shell.ok("remove", "--yes", "a")
    result = shell.run("add", "--replace", DOOR)
    assert (result.returncode, result.stdout) == (0, "1\n")
    assert result.stderr == (
        "sonobrikctl: clip 1 plays the new recording; to keep its number, 'list' shows the length "
        "and size of the old one\n")
    assert [(clip["number"], clip["name"]) for clip in list_json(shell)] == [(1, "b")]


def test_replace_adds_a_file_that_no_clip_has(shell, door):
    assert shell.ok("add", "--replace", DOOR) == "0\n"
    assert shell.ok("add", "--replace", DOOR, "--name", "Bell") == "0\n"
    assert shell.ok("list", "--names") == "Bell\n"


def test_remove_deletes_the_file_if_asked_to(shell, sandbox, door):
    shell.ok("add", DOOR)
    shell.ok("add", DOOR, "--name", "again")
    assert shell.fail(1, "remove", "--yes", "--file", "0") == [
        f"clip 1 has the same file, '{DOOR}'; remove only the clip, without --file"]
    shell.ok("remove", "--yes", "0")
    shell.ok("remove", "--yes", "--file", "1")
    assert list_json(shell) == []
    assert not door.file.exists()


@pytest.mark.parametrize("path", ["/etc/audioclips//door.wav", "/etc/audioclips/./door.wav"])
def test_remove_keeps_a_file_that_another_clip_has_by_another_path(shell, sandbox, path):
    store = Store(sandbox)
    store.write("M0.json", write_record(DOOR, "door", "audio"))
    store.write("M1.json", write_record(path, "again", "audio"))
    store.start()
    door = sandbox.write_clip("door.wav", clips.noise(480))
    for number, other in (("0", "1"), ("1", "0")):
        assert shell.fail(1, "remove", "--yes", "--file", number)[0].startswith(
            f"clip {other} has the same file, ")
    assert door.file.exists()
    assert shell.ok("add", "--replace", DOOR) == "0\n1\n"
    assert len(list_json(shell)) == 2


def test_remove_deletes_no_file_outside_the_clip_folder(shell, sandbox):
    store = Store(sandbox)
    for number, path in enumerate(("/tmp/precious", "/etc/audioclips/../../tmp/precious")):
        store.write(f"M{number}.json", write_record(path, f"n{number}", "audio"))
    store.start()
    (sandbox.folder / "tmp/precious").write_text("x")
    for number in ("0", "1"):
        assert "is not under /etc/audioclips" in shell.fail(
            1, "remove", "--yes", "--file", number)[0]
    assert (sandbox.folder / "tmp/precious").exists()
    assert len(list_json(shell)) == 2


@pytest.mark.needs_root
def test_remove_removes_no_clip_whose_file_the_user_may_not_delete(shell, sandbox, door):
    shell.ok("add", DOOR)
    assert shell.fail(1, "remove", "--yes", "--file", "0", uid=65534)[0].startswith(
        f"cannot delete '{DOOR}': ")
    assert len(list_json(shell)) == 1


# rename, remove, sync


def test_a_name_can_have_255_bytes(shell, door):
    shell.ok("add", DOOR)
    shell.ok("rename", "0", "ü" * 127 + "x")
    assert list_json(shell)[0]["name"] == "ü" * 127 + "x"
    assert shell.fail(2, "rename", "0", "ü" * 128) == [
        "clip names must be valid UTF-8 and at most 255 bytes long"]
    shell.fail(2, "rename", "0", b"\xff".decode(errors="surrogateescape"))
    shell.ok("rename", "0", "")
    assert list_json(shell)[0]["name"] == ""


def test_remove_does_not_ask_in_a_pipe(shell, door):
    shell.ok("add", DOOR)
    assert shell.fail(2, "remove", "0") == [
        "not a terminal, cannot ask for confirmation; use --yes"]
    assert len(list_json(shell)) == 1


def test_sync_updates_the_on_screen_controls(shell, sandbox, door):
    controls = Controls(sandbox)
    shell.ok("add", DOOR)
    shell.ok("rename", "0", "Bell")
    assert controls.clips == [("door", 0)]
    shell.ok("sync")
    assert controls.clips == [("Bell", 0)]


# check


def test_check_reports_on_each_file(shell, sandbox, door):
    notes = sandbox.write_file("notes\n.txt", b"text")
    result = shell.run("check", DOOR, notes, "/no/a.wav")
    assert result.stdout.splitlines() == [
        f"{DOOR}: can be played",
        "/etc/audioclips/notes\\x0a.txt: Could not determine the media format of file: "
        "'/etc/audioclips/notes\\x0a.txt'; if it plays elsewhere, convert it to WAV, MP3, Vorbis or "
        "Opus, for example: ffmpeg -i 'notes\\x0a.txt' 'notes\\x0a.wav'",
        "/no/a.wav: Could not determine the media format of file: '/no/a.wav'; '/no' does not exist"]
    assert (result.returncode, result.stderr) == (1, "")
    assert shell.ok("check", DOOR) == f"{DOOR}: can be played\n"
    assert shell.run("check", "/no/a.wav").returncode == 5


def test_check_gives_no_advice_to_convert_a_directory_or_a_missing_file(shell, sandbox, daemon):
    (sandbox.etc / "audioclips/set").mkdir()
    result = shell.run("check", "/etc/audioclips/set")
    assert (result.returncode, result.stdout) == (
        1, "/etc/audioclips/set: Could not determine the media format of file: "
        "'/etc/audioclips/set'; '/etc/audioclips/set' is a directory\n")
    result = shell.run("check", "/etc/audioclips/set/*")
    assert (result.returncode, result.stdout) == (
        5, "/etc/audioclips/set/*: Could not determine the media format of file: "
        "'/etc/audioclips/set/*'; '/etc/audioclips/set/*' does not exist\n")


def test_a_name_that_is_not_utf8_is_explained(shell, sandbox, daemon):
    path = b"/etc/audioclips/\xff.wav".decode(errors="surrogateescape")
    result = shell.run("check", path)
    assert result.returncode == 1
    assert result.stdout == (
        "/etc/audioclips/\\xff.wav: the file name is not valid UTF-8\n")
    clips.write_wav(sandbox.etc / "audioclips" / os.fsdecode(b"\xff.wav"), clips.noise(480))
    assert shell.fail(2, "add", path) == [
        "file names must be valid UTF-8: '/etc/audioclips/\\xff.wav'"]

