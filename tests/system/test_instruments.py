"""Tests of the test tools: the virtual sound card, the fake vendor sink, the sandbox."""

import os
import pathlib
import time

import pytest
from sandbox import BusError, Sandbox, SandboxError, clips, wait_until
from sandbox.box import find_namespace_options
from sandbox.bus import DRIVER

CHAIN = pathlib.Path(__file__).parent / "gst_chain.py"
ALSASINK = "alsasink device=audiosink0 latency-time=20000"
NOBODY = 65534


def chain(sandbox, sink, *clips_to_play, **options):
    return sandbox.run(["/usr/bin/python3", CHAIN, sink, *(clip.path for clip in clips_to_play)],
                       **options)


def aplay(sandbox, *options, **how):
    return sandbox.run(["aplay", "-q", "-D", "audiosink0", *options], **how)


def assert_silent(samples):
    assert not any(samples)


def wait_clock(card, frames, rate=48000):
    """Waits until the clock by which the card plays has passed this many frames.

    The card records only when its program asks for the position, so the recording cannot tell.
    """
    wait_until(lambda: card.count("start") == 1, what="the card plays")
    start = next(event for event in card.events if event.name == "start")
    end = start.time + frames * 1_000_000_000 // rate
    wait_until(lambda: time.monotonic_ns() > end, what=f"the clock has passed {frames} frames")


# The sound card


def test_the_card_records_every_sample(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(9600, channels=2), rate=44100, channels=2)
    aplay(sandbox, clip.path)
    take, = sandbox.card(0).takes
    assert (take.rate, take.channels, take.bits) == (44100, 2, 16)
    assert take.samples[:len(clip.samples)] == clip.samples
    assert_silent(take.samples[len(clip.samples):])


def test_the_card_can_be_mapped(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(9600))
    aplay(sandbox, "-M", clip.path)
    assert sandbox.card(0).takes[0].find(clip.samples) == 0


@pytest.mark.parametrize("pin", [{"rate": 48000}, {"channels": 2}, {"format": "S32_LE"}])
def test_the_card_accepts_only_its_format_and_plug_converts(sandbox, pin):
    sandbox.set_outputs({"audiosink0": pin})
    clip = sandbox.write_clip("a.wav", clips.noise(4410), rate=44100)
    aplay(sandbox, clip.path)
    take, = sandbox.card(0).takes
    assert {"rate": take.rate, "channels": take.channels, "format": f"S{take.bits}_LE"} == {
        "rate": 44100, "channels": 1, "format": "S16_LE"} | pin


