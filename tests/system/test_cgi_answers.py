"""sonobrik.cgi behind a web server, called by curl as the on-screen controls call it."""

import json
import shutil
import urllib.parse

import pytest

from sandbox import Store, Web, clips, find_server, wait_until

if not find_server("lighttpd") or not shutil.which("curl"):
    pytest.skip("lighttpd or curl is not installed", allow_module_level=True)

PLAIN = "text/plain; charset=utf-8"


@pytest.fixture(scope="module")
def web(shared):
    """A web server. No test leaves a clip playing."""
    server = Web(shared).start_lighttpd()
    yield server
    server.check()


@pytest.fixture(scope="module")
def clip_store(shared):
    return Store(shared)


@pytest.fixture
def door(shared, clip_store):
    """The number of a stored clip. It is removed after the test."""
    path = shared.write_clip("door.wav", clips.tone(440, 0.2)).path
    number = clip_store.add_clip(path, "Door")
    yield number
    clip_store.call("RemoveConfiguration", "(i)", number)


@pytest.fixture
def quiet(shared, asked):
    """The player, with playback stopped before and after the test."""
    asked.call("StopPlayingClip")
    yield asked
    asked.call("StopPlayingClip")


@pytest.mark.parametrize("send", ["get", "post"])
def test_a_clip_is_played_and_stopped(web, door, quiet, send):
    first = len(quiet.events)
    answer = getattr(web, send)(f"action=play&clip={door}&volume=50&repeat=-1&audiooutput=0")
    assert (answer.status, answer.text) == (200, "The clip is playing.\n")
    assert answer.headers["content-type"] == PLAIN
    assert answer.headers["cache-control"] == "no-store"
    wait_until(lambda: ("CurrentlyPlaying", 1, 0, 0, "/etc/audioclips/door.wav")
               in quiet.events[first:], 20, "the clip is announced")
    answer = getattr(web, send)("action=stop")
    assert (answer.status, answer.text) == (200, "Stopped.\n")
    # Not always the last event: a repeat that has just started may send its file name later.
    wait_until(lambda: ("Playing", 1, 0, 0, False) in quiet.events[first:], 20, "the clip has ended")


def test_stopping_nothing_succeeds(web, quiet):
    assert web.get("action=stop").status == 200


def test_a_second_clip_is_a_conflict(web, door, quiet):
    assert web.get(f"action=play&clip={door}&repeat=-1").status == 200
    answer = web.get(f"action=play&clip={door}")
    assert answer.status == 409
    assert answer.text.startswith("A clip is already playing.")


def test_options_reach_the_daemon_unchanged(shared, web, door, quiet):
    logged = len(shared.daemon.texts)
    assert web.get(f"action=play&clip={door}&volume=7&repeat=2&audiooutput=0").status == 200
    line = ("info: sonobrik_play_clip_asynchronous with options: "
            "location=/etc/audioclips/door.wav&volume=7&repeat=2&audiooutput=0")
    wait_until(lambda: line in shared.daemon.texts[logged:], 20, "the request is logged")


@pytest.mark.parametrize("query", [
    "action=play", "action=play&clip=", "action=play&clip=00", "action=play&clip=%2B0",
    "action=play&clip=-1", "action=play&clip=0x0", "action=play&clip=2147483648",
    "action=play&clip=99999999999999999999", "action=play&clip=Door",
    "action=play&clip=0&clip=0", "action=play&action=stop&clip=0", "action=dance", "action=Play",
    "action=play&clip=0&volume=1001", "action=play&clip=0&volume=-1",
    "action=play&clip=0&volume=1.5",
    "action=play&clip=0&repeat=-2", "action=play&clip=0&repeat=2147483648",
    "action=play&clip=0&audiooutput=6", "action=play&clip=0&audiooutput=-1",
    "action=play&clip=0&volum=5", "action=play&clip=%", "action=play&clip=%4",
    "action=play&clip=%zz",
    "location=/etc/audioclips/door.wav&action=play", "%3Cscript%3E=1&action=stop",
])
def test_invalid_requests_are_refused(web, door, quiet, query):
    answer = web.get(query)
    assert (answer.status, answer.headers["content-type"]) == (400, PLAIN)
    assert answer.text.startswith("The request is invalid. ")


