"""sonobrik.cgi with a missing daemon, denied calls, unexpected replies, and run without a web server."""

import grp
import html
import pwd
import shutil

import pytest

from sandbox import Store, Web, clips, find_server

PROGRAM = "/run/build/tools/cgi/sonobrik.cgi"

NAME = "com.vesk.Sonobrik"
PATH = "/com/vesk/Sonobrik"
LEGACY = "com.vesk.Configuration.Legacy"
MOCK = "org.freedesktop.DBus.Mock"

ACTIONS = ("action=play&clip=0", "action=stop")


@pytest.fixture
def web(sandbox):
    if not find_server("lighttpd") or not shutil.which("curl"):
        pytest.skip("lighttpd or curl is not installed")
    server = Web(sandbox).start_lighttpd()
    yield server
    server.check()


def run(sandbox, query="", status=0, **variables):
    """Runs the program as a web server does. Returns the HTTP status, the headers and the body."""
    variables = {"REQUEST_METHOD": "GET", "QUERY_STRING": query} | variables
    result = sandbox.run([PROGRAM], env=variables, check=False)
    assert (result.returncode, result.stderr) == (status, "")
    head, _, body = result.stdout.partition("\n\n")
    assert head.startswith("Status: ")
    return int(head.split()[1]), head, body


def expect_away(web):
    page = web.get()
    assert (page.status, page.headers["retry-after"]) == (503, "10")
    assert page.headers["content-type"] == "text/html; charset=utf-8"
    assert "The clips cannot be shown" in page.text
    assert "The daemon cannot be reached. Try again in a moment." in page.text
    for query in (*ACTIONS, "action=status"):
        answer = web.get(query)
        assert (answer.status, answer.headers["retry-after"]) == (503, "10")
        assert answer.text == "The daemon cannot be reached. Try again in a moment.\n"
    answer = web.post("page=1&action=stop")
    assert (answer.status, answer.headers["location"]) == (303, "?result=away")


def test_a_missing_daemon_is_reported(web):
    expect_away(web)


def test_a_missing_bus_is_reported(sandbox, web):
    (sandbox.folder / "run/dbus/system_bus_socket").unlink()
    expect_away(web)


def test_a_denied_call_says_who_is_allowed(sandbox, web):
    sandbox.set_access({NAME: {"users": "4711", "groups": "audio;video"}})
    store = Store(sandbox).start()
    store.write("M0.json", '{"location": "/etc/audioclips/door.wav", "name": "Door", '
                           '"type": "audio", "metadata": {}}')
    sandbox.write_clip("door.wav", clips.tone(440, 0.1))
    hint = "Only 4711 and members of groups 'audio', 'video' may do this."
    for query in ACTIONS:
        answer = web.get(query)
        assert answer.status == 403
        assert answer.text.startswith("Permission denied ") and hint in answer.text
    page = web.get()
    assert page.status == 403
    assert hint in html.unescape(page.text)
    answer = web.post("page=1&action=play&clip=0")
    assert answer.headers["location"] == "?result=denied&clip=0"


@pytest.mark.needs_root
def test_a_member_of_the_group_is_allowed_and_others_are_denied(sandbox):
    audio = grp.getgrnam("audio").gr_gid
    sandbox.set_access({NAME: {"users": "root", "groups": "audio"}})
    store = Store(sandbox).start()
    store.add_clip(sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path, "Door")
    for groups, query, status in (((), "", 403), ((), ACTIONS[0], 403), ([audio], "", 200),
                                  ([audio], ACTIONS[0], 200)):
        result = sandbox.run([PROGRAM], uid=pwd.getpwnam("www-data").pw_uid, groups=groups,
                             env={"REQUEST_METHOD": "GET", "QUERY_STRING": query})
        assert result.stdout.startswith(f"Status: {status} "), (groups, query)


def test_an_output_that_cannot_be_opened_is_reported(sandbox, web):
    sandbox.set_alsa('pcm.audiosink0 { type hw card 77 }\n')
    store = Store(sandbox).start()
    store.add_clip(sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path, "Door")
    answer = web.get("action=play&clip=0")
    assert answer.status == 500
    assert "Its error message: Error playing clip: " in answer.text


