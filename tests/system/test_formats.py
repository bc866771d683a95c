"""Which files count as clips: each supported kind of audio file, and what is refused."""

import itertools
import os
import random
import socket
import threading

import pytest
from sandbox import BusError, clips, wait_until
from sandbox.lease import leased

SUPPORTED = ["wav", "au", "mulaw", "mp3", "mp2", "vorbis", "opus"]


def undetermined(path):
    return f"Could not determine the media format of file: '{path}'"


def unsupported(path):
    return f"'{path}' is not supported on this device."


# SupportedFile


@pytest.mark.parametrize("rate, channels", [(48000, 1), (44100, 2)])
@pytest.mark.parametrize("kind", SUPPORTED)
def test_each_kind_of_clip_is_supported(shared, asked, kind, rate, channels):
    # The name does not give the kind away.
    clip = shared.write_clip(f"{kind}-{rate}", clips.tone(440, 0.2, rate, channels), rate, channels,
                             kind)
    assert asked.call("SupportedFile", clip.path) == "OK"


@pytest.mark.parametrize("rate", [32000, 22050])
def test_mp3_of_lower_rates_is_supported(shared, asked, rate):
    clip = shared.write_clip("low.mp3", clips.tone(440, 0.2, rate), rate)
    assert asked.call("SupportedFile", clip.path) == "OK"


def test_flac_is_refused(shared, asked):
    clip = shared.write_clip("a.flac", clips.tone(440, 0.2))
    assert asked.fail("SupportedFile", clip.path) == unsupported(clip.path)
    assert asked.fail("PlayClip", clip.location) == f"No supported file(s) found at '{clip.path}'."


def test_a_name_decides_nothing(shared, asked):
    clip = shared.write_clip("flac.wav", clips.tone(440, 0.2), kind="flac")
    assert asked.fail("SupportedFile", clip.path) == unsupported(clip.path)


@pytest.mark.parametrize("name, content", [
    ("text.wav", b"This is not sound.\n" * 100),
    ("empty.wav", b""),
    ("zeros.wav", bytes(10000)),
    ("noise.mp3", random.Random(3).randbytes(10000)),
    ("header.wav", b"RIFF"),
    ("header.ogg", b"OggS"),
])
def test_a_file_without_sound_is_undetermined(shared, asked, name, content):
    path = shared.write_file(name, content)
    assert asked.fail("SupportedFile", path) == undetermined(path)


def test_what_is_no_file_is_undetermined_at_once(shared, asked):
    folder = shared.etc / "audioclips"
    os.mkfifo(folder / "fifo.wav")
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(f"/proc/self/fd/{shared._run_fd}/socket")
    os.symlink("nowhere", folder / "dangling.wav")
    os.symlink("loop.wav", folder / "loop.wav")
    logged = len(shared.daemon.texts)
    for path in ("/etc/audioclips/fifo.wav", "/run/socket", "/etc/audioclips/dangling.wav",
                 "/etc/audioclips/loop.wav", "/dev/zero", "/dev/null",
                 "/etc/audioclips/missing.wav", "", "missing.wav", "http://127.0.0.1/a.wav"):
        assert asked.fail("SupportedFile", path) == undetermined(path)
    assert shared.daemon.texts[logged:] == []


def test_a_folder_is_undetermined_and_logged(shared, asked):
    (shared.etc / "audioclips/folder.wav").mkdir()
    for path in ("/etc/audioclips/folder.wav", "/etc/audioclips", "/", "."):
        logged = len(shared.daemon.texts)
        assert asked.fail("SupportedFile", path) == undetermined(path)
        assert shared.daemon.texts[logged:] == [
            f"info: Discoverer error: '\"{path}\" is a directory.'."]


def test_a_file_that_may_not_be_read_is_undetermined(shared, asked):
    clip = shared.write_clip("hidden.wav", clips.noise(480))
    clip.file.chmod(0)
    logged = len(shared.daemon.texts)
    assert asked.fail("SupportedFile", clip.path) == undetermined(clip.path)
    assert shared.daemon.texts[logged:] == [
        f"info: Discoverer error: 'Could not open file \"{clip.path}\" for reading.'."]


def test_a_file_with_a_write_lease_is_undetermined_at_once(shared, asked):
    """Anyone who owns a file can take a lease, and opening the file would wait for it."""
    clip = shared.write_clip("leased.wav", clips.noise(480))
    with leased(clip.file):
        reply = asked.send("SupportedFile", clip.path)
        assert asked.call("StopPlayingClip", timeout=10) == "OK"
        with pytest.raises(BusError) as refusal:
            reply.wait(10)
        assert refusal.value.text == undetermined(clip.path)
    reason = f"Could not open '{clip.path}': Resource temporarily unavailable"
    wait_until(lambda: shared.daemon.count("warning", reason) == 1, what="the reason is logged")
    assert asked.call("SupportedFile", clip.path) == "OK"


def test_a_link_to_a_clip_is_one(shared, asked):
    clip = shared.write_clip("real.wav", clips.noise(480))
    os.symlink("real.wav", shared.etc / "audioclips/link.wav")
    os.symlink("/etc/audioclips", shared.folder / "tmp/folder")
    assert asked.call("SupportedFile", "/etc/audioclips/link.wav") == "OK"
    assert asked.call("SupportedFile", f"/tmp/folder/{clip.file.name}") == "OK"


