"""sonobrik.cgi adds, replaces, renames and removes clips, and hands out their files."""

import concurrent.futures
import hashlib
import json
import os
import pwd
import shutil
import signal
import socket
import urllib.parse

import pytest

from sandbox import Player, Sandbox, Store, Web, clips, find_server, wait_until
from sandbox.installation import find_id

if not find_server("lighttpd") or not shutil.which("curl"):
    pytest.skip("lighttpd or curl is not installed", allow_module_level=True)

FOLDER = "/etc/audioclips"
UPLOADS = ".uploads"
HOST = "127.0.0.1"


@pytest.fixture(scope="module", params=["lighttpd", "nginx"])
def web(request, shared):
    if request.param == "nginx" and not (find_server("nginx") and find_server("fcgiwrap")):
        pytest.skip("nginx or fcgiwrap is not installed")
    server = Web(shared)
    getattr(server, f"start_{request.param}")()
    yield server
    server.check()


@pytest.fixture
def box(shared):
    """The sandbox without clips and clip files, before and after the test."""
    clear(shared)
    yield shared
    assert list_left(shared) == [], "an upload left a file behind"
    clear(shared)


@pytest.fixture
def tone(tmp_path):
    """A recording of 0.2 s on the user's side."""
    path = tmp_path / "tone.wav"
    clips.write_wav(path, clips.tone(440, 0.2))
    return path


def clear(box):
    store = Store(box)
    for file in store.folder.glob("M*.json"):
        file.unlink()
    for path in (box.etc / "audioclips").iterdir():
        shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()


def list_left(box):
    """Returns the names of files that are not in place."""
    folder = box.etc / "audioclips" / UPLOADS
    return sorted(path.name for path in folder.iterdir()) if folder.exists() else []


def list_files(box):
    return sorted(path.name for path in (box.etc / "audioclips").iterdir()
                  if path.name != UPLOADS)


def read_clips(web):
    answer = web.manage("action=list")
    assert answer.status == 200, answer
    return json.loads(answer.text)["clips"]


def add(web, path, name="", file="tone.wav"):
    return web.upload(f"action=add&file={urllib.parse.quote(file)}&name={urllib.parse.quote(name)}",
                      path)


# Who may change clips


@pytest.mark.parametrize("query", ["action=add&file=x.wav", "action=replace&clip=0"])
def test_files_are_refused_at_the_address_for_playing(web, box, tone, query):
    answer = web.get(query, "--data-binary", f"@{tone}", "--header",
                     "Content-Type: application/octet-stream")
    assert (answer.status, answer.text) == (403, "Clips cannot be changed at this address.\n")
    assert list_files(box) == []


@pytest.mark.parametrize("form", ["action=rename&clip=0&name=x", "action=remove&clip=0",
                                  "action=file&clip=0"])
def test_changes_are_refused_at_the_address_for_playing(web, box, form):
    answer = web.post(form, "--header", "SONOBRIK_MANAGE: 1", "--header", "SONOBRIK-MANAGE: 1")
    assert (answer.status, answer.text) == (403, "Clips cannot be changed at this address.\n")


def test_each_address_has_its_own_users(web, box):
    assert web.manage(user="mia:s3cret").status == 200
    assert web.manage(user="anna:s3cret").status == 401
    assert web.manage(user=None).status == 401
    assert web.get(user="mia:s3cret").status == 401
    for path in ("/vesk-cgi/manage/", "/vesk-cgi//manage/sonobrik.cgi", "/vesk-cgi/./manage/sonobrik.cgi",
                 "/vesk-cgi/%6danage/sonobrik.cgi", "/vesk-cgi/x/../manage/sonobrik.cgi"):
        answer = web.get(user="anna:s3cret", address=f"http://{HOST}:{web.port}{path}")
        assert answer.status in (401, 403, 404), path


def test_only_managers_see_what_they_may_change(web, box):
    assert json.loads(web.get("action=list").text)["changes"] is None
    changes = json.loads(web.manage("action=list").text)["changes"]
    assert changes == {"folder": True, "limit": 32 * 1024 * 1024}


