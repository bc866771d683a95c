"""Who may call the daemon: the policy file, with the caller's credentials from a real bus."""

import pytest
from sandbox import BusError, Player, clips, wait_until
from sandbox.log_lines import START

NAME = "com.vesk.Sonobrik"
PATH = "/com/vesk/Sonobrik"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"
POLICY = "/etc/vesk/access.conf"

NOBODY = 65534
DAEMON = 1
AUDIO = 29
METHODS = ("StartPlayingClip", "PlayClip", "StopPlayingClip", "SupportedFile")


def assert_refused(player, method, text=""):
    with pytest.raises(BusError) as error:
        player.call(method, text)
    assert error.value.name == DENIED


def refused_by(group, uid=0, method="StopPlayingClip"):
    return (f"info: Failed to authorize: uid {uid} is not allowed to call {NAME}.{method}: "
            f"[{group}] in {POLICY} lists neither this user nor any of its groups")


@pytest.fixture
def serve(sandbox):
    """Returns a function that starts the daemon with a policy and returns a client."""
    def start(policy, **options):
        sandbox.set_access(policy)
        sandbox.start_daemon(**options)
        return Player(sandbox.bus)
    return start


def call_as(sandbox, uid, groups=(), method="StopPlayingClip", text=""):
    """Calls a method as another user, and returns what dbus-send prints."""
    result = sandbox.run(["dbus-send", "--system", "--print-reply=literal", f"--dest={NAME}", PATH,
                          f"{NAME}.{method}", f"string:{text}"], uid=uid, groups=groups,
                         check=False)
    return (result.stdout + result.stderr).strip()


# Refused callers


@pytest.mark.parametrize("method", METHODS)
def test_a_refused_call_is_denied_and_not_run(sandbox, serve, method):
    clip = sandbox.write_clip("a.wav", clips.noise(4800))
    player = serve({NAME: {"users": "nobody"}})
    assert_refused(player, method, clip.location)
    assert_refused(player, method, clip.path)
    assert sandbox.daemon.texts == START + [refused_by(NAME, method=method)] * 2
    player.fence()
    assert player.events == []
    assert not sandbox.card(0).events


def test_a_refused_stop_stops_nothing(sandbox, serve):
    clip = sandbox.write_clip("a.wav", clips.noise(24000))
    player = serve({NAME: {"users": "root"}, f"{NAME}.StopPlayingClip": {"users": "nobody"}})
    held = player.send("PlayClip", clip.location)
    wait_until(lambda: sandbox.card(0).frames > 0, what="the clip is playing")
    assert_refused(player, "StopPlayingClip")
    assert held.wait() == ("OK",)
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0


@pytest.mark.parametrize("signature, values", [("(i)", (1,)), ("()", ())])
def test_a_refused_caller_does_not_learn_the_signature_of_a_method(sandbox, serve, signature,
                                                                       values):
    serve({NAME: {"users": "nobody"}})
    for member in (*METHODS, "Unknown"):
        with pytest.raises(BusError) as error:
            sandbox.bus.call(NAME, PATH, NAME, member, signature, *values)
        assert error.value.name == DENIED


def test_a_call_without_an_interface_runs_nothing(sandbox, serve):
    player = serve({NAME: {"users": "nobody"}})
    with pytest.raises(BusError) as error:
        player.bus.call(NAME, PATH, None, "StopPlayingClip", "(s)", "")
    assert error.value.name == "org.freedesktop.DBus.Error.UnknownMethod"
    assert sandbox.daemon.texts == START


def test_the_standard_interfaces_are_open_to_everybody(sandbox, serve):
    serve({NAME: {"users": "nobody"}})
    assert "PlayClip" in sandbox.bus.introspect(NAME, PATH)
    sandbox.bus.call(NAME, PATH, "org.freedesktop.DBus.Peer", "Ping")
    assert sandbox.bus.call(NAME, PATH, "org.freedesktop.DBus.Properties", "GetAll", "(s)",
                            NAME) == ({},)
    assert sandbox.daemon.texts == START


# The policy file


@pytest.mark.parametrize("policy", [
    {NAME: {"users": "*"}},
    {NAME: {"users": "root"}},
    {NAME: {"users": "0"}},
    {NAME: {"users": " nobody ; root ;"}},
    {NAME: {"groups": "root"}},
    {NAME: {"groups": "audio;0"}},
    {"com.vesk": {"users": "root"}},
    {"com": {"users": "root"}},
    {"com.vesk": {"users": "nobody"}, NAME: {"users": "root"}},
    {NAME: {"users": "nobody"}, f"{NAME}.StopPlayingClip": {"users": "root"}},
    None,
])
def test_a_listed_caller_is_allowed(serve, policy):
    assert serve(policy).call("StopPlayingClip") == "OK"


@pytest.mark.parametrize("policy, group", [
    ({NAME: {"users": "nobody"}}, NAME),
    ({NAME: {}}, NAME),
    ({NAME: {"users": ""}}, NAME),
    ({NAME: {"groups": "audio"}}, NAME),
    ({NAME: {"users": "00x0"}}, NAME),
    ({"com.vesk": {"users": "root"}, NAME: {"users": "nobody"}}, NAME),
    ({NAME: {"users": "root"}, f"{NAME}.StopPlayingClip": {"users": "nobody"}},
     f"{NAME}.StopPlayingClip"),
    ({"com": {"users": "daemon"}}, "com"),
])
def test_a_caller_who_is_not_listed_is_refused(sandbox, serve, policy, group):
    assert_refused(serve(policy), "StopPlayingClip")
    assert sandbox.daemon.texts[-1] == refused_by(group)


