"""The unit that is installed: the daemon plays under its restrictions, and they restrict."""

import json
import os
import pathlib
import shutil
import subprocess

import pytest
from sandbox import Player, Sandbox, Store, clips, wait_until
from sandbox.installation import find_id

ROOT = pathlib.Path(__file__).resolve().parents[2]
LAUNCHER = ROOT / "tests/support/unit_launcher.py"

KINDS = ("wav", "au", "mulaw", "mp3", "mp2", "vorbis", "opus")


class Heard:
    """What a sound card plays, part by part; clips of one format follow each other in one take."""

    def __init__(self, card):
        self.card = card
        self.frames = 0

    def take(self):
        """Since the last time: rate, peak, seconds from the first to the last sample heard."""
        take, = self.card.takes
        samples = take.samples[self.frames * take.channels:]
        self.frames = take.frames
        full = 2 ** (take.bits - 1)
        sounding = [i // take.channels for i, sample in enumerate(samples)
                    if abs(sample) > 0.05 * full]
        return (take.rate, max(map(abs, samples)) / full,
                (sounding[-1] - sounding[0]) / take.rate if sounding else 0)


@pytest.fixture
def box(tmp_path, build_dir, cache, installation):
    """A sandbox as the installed daemon finds the machine: its user, the bus with its policy, and
    a sound card that group audio may open."""
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as box:
        box.user = installation.make_users(box)
        installation.set_bus(box)
        box.set_outputs({"audiosink0": {"rate": 48000, "channels": 2, "format": "S16_LE"}})
        cards = box.card(0).folder
        os.chown(cards, 0, find_id(box, "group", "audio"))
        cards.chmod(0o2770)
        box.start_bus()
        yield box


@pytest.fixture
def launcher(box, build_dir, installation):
    """The command that starts the daemon as the unit says."""
    options = json.loads((build_dir / "meson-info/intro-buildoptions.json").read_text())
    if any(option["name"] == "b_sanitize" and option["value"] != "none" for option in options):
        pytest.skip("a sanitizer needs what the unit forbids")
    (box.folder / "run/unit").mkdir()
    shutil.copy(installation.unit, box.folder / "run/unit/sonobrik.service")
    ids = [box.user.uid, find_id(box, "group", "sonobrik"), *box.user.groups]
    return ["/usr/bin/python3", "-B", LAUNCHER, "/run/unit/sonobrik.service",
            ":".join(map(str, ids))]


def read_unit(installation, key):
    return [line.split("=", 1)[1] for line in installation.unit.read_text().splitlines()
            if line.startswith(f"{key}=")]


# Without running it


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="needs systemd-analyze")
def test_the_exposure_is_small(installation):
    """1.0 on a scale to 10, as systemd rates it."""
    analysis = subprocess.run(
        ["systemd-analyze", "security", "--offline=yes", "--threshold=10", "--no-pager",
         installation.unit], check=False, capture_output=True, text=True)
    assert analysis.returncode == 0, analysis.stdout + analysis.stderr


def test_the_watchdog_outlasts_a_silent_peer(installation):
    seconds, = read_unit(installation, "WatchdogSec")
    # Fed each half period, in which the loop may stand for the bus's 25 s.
    assert int(seconds) / 2 + 25 < int(seconds)


def test_it_starts_anew_for_new_devices_without_a_limit(installation):
    assert read_unit(installation, "RestartForceExitStatus") == ["75"]
    assert read_unit(installation, "SuccessExitStatus") == ["75"]
    assert read_unit(installation, "StartLimitIntervalSec") == ["0"]


def test_it_starts_anew_after_a_failure(installation):
    assert read_unit(installation, "Type") == ["dbus"]
    assert read_unit(installation, "Restart") == ["on-failure"]


def test_it_is_left_the_sound_cards_alone(installation):
    """What the launcher cannot impose."""
    assert read_unit(installation, "DevicePolicy") == ["closed"]
    assert read_unit(installation, "DeviceAllow") == ["char-alsa rw"]


def test_every_restriction_has_its_reason(installation):
    """A line belongs to the comment above it, with the lines that follow."""
    lines = installation.unit.read_text().splitlines()
    service = lines[lines.index("[Service]") + 1:lines.index("[Install]")]
    bare = [line for before, line in zip(["", *service], service)
            if line and not before and not line.startswith("#")]
    assert bare == []


