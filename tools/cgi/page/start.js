/* Starts the page. Without script, the browser shows the plain page instead. */

/* Loads the page again as soon as the daemon can be reached. */
const waitForDaemon = async () => {
    const answer = await request("GET", {action: "status"});
    if (answer.ok) {
        location.replace(program);
    } else {
        setTimeout(waitForDaemon, 3000);
    }
};

const start = () => {
    const data = JSON.parse(get("data").textContent);
    takeStatus(data.status);
    state.clips = data.clips;
    state.changes = data.changes;
    setupTop();
    setupOptions();
    setupAdding();
    setupEditor();
    get("search").addEventListener("input", filterClips);
    get("stop").addEventListener("click", stop);
    showClips();
    show();
    get("fallback").remove();
    /* Removes the parameters from the address, so that a reload does not repeat an old result. */
    history.replaceState(null, "", location.pathname);
    document.addEventListener("visibilitychange", () => document.hidden ? clearTimeout(timers.poll) : refresh());
    timers.poll = setTimeout(refresh, PERIOD);
    setInterval(showProgress, 500);
};

if (isLive) {
    start();
} else if (document.querySelector(".error")) {
    setTimeout(waitForDaemon, 3000);
}
