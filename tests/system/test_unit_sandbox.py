"""The installed systemd unit: its restrictions apply, and the daemon works under them."""

import contextlib
import json
import os
import pathlib
import shutil
import subprocess

import pytest
from sandbox import Cards, Player, Sandbox, Store, clips, wait_until
from sandbox.cards import MANAGER
from sandbox.installation import User, find_id, send_as

ROOT = pathlib.Path(__file__).resolve().parents[2]
LAUNCHER = ROOT / "tests/support/unit_launcher.py"

KINDS = ("wav", "au", "mulaw", "mp3", "mp2", "vorbis", "opus")


class Heard:
    """Reads what a sound card plays, clip by clip. Clips of one format are in the same take."""

    def __init__(self, card):
        self.card = card
        self.frames = 0

    def take(self):
        """Returns rate, peak and audible seconds of what was played since the last call."""
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
    """A sandbox with the daemon's user, the installed bus policy, and a sound card for group
    audio."""
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
def make_launcher(box, build_dir, installation):
    """Returns a function that returns the command that starts a program under the restrictions of
    its unit."""
    options = json.loads((build_dir / "meson-info/intro-buildoptions.json").read_text())
    if any(option["name"] == "b_sanitize" and option["value"] != "none" for option in options):
        pytest.skip("the sanitizers need system calls that the unit forbids")
    (box.folder / "run/unit").mkdir()

    def make_launcher(name, groups=()):
        shutil.copy(installation.unit.with_name(f"{name}.service"), box.folder / "run/unit")
        ids = [find_id(box, "passwd", name), find_id(box, "group", name), *groups]
        return ["/usr/bin/python3", "-B", LAUNCHER, f"/run/unit/{name}.service",
                ":".join(map(str, ids))]
    return make_launcher


@pytest.fixture
def launcher(box, make_launcher):
    """The command that starts the daemon under the restrictions of the unit."""
    return make_launcher("sonobrik", box.user.groups)


def read_unit(installation, key):
    return [line.split("=", 1)[1] for line in installation.unit.read_text().splitlines()
            if line.startswith(f"{key}=")]


# Settings of the unit


UNITS = ("sonobrik", "sonobrik-audiocontrol")


@pytest.mark.skipif(not shutil.which("systemd-analyze"), reason="needs systemd-analyze")
@pytest.mark.parametrize("unit", UNITS)
def test_the_exposure_score_is_low(installation, unit):
    """systemd's exposure level must be at most 1.0 of 10."""
    analysis = subprocess.run(
        ["systemd-analyze", "security", "--offline=yes", "--threshold=10", "--no-pager",
         installation.unit.with_name(f"{unit}.service")], check=False, capture_output=True, text=True)
    assert analysis.returncode == 0, analysis.stdout + analysis.stderr


def test_the_watchdog_outlasts_a_silent_peer(installation):
    seconds, = read_unit(installation, "WatchdogSec")
    # The daemon pings at half the period, and a peer can block its main loop for up to 25 s.
    assert int(seconds) / 2 + 25 < int(seconds)


def test_it_restarts_for_new_devices_without_a_limit(installation):
    assert read_unit(installation, "RestartForceExitStatus") == ["75"]
    assert read_unit(installation, "SuccessExitStatus") == ["75"]
    assert read_unit(installation, "StartLimitIntervalSec") == ["0"]


def test_it_restarts_after_a_failure(installation):
    assert read_unit(installation, "Type") == ["dbus"]
    assert read_unit(installation, "Restart") == ["on-failure"]


def test_it_may_use_no_device_but_sound_cards(installation):
    """The launcher cannot apply these directives, so the test only reads them."""
    assert read_unit(installation, "DevicePolicy") == ["closed"]
    assert read_unit(installation, "DeviceAllow") == ["char-alsa rw"]


@pytest.mark.parametrize("unit", UNITS)
def test_every_restriction_has_its_reason(installation, unit):
    """A comment covers the lines below it, up to the next empty line."""
    lines = installation.unit.with_name(f"{unit}.service").read_text().splitlines()
    service = lines[lines.index("[Service]") + 1:lines.index("[Install]")]
    bare = [line for before, line in zip(["", *service], service)
            if line and not before and not line.startswith("#")]
    assert bare == []


# The daemon under the restrictions