@pytest.mark.parametrize("query", ["action=remove&clip=0", "action=rename&clip=0&name=x",
                                   "action=add&file=x", "action=replace&clip=0"])
def test_a_link_changes_nothing(web, box, query):
    answer = web.manage(query)
    assert (answer.status, answer.headers["allow"]) == (405, "POST")
    assert answer.text == "The HTTP method is not allowed for this action.\n"


@pytest.mark.parametrize("header", ["Origin: http://evil.example", "Sec-Fetch-Site: cross-site",
                                    "Referer: http://evil.example/", "Origin: null",
                                    "User-Agent: Mozilla/5.0 (X11; Linux x86_64)"])
def test_other_sites_change_nothing(web, box, tone, header):
    add(web, tone)
    for form in ("action=rename&clip=0&name=x", "action=remove&clip=0&withfile=1"):
        assert web.change(form, "--header", header).status == 403
    for query in ("action=add&file=x.wav", "action=replace&clip=0"):
        assert web.upload(query, tone, "--header", header).status == 403
    assert [clip["name"] for clip in read_clips(web)] == ["tone"]
    assert list_files(box) == ["tone.wav"]


@pytest.mark.parametrize("content_type", ["application/x-www-form-urlencoded", "text/plain",
                                          "multipart/form-data; boundary=x", ""])
def test_a_file_of_a_type_that_a_form_can_send_is_refused(web, box, tone, content_type):
    answer = web.upload("action=add&file=x.wav", tone, content_type=content_type)
    assert answer.status == 415
    assert list_files(box) == []


# Adding


def test_a_file_is_added(web, box, tone):
    answer = add(web, tone, "Türgong 🔔", "Aufnahme 1.WAV")
    assert (answer.status, answer.text) == (200, "The clip was added. Its number is 0.\n")
    clip, = read_clips(web)
    assert (clip["name"], clip["file"]) == ("Türgong 🔔", "Aufnahme 1.WAV")
    assert abs(clip["length"] - 200) <= 1
    file = box.etc / "audioclips/Aufnahme 1.WAV"
    assert file.read_bytes() == tone.read_bytes()
    assert file.stat().st_mode & 0o7777 == 0o644
    assert web.manage("action=play&clip=0").text == "The clip is playing.\n"
    web.manage("action=stop")


def test_a_clip_without_a_name_is_named_after_its_file(web, box, tone):
    assert add(web, tone, "", "Front door.wav").status == 200
    assert read_clips(web)[0]["name"] == "Front door"


@pytest.mark.parametrize("given, file", [
    ("../../../etc/passwd", "passwd"), ("/etc/shadow", "shadow"), ("C:\\music\\a.wav", "a.wav"),
    ("..", "clip"), (".", "clip"), ("", "clip"), (".uploads", "uploads"), (".hidden.wav", "hidden.wav"),
    ("-rf.wav", "rf.wav"), ("a*b?.wav", "a-b-.wav"), ("\u202egnp.wav", "gnp.wav"), ("a'\"`$(b).wav", "a----(b).wav"), ("<script>.wav", "script-.wav"),
    ("a\u0308.wav", "ä.wav"), ("x" * 300 + ".wav", "x" * 196 + ".wav"),
    ("🔔" * 100 + ".opus", "🔔" * 48 + ".opus"), ("a%2f..%2fb.wav", "a-2f..-2fb.wav"),
])
def test_the_name_of_a_file_is_made_safe(web, box, tone, given, file):
    answer = add(web, tone, "x", given)
    assert answer.status == 200, answer
    assert list_files(box) == [file]


def test_an_existing_file_is_never_overwritten(web, box, tone):
    other = box.write_file("tone.wav", b"other")
    (box.etc / "audioclips/tone-2.wav").symlink_to("/etc/hostname")
    assert add(web, tone).status == 200
    assert list_files(box) == ["tone-2.wav", "tone-3.wav", "tone.wav"]
    assert (box.etc / "audioclips/tone.wav").read_bytes() == b"other"
    assert other == f"{FOLDER}/tone.wav"
    assert read_clips(web)[0]["file"] == "tone-3.wav"


