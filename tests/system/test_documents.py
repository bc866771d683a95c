"""The documents: their links lead somewhere, and what docs/firmware.md repeats is true."""

import hashlib
import pathlib
import re
import subprocess

import pytest
from sandbox import PLAYBACK, clips

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")])
FIRMWARE = (ROOT / "docs/firmware.md").read_text()


def read_anchors(document):
    """Returns the anchors of the headings, as web sites for source code make them."""
    headings = re.findall(r"^#+ (.*)$", document.read_text(), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_the_links_of_a_document_lead_somewhere(document):
    broken = []
    for link in re.findall(r"\]\(([^)\s]+)\)", document.read_text()):
        path, _, anchor = link.partition("#")
        target = document.parent / path if path else document
        if not target.exists() or (anchor and anchor not in read_anchors(target)):
            broken.append(link)
    assert broken == []


def test_the_options_are_those_of_the_build():
    rows = dict(re.findall(r"^\| `-D(\w+)=` \| `([^`]*)` \|", FIRMWARE, re.MULTILINE))
    options = dict(re.findall(r"option\('(\w+)',.*?value: '([^']*)'",
                              (ROOT / "meson_options.txt").read_text(), re.DOTALL))
    assert rows.pop("sysconfdir") == "/etc"
    # These are for developers, and described in CONTRIBUTING.md.
    assert options.pop("fuzz") == options.pop("bench") == "disabled"
    assert rows == options


def test_the_cross_file_is_the_one_that_is_used():
    shown = re.search(r"\n\n((?:    \S.*\n|\n)+)", FIRMWARE.partition("`scripts/cross/armhf.ini`")[2])[1]
    used = (ROOT / "scripts/cross/armhf.ini").read_text()
    assert [line.strip() for line in shown.splitlines() if line] == [
        line for line in used.splitlines() if line and not line.startswith("#")]


def test_the_recipes_have_the_checksum_of_the_licence():
    checksums = set(re.findall(r"LICENSE;md5=(\w+)", FIRMWARE))
    assert checksums == {hashlib.md5((ROOT / "LICENSE").read_bytes()).hexdigest()}


# An ID3 tag with an empty frame "TIT2" before the sound of an MP3 file.
ID3 = b"ID3\3\0\0\0\0\0\x0b" + b"TIT2" + bytes([0, 0, 0, 1, 0, 0, 0])


def test_the_named_plugins_play_every_format(sandbox):
    text = re.search(r"The daemon uses the plugins (.*?)\. ", FIRMWARE)[1]
    names = re.findall(r"\w+(?=[,;.]|$)", text)
    folder = subprocess.run(["pkg-config", "--variable=pluginsdir", "gstreamer-1.0"], check=True,
                            capture_output=True, text=True).stdout.strip()
    (sandbox.folder / "tmp/plugins").mkdir()
    for name in names:
        file = pathlib.Path(folder) / f"libgst{name}.so"
        assert file.exists(), name
        (sandbox.folder / "tmp/plugins" / file.name).symlink_to(file)
    for kind in clips.KINDS:
        sandbox.write_clip(kind, clips.tone(440, 0.3), kind=kind)
    tagged = sandbox.etc / "audioclips/tagged"
    tagged.write_bytes(ID3 + (sandbox.etc / "audioclips/mp3").read_bytes())
    sandbox.start_bus()
    daemon = sandbox.start_daemon(env={"GST_PLUGIN_SYSTEM_PATH_1_0": "/tmp/plugins",
                                       "GST_REGISTRY_1_0": "/tmp/registry.bin"})
    for kind in [*clips.KINDS, "tagged"]:
        if kind != "flac":
            options = f"location=/etc/audioclips/{kind}"
            assert sandbox.bus.call(*PLAYBACK, "PlayClip", "(s)", options) == ("OK",), kind
    assert sandbox.card(0).frames > 0
    assert not [line for line in daemon.lines if "Error received" in line]
    maps = pathlib.Path(f"/proc/{daemon.pid}/maps").read_text()
    assert set(re.findall(r"libgst(\w+)\.so$", maps, re.MULTILINE)) <= set(names)
