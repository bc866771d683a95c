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
        path = shared.write_clip(f"{name.lower()}.wav", clips.tone(440, 1)).path
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


def show_plain(driver, web):
    """Shows the page to a browser without script, which it sends to another address."""
    show(driver, web)
    wait_until(lambda: "plain=1" in driver.current_url
               and driver.find_elements(By.TAG_NAME, "h3"), 20, "the page for no script is shown")
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


def await_button(driver, name):
    """Waits until there is a button with this accessible name, and returns it."""
    wait_until(lambda: name in [button.accessible_name
                                for button in driver.find_elements(By.TAG_NAME, "button")],
               20, f"the page shows the button {name!r}")
    return find_button(driver, name)


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


def await_text(driver, name, text):
    wait_until(lambda: read(driver, name) == text, 20, f"the page shows {text!r}")


def list_shown(driver):
    """Returns the titles of the clips in the list that can be seen."""
    return driver.execute_script(
        "return [...document.querySelectorAll('#clips h3')].filter((e) => e.checkVisibility())"
        ".map((e) => e.textContent)")


def read_titles(driver):
    """Returns the titles of all clips in the list."""
    return driver.execute_script(
        "return [...document.querySelectorAll('#clips h3')].map((e) => e.textContent)")


def test_play_and_stop_with_script(web, quiet, scripted):
    first = len(quiet.events)
    driver = show(scripted, web)
    assert not find_button(driver, "Stop").is_enabled()
    find_button(driver, "Play Door").click()
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, DOOR))
    await_event(quiet, first, ("Playing", 1, 0, 0, False))
    await_text(driver, "now-text", "Nothing is playing.")
    choose(driver, "repeat", "until stopped")
    find_button(driver, "Play Door").click()
    await_text(driver, "result", "Started Door.")
    await_text(driver, "now-text", "Door is playing.")
    find_button(driver, "Stop").click()
    await_text(driver, "result", "Stopped.")
    await_text(driver, "now-text", "Nothing is playing.")
    assert not find_button(driver, "Stop").is_enabled()
    assert driver.current_url.endswith("/vesk-cgi/sonobrik.cgi")
    expect_no_faults(driver)


def choose(driver, name, text):
    driver.execute_script("document.getElementById('options').open = true")
    Select(driver.find_element(By.ID, name)).select_by_visible_text(text)


def test_the_page_updates_what_is_playing(web, quiet, scripted):
    driver = show(scripted, web)
    assert read(driver, "now-text") == "Nothing is playing."
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    await_text(driver, "now-text", "Bell is playing.")
    marked = "return [...document.querySelectorAll('li.playing h3')].map((e) => e.textContent)"
    assert driver.execute_script(marked) == ["Bell"]
    wait_until(lambda: "left of 0:01" in read(driver, "now-detail"), 20, "the time that is left")
    progress = driver.find_element(By.ID, "progress")
    assert progress.is_displayed() and progress.get_attribute("max") == "1000"
    find_button(driver, "Restart Bell")
    choose(driver, "repeat", "until stopped")
    find_button(driver, "Play instead Door").click()
    await_text(driver, "now-text", "Door is playing.")
    quiet.call("StopPlayingClip")
    await_text(driver, "now-text", "Nothing is playing.")
    assert driver.execute_script(marked) == []
    assert not progress.is_displayed()
    expect_no_faults(driver)


def test_a_message_disappears_when_it_is_no_longer_true(web, quiet, scripted):
    driver = show(scripted, web)
    # Another client starts a clip after the page asked, and before the user presses the button.
    driver.execute_script("clearTimeout(timers.poll)")
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    find_button(driver, "Play Door").click()
    wait_until(lambda: read(driver, "result").startswith("A clip is already playing."), 20,
               "the page shows the conflict")
    quiet.call("StopPlayingClip")
    await_text(driver, "result", "")
    choose(driver, "repeat", "until stopped")
    find_button(driver, "Play Door").click()
    await_text(driver, "result", "Started Door.")
    quiet.call("StopPlayingClip")
    quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
    await_text(driver, "now-text", "Bell is playing.")
    assert read(driver, "result") == ""