def test_files_of_one_name_at_the_same_time_are_all_kept(web, box, tmp_path):
    paths = []
    for i in range(4):
        paths.append(tmp_path / f"{i}.wav")
        clips.write_wav(paths[-1], clips.tone(300 + 100 * i, 0.1))
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        answers = list(pool.map(lambda path: add(web, path, path.stem), paths))
    assert [answer.status for answer in answers] == [200] * 4
    found = {clip["name"]: (box.etc / "audioclips" / clip["file"]).read_bytes()
             for clip in read_clips(web)}
    assert found == {path.stem: path.read_bytes() for path in paths}


@pytest.mark.parametrize("content, hint", [
    (b"fLaC\0\0\0\x22" + bytes(64), "It is a FLAC file."),
    (b"\0\0\0\x20ftypM4A " + bytes(64), "It is an AAC (M4A or MP4) file."),
    (b"\xff\xf1\x50\x80" + bytes(64), "It is an AAC file."),
    (b"#!/bin/sh\nexit 1\n", "It is damaged, or of a format that this device does not know."),
    (b"x", "It is damaged, or of a format that this device does not know."),
])
def test_a_file_that_cannot_be_played_is_refused(web, box, tmp_path, content, hint):
    path = tmp_path / "x"
    path.write_bytes(content)
    answer = add(web, path, "x", "x.wav")
    assert answer.status == 415
    assert answer.text == (f"This device cannot play the file. {hint} Convert it to Opus, MP3 or WAV "
                           "first, for example: ffmpeg -i FILE clip.opus\n")
    assert list_files(box) == []
    assert read_clips(web) == []


@pytest.mark.parametrize("name", ["a\nb", "a\x1b[31mb", "\u202eabc", "x" * 256, "\u2028"])
def test_a_name_that_cannot_be_shown_is_refused(web, box, tone, name):
    answer = add(web, tone, name)
    assert answer.status == 400
    # Some web servers refuse control characters themselves.
    assert "\n" in name or "\x1b" in name or "The request is invalid. The name " in answer.text
    assert list_files(box) == []


def test_a_full_list_leaves_no_file_behind(web, box, tone):
    box.write_clip("other.wav", clips.tone(440, 0.1))
    store = Store(box)
    for i in range(100):
        store.write(f"M{i}.json", json.dumps({"location": f"{FOLDER}/other.wav", "name": "x",
                                              "type": "audio", "metadata": {}}))
    answer = add(web, tone)
    assert answer.status == 409
    assert answer.text == (
        "The daemon did not add the clip. The list may be full: remove a clip, or raise "
        "root.SonoBrik.MaxGroups in vesk-parameters.conf(5) and restart the daemon.\n")
    assert list_files(box) == ["other.wav"]


def test_a_file_above_the_limit_is_refused_before_it_is_read(web, box):
    size = 34 * 1024 * 1024
    with socket.create_connection((HOST, web.port)) as peer:
        peer.settimeout(60)
        peer.sendall(make_head(f"Content-Length: {size}\r\n"))
        assert b" 413 " in peer.recv(4096).split(b"\r\n")[0]
    assert list_files(box) == []


def make_head(headers, query="action=add&file=x.wav"):
    return ("POST /vesk-cgi/manage/sonobrik.cgi?{} HTTP/1.1\r\nHost: {}\r\nConnection: close\r\n"
            "Authorization: Basic bWlhOnMzY3JldA==\r\nContent-Type: application/octet-stream\r\n"
            "{}\r\n").format(query, HOST, headers).encode()


def test_a_body_that_ends_early_leaves_nothing_behind(web, box, tone):
    with socket.create_connection((HOST, web.port)) as peer:
        peer.sendall(make_head("Content-Length: 100000\r\n") + tone.read_bytes()[:5000])
    wait_until(lambda: list_left(box) == [], 60, "the file is removed")
    assert list_files(box) == []
    assert add(web, tone).status == 200  # the server still works