@pytest.mark.parametrize("form", ["action=play&clip=0%00", "action=%ff%fe", "a%00ction=stop"])
def test_nul_bytes_and_invalid_utf8_are_refused(web, form):
    assert web.get(form).status == 400  # from the web server itself
    answer = web.post(form)
    assert (answer.status, answer.headers["content-type"]) == (400, PLAIN)
    assert answer.text == ("The request is invalid. "
                           "A parameter is not valid UTF-8 text.\n")


def test_a_missing_output_is_refused(web, door, quiet):
    answer = web.get(f"action=play&clip={door}&audiooutput=3")
    assert answer.status == 400
    assert "Check that the output exists and is plugged in." in answer.text


def test_an_unknown_number_is_not_found(web, door):
    answer = web.get(f"action=play&clip={door + 1}")
    assert (answer.status, answer.text) == (404, "There is no such clip.\n")


def test_a_clip_without_a_file_is_not_found(shared, web, clip_store):
    number, = clip_store.call("AddConfiguration", "(i)", -1)
    answer = web.get(f"action=play&clip={number}")
    clip_store.call("RemoveConfiguration", "(i)", number)
    assert (answer.status, answer.text) == (404, "The clip's file is missing.\n")


@pytest.mark.parametrize("name", ["gone.wav", "d*.wav", "doo?.wav", "*", "door.wav/door.wav"])
def test_a_missing_file_is_not_found_whatever_its_name(web, clip_store, door, quiet, name):
    number = clip_store.add_clip(f"/etc/audioclips/{name}", "Gone")
    first = len(quiet.events)
    answer = web.get(f"action=play&clip={number}")
    page = web.get("plain=1")
    clip_store.call("RemoveConfiguration", "(i)", number)
    assert (answer.status, answer.text) == (404, "The clip's file is missing.\n")
    quiet.fence()
    assert quiet.events[first:] == []
    assert f'value="{number}" disabled aria-describedby="missing-{number}"' in page.text


def test_a_name_with_wildcards_plays_its_own_file(shared, web, clip_store, door, quiet):
    clip = shared.write_clip("d*?.wav", clips.tone(660, 0.2))
    number = clip_store.add_clip(clip.path, "Star")
    first = len(quiet.events)
    answer = web.get(f"action=play&clip={number}&repeat=3")
    wait_until(lambda: len(quiet.events) >= first + 3, 20, "the clip has repeated")
    clip_store.call("RemoveConfiguration", "(i)", number)
    clip.file.unlink()
    assert answer.status == 200
    assert {event[-1] for event in quiet.events[first:] if event[0] == "CurrentlyPlaying"} == {
        clip.path}


def test_an_unplayable_file_with_wildcards_plays_no_other_file(
        shared, web, clip_store, door, quiet):
    number = clip_store.add_clip(shared.write_file("d*", b"no media"), "Notes")
    first = len(quiet.events)
    answer = web.get(f"action=play&clip={number}")
    clip_store.call("RemoveConfiguration", "(i)", number)
    assert answer.status == 422
    quiet.fence()
    assert quiet.events[first:] == []


@pytest.mark.parametrize("name", ["a b+c&d=e%41.wav", "töne ♫.wav", "a'\"<b>.wav",
                                  "back\\slash.wav"])
def test_special_characters_in_file_names_are_escaped(shared, web, clip_store, quiet, name):
    clip = shared.write_clip(name, clips.tone(550, 0.2))
    number = clip_store.add_clip(clip.path, "")
    first = len(quiet.events)
    answer = web.get(f"action=play&clip={number}")
    wait_until(lambda: ("CurrentlyPlaying", 1, 0, 0, clip.path) in quiet.events[first:], 20,
               "the clip is announced")
    clip_store.call("RemoveConfiguration", "(i)", number)
    clip.file.unlink()
    assert answer.status == 200