def test_a_clip_is_not_played_in_place_of_another(shared, web, quiet, scripted):
    """Another client removes a clip and adds one, which gets the same number."""
    store = Store(shared)
    number = store.add_clip(BELL, "Spare")
    driver = show(scripted, web)
    try:
        # Ends the page's own requests, also after one that is under way.
        driver.execute_script("clearTimeout(timers.poll);"
                              "Object.defineProperty(document, 'hidden', {value: true})")
        store.call("RemoveConfiguration", "(i)", number)
        assert store.add_clip(DOOR, "Alarm") == number
        first = len(quiet.events)
        find_button(driver, "Play Spare").click()
        wait_until(lambda: read(driver, "result").startswith("The clip has changed"), 20,
                   "the clip is refused")
        wait_until(lambda: "Alarm" in list_shown(driver), 20, "the page shows the new clip")
        quiet.fence()
        assert quiet.events[first:] == []
    finally:
        store.call("RemoveConfiguration", "(i)", number)


def test_a_double_click_plays_once(web, quiet, scripted):
    driver = show(scripted, web)
    driver.execute_script("""
        window.sent = 0;
        const fetchAsIs = fetch;
        fetch = (...words) => {
            sent += words[1]?.method === "POST";
            return fetchAsIs(...words);
        };
    """)
    choose(driver, "repeat", "until stopped")
    ActionChains(driver).double_click(find_button(driver, "Play Door")).perform()
    await_text(driver, "result", "Started Door.")
    assert driver.execute_script("return sent") == 1


def test_the_list_follows_changes(shared, web, quiet, scripted):
    driver = show(scripted, web)
    before = list_shown(driver)
    store = Store(shared)
    number = store.add_clip(BELL, "New 🔔")
    wait_until(lambda: list_shown(driver) == [*before, "New 🔔"], 20, "the clip is shown")
    store.rename(number, "Newer")
    wait_until(lambda: list_shown(driver) == [*before, "Newer"], 20, "the clip is renamed")
    driver.execute_script("arguments[0].focus()", find_button(driver, "Play Newer"))
    store.call("RemoveConfiguration", "(i)", number)
    wait_until(lambda: list_shown(driver) == before, 20, "the clip is removed")
    assert driver.execute_script("return document.activeElement.tagName") == "BUTTON"
    expect_no_faults(driver)


def test_a_search_field_appears_with_many_clips(shared, web, quiet, scripted):
    driver = show(scripted, web)
    assert not driver.find_element(By.ID, "search").is_displayed()
    store = Store(shared)
    numbers = [store.add_clip(BELL, f"Guest {i}") for i in range(9)]
    try:
        wait_until(lambda: len(list_shown(driver)) == 12, 20, "the clips are shown")
        search = driver.find_element(By.ID, "search")
        assert search.is_displayed()
        search.send_keys("guest 7")
        assert list_shown(driver) == ["Guest 7"]
        search.send_keys("x")
        assert list_shown(driver) == []
        assert read(driver, "empty-text") == "No clip matches."
        # Accents are ignored. Here, the name has one as a character of its own.
        store.rename(numbers[3], "Gu\u0308este")
        wait_until(lambda: "Gu\u0308este" in read_titles(driver), 20, "the clip is renamed")
        search.clear()
        search.send_keys("gÜ")
        assert list_shown(driver) == [title for title in read_titles(driver) if title.startswith("Gu")]
        search.send_keys("e")
        assert "Gu\u0308este" in list_shown(driver)
        search.send_keys("x")
        assert read(driver, "empty-text") == "No clip matches."
        driver.execute_script("document.getElementById('search').value = ''")
    finally:
        for number in numbers:
            store.call("RemoveConfiguration", "(i)", number)


def test_the_options_are_sent_and_remembered(shared, web, quiet, scripted):
    driver = show(scripted, web)
    logged = len(shared.daemon.texts)
    driver.execute_script("document.getElementById('options').open = true")
    volume = driver.find_element(By.ID, "volume")
    volume.clear()
    volume.send_keys("125")
    assert "may damage ears" in read(driver, "loud")
    choose(driver, "output", "output 0")
    choose(driver, "repeat", "until stopped")
    find_button(driver, "Play Bell").click()
    line = ("info: sonobrik_play_clip_asynchronous with options: "
            f"location={BELL}&volume=125&repeat=-1&audiooutput=0")
    wait_until(lambda: line in shared.daemon.texts[logged:], 20, "the request is logged")
    show(driver, web)
    assert driver.find_element(By.ID, "volume").get_attribute("value") == "125"
    assert read(driver, "options-text") == "volume 125 %, output 0, until stopped"
    driver.execute_script("localStorage.clear()")
    show(driver, web)
    assert driver.find_element(By.ID, "volume").get_attribute("value") == "100"
    assert not driver.find_element(By.ID, "options").get_property("open")  # folded on a phone
    slider = driver.find_element(By.ID, "slider")
    driver.execute_script("document.getElementById('options').open = true")
    slider.send_keys(Keys.ARROW_LEFT)
    assert driver.find_element(By.ID, "volume").get_attribute("value") == "95"
    driver.execute_script("localStorage.clear()")


