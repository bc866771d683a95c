"""The error texts that the caller and the log get for a bad play request."""

import pytest


@pytest.mark.parametrize("options, line", [
    ("", "warning: Failed to acquire option hash."),
    ("location=/a.wav&location=/a.wav", "warning: Failed to acquire option hash."),
    ("volume=1&%76olume=1&location=/a.wav", "warning: Failed to acquire option hash."),
    ("&&", "error: Missing location."),
    ("location=", "error: Missing location."),
    ("location", "error: Missing location."),
    ("Location=/a.wav", "error: Missing location."),
    ("location=/a.wav&volume=1001", "info: Invalid volume parameter '1001'."),
    ("location=/a.wav&volume=-1", "info: Invalid volume parameter '-1'."),
    ("location=/a.wav&volume=4294967396", "info: Invalid volume parameter '4294967396'."),
    ("location=/a.wav&volume=ten", "info: Invalid volume parameter 'ten'."),
    ("location=/a.wav&volume=50%25", "info: Invalid volume parameter '50%'."),
    ("location=/a.wav&repeat=-2", "info: Invalid repeat parameter '-2'."),
    ("location=/a.wav&repeat=1.5", "info: Invalid repeat parameter '1.5'."),
    ("location=/a.wav&repeat=99999999999999999999",
     "info: Invalid repeat parameter '99999999999999999999'."),
])
def test_options_that_cannot_be_used_are_named(shared, asked, options, line):
    logged = len(shared.daemon.texts)
    for method in ("PlayClip", "StartPlayingClip"):
        assert asked.fail(method, options) == (
            f"Failed to parse/validate option string: '{options}'")
    assert shared.daemon.texts[logged:] == [line] * 2


@pytest.mark.parametrize("location, path", [
    ("/etc/audioclips/missing.wav", "/etc/audioclips/missing.wav"),
    ("/etc/audioclips/none-*.wav", "/etc/audioclips/none-*.wav"),
    ("%2Fetc%2fa+b%2Bc", "/etc/a b+c"),
    ("/etc/100%", "/etc/100%"),
    ("/etc/caf%E9", "/etc/café"),
    ("/etc/%EF%BF%BE%EF%B7%90", "/etc/\ufffd\ufffd"),  # D-Bus cannot transmit these
])
def test_a_location_without_clips_is_named_as_it_was_understood(asked, location, path):
    for method in ("PlayClip", "StartPlayingClip"):
        assert asked.fail(method, f"location={location}") == (
            f"No supported file(s) found at '{path}'.")


def test_a_missing_folder_is_logged(shared, asked):
    logged = len(shared.daemon.texts)
    asked.fail("PlayClip", "location=/etc/none/*.wav")
    assert shared.daemon.texts[logged:] == [
        "info: The specified directory of '/etc/none/*.wav' does not exist"]


@pytest.mark.parametrize("length", [255, 256, 300, 60000])
def test_an_error_text_has_255_bytes_at_most(shared, asked, length):
    before, after = "No supported file(s) found at '", "'."
    name = "/" + "x" * (length - len(before) - len(after) - 1)
    text = f"{before}{name}{after}"
    assert asked.fail("PlayClip", f"location={name}") == text[:255]
    line = f"sonobrik_dbus_method_error_msg the error message '{text}' has been truncated."
    if length == 60000:  # the log truncates a line this long
        assert any(entry.level == "warning" and line.startswith(entry.text.removesuffix(" [cut]"))
                   for entry in shared.daemon.log)
    else:
        assert shared.daemon.count("warning", line) == (length > 255)


@pytest.mark.parametrize("character", ["é", "€", "😀"])
@pytest.mark.parametrize("offset", range(4))
def test_an_error_text_is_cut_between_characters(asked, character, offset):
    name = "/" + "x" * offset + character * 100
    text = f"No supported file(s) found at '{name}'."
    expected = text.encode()[:255].decode(errors="ignore")
    assert asked.fail("PlayClip", f"location={name}") == expected
