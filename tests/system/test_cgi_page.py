"""The page of sonobrik.cgi in a real browser."""

import pytest

from sandbox import Store, Web, clips, find_server, wait_until
from sandbox.browser import find_browser, open_browser

if not find_server("lighttpd") or not find_browser():
    pytest.skip("lighttpd, chromium, its driver or selenium is not installed",
                allow_module_level=True)

from selenium.common.exceptions import WebDriverException  # noqa: E402 (only after the check above)
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402
from selenium.webdriver.support.select import Select  # noqa: E402

DOOR = "/etc/audioclips/door.wav"
BELL = "/etc/audioclips/bell.wav"

# The tree that screen readers use.
LISTEN = "Accessibility.getFullAXTree"


@pytest.fixture(scope="module")
def web(shared):
    server = Web(shared).start_lighttpd()
    store = Store(shared)
    for name in ("Door", "Bell"):
        path = shared.write_clip(f"{name.lower()}.wav", clips.tone(440, 0.5)).path
        store.add_clip(path, name)
    store.add_clip("/etc/audioclips/old.wav", "Old <b>bell</b>")
    yield server
    server.check()


@pytest.fixture(scope="module")
def scripted(web, tmp_path_factory):
    """A browser with the width of a phone."""
    with open_browser(tmp_path_factory.mktemp("browser"), 390, 800) as driver:
        yield driver


@pytest.fixture(scope="module")
def plain(web, tmp_path_factory):
    """A browser without JavaScript."""
    with open_browser(tmp_path_factory.mktemp("browser"), script=False) as driver:
        yield driver


@pytest.fixture
def quiet(asked):
    asked.call("StopPlayingClip")
    yield asked
    asked.call("StopPlayingClip")


def show(driver, web, query=""):
    driver.get(web.address.replace("http://", "http://anna:s3cret@") + query)
    return driver


def list_controls(driver):
    """Returns the role and the name of each element for screen readers, and whether it is enabled."""
    nodes = driver.execute_cdp_cmd(LISTEN, {})["nodes"]
    return [(node["role"]["value"], node["name"]["value"],
             not any(p["name"] == "disabled" and p["value"]["value"]
                     for p in node.get("properties", [])))
            for node in nodes if not node["ignored"] and node.get("name", {}).get("value")]


def find_button(driver, name):
    """Returns the button with this accessible name."""
    found = [button for button in driver.find_elements(By.TAG_NAME, "button")
             if button.accessible_name == name]
    assert len(found) == 1, name
    return found[0]


def read(driver, name):
    """Returns the text of the element with this ID, or "" while a page is loading."""
    try:
        return driver.find_element(By.ID, name).text
    except WebDriverException:
        return ""


def await_event(player, first, event):
    wait_until(lambda: event in player.events[first:], 20, f"{event} is sent")


def expect_no_faults(driver):
    """Asserts that the page's policy blocked nothing and that no script failed."""
    lines = [line["message"] for line in driver.get_log("browser")]
    assert [line for line in lines if "Failed to load resource" not in line] == []


def test_play_and_stop_with_script(web, quiet, scripted):
    first = len(quiet.events)
    driver = show(scripted, web)
    address = driver.current_url
    find_button(driver, "Play Door").click()
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, DOOR))
    wait_until(lambda: read(driver, "result") == "Started Door.", 20, "the page shows the result")
    find_button(driver, "Stop Door").click()
    wait_until(lambda: read(driver, "result") == "Stopped.", 20, "the page shows the result")
    await_event(quiet, first, ("Playing", 1, 0, 0, False))
    wait_until(lambda: read(driver, "now-text") == "Nothing is playing.", 20, "the page shows it")
    assert driver.current_url == address
    expect_no_faults(driver)


def test_the_page_updates_what_is_playing(web, quiet, scripted):
    driver = show(scripted, web)
    assert read(driver, "now-text") == "Nothing is playing."
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    wait_until(lambda: read(driver, "now-text") == "bell.wav is playing on output 0.", 20, "the page shows it")
    marked = "return [...document.querySelectorAll('li.playing h3')].map((e) => e.textContent)"
    assert driver.execute_script(marked) == ["Bell"]
    find_button(driver, "Play Door").click()
    wait_until(lambda: read(driver, "result").startswith("A clip is already playing."), 20,
               "the page shows the conflict")
    quiet.call("StopPlayingClip")
    wait_until(lambda: read(driver, "now-text") == "Nothing is playing.", 20, "the page shows it")
    assert driver.execute_script(marked) == []
    expect_no_faults(driver)