def test_a_volume_that_is_not_allowed_is_shown(web, quiet, scripted):
    """Otherwise the buttons seem to do nothing while the options are folded."""
    first = len(quiet.events)
    driver = show(scripted, web)
    options = driver.find_element(By.ID, "options")
    driver.execute_script("arguments[0].open = true", options)
    volume = driver.find_element(By.ID, "volume")
    volume.clear()
    assert read(driver, "options-text") == "volume 100 %, once"  # which it is without a volume
    volume.send_keys("1001")
    driver.execute_script("arguments[0].open = false", options)
    find_button(driver, "Play Door").click()
    assert options.get_property("open")
    assert driver.switch_to.active_element == volume
    quiet.fence()
    assert quiet.events[first:] == []


def test_the_page_works_with_the_keyboard_alone(web, quiet, scripted):
    first = len(quiet.events)
    driver = show(scripted, web)
    names = []
    for _ in range(8):
        driver.switch_to.active_element.send_keys(Keys.TAB)
        element = driver.switch_to.active_element
        names.append(element.accessible_name)
        outline = element.value_of_css_property("outline-style")
        assert element.tag_name == "body" or outline == "solid", names
        if names[-1] == "Play Bell":
            break
    assert names[0].startswith("Options") and names[1:] == ["Play Door", "Play Bell"]
    driver.switch_to.active_element.send_keys(Keys.ENTER)
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, BELL))


def test_enter_in_a_field_plays_nothing(web, quiet, scripted, plain):
    first = len(quiet.events)
    show(scripted, web)
    scripted.execute_script("document.getElementById('options').open = true")
    show_plain(plain, web)
    for driver in (scripted, plain):
        driver.find_element(By.ID, "volume").send_keys(Keys.ENTER)
    find_button(plain, "Stop").click()  # handled after the Enter key
    await_text(plain, "result", "Stopped.")
    quiet.fence()
    assert quiet.events[first:] == []


def test_screen_readers_get_names_for_everything(web, quiet, scripted):
    driver = show(scripted, web)
    driver.execute_script("document.getElementById('options').open = true")
    controls = list_controls(driver)
    assert [name for role, name, _ in controls if role == "heading"] == [
        "Sonobrik", "Clips", "Door", "Bell", "Old <b>bell</b>"]
    assert [(name, usable) for role, name, usable in controls if role == "button"] == [
        ("Stop", False), ("Play Door", True), ("Play Bell", True), ("Play Old <b>bell</b>", False)]
    assert {("spinbutton", "Volume (%)", True), ("slider", "Volume up to 100 %", True),
            ("combobox", "Output", True), ("combobox", "Number of plays", True)} <= set(controls)
    assert driver.execute_script("return document.documentElement.lang") == "en"
    # The elements for later messages exist from the start.
    nodes = driver.execute_cdp_cmd(LISTEN, {})["nodes"]
    assert [node["role"]["value"] for node in nodes if not node["ignored"]].count("status") >= 2


def test_it_fits_the_width_of_a_phone(web, scripted):
    driver = show(scripted, web)
    inner, outer = driver.execute_script(
        "return [document.documentElement.scrollWidth, innerWidth]")
    assert inner <= outer == 390
    sizes = driver.execute_script(
        "return [...document.querySelectorAll('button, summary')].filter((e) => e.offsetWidth)"
        ".map((e) => Math.min(e.offsetWidth, e.offsetHeight))")
    assert len(sizes) == 5 and min(sizes) >= 44
    driver.execute_script("document.getElementById('options').open = true")
    # A choice takes the whole width, so that the name of an output is not cut off.
    assert driver.execute_script("return document.getElementById('output').offsetWidth") >= 320
    driver.execute_script("localStorage.clear()")


def test_large_text_fits_on_a_phone(web, scripted):
    driver = show(scripted, web)
    inner, widths = driver.execute_script("""
        document.documentElement.style.fontSize = "200%";
        return [document.documentElement.scrollWidth,
                [...document.querySelectorAll(".now p, .about")].map((e) => e.offsetWidth)];
    """)
    assert inner <= 390
    assert len(widths) == 4 and min(widths) >= 180