# Under it


@pytest.mark.needs_root
def test_it_forbids_what_it_says(box, launcher, tmp_path):
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib/library").write_text("x")
    box.bind(tmp_path / "lib", "/usr/local/lib")
    probe = json.loads(box.run(["probe"], launcher=launcher).stdout)
    assert probe["status"] == {
        "CapBnd": "0" * 16, "CapEff": "0" * 16, "CapPrm": "0" * 16, "NoNewPrivs": "1",
        "Seccomp": "2"}
    assert probe["networks"] == ["lo"]
    assert probe["umask"] == "0o77"
    assert probe["results"] == {
        "write /etc": "EROFS",
        "write /var": "EROFS",
        "write /run": "EROFS",
        "write a clip": "EROFS",
        "write a record": "done",
        "write the cache": "done",
        "write /tmp": "done",
        "write a sound card": "done",
        "list /home": "EACCES",
        "list /root": "EACCES",
        "see the machine": "ENOENT",
        "see another process": "ENOENT",
        "see itself": "done",
        "reach the network": "EAFNOSUPPORT",
        "reach the kernel": "EAFNOSUPPORT",
        "reach the bus": "done",
        "map memory that is both": "EPERM",
        "execute what was written": "EPERM",
        "execute a file of its own": "EPERM",
        "execute a library of the device": "done",
        "execute a program": "EACCES",
        "give a file rights": "EPERM",
        "make a namespace": "EPERM",
        "become another system": "EPERM",
        "become root": "EPERM",
        "run in real time": "EPERM",
        "pin itself": "EPERM",
        "name the host": "EPERM",
        "read the kernel's log": "EPERM",
        "mount": "EPERM",
        "lock memory": "EPERM",
        "share memory": "done",
    }
    assert not (box.folder / "tmp/probe").exists()


@pytest.mark.needs_root
def test_it_plays_every_kind_of_clip(box, launcher):
    """With volume and resampling, for which GStreamer would compile loops."""
    daemon = box.start_daemon(launcher=launcher, deadline=60)
    player = Player(box.bus)
    heard = Heard(box.card(0))
    for kind in KINDS:
        clip = box.write_clip(f"{kind}.clip", clips.tone(440, 0.3, 44100), 44100, kind=kind)
        assert player.call("PlayClip", f"{clip.location}&volume=50") == "OK", kind
        rate, peak, seconds = heard.take()
        assert rate == 48000
        assert 0.2 <= peak <= 0.3, kind
        # A coder smears the ends of a tone by a frame of its own.
        assert 0.22 <= seconds <= 0.38, kind
    registry = daemon.open_folder("/var/cache/sonobrik") / "registry.bin"
    assert registry.stat().st_size > 0
    assert not [text for text in daemon.texts if "ermi" in text]


@pytest.mark.needs_root
def test_it_plays_through_the_installed_output(box, launcher, installation):
    """The ALSA file that is installed, on a card that is the machine's default."""
    (box.etc / "alsa/conf.d").mkdir(parents=True)
    shutil.copy(installation.find("etc/alsa/conf.d/sonobrik.conf"), box.etc / "alsa/conf.d")
    card = (box.etc / "asound.conf").read_text().replace("pcm.audiosink0", "pcm.!sysdefault")
    box.set_alsa(card)
    box.start_daemon(launcher=launcher, deadline=60)
    player = Player(box.bus)
    clip = box.write_clip("a.wav", clips.tone(440, 0.2))
    heard = Heard(box.card(0))
    for output in ("audiooutput=0", "audiodeviceid=0&audiooutputid=0"):
        assert player.call("PlayClip", f"{clip.location}&{output}") == "OK"
        assert heard.take()[1] > 0.4, output


@pytest.mark.needs_root
def test_it_stores_clips(box, launcher):
    store = Store(box).start(launcher=launcher, deadline=60)
    clip = box.write_clip("a.wav", clips.noise(4800))
    number = store.add_clip(clip.path, "Door")
    assert '"size":9,"duration":100' in store.get_metadata()
    assert (store.folder / f"M{number}.json").stat().st_uid == box.user.uid


@pytest.mark.needs_root
def test_it_is_supervised(box, launcher):
    box.start_daemon(launcher=launcher, deadline=60, watchdog_usec=2000000)
    wait_until(lambda: box.notify.messages, 30, "the watchdog is fed")