@pytest.mark.parametrize("location", ["", f"&location={FOLDER}/tone.wav"])
def test_a_clip_that_changes_during_the_upload_is_not_replaced(web, box, tone, location):
    store = Store(box)
    add(web, tone)
    data = (box.etc / "audioclips/tone.wav").read_bytes()
    with socket.create_connection((HOST, web.port)) as peer:
        peer.settimeout(60)
        peer.sendall(make_head(f"Content-Length: {len(data)}\r\n", f"action=replace&clip=0{location}")
                     + data[:5000])
        wait_until(lambda: list_left(box), 20, "the upload has begun")
        store.call("RemoveConfiguration", "(i)", 0)
        store.add_clip(box.write_clip("alarm.wav", clips.tone(440, 0.1)).path, "Alarm")
        peer.sendall(data[5000:])
        status = int(peer.recv(4096).split()[1])
    assert [clip["name"] for clip in read_clips(web)] == ["Alarm"]
    assert status == 409


def test_a_body_in_chunks_is_added_or_refused(web, box, tone):
    answer = web.upload("action=add&file=x.wav", None, "--header", "Transfer-Encoding: chunked",
                        "--data-binary", f"@{tone}")
    assert answer.status in (200, 411)
    assert list_files(box) == (["x.wav"] if answer.status == 200 else [])


@pytest.mark.parametrize("query, options, status", [
    ("action=add&file=x.wav", ["Transfer-Encoding: chunked"], (411, 413)),
    ("action=remove&clip=0", ["Transfer-Encoding: chunked"], (411, 413)),
    ("action=rename&clip=0&name=x", [], (413, 415)),
    ("action=unknown", [], (413, 415)),
])
def test_the_answer_to_a_refused_body_arrives(web, box, tmp_path, query, options, status):
    """fcgiwrap drops the answer of a program that exits before the whole body has arrived."""
    body = tmp_path / "body"
    body.write_bytes(bytes(4_000_000))
    headers = [word for option in options for word in ("--header", option)]
    answer = web.upload(query, None, *headers, "--data-binary", f"@{body}")
    assert answer.status in status, answer
    assert list_files(box) == []


@pytest.mark.parametrize("headers, expected", [
    ("", 411),
    ("Content-Length: -1\r\n", 400),
    ("Content-Length: 1e3\r\n", 400),
    ("Content-Length: 99999999999999\r\n", 413),
])
def test_a_body_of_no_known_length_is_refused(web, box, headers, expected):
    with socket.create_connection((HOST, web.port)) as peer:
        peer.settimeout(60)
        peer.sendall(make_head(headers))
        status = int(peer.recv(4096).split()[1])
    assert status == expected


def test_an_empty_file_is_refused(web, box, tmp_path):
    empty = tmp_path / "empty.wav"
    empty.touch()
    answer = add(web, empty)
    assert (answer.status, answer.text) == (400, "The request is invalid. The file is empty.\n")
    assert list_files(box) == []


# Changing


def test_a_clip_is_renamed(web, box, tone):
    add(web, tone, "Door")
    answer = web.change("action=rename&clip=0&name=Hoft%C3%BCr+%F0%9F%9A%AA")
    assert (answer.status, answer.text) == (200, "The clip was renamed.\n")
    assert read_clips(web)[0]["name"] == "Hoftür 🚪"
    for name, status in (("", 400), ("a%0ab", 400), ("x" * 256, 400), ("x" * 255, 200)):
        assert web.change(f"action=rename&clip=0&name={name}").status == status
    assert web.change("action=rename&clip=1&name=x").status == 404


@pytest.mark.parametrize("extra, files, text", [
    ("", ["tone.wav"], "The clip was removed. Its file was kept.\n"),
    ("&withfile=1", [], "The clip was removed.\n"),
])
def test_a_clip_is_removed_with_its_file_or_without(web, box, tone, extra, files, text):
    add(web, tone)
    answer = web.change(f"action=remove&clip=0{extra}")
    assert (answer.status, answer.text) == (200, text)
    assert read_clips(web) == []
    assert list_files(box) == files