@pytest.mark.parametrize("policy", ["", {"com.vesk.Sono": {"users": "*"}},
                                    {f"{NAME}.PlayClip": {"users": "*"}},
                                    {"com.vesk.sonobrik": {"users": "*"}}])
def test_a_call_that_no_policy_group_covers_is_refused(sandbox, serve, policy):
    assert_refused(serve(policy), "StopPlayingClip")
    assert sandbox.daemon.texts == START + [
        f"info: Failed to authorize: uid 0 is not allowed to call {NAME}.StopPlayingClip: "
        f"{POLICY} has no group for this method"]


def test_an_unknown_name_is_skipped_and_logged_once(sandbox, serve):
    player = serve({NAME: {"users": "alibi;root", "groups": "noband"}})
    for _ in range(3):
        assert player.call("StopPlayingClip") == "OK"
    assert [text for text in sandbox.daemon.texts[len(START):] if text.startswith("warning")] == [
        f"warning: {POLICY}: unknown user 'alibi' in [{NAME}] is ignored"]


def test_without_a_policy_file_only_root_is_allowed_and_this_is_logged(sandbox, serve):
    assert serve(None).call("StopPlayingClip") == "OK"
    assert sandbox.daemon.texts[len(START)] == (
        f"info: Only root is allowed: {POLICY} does not exist")


# Edits while the daemon is running


def test_an_edit_takes_effect_at_the_next_call(sandbox, serve):
    player = serve({NAME: {"users": "root"}})
    for _ in range(20):
        assert player.call("StopPlayingClip") == "OK"
        sandbox.set_access({NAME: {"users": "nobody"}})
        assert_refused(player, "StopPlayingClip")
        sandbox.set_access({NAME: {"users": "root"}})


def test_an_edit_in_place_takes_effect_too(sandbox, serve):
    player = serve({NAME: {"users": "root"}})
    file = sandbox.etc / "vesk/access.conf"
    for _ in range(20):
        # Both texts have the same length, and often the files have the same time stamps.
        file.write_text(f"[{NAME}]\nusers=sync\n")
        assert_refused(player, "StopPlayingClip")
        file.write_text(f"[{NAME}]\nusers=root\n")
        assert player.call("StopPlayingClip") == "OK"


def test_after_a_broken_edit_only_root_is_allowed_and_this_is_logged_once(sandbox, serve):
    player = serve({NAME: {"users": "nobody"}})
    assert_refused(player, "StopPlayingClip")
    sandbox.set_access("nonsense\n")
    for _ in range(3):
        assert player.call("StopPlayingClip") == "OK"
    logged = (f"warning: Only root is allowed until this is fixed: {POLICY}: "
              "Key file contains line “nonsense” which is not a key-value pair, group, or comment")
    assert sandbox.daemon.texts.count(logged) == 1
    sandbox.set_access({NAME: {"users": "nobody"}})
    assert_refused(player, "StopPlayingClip")


def test_after_the_file_is_removed_only_root_is_allowed(sandbox, serve):
    player = serve({NAME: {"users": "nobody"}})
    assert_refused(player, "StopPlayingClip")
    sandbox.set_access(None)
    assert player.call("StopPlayingClip") == "OK"


# Other users


@pytest.mark.needs_root
def test_users_are_distinguished(sandbox, serve):
    player = serve({NAME: {"users": "root"}})
    assert call_as(sandbox, NOBODY).startswith(f"Error {DENIED}")
    assert sandbox.daemon.texts == START + [refused_by(NAME, NOBODY)]
    sandbox.set_access({NAME: {"users": "nobody"}})
    assert call_as(sandbox, NOBODY) == "OK"
    assert_refused(player, "StopPlayingClip")


@pytest.mark.needs_root
def test_members_of_a_listed_group_are_allowed(sandbox, serve):
    serve({NAME: {"groups": "audio"}})
    assert call_as(sandbox, NOBODY).startswith(f"Error {DENIED}")
    assert call_as(sandbox, NOBODY, [AUDIO]) == "OK"
    assert call_as(sandbox, DAEMON, [7, AUDIO, 9]) == "OK"
    assert call_as(sandbox, DAEMON, [7, 9]).startswith(f"Error {DENIED}")
    assert sandbox.daemon.texts.count(refused_by(NAME, DAEMON)) == 1


@pytest.mark.needs_root
def test_another_user_is_refused_without_a_file_and_with_a_broken_one(sandbox, serve):
    serve(None)
    assert call_as(sandbox, NOBODY).startswith(f"Error {DENIED}")
    assert sandbox.daemon.texts[-1] == (
        f"info: Failed to authorize: uid {NOBODY} is not allowed to call {NAME}.StopPlayingClip: "
        f"{POLICY} does not exist")
    sandbox.set_access("nonsense\n")
    assert call_as(sandbox, NOBODY).startswith(f"Error {DENIED}")
    assert sandbox.daemon.texts[-1] == (
        f"info: Failed to authorize: uid {NOBODY} is not allowed to call {NAME}.StopPlayingClip: "
        f"{POLICY} cannot be used")


@pytest.mark.needs_root
def test_another_user_can_introspect(sandbox, serve):
    serve({NAME: {"users": "root"}})
    result = sandbox.run(["busctl", "--system", "introspect", NAME, PATH, NAME], uid=NOBODY)
    assert ".PlayClip" in result.stdout


@pytest.mark.needs_root
def test_a_daemon_without_root_serves_and_plays(sandbox, serve):
    clip = sandbox.write_clip("a.wav", clips.noise(2400))
    player = serve({NAME: {"groups": "audio"}}, uid=DAEMON, groups=[AUDIO])
    assert call_as(sandbox, NOBODY, [AUDIO], "PlayClip", clip.location) == "OK"
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
    assert_refused(player, "StopPlayingClip")