def test_what_plays_stays_visible_and_does_not_cover_the_focus(shared, web, quiet, scripted):
    store = Store(shared)
    numbers = [store.add_clip(BELL, f"Guest {i}") for i in range(20)]
    try:
        driver = show(scripted, web)
        quiet.call("StartPlayingClip", f"location={BELL}&repeat=-1")
        await_text(driver, "now-text", "Bell is playing.")
        driver.execute_script("document.querySelectorAll('#clips button')[22].focus()")
        assert driver.execute_script("return scrollY") > 200
        bottom = driver.execute_script(
            "return document.querySelector('.top').getBoundingClientRect().bottom")
        assert driver.execute_script(
            "return document.getElementById('now').getBoundingClientRect().top") >= 0
        for _ in range(20):
            ActionChains(driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
            focus = driver.execute_script("""
                return document.activeElement.closest(".clips") &&
                    document.activeElement.getBoundingClientRect().top;
            """)
            assert focus is None or focus >= bottom
    finally:
        for number in numbers:
            store.call("RemoveConfiguration", "(i)", number)


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
    driver = show(scripted, web, f"?result={result}")
    driver.execute_script("document.getElementById('options').open = true")
    count, least = driver.execute_script(CONTRAST)
    assert count > 20
    assert least >= 4.5


def test_play_and_stop_without_script(web, quiet, plain):
    first = len(quiet.events)
    driver = show_plain(plain, web)
    find_button(driver, "Play Bell").click()
    await_event(quiet, first, ("CurrentlyPlaying", 1, 0, 0, BELL))
    await_text(driver, "result", "Started Bell.")
    count = len(quiet.events)
    driver.refresh()
    assert read(driver, "result") == "Started Bell."
    find_button(driver, "Stop").click()
    await_text(driver, "result", "Stopped.")
    await_event(quiet, first, ("Playing", 1, 0, 0, False))
    quiet.fence()
    assert [event for event in quiet.events[count:] if event[:1] == ("Playing",)
            and event[-1]] == []  # reloading did not play the clip again
    expect_no_faults(driver)


def test_the_page_without_script_keeps_the_options(web, quiet, plain):
    def read_options():
        return [plain.find_element(By.ID, name).get_property("value")
                for name in ("volume", "output", "repeat", "instead")]

    driver = show_plain(plain, web)
    driver.execute_script("document.getElementById('volume').value = 30")
    for name, text in (("output", "output 0"), ("repeat", "until stopped"), ("instead", "play instead")):
        Select(driver.find_element(By.ID, name)).select_by_visible_text(text)
    chosen = ["30", "0", "-1", "1"]
    for clip in ("Bell", "Door"):
        find_button(driver, f"Play {clip}").click()
        await_text(driver, "result", f"Started {clip}.")
        assert read_options() == chosen
    find_button(driver, "Stop").click()
    await_text(driver, "result", "Stopped.")
    assert read_options() == chosen
    driver.find_element(By.LINK_TEXT, "Refresh").click()
    await_text(driver, "result", "")
    assert read_options() == chosen


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
    Store(sandbox).add_clip(sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path, "Door")
    server = Web(sandbox).start_lighttpd()
    with open_browser(tmp_path / "browser", 390, 800) as driver:
        show(driver, server)
        assert read(driver, "now-text") == "Nothing is playing."
        assert sandbox.daemon.stop() == 0
        await_text(driver, "now-text", "The daemon cannot be reached. Try again in a moment.")
        usable = "return [...document.querySelectorAll('button')].filter((e) => e.offsetWidth && !e.disabled)"
        assert driver.execute_script(usable) == []
        sandbox.start_daemon()
        await_text(driver, "now-text", "Nothing is playing.")
        assert find_button(driver, "Play Door").is_enabled()
        assert sandbox.daemon.stop() == 0
        show(driver, server)
        assert "The clips cannot be shown" in driver.page_source
        sandbox.start_daemon()
        await_text(driver, "now-text", "Nothing is playing.")
    server.check()


def test_the_page_says_that_the_daemon_is_slow(sandbox, tmp_path):
    sandbox.start_daemon()
    Store(sandbox).add_clip(sandbox.write_clip("door.wav", clips.tone(440, 30)).path, "Door")
    server = Web(sandbox).start_lighttpd()
    with open_browser(tmp_path / "browser", 390, 800) as driver:
        show(driver, server)
        sandbox.daemon.pause()
        try:
            find_button(driver, "Play Door").click()
            await_text(driver, "result", "Starting Door …")
            await_text(driver, "now-text", "The device is not responding.")
            assert not find_button(driver, "Play Door").is_enabled()
        finally:
            sandbox.daemon.go_on()
        await_text(driver, "now-text", "Door is playing.")
        await_text(driver, "result", "Started Door.")
        # The daemon goes away while the user presses the button, and comes back.
        driver.execute_script("clearTimeout(timers.poll)")
        assert sandbox.daemon.stop() == 0
        find_button(driver, "Stop").click()
        await_text(driver, "result", "The daemon cannot be reached. Try again in a moment.")
        sandbox.start_daemon()
        await_text(driver, "result", "")
        await_text(driver, "now-text", "Nothing is playing.")
    server.check()


def test_a_browser_that_cannot_run_the_script_gets_a_link(web, scripted):
    driver = show(scripted, web)
    assert driver.find_elements(By.ID, "fallback") == []
    code = driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument",
                                  {"source": "delete Array.prototype.findLast; delete window.URLSearchParams"})
    try:
        show(driver, web)
        driver.find_element(By.ID, "fallback").find_element(By.TAG_NAME, "a").click()
        wait_until(lambda: driver.current_url.endswith("?plain=1"), 20, "the plain page is shown")
    finally:
        driver.execute_cdp_cmd("Page.removeScriptToEvaluateOnNewDocument", code)
        driver.get_log("browser")
    await_text(driver, "now-text", "Nothing is playing.")