@pytest.mark.parametrize("path", ["/tone.wav", "//tone.wav", "/./tone.wav"])
def test_a_file_that_another_clip_uses_is_kept(web, box, tone, path):
    add(web, tone)
    Store(box).add_clip(FOLDER + path, "Twice")
    answer = web.change("action=remove&clip=0&withfile=1")
    assert answer.text == "The clip was removed. Its file was kept, because another clip uses it.\n"
    assert list_files(box) == ["tone.wav"]


@pytest.mark.parametrize("location", [f"{FOLDER}/../victim", f"{FOLDER}/out/victim",
                                      f"{FOLDER}/./../victim", f"{FOLDER}//etc/victim"])
def test_files_outside_the_folder_are_left_alone(web, box, tone, location):
    victim = box.etc / "victim"
    shutil.copy(tone, victim)
    (box.etc / "audioclips/out").symlink_to("/etc")
    Store(box).add_clip(location, "Out")
    try:
        assert web.manage("action=file&clip=0").status in (403, 404)
        assert web.upload("action=replace&clip=0", tone).status in (403, 404)
        answer = web.change("action=remove&clip=0&withfile=1")
        assert answer.text.startswith("The clip was removed. Its file could not be removed: ")
        assert victim.read_bytes() == tone.read_bytes()
    finally:
        victim.unlink()


def test_a_symbolic_link_is_removed_and_not_followed(web, box, tone):
    shutil.copy(tone, box.etc / "victim")
    (box.etc / "audioclips/link.wav").symlink_to("/etc/victim")
    Store(box).add_clip(f"{FOLDER}/link.wav", "Link")
    assert web.manage("action=file&clip=0").status == 403
    assert web.upload("action=replace&clip=0", tone).status == 403
    assert web.change("action=remove&clip=0&withfile=1").text == "The clip was removed.\n"
    assert list_files(box) == []
    assert (box.etc / "victim").exists()
    (box.etc / "victim").unlink()


def test_uploads_do_not_follow_a_link_in_place_of_their_folder(web, box, tone):
    (box.etc / "elsewhere").mkdir(exist_ok=True)
    (box.etc / "audioclips" / UPLOADS).symlink_to("/etc/elsewhere")
    assert "/etc/audioclips/.uploads is not a folder." in add(web, tone).text
    assert list((box.etc / "elsewhere").iterdir()) == []


def test_a_clip_that_has_changed_in_the_meantime_is_left_alone(web, box, tone):
    add(web, tone)
    for form in ("action=remove&clip=0&withfile=1", "action=rename&clip=0&name=x"):
        answer = web.change(f"{form}&location=/etc/audioclips/other.wav")
        assert answer.status == 409
        assert web.change(f"{form}&location=").status == 200 if "rename" in form else True
    assert web.upload("action=replace&clip=0&location=/x", tone).status == 409
    assert list_files(box) == ["tone.wav"]
    for query in ("action=play&clip=0", "action=file&clip=0"):
        assert web.manage(f"{query}&location=/etc/audioclips/other.wav").status == 409
        assert web.manage(f"{query}&location=/etc/audioclips/tone.wav").status == 200


def test_a_recording_is_replaced(web, box, tone, tmp_path):
    add(web, tone, "First")
    add(web, tone, "Second")
    longer = tmp_path / "longer.wav"
    clips.write_wav(longer, clips.tone(660, 0.7))
    assert read_clips(web)[1]["length"] == 200
    answer = web.upload("action=replace&clip=1", longer)
    assert (answer.status, answer.text) == (200, "The recording was replaced.\n")
    first, second = read_clips(web)
    assert (second["number"], second["name"], second["file"]) == (1, "Second", "tone-2.wav")
    assert second["length"] == 700
    assert first["length"] == 200
    assert (box.etc / "audioclips/tone-2.wav").read_bytes() == longer.read_bytes()