def test_status_reports_what_is_playing(web, door, quiet):
    assert web.get("action=status").text.startswith(
        '{"known":true,"text":"Nothing is playing.","outputs":[{"output":0,"playing":false,')
    web.get(f"action=play&clip={door}&repeat=-1")
    answer = wait_until(
        lambda: (a := web.get("action=status")) and "door.wav is playing" in a.text and a, 20,
        "the clip is reported")
    assert answer.headers["content-type"] == "application/json"
    status = json.loads(answer.text)
    output, = status["outputs"]
    assert 0 <= output.pop("elapsed") < 20000
    assert output == {"output": 0, "playing": True, "file": "/etc/audioclips/door.wav"}
    assert status["known"] is True
    assert status["text"] == "door.wav is playing on output 0."


def test_the_revision_tells_that_the_clips_have_changed(shared, web, clip_store, door, quiet):
    def read():
        return json.loads(web.get("action=status").text)["revision"]

    web.get("action=list")  # stores the length
    seen = [read()]
    assert read() == seen[0]
    clip_store.rename(door, "Gate")
    seen.append(read())
    number = clip_store.add_clip("/etc/audioclips/door.wav", "Second")
    seen.append(read())
    clip_store.call("RemoveConfiguration", "(i)", number)
    seen.append(read())
    shared.write_file("new.txt", b"").encode()
    seen.append(read())
    (shared.etc / "audioclips/new.txt").unlink()
    assert len(set(seen)) == len(seen)


def test_a_clip_is_played_instead_of_another(shared, web, door, quiet):
    first = len(quiet.events)
    assert web.get(f"action=play&clip={door}&repeat=-1").status == 200
    assert web.get(f"action=play&clip={door}").status == 409
    answer = web.get(f"action=play&clip={door}&instead=1&repeat=-1")
    assert (answer.status, answer.text) == (200, "The clip is playing.\n")
    quiet.fence()
    states = [event[-1] for event in quiet.events[first:] if event[0] == "Playing"]
    assert states == [True, False, True]
    assert web.get(f"action=play&clip={door + 7}&instead=1").status == 404
    assert json.loads(web.get("action=status").text)["outputs"][0]["playing"]


def test_a_request_that_cannot_play_stops_nothing(shared, web, clip_store, door, quiet):
    number = clip_store.add_clip(shared.write_file("damaged.wav", b"RIFF and no more"), "Damaged")
    try:
        assert web.get(f"action=play&clip={door}&repeat=-1").status == 200
        first = len(quiet.events)
        for wrong, status, text in ((f"clip={number}", 422, "The clip's file cannot be played"),
                                    (f"clip={door}&audiooutput=3", 400, "Check that the output exists"),
                                    (f"clip={door + 7}", 404, "There is no such clip.")):
            answer = web.get(f"action=play&{wrong}&instead=1")
            assert (answer.status, text in answer.text) == (status, True), answer.text
        quiet.fence()
        assert [event for event in quiet.events[first:] if event[0] == "Playing"
                and not event[-1]] == []
        assert json.loads(web.get("action=status").text)["outputs"][0]["playing"]
    finally:
        clip_store.call("RemoveConfiguration", "(i)", number)


def test_the_list_names_each_clip(shared, web, clip_store, door, quiet):
    number = clip_store.add_clip("/etc/audioclips/gone.wav", "a\x1bb")
    answer = web.get("action=list")
    clip_store.call("RemoveConfiguration", "(i)", number)
    assert answer.headers["content-type"] == "application/json"
    listed = json.loads(answer.text)
    assert listed["changes"] is None
    assert listed["clips"] == [
        {"number": door, "name": "Door", "file": "door.wav", "length": 200},
        {"number": number, "name": "a\\x1bb", "file": "gone.wav", "missing": True}]
    assert listed["status"]["known"] is True


@pytest.mark.parametrize("method", ["PUT", "DELETE", "OPTIONS"])
def test_other_methods_are_refused(web, method):
    answer = web.get("action=stop", "--request", method)
    assert (answer.status, answer.headers["allow"]) == (405, "GET, HEAD, POST")
    assert answer.text == "The HTTP method is not allowed for this action.\n"