# Changing clips


@pytest.fixture
def managing(web, scripted):
    """The page for managers."""
    scripted.get(web.manage_address.replace("http://", "http://mia:s3cret@"))
    return scripted


def test_only_managers_see_what_changes_clips(web, scripted, managing):
    assert find_button(managing, "⋯ Change Door").is_displayed()
    assert managing.find_element(By.ID, "adding").is_displayed()
    driver = show(scripted, web)
    assert "Change Door" not in " ".join(name for _, name, _ in list_controls(driver))
    assert not driver.find_element(By.ID, "adding").is_displayed()


def test_files_are_uploaded_with_a_name_each(shared, web, managing, tmp_path):
    driver = managing
    good, flac, huge = (tmp_path / name for name in ("Gong 🔔.wav", "song.flac", "huge.wav"))
    clips.write_wav(good, clips.tone(500, 0.3))
    flac.write_bytes(b"fLaC")
    with huge.open("wb") as file:
        file.truncate(33 * 1024 * 1024)
    fake = tmp_path / "fake.wav"
    fake.write_bytes(b"no media")
    before = list_shown(driver)
    driver.execute_script("document.getElementById('adding').open = true")
    driver.find_element(By.ID, "files").send_keys("\n".join(map(str, (good, flac, huge, fake))))
    rows = driver.find_elements(By.CSS_SELECTOR, "#queue li")
    assert "Convert it to Opus, MP3 or WAV" in rows[1].text
    assert "The file has 33 MiB; the limit is 32 MiB." in rows[2].text
    name = rows[0].find_element(By.TAG_NAME, "input")
    assert (name.get_attribute("value"), name.accessible_name) == ("Gong 🔔", "Name of the clip Gong 🔔.wav")
    name.clear()
    name.send_keys("My gong")
    find_button(driver, "Add 2 clips").click()
    wait_until(lambda: driver.execute_script("return document.getElementById('upload-status').textContent")
               == "1 added, 1 not added.", 30, "the files are sent")
    assert rows[0].text.endswith("Gong 🔔.wav: added.")
    assert "It is damaged, or of a format" in rows[3].text
    assert list_shown(driver) == [*before, "My gong"]
    assert (shared.etc / "audioclips/Gong 🔔.wav").read_bytes() == good.read_bytes()
    remove_last(shared, driver, before, "My gong")


# A combined one, one with a colour, a flag of tags, and one that is newer than many libraries.
EMOJI = ("Tür 👨\u200d👩\u200d👧 👍🏽 🏴\U000e0067\U000e0062\U000e0073\U000e0063\U000e0074\U000e007f "
         "\U0001fae9")


def test_emoji_are_shown_as_themselves(shared, web, quiet, managing, plain):
    driver = managing
    store = Store(shared)
    before = list_shown(driver)
    number = store.add_clip(BELL, "Spare")
    try:
        wait_until(lambda: list_shown(driver) == [*before, "Spare"], 20, "the clip is shown")
        find_button(driver, "⋯ Change Spare").click()
        driver.execute_script("document.getElementById('edit-name').value = arguments[0]", EMOJI)
        find_button(driver, "Rename").click()
        wait_until(lambda: list_shown(driver) == [*before, EMOJI], 20, "the clip is renamed")
        show_plain(plain, web)
        names = [e.get_attribute("textContent") for e in plain.find_elements(By.TAG_NAME, "h3")]
        assert names == [*before, EMOJI]
    finally:
        store.call("RemoveConfiguration", "(i)", number)


