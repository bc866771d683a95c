"""The clip store at the start and exit of the daemon."""

from sandbox import Store, clips
from sandbox.bus import DRIVER
from sandbox.log_lines import NO_CONTROLS, NO_CONTROLS_AT_START, NO_VENDOR_SINK, START
from sandbox.player import EVENTS_NAME, NAME, PATH
from sandbox.store import FOLDER, LEGACY_NAME, write_record


def test_each_service_has_its_own_connection(sandbox, daemon):
    owners = {sandbox.bus.get_owner(name) for name in (NAME, LEGACY_NAME, EVENTS_NAME)}
    assert len(owners) == 3 and None not in owners
    for name in (NAME, LEGACY_NAME):
        assert sandbox.bus.call(*DRIVER, "GetConnectionUnixProcessID", "(s)", name) == (daemon.pid,)


def test_it_does_not_start_if_the_legacy_name_is_taken(sandbox):
    sandbox.bus.own_name(LEGACY_NAME)
    assert sandbox.fail_to_start() == [
        *START,
        f"error: Failed to acquire service name {LEGACY_NAME}: File exists.",
        "error: Failed to connect to the system bus",
        "critical: Failed to initialize sonobrik parameters."]
    assert sandbox.bus.get_owner(LEGACY_NAME) == sandbox.bus.unique_name
    assert sandbox.bus.get_owner(NAME) is None
    assert sandbox.bus.get_owner(EVENTS_NAME) is None


def test_the_store_is_up_before_the_main_service(sandbox):
    sandbox.bus.own_name(NAME)
    owners = sandbox.bus.subscribe(sender=DRIVER[0], member="NameOwnerChanged")
    assert sandbox.fail_to_start() == [
        *START,
        f"error: Failed to acquire service name {NAME}: File exists.",
        "error: Failed to connect to the system bus",
        "critical: Failed to setup the audioclip dbus service."]
    sandbox.bus.call(*DRIVER, "GetId")
    assert [signal.args[0] for signal in owners if signal.args[0] == LEGACY_NAME] == 2 * [
        LEGACY_NAME]
    assert sandbox.bus.get_owner(LEGACY_NAME) is None


def test_the_start_reads_clips_only_for_the_on_screen_controls(sandbox):
    sandbox.set_parameters(None)
    store = Store(sandbox)
    store.write("Mx.json", write_record())
    store.start()
    assert sandbox.daemon.texts == [
        NO_VENDOR_SINK,
        "warning: Could not obtain parameter index from 'x'",
        f"error: No index value found in '{FOLDER}/Mx.json'",
        "warning: sonobrik_group_get_parameter_list failed to create parameter from file "
        f"{FOLDER}/Mx.json",
        NO_CONTROLS, NO_CONTROLS_AT_START]


def test_it_starts_without_the_record_folder(sandbox):
    store = Store(sandbox)
    store.folder.rmdir()
    store.start()
    assert sandbox.daemon.texts == [
        NO_VENDOR_SINK,
        f"info: The specified directory of '{FOLDER}/M*.json' does not exist",
        NO_CONTROLS, NO_CONTROLS_AT_START]


def test_clips_outlive_the_daemon(sandbox, store):
    clip = sandbox.write_clip("door.wav", clips.noise(2400))
    store.add_clip(clip.path, "Door")
    store.get_metadata()
    kept = store.read(0)
    assert sandbox.daemon.stop() == 0
    for name in (NAME, LEGACY_NAME, EVENTS_NAME):
        assert sandbox.bus.get_owner(name) is None
    store.start()
    assert store.read(0) == kept
    assert store.call("GetConfigurations") == (
        {0: {"Location": clip.path, "Name": "Door", "Type": "audio"}},)


def test_a_stored_clip_plays_by_its_location(sandbox, store):
    clip = sandbox.write_clip("door & co.wav", clips.noise(2400))
    store.add_clip(clip.path, "Door")
    _, location = store.call("GetConfigurationEntry", "(is)", 0, "Location")
    assert sandbox.bus.call(NAME, PATH, NAME, "PlayClip", "(s)",
                            f"location={location.replace('&', '%26')}", timeout=20) == ("OK",)
    assert sandbox.card(0).takes[0].find(clip.samples) >= 0
