"""Controls a real browser that shows a page to a test."""

import contextlib
import shutil

DRIVER = "chromedriver"

# Without network traffic of its own and without the settings of the current user.
FLAGS = (
    "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--disable-dev-shm-usage", "--hide-scrollbars", "--no-proxy-server",
)


def find_browser():
    """Returns the path of the browser, or None if the browser, its driver or selenium is missing."""
    try:
        import selenium  # noqa: F401 (checks that it is installed)
    except ImportError:
        return None
    return shutil.which("chromium") if shutil.which(DRIVER) else None


@contextlib.contextmanager
def open_browser(folder, width=1100, height=900, dark=False, script=True):
    """Starts a browser with the profile in `folder`, and quits it afterwards."""
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = find_browser()
    for flag in (*FLAGS, f"--user-data-dir={folder}", f"--window-size={width},{height}"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    if not script:
        options.add_experimental_option(
            "prefs", {"profile.managed_default_content_settings.javascript": 2})
    driver = webdriver.Chrome(service=Service(shutil.which(DRIVER)), options=options)
    try:
        driver.set_page_load_timeout(60)
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})
        driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce"}]})
        yield driver
    finally:
        driver.quit()