def remove_last(shared, driver, before, name):
    find_button(driver, f"⋯ Change {name}").click()
    find_button(driver, "Remove with its file").click()
    driver.switch_to.alert.accept()
    wait_until(lambda: list_shown(driver) == before, 20, "the clip is removed")
    expect_no_faults(driver)


def test_files_can_be_dropped_on_the_page(shared, web, managing):
    driver = managing
    driver.execute_script("""
        const data = new DataTransfer();
        data.items.add(new File(["x"], "dropped.wav"));
        document.body.dispatchEvent(new DragEvent("dragover", {bubbles: true, cancelable: true, dataTransfer: data}));
        document.body.dispatchEvent(new DragEvent("drop", {bubbles: true, cancelable: true, dataTransfer: data}));
    """)
    assert "dropped.wav, 1 KiB" in driver.find_element(By.ID, "queue").text
    find_button(driver, "Clear the list").click()
    assert driver.find_element(By.ID, "queue").text == ""


def drop_files(driver, paths):
    """Drops files from the user's file manager on the page."""
    place = driver.execute_script("""
        const box = document.getElementById("adding").getBoundingClientRect();
        return {x: box.x + 20, y: box.y + 20};
    """)
    data = {"items": [], "files": [str(path) for path in paths], "dragOperationsMask": 1}
    for kind in ("dragEnter", "dragOver", "drop"):
        driver.execute_cdp_cmd("Input.dispatchDragEvent", {"type": kind, "data": data} | place)
    wait_until(lambda: len(driver.find_elements(By.CSS_SELECTOR, "#queue li")) == len(paths), 20,
               "the page lists the files")


def test_a_folder_that_is_dropped_is_refused(web, managing, tmp_path):
    file = tmp_path / "a.wav"
    clips.write_wav(file, clips.tone(500, 0.1))
    folder = tmp_path / "folder"
    folder.mkdir()
    drop_files(managing, [folder, file])
    rows = managing.find_elements(By.CSS_SELECTOR, "#queue li")
    assert "This is a folder." in rows[0].text
    assert find_button(managing, "Add 1 clip").is_displayed()
    find_button(managing, "✕ Do not add a.wav").click()
    assert not managing.find_element(By.ID, "send").is_displayed()
    find_button(managing, "Clear the list").click()


def test_the_suggested_name_is_one_that_the_device_accepts(shared, web, managing, tmp_path):
    driver = managing
    before = list_shown(driver)
    file = tmp_path / "a\nb\x1bc\u202ed.wav"
    clips.write_wav(file, clips.tone(500, 0.1))
    drop_files(driver, [file])
    name = driver.find_element(By.CSS_SELECTOR, "#queue input")
    assert name.get_attribute("value") == "abcd"
    driver.execute_script("arguments[0].value = arguments[1]", name, "🔔" * 64)
    find_button(driver, "Add 1 clip").click()
    wait_until(lambda: "The name is too long." in driver.find_element(By.ID, "queue").text, 20,
               "the name is refused")
    driver.execute_script("arguments[0].value = arguments[1]", name, "🔔" * 63)
    await_button(driver, "Add 1 clip").click()
    wait_until(lambda: list_shown(driver) == [*before, "🔔" * 63], 20, "the clip is added")
    assert (shared.etc / "audioclips/abcd.wav").exists()
    # The name of a file may have more bytes than that of a clip.
    suggested = driver.execute_script("return suggestName('é'.repeat(200) + '.wav')")
    assert suggested == "é" * 127
    remove_last(shared, driver, before, "🔔" * 63)


