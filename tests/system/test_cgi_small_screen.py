"""The page of sonobrik.cgi on a phone: what stays visible while scrolling, with long names and large text."""

import pytest

from sandbox import Store, Web, clips, find_server, wait_until
from sandbox.browser import find_browser, open_browser

if not find_server("lighttpd") or not find_browser():
    pytest.skip("lighttpd, chromium, its driver or selenium is not installed",
                allow_module_level=True)

from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402 (only after the check above)
from selenium.webdriver.common.keys import Keys  # noqa: E402

WIDTH, HEIGHT = 360, 740
STEPS = 12

# Returns whether any part of the focused element can be seen.
IS_FOCUS_SEEN = """
    const element = document.activeElement;
    const box = element.getBoundingClientRect();
    const parts = [0.02, 0.25, 0.5, 0.75, 0.98];
    return parts.some((x) => parts.some((y) => element.contains(
        document.elementFromPoint(box.x + x * box.width, box.y + y * box.height))));
"""

# Returns the height of what covers the list at the top of the screen.
COVERED = """
    let y = 0;
    while (y < innerHeight && !document.elementFromPoint(innerWidth / 2, y)?.closest("#clips")) {
        y++;
    }
    return y;
"""


@pytest.fixture(scope="module")
def web(shared):
    server = Web(shared).start_lighttpd()
    store = Store(shared)
    path = shared.write_clip("bell.wav", clips.tone(440, 1)).path
    for i in range(20):
        store.add_clip(path, f"Guest {i}")
    shared.write_clip("long.wav", clips.tone(440, 1))
    store.add_clip("/etc/audioclips/long.wav", "Long")
    yield server
    server.check()


@pytest.fixture(scope="module")
def driver(tmp_path_factory):
    with open_browser(tmp_path_factory.mktemp("browser"), WIDTH, HEIGHT) as browser:
        yield browser


@pytest.fixture
def page(shared, web, driver, asked, request):
    """The page with a clip whose name has this length, and text of this size."""
    length, size = request.param
    name = ("Attention please, " * 20)[:length - 1] + "."
    Store(shared).rename(20, name)
    asked.call("StopPlayingClip")
    driver.get(web.address.replace("http://", "http://anna:s3cret@"))
    driver.execute_script("""
        document.documentElement.style.fontSize = arguments[0];
        MESSAGE_PERIODS.good = 0;
        document.getElementById("options").open = false;
        document.getElementById("repeat").value = -1;
    """, size)
    yield driver, name
    asked.call("StopPlayingClip")
    assert [line["message"] for line in driver.get_log("browser")
            if "Failed to load resource" not in line["message"]] == []


def focus(driver, index):
    driver.execute_script("document.querySelectorAll('#clips button')[arguments[0]].focus()", index)


def press(driver, *keys):
    ActionChains(driver).send_keys(*keys).perform()


def await_start(driver, name):
    wait_until(lambda: driver.execute_script("return document.getElementById('result').textContent")
               == f"Started {name}.", 20, "the page shows the message")
    wait_until(lambda: driver.execute_script("return document.getElementById('now-text').textContent")
               == f"{name} is playing.", 20, "the page shows what is playing")


LENGTHS = (40, 100, 255)


@pytest.mark.parametrize("page", [(length, size) for size in ("100%", "200%") for length in LENGTHS],
                         indirect=True)
def test_what_stays_visible_never_covers_the_focus(page):
    driver, name = page
    focus(driver, 20)
    press(driver, Keys.ENTER)
    await_start(driver, name)
    assert driver.execute_script(IS_FOCUS_SEEN)
    for step in range(STEPS):
        ActionChains(driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
        assert driver.execute_script("return Boolean(document.activeElement.closest('#clips'))")
        assert driver.execute_script(IS_FOCUS_SEEN), step
    assert driver.execute_script(COVERED) <= 0.55 * HEIGHT
    assert driver.execute_script("return document.documentElement.scrollWidth") == WIDTH
    result = driver.execute_script("return document.getElementById('result').getBoundingClientRect()")
    assert result["top"] >= 0 and result["bottom"] <= 0.5 * HEIGHT


@pytest.mark.parametrize("page", [(40, "100%"), (255, "100%")], indirect=True)
def test_stop_stays_visible(page):
    driver, name = page
    focus(driver, 20)
    press(driver, Keys.ENTER)
    await_start(driver, name)
    stop = driver.execute_script("return document.getElementById('stop').getBoundingClientRect()")
    assert stop["top"] >= 0 and stop["bottom"] <= 0.5 * HEIGHT


@pytest.mark.parametrize("page", [(100, "100%")], indirect=True)
def test_a_message_does_not_cover_the_button_that_was_pressed(page):
    driver, name = page
    driver.execute_script("scrollTo(0, document.documentElement.scrollHeight)")
    # The first button that can be seen, just below what stays visible.
    driver.execute_script("""
        const bottom = document.querySelector(".top").getBoundingClientRect().bottom;
        const button = [...document.querySelectorAll("#clips button")]
            .find((e) => e.getBoundingClientRect().top >= bottom);
        button.focus({preventScroll: true});
    """)
    press(driver, Keys.ENTER)
    wait_until(lambda: driver.execute_script("return document.getElementById('result').textContent")
               .startswith("Started Guest"), 20, "the page shows the message")
    wait_until(lambda: driver.execute_script(IS_FOCUS_SEEN), 20, "the button is visible")


@pytest.mark.parametrize("page", [(255, "100%"), (255, "200%")], indirect=True)
def test_a_text_that_is_cut_is_shown_whole_when_it_gets_the_focus(page):
    driver, name = page
    focus(driver, 20)
    press(driver, Keys.ENTER)
    await_start(driver, name)
    for text in (driver.find_element("id", "now-text"), driver.find_element("id", "result")):
        def count_lines(text=text):
            return driver.execute_script("""
                const style = getComputedStyle(arguments[0]);
                return Math.round(arguments[0].clientHeight / parseFloat(style.lineHeight));
            """, text)
        wait_until(lambda text=text: text.get_attribute("tabindex") == "0", 20, "it can get the focus")
        assert count_lines() == 2
        text.click()
        focused = driver.switch_to.active_element
        assert focused == text, focused.get_attribute("outerHTML")[:200]
        wait_until(lambda: count_lines() > 2, 20, "the text is shown")
        # The rest can be scrolled to.
        assert text.value_of_css_property("overflow-y") == "auto"
        focus(driver, 0)
        wait_until(lambda: count_lines() == 2, 20, "the text is cut again")


@pytest.mark.parametrize("page", [(10, "100%")], indirect=True)
def test_a_short_text_is_no_stop_for_the_keyboard(page):
    driver, name = page
    focus(driver, 20)
    press(driver, Keys.ENTER)
    await_start(driver, name)
    assert driver.execute_script("return document.querySelectorAll('.top [tabindex]').length") == 0