def test_the_choices_are_sent(shared, web, quiet, scripted):
    driver = show(scripted, web)
    logged = len(shared.daemon.texts)
    volume = driver.find_element(By.ID, "volume")
    volume.clear()
    volume.send_keys("25")
    Select(driver.find_element(By.ID, "output")).select_by_visible_text("output 0")
    Select(driver.find_element(By.ID, "repeat")).select_by_visible_text("until stopped")
    find_button(driver, "Play Bell").click()
    line = ("info: sonobrik_play_clip_asynchronous with options: "
            f"location={BELL}&volume=25&repeat=-1&audiooutput=0")
    wait_until(lambda: line in shared.daemon.texts[logged:], 20, "the request is logged")


def test_the_page_works_with_the_keyboard_alone(web, quiet, scripted):
    first = len(quiet.events)
    driver = show(scripted, web)
    names = []
    for _ in range(12):
        driver.switch_to.active_element.send_keys(Keys.TAB)
        element = driver.switch_to.active_element
        names.append(element.accessible_name)
        outline = element.value_of_css_property("outline-style")
        assert element.tag_name == "body" or outline == "solid", names
        if names[-1] == "Play Bell":
            break
    assert names == ["Stop", "Volume (%)", "Output", "Number of plays", "Play Door", "Stop Door",
                     "Play Bell"]
    driver.switch_to.active_element.send_keys(Keys.ENTER)
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, BELL))


def test_enter_in_a_field_plays_nothing(web, quiet, scripted, plain):
    first = len(quiet.events)
    for driver in (scripted, plain):
        show(driver, web)
        driver.find_element(By.ID, "volume").send_keys(Keys.ENTER)
        find_button(driver, "Stop").click()  # handled after the Enter key
        wait_until(lambda: read(driver, "result") == "Stopped.", 20, "the page shows the result")
    quiet.fence()
    assert quiet.events[first:] == []


def test_screen_readers_get_names_for_everything(web, quiet, scripted):
    controls = list_controls(show(scripted, web))
    assert ("heading", "Sonobrik", True) in controls
    assert [name for role, name, _ in controls if role == "heading"] == [
        "Sonobrik", "Clips", "Door", "Bell", "Old <b>bell</b>"]
    assert [(name, usable) for role, name, usable in controls if role == "button"] == [
        ("Stop", True), ("Play Door", True), ("Stop Door", True), ("Play Bell", True),
        ("Stop Bell", True), ("Play Old <b>bell</b>", False), ("Stop Old <b>bell</b>", True)]
    assert ("spinbutton", "Volume (%)", True) in controls
    assert {("combobox", "Output", True), ("combobox", "Number of plays", True)} <= set(controls)
    driver = scripted
    assert driver.execute_script("return document.documentElement.lang") == "en"
    # The elements for later messages exist from the start.
    nodes = driver.execute_cdp_cmd(LISTEN, {})["nodes"]
    assert [node["role"]["value"] for node in nodes if not node["ignored"]].count("status") == 2


def test_it_fits_the_width_of_a_phone(web, scripted):
    driver = show(scripted, web)
    inner, outer = driver.execute_script(
        "return [document.documentElement.scrollWidth, innerWidth]")
    assert inner <= outer == 390
    sizes = driver.execute_script(
        "return [...document.querySelectorAll('button')].filter((e) => e.offsetWidth)"
        ".map((e) => Math.min(e.offsetWidth, e.offsetHeight))")
    assert len(sizes) == 7 and min(sizes) >= 44


def test_large_text_fits_on_a_phone(web, scripted):
    driver = show(scripted, web)
    inner, widths = driver.execute_script("""
        document.documentElement.style.fontSize = "200%";
        return [document.documentElement.scrollWidth,
                [...document.querySelectorAll(".now p, .about")].map((e) => e.offsetWidth)];
    """)
    assert inner <= 390
    assert len(widths) == 4 and min(widths) >= 200