def test_an_upload_is_cancelled_and_tried_again(shared, web, managing, tmp_path):
    driver = managing
    before = list_shown(driver)
    files = [tmp_path / name for name in ("first.wav", "second.wav")]
    for file in files:
        clips.write_wav(file, clips.noise(1_000_000))
    # So slow that it does not end by itself.
    limit = {"offline": False, "latency": 0, "downloadThroughput": -1, "uploadThroughput": 50_000}
    driver.execute_cdp_cmd("Network.enable", {})
    driver.execute_cdp_cmd("Network.emulateNetworkConditions", limit)
    driver.execute_script("document.getElementById('adding').open = true")
    driver.find_element(By.ID, "files").send_keys("\n".join(map(str, files)))
    try:
        find_button(driver, "Add 2 clips").click()
        assert driver.switch_to.active_element == find_button(driver, "Cancel")
        wait_until(lambda: "Sending, " in driver.find_element(By.ID, "queue").text, 20, "it is sent")
        find_button(driver, "Cancel").click()
        wait_until(lambda: "first.wav: Not sent." in driver.find_element(By.ID, "queue").text, 20,
                   "the upload ends")
    finally:
        driver.execute_cdp_cmd("Network.emulateNetworkConditions", limit | {"uploadThroughput": -1})
    await_button(driver, "Add 2 clips").click()
    wait_until(lambda: list_shown(driver) == [*before, "first", "second"], 30, "both are added")
    wait_until(lambda: list((shared.etc / "audioclips/.uploads").iterdir()) == [], 60,
               "the cancelled file is removed")
    remove_last(shared, driver, [*before, "first"], "second")
    remove_last(shared, driver, before, "first")


def test_the_focus_stays_near_a_changed_clip(shared, web, managing):
    driver = managing
    store = Store(shared)
    number = store.add_clip(BELL, "Spare")
    wait_until(lambda: "Spare" in list_shown(driver), 20, "the clip is shown")
    find_button(driver, "⋯ Change Spare").send_keys(Keys.ENTER)
    # Not a field, because phones would open a keyboard over the dialog.
    assert driver.switch_to.active_element.tag_name == "h2"
    field = driver.find_element(By.ID, "edit-name")
    field.clear()
    field.send_keys("Newer", Keys.ENTER)
    wait_until(lambda: driver.switch_to.active_element.accessible_name == "⋯ Change Newer", 20,
               "the focus is back at the clip")
    driver.switch_to.active_element.send_keys(Keys.ENTER)
    store.call("RemoveConfiguration", "(i)", number)
    wait_until(lambda: "Newer" not in list_shown(driver), 20, "the clip is removed")
    driver.switch_to.active_element.send_keys(Keys.ESCAPE)
    wait_until(lambda: driver.switch_to.active_element.accessible_name.startswith("⋯ Change Old"), 20,
               "the focus is at the last clip")


def test_the_dialog_fits_a_phone_with_large_text(web, managing):
    size = {"height": 740, "deviceScaleFactor": 1, "mobile": True}
    managing.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", size | {"width": 360})
    find_button(managing, "⋯ Change Door").click()
    managing.execute_script("document.documentElement.style.fontSize = '200%'")
    lines, inner, outer = managing.execute_script("""
        const dialog = document.getElementById("edit");
        const words = document.createRange();
        words.selectNodeContents(document.getElementById("edit-rename"));
        return [words.getClientRects().length, dialog.scrollWidth, dialog.clientWidth];
    """)
    managing.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", size | {"width": 390})
    assert lines == 1  # the word is not broken
    assert inner <= outer


def test_a_clip_is_renamed_listened_to_replaced_and_removed(shared, web, managing, tmp_path):
    driver = managing
    store = Store(shared)
    before = list_shown(driver)
    path = shared.write_clip("spare.wav", clips.tone(440, 0.4)).path
    store.add_clip(path, "Spare")
    wait_until(lambda: list_shown(driver) == [*before, "Spare"], 20, "the clip is shown")
    find_button(driver, "⋯ Change Spare").click()
    field = driver.find_element(By.ID, "edit-name")
    field.clear()
    field.send_keys("Spare part")
    find_button(driver, "Rename").click()
    wait_until(lambda: list_shown(driver) == [*before, "Spare part"], 20, "the clip is renamed")
    assert read(driver, "result") == "The clip was renamed."
    find_button(driver, "⋯ Change Spare part").click()
    length = driver.execute_async_script("""
        const done = arguments[0];
        const audio = document.getElementById("edit-audio");
        audio.addEventListener("durationchange", () => done(audio.duration));
        audio.addEventListener("error", () => done(audio.error.message));
        audio.preload = "metadata";
        audio.load();
    """)
    assert length == pytest.approx(0.4, abs=0.01)
    other = tmp_path / "other.wav"
    clips.write_wav(other, clips.tone(700, 0.2))
    driver.find_element(By.ID, "edit-new").send_keys(str(other))
    find_button(driver, "Replace").click()
    await_text(driver, "result", "The recording was replaced.")
    assert (shared.etc / "audioclips/spare.wav").read_bytes() == other.read_bytes()
    remove_last(shared, driver, before, "Spare part")
    assert not (shared.etc / "audioclips/spare.wav").exists()