def test_the_card_plays_no_faster_than_the_clock(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    aplay(sandbox, clip.path)
    events = {event.name: event for event in sandbox.card(0).events}
    assert events["stop"].time - events["start"].time >= 500_000_000


def test_a_drain_ends_only_when_everything_is_played(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    # The clip is much shorter than the buffer, so nothing is played before the drain begins.
    aplay(sandbox, "--buffer-time=500000", "--period-time=10000", clip.path)
    assert sandbox.card(0).takes[0].find(clip.samples) == 0


def test_the_card_records_only_what_was_played_before_a_stop(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(480000))
    player = sandbox.spawn(["aplay", "-q", "-D", "audiosink0", "--buffer-time=2000000", clip.path])
    wait_clock(sandbox.card(0), 480)
    player.kill(2)
    player.wait_exit()
    take, = sandbox.card(0).takes
    events = {event.name: event for event in sandbox.card(0).events}
    assert take.samples == clip.samples[:take.frames]
    assert 0 < take.frames <= (events["stop"].time - events["start"].time) * 48000 / 1e9 + 1


def test_the_card_reports_an_underrun(sandbox):
    source = sandbox.folder / "tmp/source"
    os.mkfifo(source)
    player = sandbox.spawn(["aplay", "-D", "audiosink0", "-t", "raw", "-f", "S16_LE", "-r", "48000",
                            "--buffer-time=100000", "/tmp/source"])
    with open(source, "wb", buffering=0) as pipe:
        pipe.write(clips.noise(9600))
        wait_clock(sandbox.card(0), 9600)
        pipe.write(clips.noise(9600))
    assert player.wait_exit() == 0
    assert sandbox.card(0).count("underrun") == 1
    assert any("underrun" in line for line in player.lines)


def test_the_same_format_continues_the_recording(sandbox):
    first = sandbox.write_clip("a.wav", clips.noise(4800, seed=1))
    second = sandbox.write_clip("b.wav", clips.noise(4800, seed=2))
    aplay(sandbox, first.path)
    aplay(sandbox, second.path)
    take, = sandbox.card(0).takes
    assert take.find(first.samples) == 0
    assert take.find(second.samples) >= 4800


def test_another_format_starts_a_new_recording(sandbox):
    for number, (rate, channels) in enumerate([(48000, 1), (48000, 2), (192000, 1), (8000, 8)]):
        clip = sandbox.write_clip("a.wav", clips.noise(800, channels), rate, channels)
        aplay(sandbox, clip.path)
        take = sandbox.card(0).takes[number]
        assert (take.rate, take.channels) == (rate, channels)
        assert take.find(clip.samples) == 0


def test_each_output_has_its_own_card(sandbox):
    sandbox.set_outputs(["audiosink0", "audiosink3", "device3_output0", "device3_output1"])
    clip = sandbox.write_clip("a.wav", clips.noise(480))
    for name, card in (("audiosink3", sandbox.card(3)), ("device3_output1", sandbox.card(3, 1))):
        sandbox.run(["aplay", "-q", "-D", name, clip.path])
        assert card.takes[0].find(clip.samples) == 0
    assert sandbox.card(0).takes == []
    sandbox.run(["aplay", "-q", "-D", "device3_output0", clip.path])
    assert sandbox.card(3).count("open") == 2


def test_a_card_in_use_is_busy(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(480000))
    sandbox.spawn(["aplay", "-q", "-D", "audiosink0", clip.path])
    wait_until(lambda: sandbox.card(0).is_open, what="the card is open")
    assert "busy" in aplay(sandbox, clip.path, check=False).stderr


def test_a_busy_card_can_be_opened_once_it_is_free(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(480))
    sandbox.card(0).set_trouble("busy")
    assert "busy" in aplay(sandbox, clip.path, check=False).stderr
    sandbox.card(0).set_trouble("busy", False)
    aplay(sandbox, clip.path)


def test_a_card_unplugged_while_playing_reports_an_error(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(480000))
    player = sandbox.spawn(["gst-launch-1.0", "playbin", f"uri=file://{clip.path}",
                            f"audio-sink={ALSASINK}"])
    wait_until(lambda: sandbox.card(0).frames > 0, what="it plays")
    sandbox.card(0).set_trouble("gone")
    assert player.wait_exit() != 0
    assert any("disconnected" in line for line in player.lines)
    assert sandbox.card(0).count("gone") == 1


def test_an_unplugged_card_cannot_be_opened(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(480))
    sandbox.card(0).set_trouble("gone")
    assert "No such device" in aplay(sandbox, clip.path, check=False).stderr


def test_a_stuck_card_plays_nothing_until_it_is_freed(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(48000))
    sandbox.card(0).set_trouble("stuck")
    player = sandbox.spawn(["aplay", "-q", "-D", "audiosink0", "--buffer-time=100000", clip.path])
    wait_clock(sandbox.card(0), 3 * 4800)  # three times the size of its buffer
    assert sandbox.card(0).frames == 0
    sandbox.card(0).set_trouble("stuck", False)
    assert player.wait_exit() == 0
    assert sandbox.card(0).takes[0].find(clip.samples) == 0


# GStreamer on the sound card


def test_a_clip_of_50_ms_reaches_the_card_from_its_first_to_its_last_sample(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    chain(sandbox, ALSASINK, clip)
    take, = sandbox.card(0).takes
    at = take.find(clip.samples)
    assert at >= 0
    assert_silent(take.samples[:at])
    assert_silent(take.samples[at + clip.frames:])


@pytest.mark.alone
def test_a_chain_of_wav_clips_reaches_the_card_without_a_gap(sandbox):
    chained = [sandbox.write_clip(f"{i}.wav", clips.noise(24000, seed=i)) for i in range(3)]
    chain(sandbox, ALSASINK, *chained)
    take, = sandbox.card(0).takes
    at = take.find(chained[0].samples)
    assert at >= 0
    assert take.find(chained[1].samples) == at + 24000
    assert take.find(chained[2].samples) == at + 48000


@pytest.mark.parametrize("kind", ["wav", "au", "mulaw", "vorbis", "opus", "mp3", "mp2", "flac"])
def test_each_kind_of_clip_plays_for_its_whole_length(sandbox, kind):
    clip = sandbox.write_clip("tone", clips.tone(440, 0.5, channels=2), channels=2, kind=kind)
    chain(sandbox, ALSASINK, clip)
    take = sandbox.card(0).takes[-1]
    sounding = [i // 2 for i, sample in enumerate(take.samples)
                if abs(sample) > 0.1 * 2 ** (take.bits - 1)]
    # A lossy codec blurs both ends of a tone by up to one of its frames, 26 ms for MP3.
    assert 0.44 <= (sounding[-1] - sounding[0]) / take.rate <= 0.56


# The vendor's sink


def test_the_vendor_sink_records_samples_and_the_source_id(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    chain(sandbox, "veskaudiosink source-id=Somebody latency-time=20000", clip, vendor_sink=True)
    assert sandbox.vendor_sink.takes[0].find(clip.samples) >= 0
    opened, params = sandbox.vendor_sink.events[:2]
    assert (opened.name, opened.fields) == ("open", {"source-id": "Somebody"})
    assert params.fields["latency-time"] == "20000"
    assert not sandbox.vendor_sink.is_open
    assert sandbox.card(0).takes == []


def test_the_vendor_sink_plays_no_faster_than_the_clock(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    begin = time.monotonic()
    chain(sandbox, "veskaudiosink", clip, vendor_sink=True)
    assert time.monotonic() - begin >= 0.5


def test_the_vendor_sink_serves_one_pipeline_after_another(sandbox):
    first = sandbox.write_clip("a.wav", clips.noise(4800, seed=1))
    second = sandbox.write_clip("b.wav", clips.noise(4800, seed=2))
    script = f"""
import gi
gi.require_version("Gst", "1.0")
from gi.repository import Gst
Gst.init(None)
sink = Gst.ElementFactory.make("veskaudiosink")
sink.set_property("source-id", "Both")
assert sink.get_property("source-id") == "Both"
for path in "{first.path}", "{second.path}":
    playbin = Gst.ElementFactory.make("playbin")
    playbin.set_property("uri", Gst.filename_to_uri(path))
    playbin.set_property("audio-sink", sink)
    playbin.set_latency(100 * Gst.MSECOND)
    playbin.set_state(Gst.State.PLAYING)
    message = playbin.get_bus().timed_pop_filtered(
        Gst.CLOCK_TIME_NONE, Gst.MessageType.EOS | Gst.MessageType.ERROR)
    playbin.set_state(Gst.State.NULL)
    assert message.type == Gst.MessageType.EOS
    playbin = message = None
"""
    sandbox.run(["/usr/bin/python3", "-c", script], vendor_sink=True)
    take, = sandbox.vendor_sink.takes
    assert 0 <= take.find(first.samples) < take.find(second.samples)
    assert sandbox.vendor_sink.count("open") == 2


def test_the_vendor_sink_exists_only_on_request(sandbox):
    command = ["gst-inspect-1.0", "veskaudiosink"]
    assert sandbox.run(command, check=False).returncode != 0
    assert sandbox.run(command, vendor_sink=True, check=False).returncode == 0


# The sandbox


def test_the_sandbox_has_its_own_folders(sandbox):
    sandbox.write_file("note.txt", b"here\n")
    assert sandbox.run(["cat", "/etc/audioclips/note.txt"]).stdout == "here\n"
    assert not pathlib.Path("/etc/audioclips/note.txt").exists()
    assert sandbox.run(["touch", "/usr/touched"], check=False).returncode != 0


def test_a_missing_program_is_reported_with_its_package(tmp_path, monkeypatch):
    monkeypatch.setenv("PATH", str(tmp_path))
    with pytest.raises(SandboxError, match="bwrap.*Debian packages: bubblewrap"):
        find_namespace_options.__wrapped__()


def test_missing_namespaces_are_reported(tmp_path, monkeypatch):
    (tmp_path / "bwrap").write_text("#!/bin/sh\necho No permissions to create it >&2\nexit 1\n")
    (tmp_path / "bwrap").chmod(0o755)
    monkeypatch.setenv("PATH", f"{tmp_path}:{os.environ['PATH']}")
    with pytest.raises(SandboxError, match="(?s)does not permit.*No permissions to create it"):
        find_namespace_options.__wrapped__()


def test_file_modes_apply_to_root_too(sandbox):
    sandbox.write_file("hidden.wav")
    (sandbox.etc / "audioclips/hidden.wav").chmod(0)
    assert "denied" in sandbox.run(["cat", "/etc/audioclips/hidden.wav"], check=False).stderr


def test_programs_in_the_sandbox_share_the_bus_with_the_test(sandbox):
    sandbox.bus.own_name("com.example.Here")
    names = sandbox.run(["busctl", "--system", "list", "--acquired", "--no-legend"]).stdout
    assert "com.example.Here" in names


def test_signals_are_delivered_in_order(sandbox):
    other = sandbox.connect()
    signals = sandbox.bus.subscribe(path="/com/example", member="Rang")
    for number in range(3):
        other.emit("/com/example", "com.example", "Rang", "(i)", number)
    wait_until(lambda: len(signals) == 3, what="three signals arrived")
    assert [signal.args for signal in signals] == [(0,), (1,), (2,)]
    assert signals[0].sender == other.unique_name
    other.close()


def test_an_error_reply_has_its_name_and_text(sandbox):
    with pytest.raises(BusError) as error:
        sandbox.bus.call("com.example.Nobody", "/", "com.example", "Call")
    assert error.value.name == "org.freedesktop.DBus.Error.ServiceUnknown"
    assert "com.example.Nobody" in error.value.text


def test_a_mock_answers_on_the_bus(sandbox):
    peer = ("com.example.Mock", "/com/example/Mock", "com.example.Mock")
    sandbox.start_mock(*peer)
    sandbox.bus.call(*peer[:2], "org.freedesktop.DBus.Mock", "AddMethod", "(sssss)", peer[2],
                     "Twice", "i", "i", "ret = 2 * args[0]")
    assert sandbox.bus.call(*peer, "Twice", "(i)", 21) == (42,)


@pytest.mark.needs_root
def test_the_bus_distinguishes_another_user(sandbox):
    script = ("import dbus, time; dbus.SystemBus().request_name('com.example.Other'); "
              "time.sleep(1000)")
    sandbox.spawn(["/usr/bin/python3", "-c", script], uid=NOBODY, groups=[29])
    wait_until(lambda: sandbox.bus.get_owner("com.example.Other"), what="the user connects")
    credentials, = sandbox.bus.call(*DRIVER, "GetConnectionCredentials", "(s)", "com.example.Other")
    assert credentials["UnixUserID"] == NOBODY
    assert sorted(credentials["UnixGroupIDs"]) == [29, NOBODY]


@pytest.mark.needs_root
def test_another_user_can_play(sandbox):
    clip = sandbox.write_clip("a.wav", clips.noise(4800))
    sandbox.run(["gst-launch-1.0", "playbin", f"uri=file://{clip.path}", f"audio-sink={ALSASINK}"],
                uid=NOBODY)
    # A pipeline without a configured latency drops the first sample.
    assert sandbox.card(0).takes[0].find(clip.samples[1:]) >= 0


# The handling of the daemon, with a script in its place


def daemon_script(sandbox, script):
    path = sandbox.folder / "tmp/daemon"
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)
    return "/tmp/daemon"


def test_start_daemon_waits_until_the_daemon_answers(sandbox):
    script = ("import sys\n"
              "from gi.repository import Gio, GLib\n"
              "print('sonobrik[7]: warning: I am: here', file=sys.stderr, flush=True)\n"
              "Gio.bus_own_name(Gio.BusType.SYSTEM, 'com.vesk.Sonobrik', 0, None, None, None)\n"
              "GLib.MainLoop().run()")
    daemon = sandbox.start_daemon(
        daemon_script(sandbox, f"exec /usr/bin/python3 - <<'END'\n{script}\nEND"))
    daemon.wait_log("warning", "I am: here")
    assert sandbox.bus.get_owner("com.vesk.Sonobrik")
    assert daemon.stop() == 128 + 15


def test_a_daemon_that_ends_at_once_fails_the_start(sandbox):
    with pytest.raises(AssertionError, match="ended with 3:\nno luck"):
        sandbox.start_daemon(daemon_script(sandbox, "echo no luck >&2; exit 3"))


def test_a_daemon_that_ended_by_itself_fails_the_test(tmp_path, build_dir, cache):
    box = Sandbox(tmp_path / "sandbox", build_dir, cache)
    daemon = box.start_daemon(daemon_script(box, "exit 0"), wait=False)
    wait_until(lambda: not daemon.is_running, what="it has ended")
    with pytest.raises(AssertionError, match="ended with 0 on its own"):
        box.close()


def test_a_sanitizer_report_fails_the_test(sandbox):
    report = "x.cpp:1:2: runtime error: signed integer overflow"
    daemon = sandbox.start_daemon(daemon_script(sandbox, f"echo '{report}' >&2"), wait=False)
    with pytest.raises(AssertionError, match="a sanitizer reports"):
        daemon.wait_exit()


def test_a_daemon_with_a_watchdog_can_notify(sandbox):
    script = "systemd-notify --no-block WATCHDOG=1 && echo $WATCHDOG_USEC >&2"
    program = daemon_script(sandbox, script)
    daemon = sandbox.start_daemon(program, watchdog_usec=4000000, wait=False)
    assert daemon.wait_exit() == 0
    assert daemon.lines == ["4000000"]
    assert [text for _, text in sandbox.notify.messages] == ["WATCHDOG=1"]