def test_the_result_stays_visible_and_does_not_cover_the_focus(web, quiet, scripted):
    driver = show(scripted, web)
    driver.execute_script("""
        const list = document.querySelector(".clips");
        for (let i = 0; i < 20; i++) {
            list.prepend(list.querySelector("li").cloneNode(true));
        }
    """)
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    find_button(driver, "Play Bell").click()
    wait_until(lambda: read(driver, "result").startswith("A clip is already playing."), 20,
               "the page shows the conflict")
    top, bottom = driver.execute_script("""
        const box = document.getElementById("result").getBoundingClientRect();
        return [box.top, box.bottom];
    """)
    assert 0 <= top < bottom < 200
    for _ in range(40):
        ActionChains(driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
        focus = driver.execute_script("""
            return document.activeElement.closest(".clips") &&
                document.activeElement.getBoundingClientRect().top;
        """)
        assert focus is None or focus >= bottom


# Computes the lowest contrast between a text on the page and its background, as defined by WCAG.
CONTRAST = """
const parse = (color) => color.match(/[\\d.]+/g).map(Number);
const light = (color) => {
    const [r, g, b] = parse(color).slice(0, 3).map((value) => value / 255)
        .map((v) => v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const ground = (element) => {
    for (let e = element; e; e = e.parentElement) {
        const color = getComputedStyle(e).backgroundColor;
        if ((parse(color)[3] ?? 1) > 0) {
            return color;
        }
    }
    return "rgb(255, 255, 255)";
};
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
const ratios = [];
while (walker.nextNode()) {
    const element = walker.currentNode.parentElement;
    if (walker.currentNode.data.trim() && element.checkVisibility()) {
        const pair = [light(getComputedStyle(element).color), light(ground(element))];
        ratios.push((Math.max(...pair) + 0.05) / (Math.min(...pair) + 0.05));
    }
}
return [ratios.length, Math.min(...ratios)];
"""


@pytest.mark.parametrize("scheme", ["light", "dark"])
@pytest.mark.parametrize("result", ["playing&clip=0", "busy"])
def test_texts_have_enough_contrast(web, quiet, scripted, scheme, result):
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    scripted.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
        {"name": "prefers-color-scheme", "value": scheme}]})
    count, least = show(scripted, web, f"?result={result}").execute_script(CONTRAST)
    assert count > 20
    assert least >= 4.5


def test_play_and_stop_without_script(web, quiet, plain):
    first = len(quiet.events)
    driver = show(plain, web)
    find_button(driver, "Play Bell").click()
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, BELL))
    wait_until(lambda: read(driver, "result") == "Started Bell.", 20, "the page shows the result")
    count = len(quiet.events)
    driver.refresh()
    assert read(driver, "result") == "Started Bell."
    find_button(driver, "Stop Bell").click()
    wait_until(lambda: read(driver, "result") == "Stopped.", 20, "the page shows the result")
    await_event(quiet, first, ("Playing", 1, 0, 0, False))
    quiet.fence()
    assert [event for event in quiet.events[count:] if event[:1] == ("Playing",)
            and event[-1]] == []  # reloading did not play the clip again
    assert "Refresh" in read(driver, "now")  # only without JavaScript
    expect_no_faults(driver)


def test_a_link_on_another_site_plays_nothing(web, quiet, scripted):
    first = len(quiet.events)
    driver = show(scripted, web)
    # For the browser, another host name is another site.
    driver.get(web.address.replace("127.0.0.1", "localhost") + "?page=1")
    driver.execute_script("""
        document.documentElement.innerHTML = '<a id="link">x</a>';
        document.getElementById("link").href = arguments[0];
        document.getElementById("link").click();
    """, web.address + "?action=play&clip=0")
    wait_until(lambda: "other sites are refused" in driver.page_source, 20, "the request is refused")
    quiet.fence()
    assert quiet.events[first:] == []


def test_the_page_shows_that_the_daemon_is_away(sandbox, tmp_path):
    sandbox.start_daemon()
    server = Web(sandbox).start_lighttpd()
    with open_browser(tmp_path / "browser", 390, 800) as driver:
        show(driver, server)
        assert read(driver, "now-text") == "Nothing is playing."
        assert sandbox.daemon.stop() == 0
        text = ("Cannot tell what is playing. "
                "The daemon cannot be reached. Try again in a moment.")
        wait_until(lambda: read(driver, "now-text") == text, 20, "the page shows the result")
        find_button(driver, "Stop").click()
        wait_until(lambda: read(driver, "result").startswith("The daemon cannot be reached."), 20,
                   "the page shows the result")
    server.check()