def listen(driver):
    """Makes the dialog load the clip's file, as its play button does."""
    driver.execute_script("""
        const audio = document.getElementById("edit-audio");
        audio.preload = "metadata";
        audio.load();
    """)


def test_the_dialog_says_why_a_clip_cannot_be_listened_to(shared, web, managing):
    driver = managing
    store = Store(shared)
    before = list_shown(driver)
    path = shared.write_file("spare.wav", b"no sound")
    number = store.add_clip(path, "Spare")
    wait_until(lambda: list_shown(driver) == [*before, "Spare"], 20, "the clip is shown")
    find_button(driver, "⋯ Change Spare").click()
    listen(driver)
    await_text(driver, "edit-result", "This browser cannot play the file. The device may still play it.")
    (shared.etc / "audioclips/spare.wav").unlink()
    listen(driver)
    await_text(driver, "edit-result", "The clip's file is missing.")
    store.call("RemoveConfiguration", "(i)", number)
    listen(driver)
    await_text(driver, "edit-result", "There is no such clip.")
    driver.get_log("browser")


def test_the_dialog_follows_a_daemon_that_comes_back(sandbox, tmp_path):
    sandbox.start_daemon()
    Store(sandbox).add_clip(sandbox.write_clip("door.wav", clips.tone(440, 0.1)).path, "Door")
    server = Web(sandbox).start_lighttpd()
    with open_browser(tmp_path / "browser", 390, 800) as driver:
        driver.get(server.manage_address.replace("http://", "http://mia:s3cret@"))
        find_button(driver, "⋯ Change Door").click()
        for act in (lambda: find_button(driver, "Rename").click(), lambda: listen(driver)):
            # The user is faster than the page's next request. A hidden page sends none, not even
            # after the answer to one that is on its way.
            driver.execute_script("""
                Object.defineProperty(document, "hidden", {value: true, configurable: true});
                clearTimeout(timers.poll);
            """)
            assert sandbox.daemon.stop() == 0
            driver.execute_script("delete document.hidden")
            act()
            await_text(driver, "edit-result", "The daemon cannot be reached. Try again in a moment.")
            assert not find_button(driver, "Rename").is_enabled()
            sandbox.start_daemon()
            await_text(driver, "edit-result", "")
            assert find_button(driver, "Rename").is_enabled()
    server.check()


# Returns whether the browser asks before it leaves the page.
IS_LEAVING_QUESTIONED = """
    const event = new Event("beforeunload", {cancelable: true});
    dispatchEvent(event);
    return event.defaultPrevented;
"""


def test_only_the_dialog_of_the_clip_shows_its_upload(shared, web, managing, tmp_path):
    driver = managing
    store = Store(shared)
    before = list_shown(driver)
    store.add_clip(shared.write_clip("spare.wav", clips.tone(440, 0.4)).path, "Spare")
    wait_until(lambda: list_shown(driver) == [*before, "Spare"], 20, "the clip is shown")
    file = tmp_path / "other.wav"
    clips.write_wav(file, clips.noise(300_000))
    limit = {"offline": False, "latency": 0, "downloadThroughput": -1, "uploadThroughput": 50_000}
    driver.execute_cdp_cmd("Network.enable", {})
    driver.execute_cdp_cmd("Network.emulateNetworkConditions", limit)
    progress = driver.find_element(By.ID, "edit-progress")
    try:
        find_button(driver, "⋯ Change Spare").click()
        assert not driver.execute_script(IS_LEAVING_QUESTIONED)
        driver.find_element(By.ID, "edit-new").send_keys(str(file))
        find_button(driver, "Replace").click()
        wait_until(progress.is_displayed, 20, "the upload is shown")
        for name, is_shown in (("Bell", False), ("Spare", True)):
            find_button(driver, "Close").click()
            find_button(driver, f"⋯ Change {name}").click()
            assert progress.is_displayed() == is_shown
            assert driver.execute_script(IS_LEAVING_QUESTIONED)
    finally:
        driver.execute_cdp_cmd("Network.emulateNetworkConditions", limit | {"uploadThroughput": -1})
    await_text(driver, "result", "The recording was replaced.")
    assert not driver.execute_script(IS_LEAVING_QUESTIONED)
    remove_last(shared, driver, before, "Spare")
