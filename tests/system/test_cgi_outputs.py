"""sonobrik.cgi with the audio control service: names of outputs, and what is not plugged in."""

import json
import time

import pytest

from sandbox import Store, Web, find_server, wait_until
from sandbox.browser import find_browser, open_browser

if not find_server("lighttpd") or not find_browser():
    pytest.skip("lighttpd, chromium, its driver or selenium is not installed",
                allow_module_level=True)

from selenium.common.exceptions import WebDriverException  # noqa: E402 (only after the check above)

SERVICE = "com.vesk.AudioControl"
MANAGER = "org.freedesktop.DBus.ObjectManager"

CHOICES = "return [...document.querySelectorAll('#output option')].map((e) => [e.value, e.text, e.disabled])"


@pytest.fixture
def web(sandbox):
    server = Web(sandbox).start_lighttpd()
    yield server
    server.check()


def show(driver, web, query=""):
    driver.get(web.address.replace("http://", "http://anna:s3cret@") + query)
    return driver


def await_text(driver, name, text):
    def read():
        try:
            return driver.find_element("id", name).text
        except WebDriverException:
            return ""
    wait_until(lambda: read() == text, 30, f"the page shows {text!r}")


def test_an_output_that_the_administrator_replaces_has_no_name(sandbox, cards, web):
    cards.add(0, name="Hall")
    cards.add(1, name="Garden")
    cards.define('pcm.audiosink0 "null"\n')
    cards.start()
    sandbox.start_daemon()
    outputs = json.loads(web.get("action=status").text)["outputs"]
    assert [output.get("name") for output in outputs] == [None, "Garden"]


def test_outputs_are_chosen_by_name(sandbox, cards, web, long, tmp_path):
    cards.add(0, name="Hall")
    cards.add(1, name="Küche <b>\x1b")
    cards.start()
    seen = cards.listen()
    cards.remove(0)
    wait_until(lambda: seen.seen, what="the card is gone")
    sandbox.start_daemon(is_supervised=True)
    Store(sandbox).add_clip(long.path, "Long")
    kitchen = "Küche <b>\ufffd (output 1)"
    expected = [["", "default", False], ["0", "Hall (output 0, unplugged)", True],
                ["1", kitchen, False]]
    assert web.get("action=play&clip=0&audiooutput=1").status == 200
    status = json.loads(web.get("action=status").text)
    assert status["text"] == f"long.wav is playing on {kitchen}."
    assert status["outputs"][0] == {"output": 0, "playing": False, "file": "", "name": "Hall",
                                    "unplugged": True}
    refusal = web.get("action=play&clip=0&audiooutput=0&instead=1")
    assert refusal.status == 400
    assert "Check that the output exists and is plugged in." in refusal.text

    with open_browser(tmp_path / "plain", script=False) as plain:
        show(plain, web, "?plain=1")
        assert [[e.get_attribute("value"), e.text, not e.is_enabled()]
                for e in plain.find_elements("css selector", "#output option")] == expected
        # A browser does not send a disabled choice, and the clip would play elsewhere.
        show(plain, web, "?plain=1&audiooutput=0")
        chosen = plain.find_element("css selector", "#output option:checked")
        assert (chosen.get_attribute("value"), chosen.is_enabled()) == ("0", True)

    with open_browser(tmp_path / "browser", 360, 740) as driver:
        assert web.get("action=play&clip=0&audiooutput=1&repeat=-1&instead=1").status == 200
        show(driver, web)
        assert driver.execute_script(CHOICES) == expected
        await_text(driver, "now-text", f"Long is playing on {kitchen}.")
        driver.execute_script("document.getElementById('output').value = '1'")

        # The page follows the plugs without a reload.
        cards.add(0, name="Hall")
        wait_until(lambda: [choice[1:] for choice in driver.execute_script(CHOICES)][1:]
                   == [["Hall (output 0)", False], [kitchen, False]], 30, "the card is shown")
        assert driver.execute_script("return document.getElementById('output').value") == "1"
        assert [line["message"] for line in driver.get_log("browser")
                if "Failed to load resource" not in line["message"]] == []


def test_without_any_card_the_choices_are_honest(sandbox, cards, web):
    cards.start()
    sandbox.start_daemon()
    status = json.loads(web.get("action=status").text)
    assert (status["known"], status["text"], status["outputs"]) == (True, "Nothing is playing.", [])


def test_a_service_that_never_answers_costs_the_names_alone(sandbox, web, long):
    """It owns the name, and queues calls that it never reads."""
    Store(sandbox).start().add_clip(long.path, "Long")
    sandbox.start_mock(SERVICE, "/com/vesk/AudioControl", MANAGER)
    sandbox.bus.call(SERVICE, "/com/vesk/AudioControl", "org.freedesktop.DBus.Mock", "AddMethod",
                     "(sssss)", MANAGER, "GetManagedObjects", "", "a{oa{sa{sv}}}",
                     "import time; time.sleep(600)")
    start = time.monotonic()
    status = json.loads(web.get("action=status").text)
    assert 1.5 < time.monotonic() - start < 30
    assert (status["known"], status["text"]) == (True, "Nothing is playing.")
    assert [output.get("name") for output in status["outputs"]] == [None]