def test_a_path_is_taken_literally(shared, asked):
    clip = shared.write_clip("a b%20*?.wav", clips.noise(480))
    assert asked.call("SupportedFile", clip.path) == "OK"
    assert asked.fail("SupportedFile", "/etc/audioclips/a*") == undetermined("/etc/audioclips/a*")


def test_a_long_explanation_is_cut(shared, asked):
    path = "/" + "é" * 200
    assert asked.fail("SupportedFile", path) == (
        undetermined(path).encode()[:255].decode(errors="ignore"))


def test_a_path_that_changes_to_a_fifo_holds_nobody(sandbox, player):
    """The type of a file must be checked after it was opened, not before."""
    sandbox.write_clip("real.wav", clips.noise(480))
    folder = sandbox.etc / "audioclips"
    os.mkfifo(folder / "fifo")
    path = sandbox.write_file("clip.wav")
    finished = threading.Event()

    def change():
        for target in itertools.cycle(("real.wav", "fifo")):
            if finished.is_set():
                return
            os.symlink(target, folder / "next")
            os.rename(folder / "next", folder / "clip.wav")

    changer = threading.Thread(target=change)
    changer.start()
    try:
        answers = set()
        for _ in range(200):
            try:
                answers.add(player.call("SupportedFile", path))
            except BusError as error:
                answers.add(error.text)
    finally:
        finished.set()
        changer.join()
    assert answers == {"OK", undetermined(path)}


def test_a_file_that_takes_the_discoverer_too_long_is_undetermined(shared, asked):
    """GStreamer looks for more chunks in the hole behind the samples, for minutes if it may."""
    clip = shared.write_clip("hole.wav", clips.noise(480))
    os.truncate(clip.file, 200 * 2**30)
    logged = len(shared.daemon.texts)
    assert asked.fail("SupportedFile", clip.path) == undetermined(clip.path)
    assert shared.daemon.texts[logged:] == [
        f"info: Unexpected result when discovering '{clip.path}', (code: 3)."]


# Each kind reaches the sound card


@pytest.mark.parametrize("kind", SUPPORTED)
def test_each_kind_of_clip_sounds_for_as_long_as_it_is(sandbox, player, kind):
    clip = sandbox.write_clip("tone", clips.tone(440, 0.3), kind=kind)
    assert player.call("PlayClip", clip.location) == "OK"
    take = sandbox.card(0).takes[-1]
    sounding = [i // take.channels for i, sample in enumerate(take.samples)
                if abs(sample) > 0.1 * 2 ** (take.bits - 1)]
    # An encoder smears each end of a tone by up to one of its frames, 26 ms for MP3.
    assert 0.24 <= (sounding[-1] - sounding[0]) / take.rate <= 0.36


def test_a_clip_without_a_sample_is_played_and_over(sandbox, player):
    clip = sandbox.write_clip("none.wav", [])
    assert player.call("PlayClip", clip.location) == "OK"
    player.fence()
    assert player.events[::2] == [("Playing", 1, 0, 0, True), ("Playing", 1, 0, 0, False)]


def test_a_clip_of_one_sample_reaches_the_card(sandbox, player):
    clip = sandbox.write_clip("one.wav", [12345])
    assert player.call("PlayClip", clip.location) == "OK"
    assert [sample for sample in sandbox.card(0).takes[0].samples if sample] == [12345]


# Damaged files


def damage(content, how):
    noise = random.Random(1).randbytes(len(content))
    at = len(content) // 2
    return {
        "cut in its header": content[:60],
        "cut in the middle": content[:at],
        "noise after its header": content[:200] + noise[200:],
        "noise in its second half": content[:at] + noise[at:],
        "zeros in its second half": content[:at] + bytes(len(content) - at),
    }[how]


@pytest.mark.parametrize("kind", [*SUPPORTED, "flac"])
def test_a_damaged_clip_is_answered_and_does_no_harm(sandbox, player, kind):
    content = sandbox.write_clip("whole", clips.tone(440, 0.1), kind=kind).file.read_bytes()
    for how in ("cut in its header", "cut in the middle", "noise after its header",
                "noise in its second half", "zeros in its second half"):
        path = sandbox.write_file("damaged", damage(content, how))
        supported = player.send("SupportedFile", path)
        reply = player.send("PlayClip", f"location={path}")
        # For some of these files the discoverer takes its 5 s and times out.
        try:
            assert supported.wait(30) == ("OK",)
        except BusError as error:
            assert error.text in (undetermined(path), unsupported(path)), how
            with pytest.raises(BusError) as error:
                reply.wait(30)
            assert error.value.text == f"No supported file(s) found at '{path}'.", how
        else:
            assert reply.wait(30) == ("OK",), how
    good = sandbox.write_clip("good.wav", clips.noise(480))
    assert player.call("PlayClip", good.location) == "OK"
    assert sandbox.card(0).takes[-1].find(good.samples) >= 0


def test_a_cut_wav_plays_as_far_as_it_goes(sandbox, player):
    clip = sandbox.write_clip("a.wav", clips.noise(9600))
    path = sandbox.write_file("cut.wav", clip.file.read_bytes()[:44 + 2 * 4800])
    assert player.call("PlayClip", f"location={path}") == "OK"
    take, = sandbox.card(0).takes
    assert take.find(clip.samples[:4800]) >= 0
    assert take.find(clip.samples[:4801]) < 0