def test_a_replaced_clip_keeps_its_number_if_a_lower_one_is_free(web, box, tone, tmp_path):
    add(web, tone, "First")
    add(web, tone, "Second")
    read_clips(web)
    web.change("action=remove&clip=0")
    longer = tmp_path / "longer.wav"
    clips.write_wav(longer, clips.tone(660, 0.7))
    answer = web.upload("action=replace&clip=1", longer)
    assert answer.text == ("The recording was replaced. The list keeps showing the length of the old "
                           "recording.\n")
    clip, = read_clips(web)
    assert (clip["number"], clip["name"]) == (1, "Second")
    assert (box.etc / "audioclips/tone-2.wav").read_bytes() == longer.read_bytes()


def test_a_recording_is_not_replaced_by_what_cannot_be_played(web, box, tone, tmp_path):
    add(web, tone)
    text = tmp_path / "text"
    text.write_bytes(b"no media")
    assert web.upload("action=replace&clip=0", text).status == 415
    assert (box.etc / "audioclips/tone.wav").read_bytes() == tone.read_bytes()
    assert web.upload("action=replace&clip=7", tone).status == 404


# Listening


@pytest.mark.parametrize("header, status, part, content_range", [
    (None, 200, slice(None), None),
    ("bytes=0-9", 206, slice(0, 10), "bytes 0-9/{}"),
    ("bytes=100-", 206, slice(100, None), "bytes 100-{last}/{}"),
    ("bytes=-5", 206, slice(-5, None), "bytes {tail}-{last}/{}"),
    ("bytes=5-99999999", 206, slice(5, None), "bytes 5-{last}/{}"),
    ("bytes=99999999-", 416, None, "bytes */{}"),
    ("lines=1-2", 200, slice(None), None),
])
def test_a_file_is_handed_out(web, box, tone, header, status, part, content_range):
    add(web, tone)
    answer = web.manage("action=file&clip=0", *(["--header", f"Range: {header}"] if header else []))
    data = tone.read_bytes()
    assert answer.status == status
    if part:
        assert answer.headers["content-type"] == "audio/wav"
        assert answer.headers["accept-ranges"] == "bytes"
        assert answer.body == data[part]
    if content_range:
        size = len(data)
        assert answer.headers["content-range"] == content_range.format(
            size, last=size - 1, tail=size - 5)
    if status == 416:
        assert answer.text == "The requested part is beyond the end of the file.\n"


def test_a_large_file_is_handed_out_whole(web, box, tmp_path):
    path = tmp_path / "large.wav"
    clips.write_wav(path, clips.noise(1_500_000))
    assert add(web, path, "", "large.wav").status == 200
    body = web.manage("action=file&clip=0").body
    assert hashlib.sha256(body).digest() == hashlib.sha256(path.read_bytes()).digest()


# What remains of an upload


def test_other_requests_are_answered_while_a_file_arrives(web, box, tone):
    with socket.create_connection((HOST, web.port)) as peer:
        peer.sendall(make_head("Content-Length: 100000\r\n") + tone.read_bytes()[:5000])
        wait_until(lambda: list_left(box), 20, "the file is written")
        assert web.get("action=stop", "--max-time", "20").text == "Stopped.\n"
    wait_until(lambda: list_left(box) == [], 60, "the file is removed")


def test_what_is_uploaded_is_not_played_before_it_is_in_place(shared, web, box, tone, asked):
    """A wildcard that matches all files does not find a file that is on its way."""
    with socket.create_connection((HOST, web.port)) as peer:
        data = tone.read_bytes()
        peer.sendall(make_head(f"Content-Length: {len(data) + 1}\r\n") + data)
        wait_until(lambda: list_left(box), 20, "the file is written")
        assert "No supported file(s) found" in asked.fail("StartPlayingClip",
                                                          f"location={FOLDER}/*")
        assert json.loads(web.manage("action=list").text)["clips"] == []
    wait_until(lambda: list_left(box) == [], 60, "the file is removed")