def test_a_file_that_the_daemon_cannot_read_is_reported(sandbox, web):
    clip = sandbox.write_clip("door.wav", clips.tone(440, 0.1))
    clip.file.chmod(0)
    Store(sandbox).start().add_clip(clip.path, "Door")
    answer = web.get("action=play&clip=0")
    assert answer.status == 422
    assert "the daemon cannot read it" in answer.text
    assert "unknown length" in web.get("plain=1").text


class Mock:
    """A fake daemon. The test defines the replies of its methods."""

    def __init__(self, sandbox):
        self._bus = sandbox.bus
        sandbox.start_mock(NAME, PATH, NAME)
        self.answer("TakeName", "", "", f"self.connection.request_name('{NAME}.Legacy')")
        self._bus.call(NAME, PATH, NAME, "TakeName")

    def answer(self, method, takes, gives, code, interface=NAME):
        self._bus.call(NAME, PATH, MOCK, "AddMethod", "(sssss)", interface, method, takes, gives,
                       code)


def test_unexpected_replies_are_handled(sandbox, web):
    mock = Mock(sandbox)
    path = sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path
    list_clips = ("GetConfigurations", "")

    # The list of clips: a missing method, another type, properties of other types.
    pages = [web.get()]
    mock.answer(*list_clips, "s", "ret = 'x'", LEGACY)
    pages += [web.get()]
    assert [page.status for page in pages] == [502, 502]
    assert web.get("action=play&clip=0").status == 502
    assert web.get("action=stop").status == 502
    mock.answer(*list_clips, "a{ia{sv}}",
                f"ret = {{0: {{'Location': '{path}', 'Name': 7, 'Other': ['x']}}, -3: {{}}}}",
                LEGACY)
    assert web.get().status == 502  # GetMetadata is missing

    # Metadata of all kinds.
    for text in ("", "7", "{}", "[1, null]", '[{"0": 7}]', "[" * 5000,
                 '[{"0": {"mediaTypes": [1], "duration": "x", "size": -1}, "99": {}}]'):
        mock.answer("GetMetadata", "", "s", f"ret = {text!r}")
        page = web.get("plain=1")
        assert page.status in (200, 502), text
        assert page.status == 502 or '> Clip 0</span>' in page.text
    mock.answer("GetMetadata", "", "s",
                "raise dbus.exceptions.DBusException('no', name='com.vesk.Sonobrik.GetMetadata')")
    assert "unknown length" in web.get("plain=1").text

    for gives, code, status in (("i", "ret = 7", 502), ("s", "ret = 'NOK'", 502), ("", "", 502),
                                ("s", "ret = 'OK'", 200)):
        mock.answer("StartPlayingClip", "s", gives, code)
        mock.answer("StopPlayingClip", "s", gives, code)
        assert [web.get(query).status for query in ACTIONS] == [status] * 2
    mock.answer("StartPlayingClip", "s", "s", "raise dbus.exceptions.DBusException("
                "'a\\x1b[1m\\nb', name='com.vesk.Sonobrik.StartPlayingClip')")
    answer = web.get("action=play&clip=0")
    assert (answer.status, answer.text.count("\n")) == (500, 1)
    assert "Its error message: a\\x1b[1m\\x0ab" in answer.text

    # No event objects on the bus.
    assert "This device does not report what is playing." in web.get().text
    assert web.get("action=status").text.startswith('{"known":false,')


POST = {"REQUEST_METHOD": "POST", "SONOBRIK_MANAGE": "1"}
FORM = POST | {"CONTENT_TYPE": "application/x-www-form-urlencoded", "CONTENT_LENGTH": "0"}
BODY = POST | {"CONTENT_TYPE": "application/octet-stream", "CONTENT_LENGTH": "1"}