def test_head_does_nothing(web, door, quiet):
    first = len(quiet.events)
    answer = web.get(f"action=play&clip={door}", "--head")
    assert (answer.status, answer.headers["allow"], answer.text) == (405, "GET, POST", "")
    answer = web.get("", "--head")
    assert (answer.status, answer.text) == (200, "")
    quiet.fence()
    assert quiet.events[first:] == []


@pytest.mark.parametrize("form, status", [
    ("x" * 9000, 413), ("x" * 70000, 413), ("action=stop&x=" + "y" * 8000, 400), ("%", 400),
])
def test_large_and_invalid_bodies_are_refused(web, form, status):
    assert web.post(form).status == status


def test_a_body_of_another_type_is_refused(web):
    answer = web.post("{}", "--header", "Content-Type: application/json")
    assert answer.status == 415


def test_a_key_in_both_query_and_body_is_refused(web):
    assert web.get("action=stop", "--data", "action=stop").status == 400


def test_the_forms_of_the_page_redirect_to_the_page(web, door, quiet):
    answer = web.post(f"page=1&action=play&clip={door}&volume=30&repeat=0&audiooutput=")
    assert answer.status == 303
    assert answer.headers["location"] == f"?result=playing&clip={door}&volume=30&repeat=0"
    page = web.get(answer.headers["location"][1:])
    assert page.status == 200
    assert "Started Door." in page.text
    assert 'placeholder="100" value="30"' in page.text
    answer = web.post("page=1&action=play&clip=77&instead=1")
    assert answer.headers["location"] == "?result=noclip&clip=77&instead=1"
    assert "There is no such clip." in web.get(answer.headers["location"][1:]).text
    answer = web.post("page=1&action=play&clip=77&volume=2000")
    assert answer.headers["location"].startswith("?result=invalid")


@pytest.mark.parametrize("page", ["", "page=1&"])
def test_an_error_text_does_not_inject_headers_or_control_sequences(web, page):
    answer = web.post(f"{page}a%0d%0aSet-Cookie:+b%1b[31m=1")
    assert "set-cookie" not in answer.headers
    assert answer.text == ("The request is invalid. "
                           "Unknown parameter 'a\\x0d\\x0aSet-Cookie: b\\x1b[31m'.\n")


# Which of these headers a browser sends depends on its version and on TLS.
OWN = "http://127.0.0.1:{port}"
OTHER = "http://evil.example"


@pytest.mark.parametrize("headers, status", [
    ([], 200),
    (["Sec-Fetch-Site: same-origin"], 200),
    (["Sec-Fetch-Site: none"], 200),
    (["Sec-Fetch-Site: cross-site"], 403),
    (["Sec-Fetch-Site: same-site"], 403),
    (["Sec-Fetch-Site: new-kind"], 403),
    ([f"Origin: {OWN}"], 200),
    ([f"Origin: {OTHER}"], 403),
    (["Origin: null"], 403),
    (["Origin: http://127.0.0.1"], 403),
    (["Sec-Fetch-Site: same-origin", f"Origin: {OTHER}"], 403),
    ([f"Referer: {OWN}/vesk-cgi/sonobrik.cgi"], 200),
    ([f"Referer: {OTHER}/{OWN}"], 403),
    ([f"Referer: {OTHER}@{{port}}/"], 403),
    (["User-Agent: Mozilla/5.0 (X11; Linux x86_64)"], 403),
    (["Accept-Language: de"], 403),
    (["User-Agent: Mozilla/5.0 (X11; Linux x86_64)", f"Origin: {OWN}"], 200),
    (["User-Agent: Mozilla/5.0 (X11; Linux x86_64)", f"Referer: {OWN}/"], 200),
    (["Purpose: prefetch"], 403),
    (["Sec-Purpose: prefetch;prerender"], 403),
])
def test_actions_from_other_sites_are_refused(web, headers, status):
    options = [word for header in headers for word in ("--header", header.format(port=web.port))]
    assert web.get("action=stop", *options).status == status
    assert web.post("action=stop", *options).status == status
    assert web.get("", *options).status == 200  # the page itself does nothing