@pytest.mark.needs_root
def test_the_restrictions_apply(box, launcher, tmp_path):
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib/library").write_text("x")
    box.bind(tmp_path / "lib", "/usr/local/lib")
    (tmp_path / "tmp").mkdir()
    (tmp_path / "tmp/stranger").write_text("x")
    box.bind(tmp_path / "tmp", "/var/tmp")
    for name in ("lock", "user"):
        (box.folder / "run" / name).mkdir()
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
        "list /dev/shm": "EACCES",
        "list /run/user": "EACCES",
        "list /run/lock": "EACCES",
        "read a file of /var/tmp": "ENOENT",
        "read /proc/meminfo": "ENOENT",
        "see another process": "ENOENT",
        "see itself": "done",
        "reach the network": "EAFNOSUPPORT",
        "reach the kernel": "EAFNOSUPPORT",
        "reach the bus": "done",
        "map writable and executable memory": "EPERM",
        "make written memory executable": "EPERM",
        "execute a file that it wrote": "EPERM",
        "execute an installed library": "done",
        "execute a program": "EACCES",
        "set the set-user-id bit": "EPERM",
        "make a namespace": "EPERM",
        "change the personality": "EPERM",
        "become root": "EPERM",
        "run in real time": "EPERM",
        "set its CPU affinity": "EPERM",
        "set the host name": "EPERM",
        "read the kernel's log": "EPERM",
        "mount": "EPERM",
        "lock memory": "EPERM",
        "share memory": "done",
    }
    assert not (box.folder / "tmp/probe").exists()


@pytest.mark.needs_root
def test_it_plays_every_kind_of_clip(box, launcher):
    """Uses volume and resampling, for which GStreamer would otherwise generate code at run time."""
    daemon = box.start_daemon(launcher=launcher, deadline=60)
    player = Player(box.bus)
    heard = Heard(box.card(0))
    for kind in KINDS:
        clip = box.write_clip(f"{kind}.clip", clips.tone(440, 0.3, 44100), 44100, kind=kind)
        assert player.call("PlayClip", f"{clip.location}&volume=50") == "OK", kind
        rate, peak, seconds = heard.take()
        assert rate == 48000
        assert 0.2 <= peak <= 0.3, kind
        # A lossy codec blurs both ends of a tone by up to one of its frames.
        assert 0.22 <= seconds <= 0.38, kind
    registry = daemon.open_folder("/var/cache/sonobrik") / "registry.bin"
    assert registry.stat().st_size > 0
    assert not [text for text in daemon.texts if "ermi" in text]


@pytest.mark.needs_root
def test_it_plays_through_the_installed_output(box, launcher, installation):
    """Uses the installed ALSA files without the audio control service, with the virtual sound card as the default card."""
    (box.etc / "alsa/conf.d").mkdir(parents=True)
    text = installation.find("etc/alsa/conf.d/sonobrik.conf").read_text()
    text = text.replace("/usr/share/sonobrik", "/mnt/usr/share/sonobrik")
    (box.etc / "alsa/conf.d/sonobrik.conf").write_text(text)
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
def test_the_audio_control_service_works_under_its_restrictions(box, make_launcher):
    user = find_id(box, "passwd", "sonobrik-audiocontrol")
    with contextlib.closing(Cards(box)) as cards:
        cards.add(0, "First")
        cards.start(launcher=make_launcher("sonobrik-audiocontrol"))
        seen = cards.listen()
        cards.add(1, "Second")
        wait_until(lambda: seen.seen == [("InterfacesAdded", 1)], 10, "the card is told")
        assert "CARD=Second" in cards.alsa.read_text()
        stranger = User(65534)
        calls = [("call", MANAGER[0], MANAGER[1], MANAGER[2], "GetManagedObjects", "()", ()),
                 ("signal", MANAGER[0], "/", "com.vesk.X", "X", "()", ())]
        assert send_as(box, stranger, calls) == [False, True]
        state = cards.service.open_folder("/var/lib/sonobrik-audiocontrol") / "devices.json"
        assert (state.stat().st_uid, cards.alsa.stat().st_uid) == (user, user)
        assert not [text for text in cards.service.texts if not text.startswith("info: ")]


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
    wait_until(lambda: box.notify.messages, 30, "the watchdog is pinged")
