"""docs/web.md: its commands set up a web server, and its requests are answered as it shows."""

import json
import pathlib
import re
import shutil

import pytest
from sandbox import Store, Web, clips, find_server, wait_until
from sandbox.documents import read_indented, read_section

if not find_server("lighttpd") or not shutil.which("curl") or not shutil.which("openssl"):
    pytest.skip("lighttpd, curl or openssl is not installed", allow_module_level=True)

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = (ROOT / "docs/web.md").read_text()
EXAMPLE = (ROOT / "data/lighttpd/sonobrik.conf.in").read_text()

# These need the network, the package, a running systemd, or users and groups of the system.
LEFT_OUT = re.compile(r"(apt|adduser|lighty-enable-mod|systemctl) ")


def read_blocks(title):
    """Returns the indented blocks of a section, each as a list of lines."""
    return read_indented(read_section(PAGE, title))


def read_setup():
    """Returns the commands that set up lighttpd for a user, and for a manager."""
    return read_blocks("Set it up with lighttpd")[:2]


def read_answer(block):
    """Returns what an example shows after its command, without the question for a password."""
    lines = iter(block)
    for line in lines:
        if not line.endswith("\\"):
            break
    return "".join(line for line in lines if not line.startswith("Enter host password"))


def find_example(word):
    """Returns the answer of the example whose command contains this word."""
    block, = [block for title in ("Set it up with lighttpd", "Requests", "Changing clips")
              for block in read_blocks(title) if block[0].startswith("$ ") and
              any(word in line for line in block)]
    return read_answer(block)


@pytest.fixture
def web(sandbox, player):
    commands = [re.sub(r"openssl passwd -6", "openssl passwd -6 s3cret", line)
                for block in read_setup() for line in block if not LEFT_OUT.match(line)]
    server = Web(sandbox).start_documented_lighttpd(commands)
    yield server
    server.check()


def test_the_example_has_the_same_commands():
    for line in [line for block in read_setup() for line in block]:
        if not line.startswith(("apt ", "cp ")):
            line = line.replace("sonobrik-play", "@play_group@")
            assert f"#          {line.replace('sonobrik-config', '@config_group@')}\n" in EXAMPLE


@pytest.mark.needs_root
def test_nobody_else_can_read_the_passwords(sandbox, web):
    for name in ("users", "managers"):
        assert (sandbox.etc / f"lighttpd/sonobrik.{name}").stat().st_mode & 0o777 == 0o640


@pytest.mark.needs_root
def test_the_requests_are_answered_as_shown(sandbox, web):
    clip = sandbox.write_clip("door.wav", clips.noise(86400)).path
    assert Store(sandbox).add_clip(clip, "Door") == 0
    assert web.get("action=status", user="anna:wrong").status == 401
    assert web.manage("action=status", user="anna:s3cret").status == 401

    assert web.get("action=play&clip=0&repeat=-1").text.strip() == find_example("action=play")
    shown = json.loads(find_example("action=status"))
    status = wait_until(lambda: (now := json.loads(web.get("action=status").text))["text"]
                        == shown["text"] and now, 20, f"the status is {shown['text']!r}")
    assert status.keys() == shown.keys()
    assert [output.keys() for output in status["outputs"]] == [
        output.keys() for output in shown["outputs"]]

    listed = json.loads(web.get("action=list").text)
    block, = [block for block in read_blocks("Requests") if '"clips"' in block[0]]
    shown = json.loads("".join(block).replace("{…}", json.dumps(listed["status"])))
    assert listed == shown

    web.post("action=stop")
    Store(sandbox).call("RemoveConfiguration", "(i)", 0)
    answer = web.upload("action=add&file=door.wav&name=Door", sandbox.etc / "audioclips/door.wav")
    assert answer.text.strip() == find_example("action=add")