def test_the_page_cannot_be_framed_by_another_site(web):
    policy = web.get().headers["content-security-policy"]
    assert "default-src 'none'" in policy and "frame-ancestors 'none'" in policy
    assert "unsafe" not in policy


@pytest.mark.parametrize("user, query", [
    (None, ""), (None, "action=stop"), (None, "action=status"), ("anna:wrong", "action=stop"),
    ("berta:s3cret", "action=stop"),
])
def test_users_have_to_log_in(web, user, query):
    answer = web.get(query, user=user)
    assert answer.status == 401
    assert answer.headers["www-authenticate"].startswith('Basic realm="sonobrik"')


@pytest.mark.parametrize("path", ["/vesk-cgi/", "/vesk-cgi/other.cgi",
                                  "/vesk-cgi/sonobrik.cgi.bak"])
def test_only_the_program_is_served(web, path):
    address = urllib.parse.urlsplit(web.address)._replace(path=path).geturl()
    program, web.address = web.address, address
    try:
        assert web.get().status in (403, 404)
    finally:
        web.address = program


def test_a_page_without_clips_says_how_to_add_one(web):
    page = web.get("plain=1")
    assert page.status == 200
    assert "There are no clips yet." in page.text
    assert "sonobrikctl add" in page.text


NAMES = ["<script>alert(1)</script>", "\"'&amp;", "{{now}}", "a\x1b[31m\x07b", "\u202egnp",
         "</script><b>", "<!--", "\\", '\\"', "\u2028"]


@pytest.fixture
def odd(clip_store):
    """Clips with special names and a special file."""
    for name in NAMES:
        clip_store.add_clip("/etc/audioclips/</li>.wav", name)
    yield
    for number in range(len(NAMES)):
        clip_store.call("RemoveConfiguration", "(i)", number)


def test_the_plain_page_escapes_special_names(web, odd):
    page = web.get("plain=1").text
    assert page.count("<script>") == 1
    assert "&lt;script&gt;alert(1)&lt;/script&gt;" in page
    assert "&quot;&#39;&amp;amp;" in page
    assert "{{now}}" in page
    assert "a\\x1b[31m\\x07b" in page
    assert "\\u202egnp" in page
    assert "&lt;/li&gt;.wav" in page


def test_the_data_of_the_page_cannot_end_its_element(web, odd):
    page = web.get().text
    begin = page.index('<script type="application/json" id="data">')
    begin = page.index(">", begin) + 1
    data = page[begin:page.index("</script>", begin)]
    assert not set(data) & set("<>&")
    shown = [clip["name"] for clip in json.loads(data)["clips"]]
    assert shown == [name.replace("\x1b", "\\x1b").replace("\x07", "\\x07").replace("\u202e", "\\u202e")
                     .replace("\u2028", "\\u2028") for name in NAMES]


def test_the_page_of_1000_clips_arrives_whole(sandbox):
    """Without a folder for temporary files, as on a device whose /var/tmp is read-only."""
    sandbox.set_parameters({"root.SonoBrik.MaxGroups": "1000"})
    store = Store(sandbox)
    record = {"location": "/etc/audioclips/x.wav", "type": "audio",
              "metadata": {"mediaTypes": [], "size": 1, "duration": 1000}}
    for i in range(1000):
        store.write(f"M{i}.json", json.dumps(record | {"name": f"Clip with the number {i}"}))
    store.start()
    server = Web(sandbox).start_lighttpd(temporary="/var/tmp")
    assert sandbox.run(["test", "-w", "/var/tmp"], check=False).returncode == 1
    page = server.get()
    assert page.status == 200
    assert page.text.rstrip().endswith("</html>")
    assert len(page.text) < 150_000
    assert page.text.count("Clip with the number") == 1000
    plain = server.get("plain=1").text
    assert plain.count('name="clip"') == 1000 and plain.rstrip().endswith("</html>")
    assert len(json.loads(server.get("action=list").text)["clips"]) == 1000
    server.check()
