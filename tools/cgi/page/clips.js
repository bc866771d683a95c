/* The list of clips, and keeping it up to date. */

const SEARCH_FROM = 12; /* with fewer clips, there is no search field */
const PERIOD = 1500; /* ms between two requests for the status, which costs little */
const LIST_PERIOD = 30000; /* the same for the list if the status does not tell whether it changed */
const PATIENCE = 8000; /* ms without a status until the page says that nothing responds */

/* The row of each clip, by number, with the clip that it shows as JSON. */
const rows = new Map();

const makeRow = (clip) => {
    const word = make("span", {className: "word"});
    const button = make("button", {className: "play"}, word, make("span", {className: "hidden", textContent: ` ${titleOf(clip)}`}));
    button.addEventListener("click", () => play(clip));
    const facts = make("p");
    if (clip.missing) {
        const missing = make("span", {className: "missing", id: `missing-${clip.number}`, textContent: "File missing"});
        button.setAttribute("aria-describedby", missing.id);
        facts.append(missing, " · ");
    } else {
        facts.append(clip.length === undefined ? "unknown length"
            : make("span", {className: "length", textContent: formatLength(clip.length)}), " · ");
    }
    facts.append(make("span", {className: "hidden", textContent: "File "}),
        make("bdi", {dir: "ltr", textContent: clip.file || "no file"}));
    const buttons = make("div", {className: "buttons"}, button);
    const more = make("button", {className: "more", title: "Listen, rename, replace, remove"}, "⋯",
        make("span", {className: "hidden", textContent: ` Change ${titleOf(clip)}`}));
    if (state.changes?.folder) {
        more.addEventListener("click", () => openEditor(clip));
        buttons.append(more);
    }
    const element = make("li", {}, make("div", {className: "about"},
        make("h3", {}, make("bdi", {textContent: titleOf(clip)})), facts), buttons);
    element.dataset.file = locationOf(clip);
    return {element, button, more, word, clip, key: JSON.stringify(clip)};
};

/* Shows which clips can be played now, and which one plays. */
const markRows = () => {
    const files = state.away ? [] : listPlaying().map((output) => output.file);
    for (const row of rows.values()) {
        const isPlaying = files.includes(locationOf(row.clip));
        row.element.classList.toggle("playing", isPlaying);
        row.button.classList.toggle("instead", files.length > 0 && !isPlaying);
        setText(row.word, isPlaying ? "Restart" : files.length > 0 ? "Play instead" : "Play");
        row.button.disabled = Boolean(state.away || row.clip.missing);
    }
    for (const button of document.querySelectorAll(".more, #send, dialog .line button:not(#edit-close)")) {
        button.disabled = Boolean(state.away);
    }
};

/* Reuses the rows of unchanged clips, so that the focus stays where it is. */
const showClips = () => {
    const list = get("clips");
    const focused = document.activeElement?.closest("#clips li");
    const place = [...list.children].indexOf(focused);
    const numbers = new Set(state.clips.map((clip) => clip.number));
    for (const [number, row] of rows) {
        if (!numbers.has(number)) {
            row.element.remove();
            rows.delete(number);
        }
    }
    state.clips.forEach((clip, i) => {
        const old = rows.get(clip.number);
        const row = old?.key === JSON.stringify(clip) ? old : makeRow(clip);
        if (row !== old) {
            old?.element.remove();
            rows.set(clip.number, row);
        }
        if (list.children[i] !== row.element) {
            list.insertBefore(row.element, list.children[i] ?? null);
        }
    });
    filterClips();
    markRows();
    if (focused && !focused.isConnected) {
        /* Another clip took the place, or the last usable one before it. */
        const usable = [...list.querySelectorAll("button:enabled")];
        (usable.findLast((button) => [...list.children].indexOf(button.closest("li")) <= place) ?? usable[0])?.focus();
    }
};

/* Returns the text without the differences that a search ignores: case and accents. */
const simplify = (text) => text.normalize("NFD").replace(/\p{Mn}/gu, "").toLowerCase();

const filterClips = () => {
    const hasSearch = state.clips.length >= SEARCH_FROM;
    get("search").hidden = !hasSearch;
    const words = hasSearch ? simplify(get("search").value).split(/\s+/) : [""];
    let count = 0;
    for (const row of rows.values()) {
        const text = simplify(`${titleOf(row.clip)} ${row.clip.file}`);
        const isShown = words.every((word) => text.includes(word));
        row.element.hidden = !isShown;
        count += isShown;
    }
    get("clips").hidden = count === 0;
    get("empty").hidden = count > 0;
    get("empty-hint").hidden = state.clips.length > 0 || Boolean(state.changes?.folder);
    setText(get("empty-text"), state.clips.length > 0 ? "No clip matches." : "There are no clips yet.");
};

const takeStatus = (status) => {
    state.away = "";
    state.status = status;
    state.statusTime = performance.now();
};

const show = () => {
    showPlaying();
    showOutputs();
    markRows();
    checkMessage();
    checkEdit();
    fitTop();
};

const timers = {poll: 0, listed: performance.now()};

/* Asks what plays and, if the clips may have changed, for the list. */
const refresh = async () => {
    clearTimeout(timers.poll);
    const before = state.status.revision;
    const late = setTimeout(() => {
        state.away = UNREACHABLE;
        show();
    }, PATIENCE);
    const answer = await request("GET", {action: "status"});
    clearTimeout(late);
    if (answer.ok && answer.data) {
        takeStatus(answer.data);
        const isOld = before ? answer.data.revision !== before : performance.now() - timers.listed > LIST_PERIOD;
        if (isOld) {
            const list = await request("GET", {action: "list"});
            timers.listed = performance.now();
            if (list.ok && list.data) {
                takeStatus(list.data.status);
                state.clips = list.data.clips;
                state.changes = list.data.changes;
                showClips();
            } else {
                state.status.revision = before; /* asks for the list again next time */
            }
        }
    } else {
        state.away = answer.text;
    }
    show();
    clearTimeout(timers.poll);
    if (!document.hidden) {
        timers.poll = setTimeout(refresh, PERIOD);
    }
};