def test_old_remains_are_removed_by_the_next_upload(web, box, tone):
    folder = box.etc / "audioclips" / UPLOADS
    folder.mkdir(exist_ok=True)
    old, new = folder / "old", folder / "new"
    for path in (old, new):
        path.write_bytes(b"x")
    os.utime(old, (0, 0))
    assert add(web, tone).status == 200
    assert list_left(box) == ["new"]
    new.unlink()


# Without a web server

RUN = ("REQUEST_METHOD=POST QUERY_STRING='action=add&file=new.wav' SONOBRIK_MANAGE=1 "
       "CONTENT_TYPE=application/octet-stream CONTENT_LENGTH={} "
       "/run/build/tools/cgi/sonobrik.cgi </run/home/new.wav; ls -AlR /etc/audioclips")


def write_upload(sandbox, samples):
    path = sandbox.folder / "run/home/new.wav"
    clips.write_wav(path, samples)
    path.chmod(0o644)
    return RUN.format(path.stat().st_size)


def test_a_full_disk_is_reported_and_nothing_is_left_behind(sandbox):
    command = write_upload(sandbox, clips.noise(600_000))
    sandbox.set_disk("/etc/audioclips", 1_000_000)
    result = sandbox.run(["sh", "-c", command])
    assert result.stdout.startswith("Status: 507 ")
    assert "The device has no space left for this file." in result.stdout
    assert "-rw" not in result.stdout


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE])
def test_a_signal_leaves_nothing_behind(sandbox, number):
    """A web server ends the program when the browser is gone."""
    script = ("mkfifo /run/home/pipe; "
              "REQUEST_METHOD=POST QUERY_STRING='action=add&file=x' SONOBRIK_MANAGE=1 "
              "CONTENT_TYPE=application/octet-stream CONTENT_LENGTH=99 "
              "/run/build/tools/cgi/sonobrik.cgi </run/home/pipe & exec 9>/run/home/pipe; "
              "for i in $(seq 200); do [ -n \"$(ls -A /etc/audioclips/.uploads 2>&-)\" ] && break; "
              f"sleep 0.05; done; ls -A /etc/audioclips/.uploads; kill -{int(number)} $!; wait; "
              "echo left $(ls -A /etc/audioclips/.uploads)")
    lines = sandbox.run(["sh", "-c", script]).stdout.splitlines()
    assert len(lines[0]) == 16  # the file while it arrives
    assert lines[-1] == "left"


@pytest.mark.needs_root
@pytest.mark.parametrize("is_member", [True, False])
def test_the_daemons_user_can_check_what_the_web_servers_user_uploads(
        tmp_path, build_dir, cache, installation, is_member):
    with Sandbox(tmp_path / "sandbox", build_dir, cache) as box:
        user = installation.make_users(box)
        installation.set_bus(box)
        shutil.copy(installation.find("etc/vesk/access.conf"), box.etc / "vesk/access.conf")
        box.start_bus()
        box.start_daemon(**user.options)
        groups = ["sonobrik-play", *(["sonobrik-config"] if is_member else [])]
        command = "umask 077; " + write_upload(box, clips.tone(440, 0.2))
        result = box.run(["sh", "-c", command], uid=pwd.getpwnam("www-data").pw_uid,
                         groups=[find_id(box, "group", group) for group in groups])
        if is_member:
            assert "The clip was added. Its number is 0." in result.stdout
            assert "new.wav" in result.stdout.split("Its number")[1]
            expect_hidden(box)
        else:
            assert result.stdout.startswith("Status: 403 ")
            assert "may not change files in /etc/audioclips" in result.stdout


def expect_hidden(box):
    """Fails if the daemon plays an upload that it was not asked to check."""
    player = Player(box.bus)
    location = f"{FOLDER}/{UPLOADS}/0123456789abcdef"
    clips.write_wav(box.etc / "audioclips" / UPLOADS / "0123456789abcdef", clips.tone(440, 0.2))
    assert player.call("SupportedFile", location) == "OK"
    assert "No supported file(s) found" in player.fail("StartPlayingClip",
                                                       f"location={FOLDER}/{UPLOADS}/*")