@pytest.mark.parametrize("query, variables, status", [
    ("", {}, 504), ("action=list", {}, 504), ("action=status", {}, 503), ("action=stop", {}, 504),
    ("action=play&clip=0", {}, 504), ("action=file&clip=0", {"SONOBRIK_MANAGE": "1"}, 504),
    ("action=rename&clip=0&name=x", FORM, 504), ("action=remove&clip=0", FORM, 504),
    ("action=add&file=x.wav", BODY, 504), ("action=replace&clip=0", BODY, 504),
])
def test_no_call_of_a_daemon_that_hangs_waits_for_ever(sandbox, query, variables, status):
    """With limits of a sixtieth. A call without a limit would exceed the deadline."""
    sandbox.start_daemon()
    sandbox.daemon.pause()
    try:
        result = run_hastily(sandbox, query, **variables)
    finally:
        sandbox.daemon.go_on()
    assert result.stdout.startswith(f"Status: {status} "), result.stdout


def run_hastily(sandbox, query, **variables):
    """Runs the program with a body of one byte and with limits of a sixtieth."""
    variables = {"REQUEST_METHOD": "GET", "QUERY_STRING": query} | variables
    words = [f"{name}={value}" for name, value in variables.items()]
    command = 'printf x | env LD_PRELOAD=/run/build/tests/support/libhasty_bus.so "$@"'
    return sandbox.run(["sh", "-c", command, "sh", *words, PROGRAM], deadline=40)


@pytest.mark.parametrize("query", ["", "action=list"])
def test_all_calls_of_a_request_share_one_limit(sandbox, query):
    """The list needs two calls. Only one of them fits into the limit, which is 280 s / 60."""
    mock = Mock(sandbox)
    mock.answer("GetConfigurations", "", "a{ia{sv}}",
                "import time; time.sleep(3); ret = {0: {'Name': 'Door'}}", LEGACY)
    mock.answer("GetMetadata", "", "s", "import time; time.sleep(3); ret = '[]'")
    result = run_hastily(sandbox, query)
    assert result.stdout.startswith("Status: 504 "), result.stdout


def test_invalid_environments_are_handled(sandbox):
    assert run(sandbox, REQUEST_METHOD="")[0] == 400
    assert run(sandbox, REQUEST_METHOD="get")[0] == 405
    assert run(sandbox, "x" * 8193)[0] == 413
    assert run(sandbox, "&&&")[0] == 503
    assert run(sandbox, "action=stop", HTTP_HOST="", HTTP_ORIGIN="http://")[0] == 403
    post = {"REQUEST_METHOD": "POST", "CONTENT_TYPE": "application/x-www-form-urlencoded"}
    for length, status in (("", 503), ("0", 503), ("10", 400), ("-1", 400), ("1e3", 400),
                           ("8193", 413), ("9" * 40, 413), ("010", 413)):
        assert run(sandbox, CONTENT_LENGTH=length, **post)[0] == status, length
    result = sandbox.run(["env", "-i", PROGRAM])
    assert result.stdout.startswith("Status: 400 ")


def test_a_write_error_is_a_failure(sandbox):
    result = sandbox.run(["sh", "-c", f"REQUEST_METHOD=GET {PROGRAM} >/dev/full"], check=False)
    assert result.returncode == 1


def test_it_works_behind_nginx(sandbox):
    if not find_server("nginx") or not find_server("fcgiwrap") or not shutil.which("curl"):
        pytest.skip("nginx, fcgiwrap or curl is not installed")
    store = Store(sandbox).start()
    store.add_clip(sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path, "Door")
    server = Web(sandbox)
    check = server.start_nginx()
    assert "test is successful" in check
    assert server.get(user=None).status == 401
    page = server.get("plain=1")
    assert page.status == 200
    assert '> Door</span>' in page.text
    own = ["--header", f"Origin: http://127.0.0.1:{server.port}"]
    assert server.post("action=play&clip=0&repeat=-1", *own).text == "The clip is playing.\n"
    answer = server.post("page=1&action=stop", *own)
    assert (answer.status, answer.headers["location"]) == (303, "?result=stopped")
    assert server.get("action=stop", "--header", "Origin: http://127.0.0.1:1").status == 403
    assert server.get("action=play&clip=9").status == 404
    server.check()
